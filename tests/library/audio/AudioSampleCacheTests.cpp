// The sample cache behind the audio thumbnail builders: one per wave manager,
// shared by every entry (of every builder) that uses the manager, emptied on
// request and made anew once nobody uses it.
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "AudioEdgeSupport.h"

namespace ZOR::test {
namespace {

using Reads = std::map<int32_t, int32_t>;

// Frames 0, 10, ..., 40: a query of clip time [0, 2 s] in 5 points.
std::vector<float> valuesOfFirstTwoSeconds() {
    return {waveValue(0, 0), waveValue(10, 0), waveValue(20, 0), waveValue(30, 0), waveValue(40, 0)};
}

TEST_F(AudioEdgeTest, ClipsOfOneMediaOnTwoTimelinesShareOneCache) {
    FakeClip* here = addClip("here", 0, 0, 4 * kSecond);
    auto otherTimeline = makeRef<FakeTimeline>();
    otherTimeline->addTrack(DmTrackAudio);
    FakeClip* there = otherTimeline->addClip(0, "there", wave_.get(), 0, 10 * kSecond, 14 * kSecond);
    RecordingCallback otherOwner;
    auto otherBuilder = std::make_unique<BsAudioThumbnailBuilder>(&otherOwner, otherTimeline.get());
    RecordingQueryer first;
    RecordingQueryer second;

    ASSERT_EQ(builder().queryAudioThumbnailData(&first, here, 0, 2 * kSecond, 5), 0);
    ASSERT_TRUE(first.callback.waitForDeliveries(1));
    EXPECT_EQ(wave_->reads(), (Reads{{0, 1}, {10, 1}, {20, 1}, {30, 1}, {40, 1}}));

    ASSERT_EQ(otherBuilder->queryAudioThumbnailData(&second, there, 0, 2 * kSecond, 5), 0);
    ASSERT_TRUE(second.callback.waitForDeliveries(1));
    EXPECT_EQ(second.callback.deliveries()[0].values, valuesOfFirstTwoSeconds());
    EXPECT_EQ(first.callback.deliveries()[0].values, valuesOfFirstTwoSeconds());
    // Nothing was read again, and the manager was opened once.
    EXPECT_EQ(wave_->reads(), (Reads{{0, 1}, {10, 1}, {20, 1}, {30, 1}, {40, 1}}));
    EXPECT_EQ(wave_->countCalls(), 1);
    EXPECT_EQ(BsAudioSampleCache::obtainForClip(here), BsAudioSampleCache::obtainForClip(there));
    EXPECT_TRUE(lastAudioTask()->appends().empty());

    otherBuilder.reset();
}

TEST_F(AudioEdgeTest, ClearingOneClipEmptiesEveryEntryOfItsCacheAndNotifiesTheirClips) {
    FakeClip* a = addClip("a", 0, 0, 4 * kSecond);
    FakeClip* b = addClip("b", 4 * kSecond, 4 * kSecond, 8 * kSecond);
    auto elsewhere = makeRef<FakeWaveManager>();
    FakeClip* c = timeline_->addClip(0, "c", elsewhere.get(), 0, 8 * kSecond, 12 * kSecond);
    RecordingQueryer qa;
    RecordingQueryer qb;
    RecordingQueryer qc;

    ASSERT_EQ(builder().queryAudioThumbnailData(&qa, a, 0, 2 * kSecond, 5), 0);  // frames 0..40
    ASSERT_TRUE(qa.callback.waitForDeliveries(1));
    ASSERT_EQ(builder().queryAudioThumbnailData(&qb, b, 4 * kSecond, 6 * kSecond, 5), 0);  // frames 100..140
    ASSERT_TRUE(qb.callback.waitForDeliveries(1));
    ASSERT_EQ(builder().queryAudioThumbnailData(&qc, c, 0, 2 * kSecond, 5), 0);  // frames 0..40 of another manager
    ASSERT_TRUE(qc.callback.waitForDeliveries(1));
    ASSERT_TRUE(drainWorker());
    ASSERT_EQ(wave_->totalReads(), 10);
    ASSERT_EQ(elsewhere->totalReads(), 5);

    {
        ScopedCapture capture;
        EXPECT_EQ(builder().clearAudioRawSamples(a), 0);
        const auto notices = owner_.notices();
        EXPECT_EQ(notices.size(), 2u);
        EXPECT_EQ((std::set<IDmClip*>(notices.begin(), notices.end())), (std::set<IDmClip*>{a, b}));
        for (IDmClip* cleared : {static_cast<IDmClip*>(a), static_cast<IDmClip*>(b)}) {
            const auto lines = linesWithText(capture.sink(), "==wav clip clear:" + hexText(cleared));
            ASSERT_EQ(lines.size(), 1u) << hexText(cleared);
            EXPECT_EQ(lines[0].function, "ZOR::BsAudioThumbnailBuilder::clearAudioRawSamples");
        }
        EXPECT_TRUE(linesWithText(capture.sink(), "==wav clip clear:" + hexText(static_cast<IDmClip*>(c))).empty());
    }

    // Every entry of the cleared cache reads its frames again; the other does not.
    ASSERT_EQ(builder().queryAudioThumbnailData(&qa, a, 0, 2 * kSecond, 5), 0);
    ASSERT_TRUE(qa.callback.waitForDeliveries(2));
    ASSERT_EQ(builder().queryAudioThumbnailData(&qb, b, 4 * kSecond, 6 * kSecond, 5), 0);
    ASSERT_TRUE(qb.callback.waitForDeliveries(2));
    ASSERT_EQ(builder().queryAudioThumbnailData(&qc, c, 0, 2 * kSecond, 5), 0);
    ASSERT_TRUE(qc.callback.waitForDeliveries(2));

    EXPECT_EQ(wave_->reads(),
              (Reads{{0, 2}, {10, 2}, {20, 2}, {30, 2}, {40, 2}, {100, 2}, {110, 2}, {120, 2}, {130, 2}, {140, 2}}));
    EXPECT_EQ(elsewhere->reads(), (Reads{{0, 1}, {10, 1}, {20, 1}, {30, 1}, {40, 1}}));
    EXPECT_EQ(qa.callback.deliveries()[1].values, valuesOfFirstTwoSeconds());
    EXPECT_EQ(qb.callback.deliveries()[1].values, qb.callback.deliveries()[0].values);
    EXPECT_EQ(qc.callback.deliveries()[1].values, valuesOfFirstTwoSeconds());
}

TEST_F(AudioEdgeTest, CacheIsMadeAnewOnceItsLastEntryIsErased) {
    FakeClip* a = addClip("a", 0, 0, 4 * kSecond);
    FakeClip* b = addClip("b", 4 * kSecond, 4 * kSecond, 8 * kSecond);
    RecordingQueryer qa;
    RecordingQueryer qb;
    const Reads once{{0, 1}, {10, 1}, {20, 1}, {30, 1}, {40, 1}};

    ASSERT_EQ(builder().queryAudioThumbnailData(&qa, a, 0, 2 * kSecond, 5), 0);
    ASSERT_TRUE(qa.callback.waitForDeliveries(1));
    ASSERT_EQ(builder().queryAudioThumbnailData(&qb, b, 0, 2 * kSecond, 5), 0);
    ASSERT_TRUE(qb.callback.waitForDeliveries(1));
    ASSERT_TRUE(drainWorker());  // the worker holds no entry any more
    ASSERT_EQ(wave_->reads(), once);
    const std::weak_ptr<BsAudioSampleCache> cache = BsAudioSampleCache::obtainForClip(a);

    // b's entry still uses the cache: a's new entry finds every frame in it.
    ASSERT_EQ(builder().cancelQuery(&qa), 0);
    EXPECT_FALSE(cache.expired());
    ASSERT_EQ(builder().queryAudioThumbnailData(&qa, a, 0, 2 * kSecond, 5), 0);
    ASSERT_TRUE(qa.callback.waitForDeliveries(2));
    ASSERT_TRUE(drainWorker());
    EXPECT_EQ(wave_->reads(), once);

    // Once no entry uses it, the cache goes and the next one starts empty.
    ASSERT_EQ(builder().cancelQuery(&qa), 0);
    ASSERT_EQ(builder().cancelQuery(&qb), 0);
    EXPECT_TRUE(cache.expired());
    ASSERT_EQ(builder().queryAudioThumbnailData(&qa, a, 0, 2 * kSecond, 5), 0);
    ASSERT_TRUE(qa.callback.waitForDeliveries(3));
    EXPECT_EQ(wave_->reads(), (Reads{{0, 2}, {10, 2}, {20, 2}, {30, 2}, {40, 2}}));
    EXPECT_EQ(qa.callback.deliveries()[2].values, valuesOfFirstTwoSeconds());
    EXPECT_EQ(wave_->countCalls(), 2);
}

}  // namespace
}  // namespace ZOR::test
