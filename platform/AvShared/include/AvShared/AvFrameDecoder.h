// The picture a player shows at a media time: one decoder for every reader of
// video frames (the frame extraction task, the thumb adapter and the timeline
// pictures built on them), so that a time means the same frame everywhere.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "AvShared/AvDecoder.h"
#include "AvShared/AvFrames.h"

namespace ZOR::av {

// What a decoder did, for the logs and for measuring.
struct DecodeCounts {
    int64_t opens = 0;      // files opened (reopening after a failed seek included)
    int64_t seeks = 0;      // seeks, each retry counted
    int64_t packets = 0;    // packets sent to the decoder
    int64_t discarded = 0;  // of those, sent with AVDISCARD_NONREF
    int64_t frames = 0;     // frames received from the decoder
    int64_t redone = 0;     // pictures decoded again with nothing skipped
    int64_t reused = 0;     // keyframe pictures given again without decoding
    int64_t dropped = 0;    // packets dropped after a seek, before the first keyframe
};

// Times decoded one after the other from the same keyframe.
struct FrameRun {
    size_t first = 0;  // index of the run's first time
    size_t count = 0;
    int64_t cost = 0;  // estimate: media cns from the keyframe to the last time
    int64_t lead = 0;  // estimate: media cns from the keyframe to the first time
};

struct FrameDecoderOptions {
    // After a seek, packets before the first keyframe are dropped: a seek by
    // timestamps (in a file without an index) may land anywhere, and frames
    // decoded without their references would come out damaged.
    bool awaitKeyAfterSeek = true;
    // A decoder that neither takes packets nor gives frames for this many
    // turns in a row is taken to be at its end (0: never).
    int stallLimit = 1024;
};

// The media duration of a stream in cns, from its first frame: the stream's
// own duration when the container tells it; otherwise the end of its last
// packet, found by reading the end of the file (a container's duration may
// count from 0 when the timestamps start later). 0 when nothing tells. Moves
// the reading position of format.
int64_t streamDuration(AVFormatContext* format, AVStream* stream);

// One open video stream of one file.
//
// Frame times. A frame's media time is its presentation timestamp counted
// from the stream's start time and rounded to the nearest cns (StreamClock).
// The frame shown at media time t is the last frame whose time is at or
// before t (the first frame when t is earlier).
//
// Exact frames. The decoder seeks to the keyframe at or before t and decodes
// on from there; a later time decodes forward without seeking again while no
// keyframe lies between the packets read and the time (by the container's
// keyframe index; without one, while the time is near). An earlier time is
// served without decoding when the frame held is still the one shown there,
// and by a seek otherwise. Only what the frame depends on is decoded in full:
// a packet whose frame no wanted time shows is sent with AVDISCARD_NONREF, so
// the decoder skips it when no other frame refers to it (a frame others refer
// to is always decoded, so the frames are those of a plain decode). Which
// frame a time shows is known from the packets' presentation times, read a
// few packets ahead of the decoder; when the frame the decoder gives differs
// from the one the packets named, it is decoded again with nothing skipped,
// and the decoder skips nothing from then on.
//
// Wanted times: without a plan, only the time asked for counts and the
// frames after it are decoded in full (the next request is most often a
// later time). With a plan (plan()), frames that no planned time shows are
// skipped too, and after the last planned time the decoder is drained
// instead of fed on.
//
// Streams without presentation times (raw elementary streams, old AVI files
// with packed B-frames): once a packet without one is read, the frames are
// timed by their order from the start of the stream at its frame rate (frame
// n at n / rate), every picture is decoded forward from the start, nothing
// is skipped, and keyframe pictures are exact ones.
//
// Keyframes. The frame for t is the keyframe at or before t (the first
// keyframe when t is earlier): a seek and one packet decoded; when the
// container's index shows that t falls to the keyframe given last, that frame
// is given again without decoding.
class FrameDecoder {
public:
    // The picture stopped because stop() said so.
    static constexpr int kStopped = AVERROR_EXIT;

    // streamId: the container's stream index; -1, or 0 when the file's
    // stream 0 is not video, takes the best video stream (attached pictures
    // such as cover art do not count). counts may be null.
    FrameDecoder(std::string path, int streamId, DecodeCounts* counts, FrameDecoderOptions options = {});
    ~FrameDecoder();
    FrameDecoder(const FrameDecoder&) = delete;
    FrameDecoder& operator=(const FrameDecoder&) = delete;

    // Opens the file and its video stream when not open yet. False with
    // *cause set (without the path).
    bool open(std::string* cause);
    bool isOpen() const { return reader_ != nullptr; }

