// The clip thumbnail service that clients create, and the per-timeline
// implementation that every service touching a timeline shares.
//
// Locks: the registry's mutex (held while an implementation is made, while the
// live ones are collected for an event, and by the deleter) and the callback
// lists' own mutexes. A service's operations are not called concurrently with
// each other or with its destruction.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "BsAudioThumbnailBuilder.h"
#include "BsTimelineChangedInfo.h"
#include "BsVideoThumbnailBuilder.h"
#include "Common/ZorInternalComUtility.h"
#include "Miravel/IBsClipThumbnailCallbacks.h"
#include "Miravel/IBsClipThumbnailService.h"

namespace ZOR {

class BsClipThumbnailServiceImpl : public virtual IChangedCallback,
                                   public IBsVideoClipThumbnailCallback,
                                   public IBsAudioClipThumbnailCallback,
                                   public virtual BaseCallBack<IBsVideoClipThumbnailCallback>,
                                   public virtual BaseCallBack<IBsAudioClipThumbnailCallback> {
public:
    explicit BsClipThumbnailServiceImpl(IDmTimeline* timeline);
    ~BsClipThumbnailServiceImpl() override;
    BsClipThumbnailServiceImpl(const BsClipThumbnailServiceImpl&) = delete;
    BsClipThumbnailServiceImpl& operator=(const BsClipThumbnailServiceImpl&) = delete;

    // IBsVideoClipThumbnailCallback (the video builder's owner)
    int32_t onVideoThumbnailNotice(void* value) override;
    int32_t onVideoThumbnailChanged(IDmClip* clip) override;
    int32_t onVideoThumbnailData(IDmClip* clip, int32_t width, int32_t height, IZORLonglongList* frames,
                                 IZORPByteList* pictures, int32_t count, int32_t bytesPerPicture) override;

    virtual int32_t addVideoClipThumbnailCallback(IBsVideoClipThumbnailCallback* callback);
    virtual int32_t addAudioClipThumbnailCallback(IBsAudioClipThumbnailCallback* callback);
    virtual int32_t removeVideoClipThumbnailCallback(IBsVideoClipThumbnailCallback* callback);
    virtual int32_t removeAudioClipThumbnailCallback(IBsAudioClipThumbnailCallback* callback);
    virtual int32_t clearAudioRawSamples(IDmClip* audioClip);
    virtual int32_t queryAudioThumbnailData(IBsAudioThumbnailQueryer* queryer, IDmClip* clip, int64_t beginCns,
                                            int64_t endCns, uint32_t sampleCount);
    virtual int32_t cancelAudioQueries(IBsAudioThumbnailQueryer* queryer);
    virtual int32_t cancelAudioThumbnailQuery(IBsAudioThumbnailQueryer* queryer, IDmClip* clip);

    // IBsAudioClipThumbnailCallback (the audio builder's owner)
    int32_t onAudioThumbnailNotice(IDmClip* clip) override;
    int32_t onAudioThumbnailChanged(IDmClip* audioClip) override;
    int32_t onAudioThumbnailData(IDmClip* clip, int64_t beginCns, int64_t endCns, const float* samples,
                                 int32_t count) override;

    // IChangedCallback (the change tracker's)
    int32_t onAudioChanged(IDmTimeline* timeline, IDmClipList* clips, IZORIntList* flags) override;
    int32_t onClipChanged(IDmTimeline* timeline, IDmClip* clip) override;
    int32_t onChangeIgnored(void* value) override;
    int32_t onAllClipsChanged(IDmTimeline* timeline) override;

    int32_t queryVideoThumbnail(VideoThumbnailRequest* request);
    int32_t cancelVideoThumbnailQuery(IDmClip* clip);
    BsTimelineChangedInfo* changedInfo() const { return changedInfo_.get(); }
    IDmTimeline* timeline() const { return timeline_.get(); }
    BsVideoThumbnailBuilder& videoBuilder() { return *videoBuilder_; }
    BsAudioThumbnailBuilder& audioBuilder() { return *audioBuilder_; }
    // How many times callbacks were registered with this Impl (each call,
    // whether or not the callback was there already): what lets a test see
    // that a service registers its callbacks once.
    int64_t callbackRegistrations() const { return registrations_.load(); }

private:
    std::atomic<int64_t> registrations_{0};
    ZorRef<IDmTimeline> timeline_;
    std::shared_ptr<BsAudioThumbnailBuilder> audioBuilder_;
    std::shared_ptr<BsVideoThumbnailBuilder> videoBuilder_;
    ZorRef<BsTimelineChangedInfo> changedInfo_;
};

// The process's one map of timelines to their implementations.
class BsClipThumbnailServiceRegistry {
public:
    static BsClipThumbnailServiceRegistry& instance();
    // The implementation of timeline, made when there is none alive.
    std::shared_ptr<BsClipThumbnailServiceImpl> acquire(IDmTimeline* timeline);
    // Every implementation alive, in map order.
    std::vector<std::shared_ptr<BsClipThumbnailServiceImpl>> live();
    size_t size();

private:
    struct Deleter {
        BsClipThumbnailServiceRegistry* registry;
        IDmTimeline* timeline;
        void operator()(BsClipThumbnailServiceImpl* impl) const;
    };

