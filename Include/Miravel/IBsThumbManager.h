// The media thumbnail manager: still pictures of media items, rendered in the
// background and kept as PNG files under a client-given root folder.
#pragma once

#include <cstdint>

#include "DataModel/IDmBaseObj.h"
#include "Miravel/MiravelExport.h"

namespace ZOR {

// A request for the pictures of one media item. Times are in cns.
struct MediaThumbRequest {
    char mediaPath[1024];   // file path; may be empty when mediaObject is set
    uint64_t mediaObject;   // a data-model object (such as a timeline), or 0
    char rootDir[1024];     // the folder under which "media_thumbnail" lives
    int64_t startTime;      // start of the usable range
    int64_t endTime;        // end of the usable range
    int64_t duration;       // total length of the item; at least 1
};

// Told of each picture file written. Called on the manager's worker thread
// with the manager's mutex held: do not call back into the manager.
class IBsThumbManagerCallback {
public:
    virtual void onThumbnail(const MediaThumbRequest* request, int32_t frameIndex, const char* pngPath) = 0;

protected:
    ~IBsThumbManagerCallback() = default;
};

class IBsThumbManager;
// Asked before each step of the worker; false skips the step.
struct _ThumbTask;
using ThumbTaskFilter = bool (*)(IBsThumbManager* manager, _ThumbTask* task, int32_t framesPerStep);

// Name: "IBsThumbManager".
class IBsThumbManager : public virtual IDmBaseObj {
public:
    virtual int32_t setMediaPath(const char* path) = 0;                          // 1
    virtual int32_t setMediaObject(IDmBaseObj* object) = 0;                      // 2
    virtual int32_t setThumbSize(int32_t width, int32_t height) = 0;             // 3
    virtual int32_t adapterOutputSize(int32_t* width, int32_t* height) = 0;      // 4
    virtual int32_t setAdapterSeekMode(int32_t mode) = 0;                        // 5
    virtual int32_t adapterSeekMode(int32_t* mode) = 0;                          // 6
    virtual int32_t open() = 0;                                                  // 7
    virtual int32_t close() = 0;                                                 // 8
    virtual int32_t clearCache(const char* rootDir) = 0;                         // 9
    // 10: the path of the picture at position (0..1 of the usable range), at
    // once when on disk (the exact one or the nearest); otherwise queues.
    // outPath receives at most 1024 bytes.
    virtual int32_t getFrame(const MediaThumbRequest* request, double position, char* outPath) = 0;
    virtual int32_t getAdapterFrame(int64_t time, unsigned char* buffer, int64_t bufferSize) = 0;  // 11
    virtual int32_t adapterDuration(int64_t* duration) = 0;                      // 12
    virtual int32_t adapterFrameRate(int64_t* num, int64_t* den) = 0;            // 13
    virtual int32_t stopGetFrame(const MediaThumbRequest* request) = 0;          // 14
    virtual int32_t setThumbCount(int32_t count) = 0;                            // 15
    virtual int32_t thumbCount() = 0;                                            // 16
    virtual int32_t setFramesPerStep(int32_t count) = 0;                         // 17
    virtual int32_t framesPerStep() = 0;                                         // 18
    virtual int32_t setWorkerSleep(int32_t milliseconds) = 0;                    // 19
    virtual int32_t workerSleep() = 0;                                           // 20
    virtual int32_t setTaskFilter(ThumbTaskFilter filter) = 0;                   // 21
    virtual int32_t setCaching(int32_t enabled) = 0;                             // 22
    virtual int32_t setMaxTasks(int32_t count) = 0;                              // 23
    virtual int32_t stopWorker() = 0;                                            // 24
    virtual int32_t addCallback(IBsThumbManagerCallback* callback) = 0;          // 25
    virtual int32_t removeCallback(IBsThumbManagerCallback* callback) = 0;       // 26

protected:
    ~IBsThumbManager() = default;
};

}  // namespace ZOR

extern "C" {

// A new media thumbnail manager with one reference owned by the caller.
MIRAVEL_API ZOR::IBsThumbManager* createThumbManager();

}  // extern "C"
