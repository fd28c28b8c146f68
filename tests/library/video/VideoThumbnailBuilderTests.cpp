// The video thumbnail builder on the scripted task service: requests answered
// from the cache, joined to the running task or sent as new tasks, the
// reports of the task, restarts, cancelling, the style identifier and the
// clearing of the cache.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BsVideoThumbnailBuilder.h"
#include "CapturingLogger.h"
#include "FakeDataModel.h"
#include "FakeFrameData.h"
#include "MediaTestSupport.h"
#include "ScriptedTaskService.h"
#include "VideoRecording.h"
#include "ZorUtils/ZorUtils.h"

namespace ZOR::test {
namespace {

constexpr int32_t kWidth = 4;
constexpr int32_t kHeight = 2;
constexpr int32_t kBytesPerPicture = kWidth * kHeight * 4;

std::string pointerText(const void* pointer) {
    std::ostringstream text;
    text << pointer;
    return text.str();
}

// The lines a function wrote.
std::vector<CapturedLine> linesOf(const CapturingSink& sink, const std::string& function) {
    std::vector<CapturedLine> found;
    for (const CapturedLine& line : sink.lines())
        if (line.function == function) found.push_back(line);
    return found;
}

// Runs an action inside the cache's next picture allocation, i.e. while a
// report is being handled, between reading and writing back its record.
std::function<void()> gInsideAllocation;

void* allocateWithAction(size_t size) {
    if (gInsideAllocation) {
        std::function<void()> action = std::move(gInsideAllocation);
        gInsideAllocation = nullptr;
        action();
    }
    return std::malloc(size);
}

class ScopedAllocationAction {
public:
    explicit ScopedAllocationAction(std::function<void()> action) {
        gInsideAllocation = std::move(action);
        previous_ = BsVideoThumbnailCacheManager::setAllocatorForTesting(&allocateWithAction);
    }
    ~ScopedAllocationAction() {
        BsVideoThumbnailCacheManager::setAllocatorForTesting(previous_);
        gInsideAllocation = nullptr;
    }
    ScopedAllocationAction(const ScopedAllocationAction&) = delete;
    ScopedAllocationAction& operator=(const ScopedAllocationAction&) = delete;

private:
    BsVideoThumbnailCacheManager::Allocator previous_ = nullptr;
};

class VideoBuilderTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetScriptedTasks();
        clip_ = newClip("media-1");
        builder_ = std::make_unique<BsVideoThumbnailBuilder>(&owner_);
        task_ = lastVideoTask();
        ASSERT_NE(task_, nullptr);
    }
    void TearDown() override {
        builder_.reset();
        clips_.clear();
    }

    // A clip held until the end of the test.
    FakeClip* newClip(const std::string& media, int32_t stream = 0) {
        clips_.push_back(FakeClip::storeVideo(media, stream));
        return clips_.back().get();
    }

    int32_t request(FakeClip* clip, std::vector<int64_t>& frames, uint32_t refresh = 0, int32_t stream = 0) {
        VideoThumbnailRequest r;
        r.clip = clip->asClip();
        r.width = kWidth;
        r.height = kHeight;
        r.streamId = stream;
        r.frames = frames.data();
        r.frameCount = static_cast<int32_t>(frames.size());
        r.refresh = refresh;
        return builder_->requestThumbnails(r);
    }
    int32_t request(FakeClip* clip, std::vector<int64_t>&& frames, uint32_t refresh = 0) {
        return request(clip, frames, refresh);
    }

    // A status-1 report of the task carrying the picture of time (value: its
    // pixels), on this thread.
    void reportFrame(int64_t token, int64_t time, unsigned char value) {
        task_->deliver(token, 1, newFrameData(time, kWidth, kHeight, value)->asData());
    }
    // The same report handed to the builder directly, for its result.
    int32_t processFrame(int64_t token, int64_t time, unsigned char value) {
        const auto data = newFrameData(time, kWidth, kHeight, value);
        BsTaskProgressInfo info;
        info.token = token;
        info.data = data->asData();
        return builder_->processChanged(nullptr, 0, 1, &info);
    }

    unsigned char* cachePicture(const VideoThumbnailKey& key, int64_t time, unsigned char value) {
        std::vector<unsigned char> bytes(kBytesPerPicture);
        for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = value;
        return builder_->cache().addThumbnail(key, time, kWidth, kHeight, bytes.data(), kBytesPerPicture);
    }

    // A PNG of width x height whose pixels are framePixel(value).
    std::string writePicture(const std::string& name, unsigned char value, int32_t width = kWidth,
                             int32_t height = kHeight) {
        std::vector<unsigned char> bytes(static_cast<size_t>(width) * static_cast<size_t>(height) * 4);
        const std::vector<unsigned char> pixel = framePixel(value);
        for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = pixel[i % 4];
        const std::string path = folder_.file(name);
        EXPECT_EQ(dumpPNG(width, height, bytes.data(), path.c_str(), -1), 0);
        return path;
    }

