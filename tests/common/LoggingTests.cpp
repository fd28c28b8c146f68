#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "CapturingLogger.h"
#include "Common/ZorInternalComUtility.h"

ZOR_LOG_SOURCE("modules/BaseService/Miravel/BsAudioWaveExtractWrapper")

namespace ZOR::test {
namespace {

std::atomic<int64_t> gFakeNowNs{0};
std::atomic<int> gClockReads{0};
int64_t fakeNow() {
    gClockReads.fetch_add(1);
    return gFakeNowNs.load();
}

// Replaces the steady clock for the duration of a test.
class FakeClock {
public:
    FakeClock() {
        gFakeNowNs = 0;
        gClockReads = 0;
        previous_ = setSteadyClockForTesting(&fakeNow);
    }
    ~FakeClock() { setSteadyClockForTesting(previous_); }
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;
    void set(int64_t ns) { gFakeNowNs = ns; }

private:
    SteadyClockFn previous_;
};

int gEvaluations = 0;
long long countedArgument() {
    ++gEvaluations;
    return 42;
}

TEST(LogLine, CapturedLineHasExactTextSeverityFunctionFileAndEmptyTag) {
    ScopedCapture capture;
    const int line = __LINE__ + 1;
    ZOR_LOG(4, "ZOR::BsAudioWaveExtractWrapper::queryAudioWave", "append token:%lld", 17LL);
    const auto lines = capture.sink().lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "append token:17");
    EXPECT_EQ(lines[0].severity, IBsLogger::Info);
    EXPECT_EQ(lines[0].function, "ZOR::BsAudioWaveExtractWrapper::queryAudioWave");
    EXPECT_EQ(lines[0].file, "modules/BaseService/Miravel/BsAudioWaveExtractWrapper");
    EXPECT_EQ(lines[0].line, line);
    EXPECT_EQ(lines[0].tag, "");
}

TEST(LogLine, StreamedLineAppendsStringStreamText) {
    ScopedCapture capture;
    ZOR_LOG_STREAM(4, "ZOR::BsThumbManager::clearCache", "isCaching: " << std::boolalpha << true);
    ASSERT_EQ(capture.sink().texts(), std::vector<std::string>({"isCaching: true"}));
}

TEST(LogLine, NothingWrittenAndNoArgumentEvaluatedWhenSeverityOff) {
    ScopedCapture capture(IBsLogger::Warning);
    gEvaluations = 0;
    ZOR_LOG(4, "ZOR::A::b", "value %lld", countedArgument());
    ZOR_LOG_STREAM(1, "ZOR::A::b", "value " << countedArgument());
    EXPECT_EQ(gEvaluations, 0);
    EXPECT_TRUE(capture.sink().lines().empty());
    ZOR_LOG(6, "ZOR::A::b", "value %lld", countedArgument());
    EXPECT_EQ(gEvaluations, 1);
    EXPECT_EQ(capture.sink().texts(), std::vector<std::string>({"value 42"}));
}

TEST(LogLine, NothingWrittenAndNoArgumentEvaluatedWithoutLogger) {
    shutdownLogging();
    ASSERT_EQ(loggerWrapper(0), nullptr);
    gEvaluations = 0;
    ZOR_LOG(6, "ZOR::A::b", "value %lld", countedArgument());
    ZOR_LOG_STREAM(6, "ZOR::A::b", "value " << countedArgument());
    EXPECT_EQ(gEvaluations, 0);
}

TEST(ScopeTimeSpan, LineHasPerformanceTagFixedFileLineAndFunction) {
    FakeClock clock;
    ScopedCapture capture;
    {
        ScopeTimeSpan span("load", true, 0, IBsLogger::Timing);
        clock.set(12'000'000);
    }
    const auto lines = capture.sink().lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "load cost 12 milliSecond.");
    EXPECT_EQ(lines[0].severity, IBsLogger::Timing);
    EXPECT_EQ(lines[0].tag, "performance");
    EXPECT_EQ(lines[0].file, "Include/Common/ZorInternalComUtility");
    EXPECT_EQ(lines[0].line, 56);
    EXPECT_EQ(lines[0].function, "ZOR::ScopeTimeSpan::~ScopeTimeSpan");
}

