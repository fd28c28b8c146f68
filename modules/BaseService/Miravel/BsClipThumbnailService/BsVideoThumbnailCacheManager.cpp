#include "BsVideoThumbnailCacheManager.h"

#include <atomic>
#include <charconv>
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
    return std::string(sizeText(width, height).view());
}

BsVideoThumbnailCacheManager::SizeText BsVideoThumbnailCacheManager::sizeText(int32_t width, int32_t height) {
    // Two 32-bit numbers with their signs and the underscore need 23 bytes.
    SizeText out;
    char* end = out.text + sizeof out.text;
    char* next = std::to_chars(out.text, end, width).ptr;
    *next++ = '_';
    next = std::to_chars(next, end, height).ptr;
    out.length = static_cast<size_t>(next - out.text);
    return out;
}

void BsVideoThumbnailCacheManager::takePictures(SizeMap& sizes, std::vector<Picture>& out) {
    for (auto& [size, times] : sizes)
        for (auto& [time, picture] : times) out.push_back(std::move(picture));
}

unsigned char* BsVideoThumbnailCacheManager::getThumbnail(const VideoThumbnailKey& key, int64_t time, int32_t width,
                                                          int32_t height, Picture* holder) {
    const SizeText size = sizeText(width, height);
    const int64_t aligned = alignedTime(time);
    std::lock_guard<std::mutex> guard(lock_);
    auto media = store_.find(key);
    if (media == store_.end()) return nullptr;
    auto sized = media->second.find(size.view());
    if (sized == media->second.end()) return nullptr;
    auto picture = sized->second.lower_bound(aligned);
    if (picture == sized->second.end() || picture->first != aligned) return nullptr;
    if (holder != nullptr) *holder = picture->second;
    return picture->second.get();
}

unsigned char* BsVideoThumbnailCacheManager::insert(const VideoThumbnailKey& key, int64_t time, int32_t width,
                                                    int32_t height, Picture picture, Picture* holder) {
    const SizeText size = sizeText(width, height);
    std::lock_guard<std::mutex> guard(lock_);
    SizeMap& sizes = store_[key];
    auto sized = sizes.find(size.view());
    if (sized == sizes.end()) sized = sizes.emplace(std::string(size.view()), TimeMap{}).first;
    TimeMap& times = sized->second;
    // The first stored picture stays; a picture that lost the race is freed
    // when `picture` goes, after the lock.
    auto [slot, inserted] = times.emplace(alignedTime(time), picture);
    if (holder != nullptr) *holder = slot->second;
    return slot->second.get();
}

unsigned char* BsVideoThumbnailCacheManager::addThumbnail(const VideoThumbnailKey& key, int64_t time, int32_t width,
                                                          int32_t height, const unsigned char* pixels, int64_t size,
                                                          Picture* holder) {
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
        ZOR_LOG(IBsLogger::Warning, "ZOR::BsVideoThumbnailCacheManager::addThumbnail",
                "size not match, width = %d, height = %d, bufferWidth = %d, bufferHeight = %d", width, height,
                bufferWidth, bufferHeight);
    // Stored even when the load gave nothing: the entry then reads as a miss.
    return insert(key, time, width, height, Picture(buffer, &freeLoadedPicture), holder);
}

bool BsVideoThumbnailCacheManager::containsKey(const VideoThumbnailKey& key) {
    std::lock_guard<std::mutex> guard(lock_);
    return store_.find(key) != store_.end();
}

// The nodes go back to the pool under the lock; the pictures they held are
// freed after it (declared before the guard, destroyed after it).
bool BsVideoThumbnailCacheManager::removeKey(const VideoThumbnailKey& key) {
    std::vector<Picture> pictures;
    std::lock_guard<std::mutex> guard(lock_);
    auto found = store_.find(key);
    if (found == store_.end()) return false;
    takePictures(found->second, pictures);
    store_.erase(found);
    return true;
}

bool BsVideoThumbnailCacheManager::removeMedia(const std::string& mediaId) {
    std::vector<Picture> pictures;
    bool removed = false;
    std::lock_guard<std::mutex> guard(lock_);
    for (auto it = store_.begin(); it != store_.end();) {
        if (it->first.mediaId == mediaId) {
            takePictures(it->second, pictures);
            it = store_.erase(it);
            removed = true;
        } else {
            ++it;
        }
    }
    return removed;
}

void BsVideoThumbnailCacheManager::clear() {
    std::vector<Picture> pictures;
    std::lock_guard<std::mutex> guard(lock_);
    for (auto& [key, sizes] : store_) takePictures(sizes, pictures);
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
