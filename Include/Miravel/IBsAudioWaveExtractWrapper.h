// The audio wave extraction wrapper: the raw waveform values of a clip's
// range, decoded by an audio wave extraction task of the background task
// service that each wrapper owns.
//
// Values are counted in frames of 25 a second, media time (frame f covers
// [f x 40 ms, (f + 1) x 40 ms)); a frame holds the clip's values per frame
// (the reference host: 40, the peak of each millisecond over every channel,
// full scale 1.0).
#pragma once

#include <cstdint>

#include "DataModel/DataModel.h"
#include "DataModel/IDmBaseObj.h"
#include "Miravel/MiravelExport.h"

namespace ZOR {

// Told of the end of each request. Not reference counted: register
// with addCallBack(), keep it alive until removeCallBack() has returned.
//
// Thread: a worker thread of the task service; or the thread calling
// queryAudioWave(), before it returns, when the task reported the request
// before its append had returned. Lock: the wrapper's callback list is locked
// (one callback at a time): do not add or remove callbacks from here, and do
// not release the wrapper's last reference. queryAudioWave(), the cancels,
// pauseQuery() and resumeQuery() may be called (no other lock is held).
class IBsAudioWaveExtractCallback {
public:
    // status 2 (finished): data holds count float values (4 bytes each), the
    // values per frame of each frame taken (see queryAudioWave), frame after
    // frame; span = (end frame - begin frame) x values per frame, what the
    // whole range holds. data belongs to the wrapper and is freed when the
    // call returns: copy what you keep. When the clip's audio feature cannot
    // give the values, the request is dropped and nothing is told.
    // status 3 (the media cannot be read or decoded) or 4 (cancelled): no
    // data (null, 0, 0).
    // status 7: the task asked for the request again; it was resubmitted and
    // token is its new token (the one queryAudioWave gave is no longer
    // known); no data. Its end is told later under the new token.
    virtual void onAudioWaveChanged(int64_t token, int32_t status, const void* data, int32_t count, int32_t span) = 0;

protected:
    ~IBsAudioWaveExtractCallback() = default;
};

// Name: "IBsAudioWaveExtractWrapper" (queryInterface also answers
// "IDmBaseObj"). Every operation may be called from any thread.
class IBsAudioWaveExtractWrapper : public IDmBaseObj {
public:
    // Registers callback (no reference taken; once only, however often
    // added). 0; 1001 for null.
    virtual int32_t addCallBack(IBsAudioWaveExtractCallback* callback) = 0;
    // 0 whether or not it was registered; 1001 for null. Once it returns the
    // callback is not being called and will not be again.
    virtual int32_t removeCallBack(IBsAudioWaveExtractCallback* callback) = 0;

    // Asks for the values of clip (an IDmAudioFeature) over [begin, end),
    // media cns; *token (token may be null) receives the request's token,
    // whose end the callbacks are told. Frames are taken from
    // frameFromCnsTime(25/1, begin) up to, not including, that of end, every
    // step-th: step = frames / samples when there are more frames than
    // samples, else 1 (samples bounds the frames, not the values). option is
    // passed to the task (the reference task ignores it). The wrapper holds a
    // reference on clip until the end is told.
    // Returns 0, or the task's append result (no request made, *token
    // untouched): 1001 for a null clip, an end frame before the begin frame,
    // or samples < 1 with a non-empty range; 1004 for a clip without media
    // or without an audio stream; 1002 once the task is shut down.
    virtual int32_t queryAudioWave(IDmClip* clip, int64_t begin, int64_t end, int32_t samples, uint32_t option,
                                   int64_t* token) = 0;
    // Cancels every request of clip on the task; each still ends through the
    // callbacks (status 4, or 2 when it finished first). Returns 0.
    virtual int32_t cancelQueryOfClip(IDmClip* clip) = 0;
    // Cancels the request of token and forgets it: its end is not told
    // (unless the task reported it meanwhile). -1 cancels every request
    // instead, each still told its end (status 4, or 2 when it finished
    // first). Returns 0.
    virtual int32_t cancelQuery(int64_t token) = 0;
    // No further work of the wrapper's task starts until resumeQuery()
    // (work already running is not interrupted; cancels still go through).
    // Returns the task's result: 0; 1002 once it is shut down; 1001 when the
    // wrapper has no task.
    virtual int32_t pauseQuery() = 0;
    // Lets the task work again; results as pauseQuery().
    virtual int32_t resumeQuery() = 0;

protected:
    ~IBsAudioWaveExtractWrapper() = default;
};

}  // namespace ZOR

extern "C" {
// A new wrapper with one reference owned by the caller; give it back with
// Release(). Each wrapper drives a task of its own. The last Release()
// cancels the pending requests, waits for the task's running work and
// releases the clips held; once it returns no callback is called. Never
// release the last reference from inside a callback of this wrapper.
// Allocation failure throws std::bad_alloc.
MIRAVEL_API ZOR::IBsAudioWaveExtractWrapper* createBsAudioWaveExtractWrapper();
}
