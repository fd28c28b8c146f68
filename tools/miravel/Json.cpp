#include "Json.h"

#include <charconv>
#include <cmath>
#include <cstdio>

#include "Cli.h"
#include "ZorUtils/ZorUtils.h"

namespace miravel {

std::string jsonQuote(std::string_view text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20) {
                    char escaped[8];
                    std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
                    out += escaped;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    out += '"';
    return out;
}

void printJson(const std::string& document) {
    std::fwrite(document.data(), 1, document.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

void writeJsonFile(const std::string& path, const std::string& document) {
    const std::string text = document + "\n";
    if (const int32_t error = ZOR::writeFileAtomically(path.c_str(), text.data(), text.size()); error != 0)
        failToWrite(path, "the file", error);
}

void JsonWriter::separate() {
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (!first_.empty()) {
        if (!first_.back()) text_ += ", ";
        first_.back() = false;
    }
}

JsonWriter& JsonWriter::beginObject() {
    separate();
    text_ += '{';
    first_.push_back(true);
    return *this;
}
JsonWriter& JsonWriter::endObject() {
    first_.pop_back();
    text_ += '}';
    return *this;
}
JsonWriter& JsonWriter::beginArray() {
    separate();
    text_ += '[';
    first_.push_back(true);
    return *this;
}
JsonWriter& JsonWriter::endArray() {
    first_.pop_back();
    text_ += ']';
    return *this;
}
JsonWriter& JsonWriter::key(std::string_view name) {
    separate();
    text_ += jsonQuote(name);
    text_ += ": ";
    afterKey_ = true;
    return *this;
}
JsonWriter& JsonWriter::value(std::string_view text) {
    separate();
    text_ += jsonQuote(text);
    return *this;
}
JsonWriter& JsonWriter::value(int64_t number) {
    separate();
    text_ += std::to_string(number);
    return *this;
}
JsonWriter& JsonWriter::value(bool flag) {
    separate();
    text_ += flag ? "true" : "false";
    return *this;
}
JsonWriter& JsonWriter::null() {
    separate();
    text_ += "null";
    return *this;
}

namespace {
template <class Float>
void appendFloat(std::string& out, Float number) {
    if (!std::isfinite(number)) {  // JSON has no NaN or infinity
        out += "null";
        return;
    }
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, number);
    out.append(buffer, result.ptr);
}
}  // namespace

JsonWriter& JsonWriter::value(float number) {
    separate();
    appendFloat(text_, number);
    return *this;
}
JsonWriter& JsonWriter::value(double number) {
    separate();
    appendFloat(text_, number);
    return *this;
}

}  // namespace miravel
