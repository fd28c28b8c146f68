#include "AudioBuilderFixture.h"

namespace ZOR::test {
namespace {

TEST_F(AudioBuilderTest, HeldWaveDataIsDeliveredWithUnitGain) {
    FakeTimelineClip* clip = addClip("a", 0, 0, 4 * kSecond);
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
