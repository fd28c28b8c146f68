// A track of a timeline made by createTimeline().
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DmTimeline.h"

namespace ZOR {

class DmTimelineClip;

// A track: its kind, its place on the timeline, its clips in order (fixed once
// built) and the trackKey properties (atomic, so readable and settable from
// any thread).
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

    int32_t clipCount() const { return static_cast<int32_t>(clips_.size()); }
    DmTimelineClip* clipAt(int32_t index) const;
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
    std::vector<DmTimelineClip*> clips_;  // one reference each; filled while building only
    DmCallbackList callbacks_;
};

}  // namespace ZOR
