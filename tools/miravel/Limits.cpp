#include "Limits.h"

#include <cstdio>

namespace miravel {

std::string rangeText(const Limit& limit) {
    std::string text = "from ";
    text += std::to_string(limit.min);
    text += " to ";
    text += std::to_string(limit.max);
    if (*limit.unit != '\0') {
        text += ' ';
        text += limit.unit;
    }
    return text;
}

std::string limitsText() {
    std::string text = "limits (a number outside them is refused before any work):\n";
    for (const Limit* limit : limits::all) {
        char line[512];
        std::snprintf(line, sizeof line, "  %-58s %s (%s)\n", limit->name, rangeText(*limit).c_str(), limit->commands);
        text += line;
    }
    return text;
}

}  // namespace miravel
