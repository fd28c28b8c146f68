// The clip thumbnail service on a timeline of 500 audio clips (2 tracks of
// 250 clips of one small WAV file written at startup), made by createTimeline,
// on the real data model, event bus and task service. One service with one
// client has queried 20 of the clips (each waited for), so the timeline's
// change tracker is attached and its wave data is held.
//
// - An event after which nothing was recorded: the tracker's processChanges
//   called directly (nothing else runs meanwhile), and the whole event handler
//   BsClipThumbnailService::onDataModelEvent; beside them, an event published
//   on the bus and waited for, and the bare round trip to the event thread.
// - A volume edit to the refreshed thumbnail: setClipProperty of one queried
//   clip's volume (two values in turn); the client's onAudioThumbnailNotice
//   handler queries the same range again and the time is taken when
//   onAudioThumbnailData arrives. Wall time per edit, with the mean of each
//   stage.
//
// The scene is made once, before the first benchmark, and released after the
// last one (this binary has its own main).
#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <initializer_list>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "Adapter/Adapter.h"
#include "BsClipThumbnailService.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmEdit.h"
#include "DataModel/DmTimeline.h"
#include "ListenerCenter/ListenerCenter.h"
#include "Miravel/IBsClipThumbnailService.h"

namespace ZOR {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int64_t kSecond = 10'000'000;  // cns
constexpr int kTracks = 2;
constexpr int kClipsPerTrack = 250;
constexpr int64_t kClipLength = 2 * kSecond;
constexpr int64_t kMarkIn = 5'000'000;  // 0.5 s into the 3 s file
constexpr double kVolumeDb = -6.0;      // every clip's volume as made
constexpr int kPoints = 2000;
constexpr int kQueried = 20;  // clips queried before the benchmarks: every 25th
constexpr int kEditedTrack = 0;
constexpr int kEditedIndex = 100;  // one of the queried clips
constexpr double kEditVolumes[2] = {-3.0, -9.0};
constexpr int kEdits = 1000;
constexpr auto kLimit = std::chrono::seconds(30);

// Text made by appending (GCC 12 at -O3 warns wrongly about "literal" + string).
std::string joined(std::initializer_list<std::string_view> parts) {
    std::string text;
    for (std::string_view part : parts) text += part;
    return text;
}

void putLe(std::ofstream& out, uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i) out.put(static_cast<char>((value >> (8 * i)) & 0xFF));
}

// 3 s of 48 kHz stereo 16-bit PCM: a sine on each channel whose level changes
// every 40 ms frame, so the wave values differ from frame to frame.
bool writeWav(const std::string& path) {
    constexpr uint32_t kRate = 48000;
    constexpr uint32_t kChannels = 2;
    constexpr uint32_t kFrames = 3 * kRate;
    constexpr uint32_t kDataBytes = kFrames * kChannels * 2;
    std::ofstream out(path, std::ios::binary);
    if (!out) return false;
    out.write("RIFF", 4);
    putLe(out, 36 + kDataBytes, 4);
    out.write("WAVEfmt ", 8);
    putLe(out, 16, 4);
    putLe(out, 1, 2);  // PCM
    putLe(out, kChannels, 2);
    putLe(out, kRate, 4);
    putLe(out, kRate * kChannels * 2, 4);
    putLe(out, kChannels * 2, 2);
    putLe(out, 16, 2);
    out.write("data", 4);
    putLe(out, kDataBytes, 4);
    const double pi = std::acos(-1.0);
    for (uint32_t i = 0; i < kFrames; ++i) {
        const double t = static_cast<double>(i) / kRate;
        const auto step = static_cast<int64_t>(std::floor(t * 25.0));
        const double left =
            (0.05 + 0.9 * static_cast<double>((step * 37 + 11) % 100) / 100.0) * std::sin(2 * pi * 523 * t);
        const double right =
            (0.05 + 0.9 * static_cast<double>((step * 61 + 3) % 100) / 100.0) * std::sin(2 * pi * 347 * t + 1);
        for (double value : {left, right}) {
            const auto sample = static_cast<int16_t>(std::lround(std::clamp(value, -1.0, 1.0) * 32767.0));
            putLe(out, static_cast<uint16_t>(sample), 2);
        }
    }
    return static_cast<bool>(out);
}

