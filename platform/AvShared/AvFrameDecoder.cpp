#include "AvShared/AvFrameDecoder.h"

extern "C" {
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <limits>
#include <utility>

#include "AvShared/AvPicture.h"
#include "Common/ZorInternalComUtility.h"

ZOR_LOG_SOURCE("platform/AvShared/AvFrameDecoder")

namespace ZOR::av {

namespace {

// Without a keyframe index, decoding forward is cheaper than seeking within
// this distance.
constexpr int64_t kForwardCns = 2 * kSecondCns;
// Seeking back further than this after landing late starts over from the
// beginning of the file.
constexpr int64_t kLongestBackCns = 64 * kSecondCns;
// Packets looked through after a seek for the keyframe's.
constexpr int kKeySearch = 4096;
// Packets read from the last keyframe to find where a stream ends.
constexpr int kEndSearch = 100'000;

int64_t nextBack(int64_t back) { return back == 0 ? kSecondCns : back * 4; }

}  // namespace

int64_t streamDuration(AVFormatContext* format, AVStream* stream) {
    const StreamClock clock = StreamClock::of(stream);
    if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0)
        return av_rescale_q(stream->duration, stream->time_base, kCns);
    // The end of the last packet, read from the last keyframe on.
    int64_t end = AV_NOPTS_VALUE;
    const int64_t far = std::numeric_limits<int64_t>::max() / 2;
    if (av_seek_frame(format, stream->index, far, AVSEEK_FLAG_BACKWARD) >= 0 ||
        av_seek_frame(format, stream->index, clock.origin, AVSEEK_FLAG_BACKWARD) >= 0) {
        PacketPtr packet(av_packet_alloc());
        for (int i = 0; packet && i < kEndSearch && av_read_frame(format, packet.get()) >= 0; ++i) {
            if (packet->stream_index == stream->index && packet->pts != AV_NOPTS_VALUE) {
                const int64_t last = packet->pts + std::max<int64_t>(packet->duration, 0);
                end = end == AV_NOPTS_VALUE ? last : std::max(end, last);
            }
            av_packet_unref(packet.get());
        }
    }
    if (end != AV_NOPTS_VALUE && end > clock.origin) return clock.frameTime(end);
    if (format->duration != AV_NOPTS_VALUE && format->duration > 0)
        return av_rescale_q(format->duration, AVRational{1, AV_TIME_BASE}, kCns);
    return 0;
}

// ---------------------------------------------------------------------------
// Opening

class FrameDecoder::Reader : public StreamDecoder {
public:
    bool open(const std::string& path, int streamId, std::string* cause) {
        auto fail = [&](const std::string& text) {
            *cause = text;
            return false;
        };
        if (!openInput(path, cause)) return false;
        int index = streamId;
        const bool firstIsVideo = format_->nb_streams > 0 && isVideoStream(format_->streams[0]);
        if (streamId < 0 || (streamId == 0 && !firstIsVideo)) {
            index = bestVideoStream(format_);
            if (index < 0) return fail("no video stream");
        } else if (static_cast<unsigned>(streamId) >= format_->nb_streams) {
            return fail("no stream " + std::to_string(streamId));
        } else if (!isVideoStream(format_->streams[streamId])) {
            return fail("stream " + std::to_string(streamId) + " is not a video stream");
        }
        const AVCodecParameters* parameters = format_->streams[index]->codecpar;
        if (parameters->width <= 0 || parameters->height <= 0) return fail("the video stream has no picture size");
        return openDecoder(index, cause);
    }
};

FrameDecoder::FrameDecoder(std::string path, int streamId, DecodeCounts* counts, FrameDecoderOptions options)
    : path_(std::move(path)),
      streamId_(streamId),
      resolvedStream_(streamId),
      options_(options),
      counts_(counts != nullptr ? counts : &ownCounts_) {}

FrameDecoder::~FrameDecoder() = default;

bool FrameDecoder::open(std::string* cause) { return reader_ ? true : reopen(cause); }

const StreamDecoder* FrameDecoder::reader() const { return reader_.get(); }

int FrameDecoder::streamIndex() const { return reader_ ? reader_->stream()->index : -1; }

bool FrameDecoder::reopen(std::string* cause) {
    reader_.reset();
    resetPosition();
    ++counts_->opens;
    auto reader = std::make_unique<Reader>();
    std::string problem;
    if (!reader->open(path_, resolvedStream_, &problem)) {
        if (cause != nullptr) *cause = problem;
        return false;
    }
    const bool framesMade = cursor_.frames.allocate();
    if (!keyFrame_) keyFrame_ = newFrame();
    if (!framesMade || !keyFrame_) {
        if (cause != nullptr) *cause = avErrorText(AVERROR(ENOMEM));
        return false;
    }
    reader_ = std::move(reader);
    AVStream* stream = reader_->stream();
    resolvedStream_ = stream->index;
    cursor_.clock = StreamClock::of(stream);
    rotation_ = displayRotation(stream);
    cursor_.frames.nextCounted = cursor_.clock.origin;
    fresh_ = true;
    // Seeks and the choice to decode on follow the container's keyframe index
    // when it covers the stream.
    useIndex_ = indexCoversStream(reader_->format(), stream, cursor_.clock.origin, &firstEntry_);
    return true;
}

void FrameDecoder::resetPosition() {
    cursor_.restart();
    draining_ = mustSeek_ = false;
    haveKeyRead_ = false;
    awaitKey_ = false;
    fresh_ = false;
}

int64_t FrameDecoder::duration() {
    if (!haveDuration_ && reader_) {
        duration_ = streamDuration(reader_->format(), reader_->stream());
        haveDuration_ = true;
        // The reading position moved: the next picture seeks.
        resetPosition();
        mustSeek_ = true;
    }
    return duration_;
}

bool FrameDecoder::frameRate(int64_t* num, int64_t* den) const {
    if (!reader_) return false;
    const AVStream* stream = reader_->stream();
    AVRational rate = stream->avg_frame_rate;
    if (rate.num <= 0 || rate.den <= 0) rate = stream->r_frame_rate;
    if (rate.num <= 0 || rate.den <= 0) return false;
    *num = rate.num;
    *den = rate.den;
    return true;
}

void FrameDecoder::plan(std::vector<int64_t> times) {
    std::sort(times.begin(), times.end());
    plan_ = std::move(times);
    planPos_ = 0;
    planned_ = true;
}

std::vector<FrameRun> FrameDecoder::runs(const std::vector<int64_t>& times) {
    std::vector<FrameRun> found;
    if (times.empty()) return found;
    std::string ignored;
    if (!open(&ignored)) {
        found.push_back(FrameRun{0, times.size(), times.back() - times.front(), 0});
        return found;
    }
    // The keyframe a seek to each time lands on (from the index), in media cns.
    auto keyTime = [&](int64_t time, int64_t* key) {
        int64_t entry = 0;
        const bool hit = indexEntryAt(std::max<int64_t>(time, 0), &entry);
        *key = hit ? cursor_.clock.frameTime(entry) : 0;
        return hit;
    };
    int64_t key = 0;
    const bool indexed = keyTime(times.front(), &key);
    if (!indexed) key = times.front() - kSecondCns;  // a keyframe somewhere before
    found.push_back(FrameRun{0, 1, 0, std::max<int64_t>(0, times.front() - key)});
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
            found.push_back(FrameRun{i, 0, 0, std::max<int64_t>(0, times[i] - key)});
        }
        ++found.back().count;
    }
    found.back().cost = std::max<int64_t>(0, times.back() - key);
    return found;
}