    IDmBaseObj* asBase(FakeClip* clip) { return static_cast<IDmBaseObj*>(clip->asClip()); }

    TempFolder folder_;
    RecordingVideoOwner owner_;
    std::vector<ZorRef<FakeClip>> clips_;
    FakeClip* clip_ = nullptr;
    std::unique_ptr<BsVideoThumbnailBuilder> builder_;
    std::shared_ptr<ScriptedTaskState> task_;
};

const VideoThumbnailKey kKey{"media-1", "", 0};

// --- Requests ---------------------------------------------------------------

TEST_F(VideoBuilderTest, ARequestWhoseFramesAreAllCachedIsDeliveredAtOnceWithoutATask) {
    unsigned char* first = cachePicture(kKey, 100000, 1);
    unsigned char* second = cachePicture(kKey, 200000, 2);
    unsigned char* third = cachePicture(kKey, 300000, 3);
    std::vector<int64_t> frames{300000, 100000, 200000};

    EXPECT_EQ(request(clip_, frames), 0);

    EXPECT_EQ(frames, (std::vector<int64_t>{100000, 200000, 300000}));  // sorted in place
    const auto deliveries = owner_.deliveries();
    ASSERT_EQ(deliveries.size(), 1u);
    EXPECT_EQ(deliveries[0].clip, clip_->asClip());
    EXPECT_EQ(deliveries[0].thread, std::this_thread::get_id());
    EXPECT_EQ(deliveries[0].width, kWidth);
    EXPECT_EQ(deliveries[0].height, kHeight);
    EXPECT_EQ(deliveries[0].count, 3);
    EXPECT_EQ(deliveries[0].bytesPerPicture, kBytesPerPicture);
    EXPECT_EQ(deliveries[0].frames, (std::vector<int64_t>{100000, 200000, 300000}));
    EXPECT_EQ(deliveries[0].pictures, (std::vector<unsigned char*>{first, second, third}));
    EXPECT_TRUE(task_->appends().empty());
    EXPECT_TRUE(task_->addFrames().empty());
    EXPECT_EQ(task_->startCount(), 0);
    EXPECT_EQ(builder_->taskCount(), 0u);
    EXPECT_EQ(clip_->references(), 1);
}

TEST_F(VideoBuilderTest, ARequestDeliversItsHitsAtOnceAndSendsItsMissesToTheTask) {
    unsigned char* cached = cachePicture(kKey, 200000, 2);

    EXPECT_EQ(request(clip_, {300000, 200000, 100000}), 0);

    const auto deliveries = owner_.deliveries();
    ASSERT_EQ(deliveries.size(), 1u);
    EXPECT_EQ(deliveries[0].thread, std::this_thread::get_id());
    EXPECT_EQ(deliveries[0].frames, (std::vector<int64_t>{200000}));
    EXPECT_EQ(deliveries[0].pictures, (std::vector<unsigned char*>{cached}));
    const auto appends = task_->appends();
    ASSERT_EQ(appends.size(), 1u);
    EXPECT_EQ(appends[0].clip, asBase(clip_));
    EXPECT_EQ(appends[0].times, (std::vector<int64_t>{100000, 300000}));
    EXPECT_EQ(appends[0].width, kWidth);
    EXPECT_EQ(appends[0].height, kHeight);
    EXPECT_EQ(appends[0].flags, 0u);
    EXPECT_EQ(appends[0].token, 1);
    EXPECT_EQ(task_->startCount(), 1);
    EXPECT_EQ(builder_->taskCount(), 1u);
    EXPECT_EQ(clip_->references(), 2);  // the record's
}

TEST_F(VideoBuilderTest, DuplicateFramesInARequestAreDeliveredOnce) {
    unsigned char* first = cachePicture(kKey, 100000, 1);
    unsigned char* second = cachePicture(kKey, 200000, 2);
    std::vector<int64_t> frames{200000, 100000, 200000, 400000, 100000, 400000, 100000};

    EXPECT_EQ(request(clip_, frames), 0);

    const auto deliveries = owner_.deliveries();
    ASSERT_EQ(deliveries.size(), 1u);
    EXPECT_EQ(deliveries[0].count, 2);
    EXPECT_EQ(deliveries[0].frames, (std::vector<int64_t>{100000, 200000}));
    EXPECT_EQ(deliveries[0].pictures, (std::vector<unsigned char*>{first, second}));
    const auto appends = task_->appends();
    ASSERT_EQ(appends.size(), 1u);
    EXPECT_EQ(appends[0].times, (std::vector<int64_t>{400000}));

    // The one missing frame arrives once and is delivered once.
    task_->deliver(1, 1);
    reportFrame(1, 400000, 40);
    const auto pictures = owner_.pictureDeliveries();
    ASSERT_EQ(pictures.size(), 2u);
    EXPECT_EQ(pictures[1].frames, (std::vector<int64_t>{400000}));
}

