#include "AvShared/AvFrames.h"

#include <utility>

namespace ZOR::av {

bool FramePair::allocate() {
    if (!current) current = newFrame();
    if (!lookahead) lookahead = newFrame();
    return current && lookahead;
}

void FramePair::clearLookahead() {
    av_frame_unref(lookahead.get());
    haveLookahead = false;
}

int FramePair::receive(StreamDecoder& decoder, bool draining) {
    for (int errors = 0;;) {
        const int result = decoder.receiveFrame(lookahead.get());
        if (result == 0) {
            int64_t pts = lookahead->best_effort_timestamp;
            if (countedDuration != 0) {
                pts = nextCounted;
                nextCounted += countedDuration;
            } else if (pts == AV_NOPTS_VALUE) {
                pts = lastPts + 1;  // keeps frames without one in decoding order
            }
            lookaheadPts = pts;
            lastPts = pts;
            haveLookahead = true;
            return 0;
        }
        if (result == AVERROR_EOF || (draining && ++errors > kDrainErrors)) {
            ended = true;
            return AVERROR_EOF;
        }
        if (!draining) return AVERROR(EAGAIN);
        // Drained, a frame that failed: the next one.
    }
}

void FramePair::advance() {
    std::swap(current, lookahead);
    currentPts = lookaheadPts;
    haveCurrent = true;
    haveLookahead = false;
}

const AVFrame* FramePair::shown() const {
    if (haveCurrent) return current.get();
    return haveLookahead ? lookahead.get() : nullptr;
}

void DecodeCursor::restart() {
    frames.restart();
    packets.restart();
}

bool DecodeCursor::answerKnown(int64_t time, int64_t* pts) const {
    return packets.answerKnown(clock.lastPtsAt(time), pts);
}

bool DecodeCursor::reaches(int64_t time) const {
    if (frames.shown() == nullptr || clock.compare(frames.shownPts(), time) > 0) return false;
    return !packets.skippedMayShow(clock.lastPtsAt(time));
}

}  // namespace ZOR::av
