// The picture cache of the video thumbnail builder: time quanta, sizes, the
// memory and PNG forms, removal, a failing allocation and the key order.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "BsVideoThumbnailCacheManager.h"
#include "CapturingLogger.h"
#include "MediaTestSupport.h"
#include "ZorUtils/ZorUtils.h"

namespace ZOR::test {
namespace {

// Counts the allocations of the cache; fails them when told to.
std::atomic<int> gAllocations{0};
std::atomic<bool> gFailAllocations{false};

void* countingAllocator(size_t size) {
    gAllocations.fetch_add(1);
    if (gFailAllocations.load()) return nullptr;
    return std::malloc(size);
}

// Installs the counting allocator for one test and puts back the one before.
class ScopedAllocator {
public:
    explicit ScopedAllocator(bool fail = false) {
        gAllocations.store(0);
        gFailAllocations.store(fail);
        previous_ = BsVideoThumbnailCacheManager::setAllocatorForTesting(&countingAllocator);
    }
    ~ScopedAllocator() {
        BsVideoThumbnailCacheManager::setAllocatorForTesting(previous_);
        gFailAllocations.store(false);
    }
    ScopedAllocator(const ScopedAllocator&) = delete;
    ScopedAllocator& operator=(const ScopedAllocator&) = delete;

private:
    BsVideoThumbnailCacheManager::Allocator previous_ = nullptr;
};

// width x height RGBA pixels, every pixel (value, value + 1, value + 2, 255).
std::vector<unsigned char> pixels(int32_t width, int32_t height, unsigned char value) {
    std::vector<unsigned char> bytes(static_cast<size_t>(width) * static_cast<size_t>(height) * 4);
    for (size_t i = 0; i < bytes.size(); i += 4) {
        bytes[i] = value;
        bytes[i + 1] = static_cast<unsigned char>(value + 1);
        bytes[i + 2] = static_cast<unsigned char>(value + 2);
        bytes[i + 3] = 255;
    }
    return bytes;
}

unsigned char* add(BsVideoThumbnailCacheManager& cache, const VideoThumbnailKey& key, int64_t time, int32_t width,
                   int32_t height, unsigned char value) {
    const std::vector<unsigned char> bytes = pixels(width, height, value);
    return cache.addThumbnail(key, time, width, height, bytes.data(), static_cast<int64_t>(bytes.size()));
}

const VideoThumbnailKey kKey{"media-1", "", 0};

TEST(VideoThumbnailCache, TimesZeroAnd99999ShareAnEntryAnd100000IsAnother) {
    BsVideoThumbnailCacheManager cache;
    unsigned char* first = add(cache, kKey, 0, 4, 2, 10);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first[0], 10);

    EXPECT_EQ(cache.getThumbnail(kKey, 0, 4, 2), first);
    EXPECT_EQ(cache.getThumbnail(kKey, 99999, 4, 2), first);
    EXPECT_EQ(cache.getThumbnail(kKey, 100000, 4, 2), nullptr);

    unsigned char* second = add(cache, kKey, 100000, 4, 2, 20);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second, first);
    EXPECT_EQ(second[0], 20);
    EXPECT_EQ(cache.getThumbnail(kKey, 199999, 4, 2), second);
    EXPECT_EQ(cache.getThumbnail(kKey, 99999, 4, 2), first);
    EXPECT_EQ(cache.pictureCount(), 2u);
}

TEST(VideoThumbnailCache, NegativeTimesAlignTowardsZero) {
    EXPECT_EQ(BsVideoThumbnailCacheManager::alignedTime(-1), 0);
    EXPECT_EQ(BsVideoThumbnailCacheManager::alignedTime(-100005), -100000);
    EXPECT_EQ(BsVideoThumbnailCacheManager::alignedTime(-99999), 0);
    EXPECT_EQ(BsVideoThumbnailCacheManager::alignedTime(-200000), -200000);

    BsVideoThumbnailCacheManager cache;
    unsigned char* atZero = add(cache, kKey, -1, 4, 2, 30);
    ASSERT_NE(atZero, nullptr);
    EXPECT_EQ(cache.getThumbnail(kKey, 0, 4, 2), atZero);
    EXPECT_EQ(cache.getThumbnail(kKey, 99999, 4, 2), atZero);

    unsigned char* below = add(cache, kKey, -100005, 4, 2, 40);
    ASSERT_NE(below, nullptr);
    EXPECT_NE(below, atZero);
    EXPECT_EQ(cache.getThumbnail(kKey, -100000, 4, 2), below);
    EXPECT_EQ(cache.getThumbnail(kKey, -199999, 4, 2), below);
    EXPECT_EQ(cache.getThumbnail(kKey, -200000, 4, 2), nullptr);
    EXPECT_EQ(cache.pictureCount(), 2u);
}

