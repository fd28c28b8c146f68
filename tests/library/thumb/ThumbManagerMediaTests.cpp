// The media thumbnail manager rendering real media through the real thumb
// adapter: a 60-second video whose colour changes every second, a timeline
// used as the media object, and keyframe seeking. Every expected index, time
// and colour is worked out here from the rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmTimeline.h"
#include "ThumbTestSupport.h"
#include "WriteFaults.h"

namespace ZOR::test {
namespace {

namespace fs = std::filesystem;
using MediaTest::filesUnder;

constexpr int64_t kSixtySeconds = 600'000'000;  // cns
constexpr int kSeconds = 60;

// The time of frame index of count over a range: trunc(i / N x duration + start).
int64_t frameTime(int32_t index, int32_t count, int64_t duration, int64_t start) {
    return static_cast<int64_t>(static_cast<double>(index) / static_cast<double>(count) *
                                    static_cast<double>(duration) +
                                static_cast<double>(start));
}

// A 60-second 160x90 video, one colour per second, a keyframe every 2 s; made
// once for the suite.
class ThumbManagerSixtySecondTest : public ThumbManagerFixture {
protected:
    static void SetUpTestSuite() {
        folder() = std::make_unique<TempFolder>();
        video() = folder()->file("sixty.mp4");
        if (!makeColourVideo(video(), palette(kSeconds), 160, 90, 50)) video().clear();
    }
    static void TearDownTestSuite() { folder().reset(); }
    static std::unique_ptr<TempFolder>& folder() {
        static std::unique_ptr<TempFolder> held;
        return held;
    }
    static std::string& video() {
        static std::string path;
        return path;
    }

    void SetUp() override {
        ThumbManagerFixture::SetUp();
        ASSERT_FALSE(video().empty()) << "the video could not be made";
        ASSERT_EQ(manager_->setThumbSize(160, 90), 0);
        request_ = makeRequest(video(), root_, 0, kSixtySeconds, kSixtySeconds);
    }

    // Renders the whole video's 100 pictures and waits until its task is done.
    void renderAll() {
        queueSentinel();
        char out[1024] = {};
        EXPECT_EQ(requestUntilTaken(manager_, probe_, request_, 0.5, out), 1001);
        ASSERT_TRUE(waitUntilDone({mediaKey(request_)}));
    }

