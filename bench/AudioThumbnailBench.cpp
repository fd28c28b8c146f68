// Audio clip thumbnails from wave data already in the cache: the cost per
// point of a thumbnail with keyframes and ducking, and the latency from query
// to callback.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "BsAudioThumbnailBuilder.h"
#include "BsDataStructure/BsDataStructure.h"
#include "FakeDataModel.h"

namespace ZOR {
namespace {

constexpr int64_t kSecond = 10'000'000;
constexpr int kPoints = 2000;

class Waiter final : public IBsAudioClipThumbnailCallback, public IBsAudioThumbnailQueryer {
public:
    int32_t onAudioThumbnailNotice(IDmClip*) override { return 0; }
    int32_t onAudioThumbnailChanged(IDmClip*) override { return 0; }
    int32_t onAudioThumbnailData(IDmClip*, int64_t, int64_t, const float* samples, int32_t count) override {
        std::lock_guard<std::mutex> lock(mutex_);
        ++delivered_;
        last_ = count > 0 ? samples[count - 1] : 0.0f;
        signal_.notify_all();
        return 0;
    }
    IBsAudioClipThumbnailCallback* getResultCallback() override { return this; }
    bool isCalcDuckingEnabled() override { return true; }
    int64_t delivered() {
        std::lock_guard<std::mutex> lock(mutex_);
        return delivered_;
    }
    bool waitFor(int64_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return signal_.wait_for(lock, std::chrono::seconds(10), [&] { return delivered_ >= count; });
    }

private:
    std::mutex mutex_;
    std::condition_variable signal_;
    int64_t delivered_ = 0;
    float last_ = 0.0f;
};

// A one-minute music clip with 8 volume keyframes, ducked by 4 voice clips.
struct Scene {
    Scene() {
        timeline->addTrack(DmTrackAudio);
        timeline->addTrack(DmTrackAudio);
        music = timeline->addClip(0, "music", wave.get(), 0, 0, 60 * kSecond);
        std::vector<std::pair<int64_t, double>> keys;
        for (int i = 0; i < 8; ++i) keys.emplace_back(i * 7 * kSecond, (i % 2 == 0) ? -6.0 : 2.0);
        music->addEffect(4110)->setKeyframes(keys);
        music->setProperty(clipVolumeKey::volumeGain, doubleProperty(1.5));
        for (int i = 0; i < 4; ++i) {
            auto* voice = timeline->addClip(1, "voice" + std::to_string(i), wave.get(), 0, (5 + 14 * i) * kSecond,
                                            (12 + 14 * i) * kSecond);
            voice->addEffect(4109)->setValues(0.5f, 0.5f, 0.5f);
        }
        builder = std::make_shared<BsAudioThumbnailBuilder>(&waiter, timeline.get());
        changed->append(music);
        bits->append(0x40);
    }
    ~Scene() { builder.reset(); }
    Waiter waiter;
    ZorRef<test::FakeWaveManager> wave = test::makeRef<test::FakeWaveManager>();
    ZorRef<test::FakeTimeline> timeline = test::makeRef<test::FakeTimeline>();
    test::FakeClip* music = nullptr;
    std::shared_ptr<BsAudioThumbnailBuilder> builder;
    ZorRef<test::FakeClipList> changed = test::makeRef<test::FakeClipList>();
    ZorRef<IZORIntList> bits = ZorRef<IZORIntList>::adopt(createZORIntList());
};

// A change of the clip's volume, then the query: the thumbnail is computed
// again from the raw values kept in the request, and delivered.
void BM_AudioThumbnailRecompute2000Points(benchmark::State& state) {
    Scene scene;
    int64_t expected = 1;
    scene.builder->queryAudioThumbnailData(&scene.waiter, scene.music, 0, 60 * kSecond, kPoints);
    scene.waiter.waitFor(expected);
    for (auto _ : state) {
        scene.builder->onAudioChanged(scene.timeline.get(), scene.changed.get(), scene.bits.get());
        scene.builder->queryAudioThumbnailData(&scene.waiter, scene.music, 0, 60 * kSecond, kPoints);
        if (!scene.waiter.waitFor(++expected)) state.SkipWithError("no delivery");
    }
    state.counters["ns_per_point"] = benchmark::Counter(
        static_cast<double>(kPoints) * static_cast<double>(state.iterations()),
        benchmark::Counter::kIsRate | benchmark::Counter::kInvert, benchmark::Counter::OneK::kIs1000);
}
BENCHMARK(BM_AudioThumbnailRecompute2000Points)->Unit(benchmark::kMicrosecond)->UseRealTime();

// Query to callback with the wave data in the cache: each query asks for a
// new range, so positions, raw values and the envelope are all worked out.
void BM_AudioThumbnailWarmQueryLatency(benchmark::State& state) {
    Scene scene;
    int64_t expected = 1;
    scene.builder->queryAudioThumbnailData(&scene.waiter, scene.music, 0, 60 * kSecond, kPoints);
    scene.waiter.waitFor(expected);
    std::vector<double> latencies;
    int64_t shift = 0;
    for (auto _ : state) {
        shift = (shift + 1) % 50;
        const auto start = std::chrono::steady_clock::now();
        scene.builder->queryAudioThumbnailData(&scene.waiter, scene.music, shift * 400'000,
                                               50 * kSecond + shift * 400'000, kPoints);
        if (!scene.waiter.waitFor(++expected)) state.SkipWithError("no delivery");
        const auto elapsed = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start);
        latencies.push_back(elapsed.count());
        state.SetIterationTime(elapsed.count() / 1e6);
    }
    std::sort(latencies.begin(), latencies.end());
    if (!latencies.empty()) {
        state.counters["p50_us"] = latencies[latencies.size() / 2];
        state.counters["p99_us"] = latencies[std::min(latencies.size() - 1, latencies.size() * 99 / 100)];
        state.counters["max_us"] = latencies.back();
    }
}
BENCHMARK(BM_AudioThumbnailWarmQueryLatency)->Unit(benchmark::kMicrosecond)->UseManualTime()->Iterations(5000);

}  // namespace
}  // namespace ZOR
