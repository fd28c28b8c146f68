#include "DataModel/DmWavePeaks.h"

namespace ZOR {

namespace {

constexpr int64_t kCnsPerWindow = 10'000;  // one millisecond

int64_t floorDiv(int64_t a, int64_t b) {
    const int64_t q = a / b;
    return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

// begin + floor(i x length / points) without forming i x length.
int64_t bucketStart(int64_t begin, int64_t length, int64_t points, int64_t i) {
    const int64_t whole = length / points;
    const int64_t rest = length % points;
    return begin + i * whole + i * rest / points;
}

}  // namespace

DmPeakWindows peakBucketWindows(int64_t begin, int64_t end, int64_t points, int64_t i) {
    const int64_t length = end - begin;
    return peakWindowsOf(bucketStart(begin, length, points, i), bucketStart(begin, length, points, i + 1));
}

DmPeakWindows peakWindowsOf(int64_t from, int64_t to) {
    DmPeakWindows windows;
    windows.first = floorDiv(from, kCnsPerWindow);
    // An empty range takes the window it lies in.
    windows.end = to > from ? floorDiv(to - 1, kCnsPerWindow) + 1 : windows.first + 1;
    return windows;
}

std::vector<float> wavePeaks(IDmAudioWaveStore* store, int32_t channel, int64_t begin, int64_t end, int32_t points) {
    std::vector<float> values;
    if (store == nullptr || points <= 0 || end < begin) return values;
    values.resize(static_cast<size_t>(points));
    for (int32_t i = 0; i < points; ++i) {
        const DmPeakWindows windows = peakBucketWindows(begin, end, points, i);
        values[static_cast<size_t>(i)] = store->channelPeak(channel, windows.first, windows.end);
    }
    return values;
}

}  // namespace ZOR