    MediaThumbRequest request_{};
};

TEST_F(ThumbManagerSixtySecondTest, EveryFrameIsAnnouncedInRenderingOrderWithTheColourOfItsTime) {
    ASSERT_NO_FATAL_FAILURE(renderAll());
    const std::vector<Rgb> colours = palette(kSeconds);
    const std::vector<Notice> notices = recorder_.notices();
    std::vector<int32_t> indices;
    for (const Notice& notice : notices) indices.push_back(notice.index);
    const std::vector<int32_t> expected = expectedOrder(100);
    EXPECT_EQ(std::vector<int32_t>(expected.begin(), expected.begin() + 9),
              (std::vector<int32_t>{0, 99, 49, 74, 24, 86, 61, 36, 12}));
    EXPECT_EQ(indices, expected);

    for (const Notice& notice : notices) {
        EXPECT_EQ(notice.path, thumbFile(root_, notice.index, 160, 90));
        EXPECT_TRUE(notice.existed) << notice.path;
        EXPECT_STREQ(notice.request.mediaPath, video().c_str());
        const int64_t time = frameTime(notice.index, 100, kSixtySeconds, 0);
        const Picture picture = readPicture(notice.path);
        ASSERT_EQ(picture.status, 0) << notice.path;
        EXPECT_EQ(picture.width, 160);
        EXPECT_EQ(picture.height, 90);
        expectColour(picture.centre(), colours[static_cast<size_t>(time / kSecond)],
                     notice.path + " at " + std::to_string(time));
    }
    EXPECT_EQ(filesUnder(cacheDir()).size(), 100u);
    EXPECT_TRUE(filesNamed(root_, ".tmp").empty());
    EXPECT_EQ(manager_.queued(), std::vector<std::string>{mediaKey(sentinel())});
}

TEST_F(ThumbManagerSixtySecondTest, ASecondManagerOverTheSameRootFindsEveryFileAndRendersNothing) {
    ASSERT_NO_FATAL_FAILURE(renderAll());
    ASSERT_EQ(recorder_.notices().size(), 100u);
    manager_.reset();
    std::map<std::string, std::vector<char>> before;
    for (const std::string& file : filesUnder(cacheDir())) before[file] = MediaTest::readBytes(file);
    ASSERT_EQ(before.size(), 100u);

    Recorder seen;
    ManagerHolder second;
    second->setTaskFilter(&FilterProbe::filter);
    second->setWorkerSleep(1);
    ASSERT_EQ(second->addCallback(&seen), 0);
    ASSERT_EQ(second->setThumbSize(160, 90), 0);
    const size_t steps = probe_.stepCount();
    char out[1024];
    for (int i = 0; i < 100; ++i) {
        out[0] = '\0';
        EXPECT_EQ(second->getFrame(&request_, (i + 0.5) / 100.0, out), 0) << i;
        EXPECT_EQ(std::string(out), thumbFile(root_, i, 160, 90));
    }
    EXPECT_TRUE(second.queued().empty()) << "every file was found as asked for";
    EXPECT_EQ(probe_.stepCount(), steps);
    EXPECT_TRUE(seen.notices().empty());
    std::map<std::string, std::vector<char>> after;
    for (const std::string& file : filesUnder(cacheDir())) after[file] = MediaTest::readBytes(file);
    EXPECT_EQ(after, before);
    second.reset();
}

// The 4-second four-colour video.
using ThumbManagerSourceTest = ThumbManagerFixture;

TEST_F(ThumbManagerSourceTest, ATimelineAsMediaObjectGivesThePicturesOfItsVideoClip) {
    const std::string video = smallVideo();
    // The clip shows [1 s, 4 s) of the video on [0, 3 s) of the timeline.
    DmClipDesc clip;
    clip.name = "colours";
    clip.mediaPath = video;
    clip.begin = 0;
    clip.end = 3 * kSecond;
    clip.markIn = kSecond;
    clip.markOut = 4 * kSecond;
    DmTrackDesc track;
    track.name = "video";
    track.kind = DmTrackVideo;
    track.clips.push_back(clip);
    DmTimelineDesc desc;
    desc.name = "timeline";
    desc.tracks.push_back(track);
    std::string error;
    auto timeline = ZorRef<IDmTimeline>::adopt(createTimeline(desc, &error));
    ASSERT_NE(timeline.get(), nullptr) << error;
    ASSERT_EQ(timeline->duration(), 3 * kSecond);
    const auto object = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(static_cast<IDmBaseObj*>(timeline.get())));

    ASSERT_EQ(manager_->setThumbCount(6), 0);
    ASSERT_EQ(manager_->setThumbSize(160, 90), 0);
    queueSentinel();
    const MediaThumbRequest request = makeRequest("", root_, 0, 3 * kSecond, 3 * kSecond, object);
    char out[1024];
    EXPECT_EQ(requestUntilTaken(manager_, probe_, request, 0.5, out), 1001);
    ASSERT_TRUE(waitUntilDone({mediaKey(request)}));

