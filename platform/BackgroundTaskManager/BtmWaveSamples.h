// Samples and wave values: decoded audio as float samples, and the wave
// values of frames (the peak of each millisecond window, 40 a frame at 25
// frames a second) accumulated from them. Nothing here reads a file or takes
// a lock.
#pragma once

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace ZOR::btm {

// Values per frame, and frames handed on at a time while decoding.
inline constexpr int32_t kWaveValues = 40;
inline constexpr int32_t kCommitFrames = 25;

// The largest absolute value of data[0, count), NaN ignored.
float peakOf(const float* data, int count);
// The first sample of frame f at rate R: the least n with n x 25 >= f x R.
inline int64_t firstSampleOf(int64_t frame, int64_t rate) { return (frame * rate + 24) / 25; }
// The frame that holds sample n: floor(floor(n x 1000 / R) / 40) = floor(n x 25 / R).
inline int64_t frameOfSample(int64_t sample, int64_t rate) { return sample * 25 / rate; }

// Float samples of any decoded frame: the frame's own when FFmpeg decodes to
// floats, otherwise converted with libswresample (same layout and rate).
class FloatSamples {
public:
    FloatSamples() = default;
    ~FloatSamples() {
        swr_free(&swr_);
        av_channel_layout_uninit(&swrLayout_);
    }
    FloatSamples(const FloatSamples&) = delete;
    FloatSamples& operator=(const FloatSamples&) = delete;

    // False when the frame cannot be converted.
    bool load(const AVFrame* frame);

    int channels() const { return channels_; }
    int count() const { return count_; }
    // The largest absolute value of samples [from, to) over every channel.
    float peak(int from, int to) const {
        if (!planar_) return peakOf(planes_[0] + from * channels_, (to - from) * channels_);
        float peak = 0.0f;
        for (int c = 0; c < channels_; ++c)
            peak = std::max(peak, peakOf(planes_[static_cast<size_t>(c)] + from, to - from));
        return peak;
    }
    // The largest absolute value of samples [from, to) of one channel.
    float channelPeak(int channel, int from, int to) const {
        if (planar_) return peakOf(planes_[static_cast<size_t>(channel)] + from, to - from);
        float peak = 0.0f;
        const float* sample = planes_[0] + static_cast<ptrdiff_t>(from) * channels_ + channel;
        for (int i = from; i < to; ++i, sample += channels_) peak = std::max(peak, std::fabs(*sample));
        return peak;
    }

private:
    int channels_ = 0;
    int count_ = 0;
    bool planar_ = true;
    std::vector<const float*> planes_;
    std::vector<std::vector<float>> buffers_;
    SwrContext* swr_ = nullptr;
    AVSampleFormat swrFormat_ = AV_SAMPLE_FMT_NONE;
    int swrRate_ = 0;
    AVChannelLayout swrLayout_{};
};

// Where complete frames go.
class WaveSink {
public:
    // count frames from first on: for each frame, channels x kWaveValues
    // values, one channel after the other.
    virtual void store(int32_t first, int32_t count, int32_t channels, const float* values) = 0;
    // The stream ends before frame endFrame.
    virtual void ended(int32_t endFrame) = 0;

protected:
    ~WaveSink() = default;
};

// The values of frames [first, last] as the samples come, handed to a sink
// as frames complete. Only the frames not stored yet are kept, so a
// range that reaches far beyond the end of the stream costs nothing.
class WaveAccumulator {
public:
    WaveAccumulator(WaveSink& sink, int32_t first, int32_t last, int64_t rate)
        : sink_(sink),
          last_(last),
          rate_(rate),
          needFirst_(firstSampleOf(first, rate)),
          needEnd_(firstSampleOf(int64_t{last} + 1, rate)),
          base_(first) {}

    int64_t needFirst() const { return needFirst_; }
    int64_t needEnd() const { return needEnd_; }

    // count samples from sample n0 on. The channels are those of the first
    // samples added; later samples with more fold channel c into c % that.
    void add(int64_t n0, const FloatSamples& samples) {
        if (channels_ == 0) channels_ = std::max(1, samples.channels());
        int64_t n = std::max(n0, needFirst_);
        const int64_t end = std::min(n0 + samples.count(), needEnd_);
        if (n >= end) return;
        const size_t perFrame = static_cast<size_t>(channels_) * kWaveValues;
        // Runs end where windows do: the window of the next run is the next one.
        for (int64_t window = n * 1000 / rate_; n < end; ++window) {
            const int64_t nextWindowStart = ((window + 1) * rate_ + 999) / 1000;
            const int64_t runEnd = std::min(end, nextWindowStart);
            const int64_t frame = window / kWaveValues - base_;
            if (frame >= 0) {  // frames already stored are complete
                const size_t at = static_cast<size_t>(frame) * perFrame + static_cast<size_t>(window % kWaveValues);
                if (at >= values_.size()) values_.resize((static_cast<size_t>(frame) + 1) * perFrame, 0.0f);
                for (int c = 0; c < samples.channels(); ++c) {
                    float& value = values_[at + static_cast<size_t>(c % channels_) * kWaveValues];
                    value = std::max(value,
                                     samples.channelPeak(c, static_cast<int>(n - n0), static_cast<int>(runEnd - n0)));
                }
            }
            n = runEnd;
        }
    }

    // Every sample before n has been added: store the frames that are complete.
    void completeBefore(int64_t n, bool force) {
        commitThrough(std::min<int64_t>(last_, frameOfSample(n, rate_) - 1), force);
    }

    // The stream ended after sample total - 1.
    void streamEnded(int64_t total) {
        if (total <= 0) return;
        const int64_t lastFrame = frameOfSample(total - 1, rate_);
        commitThrough(std::min<int64_t>(last_, lastFrame), true);
        if (lastFrame + 1 <= INT32_MAX) sink_.ended(static_cast<int32_t>(lastFrame + 1));
    }

private:
    void commitThrough(int64_t through, bool force) {
        if (through < base_) return;
        const int64_t count = through - base_ + 1;
        if (!force && count < kCommitFrames) return;
        const int32_t channels = std::max(channels_, 1);
        const size_t stored = static_cast<size_t>(count) * static_cast<size_t>(channels) * kWaveValues;
        if (values_.size() < stored) values_.resize(stored, 0.0f);  // windows without samples hold 0
        sink_.store(static_cast<int32_t>(base_), static_cast<int32_t>(count), channels, values_.data());
        values_.erase(values_.begin(), values_.begin() + static_cast<ptrdiff_t>(stored));
        base_ = through + 1;
    }

    WaveSink& sink_;
    const int32_t last_;
    const int64_t rate_;
    const int64_t needFirst_;
    const int64_t needEnd_;
    int64_t base_;               // the first frame not stored yet: values_ begin with its values
    int32_t channels_ = 0;       // set by the first samples added
    std::vector<float> values_;  // per frame, channels_ x kWaveValues
};

}  // namespace ZOR::btm
