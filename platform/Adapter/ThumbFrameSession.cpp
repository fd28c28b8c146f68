#include "ThumbFrameSession.h"

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

ZOR_LOG_SOURCE("platform/Adapter/ThumbFrameSession")

namespace ZOR::thumb {

namespace {

constexpr AVRational kCns{1, 10'000'000};
constexpr int64_t kSecondCns = 10'000'000;
// Without a keyframe index, decoding forward is cheaper than seeking within
// this distance.
constexpr int64_t kForwardCns = 2 * kSecondCns;
// Seeking back further than this after landing late starts over from the
// beginning of the file.
constexpr int64_t kLongestBackCns = 64 * kSecondCns;
// Packets read ahead of the decoder at most, to learn which frame a time shows.
constexpr size_t kWindow = 48;
// Errors the decoder may give in a row while it is drained.
constexpr int kDrainErrors = 64;
// Times in a row the decoder may refuse a packet without giving a frame.
constexpr int kStalls = 1024;
// Packets looked through after a seek for the keyframe's.
constexpr int kKeySearch = 4096;

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

int64_t nextBack(int64_t back) { return back == 0 ? kSecondCns : back * 4; }

}  // namespace

FrameSession::FrameSession(std::string path, int streamId, ThumbDecodeCounts* counts)
    : path_(std::move(path)), streamId_(streamId), resolvedStream_(streamId), counts_(counts) {}

FrameSession::~FrameSession() { sws_freeContext(sws_); }

bool FrameSession::open(std::string* problem) { return reader_ ? true : reopen(problem); }

bool FrameSession::reopen(std::string* problem) {
    reader_.reset();
    resetPosition();
    ++counts_->opens;
    auto reader = std::make_unique<MediaReader>();
    std::string cause;
    if (!reader->open(path_, resolvedStream_, &cause)) {
        if (problem != nullptr) *problem = failure(cause);
        return false;
    }
    if (!current_) current_ = newFrame();
    if (!lookahead_) lookahead_ = newFrame();
    if (!keyFrame_) keyFrame_ = newFrame();
    if (!current_ || !lookahead_ || !keyFrame_) {
        if (problem != nullptr) *problem = failure(avErrorText(AVERROR(ENOMEM)));
        return false;
    }
    reader_ = std::move(reader);
    AVStream* stream = reader_->stream();
    AVFormatContext* format = reader_->format();
    resolvedStream_ = stream->index;
    timeBase_ = stream->time_base;
    origin_ = stream->start_time != AV_NOPTS_VALUE ? stream->start_time : 0;
    rotation_ = displayRotation(stream);
    duration_ = 0;
    if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0)
        duration_ = av_rescale_q(stream->duration, timeBase_, kCns);
    else if (format->duration != AV_NOPTS_VALUE && format->duration > 0)
        duration_ = av_rescale_q(format->duration, AV_TIME_BASE_Q, kCns);
    fresh_ = true;

    // The index tells where the keyframes are when it reaches the end of the
    // stream (within the largest gap between two of its keyframes); an index
    // that grows as the file is read does not.
    useIndex_ = false;
    firstEntry_ = AV_NOPTS_VALUE;
    const int entries = avformat_index_get_entries_count(stream);
    int64_t end = AV_NOPTS_VALUE;
    if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0)
        end = origin_ + stream->duration;
    else if (format->duration > 0)
        end = origin_ + av_rescale_q(format->duration, AV_TIME_BASE_Q, timeBase_);
    if (entries > 0 && end != AV_NOPTS_VALUE) {
        int64_t gap = av_rescale_q(2 * kSecondCns, kCns, timeBase_);
        int64_t previousKey = AV_NOPTS_VALUE;
        int64_t last = AV_NOPTS_VALUE;
        for (int i = 0; i < entries; ++i) {
            const AVIndexEntry* entry = avformat_index_get_entry(stream, i);
            if (entry == nullptr) continue;
            last = entry->timestamp;
            if ((entry->flags & AVINDEX_KEYFRAME) == 0) continue;
            if (firstEntry_ == AV_NOPTS_VALUE) firstEntry_ = entry->timestamp;
            if (previousKey != AV_NOPTS_VALUE) gap = std::max(gap, entry->timestamp - previousKey);
            previousKey = entry->timestamp;
        }
        useIndex_ = previousKey != AV_NOPTS_VALUE && last != AV_NOPTS_VALUE && last >= end - gap;
    }
    return true;
}

