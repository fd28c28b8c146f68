// What the audio thumbnail builder tests share: a recording queryer, an owner
// that records notices, and a timeline with one audio track.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "AudioRecording.h"
#include "BsAudioThumbnailBuilder.h"
#include "FakeDataModel.h"
#include "ScriptedTaskService.h"

namespace ZOR::test {

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
        wave_ = makeRef<FakeWaveManager>();
        timeline_ = makeRef<FakeTimeline>();
        timeline_->addTrack(DmTrackAudio);
    }
    void TearDown() override {
        builder_.reset();
        timeline_.reset();
        wave_.reset();
    }
    BsAudioThumbnailBuilder& builder() {
        if (!builder_) builder_ = std::make_shared<BsAudioThumbnailBuilder>(&owner_, timeline_.get());
        return *builder_;
    }
    // A clip on track 0 over [begin, end) of the timeline, media from markIn.
    FakeClip* addClip(const std::string& name, int64_t markIn, int64_t begin, int64_t end, int32_t track = 0) {
        return timeline_->addClip(track, name, wave_.get(), markIn, begin, end);
    }

    RecordingCallback owner_;
    ZorRef<FakeWaveManager> wave_;
    ZorRef<FakeTimeline> timeline_;
    std::shared_ptr<BsAudioThumbnailBuilder> builder_;
};

}  // namespace ZOR::test
