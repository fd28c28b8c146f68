// DataModel, between the platform libraries: what the background task service
// needs from a media clip to decode it, the writing face of a wave manager and
// the layout of the frame store. Not for the Miravel library.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "DataModel/DataModel.h"
#include "DataModel/IDmBaseObj.h"
#include "ZorPlatformExport.h"

namespace ZOR {

class IDmAudioWaveStore;

// The media file behind a clip. Name: "IDmMediaSource".
class IDmMediaSource : public virtual IDmBaseObj {
public:
    // The canonical path of the file (the absolute path when the file is not
    // there).
    virtual const char* mediaPath() = 0;
    // The container's stream index of the clip's stream of that kind
    // (DmTrackAudio or DmTrackVideo); -1 when the clip has none.
    virtual int32_t resolvedStream(int32_t kind) = 0;
    // Why the clip lacks a stream of that kind ("" when it has one): the file
    // and the cause, as created.
    virtual const char* streamProblem(int32_t kind) = 0;
    // The clip's wave manager as a writer; no reference taken. Null when the
    // clip has no audio.
    virtual IDmAudioWaveStore* waveStore() = 0;

protected:
    ~IDmMediaSource() = default;
};

// The identity of a media file as the file system shows it: a regular file's
// size and modification time. Two looks that give the same identity are taken
// to see the same content; a file whose identity changed holds new content.
// Anything that is not a regular file (missing, unreadable, a pipe, a device)
// has no identity: regular is false and the rest 0, and such looks compare
// equal to each other.
struct DmFileIdentity {
    bool regular = false;
    int64_t size = 0;      // bytes
    int64_t modified = 0;  // modification time, ns since the epoch
    bool operator==(const DmFileIdentity&) const = default;
};

// The identity of the file at path now (a stat; no content is read).
ZOR_PLATFORM_API DmFileIdentity mediaFileIdentity(const char* path);

// The wave data of one media stream as the decoders fill it: frames at 25 per
// second in media time, 40 values each, value k of frame f being the largest
// absolute sample over every channel in millisecond 40 f + k. Every
// operation is thread-safe. Name: "IDmAudioWaveStore".
//
// Content. Everything the store holds (frames, end, origin) describes one
// content of the file: the one with the file identity the store was made
// for, or last adopted. Each content has its own generation number. When the
// file changes on disk (a new identity is adopted: by the audio task when it
// starts decoding a request, or by a new clip of the file), every held frame,
// the end and the origin are dropped and a new generation begins, so the
// store starts empty for the new content; clips that share the store read
// zeros until frames of the new content are stored. Writers pass the
// generation they decoded under; a write for an older generation is ignored,
// so a decoder still reading the old content cannot mix its values into the
// new one.
class IDmAudioWaveStore : public virtual IDmBaseObj {
public:
    static constexpr int32_t kValuesPerFrame = 40;
    static constexpr int64_t kFrameRateNum = 25;
    static constexpr int64_t kFrameRateDen = 1;
    // storeFrames: the generation is not the current one; nothing was stored.
    static constexpr int32_t kStaleGeneration = 1002;

    // Makes the store describe the content of identity. An identity that is
    // not regular (the file cannot be looked at) changes nothing. When the
    // store described another identity, it drops everything and begins a new
    // generation. Returns the current generation.
    virtual uint64_t adoptContent(const DmFileIdentity& identity) = 0;
    // The current generation.
    virtual uint64_t contentGeneration() = 0;

    // The frames of [first, last] that are not held and not known to lie
    // beyond the end of the stream, as inclusive ranges in ascending order.
    virtual std::vector<std::pair<int32_t, int32_t>> missingRanges(int32_t first, int32_t last) = 0;
    // Stores frameCount frames from first on (40 values each, full scale 1.0)
    // and marks them held, when generation is the current one. Returns 0;
    // 1001 for bad arguments; kStaleGeneration when the content has changed.
    virtual int32_t storeFrames(uint64_t generation, int32_t first, int32_t frameCount, const float* values) = 0;
    // The first frame beyond the end of the stream, once a decoder has met the
    // end; -1 before.
    virtual int32_t endFrame() = 0;
    virtual void setEndFrame(uint64_t generation, int32_t frame) = 0;
    // Where the stream's first decoded sample lies: its timestamp in the
    // stream's time base and the decoded sample rate. False until set, and
    // when generation is not the current one.
    virtual bool decodeOrigin(uint64_t generation, int64_t* pts, int32_t* sampleRate) = 0;
    virtual void setDecodeOrigin(uint64_t generation, int64_t pts, int32_t sampleRate) = 0;

