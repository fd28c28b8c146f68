#include "BtmWaveSamples.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <cmath>

namespace ZOR::btm {

float peakOf(const float* data, int count) {
    float peak = 0.0f;
    int i = 0;
#if defined(__SSE2__)
    // _mm_max_ps(x, m) keeps m when x is NaN, as std::max(m, x) does.
    const __m128 magnitude = _mm_castsi128_ps(_mm_set1_epi32(0x7FFFFFFF));
    __m128 a = _mm_setzero_ps();
    __m128 b = _mm_setzero_ps();
    for (; i + 8 <= count; i += 8) {
        a = _mm_max_ps(_mm_and_ps(_mm_loadu_ps(data + i), magnitude), a);
        b = _mm_max_ps(_mm_and_ps(_mm_loadu_ps(data + i + 4), magnitude), b);
    }
    alignas(16) float lanes[4];
    _mm_store_ps(lanes, _mm_max_ps(a, b));
    peak = std::max(std::max(lanes[0], lanes[1]), std::max(lanes[2], lanes[3]));
#endif
    for (; i < count; ++i) peak = std::max(peak, std::fabs(data[i]));
    return peak;
}

bool FloatSamples::load(const AVFrame* frame) {
    channels_ = frame->ch_layout.nb_channels;
    count_ = frame->nb_samples;
    const auto format = static_cast<AVSampleFormat>(frame->format);
    if (format == AV_SAMPLE_FMT_FLTP || format == AV_SAMPLE_FMT_FLT) {
        planar_ = format == AV_SAMPLE_FMT_FLTP;
        planes_.assign(static_cast<size_t>(planar_ ? channels_ : 1), nullptr);
        for (size_t c = 0; c < planes_.size(); ++c)
            planes_[c] = reinterpret_cast<const float*>(frame->extended_data[c]);
        return true;
    }
    if (swr_ == nullptr || format != swrFormat_ || frame->sample_rate != swrRate_ ||
        av_channel_layout_compare(&frame->ch_layout, &swrLayout_) != 0) {
        swr_free(&swr_);
        av_channel_layout_uninit(&swrLayout_);
        // The same layout in and out: only the sample format changes.
        if (av_channel_layout_copy(&swrLayout_, &frame->ch_layout) < 0 ||
            swr_alloc_set_opts2(&swr_, &swrLayout_, AV_SAMPLE_FMT_FLTP, frame->sample_rate, &swrLayout_, format,
                                frame->sample_rate, 0, nullptr) < 0 ||
            swr_init(swr_) < 0) {
            swr_free(&swr_);
            av_channel_layout_uninit(&swrLayout_);
            return false;
        }
        swrFormat_ = format;
        swrRate_ = frame->sample_rate;
    }
    buffers_.resize(static_cast<size_t>(channels_));
    std::vector<uint8_t*> out(static_cast<size_t>(channels_));
    for (int c = 0; c < channels_; ++c) {
        buffers_[static_cast<size_t>(c)].resize(static_cast<size_t>(count_));
        out[static_cast<size_t>(c)] = reinterpret_cast<uint8_t*>(buffers_[static_cast<size_t>(c)].data());
    }
    const int converted =
        swr_convert(swr_, out.data(), count_, const_cast<const uint8_t**>(frame->extended_data), count_);
    if (converted < 0) return false;
    count_ = converted;
    planar_ = true;
    planes_.assign(static_cast<size_t>(channels_), nullptr);
    for (int c = 0; c < channels_; ++c) planes_[static_cast<size_t>(c)] = buffers_[static_cast<size_t>(c)].data();
    return true;
}

}  // namespace ZOR::btm
