// Reading and decoding one stream of a media file with libavformat and
// libavcodec: what the platform libraries that decode media have in common.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <cstdint>
#include <memory>
#include <string>

namespace ZOR::av {

// The text of an AVERROR code.
std::string avErrorText(int code);

// Opens a media file and reads what its streams are. With regularOnly,
// anything but a regular file (a pipe, a device, a folder) is refused at once:
// reading it could block for ever. False with *cause set (and *format null).
// Media held in memory for path (ZOR::setMemoryMedia) is read from there.
bool openMediaFile(const std::string& path, AVFormatContext** format, std::string* cause, bool regularOnly = true);
// Closes what openMediaFile() opened (null is ignored) and nulls *format.
void closeMediaFile(AVFormatContext** format);

struct FrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
inline FramePtr newFrame() { return FramePtr(av_frame_alloc()); }

struct PacketFree {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;

// Whether the stream is a picture attached to the file (such as cover art)
// rather than a video.
bool isAttachedPicture(const AVStream* stream);
// A video stream that is not an attached picture.
bool isVideoStream(const AVStream* stream);
// The best video stream of the file (attached pictures do not count); -1
// when there is none.
int bestVideoStream(AVFormatContext* format);

// One stream of one file and its decoder. The owner opens it with
// openInput() and openDecoder(); until then format() and stream() are null.
class StreamDecoder {
public:
    StreamDecoder() = default;
    ~StreamDecoder();
    StreamDecoder(const StreamDecoder&) = delete;
    StreamDecoder& operator=(const StreamDecoder&) = delete;

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
    // Sends the end of the stream, to drain the decoder: false when frames
    // must be received first.
    bool sendEnd();
    // The next decoded frame: 0; AVERROR(EAGAIN) when a packet is needed (or
    // the frame could not be made); AVERROR_EOF when drained.
    int receiveFrame(AVFrame* frame);

    AVFormatContext* format() const { return format_; }
    AVStream* stream() const { return stream_; }
    AVCodecContext* codec() const { return codec_; }
    // The first read error that was not the end of the file (0 when none).
    int readError() const { return readError_; }
    // The last error a packet gave the decoder, and how many did.
    int decodeError() const { return decodeError_; }
    int decodeErrorCount() const { return decodeErrors_; }
    // Why no frame came out: the read error, else the decoder's last error,
    // else AVERROR_INVALIDDATA.
    int failureCause() const;

protected:
    // Opens the file and reads what its streams are. False with *cause set.
    // regularOnly: see openMediaFile().
    bool openInput(const std::string& path, std::string* cause, bool regularOnly = true);
    // Opens the decoder of the stream with this container index, decoding on
    // one thread, and drops the packets of the other streams. False with
    // *cause set.
    bool openDecoder(int index, std::string* cause);
    // A read error: the first one that is not the end of the file is kept.
    void noteReadError(int code);
    // An error the decoder gave for a packet or a frame.
    void noteDecodeError(int code);

    AVFormatContext* format_ = nullptr;
    AVCodecContext* codec_ = nullptr;
    AVStream* stream_ = nullptr;

private:
    int readError_ = 0;
    int decodeError_ = 0;
    int decodeErrors_ = 0;
};

}  // namespace ZOR::av
