// Decoding the picture a player shows at a media time, fitted into a box.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "../AvShared/AvFrames.h"
#include "../AvShared/AvPicture.h"
#include "BtmMediaDecoder.h"

namespace ZOR::btm {

struct Picture {
    int64_t shown = 0;                 // presentation time of the frame, media cns
    std::vector<unsigned char> rgba;   // width x height x 4, R G B A, rows without padding
};

// Times decoded one after the other from the same keyframe.
struct VideoRun {
    size_t first = 0;   // index of the run's first time
    size_t count = 0;
    int64_t cost = 0;   // estimate: media cns from the keyframe to the last time
    int64_t lead = 0;   // estimate: media cns from the keyframe to the first time
};

// What a session did, for the logs.
struct VideoSessionCounts {
    int64_t seeks = 0;
    int64_t packets = 0;     // sent to the decoder
    int64_t discarded = 0;   // of those, sent with AVDISCARD_NONREF
    int64_t frames = 0;      // received from the decoder
    int64_t redone = 0;      // pictures decoded again without discarding
};

// One open video stream. The picture for media time t is the last frame whose
// presentation time is at or before t (the first frame when t is earlier),
// decoded exactly: the decoder seeks to the keyframe before t and decodes on
// from there. Requests in ascending order of time decode forward without
// seeking again while no keyframe lies between where the decoder is and the
// time (by the container's index; without one, while the time is near).
// Media time 0 is the stream's start time.
//
// Only what the pictures depend on is decoded in full: a packet whose frame
// no planned time shows (see plan()) is sent with AVDISCARD_NONREF, so the
// decoder skips it when no other frame refers to it (a frame others refer to
// is always decoded). Which frame a time shows is known from the packets'
// presentation times, read a few packets ahead of the decoder; when the frame
// found differs from the one the packets said, the picture is decoded again
// with nothing skipped.
//
// The picture keeps the display aspect ratio (sample aspect ratio and the
// rotation of the display matrix, in quarter turns; mirroring is not
// applied), is scaled to fit the box (ZOR::adjust: the bound side fills it),
// centred, and the rest of the box is transparent (0, 0, 0, 0).
class VideoSession {
public:
    VideoSession(std::string path, int streamIndex, int32_t width, int32_t height);
    ~VideoSession();
    VideoSession(const VideoSession&) = delete;
    VideoSession& operator=(const VideoSession&) = delete;

    // Opens the file when it is not open yet. False with *problem set.
    bool open(std::string* problem);
    // The times (media cns, ascending) the next calls of pictureAt() will ask
    // for. Frames none of them shows are not decoded in full, and after the
    // last one the decoder is drained instead of fed on. Without a plan only
    // the time asked for counts, and the decoder is never drained.
    void plan(std::vector<int64_t> times);
    // 0 with *picture set; MediaDecoder::kStopped; or another negative code
    // with *problem set ("'<path>': <cause>").
    int pictureAt(int64_t time, const std::function<bool()>& stop, Picture* picture, std::string* problem);

    // Splits ascending times into runs: the times of a run are decoded from
    // the same keyframe, one after the other; two runs have a keyframe
    // between them, so each can start with a seek. Opens the file when
    // needed; one run when it cannot be opened.
    std::vector<VideoRun> runs(const std::vector<int64_t>& times);

    // The rotation of the display matrix, degrees counter-clockwise.
    int rotation() const { return rotation_; }
    const VideoSessionCounts& counts() const { return counts_; }

private:
    bool reopen(std::string* problem);
    // Forgets where the decoder is (after a seek or reopening).
    void resetPosition();
    // Whether decoding on from where the decoder is gives the picture at time
    // at no more cost than seeking.
    bool canContinue(int64_t time) const;
    // Positions the decoder so that the next frame is at or before time
    // (or is the stream's first frame).
    int seekBefore(int64_t time, const std::function<bool()>& stop, std::string* problem);
    // Decodes until cursor_.frames.current is the frame shown at time.
    int decodeTo(int64_t time, const std::function<bool()>& stop);
    // The next frame into cursor_.frames.lookahead; AVERROR_EOF at the end.
    int readAhead(int64_t time, const std::function<bool()>& stop);
    // Sends one packet (or the end of the stream) to the decoder.
    void feed(int64_t time);
    // Reads one packet into cursor_.packets; false at the end of the stream.
    bool readPacket();
    // Whether the frame of a packet with this pts may be shown at time or at
    // a planned time after it (reads further ahead when that helps to know).
    bool needed(int64_t pts, int64_t time);
    // The smallest wanted time at or after pts (media cns); false when none.
    bool wantedFrom(int64_t pts, int64_t time, int64_t* wanted) const;
    bool convert(const AVFrame* frame, std::vector<unsigned char>* rgba, std::string* problem);

    const std::string path_;
    const int streamIndex_;
    const int32_t width_;
    const int32_t height_;
    std::unique_ptr<MediaDecoder> decoder_;
    int rotation_ = 0;
    bool useIndex_ = false;    // the container's keyframe index covers the stream

    // The plan: ascending media times; planPos_ is the first one after the
    // time being decoded.
    std::vector<int64_t> plan_;
    size_t planPos_ = 0;
    bool planned_ = false;

    // The stream's clock, the packets read since the last seek, and the last
    // frame at or before the previous time asked for with the one after it.
    av::DecodeCursor cursor_;
    bool draining_ = false;         // the end was sent to the decoder
    bool mustSeek_ = false;         // drained early, or decoding again: seek before going on
    bool skipping_ = true;          // discarding is allowed in this session
    bool skipNow_ = false;          // discarding is allowed for the packets being sent

    VideoSessionCounts counts_;

    av::RgbaConverter converter_;
    int64_t convertedPts_ = 0;  // the frame the cached picture shows
    bool haveConverted_ = false;
    std::vector<unsigned char> converted_;
};

}  // namespace ZOR::btm