// The client: keeps the last values delivered, counts deliveries and notices,
// and, while armed, answers the notice of the edited clip by querying its
// range again from the notice handler (on the event bus's thread).
class Client final : public IBsAudioClipThumbnailCallback {
public:
    int32_t onAudioThumbnailNotice(IDmClip* clip) override {
        const Clock::time_point heard = Clock::now();
        IBsClipThumbnailService* service = nullptr;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            ++notices_;
            if (clip != armed_) {
                ++otherNotices_;
                return 0;
            }
            noticeAt_ = heard;
            service = service_;
        }
        service->queryAudioThumbnailData(clip, begin_, end_, static_cast<uint32_t>(kPoints));
        const Clock::time_point queried = Clock::now();
        std::lock_guard<std::mutex> lock(mutex_);
        queriedAt_ = queried;
        return 0;
    }
    int32_t onAudioThumbnailChanged(IDmClip*) override { return 0; }
    int32_t onAudioThumbnailData(IDmClip* clip, int64_t begin, int64_t end, const float* samples,
                                 int32_t count) override {
        const Clock::time_point arrived = Clock::now();
        std::lock_guard<std::mutex> lock(mutex_);
        dataAt_ = arrived;
        lastClip_ = clip;
        lastBegin_ = begin;
        lastEnd_ = end;
        last_.assign(samples, samples + std::max(count, 0));
        ++delivered_;
        signal_.notify_all();
        return 0;
    }

    void arm(IBsClipThumbnailService* service, IDmClip* clip, int64_t begin, int64_t end) {
        std::lock_guard<std::mutex> lock(mutex_);
        service_ = service;
        armed_ = clip;
        begin_ = begin;
        end_ = end;
    }
    void disarm() {
        std::lock_guard<std::mutex> lock(mutex_);
        armed_ = nullptr;
    }

    struct Delivery {
        IDmClip* clip = nullptr;
        int64_t begin = 0;
        int64_t end = 0;
        std::vector<float> values;
        Clock::time_point noticeAt;
        Clock::time_point queriedAt;
        Clock::time_point dataAt;
    };
    int64_t delivered() {
        std::lock_guard<std::mutex> lock(mutex_);
        return delivered_;
    }
    // Waits until more than `after` deliveries came; the last one.
    bool waitBeyond(int64_t after, Delivery* delivery) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (!signal_.wait_for(lock, kLimit, [&] { return delivered_ > after; })) return false;
        if (delivery != nullptr)
            *delivery = Delivery{lastClip_, lastBegin_, lastEnd_, last_, noticeAt_, queriedAt_, dataAt_};
        return true;
    }
    int64_t notices() {
        std::lock_guard<std::mutex> lock(mutex_);
        return notices_;
    }
    int64_t otherNotices() {
        std::lock_guard<std::mutex> lock(mutex_);
        return otherNotices_;
    }

private:
    std::mutex mutex_;  // leaf
    std::condition_variable signal_;
    IBsClipThumbnailService* service_ = nullptr;
    IDmClip* armed_ = nullptr;
    int64_t begin_ = 0;
    int64_t end_ = 0;
    int64_t delivered_ = 0;
    int64_t notices_ = 0;
    int64_t otherNotices_ = 0;
    IDmClip* lastClip_ = nullptr;
    int64_t lastBegin_ = 0;
    int64_t lastEnd_ = 0;
    std::vector<float> last_;
    Clock::time_point noticeAt_;
    Clock::time_point queriedAt_;
    Clock::time_point dataAt_;
};

