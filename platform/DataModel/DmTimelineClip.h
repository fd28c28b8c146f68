// A clip placed on a timeline by createTimeline().
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "DataModel/DataModel.h"
#include "DataModel/DmTimeline.h"
#include "DmEffect.h"
#include "DmMediaClip.h"
#include "DmMediaProbe.h"
#include "DmTimelineObject.h"

namespace ZOR {

class DmTrack;

// A media clip with a place on a timeline: its range, speed, name and audio
// properties come from its description, and edits (DmEdit.h) change them.
//
// Roles. The primary clip is the one its track lists. On an audio track it
// carries its own sound (audio feature, audio effects). On a video track it
// answers the video feature only; when its media has sound, it owns a linked
// audio clip of the same media (audio only, same range, name and speed) that
// carries the sound: the audio feature, the audio effects and the audio
// properties (read and written through the video clip as well, so there is
// one value of each). getBaseAudioClip() finds the linked clip by the internal
// query name "IDmLinkedAudioClip".
//
// Threads. Edits run on the event thread; readers run anywhere. What edits
// change is guarded (range and properties by the media clip's lock, speed
// parts and effects by lock_) or atomic (the place); the rest is fixed. An
// effect the clip ever had stays alive until the clip dies, so a pointer that
// effect() gave stays valid while the clip lives.
class DmTimelineClip final : public DmMediaClip, public virtual IDmClipSpeedPart, public virtual IDmCallbackSource {
public:
    // Where the clip sits.
    struct Place {
        DmTimeline* timeline = nullptr;
        DmTrack* track = nullptr;
        int32_t trackIndex = -1;
        int32_t clipIndex = -1;
    };
    using DmMediaClip::Range;

    // The primary clip of desc on a track of trackKind (DmTrackVideo or
    // DmTrackAudio), with one reference for the caller; with its linked audio
    // clip when it is on a video track and its media has sound.
    static DmTimelineClip* create(const DmClipDesc& desc, int32_t trackKind, const Place& place);

    ~DmTimelineClip() override;

    void* queryInterface(const char* name) override;

    // IDmClip
    int32_t clipType() override;
    IDmTimeline* timeline() override;
    IDmTrack* track() override;
    const char* name() override;
    IDmEffect* effect(int32_t type) override;
    IDmAttachedItemList* attachedItems() override;

    // IDmPropertyOwner, IDmAudioFeature, IDmVideoFeature
    int32_t getProperty(const char* key, ZorProperty* value) override;
    int32_t setProperty(const char* key, const ZorProperty& value) override;

    // IDmAudioFeature: clip time (media time at mark in) to media position,
    // through the clip's speed parts or its constant speed, mirrored inside
    // [markIn, markOut] when reverse.
    int64_t sourcePosition(int64_t clipTime, bool reverse) override;

    // IDmClipInternal
    IDmClip* parentClip() override;
    // The track's index and the clip's index on it; 0. -1 while the clip is
    // on no track.
    int32_t containerPosition(int32_t* first, int32_t* second) override;

    // IDmClipSpeedPart
    int32_t speedPartCount() override;
    int32_t speedPart(int32_t index, int64_t* begin, int64_t* end, double* speed) override;

    // IDmCallbackSource
    int32_t registerCallback(IDmBaseObj* listener) override;
    int32_t unregisterCallback(IDmBaseObj* listener) override;

    // The linked audio clip of a video clip; null for other clips.
    DmTimelineClip* linkedAudioClip() const { return linked_; }
    // The video clip of a linked audio clip; null for other clips (and once
    // the video clip is gone).
    DmTimelineClip* parent() const { return parent_.load(std::memory_order_acquire); }
    // The clip its track lists: the video clip of a linked audio clip, this
    // clip otherwise.
    DmTimelineClip* primary() {
        DmTimelineClip* owner = parent();
        return owner != nullptr ? owner : this;
    }
    // The clip that carries the sound: the linked clip of a video clip, an
    // audio-track clip itself; null for a video clip without sound.
    DmTimelineClip* soundCarrier();
    // The path the description gave (the canonical one is mediaPath()).
    const std::string& describedMediaPath() const { return describedPath_; }
    // The constant speed |k| the clip was made with (0 holds the mark in).
    double speed() const { return speed_; }
    int64_t endTime() { return range().end; }
    DmCallbackList& callbacks() { return callbacks_; }
    DmTimeline* owningTimeline() const { return timeline_.load(std::memory_order_acquire); }
    DmTrack* owningTrack() const { return track_.load(std::memory_order_acquire); }

