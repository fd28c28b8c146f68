#include "BsWaveWorkerQueue.h"

namespace ZOR {

void BsWaveWorkerQueue::pushWaveData(int64_t clipKey, int64_t queryerKey) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        for (const WaveMessage& message : queue_)
            if (message.kind == WaveMessage::WaveData && message.first == clipKey) return;
        queue_.push_back(WaveMessage{WaveMessage::WaveData, clipKey, queryerKey, false});
    }
    signal_.notify_all();
}

void BsWaveWorkerQueue::pushTaskEnd(int64_t token, int32_t status) {
    {
        std::lock_guard<std::mutex> guard(lock_);
        queue_.push_back(WaveMessage{WaveMessage::TaskEnd, token, status, true});
    }
    signal_.notify_all();
}

void BsWaveWorkerQueue::quit() {
    {
        std::lock_guard<std::mutex> guard(lock_);
        queue_.clear();
        queue_.push_back(WaveMessage{WaveMessage::Quit, 0, 0, false});
    }
    signal_.notify_all();
}

bool BsWaveWorkerQueue::pop(std::chrono::milliseconds wait, const std::atomic<bool>& stopped, WaveMessage* message) {
    std::unique_lock<std::mutex> guard(lock_);
    signal_.wait_for(guard, wait, [&] { return !queue_.empty() || stopped.load(); });
    if (queue_.empty()) return false;
    *message = queue_.front();
    queue_.pop_front();
    return true;
}

}  // namespace ZOR
