// Video clip thumbnails: the picture cache and the builder.
//
// - BM_VideoCacheHit: getThumbnail hits on a cache holding 10,000 pictures
//   of 160x90 (1 key x 10,000 times, or 100 keys x 100 times), looked up in a
//   random order (65,536 lookups drawn beforehand, fixed seed). With and
//   without the picture's owner handed out (the builder asks for it); and,
//   to tell where the time goes, with empty pictures ("packed": the cache's
//   nodes then lie next to each other instead of between the pictures).
//   Beside them, the fixed part of a lookup: the size's key text, and a
//   lookup in an empty cache.
// - BM_VideoRequestCached: a request of 50 frames that are all cached, from
//   requestThumbnails to the owner's onVideoThumbnailData, which comes on the
//   requesting thread during the call. The clip is a real timeline's
//   (createTimeline) over MIRAVEL_BENCH_VIDEO; the cache holds the 50 pictures
//   alone or among 10,000 of the same clip.
// - BM_VideoColdRequest100Frames: a cold request of the 100 frames at
//   t_i = i x 6 s (i = 0..99), 160x90, over MIRAVEL_BENCH_VIDEO through the
//   builder on the real video frame task: manual time = request to the 100th
//   delivered picture; counters give the first and the 50th, and the CPU
//   time the process used until then (all threads: on a shared machine the
//   wall time also holds the time other work had the cores). Beside it,
//   BM_VideoColdTaskAlone100Frames: the task alone extracting the same frames
//   (start and append to status 2); and BM_VideoColdTaskOneFrame: the task
//   alone, one picture at a keyframe or 2 s or 8 s after one. The two
//   100-frame benchmarks take one iteration (seconds each) a repetition;
//   bench/run_video_thumbnail_bench.sh runs them in rounds, each round beside
//   its peers, so that both sides of a round share the machine's load.
// - BM_VideoCacheMemory: the heap a cached picture costs beyond its
//   width x height x 4 bytes, with 10,000 pictures of 160x90 added to an empty
//   cache.
//
// Cold means: every iteration points the frame store at a new empty folder
// (setFrameStoreRoot), and makes a new timeline and a new builder (with its
// own cache and task), so nothing comes from an earlier iteration.
//
// This binary replaces the global operator new and delete (forwarding to
// malloc and free) so that the memory benchmark can count what the cache
// allocates; the counting is on only inside that benchmark's measured window.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "BenchMedia.h"
#include "BsDataStructure/BsDataStructure.h"
#include "BsVideoThumbnailBuilder.h"
#include "BsVideoThumbnailCacheManager.h"
#include "CapturingLogger.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmTimeline.h"

// ---------------------------------------------------------------------------
// Counting operator new and delete

namespace {

std::atomic<bool> gCounting{false};
std::atomic<int64_t> gNewCalls{0};
std::atomic<int64_t> gNewBytes{0};   // asked for
std::atomic<int64_t> gNewUsable{0};  // malloc_usable_size of what was given
std::atomic<int64_t> gDeleteCalls{0};
std::atomic<int64_t> gDeleteUsable{0};

void noteNew(void* pointer, std::size_t size) noexcept {
    if (pointer == nullptr || !gCounting.load(std::memory_order_relaxed)) return;
    gNewCalls.fetch_add(1, std::memory_order_relaxed);
    gNewBytes.fetch_add(static_cast<int64_t>(size), std::memory_order_relaxed);
    gNewUsable.fetch_add(static_cast<int64_t>(malloc_usable_size(pointer)), std::memory_order_relaxed);
}

void countedFree(void* pointer) noexcept {
    if (pointer == nullptr) return;
    if (gCounting.load(std::memory_order_relaxed)) {
        gDeleteCalls.fetch_add(1, std::memory_order_relaxed);
        gDeleteUsable.fetch_add(static_cast<int64_t>(malloc_usable_size(pointer)), std::memory_order_relaxed);
    }
    std::free(pointer);
}

void* countedMalloc(std::size_t size) noexcept {
    void* pointer = std::malloc(size != 0 ? size : 1);
    noteNew(pointer, size);
    return pointer;
}

void* countedAligned(std::size_t size, std::align_val_t alignment) noexcept {
    const auto align = static_cast<std::size_t>(alignment);
    const std::size_t rounded = ((size != 0 ? size : 1) + align - 1) / align * align;
    void* pointer = std::aligned_alloc(align, rounded);
    noteNew(pointer, size);
    return pointer;
}

void* orThrow(void* pointer) {
    if (pointer == nullptr) throw std::bad_alloc();
    return pointer;
}

}  // namespace

