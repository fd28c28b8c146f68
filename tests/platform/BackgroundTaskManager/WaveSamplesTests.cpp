// Float samples and the wave accumulator on their own: the peak of each
// millisecond window from samples given in pieces of any size, against the
// definition worked out here.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <memory>
#include <cstdint>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "BtmWaveSamples.h"

namespace {

using ZOR::btm::FloatSamples;
using ZOR::btm::kWaveValues;
using ZOR::btm::peakOf;
using ZOR::btm::WaveAccumulator;
using ZOR::btm::WaveSink;

struct FrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;

// An audio frame of interleaved 16-bit samples, channels x count.
FramePtr s16Frame(const std::vector<int16_t>& interleaved, int channels, int rate) {
    FramePtr frame(av_frame_alloc());
    frame->format = AV_SAMPLE_FMT_S16;
    frame->sample_rate = rate;
    av_channel_layout_default(&frame->ch_layout, channels);
    frame->nb_samples = static_cast<int>(interleaved.size()) / channels;
    EXPECT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
    std::memcpy(frame->data[0], interleaved.data(), interleaved.size() * sizeof(int16_t));
    return frame;
}

// Planar float samples.
FramePtr fltpFrame(const std::vector<std::vector<float>>& planes, int rate) {
    FramePtr frame(av_frame_alloc());
    frame->format = AV_SAMPLE_FMT_FLTP;
    frame->sample_rate = rate;
    av_channel_layout_default(&frame->ch_layout, static_cast<int>(planes.size()));
    frame->nb_samples = static_cast<int>(planes[0].size());
    EXPECT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
    for (size_t c = 0; c < planes.size(); ++c)
        std::memcpy(frame->extended_data[c], planes[c].data(), planes[c].size() * sizeof(float));
    return frame;
}

// Keeps what the accumulator hands on, each channel's windows and the largest
// of every channel's, in order.
class RecordingSink final : public WaveSink {
public:
    void store(int32_t first, int32_t count, int32_t channelCount, const float* values) override {
        if (merged.empty()) firstFrame = first;
        EXPECT_EQ(first, firstFrame + static_cast<int32_t>(merged.size()) / kWaveValues) << "frames out of order";
        if (channels.empty()) channels.resize(static_cast<size_t>(channelCount));
        EXPECT_EQ(channels.size(), static_cast<size_t>(channelCount));
        for (int32_t f = 0; f < count; ++f)
            for (int32_t k = 0; k < kWaveValues; ++k) {
                float largest = 0.0f;
                for (int32_t c = 0; c < channelCount; ++c) {
                    const float value = values[(static_cast<size_t>(f) * channelCount + c) * kWaveValues + k];
                    channels[static_cast<size_t>(c)].push_back(value);
                    largest = std::max(largest, value);
                }
                merged.push_back(largest);
            }
        ++calls;
    }
    void ended(int32_t frame) override { endFrame = frame; }

