// Time in the data model: cns (100 ns; 10,000,000 per second) and frames at a
// rational rate num/den frames per second.
#pragma once

#include <cstdint>

#include "ZorPlatformExport.h"

namespace ZOR {

constexpr int64_t kCnsPerSecond = 10'000'000;

struct DmRational {
    int64_t num = 25;
    int64_t den = 1;
};

// floor(t x num / (den x 10^7)): the frame that contains time t. Exact for every
// int64 t (integer arithmetic only, rounding towards minus infinity). A rate
// whose num or den is not positive gives 0.
ZOR_PLATFORM_API int64_t frameFromCnsTime(DmRational rate, int64_t t);

// floor(f x den x 10^7 / num): the start time of frame f. Results beyond the
// int64 range saturate at its limits. A rate whose num or den is not positive
// gives 0.
ZOR_PLATFORM_API int64_t cnsTimeFromFrame(DmRational rate, int64_t f);

}  // namespace ZOR
