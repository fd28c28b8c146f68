// The decoded frames a decoder that picks the frame shown at a media time
// holds between two times, and all it knows of where it is.
#pragma once

extern "C" {
#include <libavutil/frame.h>
}

#include <cstdint>

#include "AvShared/AvDecoder.h"
#include "AvShared/AvPackets.h"

namespace ZOR::av {

// The frame shown at the time asked for last, and the one decoded after it
// (which tells whether a later time still shows the first).
struct FramePair {
    // Errors the decoder may give in a row while it is drained.
    static constexpr int kDrainErrors = 64;

    FramePtr current;
    int64_t currentPts = 0;
    bool haveCurrent = false;
    FramePtr lookahead;
    int64_t lookaheadPts = 0;
    bool haveLookahead = false;
    bool ended = false;   // the decoder gave its last frame
    int64_t lastPts = 0;  // for frames without a timestamp
    // Counted times: when not 0, the frames' own timestamps are not used and
    // frame n since the stream's start is given nextCounted + n x this (for
    // streams whose packets carry no presentation times).
    int64_t countedDuration = 0;
    int64_t nextCounted = 0;

    // Makes the two frames when they are not made yet; false when memory
    // ran out.
    bool allocate();
    // Forgets both frames (after a seek or reopening).
    void restart() { haveCurrent = haveLookahead = ended = false; }
    // Empties lookahead before the next frame is received into it.
    void clearLookahead();
    // The next frame of the decoder into lookahead: 0; AVERROR_EOF when the
    // decoder has no more (ended is set); AVERROR(EAGAIN) when it needs a
    // packet. While it is drained, frames that fail are passed over, up to
    // kDrainErrors in a row.
    int receive(StreamDecoder& decoder, bool draining);
    // lookahead becomes the frame shown.
    void advance();
    // The frame shown: current, else lookahead; null when there is neither.
    const AVFrame* shown() const;
    int64_t shownPts() const { return haveCurrent ? currentPts : lookaheadPts; }
};

// Where such a decoder is: the stream's clock, the packets read since the
// last seek and the frames held.
struct DecodeCursor {
    StreamClock clock;
    PacketWindow packets;
    FramePair frames;

    // Forgets the packets and the frames (after a seek or reopening).
    void restart();
    // The pts of the frame shown at media time by the packets read, when no
    // packet still to be read can change it; false otherwise.
    bool answerKnown(int64_t time, int64_t* pts) const;
    // Whether decoding on from the frame held reaches the frame shown at
    // media time: a frame is held, it is at or before the time, and no frame
    // skipped on the way may be the one shown there.
    bool reaches(int64_t time) const;
    // See PacketWindow::stillShownAt().
    template <typename ReadMore>
    bool stillShownAt(int64_t pts, int64_t time, ReadMore readMore) {
        return packets.stillShownAt(pts, time, clock, readMore);
    }
};

}  // namespace ZOR::av