TEST_F(VideoBuilderTest, ASecondRequestWhoseMissesTheRunningTaskAwaitsAddsNothing) {
    ASSERT_EQ(request(clip_, {100000, 200000, 300000}), 0);

    EXPECT_EQ(request(clip_, {300000, 100000}), 0);

    EXPECT_EQ(task_->appends().size(), 1u);
    EXPECT_TRUE(task_->addFrames().empty());
    EXPECT_TRUE(task_->cancels().empty());
    EXPECT_EQ(builder_->taskCount(), 1u);
    EXPECT_TRUE(owner_.deliveries().empty());
    EXPECT_EQ(clip_->references(), 2);

    // The running task's outstanding frames are as they were.
    task_->deliver(1, 1);
    const auto calls = clip_->filesCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].frames, (std::vector<int64_t>{100000, 200000, 300000}));
}

TEST_F(VideoBuilderTest, ARequestWithANewFrameAddsFramesAndReplacesTheOutstandingList) {
    ASSERT_EQ(request(clip_, {100000, 200000, 300000}), 0);

    EXPECT_EQ(request(clip_, {400000, 300000}), 0);

    const auto added = task_->addFrames();
    ASSERT_EQ(added.size(), 1u);
    EXPECT_EQ(added[0].token, 1);
    EXPECT_EQ(added[0].times, (std::vector<int64_t>{300000, 400000}));
    EXPECT_EQ(task_->appends().size(), 1u);
    EXPECT_TRUE(task_->cancels().empty());
    EXPECT_EQ(builder_->taskCount(), 1u);
    EXPECT_EQ(clip_->references(), 2);

    // The next report is read as the first of the batch, over the new list.
    task_->deliver(1, 1);
    const auto calls = clip_->filesCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].frames, (std::vector<int64_t>{300000, 400000}));
}

TEST_F(VideoBuilderTest, ANewFrameTheRunningTaskRefusesStartsANewTask) {
    ASSERT_EQ(request(clip_, {100000, 200000}), 0);
    task_->setAddFramesResult(1001);

    EXPECT_EQ(request(clip_, {200000, 300000}), 0);

    EXPECT_EQ(task_->addFrames().size(), 1u);
    EXPECT_EQ(task_->cancels(), (std::vector<int64_t>{1}));
    const auto appends = task_->appends();
    ASSERT_EQ(appends.size(), 2u);
    EXPECT_EQ(appends[1].token, 2);
    EXPECT_EQ(appends[1].times, (std::vector<int64_t>{200000, 300000}));
    EXPECT_EQ(builder_->taskCount(), 1u);
    EXPECT_EQ(clip_->references(), 2);
}

TEST_F(VideoBuilderTest, AFrameAddedWhileAReportIsHandledIsStillTaken) {
    ASSERT_EQ(request(clip_, {100000, 200000, 300000}), 0);
    task_->deliver(1, 1);  // the first report: nothing stored yet
    {
        // The request comes while the report of 100000 is being stored.
        ScopedAllocationAction joining([this] { EXPECT_EQ(request(clip_, {400000}), 0); });
        reportFrame(1, 100000, 81);
    }
    const auto added = task_->addFrames();
    ASSERT_EQ(added.size(), 1u);
    EXPECT_EQ(added[0].times, (std::vector<int64_t>{400000}));

    // The task brings the added frame (stored before it is reported).
    clip_->setFile(400000, writePicture("d.png", 84));
    reportFrame(1, 400000, 84);

    const auto pictures = owner_.pictureDeliveries();
    ASSERT_EQ(pictures.size(), 2u);
    EXPECT_EQ(pictures[0].frames, (std::vector<int64_t>{100000}));
    EXPECT_EQ(pictures[1].frames, (std::vector<int64_t>{400000}));
    EXPECT_EQ(pictures[1].firstPixels[0], framePixel(84));
}

TEST_F(VideoBuilderTest, ARefreshClearsTheClipsCacheAndAlwaysStartsANewTask) {
    ASSERT_EQ(request(clip_, {100000, 200000}), 0);
    ASSERT_NE(cachePicture(kKey, 100000, 1), nullptr);
    ScopedCapture capture;

    EXPECT_EQ(request(clip_, {100000, 200000}, /*refresh=*/1), 0);

    EXPECT_EQ(owner_.changed(), (std::vector<IDmClip*>{clip_->asClip()}));
    EXPECT_FALSE(builder_->cache().containsKey(kKey));
    const auto lines = linesOf(capture.sink(), "ZOR::BsVideoThumbnailBuilder::clearCache");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].severity, IBsLogger::Info);
    EXPECT_EQ(lines[0].text, "clear cache clipPtr:" + pointerText(clip_->asClip()) + "mediaId:media-1");
    EXPECT_TRUE(owner_.deliveries().empty());  // the cached picture went first

    EXPECT_EQ(task_->cancels(), (std::vector<int64_t>{1}));
    EXPECT_TRUE(task_->addFrames().empty());
    const auto appends = task_->appends();
    ASSERT_EQ(appends.size(), 2u);
    EXPECT_EQ(appends[1].token, 2);
    EXPECT_EQ(appends[1].clip, asBase(clip_));
    EXPECT_EQ(appends[1].times, (std::vector<int64_t>{100000, 200000}));
    EXPECT_EQ(appends[1].flags, 1u);
    EXPECT_EQ(builder_->taskCount(), 1u);
    EXPECT_EQ(clip_->references(), 2);

    // The cancelled task's reports are not taken any more.
    reportFrame(1, 100000, 5);
    EXPECT_TRUE(owner_.deliveries().empty());
}

