// The audio wave extraction wrapper: waveform values of a clip's range.
#pragma once

#include <cstdint>

#include "DataModel/DataModel.h"
#include "DataModel/IDmBaseObj.h"
#include "Miravel/MiravelExport.h"

namespace ZOR {

// Told of each finished request, on a thread of the task service, with the
// wrapper's callback list locked (do not add or remove callbacks from here).
class IBsAudioWaveExtractCallback {
public:
    // status 2: data holds count 4-byte float values, span is the number of
    // values the requested frame range covers; status 3 or 4: the request
    // ended without data (data null, count 0); status 7: the request was
    // submitted again under this new token.
    virtual void onAudioWaveChanged(int64_t token, int32_t status, const void* data, int32_t count, int32_t span) = 0;

protected:
    ~IBsAudioWaveExtractCallback() = default;
};

// Name: "IBsAudioWaveExtractWrapper".
class IBsAudioWaveExtractWrapper : public IDmBaseObj {
public:
    virtual int32_t addCallBack(IBsAudioWaveExtractCallback* callback) = 0;     // 1001 for null
    virtual int32_t removeCallBack(IBsAudioWaveExtractCallback* callback) = 0;  // 1001 for null
    // Values of clip over [begin, end) (cns), about samples of them; the
    // request's token goes to *token. Returns the task's append result.
    virtual int32_t queryAudioWave(IDmClip* clip, int64_t begin, int64_t end, int32_t samples, uint32_t option,
                                   int64_t* token) = 0;
    virtual int32_t cancelQueryOfClip(IDmClip* clip) = 0;
    virtual int32_t cancelQuery(int64_t token) = 0;  // -1: every request
    virtual int32_t pauseQuery() = 0;
    virtual int32_t resumeQuery() = 0;

protected:
    ~IBsAudioWaveExtractWrapper() = default;
};

}  // namespace ZOR

extern "C" {
// A new wrapper with one reference owned by the caller; give it back with
// Release(). Each wrapper drives a task of its own.
MIRAVEL_API ZOR::IBsAudioWaveExtractWrapper* createBsAudioWaveExtractWrapper();
}
