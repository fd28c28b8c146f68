#include "BtmPacketIndex.h"

#include "ZorUtils/ZorUtils.h"

extern "C" {
#include <libavutil/intreadwrite.h>
#include <libavutil/log.h>
}

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>

#include "Common/ZorInternalComUtility.h"

ZOR_LOG_SOURCE("platform/BackgroundTaskManager/BtmPacketIndex")

namespace ZOR::btm {

namespace {

// A pre-roll covers at least this many packets and bytes.
constexpr size_t kPrerollPackets = 10;
constexpr int64_t kPrerollBytes = 3072;
// Bytes read from the file at a time.
constexpr size_t kReadBlock = size_t{1} << 20;
// Indexes kept for later requests.
constexpr size_t kKeptIndexes = 4;

std::atomic<int32_t> gPrerollOverride{-1};

// What an MPEG audio frame header says.
struct MpegHeader {
    int32_t bytes = 0;    // the frame's size, header included
    int32_t samples = 0;  // per channel
    int32_t rate = 0;
};

// Parses the header at data; false when it is not a valid header (free
// format included: its size is not in the header).
bool parseMpegHeader(const uint8_t* data, int size, MpegHeader* header) {
    if (size < 4) return false;
    const uint32_t word = AV_RB32(data);
    if ((word >> 21) != 0x7FF) return false;
    const uint32_t version = (word >> 19) & 3;  // 0: MPEG 2.5, 2: MPEG 2, 3: MPEG 1
    const uint32_t layer = (word >> 17) & 3;    // 1: III, 2: II, 3: I
    const uint32_t bitrateIndex = (word >> 12) & 15;
    const uint32_t rateIndex = (word >> 10) & 3;
    const uint32_t padding = (word >> 9) & 1;
    if (version == 1 || layer == 0 || bitrateIndex == 0 || bitrateIndex == 15 || rateIndex == 3) return false;
    static const int32_t kKbps[2][3][15] = {
        {{0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},  // MPEG 1, layer I
         {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},     // layer II
         {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320}},     // layer III
        {{0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},     // MPEG 2 and 2.5, layer I
         {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},          // layer II
         {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160}}};        // layer III
    static const int32_t kRates[3] = {44100, 48000, 32000};
    const bool mpeg1 = version == 3;
    const int layerNumber = 4 - static_cast<int>(layer);  // 1, 2 or 3
    const int64_t bitrate = int64_t{kKbps[mpeg1 ? 0 : 1][layerNumber - 1][bitrateIndex]} * 1000;
    const int32_t rate = kRates[rateIndex] >> (version == 3 ? 0 : version == 2 ? 1 : 2);
    int64_t bytes = 0;
    int32_t samples = 0;
    if (layerNumber == 1) {
        bytes = (12 * bitrate / rate + padding) * 4;
        samples = 384;
    } else if (layerNumber == 2 || mpeg1) {
        bytes = 144 * bitrate / rate + padding;
        samples = 1152;
    } else {
        bytes = 72 * bitrate / rate + padding;
        samples = 576;
    }
    header->bytes = static_cast<int32_t>(bytes);
    header->samples = samples;
    header->rate = rate;
    return true;
}

// The indexes built so far, newest first. Failures are kept too (null index).
struct IndexCache {
    struct Entry {
        std::string path;
        int32_t stream = -1;
        DmFileIdentity identity;
        std::shared_ptr<const PacketIndex> index;
        std::string why;
    };
    std::mutex lock;            // leaf: held around the list only
    std::deque<Entry> entries;  // guarded by lock
};

IndexCache& indexCache() {
    static IndexCache* instance = new IndexCache;  // never destroyed: workers may run until exit
    return *instance;
}

bool findKept(const std::string& path, int32_t stream, const DmFileIdentity& identity,
              std::shared_ptr<const PacketIndex>* index, std::string* why) {
    IndexCache& cache = indexCache();
    std::lock_guard<std::mutex> guard(cache.lock);
    for (auto it = cache.entries.begin(); it != cache.entries.end(); ++it) {
        if (it->path == path && it->stream == stream && it->identity == identity) {
            *index = it->index;
            if (why != nullptr) *why = it->why;
            IndexCache::Entry entry = std::move(*it);
            cache.entries.erase(it);
            cache.entries.push_front(std::move(entry));
            return true;
        }
    }
    return false;
}

}  // namespace

PacketIndex::~PacketIndex() { avcodec_parameters_free(&parameters_); }

size_t PacketIndex::packetOf(int64_t sample) const {
    // The last packet whose first sample is at or before sample: among
    // packets that give nothing and the one after them, the one that gives it.
    const auto end = first_.end() - 1;
    const auto found = std::upper_bound(first_.begin(), end, sample);
    return static_cast<size_t>(std::max<ptrdiff_t>(0, (found - first_.begin()) - 1));
}

const std::array<uint8_t, 10>* PacketIndex::sideData(size_t packet) const {
    const auto found = std::lower_bound(side_.begin(), side_.end(), packet,
                                        [](const auto& entry, size_t p) { return entry.first < p; });
    return found != side_.end() && found->first == packet ? &found->second : nullptr;
}

size_t PacketIndex::startFor(size_t packet, int factor) const {
    size_t start = packet;
    const int32_t forced = gPrerollOverride.load(std::memory_order_relaxed);
    if (forced >= 0) {
        const size_t back = static_cast<size_t>(forced) * static_cast<size_t>(factor);
        start = packet > back ? packet - back : 0;
    } else {
        int64_t bytes = 0;
        size_t count = 0;
        while (start > 0 && (count < kPrerollPackets * static_cast<size_t>(factor) || bytes < kPrerollBytes * factor)) {
            --start;
            ++count;
            bytes += size_[start];
        }
    }
    return start < settledFrom_ ? 0 : start;
}

std::shared_ptr<const PacketIndex> PacketIndex::build(MediaDecoder& decoder, const std::function<bool()>& stop,
                                                      std::string* why) {
    auto reject = [why](const std::string& cause) -> std::shared_ptr<const PacketIndex> {
        if (why != nullptr) *why = cause;
        return nullptr;
    };
    AVFormatContext* format = decoder.format();
    AVStream* stream = decoder.stream();
    if (format == nullptr || stream == nullptr) return reject("not open");
    if (format->iformat == nullptr || format->iformat->name == nullptr ||
        std::strcmp(format->iformat->name, "mp3") != 0)
        return reject("not an MP3 file");
    if (stream->codecpar->codec_id != AV_CODEC_ID_MP3) return reject("not MPEG audio layer III");
    if (stream->codecpar->sample_rate <= 0) return reject("no sample rate");

    auto index = std::make_shared<PacketIndex>();
    index->rate_ = stream->codecpar->sample_rate;
    index->timeBase_ = stream->time_base;
    PacketPtr packet(av_packet_alloc());
    if (!packet) return reject(avErrorText(AVERROR(ENOMEM)));

    // The decoder's skip and trimming, replayed over the packets.
    int64_t skip = 0;
    int64_t next = 0;  // the first sample of the next packet
    for (size_t count = 0;; ++count) {
        if ((count & 255) == 0 && stop && stop()) return reject("stopped");
        const int result = av_read_frame(format, packet.get());
        if (result == AVERROR_EOF) break;
        if (result < 0) return reject("reading: " + avErrorText(result));
        if (packet->stream_index != stream->index) {
            av_packet_unref(packet.get());
            continue;
        }
        const size_t at = index->size_.size();
        MpegHeader header;
        if (packet->pos < 0) return reject("a packet without a position");
        if ((packet->flags & ~AV_PKT_FLAG_KEY) != 0) return reject("a packet with flags");
        if (!parseMpegHeader(packet->data, packet->size, &header) || header.bytes != packet->size)
            return reject("packet " + std::to_string(at) + " at byte " + std::to_string(packet->pos) +
                          " is not one whole MPEG audio frame");
        if (header.rate != index->rate_) return reject("the sample rate changes");
        int64_t padding = 0;
        const bool skippedBefore = skip > 0;
        for (int i = 0; i < packet->side_data_elems; ++i) {
            const AVPacketSideData& side = packet->side_data[i];
            if (side.type != AV_PKT_DATA_SKIP_SAMPLES || side.size < 10)
                return reject("packet side data other than skip samples");
            std::array<uint8_t, 10> bytes{};
            std::memcpy(bytes.data(), side.data, bytes.size());
            index->side_.emplace_back(at, bytes);
            skip = std::max<int64_t>(0, static_cast<int32_t>(AV_RL32(side.data)));
            padding = AV_RL32(side.data + 4);
        }
        // As libavcodec applies AV_PKT_DATA_SKIP_SAMPLES to a decoded frame.
        int64_t output = header.samples;
        if (skip > 0) {
            if (output <= skip) {
                skip -= output;
                output = 0;
            } else {
                output -= skip;
                skip = 0;
            }
        }
        if (output > 0 && padding > 0 && padding <= output) output -= padding;
        // A decoder that starts here would not skip what a sequential one still does.
        if (skippedBefore) index->settledFrom_ = at + 1;
        index->position_.push_back(packet->pos);
        index->size_.push_back(packet->size);
        index->first_.push_back(next);
        next += output;
        av_packet_unref(packet.get());
    }
    index->first_.push_back(next);
    if (index->size_.empty() || next <= 0) return reject("no samples");
    index->parameters_ = avcodec_parameters_alloc();
    if (index->parameters_ == nullptr || avcodec_parameters_copy(index->parameters_, stream->codecpar) < 0)
        return reject(avErrorText(AVERROR(ENOMEM)));
    return index;
}

std::shared_ptr<const PacketIndex> keptPacketIndex(const std::string& path, int32_t stream,
                                                   const DmFileIdentity& identity) {
    std::shared_ptr<const PacketIndex> index;
    if (!identity.regular || !findKept(path, stream, identity, &index, nullptr)) return nullptr;
    return index;
}

std::shared_ptr<const PacketIndex> packetIndexFor(const std::string& path, int32_t stream,
                                                  const DmFileIdentity& identity, MediaDecoder* decoder,
                                                  const std::function<bool()>& stop, std::string* why) {
    if (!identity.regular) {
        if (why != nullptr) *why = "not a regular file";
        return nullptr;
    }
    std::shared_ptr<const PacketIndex> index;
    if (findKept(path, stream, identity, &index, why)) return index;
    if (decoder == nullptr) return nullptr;
    std::string cause;
    index = PacketIndex::build(*decoder, stop, &cause);
    if (!index && cause == "stopped") return nullptr;  // not a property of the file
    if (why != nullptr) *why = cause;
    IndexCache& cache = indexCache();
    std::deque<IndexCache::Entry> dropped;  // released outside the lock
    {
        std::lock_guard<std::mutex> guard(cache.lock);
        cache.entries.push_front(IndexCache::Entry{path, stream, identity, index, cause});
        while (cache.entries.size() > kKeptIndexes) {
            dropped.push_back(std::move(cache.entries.back()));
            cache.entries.pop_back();
        }
    }
    return index;
}

IndexedDecoder::~IndexedDecoder() {
    av_frame_free(&extra_);
    av_packet_free(&packet_);
    avcodec_free_context(&codec_);
    if (fd_ >= 0) ::close(fd_);
}

bool IndexedDecoder::open(const std::string& path, std::shared_ptr<const PacketIndex> index, std::string* problem) {
    path_ = path;
    index_ = std::move(index);
    auto fail = [&](const std::string& cause) {
        if (problem != nullptr) *problem = "'" + path + "': " + cause;
        return false;
    };
    if (!index_) return fail("no packet index");
    // Media held in memory is read from there, as the demuxer reads it.
    if (!findMemoryMedia(path.c_str(), &memory_, &memorySize_)) {
        memory_ = nullptr;
        fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) return fail(std::strerror(errno));
    }
    const AVCodec* decoder = avcodec_find_decoder(index_->parameters()->codec_id);
    if (decoder == nullptr)
        return fail(std::string("no decoder for ") + avcodec_get_name(index_->parameters()->codec_id));
    codec_ = avcodec_alloc_context3(decoder);
    packet_ = av_packet_alloc();
    extra_ = av_frame_alloc();
    if (codec_ == nullptr || packet_ == nullptr || extra_ == nullptr) return fail(avErrorText(AVERROR(ENOMEM)));
    int result = avcodec_parameters_to_context(codec_, index_->parameters());
    if (result < 0) return fail(avErrorText(result));
    codec_->pkt_timebase = index_->timeBase();
    codec_->thread_count = 1;
    result = avcodec_open2(codec_, decoder, nullptr);
    if (result < 0) return fail(avErrorText(result));
    return true;
}

