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

#include "Common/ZorInternalComUtility.h"
#include "ZorUtils/ZorUtils.h"

ZOR_LOG_SOURCE("platform/BackgroundTaskManager/BtmVideoPicture")

namespace ZOR::btm {

namespace {

constexpr AVRational kCns{1, 10'000'000};
// Decoding forward is cheaper than seeking within this distance.
constexpr int64_t kForwardCns = 20'000'000;
constexpr int64_t kSecondCns = 10'000'000;
// Packets read ahead of the decoder at most, to learn which frame a time shows.
constexpr size_t kWindow = 48;
// Errors the decoder may give in a row while it is drained.
constexpr int kDrainErrors = 64;

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
    resetPosition();
    if (!current_) current_ = newFrame();
    if (!lookahead_) lookahead_ = newFrame();
    if (!current_ || !lookahead_) {
        if (problem != nullptr) *problem = "'" + path_ + "': " + avErrorText(AVERROR(ENOMEM));
        return false;
    }
    // The index tells where the keyframes are when it reaches the end of the
    // stream (within the largest gap between two of its keyframes); an index
    // that grows as the file is read does not.
    useIndex_ = false;
    const int entries = avformat_index_get_entries_count(stream);
    int64_t end = AV_NOPTS_VALUE;
    if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0)
        end = origin_ + stream->duration;
    else if (decoder_->format()->duration > 0)
        end = origin_ + av_rescale_q(decoder_->format()->duration, AV_TIME_BASE_Q, timeBase_);
    if (entries > 0 && end != AV_NOPTS_VALUE) {
        int64_t gap = av_rescale_q(2 * kSecondCns, kCns, timeBase_);
        int64_t previousKey = AV_NOPTS_VALUE;
        int64_t last = AV_NOPTS_VALUE;
        for (int i = 0; i < entries; ++i) {
            const AVIndexEntry* entry = avformat_index_get_entry(stream, i);
            if (entry == nullptr) continue;
            last = entry->timestamp;
            if ((entry->flags & AVINDEX_KEYFRAME) == 0) continue;
            if (previousKey != AV_NOPTS_VALUE) gap = std::max(gap, entry->timestamp - previousKey);
            previousKey = entry->timestamp;
        }
        useIndex_ = previousKey != AV_NOPTS_VALUE && last != AV_NOPTS_VALUE && last >= end - gap;
    }
    return true;
}

void VideoSession::resetPosition() {
    haveCurrent_ = haveLookahead_ = ended_ = false;
    window_.clear();
    known_.clear();
    discarded_.clear();
    readEnded_ = draining_ = mustSeek_ = false;
    readPosKnown_ = readDts_ = false;
}

bool VideoSession::open(std::string* problem) { return decoder_ ? true : reopen(problem); }

void VideoSession::plan(std::vector<int64_t> times) {
    std::sort(times.begin(), times.end());
    plan_ = std::move(times);
    planPos_ = 0;
    planned_ = true;
}

std::vector<VideoRun> VideoSession::runs(const std::vector<int64_t>& times) {
    std::vector<VideoRun> found;
    if (times.empty()) return found;
    std::string ignored;
    if (!open(&ignored)) {
        found.push_back(VideoRun{0, times.size(), times.back() - times.front()});
        return found;
    }
    AVStream* stream = decoder_->stream();
    // The keyframe a seek to each time lands on (from the index), in media cns.
    auto keyTime = [&](int64_t time, int64_t* key) {
        const int64_t target = origin_ + av_rescale_q(std::max<int64_t>(time, 0), kCns, timeBase_);
        const int index = av_index_search_timestamp(stream, target, AVSEEK_FLAG_BACKWARD);
        const AVIndexEntry* entry = index >= 0 ? avformat_index_get_entry(stream, index) : nullptr;
        *key = entry != nullptr ? frameTime(entry->timestamp) : 0;
        return entry != nullptr;
    };
    int64_t key = 0;
    const bool indexed = useIndex_ && keyTime(times.front(), &key);
    if (!indexed) key = times.front() - kSecondCns;  // a keyframe somewhere before
    found.push_back(VideoRun{0, 1, 0, std::max<int64_t>(0, times.front() - key)});
    for (size_t i = 1; i < times.size(); ++i) {
        int64_t next = key;
        bool split = false;
        if (indexed) {
            keyTime(times[i], &next);
            split = next != key;
        } else {
            split = times[i] - times[i - 1] > kForwardCns;
            if (split) next = times[i] - kSecondCns;
        }
        if (split) {
            found.back().cost = std::max<int64_t>(0, times[i - 1] - key);
            key = next;
            found.push_back(VideoRun{i, 0, 0, std::max<int64_t>(0, times[i] - key)});
        }
        ++found.back().count;
    }
    found.back().cost = std::max<int64_t>(0, times.back() - key);
    return found;
}

int64_t VideoSession::frameTime(int64_t pts) const { return av_rescale_q(pts - origin_, timeBase_, kCns); }

int VideoSession::compare(int64_t pts, int64_t time) const {
    return av_compare_ts(pts - origin_, timeBase_, time, kCns);
}

