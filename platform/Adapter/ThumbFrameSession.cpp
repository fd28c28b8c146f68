#include "ThumbFrameSession.h"

extern "C" {
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <cstring>

#include "Common/ZorInternalComUtility.h"

ZOR_LOG_SOURCE("platform/Adapter/ThumbFrameSession")

namespace ZOR::thumb {

namespace {

using av::kCns;
using av::kSecondCns;
// Without a keyframe index, decoding forward is cheaper than seeking within
// this distance.
constexpr int64_t kForwardCns = 2 * kSecondCns;
// Seeking back further than this after landing late starts over from the
// beginning of the file.
constexpr int64_t kLongestBackCns = 64 * kSecondCns;
// Times in a row the decoder may refuse a packet without giving a frame.
constexpr int kStalls = 1024;
// Packets looked through after a seek for the keyframe's.
constexpr int kKeySearch = 4096;

int64_t nextBack(int64_t back) { return back == 0 ? kSecondCns : back * 4; }

}  // namespace

FrameSession::FrameSession(std::string path, int streamId, ThumbDecodeCounts* counts)
    : path_(std::move(path)), streamId_(streamId), resolvedStream_(streamId), counts_(counts) {}

FrameSession::~FrameSession() = default;

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
    const bool framesMade = cursor_.frames.allocate();
    if (!keyFrame_) keyFrame_ = newFrame();
    if (!framesMade || !keyFrame_) {
        if (problem != nullptr) *problem = failure(avErrorText(AVERROR(ENOMEM)));
        return false;
    }
    reader_ = std::move(reader);
    AVStream* stream = reader_->stream();
    AVFormatContext* format = reader_->format();
    resolvedStream_ = stream->index;
    cursor_.clock = av::StreamClock::of(stream);
    rotation_ = av::displayRotation(stream);
    duration_ = 0;
    if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0)
        duration_ = av_rescale_q(stream->duration, cursor_.clock.timeBase, kCns);
    else if (format->duration != AV_NOPTS_VALUE && format->duration > 0)
        duration_ = av_rescale_q(format->duration, AV_TIME_BASE_Q, kCns);
    fresh_ = true;

    // Seeks and the choice to decode on follow the container's keyframe index
    // when it covers the stream.
    useIndex_ = av::indexCoversStream(format, stream, cursor_.clock.origin, &firstEntry_);
    return true;
}

