// A scriptable timeline for tests of the audio thumbnails: tracks, audio clips
// with properties, effects, keyframes and speed parts, and a wave manager whose
// values, held frames and reads the test controls and observes.
//
// Everything is reference counted like the data model's objects; the timeline
// holds its tracks and clips. Setters are meant for the test's own thread
// (between queries); getters are thread-safe.
#pragma once

#include <atomic>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Adapter/Adapter.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"

namespace ZOR::test {

inline bool sameName(const char* a, const char* b) { return a != nullptr && std::strcmp(a, b) == 0; }

// Values per frame default to 40; value(frame, k) defaults to
// (frame % 100) / 100 + k / 1000. Frames in [heldFirst, heldLast] are held.
class FakeWaveManager final : public RefCnt<void>, public virtual IDmAudioWaveMgrInternal {
public:
    ZOR_IMPLEMENT_REFCNT

    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IDmAudioWaveMgrInternal", static_cast<IDmAudioWaveMgrInternal*>(this));
    }
    uint32_t valueCountPerFrame(int64_t rateNum, int64_t rateDen) override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++countCalls_;
        return rateNum == 25 && rateDen == 1 ? perFrame_ : 0;
    }
    int32_t readFrame(int32_t frame, int64_t, int64_t, float* values, uint32_t count) override {
        std::function<float(int32_t, int32_t)> value;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ++reads_[frame];
            for (uint32_t k = 0; k < count; ++k) values[k] = 0.0f;
            if (frame < heldFirst_ || frame > heldLast_) return 1001;
            value = value_;
        }
        for (uint32_t k = 0; k < count; ++k) values[k] = value(frame, static_cast<int32_t>(k));
        return 0;
    }
    int32_t hasFrames(int32_t first, int32_t last) override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++rangeChecks_;
        return first >= heldFirst_ && last <= heldLast_ && first <= last ? 1 : 0;
    }

    void setHeld(int32_t first, int32_t last) {
        std::lock_guard<std::mutex> lock(mutex_);
        heldFirst_ = first;
        heldLast_ = last;
    }
    void holdNothing() { setHeld(1, 0); }
    void setPerFrame(uint32_t count) {
        std::lock_guard<std::mutex> lock(mutex_);
        perFrame_ = count;
    }
    void setValues(std::function<float(int32_t frame, int32_t k)> value) {
        std::lock_guard<std::mutex> lock(mutex_);
        value_ = std::move(value);
    }
    // How often each frame was read.
    std::map<int32_t, int32_t> reads() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return reads_;
    }
    int32_t totalReads() const {
        std::lock_guard<std::mutex> lock(mutex_);
        int32_t total = 0;
        for (const auto& [frame, count] : reads_) total += count;
        return total;
    }
    int32_t countCalls() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return countCalls_;
    }

private:
    mutable std::mutex mutex_;  // leaf
    uint32_t perFrame_ = 40;
    int32_t heldFirst_ = 0;
    int32_t heldLast_ = 1 << 30;
    std::function<float(int32_t, int32_t)> value_ = [](int32_t frame, int32_t k) {
        return static_cast<float>(frame % 100) / 100.0f + static_cast<float>(k) / 1000.0f;
    };
    std::map<int32_t, int32_t> reads_;
    int32_t countCalls_ = 0;
    int32_t rangeChecks_ = 0;
};

class FakeTimelineClip;

class FakeEffect final : public RefCnt<void>, public virtual IDmEffect {
public:
    ZOR_IMPLEMENT_REFCNT

    FakeEffect(int32_t type, std::string name, IDmClip* owner) : type_(type), name_(std::move(name)), owner_(owner) {}
    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IDmEffect", static_cast<IDmEffect*>(this));
    }
    int32_t effectType() override { return type_; }
    const char* effectName() override { return name_.c_str(); }
    bool isEnabled() override { return enabled_.load(); }
    IDmClip* ownerClip() override { return owner_; }
    float value(int32_t index) override {
        std::lock_guard<std::mutex> lock(mutex_);
        return index >= 0 && index < 3 ? values_[index] : 0.0f;
    }
    int32_t keyframeCount(int32_t property) override {
        std::lock_guard<std::mutex> lock(mutex_);
        return property == 1 ? static_cast<int32_t>(keyframes_.size()) : 0;
    }
    int32_t keyframe(int32_t property, int32_t index, int64_t* time, double* value) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (property != 1 || index < 0 || index >= static_cast<int32_t>(keyframes_.size())) return 1001;
        *time = keyframes_[static_cast<size_t>(index)].first;
        *value = keyframes_[static_cast<size_t>(index)].second;
        return 0;
    }

    void setEnabled(bool enabled) { enabled_.store(enabled); }
    void setValues(float a, float b, float c) {
        std::lock_guard<std::mutex> lock(mutex_);
        values_[0] = a;
        values_[1] = b;
        values_[2] = c;
    }
    void setKeyframes(std::vector<std::pair<int64_t, double>> keyframes) {
        std::lock_guard<std::mutex> lock(mutex_);
        keyframes_ = std::move(keyframes);
    }

