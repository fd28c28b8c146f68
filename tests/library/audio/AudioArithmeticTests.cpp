// The audio thumbnails' pure parts on their own: levels to gains, the
// envelope between keyframes, point times, ducking levels, the static gain
// and the delivered value, against values worked out here; and the worker's
// message queue.
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "BsAudioDuckIntervals.h"
#include "BsAudioEnvelope.h"
#include "BsWaveWorkerQueue.h"

namespace ZOR {
namespace {

constexpr int64_t kSecond = 10'000'000;

TEST(AudioArithmetic, GainsOfLevelsAreTenToTheTwentiethOfTheLevel) {
    EXPECT_EQ(gainOfDb(0.0), 1.0);
    EXPECT_NEAR(gainOfDb(-6.0), std::pow(10.0, -0.3), 1e-6);
    EXPECT_NEAR(gainOfDb(20.0), 10.0, 1e-5);
    EXPECT_NEAR(gainOfDb(-47.9), std::pow(10.0, -47.9 / 20.0), 1e-7);
    // Single precision throughout: the result is a float's value.
    EXPECT_EQ(gainOfDb(-6.0), static_cast<double>(static_cast<float>(gainOfDb(-6.0))));
}

TEST(AudioArithmetic, LevelsAtOrBelowMinusFortyEightAreSilence) {
    EXPECT_EQ(gainOfDb(-48.0), 0.0);
    EXPECT_EQ(gainOfDb(-120.0), 0.0);
    EXPECT_EQ(gainOfDb(std::nan("")), 0.0);
    EXPECT_GT(gainOfDb(-47.999), 0.0);
}

TEST(AudioArithmetic, TheEnvelopeIsLinearInGainBetweenKeyframesAndHoldsOutside) {
    const std::vector<std::pair<int64_t, double>> keys{{2 * kSecond, 0.0}, {6 * kSecond, 0.0}, {8 * kSecond, 0.0}};
    const std::vector<double> gains{0.5, 1.0, 0.25};
    EXPECT_EQ(envelopeAt(keys, gains, 0), 0.5);
    EXPECT_EQ(envelopeAt(keys, gains, 2 * kSecond), 0.5);
    EXPECT_EQ(envelopeAt(keys, gains, 3 * kSecond), 0.625);
    EXPECT_EQ(envelopeAt(keys, gains, 4 * kSecond), 0.75);
    EXPECT_EQ(envelopeAt(keys, gains, 6 * kSecond), 1.0);
    EXPECT_EQ(envelopeAt(keys, gains, 7 * kSecond), 0.625);
    EXPECT_EQ(envelopeAt(keys, gains, 8 * kSecond), 0.25);
    EXPECT_EQ(envelopeAt(keys, gains, 100 * kSecond), 0.25);
    EXPECT_EQ(envelopeAt({{5 * kSecond, 0.0}}, {0.3}, 0), 0.3);
}

TEST(AudioArithmetic, PointTimesAreTruncatedFractionsOfTheRange) {
    EXPECT_EQ(pointTime(0, 10, 3, 4), 7);
    EXPECT_EQ(pointTime(100, 110, 0, 4), 100);
    EXPECT_EQ(pointTime(-10, 0, 1, 4), -8);  // -10 + 2.5 truncated towards 0
    EXPECT_EQ(pointTime(0, 10 * kSecond, 1, 3), 33'333'333);
}

TEST(AudioArithmetic, ADuckRisesAndFallsOverItsFadesAroundItsFullDepth) {
    // 2 s to 8 s, depth 0.8, a 1 s fade half inside: rising over [1.5 s, 2.5 s),
    // full over [2.5 s, 7.5 s], falling over (7.5 s, 8.5 s].
    const DuckShape shape{2 * kSecond, 8 * kSecond, 0.8, 1.0, 0.5};
    EXPECT_EQ(duckLevelAt(shape, kSecond), 0.0);
    EXPECT_EQ(duckLevelAt(shape, 15 * kSecond / 10), 0.0);
    EXPECT_DOUBLE_EQ(duckLevelAt(shape, 2 * kSecond), 0.4);
    EXPECT_EQ(duckLevelAt(shape, 25 * kSecond / 10), 0.8);
    EXPECT_EQ(duckLevelAt(shape, 5 * kSecond), 0.8);
    EXPECT_EQ(duckLevelAt(shape, 75 * kSecond / 10), 0.8);
    EXPECT_DOUBLE_EQ(duckLevelAt(shape, 8 * kSecond), 0.4);
    EXPECT_EQ(duckLevelAt(shape, 85 * kSecond / 10), 0.0);
    EXPECT_EQ(duckLevelAt(shape, 9 * kSecond), 0.0);
}

TEST(AudioArithmetic, OverlappingDucksTakeTheDeepestLevel) {
    std::vector<FAudioDuckInfo> records(2);
    records[0].begin = 0;
    records[0].end = 10 * kSecond;
    records[0].depth = 0.3;
    records[1].begin = 4 * kSecond;
    records[1].end = 6 * kSecond;
    records[1].depth = 0.5;
    EXPECT_EQ(duckingFactor(records, 2 * kSecond), 1.0 - 0.3);
    EXPECT_EQ(duckingFactor(records, 5 * kSecond), 1.0 - 0.5);
    EXPECT_EQ(duckingFactor(records, 11 * kSecond), 1.0);
    EXPECT_EQ(duckingFactor({}, 0), 1.0);
    EXPECT_TRUE(sameRecords(records, records));
    std::vector<FAudioDuckInfo> other = records;
    other[1].fade = 1.0;
    EXPECT_FALSE(sameRecords(records, other));
    other.pop_back();
    EXPECT_FALSE(sameRecords(records, other));
}

TEST(AudioArithmetic, TheStaticGainIsCappedAtFiftyBeforeItsSquareRoot) {
    EXPECT_EQ(staticGainFactor(12.0, 0.0, 0.0f), 1.0f);  // neither gain: the volume is in the envelope
    EXPECT_EQ(staticGainFactor(0.0, 40.0, 1.0f), std::sqrt(50.0f));
    EXPECT_NEAR(staticGainFactor(0.0, 6.0, 1.0f), std::sqrt(std::pow(10.0, 0.3)), 1e-6);
    // A loudness gain of 0.5 is -6.02 dB.
    EXPECT_NEAR(staticGainFactor(0.0, 0.0, 0.5f), std::sqrt(0.5), 1e-5);
}

TEST(AudioArithmetic, DeliveredValuesAreCappedAtOneFromAboveOnly) {
    EXPECT_EQ(thumbnailValue(1.0, 1.0f, 1.0, 0.5f), 0.5f);
    EXPECT_EQ(thumbnailValue(0.25, 1.0f, 1.0, 0.5f), 0.25f);
    EXPECT_EQ(thumbnailValue(4.0, 1.0f, 1.0, 0.9f), 1.0f);
    EXPECT_EQ(thumbnailValue(4.0, 1.0f, 1.0, -0.9f), -1.8f);
    EXPECT_EQ(thumbnailValue(1.0, 4.0f, 0.25, 0.5f), 0.5f);
    EXPECT_EQ(thumbnailValue(0.0, 1.0f, 1.0, 0.5f), 0.0f);
}

TEST(WaveWorkerQueue, OneWaveDataMessagePerClipWaitsAtATime) {
    BsWaveWorkerQueue queue;
    std::atomic<bool> stopped{false};
    queue.pushWaveData(1, 10);
    queue.pushWaveData(1, 11);  // the same clip for another queryer: not queued
    queue.pushWaveData(2, 10);
    queue.pushTaskEnd(7, 2);
    WaveMessage message;
    ASSERT_TRUE(queue.pop(std::chrono::milliseconds(0), stopped, &message));
    EXPECT_EQ(message.kind, WaveMessage::WaveData);
    EXPECT_EQ(message.first, 1);
    EXPECT_EQ(message.second, 10);
    EXPECT_FALSE(message.flag);
    ASSERT_TRUE(queue.pop(std::chrono::milliseconds(0), stopped, &message));
    EXPECT_EQ(message.first, 2);
    ASSERT_TRUE(queue.pop(std::chrono::milliseconds(0), stopped, &message));
    EXPECT_EQ(message.kind, WaveMessage::TaskEnd);
    EXPECT_EQ(message.first, 7);
    EXPECT_EQ(message.second, 2);
    EXPECT_TRUE(message.flag);
    EXPECT_FALSE(queue.pop(std::chrono::milliseconds(1), stopped, &message));
    // Once taken, the clip's data may be queued again.
    queue.pushWaveData(1, 11);
    ASSERT_TRUE(queue.pop(std::chrono::milliseconds(0), stopped, &message));
    EXPECT_EQ(message.second, 11);
}

TEST(WaveWorkerQueue, QuitDropsWhatWaitsAndLeavesOnlyQuit) {
    BsWaveWorkerQueue queue;
    std::atomic<bool> stopped{false};
    queue.pushWaveData(1, 10);
    queue.pushTaskEnd(3, 4);
    queue.quit();
    WaveMessage message;
    message.kind = WaveMessage::TaskEnd;
    ASSERT_TRUE(queue.pop(std::chrono::milliseconds(0), stopped, &message));
    EXPECT_EQ(message.kind, WaveMessage::Quit);
    EXPECT_FALSE(queue.pop(std::chrono::milliseconds(0), stopped, &message));
}

}  // namespace
}  // namespace ZOR
