#include "ThumbMediaReader.h"

extern "C" {
#include <libavutil/error.h>
}

#include <sys/stat.h>

namespace ZOR::thumb {

namespace {

bool isAttachedPicture(const AVStream* stream) { return (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0; }

bool isVideo(const AVStream* stream) {
    return stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !isAttachedPicture(stream);
}

int bestVideoStream(AVFormatContext* format) {
    const int best = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (best >= 0 && !isAttachedPicture(format->streams[best])) return best;
    for (unsigned i = 0; i < format->nb_streams; ++i)
        if (isVideo(format->streams[i])) return static_cast<int>(i);
    return -1;
}

}  // namespace

std::string avErrorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    if (av_strerror(code, text, sizeof text) < 0) return "error " + std::to_string(code);
    return text;
}

MediaReader::~MediaReader() {
    avcodec_free_context(&codec_);
    avformat_close_input(&format_);
}

bool MediaReader::open(const std::string& path, int streamId, std::string* problem) {
    auto fail = [&](const std::string& cause) {
        if (problem != nullptr) *problem = cause;
        return false;
    };
    // A pipe or a device would block the open or the reads; only regular
    // files (and what the file system does not know, such as URLs) are read.
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) return fail("not a regular file");
    int result = avformat_open_input(&format_, path.c_str(), nullptr, nullptr);
    if (result < 0) return fail(avErrorText(result));
    result = avformat_find_stream_info(format_, nullptr);
    if (result < 0) return fail(avErrorText(result));

    int index = streamId;
    const bool firstIsVideo = format_->nb_streams > 0 && isVideo(format_->streams[0]);
    if (streamId < 0 || (streamId == 0 && !firstIsVideo)) {
        index = bestVideoStream(format_);
        if (index < 0) return fail("no video stream");
    } else if (static_cast<unsigned>(streamId) >= format_->nb_streams) {
        return fail("no stream " + std::to_string(streamId));
    } else if (!isVideo(format_->streams[streamId])) {
        return fail("stream " + std::to_string(streamId) + " is not a video stream");
    }
    stream_ = format_->streams[index];
    if (stream_->codecpar->width <= 0 || stream_->codecpar->height <= 0)
        return fail("the video stream has no picture size");
    const AVCodec* decoder = avcodec_find_decoder(stream_->codecpar->codec_id);
    if (decoder == nullptr) return fail(std::string("no decoder for ") + avcodec_get_name(stream_->codecpar->codec_id));
    codec_ = avcodec_alloc_context3(decoder);
    if (codec_ == nullptr) return fail(avErrorText(AVERROR(ENOMEM)));
    result = avcodec_parameters_to_context(codec_, stream_->codecpar);
    if (result < 0) return fail(avErrorText(result));
    codec_->pkt_timebase = stream_->time_base;
    // One decoding thread: the choice of frames to skip is made packet by
    // packet and must apply to the packet being sent, and the caller's
    // worker already keeps a core busy.
    codec_->thread_count = 1;
    result = avcodec_open2(codec_, decoder, nullptr);
    if (result < 0) return fail(avErrorText(result));
    // Only this stream's packets matter.
    for (unsigned i = 0; i < format_->nb_streams; ++i)
        if (static_cast<int>(i) != index) format_->streams[i]->discard = AVDISCARD_ALL;
    return true;
}

int MediaReader::seek(int64_t ts) {
    const int result = av_seek_frame(format_, stream_->index, ts, AVSEEK_FLAG_BACKWARD);
    avcodec_flush_buffers(codec_);
    return result;
}

int MediaReader::readPacket(AVPacket* packet) {
    for (;;) {
        const int result = av_read_frame(format_, packet);
        if (result < 0) {
            if (result != AVERROR_EOF && readError_ == 0) readError_ = result;
            return AVERROR_EOF;
        }
        if (packet->stream_index == stream_->index) return 0;
        av_packet_unref(packet);
    }
}

int MediaReader::sendPacket(const AVPacket* packet, AVDiscard discard) {
    codec_->skip_frame = discard;
    const int result = avcodec_send_packet(codec_, packet);
    if (result == AVERROR(EAGAIN)) return result;
    if (result < 0 && result != AVERROR_EOF) decodeError_ = result;
    return 0;
}

int MediaReader::receiveFrame(AVFrame* frame) {
    const int result = avcodec_receive_frame(codec_, frame);
    if (result == 0 || result == AVERROR(EAGAIN) || result == AVERROR_EOF) return result;
    // A frame the decoder could not make: ask for the next packet.
    decodeError_ = result;
    return AVERROR(EAGAIN);
}

}  // namespace ZOR::thumb