TEST(ScopeTimeSpan, EmptyNameGivesCostWithoutBlank) {
    FakeClock clock;
    ScopedCapture capture;
    {
        ScopeTimeSpan span("", true, 0, IBsLogger::Warning);
        clock.set(12'500'000);
    }
    EXPECT_EQ(capture.sink().texts(), std::vector<std::string>({"Cost12 milliSecond."}));
}

TEST(ScopeTimeSpan, ZeroThresholdLogsEveryTimedScope) {
    FakeClock clock;
    ScopedCapture capture;
    { ScopeTimeSpan span("ZOR::BsAudioThumbnailBuilder::queryAudioThumbnailData[293]", true, 0, IBsLogger::Timing); }
    EXPECT_EQ(
        capture.sink().texts(),
        std::vector<std::string>({"ZOR::BsAudioThumbnailBuilder::queryAudioThumbnailData[293] cost 0 milliSecond."}));
}

TEST(ScopeTimeSpan, ScopeOfExactlyThresholdWritesItsLine) {
    FakeClock clock;
    ScopedCapture capture;
    {
        ScopeTimeSpan span("gen", true, 30, IBsLogger::Warning);
        clock.set(30'000'000);
    }
    EXPECT_EQ(capture.sink().texts(), std::vector<std::string>({"gen cost 30 milliSecond."}));
}

TEST(ScopeTimeSpan, ScopeOneMillisecondBelowThresholdWritesNothing) {
    FakeClock clock;
    ScopedCapture capture;
    {
        ScopeTimeSpan span("gen", true, 30, IBsLogger::Warning);
        clock.set(29'999'999);  // 29 whole milliseconds
    }
    EXPECT_TRUE(capture.sink().lines().empty());
    EXPECT_EQ(gClockReads.load(), 2);  // it did time the scope
}

TEST(ScopeTimeSpan, NoLoggerWritesNothingAndStartsNoTimer) {
    FakeClock clock;
    shutdownLogging();
    {
        ScopeTimeSpan span("load", true, 0, IBsLogger::Timing);
        EXPECT_FALSE(span.active());
        clock.set(5'000'000);
    }
    EXPECT_EQ(gClockReads.load(), 0);
}

TEST(ScopeTimeSpan, DisabledTimerWritesNothingAndStartsNoTimer) {
    FakeClock clock;
    ScopedCapture capture;
    {
        ScopeTimeSpan span("load", false, 0, IBsLogger::Timing);
        EXPECT_FALSE(span.active());
    }
    EXPECT_EQ(gClockReads.load(), 0);
    EXPECT_TRUE(capture.sink().lines().empty());
}

TEST(ScopeTimeSpan, SeverityDisabledAtConstructionStaysInactiveWhenEnabledBeforeScopeEnds) {
    FakeClock clock;
    ScopedCapture capture(IBsLogger::Warning);
    {
        ScopeTimeSpan span("load", true, 0, IBsLogger::Timing);
        EXPECT_FALSE(span.active());
        capture.wrapper().setThreshold(IBsLogger::Verbose);
        clock.set(40'000'000);
    }
    EXPECT_EQ(gClockReads.load(), 0);
    EXPECT_TRUE(capture.sink().lines().empty());
}

TEST(ScopeTimeSpan, SeverityDisabledBeforeScopeEndsWritesNothing) {
    FakeClock clock;
    ScopedCapture capture;
    {
        ScopeTimeSpan span("load", true, 0, IBsLogger::Timing);
        EXPECT_TRUE(span.active());
        capture.wrapper().setThreshold(IBsLogger::Error);
    }
    EXPECT_TRUE(capture.sink().lines().empty());
}

}  // namespace
}  // namespace ZOR::test
