// Decoding the picture shown at a media time, for the thumb adapter: one open
// video stream of one file, kept open between pictures.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "AvShared/AvFrameDecoder.h"
#include "AvShared/AvPicture.h"
#include "ThumbAdapterInternal.h"

namespace ZOR::thumb {

// One open video stream. Exact pictures show the frame shown at a media time,
// keyframe pictures the keyframe at or before it (see av::FrameDecoder). Every
// picture keeps the display aspect ratio (sample aspect ratio and the
// rotation of the display matrix, in quarter turns; mirroring is not
// applied), is scaled to fit the box (ZOR::adjust: the bound side fills it),
// centred, and the rest of the box is transparent (0, 0, 0, 0).
class FrameSession {
public:
    // streamId: the container's stream index; -1, or 0 when the file's
    // stream 0 is not video, takes the best video stream.
    FrameSession(std::string path, int streamId, ThumbDecodeCounts* counts);
    FrameSession(const FrameSession&) = delete;
    FrameSession& operator=(const FrameSession&) = delete;

    // Opens the file and its video stream when not open yet. False with
    // *problem set ("'<path>': <cause>").
    bool open(std::string* problem);

    const std::string& path() const { return decoder_.path(); }
    int requestedStream() const { return decoder_.requestedStream(); }
    // The container's index of the stream decoded (after open()).
    int streamIndex() const { return decoder_.streamIndex(); }
    // The stream's media duration in cns, from its first frame; 0 when
    // nothing tells.
    int64_t duration();
    // The stream's frame rate; false when the file tells none.
    bool frameRate(int64_t* num, int64_t* den) const { return decoder_.frameRate(num, den); }

    // Whether frames no picture needs may be skipped.
    void setSkipping(bool enable) { decoder_.setSkipping(enable); }

    // A flag another thread sets when the picture being decoded is no longer
    // wanted: pictureAt() then stops reading and returns AVERROR_EXIT. Where
    // the decoder stood is lost; the owner lets the session go afterwards.
    void setAbandon(const std::atomic<bool>* flag);

    // The picture at media time (cns) fitted into width x height, as RGBA
    // into out (width x height x 4 bytes). 0 on success; otherwise a
    // negative code with *problem set ("'<path>': <cause>").
    int pictureAt(int64_t time, bool keyframe, int32_t width, int32_t height, unsigned char* out, std::string* problem);

private:
    std::string failure(const std::string& cause) const { return "'" + path() + "': " + cause; }
    // Adds what the decoder did since the last call to the adapter's counts.
    void publishCounts();

    ThumbDecodeCounts* const counts_;
    av::DecodeCounts published_;
    av::FrameDecoder decoder_;
    av::RgbaConverter converter_;
    // The picture given last, to give again without converting.
    std::vector<unsigned char> converted_;
    int64_t convertedPts_ = 0;
    bool convertedKeyframe_ = false;
    int32_t convertedWidth_ = 0;
    int32_t convertedHeight_ = 0;
    bool haveConverted_ = false;
};

}  // namespace ZOR::thumb