TEST(VideoThumbnailCache, TheSameTimeAtTwoSizesIsTwoEntries) {
    EXPECT_EQ(BsVideoThumbnailCacheManager::sizeKey(160, 90), "160_90");
    EXPECT_EQ(BsVideoThumbnailCacheManager::sizeKey(320, 180), "320_180");

    BsVideoThumbnailCacheManager cache;
    unsigned char* small = add(cache, kKey, 500000, 160, 90, 50);
    ASSERT_NE(small, nullptr);
    EXPECT_EQ(cache.getThumbnail(kKey, 500000, 320, 180), nullptr);
    unsigned char* large = add(cache, kKey, 500000, 320, 180, 60);
    ASSERT_NE(large, nullptr);
    EXPECT_NE(large, small);

    EXPECT_EQ(cache.getThumbnail(kKey, 500000, 160, 90), small);
    EXPECT_EQ(cache.getThumbnail(kKey, 500000, 320, 180), large);
    EXPECT_EQ(small[0], 50);
    EXPECT_EQ(large[0], 60);
    EXPECT_EQ(large[320 * 180 * 4 - 4], 60);
    EXPECT_EQ(cache.pictureCount(), 2u);
}

// A PNG written to a temporary folder, then added as the 4 x 2 picture at
// 300000 to a fresh cache while a log capture listens.
struct AddedPng {
    TempFolder folder;
    std::vector<unsigned char> file;
    std::optional<ScopedCapture> capture;
    std::optional<BsVideoThumbnailCacheManager> cache;
    unsigned char* stored = nullptr;
};

// Writes a width x height PNG of `value` named `name`, adds it and checks that
// the stored picture holds the file's pixels.
void addPng(AddedPng& png, const char* name, int32_t width, int32_t height, unsigned char value) {
    const std::string path = png.folder.file(name);
    png.file = pixels(width, height, value);
    ASSERT_EQ(dumpPNG(width, height, png.file.data(), path.c_str(), -1), 0);

    png.capture.emplace();
    png.cache.emplace();
    png.stored = png.cache->addThumbnail(kKey, 300000, 4, 2, path.c_str());
    ASSERT_NE(png.stored, nullptr);
    EXPECT_EQ(std::memcmp(png.stored, png.file.data(), png.file.size()), 0);
}

TEST(VideoThumbnailCache, APngOfAnotherSizeIsLoggedAndStillStored) {
    AddedPng png;
    ASSERT_NO_FATAL_FAILURE(addPng(png, "wide.png", 8, 4, 70));
    EXPECT_EQ(png.cache->getThumbnail(kKey, 300000, 4, 2), png.stored);
    EXPECT_EQ(png.cache->pictureCount(), 1u);

    const auto lines = png.capture->sink().lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].severity, IBsLogger::Warning);
    EXPECT_EQ(lines[0].function, "ZOR::BsVideoThumbnailCacheManager::addThumbnail");
    EXPECT_EQ(lines[0].text, "size not match, width = 4, height = 2, bufferWidth = 8, bufferHeight = 4");
}

TEST(VideoThumbnailCache, APngOfTheRequestedSizeIsStoredWithoutALogLine) {
    AddedPng png;
    ASSERT_NO_FATAL_FAILURE(addPng(png, "exact.png", 4, 2, 80));
    EXPECT_EQ(png.cache->getThumbnail(kKey, 350000, 4, 2), png.stored);
    EXPECT_TRUE(png.capture->sink().lines().empty());
}

TEST(VideoThumbnailCache, AddingAPresentPictureReturnsTheStoredOneWithoutCopying) {
    ScopedAllocator allocator;
    BsVideoThumbnailCacheManager cache;
    unsigned char* stored = add(cache, kKey, 200000, 4, 2, 90);
    ASSERT_NE(stored, nullptr);
    EXPECT_EQ(gAllocations.load(), 1);

    // The same quantum, other pixels: the stored picture stays, untouched.
    EXPECT_EQ(add(cache, kKey, 250000, 4, 2, 91), stored);
    EXPECT_EQ(gAllocations.load(), 1);
    EXPECT_EQ(stored[0], 90);

    // The PNG form does not even look at the file.
    ScopedCapture capture;
    EXPECT_EQ(cache.addThumbnail(kKey, 200000, 4, 2, "/nonexistent/picture.png"), stored);
    EXPECT_TRUE(capture.sink().lines().empty());
    EXPECT_EQ(cache.pictureCount(), 1u);
}

