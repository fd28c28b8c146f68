// Decoding the picture shown at a media time, for the thumb adapter: one open
// video stream of one file, kept open between pictures.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../AvShared/AvFrames.h"
#include "../AvShared/AvPicture.h"
#include "ThumbAdapterInternal.h"
#include "ThumbMediaReader.h"

namespace ZOR::thumb {

// One open video stream.
//
// Exact pictures. The picture for media time t is the last frame whose
// presentation time is at or before t (the first frame when t is earlier),
// decoded exactly. The decoder seeks to the keyframe at or before t and
// decodes on from there; a later time decodes forward without seeking again
// while no keyframe lies between the packets read and the time (by the
// container's keyframe index; without one, while the time is near). An
// earlier time is served without decoding when the frame held is still the
// one shown there, and by a seek otherwise.
//
// Only what the picture depends on is decoded in full: a packet whose frame
// is presented before t, with another frame presented after it and still at
// or before t, is sent with AVDISCARD_NONREF, so the decoder skips it when no
// other frame refers to it (a frame others refer to is always decoded, so
// the pictures are those of a plain decode). Which frame t shows is known
// from the packets' presentation times, read a few packets ahead of the
// decoder; frames after t are decoded in full, since the next request is
// most often a later time. When the frame the decoder gives differs from the
// one the packets named, the picture is decoded again with nothing skipped,
// and the session skips nothing from then on.
//
// Keyframe pictures. The picture for t is the keyframe at or before t (the
// first keyframe when t is earlier): a seek (AVSEEK_FLAG_BACKWARD) and one
// packet decoded; when the container's index shows that t falls to the
// keyframe given last, that picture is given again without decoding.
//
// Every picture keeps the display aspect ratio (sample aspect ratio and the
// rotation of the display matrix, in quarter turns; mirroring is not
// applied), is scaled to fit the box (ZOR::adjust: the bound side fills it),
// centred, and the rest of the box is transparent (0, 0, 0, 0). Media time 0
// is the stream's start time.
class FrameSession {
public:
    FrameSession(std::string path, int streamId, ThumbDecodeCounts* counts);
    ~FrameSession();
    FrameSession(const FrameSession&) = delete;
    FrameSession& operator=(const FrameSession&) = delete;

    // Opens the file and its video stream when not open yet. False with
    // *problem set ("'<path>': <cause>").
    bool open(std::string* problem);

    const std::string& path() const { return path_; }
    int requestedStream() const { return streamId_; }
    // The container's index of the stream decoded (after open()).
    int streamIndex() const { return reader_ ? reader_->streamIndex() : -1; }
    // The stream's duration in cns, or the container's when the stream has
    // none; 0 when neither is known.
    int64_t duration() const { return duration_; }
    // The stream's frame rate; false when the file tells none.
    bool frameRate(int64_t* num, int64_t* den) const;

    // Whether frames no picture needs may be skipped (see above).
    void setSkipping(bool enable) { skipping_ = enable; }

    // A flag another thread sets when the picture being decoded is no longer
    // wanted: pictureAt() then stops reading and returns AVERROR_EXIT. Where
    // the decoder stood is lost; the owner lets the session go afterwards.
    void setAbandon(const std::atomic<bool>* flag) { abandon_ = flag; }

    // The picture at media time (cns) fitted into width x height, as RGBA
    // into out (width x height x 4 bytes). 0 on success; otherwise a
    // negative code with *problem set ("'<path>': <cause>").
    int pictureAt(int64_t time, bool keyframe, int32_t width, int32_t height, unsigned char* out,
                  std::string* problem);

private:
    bool abandoned() const { return abandon_ != nullptr && abandon_->load(std::memory_order_relaxed); }
    bool reopen(std::string* problem);
    // Forgets where the decoder is (after a seek or reopening).
    void resetPosition();