// ---------------------------------------------------------------------------
// Packets

void FrameDecoder::countFrames() {
    counted_ = true;
    skipping_ = false;
    AVRational rate = reader_->stream()->avg_frame_rate;
    if (rate.num <= 0 || rate.den <= 0) rate = reader_->stream()->r_frame_rate;
    if (rate.num <= 0 || rate.den <= 0) rate = AVRational{25, 1};
    cursor_.frames.countedDuration = std::max<int64_t>(1, av_rescale_q(1, av_inv_q(rate), cursor_.clock.timeBase));
    // What was decoded so far was timed otherwise: start over.
    mustSeek_ = true;
}

bool FrameDecoder::readPacket() {
    if (cursor_.packets.ended) return false;
    // Stopped: the stream ends here for this picture, so that every loop
    // below stops at once.
    if (stopped()) {
        cursor_.packets.ended = true;
        return false;
    }
    fresh_ = false;
    PacketPtr packet(av_packet_alloc());
    for (int dropped = 0;; ++dropped) {
        if (!packet || reader_->readPacket(packet.get()) < 0) {
            cursor_.packets.ended = true;
            return false;
        }
        if (!awaitKey_ || (packet->flags & AV_PKT_FLAG_KEY) != 0 || dropped >= kKeySearch) break;
        av_packet_unref(packet.get());
        ++counts_->dropped;
    }
    awaitKey_ = false;
    if (packet->pts == AV_NOPTS_VALUE && !counted_) countFrames();
    if ((packet->flags & AV_PKT_FLAG_KEY) != 0 && packet->pts != AV_NOPTS_VALUE) {
        keyRead_ = haveKeyRead_ ? std::max(keyRead_, packet->pts) : packet->pts;
        haveKeyRead_ = true;
    }
    cursor_.packets.add(std::move(packet));
    return true;
}