    const std::string& path() const { return path_; }
    int requestedStream() const { return streamId_; }
    // After open(): the container's index of the stream decoded, its clock,
    // its rotation (degrees counter-clockwise), the stream itself.
    int streamIndex() const;
    const StreamClock& clock() const { return cursor_.clock; }
    int rotation() const { return rotation_; }
    const StreamDecoder* reader() const;
    // The stream's media duration in cns (see streamDuration()); found on
    // the first call, 0 when nothing tells.
    int64_t duration();
    // The stream's frame rate; false when the file tells none.
    bool frameRate(int64_t* num, int64_t* den) const;

    // Whether frames no picture needs may be skipped (on by default).
    void setSkipping(bool enable) { skipping_ = enable; }
    // Called between packets, possibly from the decoding thread only; once it
    // says true, frameAt() returns kStopped. Where the decoder stood is lost;
    // the owner lets the decoder go or asks again (which seeks).
    void setStop(std::function<bool()> stop) { stop_ = std::move(stop); }

    // The times (media cns) the next calls of frameAt() will ask for.
    void plan(std::vector<int64_t> times);

    // The frame shown at media time: 0 with *frame (valid until the next
    // call) and *time (its media time) set; kStopped; or another negative
    // code with *cause set.
    int frameAt(int64_t time, bool keyframe, const AVFrame** frame, int64_t* shownTime, std::string* cause);
    // The same, with *pts the frame's timestamp (stream time base).
    int frameAt(int64_t time, bool keyframe, const AVFrame** frame, int64_t* shownTime, int64_t* pts,
                std::string* cause);

    // Splits ascending times into runs: the times of a run are decoded from
    // the same keyframe, one after the other; two runs have a keyframe
    // between them, so each can start with a seek. Opens the file when
    // needed; one run when it cannot be opened.
    std::vector<FrameRun> runs(const std::vector<int64_t>& times);

    const DecodeCounts& counts() const { return *counts_; }

private:
    class Reader;

    bool stopped() const { return stop_ && stop_(); }
    bool reopen(std::string* cause);
    void resetPosition();

    int exactFrame(int64_t time, const AVFrame** shown, int64_t* shownPts, std::string* cause);
    bool canContinue(int64_t time) const;
    int seekBefore(int64_t time, std::string* cause);
    int decodeTo(int64_t time);
    int readAhead(int64_t time);
    bool feed(int64_t time);
    bool readPacket();
    // Switches to counted frame times (see above); the decoder then starts over.
    void countFrames();
    bool needed(int64_t pts, int64_t time);
    bool wantedFrom(int64_t pts, int64_t time, int64_t* wanted) const;

    int keyFrame(int64_t time, const AVFrame** shown, int64_t* shownPts, std::string* cause);
    bool indexEntryAt(int64_t time, int64_t* timestamp) const;
    bool decodeKeyPacket(int64_t time);
    bool decodeFirstFrame(int64_t time);
    bool positionAt(int64_t target, bool startOver, bool* fromStart, std::string* cause);

    const std::string path_;
    const int streamId_;  // as asked for
    int resolvedStream_;  // the stream decoded, once known
    const FrameDecoderOptions options_;
    DecodeCounts ownCounts_;
    DecodeCounts* const counts_;
    std::function<bool()> stop_;
    std::unique_ptr<Reader> reader_;
    int rotation_ = 0;
    bool haveDuration_ = false;
    int64_t duration_ = 0;
    bool useIndex_ = false;   // the container's keyframe index covers the stream
    int64_t firstEntry_ = 0;  // the timestamp of the index's first keyframe
    bool fresh_ = false;      // just opened: nothing read yet

    // The plan: ascending media times; planPos_ is the first one after the
    // time being decoded.
    std::vector<int64_t> plan_;
    size_t planPos_ = 0;
    bool planned_ = false;

    // The stream's clock, the packets read since the last seek, and the frame
    // shown at the previous time asked for with the one after it.
    DecodeCursor cursor_;
    bool draining_ = false;  // the end was sent to the decoder
    bool mustSeek_ = false;  // the decoder is not where the packets say: seek before going on
    int64_t keyRead_ = 0;    // the largest pts of a keyframe packet read
    bool haveKeyRead_ = false;
    bool awaitKey_ = false;  // after a seek: packets before the first keyframe are dropped
    bool skipping_ = true;   // discarding is allowed
    bool skipNow_ = false;   // discarding is allowed for the packets being sent
    bool counted_ = false;   // the stream's packets carry no presentation times: frames are counted

    // The keyframe given last.
    FramePtr keyFrame_;
    int64_t keyPts_ = 0;
    int64_t keyDts_ = 0;    // the dts of its packet (AV_NOPTS_VALUE when not known)
    int64_t keyEntry_ = 0;  // its index entry's timestamp
    bool haveKey_ = false;
    bool haveKeyEntry_ = false;
};

}  // namespace ZOR::av
