// What a test hears from the audio clip thumbnail callbacks: the deliveries,
// and a callback that records them and the notices and lets the test wait for
// them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "Miravel/IBsClipThumbnailCallbacks.h"

namespace ZOR::test {

struct AudioDelivery {
    IDmClip* clip = nullptr;
    int64_t begin = 0;
    int64_t end = 0;
    std::vector<float> values;
};

// Waits (at most limit) on signal, with lock held on the mutex that guards
// deliveries, for a delivery of clip at index from or later; the first one,
// if one came.
template <class Delivery>
std::optional<Delivery> waitForDeliveryOf(std::unique_lock<std::mutex>& lock, std::condition_variable& signal,
                                          std::chrono::seconds limit, const std::vector<Delivery>& deliveries,
                                          IDmClip* clip, size_t from) {
    std::optional<Delivery> found;
    signal.wait_for(lock, limit, [&] {
        for (size_t i = from; i < deliveries.size(); ++i) {
            if (deliveries[i].clip == clip) {
                found = deliveries[i];
                return true;
            }
        }
        return false;
    });
    return found;
}

// Records every onAudioThumbnailNotice and onAudioThumbnailData and lets the
// test wait (at most limit) for a number of them.
class RecordingCallback : public IBsAudioClipThumbnailCallback {
public:
    explicit RecordingCallback(std::chrono::seconds limit = std::chrono::seconds(20)) : limit_(limit) {}

    int32_t onAudioThumbnailNotice(IDmClip* clip) override {
        std::lock_guard<std::mutex> lock(mutex_);
        notices_.push_back(clip);
        signal_.notify_all();
        return 0;
    }
    int32_t onAudioThumbnailChanged(IDmClip*) override { return 0; }
    int32_t onAudioThumbnailData(IDmClip* clip, int64_t begin, int64_t end, const float* samples,
                                 int32_t count) override {
        AudioDelivery delivery{clip, begin, end, std::vector<float>(samples, samples + count)};
        std::lock_guard<std::mutex> lock(mutex_);
        deliveries_.push_back(std::move(delivery));
        signal_.notify_all();
        return 0;
    }

    // Waits until at least count deliveries arrived.
    bool waitForDeliveries(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return signal_.wait_for(lock, limit_, [&] { return deliveries_.size() >= count; });
    }
    // Waits until at least count notices arrived.
    bool waitForNotices(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return signal_.wait_for(lock, limit_, [&] { return notices_.size() >= count; });
    }
    std::vector<AudioDelivery> deliveries() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return deliveries_;
    }
    std::vector<IDmClip*> notices() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return notices_;
    }

private:
    const std::chrono::seconds limit_;
    mutable std::mutex mutex_;  // leaf: guards the two lists
    std::condition_variable signal_;
    std::vector<AudioDelivery> deliveries_;
    std::vector<IDmClip*> notices_;
};

}  // namespace ZOR::test
