// miravel wave MEDIA [--stream N] --begin CNS --end CNS --samples N
//
// Asks the audio wave wrapper for the values of the media's audio stream over
// [begin, end) and prints what the finished request's callback received:
// {"token", "status", "count", "span", "values": [...]}. --timeout SECONDS
// (default 600) bounds the wait.
#include <cstdio>
#include <string>
#include <vector>

#include "Cli.h"
#include "Commands.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
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

}  // namespace

std::string waveJson(const WaveRequest& request) {
    const std::string& media = request.media;
    std::string error;
    ReleaseOnExit<ZOR::IDmClip> clip{ZOR::createMediaClip(media.c_str(), request.stream, -1, &error)};
    if (clip.object == nullptr) throw Failure(error);
    if (clip.object->queryInterface("IDmAudioFeature") == nullptr)
        throw Failure(!error.empty() ? error
                                     : media + ": no audio stream" +
                                           (request.stream >= 0 ? " at index " + std::to_string(request.stream) : ""));

    WaveResult result;
    ReleaseOnExit<ZOR::IBsAudioWaveExtractWrapper> wrapper{createBsAudioWaveExtractWrapper()};
    wrapper.object->addCallBack(&result);
    int64_t token = -1;
    if (wrapper.object->queryAudioWave(clip.object, request.begin, request.end, request.samples, 0, &token) != 0) {
        wrapper.object->removeCallBack(&result);
        throw Failure(media + ": the audio wave request was not accepted");
    }
    Progress progress("wave");
    const bool ended = result.completion.wait(request.timeout, progress);
    wrapper.object->removeCallBack(&result);
    if (!ended) throw Failure(media + ": no answer within " + std::to_string(request.timeout.count()) + " s");
    if (result.status_ == 3) {
        std::string cause;
        if (ZOR::mediaFailure(media.c_str(), ZOR::DmTrackAudio, &cause))
            throw Failure(media + ": the audio could not be decoded: " + cause);
        throw Failure(media + ": the audio could not be decoded (see --log error)");
    }
    if (result.status_ == 4) throw Failure(media + ": the audio wave request was cancelled");

    JsonWriter json;
    json.beginObject()
        .key("token").value(result.token_)
        .key("status").value(result.status_)
        .key("count").value(result.count_)
        .key("span").value(result.span_)
        .key("values").beginArray();
    for (float value : result.values_) json.value(value);
    json.endArray().endObject();
    return json.text();
}

int runWave(int argc, char** argv) {
    Arguments arguments(argc, argv, 2, {"stream", "begin", "end", "samples", "timeout"}, {});
    if (arguments.positional().size() != 1) throw UsageError("wave needs one MEDIA file");
    WaveRequest request;
    request.media = arguments.positional()[0];
    const int64_t stream = arguments.integer("stream", -1);
    request.begin = arguments.requiredInteger("begin");
    request.end = arguments.requiredInteger("end");
    const int64_t samples = arguments.requiredInteger("samples");
    if (stream < -1 || stream > 0xFFFF) throw UsageError("--stream needs a stream index or -1");
    if (samples < 1 || samples > 10'000'000) throw UsageError("--samples needs a count from 1 to 10000000");
    if (request.end < request.begin) throw UsageError("--end must not be before --begin");
    request.stream = static_cast<int32_t>(stream);
    request.samples = static_cast<int32_t>(samples);
    request.timeout = commandTimeout(arguments);
    setupCommandLogging(arguments);
    printJson(waveJson(request));
    return 0;
}

}  // namespace miravel
