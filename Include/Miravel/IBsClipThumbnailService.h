// The clip thumbnail service: audio waveform and video frame thumbnails of
// timeline clips, and notices when they go stale.
//
// The work of one timeline (its audio builder with its worker thread, its
// video builder with its extraction task, its picture cache and its change
// tracker) is shared by every service that names a clip of that timeline,
// and lasts until the last of them is released. The service hears of
// data-model edits on the event bus (ListenerCenter.h) and tells its audio
// and video callbacks which thumbnails went stale (IBsClipThumbnailCallbacks.h
// gives each callback's thread and locks).
//
// Threads: a service takes no lock of its own, so call one service from one
// thread at a time (different services may be used from different threads),
// and never from inside one of its callbacks. Several operations wait for the
// library's workers (see each); the viewer's docs/embedding.md shows a client
// thread that makes every call.
//
// Clips passed in are used during the call; the service takes its own
// references on what it keeps (clips queried and watched, the timeline).
#pragma once

#include <cstdint>

#include "DataModel/DataModel.h"
#include "DataModel/IDmBaseObj.h"
#include "Miravel/IBsClipThumbnailCallbacks.h"
#include "Miravel/MiravelExport.h"
#include "ZorUtils/ZorUtils.h"

namespace ZOR {

// A request for the pictures of a video clip. Read during the call only.
struct VideoThumbnailRequest {
    IDmClip* clip = nullptr;
    int32_t width = 0;  // the box each picture is fitted into, at least 1 x 1
    int32_t height = 0;
    // The clip's videoKey::streamId (-1: the best stream): it names the
    // cached pictures (the frames come from the clip's own stream), so pass
    // the clip's value.
    int32_t streamId = -1;
    // Media times (cns). Sorted and de-duplicated in place: the first
    // distinct values come first, what follows them is left unspecified.
    int64_t* frames = nullptr;
    int32_t frameCount = 0;
    uint32_t refresh = 0;  // non-zero: drop what is cached and extract anew
};

// Name: "IBsClipThumbnailService" (it answers no other name, "IDmBaseObj"
// included). Results: 0, or 1001 where an operation says so; a refused
// query is learnt of only by never being answered.
class IBsClipThumbnailService : public IDmBaseObj {
public:
    // ClipThumbnailKey::enableCalcDucking (compared as text) with a boolean
    // value: whether this service's audio thumbnails include the ducking
    // other clips cause (default true). Read each time values are computed;
    // values already computed for a query are delivered again unchanged until
    // the clip changes or its query is cancelled. 1001 for any other key.
    virtual int32_t setProperty(const char* key, const ZorProperty& value) = 0;
    // The same key: *value (value may be null) = boolProperty(the setting).
    // 1001 for any other key.
    virtual int32_t getProperty(const char* key, ZorProperty* value) = 0;

    // Register a callback (no reference taken, once however often added)
    // with this service and every timeline it works on, now and later. Video
    // callbacks get every picture and notice of those timelines, whichever
    // service asked; audio callbacks get the notices of those timelines and
    // the answers to this service's own queries. 0; 1001 for null.
    virtual int32_t addVideoClipThumbnailCallback(IBsVideoClipThumbnailCallback* callback) = 0;
    virtual int32_t addAudioClipThumbnailCallback(IBsAudioClipThumbnailCallback* callback) = 0;
    // Unregister from the service and its timelines; once they return the
    // callback is not being called and will not be again. 0; 1001 for null.
    virtual int32_t removeVideoClipThumbnailCallback(IBsVideoClipThumbnailCallback* callback) = 0;
    virtual int32_t removeAudioClipThumbnailCallback(IBsAudioClipThumbnailCallback* callback) = 0;

    // Drops the wave values read for the media of clip's sound (shared by
    // every clip and timeline using that media, read again from the media's
    // wave data on the next query) and the answers on this clip's timeline
    // that used them, cancelling their extraction; each such clip gets
    // onAudioThumbnailNotice on this thread. Waits for a computation of those
    // clips on the audio builder's worker. 1001 when clip has no base audio
    // clip (getBaseAudioClip), else 0.
    virtual int32_t clearAudioRawSamples(IDmClip* clip) = 0;
    // Asks for sampleCount values of the sound of clip, an audio clip (for a
    // video clip pass getBaseAudioClip(clip)), over [beginCns, endCns] of its
    // clip time: clip time c plays at timeline time begin + (c - markIn), so
    // the whole clip is [markIn, markIn + end - begin]. The clip's volume,
    // gains, keyframes, frozen stretches and (see setProperty) ducking are
    // applied. The answer comes later through onAudioThumbnailData; where
    // the media has no wave data the values are 0, and when its extraction
    // fails or is cancelled no answer comes (DmMedia.h's mediaFailure() says
    // why). One query per clip and service: a new one replaces the last. The
    // clip is watched for changes from now on. May wait for the audio
    // builder's worker while it computes this clip. Returns 0, also when the
    // query is refused: a null clip, a clip that is not its own base audio
    // clip or has no IDmAudioFeature, sampleCount 0 or above INT32_MAX.
    virtual int32_t queryAudioThumbnailData(IDmClip* clip, int64_t beginCns, int64_t endCns, uint32_t sampleCount) = 0;
    // Cancels this service's query of clip (and its extraction) and stops
    // watching the clip's changes (for every service of its timeline); waits
    // for a computation of the clip in progress on the audio builder's
    // worker. Once it returns, that query is not answered. Returns 0.
    virtual int32_t cancelAudioThumbnailQuery(IDmClip* clip) = 0;

    // Asks for the pictures of request->clip at request->frames. Those
    // already cached are delivered through onVideoThumbnailData before this
    // returns, on this thread; the others are extracted (read from the frame
    // store or decoded) and delivered as they come, on the task service's
    // threads. A new request for a clip whose extraction is running adds its
    // missing frames to it (the frames only the earlier request wanted are
    // no longer delivered), unless the running one makes them all already.
    // With refresh set the clip's cached pictures are dropped first
    // (onVideoThumbnailChanged on this thread) and every frame is decoded
    // again. The clip is watched for changes from now on. Returns 0, also
    // when the request is refused: null, a null clip, a size below 1 x 1, a
    // negative frameCount or null frames with frameCount > 0, a clip whose
    // media the extraction task refuses.
    virtual int32_t queryVideoThumbnail(VideoThumbnailRequest* request) = 0;
    // Stops the running extraction of clip (a delivery already under way may
    // still arrive); what was delivered stays cached and the clip stays
    // watched. Returns 0.
    virtual int32_t cancelVideoThumbnailQuery(IDmClip* clip) = 0;

protected:
    ~IBsClipThumbnailService() = default;
};

}  // namespace ZOR

extern "C" {

// A new clip thumbnail service with one reference owned by the caller; give
// it back with Release(). The last Release() unsubscribes from the event
// bus, cancels the service's audio queries and unregisters its callbacks
// (waiting for the audio worker's computation in progress); the last service
// of a timeline also tears that timeline's work down (joining its audio
// worker and its extraction work). Once it returns no callback registered
// with it is called. Never release it from inside one of its callbacks.
// Allocation failure throws std::bad_alloc.
MIRAVEL_API ZOR::IBsClipThumbnailService* createBsClipThumbnaiService();

}  // extern "C"
