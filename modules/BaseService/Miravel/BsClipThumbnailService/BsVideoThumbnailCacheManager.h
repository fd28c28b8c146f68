// The in-memory store of the frame pictures of timeline clips: key (media,
// style, stream) -> size ("W_H") -> time quantum -> picture. Pictures stay
// until they are removed; there is no eviction.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace ZOR {

struct VideoThumbnailKey {
    std::string mediaId;
    std::string styleId;
    int32_t streamId = 0;

    // Media first, then stream, then style.
    bool operator<(const VideoThumbnailKey& other) const {
        if (mediaId == other.mediaId) {
            if (streamId != other.streamId) return streamId < other.streamId;
            return styleId < other.styleId;
        }
        return mediaId < other.mediaId;
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
    unsigned char* insert(const VideoThumbnailKey& key, int64_t time, int32_t width, int32_t height,
                          Picture picture, Picture* holder);

    std::mutex lock_;  // alone: nothing else is locked while it is held
    std::map<VideoThumbnailKey, std::map<std::string, std::map<int64_t, Picture>>> store_;
};

}  // namespace ZOR
