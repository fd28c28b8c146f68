// A scriptable data model for tests of the library: clips, a timeline with
// tracks, effects, keyframes and speed parts, a wave manager whose values,
// held frames and reads the test controls and observes, clip lists, and the
// attached items and style data of video clips.
//
// One clip class serves every test: it is made as the kind of clip a test
// needs (plain(), audio(), video(), storeVideo(), or on a FakeTimeline with
// addClip()), which sets the interfaces it answers and how it starts out.
//
// Everything is reference counted like the data model's objects; holders are
// ZorRef. Setters are meant for the test's own thread (before the object is
// shared, or between queries); getters are thread-safe.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
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
#include "MakeRef.h"

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

    // The default value at (frame, k).
    static float defaultValue(int32_t frame, int32_t k) {
        return static_cast<float>(frame % 100) / 100.0f + static_cast<float>(k) / 1000.0f;
    }

private:
    mutable std::mutex mutex_;  // leaf
    uint32_t perFrame_ = 40;
    int32_t heldFirst_ = 0;
    int32_t heldLast_ = 1 << 30;
    std::function<float(int32_t, int32_t)> value_ = &FakeWaveManager::defaultValue;
    std::map<int32_t, int32_t> reads_;
    int32_t countCalls_ = 0;
};

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

// The text data of a style item. It answers only the interface names it is
// given (e.g. "IImageStylizesData"); text(2) is the style identifier, any
// other argument a text that must not be used.
class FakeStyleData final : public RefCnt<void>, public virtual IDmStyleData {
public:
    ZOR_IMPLEMENT_REFCNT

    FakeStyleData(std::vector<std::string> names, const char* identifier)
        : names_(std::move(names)),
          hasIdentifier_(identifier != nullptr),
          identifier_(identifier != nullptr ? identifier : "") {}

    void* queryInterface(const char* name) override {
        for (const std::string& answered : names_)
            if (sameName(name, answered.c_str())) return static_cast<IDmStyleData*>(this);
        if (sameName(name, "IDmBaseObj")) return static_cast<IDmBaseObj*>(static_cast<IDmStyleData*>(this));
        return nullptr;
    }
    int32_t styleKind() override { return 1; }
    const char* text(int32_t which) override {
        if (which != 2) return "not-the-identifier";
        return hasIdentifier_ ? identifier_.c_str() : nullptr;
    }

private:
    const std::vector<std::string> names_;
    const bool hasIdentifier_;
    const std::string identifier_;
};

// A data object that answers "IImageStylizesData" with one style object and
// "IAITemplateGenerateData" with another; holds a reference on each.
class FakeTwoFacedData final : public RefCnt<void>, public virtual IDmBaseObj {
public:
    ZOR_IMPLEMENT_REFCNT

    FakeTwoFacedData(FakeStyleData* stylize, FakeStyleData* templateData)
        : stylize_(ZorRef<FakeStyleData>::share(stylize)), template_(ZorRef<FakeStyleData>::share(templateData)) {}
    void* queryInterface(const char* name) override {
        if (sameName(name, "IImageStylizesData")) return static_cast<IDmStyleData*>(stylize_.get());
        if (sameName(name, "IAITemplateGenerateData")) return static_cast<IDmStyleData*>(template_.get());
        if (sameName(name, "IDmBaseObj")) return static_cast<IDmBaseObj*>(this);
        return nullptr;
    }

private:
    const ZorRef<FakeStyleData> stylize_;
    const ZorRef<FakeStyleData> template_;
};

// An item attached to a clip; holds a reference on each of its data objects.
class FakeAttachedItem final : public RefCnt<void>, public virtual IDmAttachedItem {
public:
    ZOR_IMPLEMENT_REFCNT

    FakeAttachedItem(bool applied, bool visualStyle, const std::vector<IDmBaseObj*>& objects)
        : applied_(applied), visualStyle_(visualStyle) {
        for (IDmBaseObj* object : objects) data_.push_back(ZorRef<IDmBaseObj>::share(object));
    }
    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IDmAttachedItem", static_cast<IDmAttachedItem*>(this));
    }
    bool isApplied() override { return applied_; }
    bool isVisualStyle() override { return visualStyle_; }
    int32_t dataCount() override { return static_cast<int32_t>(data_.size()); }
    IDmBaseObj* data(int32_t index) override {
        return index >= 0 && index < dataCount() ? data_[static_cast<size_t>(index)].get() : nullptr;
    }

