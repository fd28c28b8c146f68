#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "MediaTestSupport.h"
#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "TaskTestSupport.h"

namespace ZOR::test {
namespace {

using MediaTest::ffmpeg;

constexpr int64_t kSecond = 10'000'000;

class TaskConcurrencyTest : public ::testing::Test {
protected:
    void SetUp() override {
        setFrameStoreRoot(folder_.file("store").c_str());
        video_ = folder_.file("video.mp4");
        ASSERT_TRUE(
            ffmpeg("-f lavfi -i \"testsrc2=s=64x48:r=25:d=3\" -f lavfi -i \"sine=f=440:r=44100:d=3\" "
                   "-c:v libx264 -pix_fmt yuv420p -g 50 -c:a aac '" +
                   video_ + "'"));
        sound_ = folder_.file("sound.wav");
        ASSERT_TRUE(ffmpeg("-f lavfi -i \"sine=f=440:r=48000:d=6\" -ac 2 '" + sound_ + "'"));
    }
    void TearDown() override { setFrameStoreRoot(nullptr); }

    TempFolder folder_;
    std::string video_;
    std::string sound_;
};

// Requests from several threads at once, some cancelled, with pauses and
// resumes in between: every accepted request ends exactly once.
TEST_F(TaskConcurrencyTest, EveryRequestEndsExactlyOnce) {
    auto videoClip = ZorRef<IDmClip>::adopt(createMediaClip(video_.c_str(), -1, -1, nullptr));
    auto soundClip = ZorRef<IDmClip>::adopt(createMediaClip(sound_.c_str(), -1, -1, nullptr));
    TaskRecorder audioReports;
    TaskRecorder videoReports;
    auto audio = ZorRef<IBsAudioWaveExtractTask>::adopt(createAudioWaveExtractTask());
    auto video = ZorRef<IBsVideoFrameExtractTask>::adopt(createVideoFrameExtractTask());
    audio->addCallBack(&audioReports);
    video->addCallBack(&videoReports);
    audio->initialize();
    video->initialize();
    audio->start();
    video->start();

    std::mutex tokensLock;  // guards the two token lists
    std::vector<int64_t> audioTokens;
    std::vector<int64_t> videoTokens;
    std::vector<std::thread> clients;
    for (int c = 0; c < 4; ++c) {
        clients.emplace_back([&, c] {
            std::mt19937 random(static_cast<unsigned>(c) * 7919u + 1u);
            for (int i = 0; i < 12; ++i) {
                BsWaveTaskRecord record;
                record.clip = (i % 2 == 0) ? soundClip.get() : videoClip.get();
                record.beginFrame = static_cast<int32_t>(random() % 100);
                record.endFrame = record.beginFrame + static_cast<int32_t>(random() % 80);
                int64_t audioToken = -1;
                if (audio->append(&record, &audioToken) == 0) {
                    std::lock_guard<std::mutex> guard(tokensLock);
                    audioTokens.push_back(audioToken);
                }
                const int64_t times[] = {static_cast<int64_t>(random() % 30) * kSecond / 10,
                                         static_cast<int64_t>(random() % 30) * kSecond / 10};
                int64_t videoToken = -1;
                if (video->append(videoClip.get(), times, 2, &videoToken, 16 + c, 12, i % 3 == 0 ? 1u : 0u) == 0) {
                    std::lock_guard<std::mutex> guard(tokensLock);
                    videoTokens.push_back(videoToken);
                }
                if (random() % 3 == 0) audio->cancel(audioToken);
                if (random() % 4 == 0) video->cancel(videoToken);
                if (random() % 5 == 0) {
                    video->pause();
                    video->addFrames(videoToken, times, 1);
                    video->resume();
                }
            }
        });
    }
    for (std::thread& client : clients) client.join();
    ASSERT_EQ(audioTokens.size(), 48u);
    ASSERT_EQ(videoTokens.size(), 48u);
    for (int64_t token : audioTokens) EXPECT_NE(audioReports.waitFinal(token), 0) << token;
    for (int64_t token : videoTokens) EXPECT_NE(videoReports.waitFinal(token), 0) << token;
    EXPECT_EQ(audio->pendingCount(), 0);
    EXPECT_EQ(video->pendingCount(), 0);

    for (const auto* reports : {&audioReports, &videoReports}) {
        std::map<int64_t, int> finals;
        for (const TaskReport& report : reports->all()) {
            if (isFinal(report.status)) ++finals[report.token];
            EXPECT_NE(report.thread, std::this_thread::get_id());
        }
        for (const auto& [token, count] : finals) EXPECT_EQ(count, 1) << token;
    }
    audio->removeCallBack(&audioReports);
    video->removeCallBack(&videoReports);
    audio.reset();
}

// An MP3 decoded by its packet index (pieces in parallel, one index shared)
// from several threads while a WAV file is rewritten: requests of the WAV end
// with status 7 and are submitted again from inside that report. Every
// request ends exactly once, and a request appended from inside a report
// reports nothing before that report has returned.
TEST_F(TaskConcurrencyTest, IndexedPiecesAndResubmissionsOfAChangingFileEndOnce) {
    const std::string mp3 = folder_.file("music.mp3");
    ASSERT_TRUE(ffmpeg("-f lavfi -i \"sine=f=330:r=44100:d=24\" -ac 2 -c:a libmp3lame -b:a 128k '" + mp3 + "'"));
    const std::string wav = folder_.file("changing.wav");
    ASSERT_TRUE(ffmpeg("-f lavfi -i \"sine=f=440:r=44100:d=2\" '" + wav + "'"));
    auto music = ZorRef<IDmClip>::adopt(createMediaClip(mp3.c_str(), -1, -1, nullptr));
    auto changing = ZorRef<IDmClip>::adopt(createMediaClip(wav.c_str(), -1, -1, nullptr));

    struct Resubmitting : TaskRecorder {
        IBsAudioWaveExtractTask* task = nullptr;
        IDmClip* clip = nullptr;
        std::mutex lock;             // guards the three members below
        std::set<int64_t> open;      // appended inside a report that has not returned yet
        std::vector<int64_t> again;  // every request appended inside a report
        bool early = false;          // a request reported inside the report that appended it
        void onReport(const TaskReport& report) override {
            {
                std::lock_guard<std::mutex> guard(lock);
                if (open.count(report.token) != 0) early = true;
            }
            if (report.status != BsTaskResubmit) return;
            BsWaveTaskRecord record;
            record.clip = clip;
            record.endFrame = 60;
            int64_t token = -1;
            if (task->append(&record, &token) != 0) return;
            {
                std::lock_guard<std::mutex> guard(lock);
                open.insert(token);
                again.push_back(token);
            }
            std::lock_guard<std::mutex> guard(lock);
            open.erase(token);
        }
    } reports;
    auto audio = ZorRef<IBsAudioWaveExtractTask>::adopt(createAudioWaveExtractTask());
    reports.task = audio.get();
    reports.clip = changing.get();
    audio->addCallBack(&reports);
    audio->initialize();
    audio->start();

    std::mutex tokensLock;  // guards tokens
    std::vector<int64_t> tokens;
    auto appendRange = [&](IDmClip* clip, int32_t first, int32_t last) {
        BsWaveTaskRecord record;
        record.clip = clip;
        record.beginFrame = first;
        record.endFrame = last;
        int64_t token = -1;
        if (audio->append(&record, &token) == 0) {
            std::lock_guard<std::mutex> guard(tokensLock);
            tokens.push_back(token);
        }
    };
    std::vector<std::thread> clients;
    for (int c = 0; c < 2; ++c) {
        clients.emplace_back([&, c] {
            for (int i = 0; i < 6; ++i) {
                appendRange(music.get(), (i * 97 + c * 31) % 500, 599);
                appendRange(changing.get(), 0, 60);
            }
        });
    }
    // The WAV changes (pausing holds its requests, so some see the change).
    for (int rewrite = 0; rewrite < 2; ++rewrite) {
        audio->pause();
        appendRange(changing.get(), 10, 40);
        ASSERT_TRUE(ffmpeg("-f lavfi -i \"sine=f=" + std::to_string(500 + 100 * rewrite) +
                           ":r=44100:d=" + std::to_string(3 + rewrite) + "\" '" + wav + "'"));
        audio->resume();
    }
    for (std::thread& client : clients) client.join();
    for (int64_t token : tokens) EXPECT_NE(reports.waitFinal(token), 0) << token;
    // Resubmitted requests may be resubmitted again: wait until none is left.
    size_t waited = 0;
    for (;;) {
        std::vector<int64_t> again;
        {
            std::lock_guard<std::mutex> guard(reports.lock);
            again = reports.again;
        }
        if (waited == again.size()) break;
        for (; waited < again.size(); ++waited) EXPECT_NE(reports.waitFinal(again[waited]), 0) << again[waited];
    }
    EXPECT_EQ(audio->pendingCount(), 0);
    std::map<int64_t, int> finals;
    for (const TaskReport& report : reports.all())
        if (isFinal(report.status)) ++finals[report.token];
    for (const auto& [token, count] : finals) EXPECT_EQ(count, 1) << token;
    EXPECT_EQ(finals.size(), tokens.size() + waited);
    EXPECT_GE(waited, 2u);  // at least the requests appended while paused, before each rewrite
    {
        std::lock_guard<std::mutex> guard(reports.lock);
        EXPECT_FALSE(reports.early);
    }
    audio->removeCallBack(&reports);
}

// Shutting down while other threads append: appends either are accepted
// before it or rejected after it, and nothing is reported once it returned.
TEST_F(TaskConcurrencyTest, ShutdownRacesWithAppends) {
    auto videoClip = ZorRef<IDmClip>::adopt(createMediaClip(video_.c_str(), -1, -1, nullptr));
    TaskRecorder reports;
    auto video = ZorRef<IBsVideoFrameExtractTask>::adopt(createVideoFrameExtractTask());
    video->addCallBack(&reports);
    video->initialize();
    video->start();
    std::atomic<bool> go{false};
    std::vector<std::thread> clients;
    for (int c = 0; c < 3; ++c) {
        clients.emplace_back([&, c] {
            while (!go.load()) std::this_thread::yield();
            for (int i = 0; i < 20; ++i) {
                const int64_t time = (i % 25) * kSecond / 10;
                int64_t token = -1;
                video->append(videoClip.get(), &time, 1, &token, 20 + c, 16, 0);
            }
        });
    }
    go.store(true);
    ASSERT_EQ(video->shutdown(), 0);
    const size_t atShutdown = reports.count();
    for (std::thread& client : clients) client.join();
    int64_t token = -1;
    const int64_t time = 0;
    EXPECT_NE(video->append(videoClip.get(), &time, 1, &token, 20, 16, 0), 0);
    EXPECT_EQ(reports.count(), atShutdown);
    EXPECT_EQ(video->pendingCount(), 0);
    video->removeCallBack(&reports);
    video.reset();
    EXPECT_EQ(reports.count(), atShutdown);
}

// removeCallBack() returns only once the callback is no longer running.
TEST_F(TaskConcurrencyTest, RemoveCallBackWaitsForARunningCallback) {
    auto videoClip = ZorRef<IDmClip>::adopt(createMediaClip(video_.c_str(), -1, -1, nullptr));
    struct Blocking : TaskRecorder {
        std::promise<void> entered;
        std::shared_future<void> release;
        std::atomic<bool> first{true};
        std::atomic<bool> inside{false};
        void onReport(const TaskReport&) override {
            if (!first.exchange(false)) return;
            inside.store(true);
            entered.set_value();
            release.wait();
            inside.store(false);
        }
    } blocking;
    std::promise<void> releaser;
    blocking.release = releaser.get_future().share();
    auto video = ZorRef<IBsVideoFrameExtractTask>::adopt(createVideoFrameExtractTask());
    video->addCallBack(&blocking);
    video->initialize();
    video->start();
    const int64_t time = kSecond;
    int64_t token = -1;
    ASSERT_EQ(video->append(videoClip.get(), &time, 1, &token, 32, 24, 0), 0);
    ASSERT_EQ(blocking.entered.get_future().wait_for(kGenerous), std::future_status::ready);

    auto removal = std::async(std::launch::async, [&] { return video->removeCallBack(&blocking); });
    EXPECT_EQ(removal.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    EXPECT_TRUE(blocking.inside.load());
    releaser.set_value();
    ASSERT_EQ(removal.wait_for(kGenerous), std::future_status::ready);
    EXPECT_EQ(removal.get(), 0);
    EXPECT_FALSE(blocking.inside.load());
    const size_t afterRemoval = blocking.count();
    video.reset();
    EXPECT_EQ(blocking.count(), afterRemoval);
}

// The last reference may go from inside the task's own callback, on a
// worker: the task goes quietly and its workers are joined later.
TEST_F(TaskConcurrencyTest, ReleasingTheTaskInsideItsCallbackIsSafe) {
    auto videoClip = ZorRef<IDmClip>::adopt(createMediaClip(video_.c_str(), -1, -1, nullptr));
    {
        // Once workers have run, a sanitizer may keep a thread of its own.
        auto warmUp = ZorRef<IBsAudioWaveExtractTask>::adopt(createAudioWaveExtractTask());
        ASSERT_EQ(warmUp->initialize(), 0);
    }
    const int before = threadCount();
    // The task's only reference, given up inside the callback.
    struct Releasing : TaskRecorder {
        ZorRef<IBsVideoFrameExtractTask> task;
        std::promise<void> released;
        void onReport(const TaskReport& report) override {
            if (report.hasData && task != nullptr) {
                task.reset();
                released.set_value();
            }
        }
    } releasing;
    releasing.task = ZorRef<IBsVideoFrameExtractTask>::adopt(createVideoFrameExtractTask());
    IBsVideoFrameExtractTask* video = releasing.task.get();
    video->addCallBack(&releasing);
    video->initialize();
    video->start();
    const int64_t times[] = {0, kSecond, 2 * kSecond};
    int64_t token = -1;
    ASSERT_EQ(video->append(videoClip.get(), times, 3, &token, 32, 24, 0), 0);
    ASSERT_EQ(releasing.released.get_future().wait_for(kGenerous), std::future_status::ready);
    // The report that released it is the last one.
    EXPECT_EQ(releasing.waitFinal(token, std::chrono::milliseconds(300)), 0);
    EXPECT_EQ(releasing.count(), 1u);

    // The next task joins the workers of the old pool; releasing it joins its own.
    auto next = ZorRef<IBsAudioWaveExtractTask>::adopt(createAudioWaveExtractTask());
    ASSERT_EQ(next->initialize(), 0);
    next.reset();
    EXPECT_EQ(threadCount(), before);
}

}  // namespace
}  // namespace ZOR::test
