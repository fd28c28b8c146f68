#include "BsAudioSampleCache.h"

#include "Adapter/Adapter.h"
#include "BsPointerValue.h"
#include "Common/ZorInternalComUtility.h"

ZOR_LOG_SOURCE("modules/BaseService/Miravel/BsClipThumbnailService/BsAudioSampleCache")

namespace ZOR {

namespace {

constexpr int64_t kRateNum = 25;
constexpr int64_t kRateDen = 1;

// The process-wide registry: one cache per wave manager, held weakly.
struct Registry {
    std::mutex lock;  // taken alone: never while holding another audio lock's owner waits on it
    std::map<uint64_t, std::weak_ptr<BsAudioSampleCache>> caches;
};

Registry& registry() {
    // Never destroyed: caches may be released by threads that outlive static
    // destruction order guarantees.
    static Registry* instance = new Registry;
    return *instance;
}

}  // namespace

BsAudioSampleCache::BsAudioSampleCache(IDmAudioWaveMgrInternal* waveManager)
    : waveManager_(ZorRef<IDmAudioWaveMgrInternal>::share(waveManager)) {}

BsAudioSampleCache::~BsAudioSampleCache() = default;

void BsAudioSampleCache::destroy(BsAudioSampleCache* cache) {
    {
        Registry& shared = registry();
        std::lock_guard<std::mutex> guard(shared.lock);
        auto found = shared.caches.find(pointerKey(cache->waveManager_.get()));
        // A new cache of the same manager may already have taken the slot
        // between the last owner going and this deleter running: only the
        // expired entry, this cache's, is erased.
        if (found != shared.caches.end() && found->second.expired()) shared.caches.erase(found);
    }
    delete cache;
}

std::shared_ptr<BsAudioSampleCache> BsAudioSampleCache::obtain(IDmAudioWaveMgrInternal* waveManager) {
    Registry& shared = registry();
    std::lock_guard<std::mutex> guard(shared.lock);
    auto& slot = shared.caches[pointerKey(waveManager)];
    if (auto existing = slot.lock()) return existing;
    std::shared_ptr<BsAudioSampleCache> made(new BsAudioSampleCache(waveManager), &BsAudioSampleCache::destroy);
    slot = made;
    return made;
}

std::shared_ptr<BsAudioSampleCache> BsAudioSampleCache::obtainForClip(IDmClip* clip) {
    ZorRef<IDmAudioWaveMgrInternal> manager;
    if (clip != nullptr) {
        auto* internal = static_cast<IDmClipInternal*>(clip->queryInterface("IDmClipInternal"));
        if (internal != nullptr)
            manager =
                ZorRef<IDmAudioWaveMgrInternal>::adopt(acquireIDmAudioWaveMgrInternal(internal->waveManagerSource()));
    }
    return obtain(manager.get());  // the cache holds its own
}

size_t BsAudioSampleCache::registrySize() {
    Registry& shared = registry();
    std::lock_guard<std::mutex> guard(shared.lock);
    return shared.caches.size();
}

void BsAudioSampleCache::clear() {
    std::lock_guard<std::mutex> guard(lock_);
    frames_.clear();
    valuesPerFrame_ = 0;
}

bool BsAudioSampleCache::hasFrames(int32_t first, int32_t last) {
    if (!waveManager_ || closed_) return false;
    return waveManager_->hasFrames(first, last) != 0;
}

bool BsAudioSampleCache::open() {
    if (closed_ || !waveManager_) return false;
    if (valuesPerFrame_ == 0) valuesPerFrame_ = waveManager_->valueCountPerFrame(kRateNum, kRateDen);
    return valuesPerFrame_ != 0;
}

const std::vector<float>* BsAudioSampleCache::frame(int32_t frame) {
    auto found = frames_.find(frame);
    if (found != frames_.end()) return &found->second;
    std::vector<float> values(valuesPerFrame_, 0.0f);
    if (waveManager_->readFrame(frame, kRateNum, kRateDen, values.data(), valuesPerFrame_) != 0) return nullptr;
    return &frames_.emplace(frame, std::move(values)).first->second;
}

}  // namespace ZOR
