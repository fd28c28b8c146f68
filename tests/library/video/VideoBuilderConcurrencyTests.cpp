// Requests, cancels and cache clearing from three threads at once on one
// video thumbnail builder while the task's reports arrive from a fourth,
// then the builder destroyed; and the builder destroyed while reports still
// arrive. Run under ThreadSanitizer as well.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <latch>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "BsVideoThumbnailBuilder.h"
#include "CapturingLogger.h"
#include "FakeDataModel.h"
#include "FakeFrameData.h"
#include "MediaTestSupport.h"
#include "ScriptedTaskService.h"
#include "Timeouts.h"
#include "VideoRecording.h"
#include "ZorUtils/ZorUtils.h"

namespace ZOR::test {
namespace {

constexpr int kIterations = 3000;
constexpr int kThreads = 4;

// Waits for a thread's work; a thread that never ends is a deadlock.
void finish(std::future<void>& work, const char* name) {
    if (work.wait_for(kGenerousForStress) != std::future_status::ready) {
        ADD_FAILURE() << name << " did not end";
        std::abort();
    }
    work.get();
}

TEST(VideoBuilderConcurrency, RequestsCancelsAndClearsFromThreeThreadsWhileReportsArriveThenTheBuilderGoes) {
    resetScriptedTasks();
    TempFolder folder;
    ScopedCapture capture(IBsLogger::Info);

    // Four clips: two of one media (one key), one of another media and
    // stream, one of the first media with a style. Frames 0 and 300000 are
    // in the store.
    std::vector<unsigned char> pixels(4 * 2 * 4, 200);
    const std::string stored0 = folder.file("f0.png");
    const std::string stored3 = folder.file("f3.png");
    ASSERT_EQ(dumpPNG(4, 2, pixels.data(), stored0.c_str(), -1), 0);
    ASSERT_EQ(dumpPNG(4, 2, pixels.data(), stored3.c_str(), -1), 0);
    const std::vector<ZorRef<FakeClip>> held{FakeClip::storeVideo("media-1", 0), FakeClip::storeVideo("media-1", 0),
                                             FakeClip::storeVideo("media-2", 1), FakeClip::storeVideo("media-1", 0)};
    std::vector<FakeClip*> clips;
    for (const ZorRef<FakeClip>& clip : held) {
        clip->setFile(0, stored0);
        clip->setFile(300000, stored3);
        clips.push_back(clip.get());
    }
    const auto items = makeRef<FakeAttachedItemList>();
    items->add(true, true, {newStyleData({"IImageStylizesData"}, "warm").get()});
    clips[3]->setAttachedItems(items);
    const auto timeline = makeRef<FakeTimeline>(/*usesEveryMedia=*/false);

    // The owner keeps the picture pointers only: a clear on another thread
    // may drop a picture while it is being delivered.
    RecordingVideoOwner owner(RecordingVideoOwner::Pixels::None);
    auto builder = std::make_unique<BsVideoThumbnailBuilder>(&owner);
    BsVideoThumbnailBuilder& shared = *builder;
    auto task = lastVideoTask();
    ASSERT_NE(task, nullptr);
    // Every clip's pictures are cached to begin with, at both sizes.
    for (const VideoThumbnailKey& key : {VideoThumbnailKey{"media-1", "", 0}, VideoThumbnailKey{"media-2", "", 1},
                                         VideoThumbnailKey{"media-1", "warm", 0}})
        for (int64_t frame = 0; frame < 10; ++frame)
            for (int32_t width : {4, 8}) {
                const std::vector<unsigned char> picture(static_cast<size_t>(width * width / 2 * 4), 100);
                ASSERT_NE(shared.cache().addThumbnail(key, frame * 100000, width, width / 2, picture.data(),
                                                      static_cast<int64_t>(picture.size())),
                          nullptr);
            }

    std::latch start(kThreads);
    std::atomic<int> accepted{0};
    std::atomic<int> requesters{3};  // still requesting
    auto requesting = [&](unsigned seed, bool clearing) {
        return std::async(std::launch::async, [&, seed, clearing] {
            std::mt19937 random(seed);
            start.arrive_and_wait();
            for (int i = 0; i < kIterations; ++i) {
                FakeClip* clip = clips[random() % clips.size()];
                std::vector<int64_t> frames;
                const int count = 1 + static_cast<int>(random() % 5);
                for (int k = 0; k < count; ++k) frames.push_back(static_cast<int64_t>(random() % 10) * 100000);
                VideoThumbnailRequest r;
                r.clip = clip->asClip();
                r.width = random() % 2 == 0 ? 4 : 8;
                r.height = r.width / 2;
                r.streamId = clip->videoStreamIndex();
                r.frames = frames.data();
                r.frameCount = count;
                r.refresh = random() % 25 == 0 ? 1u : 0u;
                if (shared.requestThumbnails(r) == 0) accepted.fetch_add(1);
                if (i % 64 == 0) std::this_thread::yield();  // lets the reports in on few cores
                if (!clearing) continue;
                FakeClip* other = clips[random() % clips.size()];
                if (i % 7 == 0) shared.cancelClip(other->asClip());
                if (i % 11 == 0)
                    shared.clearCache(other->asClip(), BsVideoThumbnailBuilder::mediaIdOf(other->asClip()));
                if (i % 13 == 0) shared.clearCacheOnClipChange(timeline.get(), other->asClip());
                if (i % 17 == 0) shared.cancelTask(1 + static_cast<int64_t>(random() % 64));
            }
            requesters.fetch_sub(1);
        });
    };
    auto first = requesting(1, false);
    auto second = requesting(2, false);
    auto third = requesting(3, true);
    auto reporting = std::async(std::launch::async, [&] {
        std::mt19937 random(4);
        std::vector<ScriptedAppend> appends;  // every request sent so far
        std::vector<ScriptedAppend> live;     // of those, the ones not ended
        std::set<int64_t> ended;              // by this thread's final reports
        auto look = [&] {
            appends = task->appends();
            const std::vector<int64_t> cancelled = task->cancels();
            const std::set<int64_t> gone(cancelled.begin(), cancelled.end());
            live.clear();
            for (const ScriptedAppend& append : appends)
                if (gone.count(append.token) == 0 && ended.count(append.token) == 0) live.push_back(append);
        };
        start.arrive_and_wait();
        // Reports go on while requests are made, and some time after.
        for (int i = 0; requesters.load() > 0 || i < 2 * kIterations;) {
            const bool requestsDone = requesters.load() == 0;  // read before looking
            if (appends.empty() || i % 16 == 0) look();
            if (appends.empty()) {
                if (requestsDone) break;
                continue;
            }
            ++i;
            // Mostly requests that are still running; some that ended.
            const bool toLive = !live.empty() && random() % 8 != 0;
            const ScriptedAppend& append = toLive ? live[random() % live.size()] : appends[random() % appends.size()];
            const unsigned kind = random() % 20;
            if (kind < 11) {
                // A frame of the request, or one added since.
                const int64_t time = random() % 2 == 0 && !append.times.empty()
                                         ? append.times[random() % append.times.size()]
                                         : static_cast<int64_t>(random() % 10) * 100000;
                const auto data = newFrameData(time, append.width, append.height, static_cast<unsigned char>(i));
                task->deliver(append.token, 1, data->asData());
            } else if (kind < 13) {
                const auto data = newFrameData(950000, append.width, append.height, 1);  // never asked for
                task->deliver(append.token, 1, data->asData());
            } else if (kind < 16) {
                task->deliver(append.token, 1);
            } else if (kind < 18) {
                task->deliver(append.token, 2);
                ended.insert(append.token);
            } else {
                task->deliver(append.token, 7);
                ended.insert(append.token);
            }
        }
    });

    finish(first, "first requester");
    finish(second, "second requester");
    finish(third, "third requester");
    finish(reporting, "reporter");
    EXPECT_EQ(accepted.load(), 3 * kIterations);

    // Every delivery is ascending, in step and of the size of its request.
    const auto deliveries = owner.deliveries();
    size_t pictures = 0;
    for (const VideoDelivery& delivery : deliveries) {
        EXPECT_TRUE(std::is_sorted(delivery.frames.begin(), delivery.frames.end()));
        EXPECT_EQ(std::adjacent_find(delivery.frames.begin(), delivery.frames.end()), delivery.frames.end());
        EXPECT_EQ(delivery.count, static_cast<int32_t>(delivery.frames.size()));
        EXPECT_EQ(delivery.pictures.size(), delivery.frames.size());
        EXPECT_EQ(delivery.bytesPerPicture, delivery.width * delivery.height * 4);
        EXPECT_TRUE(delivery.width == 4 || delivery.width == 8);
        for (unsigned char* picture : delivery.pictures) EXPECT_NE(picture, nullptr);
        pictures += delivery.frames.size();
    }
    EXPECT_GT(pictures, 0u);
    EXPECT_GT(task->appends().size(), 1u);
    EXPECT_FALSE(owner.changed().empty());

    builder.reset();
    EXPECT_FALSE(task->alive());
    EXPECT_EQ(task->callbackCount(), 0u);
    EXPECT_EQ(task->shutdownCount(), 1);
    // Every record's clip reference was given back.
    for (FakeClip* clip : clips) EXPECT_EQ(clip->references(), 1);
}

// A restart (status 7) on the task's thread while the builder is destroyed:
// the record it moves to the new token must still give its clip reference
// back. Rounds, since the report has to meet the destruction.
TEST(VideoBuilderConcurrency, TheBuilderGoesWhileRestartsArriveAndEveryClipReferenceComesBack) {
    constexpr int kRounds = 200;
    int kept = 0;  // rounds that ended with a clip reference still held
    for (int round = 0; round < kRounds; ++round) {
        resetScriptedTasks();
        const auto clip = FakeClip::storeVideo("media-1", 0);
        RecordingVideoOwner owner(RecordingVideoOwner::Pixels::None);
        auto builder = std::make_unique<BsVideoThumbnailBuilder>(&owner);
        auto task = lastVideoTask();
        ASSERT_NE(task, nullptr);
        std::vector<int64_t> frames{100000, 200000};
        VideoThumbnailRequest r;
        r.clip = clip->asClip();
        r.width = 4;
        r.height = 2;
        r.streamId = 0;
        r.frames = frames.data();
        r.frameCount = static_cast<int32_t>(frames.size());
        ASSERT_EQ(builder->requestThumbnails(r), 0);

        // Each restart moves the request to the next token.
        std::atomic<bool> reporting{true};
        std::latch start(2);
        auto restarts = std::async(std::launch::async, [&] {
            start.arrive_and_wait();
            for (int64_t token = 1; reporting.load(); ++token) task->deliver(token, 7);
        });
        start.arrive_and_wait();
        builder.reset();
        reporting.store(false);
        finish(restarts, "reporter");

        EXPECT_FALSE(task->alive());
        if (clip->references() != 1) ++kept;
    }
    EXPECT_EQ(kept, 0) << "rounds whose clip reference was never given back, of " << kRounds;
}

}  // namespace
}  // namespace ZOR::test
