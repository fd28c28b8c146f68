// Shared pieces of the command line: arguments, errors, logging, progress.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Limits.h"

namespace miravel {

struct CommandSpec;

// A usage error: exit code 2, with the usage text.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Any other failure: exit code 1, one line.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// "--name value" options and positional arguments of one command.
class Arguments {
public:
    // The options and flags ("--refresh", no value) of command, from the
    // command table; "--help" anywhere asks for the command's usage
    // (HelpRequested).
    Arguments(int argc, char** argv, int first, const CommandSpec& command);

    const std::vector<std::string>& positional() const { return positional_; }
    bool has(const std::string& name) const;
    std::optional<std::string> text(const std::string& name) const;
    std::string required(const std::string& name) const;
    // Whole numbers within limit (UsageError naming the option otherwise).
    int64_t integer(const std::string& name, const Limit& limit, int64_t fallback) const;
    int64_t requiredInteger(const std::string& name, const Limit& limit) const;
    // A number within limit, fractions allowed.
    double number(const std::string& name, const Limit& limit, double fallback) const;
    // "T1,T2,...": times within limits::time, as many as limits::timeCount.
    std::vector<int64_t> times(const std::string& name) const;
    // "WxH": a picture within limits::side and limits::pictureBytes.
    std::pair<int32_t, int32_t> size(const std::string& name, std::pair<int32_t, int32_t> fallback) const;

private:
    std::map<std::string, std::string> values_;
    std::vector<std::string> positional_;
};

// A whole number within limit; UsageError "<option> needs a whole number
// from <min> to <max>[ unit], not '<text>'".
int64_t boundedInteger(const std::string& option, const std::string& text, const Limit& limit);

// Whether width x height is a picture the limits take.
bool pictureAllowed(int64_t width, int64_t height);

// The text with control characters escaped ("\n", "\t", "\x1b"), so that a
// message stays on one line whatever the paths in it hold.
std::string printable(std::string_view text);

// Failure: "<path>: cannot write <what>: <cause in words>".
[[noreturn]] void failToWrite(const std::string& path, const std::string& what, int32_t error);

// Creates the folder when missing and checks that files can be written in
// it; Failure naming it and the cause when not. what: what goes there, for
// the message ("the frame store").
void requireWritableFolder(const std::string& folder, const std::string& what);

// Why files are missing from a folder: the latest failed write there, or
// what a fresh check of the folder finds. 0 when neither says anything.
int32_t writeProblemIn(const std::string& folder);

// Runs work (returning the command's JSON document); a std::bad_alloc on the
// way becomes Failure "<file>: out of memory".
template <class Work>
std::string namingOutOfMemory(const std::string& file, Work&& work) {
    try {
        return work();
    } catch (const std::bad_alloc&) {
        throw Failure(file + ": out of memory");
    }
}

// --timeout SECONDS (default 600, within limits::timeout): how long a command
// waits for the library's answers.
std::chrono::seconds commandTimeout(const Arguments& arguments);

// Sets the library's logging up from --log / --log-file / MIRAVEL_LOG.
void setupCommandLogging(const Arguments& arguments);

// Sends the FFmpeg libraries' own messages (those of the platform libraries
// that decode, and of the demo's encoders) to the library's logging instead
// of stderr: FFmpeg errors at warning severity, its warnings at debug, the
// rest below. Nothing is written when logging is not set up.
void routeFfmpegLogging();

// A progress line on stderr: a bar with the seconds spent when stderr is a
// terminal, otherwise a line at each tenth of the way. finish() ends the line.
class Progress {
public:
    explicit Progress(std::string label);
    void update(double fraction);
    // Redraws the bar when the seconds spent changed (waits without news).
    void tick();
    void finish();
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

private:
    int64_t seconds() const;  // since the start
    void draw(int percent);

    std::string label_;
    bool terminal_;
    std::chrono::steady_clock::time_point started_;
    int lastShown_ = -1;
    int64_t lastSeconds_ = -1;
    bool finished_ = false;
};

// The one wait of the command line: calls check() (which may update the
// progress bar, and throw) until it says true, sleeping between calls with
// sleep(until) for at most a slice, so that the bar's seconds tick even
// without news; false once the deadline has passed. Neither is called with a
// lock of this function held.
template <class Check, class Sleep>
bool waitWithProgress(std::chrono::steady_clock::time_point deadline, Progress& progress, Check check, Sleep sleep) {
    constexpr auto kSlice = std::chrono::milliseconds(250);
    for (;;) {
        if (check()) return true;
        const auto now = std::chrono::steady_clock::now();
        if (now >= deadline) return false;
        sleep(std::min(deadline, now + kSlice));
        progress.tick();
    }
}

// Lets the command's thread wait for the end of a request that a callback
// reports on another thread. The callback fills its result under lock() and
// calls finish(); the command reads it after wait() returned true.
class Completion {
public:
    std::unique_lock<std::mutex> lock() { return std::unique_lock<std::mutex>(mutex_); }
    // Call with the lock from lock() held.
    void finish() {
        done_ = true;
        changed_.notify_all();
    }
    // False when the request did not end within the limit. The progress bar
    // goes from 0 to 100% at the end, its seconds running meanwhile.
    bool wait(std::chrono::seconds limit, Progress& progress) {
        progress.update(0.0);
        const bool ended = waitWithProgress(
            std::chrono::steady_clock::now() + limit, progress,
            [this] {
                std::lock_guard<std::mutex> lock(mutex_);
                return done_;
            },
            [this](std::chrono::steady_clock::time_point until) {
                std::unique_lock<std::mutex> lock(mutex_);
                changed_.wait_until(lock, until, [this] { return done_; });
            });
        if (!ended) return false;
        progress.update(1.0);
        progress.finish();
        return true;
    }

private:
    std::mutex mutex_;  // guards done_ and what the callback fills in
    std::condition_variable changed_;
    bool done_ = false;
};

}  // namespace miravel
