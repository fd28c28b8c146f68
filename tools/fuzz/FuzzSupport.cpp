#include "FuzzSupport.h"

#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>

extern "C" {
#include <libavutil/log.h>
}

#include "DataModel/DmCache.h"
#include "DataModel/DmMedia.h"
#include "FuzzRoads.h"
#include "ZorLogger/ZorLogger.h"
#include "ZorUtils/ZorUtils.h"

namespace ZOR::fuzz {

namespace {

// Formats every line (the text may come from the input) and drops it.
class DroppingLogger final : public IBsLogger {
public:
    void write(const Record& record) override {
        sink_.fetch_xor(static_cast<uint32_t>(record.text.size()), std::memory_order_relaxed);
    }

private:
    std::atomic<uint32_t> sink_{0};  // written from any thread
};

std::string& scratchFolder() {
    static std::string folder;
    return folder;
}

void removeScratchFolder() {
    std::error_code ignored;
    if (!scratchFolder().empty()) std::filesystem::remove_all(scratchFolder(), ignored);
}

}  // namespace

void prepareProcess() {
    static std::once_flag once;
    std::call_once(once, [] {
        av_log_set_level(AV_LOG_QUIET);
        setupLogging(std::make_shared<DroppingLogger>(), IBsLogger::Debug);
        setWaveStoreSwitch(0);
        const char* tmp = std::getenv("TMPDIR");
        std::string base = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
        scratchFolder() = base + "/miravel-fuzz-" + std::to_string(::getpid());
        std::error_code ignored;
        std::filesystem::create_directories(scratchFolder(), ignored);
        std::atexit(removeScratchFolder);
    });
}

std::string scratchFile(const char* name, const uint8_t* data, size_t size) {
    prepareProcess();
    const std::string path = scratchFolder() + "/" + name;
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return {};
    const bool written = size == 0 || std::fwrite(data, 1, size, file) == size;
    if (std::fclose(file) != 0 || !written) return {};
    return path;
}

MemoryMedia::MemoryMedia(std::string path, const uint8_t* data, size_t size) : path_(std::move(path)) {
    prepareProcess();
    setMemoryMedia(path_.c_str(), data, size);
}

MemoryMedia::~MemoryMedia() {
    clearMemoryMedia(path_.c_str());
    // A failure noted for the path would otherwise answer for the next input.
    forgetMediaFailures(path_.c_str());
}

void tell(const char* format, ...) {
    static const bool verbose = std::getenv("MIRAVEL_FUZZ_VERBOSE") != nullptr;
    if (!verbose) return;
    std::va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    std::fputc('\n', stderr);
}

uint32_t touch(const unsigned char* bytes, size_t size) {
    uint32_t sum = 0;
    for (size_t i = 0; i < size; ++i) sum += bytes[i];
    return sum;
}

}  // namespace ZOR::fuzz
