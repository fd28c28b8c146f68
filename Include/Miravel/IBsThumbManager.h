// The media thumbnail manager: still pictures of media items, rendered in the
// background and kept as PNG files under a client-given root folder.
//
// A media item (a file, or a timeline) gets N pictures (thumbCount(),
// default 100) evenly spread over its usable range, picture i at media time
// startTime + i / N x duration, each fitted into the box (setThumbSize(),
// default 320 x 180) as "<rootDir>/media_thumbnail/<i>_<box width>_<box
// height>.png". File names carry no media identity: give each media item a
// root folder of its own. One worker thread per manager renders the queued
// items, the newest first, coarse to fine (0, N - 1, then the middles of the
// gaps), and tells the callbacks of each file it writes. Pictures already on
// disk are neither rendered again nor announced.
//
// Every operation may be called from any thread. getFrame() never waits for
// a lock (it does look at the disk).
#pragma once

#include <cstdint>

#include "DataModel/IDmBaseObj.h"
#include "Miravel/MiravelExport.h"

namespace ZOR {

// A request for the pictures of one media item. Times are in cns. The
// manager copies it.
struct MediaThumbRequest {
    char mediaPath[1024];  // file path; may be empty when mediaObject is set
    // A timeline's IDmBaseObj pointer as an integer (its picture at a time is
    // that of the clip on its topmost visible video track), or 0. No
    // reference is taken: keep the timeline alive while its item is queued.
    uint64_t mediaObject;
    char rootDir[1024];  // the folder under which "media_thumbnail" lives
    int64_t startTime;   // start of the usable range
    int64_t endTime;     // end of the usable range
    int64_t duration;    // total length of the item; at least 1
};

// Told of each picture file written. Not reference counted: keep it alive
// until removeCallback() has returned. Called on the manager's worker thread
// with the manager's mutex held, in registration order: do not call back into
// the manager, nor release it. request (the manager's copy) and pngPath are
// valid during the call. The file was written whole under a temporary name;
// when that write failed (disk full...) the callback is told all the same and
// the file is missing (lastWriteFailure() of ZorUtils says why).
class IBsThumbManagerCallback {
public:
    virtual void onThumbnail(const MediaThumbRequest* request, int32_t frameIndex, const char* pngPath) = 0;

protected:
    ~IBsThumbManagerCallback() = default;
};

class IBsThumbManager;
struct _ThumbTask;  // a queued media item; opaque to clients
// Asked on the worker thread, with no lock of the manager held, before each
// step of rendering; false skips the step (the item stays queued).
using ThumbTaskFilter = bool (*)(IBsThumbManager* manager, _ThumbTask* task, int32_t framesPerStep);

// Name: "IBsThumbManager" (queryInterface also answers "IDmBaseObj").
// Results: 0 success, 1001 failure; open(), getAdapterFrame() and
// adapterFrameRate() also give 1002 for media that cannot be read or decoded.
//
// Operations 1, 2, 7, 8 and 11 drive the manager's frame decoder (the thumb
// adapter, Adapter.h) directly; the worker drives the same decoder for the
// queued items, so use them while nothing is queued.
class IBsThumbManager : public virtual IDmBaseObj {
public:
    // 1: the media file the decoder opens next (releases a media object
    // held). 1001 for null.
    virtual int32_t setMediaPath(const char* path) = 0;
    // 2: the timeline the decoder opens next (a reference is held until
    // replaced). 1001 for null or an object that is not a timeline.
    virtual int32_t setMediaObject(IDmBaseObj* object) = 0;
    // 3: the box pictures are fitted into, and named by. A new box makes the
    // worker open its item again; files of other boxes are neither used nor
    // removed. Returns 0.
    virtual int32_t setThumbSize(int32_t width, int32_t height) = 0;
    // 4: the decoder's output size (the media fitted into the box at open()).
    virtual int32_t adapterOutputSize(int32_t* width, int32_t* height) = 0;
    // 5, 6: the decoder's seek mode (ThumbSeekMode: exact, the default, or
    // keyframe); 1001 for another mode.
    virtual int32_t setAdapterSeekMode(int32_t mode) = 0;
    virtual int32_t adapterSeekMode(int32_t* mode) = 0;
    // 7: opens the media set by 1 or 2, its size fitted into the box. 1001
    // when it has no size or no media is set; 1002 when it cannot be read.
    virtual int32_t open() = 0;
    // 8: closes it; 1001 when it was not open.
    virtual int32_t close() = 0;
    // 9: removes "<rootDir>/media_thumbnail" with every file in it. 1001 for
    // null, while an item with this rootDir is queued, or when the removal
    // fails; 0 also when there was nothing to remove.
    virtual int32_t clearCache(const char* rootDir) = 0;
    // 10: the picture at position (0..1 of the usable range: index
    // floor(position x (endIndex - startIndex) + startIndex), clamped to
    // 0..N, where startIndex = startTime / duration x N and endIndex likewise)
    // into outPath (at least 1024 bytes): 0 with the exact picture's path, or
    // the nearest one on disk within N / 2 pictures; 1001 when there is none
    // (outPath untouched), or for a request with no media, duration < 1, a
    // null outPath or a position that is not a number. When the exact
    // picture is missing the item is queued at the head (unless caching is
    // off, or the manager's mutex is busy this time), and its pictures come
    // through the callbacks.
    virtual int32_t getFrame(const MediaThumbRequest* request, double position, char* outPath) = 0;
    // 11: the decoder's picture at time (cns) as RGBA into buffer (bufferSize
    // bytes, at least width x height x 4 of adapterOutputSize()). 1001 when
    // not open or the buffer is too small; 1002 when it cannot be decoded.
    virtual int32_t getAdapterFrame(int64_t time, unsigned char* buffer, int64_t bufferSize) = 0;
    // 12, 13: the open media's duration (cns) and frame rate.
    virtual int32_t adapterDuration(int64_t* duration) = 0;
    virtual int32_t adapterFrameRate(int64_t* num, int64_t* den) = 0;
    // 14: takes the item of the request's media off the queue; a step
    // rendering it stops after its current picture. 1001 for a request with
    // no media (logged), else 0.
    virtual int32_t stopGetFrame(const MediaThumbRequest* request) = 0;
    // 15, 16: N for the items queued from now on. setThumbCount returns 0.
    virtual int32_t setThumbCount(int32_t count) = 0;
    virtual int32_t thumbCount() = 0;
    // 17, 18: pictures rendered per step (default 3; below 1 is taken as 1).
    virtual int32_t setFramesPerStep(int32_t count) = 0;
    virtual int32_t framesPerStep() = 0;
    // 19, 20: the worker's pause between steps (0 or less: 5 ms).
    virtual int32_t setWorkerSleep(int32_t milliseconds) = 0;
    virtual int32_t workerSleep() = 0;
    // 21: the step filter (null: none). Returns 0.
    virtual int32_t setTaskFilter(ThumbTaskFilter filter) = 0;
    // 22: with caching off (0), getFrame() only looks at the disk, queues
    // nothing, and the worker renders nothing. Returns 0.
    virtual int32_t setCaching(int32_t enabled) = 0;
    // 23: how many items the queue holds (default 3); the oldest goes when
    // a new one would exceed it. Returns 0.
    virtual int32_t setMaxTasks(int32_t count) = 0;
    // 24: stops the worker (after its current picture, waiting for it) and
    // empties the queue; the next getFrame() that queues starts a new
    // worker. Returns 0. From the worker thread it throws std::system_error.
    virtual int32_t stopWorker() = 0;
    // 25, 26: register / unregister a callback (no reference taken; once
    // however often added). Once removeCallback() returns, the callback is
    // not being called and will not be again. 0; 1001 for null.
    virtual int32_t addCallback(IBsThumbManagerCallback* callback) = 0;
    virtual int32_t removeCallback(IBsThumbManagerCallback* callback) = 0;

protected:
    ~IBsThumbManager() = default;
};

}  // namespace ZOR

extern "C" {

// A new media thumbnail manager with one reference owned by the caller; give
// it back with Release(). The last Release() stops the worker (after its
// current picture) and drops the queue, the callbacks and the media held;
// once it returns no callback is called. Never release it from inside its
// callback. Allocation failure throws std::bad_alloc.
MIRAVEL_API ZOR::IBsThumbManager* createThumbManager();

}  // extern "C"
