// A cold audio thumbnail of a long MP3 clip: 2,000 points over the whole clip,
// from the query to the callback, beside the audio wave extraction task alone
// extracting the same frames. The MP3 is named by MIRAVEL_BENCH_MP3 (see
// bench/run_audio_cold_bench.sh).
//
// Every iteration starts cold: the timeline, its clip, the builder (and with
// it the shared task and the sample cache) or the task are made anew and
// released afterwards, so the clip's wave manager is new and holds no frame.
// The task also keeps the packet indexes of the last MP3 files it indexed
// (by path and file identity: size and modification time), so before each
// iteration the file's modification time is moved to a time it never had:
// the index is built again as well. The file's time is put back at the end.
//
// Checked in every iteration (an iteration that fails a check ends the
// benchmark with an error): no frame of the range is held before, all of them
// are held after; the builder delivers 2,000 values, no sample cache is left
// once everything is released. Counted from the log (debug lines): the packet
// indexes built and the decodings planned, reported per iteration.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "Adapter/Adapter.h"
#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "BsAudioSampleCache.h"
#include "BsAudioThumbnailBuilder.h"
#include "AudioRecording.h"
#include "BenchMedia.h"
#include "CapturingLogger.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmTime.h"
#include "DataModel/DmTimeline.h"
#include "TaskRecording.h"

