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
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

#include "Adapter/Adapter.h"
#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "BsAudioSampleCache.h"
#include "BsAudioThumbnailBuilder.h"
#include "CapturingLogger.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmTime.h"
#include "DataModel/DmTimeline.h"
#include "TimelineDescs.h"

namespace ZOR {
namespace {

constexpr int kPoints = 2000;
constexpr int64_t kFrame = 400'000;  // one wave frame at 25/1, cns
constexpr auto kLimit = std::chrono::minutes(5);

// The MP3 and its clip.
struct Media {
    std::string path;
    int64_t duration = 0;  // cns, the audio stream's
    std::filesystem::file_time_type originalTime;
    std::string problem;
};

const Media& media() {
    static const Media* shared = [] {
        auto* made = new Media;
        const char* path = std::getenv("MIRAVEL_BENCH_MP3");
        if (path == nullptr || *path == '\0') {
            made->problem = "set MIRAVEL_BENCH_MP3 to an MP3 file (bench/run_audio_cold_bench.sh makes one)";
            return made;
        }
        made->path = path;
        std::error_code error;
        made->originalTime = std::filesystem::last_write_time(made->path, error);
        if (error) {
            made->problem = made->path + ": " + error.message();
            return made;
        }
        std::string why;
        IDmClip* clip = createMediaClip(path, -1, -1, &why);
        if (clip == nullptr || clip->queryInterface("IDmAudioFeature") == nullptr) {
            made->problem = made->path + " has no audio: " + why;
        } else {
            made->duration = markOutTimeOfClip(clip);
        }
        if (clip != nullptr) clip->Release();
        return made;
    }();
    return *shared;
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

// A timeline of one audio track holding one clip of the whole file.
IDmTimeline* timelineOf(const Media& file) {
    return test::wholeFileTimeline("hour", file.path, file.duration, DmTrackAudio);
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
        const int64_t t = begin + static_cast<int64_t>(static_cast<double>(i) / kPoints * static_cast<double>(end - begin));
        const int64_t s = audio->sourcePosition(t, false);
        low = std::min(low, s);
        high = std::max(high, s);
    }
    return {static_cast<int32_t>(low / kFrame), static_cast<int32_t>(high / kFrame)};
}

// Whether the clip's wave manager holds every frame of range.
bool holds(IDmClip* clip, std::pair<int32_t, int32_t> range) {
    auto* internal = static_cast<IDmClipInternal*>(clip->queryInterface("IDmClipInternal"));
    IDmAudioWaveMgrInternal* manager =
        internal != nullptr ? acquireIDmAudioWaveMgrInternal(internal->waveManagerSource()) : nullptr;
    if (manager == nullptr) return false;
    const bool held = manager->hasFrames(range.first, range.second) != 0;
    manager->Release();
    return held;
}

// Whether the clip's wave manager holds none of the first, middle and last
// frames of range: a manager made anew holds nothing.
bool holdsNone(IDmClip* clip, std::pair<int32_t, int32_t> range) {
    const int32_t middle = range.first + (range.second - range.first) / 2;
    for (int32_t frame : {range.first, middle, range.second})
        if (holds(clip, {frame, frame})) return false;
    return true;
}

class ThumbnailWaiter final : public IBsAudioClipThumbnailCallback, public IBsAudioThumbnailQueryer {
public:
    int32_t onAudioThumbnailNotice(IDmClip*) override { return 0; }
    int32_t onAudioThumbnailChanged(IDmClip*) override { return 0; }
    int32_t onAudioThumbnailData(IDmClip*, int64_t, int64_t, const float* samples, int32_t count) override {
        std::lock_guard<std::mutex> lock(mutex_);
        values_.assign(samples, samples + count);
        ++delivered_;
        signal_.notify_all();
        return 0;
    }
    IBsAudioClipThumbnailCallback* getResultCallback() override { return this; }
    bool isCalcDuckingEnabled() override { return true; }

