// Decoding the picture a player shows at a media time, fitted into a box, for
// the video frame extraction task.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "AvShared/AvFrameDecoder.h"
#include "AvShared/AvPicture.h"

namespace ZOR::btm {

struct Picture {
    int64_t shown = 0;                // media time of the frame shown, cns
    std::vector<unsigned char> rgba;  // width x height x 4, R G B A, rows without padding
};

using VideoRun = av::FrameRun;
using VideoSessionCounts = av::DecodeCounts;

// One open video stream (see av::FrameDecoder for which frame a time shows
// and what is decoded). The picture keeps the display aspect ratio, is
// scaled to fit the box and centred, the rest of the box transparent.
class VideoSession {
public:
    // pictureAt() stopped because stop() said so.
    static constexpr int kStopped = av::FrameDecoder::kStopped;

    VideoSession(std::string path, int streamIndex, int32_t width, int32_t height);
    VideoSession(const VideoSession&) = delete;
    VideoSession& operator=(const VideoSession&) = delete;

    // Opens the file when it is not open yet. False with *problem set
    // ("'<path>': <cause>").
    bool open(std::string* problem);
    // The times (media cns) the next calls of pictureAt() will ask for.
    void plan(std::vector<int64_t> times) { decoder_.plan(std::move(times)); }
    // 0 with *picture set; kStopped; or another negative code with *problem
    // set ("'<path>': <cause>").
    int pictureAt(int64_t time, const std::function<bool()>& stop, Picture* picture, std::string* problem);
    // See av::FrameDecoder::runs().
    std::vector<VideoRun> runs(const std::vector<int64_t>& times) { return decoder_.runs(times); }

    int rotation() const { return decoder_.rotation(); }
    const VideoSessionCounts& counts() const { return decoder_.counts(); }

private:
    std::string failure(const std::string& cause) const { return "'" + path_ + "': " + cause; }

    const std::string path_;
    const int32_t width_;
    const int32_t height_;
    av::FrameDecoder decoder_;
    av::RgbaConverter converter_;
    int64_t convertedPts_ = 0;  // the frame the cached picture shows
    bool haveConverted_ = false;
    std::vector<unsigned char> converted_;
};

}  // namespace ZOR::btm