void* operator new(std::size_t size) { return orThrow(countedMalloc(size)); }
void* operator new[](std::size_t size) { return orThrow(countedMalloc(size)); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return countedMalloc(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return countedMalloc(size); }
void* operator new(std::size_t size, std::align_val_t alignment) { return orThrow(countedAligned(size, alignment)); }
void* operator new[](std::size_t size, std::align_val_t alignment) { return orThrow(countedAligned(size, alignment)); }
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return countedAligned(size, alignment);
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
    return countedAligned(size, alignment);
}
void operator delete(void* pointer) noexcept { countedFree(pointer); }
void operator delete[](void* pointer) noexcept { countedFree(pointer); }
void operator delete(void* pointer, std::size_t) noexcept { countedFree(pointer); }
void operator delete[](void* pointer, std::size_t) noexcept { countedFree(pointer); }
void operator delete(void* pointer, const std::nothrow_t&) noexcept { countedFree(pointer); }
void operator delete[](void* pointer, const std::nothrow_t&) noexcept { countedFree(pointer); }
void operator delete(void* pointer, std::align_val_t) noexcept { countedFree(pointer); }
void operator delete[](void* pointer, std::align_val_t) noexcept { countedFree(pointer); }
void operator delete(void* pointer, std::size_t, std::align_val_t) noexcept { countedFree(pointer); }
void operator delete[](void* pointer, std::size_t, std::align_val_t) noexcept { countedFree(pointer); }
void operator delete(void* pointer, std::align_val_t, const std::nothrow_t&) noexcept { countedFree(pointer); }
void operator delete[](void* pointer, std::align_val_t, const std::nothrow_t&) noexcept { countedFree(pointer); }

namespace ZOR {
namespace {

constexpr int32_t kWidth = 160;
constexpr int32_t kHeight = 90;
constexpr int64_t kPictureBytes = int64_t{kWidth} * kHeight * 4;
constexpr int64_t kSecond = 10'000'000;  // cns
constexpr int kColdFrames = 100;
constexpr int64_t kColdStep = 6 * kSecond;
constexpr auto kLimit = std::chrono::minutes(5);
constexpr int kCachedPictures = 10'000;

using Clock = std::chrono::steady_clock;

double millisecondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

// CPU time of the whole process (every thread), in milliseconds.
double processCpuMs() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

std::vector<unsigned char> samplePicture() {
    std::vector<unsigned char> pixels(static_cast<size_t>(kPictureBytes));
    for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<unsigned char>(i * 7 + 3);
    return pixels;
}

// Media identifiers shaped like the ones clips give (canonical paths), with
// a long common prefix, as the files of one project have.
std::string mediaIdNumber(int index) {
    std::string id = "/home/editor/Videos/Project 2026/footage/clip-";
    const std::string number = std::to_string(1000 + index);
    id += number;
    id += ".mp4";
    return id;
}

// ---------------------------------------------------------------------------
// The media file and its timeline

const bench::BenchFile& videoFile() {
    static const bench::BenchFile* shared = new bench::BenchFile(bench::benchFile(
        "MIRAVEL_BENCH_VIDEO", "a video file", "bench/run_video_thumbnail_bench.sh", "IDmVideoFeature", "video"));
    return *shared;
}

// A new empty folder for the frame store, removed with the object.
class FreshStore {
public:
    FreshStore() {
        char pattern[] = "/tmp/miravel-vtbench-XXXXXX";
        if (mkdtemp(pattern) != nullptr) {
            folder_ = pattern;
            root_ = folder_ + "/frames";
            setFrameStoreRoot(root_.c_str());
        }
    }
    ~FreshStore() {
        setFrameStoreRoot(nullptr);
        std::error_code error;
        if (!folder_.empty()) std::filesystem::remove_all(folder_, error);
    }
    FreshStore(const FreshStore&) = delete;
    FreshStore& operator=(const FreshStore&) = delete;

    bool ready() const { return !folder_.empty(); }
    // Whether the store holds no file at all.
    bool empty() const {
        std::error_code error;
        return !std::filesystem::exists(root_, error) || pngFiles() == 0;
    }
    int64_t pngFiles() const {
        int64_t count = 0;
        std::error_code error;
        for (auto it = std::filesystem::recursive_directory_iterator(root_, error);
             !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error))
            if (it->path().extension() == ".png") ++count;
        return count;
    }

private:
    std::string folder_;
    std::string root_;
};

// A cold iteration's scene: a new empty frame store and a new timeline of
// the file.
struct ColdScene {
    FreshStore store;
    bench::WholeFileTimeline made;

