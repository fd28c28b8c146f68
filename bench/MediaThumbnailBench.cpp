// The media thumbnail manager on a long file (MIRAVEL_BENCH_VIDEO: 10 minutes
// of 1920x1080 25 fps H.264 with a keyframe every 10 s, as made by
// bench/run_cli_benchmarks.sh), 100 exact pictures at 320x180, through the
// library's public interface (createThumbManager, getFrame, the callback).
//
// BM_MediaThumbFirstThreePictures: a new manager and a new empty root folder
//   each repetition; the time from the first getFrame to the callback of each
//   of the first three pictures (0, 99, 49). The manager writes the PNG file
//   before it tells the callback, so the third callback's time is when the
//   three are on disk (the manual time).
// BM_AdapterFirstThreePictures (the peer): the thumb adapter alone doing the
//   same work: opened on the file, the same three times, each written with
//   dumpPNG. What the manager adds is its worker, its probe of the file and
//   its queue.
// BM_MediaThumbGetFrameWhileBusy: 100,000 getFrame calls for the item while
//   the worker renders it (each call timed on its own), at positions sweeping
//   the strip as a pointer would: 1000 positions from 0 to 1, again and
//   again. Split into calls whose picture was on disk and calls that were not
//   (the manager then looks for the nearest picture on disk, up to half the
//   strip away on each side).
// BM_StatWhileBusy (the peer): the same sweep, one stat() of the picture's
//   file per call: what a client checking the disk itself pays.
// Both count the calling thread's context switches over the 100,000 calls:
// "waits" (it blocked, e.g. on a lock) and "preempted" (the machine gave its
// core to another thread).
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "Adapter/Adapter.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "Miravel/Miravel.h"
#include "ZorUtils/ZorUtils.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int32_t kPictures = 100;
constexpr int32_t kWidth = 320;
constexpr int32_t kHeight = 180;
constexpr int kCalls = 100'000;
constexpr int kSweep = 1000;  // positions per sweep of the strip

const char* benchVideo(benchmark::State& state) {
    const char* path = std::getenv("MIRAVEL_BENCH_VIDEO");
    if (path == nullptr || *path == '\0') {
        state.SkipWithError("set MIRAVEL_BENCH_VIDEO to a long video file");
        return nullptr;
    }
    return path;
}

int64_t durationOf(const char* path) {
    const auto info = ZOR::ZorRef<ZOR::IDmMediaInfo>::adopt(ZOR::getDmFactoryInstance()->createMediaInfo(path));
    if (info == nullptr) return 0;
    ZOR::ZorProperty value;
    return info->getProperty(ZOR::mediaInfoKey::duration, &value) == 0 ? value.intValue : 0;
}

// A new empty folder, removed at the end of the scope.
struct FreshRoot {
    FreshRoot() {
        static int counter = 0;
        path = (std::filesystem::temp_directory_path() /
                ("miravel-media-bench-" + std::to_string(::getpid()) + "-" + std::to_string(counter++)))
                   .string();
        std::filesystem::remove_all(path);
        std::filesystem::create_directories(path);
    }
    ~FreshRoot() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
    FreshRoot(const FreshRoot&) = delete;
    FreshRoot& operator=(const FreshRoot&) = delete;
    std::string path;
};

ZOR::MediaThumbRequest itemOf(const char* media, const std::string& root, int64_t duration) {
    ZOR::MediaThumbRequest request{};
    std::strncpy(request.mediaPath, media, sizeof request.mediaPath - 1);
    std::strncpy(request.rootDir, root.c_str(), sizeof request.rootDir - 1);
    request.startTime = 0;
    request.endTime = duration;
    request.duration = duration;
    return request;
}

// The manager's file of picture i: <root>/media_thumbnail/<i>_<w>_<h>.png.
std::string pictureFile(const std::string& root, int64_t index) {
    std::string name = std::to_string(index);
    name += "_";
    name += std::to_string(kWidth);
    name += "_";
    name += std::to_string(kHeight);
    name += ".png";
    return ZOR::PathUtil::join(ZOR::PathUtil::join(root, "media_thumbnail"), name).str();
}