    // Exact pictures.
    int exactFrame(int64_t time, const AVFrame** shown, int64_t* shownPts, std::string* problem);
    // Whether decoding on from where the decoder is gives the picture at time
    // at no more cost than seeking.
    bool canContinue(int64_t time) const;
    // Positions the decoder so that the next frame is at or before time (or
    // is the stream's first frame), with that frame in cursor_.frames.lookahead.
    int seekBefore(int64_t time, std::string* problem);
    // Decodes until cursor_.frames.current is the frame shown at time.
    void decodeTo(int64_t time);
    // The next frame into cursor_.frames.lookahead; AVERROR_EOF at the end.
    int readAhead(int64_t time);
    // Sends one packet (or the end of the stream) to the decoder; false when
    // the decoder took nothing.
    bool feed(int64_t time);
    // Reads one packet into cursor_.packets; false at the end of the stream.
    bool readPacket();
    // Whether the frame of a packet with this pts may be shown at time or
    // after it (reads further ahead when that helps to know).
    bool needed(int64_t pts, int64_t time);

    // Keyframe pictures.
    int keyFrame(int64_t time, const AVFrame** shown, int64_t* shownPts, std::string* problem);
    // The timestamp of the index entry a seek to time lands on; false when
    // the index does not say.
    bool indexEntryAt(int64_t time, int64_t* timestamp) const;
    // After a seek: decodes the packet of the keyframe at or before time (the
    // first keyframe when there is none) alone into keyFrame_.
    bool decodeKeyPacket(int64_t time);
    // After a seek: decodes normally until the first frame, into keyFrame_.
    bool decodeFirstFrame(int64_t time);

    // Positions the reader so that the next packet is at or before media
    // time target: a seek, or with startOver (or a failed seek, or a target
    // before the start) the beginning of the file, which sets *fromStart.
    // False when the file cannot be opened again.
    bool positionAt(int64_t target, bool startOver, bool* fromStart, std::string* problem);
    bool convert(const AVFrame* frame, int32_t width, int32_t height, unsigned char* out, std::string* problem);
    std::string failure(const std::string& cause) const { return "'" + path_ + "': " + cause; }

    const std::string path_;
    const int streamId_;   // as asked for
    int resolvedStream_;   // the stream decoded, once known
    ThumbDecodeCounts* const counts_;
    std::unique_ptr<MediaReader> reader_;
    int64_t duration_ = 0;
    int rotation_ = 0;
    bool useIndex_ = false;  // the container's keyframe index covers the stream
    int64_t firstEntry_ = 0; // the timestamp of the index's first keyframe
    bool fresh_ = false;     // just opened: nothing read yet

    // The stream's clock, the packets read since the last seek, and the frame
    // shown at the previous time asked for with the one after it.
    av::DecodeCursor cursor_;
    bool draining_ = false;         // the end was sent to the decoder
    bool mustSeek_ = false;         // the decoder is not where the packets say: seek before going on
    int64_t keyRead_ = 0;           // the largest pts of a keyframe packet read
    bool haveKeyRead_ = false;
    bool awaitKey_ = false;         // after a seek: packets before the first keyframe are dropped
    bool skipping_ = true;          // discarding is allowed in this session
    const std::atomic<bool>* abandon_ = nullptr;  // set by another thread: stop decoding
    bool skipNow_ = false;          // discarding is allowed for the packets being sent

    // The keyframe given last.
    FramePtr keyFrame_;
    int64_t keyPts_ = 0;
    int64_t keyEntry_ = 0;          // its index entry's timestamp
    bool haveKey_ = false;
    bool haveKeyEntry_ = false;

    av::RgbaConverter converter_;
    // The picture given last, to give again without converting.
    std::vector<unsigned char> converted_;
    int64_t convertedPts_ = 0;
    bool convertedKeyframe_ = false;
    int32_t convertedWidth_ = 0;
    int32_t convertedHeight_ = 0;
    bool haveConverted_ = false;
};

}  // namespace ZOR::thumb