void IndexedDecoder::setQuiet(bool quiet) {
    if (codec_ != nullptr) codec_->log_level_offset = quiet ? AV_LOG_DEBUG - AV_LOG_ERROR : 0;
}

bool IndexedDecoder::fill(int64_t position, int32_t size) {
    if (position >= bufferAt_ && position + size <= bufferAt_ + static_cast<int64_t>(bufferSize_)) return true;
    const size_t want = std::max(kReadBlock, static_cast<size_t>(size));
    buffer_.resize(want);
    size_t got = 0;
    if (memory_ != nullptr && position >= 0 && static_cast<uint64_t>(position) < memorySize_) {
        got = std::min(want, memorySize_ - static_cast<size_t>(position));
        std::memcpy(buffer_.data(), memory_ + position, got);
    }
    while (memory_ == nullptr && got < want) {
        const ssize_t read =
            ::pread(fd_, buffer_.data() + got, want - got, static_cast<off_t>(position) + static_cast<off_t>(got));
        if (read < 0 && errno == EINTR) continue;
        if (read <= 0) break;
        got += static_cast<size_t>(read);
    }
    bufferAt_ = position;
    bufferSize_ = got;
    return got >= static_cast<size_t>(size);
}

int IndexedDecoder::decode(size_t packet, AVFrame* frame, int* frames) {
    *frames = 0;
    const int64_t position = index_->position(packet);
    const int32_t size = index_->size(packet);
    if (!fill(position, size)) return AVERROR(EIO);
    int result = av_new_packet(packet_, size);
    if (result < 0) return result;
    std::memcpy(packet_->data, buffer_.data() + (position - bufferAt_), static_cast<size_t>(size));
    if (const std::array<uint8_t, 10>* side = index_->sideData(packet)) {
        uint8_t* data = av_packet_new_side_data(packet_, AV_PKT_DATA_SKIP_SAMPLES, side->size());
        if (data == nullptr) {
            av_packet_unref(packet_);
            return AVERROR(ENOMEM);
        }
        std::memcpy(data, side->data(), side->size());
    }
    // A packet the decoder refuses gives no frame, as in a sequential decode.
    avcodec_send_packet(codec_, packet_);
    av_packet_unref(packet_);
    if (avcodec_receive_frame(codec_, frame) == 0) {
        *frames = 1;
        while (avcodec_receive_frame(codec_, extra_) == 0) {
            ++*frames;
            av_frame_unref(extra_);
        }
    }
    return 0;
}

PacketIndexFacts packetIndexFacts(const std::string& path, int32_t stream) {
    PacketIndexFacts facts;
    MediaDecoder decoder;
    if (!decoder.open(path, stream, &facts.why)) return facts;
    const std::shared_ptr<const PacketIndex> index = PacketIndex::build(decoder, nullptr, &facts.why);
    if (!index) return facts;
    facts.indexed = true;
    facts.packets = static_cast<int64_t>(index->packets());
    facts.samples = index->totalSamples();
    facts.sampleRate = index->sampleRate();
    facts.prerollStart = static_cast<int64_t>(index->startFor(index->packets() / 2, 1));
    return facts;
}

void setPacketIndexPreroll(int32_t packets) { gPrerollOverride.store(packets, std::memory_order_relaxed); }

}  // namespace ZOR::btm