// Records when each picture was announced.
class Announcements final : public ZOR::IBsThumbManagerCallback {
public:
    void onThumbnail(const ZOR::MediaThumbRequest* /*request*/, int32_t frameIndex, const char* /*pngPath*/) override {
        const auto now = Clock::now();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            indices_.push_back(frameIndex);
            times_.push_back(now);
        }
        changed_.notify_all();
    }
    // False when fewer than count pictures came by until.
    bool waitFor(size_t count, Clock::time_point until) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_until(lock, until, [&] { return indices_.size() >= count; });
    }
    std::vector<int32_t> indices() {
        std::lock_guard<std::mutex> lock(mutex_);
        return indices_;
    }
    std::vector<Clock::time_point> times() {
        std::lock_guard<std::mutex> lock(mutex_);
        return times_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<int32_t> indices_;
    std::vector<Clock::time_point> times_;
};

// A manager rendering the item at 320x180, exact, 100 pictures, with calls
// for its first picture; the destructor stops the worker and releases it.
struct BusyManager {
    BusyManager(const char* media, const std::string& root, int64_t duration)
        : manager(ZOR::ZorRef<ZOR::IBsThumbManager>::adopt(createThumbManager())), item(itemOf(media, root, duration)) {
        manager->setThumbCount(kPictures);
        manager->setThumbSize(kWidth, kHeight);
        manager->setAdapterSeekMode(ZOR::ThumbSeekExact);
        manager->addCallback(&announcements);
    }
    ~BusyManager() {
        manager->stopWorker();
        manager->removeCallback(&announcements);
        manager.reset();
    }
    BusyManager(const BusyManager&) = delete;
    BusyManager& operator=(const BusyManager&) = delete;

    // Queues the item; getFrame queues nothing when it meets the manager's
    // lock taken, so it is asked again when no picture came within a second
    // (counted in asked).
    bool start(Clock::time_point* first) {
        char out[1024] = {};
        *first = Clock::now();
        manager->getFrame(&item, 0.0, out);
        for (int attempt = 0; attempt < 30; ++attempt) {
            if (announcements.waitFor(1, Clock::now() + std::chrono::seconds(1))) return true;
            ++askedAgain;
            manager->getFrame(&item, 0.0, out);
        }
        return false;
    }

    ZOR::ZorRef<ZOR::IBsThumbManager> manager;
    ZOR::MediaThumbRequest item;
    Announcements announcements;
    int askedAgain = 0;
};

double millisecondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

void BM_MediaThumbFirstThreePictures(benchmark::State& state) {
    const char* media = benchVideo(state);
    if (media == nullptr) return;
    const int64_t duration = durationOf(media);
    double first = 0, second = 0, third = 0, getFrameUs = 0;
    int askedAgain = 0;
    int runs = 0;
    for (auto _ : state) {
        FreshRoot root;
        BusyManager busy(media, root.path, duration);
        char out[1024] = {};
        const auto start = Clock::now();
        busy.manager->getFrame(&busy.item, 0.0, out);
        const auto returned = Clock::now();
        bool three = busy.announcements.waitFor(3, Clock::now() + std::chrono::seconds(1));
        for (int attempt = 0; !three && busy.announcements.indices().empty() && attempt < 30; ++attempt) {
            ++askedAgain;  // dropped at the manager's lock: asked again, the time still running
            busy.manager->getFrame(&busy.item, 0.0, out);
            three = busy.announcements.waitFor(3, Clock::now() + std::chrono::seconds(1));
        }
        if (!three) three = busy.announcements.waitFor(3, Clock::now() + std::chrono::seconds(60));
        if (!three) {
            state.SkipWithError("the first three pictures did not come");
            return;
        }
        const std::vector<Clock::time_point> times = busy.announcements.times();
        const std::vector<int32_t> indices = busy.announcements.indices();
        if (indices[0] != 0 || indices[1] != kPictures - 1 || indices[2] != (kPictures - 1) / 2) {
            state.SkipWithError("the first three pictures are not 0, 99, 49");
            return;
        }
        for (int i = 0; i < 3; ++i)
            if (!std::filesystem::exists(pictureFile(root.path, indices[static_cast<size_t>(i)]))) {
                state.SkipWithError("a picture announced is not on disk");
                return;
            }
        state.SetIterationTime(std::chrono::duration<double>(times[2] - start).count());
        first += millisecondsBetween(start, times[0]);
        second += millisecondsBetween(start, times[1]);
        third += millisecondsBetween(start, times[2]);
        getFrameUs += std::chrono::duration<double, std::micro>(returned - start).count();
        ++runs;
    }
    if (runs == 0) return;
    state.counters["picture0_ms"] = first / runs;
    state.counters["picture99_ms"] = second / runs;
    state.counters["picture49_ms"] = third / runs;
    state.counters["first_getFrame_us"] = getFrameUs / runs;
    state.counters["asked_again"] = askedAgain;
}

