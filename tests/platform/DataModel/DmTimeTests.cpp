#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

#include "DataModel/DmTime.h"

namespace ZOR::test {
namespace {

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr DmRational k25{25, 1};
constexpr DmRational kNtsc{30000, 1001};

TEST(DmTime, OneFrameAt25IsFourHundredThousandCns) {
    EXPECT_EQ(cnsTimeFromFrame(k25, 1), 400'000);
    EXPECT_EQ(cnsTimeFromFrame(k25, 0), 0);
    EXPECT_EQ(cnsTimeFromFrame(k25, 25), 10'000'000);
}

TEST(DmTime, TimesThatAreNotFrameAlignedFloorToTheirFrame) {
    EXPECT_EQ(frameFromCnsTime(k25, 399'999), 0);
    EXPECT_EQ(frameFromCnsTime(k25, 400'000), 1);
    EXPECT_EQ(frameFromCnsTime(k25, 400'001), 1);
    EXPECT_EQ(frameFromCnsTime(k25, 799'999), 1);
    // 30000/1001: frame 1 starts at 333666.66..., floored.
    EXPECT_EQ(cnsTimeFromFrame(kNtsc, 1), 333'666);
    EXPECT_EQ(frameFromCnsTime(kNtsc, 333'666), 0);
    EXPECT_EQ(frameFromCnsTime(kNtsc, 333'667), 1);
}

TEST(DmTime, NegativeTimesRoundTowardsMinusInfinity) {
    EXPECT_EQ(frameFromCnsTime(k25, -1), -1);
    EXPECT_EQ(frameFromCnsTime(k25, -400'000), -1);
    EXPECT_EQ(frameFromCnsTime(k25, -400'001), -2);
    EXPECT_EQ(cnsTimeFromFrame(k25, -1), -400'000);
    EXPECT_EQ(cnsTimeFromFrame(kNtsc, -1), -333'667);
    // Frame -1 starts at -333666.67 cns: -333666 lies in it, -333667 before it.
    EXPECT_EQ(frameFromCnsTime(kNtsc, -333'666), -1);
    EXPECT_EQ(frameFromCnsTime(kNtsc, -333'667), -2);
}

TEST(DmTime, ValuesNearInt64LimitsAreExact) {
    // floor((2^63 - 1) / 400000) and floor(-2^63 / 400000).
    EXPECT_EQ(frameFromCnsTime(k25, kMax), 23'058'430'092'136LL);
    EXPECT_EQ(frameFromCnsTime(k25, kMin), -23'058'430'092'137LL);
    // floor((2^63 - 1) x 30000 / 10010000000).
    EXPECT_EQ(frameFromCnsTime(kNtsc, kMax), 27'642'473'636'927LL);
    EXPECT_EQ(frameFromCnsTime(DmRational{kMax, 1}, 1), 922'337'203'685LL);
    // Frames whose start lies beyond int64 saturate.
    EXPECT_EQ(cnsTimeFromFrame(k25, kMax), kMax);
    EXPECT_EQ(cnsTimeFromFrame(k25, kMin), kMin);
    EXPECT_EQ(cnsTimeFromFrame(k25, 23'058'430'092'136LL), 9'223'372'036'854'400'000LL);
    EXPECT_EQ(cnsTimeFromFrame(DmRational{1, kMax}, 1), kMax);
}

TEST(DmTime, RoundTripsFrameToTimeToFrameWhereFramesLastWholeCns) {
    // Rates whose frames last a whole number of cns round-trip exactly.
    const std::vector<DmRational> rates{{25, 1}, {50, 1}, {1, 1}, {40, 1}, {50, 2}};
    const std::vector<int64_t> frames{
        0, 1, 2, 7, 24, 25, 1001, 999'999, -1, -2, -1001, 1'000'000'007LL, -1'000'000'007LL};
    for (const DmRational& rate : rates)
        for (int64_t frame : frames)
            EXPECT_EQ(frameFromCnsTime(rate, cnsTimeFromFrame(rate, frame)), frame)
                << rate.num << "/" << rate.den << " frame " << frame;
}

TEST(DmTime, RoundTripsTimeToFrameToTimeWithinTheFrame) {
    // Both directions floor, so with fractional frame durations a frame's
    // floored start may itself lie in the frame before; every time still lies
    // between the starts of its frame and of the next.
    const std::vector<DmRational> rates{{25, 1}, {30000, 1001}, {24000, 1001}, {60, 1}, {48000, 1}};
    const std::vector<int64_t> times{0,
                                     1,
                                     333'666,
                                     333'667,
                                     399'999,
                                     400'000,
                                     10'000'000,
                                     123'456'789,
                                     -1,
                                     -333'667,
                                     -400'001,
                                     8'640'000'000'000LL,
                                     -8'640'000'000'001LL};
    for (const DmRational& rate : rates)
        for (int64_t t : times) {
            const int64_t frame = frameFromCnsTime(rate, t);
            EXPECT_LE(cnsTimeFromFrame(rate, frame), t) << rate.num << "/" << rate.den << " t " << t;
            EXPECT_GE(cnsTimeFromFrame(rate, frame + 1), t) << rate.num << "/" << rate.den << " t " << t;
        }
    for (int64_t frame = -50; frame <= 50; ++frame)
        EXPECT_EQ(cnsTimeFromFrame(k25, frameFromCnsTime(k25, frame * 400'000)), frame * 400'000);
}

TEST(DmTime, InvalidRateGivesZero) {
    EXPECT_EQ(frameFromCnsTime(DmRational{0, 1}, 400'000), 0);
    EXPECT_EQ(frameFromCnsTime(DmRational{25, 0}, 400'000), 0);
    EXPECT_EQ(cnsTimeFromFrame(DmRational{-25, 1}, 3), 0);
}

}  // namespace
}  // namespace ZOR::test
