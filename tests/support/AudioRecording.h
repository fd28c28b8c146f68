// What a test hears from the audio clip thumbnail callbacks: the deliveries,
// and a callback that records them and the notices and lets the test wait for
// them.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "CallRecorder.h"
#include "Miravel/IBsClipThumbnailCallbacks.h"

namespace ZOR::test {

struct AudioDelivery {
    IDmClip* clip = nullptr;
    int64_t begin = 0;
    int64_t end = 0;
    std::vector<float> values;
};

// The first delivery of clip at index from or later among deliveries, once
// it came (at most kGenerous).
inline std::optional<AudioDelivery> waitForDeliveryOf(const CallRecorder<AudioDelivery>& deliveries, IDmClip* clip,
                                                      size_t from) {
    return deliveries.waitForFirst([clip](const AudioDelivery& delivery) { return delivery.clip == clip; }, from);
}

// Records every onAudioThumbnailNotice and onAudioThumbnailData and lets the
// test wait for a number of them.
class RecordingCallback : public IBsAudioClipThumbnailCallback {
public:
    int32_t onAudioThumbnailNotice(IDmClip* clip) override {
        notices_.record(clip);
        return 0;
    }
    int32_t onAudioThumbnailChanged(IDmClip*) override { return 0; }
    int32_t onAudioThumbnailData(IDmClip* clip, int64_t begin, int64_t end, const float* samples,
                                 int32_t count) override {
        deliveries_.record(AudioDelivery{clip, begin, end, std::vector<float>(samples, samples + count)});
        return 0;
    }

    // Waits until at least count deliveries arrived.
    bool waitForDeliveries(size_t count, std::chrono::milliseconds limit = kGenerous) {
        return deliveries_.waitForCount(count, limit);
    }
    // Waits until at least count notices arrived.
    bool waitForNotices(size_t count) { return notices_.waitForCount(count); }
    std::vector<AudioDelivery> deliveries() const { return deliveries_.snapshot(); }
    std::vector<IDmClip*> notices() const { return notices_.snapshot(); }

private:
    CallRecorder<AudioDelivery> deliveries_;
    CallRecorder<IDmClip*> notices_;
};

}  // namespace ZOR::test
