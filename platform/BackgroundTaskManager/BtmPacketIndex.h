// The packet index of an MP3 stream: where each packet lies in the file and
// which decoded samples it gives, found by demuxing alone (no decoding). With
// it a piece of the stream can be decoded on its own and its samples placed
// exactly, although MP3 timestamps are not sample-exact.
//
// The first pass reads every packet of the stream once through libavformat
// and keeps its byte position and size, its AV_PKT_DATA_SKIP_SAMPLES side
// data (the start skip, or encoder delay, on the first packet and the end
// trimming on the last ones), and the samples its frame holds (from the MPEG
// audio header, which must describe exactly the packet's bytes). Replaying the
// decoder's skip and trimming rules over those counts gives the index n of
// every packet's first output sample, counted from the first sample a plain
// sequential decode gives, and the stream's total.
//
// A piece is decoded by feeding the decoder the recorded packets (the same
// bytes and side data a sequential decode gets) from a pre-roll before its
// first one (at least 10 packets and 3 KiB: MP3 frames reach back at most 511
// bytes into the bit reservoir); the pre-roll output is discarded: it settles
// the bit reservoir, the overlap of the transform and the synthesis filter. Nothing is
// trusted blindly: every packet's output must hold exactly the samples the
// index says, and a piece checks its start by decoding its first packets a
// second time from twice as far back; both decodes must give bit-identical
// samples. A piece that fails either check makes its request decode from the
// start instead, and the index is not used for pieces again.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "BtmMediaDecoder.h"
#include "DataModel/DmMediaInternal.h"

namespace ZOR::btm {

class PacketIndex {
public:
    PacketIndex() = default;
    ~PacketIndex();
    PacketIndex(const PacketIndex&) = delete;
    PacketIndex& operator=(const PacketIndex&) = delete;

    size_t packets() const { return size_.size(); }
    int64_t position(size_t packet) const { return position_[packet]; }
    int32_t size(size_t packet) const { return size_[packet]; }
    // The index n of the first sample packet's output holds; firstSample(packets()) is the total.
    int64_t firstSample(size_t packet) const { return first_[packet]; }
    int64_t outputOf(size_t packet) const { return first_[packet + 1] - first_[packet]; }
    int64_t totalSamples() const { return first_.back(); }
    int32_t sampleRate() const { return rate_; }
    const AVCodecParameters* parameters() const { return parameters_; }
    AVRational timeBase() const { return timeBase_; }
    // The packet whose output holds sample n (n < totalSamples()).
    size_t packetOf(int64_t sample) const;
    // The side data of a packet, or null.
    const std::array<uint8_t, 10>* sideData(size_t packet) const;
    // Packets from which a decoder may start, the decoder's skip being done:
    // a decoder started before it starts from packet 0.
    size_t settledFrom() const { return settledFrom_; }
    // Where a decoder starts so that packet is settled: far enough back to
    // cover `factor` pre-rolls; 0 when that reaches back to where the decoder's
    // start skip is not done yet.
    size_t startFor(size_t packet, int factor) const;

    // Set when a piece's check failed: pieces decode from the start instead.
    bool distrusted() const { return distrusted_.load(std::memory_order_acquire); }
    void distrust() const { distrusted_.store(true, std::memory_order_release); }

    // The first pass over a stream opened by decoder (no frame read yet).
    // Null when the stream cannot be indexed; *why says why.
    static std::shared_ptr<const PacketIndex> build(MediaDecoder& decoder, const std::function<bool()>& stop,
                                                    std::string* why);

private:
    std::vector<int64_t> position_;
    std::vector<int32_t> size_;
    std::vector<int64_t> first_;                                    // one more than there are packets
    std::vector<std::pair<size_t, std::array<uint8_t, 10>>> side_;  // ascending packet
    size_t settledFrom_ = 0;
    int32_t rate_ = 0;
    AVRational timeBase_{0, 1};
    AVCodecParameters* parameters_ = nullptr;
    mutable std::atomic<bool> distrusted_{false};
};

// The index of (path, stream) for the file's identity: the one built before,
// or a new one from decoder (which must have opened that stream and read no
// frame). The last few indexes are kept. Null when the stream cannot be
// indexed (*why says why) or the file has no identity (not a regular file).
std::shared_ptr<const PacketIndex> packetIndexFor(const std::string& path, int32_t stream,
                                                  const DmFileIdentity& identity, MediaDecoder* decoder,
                                                  const std::function<bool()>& stop, std::string* why);
// The kept index, without building one; null when there is none.
std::shared_ptr<const PacketIndex> keptPacketIndex(const std::string& path, int32_t stream,
                                                   const DmFileIdentity& identity);

// Decodes the packets of an index one at a time, read from the file by
// position. One thread at a time.
class IndexedDecoder {
public:
    IndexedDecoder() = default;
    ~IndexedDecoder();
    IndexedDecoder(const IndexedDecoder&) = delete;
    IndexedDecoder& operator=(const IndexedDecoder&) = delete;

    // quiet: the decoder's complaints are demoted to debug messages (a
    // pre-roll starts without the bit reservoir, as expected).
    bool open(const std::string& path, std::shared_ptr<const PacketIndex> index, std::string* problem);
    void setQuiet(bool quiet);

    // Decodes packet `packet`. frame receives its output; *frames says how
    // many frames it gave (the extra ones are dropped). Returns 0, or a
    // negative AVERROR when the file could not be read.
    int decode(size_t packet, AVFrame* frame, int* frames);

private:
    bool fill(int64_t position, int32_t size);

    std::string path_;
    std::shared_ptr<const PacketIndex> index_;
    int fd_ = -1;
    const unsigned char* memory_ = nullptr;  // the bytes of media held in memory, or null
    size_t memorySize_ = 0;
    AVCodecContext* codec_ = nullptr;
    AVPacket* packet_ = nullptr;
    AVFrame* extra_ = nullptr;
    std::vector<uint8_t> buffer_;  // file bytes [bufferAt_, bufferAt_ + bufferSize_)
    int64_t bufferAt_ = 0;
    size_t bufferSize_ = 0;
};

// For tests: what the first pass makes of a file's stream.
struct PacketIndexFacts {
    bool indexed = false;
    int64_t packets = 0;
    int64_t samples = 0;  // decoded samples of a sequential decode, per channel
    int32_t sampleRate = 0;
    int64_t prerollStart = 0;  // where a piece starting at the middle packet starts decoding
    std::string why;           // when not indexed
};
PacketIndexFacts packetIndexFacts(const std::string& path, int32_t stream);
// For tests: the pre-roll of the pieces, in packets (-1: the default).
void setPacketIndexPreroll(int32_t packets);

}  // namespace ZOR::btm
