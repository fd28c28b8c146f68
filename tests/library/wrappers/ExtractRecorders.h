// What the extraction wrappers tell their callbacks, recorded for the tests
// to look at and to wait for.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "CallRecorder.h"
#include "Miravel/Miravel.h"

namespace ZOR::test {

// One onAudioWaveChanged call, its values copied.
struct WaveCall {
    int64_t token = -1;
    int32_t status = 0;
    std::vector<float> values;
    bool hasData = false;
    int32_t count = 0;
    int32_t span = 0;
};

class WaveRecorder final : public IBsAudioWaveExtractCallback {
public:
    void onAudioWaveChanged(int64_t token, int32_t status, const void* data, int32_t count, int32_t span) override {
        WaveCall call{token, status, {}, data != nullptr, count, span};
        if (data != nullptr && count > 0) {
            const auto* values = static_cast<const float*>(data);
            call.values.assign(values, values + count);
        }
        calls_.record(std::move(call));
    }
    std::vector<WaveCall> calls() const { return calls_.snapshot(); }
    // Waits until some call satisfies the predicate.
    template <class Predicate>
    bool waitFor(Predicate predicate, std::chrono::milliseconds limit = kGenerous) const {
        return calls_.waitForAny(predicate, limit);
    }

private:
    CallRecorder<WaveCall> calls_;
};

// One onVideoFrameChanged call: the times and the frame files named in the
// 1024-byte slots, copied.
struct FrameCall {
    int64_t token = -1;
    int32_t status = 0;
    std::vector<int64_t> times;
    std::vector<std::string> files;
    bool hasFrames = false;
    int32_t count = 0;
};

class FrameRecorder final : public IBsVideoFrameExtractCallback {
public:
    void onVideoFrameChanged(int64_t token, int32_t status, const int64_t* times, void* frames,
                             int32_t count) override {
        FrameCall call{token, status, {}, {}, frames != nullptr, count};
        for (int32_t i = 0; times != nullptr && i < count; ++i) call.times.push_back(times[i]);
        for (int32_t i = 0; frames != nullptr && i < count; ++i)
            call.files.emplace_back(static_cast<const char*>(frames) + static_cast<size_t>(i) * 1024);
        calls_.record(std::move(call));
    }
    std::vector<FrameCall> calls() const { return calls_.snapshot(); }

private:
    CallRecorder<FrameCall> calls_;
};

}  // namespace ZOR::test