    // Per channel. storeChannelFrames stores frameCount frames from first on
    // with each channel's values (for each frame, channels x 40 values, one
    // channel after the other); a frame's value is then the largest of its
    // channels'. Returns as storeFrames. Frames stored with storeFrames have
    // that value in every channel.
    virtual int32_t storeChannelFrames(uint64_t generation, int32_t first, int32_t frameCount, int32_t channels,
                                       const float* values) = 0;
    // The channels the store keeps apart (1 or more).
    virtual int32_t channelCount() = 0;
    // count values of one channel (-1: the largest of all) from millisecond
    // window firstWindow on (window w is value w % 40 of frame w / 40); 0 for
    // frames not held. Returns 0, or 1001 for bad arguments.
    virtual int32_t readChannelWindows(int32_t channel, int64_t firstWindow, int32_t count, float* values) = 0;
    // The largest value of one channel (-1: of all) over the millisecond
    // windows [firstWindow, endWindow); 0 for an empty range and for frames
    // not held. Reads coarse levels where whole 16 or 256 ms blocks lie
    // inside the range, so an hour costs tens of thousands of reads.
    virtual float channelPeak(int32_t channel, int64_t firstWindow, int64_t endWindow) = 0;
    // Writes what is held to the wave store on disk (see DmCache.h), merged
    // with what the store file holds already; nothing when nothing changed.
    // Returns 0, or the errno of a failed write (the levels stay in memory).
    virtual int32_t flush() = 0;

protected:
    ~IDmAudioWaveStore() = default;
};

// ---------------------------------------------------------------------------
// Frame store layout
//
//   <root>/<media folder>/s<stream>-<width>x<height>-t<time>-p<shown>.png
//
// The media folder is named after the file ("<name>-<16 hex digits>", the
// name reduced to letters, digits, '.', '_' and '-', at most 40 of them); the
// digits are a 64-bit FNV-1a hash of the canonical path, the file's size and
// its modification time, so an edited file gets a new folder. time is the
// requested media time and shown the presentation time of the frame shown,
// both in cns (decimal, '-' for negative). Files are written whole (temporary
// name, then rename); a temporary whose writer died is removed by the next
// scan of its folder.

// The picture sizes the frame store takes: each side 1..16384, at most
// 8192 x 8192 pixels in all.
inline bool frameStoreSizeAllowed(int32_t width, int32_t height) {
    return width > 0 && height > 0 && width <= 16384 && height <= 16384 &&
           int64_t{width} * height <= int64_t{8192} * 8192;
}

struct DmStoredFrame {
    int64_t time = 0;    // the requested media time (cns)
    int64_t shown = -1;  // the presentation time of the frame shown (cns)
    std::string path;    // the file
};

// The media folder of the file under the current root; "" when the file
// cannot be looked at (missing, unreadable).
ZOR_PLATFORM_API std::string frameStoreFolder(const char* mediaPath);

// The picture a video frame task is reporting on this thread when the frame
// store could not keep its file (a full disk...), or none (null folder).
// While it is set, thumbnailFiles() of a clip whose store folder it is counts
// that frame, at that size, as held with an empty path: the report's own data
// then delivers it, where it would otherwise stay missing for good (the task
// reports a picture once). A later request finds no file and decodes it
// again.
ZOR_PLATFORM_API void setUnstoredFrameInReport(const char* folder, int64_t time, int32_t width, int32_t height);
ZOR_PLATFORM_API bool isUnstoredFrameInReport(const char* mediaPath, int64_t time, int32_t width, int32_t height);
// The file name of one frame inside a media folder.
ZOR_PLATFORM_API std::string frameStoreFileName(int32_t stream, int32_t width, int32_t height, int64_t time,
                                                int64_t shown);
// The stored frames of one stream and size in a media folder, in ascending
// order of time (one per time; the newest file when several exist). Removes
// the temporaries of writers that died (isAbandonedTemporary) on the way.
ZOR_PLATFORM_API std::vector<DmStoredFrame> frameStoreScan(const std::string& folder, int32_t stream, int32_t width,
                                                           int32_t height);

}  // namespace ZOR