void BM_AdapterFirstThreePictures(benchmark::State& state) {
    const char* media = benchVideo(state);
    if (media == nullptr) return;
    const int64_t duration = durationOf(media);
    std::vector<unsigned char> buffer(static_cast<size_t>(kWidth) * kHeight * 4);
    double first = 0, second = 0, third = 0;
    int runs = 0;
    for (auto _ : state) {
        FreshRoot root;
        const std::string folder = ZOR::PathUtil::join(root.path, "media_thumbnail").str();
        std::filesystem::create_directories(folder);
        const auto start = Clock::now();
        const auto adapter = ZOR::ZorRef<ZOR::IThumbAdapter>::adopt(ZOR::createThumbAdapter());
        adapter->setMediaPath(media);
        adapter->setOutputSize(kWidth, kHeight);
        adapter->setSeekMode(ZOR::ThumbSeekExact);
        if (adapter->open(-1) != 0) {
            state.SkipWithError("cannot open MIRAVEL_BENCH_VIDEO");
            return;
        }
        Clock::time_point done[3];
        const int32_t indices[3] = {0, kPictures - 1, (kPictures - 1) / 2};
        for (int i = 0; i < 3; ++i) {
            // The manager's time of picture i.
            const int64_t time = static_cast<int64_t>(static_cast<double>(indices[i]) / static_cast<double>(kPictures) *
                                                      static_cast<double>(duration));
            if (adapter->frameAt(time, buffer.data(), static_cast<int64_t>(buffer.size())) != 0 ||
                ZOR::dumpPNG(kWidth, kHeight, buffer.data(), pictureFile(root.path, indices[i]).c_str(), -1) != 0) {
                state.SkipWithError("a picture failed");
                return;
            }
            done[i] = Clock::now();
        }
        state.SetIterationTime(std::chrono::duration<double>(done[2] - start).count());
        first += millisecondsBetween(start, done[0]);
        second += millisecondsBetween(start, done[1]);
        third += millisecondsBetween(start, done[2]);
        ++runs;
        adapter->close();
    }
    if (runs == 0) return;
    state.counters["picture0_ms"] = first / runs;
    state.counters["picture99_ms"] = second / runs;
    state.counters["picture49_ms"] = third / runs;
}

