#include "BtmMediaDecoder.h"

namespace ZOR::btm {

MediaDecoder::~MediaDecoder() { av_packet_free(&packet_); }

bool MediaDecoder::open(const std::string& path, int streamIndex, std::string* problem) {
    path_ = path;
    auto fail = [&](const std::string& cause) {
        if (problem != nullptr) *problem = "'" + path + "': " + cause;
        return false;
    };
    std::string cause;
    // A request's file may be a pipe that another process feeds (the clip was
    // probed from a regular file): the task reads it as it comes, and a
    // cancel is seen once data flows again.
    if (!openInput(path, &cause, false)) return fail(cause);
    if (streamIndex < 0 || static_cast<unsigned>(streamIndex) >= format_->nb_streams)
        return fail("no stream " + std::to_string(streamIndex));
    if (!openDecoder(streamIndex, &cause)) return fail(cause);
    packet_ = av_packet_alloc();
    if (packet_ == nullptr) return fail(avErrorText(AVERROR(ENOMEM)));
    return true;
}

int MediaDecoder::next(AVFrame* frame, const std::function<bool()>& stop) {
    for (;;) {
        int result = avcodec_receive_frame(codec_, frame);
        if (result == 0) return 0;
        if (result == AVERROR_EOF) return AVERROR_EOF;
        // A frame the decoder could not make: go on with the next packet.
        if (result != AVERROR(EAGAIN)) noteDecodeError(result);
        if (draining_) return AVERROR_EOF;
        if (stop && stop()) return kStopped;
        result = av_read_frame(format_, packet_);
        if (result < 0) {
            noteReadError(result);
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
        if (result < 0 && result != AVERROR(EAGAIN)) noteDecodeError(result);
    }
}

int MediaDecoder::seek(int64_t ts) {
    const int result = StreamDecoder::seek(ts);
    draining_ = false;
    return result;
}

}  // namespace ZOR::btm
