// The media thumbnail manager: N evenly spread pictures of a media item,
// rendered coarse to fine by one worker thread through the thumb adapter and
// kept as PNG files under the client's root folder ("media_thumbnail").
//
// Locks: mutex_ guards the queue, the box size, the caching switch and the
// callbacks; it is held while callbacks are told of a file. mediaLock_ (leaf)
// guards which media the adapter holds; workerLock_ (taken alone) guards the
// worker thread's start and stop; the disk listing's lock is a leaf, only
// try-locked. getFrame() never waits for a lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Adapter/Adapter.h"
#include "BsThumbDiskListing.h"
#include "Common/ZorInternalComUtility.h"
#include "Miravel/IBsThumbManager.h"

namespace ZOR {

struct _ThumbTask {
    std::string mediaPath;  // empty when mediaObject is set
    uint64_t mediaObject = 0;
    std::string cacheDir;
    int64_t progress = 0;  // index into frames of the next picture
    int64_t thumbCount = 0;
    int64_t startTime = 0;
    int64_t endTime = 0;
    int64_t duration = 0;
    std::vector<int32_t> frames;  // frame indices in rendering order
    MediaThumbRequest request;
};

class BsThumbManager final : public RefCnt<void>, public virtual IBsThumbManager {
public:
    ZOR_IMPLEMENT_REFCNT

    BsThumbManager();
    ~BsThumbManager() override;

    void* queryInterface(const char* name) override;

    int32_t setMediaPath(const char* path) override;
    int32_t setMediaObject(IDmBaseObj* object) override;
    int32_t setThumbSize(int32_t width, int32_t height) override;
    int32_t adapterOutputSize(int32_t* width, int32_t* height) override;
    int32_t setAdapterSeekMode(int32_t mode) override;
    int32_t adapterSeekMode(int32_t* mode) override;
    int32_t open() override;
    int32_t close() override;
    int32_t clearCache(const char* rootDir) override;
    int32_t getFrame(const MediaThumbRequest* request, double position, char* outPath) override;
    int32_t getAdapterFrame(int64_t time, unsigned char* buffer, int64_t bufferSize) override;
    int32_t adapterDuration(int64_t* duration) override;
    int32_t adapterFrameRate(int64_t* num, int64_t* den) override;
    int32_t stopGetFrame(const MediaThumbRequest* request) override;
    int32_t setThumbCount(int32_t count) override;
    int32_t thumbCount() override;
    int32_t setFramesPerStep(int32_t count) override;
    int32_t framesPerStep() override;
    int32_t setWorkerSleep(int32_t milliseconds) override;
    int32_t workerSleep() override;
    int32_t setTaskFilter(ThumbTaskFilter filter) override;
    int32_t setCaching(int32_t enabled) override;
    int32_t setMaxTasks(int32_t count) override;
    int32_t stopWorker() override;
    int32_t addCallback(IBsThumbManagerCallback* callback) override;
    int32_t removeCallback(IBsThumbManagerCallback* callback) override;

    // The disk cache.
    static std::string thumbnailDir(const char* rootDir);
    std::string thumbnailPath(const std::string& dir, int64_t frameIndex);
    std::string findThumbnail(const std::string& dir, int64_t index, int64_t searchRadius, bool* found);

    // The rendering order of N frames: 0, N-1, then the midpoints of the
    // gaps, pass by pass, the right-most gap first within a pass.
    static std::vector<int32_t> frameOrder(int64_t count);

    // Queued media items, head first (for diagnostics and tests).
    std::vector<std::shared_ptr<_ThumbTask>> queuedTasks();

private:
    static void workerMain(BsThumbManager* manager);
    void workerLoop();
    void runStep(_ThumbTask& task, int32_t framesPerStep);
    // The media time of a frame index: frameIndex / N x duration + start,
    // in double, truncated.
    static int64_t frameTime(const _ThumbTask& task, int32_t frameIndex);
    // Tells the adapter which pictures the task asks for next.
    void planReadAhead(const _ThumbTask& task);
    void ensureWorker();
    static bool sameMedia(const _ThumbTask& task, const MediaThumbRequest& request);

    ZorRef<IThumbAdapter> adapter_;
    std::mutex mediaLock_;  // leaf: guards the two fields below
    std::string currentPath_;
    ZorRef<IDmBaseObj> currentObject_;

    std::mutex mutex_;  // guards the fields down to callbacks_; held while telling callbacks
    int32_t thumbWidth_ = 320;
    int32_t thumbHeight_ = 180;
    // The same box, width in the high half, written with the two above: file
    // names are built from it without waiting for mutex_ (getFrame never waits).
    std::atomic<uint64_t> box_{(uint64_t{320} << 32) | 180};
    std::atomic<bool> isCaching_{true};  // written under mutex_, read without it by getFrame
    int32_t maxTasks_ = 3;
    std::list<std::shared_ptr<_ThumbTask>> queue_;  // newest first
    std::vector<IBsThumbManagerCallback*> callbacks_;

    std::atomic<int32_t> stop_{0};
    std::atomic<int32_t> workerSleep_{0};
    std::atomic<int32_t> thumbCount_{100};
    std::atomic<int32_t> framesPerStep_{3};
    std::atomic<ThumbTaskFilter> taskFilter_{nullptr};
    std::atomic<bool> adapterOpen_{false};
    // The box the adapter's output size was fitted into at open(), width in
    // the high half: a new box makes the worker open the media again.
    std::atomic<uint64_t> openedBox_{0};
    std::atomic<int32_t> interrupt_{0};

    // What the cache folder last looked up holds (try-locked: getFrame
    // never waits for it).
    BsThumbDiskListing diskListing_;

    std::mutex workerLock_;  // alone: guards worker_
    std::thread worker_;
    std::atomic<bool> workerStarted_{false};
};

}  // namespace ZOR