private:
    const int32_t type_;
    const std::string name_;
    IDmClip* const owner_;
    std::atomic<bool> enabled_{true};
    std::mutex mutex_;  // leaf
    float values_[3] = {0.0f, 0.0f, 0.0f};
    std::vector<std::pair<int64_t, double>> keyframes_;
};

class FakeTrack final : public RefCnt<void>, public virtual IDmTrack, public virtual IDmPropertyOwner {
public:
    ZOR_IMPLEMENT_REFCNT

    FakeTrack(IDmTimeline* owner, int32_t index, int32_t kind) : owner_(owner), index_(index), kind_(kind) {
        properties_[trackKey::mute] = boolProperty(false);
        properties_[trackKey::visible] = boolProperty(true);
        properties_[trackKey::solo] = boolProperty(false);
    }
    void* queryInterface(const char* name) override {
        if (sameName(name, "IDmPropertyOwner")) return static_cast<IDmPropertyOwner*>(this);
        return zorQueryInterface(name, "IDmTrack", static_cast<IDmTrack*>(this));
    }
    int32_t trackKind() override { return kind_; }
    IDmTimeline* owner() override { return owner_; }
    int32_t trackIndex() override { return index_; }
    int32_t getProperty(const char* key, ZorProperty* value) override {
        std::lock_guard<std::mutex> lock(mutex_);
        auto found = key != nullptr ? properties_.find(key) : properties_.end();
        if (found == properties_.end()) return 1001;
        *value = found->second;
        return 0;
    }
    int32_t setProperty(const char* key, const ZorProperty& value) override {
        std::lock_guard<std::mutex> lock(mutex_);
        properties_[key] = value;
        return 0;
    }

private:
    IDmTimeline* const owner_;
    const int32_t index_;
    const int32_t kind_;
    std::mutex mutex_;  // leaf
    std::map<std::string, ZorProperty> properties_;
};

