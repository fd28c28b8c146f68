// The media thumbnail manager on the real thumb adapter: how positions map to
// files, the queue of media items, the disk cache and its clearing, the
// rendering order, and what bad requests, unreadable media and unwritable
// folders come to. Videos are made by the ffmpeg command.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <future>
#include <limits>
#include <numeric>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "CapturingLogger.h"
#include "ThumbTestSupport.h"

namespace ZOR::test {
namespace {

namespace fs = std::filesystem;
using MediaTest::filesUnder;

constexpr int64_t kHundredSeconds = 100 * kSecond;
constexpr const char* kClearCache = "ZOR::BsThumbManager::clearCache";
constexpr const char* kStopGetFrame = "ZOR::BsThumbManager::stopGetFrame";

std::vector<CapturedLine> linesOf(const CapturingSink& sink, const std::string& function) {
    std::vector<CapturedLine> found;
    for (const CapturedLine& line : sink.lines())
        if (line.function == function) found.push_back(line);
    return found;
}

std::vector<std::string> textsOf(const std::vector<CapturedLine>& lines) {
    std::vector<std::string> texts;
    for (const CapturedLine& line : lines) texts.push_back(line.text);
    return texts;
}

std::vector<std::string> sorted(std::vector<std::string> values) {
    std::sort(values.begin(), values.end());
    return values;
}

void fill(char (&out)[1024], const char* text) { zor_strcpy(out, sizeof out, text); }

// ---------------------------------------------------------------------------
// Edge cases

class ThumbManagerEdgeTest : public ThumbManagerFixture {
protected:
    // A request for the whole of the 100 s media item name in the test's
    // folder, cached under root_.
    MediaThumbRequest wholeMedia(const std::string& name) const {
        return makeRequest(folder_.file(name), root_, 0, kHundredSeconds, kHundredSeconds);
    }

