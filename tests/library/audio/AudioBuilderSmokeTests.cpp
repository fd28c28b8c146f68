#include <algorithm>

#include "AudioBuilderFixture.h"

namespace ZOR::test {
namespace {

TEST_F(AudioBuilderTest, HeldWaveDataIsDeliveredWithUnitGain) {
    FakeClip* clip = addClip("a", 0, 0, 4 * kSecond);
    RecordingQueryer queryer;
    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, 4 * kSecond, 4), 0);
    ASSERT_TRUE(queryer.callback.waitForDeliveries(1));
    const auto delivered = queryer.callback.deliveries();
    ASSERT_EQ(delivered[0].values.size(), 4u);
    // Point i at i seconds: frame 25 i, value index 0.
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(delivered[0].values[static_cast<size_t>(i)], static_cast<float>((25 * i) % 100) / 100.0f) << i;
    EXPECT_TRUE(lastAudioTask()->appends().empty());
}

}  // namespace
}  // namespace ZOR::test

namespace ZOR::test {
namespace {

TEST_F(AudioBuilderTest, RequestAnsweredWhileItsMediaWasStillExtractingIsRefreshedWhenTheTaskEnds) {
    wave_->holdNothing();
    FakeClip* clip = addClip("a", 0, 0, 4 * kSecond);
    RecordingQueryer first;
    RecordingQueryer second;
    ASSERT_EQ(builder().queryAudioThumbnailData(&first, clip, 0, 4 * kSecond, 4), 0);
    auto task = lastAudioTask();
    ASSERT_EQ(task->appends().size(), 1u);
    const int64_t token = task->appends()[0].token;

    // The media's task is still running: the second queryer is answered at
    // once from what the wave manager holds (nothing yet).
    ASSERT_EQ(builder().queryAudioThumbnailData(&second, clip, 0, 4 * kSecond, 4), 0);
    ASSERT_TRUE(second.callback.waitForDeliveries(1));
    EXPECT_EQ(second.callback.deliveries()[0].values, std::vector<float>(4, 0.0f));
    EXPECT_EQ(task->appends().size(), 1u);

    wave_->setHeld(0, 1 << 20);
    task->deliver(token, 2);
    ASSERT_TRUE(first.callback.waitForDeliveries(1));
    // The worker tells the owner that the clip is out of date as it handles
    // the task's end, before it computes the first queryer's thumbnail.
    const auto notices = owner_.notices();
    EXPECT_EQ(std::count(notices.begin(), notices.end(), static_cast<IDmClip*>(clip)), 1);
    ASSERT_EQ(builder().queryAudioThumbnailData(&second, clip, 0, 4 * kSecond, 4), 0);
    ASSERT_TRUE(second.callback.waitForDeliveries(2));
    const auto values = second.callback.deliveries()[1].values;
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(values[static_cast<size_t>(i)], static_cast<float>((25 * i) % 100) / 100.0f) << i;
}

}  // namespace
}  // namespace ZOR::test
