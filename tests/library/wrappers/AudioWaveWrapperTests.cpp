#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CapturingLogger.h"
#include "ExtractRecorders.h"
#include "ExtractWrapperFixture.h"
#include "FakeDataModel.h"
#include "Miravel/Miravel.h"
#include "ScriptedTaskService.h"

namespace ZOR::test {
namespace {

// 400,000 cns is one frame at 25/1.
constexpr int64_t kFrame = 400'000;

class AudioWaveWrapper
    : public ExtractWrapperFixture<IBsAudioWaveExtractWrapper, WaveRecorder, &createBsAudioWaveExtractWrapper,
                                   &lastAudioTask, &FakeClip::audio> {
protected:
    int64_t query(int64_t begin, int64_t end, int32_t samples) {
        int64_t token = -1;
        EXPECT_EQ(wrapper_->queryAudioWave(clip_.get(), begin, end, samples, 0, &token), 0);
        return token;
    }
};

TEST_F(AudioWaveWrapper, FactoryResultHasCountOneAndAnswersItsNames) {
    EXPECT_EQ(wrapper_->refCount(), 1);
    EXPECT_EQ(wrapper_->queryInterface("IBsAudioWaveExtractWrapper"), static_cast<void*>(wrapper_.get()));
    EXPECT_EQ(wrapper_->queryInterface("IDmBaseObj"), static_cast<void*>(wrapper_.get()));
    EXPECT_EQ(wrapper_->queryInterface("RefCnt"), nullptr);
    EXPECT_EQ(wrapper_->queryInterface("IBsVideoFrameExtractWrapper"), nullptr);
}

TEST_F(AudioWaveWrapper, ConstructionRegistersWithTaskAndInitializesItOnce) {
    EXPECT_EQ(task_->callbackCount(), 1u);
    EXPECT_EQ(task_->initializeCount(), 1);
    EXPECT_EQ(task_->startCount(), 0);
}

TEST_F(AudioWaveWrapper, QueryBuildsRecordAtTwentyFivePerSecondAndStartsTaskOnce) {
    task_->setNextToken(41);
    int64_t token = -1;
    EXPECT_EQ(wrapper_->queryAudioWave(clip_.get(), 3 * kFrame + 5, 103 * kFrame, 10, 77, &token), 0);
    EXPECT_EQ(token, 41);
    query(0, kFrame, 1);
    EXPECT_EQ(task_->startCount(), 1);  // started once, then isStarted answers 1
    const auto appends = task_->appends();
    ASSERT_EQ(appends.size(), 2u);
    const BsWaveTaskRecord& record = appends[0].record;
    EXPECT_EQ(record.option, 77u);
    EXPECT_EQ(record.clip, static_cast<IDmClip*>(clip_.get()));
    EXPECT_EQ(record.rateNum, 25);
    EXPECT_EQ(record.rateDen, 1);
    EXPECT_EQ(record.beginFrame, 3);
    EXPECT_EQ(record.endFrame, 103);
    EXPECT_EQ(record.frameStep, 10);  // 100 frames for 10 samples
}

TEST_F(AudioWaveWrapper, RangeShorterThanOrEqualToSamplesGivesFrameStepOne) {
    query(0, 10 * kFrame, 10);  // equal
    query(0, 10 * kFrame, 25);  // shorter
    query(0, 11 * kFrame, 10);  // longer: 11 / 10 truncates to 1 as well
    query(0, 25 * kFrame, 10);  // 25 / 10 = 2
    const auto appends = task_->appends();
    ASSERT_EQ(appends.size(), 4u);
    EXPECT_EQ(appends[0].record.frameStep, 1);
    EXPECT_EQ(appends[1].record.frameStep, 1);
    EXPECT_EQ(appends[2].record.frameStep, 1);
    EXPECT_EQ(appends[3].record.frameStep, 2);
}

TEST_F(AudioWaveWrapper, FinishedRequestDeliversValuesOfEveryStepFrame) {
    clip_->setPerFrame(3);
    const int64_t token = query(2 * kFrame, 8 * kFrame, 3);  // frames 2..8, step 2
    task_->deliver(token, 2);
    const auto calls = recorder_.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].token, token);
    EXPECT_EQ(calls[0].status, 2);
    EXPECT_EQ(calls[0].count, 9);  // frames 2, 4, 6 x 3 values
    EXPECT_EQ(calls[0].span, 18);  // (8 - 2) x 3
    const std::vector<float> expected{2.0f, 2.001f, 2.002f, 4.0f, 4.001f, 4.002f, 6.0f, 6.001f, 6.002f};
    EXPECT_EQ(calls[0].values, expected);
    EXPECT_EQ(clip_->filledFrames(), std::vector<std::vector<int64_t>>({{2, 4, 6}}));
}