void FrameSession::resetPosition() {
    haveCurrent_ = haveLookahead_ = ended_ = false;
    window_.clear();
    known_.clear();
    discarded_.clear();
    readEnded_ = draining_ = mustSeek_ = false;
    readPosKnown_ = readDts_ = false;
    haveKeyRead_ = false;
    awaitKey_ = false;
    fresh_ = false;
}

bool FrameSession::frameRate(int64_t* num, int64_t* den) const {
    if (!reader_) return false;
    const AVStream* stream = reader_->stream();
    AVRational rate = stream->avg_frame_rate;
    if (rate.num <= 0 || rate.den <= 0) rate = stream->r_frame_rate;
    if (rate.num <= 0 || rate.den <= 0) return false;
    *num = rate.num;
    *den = rate.den;
    return true;
}

int64_t FrameSession::frameTime(int64_t pts) const { return av_rescale_q(pts - origin_, timeBase_, kCns); }

int64_t FrameSession::toStreamTime(int64_t time) const { return origin_ + av_rescale_q(time, kCns, timeBase_); }

int FrameSession::compare(int64_t pts, int64_t time) const {
    return av_compare_ts(pts - origin_, timeBase_, time, kCns);
}

int64_t FrameSession::lastPtsAt(int64_t time) const {
    const int64_t offset = av_rescale_q_rnd(time, kCns, timeBase_, AV_ROUND_DOWN);
    if (offset == std::numeric_limits<int64_t>::min()) return time < 0 ? offset : std::numeric_limits<int64_t>::max();
    if (offset > 0 && origin_ > std::numeric_limits<int64_t>::max() - offset) return std::numeric_limits<int64_t>::max();
    if (offset < 0 && origin_ < std::numeric_limits<int64_t>::min() - offset) return std::numeric_limits<int64_t>::min();
    return origin_ + offset;
}

// ---------------------------------------------------------------------------
// Packets

