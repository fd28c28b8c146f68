#include "Json.h"

#include <charconv>
#include <cmath>
#include <cstdio>

#include "Cli.h"
#include "ZorUtils/ZorUtils.h"

namespace miravel {

namespace {

// The length of the well-formed UTF-8 sequence at text[i] (1 to 4), or 0 when
// the bytes there are not one (a stray continuation byte, a truncated or
// overlong sequence, a surrogate, past U+10FFFF).
size_t utf8Length(std::string_view text, size_t i) {
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    if (lead < 0x80) return 1;
    size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (i + length > text.size()) return 0;
    if (byte(i + 1) < low || byte(i + 1) > high) return 0;
    for (size_t k = 2; k < length; ++k)
        if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return 0;
    return length;
}

}  // namespace

std::string jsonQuote(std::string_view text) {
    std::string out = "\"";
    for (size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        switch (c) {
            case '"':
                out += "\\\"";
                ++i;
                continue;
            case '\\':
                out += "\\\\";
                ++i;
                continue;
            case '\n':
                out += "\\n";
                ++i;
                continue;
            case '\r':
                out += "\\r";
                ++i;
                continue;
            case '\t':
                out += "\\t";
                ++i;
                continue;
            default:
                break;
        }
        if (c < 0x20 || c == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
            ++i;
            continue;
        }
        // JSON text is UTF-8: a byte that is not part of a well-formed
        // sequence (a file name in another encoding) becomes U+FFFD.
        const size_t length = utf8Length(text, i);
        if (length == 0) {
            out += "\\ufffd";
            ++i;
            continue;
        }
        out.append(text.substr(i, length));
        i += length;
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