TEST_F(VideoBuilderTest, ARefreshWithNothingCachedStillStartsANewTaskWithoutANotice) {
    ScopedCapture capture;

    EXPECT_EQ(request(clip_, {100000}, /*refresh=*/1), 0);

    EXPECT_TRUE(owner_.changed().empty());
    EXPECT_TRUE(linesOf(capture.sink(), "ZOR::BsVideoThumbnailBuilder::clearCache").empty());
    EXPECT_TRUE(task_->cancels().empty());
    const auto appends = task_->appends();
    ASSERT_EQ(appends.size(), 1u);
    EXPECT_EQ(appends[0].flags, 1u);
    EXPECT_EQ(builder_->taskCount(), 1u);
}

// --- Reports ------------------------------------------------------------------

TEST_F(VideoBuilderTest, AReportForAnUnknownTokenReturns1001Silently) {
    ASSERT_EQ(request(clip_, {100000}), 0);
    ScopedCapture capture;

    EXPECT_EQ(processFrame(42, 100000, 9), 1001);

    EXPECT_TRUE(capture.sink().lines().empty());
    EXPECT_TRUE(owner_.deliveries().empty());
    EXPECT_TRUE(task_->cancels().empty());
    EXPECT_TRUE(clip_->filesCalls().empty());
    EXPECT_EQ(builder_->taskCount(), 1u);
    EXPECT_EQ(clip_->references(), 2);
}

TEST_F(VideoBuilderTest, AReportOfAFrameThatIsNotOutstandingIsLoggedAndRefused) {
    ASSERT_EQ(request(clip_, {100000, 200000}), 0);
    task_->deliver(1, 1);  // the first report: nothing stored yet
    ScopedCapture capture;

    EXPECT_EQ(processFrame(1, 500000, 9), 1001);

    const auto lines = linesOf(capture.sink(), "ZOR::BsVideoThumbnailBuilder::onTaskProcessing");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].severity, IBsLogger::Error);
    EXPECT_EQ(lines[0].text, "is not in missingFrames,frame 500000");
    EXPECT_TRUE(owner_.pictureDeliveries().empty());
    EXPECT_EQ(builder_->cache().getThumbnail(kKey, 500000, kWidth, kHeight), nullptr);
    EXPECT_TRUE(task_->cancels().empty());
    EXPECT_EQ(builder_->taskCount(), 1u);

    // The outstanding frames are untouched.
    reportFrame(1, 100000, 10);
    const auto pictures = owner_.pictureDeliveries();
    ASSERT_EQ(pictures.size(), 1u);
    EXPECT_EQ(pictures[0].frames, (std::vector<int64_t>{100000}));
}

TEST_F(VideoBuilderTest, TheLastOutstandingFrameCancelsTheTokenAndRemovesTheRecord) {
    ASSERT_EQ(request(clip_, {100000, 200000}), 0);
    task_->deliver(1, 1);  // the first report: nothing stored yet

    reportFrame(1, 100000, 11);
    auto pictures = owner_.pictureDeliveries();
    ASSERT_EQ(pictures.size(), 1u);
    EXPECT_EQ(pictures[0].frames, (std::vector<int64_t>{100000}));
    EXPECT_EQ(pictures[0].firstPixels[0], framePixel(11));
    EXPECT_EQ(pictures[0].pictures[0], builder_->cache().getThumbnail(kKey, 100000, kWidth, kHeight));
    EXPECT_EQ(pictures[0].thread, std::this_thread::get_id());
    EXPECT_TRUE(task_->cancels().empty());
    EXPECT_EQ(builder_->taskCount(), 1u);

    reportFrame(1, 200000, 12);
    pictures = owner_.pictureDeliveries();
    ASSERT_EQ(pictures.size(), 2u);
    EXPECT_EQ(pictures[1].frames, (std::vector<int64_t>{200000}));
    EXPECT_EQ(pictures[1].firstPixels[0], framePixel(12));
    EXPECT_EQ(task_->cancels(), (std::vector<int64_t>{1}));
    EXPECT_EQ(builder_->taskCount(), 0u);
    EXPECT_EQ(clip_->references(), 1);

    // Later reports of the token are not taken; the pictures are cached.
    reportFrame(1, 200000, 13);
    EXPECT_EQ(owner_.pictureDeliveries().size(), 2u);
    ASSERT_EQ(request(clip_, {200000, 100000}), 0);
    pictures = owner_.pictureDeliveries();
    ASSERT_EQ(pictures.size(), 3u);
    EXPECT_EQ(pictures[2].frames, (std::vector<int64_t>{100000, 200000}));
    EXPECT_EQ(pictures[2].firstPixels[0], framePixel(11));
    EXPECT_EQ(pictures[2].firstPixels[1], framePixel(12));
    EXPECT_EQ(task_->appends().size(), 1u);
}

