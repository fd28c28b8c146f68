// Reading the video stream of a media file with libavformat and libavcodec,
// packet by packet, for the thumb adapter.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <cstdint>
#include <memory>
#include <string>

namespace ZOR::thumb {

// The text of an AVERROR code.
std::string avErrorText(int code);

struct FrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
inline FramePtr newFrame() { return FramePtr(av_frame_alloc()); }

struct PacketFree {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;

class MediaReader {
public:
    MediaReader() = default;
    ~MediaReader();
    MediaReader(const MediaReader&) = delete;
    MediaReader& operator=(const MediaReader&) = delete;

    // Opens the file and the decoder of its video stream. streamId is the
    // container's stream index; -1, or 0 when the file's stream 0 is not
    // video, takes the best video stream (attached pictures such as cover
    // art do not count). On failure returns false and sets *problem to the
    // cause (without the path).
    bool open(const std::string& path, int streamId, std::string* problem);

    // Seeks to the last keyframe at or before ts (stream time base) and
    // flushes the decoder. Returns the av_seek_frame result.
    int seek(int64_t ts);
    // The next packet of the stream into packet: 0; AVERROR_EOF at the end
    // (a read error also ends it: see readError()).
    int readPacket(AVPacket* packet);
    // Sends a packet to the decoder (nullptr: no more packets, drain it) with
    // skip_frame set to discard (AVDISCARD_NONREF: a frame no other frame
    // refers to is not decoded). Decoding errors are counted, not returned:
    // 0, or AVERROR(EAGAIN) when frames must be received first.
    int sendPacket(const AVPacket* packet, AVDiscard discard);
    // The next decoded frame: 0; AVERROR(EAGAIN) when a packet is needed (or
    // the frame could not be made); AVERROR_EOF when drained.
    int receiveFrame(AVFrame* frame);

    AVFormatContext* format() const { return format_; }
    AVStream* stream() const { return stream_; }
    int streamIndex() const { return stream_ != nullptr ? stream_->index : -1; }
    // The first read error that was not the end of the file (0 when none).
    int readError() const { return readError_; }
    // The last error a packet gave the decoder (0 when none).
    int decodeError() const { return decodeError_; }

private:
    AVFormatContext* format_ = nullptr;
    AVCodecContext* codec_ = nullptr;
    AVStream* stream_ = nullptr;
    int readError_ = 0;
    int decodeError_ = 0;
};

}  // namespace ZOR::thumb