TEST(VideoThumbnailCache, RemoveKeyDropsEverySizeOfTheKey) {
    BsVideoThumbnailCacheManager cache;
    const VideoThumbnailKey other{"media-1", "", 1};
    ASSERT_NE(add(cache, kKey, 0, 4, 2, 1), nullptr);
    ASSERT_NE(add(cache, kKey, 100000, 4, 2, 2), nullptr);
    ASSERT_NE(add(cache, kKey, 0, 8, 4, 3), nullptr);
    ASSERT_NE(add(cache, kKey, 0, 16, 8, 4), nullptr);
    unsigned char* kept = add(cache, other, 0, 4, 2, 5);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(cache.pictureCount(), 5u);

    EXPECT_TRUE(cache.removeKey(kKey));
    EXPECT_FALSE(cache.containsKey(kKey));
    EXPECT_EQ(cache.getThumbnail(kKey, 0, 4, 2), nullptr);
    EXPECT_EQ(cache.getThumbnail(kKey, 100000, 4, 2), nullptr);
    EXPECT_EQ(cache.getThumbnail(kKey, 0, 8, 4), nullptr);
    EXPECT_EQ(cache.getThumbnail(kKey, 0, 16, 8), nullptr);
    EXPECT_TRUE(cache.containsKey(other));
    EXPECT_EQ(cache.getThumbnail(other, 0, 4, 2), kept);
    EXPECT_EQ(cache.pictureCount(), 1u);

    EXPECT_FALSE(cache.removeKey(kKey));
}

TEST(VideoThumbnailCache, RemoveMediaDropsEveryStyleAndStreamOfTheMedia) {
    BsVideoThumbnailCacheManager cache;
    const std::vector<VideoThumbnailKey> gone{{"m1", "", 0}, {"m1", "warm", 0}, {"m1", "", 1}, {"m1", "cold", 2}};
    const std::vector<VideoThumbnailKey> kept{{"m2", "", 0}, {"m10", "", 0}, {"m", "", 0}};
    for (const VideoThumbnailKey& key : gone) ASSERT_NE(add(cache, key, 0, 4, 2, 1), nullptr);
    for (const VideoThumbnailKey& key : kept) ASSERT_NE(add(cache, key, 0, 4, 2, 2), nullptr);

    EXPECT_TRUE(cache.removeMedia("m1"));
    for (const VideoThumbnailKey& key : gone) {
        EXPECT_FALSE(cache.containsKey(key)) << key.mediaId << "/" << key.styleId << "/" << key.streamId;
        EXPECT_EQ(cache.getThumbnail(key, 0, 4, 2), nullptr);
    }
    for (const VideoThumbnailKey& key : kept) {
        EXPECT_TRUE(cache.containsKey(key)) << key.mediaId;
        EXPECT_NE(cache.getThumbnail(key, 0, 4, 2), nullptr);
    }
    EXPECT_EQ(cache.pictureCount(), kept.size());
    EXPECT_FALSE(cache.removeMedia("m1"));
}

TEST(VideoThumbnailCache, AFailedAllocationReturnsNullAndLeavesTheCacheUnchanged) {
    BsVideoThumbnailCacheManager cache;
    unsigned char* present = add(cache, kKey, 0, 4, 2, 7);
    ASSERT_NE(present, nullptr);

    ScopedAllocator allocator(/*fail=*/true);
    const VideoThumbnailKey fresh{"media-2", "", 0};
    EXPECT_EQ(add(cache, fresh, 0, 4, 2, 8), nullptr);
    EXPECT_EQ(add(cache, kKey, 100000, 4, 2, 8), nullptr);
    EXPECT_EQ(add(cache, kKey, 0, 8, 4, 8), nullptr);
    EXPECT_EQ(gAllocations.load(), 3);

    EXPECT_FALSE(cache.containsKey(fresh));
    EXPECT_EQ(cache.getThumbnail(kKey, 100000, 4, 2), nullptr);
    EXPECT_EQ(cache.getThumbnail(kKey, 0, 8, 4), nullptr);
    EXPECT_EQ(cache.getThumbnail(kKey, 0, 4, 2), present);
    EXPECT_EQ(present[0], 7);
    EXPECT_EQ(cache.pictureCount(), 1u);
}

TEST(VideoThumbnailCache, KeysOrderByMediaThenStreamThenStyle) {
    const VideoThumbnailKey a{"a", "z", 9};
    const VideoThumbnailKey b{"b", "a", 0};
    EXPECT_TRUE(a < b);  // media first, whatever the stream and style
    EXPECT_FALSE(b < a);

    const VideoThumbnailKey stream0{"m", "z", 0};
    const VideoThumbnailKey stream1{"m", "a", 1};
    EXPECT_TRUE(stream0 < stream1);  // then the stream, whatever the style
    EXPECT_FALSE(stream1 < stream0);

    const VideoThumbnailKey styleA{"m", "a", 1};
    const VideoThumbnailKey styleB{"m", "b", 1};
    EXPECT_TRUE(styleA < styleB);  // then the style
    EXPECT_FALSE(styleB < styleA);

    const VideoThumbnailKey same{"m", "a", 1};
    EXPECT_FALSE(styleA < same);
    EXPECT_FALSE(same < styleA);
}

}  // namespace
}  // namespace ZOR::test