    // With caching off and the media's cache folder made but empty, index 10
    // (0.105) of request has no picture and out stays "untouched".
    void expectNothingOnDiskWithCachingOff(const MediaThumbRequest& request, char (&out)[1024]) {
        ASSERT_EQ(manager_->setCaching(0), 0);
        fs::create_directories(cacheDir());
        fill(out, "untouched");
        EXPECT_EQ(manager_->getFrame(&request, 0.105, out), 1001);  // index 10: nothing on disk
    }
};

TEST_F(ThumbManagerEdgeTest, SettingsStartAtTheirDefaults) {
    EXPECT_EQ(manager_->thumbCount(), 100);
    EXPECT_EQ(manager_->framesPerStep(), 3);
    ManagerHolder fresh;
    EXPECT_EQ(fresh->workerSleep(), 0);
    int32_t mode = -1;
    ASSERT_EQ(fresh->adapterSeekMode(&mode), 0);
    EXPECT_EQ(mode, 0);
}

TEST_F(ThumbManagerEdgeTest, FramesPerStepOfZeroStoresOne) {
    EXPECT_EQ(manager_->setFramesPerStep(0), 0);
    EXPECT_EQ(manager_->framesPerStep(), 1);
    EXPECT_EQ(manager_->setFramesPerStep(-7), 0);
    EXPECT_EQ(manager_->framesPerStep(), 1);
    EXPECT_EQ(manager_->setFramesPerStep(5), 0);
    EXPECT_EQ(manager_->framesPerStep(), 5);
}

TEST_F(ThumbManagerEdgeTest, WithCachingOffGetFrameReportsOnlyExistingFilesAndQueuesNothing) {
    const std::string file80 = thumbFile(root_, 80, 320, 180);
    createFile(file80, "picture 80");
    ASSERT_EQ(manager_->setCaching(0), 0);
    const MediaThumbRequest request = wholeMedia("media.mp4");

    char out[1024];
    fill(out, "untouched");
    EXPECT_EQ(manager_->getFrame(&request, 0.805, out), 0);  // index 80, on disk
    EXPECT_STREQ(out, file80.c_str());
    fill(out, "untouched");
    EXPECT_EQ(manager_->getFrame(&request, 0.505, out), 0);  // index 50: 80 is 30 away
    EXPECT_STREQ(out, file80.c_str());
    fill(out, "untouched");
    EXPECT_EQ(manager_->getFrame(&request, 0.305, out), 0);  // index 30: 80 is 50 away, the farthest looked at
    EXPECT_STREQ(out, file80.c_str());
    fill(out, "untouched");
    EXPECT_EQ(manager_->getFrame(&request, 0.295, out), 1001);  // index 29: 80 is 51 away
    EXPECT_STREQ(out, "untouched");
    fill(out, "untouched");
    EXPECT_EQ(manager_->getFrame(&request, 0.105, out), 1001);
    EXPECT_STREQ(out, "untouched");

    EXPECT_TRUE(manager_.queued().empty());
    EXPECT_TRUE(recorder_.notices().empty());
    EXPECT_EQ(filesUnder(root_), std::vector<std::string>{file80});

    // Switched back on, the same request queues the item.
    probe_.holdAll(true);
    ASSERT_EQ(manager_->setCaching(1), 0);
    EXPECT_EQ(requestUntilTaken(manager_, probe_, request, 0.105, out), 1001);
    EXPECT_EQ(manager_.queued(), std::vector<std::string>{mediaKey(request)});
}

TEST_F(ThumbManagerEdgeTest, AFourthMediaItemPushesOutTheOldestQueuedOne) {
    probe_.holdAll(true);
    std::vector<MediaThumbRequest> requests;
    for (const char* name : {"a.mp4", "b.mp4", "c.mp4", "d.mp4"}) requests.push_back(wholeMedia(name));
    char out[1024];
    for (size_t i = 0; i < 3; ++i) EXPECT_EQ(requestUntilTaken(manager_, probe_, requests[i], 0.5, out), 1001);
    EXPECT_EQ(manager_.queued(),
              (std::vector<std::string>{folder_.file("c.mp4"), folder_.file("b.mp4"), folder_.file("a.mp4")}));

    EXPECT_EQ(requestUntilTaken(manager_, probe_, requests[3], 0.5, out), 1001);
    EXPECT_EQ(manager_.queued(),
              (std::vector<std::string>{folder_.file("d.mp4"), folder_.file("c.mp4"), folder_.file("b.mp4")}));
}

TEST_F(ThumbManagerEdgeTest, AskingAgainForAQueuedItemMovesItToTheHeadWithoutASecondTask) {
    probe_.holdAll(true);
    std::vector<MediaThumbRequest> requests;
    for (const char* name : {"a.mp4", "b.mp4", "c.mp4"}) requests.push_back(wholeMedia(name));
    char out[1024];
    for (const MediaThumbRequest& request : requests) requestUntilTaken(manager_, probe_, request, 0.5, out);
    const auto before = manager_.impl()->queuedTasks();
    ASSERT_EQ(before.size(), 3u);

    EXPECT_EQ(requestUntilTaken(manager_, probe_, requests[0], 0.25, out), 1001);
    EXPECT_EQ(manager_.queued(),
              (std::vector<std::string>{folder_.file("a.mp4"), folder_.file("c.mp4"), folder_.file("b.mp4")}));
    const auto after = manager_.impl()->queuedTasks();
    ASSERT_EQ(after.size(), 3u);
    EXPECT_EQ(after[0], before[2]) << "the same task, moved";
    EXPECT_EQ(after[1], before[0]);
    EXPECT_EQ(after[2], before[1]);
}

TEST_F(ThumbManagerEdgeTest, PositionZeroMapsToStartIndexOneToEndIndexAndBeyondClampsAtTheCount) {
    for (int i = 0; i <= 100; ++i) createFile(thumbFile(root_, i, 320, 180), "picture " + std::to_string(i));
    const double inf = std::numeric_limits<double>::infinity();
    struct Case {
        int64_t start;
        int64_t end;
        double position;
        int index;
    };
    // A duration of 1000: a start of 200 and an end of 600 are indices 20 and 60.
    const Case cases[] = {
        {200, 600, 0.0, 20},   {200, 600, 1.0, 60},   {200, 600, 0.5, 40},    {200, 600, 0.999, 59},
        {200, 600, 1.25, 70},  {200, 600, 4.0, 100},  {200, 600, 1e300, 100}, {200, 600, inf, 100},
        {200, 600, -0.25, 10}, {200, 600, -2.0, 0},   {200, 600, -1e300, 0},  {200, 600, -inf, 0},
        {0, 1000, 0.0, 0},     {0, 1000, 1.0, 100},   {0, 1000, 2.0, 100},    {0, 1000, 0.4999, 49},
        {155, 1000, 0.0, 15},  {155, 1000, 1.0, 100}, {155, 1000, 0.5, 57},
    };
    char out[1024];
    for (const Case& c : cases) {
        const MediaThumbRequest request = makeRequest(folder_.file("media.mp4"), root_, c.start, c.end, 1000);
        fill(out, "untouched");
        EXPECT_EQ(manager_->getFrame(&request, c.position, out), 0) << c.start << ".." << c.end << " at " << c.position;
        EXPECT_EQ(std::string(out), thumbFile(root_, c.index, 320, 180))
            << c.start << ".." << c.end << " at " << c.position;
    }
    EXPECT_TRUE(manager_.queued().empty()) << "every file was found as asked for";
    EXPECT_TRUE(probe_.calls().empty());
}

TEST_F(ThumbManagerEdgeTest, NeighboursAreTriedAtPlusOneBeforeMinusOne) {
    ASSERT_EQ(manager_->setCaching(0), 0);
    const std::string file9 = thumbFile(root_, 9, 320, 180);
    const std::string file11 = thumbFile(root_, 11, 320, 180);
    createFile(file9, "picture 9");
    createFile(file11, "picture 11");
    const MediaThumbRequest request = wholeMedia("media.mp4");
    char out[1024];
    EXPECT_EQ(manager_->getFrame(&request, 0.105, out), 0);
    EXPECT_STREQ(out, file11.c_str());
    fs::remove(file11);
    EXPECT_EQ(manager_->getFrame(&request, 0.105, out), 0);
    EXPECT_STREQ(out, file9.c_str());
}

TEST_F(ThumbManagerEdgeTest, AMissingFileWithANeighbourAtPlusOneReturnsTheNeighbourAndStillQueues) {
    probe_.holdAll(true);
    const std::string file11 = thumbFile(root_, 11, 320, 180);
    createFile(file11, "picture 11");
    createFile(thumbFile(root_, 9, 320, 180), "picture 9");
    const MediaThumbRequest request = wholeMedia("media.mp4");
    char out[1024];
    fill(out, "untouched");
    EXPECT_EQ(requestUntilTaken(manager_, probe_, request, 0.105, out), 0);
    EXPECT_STREQ(out, file11.c_str());
    EXPECT_EQ(manager_.queued(), std::vector<std::string>{mediaKey(request)});
}

TEST_F(ThumbManagerEdgeTest, OnlyFilesNamedForTheBoxAreNeighbours) {
    ASSERT_EQ(manager_->setCaching(0), 0);
    // At distance 1 from index 10, files that are not the picture of 11 in
    // this box; at distance 2, the picture of 8.
    createFile(cacheDir() + "/011_320_180.png", "padded number");
    createFile(cacheDir() + "/+11_320_180.png", "signed number");
    createFile(thumbFile(root_, 11, 160, 90), "other box");
    createFile(cacheDir() + "/11.png", "no box");
    createFile(cacheDir() + "/11_320_180.png.tmp", "partial");
    const std::string file8 = thumbFile(root_, 8, 320, 180);
    createFile(file8, "picture 8");
    const MediaThumbRequest request = wholeMedia("media.mp4");
    char out[1024];
    fill(out, "untouched");
    EXPECT_EQ(manager_->getFrame(&request, 0.105, out), 0);
    EXPECT_STREQ(out, file8.c_str());
}

TEST_F(ThumbManagerEdgeTest, ANeighbourAnotherWriterAddsIsFoundOnceTheFolderTimeMovesOn) {
    const MediaThumbRequest request = wholeMedia("media.mp4");
    char out[1024];
    ASSERT_NO_FATAL_FAILURE(expectNothingOnDiskWithCachingOff(request, out));
    const std::string file12 = thumbFile(root_, 12, 320, 180);
    createFile(file12, "picture 12");
    // The folder's time moves on, as it does once the file system's clock
    // ticks.
    fs::last_write_time(cacheDir(), fs::last_write_time(cacheDir()) + std::chrono::seconds(1));
    EXPECT_EQ(manager_->getFrame(&request, 0.105, out), 0);
    EXPECT_STREQ(out, file12.c_str());
}

// Another writer's file is found at once, even when the folder's time does
// not move (a file system's clock ticks coarsely, and a time can be set).
TEST_F(ThumbManagerEdgeTest, ANeighbourAnotherWriterAddsIsFoundWhileTheFolderTimeStandsStill) {
    const MediaThumbRequest request = wholeMedia("media.mp4");
    char out[1024];
    ASSERT_NO_FATAL_FAILURE(expectNothingOnDiskWithCachingOff(request, out));
    const auto folderTime = fs::last_write_time(cacheDir());
    const std::string file12 = thumbFile(root_, 12, 320, 180);
    createFile(file12, "picture 12");
    fs::last_write_time(cacheDir(), folderTime);
    EXPECT_EQ(manager_->getFrame(&request, 0.105, out), 0);
    EXPECT_STREQ(out, file12.c_str());
    // And a file removed is no longer a neighbour.
    fs::remove(file12);
    fs::last_write_time(cacheDir(), folderTime);
    fill(out, "untouched");
    EXPECT_EQ(manager_->getFrame(&request, 0.105, out), 1001);
}

TEST_F(ThumbManagerEdgeTest, APictureTheWorkerWritesIsANeighbourAtOnce) {
    const std::string video = smallVideo();
    ASSERT_EQ(manager_->setThumbCount(8), 0);
    ASSERT_EQ(manager_->setThumbSize(160, 90), 0);
    createFile(thumbFile(root_, 0, 160, 90), "kept 0");
    queueSentinel();
    const MediaThumbRequest request = makeRequest(video, root_, 0, 4 * kSecond, 4 * kSecond);
    char out[1024];
    // Position 1 names index 8, past the last picture; within 4 of it
    // nothing is on disk yet.
    fill(out, "untouched");
    EXPECT_EQ(requestUntilTaken(manager_, probe_, request, 1.0, out), 1001);
    EXPECT_STREQ(out, "untouched");
    ASSERT_TRUE(waitUntilDone({mediaKey(request)}));
    // The worker wrote 7 after the folder was first looked at.
    EXPECT_EQ(manager_->getFrame(&request, 1.0, out), 0);
    EXPECT_STREQ(out, thumbFile(root_, 7, 160, 90).c_str());
}

TEST_F(ThumbManagerEdgeTest, ABoxBelowOneNamesFilesByIndexOnly) {
    ASSERT_EQ(manager_->setCaching(0), 0);
    const std::string plain = (fs::path(cacheDir()) / "7.png").string();
    createFile(plain, "picture 7");
    const MediaThumbRequest request = wholeMedia("media.mp4");
    char out[1024];
    ASSERT_EQ(manager_->setThumbSize(0, 0), 0);
    EXPECT_EQ(manager_->getFrame(&request, 0.075, out), 0);
    EXPECT_STREQ(out, plain.c_str());
    ASSERT_EQ(manager_->setThumbSize(-1, 90), 0);
    fill(out, "untouched");
    EXPECT_EQ(manager_->getFrame(&request, 0.075, out), 0);
    EXPECT_STREQ(out, plain.c_str());
    ASSERT_EQ(manager_->setThumbSize(320, 180), 0);
    fill(out, "untouched");
    EXPECT_EQ(manager_->getFrame(&request, 0.075, out), 1001) << "7_320_180.png is another file";
    EXPECT_STREQ(out, "untouched");
}

TEST_F(ThumbManagerEdgeTest, StopGetFrameRemovesTheQueuedItem) {
    probe_.holdAll(true);
    const MediaThumbRequest a = wholeMedia("a.mp4");
    const MediaThumbRequest b = wholeMedia("b.mp4");
    char out[1024];
    requestUntilTaken(manager_, probe_, a, 0.5, out);
    requestUntilTaken(manager_, probe_, b, 0.5, out);
    ASSERT_EQ(manager_.queued(), (std::vector<std::string>{mediaKey(b), mediaKey(a)}));

    EXPECT_EQ(manager_->stopGetFrame(&a), 0);
    EXPECT_EQ(manager_.queued(), std::vector<std::string>{mediaKey(b)});
    EXPECT_EQ(manager_->stopGetFrame(&a), 0) << "not queued: nothing to do";
    EXPECT_EQ(manager_.queued(), std::vector<std::string>{mediaKey(b)});
}

TEST_F(ThumbManagerEdgeTest, StopGetFrameWithoutAMediaItemLogsParamInvalid) {
    ScopedCapture capture(IBsLogger::Verbose);
    probe_.holdAll(true);
    const MediaThumbRequest a = wholeMedia("a.mp4");
    char out[1024];
    requestUntilTaken(manager_, probe_, a, 0.5, out);

    const MediaThumbRequest empty = makeRequest("", root_, 0, kHundredSeconds, kHundredSeconds);
    EXPECT_EQ(manager_->stopGetFrame(nullptr), 1001);
    EXPECT_EQ(manager_->stopGetFrame(&empty), 1001);

    const std::vector<CapturedLine> lines = linesOf(capture.sink(), kStopGetFrame);
    ASSERT_EQ(lines.size(), 2u);
    for (const CapturedLine& line : lines) {
        EXPECT_EQ(line.text, "param invalid.");
        EXPECT_EQ(line.severity, IBsLogger::Error);
    }
    EXPECT_EQ(manager_.queued(), std::vector<std::string>{mediaKey(a)});
}

TEST_F(ThumbManagerEdgeTest, ClearCacheOfARootAQueuedTaskUsesIsRefusedUntilTheTaskIsStopped) {
    ScopedCapture capture(IBsLogger::Verbose);
    probe_.holdAll(true);
    const std::string kept = (fs::path(cacheDir()) / "kept.txt").string();
    createFile(kept, "kept");
    const std::string otherRoot = folder_.file("other-root");
    const std::string otherFile = (fs::path(otherRoot) / "media_thumbnail" / "0_320_180.png").string();
    createFile(otherFile, "other");
    const MediaThumbRequest request = wholeMedia("media.mp4");
    char out[1024];
    requestUntilTaken(manager_, probe_, request, 0.5, out);

    EXPECT_EQ(manager_->clearCache(root_.c_str()), 1001);
    EXPECT_TRUE(fs::exists(kept));
    // Another root is not in use.
    EXPECT_EQ(manager_->clearCache(otherRoot.c_str()), 0);
    EXPECT_FALSE(fs::exists(fs::path(otherRoot) / "media_thumbnail"));

    ASSERT_EQ(manager_->stopGetFrame(&request), 0);
    EXPECT_EQ(manager_->clearCache(root_.c_str()), 0);
    EXPECT_FALSE(fs::exists(cacheDir()));
    EXPECT_TRUE(fs::is_directory(root_)) << "only media_thumbnail goes";

    const std::vector<CapturedLine> lines = linesOf(capture.sink(), kClearCache);
    EXPECT_EQ(textsOf(lines), (std::vector<std::string>{"isCaching: true", "isCaching: false", "isCaching: false"}));
    for (const CapturedLine& line : lines) EXPECT_EQ(line.severity, IBsLogger::Info);
}

TEST_F(ThumbManagerEdgeTest, ClearCacheAfterTheTaskCompletedRemovesTheFolder) {
    const std::string video = smallVideo();
    ASSERT_EQ(manager_->setThumbCount(4), 0);
    ASSERT_EQ(manager_->setThumbSize(160, 90), 0);
    queueSentinel();
    const MediaThumbRequest request = makeRequest(video, root_, 0, 4 * kSecond, 4 * kSecond);
    char out[1024];
    requestUntilTaken(manager_, probe_, request, 0.5, out);
    ASSERT_TRUE(waitUntilDone({mediaKey(request)}));
    EXPECT_EQ(recorder_.notices().size(), 4u);
    EXPECT_EQ(filesUnder(cacheDir()).size(), 4u);

    ScopedCapture capture(IBsLogger::Verbose);
    EXPECT_EQ(manager_->clearCache(root_.c_str()), 0);
    EXPECT_FALSE(fs::exists(cacheDir()));
    EXPECT_EQ(textsOf(linesOf(capture.sink(), kClearCache)), std::vector<std::string>{"isCaching: false"});
}

TEST_F(ThumbManagerEdgeTest, ClearCacheOfARootWithoutTheFolderSucceeds) {
    ScopedCapture capture(IBsLogger::Verbose);
    fs::create_directories(root_);
    EXPECT_EQ(manager_->clearCache(root_.c_str()), 0) << "nothing to remove counts as success";
    EXPECT_EQ(manager_->clearCache(folder_.file("never-made").c_str()), 0);
    EXPECT_TRUE(fs::is_directory(root_));
    EXPECT_EQ(textsOf(linesOf(capture.sink(), kClearCache)),
              (std::vector<std::string>{"isCaching: false", "isCaching: false"}));
}

TEST_F(ThumbManagerEdgeTest, FramesOfAHundredAreOrderedCoarseToFineEachOnce) {
    const std::vector<int32_t> expected = expectedOrder(100);
    ASSERT_EQ(expected.size(), 100u);
    EXPECT_EQ(std::vector<int32_t>(expected.begin(), expected.begin() + 9),
              (std::vector<int32_t>{0, 99, 49, 74, 24, 86, 61, 36, 12}));
    std::vector<int32_t> all = expected;
    std::sort(all.begin(), all.end());
    std::vector<int32_t> everyIndex(100);
    std::iota(everyIndex.begin(), everyIndex.end(), 0);
    EXPECT_EQ(all, everyIndex);

    EXPECT_EQ(BsThumbManager::frameOrder(100), expected);
    // The order a queued task is rendered in.
    probe_.holdAll(true);
    const MediaThumbRequest request = wholeMedia("media.mp4");
    char out[1024];
    requestUntilTaken(manager_, probe_, request, 0.5, out);
    const auto tasks = manager_.impl()->queuedTasks();
    ASSERT_EQ(tasks.size(), 1u);
    EXPECT_EQ(tasks[0]->frames, expected);
}

TEST_F(ThumbManagerEdgeTest, FramesOfOneTwoAndThreeAreOrderedByTheSameRule) {
    EXPECT_EQ(expectedOrder(1), std::vector<int32_t>{0});
    EXPECT_EQ(expectedOrder(2), (std::vector<int32_t>{0, 1}));
    EXPECT_EQ(expectedOrder(3), (std::vector<int32_t>{0, 2, 1}));
    EXPECT_EQ(expectedOrder(8), (std::vector<int32_t>{0, 7, 3, 5, 1, 6, 4, 2}));
    for (int32_t count : {1, 2, 3, 8}) EXPECT_EQ(BsThumbManager::frameOrder(count), expectedOrder(count)) << count;
    EXPECT_TRUE(BsThumbManager::frameOrder(0).empty());

    probe_.holdAll(true);
    char out[1024];
    for (int32_t count : {1, 2}) {
        ASSERT_EQ(manager_->setThumbCount(count), 0);
        const MediaThumbRequest request = makeRequest(folder_.file("media" + std::to_string(count) + ".mp4"), root_, 0,
                                                      kHundredSeconds, kHundredSeconds);
        requestUntilTaken(manager_, probe_, request, 0.5, out);
        const auto tasks = manager_.impl()->queuedTasks();
        ASSERT_FALSE(tasks.empty());
        EXPECT_EQ(tasks[0]->frames, expectedOrder(count)) << count;
    }
}

TEST_F(ThumbManagerEdgeTest, AFrameWhosePictureExistsIsSkippedWithoutACallback) {
    const std::string video = smallVideo();
    ASSERT_EQ(manager_->setThumbCount(8), 0);
    ASSERT_EQ(manager_->setThumbSize(160, 90), 0);
    const std::string file0 = thumbFile(root_, 0, 160, 90);
    const std::string file4 = thumbFile(root_, 4, 160, 90);
    createFile(file0, "kept 0");
    createFile(file4, "kept 4");
    queueSentinel();
    const MediaThumbRequest request = makeRequest(video, root_, 0, 4 * kSecond, 4 * kSecond);
    char out[1024];
    // Index 2 is missing; 4 is the nearest on disk (3 and 1 are not).
    EXPECT_EQ(requestUntilTaken(manager_, probe_, request, 0.25, out), 0);
    EXPECT_STREQ(out, file4.c_str());
    ASSERT_TRUE(waitUntilDone({mediaKey(request)}));

    const std::vector<Notice> notices = recorder_.notices();
    std::vector<int32_t> indices;
    for (const Notice& notice : notices) indices.push_back(notice.index);
    EXPECT_EQ(indices, (std::vector<int32_t>{7, 3, 5, 1, 6, 2}));
    EXPECT_EQ(readText(file0), "kept 0");
    EXPECT_EQ(readText(file4), "kept 4");
    for (const Notice& notice : notices) {
        EXPECT_EQ(notice.path, thumbFile(root_, notice.index, 160, 90));
        EXPECT_TRUE(notice.existed) << notice.path;
        const Picture picture = readPicture(notice.path);
        ASSERT_EQ(picture.status, 0) << notice.path;
        EXPECT_EQ(picture.width, 160);
        EXPECT_EQ(picture.height, 90);
        // Frame i at i x 0.5 s.
        expectColour(picture.centre(), fourColours()[static_cast<size_t>(notice.index / 2)], notice.path);
    }
    EXPECT_EQ(filesUnder(cacheDir()).size(), 8u);
}

TEST_F(ThumbManagerEdgeTest, ChangingTheBoxMakesNewFileNamesAndLeavesTheOldFiles) {
    const std::string video = smallVideo();
    ASSERT_EQ(manager_->setThumbCount(4), 0);
    queueSentinel();
    const MediaThumbRequest request = makeRequest(video, root_, 0, 4 * kSecond, 4 * kSecond);
    char out[1024];
    requestUntilTaken(manager_, probe_, request, 0.5, out);
    ASSERT_TRUE(waitUntilDone({mediaKey(request)}));
    std::vector<std::string> oldFiles;
    std::vector<std::string> oldBytes;
    for (int i = 0; i < 4; ++i) {
        oldFiles.push_back(thumbFile(root_, i, 320, 180));
        oldBytes.push_back(readText(oldFiles.back()));
        const Picture picture = readPicture(oldFiles.back());
        ASSERT_EQ(picture.status, 0) << oldFiles.back();
        EXPECT_EQ(picture.width, 320);  // 160x90 fitted into the default box
        EXPECT_EQ(picture.height, 180);
    }
    ASSERT_EQ(recorder_.notices().size(), 4u);

    ASSERT_EQ(manager_->setThumbSize(160, 90), 0);
    const size_t from = probe_.stepCount();
    fill(out, "untouched");
    EXPECT_EQ(requestUntilTaken(manager_, probe_, request, 0.5, out), 1001) << "the old files are not used";
    EXPECT_STREQ(out, "untouched");
    ASSERT_TRUE(waitUntilDone({mediaKey(request)}, from));

    const std::vector<Notice> notices = recorder_.notices();
    ASSERT_EQ(notices.size(), 8u);
    for (size_t n = 4; n < notices.size(); ++n) {
        EXPECT_EQ(notices[n].path, thumbFile(root_, notices[n].index, 160, 90));
        const Picture picture = readPicture(notices[n].path);
        ASSERT_EQ(picture.status, 0) << notices[n].path;
        EXPECT_EQ(picture.width, 160) << notices[n].path;
        EXPECT_EQ(picture.height, 90) << notices[n].path;
        expectColour(picture.centre(), fourColours()[static_cast<size_t>(notices[n].index)], notices[n].path);
    }
    for (size_t i = 0; i < oldFiles.size(); ++i) EXPECT_EQ(readText(oldFiles[i]), oldBytes[i]) << oldFiles[i];
    EXPECT_EQ(filesUnder(cacheDir()).size(), 8u);
}

TEST_F(ThumbManagerEdgeTest, ChangingTheBoxWhileTheMediaIsStillOpenRendersAtTheNewSize) {
    const std::string video = smallVideo();
    ASSERT_EQ(manager_->setThumbCount(8), 0);
    const MediaThumbRequest request = makeRequest(video, root_, 0, 4 * kSecond, 4 * kSecond);
    const std::string key = mediaKey(request);
    // One step (frames 0, 7 and 3) at the default box, then the item is
    // stopped before it completes.
    probe_.holdAfter(key, 1);
    char out[1024];
    requestUntilTaken(manager_, probe_, request, 0.5, out);
    ASSERT_TRUE(recorder_.waitForCount(3));
    ASSERT_TRUE(probe_.waitForSteps(key, 2));
    ASSERT_EQ(manager_->stopGetFrame(&request), 0);
    ASSERT_TRUE(manager_.queued().empty());
    EXPECT_EQ(recorder_.indices(), (std::vector<int32_t>{0, 7, 3}));

    probe_.release(key);
    ASSERT_EQ(manager_->setThumbSize(160, 90), 0);
    requestUntilTaken(manager_, probe_, request, 0.5, out);
    ASSERT_TRUE(recorder_.waitForCount(11));
    const std::vector<Notice> notices = recorder_.notices();
    for (size_t n = 3; n < notices.size(); ++n) {
        EXPECT_EQ(notices[n].path, thumbFile(root_, notices[n].index, 160, 90));
        const Picture picture = readPicture(notices[n].path);
        ASSERT_EQ(picture.status, 0) << notices[n].path;
        EXPECT_EQ(picture.width, 160) << notices[n].path;
        EXPECT_EQ(picture.height, 90) << notices[n].path;
    }
}

TEST_F(ThumbManagerEdgeTest, EveryCallbackIsToldOfEveryFileWithTheTasksCopyOfTheRequest) {
    const std::string video = smallVideo();
    Recorder second;
    Recorder removed;
    EXPECT_EQ(manager_->addCallback(&second), 0);
    EXPECT_EQ(manager_->addCallback(&removed), 0);
    EXPECT_EQ(manager_->addCallback(&recorder_), 0) << "once only";
    EXPECT_EQ(manager_->removeCallback(&removed), 0);
    EXPECT_EQ(manager_->addCallback(nullptr), 1001);
    EXPECT_EQ(manager_->removeCallback(nullptr), 1001);
    ASSERT_EQ(manager_->setThumbCount(4), 0);
    ASSERT_EQ(manager_->setThumbSize(160, 90), 0);
    queueSentinel();
    const MediaThumbRequest request = makeRequest(video, root_, 0, 4 * kSecond, 4 * kSecond);
    char out[1024];
    requestUntilTaken(manager_, probe_, request, 0.5, out);
    ASSERT_TRUE(waitUntilDone({mediaKey(request)}));

    for (Recorder* recorder : {&recorder_, &second}) {
        const std::vector<Notice> notices = recorder->notices();
        std::vector<int32_t> indices;
        for (const Notice& notice : notices) {
            indices.push_back(notice.index);
            EXPECT_NE(notice.pointer, &request) << "the task's copy";
            EXPECT_STREQ(notice.request.mediaPath, video.c_str());
            EXPECT_STREQ(notice.request.rootDir, root_.c_str());
            EXPECT_EQ(notice.request.mediaObject, 0u);
            EXPECT_EQ(notice.request.startTime, 0);
            EXPECT_EQ(notice.request.endTime, 4 * kSecond);
            EXPECT_EQ(notice.request.duration, 4 * kSecond);
            EXPECT_EQ(notice.path, thumbFile(root_, notice.index, 160, 90));
            EXPECT_TRUE(notice.existed);
            EXPECT_NE(notice.thread, std::this_thread::get_id()) << "told on the worker";
        }
        EXPECT_EQ(indices, expectedOrder(4));
    }
    EXPECT_TRUE(removed.notices().empty());
    manager_.reset();  // before the local recorders go
}

TEST_F(ThumbManagerEdgeTest, TheStartTimeShiftsEveryFramesTime) {
    const std::string video = smallVideo();
    ASSERT_EQ(manager_->setThumbCount(4), 0);
    ASSERT_EQ(manager_->setThumbSize(160, 90), 0);
    queueSentinel();
    const MediaThumbRequest request = makeRequest(video, root_, kSecond / 2, 3 * kSecond, 3 * kSecond);
    char out[1024];
    requestUntilTaken(manager_, probe_, request, 0.5, out);
    ASSERT_TRUE(waitUntilDone({mediaKey(request)}));
    const std::vector<Notice> notices = recorder_.notices();
    ASSERT_EQ(notices.size(), 4u);
    for (const Notice& notice : notices) {
        // trunc(i / 4 x 3 s + 0.5 s): 0.5, 1.25, 2.0, 2.75 s.
        const int64_t time = notice.index * 3 * kSecond / 4 + kSecond / 2;
        const Picture picture = readPicture(notice.path);
        ASSERT_EQ(picture.status, 0) << notice.path;
        expectColour(picture.centre(), fourColours()[static_cast<size_t>(time / kSecond)], notice.path);
    }
}

// ---------------------------------------------------------------------------
// Bad input and faults

using ThumbManagerFaultTest = ThumbManagerFixture;

TEST_F(ThumbManagerFaultTest, InvalidRequestsAreRefusedAndQueueNothing) {
    probe_.holdAll(true);
    const std::string video = folder_.file("media.mp4");
    const MediaThumbRequest good = makeRequest(video, root_, 0, kHundredSeconds, kHundredSeconds);
    MediaThumbRequest noMedia = good;
    noMedia.mediaPath[0] = '\0';
    MediaThumbRequest zeroDuration = good;
    zeroDuration.duration = 0;
    MediaThumbRequest negativeDuration = good;
    negativeDuration.duration = -5;
    char out[1024];
    fill(out, "untouched");
    EXPECT_EQ(manager_->getFrame(nullptr, 0.5, out), 1001);
    EXPECT_EQ(manager_->getFrame(&good, 0.5, nullptr), 1001);
    EXPECT_EQ(manager_->getFrame(&good, std::nan(""), out), 1001);
    EXPECT_EQ(manager_->getFrame(&noMedia, 0.5, out), 1001);
    EXPECT_EQ(manager_->getFrame(&zeroDuration, 0.5, out), 1001);
    EXPECT_EQ(manager_->getFrame(&negativeDuration, 0.5, out), 1001);
    EXPECT_STREQ(out, "untouched");
    EXPECT_TRUE(manager_.queued().empty());
    EXPECT_TRUE(probe_.calls().empty());
    EXPECT_FALSE(fs::exists(root_));
}

TEST_F(ThumbManagerFaultTest, AMissingMediaFileCompletesItsTaskWithNoFile) {
    queueSentinel();
    const MediaThumbRequest request = makeRequest(folder_.file("no-such-file.mp4"), root_, 0, 4 * kSecond, 4 * kSecond);
    char out[1024];
    fill(out, "untouched");
    EXPECT_EQ(requestUntilTaken(manager_, probe_, request, 0.5, out), 1001);
    EXPECT_STREQ(out, "untouched");
    ASSERT_TRUE(waitUntilDone({mediaKey(request)}));
    EXPECT_EQ(manager_.queued(), std::vector<std::string>{mediaKey(sentinel())});
    EXPECT_TRUE(recorder_.notices().empty());
    EXPECT_TRUE(filesUnder(root_).empty());
}

TEST_F(ThumbManagerFaultTest, ATextFileAsMediaCompletesItsTaskWithNoFile) {
    const std::string text = folder_.file("notes.mp4");
    MediaTest::writeText(text, "these are notes, not a video\n");
    queueSentinel();
    const MediaThumbRequest request = makeRequest(text, root_, 0, 4 * kSecond, 4 * kSecond);
    char out[1024];
    requestUntilTaken(manager_, probe_, request, 0.5, out);
    ASSERT_TRUE(waitUntilDone({mediaKey(request)}));
    EXPECT_EQ(manager_.queued(), std::vector<std::string>{mediaKey(sentinel())});
    EXPECT_TRUE(recorder_.notices().empty());
    EXPECT_TRUE(filesUnder(root_).empty());
    EXPECT_EQ(filesUnder(folder_.path()), std::vector<std::string>{text});
}

// Queues the small video with root as its folder, behind the sentinel, and
// waits for six steps of it (or for it to leave the queue); the worker pauses
// 20 ms between steps. The times of its steps.
class UnwritableRootTest : public ThumbManagerFixture {
protected:
    std::vector<std::chrono::steady_clock::time_point> stepsAt(const std::string& root) {
        const std::string video = smallVideo();
        manager_->setWorkerSleep(20);
        manager_->setThumbCount(8);
        queueSentinel();
        request_ = makeRequest(video, root, 0, 4 * kSecond, 4 * kSecond);
        const std::string key = mediaKey(request_);
        const std::string sentinelKey = mediaKey(sentinel());
        char out[1024];
        requestUntilTaken(manager_, probe_, request_, 0.5, out);
        EXPECT_TRUE(probe_.waitForCalls([&](const std::vector<FilterProbe::Call>& calls) {
            size_t steps = 0;
            for (const FilterProbe::Call& call : calls) {
                if (call.key == key) ++steps;
                if (call.key == sentinelKey && steps > 0) return true;  // it left the queue
                if (steps >= 6) return true;
            }
            return false;
        }));
        std::vector<std::chrono::steady_clock::time_point> times;
        for (const FilterProbe::Call& call : probe_.calls())
            if (call.key == key) times.push_back(call.when);
        return times;
    }
    void expectStillWaiting(const std::vector<std::chrono::steady_clock::time_point>& times) {
        EXPECT_EQ(manager_.queued(), (std::vector<std::string>{mediaKey(request_), mediaKey(sentinel())}));
        ASSERT_GE(times.size(), 6u);
        // Five pauses of at least 20 ms lie between the first and sixth step.
        EXPECT_GE(times[5] - times[0], std::chrono::milliseconds(100));
        EXPECT_TRUE(recorder_.notices().empty());
        EXPECT_TRUE(filesNamed(folder_.path(), ".tmp").empty());
        EXPECT_TRUE(filesNamed(folder_.path(), ".png").empty());
    }

