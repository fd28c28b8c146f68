// DataModel, host side: peak-true views of a media stream's wave data.
//
// The wave data holds, per channel, the peak of each millisecond ("window":
// window w covers media time [w x 10000, (w + 1) x 10000) cns). A view of
// points values over [begin, end) gives value i the largest window value among
// the windows that overlap bucket i,
//
//   [begin + floor(i (end - begin) / points), begin + floor((i + 1) (end - begin) / points)),
//
// so no transient between two points is lost. A bucket of no length (more
// points than cns) lies inside one window and takes that window's value.
#pragma once

#include <cstdint>
#include <vector>

#include "DataModel/DmMediaInternal.h"
#include "ZorPlatformExport.h"

namespace ZOR {

// The windows [first, end) that bucket i of points over [begin, end) overlaps.
// Requires begin <= end, 0 < points and 0 <= i < points; exact for every
// int64 range whose length and points are below 2^31 x 2^31.
struct DmPeakWindows {
    int64_t first = 0;
    int64_t end = 0;
};
ZOR_PLATFORM_API DmPeakWindows peakBucketWindows(int64_t begin, int64_t end, int64_t points, int64_t i);
// The windows that media times [from, to) overlap; for from == to, the
// window from lies in.
ZOR_PLATFORM_API DmPeakWindows peakWindowsOf(int64_t from, int64_t to);

// The points values of one channel of store (-1: the largest of all channels)
// over [begin, end) cns; frames the store does not hold count 0.
ZOR_PLATFORM_API std::vector<float> wavePeaks(IDmAudioWaveStore* store, int32_t channel, int64_t begin, int64_t end,
                                              int32_t points);

}  // namespace ZOR
