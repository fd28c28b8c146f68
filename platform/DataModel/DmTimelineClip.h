// A clip placed on a timeline by createTimeline().
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "DataModel/DataModel.h"
#include "DataModel/DmTimeline.h"
#include "DmEffect.h"
#include "DmMediaClip.h"
#include "DmMediaProbe.h"
#include "DmTimeline.h"

namespace ZOR {

class DmTrack;

// A media clip with a place on a timeline: its range, speed, name and audio
// properties come from its description.
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
// What can change after construction (the settable properties, the back
// pointers cleared when an owner goes, the listeners) is guarded or atomic;
// the rest is fixed, so every operation may be called from any thread.
class DmTimelineClip final : public DmMediaClip, public virtual IDmClipSpeedPart, public virtual IDmCallbackSource {
public:
    // Where the clip sits.
    struct Place {
        DmTimeline* timeline = nullptr;
        DmTrack* track = nullptr;
        int32_t trackIndex = -1;
        int32_t clipIndex = -1;
    };

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
    // The track's index and the clip's index on it; 0. -1 once the track is gone.
    int32_t containerPosition(int32_t* first, int32_t* second) override;

    // IDmClipSpeedPart
    int32_t speedPartCount() override;
    int32_t speedPart(int32_t index, int64_t* begin, int64_t* end, double* speed) override;

    // IDmCallbackSource
    int32_t registerCallback(IDmBaseObj* listener) override;
    int32_t unregisterCallback(IDmBaseObj* listener) override;

    // The linked audio clip of a video clip; null for other clips.
    DmTimelineClip* linkedAudioClip() const { return linked_; }
    // The path the description gave (the canonical one is mediaPath()).
    const std::string& describedMediaPath() const { return describedPath_; }
    int64_t endTime() { return range().end; }
    DmCallbackList& callbacks() { return callbacks_; }

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

    const int32_t kind_;  // the clip's type: its track's kind; audio for a linked clip
    const std::string name_;
    const std::string describedPath_;
    const double speed_;
    const std::vector<DmSpeedPartDesc> speedParts_;  // sorted by begin, not overlapping

    std::atomic<DmTimeline*> timeline_;    // plain back pointers: null once the owner is gone
    std::atomic<DmTrack*> track_;
    std::atomic<DmTimelineClip*> parent_{nullptr};  // the video clip of a linked audio clip
    std::atomic<int32_t> trackIndex_;
    const int32_t clipIndex_;

    DmTimelineClip* linked_ = nullptr;  // one reference; set while creating only
    std::vector<DmEffect*> effects_;    // one reference each; set while creating only
    IDmAttachedItemList* styles_ = nullptr;  // one reference; fixed after construction
    DmCallbackList callbacks_;
};

}  // namespace ZOR