bool FrameSession::readPacket() {
    if (readEnded_) return false;
    fresh_ = false;
    PacketPtr packet(av_packet_alloc());
    // After a seek, decoding starts at a keyframe: a seek by timestamps (in a
    // file without an index) may land anywhere, and frames decoded without
    // their references would be shown damaged.
    for (int dropped = 0;; ++dropped) {
        if (!packet || reader_->readPacket(packet.get()) < 0) {
            readEnded_ = true;
            return false;
        }
        if (!awaitKey_ || (packet->flags & AV_PKT_FLAG_KEY) != 0 || dropped >= kKeySearch) break;
        av_packet_unref(packet.get());
    }
    awaitKey_ = false;
    if (packet->pts == AV_NOPTS_VALUE)
        timesUnsure_ = true;
    else
        known_.insert(packet->pts);
    if ((packet->flags & AV_PKT_FLAG_KEY) != 0 && packet->pts != AV_NOPTS_VALUE)
        keyRead_ = haveKeyRead_ ? std::max(keyRead_, packet->pts) : packet->pts;
    haveKeyRead_ = haveKeyRead_ || ((packet->flags & AV_PKT_FLAG_KEY) != 0 && packet->pts != AV_NOPTS_VALUE);
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

bool FrameSession::needed(int64_t pts, int64_t time) {
    if (!skipping_ || !skipNow_ || pts == AV_NOPTS_VALUE) return true;
    // A frame after the time: the next request most often wants a later
    // time, and these are few.
    if (compare(pts, time) > 0) return true;
    // The frame is shown at time unless another one comes between: read on
    // until the next presentation time after pts cannot change any more
    // (every packet still to read is presented at or after its dts).
    for (;;) {
        const auto next = known_.upper_bound(pts);
        const bool settled = next != known_.end() && readDts_ && !timesUnsure_ && readPos_ >= *next;
        if (settled || window_.size() >= kWindow || !readPacket()) break;
    }
    // A packet still unread can only bring the next frame closer, never make
    // a frame shown that this says is not: so the answer errs on decoding.
    const auto next = known_.upper_bound(pts);
    return next == known_.end() || compare(*next, time) > 0;
}

bool FrameSession::answerKnown(int64_t time, int64_t* pts) const {
    const int64_t last = lastPtsAt(time);
    const bool complete = readEnded_ || (readPosKnown_ && readDts_ && !timesUnsure_ && readPos_ > last);
    if (!complete) return false;
    auto found = known_.upper_bound(last);
    if (found == known_.begin()) return false;
    *pts = *--found;
    return true;
}

bool FrameSession::feed(int64_t time) {
    if (window_.empty()) readPacket();
    if (window_.empty()) {
        draining_ = reader_->sendPacket(nullptr, AVDISCARD_DEFAULT) != AVERROR(EAGAIN);
        return draining_;
    }
    AVPacket* packet = window_.front().get();
    const bool full = needed(packet->pts, time);
    if (reader_->sendPacket(packet, full ? AVDISCARD_DEFAULT : AVDISCARD_NONREF) == AVERROR(EAGAIN)) return false;
    ++counts_->packets;
    if (!full) {
        ++counts_->discarded;
        discarded_.insert(packet->pts);
    }
    window_.pop_front();
    return true;
}

int FrameSession::readAhead(int64_t time) {
    av_frame_unref(lookahead_.get());
    haveLookahead_ = false;
    int errors = 0;
    int stalls = 0;
    for (;;) {
        const int result = reader_->receiveFrame(lookahead_.get());
        if (result == 0) {
            int64_t pts = lookahead_->best_effort_timestamp;
            if (pts == AV_NOPTS_VALUE) pts = lastPts_ + 1;  // keeps frames without one in decoding order
            lookaheadPts_ = pts;
            lastPts_ = pts;
            haveLookahead_ = true;
            ++counts_->frames;
            return 0;
        }
        if (result == AVERROR_EOF || (draining_ && ++errors > kDrainErrors)) {
            ended_ = true;
            return AVERROR_EOF;
        }
        if (draining_) continue;  // a frame that failed: the next one
        // A decoder that neither takes packets nor gives frames is at its end.
        stalls = feed(time) ? 0 : stalls + 1;
        if (stalls > kStalls) {
            ended_ = true;
            return AVERROR_EOF;
        }
    }
}

// ---------------------------------------------------------------------------
// Positioning

bool FrameSession::positionAt(int64_t target, bool startOver, bool* fromStart, std::string* problem) {
    *fromStart = false;
    // A file just opened reads from its start: when the time falls to the
    // first keyframe anyway, there is nothing to seek.
    if (fresh_) {
        bool firstKey = target < 0;
        if (!firstKey && useIndex_) {
            int64_t entry = 0;
            firstKey = indexEntryAt(target, &entry) && entry == firstEntry_;
        } else if (!firstKey) {
            firstKey = target < kForwardCns;
        }
        if (firstKey || startOver) {
            resetPosition();
            *fromStart = true;
            return true;
        }
    }
    ++counts_->seeks;
    if (!startOver && target >= 0) {
        const int sought = reader_->seek(toStreamTime(target));
        resetPosition();
        if (sought >= 0) {
            awaitKey_ = true;
            return true;
        }
    }
    if (!reopen(problem)) return false;
    resetPosition();
    *fromStart = true;
    return true;
}

bool FrameSession::indexEntryAt(int64_t time, int64_t* timestamp) const {
    if (!useIndex_ || !reader_) return false;
    AVStream* stream = reader_->stream();
    const int found = av_index_search_timestamp(stream, toStreamTime(time), AVSEEK_FLAG_BACKWARD);
    const AVIndexEntry* entry = found >= 0 ? avformat_index_get_entry(stream, found) : nullptr;
    if (entry == nullptr) return false;
    *timestamp = entry->timestamp;
    return true;
}

// ---------------------------------------------------------------------------
// Exact pictures

bool FrameSession::canContinue(int64_t time) const {
    if (!reader_ || mustSeek_ || (!haveCurrent_ && !haveLookahead_)) return false;
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
        // Seek when the seek would land on a keyframe ahead of the packets
        // read (the index holds a keyframe's dts or its pts).
        if (!readPosKnown_) return true;
        int64_t entry = 0;
        return !indexEntryAt(time, &entry) || entry <= readPos_ || (haveKeyRead_ && entry <= keyRead_);
    }
    return time - frameTime(at) <= kForwardCns;
}