TEST_F(VideoBuilderTest, TheFirstReportLoadsTheStoredFilesAndKeepsTheStillMissingFrames) {
    clip_->setFile(100000, writePicture("a.png", 21));
    clip_->setFile(300000, writePicture("c.png", 23));
    ASSERT_EQ(request(clip_, {300000, 200000, 100000}), 0);

    task_->deliver(1, 1);

    EXPECT_EQ(clip_->preparedSizes(), (std::vector<std::pair<int32_t, int32_t>>{{kWidth, kHeight}}));
    auto calls = clip_->filesCalls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].frames, (std::vector<int64_t>{100000, 200000, 300000}));
    auto pictures = owner_.pictureDeliveries();
    ASSERT_EQ(pictures.size(), 1u);
    EXPECT_EQ(pictures[0].frames, (std::vector<int64_t>{100000, 300000}));
    EXPECT_EQ(pictures[0].count, 2);
    EXPECT_EQ(pictures[0].firstPixels[0], framePixel(21));
    EXPECT_EQ(pictures[0].firstPixels[1], framePixel(23));
    EXPECT_TRUE(task_->cancels().empty());
    EXPECT_EQ(builder_->taskCount(), 1u);

    // The still-missing frame comes with its own report.
    reportFrame(1, 200000, 22);
    pictures = owner_.pictureDeliveries();
    ASSERT_EQ(pictures.size(), 2u);
    EXPECT_EQ(pictures[1].frames, (std::vector<int64_t>{200000}));
    EXPECT_EQ(pictures[1].firstPixels[0], framePixel(22));
    EXPECT_EQ(clip_->filesCalls().size(), 1u);
    EXPECT_EQ(task_->cancels(), (std::vector<int64_t>{1}));
    EXPECT_EQ(builder_->taskCount(), 0u);
    EXPECT_EQ(builder_->cache().pictureCount(), 3u);
}

TEST_F(VideoBuilderTest, TheFirstReportTakesItsOwnFrameFromItsDataObject) {
    // The store lists the frame, but the report's picture is what is kept.
    clip_->setFile(100000, folder_.file("not-written.png"));
    ASSERT_EQ(request(clip_, {100000, 200000}), 0);
    ScopedCapture capture;

    reportFrame(1, 100000, 31);

    const auto pictures = owner_.pictureDeliveries();
    ASSERT_EQ(pictures.size(), 1u);
    EXPECT_EQ(pictures[0].frames, (std::vector<int64_t>{100000}));
    EXPECT_EQ(pictures[0].firstPixels[0], framePixel(31));
    EXPECT_TRUE(linesOf(capture.sink(), "ZOR::BsVideoThumbnailCacheManager::addThumbnail").empty());
    EXPECT_EQ(builder_->taskCount(), 1u);
}

TEST_F(VideoBuilderTest, APictureFileOfAnotherSizeIsStillDelivered) {
    clip_->setFile(100000, writePicture("wide.png", 41, 2 * kWidth, 2 * kHeight));
    ASSERT_EQ(request(clip_, {100000}), 0);
    ScopedCapture capture;

    task_->deliver(1, 1);

    const auto pictures = owner_.pictureDeliveries();
    ASSERT_EQ(pictures.size(), 1u);
    EXPECT_EQ(pictures[0].frames, (std::vector<int64_t>{100000}));
    EXPECT_EQ(pictures[0].width, kWidth);
    EXPECT_EQ(pictures[0].height, kHeight);
    EXPECT_EQ(pictures[0].bytesPerPicture, kBytesPerPicture);
    EXPECT_EQ(pictures[0].firstPixels[0], framePixel(41));
    const auto lines = linesOf(capture.sink(), "ZOR::BsVideoThumbnailCacheManager::addThumbnail");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].severity, IBsLogger::Warning);
    EXPECT_EQ(lines[0].text, "size not match, width = 4, height = 2, bufferWidth = 8, bufferHeight = 4");
    EXPECT_EQ(task_->cancels(), (std::vector<int64_t>{1}));
    EXPECT_EQ(builder_->taskCount(), 0u);
}

