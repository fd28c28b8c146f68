#include <atomic>
#include <chrono>
#include <cstdint>

#include <gtest/gtest.h>

#include "ZorUtils/ZorUtils.h"

namespace {

std::atomic<int64_t> g_fakeNowNs{0};

int64_t fakeNowNs() { return g_fakeNowNs.load(); }

// Installs the fake clock for one test and puts back whatever was there.
class FakeClock {
public:
    explicit FakeClock(int64_t startNs) : previous_(ZOR::setSteadyClockForTesting(&fakeNowNs)) {
        g_fakeNowNs.store(startNs);
    }
    ~FakeClock() { ZOR::setSteadyClockForTesting(previous_); }
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;
    void set(int64_t ns) { g_fakeNowNs.store(ns); }

private:
    ZOR::SteadyClockFn previous_;
};

}  // namespace

TEST(ZorTimeSpan, TruncatesToWholeMillisecondsWithReplacedClock) {
    FakeClock clock(0);
    ZOR::TimeSpan span;
    span.start();
    clock.set(12'999'999);
    span.end();
    EXPECT_EQ(span.timeSpan(), 12);
}

TEST(ZorTimeSpan, IsZeroUntilBothMarksAreSet) {
    FakeClock clock(5'000'000);
    ZOR::TimeSpan span;
    EXPECT_EQ(span.timeSpan(), 0);
    clock.set(50'000'000);
    span.end();
    EXPECT_EQ(span.timeSpan(), 0);

    ZOR::TimeSpan other;
    clock.set(7'000'000);
    other.start();
    EXPECT_EQ(other.timeSpan(), 0);
    clock.set(10'000'000);
    EXPECT_EQ(other.end().timeSpan(), 3);
}

TEST(ZorTimeSpan, SettingTheClockReturnsThePreviousReplacementAndNullRestores) {
    const ZOR::SteadyClockFn original = ZOR::setSteadyClockForTesting(&fakeNowNs);
    EXPECT_EQ(original, nullptr);
    g_fakeNowNs.store(42);
    EXPECT_EQ(ZOR::zorSteadyNowNs(), 42);
    EXPECT_EQ(ZOR::setSteadyClockForTesting(nullptr), &fakeNowNs);

    // Back on the steady clock: readings follow it and never go backwards.
    const int64_t before =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count();
    const int64_t first = ZOR::zorSteadyNowNs();
    const int64_t second = ZOR::zorSteadyNowNs();
    EXPECT_GE(first, before);
    EXPECT_GE(second, first);
}

TEST(ZorSleep, WaitsAtLeastTheRequestedTime) {
    const auto before = std::chrono::steady_clock::now();
    ZOR::ZorSleep(20);
    EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(20));
}

TEST(ZorSleep, ReturnsAtOnceForZeroAndNegative) {
    const auto before = std::chrono::steady_clock::now();
    ZOR::ZorSleep(0);
    ZOR::ZorSleep(-1000);
    EXPECT_LT(std::chrono::steady_clock::now() - before,
              std::chrono::seconds(5));  // a guard against a negative time read as a long sleep
}

TEST(ZorProperty, BoolPropertyHasBoolKindAndZeroOrOne) {
    const ZOR::ZorProperty yes = ZOR::boolProperty(true);
    EXPECT_EQ(yes.kind, ZOR::ZorProperty::Bool);
    EXPECT_EQ(yes.intValue, 1);
    EXPECT_EQ(yes.doubleValue, 0.0);
    EXPECT_TRUE(yes.boolValue());

    const ZOR::ZorProperty no = ZOR::boolProperty(false);
    EXPECT_EQ(no.kind, ZOR::ZorProperty::Bool);
    EXPECT_EQ(no.intValue, 0);
    EXPECT_FALSE(no.boolValue());
}
