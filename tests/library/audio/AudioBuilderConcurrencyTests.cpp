// Queries, cancels, change batches and task reports from four threads at once
// on one builder, ending with the builder destroyed while reports still
// arrive. Run under ThreadSanitizer as well.
#include <atomic>
#include <future>
#include <random>
#include <thread>

#include "AudioBuilderFixture.h"
#include "BsDataStructure/BsDataStructure.h"

namespace ZOR::test {
namespace {

constexpr int kIterations = 3000;

TEST_F(AudioBuilderTest, FourThreadsQueryCancelChangeAndReportThenTheBuilderGoesWhileReportsArrive) {
    // Two media: one whose wave data is held (answered at once), one that
    // needs tasks.
    auto pending = makeRef<FakeWaveManager>();
    pending->holdNothing();
    timeline_->addTrack(DmTrackAudio);
    std::vector<FakeClip*> clips;
    for (int i = 0; i < 3; ++i) clips.push_back(addClip("held" + std::to_string(i), 0, i * kSecond, (i + 4) * kSecond));
    for (int i = 0; i < 3; ++i)
        clips.push_back(
            timeline_->addClip(1, "pending" + std::to_string(i), pending.get(), 0, i * kSecond, (i + 4) * kSecond));
    clips[1]->addEffect(4109)->setValues(0.5f, 0.5f, 0.5f);
    clips[4]->addEffect(4110)->setKeyframes({{0, -6.0}, {2 * kSecond, 0.0}});

    std::vector<std::unique_ptr<RecordingQueryer>> queryers;
    for (int i = 0; i < 4; ++i) queryers.push_back(std::make_unique<RecordingQueryer>(i % 2 == 0));
    BsAudioThumbnailBuilder& shared = builder();
    auto task = lastAudioTask();
    ASSERT_NE(task, nullptr);

    std::atomic<bool> builderGone{false};
    std::atomic<int> accepted{0};
    auto querying = std::async(std::launch::async, [&] {
        std::mt19937 random(1);
        for (int i = 0; i < kIterations; ++i) {
            FakeClip* clip = clips[random() % clips.size()];
            RecordingQueryer* queryer = queryers[random() % queryers.size()].get();
            const int64_t begin = static_cast<int64_t>(random() % 4) * kFrame;
            if (shared.queryAudioThumbnailData(queryer, clip, begin, begin + 2 * kSecond,
                                               1 + static_cast<int32_t>(random() % 64)) == 0)
                accepted.fetch_add(1);
        }
    });
    auto cancelling = std::async(std::launch::async, [&] {
        std::mt19937 random(2);
        for (int i = 0; i < kIterations; ++i) {
            RecordingQueryer* queryer = queryers[random() % queryers.size()].get();
            if (random() % 3 == 0)
                shared.cancelQuery(queryer);
            else
                shared.cancelQuery(queryer, clips[random() % clips.size()]);
        }
    });
    auto changing = std::async(std::launch::async, [&] {
        std::mt19937 random(3);
        const uint32_t bits[] = {0x40, 0x200, 0x10, 0x8, 0x800, 0x22, 0x400, 0x50};
        for (int i = 0; i < kIterations; ++i) {
            auto list = makeRef<FakeClipList>();
            auto flags = ZorRef<IZORIntList>::adopt(createZORIntList());
            for (int k = 0; k < 2; ++k) {
                list->append(clips[random() % clips.size()]);
                flags->append(static_cast<int32_t>(bits[random() % 8]));
            }
            shared.onAudioChanged(timeline_.get(), list.get(), flags.get());
            if (i % 500 == 0) shared.clearAudioRawSamples(clips[random() % clips.size()]);
        }
    });
    auto reporting = std::async(std::launch::async, [&] {
        std::mt19937 random(4);
        const int32_t statuses[] = {2, 2, 3, 4, 7, 1};
        std::vector<ScriptedAppend> appends;
        int afterGone = 0;
        // Reports keep coming until a while after the builder is gone.
        for (int i = 0; afterGone < 200; ++i) {
            if (i % 64 == 0) appends = task->appends();
            const int64_t token = appends.empty() ? 1 : appends[random() % appends.size()].token;
            task->deliver(token, statuses[random() % 6]);
            if (builderGone.load()) ++afterGone;
            std::this_thread::yield();
        }
    });

    querying.get();
    cancelling.get();
    changing.get();
    EXPECT_GT(accepted.load(), 0);
    builder_.reset();  // while reports still arrive
    builderGone.store(true);
    reporting.get();

    EXPECT_FALSE(task->alive());
    EXPECT_EQ(task->callbackCount(), 0u);
}

}  // namespace
}  // namespace ZOR::test
