#include "BsAudioEnvelope.h"

#include <algorithm>
#include <cmath>

namespace ZOR {

namespace {

// The float 0.05 widened to double: what the envelope has always used.
constexpr double kDbFactor = static_cast<double>(0.05f);

}  // namespace

double gainOfDb(double db) {
    if (!(db > kSilenceDb)) return 0.0;
    return static_cast<double>(powf(10.0f, static_cast<float>(db * kDbFactor)));
}

double envelopeAt(const std::vector<std::pair<int64_t, double>>& keyframes, const std::vector<double>& gains,
                  int64_t t) {
    if (keyframes.size() == 1) return gains[0];
    size_t next = 0;
    while (next < keyframes.size() && !(keyframes[next].first > t)) ++next;
    if (next == 0) return gains[0];
    if (next == keyframes.size()) return gains.back();
    const size_t previous = next - 1;
    return gains[previous] + static_cast<double>(t - keyframes[previous].first) /
                                 static_cast<double>(keyframes[next].first - keyframes[previous].first) *
                                 (gains[next] - gains[previous]);
}

int64_t pointTime(int64_t begin, int64_t end, int32_t i, int32_t count) {
    return begin +
           static_cast<int64_t>(static_cast<double>(i) / static_cast<double>(count) * static_cast<double>(end - begin));
}

double duckLevelAt(const DuckShape& shape, int64_t t) {
    const double fadeLength = static_cast<double>(static_cast<int64_t>(shape.fade * 10000000.0));
    const double outside = (1.0 - shape.fadeRatio) * fadeLength;
    const int64_t inside = static_cast<int64_t>(shape.fadeRatio * fadeLength);
    const int64_t a = static_cast<int64_t>(static_cast<double>(shape.begin) - outside);
    const int64_t h = std::min((shape.end - shape.begin) / 2, inside);
    const int64_t b = shape.begin + h;
    const int64_t c = shape.end - h;
    const int64_t d = static_cast<int64_t>(static_cast<double>(shape.end) + outside);
    if (b <= t && t <= c) return shape.depth;
    if (a <= t && t < b) return static_cast<double>(t - a) / static_cast<double>(b - a) * shape.depth;
    if (c < t && t <= d) return static_cast<double>(d - t) / static_cast<double>(d - c) * shape.depth;
    return 0.0;
}

float staticGainFactor(double volume, double volumeGain, float loudnessGain) {
    if (loudnessGain == 0.0f && volumeGain == 0.0) return 1.0f;
    const float loudness = loudnessGain != 0.0f ? 20.0f * log10f(loudnessGain) : 0.0f;
    const double db = volume + volumeGain + loudness;
    const double gain = std::min(gainOfDb(db), kMaxStaticGain);
    return sqrtf(static_cast<float>(gain));
}

float thumbnailValue(double envelope, float staticFactor, double duckingFactor, float raw) {
    const double x = envelope * staticFactor * duckingFactor;
    const float value = static_cast<float>(std::sqrt(x) * static_cast<double>(raw));
    return std::min(1.0f, value);
}

}  // namespace ZOR
