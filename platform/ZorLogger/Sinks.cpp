#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "ZorLogger/ZorLogger.h"

namespace ZOR {

std::string formatRecord(const IBsLogger::Record& record) {
    using namespace std::chrono;
    const auto sinceEpoch = record.time.time_since_epoch();
    const auto seconds = duration_cast<std::chrono::seconds>(sinceEpoch);
    const auto micros = duration_cast<microseconds>(sinceEpoch - seconds).count();
    const std::time_t asTimeT = static_cast<std::time_t>(seconds.count());
    std::tm utc{};
    gmtime_r(&asTimeT, &utc);
    char stamp[96];
    std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02dT%02d:%02d:%02d.%06lldZ", utc.tm_year + 1900, utc.tm_mon + 1,
                  utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, static_cast<long long>(micros));
    std::string line;
    line.reserve(96 + record.text.size());
    line += stamp;
    line += ' ';
    line += std::to_string(record.threadId);
    line += ' ';
    line += severityName(record.severity);
    line += " [";
    line += record.tag;
    line += "] ";
    line += record.function;
    line += " (";
    line += record.file;
    line += ':';
    line += std::to_string(record.line);
    line += ") ";
    line += record.text;
    return line;
}

namespace {

// Writes whole lines to a FILE*; one line at a time, so lines of concurrent
// writers never interleave.
class StreamLogger final : public IBsLogger {
public:
    StreamLogger(std::FILE* file, bool owned) : file_(file), owned_(owned) {}
    ~StreamLogger() override {
        if (owned_) std::fclose(file_);
    }
    StreamLogger(const StreamLogger&) = delete;
    StreamLogger& operator=(const StreamLogger&) = delete;

    void write(const Record& record) override {
        std::string line = formatRecord(record);
        line += '\n';
        std::lock_guard<std::mutex> lock(mutex_);  // alone; guards file_ writes
        std::fwrite(line.data(), 1, line.size(), file_);
        std::fflush(file_);
    }

private:
    std::mutex mutex_;
    std::FILE* file_;
    bool owned_;
};

}  // namespace

std::shared_ptr<IBsLogger> makeStderrLogger() { return std::make_shared<StreamLogger>(stderr, false); }

std::shared_ptr<IBsLogger> makeFileLogger(const std::string& path, std::string* error) {
    std::FILE* file = std::fopen(path.c_str(), "a");
    if (file == nullptr) {
        if (error) *error = path + ": " + std::strerror(errno);
        return nullptr;
    }
    return std::make_shared<StreamLogger>(file, true);
}

}  // namespace ZOR
