// Media time against a stream's timestamps, the container's keyframe index,
// and the packets read ahead of a decoder: what a decoder that picks the
// frame shown at a media time needs to know where it is.
#pragma once

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/rational.h>
}

#include <cstddef>
#include <cstdint>
#include <deque>
#include <set>

#include "AvShared/AvDecoder.h"

namespace ZOR::av {

// Media time is counted in cns (100 ns) from the stream's start time.
constexpr AVRational kCns{1, 10'000'000};
constexpr int64_t kSecondCns = 10'000'000;

// The stream's timestamps (time base, start time) against media time. A
// frame's media time is its timestamp counted from the start time, rounded to
// the nearest cns: the time reported for a frame is the time that shows it.
struct StreamClock {
    // Media times far beyond any file (about 29,000 years), where a
    // timestamp's offset from the start does not fit.
    static constexpr int64_t kFarthestPast = -(int64_t{1} << 62);
    static constexpr int64_t kFarthestFuture = int64_t{1} << 62;

    int64_t origin = 0;  // the start time, stream time base
    AVRational timeBase{1, 1};

    // The clock of a stream (a start time it does not tell is 0).
    static StreamClock of(const AVStream* stream);
    int64_t frameTime(int64_t pts) const;  // pts to media cns, rounded to the nearest
    // The frame time of pts against media time t: <0, 0, >0.
    int compare(int64_t pts, int64_t time) const;
    // The last pts (stream time base) whose frame time is at or before media
    // time, clamped to the range of int64_t.
    int64_t lastPtsAt(int64_t time) const;
};

// Whether the container's keyframe index tells where the keyframes are: it
// reaches the end of the stream (within the largest gap between two of its
// keyframes); an index that grows as the file is read does not. *firstKey is
// set to the timestamp of its first keyframe (AV_NOPTS_VALUE when none is
// seen) when firstKey is not null.
bool indexCoversStream(const AVFormatContext* format, AVStream* stream, int64_t origin, int64_t* firstKey);

// The timestamp of the index entry a backward seek to ts (stream time base)
// lands on; false when the index has none.
bool indexEntryBefore(AVStream* stream, int64_t ts, int64_t* timestamp);

// The packets read since the last seek, and what their timestamps tell of
// the frame shown at a time.
struct PacketWindow {
    // Packets read ahead of the decoder at most, to learn which frame a
    // time shows.
    static constexpr size_t kMostUnsent = 48;

    std::deque<PacketPtr> unsent;  // read, not sent yet
    std::multiset<int64_t> known;  // pts of every packet read (stream time base)
    std::set<int64_t> discarded;   // pts of the packets sent with AVDISCARD_NONREF
    bool ended = false;            // no packet left to read
    bool posKnown = false;
    int64_t pos = 0;        // dts (else pts) of the last packet read
    bool posIsDts = false;  // pos is a dts
    // A packet without pts, or presented before decoded: reading ahead
    // settles nothing. It stays over restart(): it is about the file.
    bool timesUnsure = false;

    // Forgets the packets (after a seek or reopening).
    void restart();
    // Keeps a packet read, to be sent, and notes its timestamps.
    void add(PacketPtr packet);
    // Sends the first unsent packet to the decoder, in full or with
    // AVDISCARD_NONREF (its pts then goes to discarded): false when the
    // decoder must give frames first (the packet stays).
    bool sendFirst(StreamDecoder& decoder, bool full);
    bool full() const { return unsent.size() >= kMostUnsent; }
    // Whether the next presentation time after pts among the packets read can
    // no longer change (every packet still to read is presented at or after
    // its dts).
    bool nextSettled(int64_t pts) const;
    // The smallest pts read after pts; false when there is none.
    bool nextAfter(int64_t pts, int64_t* next) const;
    // Whether the frame of the packet with this pts, presented at or before
    // media time, is still shown there: no other frame comes between. Reads
    // on with readMore() (false at the end) until the next presentation time
    // after pts cannot change any more, or the window is full. A packet
    // still unread can only bring the next frame closer, never make a frame
    // shown that this says is not: so the answer errs on decoding.
    template <typename ReadMore>
    bool stillShownAt(int64_t pts, int64_t time, const StreamClock& clock, ReadMore readMore) {
        while (!nextSettled(pts) && !full() && readMore()) {
        }
        int64_t next = 0;
        return !nextAfter(pts, &next) || clock.compare(next, time) > 0;
    }
    // The pts of the frame shown at the time whose last pts is last (see
    // StreamClock::lastPtsAt), when no packet still to be read can change it;
    // false otherwise.
    bool answerKnown(int64_t last, int64_t* pts) const;
    // Whether a frame sent with AVDISCARD_NONREF may be the one shown at the
    // time whose last pts is last.
    bool skippedMayShow(int64_t last) const;
};

}  // namespace ZOR::av
