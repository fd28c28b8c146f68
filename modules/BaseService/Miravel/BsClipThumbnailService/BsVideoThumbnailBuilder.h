// The frame pictures of the video clips of one timeline: answered at once from
// the cache where they are there, the rest extracted by the background video
// frame task and delivered to the owner in ascending frame order as they come.
//
// Locks: lock_ guards the task table; the cache has its own lock. The two are
// never held together, and neither is held while the task or the owner is
// called.
#pragma once

#include <atomic>
#include <cstdint>
#include <set>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "BsVideoThumbnailCacheManager.h"
#include "DataModel/DataModel.h"
#include "Miravel/IBsClipThumbnailCallbacks.h"
#include "Miravel/IBsClipThumbnailService.h"

namespace ZOR {

struct VideoThumbnailTaskRecord {
    IDmClip* clip = nullptr;  // one reference, released by the builder when the record goes
    std::string mediaId;
    int32_t width = 0;
    int32_t height = 0;
    int32_t streamId = 0;
    std::string styleId;
    uint32_t refresh = 0;
    std::vector<int64_t> requestedFrames;
    std::vector<int64_t> missingFrames;  // ascending
    int32_t hasTaskData = 0;
};

class BsVideoThumbnailBuilder : public IZorCallBack {
public:
    explicit BsVideoThumbnailBuilder(IBsVideoClipThumbnailCallback* owner);
    ~BsVideoThumbnailBuilder() override;
    BsVideoThumbnailBuilder(const BsVideoThumbnailBuilder&) = delete;
    BsVideoThumbnailBuilder& operator=(const BsVideoThumbnailBuilder&) = delete;

    int32_t requestThumbnails(const VideoThumbnailRequest& request);
    int32_t processChanged(IDmBaseObj* task, int32_t progress, int32_t status, const BsTaskProgressInfo* info) override;
    int32_t clearCache(IDmClip* clip, const std::string& mediaId);
    int32_t clearCacheOnClipChange(IDmTimeline* changeSource, IDmClip* clip);
    void cancelClip(IDmClip* clip);
    void cancelTask(int64_t token);

    BsVideoThumbnailCacheManager& cache() { return cache_; }
    // Running task records (for diagnostics and tests).
    size_t taskCount();

    // The style identifier of a clip: the text of its first applied visual
    // style's stylize or template data, empty when it has none.
    static std::string styleIdOf(IDmClip* clip);
    // The clip's media identifier, read into 64 bytes.
    static std::string mediaIdOf(IDmClip* clip);

private:
    // A report that came before its token's record was stored.
    struct EarlyReport {
        int64_t token = -1;
        int32_t status = 0;
        IDmBaseObj* data = nullptr;  // one reference
    };

    int32_t handleReport(int64_t token, int32_t status, IDmBaseObj* data);
    // Stores record under token (null: the append failed), ends the append's
    // flight and handles the reports the token got before.
    void storeRecord(int64_t token, VideoThumbnailTaskRecord* record);
    int32_t onTaskProcessing(int64_t token, IDmBaseObj* data);
    void deliver(IDmClip* clip, int32_t width, int32_t height, IZORLonglongList* frames, IZORPByteList* pictures);
    static void releaseRecord(VideoThumbnailTaskRecord& record);

    IBsVideoClipThumbnailCallback* owner_;
    IBsVideoFrameExtractTask* task_ = nullptr;  // one reference
    std::mutex lock_;                           // guards tasks_; never held with the cache's lock or while calling out
    std::map<int64_t, VideoThumbnailTaskRecord> tasks_;
    std::vector<EarlyReport> early_;  // guarded by lock_
    std::set<int64_t> replaying_;     // guarded by lock_: tokens whose early reports are being handled
    std::atomic<int32_t> appendsInFlight_{0};
    BsVideoThumbnailCacheManager cache_;
};

}  // namespace ZOR