namespace ZOR {
namespace {

constexpr int kPoints = 2000;
constexpr int64_t kFrame = 400'000;  // one wave frame at 25/1, cns
constexpr auto kLimit = std::chrono::minutes(5);

// The MP3, its clip's length and its modification time as found.
struct Media : bench::BenchFile {
    std::filesystem::file_time_type originalTime;
};

const Media& media() {
    static const Media* shared = [] {
        auto* made = new Media{bench::benchFile("MIRAVEL_BENCH_MP3", "an MP3 file", "bench/run_audio_cold_bench.sh",
                                                "IDmAudioFeature", "audio"),
                               {}};
        if (!made->problem.empty()) return made;
        std::error_code error;
        made->originalTime = std::filesystem::last_write_time(made->path, error);
        if (error) made->problem = made->path + ": " + error.message();
        return made;
    }();
    return *shared;
}

// The MP3, or null (and the benchmark skipped) when there is none to use.
const Media* readyMedia(benchmark::State& state) {
    const Media& file = media();
    if (file.problem.empty()) return &file;
    state.SkipWithError(file.problem.c_str());
    return nullptr;
}

// Gives the file an identity it never had, so that no packet index kept from
// an earlier iteration matches it.
bool renewIdentity(const Media& file) {
    static int64_t moved = 0;
    std::error_code error;
    std::filesystem::last_write_time(file.path, file.originalTime - std::chrono::seconds(++moved), error);
    return !error;
}

void restoreIdentity(const Media& file) {
    std::error_code error;
    std::filesystem::last_write_time(file.path, file.originalTime, error);
}

// The frames the 2,000 points of the clip's whole range fall in, as the
// builder works them out.
std::pair<int32_t, int32_t> frameRange(IDmClip* clip) {
    auto* audio = static_cast<IDmAudioFeature*>(clip->queryInterface("IDmAudioFeature"));
    const int64_t begin = markInTimeOfClip(clip);
    const int64_t end = markOutTimeOfClip(clip);
    int64_t low = INT64_MAX;
    int64_t high = 0;
    for (int i = 0; i < kPoints; ++i) {
        const int64_t t =
            begin + static_cast<int64_t>(static_cast<double>(i) / kPoints * static_cast<double>(end - begin));
        const int64_t s = audio->sourcePosition(t, false);
        low = std::min(low, s);
        high = std::max(high, s);
    }
    return {static_cast<int32_t>(low / kFrame), static_cast<int32_t>(high / kFrame)};
}

// Whether the clip's wave manager holds every frame of range.
bool holds(IDmClip* clip, std::pair<int32_t, int32_t> range) {
    auto* internal = static_cast<IDmClipInternal*>(clip->queryInterface("IDmClipInternal"));
    const auto manager = ZorRef<IDmAudioWaveMgrInternal>::adopt(
        internal != nullptr ? acquireIDmAudioWaveMgrInternal(internal->waveManagerSource()) : nullptr);
    return manager != nullptr && manager->hasFrames(range.first, range.second) != 0;
}

// Whether the clip's wave manager holds none of the first, middle and last
// frames of range: a manager made anew holds nothing.
bool holdsNone(IDmClip* clip, std::pair<int32_t, int32_t> range) {
    const int32_t middle = range.first + (range.second - range.first) / 2;
    for (int32_t frame : {range.first, middle, range.second})
        if (holds(clip, {frame, frame})) return false;
    return true;
}

// The owner of the query's result.
class ThumbnailWaiter final : public test::RecordingCallback, public IBsAudioThumbnailQueryer {
public:
    IBsAudioClipThumbnailCallback* getResultCallback() override { return this; }
    bool isCalcDuckingEnabled() override { return true; }
};

// The start of a cold iteration (timing paused): the file given an identity
// it never had, a new timeline of it, and the frames of the 2,000 points of
// its clip; cold counts the iterations whose wave manager held none of them.
// A null clip (the benchmark skipped) ends the benchmark.
struct ColdStart {
    bench::WholeFileTimeline scene;
    std::pair<int32_t, int32_t> frames;
};

ColdStart coldStart(benchmark::State& state, const Media& file, int64_t& cold) {
    ColdStart start;
    if (!renewIdentity(file)) {
        state.SkipWithError("cannot set the file's modification time");
        return start;
    }
    start.scene = bench::wholeFileTimeline(state, file, "hour", DmTrackAudio);
    if (start.scene.clip == nullptr) return start;
    start.frames = frameRange(start.scene.clip);
    if (holdsNone(start.scene.clip, start.frames)) ++cold;
    return start;
}

// Log lines that tell what the task did: the indexes built and the decodings
// planned.
struct WorkCount {
    int64_t indexes = 0;
    int64_t plans = 0;
};

WorkCount workIn(const test::CapturingSink& sink) {
    WorkCount count;
    for (const test::CapturedLine& line : sink.lines()) {
        if (line.function != "ZOR::AudioWaveExtractTask::plan") continue;
        if (line.text.find(" packets indexed in ") != std::string::npos) ++count.indexes;
        if (line.text.find(" pieces, ") != std::string::npos) ++count.plans;
    }
    return count;
}

void report(benchmark::State& state, const test::CapturingSink& sink, int64_t cold) {
    const WorkCount work = workIn(sink);
    const auto perIteration = [&](int64_t value) {
        return benchmark::Counter(static_cast<double>(value), benchmark::Counter::kAvgIterations);
    };
    state.counters["cold_starts"] = perIteration(cold);
    state.counters["indexes_built"] = perIteration(work.indexes);
    state.counters["decodes_planned"] = perIteration(work.plans);
}

// The loop of a cold benchmark: each iteration starts cold (timing paused)
// and hands its start to iteration, which resumes the timing and tells
// whether to go on. Then the file's identity is put back and the work the log
// tells of reported.
template <typename Iteration>
void runCold(benchmark::State& state, Iteration iteration) {
    const Media* file = readyMedia(state);
    if (file == nullptr) return;
    test::ScopedCapture capture(IBsLogger::Debug);
    int64_t cold = 0;
    for (auto _ : state) {
        state.PauseTiming();
        ColdStart start = coldStart(state, *file, cold);
        if (start.scene.clip == nullptr) break;
        if (!iteration(start)) break;
    }
    restoreIdentity(*file);
    report(state, capture.sink(), cold);
}

// (a) The builder: a query of 2,000 points over the whole clip, timed from
// the query to the callback.
void BM_AudioColdQuery2000PointsWholeClip(benchmark::State& state) {
    runCold(state, [&](ColdStart& start) {
        IDmClip* clip = start.scene.clip;
        ThumbnailWaiter waiter;
        auto builder = std::make_unique<BsAudioThumbnailBuilder>(nullptr, start.scene.timeline.get());
        state.ResumeTiming();

        const int32_t accepted =
            builder->queryAudioThumbnailData(&waiter, clip, markInTimeOfClip(clip), markOutTimeOfClip(clip), kPoints);
        const bool delivered = accepted == 0 && waiter.waitForDeliveries(1, kLimit);

        state.PauseTiming();
        const std::vector<test::AudioDelivery> deliveries = waiter.deliveries();
        const std::vector<float> values = deliveries.empty() ? std::vector<float>() : deliveries.back().values;
        const bool heldAfter = holds(clip, start.frames);
        builder.reset();
        start.scene.timeline.reset();
        const size_t caches = BsAudioSampleCache::registrySize();
        state.ResumeTiming();
        if (!delivered || values.size() != static_cast<size_t>(kPoints)) {
            state.SkipWithError("the thumbnail was not delivered");
            return false;
        }
        if (!heldAfter || caches != 0) {
            state.SkipWithError("frames not held after the query, or a sample cache left behind");
            return false;
        }
        return true;
    });
    state.counters["points"] = kPoints;
}
BENCHMARK(BM_AudioColdQuery2000PointsWholeClip)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

// (b) The task alone: the frames of the smallest and largest source position
// of the same 2,000 points, from start and append to status 2.
void BM_AudioColdTaskExtractSameRange(benchmark::State& state) {
    runCold(state, [&](ColdStart& start) {
        IDmClip* clip = start.scene.clip;
        const auto frames = start.frames;
        test::TaskRecorder waiter;
        auto task = ZorRef<IBsAudioWaveExtractTask>::adopt(createAudioWaveExtractTask());
        task->initialize();
        task->addCallBack(&waiter);
        BsWaveTaskRecord record;
        record.option = 0;
        record.clip = clip;
        record.rateNum = 25;
        record.rateDen = 1;
        record.beginFrame = frames.first;
        record.endFrame = frames.second;
        record.frameStep = frames.second != frames.first ? frames.second - frames.first : 1;
        state.ResumeTiming();

        task->start();
        int64_t token = -1;
        const int32_t appended = task->append(&record, &token);
        const int32_t status = appended == 0 ? waiter.waitFinal(token, kLimit) : 0;

        state.PauseTiming();
        const bool heldAfter = holds(clip, frames);
        task->removeCallBack(&waiter);
        task->shutdown();
        task.reset();
        start.scene.timeline.reset();
        state.ResumeTiming();
        if (status != BsTaskFinished) {
            state.SkipWithError("the task did not finish with status 2");
            return false;
        }
        if (!heldAfter) {
            state.SkipWithError("frames not held after the task");
            return false;
        }
        return true;
    });
}
BENCHMARK(BM_AudioColdTaskExtractSameRange)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace
}  // namespace ZOR
