// miravel wave MEDIA [--stream N] --begin CNS --end CNS --samples N
//
// Asks the audio wave wrapper for the values of the media's audio stream over
// [begin, end) and prints what the finished request's callback received:
// {"token", "status", "count", "span", "values": [...]}. --timeout SECONDS
// (default 600) bounds the wait.
//
// The wrapper counts in frames of 40 ms held in 32 bits and tells the span
// (40 values a frame of the range) and the count in 32 bits: the times, the
// range and the values printed are kept within the limits (Limits.h) where
// all three are exact.
#include <cstdio>
#include <string>
#include <vector>

#include "Cli.h"
#include "Commands.h"
#include "Common/ZorInternalComUtility.h"
#include "Usage.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmTime.h"
#include "Json.h"
#include "Miravel/Miravel.h"

namespace miravel {
namespace {

// Keeps the last word of a request: its values on status 2, or the status
// that ended it. Status 7 moves the request to a new token and goes on.
class WaveResult final : public ZOR::IBsAudioWaveExtractCallback {
public:
    void onAudioWaveChanged(int64_t token, int32_t status, const void* data, int32_t count, int32_t span) override {
        auto lock = completion.lock();
        token_ = token;
        if (status == 7) return;
        status_ = status;
        count_ = count;
        span_ = span;
        if (data != nullptr && count > 0) {
            const auto* values = static_cast<const float*>(data);
            values_.assign(values, values + count);
        }
        completion.finish();
    }

    Completion completion;
    int64_t token_ = -1;
    int32_t status_ = 0;
    int32_t count_ = 0;
    int32_t span_ = 0;
    std::vector<float> values_;
};

// The values the wrapper delivers for [begin, end) and samples: 40 for each
// frame it samples, every step-th frame of the range (the step as the
// wrapper works it out). Exact for the times and samples the limits take.
int64_t waveValueCount(int64_t begin, int64_t end, int64_t samples) {
    constexpr ZOR::DmRational kWaveRate{25, 1};
    const int64_t frames = ZOR::frameFromCnsTime(kWaveRate, end) - ZOR::frameFromCnsTime(kWaveRate, begin);
    if (frames <= 0) return 0;
    const int64_t step = frames > samples ? frames / samples : 1;
    return (frames + step - 1) / step * 40;
}

}  // namespace

std::string waveJson(const WaveRequest& request) {
    const std::string& media = request.media;
    std::string error;
    const auto clip = ZOR::ZorRef<ZOR::IDmClip>::adopt(ZOR::createMediaClip(media.c_str(), request.stream, -1, &error));
    if (clip.get() == nullptr) throw Failure(error);
    if (clip.get()->queryInterface("IDmAudioFeature") == nullptr)
        throw Failure(!error.empty() ? error
                                     : media + ": no audio stream" +
                                           (request.stream >= 0 ? " at index " + std::to_string(request.stream) : ""));

    WaveResult result;
    const auto wrapper = ZOR::ZorRef<ZOR::IBsAudioWaveExtractWrapper>::adopt(createBsAudioWaveExtractWrapper());
    wrapper.get()->addCallBack(&result);
    int64_t token = -1;
    if (wrapper.get()->queryAudioWave(clip.get(), request.begin, request.end, request.samples, 0, &token) != 0) {
        wrapper.get()->removeCallBack(&result);
        throw Failure(media + ": the audio wave request was not accepted");
    }
    Progress progress("wave");
    const bool ended = result.completion.wait(request.timeout, progress);
    wrapper.get()->removeCallBack(&result);
    if (!ended)
        throw Failure(media + ": no wave values of [" + std::to_string(request.begin) + ", " +
                      std::to_string(request.end) + ") within " + std::to_string(request.timeout.count()) + " s");
    if (result.status_ == 3) {
        std::string cause;
        if (ZOR::mediaFailure(media.c_str(), ZOR::DmTrackAudio, &cause))
            throw Failure(media + ": the audio could not be decoded: " + cause);
        throw Failure(media + ": the audio could not be decoded (see --log error)");
    }
    if (result.status_ == 4) throw Failure(media + ": the audio wave request was cancelled");

    JsonWriter json;
    json.beginObject()
        .key("token")
        .value(result.token_)
        .key("status")
        .value(result.status_)
        .key("count")
        .value(result.count_)
        .key("span")
        .value(result.span_)
        .key("values")
        .beginArray();
    for (float value : result.values_) json.value(value);
    json.endArray().endObject();
    return json.text();
}

int runWave(int argc, char** argv) {
    Arguments arguments(argc, argv, 2, commandSpec("wave"));
    if (arguments.positional().size() != 1) throw UsageError("wave needs one MEDIA file");
    WaveRequest request;
    request.media = arguments.positional()[0];
    request.stream = static_cast<int32_t>(arguments.integer("stream", limits::stream, -1));
    request.begin = arguments.requiredInteger("begin", limits::time);
    request.end = arguments.requiredInteger("end", limits::time);
    if (request.end < request.begin) throw UsageError("--end must not be before --begin");
    // Both within limits::time: the difference fits.
    if (request.end - request.begin > limits::waveRange.max)
        throw UsageError("--end needs a range " + rangeText(limits::waveRange) + " after --begin, not " +
                         std::to_string(request.end - request.begin));
    request.samples = static_cast<int32_t>(arguments.requiredInteger("samples", limits::samples));
    const int64_t values = waveValueCount(request.begin, request.end, request.samples);
    if (values > limits::values.max)
        throw UsageError("--samples " + std::to_string(request.samples) + " over --begin " +
                         std::to_string(request.begin) + " --end " + std::to_string(request.end) + " asks for " +
                         std::to_string(values) + " values; at most " + std::to_string(limits::values.max) +
                         " are printed");
    request.timeout = commandTimeout(arguments);
    setupCommandLogging(arguments);
    printJson(namingOutOfMemory(request.media, [&] { return waveJson(request); }));
    return 0;
}

}  // namespace miravel