int FrameSession::seekBefore(int64_t time, std::string* problem) {
    // Seek a little earlier each time the decoder lands after the time; in
    // the end start over from the beginning of the file.
    int64_t back = 0;
    for (;;) {
        bool fromStart = false;
        if (!positionAt(time - back, back > kLongestBackCns, &fromStart, problem)) return AVERROR(EIO);
        const int result = readAhead(time);
        if (result < 0) {
            if (fromStart) {
                const int cause = reader_->readError() != 0     ? reader_->readError()
                                  : reader_->decodeError() != 0 ? reader_->decodeError()
                                                                : AVERROR_INVALIDDATA;
                if (problem != nullptr) *problem = failure("no picture could be decoded: " + avErrorText(cause));
                return cause;
            }
            back = nextBack(back);
            continue;
        }
        if (fromStart || compare(lookaheadPts_, time) <= 0) return 0;
        back = nextBack(back);
    }
}

void FrameSession::decodeTo(int64_t time) {
    for (;;) {
        if (!haveLookahead_) {
            if (ended_) break;
            int64_t answer = 0;
            if (haveCurrent_ && answerKnown(time, &answer) && currentPts_ == answer) break;
            if (readAhead(time) < 0) break;  // the end, or a read error: the last frame stays
        }
        if (compare(lookaheadPts_, time) > 0) break;
        std::swap(current_, lookahead_);
        currentPts_ = lookaheadPts_;
        haveCurrent_ = true;
        haveLookahead_ = false;
    }
}

