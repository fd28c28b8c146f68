// Audio thumbnail values worked out from their definitions over the wave
// values of a file's own samples (waveValues in MediaTestSupport.h): where
// each point of a query falls, the wave value it reads there and the clip
// volume's gain on it; the bit-for-bit comparison of two thumbnails; and
// sources whose level changes all the time, so that matching them says
// something.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace MediaTest {

constexpr int64_t kWaveFrame = 400'000;  // one wave frame at 25/1, cns
constexpr int32_t kWaveValuesPerFrame = 40;

// dB to gain: 10^(dB x 0.05), the factor being the float 0.05 widened to
// double, the product narrowed to float and the power in single precision;
// silence at or below -48 dB.
inline double gainOf(double db) {
    if (!(db > -48.0)) return 0.0;
    return static_cast<double>(std::pow(10.0f, static_cast<float>(db * static_cast<double>(0.05f))));
}

// Point i of count over [begin, end): begin + trunc(i / count x (end - begin)).
inline int64_t pointTime(int64_t begin, int64_t end, int64_t i, int64_t count) {
    return begin + static_cast<int64_t>(std::trunc(static_cast<double>(i) / static_cast<double>(count) *
                                                   static_cast<double>(end - begin)));
}

// The wave value at source position s: frame floor(s / 400,000), value index
// trunc(float(s - frame start) / 400,000 x 40), at most 39; 0 past the end.
inline float rawValueAt(const std::vector<float>& windows, int64_t s) {
    const int64_t frame = s / kWaveFrame;
    const float fraction = static_cast<float>(s - frame * kWaveFrame) / static_cast<float>(kWaveFrame);
    const auto index = std::min<uint32_t>(static_cast<uint32_t>(fraction * static_cast<float>(kWaveValuesPerFrame)),
                                          kWaveValuesPerFrame - 1);
    const size_t window = static_cast<size_t>(frame) * kWaveValuesPerFrame + index;
    return window < windows.size() ? windows[window] : 0.0f;
}

// A stretch of clip time [from, to] (both ends in) where the clip is ducked
// to factor of its power; by default none.
struct Ducked {
    int64_t from = 0;
    int64_t to = -1;
    double factor = 1.0;
};

// The thumbnail of a clip playing forwards at speed 1 (source position = clip
// time) at a constant volume, without loudness or gain:
// min(1, sqrt(gain(volume) x ducking) x raw).
inline std::vector<float> expectedThumbnail(const std::vector<float>& windows, int64_t begin, int64_t end,
                                            int64_t count, double volumeDb, const Ducked& ducked = {}) {
    const double gain = gainOf(static_cast<double>(static_cast<float>(volumeDb)));
    std::vector<float> values;
    for (int64_t i = 0; i < count; ++i) {
        const int64_t t = pointTime(begin, end, i, count);
        const double power = ducked.from <= t && t <= ducked.to ? gain * ducked.factor : gain;
        const float value = static_cast<float>(std::sqrt(power) * static_cast<double>(rawValueAt(windows, t)));
        values.push_back(std::min(1.0f, value));
    }
    return values;
}

// The two thumbnails are the same, bit for bit; names the first five points
// that differ.
inline void expectSameFloats(const std::vector<float>& actual, const std::vector<float>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    int mismatches = 0;
    for (size_t i = 0; i < actual.size(); ++i) {
        uint32_t a = 0;
        uint32_t b = 0;
        std::memcpy(&a, &actual[i], sizeof a);
        std::memcpy(&b, &expected[i], sizeof b);
        if (a != b && ++mismatches <= 5)
            ADD_FAILURE() << "point " << i << ": " << actual[i] << " expected " << expected[i];
    }
    EXPECT_EQ(mismatches, 0);
}

// How many different values there are: a thumbnail of a waveform whose level
// changes all the time has many, so matching it says something.
inline size_t distinctValues(const std::vector<float>& values) {
    return std::set<float>(values.begin(), values.end()).size();
}

// The ffmpeg input of a level that changes every 40 ms frame on a sine (a
// second channel with its own levels when stereo), with peaks anywhere inside
// the millisecond windows; seed makes each file's levels its own.
inline std::string steppedSource(int channels, double seconds, int seed = 0) {
    const std::string d = std::to_string(seconds);
    const std::string a = std::to_string(37 + seed);
    const std::string b = std::to_string(61 + seed);
    const std::string left = "(0.05+0.9*mod(floor(t*25)*" + a + "+11,100)/100)*sin(2*PI*523*t)";
    const std::string right = "(0.05+0.9*mod(floor(t*25)*" + b + "+3,100)/100)*sin(2*PI*347*t+1)";
    return "-f lavfi -i \"aevalsrc=exprs='" + left + (channels == 2 ? "|" + right : std::string()) +
           "':s=48000:d=" + d + "\"";
}

}  // namespace MediaTest
