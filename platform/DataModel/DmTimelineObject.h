// Timelines made by createTimeline(), and the listener lists that timelines,
// tracks and their clips keep.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmTimeline.h"

namespace ZOR {

class DmTrack;
class DmTimelineClip;
class DmEditStep;

// The listeners registered on one data-model object, in registration order,
// each once. Registration takes no reference: a listener unregisters itself
// before it dies. Every operation is thread-safe.
//
// Notifying: listeners() gives a copy of the list to call outside the lock
// (a listener may then unregister, or register others, while being called);
// edits call each listener of the copy only while contains() still finds it,
// so one unregistered on the event thread meanwhile is skipped. forEach()
// calls with the lock held, so that an unregisterCallback() that has returned
// guarantees the listener is not called any more (a listener called that way
// must not register or unregister on the same object).
class DmCallbackList {
public:
    static constexpr int32_t kOk = 0;

    DmCallbackList() = default;
    DmCallbackList(const DmCallbackList&) = delete;
    DmCallbackList& operator=(const DmCallbackList&) = delete;

    // 0 when added or already registered; 1001 for null.
    int32_t add(IDmBaseObj* listener) {
        if (listener == nullptr) return kResultFailure;
        std::lock_guard<std::mutex> lock(lock_);
        for (IDmBaseObj* registered : listeners_)
            if (registered == listener) return kOk;
        listeners_.push_back(listener);
        return kOk;
    }

    // 0 when removed; 1001 for null or a listener that is not registered.
    int32_t remove(IDmBaseObj* listener) {
        if (listener == nullptr) return kResultFailure;
        std::lock_guard<std::mutex> lock(lock_);
        for (auto it = listeners_.begin(); it != listeners_.end(); ++it) {
            if (*it == listener) {
                listeners_.erase(it);
                return kOk;
            }
        }
        return kResultFailure;
    }

    std::vector<IDmBaseObj*> listeners() const {
        std::lock_guard<std::mutex> lock(lock_);
        return listeners_;
    }

    size_t count() const {
        std::lock_guard<std::mutex> lock(lock_);
        return listeners_.size();
    }

    bool contains(IDmBaseObj* listener) const {
        std::lock_guard<std::mutex> lock(lock_);
        for (IDmBaseObj* registered : listeners_)
            if (registered == listener) return true;
        return false;
    }

    // Calls call(IDmBaseObj*) for every listener in registration order, with
    // the list's lock held.
    template <class Call>
    void forEach(Call&& call) const {
        std::lock_guard<std::mutex> lock(lock_);
        for (IDmBaseObj* listener : listeners_) call(listener);
    }

private:
    mutable std::mutex lock_;             // leaf, except while forEach() calls out
    std::vector<IDmBaseObj*> listeners_;  // guarded by lock_
};

// A timeline: its tracks in order, each holding its clips, and the history of
// its edits (DmEdit.h). The tracks are fixed once createTimeline() has built
// them, so the getters read them without a lock; each track guards its own
// list of clips.
//
// Ownership: the timeline holds one reference on each track, each track one
// on each of its clips, a video clip one on its linked audio clip, and an
// audio-carrying clip one on each effect it has had. A clip taken off a track
// by an edit is kept by the timeline (retainClip) until the timeline dies, so
// a clip pointer a reader got from clip() stays valid while the timeline
// lives; the history names clips, tracks and effects by plain pointers. Every
// pointer back up (track to timeline, clip to track and timeline, linked clip
// to video clip, effect to clip) is plain, and is cleared when the owner goes,
// so there is no cycle and an object held beyond its owner answers null
// instead of a dead pointer.
class DmTimeline final : public RefCnt<void>,
                         public virtual IDmTimeline,
                         public virtual IDmCallbackSource,
                         public virtual IDmTimelineInternal {
public:
    ZOR_IMPLEMENT_REFCNT

    explicit DmTimeline(std::string name);
    ~DmTimeline() override;
    DmTimeline(const DmTimeline&) = delete;
    DmTimeline& operator=(const DmTimeline&) = delete;

    void* queryInterface(const char* name) override;

    // IDmTimeline
    int32_t trackCount() override;
    IDmTrack* track(int32_t index) override;
    int32_t clipCount(int32_t trackIndex) override;
    IDmClip* clip(int32_t trackIndex, int32_t clipIndex) override;
    int64_t duration() override;
    int32_t usesMedia(const char* mediaId) override;

    // IDmCallbackSource
    int32_t registerCallback(IDmBaseObj* listener) override;
    int32_t unregisterCallback(IDmBaseObj* listener) override;

    // IDmTimelineInternal: the timeline as a media object. Its picture is that
    // of the topmost visible video track's first clip with a picture (1920
    // wide at 16:9 when there is none); the thumb adapter opens it by its
    // IDmTimeline pointer.
    int32_t settings(Settings* settings) override;
    int64_t adapterHandle() override;

    // While building: takes over the one reference the caller holds on track.
    void appendTrack(DmTrack* track);

    const std::string& name() const { return name_; }
    DmTrack* trackAt(int32_t index) const;
    DmCallbackList& callbacks() { return callbacks_; }

    // Edits (event thread). Keeps clip alive (one reference) until the
    // timeline dies; a clip retained already is not counted twice.
    void retainClip(DmTimelineClip* clip);
    // An edit that has been made: it can be undone; what could be redone is
    // forgotten.
    void recordEdit(std::shared_ptr<DmEditStep> step);
    // The edit to undo (moved over to the redo side), or null.
    std::shared_ptr<DmEditStep> takeUndo();
    // The edit to redo (moved over to the undo side), or null.
    std::shared_ptr<DmEditStep> takeRedo();
    int32_t undoCount() const;
    int32_t redoCount() const;
    bool isClosed() const { return closed_.load(std::memory_order_acquire); }
    // Closes the timeline for edits and forgets its history; false when it
    // was closed already.
    bool close();

private:
    const std::string name_;
    std::vector<DmTrack*> tracks_;  // one reference each; filled while building only
    DmCallbackList callbacks_;
    std::atomic<bool> closed_{false};

    mutable std::mutex historyLock_;                 // leaf: guards the three members below only
    std::vector<std::shared_ptr<DmEditStep>> undo_;  // guarded by historyLock_; the last is undone first
    std::vector<std::shared_ptr<DmEditStep>> redo_;  // guarded by historyLock_; the last is redone first
    std::vector<DmTimelineClip*> retained_;          // guarded by historyLock_; one reference each
};

// What is wrong with a clip description ("ends (..) before it begins (..)",
// ...); "" when it is consistent. speedPartsFault: the same for speed parts
// given in any order.
std::string clipDescriptionFault(const DmClipDesc& clip);
std::string speedPartsFault(const std::vector<DmSpeedPartDesc>& parts);

}  // namespace ZOR
