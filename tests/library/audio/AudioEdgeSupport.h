// What the edge-case tests of the audio thumbnail builder and its sample cache
// share: lists for onAudioChanged, a callback that can hold
// the worker inside a delivery, and a fixture with a marker clip that tells
// when the worker has processed everything queued before it.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "AudioBuilderFixture.h"
#include "BsDataStructure/BsDataStructure.h"
#include "CapturingLogger.h"

namespace ZOR::test {

inline ZorRef<FakeClipList> clipList(std::initializer_list<IDmClip*> clips) {
    auto list = makeRef<FakeClipList>();
    for (IDmClip* clip : clips) list->append(clip);
    return list;
}

inline ZorRef<IZORIntList> intList(std::initializer_list<int32_t> values) {
    auto list = ZorRef<IZORIntList>::adopt(createZORIntList());
    for (int32_t value : values) list->append(value);
    return list;
}

// The pointer as the builder prints it (%llx).
inline std::string hexText(const void* pointer) {
    return string_sprintf("%llx", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pointer)));
}

// The default value of the fake wave manager at (frame, k).
inline float waveValue(int32_t frame, int32_t k) { return FakeWaveManager::defaultValue(frame, k); }

// The captured lines with exactly this text.
inline std::vector<CapturedLine> linesWithText(const CapturingSink& sink, const std::string& text) {
    std::vector<CapturedLine> found;
    for (const CapturedLine& line : sink.lines())
        if (line.text == text) found.push_back(line);
    return found;
}

// Records like RecordingCallback; its first delivery waits (at most 20 s)
// until open() is called, holding the builder's worker inside the call.
class GateCallback final : public IBsAudioClipThumbnailCallback {
public:
    GateCallback() : opened_(open_.get_future().share()) {}
    ~GateCallback() { open(); }
    GateCallback(const GateCallback&) = delete;
    GateCallback& operator=(const GateCallback&) = delete;

    int32_t onAudioThumbnailNotice(IDmClip*) override { return 0; }
    int32_t onAudioThumbnailChanged(IDmClip*) override { return 0; }
    int32_t onAudioThumbnailData(IDmClip*, int64_t, int64_t, const float*, int32_t) override {
        bool first = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            first = ++calls_ == 1;
        }
        if (!first) return 0;
        entered_.set_value();
        opened_.wait_for(std::chrono::seconds(20));
        return 0;
    }

    // Whether the first delivery has begun within 20 s.
    bool waitEntered() { return enteredFuture_.wait_for(std::chrono::seconds(20)) == std::future_status::ready; }
    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!isOpen_) open_.set_value();
        isOpen_ = true;
    }
    int32_t calls() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }

private:
    mutable std::mutex mutex_;
    int32_t calls_ = 0;
    bool isOpen_ = false;
    std::promise<void> entered_;
    std::future<void> enteredFuture_ = entered_.get_future();
    std::promise<void> open_;
    std::shared_future<void> opened_;
};

class GateQueryer final : public IBsAudioThumbnailQueryer {
public:
    IBsAudioClipThumbnailCallback* getResultCallback() override { return &callback; }
    bool isCalcDuckingEnabled() override { return true; }
    GateCallback callback;
};

// The builder fixture with a second audio track holding a marker clip on a
// wave manager of its own (all frames held).
class AudioEdgeTest : public AudioBuilderTest {
protected:
    void SetUp() override {
        AudioBuilderTest::SetUp();
        markerWave_ = makeRef<FakeWaveManager>();
        timeline_->addTrack(DmTrackAudio);
        markerClip_ = timeline_->addClip(1, "marker", markerWave_.get(), 0, 0, kSecond);
    }
    void TearDown() override {
        AudioBuilderTest::TearDown();
        markers_.clear();
        markerWave_.reset();
    }

    // Returns once the builder's worker has processed everything queued before
    // this call, and what that queued in turn: a new queryer of the marker
    // clip is answered after it. Two rounds, since the worker itself queues
    // the wave data message of a task report, possibly behind the first
    // marker.
    ::testing::AssertionResult drainWorker() { return drainWorker(builder()); }
    ::testing::AssertionResult drainWorker(BsAudioThumbnailBuilder& target) {
        for (int round = 0; round < 2; ++round) {
            markers_.push_back(std::make_unique<RecordingQueryer>());
            RecordingQueryer& marker = *markers_.back();
            if (target.queryAudioThumbnailData(&marker, markerClip_, 0, kSecond, 1) != 0)
                return ::testing::AssertionFailure() << "the marker query was refused";
            if (!marker.callback.waitForDeliveries(1))
                return ::testing::AssertionFailure() << "the marker query was not answered";
        }
        return ::testing::AssertionSuccess();
    }

    ZorRef<FakeWaveManager> markerWave_;
    FakeClip* markerClip_ = nullptr;
    // Kept until the builder is gone: the builder keeps their requests.
    std::vector<std::unique_ptr<RecordingQueryer>> markers_;
};

}  // namespace ZOR::test