// An audio clip on a fake timeline. Clip time runs from mark in; the source
// position of clip time c is c (mirrored to markIn + markOut - c when reverse).
class FakeTimelineClip final : public RefCnt<void>,
                               public virtual IDmClip,
                               public virtual IDmAudioFeature,
                               public virtual IDmClipInternal,
                               public virtual IDmPropertyOwner,
                               public virtual IDmClipSpeedPart {
public:
    ZOR_IMPLEMENT_REFCNT

    FakeTimelineClip(std::string name, FakeWaveManager* waveManager) : name_(std::move(name)), wave_(waveManager) {
        if (wave_ != nullptr) wave_->AddRef();
        properties_[audioKey::volume] = doubleProperty(0.0);
        properties_[audioKey::mute] = boolProperty(false);
        properties_[audioKey::streamId] = intProperty(-1);
        properties_[clipVolumeKey::volumeGain] = doubleProperty(0.0);
        properties_[audioLoudness::enable] = boolProperty(false);
        properties_[audioLoudness::gain] = doubleProperty(1.0);
        properties_[clipKey::enable] = boolProperty(true);
        setRange(0, 0, 0, 0);
    }
    ~FakeTimelineClip() override {
        for (auto& [type, effect] : effects_) effect->Release();
        if (wave_ != nullptr) wave_->Release();
        destroyed().fetch_add(1);
    }
    static std::atomic<int>& destroyed() {
        static std::atomic<int> count{0};
        return count;
    }

    void* queryInterface(const char* name) override {
        if (sameName(name, "IDmClip")) return static_cast<IDmClip*>(this);
        if (sameName(name, "IDmAudioFeature") || sameName(name, "IDmAudioClip"))
            return static_cast<IDmAudioFeature*>(this);
        if (sameName(name, "IDmClipInternal")) return static_cast<IDmClipInternal*>(this);
        if (sameName(name, "IDmPropertyOwner")) return static_cast<IDmPropertyOwner*>(this);
        if (sameName(name, "IDmClipSpeedPart")) return static_cast<IDmClipSpeedPart*>(this);
        if (sameName(name, "IDmBaseObj")) return static_cast<IDmBaseObj*>(static_cast<IDmClip*>(this));
        if (sameName(name, "RefCnt")) return static_cast<RefCnt<void>*>(this);
        return nullptr;
    }

    // IDmClip
    int32_t clipType() override { return DmTrackAudio; }
    IDmTimeline* timeline() override { return timeline_.load(); }
    IDmTrack* track() override { return track_.load(); }
    const char* clipId() override { return name_.c_str(); }
    int32_t mediaId(char* buffer, int32_t size) override {
        zor_strcpy(buffer, static_cast<size_t>(size), "fake-media");
        return 0;
    }
    const char* name() override { return name_.c_str(); }
    IDmEffect* effect(int32_t type) override {
        std::lock_guard<std::mutex> lock(mutex_);
        auto found = effects_.find(type);
        return found != effects_.end() ? found->second : nullptr;
    }
    IDmBaseObj* feature(int32_t, int32_t) override { return nullptr; }
    IDmAttachedItemList* attachedItems() override { return nullptr; }

    // Properties
    int32_t getProperty(const char* key, ZorProperty* value) override {
        propertyReads_.fetch_add(1);
        std::lock_guard<std::mutex> lock(mutex_);
        if (key == nullptr || value == nullptr) return 1001;
        auto found = properties_.find(key);
        if (found == properties_.end()) return 1001;
        *value = found->second;
        return 0;
    }
    int32_t setProperty(const char* key, const ZorProperty& value) override {
        std::lock_guard<std::mutex> lock(mutex_);
        properties_[key] = value;
        return 0;
    }
    // Makes a key unreadable (its read fails).
    void removeProperty(const char* key) {
        std::lock_guard<std::mutex> lock(mutex_);
        properties_.erase(key);
    }

    // IDmAudioFeature
    int32_t audioStreamIndex() override { return 0; }
    int32_t sampleRate() override { return 48000; }
    int32_t channelCount() override { return 1; }
    int64_t sourcePosition(int64_t clipTime, bool reverse) override {
        std::lock_guard<std::mutex> lock(mutex_);
        return reverse ? markIn_ + markOut_ - clipTime : clipTime;
    }
    int32_t valueCountPerFrame(int32_t* count, int64_t, int64_t) override {
        *count = 40;
        return 0;
    }
    int64_t mediaDuration() override { return 0; }
    int32_t fillValues(IZORLonglongList*, int64_t, int64_t, void*) override { return 1001; }

    // IDmClipInternal
    IDmClip* parentClip() override { return nullptr; }
    int32_t containerPosition(int32_t* first, int32_t* second) override {
        *first = position_.first;
        *second = position_.second;
        return 0;
    }
    IDmBaseObj* waveManagerSource() override { return wave_; }

    // IDmClipSpeedPart
    int32_t speedPartCount() override {
        std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<int32_t>(speedParts_.size());
    }
    int32_t speedPart(int32_t index, int64_t* begin, int64_t* end, double* speed) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (index < 0 || index >= static_cast<int32_t>(speedParts_.size())) return 1001;
        const auto& part = speedParts_[static_cast<size_t>(index)];
        *begin = part.begin;
        *end = part.end;
        *speed = part.speed;
        return 0;
    }

    // Test controls
    struct SpeedPart {
        int64_t begin;
        int64_t end;
        double speed;
    };
    void setRange(int64_t markIn, int64_t markOut, int64_t begin, int64_t end) {
        std::lock_guard<std::mutex> lock(mutex_);
        markIn_ = markIn;
        markOut_ = markOut;
        properties_[clipKey::markIn] = intProperty(markIn);
        properties_[clipKey::markOut] = intProperty(markOut);
        properties_[clipKey::timelineBegin] = intProperty(begin);
        properties_[clipKey::timelineEnd] = intProperty(end);
    }
    void setSpeedParts(std::vector<SpeedPart> parts) {
        std::lock_guard<std::mutex> lock(mutex_);
        speedParts_ = std::move(parts);
    }
    // The clip's effect of type (made on first use); no reference for the caller.
    FakeEffect* addEffect(int32_t type) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto found = effects_.find(type);
        if (found != effects_.end()) return found->second;
        const char* name = type == 4109 ? "audio/effect/ducking" : type == 4110 ? "audio/effect/volume" : "audio/effect/reverse";
        auto* effect = new FakeEffect(type, name, this);
        effect->AddRef();
        effects_[type] = effect;
        return effect;
    }
    void placeOn(IDmTimeline* timeline, IDmTrack* track, int32_t trackIndex, int32_t clipIndex) {
        timeline_.store(timeline);
        track_.store(track);
        position_ = {trackIndex, clipIndex};
    }
    FakeWaveManager* waveManager() const { return wave_; }
    // How often getProperty was called, whatever the key and outcome.
    int32_t propertyReads() const { return propertyReads_.load(); }

