#include "DmMediaClip.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "DataModel/DmKeyTexts.h"
#include "BsDataStructure/BsDataStructure.h"
#include "DataModel/DmMedia.h"
#include "DmAudioWaveMgr.h"

ZOR_LOG_SOURCE("platform/DataModel/DmMediaClip")

namespace ZOR {

namespace {

constexpr int32_t kSlotBytes = 1024;
// Results of the clip's operations.
constexpr int32_t kOk = 0;
constexpr int32_t kUnsupportedRate = 1002;
constexpr int32_t kNoSuchFeature = 1003;
constexpr int32_t kNotPrepared = 1004;
constexpr int32_t kUnknownKey = 1005;
constexpr int32_t kReadOnlyKey = 1006;
constexpr int32_t kTruncated = 1007;

bool is(const char* key, const char* text) { return std::strcmp(key, text) == 0; }

uint64_t packSize(int32_t width, int32_t height) {
    return (static_cast<uint64_t>(static_cast<uint32_t>(width)) << 32) | static_cast<uint32_t>(height);
}

void unpackSize(uint64_t packed, int32_t* width, int32_t* height) {
    *width = static_cast<int32_t>(packed >> 32);
    *height = static_cast<int32_t>(packed & 0xFFFFFFFFu);
}

// The sizes the frame store (and so the frame task) takes.
bool validPictureSize(int32_t width, int32_t height) { return frameStoreSizeAllowed(width, height); }

// An empty list of attached items: media clips carry none.
class DmAttachedItemList final : public RefCnt<void>, public virtual IDmAttachedItemList {
public:
    ZOR_IMPLEMENT_REFCNT
    void* queryInterface(const char* name) override {
        if (name != nullptr && std::strcmp(name, "RefCnt") == 0) return static_cast<RefCnt<void>*>(this);
        return zorQueryInterface(name, "IDmAttachedItemList", static_cast<IDmAttachedItemList*>(this));
    }
    int32_t count() override { return 0; }
    IDmAttachedItem* get(int32_t /*index*/) override { return nullptr; }
};

std::string nextClipId() {
    static std::atomic<uint64_t> counter{0};
    return "media-clip-" + std::to_string(counter.fetch_add(1, std::memory_order_relaxed) + 1);
}

}  // namespace

DmMediaClip::DmMediaClip(DmMediaProbe probe, int32_t audioStreamId, int32_t videoStreamId)
    : DmMediaClip(std::move(probe), audioStreamId, videoStreamId, nextClipId()) {}

DmMediaClip::DmMediaClip(DmMediaProbe probe, int32_t audioStreamId, int32_t videoStreamId, std::string clipId)
    : probe_(std::move(probe)), videoStreamId_(videoStreamId), clipId_(std::move(clipId)) {
    audioStates_.push_back(makeAudioState(probe_, audioStreamId));
    audio_.store(audioStates_.back().get(), std::memory_order_release);
    attachedItems_ = zorCreateObject<DmAttachedItemList, IDmAttachedItemList>();

    // A media clip shows its whole stream: the video's duration when it has
    // video, the audio's otherwise.
    int64_t duration = probe_.containerDuration;
    if (probe_.videoStream >= 0 && probe_.videoDuration > 0)
        duration = probe_.videoDuration;
    else if (probe_.audioStream >= 0 && probe_.audioDuration > 0)
        duration = probe_.audioDuration;
    range_ = Range{0, duration, 0, duration};

    properties_[keytext::kAudioVolume] = doubleProperty(0.0);
    properties_[keytext::kAudioMute] = boolProperty(false);
    properties_[keytext::kClipVolumeGain] = doubleProperty(0.0);
    properties_[keytext::kLoudnessEnable] = boolProperty(false);
    properties_[keytext::kLoudnessGain] = doubleProperty(1.0);
    properties_[keytext::kReversePlayEnable] = boolProperty(false);
    properties_[keytext::kClipEnable] = boolProperty(true);
}

DmMediaClip::~DmMediaClip() {
    for (const std::unique_ptr<AudioState>& state : audioStates_)
        if (state->manager != nullptr) state->manager->Release();
    if (attachedItems_ != nullptr) attachedItems_->Release();
}

void* DmMediaClip::queryInterface(const char* name) {
    if (name == nullptr) return nullptr;
    if (is(name, "IDmClip")) return static_cast<IDmClip*>(this);
    if (is(name, "IDmAudioFeature")) return hasAudio() ? static_cast<IDmAudioFeature*>(this) : nullptr;
    // A clip that carries sound is an audio clip; its audio face answers both.
    if (is(name, "IDmAudioClip")) return hasAudio() ? static_cast<IDmAudioFeature*>(this) : nullptr;
    if (is(name, "IDmVideoFeature")) return hasVideo() ? static_cast<IDmVideoFeature*>(this) : nullptr;
    if (is(name, "IDmClipInternal")) return static_cast<IDmClipInternal*>(this);
    if (is(name, "IDmPropertyOwner")) return static_cast<IDmPropertyOwner*>(this);
    if (is(name, "IDmMediaSource")) return static_cast<IDmMediaSource*>(this);
    if (is(name, "IDmBaseObj")) return static_cast<IDmBaseObj*>(static_cast<IDmClip*>(this));
    if (is(name, "RefCnt")) return static_cast<RefCnt<void>*>(this);
    return nullptr;
}

// ---------------------------------------------------------------------------
// IDmClip

int32_t DmMediaClip::clipType() {
    if (hasVideo()) return DmTrackVideo;
    if (hasAudio()) return DmTrackAudio;
    return 0;
}

IDmTimeline* DmMediaClip::timeline() { return nullptr; }
IDmTrack* DmMediaClip::track() { return nullptr; }
const char* DmMediaClip::clipId() { return clipId_.c_str(); }

int32_t DmMediaClip::mediaId(char* buffer, int32_t size) {
    if (buffer == nullptr || size <= 0) return kResultFailure;
    zor_strcpy(buffer, static_cast<size_t>(size), probe_.path.c_str());
    return probe_.path.size() < static_cast<size_t>(size) ? kOk : kTruncated;
}

const char* DmMediaClip::name() { return probe_.fileName.c_str(); }
IDmEffect* DmMediaClip::effect(int32_t /*type*/) { return nullptr; }

IDmBaseObj* DmMediaClip::feature(int32_t type, int32_t /*flag*/) {
    if ((type == DmFeatureAudioWave || type == DmFeatureAudioEffects) && hasAudio())
        return static_cast<IDmAudioFeature*>(this);
    return nullptr;
}

IDmAttachedItemList* DmMediaClip::attachedItems() { return attachedItems_; }

// ---------------------------------------------------------------------------
// Properties

void DmMediaClip::setRange(int64_t markIn, int64_t markOut, int64_t begin, int64_t end) {
    std::lock_guard<std::mutex> lock(lock_);
    range_ = Range{markIn, markOut, begin, end};
}

DmMediaClip::Range DmMediaClip::range() const {
    std::lock_guard<std::mutex> lock(lock_);
    return range_;
}

// ---------------------------------------------------------------------------
// The audio stream

std::unique_ptr<DmMediaClip::AudioState> DmMediaClip::makeAudioState(const DmMediaProbe& probe, int32_t requested) {
    auto state = std::make_unique<AudioState>();
    state->requested = requested < 0 ? -1 : requested;
    state->stream = probe.audioStream;
    state->problem = probe.audioProblem;
    if (probe.audioStream >= 0) {
        state->sampleRate = probe.sampleRate;
        state->channels = probe.channels;
        state->duration = probe.audioDuration;
        state->manager =
            acquireWaveManager(probe.path, probe.audioStream, probe.channels, mediaFileIdentity(probe.path.c_str()));
    }
    return state;
}

int32_t DmMediaClip::replaceAudioStream(int32_t requested) {
    requested = requested < 0 ? -1 : requested;
    if (!hasAudio()) return kResultFailure;
    if (audio().requested == requested) return kOk;
    // A state this clip had already is used again (with its wave manager).
    {
        std::lock_guard<std::mutex> lock(lock_);
        for (const std::unique_ptr<AudioState>& state : audioStates_) {
            if (state->requested == requested) {
                audio_.store(state.get(), std::memory_order_release);
                return kOk;
            }
        }
    }
    const DmMediaProbe probe = probeMedia(probe_.path, requested, -1);
    if (probe.audioStream < 0) {
        ZOR_LOG(IBsLogger::Warning, "ZOR::DmMediaClip::replaceAudioStream", "no audio stream %d: %s", requested,
                probe.audioProblem.c_str());
        return kResultFailure;
    }
    std::unique_ptr<AudioState> state = makeAudioState(probe, requested);
    std::lock_guard<std::mutex> lock(lock_);
    audioStates_.push_back(std::move(state));
    audio_.store(audioStates_.back().get(), std::memory_order_release);
    return kOk;
}

int32_t DmMediaClip::getProperty(const char* key, ZorProperty* value) {
    if (key == nullptr || value == nullptr) return kResultFailure;
    if (is(key, keytext::kAudioStreamId)) {
        *value = intProperty(audio().requested);
        return kOk;
    }
    if (is(key, keytext::kVideoStreamId)) {
        *value = intProperty(videoStreamId_);
        return kOk;
    }
    if (is(key, keytext::kMediaInfoWidth)) {
        *value = intProperty(hasVideo() ? probe_.displayWidth() : 0);
        return kOk;
    }
    if (is(key, keytext::kMediaInfoHeight)) {
        *value = intProperty(hasVideo() ? probe_.displayHeight() : 0);
        return kOk;
    }
    if (is(key, keytext::kMediaInfoVideoStreamId)) {
        *value = intProperty(probe_.videoStream);
        return kOk;
    }
    if (is(key, keytext::kMediaInfoDuration)) {
        const Range current = range();
        *value = intProperty(current.markOut - current.markIn);
        return kOk;
    }
    if (is(key, keytext::kClipMarkIn) || is(key, keytext::kClipMarkOut) || is(key, keytext::kClipTimelineBegin) ||
        is(key, keytext::kClipTimelineEnd)) {
        const Range current = range();
        const int64_t time = is(key, keytext::kClipMarkIn)          ? current.markIn
                             : is(key, keytext::kClipMarkOut)       ? current.markOut
                             : is(key, keytext::kClipTimelineBegin) ? current.begin
                                                                    : current.end;
        *value = intProperty(time);
        return kOk;
    }
    std::lock_guard<std::mutex> lock(lock_);
    auto found = properties_.find(key);
    if (found == properties_.end()) return kUnknownKey;
    *value = found->second;
    return kOk;
}

int32_t DmMediaClip::setProperty(const char* key, const ZorProperty& value) {
    if (key == nullptr) return kResultFailure;
    {
        std::lock_guard<std::mutex> lock(lock_);
        auto found = properties_.find(key);
        if (found != properties_.end()) {
            if (value.kind == ZorProperty::None) return kResultFailure;
            found->second = value;
            return kOk;
        }
    }
    // Streams, range and media information are fixed for a media clip.
    ZorProperty ignored;
    return getProperty(key, &ignored) == kOk ? kReadOnlyKey : kUnknownKey;
}

// ---------------------------------------------------------------------------
// IDmAudioFeature

int32_t DmMediaClip::audioStreamIndex() { return audio().stream; }
int32_t DmMediaClip::sampleRate() { return audio().sampleRate; }
int32_t DmMediaClip::channelCount() { return audio().channels; }

// Clip time is media time at mark in; a media clip plays at speed 1, so the
// position is the clip time itself, mirrored inside [markIn, markOut] when
// played backwards.
int64_t DmMediaClip::sourcePosition(int64_t clipTime, bool reverse) {
    if (!reverse) return clipTime;
    const Range current = range();
    return current.markIn + current.markOut - clipTime;
}

int32_t DmMediaClip::valueCountPerFrame(int32_t* count, int64_t rateNum, int64_t rateDen) {
    if (count == nullptr) return kResultFailure;
    *count = 0;
    DmAudioWaveManager* manager = audio().manager;
    if (manager == nullptr) return kNoSuchFeature;
    const uint32_t values = manager->valueCountPerFrame(rateNum, rateDen);
    if (values == 0) return kUnsupportedRate;
    *count = static_cast<int32_t>(values);
    return kOk;
}

int64_t DmMediaClip::mediaDuration() { return audio().duration; }

int32_t DmMediaClip::fillValues(IZORLonglongList* frames, int64_t rateNum, int64_t rateDen, void* buffer) {
    if (frames == nullptr) return kResultFailure;
    DmAudioWaveManager* manager = audio().manager;
    if (manager == nullptr) return kNoSuchFeature;
    const uint32_t perFrame = manager->valueCountPerFrame(rateNum, rateDen);
    if (perFrame == 0) return kUnsupportedRate;
    const int32_t count = frames->count();
    if (count > 0 && buffer == nullptr) return kResultFailure;
    auto* values = static_cast<float*>(buffer);
    for (int32_t i = 0; i < count; ++i) {
        const int64_t frame = frames->get(i);
        float* out = values + static_cast<size_t>(i) * perFrame;
        if (frame < 0 || frame > INT32_MAX) {
            std::fill(out, out + perFrame, 0.0f);
            continue;
        }
        // A frame that is not held reads as zeros, which is what is wanted.
        manager->readFrame(static_cast<int32_t>(frame), rateNum, rateDen, out, perFrame);
    }
    return kOk;
}

// ---------------------------------------------------------------------------
// IDmVideoFeature

int32_t DmMediaClip::videoStreamIndex() { return probe_.videoStream; }

int32_t DmMediaClip::frameRate(int64_t* num, int64_t* den) {
    if (num == nullptr || den == nullptr) return kResultFailure;
    if (!hasVideo() || probe_.frameRateNum <= 0) {
        *num = 0;
        *den = 1;
        return kNoSuchFeature;
    }
    *num = probe_.frameRateNum;
    *den = probe_.frameRateDen;
    return kOk;
}

int32_t DmMediaClip::videoSize(int32_t* width, int32_t* height) {
    if (width == nullptr || height == nullptr) return kResultFailure;
    *width = hasVideo() ? probe_.displayWidth() : 0;
    *height = hasVideo() ? probe_.displayHeight() : 0;
    return hasVideo() ? kOk : kNoSuchFeature;
}

int32_t DmMediaClip::prepareFrames(int32_t width, int32_t height, int64_t /*rateNum*/, int64_t /*rateDen*/) {
    if (!validPictureSize(width, height)) return kResultFailure;
    frameSize_.store(packSize(width, height), std::memory_order_release);
    return kOk;
}

int32_t DmMediaClip::lookupFrames(const int64_t* times, int32_t count, char* slots, int64_t* shown, int32_t width,
                                  int32_t height, int64_t* missing, int32_t* missingCount) {
    std::vector<DmStoredFrame> stored;
    if (hasVideo() && width > 0 && height > 0)
        stored = frameStoreScan(frameStoreFolder(probe_.path.c_str()), probe_.videoStream, width, height);
    int32_t missed = 0;
    for (int32_t i = 0; i < count; ++i) {
        char* slot = slots + static_cast<size_t>(i) * kSlotBytes;
        slot[0] = '\0';
        if (shown != nullptr) shown[i] = -1;
        auto found = std::lower_bound(stored.begin(), stored.end(), times[i],
                                      [](const DmStoredFrame& frame, int64_t time) { return frame.time < time; });
        if (found != stored.end() && found->time == times[i] && found->path.size() < static_cast<size_t>(kSlotBytes)) {
            zor_strcpy(slot, kSlotBytes, found->path.c_str());
            if (shown != nullptr) shown[i] = found->shown;
        } else if (missing != nullptr && !isUnstoredFrameInReport(probe_.path.c_str(), times[i], width, height)) {
            missing[missed++] = times[i];
        }
    }
    if (missingCount != nullptr) *missingCount = missed;
    return kOk;
}

int32_t DmMediaClip::fillFrames(const int64_t* times, int32_t count, void* slots, int64_t* shown, int32_t* filled) {
    if (filled != nullptr) *filled = 0;
    if (count < 0 || (count > 0 && (times == nullptr || slots == nullptr))) return kResultFailure;
    int32_t width = 0;
    int32_t height = 0;
    unpackSize(frameSize_.load(std::memory_order_acquire), &width, &height);
    lookupFrames(times, count, static_cast<char*>(slots), shown, width, height, nullptr, nullptr);
    if (filled != nullptr) *filled = count;
    if (!hasVideo()) return kNoSuchFeature;
    return width > 0 ? kOk : kNotPrepared;
}

int32_t DmMediaClip::prepareThumbnailSize(int32_t width, int32_t height, char* text, int32_t textSize) {
    if (!validPictureSize(width, height)) return kResultFailure;
    thumbnailSize_.store(packSize(width, height), std::memory_order_release);
    if (text != nullptr && textSize > 0) {
        const std::string description = std::to_string(width) + "x" + std::to_string(height);
        zor_strcpy(text, static_cast<size_t>(textSize), description.c_str());
    }
    return hasVideo() ? kOk : kNoSuchFeature;
}

int32_t DmMediaClip::thumbnailFiles(const int64_t* frames, int32_t count, char* slots, int64_t* missing,
                                    int32_t* missingCount) {
    if (missingCount != nullptr) *missingCount = 0;
    if (count < 0 || (count > 0 && (frames == nullptr || slots == nullptr))) return kResultFailure;
    int32_t width = 0;
    int32_t height = 0;
    unpackSize(thumbnailSize_.load(std::memory_order_acquire), &width, &height);
    lookupFrames(frames, count, slots, nullptr, width, height, missing, missingCount);
    if (!hasVideo()) return kNoSuchFeature;
    return width > 0 ? kOk : kNotPrepared;
}

// ---------------------------------------------------------------------------
// IDmClipInternal

IDmClip* DmMediaClip::parentClip() { return nullptr; }

int32_t DmMediaClip::containerPosition(int32_t* first, int32_t* second) {
    if (first != nullptr) *first = -1;
    if (second != nullptr) *second = -1;
    return -1;
}

IDmBaseObj* DmMediaClip::waveManagerSource() {
    DmAudioWaveManager* manager = audio().manager;
    return manager != nullptr ? static_cast<IDmBaseObj*>(static_cast<IDmAudioWaveMgrInternal*>(manager)) : nullptr;
}

// ---------------------------------------------------------------------------
// IDmMediaSource

const char* DmMediaClip::mediaPath() { return probe_.path.c_str(); }

int32_t DmMediaClip::resolvedStream(int32_t kind) {
    if (kind == DmTrackAudio) return audio().stream;
    if (kind == DmTrackVideo) return probe_.videoStream;
    return -1;
}

const char* DmMediaClip::streamProblem(int32_t kind) {
    if (kind == DmTrackAudio) return audio().problem.c_str();
    if (kind == DmTrackVideo) return probe_.videoProblem.c_str();
    return "";
}

IDmAudioWaveStore* DmMediaClip::waveStore() {
    DmAudioWaveManager* manager = audio().manager;
    return manager != nullptr ? static_cast<IDmAudioWaveStore*>(manager) : nullptr;
}

// ---------------------------------------------------------------------------
// Factory

IDmClip* createMediaClip(const char* path, int32_t audioStreamId, int32_t videoStreamId, std::string* error) {
    if (path == nullptr || *path == '\0') {
        if (error != nullptr) *error = "createMediaClip: no media path given";
        ZOR_LOG(IBsLogger::Warning, "ZOR::DmMediaClip::createMediaClip", "no media path given");
        return nullptr;
    }
    DmMediaProbe probe =
        probeMedia(path, audioStreamId < 0 ? -1 : audioStreamId, videoStreamId < 0 ? -1 : videoStreamId);
    std::string problem;
    if (!probe.opened)
        problem = probe.problem;
    else if (probe.audioStream < 0 && probe.videoStream < 0)
        problem = probe.audioProblem + "; " + probe.videoProblem;
    else if (probe.audioStream < 0 && audioStreamId >= 0)
        problem = probe.audioProblem;
    else if (probe.videoStream < 0 && videoStreamId >= 0)
        problem = probe.videoProblem;
    if (!problem.empty())
        ZOR_LOG(IBsLogger::Warning, "ZOR::DmMediaClip::createMediaClip", "clip without %s: %s",
                probe.audioStream < 0 && probe.videoStream < 0 ? "media streams"
                : probe.audioStream < 0                        ? "audio"
                                                               : "video",
                problem.c_str());
    if (error != nullptr) *error = problem;

    auto* clip = new DmMediaClip(std::move(probe), audioStreamId < 0 ? -1 : audioStreamId,
                                 videoStreamId < 0 ? -1 : videoStreamId);
    clip->AddRef();
    return static_cast<IDmClip*>(clip);
}

}  // namespace ZOR