    // false (and the benchmark skipped) when either cannot be made.
    bool make(benchmark::State& state, const bench::BenchFile& file) {
        if (!store.ready() || !store.empty()) {
            state.SkipWithError("no fresh frame store");
            return false;
        }
        made = bench::wholeFileTimeline(state, file, "long", DmTrackVideo);
        return made.clip != nullptr;
    }
};

std::vector<int64_t> coldTimes() {
    std::vector<int64_t> times;
    for (int i = 0; i < kColdFrames; ++i) times.push_back(i * kColdStep);
    return times;
}

// ---------------------------------------------------------------------------
// 1. getThumbnail hits

struct CacheScene {
    int keyCount = 0;
    int timesPerKey = 0;
    int64_t pictureBytes = 0;
    BsVideoThumbnailCacheManager cache;
    std::vector<VideoThumbnailKey> keys;
    std::vector<std::pair<uint32_t, int64_t>> lookups;  // key index, time
};

// One scene at a time (10,000 pictures are 576 MB); the benchmarks after the
// lookups release it first.
std::unique_ptr<CacheScene> gCacheScene;

void releaseCacheScene() { gCacheScene.reset(); }

CacheScene& cacheScene(int keyCount, int timesPerKey, int64_t pictureBytes) {
    std::unique_ptr<CacheScene>& scene = gCacheScene;
    if (scene && scene->keyCount == keyCount && scene->timesPerKey == timesPerKey &&
        scene->pictureBytes == pictureBytes)
        return *scene;
    scene.reset();
    scene = std::make_unique<CacheScene>();
    scene->keyCount = keyCount;
    scene->timesPerKey = timesPerKey;
    scene->pictureBytes = pictureBytes;
    const std::vector<unsigned char> pixels = samplePicture();
    for (int k = 0; k < keyCount; ++k) scene->keys.push_back(VideoThumbnailKey{mediaIdNumber(k), "", -1});
    // Times a thumbnail strip would ask for: 0.2 s apart, all in distinct quanta.
    for (int t = 0; t < timesPerKey; ++t)
        for (int k = 0; k < keyCount; ++k)
            scene->cache.addThumbnail(scene->keys[static_cast<size_t>(k)], int64_t{t} * 2'000'000, kWidth, kHeight,
                                      pixels.data(), pictureBytes);
    std::mt19937 random(20261121);
    std::uniform_int_distribution<int> key(0, keyCount - 1);
    std::uniform_int_distribution<int> time(0, timesPerKey - 1);
    for (int i = 0; i < 65536; ++i)
        scene->lookups.emplace_back(static_cast<uint32_t>(key(random)), int64_t{time(random)} * 2'000'000);
    return *scene;
}

void BM_VideoCacheHit(benchmark::State& state) {
    const int keyCount = static_cast<int>(state.range(0));
    const int timesPerKey = static_cast<int>(state.range(1));
    const bool withHolder = state.range(2) != 0;
    // packed: empty pictures, so that the cache's nodes lie next to each
    // other instead of between 57,600-byte pictures (where the time goes).
    const bool packed = state.range(3) != 0;
    CacheScene& scene = cacheScene(keyCount, timesPerKey, packed ? 0 : kPictureBytes);
    if (scene.cache.pictureCount() != static_cast<size_t>(keyCount) * static_cast<size_t>(timesPerKey)) {
        state.SkipWithError("the cache does not hold the pictures");
        return;
    }
    int64_t misses = 0;
    size_t next = 0;
    for (auto _ : state) {
        const auto& [key, time] = scene.lookups[next];
        next = (next + 1) & 65535;
        unsigned char* picture = nullptr;
        if (withHolder) {
            BsVideoThumbnailCacheManager::Picture holder;
            picture = scene.cache.getThumbnail(scene.keys[key], time, kWidth, kHeight, &holder);
            benchmark::DoNotOptimize(holder);
        } else {
            picture = scene.cache.getThumbnail(scene.keys[key], time, kWidth, kHeight);
        }
        benchmark::DoNotOptimize(picture);
        if (picture == nullptr) ++misses;
    }
    if (misses != 0) state.SkipWithError("a lookup missed");
    state.counters["pictures"] = static_cast<double>(scene.cache.pictureCount());
}
BENCHMARK(BM_VideoCacheHit)
    ->ArgNames({"keys", "timesPerKey", "holder", "packed"})
    ->Args({1, kCachedPictures, 0, 0})
    ->Args({1, kCachedPictures, 1, 0})
    ->Args({100, kCachedPictures / 100, 0, 0})
    ->Args({100, kCachedPictures / 100, 1, 0})
    ->Args({1, kCachedPictures, 0, 1})
    ->Args({100, kCachedPictures / 100, 0, 1});

// The fixed part of every lookup: the size's key text, and a lookup in an
// empty cache (that text, the lock and one search of an empty map).
void BM_VideoCacheSizeKey(benchmark::State& state) {
    for (auto _ : state) {
        std::string key = BsVideoThumbnailCacheManager::sizeKey(kWidth, kHeight);
        benchmark::DoNotOptimize(key);
    }
}
BENCHMARK(BM_VideoCacheSizeKey);

void BM_VideoCacheLookupEmpty(benchmark::State& state) {
    BsVideoThumbnailCacheManager cache;
    const VideoThumbnailKey key{mediaIdNumber(0), "", -1};
    int64_t time = 0;
    for (auto _ : state) {
        unsigned char* picture = cache.getThumbnail(key, time, kWidth, kHeight);
        benchmark::DoNotOptimize(picture);
        time += 2'000'000;
    }
}
BENCHMARK(BM_VideoCacheLookupEmpty);

// The file, or null (and the benchmark skipped) when there is none to use;
// the lookups' cache scene is released first.
const bench::BenchFile* readyVideo(benchmark::State& state) {
    releaseCacheScene();
    const bench::BenchFile& file = videoFile();
    if (file.problem.empty()) return &file;
    state.SkipWithError(file.problem.c_str());
    return nullptr;
}

// ---------------------------------------------------------------------------
// 2. A request whose 50 frames are all cached

class CountingOwner final : public IBsVideoClipThumbnailCallback {
public:
    int32_t onVideoThumbnailNotice(void*) override { return 0; }
    int32_t onVideoThumbnailChanged(IDmClip*) override { return 0; }
    int32_t onVideoThumbnailData(IDmClip*, int32_t width, int32_t height, IZORLonglongList* frames,
                                 IZORPByteList* pictures, int32_t count, int32_t bytesPerPicture) override {
        ++deliveries;
        if (std::this_thread::get_id() != requester) ++otherThread;
        if (width != kWidth || height != kHeight || bytesPerPicture != kPictureBytes || frames->count() != count ||
            pictures->count() != count)
            ++bad;
        pictures_ += count;
        lastCount = count;
        // What an owner does first with the pixels: read them.
        for (int32_t i = 0; i < count; ++i) {
            const unsigned char* picture = pictures->get(i);
            if (picture == nullptr)
                ++bad;
            else
                checksum += picture[0];
        }
        return 0;
    }