    const std::vector<Notice> notices = recorder_.notices();
    std::vector<int32_t> indices;
    for (const Notice& notice : notices) {
        indices.push_back(notice.index);
        EXPECT_EQ(notice.request.mediaObject, object);
        EXPECT_STREQ(notice.request.mediaPath, "");
        EXPECT_EQ(notice.path, thumbFile(root_, notice.index, 160, 90));
        // Timeline time i x 0.5 s is video time 1 s + i x 0.5 s.
        const int64_t time = frameTime(notice.index, 6, 3 * kSecond, 0) + kSecond;
        const Picture picture = readPicture(notice.path);
        ASSERT_EQ(picture.status, 0) << notice.path;
        EXPECT_EQ(picture.width, 160);
        EXPECT_EQ(picture.height, 90);
        expectColour(picture.centre(), fourColours()[static_cast<size_t>(time / kSecond)], notice.path);
    }
    EXPECT_EQ(indices, expectedOrder(6));
    manager_.reset();
}

TEST_F(ThumbManagerSourceTest, KeyframeSeekingGivesThePictureOfTheKeyframeAtOrBeforeTheTime) {
    const std::string video = smallVideo();  // a keyframe at 0 s and 2 s
    ASSERT_EQ(manager_->setAdapterSeekMode(1), 0);
    int32_t mode = -1;
    ASSERT_EQ(manager_->adapterSeekMode(&mode), 0);
    EXPECT_EQ(mode, 1);
    ASSERT_EQ(manager_->setThumbCount(8), 0);
    ASSERT_EQ(manager_->setThumbSize(160, 90), 0);
    queueSentinel();
    const MediaThumbRequest request = makeRequest(video, root_, 0, 4 * kSecond, 4 * kSecond);
    char out[1024];
    requestUntilTaken(manager_, probe_, request, 0.5, out);
    ASSERT_TRUE(waitUntilDone({mediaKey(request)}));

    const std::vector<Notice> notices = recorder_.notices();
    ASSERT_EQ(notices.size(), 8u);
    for (const Notice& notice : notices) {
        const int64_t time = frameTime(notice.index, 8, 4 * kSecond, 0);
        const int64_t keyframe = time / (2 * kSecond) * 2 * kSecond;
        const Picture picture = readPicture(notice.path);
        ASSERT_EQ(picture.status, 0) << notice.path;
        expectColour(picture.centre(), fourColours()[static_cast<size_t>(keyframe / kSecond)], notice.path);
    }
}

// A picture that cannot be written (an injected write fault) is announced all
// the same, as the callback's contract says, and its file is missing with the
// cause kept for the folder; nothing half-written stays, and asking again
// renders the missing picture.
class ThumbManagerWriteFaultTest : public ThumbManagerFixture, public ::testing::WithParamInterface<int> {
protected:
    void TearDown() override {
        injectWriteFault(0, 0);
        ThumbManagerFixture::TearDown();
    }
};

TEST_P(ThumbManagerWriteFaultTest, APictureNotWrittenIsAnnouncedMissingAndRenderedWhenAskedAgain) {
    const int fault = GetParam();
    const std::string video = smallVideo();
    ASSERT_EQ(manager_->setThumbCount(4), 0);
    ASSERT_EQ(manager_->setThumbSize(160, 90), 0);
    queueSentinel();
    const MediaThumbRequest request = makeRequest(video, root_, 0, 4 * kSecond, 4 * kSecond);
    // The second picture rendered: index 3 (the order is 0, 3, 1, 2).
    injectWriteFault(fault, 2);
    char out[1024];
    EXPECT_EQ(requestUntilTaken(manager_, probe_, request, 0.5, out), 1001);
    ASSERT_TRUE(waitUntilDone({mediaKey(request)}));

    std::vector<Notice> notices = recorder_.notices();
    ASSERT_EQ(notices.size(), 4u);
    std::vector<int32_t> indices;
    for (const Notice& notice : notices) {
        indices.push_back(notice.index);
        EXPECT_EQ(notice.path, thumbFile(root_, notice.index, 160, 90));
        EXPECT_EQ(notice.existed, notice.index != 3) << notice.path;
    }
    EXPECT_EQ(indices, (std::vector<int32_t>{0, 3, 1, 2}));
    std::string failed;
    EXPECT_EQ(lastWriteFailure(Path(cacheDir()), &failed), fault);
    EXPECT_EQ(failed, thumbFile(root_, 3, 160, 90));
    std::vector<std::string> files = filesUnder(cacheDir());
    std::sort(files.begin(), files.end());
    EXPECT_EQ(files, (std::vector<std::string>{thumbFile(root_, 0, 160, 90), thumbFile(root_, 1, 160, 90),
                                               thumbFile(root_, 2, 160, 90)}));

    // Asked again for it: its nearest neighbour on disk is given meanwhile,
    // and the missing picture is rendered.
    const size_t from = probe_.stepCount();
    out[0] = '\0';
    EXPECT_EQ(requestUntilTaken(manager_, probe_, request, 0.9, out), 0);
    EXPECT_EQ(std::string(out), thumbFile(root_, 2, 160, 90));
    ASSERT_TRUE(waitUntilDone({mediaKey(request)}, from));
    notices = recorder_.notices();
    ASSERT_EQ(notices.size(), 5u);
    EXPECT_EQ(notices[4].index, 3);
    EXPECT_TRUE(notices[4].existed);
    const Picture picture = readPicture(thumbFile(root_, 3, 160, 90));
    ASSERT_EQ(picture.status, 0);
    expectColour(picture.centre(), fourColours()[3], "index 3");
    EXPECT_EQ(filesUnder(cacheDir()).size(), 4u);
    EXPECT_TRUE(filesNamed(root_, ".tmp").empty());
}

INSTANTIATE_TEST_SUITE_P(EachFault, ThumbManagerWriteFaultTest, eachWriteFault(), writeFaultName);

}  // namespace
}  // namespace ZOR::test
