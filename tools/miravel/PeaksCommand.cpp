// miravel peaks MEDIA [--stream N] [--begin CNS --end CNS] --points N [--channels]
//
// A peak-true view of a media stream's wave data: value i is the largest
// millisecond value among the windows that overlap bucket i of [begin, end)
// (DmWavePeaks.h). The wave store is read first; what it does not hold is
// extracted by the audio wave task, with a progress line, and kept for the
// next run. Prints {"begin", "end", "points", "values": [...]} and, with
// --channels, "channels": [[...], ...], the same buckets for each channel.
#include <algorithm>
#include <atomic>
#include <climits>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
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

namespace miravel {
namespace {

constexpr int64_t kCnsPerWindow = 10'000;
constexpr int64_t kWindowsPerFrame = ZOR::IDmAudioWaveStore::kValuesPerFrame;

// The final report of the one request of an audio wave task, and its percent
// meanwhile. The task serves no other request, so every report is about it
// (the first may come before append() has returned its token).
class TaskEnd final : public ZOR::IZorCallBack {
public:
    int32_t processChanged(ZOR::IDmBaseObj* /*task*/, int32_t /*progress*/, int32_t status,
                           const ZOR::BsTaskProgressInfo* info) override {
        if (info == nullptr) return 0;
        std::lock_guard<std::mutex> lock(mutex_);
        percent_.store(info->percent);
        if (status == ZOR::BsTaskFinished || status == ZOR::BsTaskFailed || status == ZOR::BsTaskCancelled) {
            status_ = status;
            ended_.notify_all();
        }
        return 0;
    }
    int32_t status() {
        std::lock_guard<std::mutex> lock(mutex_);
        return status_;
    }
    void waitUntil(std::chrono::steady_clock::time_point until) {
        std::unique_lock<std::mutex> lock(mutex_);
        ended_.wait_until(lock, until, [this] { return status_ != 0; });
    }
    int32_t percent() const { return percent_.load(); }

private:
    std::mutex mutex_;  // leaf: guards status_
    std::condition_variable ended_;
    int32_t status_ = 0;
    std::atomic<int32_t> percent_{0};
};

// Extracts frames [first, last] that the store does not hold yet.
void extractMissing(const PeaksRequest& request, ZOR::IDmClip* clip, ZOR::IDmAudioWaveStore* store, int32_t first,
                    int32_t last) {
    if (store->missingRanges(first, last).empty()) return;
    const auto task = ZOR::ZorRef<ZOR::IBsAudioWaveExtractTask>::adopt(createAudioWaveExtractTask());
    if (task.get() == nullptr || task.get()->initialize() != 0)
        throw Failure(request.media + ": the audio wave task could not be made");
    TaskEnd end;
    task.get()->addCallBack(&end);
    task.get()->start();
    ZOR::BsWaveTaskRecord record;
    record.clip = clip;
    record.beginFrame = first;
    record.endFrame = last;
    int64_t token = -1;
    if (task.get()->append(&record, &token) != 0) {
        task.get()->shutdown();
        throw Failure(request.media + ": the audio wave request was not accepted");
    }
    Progress progress("peaks");
    progress.update(0.0);
    const bool ended = waitWithProgress(
        std::chrono::steady_clock::now() + request.timeout, progress,
        [&] {
            progress.update(end.percent() / 100.0);
            return end.status() != 0;
        },
        [&](std::chrono::steady_clock::time_point until) { end.waitUntil(until); });
    task.get()->removeCallBack(&end);
    task.get()->shutdown();
    if (!ended)
        throw Failure(request.media + ": no wave values within " + std::to_string(request.timeout.count()) + " s");
    progress.update(1.0);
    progress.finish();
    if (end.status() == ZOR::BsTaskFailed) {
        std::string cause;
        if (ZOR::mediaFailure(request.media.c_str(), ZOR::DmTrackAudio, &cause))
            throw Failure(request.media + ": the audio could not be decoded: " + cause);
        throw Failure(request.media + ": the audio could not be decoded (see --log error)");
    }
    if (end.status() == ZOR::BsTaskCancelled) throw Failure(request.media + ": the audio wave request was cancelled");
}

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
        extractMissing(request, clip.get(), store, static_cast<int32_t>(firstFrame), static_cast<int32_t>(lastFrame));

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