// A service may finish a request before append() has returned (an empty
// range, everything held): the report is kept until the entry is stored, and
// then handled; a report of a token nobody appended is still dropped.
TEST_F(AudioWaveWrapper, AReportMadeBeforeTheAppendReturnedIsNotLost) {
    clip_->setPerFrame(2);
    task_->setAppendHook([this](int64_t token) {
        task_->deliver(token + 100, 2);  // no such request
        task_->deliver(token, 2);
    });
    const int64_t token = query(0, 2 * kFrame, 2);
    task_->setAppendHook(nullptr);
    const auto calls = recorder_.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].token, token);
    EXPECT_EQ(calls[0].status, 2);
    EXPECT_EQ(calls[0].count, 4);
    task_->deliver(token, 2);  // once only
    task_->deliver(token + 100, 2);
    EXPECT_EQ(recorder_.calls().size(), 1u);
}

TEST_F(AudioWaveWrapper, StatusFiveOrZeroLeavesEntryAndCallsNoCallback) {
    const int64_t token = query(0, 4 * kFrame, 4);
    task_->deliver(token, 5);
    task_->deliver(token, 0);
    task_->deliver(token, 1);
    EXPECT_TRUE(recorder_.calls().empty());
    task_->deliver(token, 2);  // still pending
    ASSERT_EQ(recorder_.calls().size(), 1u);
    EXPECT_EQ(recorder_.calls()[0].status, 2);
}

TEST_F(AudioWaveWrapper, SecondStatusTwoForSameTokenIsIgnored) {
    const int64_t token = query(0, 4 * kFrame, 4);
    task_->deliver(token, 2);
    task_->deliver(token, 2);
    EXPECT_EQ(recorder_.calls().size(), 1u);
    EXPECT_EQ(clip_->filledFrames().size(), 1u);
}

TEST_F(AudioWaveWrapper, StatusThreeAndFourAreForwardedWithoutData) {
    const int64_t first = query(0, 4 * kFrame, 4);
    const int64_t second = query(0, 4 * kFrame, 4);
    task_->deliver(first, 3);
    task_->deliver(second, 4);
    const auto calls = recorder_.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].token, first);
    EXPECT_EQ(calls[0].status, 3);
    EXPECT_FALSE(calls[0].hasData);
    EXPECT_EQ(calls[0].count, 0);
    EXPECT_EQ(calls[0].span, 0);
    EXPECT_EQ(calls[1].token, second);
    EXPECT_EQ(calls[1].status, 4);
    EXPECT_TRUE(clip_->filledFrames().empty());
}

TEST_F(AudioWaveWrapper, CancelAllLeavesMapAndLaterStatusesStillReachCallbacks) {
    task_->setNextToken(7);
    const int64_t a = query(0, 4 * kFrame, 4);
    const int64_t b = query(0, 4 * kFrame, 4);
    const int64_t c = query(0, 4 * kFrame, 4);
    EXPECT_EQ(wrapper_->cancelQuery(-1), 0);
    EXPECT_EQ(task_->cancels(), std::vector<int64_t>({a, b, c}));
    task_->deliver(b, 4);
    task_->deliver(a, 2);
    task_->deliver(c, 4);
    const auto calls = recorder_.calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].token, b);
    EXPECT_EQ(calls[1].token, a);
    EXPECT_EQ(calls[1].status, 2);
    EXPECT_EQ(calls[2].token, c);
}

TEST_F(AudioWaveWrapper, CancelOfOneTokenCancelsOnTaskAndForgetsIt) {
    const int64_t token = query(0, 4 * kFrame, 4);
    EXPECT_EQ(wrapper_->cancelQuery(token), 0);
    EXPECT_EQ(task_->cancels(), std::vector<int64_t>({token}));
    task_->deliver(token, 4);
    EXPECT_TRUE(recorder_.calls().empty());
    EXPECT_EQ(wrapper_->cancelQuery(12345), 0);  // unknown: passed on, nothing else
}

