#include "DmAudioWaveMgr.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>

#include "DataModel/DmCache.h"
#include "ZorUtils/ZorUtils.h"

ZOR_LOG_SOURCE("platform/DataModel/DmAudioWaveMgr")

namespace ZOR {

namespace {

bool isWaveRate(int64_t rateNum, int64_t rateDen) {
    // 25/1, 50/2, ...: the only rate the wave data is kept at.
    return rateNum > 0 && rateDen > 0 && rateNum == IDmAudioWaveStore::kFrameRateNum * rateDen;
}

// The registry of living managers, keyed by stream and canonical path.
struct Registry {
    std::mutex lock;  // leaf: held only around the map, never while calling out
    std::map<std::pair<std::string, int32_t>, RefCntWeakHolder<IDmAudioWaveMgrInternal>> entries;  // guarded by lock
};

Registry& registry() {
    static Registry* instance = new Registry;  // never destroyed: managers may outlive static destruction
    return *instance;
}

}  // namespace

DmAudioWaveManager::DmAudioWaveManager(std::string mediaPath, int32_t stream, int32_t channels,
                                       const DmFileIdentity& identity)
    : mediaPath_(std::move(mediaPath)),
      stream_(stream),
      channels_(std::clamp<int32_t>(channels, 1, static_cast<int32_t>(DmWaveStoreData::kMostChannels))),
      identity_(identity) {}

DmAudioWaveManager::~DmAudioWaveManager() {
    // What was decoded is kept for the next process.
    flush();
    if (!heldStore_.empty()) releaseCacheFile(heldStore_);
}

void* DmAudioWaveManager::queryInterface(const char* name) {
    if (name == nullptr) return nullptr;
    if (std::strcmp(name, "IDmAudioWaveMgrInternal") == 0) return static_cast<IDmAudioWaveMgrInternal*>(this);
    if (std::strcmp(name, "IDmAudioWaveStore") == 0) return static_cast<IDmAudioWaveStore*>(this);
    if (std::strcmp(name, "IDmBaseObj") == 0)
        return static_cast<IDmBaseObj*>(static_cast<IDmAudioWaveMgrInternal*>(this));
    if (std::strcmp(name, "RefCnt") == 0) return static_cast<RefCnt<void>*>(this);
    return nullptr;
}

uint16_t DmAudioWaveManager::quantise(float value) {
    if (!(value > 0.0f)) return 0;  // also NaN
    const double step = std::round(static_cast<double>(value) * kStepsPerFullScale);
    return step >= 65535.0 ? uint16_t{65535} : static_cast<uint16_t>(step);
}

float DmAudioWaveManager::dequantise(uint16_t step) {
    return static_cast<float>(static_cast<double>(step) / kStepsPerFullScale);
}

uint32_t DmAudioWaveManager::valueCountPerFrame(int64_t rateNum, int64_t rateDen) {
    return isWaveRate(rateNum, rateDen) ? static_cast<uint32_t>(kValuesPerFrame) : 0;
}

bool DmAudioWaveManager::isHeldLocked(int32_t frame) const {
    if (frame < 0) return false;
    const size_t chunk = static_cast<size_t>(frame / kChunkFrames);
    if (chunk >= chunks_.size() || !chunks_[chunk]) return false;
    return chunks_[chunk]->held.test(static_cast<size_t>(frame % kChunkFrames));
}

int32_t DmAudioWaveManager::readFrame(int32_t frame, int64_t rateNum, int64_t rateDen, float* values, uint32_t count) {
    if (values == nullptr && count > 0) return kResultFailure;
    std::fill(values, values + count, 0.0f);
    if (!isWaveRate(rateNum, rateDen)) return 1002;
    std::shared_lock<std::shared_mutex> lock(lock_);
    if (!isHeldLocked(frame)) return kResultFailure;
    const Chunk& chunk = *chunks_[static_cast<size_t>(frame / kChunkFrames)];
    const size_t base = static_cast<size_t>(frame % kChunkFrames) * kValuesPerFrame * static_cast<size_t>(channels_);
    const uint32_t copied = std::min<uint32_t>(count, static_cast<uint32_t>(kValuesPerFrame));
    for (uint32_t k = 0; k < copied; ++k) {
        uint16_t step = chunk.values[base + k];
        for (int32_t c = 1; c < channels_; ++c)
            step = std::max(step, chunk.values[base + static_cast<size_t>(c) * kValuesPerFrame + k]);
        values[k] = dequantise(step);
    }
    return 0;
}

int32_t DmAudioWaveManager::hasFrames(int32_t first, int32_t last) {
    if (first < 0 || last < first) return 0;
    std::shared_lock<std::shared_mutex> lock(lock_);
    for (int32_t frame = first; frame <= last; ++frame)
        if (!isHeldLocked(frame)) return 0;
    return 1;
}

std::vector<std::pair<int32_t, int32_t>> DmAudioWaveManager::missingRanges(int32_t first, int32_t last) {
    std::vector<std::pair<int32_t, int32_t>> ranges;
    // Adds [from, to] to the ranges, joining it to the one before when they touch.
    auto missing = [&ranges](int32_t from, int32_t to) {
        if (!ranges.empty() && int64_t{ranges.back().second} + 1 == from)
            ranges.back().second = to;
        else
            ranges.emplace_back(from, to);
    };
    first = std::max(first, 0);
    std::shared_lock<std::shared_mutex> lock(lock_);
    if (endFrame_ >= 0) last = std::min(last, endFrame_ - 1);
    int64_t frame = first;
    while (frame <= last) {
        const size_t chunk = static_cast<size_t>(frame / kChunkFrames);
        const int64_t chunkEnd = std::min<int64_t>(last, (static_cast<int64_t>(chunk) + 1) * kChunkFrames - 1);
        if (chunk >= chunks_.size()) {  // nothing stored this far: the rest is missing
            missing(static_cast<int32_t>(frame), last);
            break;
        }
        if (!chunks_[chunk]) {
            missing(static_cast<int32_t>(frame), static_cast<int32_t>(chunkEnd));
        } else {
            for (; frame <= chunkEnd; ++frame)
                if (!chunks_[chunk]->held.test(static_cast<size_t>(frame % kChunkFrames)))
                    missing(static_cast<int32_t>(frame), static_cast<int32_t>(frame));
        }
        frame = chunkEnd + 1;
    }
    return ranges;
}

uint64_t DmAudioWaveManager::adoptContent(const DmFileIdentity& identity) {
    uint64_t generation = 0;
    std::vector<std::unique_ptr<Chunk>> dropped;  // freed outside the lock
    {
        std::unique_lock<std::shared_mutex> lock(lock_);
        if (!identity.regular || identity == identity_) return generation_;
        identity_ = identity;
        generation = ++generation_;
        dropped.swap(chunks_);
        endFrame_ = -1;
        haveOrigin_ = false;
        originPts_ = 0;
        originRate_ = 0;
        haveFingerprint_ = false;
        dirty_ = false;
    }
    // The new content may have been decoded by an earlier process.
    loadStore();
    ZOR_LOG(IBsLogger::Debug, "ZOR::DmAudioWaveManager::adoptContent",
            "'%s' stream %d changed on disk (%lld bytes): held frames dropped, generation %llu", mediaPath_.c_str(),
            stream_, static_cast<long long>(identity.size), static_cast<unsigned long long>(generation));
    return generation;
}

uint64_t DmAudioWaveManager::contentGeneration() {
    std::shared_lock<std::shared_mutex> lock(lock_);
    return generation_;
}

int32_t DmAudioWaveManager::storeFrames(uint64_t generation, int32_t first, int32_t frameCount, const float* values) {
    if (first < 0 || frameCount < 0 || (values == nullptr && frameCount > 0)) return kResultFailure;
    if (frameCount == 0) return 0;
    if (int64_t{first} + frameCount > int64_t{INT32_MAX}) return kResultFailure;
    // Quantise outside the lock.
    std::vector<uint16_t> steps(static_cast<size_t>(frameCount) * kValuesPerFrame);
    for (size_t i = 0; i < steps.size(); ++i) steps[i] = quantise(values[i]);

    std::unique_lock<std::shared_mutex> lock(lock_);
    if (generation != generation_) return kStaleGeneration;
    for (int32_t i = 0; i < frameCount; ++i) {
        uint16_t* out = frameValuesLocked(first + i);
        for (int32_t c = 0; c < channels_; ++c)
            std::copy_n(steps.begin() + static_cast<ptrdiff_t>(i) * kValuesPerFrame, kValuesPerFrame,
                        out + static_cast<ptrdiff_t>(c) * kValuesPerFrame);
    }
    refreshCoarseLocked(first, frameCount);
    dirty_ = true;
    return 0;
}

void DmAudioWaveManager::refreshCoarseLocked(int32_t first, int32_t count) {
    const int64_t firstWindow = int64_t{first} * kValuesPerFrame;
    const int64_t endWindow = (int64_t{first} + count) * kValuesPerFrame;
    const auto channels = static_cast<size_t>(channels_);
    for (int64_t block = firstWindow / 256 * 256; block < endWindow; block += 256) {
        const auto index = static_cast<size_t>(block / kChunkWindows);
        if (index >= chunks_.size() || !chunks_[index]) continue;
        Chunk& chunk = *chunks_[index];
        const auto inChunk = static_cast<size_t>(block % kChunkWindows);
        for (size_t c = 0; c < channels; ++c) {
            uint16_t big = 0;
            for (size_t b16 = inChunk / 16; b16 < inChunk / 16 + 16; ++b16) {
                uint16_t small = 0;
                for (size_t w = b16 * 16; w < b16 * 16 + 16; ++w)
                    small = std::max(
                        small,
                        chunk.values[((w / kValuesPerFrame) * channels + c) * kValuesPerFrame + w % kValuesPerFrame]);
                chunk.coarse16[c * (kChunkWindows / 16) + b16] = small;
                big = std::max(big, small);
            }
            chunk.coarse256[c * (kChunkWindows / 256) + inChunk / 256] = big;
        }
    }
}

uint16_t DmAudioWaveManager::chunkPeakLocked(const Chunk& chunk, int32_t channel, int64_t first, int64_t end) const {
    // first and end are windows inside the chunk.
    const auto channels = static_cast<size_t>(channels_);
    uint16_t best = 0;
    for (size_t c = 0; c < channels; ++c) {
        if (channel >= 0 && static_cast<size_t>(channel) != c) continue;
        int64_t w = first;
        while (w < end) {
            if (w % 256 == 0 && w + 256 <= end) {
                best = std::max(best, chunk.coarse256[c * (kChunkWindows / 256) + static_cast<size_t>(w / 256)]);
                w += 256;
            } else if (w % 16 == 0 && w + 16 <= end) {
                best = std::max(best, chunk.coarse16[c * (kChunkWindows / 16) + static_cast<size_t>(w / 16)]);
                w += 16;
            } else {
                const auto window = static_cast<size_t>(w);
                best = std::max(best, chunk.values[((window / kValuesPerFrame) * channels + c) * kValuesPerFrame +
                                                   window % kValuesPerFrame]);
                ++w;
            }
        }
    }
    return best;
}

float DmAudioWaveManager::channelPeak(int32_t channel, int64_t firstWindow, int64_t endWindow) {
    if (channel < -1 || channel >= channels_) return 0.0f;
    firstWindow = std::max<int64_t>(firstWindow, 0);
    std::shared_lock<std::shared_mutex> lock(lock_);
    endWindow = std::min<int64_t>(endWindow, static_cast<int64_t>(chunks_.size()) * kChunkWindows);
    uint16_t best = 0;
    for (int64_t w = firstWindow; w < endWindow;) {
        const int64_t index = w / kChunkWindows;
        const int64_t chunkEnd = std::min(endWindow, (index + 1) * kChunkWindows);
        if (const auto& chunk = chunks_[static_cast<size_t>(index)])
            best = std::max(
                best, chunkPeakLocked(*chunk, channel, w - index * kChunkWindows, chunkEnd - index * kChunkWindows));
        w = chunkEnd;
    }
    return dequantise(best);
}

uint16_t* DmAudioWaveManager::frameValuesLocked(int32_t frame) {
    const size_t index = static_cast<size_t>(frame / kChunkFrames);
    if (chunks_.size() <= index) chunks_.resize(index + 1);
    std::unique_ptr<Chunk>& chunk = chunks_[index];
    if (!chunk) chunk = std::make_unique<Chunk>(channels_);
    const size_t slot = static_cast<size_t>(frame % kChunkFrames);
    chunk->held.set(slot);
    return chunk->values.data() + slot * kValuesPerFrame * static_cast<size_t>(channels_);
}

int32_t DmAudioWaveManager::storeChannelFrames(uint64_t generation, int32_t first, int32_t frameCount, int32_t channels,
                                               const float* values) {
    if (first < 0 || frameCount < 0 || channels < 1 || (values == nullptr && frameCount > 0)) return kResultFailure;
    if (frameCount == 0) return 0;
    if (int64_t{first} + frameCount > int64_t{INT32_MAX}) return kResultFailure;
    // Quantised outside the lock, folded into the channels kept: a stream
    // whose decoded layout has more channels than it declared keeps the
    // largest of channel c, c + kept, c + 2 x kept ... in channel c.
    const size_t perFrame = static_cast<size_t>(channels_) * kValuesPerFrame;
    std::vector<uint16_t> steps(static_cast<size_t>(frameCount) * perFrame, 0);
    for (int32_t i = 0; i < frameCount; ++i)
        for (int32_t c = 0; c < channels; ++c)
            for (int32_t k = 0; k < kValuesPerFrame; ++k) {
                const float value =
                    values[(static_cast<size_t>(i) * static_cast<size_t>(channels) + c) * kValuesPerFrame + k];
                uint16_t& step =
                    steps[static_cast<size_t>(i) * perFrame + static_cast<size_t>(c % channels_) * kValuesPerFrame + k];
                step = std::max(step, quantise(value));
            }
    std::unique_lock<std::shared_mutex> lock(lock_);
    if (generation != generation_) return kStaleGeneration;
    for (int32_t i = 0; i < frameCount; ++i)
        std::copy_n(steps.begin() + static_cast<ptrdiff_t>(static_cast<size_t>(i) * perFrame), perFrame,
                    frameValuesLocked(first + i));
    refreshCoarseLocked(first, frameCount);
    dirty_ = true;
    return 0;
}

int32_t DmAudioWaveManager::channelCount() { return channels_; }

int32_t DmAudioWaveManager::readChannelWindows(int32_t channel, int64_t firstWindow, int32_t count, float* values) {
    if (count < 0 || (count > 0 && values == nullptr) || channel < -1 || channel >= channels_) return kResultFailure;
    std::fill(values, values + count, 0.0f);
    std::shared_lock<std::shared_mutex> lock(lock_);
    for (int32_t i = 0; i < count; ++i) {
        const int64_t window = firstWindow + i;
        if (window < 0 || window / kValuesPerFrame > INT32_MAX) continue;
        const auto frame = static_cast<int32_t>(window / kValuesPerFrame);
        if (!isHeldLocked(frame)) continue;
        const Chunk& chunk = *chunks_[static_cast<size_t>(frame / kChunkFrames)];
        const size_t base =
            static_cast<size_t>(frame % kChunkFrames) * kValuesPerFrame * static_cast<size_t>(channels_) +
            static_cast<size_t>(window % kValuesPerFrame);
        uint16_t step = 0;
        for (int32_t c = 0; c < channels_; ++c)
            if (channel == -1 || channel == c)
                step = std::max(step, chunk.values[base + static_cast<size_t>(c) * kValuesPerFrame]);
        values[i] = dequantise(step);
    }
    return 0;
}

int32_t DmAudioWaveManager::endFrame() {
    std::shared_lock<std::shared_mutex> lock(lock_);
    return endFrame_;
}

void DmAudioWaveManager::setEndFrame(uint64_t generation, int32_t frame) {
    if (frame < 0) return;
    std::unique_lock<std::shared_mutex> lock(lock_);
    if (generation == generation_) endFrame_ = frame;
}

bool DmAudioWaveManager::decodeOrigin(uint64_t generation, int64_t* pts, int32_t* sampleRate) {
    std::shared_lock<std::shared_mutex> lock(lock_);
    if (!haveOrigin_ || generation != generation_) return false;
    if (pts != nullptr) *pts = originPts_;
    if (sampleRate != nullptr) *sampleRate = originRate_;
    return true;
}

void DmAudioWaveManager::setDecodeOrigin(uint64_t generation, int64_t pts, int32_t sampleRate) {
    if (sampleRate <= 0) return;
    std::unique_lock<std::shared_mutex> lock(lock_);
    if (generation != generation_) return;
    haveOrigin_ = true;
    originPts_ = pts;
    originRate_ = sampleRate;
}

// ---------------------------------------------------------------------------
// The wave store on disk

std::string DmAudioWaveManager::storePathLocked() const {
    char name[96];
    std::snprintf(name, sizeof name, "%016llx-%016llx-%016llx-s%d.mwav",
                  static_cast<unsigned long long>(fingerprint_.size),
                  static_cast<unsigned long long>(fingerprint_.head),
                  static_cast<unsigned long long>(fingerprint_.tail), stream_);
    return (std::filesystem::path(waveStoreRoot()) / name).string();
}

namespace {

bool readWholeFile(const std::string& path, std::vector<char>* bytes) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    if (size < 0) return false;
    bytes->resize(static_cast<size_t>(size));
    in.seekg(0);
    return static_cast<bool>(in.read(bytes->data(), size));
}

// A file's bytes mapped for reading while it lives; empty when the file
// cannot be read (or is empty).
class MappedFile {
public:
    explicit MappedFile(const std::string& path) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) return;
        struct stat info {};
        if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode) && info.st_size > 0) {
            void* mapped = ::mmap(nullptr, static_cast<size_t>(info.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
            if (mapped != MAP_FAILED) {
                data_ = static_cast<const char*>(mapped);
                size_ = static_cast<size_t>(info.st_size);
            }
        }
        ::close(fd);
    }
    ~MappedFile() {
        if (data_ != nullptr) ::munmap(const_cast<char*>(data_), size_);
    }
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    const char* data() const { return data_; }
    size_t size() const { return size_; }

private:
    const char* data_ = nullptr;
    size_t size_ = 0;
};

