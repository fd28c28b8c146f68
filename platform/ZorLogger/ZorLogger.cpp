#include "ZorLogger/ZorLogger.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <sstream>
#include <utility>

namespace ZOR {

namespace {

uint64_t currentThreadId() {
    thread_local const uint64_t id = static_cast<uint64_t>(::syscall(SYS_gettid));
    return id;
}

// The one wrapper of the process. It is never destroyed, so a pointer obtained
// from loggerWrapper(0) stays usable while another thread shuts logging down.
ZorLoggerWrapper& theWrapper() {
    static ZorLoggerWrapper* wrapper = new ZorLoggerWrapper();
    return *wrapper;
}

std::atomic<bool> gActive{false};

}  // namespace

struct ZorLoggerWrapper::State {
    std::atomic<int32_t> threshold{IBsLogger::Off};
    mutable std::mutex sinkMutex;  // guards sink; taken alone, never while writing
    std::shared_ptr<IBsLogger> sink;
};

ZorLoggerWrapper::ZorLoggerWrapper() : state_(new State) {}
ZorLoggerWrapper::~ZorLoggerWrapper() { delete state_; }

bool ZorLoggerWrapper::testSeverity(IBsLogger::Severity severity) const {
    const int32_t threshold = state_->threshold.load(std::memory_order_relaxed);
    return threshold < IBsLogger::Off && severity >= threshold;
}

LogStream ZorLoggerWrapper::createLogStream(IBsLogger::Severity severity, const char* file, int line,
                                            const char* function, const char* tag) {
    return LogStream(this, severity, file, line, function, tag);
}

IBsLogger::Severity ZorLoggerWrapper::threshold() const {
    return static_cast<IBsLogger::Severity>(state_->threshold.load(std::memory_order_relaxed));
}

void ZorLoggerWrapper::setThreshold(IBsLogger::Severity threshold) {
    state_->threshold.store(threshold, std::memory_order_relaxed);
}

void ZorLoggerWrapper::setSink(std::shared_ptr<IBsLogger> sink) {
    std::shared_ptr<IBsLogger> old;
    {
        std::lock_guard<std::mutex> lock(state_->sinkMutex);
        old = std::exchange(state_->sink, std::move(sink));
    }
    // `old` is released here, outside the lock.
}

std::shared_ptr<IBsLogger> ZorLoggerWrapper::sink() const {
    std::lock_guard<std::mutex> lock(state_->sinkMutex);
    return state_->sink;
}

void ZorLoggerWrapper::write(const LogStream& stream, IBsLogger::Severity severity, const char* file, int line,
                             const char* function, const char* tag) {
    std::shared_ptr<IBsLogger> target = sink();
    if (!target) return;
    IBsLogger::Record record{severity,
                             std::chrono::system_clock::now(),
                             currentThreadId(),
                             tag ? tag : "",
                             function ? function : "",
                             file ? file : "",
                             line,
                             stream.text()};
    target->write(record);
}

ZorLoggerWrapper* loggerWrapper(int /*reserved*/) {
    return gActive.load(std::memory_order_acquire) ? &theWrapper() : nullptr;
}

ZorLoggerWrapper* setupLogging(std::shared_ptr<IBsLogger> sink, IBsLogger::Severity threshold) {
    ZorLoggerWrapper& wrapper = theWrapper();
    if (auto fromEnvironment = severityFromEnvironment()) threshold = *fromEnvironment;
    wrapper.setSink(std::move(sink));
    wrapper.setThreshold(threshold);
    gActive.store(true, std::memory_order_release);
    return &wrapper;
}

void shutdownLogging() {
    gActive.store(false, std::memory_order_release);
    ZorLoggerWrapper& wrapper = theWrapper();
    wrapper.setThreshold(IBsLogger::Off);
    wrapper.setSink(nullptr);
}

// --- LogStream --------------------------------------------------------------

LogStream::LogStream(ZorLoggerWrapper* owner, IBsLogger::Severity severity, const char* file, int line,
                     const char* function, const char* tag)
    : owner_(owner), severity_(severity), file_(file), line_(line), function_(function), tag_(tag) {}

LogStream::LogStream(LogStream&& other) noexcept
    : owner_(std::exchange(other.owner_, nullptr)),
      severity_(other.severity_),
      file_(other.file_),
      line_(other.line_),
      function_(other.function_),
      tag_(other.tag_),
      text_(std::move(other.text_)) {}

LogStream::~LogStream() {
    if (owner_ == nullptr) return;
    try {
        owner_->write(*this, severity_, file_, line_, function_, tag_);
    } catch (...) {
        // A failing sink must not take the caller down with it.
    }
}

LogStream& LogStream::format(const char* fmt, ...) {
    if (fmt == nullptr) return *this;
    char small[512];
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(small, sizeof small, fmt, args);
    va_end(args);
    if (needed >= 0) {
        if (static_cast<size_t>(needed) < sizeof small) {
            text_.append(small, static_cast<size_t>(needed));
        } else {
            const size_t at = text_.size();
            text_.resize(at + static_cast<size_t>(needed) + 1);
            std::vsnprintf(text_.data() + at, static_cast<size_t>(needed) + 1, fmt, copy);
            text_.resize(at + static_cast<size_t>(needed));
        }
    }
    va_end(copy);
    return *this;
}

LogStream& LogStream::operator&(std::basic_ostream<char>&& stream) {
    if (auto* buffer = dynamic_cast<std::stringbuf*>(stream.rdbuf())) text_ += buffer->str();
    return *this;
}

// --- Severities ---------------------------------------------------------------

namespace {
constexpr const char* kSeverityNames[] = {"verbose", "trace", "timing", "debug", "info",
                                          "warning", "error", "fatal",  "off"};
}

const char* severityName(IBsLogger::Severity severity) {
    const int32_t index = severity;
    if (index < 0 || index > IBsLogger::Off) return "unknown";
    return kSeverityNames[index];
}

std::optional<IBsLogger::Severity> severityFromName(std::string_view name) {
    std::string lower;
    for (char c : name) lower.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    if (lower.size() == 1 && lower[0] >= '0' && lower[0] <= '8')
        return static_cast<IBsLogger::Severity>(lower[0] - '0');
    if (lower == "warn") return IBsLogger::Warning;
    for (int32_t i = 0; i <= IBsLogger::Off; ++i)
        if (lower == kSeverityNames[i]) return static_cast<IBsLogger::Severity>(i);
    return std::nullopt;
}

std::optional<IBsLogger::Severity> severityFromEnvironment() {
    const char* value = std::getenv("MIRAVEL_LOG");
    if (value == nullptr || *value == '\0') return std::nullopt;
    return severityFromName(value);
}

}  // namespace ZOR