    bool waitFor(int64_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return signal_.wait_for(lock, kLimit, [&] { return delivered_ >= count; });
    }
    std::vector<float> values() {
        std::lock_guard<std::mutex> lock(mutex_);
        return values_;
    }

private:
    std::mutex mutex_;  // leaf
    std::condition_variable signal_;
    int64_t delivered_ = 0;
    std::vector<float> values_;
};

class TaskWaiter final : public IZorCallBack {
public:
    int32_t processChanged(IDmBaseObj*, int32_t, int32_t status, const BsTaskProgressInfo* info) override {
        if (status == BsTaskProgress || info == nullptr) return 0;
        std::lock_guard<std::mutex> lock(mutex_);
        final_[info->token] = status;
        signal_.notify_all();
        return 0;
    }
    // The final status of token; 0 when none came in time.
    int32_t waitFor(int64_t token) {
        std::unique_lock<std::mutex> lock(mutex_);
        signal_.wait_for(lock, kLimit, [&] { return final_.count(token) != 0; });
        const auto found = final_.find(token);
        return found != final_.end() ? found->second : 0;
    }

private:
    std::mutex mutex_;  // leaf
    std::condition_variable signal_;
    std::map<int64_t, int32_t> final_;
};

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

// (a) The builder: a query of 2,000 points over the whole clip, timed from
// the query to the callback.
void BM_AudioColdQuery2000PointsWholeClip(benchmark::State& state) {
    const Media& file = media();
    if (!file.problem.empty()) {
        state.SkipWithError(file.problem.c_str());
        return;
    }
    test::ScopedCapture capture(IBsLogger::Debug);
    int64_t cold = 0;
    for (auto _ : state) {
        state.PauseTiming();
        if (!renewIdentity(file)) {
            state.SkipWithError("cannot set the file's modification time");
            break;
        }
        IDmTimeline* timeline = timelineOf(file);
        IDmClip* clip = timeline != nullptr ? timeline->clip(0, 0) : nullptr;
        if (clip == nullptr) {
            if (timeline != nullptr) timeline->Release();
            state.SkipWithError("no timeline");
            break;
        }
        const auto frames = frameRange(clip);
        if (holdsNone(clip, frames)) ++cold;
        ThumbnailWaiter waiter;
        auto builder = std::make_unique<BsAudioThumbnailBuilder>(nullptr, timeline);
        state.ResumeTiming();

        const int32_t accepted =
            builder->queryAudioThumbnailData(&waiter, clip, markInTimeOfClip(clip), markOutTimeOfClip(clip), kPoints);
        const bool delivered = accepted == 0 && waiter.waitFor(1);

        state.PauseTiming();
        const std::vector<float> values = waiter.values();
        const bool heldAfter = holds(clip, frames);
        builder.reset();
        timeline->Release();
        const size_t caches = BsAudioSampleCache::registrySize();
        state.ResumeTiming();
        if (!delivered || values.size() != static_cast<size_t>(kPoints)) {
            state.SkipWithError("the thumbnail was not delivered");
            break;
        }
        if (!heldAfter || caches != 0) {
            state.SkipWithError("frames not held after the query, or a sample cache left behind");
            break;
        }
    }
    restoreIdentity(file);
    report(state, capture.sink(), cold);
    state.counters["points"] = kPoints;
}
BENCHMARK(BM_AudioColdQuery2000PointsWholeClip)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

// (b) The task alone: the frames of the smallest and largest source position
// of the same 2,000 points, from start and append to status 2.
void BM_AudioColdTaskExtractSameRange(benchmark::State& state) {
    const Media& file = media();
    if (!file.problem.empty()) {
        state.SkipWithError(file.problem.c_str());
        return;
    }
    test::ScopedCapture capture(IBsLogger::Debug);
    int64_t cold = 0;
    for (auto _ : state) {
        state.PauseTiming();
        if (!renewIdentity(file)) {
            state.SkipWithError("cannot set the file's modification time");
            break;
        }
        IDmTimeline* timeline = timelineOf(file);
        IDmClip* clip = timeline != nullptr ? timeline->clip(0, 0) : nullptr;
        if (clip == nullptr) {
            if (timeline != nullptr) timeline->Release();
            state.SkipWithError("no timeline");
            break;
        }
        const auto frames = frameRange(clip);
        if (holdsNone(clip, frames)) ++cold;
        TaskWaiter waiter;
        IBsAudioWaveExtractTask* task = createAudioWaveExtractTask();
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
        const int32_t status = appended == 0 ? waiter.waitFor(token) : 0;

        state.PauseTiming();
        const bool heldAfter = holds(clip, frames);
        task->removeCallBack(&waiter);
        task->shutdown();
        task->Release();
        timeline->Release();
        state.ResumeTiming();
        if (status != BsTaskFinished) {
            state.SkipWithError("the task did not finish with status 2");
            break;
        }
        if (!heldAfter) {
            state.SkipWithError("frames not held after the task");
            break;
        }
    }
    restoreIdentity(file);
    report(state, capture.sink(), cold);
}
BENCHMARK(BM_AudioColdTaskExtractSameRange)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace
}  // namespace ZOR
