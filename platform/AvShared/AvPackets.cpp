#include "AvPackets.h"

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

int64_t StreamClock::frameTime(int64_t pts) const { return av_rescale_q(pts - origin, timeBase, kCns); }

int64_t StreamClock::toStreamTime(int64_t time) const { return origin + av_rescale_q(time, kCns, timeBase); }

int StreamClock::compare(int64_t pts, int64_t time) const { return av_compare_ts(pts - origin, timeBase, time, kCns); }

int64_t StreamClock::lastPtsAt(int64_t time) const {
    const int64_t offset = av_rescale_q_rnd(time, kCns, timeBase, AV_ROUND_DOWN);
    if (offset == std::numeric_limits<int64_t>::min()) return time < 0 ? offset : std::numeric_limits<int64_t>::max();
    if (offset > 0 && origin > std::numeric_limits<int64_t>::max() - offset) return std::numeric_limits<int64_t>::max();
    if (offset < 0 && origin < std::numeric_limits<int64_t>::min() - offset) return std::numeric_limits<int64_t>::min();
    return origin + offset;
}

bool indexCoversStream(const AVFormatContext* format, AVStream* stream, int64_t origin, int64_t* firstKey) {
    if (firstKey != nullptr) *firstKey = AV_NOPTS_VALUE;
    const int entries = avformat_index_get_entries_count(stream);
    int64_t end = AV_NOPTS_VALUE;
    if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0)
        end = origin + stream->duration;
    else if (format->duration > 0)
        end = origin + av_rescale_q(format->duration, AV_TIME_BASE_Q, stream->time_base);
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