    std::thread::id requester = std::this_thread::get_id();
    int64_t deliveries = 0;
    int64_t pictures_ = 0;
    int64_t otherThread = 0;
    int64_t bad = 0;
    int32_t lastCount = 0;
    uint64_t checksum = 0;
};

void BM_VideoRequestCached(benchmark::State& state) {
    const int frameCount = static_cast<int>(state.range(0));
    const int cached = static_cast<int>(state.range(1));
    const bench::BenchFile* file = readyVideo(state);
    if (file == nullptr) return;
    FreshStore store;
    const bench::WholeFileTimeline made = bench::wholeFileTimeline(state, *file, "long", DmTrackVideo);
    IDmClip* clip = made.clip;
    if (clip == nullptr) return;
    if (clip->queryInterface("IDmVideoFeature") == nullptr) {
        state.SkipWithError("no timeline with a video clip");
        return;
    }
    CountingOwner owner;
    {
        auto builder = std::make_unique<BsVideoThumbnailBuilder>(&owner);
        VideoThumbnailRequest request;
        request.clip = clip;
        request.width = kWidth;
        request.height = kHeight;
        // The requested frames, spread over the clip; the other cached
        // pictures of the clip lie between them.
        std::vector<int64_t> wanted;
        for (int i = 0; i < frameCount; ++i) wanted.push_back(i * kColdStep);
        const VideoThumbnailKey key{BsVideoThumbnailBuilder::mediaIdOf(clip), BsVideoThumbnailBuilder::styleIdOf(clip),
                                    request.streamId};
        const std::vector<unsigned char> pixels = samplePicture();
        for (int64_t time : wanted)
            builder->cache().addThumbnail(key, time, kWidth, kHeight, pixels.data(), kPictureBytes);
        const int64_t others = cached - frameCount;
        // Quanta spread over the clip, none of them a requested frame's.
        const int64_t quanta = file->duration / thumbnailTimeStep;
        const int64_t requestedEvery = kColdStep / thumbnailTimeStep;
        for (int64_t i = 0; i < others; ++i) {
            int64_t quantum = 1 + i * (quanta - 2) / std::max<int64_t>(others, 1);
            if (quantum % requestedEvery == 0) ++quantum;
            builder->cache().addThumbnail(key, quantum * thumbnailTimeStep, kWidth, kHeight, pixels.data(),
                                          kPictureBytes);
        }
        const size_t held = builder->cache().pictureCount();
        std::vector<int64_t> frames(wanted.size());
        int64_t refused = 0;
        for (auto _ : state) {
            std::copy(wanted.begin(), wanted.end(), frames.begin());
            request.frames = frames.data();
            request.frameCount = static_cast<int32_t>(frames.size());
            if (builder->requestThumbnails(request) != 0) ++refused;
        }
        const int64_t iterations = static_cast<int64_t>(state.iterations());
        const bool complete = owner.deliveries == iterations && owner.pictures_ == iterations * frameCount &&
                              owner.lastCount == frameCount;
        const size_t tasks = builder->taskCount();
        builder.reset();
        if (refused != 0 || owner.bad != 0 || owner.otherThread != 0 || !complete || tasks != 0)
            state.SkipWithError("not every request was delivered whole, at once, on the requesting thread");
        state.counters["cached_pictures"] = static_cast<double>(held);
        state.counters["delivered_per_request"] = static_cast<double>(owner.lastCount);
    }
}
BENCHMARK(BM_VideoRequestCached)
    ->ArgNames({"frames", "cached"})
    ->Args({50, 50})
    ->Args({50, kCachedPictures})
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

// ---------------------------------------------------------------------------
// 3. A cold request of 100 frames

// Records when pictures arrive, on whichever thread they come.
class ArrivalRecorder final : public IBsVideoClipThumbnailCallback {
public:
    // What has arrived so far.
    struct Summary {
        std::optional<Clock::time_point> first;
        std::optional<Clock::time_point> half;
        std::optional<Clock::time_point> all;
        double firstCpuMs = 0;
        double allCpuMs = 0;
        int64_t firstFrame = -1;
        int32_t firstCount = 0;
        int64_t deliveries = 0;
        int64_t duplicates = 0;
        int64_t bad = 0;
        size_t distinct = 0;  // frames
    };