TEST_F(VideoBuilderTest, Status7RestartsTheOutstandingFramesUnderANewToken) {
    task_->setNextToken(10);
    clip_->setFile(100000, writePicture("a.png", 51));
    ASSERT_EQ(request(clip_, {100000, 200000, 300000}), 0);
    task_->deliver(10, 1);
    ASSERT_EQ(owner_.pictureDeliveries().size(), 1u);
    ScopedCapture capture;

    task_->deliver(10, 7);

    const auto lines = linesOf(capture.sink(), "ZOR::BsVideoThumbnailBuilder::processChanged");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].severity, IBsLogger::Trace);
    EXPECT_EQ(lines[0].text, "status 7 token:10");
    const auto appends = task_->appends();
    ASSERT_EQ(appends.size(), 2u);
    EXPECT_EQ(appends[1].token, 11);
    EXPECT_EQ(appends[1].clip, asBase(clip_));
    EXPECT_EQ(appends[1].times, (std::vector<int64_t>{200000, 300000}));
    EXPECT_EQ(appends[1].width, kWidth);
    EXPECT_EQ(appends[1].height, kHeight);
    EXPECT_EQ(appends[1].flags, 0u);
    EXPECT_EQ(builder_->taskCount(), 1u);
    EXPECT_EQ(clip_->references(), 2);

    // The old token is gone; the new one brings the outstanding frames (each
    // stored before it is reported, as the task does).
    reportFrame(10, 200000, 60);
    EXPECT_EQ(owner_.pictureDeliveries().size(), 1u);
    clip_->setFile(200000, writePicture("b.png", 52));
    reportFrame(11, 200000, 52);
    clip_->setFile(300000, writePicture("c.png", 53));
    reportFrame(11, 300000, 53);
    const auto pictures = owner_.pictureDeliveries();
    ASSERT_EQ(pictures.size(), 3u);
    EXPECT_EQ(pictures[1].frames, (std::vector<int64_t>{200000}));
    EXPECT_EQ(pictures[1].firstPixels[0], framePixel(52));
    EXPECT_EQ(pictures[2].frames, (std::vector<int64_t>{300000}));
    EXPECT_EQ(pictures[2].firstPixels[0], framePixel(53));
    EXPECT_EQ(task_->cancels(), (std::vector<int64_t>{11}));
    EXPECT_EQ(builder_->taskCount(), 0u);
    EXPECT_EQ(clip_->references(), 1);
}

// A restart keeps what the record knew: after its batch report was handled,
// the new token's reports are single-frame reports, each needing its frame.
TEST_F(VideoBuilderTest, ARestartedRequestKeepsReportingFrameByFrame) {
    ASSERT_EQ(request(clip_, {100000, 200000}), 0);
    task_->deliver(1, 1);  // the first report of token 1: a batch report, nothing stored yet
    task_->deliver(1, 7);
    ASSERT_EQ(task_->appends().size(), 2u);
    ASSERT_EQ(task_->appends()[1].token, 2);

    // A report of the new token without a frame is not read as a batch.
    clip_->setFile(100000, writePicture("a.png", 71));
    clip_->setFile(200000, writePicture("b.png", 72));
    ScopedCapture capture;
    task_->deliver(2, 1);
    const auto lines = linesOf(capture.sink(), "ZOR::BsVideoThumbnailBuilder::onTaskProcessing");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].severity, IBsLogger::Error);
    EXPECT_EQ(lines[0].text, "data is null,token 2");
    EXPECT_EQ(clip_->filesCalls().size(), 1u);  // the store is not read again
    EXPECT_TRUE(owner_.pictureDeliveries().empty());
    EXPECT_EQ(builder_->taskCount(), 1u);

    // Its frames, as the task reports them.
    reportFrame(2, 100000, 71);
    reportFrame(2, 200000, 72);
    const auto pictures = owner_.pictureDeliveries();
    ASSERT_EQ(pictures.size(), 2u);
    EXPECT_EQ(pictures[0].frames, (std::vector<int64_t>{100000}));
    EXPECT_EQ(pictures[0].firstPixels[0], framePixel(71));
    EXPECT_EQ(pictures[1].frames, (std::vector<int64_t>{200000}));
    EXPECT_EQ(pictures[1].firstPixels[0], framePixel(72));
    EXPECT_EQ(task_->cancels(), (std::vector<int64_t>{2}));
    EXPECT_EQ(builder_->taskCount(), 0u);
}

TEST_F(VideoBuilderTest, TheOtherFinalStatusesAreLoggedAndDropTheRecord) {
    int64_t token = 1;
    for (int32_t status : {2, 3, 4}) {
        SCOPED_TRACE(status);
        ASSERT_EQ(request(clip_, {100000}), 0);
        ASSERT_EQ(builder_->taskCount(), 1u);
        ScopedCapture capture;

        task_->deliver(token, status);

        const auto lines = linesOf(capture.sink(), "ZOR::BsVideoThumbnailBuilder::processChanged");
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].severity, IBsLogger::Trace);
        EXPECT_EQ(lines[0].text, "status " + std::to_string(status) + " token:" + std::to_string(token));
        EXPECT_EQ(builder_->taskCount(), 0u);
        EXPECT_EQ(clip_->references(), 1);
        EXPECT_EQ(task_->appends().size(), static_cast<size_t>(token));  // no restart
        reportFrame(token, 100000, 1);
        EXPECT_TRUE(owner_.pictureDeliveries().empty());
        ++token;
    }
    EXPECT_TRUE(task_->cancels().empty());
}