private:
    const bool applied_;
    const bool visualStyle_;
    std::vector<ZorRef<IDmBaseObj>> data_;
};

// The attached items of a clip, in order. Filled before it is shared.
class FakeAttachedItemList final : public RefCnt<void>, public virtual IDmAttachedItemList {
public:
    ZOR_IMPLEMENT_REFCNT

    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IDmAttachedItemList", static_cast<IDmAttachedItemList*>(this));
    }
    int32_t count() override { return static_cast<int32_t>(items_.size()); }
    IDmAttachedItem* get(int32_t index) override {
        return index >= 0 && index < count() ? items_[static_cast<size_t>(index)].get() : nullptr;
    }
    // Adds an item whose data objects are objects (each gets a reference).
    void add(bool applied, bool visualStyle, const std::vector<IDmBaseObj*>& objects) {
        items_.push_back(makeRef<FakeAttachedItem>(applied, visualStyle, objects));
    }

private:
    std::vector<ZorRef<FakeAttachedItem>> items_;
};

// A style data object answering the given names.
inline ZorRef<FakeStyleData> newStyleData(std::vector<std::string> names, const char* identifier) {
    return makeRef<FakeStyleData>(std::move(names), identifier);
}

// One call of thumbnailFiles.
struct ThumbnailFilesCall {
    std::vector<int64_t> frames;
};

// A clip of type 3 that is an IDmClip and nothing else, not even in its C++
// type: the extraction wrappers find a clip's feature by dynamic_cast, which
// a FakeClip (whose type has every face) would always pass.
class FakePlainClip final : public RefCnt<void>, public virtual IDmClip {
public:
    ZOR_IMPLEMENT_REFCNT

    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IDmClip", static_cast<IDmClip*>(this));
    }
    int32_t clipType() override { return 3; }
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
};

