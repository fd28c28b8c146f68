#include "BtmVideoPicture.h"

extern "C" {
#include <libavutil/display.h>
#include <libavutil/mathematics.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "ZorUtils/ZorUtils.h"

namespace ZOR::btm {

namespace {

constexpr AVRational kCns{1, 10'000'000};
// Decoding forward is cheaper than seeking within this distance.
constexpr int64_t kForwardCns = 20'000'000;
constexpr int64_t kSecondCns = 10'000'000;

int displayRotation(const AVStream* stream) {
    size_t size = 0;
    const uint8_t* matrix = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    if (matrix == nullptr || size < 9 * sizeof(int32_t)) return 0;
    const double angle = av_display_rotation_get(reinterpret_cast<const int32_t*>(matrix));
    if (std::isnan(angle)) return 0;
    long quarter = std::lround(angle / 90.0) % 4;
    if (quarter < 0) quarter += 4;
    return static_cast<int>(quarter * 90);
}

int swsColorspace(AVColorSpace space, int height) {
    switch (space) {
        case AVCOL_SPC_BT709: return SWS_CS_ITU709;
        case AVCOL_SPC_FCC: return SWS_CS_FCC;
        case AVCOL_SPC_SMPTE240M: return SWS_CS_SMPTE240M;
        case AVCOL_SPC_BT2020_NCL:
        case AVCOL_SPC_BT2020_CL: return SWS_CS_BT2020;
        case AVCOL_SPC_BT470BG:
        case AVCOL_SPC_SMPTE170M: return SWS_CS_ITU601;
        default: return height >= 720 ? SWS_CS_ITU709 : SWS_CS_ITU601;  // what players assume
    }
}

bool fullRange(const AVFrame* frame) {
    if (frame->color_range == AVCOL_RANGE_JPEG) return true;
    switch (static_cast<AVPixelFormat>(frame->format)) {
        case AV_PIX_FMT_YUVJ420P:
        case AV_PIX_FMT_YUVJ422P:
        case AV_PIX_FMT_YUVJ444P:
        case AV_PIX_FMT_YUVJ440P:
        case AV_PIX_FMT_YUVJ411P: return true;
        default: return false;
    }
}

}  // namespace

VideoSession::VideoSession(std::string path, int streamIndex, int32_t width, int32_t height)
    : path_(std::move(path)), streamIndex_(streamIndex), width_(width), height_(height) {}

VideoSession::~VideoSession() { sws_freeContext(sws_); }

bool VideoSession::reopen(std::string* problem) {
    decoder_ = std::make_unique<MediaDecoder>();
    if (!decoder_->open(path_, streamIndex_, problem)) {
        decoder_.reset();
        return false;
    }
    AVStream* stream = decoder_->stream();
    if (stream->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) {
        if (problem != nullptr) *problem = "'" + path_ + "': stream " + std::to_string(streamIndex_) + " is not video";
        decoder_.reset();
        return false;
    }
    timeBase_ = stream->time_base;
    origin_ = stream->start_time != AV_NOPTS_VALUE ? stream->start_time : 0;
    rotation_ = displayRotation(stream);
    haveCurrent_ = haveLookahead_ = ended_ = false;
    if (!current_) current_ = newFrame();
    if (!lookahead_) lookahead_ = newFrame();
    if (!current_ || !lookahead_) {
        if (problem != nullptr) *problem = "'" + path_ + "': " + avErrorText(AVERROR(ENOMEM));
        return false;
    }
    return true;
}

bool VideoSession::open(std::string* problem) { return decoder_ ? true : reopen(problem); }

int64_t VideoSession::frameTime(int64_t pts) const { return av_rescale_q(pts - origin_, timeBase_, kCns); }

int VideoSession::compare(int64_t pts, int64_t time) const {
    return av_compare_ts(pts - origin_, timeBase_, time, kCns);
}

int VideoSession::readAhead(const std::function<bool()>& stop) {
    av_frame_unref(lookahead_.get());
    const int result = decoder_->next(lookahead_.get(), stop);
    if (result == 0) {
        int64_t pts = lookahead_->best_effort_timestamp;
        if (pts == AV_NOPTS_VALUE) pts = lastPts_ + 1;  // keeps frames without one in decoding order
        lookaheadPts_ = pts;
        lastPts_ = pts;
        haveLookahead_ = true;
    } else {
        haveLookahead_ = false;
        if (result == AVERROR_EOF) ended_ = true;
    }
    return result;
}

int VideoSession::seekBefore(int64_t time, const std::function<bool()>& stop, std::string* problem) {
    haveCurrent_ = haveLookahead_ = ended_ = false;
    // Seek a little earlier each time the decoder lands after the time; in
    // the end start over from the beginning of the file.
    int64_t back = 0;
    for (;;) {
        bool fromStart = false;
        const int64_t target = time - back;
        if (back > 64 * kSecondCns || target < 0) {
            if (!reopen(problem)) return AVERROR(EIO);
            fromStart = true;
        } else if (decoder_->seek(origin_ + av_rescale_q(target, kCns, timeBase_)) < 0) {
            if (!reopen(problem)) return AVERROR(EIO);
            fromStart = true;
        }
        const int result = readAhead(stop);
        if (result == MediaDecoder::kStopped) return result;
        if (result < 0) {
            if (fromStart) {
                const int cause = decoder_->readError() != 0   ? decoder_->readError()
                                  : decoder_->decodeError() != 0 ? decoder_->decodeError()
                                                                 : AVERROR_INVALIDDATA;
                if (problem != nullptr) *problem = "'" + path_ + "': no picture could be decoded: " + avErrorText(cause);
                return cause;
            }
            back = back == 0 ? kSecondCns : back * 4;
            continue;
        }
        if (fromStart || compare(lookaheadPts_, time) <= 0) return 0;
        back = back == 0 ? kSecondCns : back * 4;
    }
}

int VideoSession::pictureAt(int64_t time, const std::function<bool()>& stop, Picture* picture,
                            std::string* problem) {
    if (!open(problem)) return AVERROR(EIO);
    // Forward from where the decoder is, when the time is ahead and near.
    const bool forward = (haveCurrent_ || haveLookahead_) &&
                         (haveCurrent_ ? compare(currentPts_, time) <= 0 : compare(lookaheadPts_, time) <= 0) &&
                         (time - frameTime(haveCurrent_ ? currentPts_ : lookaheadPts_)) <= kForwardCns;
    if (!forward) {
        const int result = seekBefore(time, stop, problem);
        if (result != 0) return result;
    }
    for (;;) {
        if (!haveLookahead_) {
            if (ended_) break;
            const int result = readAhead(stop);
            if (result == MediaDecoder::kStopped) return result;
            if (result < 0) break;  // the end, or a read error: the last frame stays
        }
        if (compare(lookaheadPts_, time) > 0) break;
        std::swap(current_, lookahead_);
        currentPts_ = lookaheadPts_;
        haveCurrent_ = true;
        haveLookahead_ = false;
    }
    const AVFrame* shown = haveCurrent_ ? current_.get() : haveLookahead_ ? lookahead_.get() : nullptr;
    if (shown == nullptr) {
        if (problem != nullptr) *problem = "'" + path_ + "': no picture could be decoded";
        return AVERROR_INVALIDDATA;
    }
    const int64_t shownPts = haveCurrent_ ? currentPts_ : lookaheadPts_;
    if (!haveConverted_ || convertedPts_ != shownPts) {
        if (!convert(shown, &converted_, problem)) return AVERROR(EINVAL);
        convertedPts_ = shownPts;
        haveConverted_ = true;
    }
    picture->shown = frameTime(shownPts);
    picture->rgba = converted_;
    return 0;
}

bool VideoSession::convert(const AVFrame* frame, std::vector<unsigned char>* rgba, std::string* problem) {
    auto fail = [&](const char* cause) {
        if (problem != nullptr) *problem = "'" + path_ + "': " + cause;
        return false;
    };
    if (frame->width <= 0 || frame->height <= 0) return fail("a picture without size");
    AVRational sar = frame->sample_aspect_ratio;
    if (sar.num <= 0 || sar.den <= 0)
        sar = av_guess_sample_aspect_ratio(decoder_->format(), decoder_->stream(), const_cast<AVFrame*>(frame));
    if (sar.num <= 0 || sar.den <= 0) sar = AVRational{1, 1};
    // The display shape, reduced to fit adjust()'s ints.
    int shapeWidth = 0;
    int shapeHeight = 0;
    av_reduce(&shapeWidth, &shapeHeight, int64_t{frame->width} * sar.num, int64_t{frame->height} * sar.den, 1 << 20);
    const bool quarter = rotation_ == 90 || rotation_ == 270;
    if (quarter) std::swap(shapeWidth, shapeHeight);
    int outWidth = 0;
    int outHeight = 0;
    if (!adjust(shapeWidth, shapeHeight, width_, height_, &outWidth, &outHeight)) return fail("a picture without size");
    const int scaledWidth = quarter ? outHeight : outWidth;
    const int scaledHeight = quarter ? outWidth : outHeight;

    const auto format = static_cast<AVPixelFormat>(frame->format);
    sws_ = sws_getCachedContext(sws_, frame->width, frame->height, format, scaledWidth, scaledHeight,
                                AV_PIX_FMT_RGBA, SWS_BICUBIC | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INT, nullptr,
                                nullptr, nullptr);
    if (sws_ == nullptr) return fail("cannot convert the picture to RGBA");
    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
    if (descriptor != nullptr && (descriptor->flags & AV_PIX_FMT_FLAG_RGB) == 0) {
        const int* coefficients = sws_getCoefficients(swsColorspace(frame->colorspace, frame->height));
        sws_setColorspaceDetails(sws_, coefficients, fullRange(frame) ? 1 : 0, sws_getCoefficients(SWS_CS_DEFAULT),
                                 1, 0, 1 << 16, 1 << 16);
    }
    scaled_.assign(static_cast<size_t>(scaledWidth) * scaledHeight * 4, 0);
    uint8_t* planes[4] = {scaled_.data(), nullptr, nullptr, nullptr};
    int strides[4] = {scaledWidth * 4, 0, 0, 0};
    if (sws_scale(sws_, frame->data, frame->linesize, 0, frame->height, planes, strides) <= 0)
        return fail("cannot convert the picture to RGBA");

    // Turn upright and centre in the transparent box.
    rgba->assign(static_cast<size_t>(width_) * height_ * 4, 0);
    const int left = (width_ - outWidth) / 2;
    const int top = (height_ - outHeight) / 2;
    for (int y = 0; y < scaledHeight; ++y) {
        const unsigned char* row = scaled_.data() + static_cast<size_t>(y) * scaledWidth * 4;
        for (int x = 0; x < scaledWidth; ++x) {
            int dx = x;
            int dy = y;
            switch (rotation_) {
                case 90:  // counter-clockwise: the top edge goes to the left
                    dx = y;
                    dy = scaledWidth - 1 - x;
                    break;
                case 180:
                    dx = scaledWidth - 1 - x;
                    dy = scaledHeight - 1 - y;
                    break;
                case 270:  // clockwise: the top edge goes to the right
                    dx = scaledHeight - 1 - y;
                    dy = x;
                    break;
                default: break;
            }
            std::memcpy(rgba->data() + (static_cast<size_t>(top + dy) * width_ + (left + dx)) * 4, row + x * 4, 4);
        }
    }
    return true;
}

}  // namespace ZOR::btm