    explicit ArrivalRecorder(size_t expected) : expected_(expected) {}

    int32_t onVideoThumbnailNotice(void*) override { return 0; }
    int32_t onVideoThumbnailChanged(IDmClip*) override { return 0; }
    int32_t onVideoThumbnailData(IDmClip*, int32_t width, int32_t height, IZORLonglongList* frames,
                                 IZORPByteList* pictures, int32_t count, int32_t bytesPerPicture) override {
        const Clock::time_point now = Clock::now();
        std::lock_guard<std::mutex> lock(mutex_);
        ++summary_.deliveries;
        if (width != kWidth || height != kHeight || bytesPerPicture != kPictureBytes || frames->count() != count ||
            pictures->count() != count)
            ++summary_.bad;
        if (count > 0 && !summary_.first) {
            summary_.first = now;
            summary_.firstCpuMs = processCpuMs();
            summary_.firstCount = count;
            summary_.firstFrame = frames->get(0);
        }
        for (int32_t i = 0; i < count; ++i) {
            const unsigned char* picture = pictures->get(i);
            if (picture == nullptr) {
                ++summary_.bad;
                continue;
            }
            // The alpha of the picture's centre: an opaque picture was filled.
            const size_t centre = (static_cast<size_t>(kHeight / 2) * kWidth + kWidth / 2) * 4;
            if (picture[centre + 3] != 255) ++summary_.bad;
            if (!seen_.insert(frames->get(i)).second) {
                ++summary_.duplicates;
                continue;
            }
            if (seen_.size() == expected_ / 2) summary_.half = now;
            if (seen_.size() == expected_) {
                summary_.all = now;
                summary_.allCpuMs = processCpuMs();
            }
        }
        signal_.notify_all();
        return 0;
    }

    bool waitForAll() {
        std::unique_lock<std::mutex> lock(mutex_);
        return signal_.wait_for(lock, kLimit, [&] { return seen_.size() >= expected_; });
    }

    Summary summary() {
        std::lock_guard<std::mutex> lock(mutex_);
        Summary summary = summary_;
        summary.distinct = seen_.size();
        return summary;
    }

private:
    const size_t expected_;
    std::mutex mutex_;  // leaf
    std::condition_variable signal_;
    std::set<int64_t> seen_;
    Summary summary_;  // but distinct, which is seen_.size()
};

// Records the reports of the task alone.
class TaskRecorder final : public IZorCallBack {
public:
    int32_t processChanged(IDmBaseObj*, int32_t, int32_t status, const BsTaskProgressInfo* info) override {
        const Clock::time_point now = Clock::now();
        std::lock_guard<std::mutex> lock(mutex_);
        if (status == BsTaskProgress && info != nullptr && info->data != nullptr) {
            auto* frame = static_cast<IBsVideoFrameData*>(info->data->queryInterface("IBsVideoFrameData"));
            if (frame != nullptr) {
                if (!first_) {
                    first_ = now;
                    firstCpuMs_ = processCpuMs();
                }
                seen_.insert(frame->requestedTime());
                if (seen_.size() == kColdFrames / 2) half_ = now;
                if (frame->byteSize() != kPictureBytes || frame->requestedTime() != frame->shownTime()) ++bad_;
            }
        } else if (status != BsTaskProgress) {
            final_ = status;
            end_ = now;
            endCpuMs_ = processCpuMs();
        }
        signal_.notify_all();
        return 0;
    }
    bool waitForEnd() {
        std::unique_lock<std::mutex> lock(mutex_);
        return signal_.wait_for(lock, kLimit, [&] { return final_ != 0; });
    }

