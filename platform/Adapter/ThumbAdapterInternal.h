// Adapter, inside the reference host: what the thumb adapter did, for tests
// and measurements. Header-only; not for the Miravel library.
#pragma once

#include <cstdint>

#include "DataModel/IDmBaseObj.h"

namespace ZOR {

// Totals over every file an adapter decoded since it was created.
struct ThumbDecodeCounts {
    int64_t opens = 0;      // files opened (reopening after a failed seek included)
    int64_t seeks = 0;      // seeks, each retry counted
    int64_t packets = 0;    // packets sent to the decoder
    int64_t discarded = 0;  // of those, sent with AVDISCARD_NONREF
    int64_t frames = 0;     // frames received from the decoder
    int64_t redone = 0;     // pictures decoded again with nothing skipped
    int64_t reused = 0;     // keyframe pictures given again without decoding

    ThumbDecodeCounts& operator+=(const ThumbDecodeCounts& other) {
        opens += other.opens;
        seeks += other.seeks;
        packets += other.packets;
        discarded += other.discarded;
        frames += other.frames;
        redone += other.redone;
        reused += other.reused;
        return *this;
    }
};

// The inner face of a thumb adapter. Name: "IThumbAdapterInternal".
class IThumbAdapterInternal : public virtual IDmBaseObj {
public:
    virtual ThumbDecodeCounts decodeCounts() = 0;
    // Whether exact pictures may skip decoding the frames they do not depend
    // on (true by default); off, every frame from the keyframe on is decoded.
    // The pictures are the same either way; this is for measuring.
    virtual void setFrameSkipping(bool enable) = 0;
    // Returns once no lane is decoding a picture read ahead (the counts then
    // hold all they did).
    virtual void waitForReadAhead() = 0;

protected:
    ~IThumbAdapterInternal() = default;
};

}  // namespace ZOR
