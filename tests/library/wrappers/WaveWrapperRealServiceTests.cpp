// The shipped library's audio wave wrapper on the real task service, with
// media made by the ffmpeg command: resubmission when the file changed on
// disk (status 7), cancel while decoding, pause and resume.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "ExtractRecorders.h"
#include "MediaTestSupport.h"
#include "Miravel/Miravel.h"
#include "PipeServer.h"
#include "Timeouts.h"

namespace ZOR::test {
namespace {

using MediaTest::ffmpeg;
using MediaTest::rampInput;

constexpr int32_t kValues = 40;
// 400,000 cns is one frame at 25/1.
constexpr int64_t kFrame = 400'000;

class WaveWrapperRealService : public ::testing::Test {
protected:
    void SetUp() override {
        wrapper_ = ZorRef<IBsAudioWaveExtractWrapper>::adopt(createBsAudioWaveExtractWrapper());
        ASSERT_NE(wrapper_, nullptr);
        ASSERT_EQ(wrapper_->addCallBack(&recorder_), 0);
    }
    void TearDown() override {
        if (wrapper_ != nullptr) wrapper_->removeCallBack(&recorder_);
        wrapper_.reset();
        clips_.clear();
    }

    IDmClip* clipOf(const std::string& path) {
        auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
        EXPECT_NE(clip, nullptr);
        if (clip != nullptr) clips_.push_back(clip);
        return clip.get();
    }
    // Frames [0, frames) with one value set per frame.
    int64_t query(IDmClip* clip, int32_t frames) {
        int64_t token = -1;
        EXPECT_EQ(wrapper_->queryAudioWave(clip, 0, frames * kFrame, frames, 0, &token), 0);
        EXPECT_GT(token, 0);
        return token;
    }
    // The call's values are the stored (16-bit) peaks of the WAV file's frames [0, frames).
    static void expectValuesOf(const WaveCall& call, const std::string& wav, int32_t frames) {
        const std::vector<float> expected = MediaTest::waveValues(MediaTest::readWav16(wav));
        ASSERT_GE(expected.size(), static_cast<size_t>(frames) * kValues);
        ASSERT_EQ(call.count, frames * kValues);
        ASSERT_EQ(call.values.size(), static_cast<size_t>(frames) * kValues);
        EXPECT_EQ(call.span, frames * kValues);
        int mismatches = 0;
        for (size_t i = 0; i < call.values.size(); ++i)
            if (call.values[i] != MediaTest::quantised(expected[i]) && ++mismatches <= 5)
                ADD_FAILURE() << "value " << i << ": " << call.values[i] << " expected " << expected[i];
        EXPECT_EQ(mismatches, 0);
    }

    TempFolder folder_;
    WaveRecorder recorder_;
    ZorRef<IBsAudioWaveExtractWrapper> wrapper_;
    std::vector<ZorRef<IDmClip>> clips_;  // the clips of the test
};

// The file is rewritten with other audio while the query waits: the callback
// hears status 7 with a new token, then status 2 for that token with the new
// file's values.
TEST_F(WaveWrapperRealService, AFileChangedBeforeDecodingIsQueriedAgainUnderANewToken) {
    const std::string path = folder_.file("changing.wav");
    ASSERT_TRUE(ffmpeg(rampInput(44100, 1.0) + " -c:a pcm_s16le '" + path + "'"));
    IDmClip* clip = clipOf(path);
    ASSERT_NE(clip, nullptr);
    ASSERT_EQ(wrapper_->pauseQuery(), 0);
    const int64_t token = query(clip, 25);
    // Other audio, longer (so the size changes too).
    ASSERT_TRUE(
        ffmpeg("-f lavfi -i \"aevalsrc=exprs='0.25*sin(2*PI*1000*t)|0.6*sin(2*PI*150*t)':s=44100:d=1.2\" "
               "-c:a pcm_s16le '" +
               path + "'"));
    ASSERT_EQ(wrapper_->resumeQuery(), 0);
    ASSERT_TRUE(recorder_.waitFor([](const WaveCall& call) { return call.status == 2; }));

    const std::vector<WaveCall> calls = recorder_.calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].status, 7);
    const int64_t moved = calls[0].token;
    EXPECT_NE(moved, token);
    EXPECT_GT(moved, 0);
    EXPECT_EQ(calls[0].count, 0);
    EXPECT_EQ(calls[1].status, 2);
    EXPECT_EQ(calls[1].token, moved);
    expectValuesOf(calls[1], path, 25);
}

// Cancelling a query whose decoder is in the middle of the file: status 4
// reaches the callback.
TEST_F(WaveWrapperRealService, CancelWhileDecodingReachesTheCallback) {
    const std::string path = folder_.file("held.wav");
    ASSERT_TRUE(ffmpeg(rampInput(8000, 20.0) + " -ac 1 -c:a pcm_s16le '" + path + "'"));
    IDmClip* clip = clipOf(path);
    ASSERT_NE(clip, nullptr);
    // The same bytes through a pipe that holds the second reader (the
    // decoder; the first is the planning look) after 64 KiB.
    auto server = std::make_unique<PipeServer>(path, MediaTest::readBytes(path), 2, 64 * 1024);
    ASSERT_TRUE(server->created());
    const int64_t token = query(clip, 249);  // frames [0, 249]: one piece
    ASSERT_TRUE(server->waitAtGate(kGenerous));
    EXPECT_EQ(wrapper_->cancelQueryOfClip(clip), 0);
    server->openGate();
    ASSERT_TRUE(recorder_.waitFor([token](const WaveCall& call) { return call.token == token; }));
    const std::vector<WaveCall> calls = recorder_.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].status, 4);
    EXPECT_EQ(calls[0].count, 0);
    EXPECT_TRUE(calls[0].values.empty());
    wrapper_->removeCallBack(&recorder_);
    wrapper_.reset();  // joins the task before the pipe goes
    server.reset();
}

// Nothing finishes while the wrapper is paused; after resume the query does.
TEST_F(WaveWrapperRealService, PausedQueriesWaitForResume) {
    const std::string path = folder_.file("tone.wav");
    ASSERT_TRUE(ffmpeg(rampInput(48000, 1.0) + " -c:a pcm_s16le '" + path + "'"));
    IDmClip* clip = clipOf(path);
    ASSERT_NE(clip, nullptr);
    ASSERT_EQ(wrapper_->pauseQuery(), 0);
    const int64_t token = query(clip, 25);
    EXPECT_FALSE(recorder_.waitFor([](const WaveCall&) { return true; }, std::chrono::milliseconds(300)));
    ASSERT_EQ(wrapper_->resumeQuery(), 0);
    ASSERT_TRUE(recorder_.waitFor([token](const WaveCall& call) { return call.token == token; }));
    const std::vector<WaveCall> calls = recorder_.calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].status, 2);
    expectValuesOf(calls[0], path, 25);
}

}  // namespace
}  // namespace ZOR::test
