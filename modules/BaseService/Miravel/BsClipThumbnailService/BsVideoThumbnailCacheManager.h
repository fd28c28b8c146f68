// The in-memory store of the frame pictures of timeline clips: key (media,
// style, stream) -> size ("W_H") -> time quantum -> picture. Pictures stay
// until they are removed; there is no eviction.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <memory_resource>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace ZOR {

struct VideoThumbnailKey {
    std::string mediaId;
    std::string styleId;
    int32_t streamId = 0;

    // Media first, then stream, then style. The media identifiers of one
    // project share long prefixes, so they are compared once, three-way.
    bool operator<(const VideoThumbnailKey& other) const {
        if (const int media = mediaId.compare(other.mediaId); media != 0) return media < 0;
        if (streamId != other.streamId) return streamId < other.streamId;
        return styleId < other.styleId;
    }
};

// Two times in the same quantum share one picture.
constexpr int64_t thumbnailTimeStep = 100000;

class BsVideoThumbnailCacheManager {
public:
    // The picture's allocation function, replaceable by tests (null: malloc).
    using Allocator = void* (*)(size_t);
    static Allocator setAllocatorForTesting(Allocator allocator);

    // Aligned towards zero to the start of its quantum.
    static int64_t alignedTime(int64_t time) { return time - time % thumbnailTimeStep; }
    static std::string sizeKey(int32_t width, int32_t height);

    // The same text written into a caller's buffer, for lookups that build
    // no string.
    struct SizeText {
        char text[24];
        size_t length;
        std::string_view view() const { return {text, length}; }
    };
    static SizeText sizeText(int32_t width, int32_t height);

    // A picture's shared owner: whoever holds one keeps the pixels valid even
    // after the entry is removed (the builder holds them while delivering).
    using Picture = std::shared_ptr<unsigned char>;

    // Each call below may also hand out the picture's owner through holder.
    unsigned char* getThumbnail(const VideoThumbnailKey& key, int64_t time, int32_t width, int32_t height,
                                Picture* holder = nullptr);
    // A copy of size bytes at pixels; the stored picture when one is there.
    unsigned char* addThumbnail(const VideoThumbnailKey& key, int64_t time, int32_t width, int32_t height,
                                const unsigned char* pixels, int64_t size, Picture* holder = nullptr);
    // The PNG file at pngPath, stored whatever its size (a size that differs
    // from width x height is logged).
    unsigned char* addThumbnail(const VideoThumbnailKey& key, int64_t time, int32_t width, int32_t height,
                                const char* pngPath, Picture* holder = nullptr);
    bool containsKey(const VideoThumbnailKey& key);
    bool removeKey(const VideoThumbnailKey& key);
    bool removeMedia(const std::string& mediaId);
    void clear();

    // Pictures held (for diagnostics and tests).
    size_t pictureCount();

private:
    unsigned char* insert(const VideoThumbnailKey& key, int64_t time, int32_t width, int32_t height, Picture picture,
                          Picture* holder);

    using TimeMap = std::pmr::map<int64_t, Picture>;
    using SizeMap = std::pmr::map<std::string, TimeMap, std::less<>>;
    using Store = std::pmr::map<VideoThumbnailKey, SizeMap>;

    // Hands out the pictures of the entries that erase() is about to drop,
    // so that they are freed after the lock.
    static void takePictures(SizeMap& sizes, std::vector<Picture>& out);

    std::mutex lock_;  // alone: nothing else is locked while it is held
    // The maps' nodes come from this pool, under lock_, so that they lie
    // next to each other instead of between the pictures: a lookup then
    // walks cached lines rather than one page per tree level.
    std::pmr::unsynchronized_pool_resource nodes_;
    Store store_{&nodes_};
};

}  // namespace ZOR