// --- Cancelling -----------------------------------------------------------------

TEST_F(VideoBuilderTest, CancelClipDropsTheClipsRecordAndCancelsItsToken) {
    FakeClip* other = newClip("media-2");
    ASSERT_EQ(request(clip_, {100000}), 0);
    ASSERT_EQ(request(other, {100000}), 0);

    builder_->cancelClip(clip_->asClip());

    EXPECT_EQ(task_->cancels(), (std::vector<int64_t>{1}));
    EXPECT_EQ(builder_->taskCount(), 1u);
    EXPECT_EQ(clip_->references(), 1);
    EXPECT_EQ(other->references(), 2);
    reportFrame(1, 100000, 1);
    EXPECT_TRUE(owner_.deliveries().empty());
    reportFrame(2, 100000, 2);  // the other clip's first report
    EXPECT_EQ(owner_.pictureDeliveries().size(), 0u);
    EXPECT_EQ(other->filesCalls().size(), 1u);

    builder_->cancelClip(clip_->asClip());  // nothing left: no cancel
    EXPECT_EQ(task_->cancels(), (std::vector<int64_t>{1}));
}

TEST_F(VideoBuilderTest, CancelTaskDropsTheRecordAndCancelsItsToken) {
    FakeClip* other = newClip("media-2");
    ASSERT_EQ(request(clip_, {100000}), 0);
    ASSERT_EQ(request(other, {100000}), 0);

    builder_->cancelTask(2);

    EXPECT_EQ(task_->cancels(), (std::vector<int64_t>{2}));
    EXPECT_EQ(builder_->taskCount(), 1u);
    EXPECT_EQ(other->references(), 1);
    EXPECT_EQ(clip_->references(), 2);
    task_->deliver(2, 1);
    EXPECT_TRUE(other->filesCalls().empty());
}

// --- Style identifier -------------------------------------------------------------

TEST_F(VideoBuilderTest, TheStyleIdIsTheTextOfTheFirstAppliedVisualStyleItem) {
    const auto skippedA = newStyleData({"IImageStylizesData"}, "not-applied");
    const auto skippedB = newStyleData({"IImageStylizesData"}, "not-visual");
    const auto warm = newStyleData({"IImageStylizesData"}, "warm");
    const auto later = newStyleData({"IImageStylizesData"}, "later");
    const auto items = makeRef<FakeAttachedItemList>();
    items->add(/*applied=*/false, /*visualStyle=*/true, {skippedA.get()});
    items->add(true, false, {skippedB.get()});
    items->add(true, true, {warm.get(), later.get()});
    items->add(true, true, {later.get()});
    FakeClip* styled = newClip("media-1");
    styled->setAttachedItems(items);

    EXPECT_EQ(BsVideoThumbnailBuilder::styleIdOf(styled->asClip()), "warm");
}

TEST_F(VideoBuilderTest, TheStyleIdTakesStylizeDataBeforeTemplateData) {
    const auto stylize = newStyleData({"IImageStylizesData"}, "stylize");
    const auto templ = newStyleData({"IAITemplateGenerateData"}, "template");
    const auto both = makeRef<FakeTwoFacedData>(stylize.get(), templ.get());
    const auto bothItems = makeRef<FakeAttachedItemList>();
    bothItems->add(true, true, {both.get()});
    FakeClip* twoFaced = newClip("media-1");
    twoFaced->setAttachedItems(bothItems);

    const auto templateItems = makeRef<FakeAttachedItemList>();
    templateItems->add(true, true, {templ.get()});
    FakeClip* templated = newClip("media-1");
    templated->setAttachedItems(templateItems);

    EXPECT_EQ(BsVideoThumbnailBuilder::styleIdOf(twoFaced->asClip()), "stylize");
    EXPECT_EQ(BsVideoThumbnailBuilder::styleIdOf(templated->asClip()), "template");
}

TEST_F(VideoBuilderTest, TheStyleIdIsEmptyWithoutAUsableFirstStyleItem) {
    // No list, an empty list.
    EXPECT_EQ(BsVideoThumbnailBuilder::styleIdOf(clip_->asClip()), "");
    FakeClip* emptyClip = newClip("media-1");
    emptyClip->setAttachedItems(makeRef<FakeAttachedItemList>());
    EXPECT_EQ(BsVideoThumbnailBuilder::styleIdOf(emptyClip->asClip()), "");

    const auto other = newStyleData({"IOtherData"}, "other");
    const auto good = newStyleData({"IImageStylizesData"}, "good");
    const auto noText = newStyleData({"IImageStylizesData"}, nullptr);

    // The first style item's data is of neither kind: a later one is not looked at.
    const auto neither = makeRef<FakeAttachedItemList>();
    neither->add(true, true, {other.get()});
    neither->add(true, true, {good.get()});
    FakeClip* neitherClip = newClip("media-1");
    neitherClip->setAttachedItems(neither);
    EXPECT_EQ(BsVideoThumbnailBuilder::styleIdOf(neitherClip->asClip()), "");

    // The first style item has no data.
    const auto noData = makeRef<FakeAttachedItemList>();
    noData->add(true, true, {});
    noData->add(true, true, {good.get()});
    FakeClip* noDataClip = newClip("media-1");
    noDataClip->setAttachedItems(noData);
    EXPECT_EQ(BsVideoThumbnailBuilder::styleIdOf(noDataClip->asClip()), "");

    // The data has no text.
    const auto textless = makeRef<FakeAttachedItemList>();
    textless->add(true, true, {noText.get()});
    FakeClip* textlessClip = newClip("media-1");
    textlessClip->setAttachedItems(textless);
    EXPECT_EQ(BsVideoThumbnailBuilder::styleIdOf(textlessClip->asClip()), "");
}

