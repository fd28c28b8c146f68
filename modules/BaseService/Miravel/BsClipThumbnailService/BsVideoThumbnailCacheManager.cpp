#include "BsVideoThumbnailCacheManager.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "Common/ZorInternalComUtility.h"
#include "ZorUtils/ZorUtils.h"

ZOR_LOG_SOURCE("modules/BaseService/Miravel/BsClipThumbnailService/BsVideoThumbnailCacheManager")

namespace ZOR {

namespace {

std::atomic<BsVideoThumbnailCacheManager::Allocator> gAllocator{nullptr};

void* allocate(size_t size) {
    BsVideoThumbnailCacheManager::Allocator allocator = gAllocator.load();
    return allocator != nullptr ? allocator(size) : std::malloc(size);
}

void freePicture(unsigned char* picture) { std::free(picture); }
void freeLoadedPicture(unsigned char* picture) { freeImageBuffer(picture); }

}  // namespace

BsVideoThumbnailCacheManager::Allocator BsVideoThumbnailCacheManager::setAllocatorForTesting(Allocator allocator) {
    return gAllocator.exchange(allocator);
}

std::string BsVideoThumbnailCacheManager::sizeKey(int32_t width, int32_t height) {
    std::string key = std::to_string(width);
    key += '_';
    key += std::to_string(height);
    return key;
}

unsigned char* BsVideoThumbnailCacheManager::getThumbnail(const VideoThumbnailKey& key, int64_t time, int32_t width,
                                                          int32_t height, Picture* holder) {
    const std::string size = sizeKey(width, height);
    const int64_t aligned = alignedTime(time);
    std::lock_guard<std::mutex> guard(lock_);
    auto media = store_.find(key);
    if (media == store_.end()) return nullptr;
    auto sized = media->second.find(size);
    if (sized == media->second.end()) return nullptr;
    auto picture = sized->second.lower_bound(aligned);
    if (picture == sized->second.end() || picture->first != aligned) return nullptr;
    if (holder != nullptr) *holder = picture->second;
    return picture->second.get();
}

unsigned char* BsVideoThumbnailCacheManager::insert(const VideoThumbnailKey& key, int64_t time, int32_t width,
                                                    int32_t height, Picture picture, Picture* holder) {
    const std::string size = sizeKey(width, height);
    std::lock_guard<std::mutex> guard(lock_);
    auto& times = store_[key][size];
    // The first stored picture stays; a picture that lost the race is freed
    // when `picture` goes, after the lock.
    auto [slot, inserted] = times.emplace(alignedTime(time), picture);
    if (holder != nullptr) *holder = slot->second;
    return slot->second.get();
}

unsigned char* BsVideoThumbnailCacheManager::addThumbnail(const VideoThumbnailKey& key, int64_t time, int32_t width,
                                                          int32_t height, const unsigned char* pixels,
                                                          int64_t size, Picture* holder) {
    if (unsigned char* stored = getThumbnail(key, time, width, height, holder)) return stored;
    if (size < 0) return nullptr;
    auto* copy = static_cast<unsigned char*>(allocate(static_cast<size_t>(size)));
    if (copy == nullptr) return nullptr;
    if (size > 0 && pixels != nullptr) std::memcpy(copy, pixels, static_cast<size_t>(size));
    return insert(key, time, width, height, Picture(copy, &freePicture), holder);
}

unsigned char* BsVideoThumbnailCacheManager::addThumbnail(const VideoThumbnailKey& key, int64_t time, int32_t width,
                                                          int32_t height, const char* pngPath, Picture* holder) {
    if (unsigned char* stored = getThumbnail(key, time, width, height, holder)) return stored;
    unsigned char* buffer = nullptr;
    int bufferWidth = 0;
    int bufferHeight = 0;
    loadPNG(pngPath, &buffer, &bufferWidth, &bufferHeight);
    if (bufferWidth != width || bufferHeight != height)
        ZOR_LOG(5, "ZOR::BsVideoThumbnailCacheManager::addThumbnail",
                "size not match, width = %d, height = %d, bufferWidth = %d, bufferHeight = %d", width, height,
                bufferWidth, bufferHeight);
    // Stored even when the load gave nothing: the entry then reads as a miss.
    return insert(key, time, width, height, Picture(buffer, &freeLoadedPicture), holder);
}

bool BsVideoThumbnailCacheManager::containsKey(const VideoThumbnailKey& key) {
    std::lock_guard<std::mutex> guard(lock_);
    return store_.find(key) != store_.end();
}

bool BsVideoThumbnailCacheManager::removeKey(const VideoThumbnailKey& key) {
    decltype(store_)::node_type removed;  // its pictures are freed after the lock
    std::lock_guard<std::mutex> guard(lock_);
    auto found = store_.find(key);
    if (found == store_.end()) return false;
    removed = store_.extract(found);
    return true;
}

bool BsVideoThumbnailCacheManager::removeMedia(const std::string& mediaId) {
    bool removed = false;
    std::lock_guard<std::mutex> guard(lock_);
    for (auto it = store_.begin(); it != store_.end();) {
        if (it->first.mediaId == mediaId) {
            it = store_.erase(it);
            removed = true;
        } else {
            ++it;
        }
    }
    return removed;
}

void BsVideoThumbnailCacheManager::clear() {
    std::lock_guard<std::mutex> guard(lock_);
    store_.clear();
}

size_t BsVideoThumbnailCacheManager::pictureCount() {
    std::lock_guard<std::mutex> guard(lock_);
    size_t count = 0;
    for (const auto& [key, sizes] : store_)
        for (const auto& [size, times] : sizes) count += times.size();
    return count;
}

}  // namespace ZOR
