// BackgroundTaskManager: the background task service that decodes media for
// Miravel. It offers two extraction tasks, audio wave and video frame; each
// queues requests under tokens, works on its own threads and reports through
// IZorCallBack::processChanged on those threads.
//
// The order of operations in the interfaces below is relied upon by callers.
#pragma once

#include <cstdint>

#include "DataModel/DataModel.h"
#include "DataModel/IDmBaseObj.h"
#include "ZorPlatformExport.h"

namespace ZOR {

// Statuses delivered to processChanged.
enum BsTaskStatus : int32_t {
    BsTaskProgress = 1,   // one item done; the report carries the task's data object
    BsTaskFinished = 2,   // the request is complete and its data can be read
    BsTaskFailed = 3,     // ended without data: the media cannot be read
    BsTaskCancelled = 4,  // ended without data: cancelled
    BsTaskResubmit = 7,   // submit the request again (it moves to a new token)
};

// What a report carries besides its status.
struct BsTaskProgressInfo {
    int64_t token = -1;          // the request the report is about
    IDmBaseObj* data = nullptr;  // status 1: the item's data object (not owned by the receiver)
    int32_t percent = 0;         // progress of the request, 0..100
};

// The face through which a task reports to its clients. Reports come on the
// task's worker threads, several at once when several requests are running;
// the reports of one request come one after the other, its final one (2, 3
// or 4, exactly once) last. No lock of the task is held during a call, so a
// callback may call the task (cancel, addFrames, even its last Release); once
// removeCallBack() or shutdown() has returned, the callback is not called
// again.
class IZorCallBack {
public:
    virtual ~IZorCallBack() = default;
    // Reserved; clients keep the default.
    virtual int32_t onTaskNotice(int32_t /*notice*/) { return 0; }
    // task: the reporting task; progress: its overall progress in percent.
    virtual int32_t processChanged(IDmBaseObj* task, int32_t progress, int32_t status,
                                   const BsTaskProgressInfo* info) = 0;
};

// The control interface of a task.
class IBsTaskControl {
public:
    virtual const char* taskName() = 0;
    virtual int32_t setPriority(int32_t priority) = 0;
    virtual int32_t priority() = 0;
    virtual int32_t pendingCount() = 0;
    virtual int32_t isPaused() = 0;
    virtual int32_t addCallBack(IZorCallBack* callback) = 0;     // 6th
    virtual int32_t removeCallBack(IZorCallBack* callback) = 0;  // 7th
    virtual int32_t start() = 0;                                 // 8th
    virtual int32_t pause() = 0;                                 // 9th: stop starting new work
    virtual int32_t resume() = 0;                                // 10th
    virtual int32_t shutdown() = 0;                              // 11th: cancel all, join the work
    virtual int32_t isStarted() = 0;                             // 12th: 0 when not running

protected:
    ~IBsTaskControl() = default;
};

// One audio wave request: make the wave data of frames [beginFrame, endFrame]
// of the clip's stream available (frames at rateNum/rateDen, in media time).
struct BsWaveTaskRecord {
    uint32_t option = 0;
    IDmClip* clip = nullptr;  // not owned by the record
    int64_t rateNum = 25;
    int64_t rateDen = 1;
    int32_t beginFrame = 0;
    int32_t endFrame = 0;
    int32_t frameStep = 1;
};

// The audio wave extraction task. Reaches IDmBaseObj and IBsTaskControl as
// virtual bases.
class IBsAudioWaveExtractTask : public virtual IDmBaseObj, public virtual IBsTaskControl {
public:
    // 1st: called once after creation; prepares the task's workers.
    virtual int32_t initialize() = 0;
    virtual int32_t taskKind() = 0;
    // 3rd: queues a record and writes a fresh token; 0 on success.
    virtual int32_t append(const BsWaveTaskRecord* record, int64_t* token) = 0;
    // 4th: cancels a request (-1: every request); an unknown token does nothing.
    virtual int32_t cancel(int64_t token) = 0;

protected:
    ~IBsAudioWaveExtractTask() = default;
};

// The data object of a status-1 report of the video task: one decoded
// picture. Name: "IBsVideoFrameData".
class IBsVideoFrameData : public virtual IDmBaseObj {
public:
    virtual int64_t requestedTime() = 0;  // the time that was asked for (cns)
    virtual int64_t shownTime() = 0;      // presentation time of the frame shown
    virtual int32_t width() = 0;
    virtual int32_t height() = 0;
    virtual int64_t byteSize() = 0;            // width x height x 4
    virtual const unsigned char* bytes() = 0;  // R, G, B, A; rows without padding

protected:
    ~IBsVideoFrameData() = default;
};

// The video frame extraction task. Reaches IDmBaseObj and IBsTaskControl as
// virtual bases.
class IBsVideoFrameExtractTask : public virtual IDmBaseObj, public virtual IBsTaskControl {
public:
    // 1st: called once after creation.
    virtual int32_t initialize() = 0;
    // 2nd: queues the frames of clip at times (media cns) fitted into
    // width x height; flags bit 0: refresh (decode and rewrite stored frames).
    virtual int32_t append(IDmBaseObj* clip, const int64_t* times, int32_t count, int64_t* token, int32_t width,
                           int32_t height, uint32_t flags) = 0;
    virtual int32_t taskKind() = 0;
    // 4th: cancels a request (-1: every request).
    virtual int32_t cancel(int64_t token) = 0;
    // Adds frames to a running request; 0 when accepted.
    virtual int32_t addFrames(int64_t token, const int64_t* times, int32_t count) = 0;

protected:
    ~IBsVideoFrameExtractTask() = default;
};

}  // namespace ZOR

extern "C" {
// A new task with one reference owned by the caller.
ZOR_PLATFORM_API ZOR::IBsAudioWaveExtractTask* createAudioWaveExtractTask();
ZOR_PLATFORM_API ZOR::IBsVideoFrameExtractTask* createVideoFrameExtractTask();
}