// A clip. Every clip answers "IDmClip" and "IDmBaseObj"; what else it
// answers, and how it starts out, depends on how it was made:
//
// - plain(): a FakePlainClip.
// - audio(): an audio feature with scripted wave values, value(frame, k) =
//   frame + k / 1000, 4 a frame, 2 channels; no properties.
// - video(): a video feature whose frame files are named "frame-<time>.png"
//   (the frame shown for time t is reported as t); no properties.
// - storeVideo(media, stream): a video clip of a media with a scripted frame
//   store (thumbnailFiles gives the file set for a frame and lists every
//   other frame as missing) and attached items; its only property is the
//   stream.
// - on a timeline (FakeTimeline::addClip): an audio clip with properties,
//   effects, speed parts and a wave manager, that also answers
//   "IDmAudioClip", "IDmClipInternal", "IDmPropertyOwner",
//   "IDmClipSpeedPart" and "RefCnt". Clip time runs from mark in; the source
//   position of clip time c is c (mirrored to markIn + markOut - c when
//   reverse); 40 values a frame, 1 channel, no values of its own (the wave
//   manager has them).
class FakeClip final : public RefCnt<void>,
                       public virtual IDmClip,
                       public virtual IDmAudioFeature,
                       public virtual IDmVideoFeature,
                       public virtual IDmClipInternal,
                       public virtual IDmPropertyOwner,
                       public virtual IDmClipSpeedPart {
public:
    ZOR_IMPLEMENT_REFCNT

    static ZorRef<FakePlainClip> plain() { return makeRef<FakePlainClip>(); }
    static ZorRef<FakeClip> audio() {
        auto clip = makeRef<FakeClip>(Kind::Audio, "fake", "fake-media");
        clip->channels_ = 2;
        clip->perFrame_ = 4;
        clip->fillResult_ = 0;
        return clip;
    }
    static ZorRef<FakeClip> video() { return makeRef<FakeClip>(Kind::Video, "fake", "fake-media"); }
    static ZorRef<FakeClip> storeVideo(std::string media, int32_t stream = 0) {
        auto clip = makeRef<FakeClip>(Kind::Video, "video-clip", std::move(media));
        clip->stream_ = stream;
        clip->properties_[videoKey::streamId] = intProperty(stream);
        return clip;
    }
    // An audio clip of a timeline, reading its values from waveManager (when
    // not null); placed with placeOn().
    static ZorRef<FakeClip> onTimeline(std::string name, FakeWaveManager* waveManager) {
        auto clip = makeRef<FakeClip>(Kind::OnTimeline, name, "fake-media");
        clip->wave_ = ZorRef<FakeWaveManager>::share(waveManager);
        auto& properties = clip->properties_;
        properties[audioKey::volume] = doubleProperty(0.0);
        properties[audioKey::mute] = boolProperty(false);
        properties[audioKey::streamId] = intProperty(-1);
        properties[clipVolumeKey::volumeGain] = doubleProperty(0.0);
        properties[audioLoudness::enable] = boolProperty(false);
        properties[audioLoudness::gain] = doubleProperty(1.0);
        properties[clipKey::enable] = boolProperty(true);
        clip->setRange(0, 0, 0, 0);
        return clip;
    }

    enum class Kind { Audio, Video, OnTimeline };
    FakeClip(Kind kind, std::string name, std::string media)
        : kind_(kind), name_(std::move(name)), mediaId_(std::move(media)) {}

    void* queryInterface(const char* name) override {
        const bool audio = kind_ == Kind::Audio || kind_ == Kind::OnTimeline;
        if (sameName(name, "IDmClip")) return static_cast<IDmClip*>(this);
        if (sameName(name, "IDmBaseObj")) return static_cast<IDmBaseObj*>(static_cast<IDmClip*>(this));
        if (audio && sameName(name, "IDmAudioFeature")) return static_cast<IDmAudioFeature*>(this);
        if (kind_ == Kind::Video && sameName(name, "IDmVideoFeature")) return static_cast<IDmVideoFeature*>(this);
        if (kind_ != Kind::OnTimeline) return nullptr;
        if (sameName(name, "IDmAudioClip")) return static_cast<IDmAudioFeature*>(this);
        if (sameName(name, "IDmClipInternal")) return static_cast<IDmClipInternal*>(this);
        if (sameName(name, "IDmPropertyOwner")) return static_cast<IDmPropertyOwner*>(this);
        if (sameName(name, "IDmClipSpeedPart")) return static_cast<IDmClipSpeedPart*>(this);
        if (sameName(name, "RefCnt")) return static_cast<RefCnt<void>*>(this);
        return nullptr;
    }

    // IDmClip
    int32_t clipType() override { return kind_ == Kind::Video ? DmTrackVideo : DmTrackAudio; }
    IDmTimeline* timeline() override { return timeline_.load(); }
    IDmTrack* track() override { return track_.load(); }
    const char* clipId() override { return name_.c_str(); }
    int32_t mediaId(char* buffer, int32_t size) override {
        zor_strcpy(buffer, static_cast<size_t>(size), mediaId_.c_str());
        return 0;
    }
    const char* name() override { return name_.c_str(); }
    IDmEffect* effect(int32_t type) override {
        std::lock_guard<std::mutex> lock(mutex_);
        auto found = effects_.find(type);
        return found != effects_.end() ? found->second.get() : nullptr;
    }
    IDmBaseObj* feature(int32_t, int32_t) override { return nullptr; }
    IDmAttachedItemList* attachedItems() override { return items_.get(); }

    // Properties (of every face)
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

    // IDmAudioFeature
    int32_t audioStreamIndex() override { return 0; }
    int32_t sampleRate() override { return 48000; }
    int32_t channelCount() override { return channels_; }
    int64_t sourcePosition(int64_t clipTime, bool reverse) override {
        std::lock_guard<std::mutex> lock(mutex_);
        return reverse ? markIn_ + markOut_ - clipTime : clipTime;
    }
    int32_t valueCountPerFrame(int32_t* count, int64_t, int64_t) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (countResult_ == 0 && count != nullptr) *count = perFrame_;
        return countResult_;
    }
    int64_t mediaDuration() override { return 0; }
    int32_t fillValues(IZORLonglongList* frames, int64_t, int64_t, void* buffer) override {
        std::vector<int64_t> listed;
        for (int32_t i = 0; frames != nullptr && i < frames->count(); ++i) listed.push_back(frames->get(i));
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

    // IDmVideoFeature
    int32_t videoStreamIndex() override { return stream_; }
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
    int32_t prepareFrames(int32_t width, int32_t height, int64_t num, int64_t den) override {
        std::lock_guard<std::mutex> lock(mutex_);
        preparedFrames_.push_back({width, height, static_cast<int32_t>(num), static_cast<int32_t>(den)});
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
    int32_t prepareThumbnailSize(int32_t width, int32_t height, char* text, int32_t textSize) override {
        std::lock_guard<std::mutex> lock(mutex_);
        preparedSizes_.push_back({width, height});
        if (text != nullptr && textSize > 0) zor_strcpy(text, static_cast<size_t>(textSize), "prepared");
        return prepareResult_;
    }
    int32_t thumbnailFiles(const int64_t* frames, int32_t count, char* slots, int64_t* missing,
                           int32_t* missingCount) override {
        std::lock_guard<std::mutex> lock(mutex_);
        filesCalls_.push_back({std::vector<int64_t>(frames, frames + count)});
        int32_t missed = 0;
        for (int32_t i = 0; i < count; ++i) {
            char* slot = slots + static_cast<size_t>(i) * 1024;
            slot[0] = '\0';
            auto found = files_.find(frames[i]);
            if (found != files_.end())
                zor_strcpy(slot, 1024, found->second.c_str());
            else
                missing[missed++] = frames[i];
        }
        *missingCount = missed;
        return 0;
    }

    // IDmClipInternal
    IDmClip* parentClip() override { return nullptr; }
    int32_t containerPosition(int32_t* first, int32_t* second) override {
        *first = position_.first;
        *second = position_.second;
        return 0;
    }
    IDmBaseObj* waveManagerSource() override { return wave_.get(); }

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

    // --- Scripting: audio -----------------------------------------------------
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
    // The frames of every fillValues call.
    std::vector<std::vector<int64_t>> filledFrames() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return filledFrames_;
    }

    // --- Scripting: video -----------------------------------------------------
    // Every prepareFrames call: width, height, rate numerator and denominator.
    std::vector<std::vector<int32_t>> preparedFrames() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return preparedFrames_;
    }
    void setFile(int64_t frame, const std::string& path) {
        std::lock_guard<std::mutex> lock(mutex_);
        files_[frame] = path;
    }
    void setPrepareResult(int32_t result) {
        std::lock_guard<std::mutex> lock(mutex_);
        prepareResult_ = result;
    }
    // Set before the clip is shared.
    void setAttachedItems(ZorRef<FakeAttachedItemList> items) { items_ = std::move(items); }
    std::vector<ThumbnailFilesCall> filesCalls() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return filesCalls_;
    }
    // Every prepareThumbnailSize call: width and height.
    std::vector<std::pair<int32_t, int32_t>> preparedSizes() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return preparedSizes_;
    }

    // --- Scripting: on a timeline ---------------------------------------------
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
    // Makes a key unreadable (its read fails).
    void removeProperty(const char* key) {
        std::lock_guard<std::mutex> lock(mutex_);
        properties_.erase(key);
    }
    // The clip's effect of type (made on first use); no reference for the caller.
    FakeEffect* addEffect(int32_t type) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto found = effects_.find(type);
        if (found != effects_.end()) return found->second.get();
        const char* name = type == 4109   ? "audio/effect/ducking"
                           : type == 4110 ? "audio/effect/volume"
                                          : "audio/effect/reverse";
        return (effects_[type] = makeRef<FakeEffect>(type, name, this)).get();
    }
    void placeOn(IDmTimeline* timeline, IDmTrack* track, int32_t trackIndex, int32_t clipIndex) {
        timeline_.store(timeline);
        track_.store(track);
        position_ = {trackIndex, clipIndex};
    }
    FakeWaveManager* waveManager() const { return wave_.get(); }
    // How often getProperty was called, whatever the key and outcome.
    int32_t propertyReads() const { return propertyReads_.load(); }

    IDmClip* asClip() { return static_cast<IDmClip*>(this); }
    int32_t references() { return RefCnt<void>::refCount(); }

