// The audio wave extraction task.
//
// A request names frames [first, last] (25 per second, media time) of one
// audio stream. The frames its wave manager does not hold yet are decoded, in
// pieces that the workers decode in parallel, and stored in the manager; then
// the request reports status 2.
//
// Placing samples. Value k of frame f is the peak of the samples n (counted
// from the stream's first decoded sample) with floor(n x 1000 / R) = 40 f + k.
// Decoding from the start counts samples exactly. A piece that starts later
// seeks there instead, which is exact only where the container gives every
// packet a sample-exact timestamp (WAV, W64, AIFF, CAF, FLAC, the MP4 family):
// a decoded frame's first sample is then (pts - origin) x R, origin being the
// timestamp of the first decoded sample, measured once per stream and kept by
// its wave manager. A seek lands a little early (200 ms) so that decoders
// with overlapping frames are settled when the piece begins; if it lands late
// the piece falls back to decoding from the start.
//
// MP3 files (the "mp3" container, regular files) are cut by a packet index
// instead (BtmPacketIndex.h): a first pass demuxes the stream without decoding
// and counts the samples of every packet, start skip and end trimming
// included; pieces then decode from a pre-roll before their first packet and
// place each packet's samples by the index. The samples are bit-identical to
// a sequential decode's, which every piece checks (each packet's sample count,
// and its first packets decoded twice from different pre-rolls); a piece
// that fails a check makes the request decode from the start, over what the
// pieces stored, before it reports. The index also gives the stream's end
// before decoding. The last few indexes are kept for later requests.
//
// Other formats (raw AAC, Matroska, Ogg, ...) are decoded from the start, in
// one piece. Raw AAC is not indexed: the decoder's noise substitution draws
// from a generator that runs on from the start of decoding, so a piece cannot
// reproduce a sequential decode's samples.
//
// Files that change on disk (status 7). append() records the file's identity
// (size and modification time, DmFileIdentity). When the request's decoding
// starts (its first job runs, e.g. after resume()) and the identity differs,
// nothing is decoded: the stream's wave manager adopts the new identity,
// which drops every frame it held (they describe the old content; clips of
// the stream read zeros until new frames are stored), and the request ends
// with status 7 ("submit the request again; it moves to a new token"). A new
// append() then decodes the new content. The same happens when the file
// changes while the request decodes, or when another request or a new clip
// made the manager adopt a newer content meanwhile (the frames this request
// decoded were refused, see IDmAudioWaveStore). A file that cannot be looked
// at (gone, a pipe) has no identity: held frames stay and are served. Status
// 7 is the request's final report, instead of 2, 3 or 4. A request appended
// from inside a report (the usual way to resubmit) starts only once that
// report has returned, so the client has recorded the new token first.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "BtmTaskCore.h"
#include "BtmWaveSamples.h"
#include "DataModel/DmMediaInternal.h"

namespace ZOR::btm {

// One request of the audio wave extraction task.
class AudioRequest final : public Request, public WaveSink {
public:
    AudioRequest(int64_t token, std::string mediaPath, int32_t streamIndex, IDmAudioWaveStore* waveStore,
                 int32_t firstFrame, int32_t lastFrame, int64_t expectedFrames, const DmFileIdentity& identity)
        : Request(token),
          path(std::move(mediaPath)),
          stream(streamIndex),
          store_(waveStore),
          first(firstFrame),
          last(lastFrame),
          frameEstimate(expectedFrames),
          appended(identity) {
        store_->AddRef();
    }
    ~AudioRequest() override { store_->Release(); }

    void fail(const std::string& problem) {
        std::lock_guard<std::mutex> guard(problemLock);
        if (problem_.empty()) problem_ = problem;
    }
    std::string problem() {
        std::lock_guard<std::mutex> guard(problemLock);
        return problem_;
    }
    // Frames complete: into the wave manager, under the content the request
    // decodes (a store that moved to newer content refuses them).
    void store(int32_t firstFrame, int32_t count, int32_t channels, const float* values) override {
        store_->storeChannelFrames(generation, firstFrame, count, channels, values);
        framesDone.fetch_add(count, std::memory_order_acq_rel);
    }
    void ended(int32_t endFrame) override { store_->setEndFrame(generation, endFrame); }

    int32_t percent() const {
        const int64_t total = framesTotal.load(std::memory_order_acquire);
        if (total <= 0) return 0;
        return static_cast<int32_t>(std::min<int64_t>(100, framesDone.load(std::memory_order_acquire) * 100 / total));
    }

    const std::string path;
    const int32_t stream;
    IDmAudioWaveStore* const store_;  // one reference
    const int32_t first;
    const int32_t last;
    const int64_t frameEstimate;    // frames in the stream by its declared duration; 0 when unknown
    const DmFileIdentity appended;  // the file as append() saw it
    // Set by the planning job before any piece is queued (the pool's queue
    // orders it before the pieces read it).
    DmFileIdentity planned;   // the file when decoding started
    uint64_t generation = 0;  // the store's content the pieces write into
    std::atomic<int32_t> piecesLeft{0};
    std::atomic<int64_t> framesTotal{0};
    std::atomic<int64_t> framesDone{0};
    std::atomic<bool> redo{false};  // an indexed piece could not be trusted

private:
    std::mutex problemLock;  // leaf
    std::string problem_;    // guarded by problemLock: the first failure
};

}  // namespace ZOR::btm