    int32_t firstFrame = -1;
    std::vector<float> merged;
    std::vector<std::vector<float>> channels;
    int calls = 0;
    int32_t endFrame = -1;
};

TEST(WaveSamples, PeaksAreTheLargestMagnitudesWithNaNLeftOut) {
    std::vector<float> values{0.1f, -0.7f, 0.3f,  std::numeric_limits<float>::quiet_NaN(), 0.2f, 0.65f, -0.1f,
                              0.0f, 0.5f,  -0.71f};
    EXPECT_EQ(peakOf(values.data(), 10), 0.71f);  // past the vector width, and the rest
    EXPECT_EQ(peakOf(values.data(), 8), 0.7f);
    EXPECT_EQ(peakOf(values.data(), 3), 0.7f);
    EXPECT_EQ(peakOf(values.data(), 0), 0.0f);
    std::vector<float> nans(9, std::numeric_limits<float>::quiet_NaN());
    EXPECT_EQ(peakOf(nans.data(), 9), 0.0f);
}

TEST(WaveSamples, IntegerSamplesAreReadAsFloatsOfFullScaleOne) {
    FloatSamples samples;
    const FramePtr frame = s16Frame({16384, -8192, -32768, 100, 0, 32767}, 2, 48000);
    ASSERT_TRUE(samples.load(frame.get()));
    EXPECT_EQ(samples.channels(), 2);
    EXPECT_EQ(samples.count(), 3);
    EXPECT_EQ(samples.peak(0, 1), 0.5f);
    EXPECT_EQ(samples.peak(1, 2), 1.0f);
    EXPECT_EQ(samples.peak(2, 3), 32767.0f / 32768.0f);
    EXPECT_EQ(samples.peak(0, 3), 1.0f);
}

// The values of windows from the definition: window w of rate R holds the
// samples n with floor(n x 1000 / R) = w; its value is their largest magnitude
// over the channels, 0 when it holds none.
std::vector<float> windowsOf(const std::vector<std::vector<float>>& planes, int64_t rate, int64_t windows) {
    std::vector<float> values(static_cast<size_t>(windows), 0.0f);
    for (size_t n = 0; n < planes[0].size(); ++n) {
        const int64_t window = static_cast<int64_t>(n) * 1000 / rate;
        if (window >= windows) break;
        for (const auto& plane : planes)
            values[static_cast<size_t>(window)] = std::max(values[static_cast<size_t>(window)], std::fabs(plane[n]));
    }
    return values;
}

TEST(WaveSamples, TheAccumulatorGivesEachMillisecondsPeakFromPiecesOfAnySize) {
    for (int64_t rate : {44100, 48000, 22050, 8000}) {
        SCOPED_TRACE(rate);
        const int64_t total = rate * 3 / 2;  // 1.5 s: frames 0..37, the last one part full
        std::vector<std::vector<float>> planes(2, std::vector<float>(static_cast<size_t>(total)));
        for (int64_t n = 0; n < total; ++n) {
            planes[0][static_cast<size_t>(n)] = static_cast<float>(std::sin(static_cast<double>(n) * 0.013) * 0.8);
            planes[1][static_cast<size_t>(n)] = static_cast<float>(((n * 7919) % 1000) / 1000.0 - 0.5);
        }
        RecordingSink sink;
        WaveAccumulator waves(sink, 0, 99, rate);
        EXPECT_EQ(waves.needFirst(), 0);
        EXPECT_EQ(waves.needEnd(), ZOR::btm::firstSampleOf(100, rate));
        FloatSamples samples;
        const int64_t pieces[] = {1, 441, 1000, 17, 4096, 3};
        int64_t at = 0;
        for (size_t i = 0; at < total; ++i) {
            const int64_t count = std::min(pieces[i % std::size(pieces)], total - at);
            std::vector<std::vector<float>> part(2);
            for (size_t c = 0; c < 2; ++c) part[c].assign(planes[c].begin() + at, planes[c].begin() + at + count);
            const FramePtr frame = fltpFrame(part, static_cast<int>(rate));
            ASSERT_TRUE(samples.load(frame.get()));
            waves.add(at, samples);
            at += count;
            waves.completeBefore(at, false);
        }
        waves.streamEnded(total);
        const int64_t frames = ZOR::btm::frameOfSample(total - 1, rate) + 1;
        EXPECT_EQ(sink.endFrame, frames);
        ASSERT_EQ(sink.merged.size(), static_cast<size_t>(frames * kWaveValues));
        ASSERT_EQ(sink.channels.size(), 2u);
        const auto compare = [&](const std::vector<float>& got, const std::vector<float>& expected, const char* what) {
            ASSERT_EQ(got.size(), expected.size()) << what;
            int mismatches = 0;
            for (size_t i = 0; i < expected.size(); ++i)
                if (got[i] != expected[i] && ++mismatches < 5)
                    ADD_FAILURE() << what << " window " << i << ": " << got[i] << " expected " << expected[i];
            EXPECT_EQ(mismatches, 0) << what;
        };
        compare(sink.merged, windowsOf(planes, rate, frames * kWaveValues), "both channels");
        compare(sink.channels[0], windowsOf({planes[0]}, rate, frames * kWaveValues), "channel 0");
        compare(sink.channels[1], windowsOf({planes[1]}, rate, frames * kWaveValues), "channel 1");
        EXPECT_GT(sink.calls, 1) << "frames are handed on as they complete";
    }
}

TEST(WaveSamples, OnlyTheFramesAskedForAreKeptAndFramesAreHandedOnInCommits) {
    const int64_t rate = 48000;
    std::vector<std::vector<float>> planes(1, std::vector<float>(static_cast<size_t>(rate * 4), 0.25f));
    RecordingSink sink;
    WaveAccumulator waves(sink, 25, 74, rate);  // frames of [1 s, 3 s)
    EXPECT_EQ(waves.needFirst(), rate);
    EXPECT_EQ(waves.needEnd(), 3 * rate);
    FloatSamples samples;
    const FramePtr frame = fltpFrame(planes, static_cast<int>(rate));
    ASSERT_TRUE(samples.load(frame.get()));
    waves.add(0, samples);
    waves.completeBefore(rate + rate / 25 * 10, false);  // 10 frames complete: fewer than a commit
    EXPECT_EQ(sink.calls, 0);
    waves.completeBefore(4 * rate, false);
    EXPECT_EQ(sink.firstFrame, 25);
    ASSERT_EQ(sink.merged.size(), static_cast<size_t>(50 * kWaveValues));
    for (float value : sink.merged) EXPECT_EQ(value, 0.25f);
}

}  // namespace