// Percentiles of per-call times (ns), as counters in microseconds.
void reportCalls(benchmark::State& state, std::vector<int64_t> nanoseconds, const std::string& prefix) {
    if (nanoseconds.empty()) {
        state.counters[prefix + "calls"] = 0;
        return;
    }
    std::sort(nanoseconds.begin(), nanoseconds.end());
    const auto at = [&](double fraction) {
        const size_t index =
            std::min(nanoseconds.size() - 1, static_cast<size_t>(fraction * static_cast<double>(nanoseconds.size())));
        return static_cast<double>(nanoseconds[index]) / 1000.0;
    };
    double sum = 0;
    for (int64_t value : nanoseconds) sum += static_cast<double>(value);
    state.counters[prefix + "calls"] = static_cast<double>(nanoseconds.size());
    state.counters[prefix + "mean_us"] = sum / static_cast<double>(nanoseconds.size()) / 1000.0;
    state.counters[prefix + "p50_us"] = at(0.50);
    state.counters[prefix + "p99_us"] = at(0.99);
    state.counters[prefix + "p999_us"] = at(0.999);
    state.counters[prefix + "max_us"] = static_cast<double>(nanoseconds.back()) / 1000.0;
    state.counters[prefix + "over_10us"] = static_cast<double>(
        nanoseconds.end() - std::upper_bound(nanoseconds.begin(), nanoseconds.end(), int64_t{10'000}));
}

enum class Probe { GetFrame, Stat };

void callsWhileBusy(benchmark::State& state, Probe probe) {
    const char* media = benchVideo(state);
    if (media == nullptr) return;
    const int64_t duration = durationOf(media);
    for (auto _ : state) {
        FreshRoot root;
        BusyManager busy(media, root.path, duration);
        Clock::time_point first;
        if (!busy.start(&first)) {
            state.SkipWithError("the item did not start");
            return;
        }
        std::vector<std::string> exact;
        for (int64_t i = 0; i <= kPictures; ++i) exact.push_back(pictureFile(root.path, i));
        std::vector<int64_t> onDisk;
        std::vector<int64_t> notOnDisk;
        onDisk.reserve(kCalls);
        notOnDisk.reserve(kCalls);
        char out[1024];
        const size_t announcedBefore = busy.announcements.indices().size();
        // Context switches of this thread: voluntary ones are waits (a lock
        // taken), involuntary ones the machine giving the core to another.
        rusage usageBefore{};
        getrusage(RUSAGE_THREAD, &usageBefore);
        const auto begin = Clock::now();
        for (int call = 0; call < kCalls; ++call) {
            const double position = static_cast<double>(call % kSweep) / kSweep;
            const int64_t index = static_cast<int64_t>(position * kPictures);
            out[0] = '\0';
            const auto start = Clock::now();
            bool found = false;
            if (probe == Probe::GetFrame) {
                busy.manager->getFrame(&busy.item, position, out);
                const auto end = Clock::now();
                found = exact[static_cast<size_t>(index)] == out;
                (found ? onDisk : notOnDisk).push_back((end - start).count());
            } else {
                found = ZOR::PathUtil::exists(exact[static_cast<size_t>(index)]);
                const auto end = Clock::now();
                (found ? onDisk : notOnDisk).push_back((end - start).count());
            }
            benchmark::DoNotOptimize(found);
        }
        const auto end = Clock::now();
        rusage usageAfter{};
        getrusage(RUSAGE_THREAD, &usageAfter);
        state.SetIterationTime(std::chrono::duration<double>(end - begin).count());
        state.counters["waits"] = static_cast<double>(usageAfter.ru_nvcsw - usageBefore.ru_nvcsw);
        state.counters["preempted"] = static_cast<double>(usageAfter.ru_nivcsw - usageBefore.ru_nivcsw);
        state.counters["pictures_before"] = static_cast<double>(announcedBefore);
        state.counters["pictures_after"] = static_cast<double>(busy.announcements.indices().size());
        std::vector<int64_t> all = onDisk;
        all.insert(all.end(), notOnDisk.begin(), notOnDisk.end());
        reportCalls(state, std::move(all), "");
        reportCalls(state, std::move(onDisk), "on_disk_");
        reportCalls(state, std::move(notOnDisk), "missing_");
        state.counters["asked_again"] = busy.askedAgain;
    }
}

void BM_MediaThumbGetFrameWhileBusy(benchmark::State& state) { callsWhileBusy(state, Probe::GetFrame); }
void BM_StatWhileBusy(benchmark::State& state) { callsWhileBusy(state, Probe::Stat); }

BENCHMARK(BM_MediaThumbFirstThreePictures)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(10);
BENCHMARK(BM_AdapterFirstThreePictures)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1)->Repetitions(10);
BENCHMARK(BM_MediaThumbGetFrameWhileBusy)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(1)
    ->Repetitions(3);
BENCHMARK(BM_StatWhileBusy)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1)->Repetitions(3);

}  // namespace
