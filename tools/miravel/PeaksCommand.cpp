// miravel peaks MEDIA [--stream N] [--begin CNS --end CNS] --points N [--channels]
//
// A peak-true view of a media stream's wave data: value i is the largest
// millisecond value among the windows that overlap bucket i of [begin, end)
// (DmWavePeaks.h). The wave store is read first; what it does not hold is
// extracted by the audio wave task, with a progress line, and kept for the
// next run. Prints {"begin", "end", "points", "values": [...]} and, with
// --channels, "channels": [[...], ...], the same buckets for each channel.
#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include "Cli.h"
#include "Commands.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmMediaInternal.h"
#include "DataModel/DmWavePeaks.h"
#include "Json.h"
#include "Limits.h"
#include "Usage.h"
#include "WaveExtract.h"

namespace miravel {
namespace {

constexpr int64_t kWindowsPerFrame = ZOR::IDmAudioWaveStore::kValuesPerFrame;

}  // namespace

std::string peaksJson(const PeaksRequest& request) {
    const std::string& media = request.media;
    std::string error;
    const auto clip = ZOR::ZorRef<ZOR::IDmClip>::adopt(ZOR::createMediaClip(media.c_str(), request.stream, -1, &error));
    if (clip.get() == nullptr) throw Failure(error);
    auto* audio = static_cast<ZOR::IDmAudioFeature*>(clip.get()->queryInterface("IDmAudioFeature"));
    auto* source = static_cast<ZOR::IDmMediaSource*>(clip.get()->queryInterface("IDmMediaSource"));
    ZOR::IDmAudioWaveStore* store = source != nullptr ? source->waveStore() : nullptr;
    if (audio == nullptr || store == nullptr)
        throw Failure(!error.empty() ? error
                                     : media + ": no audio stream" +
                                           (request.stream >= 0 ? " at index " + std::to_string(request.stream) : ""));
    int64_t begin = 0;
    int64_t end = 0;
    if (request.begin && request.end) {
        begin = *request.begin;
        end = *request.end;
    } else {
        end = audio->mediaDuration();
        if (end <= 0) throw Failure(media + ": the audio stream's duration is not known; give --begin and --end");
        end = std::min(end, limits::time.max);
    }

    // The frames whose windows the buckets overlap, within the stream.
    const ZOR::DmPeakWindows head = ZOR::peakBucketWindows(begin, end, request.points, 0);
    const ZOR::DmPeakWindows tail = ZOR::peakBucketWindows(begin, end, request.points, request.points - 1);
    const int64_t firstFrame = std::max<int64_t>(head.first, 0) / kWindowsPerFrame;
    const int64_t lastFrame = std::min<int64_t>((tail.end - 1) / kWindowsPerFrame, INT32_MAX);
    if (tail.end > 0 && firstFrame <= lastFrame)
        extractMissingWave(media, clip.get(), store, static_cast<int32_t>(firstFrame), static_cast<int32_t>(lastFrame),
                           request.timeout, "peaks");

    JsonWriter json;
    json.beginObject().key("begin").value(begin).key("end").value(end).key("points").value(request.points);
    json.key("values").beginArray();
    for (float value : ZOR::wavePeaks(store, -1, begin, end, request.points)) json.value(value);
    json.endArray();
    if (request.channels) {
        json.key("channels").beginArray();
        for (int32_t channel = 0; channel < store->channelCount(); ++channel) {
            json.beginArray();
            for (float value : ZOR::wavePeaks(store, channel, begin, end, request.points)) json.value(value);
            json.endArray();
        }
        json.endArray();
    }
    json.endObject();
    return json.text();
}

int runPeaks(int argc, char** argv) {
    Arguments arguments(argc, argv, 2, commandSpec("peaks"));
    if (arguments.positional().size() != 1) throw UsageError("peaks needs one MEDIA file");
    PeaksRequest request;
    request.media = arguments.positional()[0];
    request.stream = static_cast<int32_t>(arguments.integer("stream", limits::stream, -1));
    if (arguments.has("begin") != arguments.has("end")) throw UsageError("--begin and --end go together");
    if (arguments.has("begin")) {
        request.begin = arguments.requiredInteger("begin", limits::time);
        request.end = arguments.requiredInteger("end", limits::time);
        if (*request.end <= *request.begin) throw UsageError("--end must be after --begin");
    }
    request.points = static_cast<int32_t>(arguments.requiredInteger("points", limits::points));
    request.channels = arguments.has("channels");
    request.timeout = commandTimeout(arguments);
    setupCommandLogging(arguments);
    printJson(namingOutOfMemory(request.media, [&] { return peaksJson(request); }));
    return 0;
}

}  // namespace miravel
