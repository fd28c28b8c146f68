// Adapter: the property keys of the data model, the wave manager lookup and
// the frame decoder used for media thumbnails.
#pragma once

#include <cstdint>

#include "DataModel/DataModel.h"
#include "ZorPlatformExport.h"

namespace ZOR {

// Property keys (byte-wise compared texts).
struct ZOR_PLATFORM_API audioKey {
    static const char* const volume;    // double, dB
    static const char* const mute;      // bool
    static const char* const streamId;  // int, container stream index; -1: best audio stream
};
struct ZOR_PLATFORM_API clipVolumeKey {
    static const char* const volumeGain;  // double, dB
};
struct ZOR_PLATFORM_API audioLoudness {
    static const char* const enable;  // bool
    static const char* const gain;    // double, linear
};
struct ZOR_PLATFORM_API audioReversePlayKey {
    static const char* const enable;  // bool
};
struct ZOR_PLATFORM_API trackKey {
    static const char* const mute;
    static const char* const visible;
    static const char* const solo;
};
struct ZOR_PLATFORM_API clipKey {
    static const char* const enable;
    static const char* const markIn;
    static const char* const markOut;
    static const char* const timelineBegin;
    static const char* const timelineEnd;
};
struct ZOR_PLATFORM_API videoKey {
    static const char* const streamId;  // int; -1: best video stream
};
struct ZOR_PLATFORM_API mediaInfoKey {
    static const char* const width;          // int, rotation applied
    static const char* const height;         // int, rotation applied
    static const char* const vid_stream_id;  // int
    static const char* const duration;       // int64, cns
};

// The wave manager behind a clip's wave-manager source
// (IDmClipInternal::waveManagerSource), with one reference owned by the
// caller; null when there is none.
ZOR_PLATFORM_API IDmAudioWaveMgrInternal* acquireIDmAudioWaveMgrInternal(IDmBaseObj* source);

// Seek modes of the thumb adapter.
enum ThumbSeekMode : int32_t {
    ThumbSeekExact = 0,     // the frame shown at the time (default)
    ThumbSeekKeyframe = 1,  // the nearest keyframe at or before the time
};

// A frame decoder for media thumbnails. Operations in this order.
class IThumbAdapter : public virtual IDmBaseObj {
public:
    virtual int32_t setMediaPath(const char* path) = 0;                // 1
    virtual int32_t setMediaObject(int64_t handle) = 0;                // 2
    virtual int32_t setOutputSize(int32_t width, int32_t height) = 0;  // 3
    virtual int32_t outputSize(int32_t* width, int32_t* height) = 0;   // 4
    virtual int32_t setSeekMode(int32_t mode) = 0;                     // 5
    virtual int32_t seekMode(int32_t* mode) = 0;                       // 6
    virtual int32_t open(int32_t streamId) = 0;                        // 7
    virtual int32_t close() = 0;                                       // 8
    // 9: the frame shown at time (cns) as RGBA into buffer (output size).
    virtual int32_t frameAt(int64_t time, unsigned char* buffer, int64_t bufferSize) = 0;
    virtual int32_t mediaDuration(int64_t* duration, int32_t reserved) = 0;       // 10
    virtual int32_t frameRate(int64_t* num, int64_t* den, int32_t reserved) = 0;  // 11
    // 12: the times frameAt will be asked for next, in that order. A hint:
    // the adapter may decode them ahead, on other threads; each call
    // replaces the one before, and open() and close() forget it.
    virtual int32_t readAhead(const int64_t* times, int32_t count) = 0;

protected:
    ~IThumbAdapter() = default;
};

// A new thumb adapter with one reference owned by the caller.
ZOR_PLATFORM_API IThumbAdapter* createThumbAdapter();

}  // namespace ZOR