void FrameSession::resetPosition() {
    cursor_.restart();
    draining_ = mustSeek_ = false;
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

// ---------------------------------------------------------------------------
// Packets

bool FrameSession::readPacket() {
    if (cursor_.packets.ended) return false;
    // Abandoned: the stream ends here for this picture, so that every loop
    // below stops at once.
    if (abandoned()) {
        cursor_.packets.ended = true;
        return false;
    }
    fresh_ = false;
    PacketPtr packet(av_packet_alloc());
    // After a seek, decoding starts at a keyframe: a seek by timestamps (in a
    // file without an index) may land anywhere, and frames decoded without
    // their references would be shown damaged.
    for (int dropped = 0;; ++dropped) {
        if (!packet || reader_->readPacket(packet.get()) < 0) {
            cursor_.packets.ended = true;
            return false;
        }
        if (!awaitKey_ || (packet->flags & AV_PKT_FLAG_KEY) != 0 || dropped >= kKeySearch) break;
        av_packet_unref(packet.get());
    }
    awaitKey_ = false;
    if ((packet->flags & AV_PKT_FLAG_KEY) != 0 && packet->pts != AV_NOPTS_VALUE) {
        keyRead_ = haveKeyRead_ ? std::max(keyRead_, packet->pts) : packet->pts;
        haveKeyRead_ = true;
    }
    cursor_.packets.add(std::move(packet));
    return true;
}

bool FrameSession::needed(int64_t pts, int64_t time) {
    if (!skipping_ || !skipNow_ || pts == AV_NOPTS_VALUE) return true;
    // A frame after the time: the next request most often wants a later
    // time, and these are few.
    if (cursor_.clock.compare(pts, time) > 0) return true;
    // The frame is shown at time unless another one comes between.
    return cursor_.stillShownAt(pts, time, [this] { return readPacket(); });
}

bool FrameSession::feed(int64_t time) {
    if (cursor_.packets.unsent.empty()) readPacket();
    if (cursor_.packets.unsent.empty()) {
        draining_ = reader_->sendEnd();
        return draining_;
    }
    const bool full = needed(cursor_.packets.unsent.front()->pts, time);
    if (!cursor_.packets.sendFirst(*reader_, full)) return false;
    ++counts_->packets;
    if (!full) ++counts_->discarded;
    return true;
}

int FrameSession::readAhead(int64_t time) {
    cursor_.frames.clearLookahead();
    for (int stalls = 0;;) {
        const int result = cursor_.frames.receive(*reader_, draining_);
        if (result == 0) ++counts_->frames;
        if (result != AVERROR(EAGAIN)) return result;
        // A decoder that neither takes packets nor gives frames is at its end.
        stalls = feed(time) ? 0 : stalls + 1;
        if (stalls > kStalls) {
            cursor_.frames.ended = true;
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
        const int sought = reader_->seek(cursor_.clock.toStreamTime(target));
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
    return av::indexEntryBefore(reader_->stream(), cursor_.clock.toStreamTime(time), timestamp);
}

// ---------------------------------------------------------------------------
// Exact pictures

bool FrameSession::canContinue(int64_t time) const {
    if (!reader_ || mustSeek_ || !cursor_.reaches(time)) return false;
    if (useIndex_) {
        // Seek when the seek would land on a keyframe ahead of the packets
        // read (the index holds a keyframe's dts or its pts).
        if (!cursor_.packets.posKnown) return true;
        int64_t entry = 0;
        return !indexEntryAt(time, &entry) || entry <= cursor_.packets.pos || (haveKeyRead_ && entry <= keyRead_);
    }
    return time - cursor_.clock.frameTime(cursor_.frames.shownPts()) <= kForwardCns;
}

int FrameSession::seekBefore(int64_t time, std::string* problem) {
    // Seek a little earlier each time the decoder lands after the time; in
    // the end start over from the beginning of the file.
    int64_t back = 0;
    for (;;) {
        if (abandoned()) return AVERROR_EXIT;
        bool fromStart = false;
        if (!positionAt(time - back, back > kLongestBackCns, &fromStart, problem)) return AVERROR(EIO);
        const int result = readAhead(time);
        if (result < 0) {
            if (fromStart) {
                const int cause = reader_->failureCause();
                if (problem != nullptr) *problem = failure("no picture could be decoded: " + avErrorText(cause));
                return cause;
            }
            back = nextBack(back);
            continue;
        }
        if (fromStart || cursor_.clock.compare(cursor_.frames.lookaheadPts, time) <= 0) return 0;
        back = nextBack(back);
    }
}

void FrameSession::decodeTo(int64_t time) {
    for (;;) {
        if (!cursor_.frames.haveLookahead) {
            if (cursor_.frames.ended) break;
            int64_t answer = 0;
            if (cursor_.frames.haveCurrent && cursor_.answerKnown(time, &answer) && cursor_.frames.currentPts == answer) break;
            if (readAhead(time) < 0) break;  // the end, or a read error: the last frame stays
        }
        if (cursor_.clock.compare(cursor_.frames.lookaheadPts, time) > 0) break;
        cursor_.frames.advance();
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
        if (abandoned()) return AVERROR_EXIT;
        *shown = cursor_.frames.shown();
        *shownPts = cursor_.frames.shownPts();
        // The packets name the frame shown; when another came out while
        // frames were skipped, decode again skipping nothing.
        int64_t answer = 0;
        if (skipping_ && !cursor_.packets.discarded.empty() && cursor_.answerKnown(time, &answer) &&
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
        const bool presentedAfter = packet->pts != AV_NOPTS_VALUE && cursor_.clock.compare(packet->pts, time) > 0;
        const bool decodedAfter = packet->dts != AV_NOPTS_VALUE && cursor_.clock.compare(packet->dts, time) > 0;
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
    reader_->sendEnd();
    for (int errors = 0; errors <= av::FramePair::kDrainErrors;) {
        const int result = reader_->receiveFrame(keyFrame_.get());
        if (result == 0) {
            ++counts_->frames;
            int64_t pts = keyFrame_->best_effort_timestamp;
            if (pts == AV_NOPTS_VALUE) pts = packet->pts;
            if (pts == AV_NOPTS_VALUE) pts = cursor_.clock.origin;
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
    av_frame_move_ref(keyFrame_.get(), cursor_.frames.lookahead.get());
    keyPts_ = cursor_.frames.lookaheadPts;
    cursor_.frames.haveLookahead = false;
    return true;
}

int FrameSession::keyFrame(int64_t time, const AVFrame** shown, int64_t* shownPts, std::string* problem) {
    // The index names the keyframe a seek lands on: the one given last is
    // given again.
    int64_t entry = 0;
    if (haveKey_ && haveKeyEntry_ && indexEntryAt(time, &entry) && entry == keyEntry_ &&
        cursor_.clock.compare(keyPts_, time) <= 0) {
        ++counts_->reused;
        *shown = keyFrame_.get();
        *shownPts = keyPts_;
        return 0;
    }
    haveKey_ = haveKeyEntry_ = false;
    int64_t back = 0;
    for (;;) {
        if (abandoned()) return AVERROR_EXIT;
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
                const int cause = reader_->failureCause();
                if (problem != nullptr) *problem = failure("no picture could be decoded: " + avErrorText(cause));
                return cause;
            }
            back = nextBack(back);
            continue;
        }
        if (fromStart || cursor_.clock.compare(keyPts_, time) <= 0) {
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
    if (abandoned()) {
        if (problem != nullptr) *problem = failure("abandoned");
        return AVERROR_EXIT;
    }
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
    std::string cause;
    if (converter_.convert(*reader_, frame, rotation_, width, height, out, &cause)) return true;
    if (problem != nullptr) *problem = failure(cause);
    return false;
}

}  // namespace ZOR::thumb