struct Scene {
    Scene() { problem = make(); }
    ~Scene() {
        client.disarm();
        impl.reset();
        if (service != nullptr) service->removeAudioClipThumbnailCallback(&client);
        service.reset();
        runOnEventThread([] {});
        timeline.reset();
        std::error_code ignored;
        if (!folder.empty()) std::filesystem::remove_all(folder, ignored);
    }
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    std::string make() {
        std::string name = "miravel-bench-service-";
        name += std::to_string(::getpid());
        folder = std::filesystem::temp_directory_path() / name;
        std::error_code error;
        std::filesystem::remove_all(folder, error);
        std::filesystem::create_directories(folder, error);
        if (error) return joined({folder.string(), ": ", error.message()});
        const std::string wav = (folder / "tone.wav").string();
        if (!writeWav(wav)) return joined({"cannot write ", wav});

        DmTimelineDesc desc;
        desc.name = "bench";
        for (int t = 0; t < kTracks; ++t) {
            DmTrackDesc track;
            track.name = joined({"Audio ", std::to_string(t + 1)});
            track.kind = DmTrackAudio;
            for (int i = 0; i < kClipsPerTrack; ++i) {
                DmClipDesc clip;
                clip.name = joined({"c", std::to_string(t), "_", std::to_string(i)});
                clip.mediaPath = wav;
                clip.begin = i * kClipLength;
                clip.end = clip.begin + kClipLength;
                clip.markIn = kMarkIn;
                clip.markOut = kMarkIn + kClipLength;
                clip.volumeDb = kVolumeDb;
                track.clips.push_back(clip);
            }
            desc.tracks.push_back(track);
        }
        std::string why;
        const Clock::time_point made = Clock::now();
        timeline = ZorRef<IDmTimeline>::adopt(createTimeline(desc, &why));
        if (timeline == nullptr) return joined({"createTimeline: ", why});
        timelineMs = std::chrono::duration<double, std::milli>(Clock::now() - made).count();
        for (int t = 0; t < kTracks; ++t)
            if (timeline->clipCount(t) != kClipsPerTrack) return "the timeline does not hold 500 clips";
        edited = timeline->clip(kEditedTrack, kEditedIndex);
        if (edited == nullptr || edited->queryInterface("IDmAudioFeature") == nullptr)
            return "the edited clip has no sound";

        service = ZorRef<IBsClipThumbnailService>::adopt(createBsClipThumbnaiService());
        if (service == nullptr) return "no service";
        if (service->addAudioClipThumbnailCallback(&client) != 0) return "addAudioClipThumbnailCallback failed";

        // Every 25th clip of both tracks, one after another, each waited for:
        // the first decodes the file, the others find its wave data held.
        const Clock::time_point queried = Clock::now();
        for (int n = 0; n < kQueried; ++n) {
            IDmClip* clip = timeline->clip(n % kTracks, (n / kTracks) * 25);
            const int64_t before = client.delivered();
            service->queryAudioThumbnailData(clip, kMarkIn, kMarkIn + kClipLength, kPoints);
            Client::Delivery delivery;
            if (!client.waitBeyond(before, &delivery)) return joined({"no thumbnail for clip ", std::to_string(n)});
            if (delivery.clip != clip || delivery.values.size() != static_cast<size_t>(kPoints))
                return joined({"unexpected thumbnail for clip ", std::to_string(n)});
        }
        queriesMs = std::chrono::duration<double, std::milli>(Clock::now() - queried).count();
        // Every event of the queries delivered, and whatever they recorded reported.
        runOnEventThread([] {});

        const auto live = BsClipThumbnailServiceRegistry::instance().live();
        if (live.size() != 1 || live[0]->timeline() != timeline.get()) return "not one implementation of the timeline";
        impl = live[0];
        if (impl->changedInfo() == nullptr) return "no change tracker";
        return {};
    }

    std::filesystem::path folder;
    ZorRef<IDmTimeline> timeline;
    IDmClip* edited = nullptr;
    ZorRef<IBsClipThumbnailService> service;
    Client client;
    std::shared_ptr<BsClipThumbnailServiceImpl> impl;
    double timelineMs = 0.0;
    double queriesMs = 0.0;
    std::string problem;
};

Scene* sharedScene = nullptr;

