// What the audio thumbnail builder tests share: a recording queryer, an owner
// that records notices, and a timeline with one audio track.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "BsAudioThumbnailBuilder.h"
#include "FakeTimeline.h"
#include "ScriptedTaskService.h"

namespace ZOR::test {

struct AudioDelivery {
    IDmClip* clip = nullptr;
    int64_t begin = 0;
    int64_t end = 0;
    std::vector<float> values;
};

// Records every onAudioThumbnailData and lets the test wait for a number of
// them.
class RecordingCallback final : public IBsAudioClipThumbnailCallback {
public:
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

    // Waits (at most 20 s) until at least count deliveries arrived.
    bool waitForDeliveries(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return signal_.wait_for(lock, std::chrono::seconds(20), [&] { return deliveries_.size() >= count; });
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
    mutable std::mutex mutex_;
    std::condition_variable signal_;
    std::vector<AudioDelivery> deliveries_;
    std::vector<IDmClip*> notices_;
};

class RecordingQueryer final : public IBsAudioThumbnailQueryer {
public:
    explicit RecordingQueryer(bool ducking = true) : ducking_(ducking) {}
    IBsAudioClipThumbnailCallback* getResultCallback() override { return &callback; }
    bool isCalcDuckingEnabled() override { return ducking_; }
    RecordingCallback callback;

private:
    bool ducking_;
};

// Drains the builder's worker: a marker query on a clip of its own is
// answered after everything queued before it.
constexpr int64_t kFrame = 400'000;  // one frame at 25/1, cns
constexpr int64_t kSecond = 10'000'000;

class AudioBuilderTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetScriptedTasks();
        wave_ = new FakeWaveManager();
        wave_->AddRef();
        timeline_ = new FakeTimeline();
        timeline_->AddRef();
        timeline_->addTrack(DmTrackAudio);
    }
    void TearDown() override {
        builder_.reset();
        timeline_->Release();
        wave_->Release();
    }
    BsAudioThumbnailBuilder& builder() {
        if (!builder_) builder_ = std::make_shared<BsAudioThumbnailBuilder>(&owner_, timeline_);
        return *builder_;
    }
    // A clip on track 0 over [begin, end) of the timeline, media from markIn.
    FakeTimelineClip* addClip(const std::string& name, int64_t markIn, int64_t begin, int64_t end,
                              int32_t track = 0) {
        return timeline_->addClip(track, name, wave_, markIn, begin, end);
    }

    RecordingCallback owner_;
    FakeWaveManager* wave_ = nullptr;
    FakeTimeline* timeline_ = nullptr;
    std::shared_ptr<BsAudioThumbnailBuilder> builder_;
};

}  // namespace ZOR::test
