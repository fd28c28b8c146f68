#include "BtmVideoPicture.h"

extern "C" {
#include <libavutil/mathematics.h>
}

#include <algorithm>

#include "Common/ZorInternalComUtility.h"

ZOR_LOG_SOURCE("platform/BackgroundTaskManager/BtmVideoPicture")

namespace ZOR::btm {

namespace {

using av::kSecondCns;
// Decoding forward is cheaper than seeking within this distance.
constexpr int64_t kForwardCns = 20'000'000;

}  // namespace

VideoSession::VideoSession(std::string path, int streamIndex, int32_t width, int32_t height)
    : path_(std::move(path)), streamIndex_(streamIndex), width_(width), height_(height) {}

VideoSession::~VideoSession() = default;

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
    cursor_.clock = av::StreamClock::of(stream);
    rotation_ = av::displayRotation(stream);
    resetPosition();
    if (!cursor_.frames.allocate()) {
        if (problem != nullptr) *problem = "'" + path_ + "': " + avErrorText(AVERROR(ENOMEM));
        return false;
    }
    // Seeks and the runs follow the container's keyframe index when it covers
    // the stream.
    useIndex_ = av::indexCoversStream(decoder_->format(), stream, cursor_.clock.origin, nullptr);
    return true;
}

void VideoSession::resetPosition() {
    cursor_.restart();
    draining_ = mustSeek_ = false;
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
        int64_t entry = 0;
        const bool hit = av::indexEntryBefore(stream, cursor_.clock.toStreamTime(std::max<int64_t>(time, 0)), &entry);
        *key = hit ? cursor_.clock.frameTime(entry) : 0;
        return hit;
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

bool VideoSession::readPacket() {
    if (cursor_.packets.ended) return false;
    PacketPtr packet(av_packet_alloc());
    if (!packet || decoder_->readPacket(packet.get()) < 0) {
        cursor_.packets.ended = true;
        return false;
    }
    cursor_.packets.add(std::move(packet));
    return true;
}

bool VideoSession::wantedFrom(int64_t pts, int64_t time, int64_t* wanted) const {
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

bool VideoSession::needed(int64_t pts, int64_t time) {
    if (!skipping_ || !skipNow_ || pts == AV_NOPTS_VALUE) return true;
    int64_t wanted = 0;
    if (!wantedFrom(pts, time, &wanted)) return false;  // after every time wanted
    // The frame is shown at `wanted` unless another one comes between.
    return cursor_.stillShownAt(pts, wanted, [this] { return readPacket(); });
}

void VideoSession::feed(int64_t time) {
    if (cursor_.packets.unsent.empty()) readPacket();
    if (cursor_.packets.unsent.empty()) {
        draining_ = decoder_->sendEnd();
        return;
    }
    // After the last planned time, once the frame it shows is in the decoder,
    // drain the decoder rather than decode the frames after it.
    if (planned_ && planPos_ >= plan_.size()) {
        int64_t answer = 0;
        if (cursor_.answerKnown(time, &answer) && cursor_.packets.discarded.count(answer) == 0 &&
            std::none_of(cursor_.packets.unsent.begin(), cursor_.packets.unsent.end(), [answer](const PacketPtr& p) { return p->pts == answer; })) {
            if (!decoder_->sendEnd()) return;
            draining_ = true;
            mustSeek_ = true;
            return;
        }
    }
    const bool full = needed(cursor_.packets.unsent.front()->pts, time);
    if (!cursor_.packets.sendFirst(*decoder_, full)) return;
    ++counts_.packets;
    if (!full) ++counts_.discarded;
}

int VideoSession::readAhead(int64_t time, const std::function<bool()>& stop) {
    cursor_.frames.clearLookahead();
    for (;;) {
        const int result = cursor_.frames.receive(*decoder_, draining_);
        if (result == 0) ++counts_.frames;
        if (result != AVERROR(EAGAIN)) return result;
        if (stop && stop()) return MediaDecoder::kStopped;
        feed(time);
    }
}

bool VideoSession::canContinue(int64_t time) const {
    if (!decoder_ || mustSeek_ || !cursor_.reaches(time)) return false;
    if (useIndex_) {
        // Seek when the seek would land on a keyframe ahead of the packets read.
        if (!cursor_.packets.posKnown) return true;
        int64_t entry = 0;
        return !av::indexEntryBefore(decoder_->stream(), cursor_.clock.toStreamTime(time), &entry) || entry <= cursor_.packets.pos;
    }
    return time - cursor_.clock.frameTime(cursor_.frames.shownPts()) <= kForwardCns;
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
            const int sought = decoder_->seek(cursor_.clock.toStreamTime(target));
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
                const int cause = decoder_->failureCause();
                if (problem != nullptr) *problem = "'" + path_ + "': no picture could be decoded: " + avErrorText(cause);
                return cause;
            }
            back = back == 0 ? kSecondCns : back * 4;
            continue;
        }
        if (fromStart || cursor_.clock.compare(cursor_.frames.lookaheadPts, time) <= 0) return 0;
        back = back == 0 ? kSecondCns : back * 4;
    }
}

int VideoSession::decodeTo(int64_t time, const std::function<bool()>& stop) {
    for (;;) {
        if (!cursor_.frames.haveLookahead) {
            if (cursor_.frames.ended) break;
            int64_t answer = 0;
            if (cursor_.frames.haveCurrent && cursor_.answerKnown(time, &answer) && cursor_.frames.currentPts == answer) break;
            const int result = readAhead(time, stop);
            if (result == MediaDecoder::kStopped) return result;
            if (result < 0) break;  // the end, or a read error: the last frame stays
        }
        if (cursor_.clock.compare(cursor_.frames.lookaheadPts, time) > 0) break;
        cursor_.frames.advance();
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
        shown = cursor_.frames.shown();
        shownPts = cursor_.frames.shownPts();
        // The packets name the frame shown; when another came out while
        // frames were skipped, decode again skipping nothing.
        int64_t answer = 0;
        if (skipping_ && !cursor_.packets.discarded.empty() && cursor_.answerKnown(time, &answer) && (shown == nullptr || shownPts != answer)) {
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
    picture->shown = cursor_.clock.frameTime(shownPts);
    picture->rgba = converted_;
    return 0;
}

bool VideoSession::convert(const AVFrame* frame, std::vector<unsigned char>* rgba, std::string* problem) {
    rgba->resize(static_cast<size_t>(width_) * height_ * 4);
    std::string cause;
    if (converter_.convert(*decoder_, frame, rotation_, width_, height_, rgba->data(), &cause)) return true;
    if (problem != nullptr) *problem = "'" + path_ + "': " + cause;
    return false;
}

}  // namespace ZOR::btm
