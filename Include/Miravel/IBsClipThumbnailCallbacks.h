// The callback interfaces between the clip thumbnail service, its per-timeline
// implementation, the change tracker and the thumbnail builders. None is
// reference counted: whoever registers one keeps it alive while registered.
#pragma once

#include <cstdint>

#include "BsDataStructure/BsDataStructure.h"
#include "DataModel/DataModel.h"

namespace ZOR {

class IBsAudioClipThumbnailCallback {
public:
    // The thumbnail of clip is out of date; query it again.
    virtual int32_t onAudioThumbnailNotice(IDmClip* clip) = 0;
    // The audio thumbnail of audioClip is stale; query it again.
    virtual int32_t onAudioThumbnailChanged(IDmClip* audioClip) = 0;
    // count values of the query's range [beginCns, endCns] of clip. Called on
    // the audio builder's worker thread; samples live only during the call.
    virtual int32_t onAudioThumbnailData(IDmClip* clip, int64_t beginCns, int64_t endCns, const float* samples,
                                         int32_t count) = 0;

protected:
    ~IBsAudioClipThumbnailCallback() = default;
};

class IBsAudioThumbnailQueryer {
public:
    // Where the results of this queryer's queries go (null: nowhere).
    virtual IBsAudioClipThumbnailCallback* getResultCallback() = 0;
    virtual bool isCalcDuckingEnabled() = 0;

protected:
    ~IBsAudioThumbnailQueryer() = default;
};

class IBsVideoClipThumbnailCallback {
public:
    virtual int32_t onVideoThumbnailNotice(void* value) = 0;
    // The cached pictures of clip were dropped.
    virtual int32_t onVideoThumbnailChanged(IDmClip* clip) = 0;
    // count pictures of clip, width x height, bytesPerPicture bytes each:
    // frames holds their times (cns, ascending), pictures their pixels (RGBA),
    // in step. The lists live only during the call; the pixels stay valid
    // while the picture is cached.
    virtual int32_t onVideoThumbnailData(IDmClip* clip, int32_t width, int32_t height, IZORLonglongList* frames,
                                         IZORPByteList* pictures, int32_t count, int32_t bytesPerPicture) = 0;

protected:
    ~IBsVideoClipThumbnailCallback() = default;
};

class IChangedCallback {
public:
    // The audio clips whose audio changed, each with its change bits.
    virtual int32_t onAudioChanged(IDmTimeline* timeline, IDmClipList* clips, IZORIntList* flags) = 0;
    // clip left the timeline or was replaced.
    virtual int32_t onClipChanged(IDmTimeline* timeline, IDmClip* clip) = 0;
    virtual int32_t onChangeIgnored(void* value) = 0;
    // Every watched clip is stale (the timeline is going away).
    virtual int32_t onAllClipsChanged(IDmTimeline* timeline) = 0;

protected:
    ~IChangedCallback() = default;
};

}  // namespace ZOR
