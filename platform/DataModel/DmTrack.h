// A track of a timeline made by createTimeline().
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DmTimelineObject.h"

namespace ZOR {

class DmTimelineClip;

// A track: its kind, its place on the timeline, its clips in order and the
// trackKey properties (atomic, so readable and settable from any thread).
// Edits (on the event thread) change the list of clips under clipsLock_;
// readers take it for each look.
class DmTrack final : public RefCnt<void>,
                      public virtual IDmTrack,
                      public virtual IDmPropertyOwner,
                      public virtual IDmCallbackSource {
public:
    ZOR_IMPLEMENT_REFCNT

    DmTrack(DmTimeline* owner, int32_t index, int32_t kind, std::string name, bool mute, bool visible, bool solo);
    ~DmTrack() override;
    DmTrack(const DmTrack&) = delete;
    DmTrack& operator=(const DmTrack&) = delete;

    void* queryInterface(const char* name) override;

    // IDmTrack
    int32_t trackKind() override;
    IDmTimeline* owner() override;
    int32_t trackIndex() override;
    // IDmTrack and IDmPropertyOwner: trackKey::mute, visible, solo (Bool).
    int32_t getProperty(const char* key, ZorProperty* value) override;

    // IDmPropertyOwner
    int32_t setProperty(const char* key, const ZorProperty& value) override;

    // IDmCallbackSource
    int32_t registerCallback(IDmBaseObj* listener) override;
    int32_t unregisterCallback(IDmBaseObj* listener) override;

    // While building: takes over the one reference the caller holds on clip.
    void appendClip(DmTimelineClip* clip);
    // The timeline is going: forget it.
    void detachFromTimeline();

    // Edits: puts clip at index (clamped to the clip count), with a reference
    // of its own, and places it on this track.
    void insertClip(DmTimelineClip* clip, int32_t index);
    // Takes clip off: it is placed nowhere, and the track's reference is
    // dropped (the timeline keeps the clip alive). The index it had, or -1
    // when the track does not list it.
    int32_t removeClip(DmTimelineClip* clip);

    int32_t clipCount() const;
    DmTimelineClip* clipAt(int32_t index) const;
    int32_t indexOf(const DmTimelineClip* clip) const;
    // The clips now, in order (no references: they live as long as the timeline).
    std::vector<DmTimelineClip*> clips() const;
    const std::string& name() const { return name_; }
    DmTimeline* timeline() const { return owner_.load(std::memory_order_acquire); }
    DmCallbackList& callbacks() { return callbacks_; }

private:
    std::atomic<bool>* flag(const char* key);

    std::atomic<DmTimeline*> owner_;  // plain back pointer; null once the timeline is gone
    const int32_t index_;
    const int32_t kind_;
    const std::string name_;
    std::atomic<bool> mute_;
    std::atomic<bool> visible_;
    std::atomic<bool> solo_;
    // Renumbers the clips from index first on; clipsLock_ held.
    void renumberLocked(size_t first);

    mutable std::mutex clipsLock_;        // leaf: guards clips_ only
    std::vector<DmTimelineClip*> clips_;  // guarded by clipsLock_; one reference each
    DmCallbackList callbacks_;
};

}  // namespace ZOR