    std::optional<Clock::time_point> first_;
    std::optional<Clock::time_point> half_;
    std::optional<Clock::time_point> end_;
    double firstCpuMs_ = 0;
    double endCpuMs_ = 0;
    std::set<int64_t> seen_;
    int32_t final_ = 0;
    int64_t bad_ = 0;

private:
    std::mutex mutex_;  // leaf
    std::condition_variable signal_;
};

// What the task's log says it did: seeks and frames decoded; and the lines
// of severity Warning and above.
struct DecodeWork {
    int64_t seeks = 0;
    int64_t packets = 0;
    int64_t frames = 0;
    int64_t warnings = 0;
};

DecodeWork workIn(const test::CapturingSink& sink) {
    DecodeWork work;
    for (const test::CapturedLine& line : sink.lines()) {
        if (line.severity >= IBsLogger::Warning) ++work.warnings;
        if (line.function != "ZOR::VideoFrameExtractTask::decode") continue;
        const std::string& text = line.text;
        const size_t colon = text.find("': ");
        if (colon == std::string::npos) continue;
        long long seeks = 0;
        long long packets = 0;
        long long skippable = 0;
        long long frames = 0;
        if (std::sscanf(text.c_str() + colon + 3, "%lld seeks, %lld packets (%lld skippable), %lld frames", &seeks,
                        &packets, &skippable, &frames) == 4) {
            work.seeks += seeks;
            work.packets += packets;
            work.frames += frames;
        }
    }
    return work;
}

benchmark::Counter perIteration(double value) { return benchmark::Counter(value, benchmark::Counter::kAvgIterations); }

// What both sides of a cold benchmark sum over their iterations: from the
// start to the first picture, to half of them and to all of them (or the
// task's end), in wall and in CPU time; reported per iteration with the
// decoding work the log tells of.
struct ColdSums {
    double firstMs = 0;
    double halfMs = 0;
    double allMs = 0;
    double firstCpu = 0;
    double allCpu = 0;

