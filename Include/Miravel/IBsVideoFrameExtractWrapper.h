// The video frame extraction wrapper: frames of a clip at a list of times.
#pragma once

#include <cstdint>

#include "DataModel/DataModel.h"
#include "DataModel/IDmBaseObj.h"
#include "Miravel/MiravelExport.h"

namespace ZOR {

// Told of each finished request, on a thread of the task service, with the
// wrapper's callback list locked.
class IBsVideoFrameExtractCallback {
public:
    // status 2: frames holds count 1024-byte slots, slot i the NUL-terminated
    // path of the picture of times[i] (empty when none). The buffer lives only
    // during the call. Status 3 or 4: no data; 7: resubmitted under token.
    virtual void onVideoFrameChanged(int64_t token, int32_t status, const int64_t* times, void* frames,
                                     int32_t count) = 0;

protected:
    ~IBsVideoFrameExtractCallback() = default;
};

// Name: "IBsVideoFrameExtractWrapper".
class IBsVideoFrameExtractWrapper : public IDmBaseObj {
public:
    virtual int32_t addCallBack(IBsVideoFrameExtractCallback* callback) = 0;
    virtual int32_t removeCallBack(IBsVideoFrameExtractCallback* callback) = 0;
    // first, second: the picture's width and height; times: media cns.
    virtual int32_t queryVideoFrame(IDmClip* clip, int32_t first, int32_t second, const int64_t* times,
                                    uint32_t count, uint32_t flags, int64_t* token) = 0;
    virtual int32_t cancelQueryOfClip(IDmClip* clip) = 0;
    virtual int32_t cancelQuery(int64_t token) = 0;  // -1: every request
    virtual int32_t pauseQuery() = 0;
    virtual int32_t resumeQuery() = 0;

protected:
    ~IBsVideoFrameExtractWrapper() = default;
};

}  // namespace ZOR

extern "C" {
// A new wrapper with one reference owned by the caller; give it back with
// Release(). Each wrapper drives a task of its own.
MIRAVEL_API ZOR::IBsVideoFrameExtractWrapper* createBsVideoFrameExtractWrapper();
}