private:
    const Kind kind_;
    const std::string name_;  // the clip's identifier and name
    const std::string mediaId_;
    int32_t channels_ = 1;
    int32_t stream_ = 0;
    ZorRef<FakeWaveManager> wave_;
    ZorRef<FakeAttachedItemList> items_;  // null: no list
    std::atomic<IDmTimeline*> timeline_{nullptr};
    std::atomic<IDmTrack*> track_{nullptr};
    std::pair<int32_t, int32_t> position_{-1, -1};
    std::atomic<int32_t> propertyReads_{0};
    mutable std::mutex mutex_;  // leaf: guards the fields below
    std::map<std::string, ZorProperty> properties_;
    std::map<int32_t, ZorRef<FakeEffect>> effects_;
    std::vector<SpeedPart> speedParts_;
    int64_t markIn_ = 0;
    int64_t markOut_ = 0;
    int32_t perFrame_ = 40;
    int32_t countResult_ = 0;
    int32_t fillResult_ = 1001;
    std::vector<std::vector<int64_t>> filledFrames_;
    std::vector<std::vector<int32_t>> preparedFrames_;
    std::map<int64_t, std::string> files_;
    int32_t prepareResult_ = 0;
    std::vector<ThumbnailFilesCall> filesCalls_;
    std::vector<std::pair<int32_t, int32_t>> preparedSizes_;
};