// Holds an exclusive lock on path (made when missing) while it lives: one
// writer of a store file at a time, across processes.
class FileLock {
public:
    explicit FileLock(const std::string& path) : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666)) {
        if (fd_ >= 0)
            while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
            }
    }
    ~FileLock() {
        if (fd_ >= 0) ::close(fd_);  // releases the lock
    }
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

private:
    int fd_;
};

}  // namespace

void DmAudioWaveManager::loadStore() {
    if (!waveStoreEnabled()) return;
    DmMediaFingerprint fingerprint;
    if (!mediaFingerprint(mediaPath_, &fingerprint)) return;
    uint64_t generation = 0;
    std::string path;
    std::string released;
    bool newlyHeld = false;
    {
        std::unique_lock<std::shared_mutex> lock(lock_);
        fingerprint_ = fingerprint;
        haveFingerprint_ = true;
        generation = generation_;
        path = storePathLocked();
        if (heldStore_ != path) {
            released = heldStore_;
            heldStore_ = path;
            newlyHeld = true;
        }
    }
    if (!released.empty()) releaseCacheFile(released);
    if (newlyHeld) holdCacheFile(path);
    // Read in place: the checked file's levels go straight into the chunks.
    const MappedFile file(path);
    if (file.data() == nullptr) return;  // not stored yet
    DmWaveStoreLayout layout;
    const DmWaveStoreData& data = layout.data;
    std::string why;
    if (!readWaveStoreLayout(file.data(), file.size(), &fingerprint, stream_, &layout, &why) ||
        (why = "kept for another channel count", static_cast<int32_t>(data.channels) != channels_)) {
        ZOR_LOG(IBsLogger::Warning, "ZOR::DmAudioWaveManager::loadStore",
                "'%s' stream %d: the wave store file '%s' is ignored (%s); it is written again", mediaPath_.c_str(),
                stream_, path.c_str(), why.c_str());
        return;
    }
    touchCacheFile(path);
    int64_t loaded = 0;
    {
        std::unique_lock<std::shared_mutex> lock(lock_);
        if (generation != generation_) return;
        const size_t windows = static_cast<size_t>(data.frames) * kValuesPerFrame;
        const bool wasEmpty = chunks_.empty();
        for (int32_t frame = 0; frame < data.frames; ++frame) {
            if (!layout.isHeld(frame) || isHeldLocked(frame)) continue;
            uint16_t* out = frameValuesLocked(frame);
            for (int32_t c = 0; c < channels_; ++c)
                std::memcpy(out + static_cast<ptrdiff_t>(c) * kValuesPerFrame,
                            layout.levels +
                                2 * (static_cast<size_t>(c) * windows + static_cast<size_t>(frame) * kValuesPerFrame),
                            kValuesPerFrame * sizeof(uint16_t));
            ++loaded;
        }
        if (wasEmpty) {
            // Nothing else is held: the file's coarse levels are the chunks'.
            const size_t count16 = (windows + 15) / 16;
            const size_t count256 = (windows + 255) / 256;
            for (size_t index = 0; index < chunks_.size(); ++index) {
                if (!chunks_[index]) continue;
                Chunk& chunk = *chunks_[index];
                const size_t first16 = index * (kChunkWindows / 16);
                const size_t first256 = index * (kChunkWindows / 256);
                for (size_t c = 0; c < static_cast<size_t>(channels_); ++c) {
                    if (first16 < count16)
                        std::memcpy(chunk.coarse16.data() + c * (kChunkWindows / 16),
                                    layout.level16 + 2 * (c * count16 + first16),
                                    std::min<size_t>(kChunkWindows / 16, count16 - first16) * sizeof(uint16_t));
                    if (first256 < count256)
                        std::memcpy(chunk.coarse256.data() + c * (kChunkWindows / 256),
                                    layout.level256 + 2 * (c * count256 + first256),
                                    std::min<size_t>(kChunkWindows / 256, count256 - first256) * sizeof(uint16_t));
                }
            }
        } else {
            refreshCoarseLocked(0, data.frames);
        }
        if (endFrame_ < 0) endFrame_ = data.endFrame;
        if (!haveOrigin_ && data.hasOrigin) {
            haveOrigin_ = true;
            originPts_ = data.originPts;
            originRate_ = data.originRate;
        }
    }
    ZOR_LOG(IBsLogger::Debug, "ZOR::DmAudioWaveManager::loadStore", "'%s' stream %d: %lld frames from '%s'",
            mediaPath_.c_str(), stream_, static_cast<long long>(loaded), path.c_str());
}

