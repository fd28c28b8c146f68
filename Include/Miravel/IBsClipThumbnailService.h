// The clip thumbnail service: audio waveform and video frame thumbnails of
// timeline clips, and notices when they go stale.
#pragma once

#include <cstdint>

#include "DataModel/DataModel.h"
#include "DataModel/IDmBaseObj.h"
#include "Miravel/IBsClipThumbnailCallbacks.h"
#include "Miravel/MiravelExport.h"
#include "ZorUtils/ZorUtils.h"

namespace ZOR {

// A request for the pictures of a video clip.
struct VideoThumbnailRequest {
    IDmClip* clip = nullptr;
    int32_t width = 0;
    int32_t height = 0;
    int32_t streamId = -1;
    int64_t* frames = nullptr;  // media times (cns); sorted in place by the builder
    int32_t frameCount = 0;
    uint32_t refresh = 0;       // non-zero: drop what is cached and extract anew
};

// Name: "IBsClipThumbnailService".
class IBsClipThumbnailService : public IDmBaseObj {
public:
    virtual int32_t setProperty(const char* key, const ZorProperty& value) = 0;
    virtual int32_t getProperty(const char* key, ZorProperty* value) = 0;
    virtual int32_t addVideoClipThumbnailCallback(IBsVideoClipThumbnailCallback* callback) = 0;
    virtual int32_t addAudioClipThumbnailCallback(IBsAudioClipThumbnailCallback* callback) = 0;
    virtual int32_t removeVideoClipThumbnailCallback(IBsVideoClipThumbnailCallback* callback) = 0;
    virtual int32_t removeAudioClipThumbnailCallback(IBsAudioClipThumbnailCallback* callback) = 0;
    virtual int32_t clearAudioRawSamples(IDmClip* clip) = 0;
    virtual int32_t queryAudioThumbnailData(IDmClip* clip, int64_t beginCns, int64_t endCns,
                                            uint32_t sampleCount) = 0;
    virtual int32_t cancelAudioThumbnailQuery(IDmClip* clip) = 0;
    virtual int32_t queryVideoThumbnail(VideoThumbnailRequest* request) = 0;
    virtual int32_t cancelVideoThumbnailQuery(IDmClip* clip) = 0;

protected:
    ~IBsClipThumbnailService() = default;
};

}  // namespace ZOR

extern "C" {

// A new clip thumbnail service with one reference owned by the caller. Every
// service that touches a timeline shares that timeline's work and caches.
MIRAVEL_API ZOR::IBsClipThumbnailService* createBsClipThumbnaiService();

}  // extern "C"