TEST_F(VideoBuilderTest, TheStyleIdIsPartOfTheCacheKey) {
    const auto items = makeRef<FakeAttachedItemList>();
    items->add(true, true, {newStyleData({"IImageStylizesData"}, "warm").get()});
    FakeClip* styled = newClip("media-1");
    styled->setAttachedItems(items);
    const VideoThumbnailKey styledKey{"media-1", "warm", 0};
    unsigned char* plain = cachePicture(kKey, 100000, 1);
    unsigned char* warmPicture = cachePicture(styledKey, 200000, 2);

    // The unstyled picture is no hit for the styled clip, the styled one is.
    ASSERT_EQ(request(styled, {100000, 200000}), 0);
    auto deliveries = owner_.deliveries();
    ASSERT_EQ(deliveries.size(), 1u);
    EXPECT_EQ(deliveries[0].frames, (std::vector<int64_t>{200000}));
    EXPECT_EQ(deliveries[0].pictures, (std::vector<unsigned char*>{warmPicture}));
    ASSERT_EQ(task_->appends().size(), 1u);
    EXPECT_EQ(task_->appends()[0].times, (std::vector<int64_t>{100000}));

    // What the task brings is stored under the styled key.
    task_->deliver(1, 1);
    reportFrame(1, 100000, 3);
    unsigned char* stored = builder_->cache().getThumbnail(styledKey, 100000, kWidth, kHeight);
    ASSERT_NE(stored, nullptr);
    EXPECT_NE(stored, plain);
    EXPECT_EQ(builder_->cache().getThumbnail(kKey, 100000, kWidth, kHeight), plain);

    // And the plain clip still finds its own.
    owner_.clear();
    ASSERT_EQ(request(clip_, {100000}), 0);
    deliveries = owner_.deliveries();
    ASSERT_EQ(deliveries.size(), 1u);
    EXPECT_EQ(deliveries[0].pictures, (std::vector<unsigned char*>{plain}));
}

// --- Clearing -------------------------------------------------------------------

TEST_F(VideoBuilderTest, AClipChangeKeepsTheCacheWhileTheTimelineStillUsesTheMedia) {
    ASSERT_NE(cachePicture(kKey, 100000, 1), nullptr);
    const auto timeline = makeRef<FakeTimeline>(/*usesEveryMedia=*/true);
    ScopedCapture capture;

    EXPECT_EQ(builder_->clearCacheOnClipChange(timeline.get(), clip_->asClip()), 0);

    EXPECT_EQ(timeline->asked(), (std::vector<std::string>{"media-1"}));
    EXPECT_TRUE(builder_->cache().containsKey(kKey));
    EXPECT_TRUE(owner_.changed().empty());
    EXPECT_TRUE(linesOf(capture.sink(), "ZOR::BsVideoThumbnailBuilder::clearCache").empty());
}

TEST_F(VideoBuilderTest, AClipChangeClearsTheCacheWhenTheTimelineNoLongerUsesTheMedia) {
    ASSERT_NE(cachePicture(kKey, 100000, 1), nullptr);
    ASSERT_NE(cachePicture({"media-2", "", 0}, 100000, 2), nullptr);
    const auto timeline = makeRef<FakeTimeline>(/*usesEveryMedia=*/false);
    ScopedCapture capture;

    EXPECT_EQ(builder_->clearCacheOnClipChange(timeline.get(), clip_->asClip()), 0);

    EXPECT_EQ(timeline->asked(), (std::vector<std::string>{"media-1"}));
    EXPECT_FALSE(builder_->cache().containsKey(kKey));
    EXPECT_TRUE(builder_->cache().containsKey({"media-2", "", 0}));
    EXPECT_EQ(owner_.changed(), (std::vector<IDmClip*>{clip_->asClip()}));
    const auto lines = linesOf(capture.sink(), "ZOR::BsVideoThumbnailBuilder::clearCache");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "clear cache clipPtr:" + pointerText(clip_->asClip()) + "mediaId:media-1");

    // A clip without a video feature is refused.
    EXPECT_EQ(builder_->clearCacheOnClipChange(nullptr, FakeClip::plain().get()), 1001);
}

}  // namespace
}  // namespace ZOR::test