bool FrameDecoder::wantedFrom(int64_t pts, int64_t time, int64_t* wanted) const {
    if (cursor_.clock.compare(pts, time) <= 0) {
        *wanted = time;
        return true;
    }
    const auto found = std::partition_point(plan_.begin() + static_cast<std::ptrdiff_t>(planPos_), plan_.end(),
                                            [&](int64_t w) { return cursor_.clock.compare(pts, w) > 0; });
    if (found == plan_.end()) return false;
    *wanted = *found;
    return true;
}

bool FrameDecoder::needed(int64_t pts, int64_t time) {
    if (!skipping_ || !skipNow_ || pts == AV_NOPTS_VALUE) return true;
    int64_t wanted = time;
    if (planned_) {
        if (!wantedFrom(pts, time, &wanted)) return false;  // after every time wanted
    } else if (cursor_.clock.compare(pts, time) > 0) {
        // A frame after the time: the next request most often wants a later
        // time, and these are few.
        return true;
    }
    // The frame is shown at `wanted` unless another one comes between.
    return cursor_.stillShownAt(pts, wanted, [this] { return readPacket(); });
}

bool FrameDecoder::feed(int64_t time) {
    if (cursor_.packets.unsent.empty()) readPacket();
    if (cursor_.packets.unsent.empty()) {
        draining_ = reader_->sendEnd();
        return draining_;
    }
    // After the last planned time, once the frame it shows is in the decoder,
    // drain the decoder rather than decode the frames after it.
    if (planned_ && planPos_ >= plan_.size()) {
        int64_t answer = 0;
        if (cursor_.answerKnown(time, &answer) && cursor_.packets.discarded.count(answer) == 0 &&
            std::none_of(cursor_.packets.unsent.begin(), cursor_.packets.unsent.end(),
                         [answer](const PacketPtr& p) { return p->pts == answer; })) {
            if (!reader_->sendEnd()) return false;
            draining_ = true;
            mustSeek_ = true;
            return true;
        }
    }
    const bool full = needed(cursor_.packets.unsent.front()->pts, time);
    if (!cursor_.packets.sendFirst(*reader_, full)) return false;
    ++counts_->packets;
    if (!full) ++counts_->discarded;
    return true;
}

int FrameDecoder::readAhead(int64_t time) {
    cursor_.frames.clearLookahead();
    for (int stalls = 0;;) {
        const int result = cursor_.frames.receive(*reader_, draining_);
        if (result == 0) ++counts_->frames;
        if (result != AVERROR(EAGAIN)) return result;
        if (stopped()) return kStopped;
        // A decoder that neither takes packets nor gives frames is at its end.
        stalls = feed(time) ? 0 : stalls + 1;
        if (options_.stallLimit > 0 && stalls > options_.stallLimit) {
            cursor_.frames.ended = true;
            return AVERROR_EOF;
        }
    }
}

// ---------------------------------------------------------------------------
// Positioning

bool FrameDecoder::positionAt(int64_t target, bool startOver, bool* fromStart, std::string* cause) {
    *fromStart = false;
    // Counted times are known only from the start.
    if (counted_) startOver = true;
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
        const int sought = reader_->seek(cursor_.clock.lastPtsAt(target));
        resetPosition();
        if (sought >= 0) {
            awaitKey_ = options_.awaitKeyAfterSeek;
            return true;
        }
    }
    if (!reopen(cause)) return false;
    resetPosition();
    *fromStart = true;
    return true;
}

