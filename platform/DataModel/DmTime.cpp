#include "DataModel/DmTime.h"

#include <limits>

namespace ZOR {
namespace {

__extension__ typedef __int128 Wide;

// floor(numerator / denominator) for a positive denominator.
Wide floorDiv(Wide numerator, Wide denominator) {
    Wide quotient = numerator / denominator;
    if ((numerator % denominator != 0) && (numerator < 0)) --quotient;
    return quotient;
}

int64_t saturate(Wide value) {
    if (value > std::numeric_limits<int64_t>::max()) return std::numeric_limits<int64_t>::max();
    if (value < std::numeric_limits<int64_t>::min()) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(value);
}

}  // namespace

// 128-bit intermediates: |t x num| < 2^63 x 2^63 fits, so every int64 input is
// exact.
int64_t frameFromCnsTime(DmRational rate, int64_t t) {
    if (rate.num <= 0 || rate.den <= 0) return 0;
    return saturate(floorDiv(Wide{t} * rate.num, Wide{rate.den} * kCnsPerSecond));
}

int64_t cnsTimeFromFrame(DmRational rate, int64_t f) {
    if (rate.num <= 0 || rate.den <= 0) return 0;
    // f x den x 10^7 can exceed 2^127 only when den > 2^56; clamp den's effect
    // by doing the product in two steps with saturation.
    const Wide scaled = Wide{f} * kCnsPerSecond;  // |.| < 2^87
    const Wide limit = Wide{1} << 126;
    if (scaled != 0 && (rate.den > limit / (scaled < 0 ? -scaled : scaled)))
        return scaled < 0 ? std::numeric_limits<int64_t>::min() : std::numeric_limits<int64_t>::max();
    return saturate(floorDiv(scaled * rate.den, Wide{rate.num}));
}

}  // namespace ZOR
