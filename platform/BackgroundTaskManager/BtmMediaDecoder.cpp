#include "BtmMediaDecoder.h"

extern "C" {
#include <libavutil/error.h>
}

namespace ZOR::btm {

std::string avErrorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    if (av_strerror(code, text, sizeof text) < 0) return "error " + std::to_string(code);
    return text;
}

MediaDecoder::~MediaDecoder() {
    av_packet_free(&packet_);
    avcodec_free_context(&codec_);
    avformat_close_input(&format_);
}

bool MediaDecoder::open(const std::string& path, int streamIndex, std::string* problem) {
    path_ = path;
    auto fail = [&](const std::string& cause) {
        if (problem != nullptr) *problem = "'" + path + "': " + cause;
        return false;
    };
    int result = avformat_open_input(&format_, path.c_str(), nullptr, nullptr);
    if (result < 0) return fail(avErrorText(result));
    result = avformat_find_stream_info(format_, nullptr);
    if (result < 0) return fail(avErrorText(result));
    if (streamIndex < 0 || static_cast<unsigned>(streamIndex) >= format_->nb_streams)
        return fail("no stream " + std::to_string(streamIndex));
    stream_ = format_->streams[streamIndex];
    const AVCodec* decoder = avcodec_find_decoder(stream_->codecpar->codec_id);
    if (decoder == nullptr)
        return fail(std::string("no decoder for ") + avcodec_get_name(stream_->codecpar->codec_id));
    codec_ = avcodec_alloc_context3(decoder);
    packet_ = av_packet_alloc();
    if (codec_ == nullptr || packet_ == nullptr) return fail(avErrorText(AVERROR(ENOMEM)));
    result = avcodec_parameters_to_context(codec_, stream_->codecpar);
    if (result < 0) return fail(avErrorText(result));
    codec_->pkt_timebase = stream_->time_base;
    // The pool already runs one job per core; each decoder keeps to its thread.
    codec_->thread_count = 1;
    result = avcodec_open2(codec_, decoder, nullptr);
    if (result < 0) return fail(avErrorText(result));
    // Only this stream's packets matter.
    for (unsigned i = 0; i < format_->nb_streams; ++i)
        if (static_cast<int>(i) != streamIndex) format_->streams[i]->discard = AVDISCARD_ALL;
    return true;
}

int MediaDecoder::next(AVFrame* frame, const std::function<bool()>& stop) {
    for (;;) {
        int result = avcodec_receive_frame(codec_, frame);
        if (result == 0) return 0;
        if (result == AVERROR_EOF) return AVERROR_EOF;
        if (result != AVERROR(EAGAIN)) {
            // A frame the decoder could not make: go on with the next packet.
            decodeError_ = result;
            ++decodeErrors_;
        }
        if (draining_) return AVERROR_EOF;
        if (stop && stop()) return kStopped;
        result = av_read_frame(format_, packet_);
        if (result < 0) {
            if (result != AVERROR_EOF && readError_ == 0) readError_ = result;
            draining_ = true;
            avcodec_send_packet(codec_, nullptr);
            continue;
        }
        if (packet_->stream_index != stream_->index) {
            av_packet_unref(packet_);
            continue;
        }
        result = avcodec_send_packet(codec_, packet_);
        av_packet_unref(packet_);
        if (result < 0 && result != AVERROR(EAGAIN)) {
            decodeError_ = result;
            ++decodeErrors_;
        }
    }
}

int MediaDecoder::seek(int64_t ts) {
    const int result = av_seek_frame(format_, stream_->index, ts, AVSEEK_FLAG_BACKWARD);
    avcodec_flush_buffers(codec_);
    draining_ = false;
    return result;
}

int MediaDecoder::readPacket(AVPacket* packet) {
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

int MediaDecoder::sendPacket(const AVPacket* packet, AVDiscard discard) {
    codec_->skip_frame = discard;
    const int result = avcodec_send_packet(codec_, packet);
    if (result == AVERROR(EAGAIN)) return result;
    if (result < 0 && result != AVERROR_EOF) {
        decodeError_ = result;
        ++decodeErrors_;
    }
    return 0;
}

int MediaDecoder::receiveFrame(AVFrame* frame) {
    const int result = avcodec_receive_frame(codec_, frame);
    if (result == 0 || result == AVERROR(EAGAIN) || result == AVERROR_EOF) return result;
    // A frame the decoder could not make: ask for the next packet.
    decodeError_ = result;
    ++decodeErrors_;
    return AVERROR(EAGAIN);
}

}  // namespace ZOR::btm