bool FrameDecoder::indexEntryAt(int64_t time, int64_t* timestamp) const {
    if (!useIndex_ || !reader_) return false;
    return indexEntryBefore(reader_->stream(), cursor_.clock.lastPtsAt(time), timestamp);
}

// ---------------------------------------------------------------------------
// Exact frames

bool FrameDecoder::canContinue(int64_t time) const {
    if (!reader_ || mustSeek_ || !cursor_.reaches(time)) return false;
    if (counted_) return true;
    if (useIndex_) {
        // Seek when the seek would land on a keyframe ahead of the packets
        // read (the index holds a keyframe's dts or its pts).
        if (!cursor_.packets.posKnown) return true;
        int64_t entry = 0;
        return !indexEntryAt(time, &entry) || entry <= cursor_.packets.pos || (haveKeyRead_ && entry <= keyRead_);
    }
    return time - cursor_.clock.frameTime(cursor_.frames.shownPts()) <= kForwardCns;
}

int FrameDecoder::seekBefore(int64_t time, std::string* cause) {
    // Seek a little earlier each time the decoder lands after the time; in
    // the end start over from the beginning of the file.
    int64_t back = 0;
    for (;;) {
        if (stopped()) return kStopped;
        bool fromStart = false;
        if (!positionAt(time - back, back > kLongestBackCns, &fromStart, cause)) return AVERROR(EIO);
        // From the start, the first frame may be the one shown whatever
        // comes after it: skip nothing until it is out.
        skipNow_ = !fromStart && time >= 0;
        const int result = readAhead(time);
        skipNow_ = time >= 0;
        if (result == kStopped) return result;
        if (result < 0) {
            if (fromStart) {
                const int failure = reader_->failureCause();
                if (cause != nullptr) *cause = "no picture could be decoded: " + avErrorText(failure);
                return failure;
            }
            back = nextBack(back);
            continue;
        }
        if (fromStart || cursor_.clock.compare(cursor_.frames.lookaheadPts, time) <= 0) return 0;
        back = nextBack(back);
    }
}

int FrameDecoder::decodeTo(int64_t time) {
    for (;;) {
        if (!cursor_.frames.haveLookahead) {
            if (cursor_.frames.ended) break;
            int64_t answer = 0;
            if (cursor_.frames.haveCurrent && cursor_.answerKnown(time, &answer) && cursor_.frames.currentPts == answer)
                break;
            const int result = readAhead(time);
            if (result == kStopped) return result;
            if (result < 0) break;  // the end, or a read error: the last frame stays
        }
        if (cursor_.clock.compare(cursor_.frames.lookaheadPts, time) > 0) break;
        cursor_.frames.advance();
    }
    return 0;
}

