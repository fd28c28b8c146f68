#include "DmTimelineClip.h"

#include "DmAttachedItems.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "DataModel/DmKeyTexts.h"
#include "DmClipTimeMapping.h"
#include "DmTrack.h"

namespace ZOR {

namespace {

constexpr int32_t kOk = 0;

bool is(const char* key, const char* text) { return std::strcmp(key, text) == 0; }

std::string nextClipId() {
    static std::atomic<uint64_t> counter{0};
    return "timeline-clip-" + std::to_string(counter.fetch_add(1, std::memory_order_relaxed) + 1);
}

int32_t streamOrBest(int32_t stream) { return stream < 0 ? -1 : stream; }

// The probe of a clip that does not use the file's sound (it lives in the
// linked audio clip, or the clip is on a video track without any).
DmMediaProbe withoutAudio(DmMediaProbe probe, const char* why) {
    if (probe.audioStream >= 0) probe.audioProblem = "'" + probe.path + "': " + why;
    probe.audioStream = -1;
    probe.sampleRate = 0;
    probe.channels = 0;
    probe.audioDuration = 0;
    return probe;
}

// The probe of a clip that shows no picture (on an audio track, or the linked
// audio clip of a video clip).
DmMediaProbe withoutVideo(DmMediaProbe probe, const char* why) {
    if (probe.videoStream >= 0) probe.videoProblem = "'" + probe.path + "': " + why;
    probe.videoStream = -1;
    probe.codedWidth = 0;
    probe.codedHeight = 0;
    probe.rotation = 0;
    probe.sarNum = 1;
    probe.sarDen = 1;
    probe.frameRateNum = 0;
    probe.frameRateDen = 1;
    probe.videoDuration = 0;
    return probe;
}

// The probe of a clip whose description names no media.
DmMediaProbe missingMedia() {
    DmMediaProbe probe;
    probe.problem = "the clip has no media";
    probe.audioProblem = probe.problem;
    probe.videoProblem = probe.problem;
    return probe;
}

std::vector<DmSpeedPartDesc> sortedParts(std::vector<DmSpeedPartDesc> parts) {
    std::stable_sort(parts.begin(), parts.end(),
                     [](const DmSpeedPartDesc& a, const DmSpeedPartDesc& b) { return a.begin < b.begin; });
    return parts;
}

// The media position of clip time c through speed parts: the position moves
// from markIn at each part's speed inside the part and at speed 1 between
// parts. Stretches at speed 1 are counted in integers, so only the stretches
// at other speeds are rounded (once, at the end).
int64_t positionThroughParts(const std::vector<DmSpeedPartDesc>& parts, int64_t markIn, int64_t c) {
    const int64_t low = std::min(markIn, c);
    const int64_t high = std::max(markIn, c);
    int64_t exact = 0;
    double scaled = 0.0;
    int64_t at = low;
    for (const DmSpeedPartDesc& part : parts) {
        const int64_t begin = std::max(part.begin, low);
        const int64_t end = std::min(part.end, high);
        if (end <= begin) continue;
        if (begin > at) exact += begin - at;
        if (part.speed == 1.0)
            exact += end - begin;
        else
            scaled += static_cast<double>(end - begin) * part.speed;
        at = end;
    }
    if (high > at) exact += high - at;
    return c >= markIn ? markIn + exact + std::llround(scaled) : markIn - exact - std::llround(scaled);
}

}  // namespace

int64_t forwardMediaPosition(const std::vector<DmSpeedPartDesc>& sortedParts, double speed, int64_t markIn, int64_t c) {
    if (!sortedParts.empty()) return positionThroughParts(sortedParts, markIn, c);
    if (speed != 1.0) return markIn + std::llround(static_cast<double>(c - markIn) * speed);
    return c;
}

DmTimelineClip::DmTimelineClip(DmMediaProbe probe, int32_t audioStreamId, int32_t videoStreamId, const DmClipDesc& desc,
                               int32_t kind, const Place& place)
    : DmMediaClip(std::move(probe), audioStreamId, videoStreamId, nextClipId()),
      kind_(kind),
      name_(desc.name),
      describedPath_(desc.mediaPath),
      speed_(desc.speed),
      timeline_(place.timeline),
      track_(place.track),
      position_(packPosition(place.trackIndex, place.clipIndex)),
      speedParts_(std::make_shared<const std::vector<DmSpeedPartDesc>>(sortedParts(desc.speedParts))) {
    setRange(desc.markIn, desc.markOut, desc.begin, desc.end);
    DmMediaClip::setProperty(keytext::kAudioVolume, doubleProperty(desc.volumeDb));
    DmMediaClip::setProperty(keytext::kAudioMute, boolProperty(desc.mute));
    DmMediaClip::setProperty(keytext::kClipVolumeGain, doubleProperty(desc.volumeGainDb));
    DmMediaClip::setProperty(keytext::kLoudnessEnable, boolProperty(desc.loudnessEnabled));
    DmMediaClip::setProperty(keytext::kLoudnessGain, doubleProperty(desc.loudnessGain));
    DmMediaClip::setProperty(keytext::kReversePlayEnable, boolProperty(desc.reverse));
    DmMediaClip::setProperty(keytext::kClipEnable, boolProperty(desc.enabled));
    styles_ = createStyleItemList(desc.imageStyleId, desc.templateStyleId);
}

DmTimelineClip* DmTimelineClip::create(const DmClipDesc& desc, int32_t trackKind, const Place& place) {
    const bool onVideoTrack = trackKind == DmTrackVideo;
    const int32_t audioStream = streamOrBest(onVideoTrack ? desc.audioStreamId : desc.streamId);
    const int32_t videoStream = onVideoTrack ? streamOrBest(desc.streamId) : -1;
    DmMediaProbe probe = desc.mediaPath.empty() ? missingMedia() : probeMedia(desc.mediaPath, audioStream, videoStream);

    if (!onVideoTrack) {
        auto* clip = new DmTimelineClip(withoutVideo(std::move(probe), "the clip is on an audio track"), audioStream,
                                        -1, desc, trackKind, place);
        clip->AddRef();
        clip->allEffects_ = makeClipEffects(desc, static_cast<IDmClip*>(clip));
        clip->effects_ = clip->allEffects_;
        return clip;
    }

    const bool hasSound = probe.audioStream >= 0;
    auto* clip = new DmTimelineClip(withoutAudio(probe, "the sound is in the linked audio clip"), audioStream,
                                    videoStream, desc, trackKind, place);
    clip->AddRef();
    if (hasSound) {
        auto* linked = new DmTimelineClip(withoutVideo(std::move(probe), "the linked audio clip shows no picture"),
                                          audioStream, -1, desc, DmTrackAudio, place);
        linked->AddRef();
        linked->parent_.store(clip, std::memory_order_release);
        linked->allEffects_ = makeClipEffects(desc, static_cast<IDmClip*>(linked));
        linked->effects_ = linked->allEffects_;
        clip->linked_ = linked;
    }
    return clip;
}

DmTimelineClip::~DmTimelineClip() {
    if (styles_ != nullptr) styles_->Release();
    for (DmEffect* effect : allEffects_) {
        effect->detachFromClip();
        effect->Release();
    }
    if (linked_ != nullptr) {
        linked_->detachFromParent();
        linked_->Release();
    }
}

void DmTimelineClip::detachFromTrack() {
    timeline_.store(nullptr, std::memory_order_release);
    track_.store(nullptr, std::memory_order_release);
    position_.store(-1, std::memory_order_release);
    if (linked_ != nullptr) linked_->detachFromTrack();
}

void DmTimelineClip::placeOn(DmTimeline* timeline, DmTrack* track, int32_t trackIndex, int32_t clipIndex) {
    timeline_.store(timeline, std::memory_order_release);
    track_.store(track, std::memory_order_release);
    position_.store(packPosition(trackIndex, clipIndex), std::memory_order_release);
    if (linked_ != nullptr) linked_->placeOn(timeline, track, trackIndex, clipIndex);
}

void DmTimelineClip::setPosition(int32_t trackIndex, int32_t clipIndex) {
    position_.store(packPosition(trackIndex, clipIndex), std::memory_order_release);
    if (linked_ != nullptr) linked_->setPosition(trackIndex, clipIndex);
}

int64_t DmTimelineClip::packPosition(int32_t trackIndex, int32_t clipIndex) {
    if (trackIndex < 0 || clipIndex < 0) return -1;
    return (static_cast<int64_t>(trackIndex) << 32) | static_cast<int64_t>(static_cast<uint32_t>(clipIndex));
}

void DmTimelineClip::forgetTimeline() {
    timeline_.store(nullptr, std::memory_order_release);
    if (linked_ != nullptr) linked_->forgetTimeline();
}

void DmTimelineClip::detachFromParent() {
    parent_.store(nullptr, std::memory_order_release);
    detachFromTrack();
}

void* DmTimelineClip::queryInterface(const char* name) {
    if (name == nullptr) return nullptr;
    if (is(name, "IDmClipSpeedPart")) return static_cast<IDmClipSpeedPart*>(this);
    if (is(name, "IDmCallbackSource")) return static_cast<IDmCallbackSource*>(this);
    // Internal: the clip that carries a video clip's sound.
    if (is(name, "IDmLinkedAudioClip")) return linked_ != nullptr ? static_cast<IDmClip*>(linked_) : nullptr;
    return DmMediaClip::queryInterface(name);
}

// ---------------------------------------------------------------------------
// IDmClip

int32_t DmTimelineClip::clipType() { return kind_; }

IDmTimeline* DmTimelineClip::timeline() {
    DmTimeline* owner = timeline_.load(std::memory_order_acquire);
    return owner != nullptr ? static_cast<IDmTimeline*>(owner) : nullptr;
}

IDmTrack* DmTimelineClip::track() {
    DmTrack* owner = track_.load(std::memory_order_acquire);
    return owner != nullptr ? static_cast<IDmTrack*>(owner) : nullptr;
}

const char* DmTimelineClip::name() { return name_.c_str(); }

IDmEffect* DmTimelineClip::effect(int32_t type) {
    DmEffect* found = currentEffect(type);
    return found != nullptr ? static_cast<IDmEffect*>(found) : nullptr;
}

DmTimelineClip* DmTimelineClip::soundCarrier() {
    if (linked_ != nullptr) return linked_;
    return kind_ == DmTrackAudio ? this : nullptr;
}

// ---------------------------------------------------------------------------
// Effects

DmEffect* DmTimelineClip::currentEffect(int32_t type) const {
    std::lock_guard<std::mutex> lock(lock_);
    for (DmEffect* found : effects_)
        if (found->effectType() == type) return found;
    return nullptr;
}

DmEffect* DmTimelineClip::makeEffect(int32_t type, DmEffect::Settings settings) {
    auto* made = new DmEffect(type, effectNameOf(type), static_cast<IDmClip*>(this), std::move(settings));
    made->AddRef();
    std::lock_guard<std::mutex> lock(lock_);
    allEffects_.push_back(made);
    return made;
}

void DmTimelineClip::addEffect(DmEffect* effect) {
    std::lock_guard<std::mutex> lock(lock_);
    std::erase_if(effects_, [effect](DmEffect* applied) {
        return applied == effect || applied->effectType() == effect->effectType();
    });
    effects_.push_back(effect);
}

void DmTimelineClip::removeEffect(DmEffect* effect) {
    std::lock_guard<std::mutex> lock(lock_);
    std::erase(effects_, effect);
}

IDmAttachedItemList* DmTimelineClip::attachedItems() { return styles_; }

// ---------------------------------------------------------------------------
// Properties

bool DmTimelineClip::isAudioKey(const char* key) const {
    return is(key, keytext::kAudioVolume) || is(key, keytext::kAudioMute) || is(key, keytext::kAudioStreamId) ||
           is(key, keytext::kClipVolumeGain) || is(key, keytext::kLoudnessEnable) || is(key, keytext::kLoudnessGain) ||
           is(key, keytext::kReversePlayEnable);
}

int32_t DmTimelineClip::getProperty(const char* key, ZorProperty* value) {
    // A video clip's sound properties are its linked audio clip's.
    if (key != nullptr && linked_ != nullptr && isAudioKey(key)) return linked_->getProperty(key, value);
    return DmMediaClip::getProperty(key, value);
}

int32_t DmTimelineClip::setProperty(const char* key, const ZorProperty& value) {
    if (key != nullptr && linked_ != nullptr && isAudioKey(key)) return linked_->setProperty(key, value);
    return DmMediaClip::setProperty(key, value);
}

// ---------------------------------------------------------------------------
// Time mapping

std::shared_ptr<const std::vector<DmSpeedPartDesc>> DmTimelineClip::currentParts() const {
    std::lock_guard<std::mutex> lock(lock_);
    return speedParts_;
}

std::vector<DmSpeedPartDesc> DmTimelineClip::speedParts() const { return *currentParts(); }

void DmTimelineClip::setSpeedParts(const std::vector<DmSpeedPartDesc>& parts) {
    auto replacement = std::make_shared<const std::vector<DmSpeedPartDesc>>(sortedParts(parts));
    {
        std::lock_guard<std::mutex> lock(lock_);
        speedParts_ = replacement;
    }
    if (linked_ != nullptr) linked_->setSpeedParts(parts);
}

void DmTimelineClip::setTimes(const Range& times) {
    setRange(times.markIn, times.markOut, times.begin, times.end);
    if (linked_ != nullptr) linked_->setTimes(times);
}

int64_t DmTimelineClip::sourcePosition(int64_t clipTime, bool reverse) {
    const Range current = range();
    const std::shared_ptr<const std::vector<DmSpeedPartDesc>> parts = currentParts();
    const int64_t position = forwardMediaPosition(*parts, speed_, current.markIn, clipTime);
    return reverse ? current.markIn + current.markOut - position : position;
}

// ---------------------------------------------------------------------------
// IDmClipInternal

IDmClip* DmTimelineClip::parentClip() {
    DmTimelineClip* parent = parent_.load(std::memory_order_acquire);
    return parent != nullptr ? static_cast<IDmClip*>(parent) : nullptr;
}

int32_t DmTimelineClip::containerPosition(int32_t* first, int32_t* second) {
    const int64_t position = position_.load(std::memory_order_acquire);
    const bool placed = position >= 0;
    if (first != nullptr) *first = placed ? static_cast<int32_t>(position >> 32) : -1;
    if (second != nullptr) *second = placed ? static_cast<int32_t>(position & 0xFFFFFFFF) : -1;
    return placed ? kOk : -1;
}

// ---------------------------------------------------------------------------
// IDmClipSpeedPart

int32_t DmTimelineClip::speedPartCount() { return static_cast<int32_t>(currentParts()->size()); }

int32_t DmTimelineClip::speedPart(int32_t index, int64_t* begin, int64_t* end, double* speed) {
    const std::shared_ptr<const std::vector<DmSpeedPartDesc>> parts = currentParts();
    if (index < 0 || static_cast<size_t>(index) >= parts->size()) return kResultFailure;
    const DmSpeedPartDesc& part = (*parts)[static_cast<size_t>(index)];
    if (begin != nullptr) *begin = part.begin;
    if (end != nullptr) *end = part.end;
    if (speed != nullptr) *speed = part.speed;
    return kOk;
}

// ---------------------------------------------------------------------------
// IDmCallbackSource

int32_t DmTimelineClip::registerCallback(IDmBaseObj* listener) { return callbacks_.add(listener); }
int32_t DmTimelineClip::unregisterCallback(IDmBaseObj* listener) { return callbacks_.remove(listener); }

}  // namespace ZOR