    // Edits (event thread). Each applies to the linked clip as well.
    Range times() const { return range(); }
    void setTimes(const Range& times);
    std::vector<DmSpeedPartDesc> speedParts() const;
    // parts sorted by begin, not overlapping.
    void setSpeedParts(const std::vector<DmSpeedPartDesc>& parts);
    // A property of this clip itself (no forwarding to the linked clip).
    int32_t getOwnProperty(const char* key, ZorProperty* value) { return DmMediaClip::getProperty(key, value); }
    int32_t setOwnProperty(const char* key, const ZorProperty& value) { return DmMediaClip::setProperty(key, value); }
    using DmMediaClip::replaceAudioStream;
    using DmMediaClip::requestedAudioStream;

    // Effects (event thread). The effect of type the clip has now, or null.
    DmEffect* currentEffect(int32_t type) const;
    // A new effect of this clip, not applied yet (addEffect applies it).
    DmEffect* makeEffect(int32_t type, DmEffect::Settings settings);
    // Applies effect, one this clip made, in place of any other of its type.
    void addEffect(DmEffect* effect);
    // The effect is no longer applied; the clip keeps it.
    void removeEffect(DmEffect* effect);

    // Placing (event thread), the linked clip with it. A clip put on a track
    // answers the timeline, the track and its position there.
    void placeOn(DmTimeline* timeline, DmTrack* track, int32_t trackIndex, int32_t clipIndex);
    // Its index on its track changed.
    void setPosition(int32_t trackIndex, int32_t clipIndex);
    // Taken off its track: no timeline, track or position any more.
    void takeOff() { detachFromTrack(); }

    // Its track is going: forget the track and the timeline (the linked clip
    // as well).
    void detachFromTrack();
    // Its timeline is going while the track stays: forget the timeline.
    void forgetTimeline();

private:
    DmTimelineClip(DmMediaProbe probe, int32_t audioStreamId, int32_t videoStreamId, const DmClipDesc& desc,
                   int32_t kind, const Place& place);
    // Forgets the video clip, its track and its timeline.
    void detachFromParent();
    bool isAudioKey(const char* key) const;
    std::shared_ptr<const std::vector<DmSpeedPartDesc>> currentParts() const;

    static int64_t packPosition(int32_t trackIndex, int32_t clipIndex);

    const int32_t kind_;  // the clip's type: its track's kind; audio for a linked clip
    const std::string name_;
    const std::string describedPath_;
    const double speed_;

    std::atomic<DmTimeline*> timeline_;  // plain back pointers: null once the owner is gone
    std::atomic<DmTrack*> track_;
    std::atomic<DmTimelineClip*> parent_{nullptr};  // the video clip of a linked audio clip
    // The track's index in the high half and the clip's in the low half, so
    // that both are read at once; -1 while on no track.
    std::atomic<int64_t> position_;

    DmTimelineClip* linked_ = nullptr;       // one reference; set while creating only
    IDmAttachedItemList* styles_ = nullptr;  // one reference; fixed after construction

    mutable std::mutex lock_;  // leaf: guards the three members below only
    // Sorted by begin, not overlapping; replaced whole by an edit.
    std::shared_ptr<const std::vector<DmSpeedPartDesc>> speedParts_;
    std::vector<DmEffect*> effects_;     // the effects applied now (references held by allEffects_)
    std::vector<DmEffect*> allEffects_;  // one reference each: every effect the clip has had
    DmCallbackList callbacks_;
};

}  // namespace ZOR