int FrameDecoder::exactFrame(int64_t time, const AVFrame** shown, int64_t* shownPts, std::string* cause) {
    while (planPos_ < plan_.size() && plan_[planPos_] <= time) ++planPos_;
    skipNow_ = time >= 0;
    for (;;) {
        const bool wasCounted = counted_;
        if (!canContinue(time)) {
            const int result = seekBefore(time, cause);
            if (result != 0) return result;
        }
        if (decodeTo(time) == kStopped || stopped()) return kStopped;
        if (counted_ != wasCounted) {
            // The stream turned out to carry no presentation times: decode
            // again from the start, timing frames by their order.
            mustSeek_ = true;
            continue;
        }
        *shown = cursor_.frames.shown();
        *shownPts = cursor_.frames.shownPts();
        // The packets name the frame shown; when another came out while
        // frames were skipped, decode again skipping nothing.
        int64_t answer = 0;
        if (skipping_ && !cursor_.packets.discarded.empty() && cursor_.answerKnown(time, &answer) &&
            (*shown == nullptr || *shownPts != answer)) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::av::FrameDecoder::exactFrame",
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
        if (cause != nullptr) *cause = "no picture could be decoded";
        return AVERROR_INVALIDDATA;
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Keyframes

bool FrameDecoder::decodeKeyPacket(int64_t time) {
    PacketPtr packet(av_packet_alloc());
    PacketPtr key(av_packet_alloc());
    if (!packet || !key) return false;
    fresh_ = false;
    // With an index the seek lands on the keyframe wanted. Without one it
    // lands somewhere before the time: the last keyframe presented at or
    // before the time is found by reading on (without decoding) until the
    // packets are decoded after the time.
    bool found = false;
    for (int i = 0; i < kKeySearch && !stopped(); ++i) {
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
    for (int errors = 0; errors <= FramePair::kDrainErrors;) {
        const int result = reader_->receiveFrame(keyFrame_.get());
        if (result == 0) {
            ++counts_->frames;
            int64_t pts = keyFrame_->best_effort_timestamp;
            if (pts == AV_NOPTS_VALUE) pts = packet->pts;
            if (pts == AV_NOPTS_VALUE) pts = cursor_.clock.origin;
            keyPts_ = pts;
            keyDts_ = packet->dts;
            return true;
        }
        if (result == AVERROR_EOF) break;
        ++errors;
    }
    return false;
}

bool FrameDecoder::decodeFirstFrame(int64_t time) {
    skipNow_ = false;
    const int result = readAhead(time);
    skipNow_ = true;
    if (result != 0) return false;
    av_frame_unref(keyFrame_.get());
    av_frame_move_ref(keyFrame_.get(), cursor_.frames.lookahead.get());
    keyPts_ = cursor_.frames.lookaheadPts;
    keyDts_ = AV_NOPTS_VALUE;
    cursor_.frames.haveLookahead = false;
    return true;
}

int FrameDecoder::keyFrame(int64_t time, const AVFrame** shown, int64_t* shownPts, std::string* cause) {
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
        if (stopped()) return kStopped;
        const int64_t target = time - back;
        const bool startOver = back > kLongestBackCns;
        bool fromStart = false;
        if (!positionAt(target, startOver, &fromStart, cause)) return AVERROR(EIO);
        // The decoder is drained or moved on here: exact frames seek first.
        mustSeek_ = true;
        bool found = decodeKeyPacket(time);
        if (!found && !stopped()) {
            // No keyframe packet, or one the decoder gives nothing for
            // alone: decode from the same place until a frame comes out.
            if (!positionAt(target, fromStart, &fromStart, cause)) return AVERROR(EIO);
            mustSeek_ = true;
            found = decodeFirstFrame(time);
        }
        if (stopped()) return kStopped;
        if (!found) {
            if (fromStart) {
                const int failure = reader_->failureCause();
                if (cause != nullptr) *cause = "no picture could be decoded: " + avErrorText(failure);
                return failure;
            }
            back = nextBack(back);
            continue;
        }
        if (fromStart || cursor_.clock.compare(keyPts_, time) <= 0) {
            haveKey_ = true;
            // The index entry a later time can be matched against: the one of
            // the keyframe given (the index holds a keyframe's dts or its pts;
            // an entry of another keyframe says nothing of this one).
            haveKeyEntry_ = !fromStart && indexEntryAt(target, &keyEntry_) &&
                            (keyEntry_ == keyPts_ || (keyDts_ != AV_NOPTS_VALUE && keyEntry_ == keyDts_));
            break;
        }
        back = nextBack(back);
    }
    *shown = keyFrame_.get();
    *shownPts = keyPts_;
    return 0;
}

// ---------------------------------------------------------------------------
// Frames

int FrameDecoder::frameAt(int64_t time, bool keyframe, const AVFrame** frame, int64_t* shownTime, std::string* cause) {
    int64_t pts = 0;
    return frameAt(time, keyframe, frame, shownTime, &pts, cause);
}

int FrameDecoder::frameAt(int64_t time, bool keyframe, const AVFrame** frame, int64_t* shownTime, int64_t* pts,
                          std::string* cause) {
    if (!open(cause)) return AVERROR(EIO);
    const AVFrame* shown = nullptr;
    int64_t shownPts = 0;
    const int result =
        keyframe && !counted_ ? keyFrame(time, &shown, &shownPts, cause) : exactFrame(time, &shown, &shownPts, cause);
    if (result == kStopped || stopped()) {
        if (cause != nullptr) *cause = "stopped";
        return kStopped;
    }
    if (result != 0) return result;
    *frame = shown;
    *pts = shownPts;
    *shownTime = cursor_.clock.frameTime(shownPts);
    return 0;
}

}  // namespace ZOR::av