namespace ZOR {

int64_t mediaTimeOfClip(IDmClip* clip, int64_t clipTime) {
    DmTimelineClip* found = clip != nullptr ? dynamic_cast<DmTimelineClip*>(clip) : nullptr;
    if (found == nullptr) {
        // A media clip of its own plays at speed 1 and forwards; anything
        // else maps through its audio face when it has one.
        auto* audio =
            clip != nullptr ? static_cast<IDmAudioFeature*>(clip->queryInterface("IDmAudioFeature")) : nullptr;
        return audio != nullptr ? audio->sourcePosition(clipTime, false) : clipTime;
    }
    // The sound and the pictures of a clip play the same media positions:
    // the direction is the one its sound is given (the reverse effect of the
    // clip that carries the sound), as the audio thumbnails read it.
    DmTimelineClip* primary = found->primary();
    DmTimelineClip* carrier = primary->soundCarrier();
    bool reverse = false;
    if (carrier != nullptr) {
        IDmEffect* effect = carrier->effect(DmEffectReversePlay);
        reverse = effect != nullptr && effect->value(0) != 0.0f;
    } else {
        // A clip without sound keeps its direction as a property only.
        carrier = primary;
        ZorProperty property;
        reverse = carrier->getProperty(keytext::kReversePlayEnable, &property) == 0 &&
                  property.kind == ZorProperty::Bool && property.boolValue();
    }
    return carrier->sourcePosition(clipTime, reverse);
}

}  // namespace ZOR
