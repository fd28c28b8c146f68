// The thumb adapter on a long file: 100 pictures evenly spread over the file
// (MIRAVEL_BENCH_VIDEO, e.g. 10 minutes of 1080p H.264 with a keyframe every
// 10 seconds), at 320x180, in the order a thumbnail strip refines itself:
// 0 and N-1 first, then the middle of each gap, the last gap first. Exact
// pictures (with and without skipping the frames they do not depend on)
// beside keyframe pictures.
//
// Make a file with, for example (one line):
//   ffmpeg -f lavfi -i "testsrc2=s=1920x1080:r=25:d=600" -vf "noise=alls=12:allf=t"
//     -c:v libx264 -preset veryfast -pix_fmt yuv420p
//     -x264-params keyint=250:min-keyint=250:scenecut=0 -b:v 8M long.mp4
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "ThumbAdapterInternal.h"
#include "Adapter/Adapter.h"
#include "Common/ZorInternalComUtility.h"

namespace {

using ZOR::IThumbAdapter;
using ZOR::IThumbAdapterInternal;
using ZOR::ThumbDecodeCounts;

constexpr int kPictures = 100;
constexpr int32_t kWidth = 320;
constexpr int32_t kHeight = 180;

// 0, N-1, then passes over the sorted indices adding the midpoint
// a + (b - a) / 2 of each adjacent pair a < b with b - a > 1, from the last
// pair to the first: 0, 99, 49, 74, 24, 86, 61, 36, 12, ...
std::vector<int> coarseToFine(int count) {
    std::vector<int> order;
    if (count <= 0) return order;
    order.push_back(0);
    if (count == 1) return order;
    order.push_back(count - 1);
    std::vector<int> sorted = order;
    for (;;) {
        std::vector<int> added;
        for (size_t i = sorted.size() - 1; i > 0; --i) {
            const int a = sorted[i - 1];
            const int b = sorted[i];
            if (b - a > 1) added.push_back(a + (b - a) / 2);
        }
        if (added.empty()) break;
        order.insert(order.end(), added.begin(), added.end());
        sorted.insert(sorted.end(), added.begin(), added.end());
        std::sort(sorted.begin(), sorted.end());
    }
    return order;
}

enum class Mode { Exact, ExactNoSkipping, Keyframe };

void pictures(benchmark::State& state, Mode mode) {
    const char* path = std::getenv("MIRAVEL_BENCH_VIDEO");
    if (path == nullptr || *path == '\0') {
        state.SkipWithError("set MIRAVEL_BENCH_VIDEO to a long video file");
        return;
    }
    const std::vector<int> order = coarseToFine(kPictures);
    std::vector<unsigned char> buffer(static_cast<size_t>(kWidth) * kHeight * 4);
    ThumbDecodeCounts total;
    int64_t runs = 0;
    std::chrono::steady_clock::duration elapsed{};
    for (auto _ : state) {
        const auto adapter = ZOR::ZorRef<IThumbAdapter>::adopt(ZOR::createThumbAdapter());
        auto* inner = static_cast<IThumbAdapterInternal*>(adapter->queryInterface("IThumbAdapterInternal"));
        adapter->setMediaPath(path);
        adapter->setOutputSize(kWidth, kHeight);
        adapter->setSeekMode(mode == Mode::Keyframe ? ZOR::ThumbSeekKeyframe : ZOR::ThumbSeekExact);
        if (inner != nullptr) inner->setFrameSkipping(mode != Mode::ExactNoSkipping);
        if (adapter->open(-1) != 0) {
            state.SkipWithError("cannot open MIRAVEL_BENCH_VIDEO");
            return;
        }
        int64_t duration = 0;
        adapter->mediaDuration(&duration, 0);
        const auto start = std::chrono::steady_clock::now();
        for (int index : order) {
            const int64_t time = duration * index / kPictures;
            if (adapter->frameAt(time, buffer.data(), static_cast<int64_t>(buffer.size())) != 0) {
                state.SkipWithError("a picture failed");
                break;
            }
            benchmark::DoNotOptimize(buffer.data());
        }
        elapsed += std::chrono::steady_clock::now() - start;
        if (inner != nullptr) {
            const ThumbDecodeCounts counts = inner->decodeCounts();
            total.seeks += counts.seeks;
            total.packets += counts.packets;
            total.discarded += counts.discarded;
            total.frames += counts.frames;
        }
        ++runs;
        adapter->close();
    }
    if (runs == 0) return;
    const double milliseconds = std::chrono::duration<double, std::milli>(elapsed).count();
    state.counters["ms_per_picture"] = milliseconds / static_cast<double>(runs * kPictures);
    state.counters["seeks"] = static_cast<double>(total.seeks) / static_cast<double>(runs);
    state.counters["packets"] = static_cast<double>(total.packets) / static_cast<double>(runs);
    state.counters["nonref"] = static_cast<double>(total.discarded) / static_cast<double>(runs);
    state.counters["frames"] = static_cast<double>(total.frames) / static_cast<double>(runs);
}

void BM_ThumbExact(benchmark::State& state) { pictures(state, Mode::Exact); }
void BM_ThumbExactNoSkipping(benchmark::State& state) { pictures(state, Mode::ExactNoSkipping); }
void BM_ThumbKeyframe(benchmark::State& state) { pictures(state, Mode::Keyframe); }

BENCHMARK(BM_ThumbExact)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
BENCHMARK(BM_ThumbExactNoSkipping)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);
BENCHMARK(BM_ThumbKeyframe)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace
