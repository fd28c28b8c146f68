// The video thumbnail builder on the real task service and a real timeline
// (createTimeline), over a video made by the ffmpeg command whose colour
// changes every second, with the frame store in a folder of the test.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BsDataStructure/BsDataStructure.h"
#include "BsVideoThumbnailBuilder.h"
#include "CapturingLogger.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmTimeline.h"
#include "MediaTestSupport.h"
#include "VideoRecording.h"
#include "WriteFaults.h"

namespace ZOR::test {
namespace {

using MediaTest::ffmpeg;

constexpr int64_t kSecond = 10'000'000;  // cns
constexpr int32_t kWidth = 160;
constexpr int32_t kHeight = 90;
constexpr int32_t kBytesPerPicture = kWidth * kHeight * 4;
constexpr int kTimes = 20;

struct Colour {
    int r;
    int g;
    int b;
};
// The colour of each second of the video.
const Colour kColours[] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {255, 255, 0}};

// Times 0, 0.2 s, ... 3.8 s: five in each second.
std::vector<int64_t> twentyTimes() {
    std::vector<int64_t> times;
    for (int i = 0; i < kTimes; ++i) times.push_back(i * kSecond / 5);
    return times;
}

// Keeps every delivery (pictures copied) and changed clip.
class Recorder final : public RecordingVideoOwner {
public:
    Recorder() : RecordingVideoOwner(Pixels::All) {}
};

std::string pointerText(const void* pointer) {
    std::ostringstream text;
    text << pointer;
    return text.str();
}

std::vector<std::string> textsOf(const CapturingSink& sink, const std::string& function) {
    std::vector<std::string> found;
    for (const CapturedLine& line : sink.lines())
        if (line.function == function) found.push_back(line.text);
    return found;
}

// Checks the deliveries: each ascending and in step, of the request's size,
// every frame once, each with the colour of its second at its centre. The
// delivered frames, in delivery order.
std::vector<int64_t> checkDeliveries(const std::vector<VideoDelivery>& deliveries, IDmClip* clip) {
    std::vector<int64_t> all;
    for (const VideoDelivery& delivery : deliveries) {
        EXPECT_EQ(delivery.clip, clip);
        EXPECT_EQ(delivery.width, kWidth);
        EXPECT_EQ(delivery.height, kHeight);
        EXPECT_EQ(delivery.bytesPerPicture, kBytesPerPicture);
        EXPECT_EQ(delivery.count, static_cast<int32_t>(delivery.frames.size()));
        EXPECT_EQ(delivery.copies.size(), delivery.frames.size());
        EXPECT_TRUE(std::is_sorted(delivery.frames.begin(), delivery.frames.end()));
        EXPECT_EQ(std::adjacent_find(delivery.frames.begin(), delivery.frames.end()), delivery.frames.end());
        for (size_t i = 0; i < delivery.frames.size() && i < delivery.copies.size(); ++i) {
            const int64_t time = delivery.frames[i];
            all.push_back(time);
            const Colour expected = kColours[std::clamp<int64_t>(time / kSecond, 0, 3)];
            const size_t centre = (static_cast<size_t>(kHeight / 2) * kWidth + kWidth / 2) * 4;
            const std::vector<unsigned char>& picture = delivery.copies[i];
            EXPECT_NEAR(picture[centre], expected.r, 40) << "time " << time;
            EXPECT_NEAR(picture[centre + 1], expected.g, 40) << "time " << time;
            EXPECT_NEAR(picture[centre + 2], expected.b, 40) << "time " << time;
            EXPECT_EQ(picture[centre + 3], 255) << "time " << time;
        }
    }
    std::vector<int64_t> sorted = all;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(sorted, twentyTimes()) << "every time once";
    return all;
}

class VideoRealServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        store_ = folder_.file("store");
        setFrameStoreRoot(store_.c_str());
        video_ = folder_.file("colours.mp4");
        MediaTest::ColourVideo colours;
        colours.colours = {"0xFF0000", "0x00FF00", "0x0000FF", "0xFFFF00"};
        colours.width = 160;
        colours.height = 90;
        ASSERT_TRUE(ffmpeg(MediaTest::colourVideoArguments(video_, colours)));