TEST_F(AudioWaveWrapper, CancelOfClipCancelsItsTokensInOrderAndKeepsEntries) {
    auto other = FakeClip::audio();
    const int64_t a = query(0, 4 * kFrame, 4);
    int64_t b = -1;
    wrapper_->queryAudioWave(other.get(), 0, 4 * kFrame, 4, 0, &b);
    const int64_t c = query(0, 4 * kFrame, 4);
    EXPECT_EQ(wrapper_->cancelQueryOfClip(clip_.get()), 0);
    EXPECT_EQ(task_->cancels(), std::vector<int64_t>({a, c}));
    task_->deliver(c, 4);
    ASSERT_EQ(recorder_.calls().size(), 1u);
    EXPECT_EQ(recorder_.calls()[0].token, c);
    task_->deliver(b, 4);
}

TEST_F(AudioWaveWrapper, AfterStatusSevenOldTokenIsUnknownAndNewOneIsPending) {
    task_->setNextToken(100);
    const int64_t old = query(kFrame, 9 * kFrame, 2);
    task_->deliver(old, 7);
    const auto appends = task_->appends();
    ASSERT_EQ(appends.size(), 2u);
    const int64_t renewed = appends[1].token;
    EXPECT_EQ(renewed, 101);
    EXPECT_EQ(appends[1].record.beginFrame, 1);  // the stored record, submitted again
    EXPECT_EQ(appends[1].record.endFrame, 9);
    EXPECT_EQ(appends[1].record.frameStep, 4);
    auto calls = recorder_.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].token, renewed);  // told only the new token
    EXPECT_EQ(calls[0].status, 7);

    task_->deliver(old, 2);
    EXPECT_EQ(recorder_.calls().size(), 1u);
    task_->deliver(renewed, 2);
    calls = recorder_.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].token, renewed);
    EXPECT_EQ(calls[1].status, 2);
}

TEST_F(AudioWaveWrapper, WithNoCallbacksFinishedRequestStillComputesAndRemovesEntry) {
    wrapper_->removeCallBack(&recorder_);
    const int64_t token = query(0, 4 * kFrame, 4);
    task_->deliver(token, 2);
    EXPECT_EQ(clip_->filledFrames().size(), 1u);
    wrapper_->addCallBack(&recorder_);
    task_->deliver(token, 2);  // the entry is gone
    EXPECT_TRUE(recorder_.calls().empty());
    EXPECT_EQ(clip_->filledFrames().size(), 1u);
}

TEST_F(AudioWaveWrapper, FailingCountOrFillDropsRequestSilently) {
    clip_->setCountResult(1001);
    const int64_t first = query(0, 4 * kFrame, 4);
    task_->deliver(first, 2);
    clip_->setCountResult(0);
    clip_->setFillResult(1001);
    const int64_t second = query(0, 4 * kFrame, 4);
    task_->deliver(second, 2);
    EXPECT_TRUE(recorder_.calls().empty());
    clip_->setFillResult(0);
    task_->deliver(second, 2);  // entry already gone
    EXPECT_TRUE(recorder_.calls().empty());
}

TEST_F(AudioWaveWrapper, PauseAndResumeReturnTheTaskAnswersAndLog) {
    ScopedCapture capture;
    task_->setPauseResult(5);
    task_->setResumeResult(6);
    EXPECT_EQ(wrapper_->pauseQuery(), 5);
    EXPECT_EQ(wrapper_->resumeQuery(), 6);
    EXPECT_EQ(task_->pauseCount(), 1);
    EXPECT_EQ(task_->resumeCount(), 1);
    const auto lines = capture.sink().lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "pauseQuery");
    EXPECT_EQ(lines[0].severity, 1);
    EXPECT_EQ(lines[0].function, "ZOR::BsAudioWaveExtractWrapper::pauseQuery");
    EXPECT_EQ(lines[1].text, "resumeQuery");
    EXPECT_EQ(lines[1].function, "ZOR::BsAudioWaveExtractWrapper::resumeQuery");
}

