#include "BsTimelineChangedInfo.h"

#include <cstring>

#include "Adapter/Adapter.h"
#include "BsClipThumbnailService.h"
#include "BsDataStructure/BsDataStructure.h"

ZOR_LOG_SOURCE("modules/BaseService/Miravel/BsClipThumbnailService/BsTimelineChangedInfo")

namespace ZOR {

namespace {

bool same(const char* a, const char* b) { return a != nullptr && b != nullptr && std::strcmp(a, b) == 0; }

constexpr int32_t kFeatureAudioEffects = 0x100e;
constexpr int32_t kFeatureAudioWave = 0x100d;

}  // namespace

BsTimelineChangedInfo::BsTimelineChangedInfo(IChangedCallback* callback, IDmTimeline* timeline)
    : callback_(callback), timeline_(timeline) {
    if (timeline_ != nullptr) attachTimeline();
}

BsTimelineChangedInfo::~BsTimelineChangedInfo() {
    // The data model keeps plain listener pointers: nothing may name this
    // object once it is gone.
    if (timeline_ != nullptr) {
        for (IDmClip* clip : std::set<IDmClip*>(attachedClips_)) detachClip(clip);
        for (int32_t t = 0; t < timeline_->trackCount(); ++t) unregisterFrom(timeline_->track(t));
        unregisterFrom(timeline_);
    }
    for (IDmClip* clip : attachedClips_) clip->Release();
    for (IDmClip* clip : addedClips_) clip->Release();
    for (IDmClip* clip : removedClips_) clip->Release();
}

void* BsTimelineChangedInfo::queryInterface(const char* name) {
    if (name == nullptr) return nullptr;
    if (same(name, "IDmTimelineCallback")) return static_cast<IDmTimelineCallback*>(this);
    if (same(name, "IDmClipCallback")) return static_cast<IDmClipCallback*>(this);
    if (same(name, "IDmVideoAudioBaseClipCallback")) return static_cast<IDmVideoAudioBaseClipCallback*>(this);
    if (same(name, "IDmAudioClipCallback")) return static_cast<IDmAudioClipCallback*>(this);
    if (same(name, "IDmEffectCallback")) return static_cast<IDmEffectCallback*>(this);
    if (same(name, "IDmTrackCallback")) return static_cast<IDmTrackCallback*>(this);
    if (same(name, "IDmAudioTimelineClipCallback")) return static_cast<IDmAudioTimelineClipCallback*>(this);
    if (same(name, "IDmBaseObj")) return static_cast<IDmBaseObj*>(this);
    if (same(name, "RefCnt")) return static_cast<RefCnt<void>*>(this);
    return nullptr;
}

// ---------------------------------------------------------------------------
// Attaching

void BsTimelineChangedInfo::registerOn(IDmBaseObj* object) {
    if (object == nullptr) return;
    if (auto* source = static_cast<IDmCallbackSource*>(object->queryInterface("IDmCallbackSource")))
        source->registerCallback(static_cast<IDmBaseObj*>(this));
}

void BsTimelineChangedInfo::unregisterFrom(IDmBaseObj* object) {
    if (object == nullptr) return;
    if (auto* source = static_cast<IDmCallbackSource*>(object->queryInterface("IDmCallbackSource")))
        source->unregisterCallback(static_cast<IDmBaseObj*>(this));
}

void BsTimelineChangedInfo::insertHeld(std::set<IDmClip*>& set, IDmClip* clip) {
    if (clip == nullptr) return;
    if (set.insert(clip).second) clip->AddRef();
}

void BsTimelineChangedInfo::eraseHeld(std::set<IDmClip*>& set, IDmClip* clip) {
    if (set.erase(clip) != 0) clip->Release();
}

void BsTimelineChangedInfo::insertAttached(IDmClip* clip) { insertHeld(attachedClips_, clip); }
void BsTimelineChangedInfo::eraseAttached(IDmClip* clip) { eraseHeld(attachedClips_, clip); }

void BsTimelineChangedInfo::attachTimeline() {
    registerOn(timeline_);
    for (int32_t t = 0; t < timeline_->trackCount(); ++t) {
        registerOn(timeline_->track(t));
        for (int32_t i = 0; i < timeline_->clipCount(t); ++i) attachClip(timeline_->clip(t, i));
    }
}

void BsTimelineChangedInfo::attachClip(IDmClip* clip) {
    IDmClip* audioClip = getBaseAudioClip(clip);
    if (audioClip == nullptr) return;
    insertAttached(audioClip);
    registerOn(audioClip);
    registerOn(audioClip->feature(kFeatureAudioEffects, 1));
    registerOn(audioClip->feature(kFeatureAudioWave, 1));
    auto* internal = static_cast<IDmClipInternal*>(audioClip->queryInterface("IDmClipInternal"));
    if (IDmClip* parent = internal != nullptr ? internal->parentClip() : nullptr) {
        insertAttached(parent);
        registerOn(parent);
    }
}

void BsTimelineChangedInfo::detachClip(IDmClip* clip) {
    if (clip == nullptr) return;
    IDmClip* audioClip = getBaseAudioClip(clip);
    IDmClip* parent = nullptr;
    if (audioClip != nullptr) {
        auto* internal = static_cast<IDmClipInternal*>(audioClip->queryInterface("IDmClipInternal"));
        parent = internal != nullptr ? internal->parentClip() : nullptr;
        unregisterFrom(audioClip->feature(kFeatureAudioEffects, 1));
        unregisterFrom(audioClip->feature(kFeatureAudioWave, 1));
        unregisterFrom(audioClip);
    }
    if (parent != nullptr) unregisterFrom(parent);
    // The clip itself when it was attached directly (a parent, or a clip
    // whose base audio clip is gone).
    if (clip != audioClip && clip != parent) unregisterFrom(clip);
    const ZorRef<IDmBaseObj> hold = ZorRef<IDmBaseObj>::share(clip);
    if (parent != nullptr) eraseAttached(parent);
    if (audioClip != nullptr) eraseAttached(audioClip);
    eraseAttached(clip);
}

void BsTimelineChangedInfo::watchClip(IDmClip* clip) {
    std::lock_guard<std::mutex> guard(lock_);
    if (timeline_ != nullptr) attachClip(clip);
    watchedClips_.insert(clip);
}

void BsTimelineChangedInfo::unwatchClip(IDmClip* clip) {
    std::lock_guard<std::mutex> guard(lock_);
    if (timeline_ != nullptr) detachClip(clip);
    watchedClips_.erase(clip);
}

// ---------------------------------------------------------------------------
// Recording

void BsTimelineChangedInfo::addFlags(IDmClip* audioClip, uint32_t bits) {
    if (audioClip == nullptr) return;
    changeFlags_[audioClip] |= bits;
}

void BsTimelineChangedInfo::propertyFilter(IDmClip* clip, const char* key) {
    IDmClip* audioClip = getBaseAudioClip(clip);
    if (audioClip == nullptr) return;
    const ZorRef<IDmBaseObj> hold = ZorRef<IDmBaseObj>::share(audioClip);
    std::lock_guard<std::mutex> guard(lock_);
    uint32_t& flags = changeFlags_[audioClip];
    if (key == nullptr) return;
    const struct {
        const char* key;
        uint32_t bits;
    } filter[] = {
        {clipKey::enable, kEnable},
        {audioKey::streamId, kStream},
        {audioReversePlayKey::enable, kSpeed},
        {clipKey::timelineBegin, kRange},
        {clipKey::timelineEnd, kRange},
        {clipKey::markIn, kMarks},
        {clipKey::markOut, kMarks},
        {audioKey::volume, kVolume},
        {audioLoudness::enable, kLoudness},
        {audioLoudness::gain, kLoudness},
        {clipVolumeKey::volumeGain, kVolumeGain},
    };
    for (const auto& entry : filter) {
        if (std::strcmp(key, entry.key) == 0) {
            flags |= entry.bits;
            break;
        }
    }
    // A mute change marks both the volume and the ducking of the clip.
    if (std::strcmp(key, audioKey::mute) == 0) flags |= kVolume | kDucking;
}

void BsTimelineChangedInfo::effectFilter(IDmEffect* effect) {
    if (effect == nullptr) return;
    const char* name = effect->effectName();
    uint32_t bits = 0;
    if (same(name, "audio/effect/ducking"))
        bits = kDucking;
    else if (same(name, "audio/effect/volume"))
        bits = kVolume;
    else
        return;
    IDmClip* owner = effect->ownerClip();
    if (owner == nullptr) return;
    const ZorRef<IDmBaseObj> hold = ZorRef<IDmBaseObj>::share(owner);
    std::lock_guard<std::mutex> guard(lock_);
    addFlags(owner, bits);
}

void BsTimelineChangedInfo::trackFilter(IDmTrack* track, const char* key) {
    if (track == nullptr || key == nullptr) return;
    if (!same(key, trackKey::mute) && !same(key, trackKey::visible) && !same(key, trackKey::solo)) return;
    IDmTimeline* owner = track->owner();
    if (owner == nullptr) return;
    const int32_t index = track->trackIndex();
    std::lock_guard<std::mutex> guard(lock_);
    for (int32_t i = 0; i < owner->clipCount(index); ++i) {
        IDmClip* audioClip = getBaseAudioClip(owner->clip(index, i));
        if (audioClip != nullptr) addFlags(audioClip, kEnable);
    }
}

// ---------------------------------------------------------------------------
// Data-model notifications

int32_t BsTimelineChangedInfo::onTimelineChanged(IDmTimeline*) { return 0; }

int32_t BsTimelineChangedInfo::onTrackAdded(IDmTimeline*, IDmCallbackSource* track) {
    if (track != nullptr) track->registerCallback(static_cast<IDmBaseObj*>(this));
    return 0;
}

int32_t BsTimelineChangedInfo::onTrackRemoved(IDmTimeline*, IDmCallbackSource* track) {
    if (track != nullptr) track->unregisterCallback(static_cast<IDmBaseObj*>(this));
    std::lock_guard<std::mutex> guard(lock_);
    if (timeline_ == nullptr) return 0;
    // Detach from the clips the timeline no longer holds.
    std::set<IDmClip*> held;
    for (int32_t t = 0; t < timeline_->trackCount(); ++t) {
        for (int32_t i = 0; i < timeline_->clipCount(t); ++i) {
            IDmClip* clip = timeline_->clip(t, i);
            held.insert(clip);
            if (IDmClip* audioClip = getBaseAudioClip(clip)) held.insert(audioClip);
        }
    }
    for (IDmClip* clip : std::set<IDmClip*>(attachedClips_))
        if (held.count(clip) == 0) detachClip(clip);
    return 0;
}

int32_t BsTimelineChangedInfo::onTrackMoved(IDmTimeline*, IDmTrack*) { return 0; }

int32_t BsTimelineChangedInfo::onClipAdded(IDmTimeline*, IDmClip* clip) {
    if (clip == nullptr) return 0;
    std::lock_guard<std::mutex> guard(lock_);
    addFlags(getBaseAudioClip(clip), kRange);
    eraseHeld(removedClips_, clip);
    insertHeld(addedClips_, clip);
    attachClip(clip);
    return 0;
}

int32_t BsTimelineChangedInfo::onClipRemoved(IDmTimeline*, IDmClip* clip) {
    if (clip == nullptr) return 0;
    std::lock_guard<std::mutex> guard(lock_);
    eraseHeld(addedClips_, clip);
    insertHeld(removedClips_, clip);
    detachClip(clip);
    return 0;
}

int32_t BsTimelineChangedInfo::onClipMoved(IDmTimeline*, IDmClip*) { return 0; }

int32_t BsTimelineChangedInfo::onTimelineGone(IDmTimeline*) {
    IDmTimeline* gone = nullptr;
    {
        std::lock_guard<std::mutex> guard(lock_);
        gone = timeline_;
        if (timeline_ != nullptr) {
            for (IDmClip* clip : std::set<IDmClip*>(attachedClips_)) detachClip(clip);
            for (int32_t t = 0; t < timeline_->trackCount(); ++t) unregisterFrom(timeline_->track(t));
            unregisterFrom(timeline_);
        }
    }
    if (callback_ != nullptr) callback_->onAllClipsChanged(gone);
    std::lock_guard<std::mutex> guard(lock_);
    watchedClips_.clear();
    timeline_ = nullptr;
    return 0;
}

int32_t BsTimelineChangedInfo::onClipPropertyChanged(IDmClip* clip, const char* key) {
    propertyFilter(clip, key);
    return 0;
}

int32_t BsTimelineChangedInfo::onMediaChanged(IDmClip* clip) {
    IDmClip* audioClip = getBaseAudioClip(clip);
    std::lock_guard<std::mutex> guard(lock_);
    addFlags(audioClip, kSpeed);
    return 0;
}
int32_t BsTimelineChangedInfo::onStreamChanged(IDmClip* clip) { return onMediaChanged(clip); }
int32_t BsTimelineChangedInfo::onRangeChanged(IDmClip* clip) { return onMediaChanged(clip); }
int32_t BsTimelineChangedInfo::onSpeedChanged(IDmClip* clip) { return onMediaChanged(clip); }
int32_t BsTimelineChangedInfo::onRelinked(IDmClip* clip) { return onMediaChanged(clip); }
int32_t BsTimelineChangedInfo::onSelectionChanged(IDmClip*) { return 0; }
int32_t BsTimelineChangedInfo::onNameChanged(IDmClip*) { return 0; }

int32_t BsTimelineChangedInfo::onAudioPropertyChanged(IDmClip* clip, const char* key) {
    propertyFilter(clip, key);
    return 0;
}
int32_t BsTimelineChangedInfo::onAudioStreamReplaced(IDmClip* clip) {
    std::lock_guard<std::mutex> guard(lock_);
    addFlags(clip, kStream);
    return 0;
}
int32_t BsTimelineChangedInfo::onAudioLevelsChanged(IDmClip*) { return 0; }

int32_t BsTimelineChangedInfo::onEffectAdded(IDmEffect* effect) {
    effectFilter(effect);
    return 0;
}
int32_t BsTimelineChangedInfo::onEffectRemoved(IDmEffect* effect) { return onEffectAdded(effect); }
int32_t BsTimelineChangedInfo::onEffectChanged(IDmEffect* effect) { return onEffectAdded(effect); }
int32_t BsTimelineChangedInfo::onKeyframesChanged(IDmEffect* effect) { return onEffectAdded(effect); }

int32_t BsTimelineChangedInfo::onTrackPropertyChanged(IDmTrack* track, const char* key) {
    trackFilter(track, key);
    return 0;
}

int32_t BsTimelineChangedInfo::onTimelineClipPropertyChanged(IDmClip* clip, const char* key) {
    propertyFilter(clip, key);
    return 0;
}

// ---------------------------------------------------------------------------
// Reporting

void BsTimelineChangedInfo::processChanges(const std::shared_ptr<BsClipThumbnailServiceImpl>& /*impl*/) {
    // The records are taken under the lock and reported after it.
    std::map<IDmClip*, uint32_t> flagsOf;
    std::set<IDmClip*> removed;  // one reference each, as the set held them
    std::set<IDmClip*> added;    // likewise
    IDmTimeline* timeline = nullptr;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (removedClips_.empty() && addedClips_.empty() && changeFlags_.empty()) return;
        for (IDmClip* clip : removedClips_)
            if (IDmClip* audioClip = getBaseAudioClip(clip)) changeFlags_[audioClip] = kRemoved;
        for (IDmClip* clip : addedClips_)
            if (IDmClip* audioClip = getBaseAudioClip(clip)) changeFlags_[audioClip] = kAdded;
        for (IDmClip* clip : removedClips_)
            if (IDmClip* audioClip = getBaseAudioClip(clip)) watchedClips_.erase(audioClip);
        flagsOf.swap(changeFlags_);
        removed.swap(removedClips_);
        added.swap(addedClips_);
        timeline = timeline_;
    }

    IDmFactory* factory = getDmFactoryInstance();
    const auto clips = ZorRef<IDmClipList>::adopt(factory != nullptr ? factory->createIDmClipList() : nullptr);
    const auto flags = ZorRef<IZORIntList>::adopt(createZORIntList());
    if (clips && flags) {
        for (const auto& [clip, bits] : flagsOf) {
            if (bits == 0) continue;
            clips->append(clip);
            flags->append(static_cast<int32_t>(bits));
        }
        if (clips->count() > 0 && callback_ != nullptr) callback_->onAudioChanged(timeline, clips.get(), flags.get());
    }
    for (IDmClip* clip : removed)
        if (callback_ != nullptr) callback_->onClipChanged(timeline, clip);
    for (IDmClip* clip : removed) clip->Release();
    for (IDmClip* clip : added) clip->Release();
}

}  // namespace ZOR
