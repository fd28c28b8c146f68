// Serves a file's bytes through a named pipe, one reader after the other, so a
// test can hold a decoder in the middle of a file: after `gateBytes` bytes of
// reader number `gatedReader` (counted from 1) the server waits until the
// test opens the gate.
//
// Every reader gets a pipe of its own: as soon as one opens the path, a fresh
// pipe is renamed over it for the next one. (With a single pipe, a reader
// that opens right after another closed could receive the rest of the bytes
// meant for the first.)
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ZOR::test {

class PipeServer {
public:
    PipeServer(std::string path, std::vector<char> content, int gatedReader, size_t gateBytes)
        : path_(std::move(path)), content_(std::move(content)), gatedReader_(gatedReader), gateBytes_(gateBytes) {
        std::signal(SIGPIPE, SIG_IGN);  // a reader that goes away shows as EPIPE
        ::unlink(path_.c_str());
        created_ = ::mkfifo(path_.c_str(), 0600) == 0;
        if (created_) {
            std::lock_guard<std::mutex> guard(lock_);
            ++waiting_;
            sessions_.emplace_back([this] { serve(); });
        }
    }
    ~PipeServer() {
        openGate();
        std::vector<std::thread> sessions;
        int fd = -1;
        {
            // Under the lock no session swaps the pipe: the one waiting for a
            // reader waits on the pipe opened here, and takes it as its reader.
            std::unique_lock<std::mutex> guard(lock_);
            stop_.store(true);
            fd = ::open(path_.c_str(), O_RDONLY | O_NONBLOCK);
            changed_.wait(guard, [this] { return waiting_ == 0; });
            sessions.swap(sessions_);
        }
        if (fd >= 0) ::close(fd);
        for (std::thread& session : sessions) session.join();
        ::unlink(path_.c_str());
    }
    PipeServer(const PipeServer&) = delete;
    PipeServer& operator=(const PipeServer&) = delete;

    bool created() const { return created_; }

    // Waits until the gated reader has been given gateBytes bytes.
    bool waitAtGate(std::chrono::seconds limit) {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, limit, [this] { return atGate_; });
    }
    void openGate() {
        {
            std::lock_guard<std::mutex> guard(lock_);
            gateOpen_ = true;
        }
        changed_.notify_all();
    }

private:
    // One reader's session: wait for it, put a fresh pipe in place for the
    // next one, then write.
    void serve() {
        const int fd = ::open(path_.c_str(), O_WRONLY);  // waits for a reader
        int reader = 0;
        {
            std::lock_guard<std::mutex> guard(lock_);
            --waiting_;
            reader = ++readers_;
            if (fd >= 0 && !stop_.load()) {
                const std::string fresh = path_ + ".next";
                ::unlink(fresh.c_str());
                if (::mkfifo(fresh.c_str(), 0600) == 0 && ::rename(fresh.c_str(), path_.c_str()) == 0) {
                    ++waiting_;
                    sessions_.emplace_back([this] { serve(); });
                }
            }
        }
        changed_.notify_all();
        if (fd < 0) return;
        size_t written = 0;
        while (written < content_.size() && !stop_.load()) {
            if (reader == gatedReader_ && written >= gateBytes_) {
                std::unique_lock<std::mutex> guard(lock_);
                atGate_ = true;
                changed_.notify_all();
                changed_.wait(guard, [this] { return gateOpen_; });
            }
            const size_t limit = reader == gatedReader_ && written < gateBytes_ ? gateBytes_ : content_.size();
            const size_t chunk = std::min<size_t>(4096, limit - written);
            const ssize_t result = ::write(fd, content_.data() + written, chunk);
            if (result < 0) {
                if (errno == EINTR) continue;
                break;  // the reader went away
            }
            written += static_cast<size_t>(result);
        }
        ::close(fd);
    }

    const std::string path_;
    const std::vector<char> content_;
    const int gatedReader_;
    const size_t gateBytes_;
    bool created_ = false;
    std::atomic<bool> stop_{false};
    std::mutex lock_;  // guards everything below
    std::condition_variable changed_;
    std::vector<std::thread> sessions_;
    int waiting_ = 0;  // sessions started and not yet given a reader
    int readers_ = 0;
    bool atGate_ = false;
    bool gateOpen_ = false;
};

}  // namespace ZOR::test
