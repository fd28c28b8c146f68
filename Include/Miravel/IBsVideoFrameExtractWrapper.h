// The video frame extraction wrapper: the pictures of a clip at a list of
// media times, decoded by a video frame extraction task of the background
// task service that each wrapper owns, and handed over as files of the frame
// store (the PNG files the task keeps; DmMedia.h).
#pragma once

#include <cstdint>

#include "DataModel/DataModel.h"
#include "DataModel/IDmBaseObj.h"
#include "Miravel/MiravelExport.h"

namespace ZOR {

// Told of the end of each request. Not reference counted: register with
// addCallBack(), keep it alive until removeCallBack() has returned.
//
// Thread: a worker thread of the task service; or the thread calling
// queryVideoFrame(), before it returns, when the task reported the request
// before its append had returned. Lock: the wrapper's callback list is locked
// (one callback at a time): do not add or remove callbacks from here, and do
// not release the wrapper's last reference. queryVideoFrame(), the cancels,
// pauseQuery() and resumeQuery() may be called (no other lock is held).
class IBsVideoFrameExtractCallback {
public:
    // status 2 (finished): times holds the count times asked for, in the
    // order given; frames holds count slots of 1024 bytes, slot i the
    // NUL-terminated path of the picture file of times[i] (empty when there
    // is none). Both belong to the wrapper and are freed when the call
    // returns: copy what you keep. A clip without IDmVideoFeature is dropped
    // with an error line and nothing is told.
    // status 3 (the media cannot be read or decoded) or 4 (cancelled): no
    // data (null, null, 0).
    // status 7: the task asked for the request again; it was resubmitted
    // (without the refresh flag) and token is its new token; no data. Its
    // end is told later under the new token.
    virtual void onVideoFrameChanged(int64_t token, int32_t status, const int64_t* times, void* frames,
                                     int32_t count) = 0;

protected:
    ~IBsVideoFrameExtractCallback() = default;
};

// Name: "IBsVideoFrameExtractWrapper" (queryInterface also answers
// "IDmBaseObj"). Every operation may be called from any thread.
class IBsVideoFrameExtractWrapper : public IDmBaseObj {
public:
    // Registers callback (no reference taken; once only, however often
    // added). 0; 1001 for null.
    virtual int32_t addCallBack(IBsVideoFrameExtractCallback* callback) = 0;
    // 0 whether or not it was registered; 1001 for null. Once it returns the
    // callback is not being called and will not be again.
    virtual int32_t removeCallBack(IBsVideoFrameExtractCallback* callback) = 0;
    // Asks for the pictures of clip at times (count media times, cns;
    // copied), each the frame a player shows at that time, fitted into
    // first x second (width x height) pixels, centred, margins transparent.
    // flags bit 0: refresh (decode again, rewriting the stored files).
    // *token (token may be null) receives the request's token, whose end the
    // callbacks are told; the wrapper holds a reference on clip until then.
    // Returns 0, or the task's append result (no request made, *token
    // untouched): 1001 for a null clip; 1004 for a clip without media or
    // without a video stream; 1005 for a size below 1 x 1 or above the frame
    // store's (16384 a side, 8192 x 8192 in all); 1002 once the task is shut
    // down.
    virtual int32_t queryVideoFrame(IDmClip* clip, int32_t first, int32_t second, const int64_t* times, uint32_t count,
                                    uint32_t flags, int64_t* token) = 0;
    // Cancels every request of clip on the task; each still ends through the
    // callbacks (status 4, or 2 when it finished first). Returns 0.
    virtual int32_t cancelQueryOfClip(IDmClip* clip) = 0;
    // Cancels the request of token and forgets it: its end is not told
    // (unless the task reported it meanwhile). -1 cancels every request
    // instead, each still told its end. Returns 0.
    virtual int32_t cancelQuery(int64_t token) = 0;
    // No further work of the wrapper's task starts until resumeQuery() (work
    // already running is not interrupted; cancels still go through).
    // Returns 0 whatever the task answers.
    virtual int32_t pauseQuery() = 0;
    // Lets the task work again. Returns 0.
    virtual int32_t resumeQuery() = 0;

protected:
    ~IBsVideoFrameExtractWrapper() = default;
};

}  // namespace ZOR

extern "C" {
// A new wrapper with one reference owned by the caller; give it back with
// Release(). Each wrapper drives a task of its own. The last Release()
// cancels the pending requests, waits for the task's running work and
// releases the clips held; once it returns no callback is called. Never
// release the last reference from inside a callback of this wrapper.
// Allocation failure throws std::bad_alloc.
MIRAVEL_API ZOR::IBsVideoFrameExtractWrapper* createBsVideoFrameExtractWrapper();
}