    void add(Clock::time_point start, double startCpu, Clock::time_point first,
             const std::optional<Clock::time_point>& half, Clock::time_point all, double firstCpuMs, double allCpuMs) {
        firstMs += millisecondsBetween(start, first);
        if (half) halfMs += millisecondsBetween(start, *half);
        allMs += millisecondsBetween(start, all);
        firstCpu += firstCpuMs - startCpu;
        allCpu += allCpuMs - startCpu;
    }
    void report(benchmark::State& state, const test::CapturingSink& sink, bool withHalf) const {
        const DecodeWork work = workIn(sink);
        state.counters["first_ms"] = perIteration(firstMs);
        if (withHalf) state.counters["half_ms"] = perIteration(halfMs);
        state.counters["all_ms"] = perIteration(allMs);
        state.counters["first_cpu_ms"] = perIteration(firstCpu);
        state.counters["all_cpu_ms"] = perIteration(allCpu);
        state.counters["seeks"] = perIteration(static_cast<double>(work.seeks));
        state.counters["frames_decoded"] = perIteration(static_cast<double>(work.frames));
        state.counters["log_warnings"] = perIteration(static_cast<double>(work.warnings));
    }
};

void BM_VideoColdRequest100Frames(benchmark::State& state) {
    const bench::BenchFile* file = readyVideo(state);
    if (file == nullptr) return;
    test::ScopedCapture capture(IBsLogger::Debug);
    ColdSums sums;
    double returnMs = 0;
    double firstCount = 0;
    double firstFrameS = 0;
    double deliveries = 0;
    double duplicates = 0;
    double stored = 0;
    for (auto _ : state) {
        ColdScene scene;
        if (!scene.make(state, *file)) break;
        std::vector<int64_t> frames = coldTimes();
        ArrivalRecorder recorder(frames.size());
        auto builder = std::make_unique<BsVideoThumbnailBuilder>(&recorder);
        VideoThumbnailRequest request;
        request.clip = scene.made.clip;
        request.width = kWidth;
        request.height = kHeight;
        request.frames = frames.data();
        request.frameCount = static_cast<int32_t>(frames.size());

        const double startCpu = processCpuMs();
        const Clock::time_point start = Clock::now();
        const int32_t result = builder->requestThumbnails(request);
        const Clock::time_point returned = Clock::now();
        const bool complete = result == 0 && recorder.waitForAll();
        const ArrivalRecorder::Summary summary = recorder.summary();
        const size_t cached = builder->cache().pictureCount();
        builder.reset();
        stored += static_cast<double>(scene.store.pngFiles());
        scene.made.timeline.reset();
        if (!complete || !summary.first || !summary.all || summary.bad != 0 ||
            cached != static_cast<size_t>(kColdFrames)) {
            state.SkipWithError("the 100 pictures were not all delivered and cached");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(*summary.all - start).count());
        sums.add(start, startCpu, *summary.first, summary.half, *summary.all, summary.firstCpuMs, summary.allCpuMs);
        returnMs += millisecondsBetween(start, returned);
        firstCount += summary.firstCount;
        firstFrameS += static_cast<double>(summary.firstFrame) / static_cast<double>(kSecond);
        deliveries += static_cast<double>(summary.deliveries);
        duplicates += static_cast<double>(summary.duplicates);
    }
    sums.report(state, capture.sink(), true);
    state.counters["request_call_ms"] = perIteration(returnMs);
    state.counters["pictures_in_first_delivery"] = perIteration(firstCount);
    state.counters["first_frame_s"] = perIteration(firstFrameS);
    state.counters["deliveries"] = perIteration(deliveries);
    state.counters["duplicates"] = perIteration(duplicates);
    state.counters["png_stored"] = perIteration(stored);
}
BENCHMARK(BM_VideoColdRequest100Frames)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);

// The task alone, cold: start and append of times to status 2.
void coldTask(benchmark::State& state, const std::vector<int64_t>& frames) {
    const bench::BenchFile* file = readyVideo(state);
    if (file == nullptr) return;
    test::ScopedCapture capture(IBsLogger::Debug);
    ColdSums sums;
    for (auto _ : state) {
        ColdScene scene;
        if (!scene.make(state, *file)) break;
        TaskRecorder recorder;
        const auto task = ZorRef<IBsVideoFrameExtractTask>::adopt(createVideoFrameExtractTask());
        task->initialize();
        task->addCallBack(&recorder);

        const double startCpu = processCpuMs();
        const Clock::time_point start = Clock::now();
        task->start();
        int64_t token = -1;
        const int32_t appended = task->append(scene.made.clip, frames.data(), static_cast<int32_t>(frames.size()),
                                              &token, kWidth, kHeight, 0);
        const bool ended = appended == 0 && recorder.waitForEnd();

        task->removeCallBack(&recorder);
        task->shutdown();
        if (!ended || recorder.final_ != BsTaskFinished || recorder.seen_.size() != frames.size() ||
            recorder.bad_ != 0 || !recorder.first_) {
            state.SkipWithError("the task did not give the exact pictures and status 2");
            break;
        }
        state.SetIterationTime(std::chrono::duration<double>(*recorder.end_ - start).count());
        sums.add(start, startCpu, *recorder.first_, recorder.half_, *recorder.end_, recorder.firstCpuMs_,
                 recorder.endCpuMs_);
    }
    sums.report(state, capture.sink(), frames.size() > 1);
}

void BM_VideoColdTaskAlone100Frames(benchmark::State& state) { coldTask(state, coldTimes()); }
BENCHMARK(BM_VideoColdTaskAlone100Frames)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(1);

// What one picture costs the task, cold: at a keyframe (0 s), and 2 s and
// 8 s after one (12 s and 18 s; keyframes every 10 s in the benchmark's
// file). Opening the file and decoding from the keyframe are all there is.
void BM_VideoColdTaskOneFrame(benchmark::State& state) {
    coldTask(state, {state.range(0) * kSecond});
    state.counters["time_s"] = static_cast<double>(state.range(0));
}
BENCHMARK(BM_VideoColdTaskOneFrame)
    ->ArgName("seconds")
    ->Arg(0)
    ->Arg(12)
    ->Arg(18)
    ->Unit(benchmark::kMillisecond)
    ->UseManualTime()
    ->Iterations(5);

// ---------------------------------------------------------------------------
// 4. Memory per cached picture

std::atomic<int64_t> gPictureCalls{0};
std::atomic<int64_t> gPictureBytes{0};
std::atomic<int64_t> gPictureUsable{0};

