// Reading one stream of a media file with libavformat and libavcodec.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace ZOR::btm {

// The text of an AVERROR code.
std::string avErrorText(int code);

struct FrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
inline FramePtr newFrame() { return FramePtr(av_frame_alloc()); }

class MediaDecoder {
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

    // Packet by packet, for callers that choose what to decode (do not mix
    // with next() between two seeks).
    // The next packet of the stream into packet: 0; AVERROR_EOF at the end
    // (a read error also ends it: see readError()).
    int readPacket(AVPacket* packet);
    // Sends a packet to the decoder (nullptr: no more packets, drain it)
    // with skip_frame set to discard (AVDISCARD_NONREF: a frame no other
    // frame refers to is not decoded). Decoding errors are counted, not
    // returned: 0, or AVERROR(EAGAIN) when frames must be received first.
    int sendPacket(const AVPacket* packet, AVDiscard discard);
    // The next decoded frame: 0; AVERROR(EAGAIN) when a packet is needed;
    // AVERROR_EOF when drained.
    int receiveFrame(AVFrame* frame);

    AVFormatContext* format() const { return format_; }
    AVStream* stream() const { return stream_; }
    AVCodecContext* codec() const { return codec_; }
    // The first read error that was not the end of the file (0 when none).
    int readError() const { return readError_; }
    // The last error a packet gave the decoder, and how many did.
    int decodeError() const { return decodeError_; }
    int decodeErrorCount() const { return decodeErrors_; }
    const std::string& path() const { return path_; }

private:
    std::string path_;
    AVFormatContext* format_ = nullptr;
    AVCodecContext* codec_ = nullptr;
    AVStream* stream_ = nullptr;
    AVPacket* packet_ = nullptr;
    bool draining_ = false;
    int readError_ = 0;
    int decodeError_ = 0;
    int decodeErrors_ = 0;
};

}  // namespace ZOR::btm