int32_t DmAudioWaveManager::flush() {
    std::lock_guard<std::mutex> flushing(flushLock_);
    if (!waveStoreEnabled()) return 0;
    DmWaveStoreData data;
    uint64_t generation = 0;
    std::string path;
    {
        std::unique_lock<std::shared_mutex> lock(lock_);
        if (!dirty_ || !haveFingerprint_) return 0;
        dirty_ = false;
        generation = generation_;
        path = storePathLocked();
        int32_t frames = 0;
        for (size_t c = chunks_.size(); c-- > 0 && frames == 0;)
            if (chunks_[c])
                for (int32_t slot = kChunkFrames; slot-- > 0;)
                    if (chunks_[c]->held.test(static_cast<size_t>(slot))) {
                        frames = static_cast<int32_t>(c) * kChunkFrames + slot + 1;
                        break;
                    }
        data.fingerprint = fingerprint_;
        data.stream = stream_;
        data.channels = static_cast<uint32_t>(channels_);
        data.frames = frames;
        data.endFrame = endFrame_;
        data.hasOrigin = haveOrigin_;
        data.originPts = originPts_;
        data.originRate = originRate_;
        data.held.assign((static_cast<size_t>(frames) + 7) / 8, 0);
        const size_t windows = static_cast<size_t>(frames) * kValuesPerFrame;
        data.levels.assign(static_cast<size_t>(channels_) * windows, 0);
        for (int32_t frame = 0; frame < frames; ++frame) {
            if (!isHeldLocked(frame)) continue;
            data.held[static_cast<size_t>(frame) / 8] |= static_cast<uint8_t>(1u << (frame % 8));
            const Chunk& chunk = *chunks_[static_cast<size_t>(frame / kChunkFrames)];
            const uint16_t* in = chunk.values.data() + static_cast<size_t>(frame % kChunkFrames) * kValuesPerFrame *
                                                           static_cast<size_t>(channels_);
            for (int32_t c = 0; c < channels_; ++c)
                std::copy_n(in + static_cast<ptrdiff_t>(c) * kValuesPerFrame, kValuesPerFrame,
                            data.levels.begin() + static_cast<ptrdiff_t>(static_cast<size_t>(c) * windows +
                                                                         static_cast<size_t>(frame) * kValuesPerFrame));
        }
    }
    const auto failed = [&](int32_t error, const char* what) {
        {
            std::unique_lock<std::shared_mutex> lock(lock_);
            if (generation == generation_) dirty_ = true;  // tried again at the next flush
        }
        // Said once: the next flushes try again, quietly.
        if (!toldWriteFailure_) {
            toldWriteFailure_ = true;
            ZOR_LOG(IBsLogger::Warning, "ZOR::DmAudioWaveManager::flush",
                    "'%s' stream %d: the wave store cannot %s '%s' (%s): the levels stay in memory only",
                    mediaPath_.c_str(), stream_, what, path.c_str(), writeErrorText(error).c_str());
        }
        return error;
    };
    const std::string folder = std::filesystem::path(path).parent_path().string();
    if (const int32_t error = createFolder(folder); error != 0) return failed(error, "make the folder of");
    // The temporaries of writers that died (a process killed while writing)
    // go at this process's first write into each folder.
    // Never destroyed: managers may flush while the process exits.
    static auto* sweptLock = new std::mutex;  // leaf: guards swept only
    static auto* swept = new std::set<std::string>;
    bool first = false;
    {
        std::lock_guard<std::mutex> guard(*sweptLock);
        first = swept->insert(folder).second;
    }
    if (first) removeAbandonedTemporaries(folder);
    int64_t before = 0;
    std::vector<char> bytes;
    {
        // Another process may have stored frames of the same content: they
        // are kept beside this one's.
        const FileLock lock(path + ".lock");
        std::vector<char> existing;
        DmWaveStoreData stored;
        if (readWholeFile(path, &existing)) {
            before = static_cast<int64_t>(existing.size());
            if (readWaveStore(existing.data(), existing.size(), &data.fingerprint, stream_, &stored, nullptr) &&
                stored.channels == data.channels) {
                const int32_t frames = std::max(data.frames, stored.frames);
                if (frames > data.frames) {
                    // Grown: each channel's levels move to their new place.
                    std::vector<uint16_t> grown(static_cast<size_t>(channels_) * frames * kValuesPerFrame, 0);
                    for (int32_t c = 0; c < channels_; ++c)
                        std::copy_n(data.levels.begin() + static_cast<ptrdiff_t>(c) * data.frames * kValuesPerFrame,
                                    static_cast<size_t>(data.frames) * kValuesPerFrame,
                                    grown.begin() + static_cast<ptrdiff_t>(c) * frames * kValuesPerFrame);
                    data.levels.swap(grown);
                    data.held.resize((static_cast<size_t>(frames) + 7) / 8, 0);
                    data.frames = frames;
                }
                for (int32_t frame = 0; frame < stored.frames; ++frame) {
                    if (!stored.isHeld(frame) || data.isHeld(frame)) continue;
                    data.held[static_cast<size_t>(frame) / 8] |= static_cast<uint8_t>(1u << (frame % 8));
                    for (int32_t c = 0; c < channels_; ++c)
                        std::copy_n(
                            stored.levels.begin() +
                                (static_cast<ptrdiff_t>(c) * stored.frames + frame) * kValuesPerFrame,
                            kValuesPerFrame,
                            data.levels.begin() + (static_cast<ptrdiff_t>(c) * data.frames + frame) * kValuesPerFrame);
                }
                if (data.endFrame < 0) data.endFrame = stored.endFrame;
                if (!data.hasOrigin && stored.hasOrigin) {
                    data.hasOrigin = true;
                    data.originPts = stored.originPts;
                    data.originRate = stored.originRate;
                }
            }
        }
        bytes = writeWaveStore(data);
        if (const int32_t error = writeFileAtomically(path.c_str(), bytes.data(), bytes.size()); error != 0)
            return failed(error, "write");
    }
    noteCacheWrite(static_cast<int64_t>(bytes.size()) - before);
    return 0;
}

