#include "DmAudioWaveMgr.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <mutex>

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

DmAudioWaveManager::DmAudioWaveManager(std::string mediaPath, int32_t stream, const DmFileIdentity& identity)
    : mediaPath_(std::move(mediaPath)), stream_(stream), identity_(identity) {}

DmAudioWaveManager::~DmAudioWaveManager() = default;

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

int32_t DmAudioWaveManager::readFrame(int32_t frame, int64_t rateNum, int64_t rateDen, float* values,
                                      uint32_t count) {
    if (values == nullptr && count > 0) return kResultFailure;
    std::fill(values, values + count, 0.0f);
    if (!isWaveRate(rateNum, rateDen)) return 1002;
    std::shared_lock<std::shared_mutex> lock(lock_);
    if (!isHeldLocked(frame)) return kResultFailure;
    const Chunk& chunk = *chunks_[static_cast<size_t>(frame / kChunkFrames)];
    const size_t base = static_cast<size_t>(frame % kChunkFrames) * kValuesPerFrame;
    const uint32_t copied = std::min<uint32_t>(count, static_cast<uint32_t>(kValuesPerFrame));
    for (uint32_t k = 0; k < copied; ++k) values[k] = dequantise(chunk.values[base + k]);
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
    }
    ZOR_LOG(IBsLogger::Debug, "ZOR::DmAudioWaveManager::adoptContent",
            "'%s' stream %d changed on disk (%lld bytes): held frames dropped, generation %llu", mediaPath_.c_str(),
            stream_, static_cast<long long>(identity.size), static_cast<unsigned long long>(generation));
    return generation;
}

uint64_t DmAudioWaveManager::contentGeneration() {
    std::shared_lock<std::shared_mutex> lock(lock_);
    return generation_;
}

int32_t DmAudioWaveManager::storeFrames(uint64_t generation, int32_t first, int32_t frameCount,
                                        const float* values) {
    if (first < 0 || frameCount < 0 || (values == nullptr && frameCount > 0)) return kResultFailure;
    if (frameCount == 0) return 0;
    if (int64_t{first} + frameCount > int64_t{INT32_MAX}) return kResultFailure;
    // Quantise outside the lock.
    std::vector<uint16_t> steps(static_cast<size_t>(frameCount) * kValuesPerFrame);
    for (size_t i = 0; i < steps.size(); ++i) steps[i] = quantise(values[i]);

    std::unique_lock<std::shared_mutex> lock(lock_);
    if (generation != generation_) return kStaleGeneration;
    const size_t lastChunk = static_cast<size_t>((first + frameCount - 1) / kChunkFrames);
    if (chunks_.size() <= lastChunk) chunks_.resize(lastChunk + 1);
    for (int32_t i = 0; i < frameCount; ++i) {
        const int32_t frame = first + i;
        std::unique_ptr<Chunk>& chunk = chunks_[static_cast<size_t>(frame / kChunkFrames)];
        if (!chunk) chunk = std::make_unique<Chunk>();
        const size_t slot = static_cast<size_t>(frame % kChunkFrames);
        std::copy_n(steps.begin() + static_cast<ptrdiff_t>(i) * kValuesPerFrame, kValuesPerFrame,
                    chunk->values.begin() + static_cast<ptrdiff_t>(slot) * kValuesPerFrame);
        chunk->held.set(slot);
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

DmAudioWaveManager* acquireWaveManager(const std::string& canonicalPath, int32_t stream,
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
            created = new DmAudioWaveManager(canonicalPath, stream, identity);
            created->AddRef();
            reg.entries.emplace(key, RefCntWeakHolder<IDmAudioWaveMgrInternal>(
                                         static_cast<IDmAudioWaveMgrInternal*>(created)));
        }
    }
    if (living != nullptr) {
        // A clip of a file that changed on disk: the manager starts over.
        living->adoptContent(identity);
        return living;
    }
    ZOR_LOG(IBsLogger::Debug, "ZOR::DmAudioWaveManager::acquire", "new wave manager for '%s' stream %d", canonicalPath.c_str(),
            stream);
    return created;
}

}  // namespace ZOR