private:
    const std::string name_;
    FakeWaveManager* const wave_;  // one reference
    std::atomic<IDmTimeline*> timeline_{nullptr};
    std::atomic<IDmTrack*> track_{nullptr};
    std::pair<int32_t, int32_t> position_{-1, -1};
    std::mutex mutex_;  // leaf
    int64_t markIn_ = 0;
    int64_t markOut_ = 0;
    std::map<std::string, ZorProperty> properties_;
    std::map<int32_t, FakeEffect*> effects_;  // one reference each
    std::vector<SpeedPart> speedParts_;
    std::atomic<int32_t> propertyReads_{0};
};

class FakeTimeline final : public RefCnt<void>, public virtual IDmTimeline {
public:
    ZOR_IMPLEMENT_REFCNT

    ~FakeTimeline() override {
        for (auto& clips : clips_)
            for (FakeTimelineClip* clip : clips) clip->Release();
        for (FakeTrack* track : tracks_) track->Release();
    }
    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IDmTimeline", static_cast<IDmTimeline*>(this));
    }
    int32_t trackCount() override { return static_cast<int32_t>(tracks_.size()); }
    IDmTrack* track(int32_t index) override {
        return index >= 0 && index < trackCount() ? tracks_[static_cast<size_t>(index)] : nullptr;
    }
    int32_t clipCount(int32_t trackIndex) override {
        return trackIndex >= 0 && trackIndex < trackCount()
                   ? static_cast<int32_t>(clips_[static_cast<size_t>(trackIndex)].size())
                   : 0;
    }
    IDmClip* clip(int32_t trackIndex, int32_t clipIndex) override {
        if (clipIndex < 0 || clipIndex >= clipCount(trackIndex)) return nullptr;
        return clips_[static_cast<size_t>(trackIndex)][static_cast<size_t>(clipIndex)];
    }
    int64_t duration() override { return 0; }
    int32_t usesMedia(const char*) override { return 0; }

    // Builds the timeline before it is shared with other threads.
    FakeTrack* addTrack(int32_t kind) {
        auto* track = new FakeTrack(this, trackCount(), kind);
        track->AddRef();
        tracks_.push_back(track);
        clips_.emplace_back();
        return track;
    }
    // A new clip at the end of the track, its timeline range [begin, end) and
    // media range starting at markIn; the timeline holds one reference.
    FakeTimelineClip* addClip(int32_t trackIndex, const std::string& name, FakeWaveManager* wave, int64_t markIn,
                              int64_t begin, int64_t end) {
        auto* clip = new FakeTimelineClip(name, wave);
        clip->AddRef();
        clip->setRange(markIn, markIn + (end - begin), begin, end);
        auto& clips = clips_[static_cast<size_t>(trackIndex)];
        clip->placeOn(this, tracks_[static_cast<size_t>(trackIndex)], trackIndex, static_cast<int32_t>(clips.size()));
        clips.push_back(clip);
        return clip;
    }

private:
    std::vector<FakeTrack*> tracks_;                   // one reference each
    std::vector<std::vector<FakeTimelineClip*>> clips_;  // one reference each
};

// A list of clips, as the change tracker hands them to onAudioChanged. Holds
// one reference on each clip. Filled by one thread, then handed on.
class FakeClipList final : public RefCnt<void>, public virtual IDmClipList {
public:
    ZOR_IMPLEMENT_REFCNT

    ~FakeClipList() override {
        for (IDmClip* clip : clips_) clip->Release();
    }
    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IDmClipList", static_cast<IDmClipList*>(this));
    }
    int32_t count() override { return static_cast<int32_t>(clips_.size()); }
    IDmClip* get(int32_t index) override {
        return index >= 0 && index < count() ? clips_[static_cast<size_t>(index)] : nullptr;
    }
    int32_t append(IDmClip* clip) override {
        if (clip != nullptr) clip->AddRef();
        clips_.push_back(clip);
        return count();
    }

private:
    std::vector<IDmClip*> clips_;  // one reference each (null entries allowed)
};

}  // namespace ZOR::test
