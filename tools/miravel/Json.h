// A small JSON writer for the command line's results. Floats are written in
// their shortest form that reads back to the same value.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace miravel {

class JsonWriter {
public:
    JsonWriter& beginObject();
    JsonWriter& endObject();
    JsonWriter& beginArray();
    JsonWriter& endArray();
    JsonWriter& key(std::string_view name);
    JsonWriter& value(std::string_view text);
    JsonWriter& value(const char* text) { return value(std::string_view(text)); }
    JsonWriter& value(int64_t number);
    JsonWriter& value(int32_t number) { return value(static_cast<int64_t>(number)); }
    JsonWriter& value(uint32_t number) { return value(static_cast<int64_t>(number)); }
    JsonWriter& value(float number);
    JsonWriter& value(double number);
    JsonWriter& value(bool flag);
    JsonWriter& null();

    const std::string& text() const { return text_; }

private:
    void separate();
    std::string text_;
    std::vector<bool> first_;  // per open container: nothing written in it yet
    bool afterKey_ = false;
};

std::string jsonQuote(std::string_view text);

// Prints a command's result: the document and a line end on stdout.
void printJson(const std::string& document);

// Writes a document and a line end to path, whole (ZOR::writeFileAtomically),
// so that no reader sees a partial file. Throws Failure naming the file and
// the cause.
void writeJsonFile(const std::string& path, const std::string& document);

}  // namespace miravel
