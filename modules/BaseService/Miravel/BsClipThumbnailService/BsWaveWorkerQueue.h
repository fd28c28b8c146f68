// The audio thumbnail builder's message queue: what the task service's
// threads and the clients' threads hand to the builder's worker thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>

namespace ZOR {

// An item of the worker's queue.
struct WaveMessage {
    enum Kind : int32_t { Quit = 0, TaskEnd = 1, WaveData = 3 };
    int32_t kind = Quit;
    int64_t first = 0;   // TaskEnd: the token; WaveData: the clip's key
    int64_t second = 0;  // TaskEnd: the status; WaveData: the queryer's key
    bool flag = false;   // true for TaskEnd, false for WaveData
};

class BsWaveWorkerQueue {
public:
    // Queues a WaveData message for the clip, unless one for the same clip is
    // waiting already (one per clip at a time, whichever queryer it is for).
    void pushWaveData(int64_t clipKey, int64_t queryerKey);
    // Queues the end of a task's request.
    void pushTaskEnd(int64_t token, int32_t status);
    // Drops what is waiting and queues Quit.
    void quit();
    // Waits up to `wait` for a message, or until stopped is set; true with
    // *message taken from the front, false when the wait ended with nothing.
    bool pop(std::chrono::milliseconds wait, const std::atomic<bool>& stopped, WaveMessage* message);

private:
    std::mutex lock_;  // alone or innermost: guards queue_
    std::condition_variable signal_;
    std::list<WaveMessage> queue_;
};

}  // namespace ZOR