        DmClipDesc clip;
        clip.name = "colours";
        clip.mediaPath = video_;
        clip.begin = 0;
        clip.end = 4 * kSecond;
        clip.markIn = 0;
        clip.markOut = 4 * kSecond;
        DmTrackDesc track;
        track.name = "video";
        track.kind = DmTrackVideo;
        track.clips.push_back(clip);
        DmTimelineDesc desc;
        desc.name = "timeline";
        desc.tracks.push_back(track);
        std::string error;
        timeline_ = ZorRef<IDmTimeline>::adopt(createTimeline(desc, &error));
        ASSERT_NE(timeline_.get(), nullptr) << error;
        clip_ = timeline_->clip(0, 0);
        ASSERT_NE(clip_, nullptr);
        ASSERT_NE(clip_->queryInterface("IDmVideoFeature"), nullptr);
        char id[1024] = {};
        clip_->mediaId(id, sizeof id);
        mediaId_ = std::string(id).substr(0, 63);  // as the builder reads it: 64 bytes
    }
    void TearDown() override {
        builder_.reset();
        timeline_.reset();
        setFrameStoreRoot(nullptr);
    }

    BsVideoThumbnailBuilder& builder() {
        if (!builder_) builder_ = std::make_unique<BsVideoThumbnailBuilder>(&recorder_);
        return *builder_;
    }
    int32_t request(BsVideoThumbnailBuilder& target, uint32_t refresh = 0) {
        frames_ = twentyTimes();
        VideoThumbnailRequest r;
        r.clip = clip_;
        r.width = kWidth;
        r.height = kHeight;
        r.frames = frames_.data();
        r.frameCount = static_cast<int32_t>(frames_.size());
        r.refresh = refresh;
        return target.requestThumbnails(r);
    }
    // The first request, answered by extraction.
    void firstPass() {
        ASSERT_EQ(request(builder()), 0);
        ASSERT_TRUE(recorder_.waitForFrames(twentyTimes()));
        checkDeliveries(recorder_.pictureDeliveries(), clip_);
        EXPECT_EQ(builder().taskCount(), 0u);
    }

    TempFolder folder_;
    std::string store_;
    std::string video_;
    std::string mediaId_;
    ZorRef<IDmTimeline> timeline_;
    IDmClip* clip_ = nullptr;  // the timeline's
    Recorder recorder_;
    std::unique_ptr<BsVideoThumbnailBuilder> builder_;
    std::vector<int64_t> frames_;
};

constexpr const char* kAppend = "ZOR::VideoFrameExtractTask::append";

TEST_F(VideoRealServiceTest, TwentyTimesAreDeliveredWithTheColoursOfTheirTimes) {
    ScopedCapture capture(IBsLogger::Info);
    ASSERT_EQ(request(builder()), 0);
    ASSERT_TRUE(recorder_.waitForFrames(twentyTimes()));

    const auto deliveries = recorder_.pictureDeliveries();
    checkDeliveries(deliveries, clip_);
    for (const VideoDelivery& delivery : deliveries) EXPECT_NE(delivery.thread, std::this_thread::get_id());
    EXPECT_EQ(builder().taskCount(), 0u);
    const auto appends = textsOf(capture.sink(), kAppend);
    ASSERT_EQ(appends.size(), 1u);
    EXPECT_NE(appends[0].find(" 20 frames 160x90"), std::string::npos) << appends[0];
    EXPECT_EQ(appends[0].find("refresh"), std::string::npos) << appends[0];
    // Every picture is in the store for later runs.
    size_t stored = 0;
    for (const std::string& file : MediaTest::filesUnder(store_))
        if (file.size() > 4 && file.compare(file.size() - 4, 4, ".png") == 0) ++stored;
    EXPECT_EQ(stored, static_cast<size_t>(kTimes));
}

TEST_F(VideoRealServiceTest, TheSameRequestAgainIsAnsweredFromTheCacheOnTheCallersThread) {
    ScopedCapture capture(IBsLogger::Info);
    firstPass();
    const auto first = recorder_.pictureDeliveries();
    std::map<int64_t, unsigned char*> pointers;
    for (const VideoDelivery& delivery : first)
        for (size_t i = 0; i < delivery.frames.size(); ++i) pointers[delivery.frames[i]] = delivery.pictures[i];
    recorder_.clear();

    ASSERT_EQ(request(builder()), 0);

    // Delivered before the request returned, all at once.
    const auto deliveries = recorder_.deliveries();
    ASSERT_EQ(deliveries.size(), 1u);
    EXPECT_EQ(deliveries[0].thread, std::this_thread::get_id());
    EXPECT_EQ(deliveries[0].frames, twentyTimes());
    checkDeliveries(deliveries, clip_);
    for (size_t i = 0; i < deliveries[0].frames.size(); ++i)
        EXPECT_EQ(deliveries[0].pictures[i], pointers[deliveries[0].frames[i]]);
    EXPECT_EQ(textsOf(capture.sink(), kAppend).size(), 1u);  // the first pass's only
    EXPECT_EQ(builder().taskCount(), 0u);
}

TEST_F(VideoRealServiceTest, ARefreshClearsTheCacheAndExtractsAnew) {
    ScopedCapture capture(IBsLogger::Info);
    firstPass();
    ASSERT_TRUE(builder().cache().containsKey({mediaId_, "", -1}));
    recorder_.clear();

    ASSERT_EQ(request(builder(), /*refresh=*/1), 0);

    EXPECT_EQ(recorder_.changed(), (std::vector<IDmClip*>{clip_}));
    const auto cleared = textsOf(capture.sink(), "ZOR::BsVideoThumbnailBuilder::clearCache");
    ASSERT_EQ(cleared.size(), 1u);
    EXPECT_EQ(cleared[0], "clear cache clipPtr:" + pointerText(clip_) + "mediaId:" + mediaId_);
    const auto appends = textsOf(capture.sink(), kAppend);
    ASSERT_EQ(appends.size(), 2u);
    EXPECT_NE(appends[1].find(" 20 frames 160x90 refresh"), std::string::npos) << appends[1];

    ASSERT_TRUE(recorder_.waitForFrames(twentyTimes()));
    const auto deliveries = recorder_.pictureDeliveries();
    checkDeliveries(deliveries, clip_);
    for (const VideoDelivery& delivery : deliveries) EXPECT_NE(delivery.thread, std::this_thread::get_id());
    EXPECT_EQ(builder().taskCount(), 0u);
}

TEST_F(VideoRealServiceTest, PicturesStoredByAnEarlierRunComeBackThroughTheStore) {
    firstPass();
    builder_.reset();

    // A builder with an empty cache over the same store.
    ScopedCapture capture(IBsLogger::Verbose);
    Recorder later;
    BsVideoThumbnailBuilder second(&later);
    VideoThumbnailRequest r;
    std::vector<int64_t> frames = twentyTimes();
    r.clip = clip_;
    r.width = kWidth;
    r.height = kHeight;
    r.frames = frames.data();
    r.frameCount = kTimes;
    ASSERT_EQ(second.requestThumbnails(r), 0);
    EXPECT_TRUE(later.deliveries().empty());  // nothing in its memory
    ASSERT_TRUE(later.waitForFrames(twentyTimes()));

    // The first report found every file: one delivery, nothing decoded.
    const auto deliveries = later.pictureDeliveries();
    ASSERT_EQ(deliveries.size(), 1u);
    EXPECT_EQ(deliveries[0].frames, twentyTimes());
    EXPECT_NE(deliveries[0].thread, std::this_thread::get_id());
    checkDeliveries(deliveries, clip_);
    EXPECT_EQ(second.taskCount(), 0u);
    EXPECT_EQ(second.cache().pictureCount(), static_cast<size_t>(kTimes));
    EXPECT_EQ(textsOf(capture.sink(), kAppend).size(), 1u);
    EXPECT_TRUE(textsOf(capture.sink(), "ZOR::VideoFrameExtractTask::decode").empty());
    EXPECT_TRUE(textsOf(capture.sink(), "ZOR::BsVideoThumbnailCacheManager::addThumbnail").empty());
}

// Pictures the frame store cannot keep (an injected write fault) are
// delivered all the same, from the task's data; nothing half-written stays
// in the store, and a later builder decodes the missing picture again and
// stores it.
class VideoRealServiceFaultTest : public VideoRealServiceTest, public ::testing::WithParamInterface<int> {
protected:
    void TearDown() override {
        injectWriteFault(0, 0);
        VideoRealServiceTest::TearDown();
    }
    std::vector<std::string> storedFiles() const {
        std::vector<std::string> files = MediaTest::filesUnder(store_);
        std::sort(files.begin(), files.end());
        return files;
    }
};

TEST_P(VideoRealServiceFaultTest, APictureTheStoreCannotKeepIsDeliveredAndStoredByALaterRun) {
    const int fault = GetParam();
    // One time: the task's only report carries the picture whose file failed.
    std::vector<int64_t> one{3 * kSecond / 2};
    VideoThumbnailRequest r;
    r.clip = clip_;
    r.width = kWidth;
    r.height = kHeight;
    r.frames = one.data();
    r.frameCount = 1;
    injectWriteFault(fault, 1);
    ASSERT_EQ(builder().requestThumbnails(r), 0);
    ASSERT_TRUE(recorder_.waitForFrames(one));
    const std::vector<VideoDelivery> deliveries = recorder_.pictureDeliveries();
    ASSERT_EQ(deliveries.size(), 1u);
    ASSERT_EQ(deliveries[0].frames, one);
    const size_t centre = (static_cast<size_t>(kHeight / 2) * kWidth + kWidth / 2) * 4;
    EXPECT_NEAR(deliveries[0].copies[0][centre + 1], 255, 40);  // green: the second second
    EXPECT_EQ(builder().taskCount(), 0u);
    EXPECT_TRUE(storedFiles().empty());

    // Twenty times, the third file written failing: every picture delivered.
    recorder_.clear();
    builder_.reset();
    injectWriteFault(fault, 3);
    ASSERT_EQ(request(builder()), 0);
    ASSERT_TRUE(recorder_.waitForFrames(twentyTimes()));
    checkDeliveries(recorder_.pictureDeliveries(), clip_);
    EXPECT_EQ(builder().taskCount(), 0u);
    EXPECT_EQ(storedFiles().size(), static_cast<size_t>(kTimes - 1));
    builder_.reset();

    // A later builder decodes the missing picture and stores it.
    recorder_.clear();
    ASSERT_EQ(request(builder()), 0);
    ASSERT_TRUE(recorder_.waitForFrames(twentyTimes()));
    checkDeliveries(recorder_.pictureDeliveries(), clip_);
    const std::vector<std::string> files = storedFiles();
    EXPECT_EQ(files.size(), static_cast<size_t>(kTimes));
    for (const std::string& file : files) EXPECT_EQ(file.find(".tmp-"), std::string::npos) << file;
}

INSTANTIATE_TEST_SUITE_P(EachFault, VideoRealServiceFaultTest, eachWriteFault(), writeFaultName);

}  // namespace
}  // namespace ZOR::test
