// The arithmetic of audio thumbnails: levels to gains, the volume envelope
// between keyframes, the point times of a request, ducking levels and the
// value a point is given. Pure functions of their arguments: no object, no
// lock, no log line.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace ZOR {

// A keyframe at or below this level is silence.
inline constexpr double kSilenceDb = -48.0;
// The largest static gain (volume, volume gain and loudness together) before
// its square root is taken.
inline constexpr double kMaxStaticGain = 50.0;

// The gain of a level in dB: 10^(dB x 0.05), the product in double narrowed
// to float and the power in single precision, 0.05 being the float 0.05
// widened to double (0.05000000074505806); silence at or below -48 dB.
double gainOfDb(double db);

// The envelope of keyframes (times, with their gains) at time t: linear in
// gain between neighbours, the first gain before the first keyframe and the
// last after the last. keyframes and gains are of one size, at least 1.
double envelopeAt(const std::vector<std::pair<int64_t, double>>& keyframes, const std::vector<double>& gains,
                  int64_t t);

// The time of point i of count over [begin, end): begin + trunc(i / count x
// (end - begin)), in double.
int64_t pointTime(int64_t begin, int64_t end, int32_t i, int32_t count);

// One ducking interval as the envelope sees it.
struct DuckShape {
    int64_t begin = 0;
    int64_t end = 0;
    double depth = 0.0;
    double fade = 0.0;       // seconds
    double fadeRatio = 0.0;  // the part of the fade inside [begin, end]
};

// The level of one interval at time t: depth inside its full-depth part,
// rising and falling linearly over its fades, 0 outside.
double duckLevelAt(const DuckShape& shape, int64_t t);

// The factor of the static gains: sqrt(min(gain of (volume + volume gain +
// loudness in dB), 50)) in single precision; 1 when both the loudness gain
// (linear) and the volume gain are 0.
float staticGainFactor(double volume, double volumeGain, float loudnessGain);

// The value delivered for a raw sample: sqrt(envelope x static factor x
// ducking factor) x raw, in double, narrowed to float and capped at 1 from
// above only.
float thumbnailValue(double envelope, float staticFactor, double duckingFactor, float raw);

}  // namespace ZOR
