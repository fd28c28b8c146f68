// A client of the installed Miravel package: uses the library and each
// platform library through the installed headers, and reports what is wrong
// on stderr with a non-zero exit status. Prints "consumer ok" on success.
#include "Miravel/Miravel.h"
#include "ZorLogger/ZorLogger.h"
#include "BsDataStructure/BsDataStructure.h"
#include "DataModel/DmTime.h"
#include "Common/ZorInternalComUtility.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

ZOR_LOG_SOURCE("tests/install/consumer/main")

namespace {

int gFailures = 0;

void fail(const std::string& what) {
    std::fprintf(stderr, "consumer: %s\n", what.c_str());
    ++gFailures;
}

// Keeps every line the logger hands it.
class CapturingSink final : public ZOR::IBsLogger {
public:
    struct Line {
        Severity severity;
        std::string function;
        std::string file;
        std::string tag;
        std::string text;
    };

    void write(const Record& record) override {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back({record.severity, record.function, record.file, record.tag, std::string(record.text)});
    }

    std::vector<Line> lines() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<Line> lines_;
};

void checkPropertyKey() {
    const char* key = ZOR::ClipThumbnailKey::enableCalcDucking;
    if (key == nullptr)
        fail("ClipThumbnailKey::enableCalcDucking is null");
    else if (std::strcmp(key, "enableCalcDucking") != 0)
        fail(std::string("ClipThumbnailKey::enableCalcDucking is \"") + key + "\"");
}

void checkLonglongList() {
    ZOR::IZORLonglongList* list = createZORLonglongList();
    if (list == nullptr) {
        fail("createZORLonglongList() returned null");
        return;
    }
    const int64_t values[] = {7, -3, int64_t{1} << 40};
    for (int64_t value : values) list->append(value);
    if (list->count() != 3) fail("the list counts " + std::to_string(list->count()) + " values, not 3");
    for (int32_t i = 0; i < 3; ++i)
        if (list->get(i) != values[i]) fail("list value " + std::to_string(i) + " is " + std::to_string(list->get(i)));
    if (list->queryInterface("IZORLonglongList") != static_cast<void*>(list))
        fail("queryInterface(\"IZORLonglongList\") does not answer the list");
    const int32_t released = list->Release();
    if (released != 0) fail("the last Release() returned " + std::to_string(released) + ", not 0");
}

void checkTime() {
    const int64_t frame = ZOR::frameFromCnsTime(ZOR::DmRational{25, 1}, 400000);
    if (frame != 1) fail("frameFromCnsTime(25/1, 400000) is " + std::to_string(frame) + ", not 1");
}

void checkSizes() {
    int width = 0;
    int height = 0;
    if (!ZOR::adjust(1080, 1920, 320, 180, &width, &height) || width != 101 || height != 180)
        fail("adjust(1080x1920 into 320x180) gave " + std::to_string(width) + "x" + std::to_string(height) +
             ", not 101x180");
}

void checkLogging() {
    auto sink = std::make_shared<CapturingSink>();
    ZOR::ZorLoggerWrapper* wrapper = ZOR::setupLogging(sink, ZOR::IBsLogger::Info);
    if (wrapper == nullptr || ZOR::loggerWrapper(0) != wrapper) {
        fail("setupLogging() did not install the logger");
        ZOR::shutdownLogging();
        return;
    }
    wrapper->setThreshold(ZOR::IBsLogger::Info);  // whatever MIRAVEL_LOG says
    ZOR_LOG(3, "ZOR::Consumer::checkLogging", "below the threshold %d", 1);
    ZOR_LOG(4, "ZOR::Consumer::checkLogging", "consumer line %d of %s", 42, "the client");
    ZOR::shutdownLogging();
    if (ZOR::loggerWrapper(0) != nullptr) fail("loggerWrapper(0) is not null after shutdownLogging()");

    const std::vector<CapturingSink::Line> lines = sink->lines();
    if (lines.size() != 1) {
        fail("the sink received " + std::to_string(lines.size()) + " lines, not 1");
        return;
    }
    const CapturingSink::Line& line = lines[0];
    if (line.text != "consumer line 42 of the client") fail("logged text is \"" + line.text + "\"");
    if (line.severity != ZOR::IBsLogger::Info)
        fail("logged severity is " + std::to_string(static_cast<int>(line.severity)));
    if (line.function != "ZOR::Consumer::checkLogging") fail("logged function is \"" + line.function + "\"");
    if (line.file != "tests/install/consumer/main") fail("logged file is \"" + line.file + "\"");
    if (!line.tag.empty()) fail("logged tag is \"" + line.tag + "\"");
}

}  // namespace

int main() {
    checkPropertyKey();
    checkLonglongList();
    checkTime();
    checkSizes();
    checkLogging();
    if (gFailures != 0) {
        std::fprintf(stderr, "consumer: %d check(s) failed\n", gFailures);
        return 1;
    }
    std::printf("consumer ok\n");
    return 0;
}
