// Reading one stream of a media file with libavformat and libavcodec.
#pragma once

#include <functional>
#include <string>

#include "AvShared/AvDecoder.h"

namespace ZOR::btm {

using av::avErrorText;
using av::FramePtr;
using av::newFrame;
using av::PacketPtr;

// Besides next(), the packet by packet reading of av::StreamDecoder, for
// callers that choose what to decode (do not mix with next() between two
// seeks): readPacket(), sendPacket() (decoding errors are counted, not
// returned) and receiveFrame().
class MediaDecoder : public av::StreamDecoder {
public:
    // next() stopped because stop() said so.
    static constexpr int kStopped = -0x53544F50;

    MediaDecoder() = default;
    ~MediaDecoder();
    MediaDecoder(const MediaDecoder&) = delete;
    MediaDecoder& operator=(const MediaDecoder&) = delete;

    // Opens the file and the decoder of the stream (container index). On
    // failure returns false and sets *problem to "'<path>': <cause>".
    bool open(const std::string& path, int streamIndex, std::string* problem);

    // The next decoded frame of the stream into frame: 0; AVERROR_EOF at the
    // end of the stream (a read error also ends it: see readError());
    // kStopped when stop() returned true (checked before each packet).
    int next(AVFrame* frame, const std::function<bool()>& stop);

    // Seeks to the last keyframe at or before ts (stream time base) and
    // flushes the decoder. Returns the av_seek_frame result.
    int seek(int64_t ts);

    const std::string& path() const { return path_; }

private:
    std::string path_;
    AVPacket* packet_ = nullptr;
    bool draining_ = false;
};

}  // namespace ZOR::btm