void* countingPictureAllocator(size_t size) {
    void* pointer = std::malloc(size);
    if (pointer != nullptr) {
        gPictureCalls.fetch_add(1, std::memory_order_relaxed);
        gPictureBytes.fetch_add(static_cast<int64_t>(size), std::memory_order_relaxed);
        gPictureUsable.fetch_add(static_cast<int64_t>(malloc_usable_size(pointer)), std::memory_order_relaxed);
    }
    return pointer;
}

struct MemorySnapshot {
    int64_t heapInUse = 0;  // mallinfo2: uordblks + hblkhd (main arena and mmapped blocks)
    int64_t newCalls = 0;
    int64_t newBytes = 0;
    int64_t newUsable = 0;
    int64_t deleteCalls = 0;
    int64_t deleteUsable = 0;
    int64_t pictureCalls = 0;
    int64_t pictureBytes = 0;
    int64_t pictureUsable = 0;
};

MemorySnapshot snapshot() {
    const struct mallinfo2 info = mallinfo2();
    MemorySnapshot s;
    s.heapInUse = static_cast<int64_t>(info.uordblks + info.hblkhd);
    s.newCalls = gNewCalls.load();
    s.newBytes = gNewBytes.load();
    s.newUsable = gNewUsable.load();
    s.deleteCalls = gDeleteCalls.load();
    s.deleteUsable = gDeleteUsable.load();
    s.pictureCalls = gPictureCalls.load();
    s.pictureBytes = gPictureBytes.load();
    s.pictureUsable = gPictureUsable.load();
    return s;
}

void BM_VideoCacheMemory(benchmark::State& state) {
    releaseCacheScene();
    const int keyCount = static_cast<int>(state.range(0));
    const int timesPerKey = static_cast<int>(state.range(1));
    const double pictures = static_cast<double>(keyCount) * timesPerKey;
    const std::vector<unsigned char> pixels = samplePicture();
    std::vector<VideoThumbnailKey> keys;
    for (int k = 0; k < keyCount; ++k) keys.push_back(VideoThumbnailKey{mediaIdNumber(k), "", -1});
    MemorySnapshot before;
    MemorySnapshot after;
    size_t held = 0;
    double addNs = 0;
    for (auto _ : state) {
        auto cache = std::make_unique<BsVideoThumbnailCacheManager>();
        const BsVideoThumbnailCacheManager::Allocator previous =
            BsVideoThumbnailCacheManager::setAllocatorForTesting(&countingPictureAllocator);
        before = snapshot();
        gCounting.store(true);
        const Clock::time_point start = Clock::now();
        for (int t = 0; t < timesPerKey; ++t)
            for (int k = 0; k < keyCount; ++k)
                cache->addThumbnail(keys[static_cast<size_t>(k)], int64_t{t} * 2'000'000, kWidth, kHeight,
                                    pixels.data(), kPictureBytes);
        const Clock::time_point end = Clock::now();
        gCounting.store(false);
        after = snapshot();
        BsVideoThumbnailCacheManager::setAllocatorForTesting(previous);
        held = cache->pictureCount();
        addNs = std::chrono::duration<double, std::nano>(end - start).count() / pictures;
        cache.reset();
    }
    if (held != static_cast<size_t>(pictures)) {
        state.SkipWithError("the cache does not hold every picture");
        return;
    }
    const auto per = [&](int64_t value) { return static_cast<double>(value) / pictures; };
    const double pixelBytes = static_cast<double>(kPictureBytes);
    state.counters["pictures"] = pictures;
    state.counters["heap_per_picture_beyond_pixels"] = per(after.heapInUse - before.heapInUse) - pixelBytes;
    state.counters["picture_alloc_usable_beyond_pixels"] = per(after.pictureUsable - before.pictureUsable) - pixelBytes;
    state.counters["picture_allocs_per_picture"] = per(after.pictureCalls - before.pictureCalls);
    state.counters["new_calls_per_picture"] = per(after.newCalls - before.newCalls);
    state.counters["new_bytes_asked_per_picture"] = per(after.newBytes - before.newBytes);
    state.counters["new_usable_kept_per_picture"] =
        per((after.newUsable - before.newUsable) - (after.deleteUsable - before.deleteUsable));
    state.counters["delete_calls_per_picture"] = per(after.deleteCalls - before.deleteCalls);
    state.counters["add_ns_per_picture"] = addNs;
}
BENCHMARK(BM_VideoCacheMemory)
    ->ArgNames({"keys", "timesPerKey"})
    ->Args({1, kCachedPictures})
    ->Args({100, kCachedPictures / 100})
    ->Iterations(1)
    ->Repetitions(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace ZOR
