// Shared pieces of the command line: arguments, errors, logging, progress.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace miravel {

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
    // flags: options that take no value ("--refresh").
    Arguments(int argc, char** argv, int first, const std::vector<std::string>& options,
              const std::vector<std::string>& flags);

    const std::vector<std::string>& positional() const { return positional_; }
    bool has(const std::string& name) const;
    std::optional<std::string> text(const std::string& name) const;
    std::string required(const std::string& name) const;
    int64_t integer(const std::string& name, int64_t fallback) const;
    int64_t requiredInteger(const std::string& name) const;
    std::vector<int64_t> integerList(const std::string& name) const;
    // "WxH" with both sides >= 1.
    std::pair<int32_t, int32_t> size(const std::string& name, std::pair<int32_t, int32_t> fallback) const;

private:
    std::map<std::string, std::string> values_;
    std::vector<std::string> positional_;
};

int64_t parseInteger(const std::string& option, const std::string& text);

// --timeout SECONDS (default 600, at least 1): how long a command waits for
// the library's answers.
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

// Releases a reference-counted object (IDmBaseObj) when the scope ends.
template <class T>
struct ReleaseOnExit {
    explicit ReleaseOnExit(T* adopted) : object(adopted) {}
    T* object;
    ~ReleaseOnExit() {
        if (object != nullptr) object->Release();
    }
    ReleaseOnExit(const ReleaseOnExit&) = delete;
    ReleaseOnExit& operator=(const ReleaseOnExit&) = delete;
};

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
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            const auto slice = std::min(deadline, std::chrono::steady_clock::now() + std::chrono::milliseconds(250));
            {
                std::unique_lock<std::mutex> lock(mutex_);
                if (changed_.wait_until(lock, slice, [this] { return done_; })) break;
            }
            if (std::chrono::steady_clock::now() >= deadline) return false;
            progress.tick();  // not under the lock: the callback need not wait for stderr
        }
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