Scene& scene() {
    if (sharedScene == nullptr) {
        sharedScene = new Scene;
        if (sharedScene->problem.empty()) {
            std::printf("scene: 500 clips made by createTimeline in %.1f ms; %d clips queried in %.1f ms\n",
                        sharedScene->timelineMs, kQueried, sharedScene->queriesMs);
            std::fflush(stdout);
        }
    }
    return *sharedScene;
}

void releaseScene() {
    delete sharedScene;
    sharedScene = nullptr;
}

// The scene, or null (and the benchmark skipped) when it could not be made.
Scene* readyScene(benchmark::State& state) {
    Scene& s = scene();
    if (s.problem.empty()) return &s;
    state.SkipWithError(s.problem.c_str());
    return nullptr;
}

// An event of the edited clip after which the tracker records nothing.
DmEditEvent unrecordedEvent(const Scene& s) {
    DmEditEvent event;
    event.timeline = s.timeline.get();
    event.clip = s.edited;
    return event;
}

// ---------------------------------------------------------------------------
// 1. An event after which nothing was recorded

// The tracker's report after such an event, called directly.
void BM_ProcessChangesNothingRecorded(benchmark::State& state) {
    Scene* ready = readyScene(state);
    if (ready == nullptr) return;
    Scene& s = *ready;
    BsTimelineChangedInfo* info = s.impl->changedInfo();
    const int64_t notices = s.client.notices();
    for (auto _ : state) info->processChanges(s.impl);
    if (s.client.notices() != notices) state.SkipWithError("something was reported");
}
BENCHMARK(BM_ProcessChangesNothingRecorded)->UseRealTime();

// The whole handler: the live implementations collected from the registry,
// then each one's processChanges.
void BM_OnDataModelEventNothingRecorded(benchmark::State& state) {
    Scene* ready = readyScene(state);
    if (ready == nullptr) return;
    Scene& s = *ready;
    const DmEditEvent event = unrecordedEvent(s);
    void* context = s.service.get();
    const int64_t notices = s.client.notices();
    for (auto _ : state) BsClipThumbnailService::onDataModelEvent(clipEventKey::videoPropertyChanged, &event, context);
    if (s.client.notices() != notices) state.SkipWithError("something was reported");
}
BENCHMARK(BM_OnDataModelEventNothingRecorded)->UseRealTime();

// The same event published on the bus (the service's handler is its only
// subscriber), waited for with a round trip to the event thread.
void BM_PublishedEventNothingRecorded(benchmark::State& state) {
    Scene* ready = readyScene(state);
    if (ready == nullptr) return;
    Scene& s = *ready;
    const DmEditEvent event = unrecordedEvent(s);
    IEventBus* bus = defaultEventBus();
    const int64_t notices = s.client.notices();
    for (auto _ : state) {
        bus->publish(clipEventKey::videoPropertyChanged, &event, static_cast<int32_t>(sizeof event));
        runOnEventThread([] {});
    }
    if (s.client.notices() != notices) state.SkipWithError("something was reported");
}
BENCHMARK(BM_PublishedEventNothingRecorded)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Peer of the above: the round trip alone.
void BM_EventThreadRoundTrip(benchmark::State& state) {
    if (readyScene(state) == nullptr) return;
    for (auto _ : state) runOnEventThread([] {});
}
BENCHMARK(BM_EventThreadRoundTrip)->Unit(benchmark::kMicrosecond)->UseRealTime();

// ---------------------------------------------------------------------------
// 2. A volume edit to the refreshed thumbnail, wave data held

double micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