    MediaThumbRequest request_{};
};

TEST_F(UnwritableRootTest, ARootUnderAFileLeavesNoFileAndTheTaskWaitsBetweenSteps) {
    const std::string plain = folder_.file("plain.txt");
    MediaTest::writeText(plain, "a file, not a folder\n");
    const std::string root = (fs::path(plain) / "root").string();
    const auto times = stepsAt(root);
    expectStillWaiting(times);
    EXPECT_EQ(sorted(filesUnder(folder_.path())), sorted({plain, smallVideo()}));
}

// Where a file stands in the cache folder's place, the folder counts as there;
// the pictures cannot be written, the callbacks are told of each path all the
// same, and the item completes with nothing on disk.
TEST_F(UnwritableRootTest, ACacheFolderNameTakenByAFileLeavesNoFileAndCompletesTheItem) {
    const std::string taken = cacheDir();
    createFile(taken, "a file where media_thumbnail would be\n");
    const std::string video = smallVideo();
    manager_->setThumbCount(8);
    queueSentinel();
    request_ = makeRequest(video, root_, 0, 4 * kSecond, 4 * kSecond);
    char out[1024];
    requestUntilTaken(manager_, probe_, request_, 0.5, out);
    ASSERT_TRUE(waitUntilDone({mediaKey(request_)}));
    EXPECT_EQ(manager_.queued(), std::vector<std::string>{mediaKey(sentinel())});
    EXPECT_EQ(sorted(filesUnder(folder_.path())), sorted({taken, video}));
    EXPECT_TRUE(filesNamed(folder_.path(), ".tmp").empty());
    const std::vector<Notice> notices = recorder_.notices();
    EXPECT_EQ(notices.size(), 8u);
    for (const Notice& notice : notices) EXPECT_FALSE(notice.existed) << notice.path;
}

TEST_F(UnwritableRootTest, AReadOnlyRootLeavesNoFileAndTheTaskWaitsBetweenSteps) {
    if (::geteuid() == 0) GTEST_SKIP() << "permissions do not hold for root";
    fs::create_directories(root_);
    fs::permissions(root_, fs::perms::owner_read | fs::perms::owner_exec);
    const auto times = stepsAt(root_);
    expectStillWaiting(times);
    EXPECT_FALSE(fs::exists(cacheDir()));
    fs::permissions(root_, fs::perms::owner_all);
}

TEST_F(UnwritableRootTest, AReadOnlyCacheFolderLeavesNoFileAndCompletesTheItem) {
    if (::geteuid() == 0) GTEST_SKIP() << "permissions do not hold for root";
    fs::create_directories(cacheDir());
    fs::permissions(cacheDir(), fs::perms::owner_read | fs::perms::owner_exec);
    manager_->setThumbCount(8);
    queueSentinel();
    request_ = makeRequest(smallVideo(), root_, 0, 4 * kSecond, 4 * kSecond);
    char out[1024];
    requestUntilTaken(manager_, probe_, request_, 0.5, out);
    ASSERT_TRUE(waitUntilDone({mediaKey(request_)}));
    EXPECT_TRUE(filesUnder(cacheDir()).empty());
    for (const Notice& notice : recorder_.notices()) EXPECT_FALSE(notice.existed) << notice.path;
    fs::permissions(cacheDir(), fs::perms::owner_all);
}

TEST_F(ThumbManagerFaultTest, DestroyingTheManagerWhileItDecodesReturnsPromptlyAndLeavesNoPartialFile) {
    const std::string video = smallVideo();
    ASSERT_EQ(manager_->setThumbSize(160, 90), 0);
    const MediaThumbRequest request = makeRequest(video, root_, 0, 4 * kSecond, 4 * kSecond);
    char out[1024];
    requestUntilTaken(manager_, probe_, request, 0.5, out);
    ASSERT_TRUE(recorder_.waitForCount(1));

    auto destroyed = std::async(std::launch::async, [held = manager_.take()]() mutable { held.reset(); });
    ASSERT_EQ(destroyed.wait_for(kGenerous), std::future_status::ready);
    destroyed.get();

    EXPECT_TRUE(filesNamed(folder_.path(), ".tmp").empty());
    std::set<std::string> announced;
    for (const Notice& notice : recorder_.notices()) announced.insert(notice.path);
    const std::vector<std::string> files = filesUnder(cacheDir());
    EXPECT_EQ(std::set<std::string>(files.begin(), files.end()), announced) << "every file written was announced";
    for (const std::string& file : files) {
        const Picture picture = readPicture(file);
        EXPECT_EQ(picture.status, 0) << file;
        EXPECT_EQ(picture.width, 160) << file;
        EXPECT_EQ(picture.height, 90) << file;
    }
}

}  // namespace
}  // namespace ZOR::test
