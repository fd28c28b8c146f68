// The callback interfaces of the clip thumbnail service. Clients implement
// IBsAudioClipThumbnailCallback and IBsVideoClipThumbnailCallback and
// register them with a service (IBsClipThumbnailService.h);
// IBsAudioThumbnailQueryer and IChangedCallback are the contracts between the
// service, its per-timeline implementation, the change tracker and the
// thumbnail builders, implemented and called inside the library only.
//
// None is reference counted: registering takes no reference, so keep the
// object alive until its removal has returned. Every callback runs with the
// mutex of the callback list that calls it held (one callback of a list at a
// time): copy what you need and return. From inside a callback do not add or
// remove callbacks, do not call the service (several of its operations wait
// for the threads that are calling you), and do not release the service.
// Clip pointers given to a callback carry no reference: they are valid
// during the call.
#pragma once

#include <cstdint>

#include "BsDataStructure/BsDataStructure.h"
#include "DataModel/DataModel.h"

namespace ZOR {

class IBsAudioClipThumbnailCallback {
public:
    // The audio thumbnail of clip (an audio clip) is out of date: query it
    // again if it is shown. Sent to the callbacks of every service working on
    // the clip's timeline. Thread: the event bus's delivery thread after a
    // data-model edit changed the clip (sound, range, speed, enable, track)
    // or the ducking it gets, once per clip and event; the thread calling
    // clearAudioRawSamples(); or the audio builder's worker, when an answer
    // was read while the clip's media was still being extracted.
    virtual int32_t onAudioThumbnailNotice(IDmClip* clip) = 0;
    // audioClip left the timeline: the queries of every service for it have
    // been cancelled. Sent to the callbacks of every service working on the
    // timeline, on the event bus's delivery thread.
    virtual int32_t onAudioThumbnailChanged(IDmClip* audioClip) = 0;
    // The answer to this service's query of clip: count values (its
    // sampleCount; a query repeating the range of one still waiting for
    // extraction is answered by that one, at its count) over the query's
    // range [beginCns, endCns] of clip time, value i at beginCns + trunc(i /
    // count x (endCns - beginCns)), each at most 1.0.
    // Sent to the callbacks of the querying service only, on the audio
    // builder's worker thread, while the builder holds the clip's lock:
    // querying, cancelling or clearing from here would wait on itself (or on
    // a thread that waits for it). samples belongs to the builder and lives
    // only during the call.
    virtual int32_t onAudioThumbnailData(IDmClip* clip, int64_t beginCns, int64_t endCns, const float* samples,
                                         int32_t count) = 0;

protected:
    ~IBsAudioClipThumbnailCallback() = default;
};

// Inside the library: the audio builder asks it, for each query, where the
// answer goes and whether ducking is computed. The service is the queryer of
// its own queries.
class IBsAudioThumbnailQueryer {
public:
    // Where the results of this queryer's queries go (null: nowhere).
    virtual IBsAudioClipThumbnailCallback* getResultCallback() = 0;
    // Read on the audio builder's worker each time values are computed.
    virtual bool isCalcDuckingEnabled() = 0;

protected:
    ~IBsAudioThumbnailQueryer() = default;
};

class IBsVideoClipThumbnailCallback {
public:
    // Not sent by this library.
    virtual int32_t onVideoThumbnailNotice(void* value) = 0;
    // The cached pictures of clip (of its media, visual style and stream,
    // shared with every clip of the same) are about to be dropped: ask again.
    // Thread: the thread calling queryVideoThumbnail() with refresh set, or
    // the event bus's delivery thread when a clip with pictures left the
    // timeline and no other clip of the timeline uses its media.
    virtual int32_t onVideoThumbnailChanged(IDmClip* clip) = 0;
    // count pictures of clip, each fitted into width x height (RGBA, rows
    // without padding; bytesPerPicture = width x height x 4): frames holds
    // the media times asked for (cns, ascending), pictures the pixels, in
    // step; count may be 0. Sent to the callbacks of every service working on
    // the clip's timeline. Thread: the thread calling queryVideoThumbnail(), before it
    // returns, for the pictures already cached (and for any the extraction
    // reported before it was registered); a worker thread of the task
    // service for pictures extracted later. The lists live only during the
    // call. The pixels belong to the service's cache, which may drop them
    // once the call returns: copy them.
    virtual int32_t onVideoThumbnailData(IDmClip* clip, int32_t width, int32_t height, IZORLonglongList* frames,
                                         IZORPByteList* pictures, int32_t count, int32_t bytesPerPicture) = 0;

protected:
    ~IBsVideoClipThumbnailCallback() = default;
};

// Inside the library: how a timeline's change tracker tells the per-timeline
// implementation what changed: after each data-model event, on the event
// bus's delivery thread; onAllClipsChanged when the timeline is closed, on
// the thread the data model notifies on (the reference host: that same one).
class IChangedCallback {
public:
    // The audio clips whose audio changed, each with its change bits.
    virtual int32_t onAudioChanged(IDmTimeline* timeline, IDmClipList* clips, IZORIntList* flags) = 0;
    // clip left the timeline.
    virtual int32_t onClipChanged(IDmTimeline* timeline, IDmClip* clip) = 0;
    // Not sent by the tracker.
    virtual int32_t onChangeIgnored(void* value) = 0;
    // The timeline is going away: every watched clip's audio queries are
    // cancelled (no client is told).
    virtual int32_t onAllClipsChanged(IDmTimeline* timeline) = 0;

protected:
    ~IChangedCallback() = default;
};

}  // namespace ZOR