void BM_VolumeEditToRefreshedThumbnail(benchmark::State& state) {
    Scene* ready = readyScene(state);
    if (ready == nullptr) return;
    Scene& s = *ready;
    const int64_t begin = kMarkIn;
    const int64_t end = kMarkIn + kClipLength;
    s.client.arm(s.service.get(), s.edited, begin, end);

    // One edit to each value, untimed: the thumbnails each value gives.
    std::vector<float> reference[2];
    for (int v = 0; v < 2; ++v) {
        const int64_t before = s.client.delivered();
        Client::Delivery delivery;
        if (setClipProperty(s.edited, audioKey::volume, doubleProperty(kEditVolumes[v])) != 0 ||
            !s.client.waitBeyond(before, &delivery)) {
            s.client.disarm();
            state.SkipWithError("no thumbnail after the first edits");
            return;
        }
        reference[v] = delivery.values;
    }
    // The values follow the volume: sqrt of the ratio of the gains (6 dB).
    const double ratio = std::sqrt(std::pow(10.0f, static_cast<float>(kEditVolumes[0] * static_cast<double>(0.05f))) /
                                   std::pow(10.0f, static_cast<float>(kEditVolumes[1] * static_cast<double>(0.05f))));
    int compared = 0;
    bool follows = reference[0].size() == static_cast<size_t>(kPoints) && reference[1].size() == reference[0].size();
    for (size_t i = 0; follows && i < reference[0].size(); ++i) {
        if (!(reference[1][i] > 0.0f) || !(reference[0][i] < 1.0f)) continue;
        ++compared;
        follows = std::abs(static_cast<double>(reference[0][i]) / reference[1][i] - ratio) < ratio * 1e-5;
    }
    if (!follows || compared < kPoints / 2) {
        s.client.disarm();
        state.SkipWithError("the thumbnails do not follow the volume");
        return;
    }

    std::vector<double> latencies;
    double editReturn = 0.0;
    double toNotice = 0.0;
    double requery = 0.0;
    double toData = 0.0;
    const int64_t otherNotices = s.client.otherNotices();
    int64_t edit = 0;
    for (auto _ : state) {
        const int v = static_cast<int>(edit++ % 2);
        const int64_t before = s.client.delivered();
        const Clock::time_point start = Clock::now();
        const int32_t result = setClipProperty(s.edited, audioKey::volume, doubleProperty(kEditVolumes[v]));
        const Clock::time_point returned = Clock::now();
        Client::Delivery delivery;
        if (result != 0 || !s.client.waitBeyond(before, &delivery)) {
            state.SkipWithError("no thumbnail after an edit");
            break;
        }
        const double latency = micros(delivery.dataAt - start);
        state.SetIterationTime(latency / 1e6);
        latencies.push_back(latency);
        editReturn += micros(returned - start);
        toNotice += micros(delivery.noticeAt - start);
        requery += micros(delivery.queriedAt - delivery.noticeAt);
        toData += micros(delivery.dataAt - delivery.queriedAt);
        if (delivery.clip != s.edited || delivery.begin != begin || delivery.end != end ||
            delivery.values != reference[v]) {
            state.SkipWithError("a thumbnail that is not the edited clip's at its new volume");
            break;
        }
    }
    s.client.disarm();
    // Let the last edit's work end before anything else runs.
    runOnEventThread([] {});
    if (s.client.otherNotices() != otherNotices) state.SkipWithError("another clip was noticed");
    if (latencies.empty()) return;
    const double n = static_cast<double>(latencies.size());
    double sum = 0.0;
    for (double latency : latencies) sum += latency;
    std::sort(latencies.begin(), latencies.end());
    state.counters["mean_us"] = sum / n;
    state.counters["p50_us"] = latencies[latencies.size() / 2];
    state.counters["p99_us"] = latencies[std::min(latencies.size() - 1, latencies.size() * 99 / 100)];
    state.counters["max_us"] = latencies.back();
    state.counters["edit_return_us"] = editReturn / n;
    state.counters["to_notice_us"] = toNotice / n;
    state.counters["requery_us"] = requery / n;
    state.counters["query_to_data_us"] = toData / n;
}
BENCHMARK(BM_VolumeEditToRefreshedThumbnail)->Unit(benchmark::kMicrosecond)->UseManualTime()->Iterations(kEdits);

}  // namespace
}  // namespace ZOR

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    ZOR::releaseScene();
    benchmark::Shutdown();
    return 0;
}