int FrameSession::exactFrame(int64_t time, const AVFrame** shown, int64_t* shownPts, std::string* problem) {
    skipNow_ = true;
    for (;;) {
        if (!canContinue(time)) {
            const int result = seekBefore(time, problem);
            if (result != 0) return result;
        }
        decodeTo(time);
        *shown = haveCurrent_ ? current_.get() : haveLookahead_ ? lookahead_.get() : nullptr;
        *shownPts = haveCurrent_ ? currentPts_ : lookaheadPts_;
        // The packets name the frame shown; when another came out while
        // frames were skipped, decode again skipping nothing.
        int64_t answer = 0;
        if (skipping_ && !discarded_.empty() && answerKnown(time, &answer) &&
            (*shown == nullptr || *shownPts != answer)) {
            ZOR_LOG(5, "ZOR::thumb::FrameSession::exactFrame",
                    "'%s': at %lld the packets show pts %lld, the decoder gave %lld; decoding again in full",
                    path_.c_str(), static_cast<long long>(time), static_cast<long long>(answer),
                    static_cast<long long>(*shown != nullptr ? *shownPts : AV_NOPTS_VALUE));
            skipping_ = false;
            mustSeek_ = true;
            ++counts_->redone;
            continue;
        }
        break;
    }
    if (*shown == nullptr) {
        if (problem != nullptr) *problem = failure("no picture could be decoded");
        return AVERROR_INVALIDDATA;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Keyframe pictures

bool FrameSession::decodeKeyPacket(int64_t time) {
    PacketPtr packet(av_packet_alloc());
    PacketPtr key(av_packet_alloc());
    if (!packet || !key) return false;
    fresh_ = false;
    // With an index the seek lands on the keyframe wanted. Without one it
    // lands somewhere before the time: the last keyframe presented at or
    // before the time is found by reading on (without decoding) until the
    // packets are decoded after the time.
    bool found = false;
    for (int i = 0; i < kKeySearch; ++i) {
        if (reader_->readPacket(packet.get()) < 0) break;
        const bool isKey = (packet->flags & AV_PKT_FLAG_KEY) != 0;
        const bool presentedAfter = packet->pts != AV_NOPTS_VALUE && compare(packet->pts, time) > 0;
        const bool decodedAfter = packet->dts != AV_NOPTS_VALUE && compare(packet->dts, time) > 0;
        if (isKey && (!found || !presentedAfter)) {
            av_packet_unref(key.get());
            av_packet_move_ref(key.get(), packet.get());
            found = true;
            if (useIndex_ || presentedAfter) break;
        } else {
            av_packet_unref(packet.get());
        }
        if (found && decodedAfter) break;
    }
    if (!found) return false;
    packet = std::move(key);
    // The keyframe alone, then the end: the decoder gives it at once.
    av_frame_unref(keyFrame_.get());
    reader_->sendPacket(packet.get(), AVDISCARD_DEFAULT);
    ++counts_->packets;
    reader_->sendPacket(nullptr, AVDISCARD_DEFAULT);
    for (int errors = 0; errors <= kDrainErrors;) {
        const int result = reader_->receiveFrame(keyFrame_.get());
        if (result == 0) {
            ++counts_->frames;
            int64_t pts = keyFrame_->best_effort_timestamp;
            if (pts == AV_NOPTS_VALUE) pts = packet->pts;
            if (pts == AV_NOPTS_VALUE) pts = origin_;
            keyPts_ = pts;
            return true;
        }
        if (result == AVERROR_EOF) break;
        ++errors;
    }
    return false;
}

bool FrameSession::decodeFirstFrame(int64_t time) {
    skipNow_ = false;
    const int result = readAhead(time);
    skipNow_ = true;
    if (result != 0) return false;
    av_frame_unref(keyFrame_.get());
    av_frame_move_ref(keyFrame_.get(), lookahead_.get());
    keyPts_ = lookaheadPts_;
    haveLookahead_ = false;
    return true;
}

int FrameSession::keyFrame(int64_t time, const AVFrame** shown, int64_t* shownPts, std::string* problem) {
    // The index names the keyframe a seek lands on: the one given last is
    // given again.
    int64_t entry = 0;
    if (haveKey_ && haveKeyEntry_ && indexEntryAt(time, &entry) && entry == keyEntry_ &&
        compare(keyPts_, time) <= 0) {
        ++counts_->reused;
        *shown = keyFrame_.get();
        *shownPts = keyPts_;
        return 0;
    }
    haveKey_ = haveKeyEntry_ = false;
    int64_t back = 0;
    for (;;) {
        const int64_t target = time - back;
        const bool startOver = back > kLongestBackCns;
        bool fromStart = false;
        if (!positionAt(target, startOver, &fromStart, problem)) return AVERROR(EIO);
        // The decoder is drained or moved on here: exact pictures seek first.
        mustSeek_ = true;
        bool found = decodeKeyPacket(time);
        if (!found) {
            // No keyframe packet, or one the decoder gives nothing for
            // alone: decode from the same place until a frame comes out.
            if (!positionAt(target, fromStart, &fromStart, problem)) return AVERROR(EIO);
            mustSeek_ = true;
            found = decodeFirstFrame(time);
        }
        if (!found) {
            if (fromStart) {
                const int cause = reader_->readError() != 0     ? reader_->readError()
                                  : reader_->decodeError() != 0 ? reader_->decodeError()
                                                                : AVERROR_INVALIDDATA;
                if (problem != nullptr) *problem = failure("no picture could be decoded: " + avErrorText(cause));
                return cause;
            }
            back = nextBack(back);
            continue;
        }
        if (fromStart || compare(keyPts_, time) <= 0) {
            haveKey_ = true;
            haveKeyEntry_ = !fromStart && indexEntryAt(target, &keyEntry_);
            break;
        }
        back = nextBack(back);
    }
    *shown = keyFrame_.get();
    *shownPts = keyPts_;
    return 0;
}

// ---------------------------------------------------------------------------
// Pictures

int FrameSession::pictureAt(int64_t time, bool keyframe, int32_t width, int32_t height, unsigned char* out,
                            std::string* problem) {
    if (!open(problem)) return AVERROR(EIO);
    const AVFrame* shown = nullptr;
    int64_t shownPts = 0;
    const int result = keyframe ? keyFrame(time, &shown, &shownPts, problem) : exactFrame(time, &shown, &shownPts, problem);
    if (result != 0) return result;
    const size_t bytes = static_cast<size_t>(width) * static_cast<size_t>(height) * 4;
    if (haveConverted_ && convertedPts_ == shownPts && convertedKeyframe_ == keyframe && convertedWidth_ == width &&
        convertedHeight_ == height && converted_.size() == bytes) {
        std::memcpy(out, converted_.data(), bytes);
        return 0;
    }
    haveConverted_ = false;
    if (!convert(shown, width, height, out, problem)) return AVERROR(EINVAL);
    converted_.assign(out, out + bytes);
    convertedPts_ = shownPts;
    convertedKeyframe_ = keyframe;
    convertedWidth_ = width;
    convertedHeight_ = height;
    haveConverted_ = true;
    return 0;
}

bool FrameSession::convert(const AVFrame* frame, int32_t width, int32_t height, unsigned char* out,
                           std::string* problem) {
    auto fail = [&](const char* cause) {
        if (problem != nullptr) *problem = failure(cause);
        return false;
    };
    if (frame->width <= 0 || frame->height <= 0) return fail("a picture without size");
    AVRational sar = frame->sample_aspect_ratio;
    if (sar.num <= 0 || sar.den <= 0)
        sar = av_guess_sample_aspect_ratio(reader_->format(), reader_->stream(), const_cast<AVFrame*>(frame));
    if (sar.num <= 0 || sar.den <= 0) sar = AVRational{1, 1};
    // The display shape, reduced to fit adjust()'s ints.
    int shapeWidth = 0;
    int shapeHeight = 0;
    av_reduce(&shapeWidth, &shapeHeight, int64_t{frame->width} * sar.num, int64_t{frame->height} * sar.den, 1 << 20);
    const bool quarter = rotation_ == 90 || rotation_ == 270;
    if (quarter) std::swap(shapeWidth, shapeHeight);
    int outWidth = 0;
    int outHeight = 0;
    if (!adjust(shapeWidth, shapeHeight, width, height, &outWidth, &outHeight)) return fail("a picture without size");
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
    std::memset(out, 0, static_cast<size_t>(width) * height * 4);
    const int left = (width - outWidth) / 2;
    const int top = (height - outHeight) / 2;
    const size_t outStride = static_cast<size_t>(width) * 4;
    if (rotation_ == 0) {
        for (int y = 0; y < scaledHeight; ++y)
            std::memcpy(out + static_cast<size_t>(top + y) * outStride + static_cast<size_t>(left) * 4,
                        scaled_.data() + static_cast<size_t>(y) * scaledWidth * 4, static_cast<size_t>(scaledWidth) * 4);
        return true;
    }
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
            std::memcpy(out + static_cast<size_t>(top + dy) * outStride + static_cast<size_t>(left + dx) * 4,
                        row + static_cast<size_t>(x) * 4, 4);
        }
    }
    return true;
}

}  // namespace ZOR::thumb
