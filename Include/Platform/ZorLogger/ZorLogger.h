// ZorLogger: the process's diagnostic log.
//
// Library code writes a line in three calls:
//
//     if (ZorLoggerWrapper* w = loggerWrapper(0))
//         if (w->testSeverity(sev))
//             w->createLogStream(sev, file, line, function, tag).format("...", ...);
//
// The line is handed to the installed sink when the LogStream is destroyed.
// loggerWrapper(0) is null until the host calls setupLogging(); after
// shutdownLogging() it is null again. All functions here are thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "ZorPlatformExport.h"

namespace ZOR {

class IBsLogger {
public:
    // Severities, lowest first. A threshold lets through every line whose
    // severity is at or above it; Off lets nothing through.
    enum Severity : int32_t {
        Verbose = 0,
        Trace = 1,   // control calls and task statuses
        Timing = 2,  // scoped timers
        Debug = 3,
        Info = 4,  // requests, progress, cache clearing
        Warning = 5,
        Error = 6,
        Fatal = 7,
        Off = 8,  // threshold only: nothing is written
    };

    // One finished line, as a sink receives it. The pointers are valid for the
    // duration of write() only.
    struct Record {
        Severity severity;
        std::chrono::system_clock::time_point time;
        uint64_t threadId;     // the writing thread's kernel id
        const char* tag;       // "" for ordinary lines
        const char* function;  // "ZOR::Class::method"
        const char* file;      // source path without extension
        int line;
        std::string_view text;
    };

    virtual ~IBsLogger() = default;
    // Called on the writing thread; may be called from several threads at once.
    virtual void write(const Record& record) = 0;
};

class ZorLoggerWrapper;

// A line under construction. Returned by value from createLogStream(); the
// destructor hands the line to the sink. A moved-from stream writes nothing.
class ZOR_PLATFORM_API LogStream {
public:
    LogStream(ZorLoggerWrapper* owner, IBsLogger::Severity severity, const char* file, int line, const char* function,
              const char* tag);
    LogStream(LogStream&& other) noexcept;
    LogStream(const LogStream&) = delete;
    LogStream& operator=(const LogStream&) = delete;
    LogStream& operator=(LogStream&&) = delete;
    ~LogStream();

    // printf-style formatting, appended to the line.
    LogStream& format(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    // Appends the text of a string stream (anything whose buffer is a stringbuf).
    LogStream& operator&(std::basic_ostream<char>&& stream);

    const std::string& text() const { return text_; }

private:
    ZorLoggerWrapper* owner_;
    IBsLogger::Severity severity_;
    const char* file_;
    int line_;
    const char* function_;
    const char* tag_;
    std::string text_;
};

class ZOR_PLATFORM_API ZorLoggerWrapper {
public:
    // Whether lines of this severity are written. One relaxed atomic load.
    bool testSeverity(IBsLogger::Severity severity) const;
    LogStream createLogStream(IBsLogger::Severity severity, const char* file, int line, const char* function,
                              const char* tag);

    IBsLogger::Severity threshold() const;
    void setThreshold(IBsLogger::Severity threshold);
    // Replaces the sink; lines already being written finish on the old one.
    void setSink(std::shared_ptr<IBsLogger> sink);
    std::shared_ptr<IBsLogger> sink() const;

    // Hands a finished line to the sink (used by LogStream's destructor).
    void write(const LogStream& stream, IBsLogger::Severity severity, const char* file, int line, const char* function,
               const char* tag);

    ZorLoggerWrapper();
    ~ZorLoggerWrapper();
    ZorLoggerWrapper(const ZorLoggerWrapper&) = delete;
    ZorLoggerWrapper& operator=(const ZorLoggerWrapper&) = delete;

private:
    struct State;
    State* state_;
};

// The process's logger, or null when logging is not set up. The argument is
// reserved and always 0.
ZOR_PLATFORM_API ZorLoggerWrapper* loggerWrapper(int reserved);

// Sets logging up with this sink and threshold; a valid MIRAVEL_LOG in the
// environment overrides the threshold. Returns the wrapper.
ZOR_PLATFORM_API ZorLoggerWrapper* setupLogging(std::shared_ptr<IBsLogger> sink, IBsLogger::Severity threshold);
// loggerWrapper(0) is null again afterwards; the sink is dropped once no line
// is being written to it.
ZOR_PLATFORM_API void shutdownLogging();

// Sinks: stderr, or a file (appended to). The file sink returns null and sets
// *error when the file cannot be opened.
ZOR_PLATFORM_API std::shared_ptr<IBsLogger> makeStderrLogger();
ZOR_PLATFORM_API std::shared_ptr<IBsLogger> makeFileLogger(const std::string& path, std::string* error);

// "verbose", "trace", "timing", "debug", "info", "warning" (or "warn"), "error",
// "fatal", "off", or a number 0..8; case-insensitive. Nothing for anything else.
ZOR_PLATFORM_API std::optional<IBsLogger::Severity> severityFromName(std::string_view name);
ZOR_PLATFORM_API const char* severityName(IBsLogger::Severity severity);
// The threshold MIRAVEL_LOG asks for, if it is set and valid.
ZOR_PLATFORM_API std::optional<IBsLogger::Severity> severityFromEnvironment();

// The text form of a record as the stderr and file sinks write it, without the
// final newline:
//   2026-11-21T02:33:01.123456Z 12345 info [performance] ZOR::A::b (modules/.../A:12) text
ZOR_PLATFORM_API std::string formatRecord(const IBsLogger::Record& record);

}  // namespace ZOR