int64_t VideoSession::lastPtsAt(int64_t time) const {
    const int64_t offset = av_rescale_q_rnd(time, kCns, timeBase_, AV_ROUND_DOWN);
    if (offset == std::numeric_limits<int64_t>::min()) return time < 0 ? offset : std::numeric_limits<int64_t>::max();
    if (offset > 0 && origin_ > std::numeric_limits<int64_t>::max() - offset) return std::numeric_limits<int64_t>::max();
    if (offset < 0 && origin_ < std::numeric_limits<int64_t>::min() - offset) return std::numeric_limits<int64_t>::min();
    return origin_ + offset;
}

bool VideoSession::readPacket() {
    if (readEnded_) return false;
    PacketPtr packet(av_packet_alloc());
    if (!packet || decoder_->readPacket(packet.get()) < 0) {
        readEnded_ = true;
        return false;
    }
    if (packet->pts == AV_NOPTS_VALUE)
        timesUnsure_ = true;
    else
        known_.insert(packet->pts);
    if (packet->dts != AV_NOPTS_VALUE) {
        if (packet->pts != AV_NOPTS_VALUE && packet->pts < packet->dts) timesUnsure_ = true;
        readPos_ = packet->dts;
        readDts_ = true;
        readPosKnown_ = true;
    } else if (packet->pts != AV_NOPTS_VALUE) {
        readPos_ = packet->pts;
        readDts_ = false;
        readPosKnown_ = true;
    }
    window_.push_back(std::move(packet));
    return true;
}

bool VideoSession::wantedFrom(int64_t pts, int64_t time, int64_t* wanted) const {
    if (compare(pts, time) <= 0) {
        *wanted = time;
        return true;
    }
    const auto found = std::partition_point(plan_.begin() + static_cast<std::ptrdiff_t>(planPos_), plan_.end(),
                                            [&](int64_t w) { return compare(pts, w) > 0; });
    if (found == plan_.end()) return false;
    *wanted = *found;
    return true;
}

bool VideoSession::needed(int64_t pts, int64_t time) {
    if (!skipping_ || !skipNow_ || pts == AV_NOPTS_VALUE) return true;
    int64_t wanted = 0;
    if (!wantedFrom(pts, time, &wanted)) return false;  // after every time wanted
    // The frame is shown at `wanted` unless another one comes between: read
    // on until the next presentation time after pts cannot change any more
    // (every packet still to read is presented at or after its dts).
    for (;;) {
        const auto next = known_.upper_bound(pts);
        const bool settled = next != known_.end() && readDts_ && !timesUnsure_ && readPos_ >= *next;
        if (settled || window_.size() >= kWindow || !readPacket()) break;
    }
    // A packet still unread can only bring the next frame closer, never make
    // a frame shown that this says is not: so the answer errs on decoding.
    const auto next = known_.upper_bound(pts);
    return next == known_.end() || compare(*next, wanted) > 0;
}

bool VideoSession::answerKnown(int64_t time, int64_t* pts) const {
    const int64_t last = lastPtsAt(time);
    const bool complete = readEnded_ || (readPosKnown_ && readDts_ && !timesUnsure_ && readPos_ > last);
    if (!complete) return false;
    auto found = known_.upper_bound(last);
    if (found == known_.begin()) return false;
    *pts = *--found;
    return true;
}

void VideoSession::feed(int64_t time) {
    if (window_.empty()) readPacket();
    if (window_.empty()) {
        draining_ = decoder_->sendPacket(nullptr, AVDISCARD_DEFAULT) != AVERROR(EAGAIN);
        return;
    }
    // After the last planned time, once the frame it shows is in the decoder,
    // drain the decoder rather than decode the frames after it.
    if (planned_ && planPos_ >= plan_.size()) {
        int64_t answer = 0;
        if (answerKnown(time, &answer) && discarded_.count(answer) == 0 &&
            std::none_of(window_.begin(), window_.end(), [answer](const PacketPtr& p) { return p->pts == answer; })) {
            if (decoder_->sendPacket(nullptr, AVDISCARD_DEFAULT) == AVERROR(EAGAIN)) return;
            draining_ = true;
            mustSeek_ = true;
            return;
        }
    }
    AVPacket* packet = window_.front().get();
    const bool full = needed(packet->pts, time);
    if (decoder_->sendPacket(packet, full ? AVDISCARD_DEFAULT : AVDISCARD_NONREF) == AVERROR(EAGAIN)) return;
    ++counts_.packets;
    if (!full) {
        ++counts_.discarded;
        discarded_.insert(packet->pts);
    }
    window_.pop_front();
}

