#include <cstdlib>
#include <vector>

#include "Adapter/Adapter.h"
#include "FuzzRoads.h"
#include "FuzzSupport.h"

namespace ZOR::fuzz {

int frameAt(const uint8_t* data, size_t size) {
    constexpr int32_t kWidth = 32;
    constexpr int32_t kHeight = 18;
    if (size < 2) return 0;
    // The first byte picks the seek mode and the stream (-1: the best), the
    // second where in the media the frame is asked for.
    const int32_t mode = data[0] & 1 ? ThumbSeekKeyframe : ThumbSeekExact;
    const int32_t stream = static_cast<int32_t>((data[0] >> 1) % 3) - 1;
    const int64_t eighth = data[1] % 9;
    MemoryMedia media("/miravel-fuzz/frames.media", data + 2, size - 2);
    IThumbAdapter* adapter = createThumbAdapter();
    if (adapter == nullptr) std::abort();
    if (adapter->setMediaPath(media.path()) == 0 && adapter->setOutputSize(kWidth, kHeight) == 0 &&
        adapter->setSeekMode(mode) == 0 && adapter->open(stream) == 0) {
        int64_t duration = 0;
        adapter->mediaDuration(&duration, 0);
        std::vector<unsigned char> picture(static_cast<size_t>(kWidth) * kHeight * 4);
        const auto bytes = static_cast<int64_t>(picture.size());
        // The start, a point picked by the input, and the same point again
        // (the adapter's session goes on from where it stands).
        const int32_t first = adapter->frameAt(0, picture.data(), bytes);
        const int64_t time = duration > 0 ? duration / 8 * eighth : eighth * 10'000'000;
        const int32_t second = adapter->frameAt(time, picture.data(), bytes);
        const int32_t third = adapter->frameAt(time, picture.data(), bytes);
        tell("frame_at: %zu bytes, duration %lld, frames at 0 and %lld: %d %d %d", size,
             static_cast<long long>(duration), static_cast<long long>(time), first, second, third);
        adapter->close();
    } else {
        tell("frame_at: %zu bytes do not open", size);
    }
    adapter->Release();
    return 0;
}

}  // namespace ZOR::fuzz