TEST_F(AudioWaveWrapper, QueryAndReportWriteTheirLinesExactly) {
    ScopedCapture capture;
    task_->setNextToken(9);
    clip_->setPerFrame(2);
    int64_t token = -1;
    wrapper_->queryAudioWave(clip_.get(), 0, 2 * kFrame, 8, 0, &token);
    wrapper_->cancelQuery(555);
    task_->deliver(token, 2);
    const std::string clipId = std::to_string(reinterpret_cast<uintptr_t>(static_cast<IDmClip*>(clip_.get())));
    const auto lines = capture.sink().lines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0].text, "query wav clip id " + clipId + " type:2 [0 800000] samples:8");
    EXPECT_EQ(lines[0].severity, 4);
    EXPECT_EQ(lines[0].function, "ZOR::BsAudioWaveExtractWrapper::queryAudioWave");
    EXPECT_EQ(lines[0].file, "modules/BaseService/Miravel/BsAudioWaveExtractWrapper");
    EXPECT_EQ(lines[1].text, "append token:9");
    EXPECT_EQ(lines[1].severity, 1);
    EXPECT_EQ(lines[2].text, "cancelQuery token:555");
    EXPECT_EQ(lines[2].severity, 1);
    EXPECT_EQ(lines[2].function, "ZOR::BsAudioWaveExtractWrapper::cancelQuery");
    EXPECT_EQ(lines[3].text, "status 2 token:9");
    EXPECT_EQ(lines[3].severity, 4);
    EXPECT_EQ(lines[3].function, "ZOR::BsAudioWaveExtractWrapper::processChanged");
    EXPECT_EQ(lines[4].text, "finsh wav clip id " + clipId + " finish 0 800000 samples:8");
    EXPECT_EQ(lines[4].severity, 4);
}

TEST_F(AudioWaveWrapper, UnknownTokenIsIgnoredAfterItsStatusLine) {
    ScopedCapture capture;
    task_->deliver(999, 2);
    EXPECT_TRUE(recorder_.calls().empty());
    EXPECT_EQ(capture.sink().texts(), std::vector<std::string>({"status 2 token:999"}));
}

TEST_F(AudioWaveWrapper, ReportsOnAnotherThreadReachCallbacks) {
    const int64_t token = query(0, 4 * kFrame, 4);
    std::thread reporter([&] { task_->deliver(token, 2); });
    reporter.join();
    ASSERT_EQ(recorder_.calls().size(), 1u);
    EXPECT_EQ(recorder_.calls()[0].count, 16);
}

TEST_F(AudioWaveWrapper, NullClipIsSubmittedAndItsReportDeliversNothing) {
    int64_t token = -1;
    EXPECT_EQ(wrapper_->queryAudioWave(nullptr, 0, 4 * kFrame, 4, 0, &token), 0);
    ASSERT_EQ(task_->appends().size(), 1u);
    EXPECT_EQ(task_->appends()[0].record.clip, nullptr);
    task_->deliver(token, 2);
    EXPECT_TRUE(recorder_.calls().empty());
    task_->deliver(token, 4);  // already gone
    EXPECT_TRUE(recorder_.calls().empty());
}

TEST_F(AudioWaveWrapper, ZeroSamplesForNonEmptyRangeIsRejected) {
    int64_t token = -1;
    EXPECT_EQ(wrapper_->queryAudioWave(clip_.get(), 0, 4 * kFrame, 0, 0, &token), 1001);
    EXPECT_EQ(wrapper_->queryAudioWave(clip_.get(), 0, 4 * kFrame, -3, 0, &token), 1001);
    EXPECT_TRUE(task_->appends().empty());
    EXPECT_EQ(wrapper_->queryAudioWave(clip_.get(), 0, 0, 0, 0, &token), 0);  // empty range: step 1
}

TEST_F(AudioWaveWrapper, FailedAppendIsReturnedAsItIs) {
    task_->setAppendResult(1001);
    int64_t token = -1;
    EXPECT_EQ(wrapper_->queryAudioWave(clip_.get(), 0, 4 * kFrame, 4, 0, &token), 1001);
}

TEST_F(AudioWaveWrapper, DestructionReleasesPendingClipsAndTheTask) {
    const int32_t before = clip_->refCount();
    query(0, 4 * kFrame, 4);
    query(0, 8 * kFrame, 4);
    EXPECT_EQ(clip_->refCount(), before + 2);
    EXPECT_EQ(wrapper_.detach()->Release(), 0);
    EXPECT_EQ(clip_->refCount(), before);
    EXPECT_FALSE(task_->alive());
}

}  // namespace
}  // namespace ZOR::test