int VideoSession::readAhead(int64_t time, const std::function<bool()>& stop) {
    av_frame_unref(lookahead_.get());
    haveLookahead_ = false;
    int errors = 0;
    for (;;) {
        const int result = decoder_->receiveFrame(lookahead_.get());
        if (result == 0) {
            int64_t pts = lookahead_->best_effort_timestamp;
            if (pts == AV_NOPTS_VALUE) pts = lastPts_ + 1;  // keeps frames without one in decoding order
            lookaheadPts_ = pts;
            lastPts_ = pts;
            haveLookahead_ = true;
            ++counts_.frames;
            return 0;
        }
        if (result == AVERROR_EOF || (draining_ && ++errors > kDrainErrors)) {
            ended_ = true;
            return AVERROR_EOF;
        }
        if (draining_) continue;  // a frame that failed: the next one
        if (stop && stop()) return MediaDecoder::kStopped;
        feed(time);
    }
}

bool VideoSession::canContinue(int64_t time) const {
    if (!decoder_ || mustSeek_ || (!haveCurrent_ && !haveLookahead_)) return false;
    const int64_t at = haveCurrent_ ? currentPts_ : lookaheadPts_;
    if (compare(at, time) > 0) return false;
    // A frame skipped on the way that may be the one shown at time.
    const int64_t last = lastPtsAt(time);
    auto skipped = discarded_.upper_bound(last);
    if (skipped != discarded_.begin()) {
        --skipped;
        const auto next = known_.upper_bound(*skipped);
        if (next == known_.end() || *next > last) return false;
    }
    if (useIndex_) {
        // Seek when the seek would land on a keyframe ahead of the packets read.
        if (!readPosKnown_) return true;
        const int64_t target = origin_ + av_rescale_q(time, kCns, timeBase_);
        const int found = av_index_search_timestamp(decoder_->stream(), target, AVSEEK_FLAG_BACKWARD);
        const AVIndexEntry* entry = found >= 0 ? avformat_index_get_entry(decoder_->stream(), found) : nullptr;
        return entry == nullptr || entry->timestamp <= readPos_;
    }
    return time - frameTime(at) <= kForwardCns;
}

int VideoSession::seekBefore(int64_t time, const std::function<bool()>& stop, std::string* problem) {
    // Seek a little earlier each time the decoder lands after the time; in
    // the end start over from the beginning of the file.
    int64_t back = 0;
    for (;;) {
        bool fromStart = false;
        const int64_t target = time - back;
        ++counts_.seeks;
        if (back > 64 * kSecondCns || target < 0) {
            if (!reopen(problem)) return AVERROR(EIO);
            fromStart = true;
        } else {
            const int sought = decoder_->seek(origin_ + av_rescale_q(target, kCns, timeBase_));
            resetPosition();
            if (sought < 0) {
                if (!reopen(problem)) return AVERROR(EIO);
                fromStart = true;
            }
        }
        // From the start, the first frame may be the one shown: skip nothing
        // until it is out.
        skipNow_ = !fromStart && time >= 0;
        const int result = readAhead(time, stop);
        skipNow_ = time >= 0;
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

int VideoSession::decodeTo(int64_t time, const std::function<bool()>& stop) {
    for (;;) {
        if (!haveLookahead_) {
            if (ended_) break;
            int64_t answer = 0;
            if (haveCurrent_ && answerKnown(time, &answer) && currentPts_ == answer) break;
            const int result = readAhead(time, stop);
            if (result == MediaDecoder::kStopped) return result;
            if (result < 0) break;  // the end, or a read error: the last frame stays
        }
        if (compare(lookaheadPts_, time) > 0) break;
        std::swap(current_, lookahead_);
        currentPts_ = lookaheadPts_;
        haveCurrent_ = true;
        haveLookahead_ = false;
    }
    return 0;
}

int VideoSession::pictureAt(int64_t time, const std::function<bool()>& stop, Picture* picture,
                            std::string* problem) {
    if (!open(problem)) return AVERROR(EIO);
    while (planPos_ < plan_.size() && plan_[planPos_] <= time) ++planPos_;
    skipNow_ = time >= 0;
    const AVFrame* shown = nullptr;
    int64_t shownPts = 0;
    for (;;) {
        if (!canContinue(time)) {
            const int result = seekBefore(time, stop, problem);
            if (result != 0) return result;
        }
        const int result = decodeTo(time, stop);
        if (result != 0) return result;
        shown = haveCurrent_ ? current_.get() : haveLookahead_ ? lookahead_.get() : nullptr;
        shownPts = haveCurrent_ ? currentPts_ : lookaheadPts_;
        // The packets name the frame shown; when another came out while
        // frames were skipped, decode again skipping nothing.
        int64_t answer = 0;
        if (skipping_ && !discarded_.empty() && answerKnown(time, &answer) && (shown == nullptr || shownPts != answer)) {
            ZOR_LOG(5, "ZOR::VideoSession::pictureAt",
                    "'%s': at %lld the packets show pts %lld, the decoder gave %lld; decoding again in full",
                    path_.c_str(), static_cast<long long>(time), static_cast<long long>(answer),
                    static_cast<long long>(shown != nullptr ? shownPts : AV_NOPTS_VALUE));
            skipping_ = false;
            mustSeek_ = true;
            ++counts_.redone;
            continue;
        }
        break;
    }
    if (shown == nullptr) {
        if (problem != nullptr) *problem = "'" + path_ + "': no picture could be decoded";
        return AVERROR_INVALIDDATA;
    }
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