    std::mutex lock_;  // first: held while making and destroying implementations
    std::map<IDmTimeline*, std::weak_ptr<BsClipThumbnailServiceImpl>> impls_;
};

class BsClipThumbnailService final : public RefCnt<void>,
                                     public virtual IBsClipThumbnailService,
                                     public virtual BaseCallBack<IBsVideoClipThumbnailCallback>,
                                     public virtual BaseCallBack<IBsAudioClipThumbnailCallback>,
                                     public IBsAudioThumbnailQueryer,
                                     public IBsAudioClipThumbnailCallback {
public:
    ZOR_IMPLEMENT_REFCNT

    BsClipThumbnailService();
    ~BsClipThumbnailService() override;

    void* queryInterface(const char* name) override;

    int32_t setProperty(const char* key, const ZorProperty& value) override;
    int32_t getProperty(const char* key, ZorProperty* value) override;
    int32_t addVideoClipThumbnailCallback(IBsVideoClipThumbnailCallback* callback) override;
    int32_t addAudioClipThumbnailCallback(IBsAudioClipThumbnailCallback* callback) override;
    int32_t removeVideoClipThumbnailCallback(IBsVideoClipThumbnailCallback* callback) override;
    int32_t removeAudioClipThumbnailCallback(IBsAudioClipThumbnailCallback* callback) override;
    int32_t clearAudioRawSamples(IDmClip* clip) override;
    int32_t queryAudioThumbnailData(IDmClip* clip, int64_t beginCns, int64_t endCns, uint32_t sampleCount) override;
    int32_t cancelAudioThumbnailQuery(IDmClip* clip) override;
    int32_t queryVideoThumbnail(VideoThumbnailRequest* request) override;
    int32_t cancelVideoThumbnailQuery(IDmClip* clip) override;

    // IBsAudioThumbnailQueryer
    IBsAudioClipThumbnailCallback* getResultCallback() override;
    bool isCalcDuckingEnabled() override;

    // IBsAudioClipThumbnailCallback: relayed to this service's audio callbacks.
    int32_t onAudioThumbnailNotice(IDmClip* clip) override;
    int32_t onAudioThumbnailChanged(IDmClip* audioClip) override;
    int32_t onAudioThumbnailData(IDmClip* clip, int64_t beginCns, int64_t endCns, const float* samples,
                                 int32_t count) override;

    std::shared_ptr<BsClipThumbnailServiceImpl> acquire(IDmTimeline* timeline);
    static IDmTimeline* timelineOfClip(IDmClip* clip);
    // Runs processChanges of every live implementation (the event handler).
    static void onDataModelEvent(const char* key, const void* data, void* context);

private:
    template <class I>
    std::vector<I*> callbacksOf();

    std::map<BsClipThumbnailServiceImpl*, std::shared_ptr<BsClipThumbnailServiceImpl>> acquired_;
    std::vector<int32_t> subscriptions_;
    std::atomic<bool> enableCalcDucking_{true};
};

}  // namespace ZOR
