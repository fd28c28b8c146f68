// Decoding the picture a player shows at a media time, fitted into a box.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "BtmMediaDecoder.h"

struct SwsContext;

namespace ZOR::btm {

struct Picture {
    int64_t shown = 0;                 // presentation time of the frame, media cns
    std::vector<unsigned char> rgba;   // width x height x 4, R G B A, rows without padding
};

// One open video stream. The picture for media time t is the last frame whose
// presentation time is at or before t (the first frame when t is earlier),
// decoded exactly: the decoder seeks to the keyframe before t and decodes on
// from there. Requests in ascending order of time decode forward without
// seeking again. Media time 0 is the stream's start time.
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
    // 0 with *picture set; MediaDecoder::kStopped; or another negative code
    // with *problem set ("'<path>': <cause>").
    int pictureAt(int64_t time, const std::function<bool()>& stop, Picture* picture, std::string* problem);

    // The rotation of the display matrix, degrees counter-clockwise.
    int rotation() const { return rotation_; }

private:
    bool reopen(std::string* problem);
    // Positions the decoder so that the next frame is at or before time
    // (or is the stream's first frame).
    int seekBefore(int64_t time, const std::function<bool()>& stop, std::string* problem);
    // The next frame into lookahead_; false at the end.
    int readAhead(const std::function<bool()>& stop);
    int64_t frameTime(int64_t pts) const;  // media cns
    // cmp(frame pts, media time t): <0, 0, >0.
    int compare(int64_t pts, int64_t time) const;
    bool convert(const AVFrame* frame, std::vector<unsigned char>* rgba, std::string* problem);

    const std::string path_;
    const int streamIndex_;
    const int32_t width_;
    const int32_t height_;
    std::unique_ptr<MediaDecoder> decoder_;
    int64_t origin_ = 0;       // stream time base
    AVRational timeBase_{1, 1};
    int rotation_ = 0;

    FramePtr current_;          // the last frame at or before the previous time asked for
    int64_t currentPts_ = 0;
    bool haveCurrent_ = false;
    FramePtr lookahead_;        // the frame after current_, already decoded
    int64_t lookaheadPts_ = 0;
    bool haveLookahead_ = false;
    bool ended_ = false;
    int64_t lastPts_ = 0;       // for frames without a timestamp

    SwsContext* sws_ = nullptr;
    std::vector<unsigned char> scaled_;
    int64_t convertedPts_ = 0;  // the frame the cached picture shows
    bool haveConverted_ = false;
    std::vector<unsigned char> converted_;
};

}  // namespace ZOR::btm
