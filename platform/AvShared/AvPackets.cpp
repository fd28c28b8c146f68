#include "AvShared/AvPackets.h"

extern "C" {
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <limits>
#include <utility>

namespace ZOR::av {

StreamClock StreamClock::of(const AVStream* stream) {
    return StreamClock{stream->start_time != AV_NOPTS_VALUE ? stream->start_time : 0, stream->time_base};
}

int64_t StreamClock::frameTime(int64_t pts) const {
    int64_t offset = 0;
    if (__builtin_sub_overflow(pts, origin, &offset)) return pts < origin ? kFarthestPast : kFarthestFuture;
    const int64_t time = av_rescale_q(offset, timeBase, kCns);  // to the nearest cns, halves away from 0
    if (time == std::numeric_limits<int64_t>::min()) return offset < 0 ? kFarthestPast : kFarthestFuture;
    return std::clamp(time, kFarthestPast, kFarthestFuture);
}

int StreamClock::compare(int64_t pts, int64_t time) const {
    const int64_t frame = frameTime(pts);
    return frame < time ? -1 : (frame > time ? 1 : 0);
}

int64_t StreamClock::lastPtsAt(int64_t time) const {
    constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
    constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
    // A frame's time is its offset rounded to the nearest cns, so the last
    // offset whose time is at or before `time` lies just below time + 1/2
    // cns: start from there (in half cns, exactly) and settle the rounding of
    // the halves and of the time base by stepping.
    int64_t offset = 0;
    const int64_t limit = int64_t{1} << 61;
    if (time > -limit && time < limit) {
        offset = av_rescale_rnd(2 * time + 1, timeBase.den, int64_t{2} * kSecondCns * timeBase.num, AV_ROUND_UP) - 1;
    } else {
        offset = av_rescale_q_rnd(time, kCns, timeBase, AV_ROUND_DOWN);
        if (offset == kMin) return time < 0 ? kMin : kMax;
    }
    int64_t pts = 0;
    if (__builtin_add_overflow(origin, offset, &pts)) return offset < 0 ? kMin : kMax;
    for (int step = 0; step < 4 && pts > kMin && frameTime(pts) > time; ++step) --pts;
    for (int step = 0; step < 4 && pts < kMax && frameTime(pts + 1) <= time; ++step) ++pts;
    return pts;
}

bool indexCoversStream(const AVFormatContext* format, AVStream* stream, int64_t origin, int64_t* firstKey) {
    if (firstKey != nullptr) *firstKey = AV_NOPTS_VALUE;
    const int entries = avformat_index_get_entries_count(stream);
    int64_t end = AV_NOPTS_VALUE;
    if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0)
        end = origin + stream->duration;
    else if (format->duration > 0)
        end = origin + av_rescale_q(format->duration, AVRational{1, AV_TIME_BASE}, stream->time_base);
    if (entries <= 0 || end == AV_NOPTS_VALUE) return false;
    int64_t gap = av_rescale_q(2 * kSecondCns, kCns, stream->time_base);
    int64_t previousKey = AV_NOPTS_VALUE;
    int64_t last = AV_NOPTS_VALUE;
    for (int i = 0; i < entries; ++i) {
        const AVIndexEntry* entry = avformat_index_get_entry(stream, i);
        if (entry == nullptr) continue;
        last = entry->timestamp;
        if ((entry->flags & AVINDEX_KEYFRAME) == 0) continue;
        if (firstKey != nullptr && *firstKey == AV_NOPTS_VALUE) *firstKey = entry->timestamp;
        if (previousKey != AV_NOPTS_VALUE) gap = std::max(gap, entry->timestamp - previousKey);
        previousKey = entry->timestamp;
    }
    return previousKey != AV_NOPTS_VALUE && last != AV_NOPTS_VALUE && last >= end - gap;
}

bool indexEntryBefore(AVStream* stream, int64_t ts, int64_t* timestamp) {
    const int found = av_index_search_timestamp(stream, ts, AVSEEK_FLAG_BACKWARD);
    const AVIndexEntry* entry = found >= 0 ? avformat_index_get_entry(stream, found) : nullptr;
    if (entry == nullptr) return false;
    *timestamp = entry->timestamp;
    return true;
}

void PacketWindow::restart() {
    unsent.clear();
    known.clear();
    discarded.clear();
    ended = false;
    posKnown = posIsDts = false;
}

void PacketWindow::add(PacketPtr packet) {
    if (packet->pts == AV_NOPTS_VALUE)
        timesUnsure = true;
    else
        known.insert(packet->pts);
    if (packet->dts != AV_NOPTS_VALUE) {
        if (packet->pts != AV_NOPTS_VALUE && packet->pts < packet->dts) timesUnsure = true;
        pos = packet->dts;
        posIsDts = true;
        posKnown = true;
    } else if (packet->pts != AV_NOPTS_VALUE) {
        pos = packet->pts;
        posIsDts = false;
        posKnown = true;
    }
    unsent.push_back(std::move(packet));
}

bool PacketWindow::sendFirst(StreamDecoder& decoder, bool full) {
    const AVPacket* packet = unsent.front().get();
    if (decoder.sendPacket(packet, full ? AVDISCARD_DEFAULT : AVDISCARD_NONREF) == AVERROR(EAGAIN)) return false;
    if (!full) discarded.insert(packet->pts);
    unsent.pop_front();
    return true;
}

bool PacketWindow::nextSettled(int64_t pts) const {
    const auto next = known.upper_bound(pts);
    return next != known.end() && posIsDts && !timesUnsure && pos >= *next;
}

bool PacketWindow::nextAfter(int64_t pts, int64_t* next) const {
    const auto found = known.upper_bound(pts);
    if (found == known.end()) return false;
    *next = *found;
    return true;
}

bool PacketWindow::answerKnown(int64_t last, int64_t* pts) const {
    const bool complete = ended || (posKnown && posIsDts && !timesUnsure && pos > last);
    if (!complete) return false;
    auto found = known.upper_bound(last);
    if (found == known.begin()) return false;
    *pts = *--found;
    return true;
}

bool PacketWindow::skippedMayShow(int64_t last) const {
    // The last frame skipped at or before last is shown there unless a packet
    // read after it comes before last.
    auto skipped = discarded.upper_bound(last);
    if (skipped == discarded.begin()) return false;
    --skipped;
    const auto next = known.upper_bound(*skipped);
    return next == known.end() || *next > last;
}

}  // namespace ZOR::av
