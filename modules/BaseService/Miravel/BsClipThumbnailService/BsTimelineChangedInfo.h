// Watches one timeline for one per-timeline service implementation: the
// data model's notifications only record what changed (change bits per audio
// clip, clips added and removed); processChanges() reports the records through
// IChangedCallback after each data-model event and empties them.
//
// The data model's notifications and processChanges() run on the event bus's
// thread; watchClip() and unwatchClip() come from the clients' threads (every
// service sharing the timeline's implementation). lock_ guards the records
// and the clip sets; it is taken before the data model's listener locks and is
// never held while callback_ is called.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "Miravel/IBsClipThumbnailCallbacks.h"

namespace ZOR {

class BsClipThumbnailServiceImpl;

class BsTimelineChangedInfo final : public RefCnt<void>,
                                    public virtual IDmBaseObj,
                                    public IDmTimelineCallback,
                                    public IDmClipCallback,
                                    public IDmVideoAudioBaseClipCallback,
                                    public IDmAudioClipCallback,
                                    public IDmEffectCallback,
                                    public IDmTrackCallback,
                                    public IDmAudioTimelineClipCallback {
public:
    ZOR_IMPLEMENT_REFCNT

    // Change bits of an audio clip.
    enum ChangeBits : uint32_t {
        kMarks = 0x2,
        kRange = 0x4,
        kLoudness = 0x8,
        kDucking = 0x10,
        kSpeed = 0x20,
        kVolume = 0x40,
        kRemoved = 0x80,
        kAdded = 0x100,
        kEnable = 0x200,
        kStream = 0x400,
        kVolumeGain = 0x800,
    };

    BsTimelineChangedInfo(IChangedCallback* callback, IDmTimeline* timeline);
    ~BsTimelineChangedInfo() override;

    void* queryInterface(const char* name) override;

    void watchClip(IDmClip* clip);
    void unwatchClip(IDmClip* clip);
    void processChanges(const std::shared_ptr<BsClipThumbnailServiceImpl>& impl);

    std::set<IDmClip*> watchedClips() const {
        std::lock_guard<std::mutex> guard(lock_);
        return watchedClips_;
    }
    IDmTimeline* timeline() const {
        std::lock_guard<std::mutex> guard(lock_);
        return timeline_;
    }

    // IDmTimelineCallback
    int32_t onTimelineChanged(IDmTimeline* timeline) override;
    int32_t onTrackAdded(IDmTimeline* timeline, IDmCallbackSource* track) override;
    int32_t onTrackRemoved(IDmTimeline* timeline, IDmCallbackSource* track) override;
    int32_t onTrackMoved(IDmTimeline* timeline, IDmTrack* track) override;
    int32_t onClipAdded(IDmTimeline* timeline, IDmClip* clip) override;
    int32_t onClipRemoved(IDmTimeline* timeline, IDmClip* clip) override;
    int32_t onClipMoved(IDmTimeline* timeline, IDmClip* clip) override;
    int32_t onTimelineGone(IDmTimeline* timeline) override;
    // IDmClipCallback
    int32_t onClipPropertyChanged(IDmClip* clip, const char* key) override;
    // IDmVideoAudioBaseClipCallback
    int32_t onMediaChanged(IDmClip* clip) override;
    int32_t onStreamChanged(IDmClip* clip) override;
    int32_t onRangeChanged(IDmClip* clip) override;
    int32_t onSpeedChanged(IDmClip* clip) override;
    int32_t onRelinked(IDmClip* clip) override;
    int32_t onSelectionChanged(IDmClip* clip) override;
    int32_t onNameChanged(IDmClip* clip) override;
    // IDmAudioClipCallback
    int32_t onAudioPropertyChanged(IDmClip* clip, const char* key) override;
    int32_t onAudioStreamReplaced(IDmClip* clip) override;
    int32_t onAudioLevelsChanged(IDmClip* clip) override;
    // IDmEffectCallback
    int32_t onEffectAdded(IDmEffect* effect) override;
    int32_t onEffectRemoved(IDmEffect* effect) override;
    int32_t onEffectChanged(IDmEffect* effect) override;
    int32_t onKeyframesChanged(IDmEffect* effect) override;
    // IDmTrackCallback
    int32_t onTrackPropertyChanged(IDmTrack* track, const char* key) override;
    // IDmAudioTimelineClipCallback
    int32_t onTimelineClipPropertyChanged(IDmClip* clip, const char* key) override;

private:
    void attachTimeline();
    void attachClip(IDmClip* clip);
    void detachClip(IDmClip* clip);
    void registerOn(IDmBaseObj* object);
    void unregisterFrom(IDmBaseObj* object);
    void addFlags(IDmClip* audioClip, uint32_t bits);
    void propertyFilter(IDmClip* clip, const char* key);
    void effectFilter(IDmEffect* effect);
    void trackFilter(IDmTrack* track, const char* key);
    void insertAttached(IDmClip* clip);
    void eraseAttached(IDmClip* clip);
    static void insertHeld(std::set<IDmClip*>& set, IDmClip* clip);
    static void eraseHeld(std::set<IDmClip*>& set, IDmClip* clip);

    IChangedCallback* callback_;
    mutable std::mutex lock_;          // guards every field below; see above
    std::set<IDmClip*> removedClips_;  // one reference each
    std::set<IDmClip*> addedClips_;    // one reference each
    std::map<IDmClip*, uint32_t> changeFlags_;
    IDmTimeline* timeline_;
    std::set<IDmClip*> watchedClips_;
    std::set<IDmClip*> attachedClips_;  // one reference each
};

}  // namespace ZOR
