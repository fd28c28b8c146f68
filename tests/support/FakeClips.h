// Clips for tests of the library: reference counted like the data model's,
// with scripted audio and video features.
#pragma once

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"

namespace ZOR::test {

// The IDmClip part shared by the fakes.
class FakeClipBase : public RefCnt<void>, public virtual IDmClip {
public:
    ZOR_IMPLEMENT_REFCNT

    explicit FakeClipBase(int32_t type) : type_(type) {}
    int32_t clipType() override { return type_; }
    IDmTimeline* timeline() override { return nullptr; }
    IDmTrack* track() override { return nullptr; }
    const char* clipId() override { return "fake"; }
    int32_t mediaId(char* buffer, int32_t size) override {
        zor_strcpy(buffer, static_cast<size_t>(size), "fake-media");
        return 0;
    }
    const char* name() override { return "fake"; }
    IDmEffect* effect(int32_t) override { return nullptr; }
    IDmBaseObj* feature(int32_t, int32_t) override { return nullptr; }
    IDmAttachedItemList* attachedItems() override { return nullptr; }

    static std::atomic<int>& destroyed() {
        static std::atomic<int> count{0};
        return count;
    }
    ~FakeClipBase() override { destroyed().fetch_add(1); }

private:
    int32_t type_;
};

// A clip with no feature.
class FakePlainClip final : public FakeClipBase {
public:
    FakePlainClip() : FakeClipBase(3) {}
    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IDmClip", static_cast<IDmClip*>(this));
    }
};

// An audio clip whose wave values are value(frame, k) = frame + k / 1000.
class FakeAudioClip final : public FakeClipBase, public virtual IDmAudioFeature {
public:
    FakeAudioClip() : FakeClipBase(2) {}
    void* queryInterface(const char* name) override {
        if (name != nullptr && std::strcmp(name, "IDmAudioFeature") == 0)
            return static_cast<IDmAudioFeature*>(this);
        return zorQueryInterface(name, "IDmClip", static_cast<IDmClip*>(this));
    }
    int32_t audioStreamIndex() override { return 0; }
    int32_t sampleRate() override { return 48000; }
    int32_t channelCount() override { return 2; }
    int32_t getProperty(const char*, ZorProperty*) override { return 1001; }
    int32_t setProperty(const char*, const ZorProperty&) override { return 1001; }
    int64_t sourcePosition(int64_t clipTime, bool) override { return clipTime; }
    int32_t valueCountPerFrame(int32_t* count, int64_t, int64_t) override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++countCalls_;
        if (countResult_ == 0 && count != nullptr) *count = perFrame_;
        return countResult_;
    }
    int64_t mediaDuration() override { return 0; }
    int32_t fillValues(IZORLonglongList* frames, int64_t, int64_t, void* buffer) override {
        std::vector<int64_t> listed;
        for (int32_t i = 0; i < frames->count(); ++i) listed.push_back(frames->get(i));
        std::lock_guard<std::mutex> lock(mutex_);
        filledFrames_.push_back(listed);
        if (fillResult_ != 0) return fillResult_;
        auto* values = static_cast<float*>(buffer);
        for (size_t i = 0; i < listed.size(); ++i)
            for (int32_t k = 0; k < perFrame_; ++k)
                values[i * static_cast<size_t>(perFrame_) + static_cast<size_t>(k)] =
                    static_cast<float>(listed[i]) + static_cast<float>(k) / 1000.0f;
        return 0;
    }

    void setPerFrame(int32_t count) {
        std::lock_guard<std::mutex> lock(mutex_);
        perFrame_ = count;
    }
    void setCountResult(int32_t result) {
        std::lock_guard<std::mutex> lock(mutex_);
        countResult_ = result;
    }
    void setFillResult(int32_t result) {
        std::lock_guard<std::mutex> lock(mutex_);
        fillResult_ = result;
    }
    std::vector<std::vector<int64_t>> filledFrames() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return filledFrames_;
    }

private:
    mutable std::mutex mutex_;  // guards the fields below
    int32_t perFrame_ = 4;
    int32_t countResult_ = 0;
    int32_t fillResult_ = 0;
    int32_t countCalls_ = 0;
    std::vector<std::vector<int64_t>> filledFrames_;
};

// A video clip whose frame files are named "frame-<time>.png"; the frame
// shown for time t is reported as t.
class FakeVideoClip final : public FakeClipBase, public virtual IDmVideoFeature {
public:
    FakeVideoClip() : FakeClipBase(1) {}
    void* queryInterface(const char* name) override {
        if (name != nullptr && std::strcmp(name, "IDmVideoFeature") == 0)
            return static_cast<IDmVideoFeature*>(this);
        return zorQueryInterface(name, "IDmClip", static_cast<IDmClip*>(this));
    }
    int32_t videoStreamIndex() override { return 0; }
    int32_t frameRate(int64_t* num, int64_t* den) override {
        *num = 25;
        *den = 1;
        return 0;
    }
    int32_t videoSize(int32_t* width, int32_t* height) override {
        *width = 64;
        *height = 36;
        return 0;
    }
    int32_t getProperty(const char*, ZorProperty*) override { return 1001; }
    int32_t prepareFrames(int32_t width, int32_t height, int64_t num, int64_t den) override {
        std::lock_guard<std::mutex> lock(mutex_);
        prepared_.push_back({width, height, static_cast<int32_t>(num), static_cast<int32_t>(den)});
        return 0;
    }
    int32_t fillFrames(const int64_t* times, int32_t count, void* slots, int64_t* shown, int32_t* filled) override {
        auto* bytes = static_cast<char*>(slots);
        for (int32_t i = 0; i < count; ++i) {
            std::snprintf(bytes + static_cast<size_t>(i) * 1024, 1024, "frame-%lld.png",
                          static_cast<long long>(times[i]));
            shown[i] = times[i];
        }
        *filled = count;
        return 0;
    }
    int32_t prepareThumbnailSize(int32_t, int32_t, char*, int32_t) override { return 0; }
    int32_t thumbnailFiles(const int64_t*, int32_t, char*, int64_t*, int32_t* missingCount) override {
        *missingCount = 0;
        return 0;
    }

    std::vector<std::vector<int32_t>> prepared() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return prepared_;
    }

private:
    mutable std::mutex mutex_;  // guards prepared_
    std::vector<std::vector<int32_t>> prepared_;
};

}  // namespace ZOR::test
