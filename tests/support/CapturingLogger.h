// A log sink for tests: installs itself as the process's logger and keeps
// every line it is given.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ZorLogger/ZorLogger.h"

namespace ZOR::test {

struct CapturedLine {
    IBsLogger::Severity severity;
    std::string tag;
    std::string function;
    std::string file;
    int line;
    std::string text;
    uint64_t threadId;
};

class CapturingSink final : public IBsLogger {
public:
    void write(const Record& record) override {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back({record.severity, record.tag, record.function, record.file, record.line,
                          std::string(record.text), record.threadId});
    }
    std::vector<CapturedLine> lines() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return lines_;
    }
    std::vector<std::string> texts() const {
        std::vector<std::string> out;
        for (const CapturedLine& line : lines()) out.push_back(line.text);
        return out;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::vector<CapturedLine> lines_;
};

// Sets logging up with a capturing sink for the lifetime of the object; the
// threshold is set explicitly, whatever MIRAVEL_LOG says.
class ScopedCapture {
public:
    explicit ScopedCapture(IBsLogger::Severity threshold = IBsLogger::Verbose)
        : sink_(std::make_shared<CapturingSink>()) {
        wrapper_ = setupLogging(sink_, threshold);
        wrapper_->setThreshold(threshold);
    }
    ~ScopedCapture() { shutdownLogging(); }
    ScopedCapture(const ScopedCapture&) = delete;
    ScopedCapture& operator=(const ScopedCapture&) = delete;

    CapturingSink& sink() { return *sink_; }
    ZorLoggerWrapper& wrapper() { return *wrapper_; }

private:
    std::shared_ptr<CapturingSink> sink_;
    ZorLoggerWrapper* wrapper_;
};

}  // namespace ZOR::test