DmAudioWaveManager* acquireWaveManager(const std::string& canonicalPath, int32_t stream, int32_t channels,
                                       const DmFileIdentity& identity) {
    Registry& reg = registry();
    DmAudioWaveManager* created = nullptr;
    DmAudioWaveManager* living = nullptr;
    {
        std::lock_guard<std::mutex> lock(reg.lock);
        // Drop the entries of managers that died since the last lookup.
        for (auto it = reg.entries.begin(); it != reg.entries.end();) {
            if (it->second.expired())
                it = reg.entries.erase(it);
            else
                ++it;
        }
        const auto key = std::make_pair(canonicalPath, stream);
        auto found = reg.entries.find(key);
        if (found != reg.entries.end()) {
            if (IDmAudioWaveMgrInternal* held = found->second.lock()) living = dynamic_cast<DmAudioWaveManager*>(held);
            if (living == nullptr) reg.entries.erase(found);
        }
        if (living == nullptr) {
            created = new DmAudioWaveManager(canonicalPath, stream, channels, identity);
            created->AddRef();
            reg.entries.emplace(
                key, RefCntWeakHolder<IDmAudioWaveMgrInternal>(static_cast<IDmAudioWaveMgrInternal*>(created)));
        }
    }
    if (living != nullptr) {
        // A clip of a file that changed on disk: the manager starts over.
        living->adoptContent(identity);
        return living;
    }
    ZOR_LOG(IBsLogger::Debug, "ZOR::DmAudioWaveManager::acquire", "new wave manager for '%s' stream %d",
            canonicalPath.c_str(), stream);
    // Outside the registry's lock: reading the store file takes a while.
    created->loadStore();
    return created;
}

}  // namespace ZOR