// A timeline of tracks of clips (built before it is shared with other
// threads), holding its tracks and clips. It says whether it uses a media as
// made (no media by default) and records what it was asked.
class FakeTimeline final : public RefCnt<void>, public virtual IDmTimeline {
public:
    ZOR_IMPLEMENT_REFCNT

    explicit FakeTimeline(bool usesEveryMedia = false) : uses_(usesEveryMedia) {}
    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IDmTimeline", static_cast<IDmTimeline*>(this));
    }
    int32_t trackCount() override { return static_cast<int32_t>(tracks_.size()); }
    IDmTrack* track(int32_t index) override {
        return index >= 0 && index < trackCount() ? tracks_[static_cast<size_t>(index)].get() : nullptr;
    }
    int32_t clipCount(int32_t trackIndex) override {
        return trackIndex >= 0 && trackIndex < trackCount()
                   ? static_cast<int32_t>(clips_[static_cast<size_t>(trackIndex)].size())
                   : 0;
    }
    IDmClip* clip(int32_t trackIndex, int32_t clipIndex) override {
        if (clipIndex < 0 || clipIndex >= clipCount(trackIndex)) return nullptr;
        return clips_[static_cast<size_t>(trackIndex)][static_cast<size_t>(clipIndex)].get();
    }
    int64_t duration() override { return 0; }
    int32_t usesMedia(const char* mediaId) override {
        std::lock_guard<std::mutex> lock(mutex_);
        asked_.push_back(mediaId != nullptr ? mediaId : "");
        return uses_ ? 1 : 0;
    }

    FakeTrack* addTrack(int32_t kind) {
        tracks_.push_back(makeRef<FakeTrack>(this, trackCount(), kind));
        clips_.emplace_back();
        return tracks_.back().get();
    }
    // A new clip at the end of the track, its timeline range [begin, end) and
    // media range starting at markIn.
    FakeClip* addClip(int32_t trackIndex, const std::string& name, FakeWaveManager* wave, int64_t markIn, int64_t begin,
                      int64_t end) {
        ZorRef<FakeClip> clip = FakeClip::onTimeline(name, wave);
        clip->setRange(markIn, markIn + (end - begin), begin, end);
        auto& clips = clips_[static_cast<size_t>(trackIndex)];
        clip->placeOn(this, tracks_[static_cast<size_t>(trackIndex)].get(), trackIndex,
                      static_cast<int32_t>(clips.size()));
        clips.push_back(std::move(clip));
        return clips.back().get();
    }
    // The media identifiers usesMedia was asked about, in order.
    std::vector<std::string> asked() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return asked_;
    }

private:
    const bool uses_;
    std::vector<ZorRef<FakeTrack>> tracks_;
    std::vector<std::vector<ZorRef<FakeClip>>> clips_;
    mutable std::mutex mutex_;  // leaf: guards asked_
    std::vector<std::string> asked_;
};

// A list of clips, as the change tracker hands them to onAudioChanged. Holds
// one reference on each clip. Filled by one thread, then handed on.
class FakeClipList final : public RefCnt<void>, public virtual IDmClipList {
public:
    ZOR_IMPLEMENT_REFCNT

    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IDmClipList", static_cast<IDmClipList*>(this));
    }
    int32_t count() override { return static_cast<int32_t>(clips_.size()); }
    IDmClip* get(int32_t index) override {
        return index >= 0 && index < count() ? clips_[static_cast<size_t>(index)].get() : nullptr;
    }
    int32_t append(IDmClip* clip) override {
        clips_.push_back(ZorRef<IDmClip>::share(clip));
        return count();
    }

private:
    std::vector<ZorRef<IDmClip>> clips_;  // null entries allowed
};

}  // namespace ZOR::test
