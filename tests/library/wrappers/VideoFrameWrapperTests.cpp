#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "CapturingLogger.h"
#include "ExtractRecorders.h"
#include "ExtractWrapperFixture.h"
#include "FakeDataModel.h"
#include "Miravel/Miravel.h"
#include "ScriptedTaskService.h"

namespace ZOR::test {
namespace {

class VideoFrameWrapper
    : public ExtractWrapperFixture<IBsVideoFrameExtractWrapper, FrameRecorder, &createBsVideoFrameExtractWrapper,
                                   &lastVideoTask, &FakeClip::video> {
protected:
    int64_t query(IDmClip* clip, std::vector<int64_t> times, uint32_t flags = 0) {
        int64_t token = -1;
        EXPECT_EQ(
            wrapper_->queryVideoFrame(clip, 160, 90, times.data(), static_cast<uint32_t>(times.size()), flags, &token),
            0);
        return token;
    }
};

TEST_F(VideoFrameWrapper, FactoryResultHasCountOneAndAnswersItsNames) {
    EXPECT_EQ(wrapper_->refCount(), 1);
    EXPECT_EQ(wrapper_->queryInterface("IBsVideoFrameExtractWrapper"), static_cast<void*>(wrapper_.get()));
    EXPECT_EQ(wrapper_->queryInterface("IDmBaseObj"), static_cast<void*>(wrapper_.get()));
    EXPECT_EQ(wrapper_->queryInterface("IBsAudioWaveExtractWrapper"), nullptr);
    EXPECT_EQ(task_->initializeCount(), 1);
    EXPECT_EQ(task_->callbackCount(), 1u);
}

TEST_F(VideoFrameWrapper, QueryPassesClipTimesSizeAndFlagsToTheTask) {
    task_->setNextToken(5);
    const int64_t token = query(clip_.get(), {30'000'000, 0, 12'345}, 1);
    EXPECT_EQ(token, 5);
    EXPECT_EQ(task_->startCount(), 1);
    const auto appends = task_->appends();
    ASSERT_EQ(appends.size(), 1u);
    EXPECT_EQ(appends[0].clip, static_cast<IDmBaseObj*>(static_cast<IDmClip*>(clip_.get())));
    EXPECT_EQ(appends[0].times, std::vector<int64_t>({30'000'000, 0, 12'345}));
    EXPECT_EQ(appends[0].width, 160);
    EXPECT_EQ(appends[0].height, 90);
    EXPECT_EQ(appends[0].flags, 1u);
}

TEST_F(VideoFrameWrapper, FinishedRequestDeliversOneSlotPerRequestedTime) {
    const int64_t token = query(clip_.get(), {800'000, 0});
    task_->deliver(token, 2);
    const auto calls = recorder_.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].token, token);
    EXPECT_EQ(calls[0].status, 2);
    EXPECT_EQ(calls[0].count, 2);
    EXPECT_EQ(calls[0].times, std::vector<int64_t>({800'000, 0}));
    EXPECT_EQ(calls[0].files, std::vector<std::string>({"frame-800000.png", "frame-0.png"}));
    EXPECT_EQ(clip_->preparedFrames(), std::vector<std::vector<int32_t>>({{160, 90, 25, 1}}));
}

// Frames all on disk: the service may report before append() has returned.
TEST_F(VideoFrameWrapper, AReportMadeBeforeTheAppendReturnedIsNotLost) {
    task_->setAppendHook([this](int64_t token) {
        task_->deliver(token, 1);
        task_->deliver(token, 2);
    });
    const int64_t token = query(clip_.get(), {800'000, 0});
    task_->setAppendHook(nullptr);
    const auto calls = recorder_.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].token, token);
    EXPECT_EQ(calls[0].status, 2);
    EXPECT_EQ(calls[0].times, std::vector<int64_t>({800'000, 0}));
}

TEST_F(VideoFrameWrapper, StatusOneWritesNoLineAndStatusZeroOrFiveWriteOneAndNothingElse) {
    const int64_t token = query(clip_.get(), {0});
    ScopedCapture capture;
    task_->deliver(token, 1);
    EXPECT_TRUE(capture.sink().lines().empty());
    task_->deliver(token, 0);
    task_->deliver(token, 5);
    const auto lines = capture.sink().lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "status 0 token:" + std::to_string(token));
    EXPECT_EQ(lines[0].severity, 4);
    EXPECT_EQ(lines[0].function, "ZOR::BsVideoFrameExtractWrapper::processChanged");
    EXPECT_EQ(lines[0].file, "modules/BaseService/Miravel/BsVideoFrameExtractWrapper");
    EXPECT_EQ(lines[1].text, "status 5 token:" + std::to_string(token));
    EXPECT_TRUE(recorder_.calls().empty());
    task_->deliver(token, 2);  // still pending
    EXPECT_EQ(recorder_.calls().size(), 1u);
}

TEST_F(VideoFrameWrapper, RequestWithZeroTimesCompletesWithCountZero) {
    const int64_t token = query(clip_.get(), {});
    task_->deliver(token, 2);
    const auto calls = recorder_.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].status, 2);
    EXPECT_EQ(calls[0].count, 0);
}

TEST_F(VideoFrameWrapper, FinishedRequestWhoseClipHasNoVideoFeatureCallsNoCallbackAndLeavesNoEntry) {
    auto plain = FakeClip::plain();
    const int64_t token = query(plain.get(), {0, 400'000});
    ScopedCapture capture;
    task_->deliver(token, 2);
    EXPECT_TRUE(recorder_.calls().empty());
    const std::string clipId = std::to_string(reinterpret_cast<uintptr_t>(static_cast<IDmClip*>(plain.get())));
    const auto lines = capture.sink().lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].text, "can not find videoFeature " + clipId);
    EXPECT_EQ(lines[1].severity, 6);
    capture.sink().clear();
    task_->deliver(token, 4);  // the entry is gone
    EXPECT_EQ(capture.sink().texts(), std::vector<std::string>({"status 4 token:" + std::to_string(token),
                                                                "can not find token " + std::to_string(token)}));
    EXPECT_TRUE(recorder_.calls().empty());
}

TEST_F(VideoFrameWrapper, UnknownTokenLogsCanNotFindToken) {
    ScopedCapture capture;
    task_->deliver(4242, 3);
    const auto lines = capture.sink().lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[1].text, "can not find token 4242");
    EXPECT_EQ(lines[1].severity, 6);
    EXPECT_TRUE(recorder_.calls().empty());
}

TEST_F(VideoFrameWrapper, StatusThreeAndFourAreForwardedWithoutFrames) {
    const int64_t first = query(clip_.get(), {0});
    const int64_t second = query(clip_.get(), {0});
    task_->deliver(first, 3);
    task_->deliver(second, 4);
    const auto calls = recorder_.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].status, 3);
    EXPECT_FALSE(calls[0].hasFrames);
    EXPECT_EQ(calls[0].count, 0);
    EXPECT_EQ(calls[1].status, 4);
}

TEST_F(VideoFrameWrapper, StatusSevenResubmitsStoredTimesUnderNewToken) {
    task_->setNextToken(20);
    const int64_t old = query(clip_.get(), {400'000, 800'000}, 1);
    task_->deliver(old, 7);
    const auto appends = task_->appends();
    ASSERT_EQ(appends.size(), 2u);
    EXPECT_EQ(appends[1].token, 21);
    EXPECT_EQ(appends[1].times, std::vector<int64_t>({400'000, 800'000}));
    EXPECT_EQ(appends[1].width, 160);
    EXPECT_EQ(appends[1].height, 90);
    auto calls = recorder_.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].token, 21);
    EXPECT_EQ(calls[0].status, 7);
    task_->deliver(21, 2);
    calls = recorder_.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].files, std::vector<std::string>({"frame-400000.png", "frame-800000.png"}));
}

TEST_F(VideoFrameWrapper, PauseAndResumeReturnZeroWhateverTheTaskAnswers) {
    task_->setPauseResult(1001);
    task_->setResumeResult(1001);
    ScopedCapture capture;
    EXPECT_EQ(wrapper_->pauseQuery(), 0);
    EXPECT_EQ(wrapper_->resumeQuery(), 0);
    EXPECT_EQ(task_->pauseCount(), 1);
    EXPECT_EQ(task_->resumeCount(), 1);
    EXPECT_TRUE(capture.sink().lines().empty());  // no lines outside processChanged
}

TEST_F(VideoFrameWrapper, CancelOfClipCancelsItsTokensAndCancelAllEveryToken) {
    const int64_t a = query(clip_.get(), {0});
    const int64_t b = query(clip_.get(), {0});
    EXPECT_EQ(wrapper_->cancelQueryOfClip(clip_.get()), 0);
    EXPECT_EQ(wrapper_->cancelQuery(-1), 0);
    EXPECT_EQ(task_->cancels(), std::vector<int64_t>({a, b, a, b}));
    EXPECT_EQ(wrapper_->cancelQuery(a), 0);
    task_->deliver(a, 4);
    task_->deliver(b, 4);
    ASSERT_EQ(recorder_.calls().size(), 1u);
    EXPECT_EQ(recorder_.calls()[0].token, b);
}

TEST_F(VideoFrameWrapper, DestructionReleasesPendingClipsAndTheTask) {
    const int32_t before = clip_->refCount();
    query(clip_.get(), {0});
    EXPECT_EQ(clip_->refCount(), before + 1);
    EXPECT_EQ(wrapper_.detach()->Release(), 0);
    EXPECT_EQ(clip_->refCount(), before);
    EXPECT_FALSE(task_->alive());
}

}  // namespace
}  // namespace ZOR::test
