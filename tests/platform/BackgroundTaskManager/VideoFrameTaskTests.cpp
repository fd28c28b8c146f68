#include <gtest/gtest.h>

#include <mutex>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "MediaTestSupport.h"
#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "CapturingLogger.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmMediaInternal.h"
#include "TaskTestSupport.h"
#include "ZorUtils/ZorUtils.h"
#include "WriteFaults.h"

namespace ZOR::test {
namespace {

using MediaTest::ffmpeg;

constexpr int64_t kSecond = 10'000'000;
constexpr int64_t kFrame = 400'000;  // 25 frames per second
constexpr size_t kSlot = 1024;

enum Colour { Red, Green, Blue, Yellow, Clear, Other };
const char* colourName(Colour colour) {
    static const char* const names[] = {"red", "green", "blue", "yellow", "clear", "other"};
    return names[colour];
}

// The colour of pixel (x, y) of an RGBA picture: one of the four the test
// videos use (within the error of a YUV 4:2:0 round trip), or transparent.
Colour colourAt(const std::vector<unsigned char>& rgba, int width, int x, int y) {
    const unsigned char* p = rgba.data() + (static_cast<size_t>(y) * width + x) * 4;
    if (p[3] == 0 && p[0] == 0 && p[1] == 0 && p[2] == 0) return Clear;
    if (p[3] != 255) return Other;
    const bool r = p[0] > 200;
    const bool g = p[1] > 200;
    const bool b = p[2] > 200;
    const bool r0 = p[0] < 50;
    const bool g0 = p[1] < 50;
    const bool b0 = p[2] < 50;
    if (r && g0 && b0) return Red;
    if (r0 && g && b0) return Green;
    if (r0 && g0 && b) return Blue;
    if (r && g && b0) return Yellow;
    return Other;
}

constexpr int kNumberedWidth = 128;
constexpr int kNumberedHeight = 64;
constexpr int kNumberedFrames = 200;

// The frame number the band of a picture of makeNumbered() spells, or -1.
int numberOf(const std::vector<unsigned char>& rgba) { return MediaTest::numberOfBand(rgba.data(), kNumberedWidth); }

// The largest difference of one channel between two pictures of one size.
int largestDifference(const unsigned char* a, const unsigned char* b, size_t bytes) {
    int largest = 0;
    for (size_t i = 0; i < bytes; ++i) largest = std::max(largest, std::abs(int{a[i]} - int{b[i]}));
    return largest;
}

// Records reports and notes when two of them were being made at once.
class SerialRecorder : public TaskRecorder {
public:
    int32_t processChanged(IDmBaseObj* task, int32_t progress, int32_t status,
                           const BsTaskProgressInfo* info) override {
        if (inside_.fetch_add(1) != 0) overlapped_.store(true);
        const int32_t result = TaskRecorder::processChanged(task, progress, status, info);
        inside_.fetch_sub(1);
        return result;
    }
    bool overlapped() const { return overlapped_.load(); }

private:
    std::atomic<int> inside_{0};
    std::atomic<bool> overlapped_{false};
};

class VideoFrameTaskTest : public ::testing::Test {
protected:
    void SetUp() override {
        store_ = folder_.file("store");
        setFrameStoreRoot(store_.c_str());
        task_ = newTask(&recorder_);
    }
    void TearDown() override {
        release(task_, &recorder_);
        setFrameStoreRoot(nullptr);
    }

    static ZorRef<IBsVideoFrameExtractTask> newTask(TaskRecorder* recorder) {
        auto task = ZorRef<IBsVideoFrameExtractTask>::adopt(createVideoFrameExtractTask());
        EXPECT_NE(task, nullptr);
        EXPECT_EQ(task->addCallBack(recorder), 0);
        EXPECT_EQ(task->initialize(), 0);
        EXPECT_EQ(task->start(), 0);
        return task;
    }
    static void release(ZorRef<IBsVideoFrameExtractTask>& task, TaskRecorder* recorder) {
        if (task == nullptr) return;
        task->removeCallBack(recorder);
        task.reset();
    }

    // 64x48 at 25/1: a second each of red, green, blue and yellow, with a
    // keyframe only at the start, so every picture needs real decoding.
    std::string makeColours(const std::string& name = "colours.mp4", int width = 64, int height = 48,
                            const std::string& extra = "") {
        const std::string path = folder_.file(name);
        MediaTest::ColourVideo video;
        video.colours = {"0xFF0000", "0x00FF00", "0x0000FF", "0xFFFF00"};
        video.width = width;
        video.height = height;
        video.filter = extra;
        video.encoding = std::string(MediaTest::kH264) + " -x264-params keyint=250:scenecut=0:bframes=3";
        ffmpeg(MediaTest::colourVideoArguments(path, video));
        return path;
    }

    // 128x64 at 25/1, 8 s (200 frames): a moving test pattern under a band
    // that spells each frame's number in binary (8 stripes 16 pixels wide,
    // bit 0 on the left, white for 1). A keyframe every 2 s and B-frames in
    // a pyramid: most pictures depend on frames decoded before them, and a
    // third of the frames are never referred to.
    std::string makeNumbered() {
        const std::string path = folder_.file("numbered.mp4");
        ffmpeg(MediaTest::numberedVideoArguments(path, 128, 64, 8));
        return path;
    }

    int64_t append(IDmClip* clip, const std::vector<int64_t>& times, int32_t width, int32_t height, uint32_t flags = 0,
                   IBsVideoFrameExtractTask* task = nullptr) {
        int64_t token = -1;
        EXPECT_EQ((task != nullptr ? task : task_.get())
                      ->append(clip, times.data(), static_cast<int32_t>(times.size()), &token, width, height, flags),
                  0);
        EXPECT_GT(token, 0);
        return token;
    }

    static std::vector<TaskReport> dataReports(const std::vector<TaskReport>& reports) {
        std::vector<TaskReport> found;
        for (const TaskReport& report : reports)
            if (report.status == BsTaskProgress && report.hasData) found.push_back(report);
        return found;
    }
    static const TaskReport* reportFor(const std::vector<TaskReport>& reports, int64_t time) {
        for (const TaskReport& report : reports)
            if (report.hasData && report.requested == time) return &report;
        return nullptr;
    }

    TempFolder folder_;
    std::string store_;
    TaskRecorder recorder_;
    ZorRef<IBsVideoFrameExtractTask> task_;
};

TEST_F(VideoFrameTaskTest, PicturesAreTheFramesAPlayerShowsAtEachTime) {
    const std::string path = makeColours();
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    struct Expected {
        int64_t time;
        int64_t shown;
        Colour colour;
    };
    const std::vector<Expected> expected{
        {25 * kSecond / 10, 62 * kFrame, Blue},  // 2.5 s: the frame of 2.48 s, second 2
        {0, 0, Red},
        {kSecond / 2, 12 * kFrame, Red},
        {kSecond - 1, 24 * kFrame, Red},  // just before the first green frame
        {kSecond, 25 * kFrame, Green},
        {2 * kSecond - kFrame / 2, 49 * kFrame, Green},
        {2 * kSecond, 50 * kFrame, Blue},
        {35 * kSecond / 10, 87 * kFrame, Yellow},
        {-kSecond / 2, 0, Red},               // before the first frame: the first frame
        {10 * kSecond, 99 * kFrame, Yellow},  // after the last: the last
    };
    std::vector<int64_t> times;
    for (const Expected& e : expected) times.push_back(e.time);
    const int64_t token = append(clip.get(), times, 64, 48);
    ASSERT_EQ(recorder_.waitFinal(token), BsTaskFinished);

    const std::vector<TaskReport> reports = recorder_.reportsOf(token);
    ASSERT_EQ(dataReports(reports).size(), expected.size());
    EXPECT_EQ(reports.back().status, BsTaskFinished);
    for (const Expected& e : expected) {
        SCOPED_TRACE(e.time);
        const TaskReport* report = reportFor(reports, e.time);
        ASSERT_NE(report, nullptr);
        EXPECT_EQ(report->shown, e.shown);
        EXPECT_EQ(report->width, 64);
        EXPECT_EQ(report->height, 48);
        ASSERT_EQ(report->pixels.size(), 64u * 48u * 4u);
        EXPECT_EQ(colourName(colourAt(report->pixels, 64, 32, 24)), colourName(e.colour));
        EXPECT_EQ(colourName(colourAt(report->pixels, 64, 0, 0)), colourName(e.colour));
        EXPECT_EQ(colourName(colourAt(report->pixels, 64, 63, 47)), colourName(e.colour));
    }

    // The store has a file per time, with the pixels that were reported.
    auto* video = static_cast<IDmVideoFeature*>(clip->queryInterface("IDmVideoFeature"));
    ASSERT_EQ(video->prepareFrames(64, 48, 25, 1), 0);
    std::vector<char> slots(times.size() * kSlot);
    std::vector<int64_t> shown(times.size());
    int32_t filled = 0;
    ASSERT_EQ(video->fillFrames(times.data(), static_cast<int32_t>(times.size()), slots.data(), shown.data(), &filled),
              0);
    EXPECT_EQ(filled, static_cast<int32_t>(times.size()));
    for (size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE(expected[i].time);
        const std::string file(slots.data() + i * kSlot);
        ASSERT_FALSE(file.empty());
        EXPECT_EQ(file.rfind(store_, 0), 0u) << file;
        EXPECT_EQ(shown[i], expected[i].shown);
        unsigned char* pixels = nullptr;
        int width = 0;
        int height = 0;
        ASSERT_EQ(loadPNG(file.c_str(), &pixels, &width, &height), 0);
        ASSERT_EQ(width, 64);
        ASSERT_EQ(height, 48);
        const TaskReport* report = reportFor(reports, expected[i].time);
        EXPECT_EQ(std::vector<unsigned char>(pixels, pixels + 64 * 48 * 4), report->pixels);
        freeImageBuffer(pixels);
    }
    EXPECT_EQ(MediaTest::filesUnder(store_).size(), expected.size());
}

TEST_F(VideoFrameTaskTest, PicturesAroundFrameBoundariesAcrossKeyframesAreExactInAnyOrder) {
    const std::string path = makeNumbered();
    // What a player shows, every frame decoded one after the other.
    const std::string reference = folder_.file("reference.rgba");
    ASSERT_TRUE(ffmpeg("-i '" + path +
                       "' -vf \"scale=flags=bicubic+accurate_rnd+full_chroma_int,format=rgba\" "
                       "-f rawvideo '" +
                       reference + "'"));
    const std::vector<char> all = MediaTest::readBytes(reference);
    const size_t frameBytes = size_t{kNumberedWidth} * kNumberedHeight * 4;
    ASSERT_EQ(all.size(), frameBytes * kNumberedFrames);
    std::vector<std::vector<unsigned char>> frames;
    for (size_t n = 0; n < kNumberedFrames; ++n) {
        frames.emplace_back(all.begin() + static_cast<std::ptrdiff_t>(n * frameBytes),
                            all.begin() + static_cast<std::ptrdiff_t>((n + 1) * frameBytes));
        ASSERT_EQ(numberOf(frames.back()), static_cast<int>(n)) << "the band of the reference frame " << n;
    }

    // On, just before and just after the first frames, the frames around
    // each keyframe (every 50), B-frames between, and the last frames; then
    // before the first frame and after the last.
    std::vector<int64_t> times;
    for (int64_t n : {0, 1, 2, 3, 24, 48, 49, 50, 51, 52, 75, 98, 99, 100, 101, 123, 149, 150, 151, 175, 198, 199})
        for (int64_t delta : {-1, 0, 1})
            if (n * kFrame + delta >= 0) times.push_back(n * kFrame + delta);
    times.push_back(-kSecond);
    times.push_back(100 * kSecond);
    std::mt19937 random(20261121);
    std::shuffle(times.begin(), times.end(), random);
    auto expectedFrame = [](int64_t time) {
        return time < 0 ? 0 : static_cast<int>(std::min<int64_t>(kNumberedFrames - 1, time / kFrame));
    };

    ScopedCapture capture(IBsLogger::Warning);
    SerialRecorder serial;
    auto task = newTask(&serial);
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    const int64_t token = append(clip.get(), times, kNumberedWidth, kNumberedHeight, 0, task.get());
    ASSERT_EQ(serial.waitFinal(token), BsTaskFinished);
    const std::vector<TaskReport> reports = serial.reportsOf(token);
    release(task, &serial);
    // The packets' timestamps named every frame shown: nothing had to be
    // decoded again with no frame skipped.
    for (const std::string& text : capture.sink().texts())
        EXPECT_EQ(text.find("decoding again"), std::string::npos) << text;

    EXPECT_FALSE(serial.overlapped()) << "two reports of the request were made at once";
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ(reports.back().status, BsTaskFinished);
    EXPECT_EQ(std::count_if(reports.begin(), reports.end(), [](const TaskReport& r) { return isFinal(r.status); }), 1);
    const std::vector<TaskReport> decoded = dataReports(reports);
    ASSERT_EQ(decoded.size(), times.size());
    std::set<int64_t> reported;
    for (const TaskReport& report : decoded) {
        SCOPED_TRACE(report.requested);
        EXPECT_TRUE(reported.insert(report.requested).second) << "reported twice";
        const int n = expectedFrame(report.requested);
        EXPECT_EQ(report.shown, n * kFrame);
        ASSERT_EQ(report.pixels.size(), frameBytes);
        EXPECT_EQ(numberOf(report.pixels), n);
        // Decoded exactly: the very pixels of the frame decoded in full and
        // converted with the same scaler settings, unlike its neighbours,
        // which the pattern's motion sets apart.
        EXPECT_EQ(largestDifference(report.pixels.data(), frames[static_cast<size_t>(n)].data(), frameBytes), 0)
            << "frame " << n;
        for (int other : {n - 1, n + 1}) {
            if (other < 0 || other >= kNumberedFrames) continue;
            EXPECT_GT(largestDifference(report.pixels.data(), frames[static_cast<size_t>(other)].data(), frameBytes),
                      32)
                << "frame " << other;
        }
    }
    EXPECT_EQ(reported, std::set<int64_t>(times.begin(), times.end()));
}

TEST_F(VideoFrameTaskTest, PicturesKeepTheirShapeAndTheRestIsTransparent) {
    const std::string wide = makeColours();
    // 32x48 stored pixels twice as wide as high: shown 64x48.
    const std::string anamorphic = makeColours("anamorphic.mp4", 32, 48, ",setsar=2/1");
    for (const std::string& path : {wide, anamorphic}) {
        SCOPED_TRACE(path);
        auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
        const int64_t letterbox = append(clip.get(), {kSecond / 2}, 64, 64);
        const int64_t pillarbox = append(clip.get(), {kSecond / 2}, 100, 48);
        ASSERT_EQ(recorder_.waitFinal(letterbox), BsTaskFinished);
        ASSERT_EQ(recorder_.waitFinal(pillarbox), BsTaskFinished);

        const std::vector<TaskReport> tall = dataReports(recorder_.reportsOf(letterbox));
        ASSERT_EQ(tall.size(), 1u);
        ASSERT_EQ(tall[0].pixels.size(), 64u * 64u * 4u);
        for (int y = 0; y < 64; ++y) {
            const Colour expected = y < 8 || y >= 56 ? Clear : Red;
            for (int x : {0, 31, 63})
                ASSERT_EQ(colourName(colourAt(tall[0].pixels, 64, x, y)), colourName(expected)) << x << "," << y;
        }
        const std::vector<TaskReport> broad = dataReports(recorder_.reportsOf(pillarbox));
        ASSERT_EQ(broad.size(), 1u);
        for (int x = 0; x < 100; ++x) {
            const Colour expected = x < 18 || x >= 82 ? Clear : Red;
            for (int y : {0, 24, 47})
                ASSERT_EQ(colourName(colourAt(broad[0].pixels, 100, x, y)), colourName(expected)) << x << "," << y;
        }
    }
}

TEST_F(VideoFrameTaskTest, RotatedVideoComesOutUpright) {
    // Top half blue, bottom half red; the display matrix turns it a quarter
    // counter-clockwise, so upright the blue half is on the left.
    const std::string plain = folder_.file("plain.mp4");
    const std::string rotated = folder_.file("rotated.mp4");
    ASSERT_TRUE(
        ffmpeg("-f lavfi -i \"color=c=0xFF0000:s=64x48:r=25:d=1\" -vf "
               "\"drawbox=x=0:y=0:w=64:h=24:color=0x0000FF:t=fill\" -c:v libx264 -pix_fmt yuv420p '" +
               plain + "'"));
    ASSERT_TRUE(ffmpeg("-i '" + plain + "' -c copy -metadata:s:v rotate=90 '" + rotated + "'"));
    // The player's own view of the same file, for reference.
    const std::string reference = folder_.file("reference.rgba");
    ASSERT_TRUE(ffmpeg("-i '" + rotated + "' -frames:v 1 -f rawvideo -pix_fmt rgba '" + reference + "'"));
    const std::vector<char> player = MediaTest::readBytes(reference);
    ASSERT_EQ(player.size(), 48u * 64u * 4u) << "the player shows it 48x64";
    const std::vector<unsigned char> playerPixels(player.begin(), player.end());

    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(rotated.c_str(), -1, -1, nullptr));
    const int64_t exact = append(clip.get(), {0}, 48, 64);
    const int64_t square = append(clip.get(), {0}, 64, 64);
    ASSERT_EQ(recorder_.waitFinal(exact), BsTaskFinished);
    ASSERT_EQ(recorder_.waitFinal(square), BsTaskFinished);

    const std::vector<TaskReport> upright = dataReports(recorder_.reportsOf(exact));
    ASSERT_EQ(upright.size(), 1u);
    ASSERT_EQ(upright[0].width, 48);
    ASSERT_EQ(upright[0].height, 64);
    for (int y : {4, 32, 60}) {
        EXPECT_EQ(colourName(colourAt(upright[0].pixels, 48, 6, y)), colourName(Blue)) << y;
        EXPECT_EQ(colourName(colourAt(upright[0].pixels, 48, 41, y)), colourName(Red)) << y;
        for (int x : {6, 41})
            EXPECT_EQ(colourAt(upright[0].pixels, 48, x, y), colourAt(playerPixels, 48, x, y)) << x << "," << y;
    }
    const std::vector<TaskReport> boxed = dataReports(recorder_.reportsOf(square));
    ASSERT_EQ(boxed.size(), 1u);
    EXPECT_EQ(colourAt(boxed[0].pixels, 64, 3, 32), Clear);
    EXPECT_EQ(colourAt(boxed[0].pixels, 64, 14, 32), Blue);
    EXPECT_EQ(colourAt(boxed[0].pixels, 64, 49, 32), Red);
    EXPECT_EQ(colourAt(boxed[0].pixels, 64, 60, 32), Clear);
}

TEST_F(VideoFrameTaskTest, StoredFramesAreNotDecodedAgainEvenInALaterRun) {
    const std::string path = makeColours();
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    const int64_t first = append(clip.get(), {kSecond / 2, 3 * kSecond / 2}, 32, 24);
    ASSERT_EQ(recorder_.waitFinal(first), BsTaskFinished);
    EXPECT_EQ(dataReports(recorder_.reportsOf(first)).size(), 2u);

    // Another task, as a later run would have, with a new clip of the file.
    TaskRecorder later;
    auto task = newTask(&later);
    auto again = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    const int64_t second = append(again.get(), {3 * kSecond / 2, kSecond / 2}, 32, 24, 0, task.get());
    ASSERT_EQ(later.waitFinal(second), BsTaskFinished);
    const std::vector<TaskReport> reports = later.reportsOf(second);
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[0].status, BsTaskProgress);
    EXPECT_FALSE(reports[0].hasData);
    EXPECT_EQ(reports[1].status, BsTaskFinished);

    // Only what is missing is decoded.
    const int64_t third = append(again.get(), {kSecond / 2, 5 * kSecond / 2}, 32, 24, 0, task.get());
    ASSERT_EQ(later.waitFinal(third), BsTaskFinished);
    const std::vector<TaskReport> decoded = dataReports(later.reportsOf(third));
    ASSERT_EQ(decoded.size(), 1u);
    EXPECT_EQ(decoded[0].requested, 5 * kSecond / 2);
    // Another size is another picture.
    const int64_t fourth = append(again.get(), {kSecond / 2}, 16, 12, 0, task.get());
    ASSERT_EQ(later.waitFinal(fourth), BsTaskFinished);
    EXPECT_EQ(dataReports(later.reportsOf(fourth)).size(), 1u);
    release(task, &later);
}

TEST_F(VideoFrameTaskTest, RefreshDecodesAndRewritesStoredFrames) {
    const std::string path = makeColours();
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    const int64_t first = append(clip.get(), {25 * kSecond / 10}, 32, 24);
    ASSERT_EQ(recorder_.waitFinal(first), BsTaskFinished);
    const std::vector<std::string> files = MediaTest::filesUnder(store_);
    ASSERT_EQ(files.size(), 1u);
    MediaTest::writeText(files[0], "damaged");

    const int64_t kept = append(clip.get(), {25 * kSecond / 10}, 32, 24);
    ASSERT_EQ(recorder_.waitFinal(kept), BsTaskFinished);
    EXPECT_TRUE(dataReports(recorder_.reportsOf(kept)).empty());
    EXPECT_EQ(MediaTest::readBytes(files[0]).size(), 7u);

    const int64_t refreshed = append(clip.get(), {25 * kSecond / 10}, 32, 24, 1);
    ASSERT_EQ(recorder_.waitFinal(refreshed), BsTaskFinished);
    const std::vector<TaskReport> decoded = dataReports(recorder_.reportsOf(refreshed));
    ASSERT_EQ(decoded.size(), 1u);
    EXPECT_EQ(colourAt(decoded[0].pixels, 32, 16, 12), Blue);
    ASSERT_EQ(MediaTest::filesUnder(store_), files);
    unsigned char* pixels = nullptr;
    int width = 0;
    int height = 0;
    ASSERT_EQ(loadPNG(files[0].c_str(), &pixels, &width, &height), 0);
    EXPECT_EQ(std::vector<unsigned char>(pixels, pixels + 32 * 24 * 4), decoded[0].pixels);
    freeImageBuffer(pixels);
}

// A recorder that acts from inside the first picture's report.
class ActingRecorder : public TaskRecorder {
public:
    std::function<void(const TaskReport&)> onFirstPicture;
    void onReport(const TaskReport& report) override {
        if (report.hasData && !acted_.exchange(true) && onFirstPicture) onFirstPicture(report);
    }

private:
    std::atomic<bool> acted_{false};
};

TEST_F(VideoFrameTaskTest, CancelStopsTheRequestAtTheNextFrame) {
    const std::string path = makeColours();
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    ActingRecorder acting;
    auto task = newTask(&acting);
    acting.onFirstPicture = [task](const TaskReport& report) { EXPECT_EQ(task->cancel(report.token), 0); };
    const int64_t token = append(clip.get(), {0, kSecond, 2 * kSecond, 3 * kSecond}, 32, 24, 0, task.get());
    ASSERT_EQ(acting.waitFinal(token), BsTaskCancelled);
    const std::vector<TaskReport> reports = acting.reportsOf(token);
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_TRUE(reports[0].hasData);
    EXPECT_EQ(reports[0].requested, 0);
    EXPECT_EQ(reports[1].status, BsTaskCancelled);
    EXPECT_EQ(MediaTest::filesUnder(store_).size(), 1u);
    EXPECT_EQ(task->pendingCount(), 0);
    release(task, &acting);
}

TEST_F(VideoFrameTaskTest, CancelWithRunsOnSeveralWorkersEndsAfterThePictureThatCancelled) {
    const std::string path = makeNumbered();
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    ActingRecorder acting;
    auto task = newTask(&acting);
    acting.onFirstPicture = [task](const TaskReport& report) { EXPECT_EQ(task->cancel(report.token), 0); };
    // One time in each group of pictures, far from its keyframe.
    const int64_t token =
        append(clip.get(), {45 * kFrame, 95 * kFrame, 145 * kFrame, 195 * kFrame}, 64, 32, 0, task.get());
    ASSERT_EQ(acting.waitFinal(token), BsTaskCancelled);
    const std::vector<TaskReport> reports = acting.reportsOf(token);
    release(task, &acting);
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_TRUE(reports[0].hasData);
    EXPECT_EQ(reports[0].shown, reports[0].requested);
    EXPECT_EQ(reports[1].status, BsTaskCancelled);
}

TEST_F(VideoFrameTaskTest, AddFramesExtendsARunningRequestOnly) {
    const std::string path = makeColours();
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    ActingRecorder acting;
    auto task = newTask(&acting);
    const int64_t more[] = {35 * kSecond / 10, 0};
    acting.onFirstPicture = [task = task.get(), &more](const TaskReport& report) {
        EXPECT_EQ(task->addFrames(report.token, more, 2), 0);
    };
    const int64_t token = append(clip.get(), {0, kSecond}, 32, 24, 0, task.get());
    ASSERT_EQ(acting.waitFinal(token), BsTaskFinished);
    const std::vector<TaskReport> decoded = dataReports(acting.reportsOf(token));
    ASSERT_EQ(decoded.size(), 3u);  // 0 was asked for twice: decoded once
    ASSERT_NE(reportFor(decoded, 35 * kSecond / 10), nullptr);
    EXPECT_EQ(colourAt(reportFor(decoded, 35 * kSecond / 10)->pixels, 32, 16, 12), Yellow);
    EXPECT_EQ(acting.reportsOf(token).back().status, BsTaskFinished);
    EXPECT_EQ(acting.reportsOf(token).back().percent, 100);
    EXPECT_NE(task->addFrames(token, more, 1), 0);  // finished
    EXPECT_NE(task->addFrames(987654321, more, 1), 0);
    EXPECT_NE(task->addFrames(token, nullptr, 1), 0);
    release(task, &acting);
}

TEST_F(VideoFrameTaskTest, PausedTaskStartsNothingUntilResumed) {
    const std::string path = makeColours();
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    ASSERT_EQ(task_->pause(), 0);
    const int64_t token = append(clip.get(), {kSecond / 2}, 32, 24);
    EXPECT_EQ(recorder_.waitFinal(token, std::chrono::milliseconds(300)), 0);
    EXPECT_TRUE(recorder_.reportsOf(token).empty());
    EXPECT_EQ(task_->pendingCount(), 1);
    EXPECT_TRUE(MediaTest::filesUnder(store_).empty());
    ASSERT_EQ(task_->resume(), 0);
    EXPECT_EQ(recorder_.waitFinal(token), BsTaskFinished);
    EXPECT_EQ(task_->pendingCount(), 0);
}

TEST_F(VideoFrameTaskTest, BadInputIsRejectedOrFailsAndLeavesNothingInTheStore) {
    ScopedCapture capture(IBsLogger::Info);
    const std::string good = makeColours();
    const std::string sound = folder_.file("sound.wav");
    ASSERT_TRUE(ffmpeg("-f lavfi -i \"sine=f=440:r=44100:d=1\" '" + sound + "'"));
    MediaTest::writeText(folder_.file("empty.mp4"), "");
    MediaTest::writeText(folder_.file("notes.mp4"), "not a movie at all\n");
    auto logged = [&](const std::string& name, const std::string& cause) {
        for (const std::string& text : capture.sink().texts())
            if (text.find(name) != std::string::npos && text.find(cause) != std::string::npos) return true;
        return false;
    };
    const std::vector<int64_t> times{0, kSecond};
    int64_t token = -1;

    struct Rejected {
        std::string file;
        std::string cause;
    };
    for (const Rejected& bad : {Rejected{"missing.mp4", "No such file"}, Rejected{"empty.mp4", "Invalid data"},
                                Rejected{"notes.mp4", "Invalid data"}, Rejected{"sound.wav", "no video stream"}}) {
        SCOPED_TRACE(bad.file);
        auto clip = ZorRef<IDmClip>::adopt(createMediaClip(folder_.file(bad.file).c_str(), -1, -1, nullptr));
        EXPECT_NE(task_->append(clip.get(), times.data(), 2, &token, 32, 24, 0), 0);
        EXPECT_TRUE(logged(bad.file, bad.cause));
    }
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(good.c_str(), -1, -1, nullptr));
    EXPECT_NE(task_->append(clip.get(), times.data(), 2, &token, 0, 24, 0), 0);
    EXPECT_NE(task_->append(clip.get(), times.data(), 2, &token, 32, 0, 0), 0);
    EXPECT_NE(task_->append(clip.get(), times.data(), 2, &token, 100000, 100000, 0), 0);
    EXPECT_TRUE(logged("colours.mp4", "100000x100000"));
    EXPECT_NE(task_->append(nullptr, times.data(), 2, &token, 32, 24, 0), 0);
    EXPECT_NE(task_->append(clip.get(), nullptr, 2, &token, 32, 24, 0), 0);
    EXPECT_NE(task_->append(clip.get(), times.data(), 2, nullptr, 32, 24, 0), 0);
    EXPECT_EQ(token, -1);

    // Files that break after their clip was made end in status 3.
    auto breakAfterwards = [&](const std::string& name, const std::function<void(const std::string&)>& damage,
                               const std::string& cause) {
        SCOPED_TRACE(name);
        const std::string path = folder_.file(name);
        std::filesystem::copy_file(good, path);
        auto broken = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
        ASSERT_NE(broken->queryInterface("IDmVideoFeature"), nullptr);
        damage(path);
        EXPECT_EQ(recorder_.waitFinal(append(broken.get(), times, 32, 24)), BsTaskFailed);
        EXPECT_TRUE(logged(name, cause));
    };
    breakAfterwards(
        "gone.mp4", [](const std::string& p) { std::filesystem::remove(p); }, "No such file");
    breakAfterwards(
        "cut.mp4", [](const std::string& p) { std::filesystem::resize_file(p, 2000); }, "Invalid data");
    breakAfterwards(
        "text.mp4", [](const std::string& p) { MediaTest::writeText(p, "now it is text\n"); }, "Invalid data");
    EXPECT_TRUE(MediaTest::filesUnder(store_).empty());
    EXPECT_EQ(task_->pendingCount(), 0);
}

TEST_F(VideoFrameTaskTest, AnEmptyRequestStillReportsOnceThenFinishes) {
    const std::string path = makeColours();
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    int64_t token = -1;
    ASSERT_EQ(task_->append(clip.get(), nullptr, 0, &token, 32, 24, 0), 0);
    ASSERT_EQ(recorder_.waitFinal(token), BsTaskFinished);
    const std::vector<TaskReport> reports = recorder_.reportsOf(token);
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[0].status, BsTaskProgress);
    EXPECT_FALSE(reports[0].hasData);
    EXPECT_STREQ(task_->taskName(), "VideoFrameExtractTask");
    EXPECT_EQ(task_->isStarted(), 1);
}

// A picture the store cannot keep (an injected write fault) is reported all
// the same, with one warning naming the file and the cause; nothing is left
// in the store, and the next request decodes the picture again and keeps it.
class VideoFrameTaskFaultTest : public VideoFrameTaskTest, public ::testing::WithParamInterface<int> {
protected:
    void TearDown() override {
        injectWriteFault(0, 0);
        VideoFrameTaskTest::TearDown();
    }
};

TEST_P(VideoFrameTaskFaultTest, APictureTheStoreCannotKeepIsReportedWarnedOfAndDecodedAgainLater) {
    const int fault = GetParam();
    const std::string path = makeColours();
    ScopedCapture capture(IBsLogger::Warning);
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    const std::string folder = frameStoreFolder(path.c_str());
    ASSERT_FALSE(folder.empty());

    injectWriteFault(fault, 1);
    const int64_t failed = append(clip.get(), {3 * kSecond / 2}, 32, 24);
    ASSERT_EQ(recorder_.waitFinal(failed), BsTaskFinished);
    const std::vector<TaskReport> reported = dataReports(recorder_.reportsOf(failed));
    ASSERT_EQ(reported.size(), 1u);
    EXPECT_EQ(colourAt(reported[0].pixels, 32, 16, 12), Green);
    const std::vector<std::string> warned = capture.sink().texts();
    EXPECT_TRUE(MediaTest::filesUnder(store_).empty());
    EXPECT_EQ(lastWriteFailure(Path(folder), nullptr), fault);

    const int64_t again = append(clip.get(), {3 * kSecond / 2}, 32, 24);
    ASSERT_EQ(recorder_.waitFinal(again), BsTaskFinished);
    const std::vector<TaskReport> decoded = dataReports(recorder_.reportsOf(again));
    ASSERT_EQ(decoded.size(), 1u);
    EXPECT_EQ(decoded[0].pixels, reported[0].pixels);
    const std::vector<std::string> files = MediaTest::filesUnder(store_);
    ASSERT_EQ(files.size(), 1u);
    // Named after the frame shown, which the name of the file kept tells.
    const std::string file = files[0];
    EXPECT_EQ(file.rfind(folder + "/s0-32x24-t15000000-p", 0), 0u) << file;
    // The temporary could not be opened (permission) or was written and removed.
    const int code = fault == EACCES ? 5 : 6;
    EXPECT_EQ(warned, (std::vector<std::string>{"cannot write '" + file + "' (" + std::to_string(code) +
                                                "): " + writeErrorText(fault)}));
    unsigned char* pixels = nullptr;
    int width = 0;
    int height = 0;
    ASSERT_EQ(loadPNG(file.c_str(), &pixels, &width, &height), 0);
    EXPECT_EQ(std::vector<unsigned char>(pixels, pixels + 32 * 24 * 4), decoded[0].pixels);
    freeImageBuffer(pixels);
    EXPECT_EQ(capture.sink().texts().size(), 1u);
}

// What the clip's video feature says of a frame, asked from inside a report
// (on the reporting thread), as the clip thumbnail service asks.
class StoreAskingRecorder : public TaskRecorder {
public:
    explicit StoreAskingRecorder(IDmClip* clip) : feature_(static_cast<IDmVideoFeature*>(clip->queryInterface("IDmVideoFeature"))) {}
    void onReport(const TaskReport& report) override {
        if (!report.hasData) return;
        std::lock_guard<std::mutex> guard(lock_);
        asked_ = ask(feature_, report.requested);
    }
    // The frame's path slot and whether it is missing.
    static std::pair<std::string, bool> ask(IDmVideoFeature* feature, int64_t time) {
        std::vector<char> slots(1024, 'x');
        int64_t missing = -1;
        int32_t missingCount = -1;
        EXPECT_EQ(feature->prepareThumbnailSize(32, 24, nullptr, 0), 0);
        EXPECT_EQ(feature->thumbnailFiles(&time, 1, slots.data(), &missing, &missingCount), 0);
        return {std::string(slots.data()), missingCount == 1};
    }
    std::pair<std::string, bool> asked() {
        std::lock_guard<std::mutex> guard(lock_);
        return asked_;
    }

private:
    IDmVideoFeature* feature_;
    std::mutex lock_;
    std::pair<std::string, bool> asked_{"unasked", true};
};

// The task reports a picture once; while it reports one the store could not
// keep, the clip's video feature counts that frame as held with no file, so
// that the report delivers it. Before and after, the frame is missing.
TEST_P(VideoFrameTaskFaultTest, DuringItsOnlyReportAPictureTheStoreCouldNotKeepCountsAsHeldWithNoFile) {
    const std::string path = makeColours();
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    auto* feature = static_cast<IDmVideoFeature*>(clip->queryInterface("IDmVideoFeature"));
    ASSERT_NE(feature, nullptr);
    const int64_t time = 3 * kSecond / 2;
    EXPECT_EQ(StoreAskingRecorder::ask(feature, time), (std::pair<std::string, bool>{"", true}));

    StoreAskingRecorder asking(clip.get());
    ASSERT_EQ(task_->addCallBack(&asking), 0);
    injectWriteFault(GetParam(), 1);
    const int64_t token = append(clip.get(), {time}, 32, 24);
    ASSERT_EQ(recorder_.waitFinal(token), BsTaskFinished);
    task_->removeCallBack(&asking);
    EXPECT_EQ(asking.asked(), (std::pair<std::string, bool>{"", false}));
    EXPECT_EQ(StoreAskingRecorder::ask(feature, time), (std::pair<std::string, bool>{"", true}));

    // A picture the store keeps is held with its file, in the report and after.
    StoreAskingRecorder stored(clip.get());
    ASSERT_EQ(task_->addCallBack(&stored), 0);
    const int64_t again = append(clip.get(), {time}, 32, 24);
    ASSERT_EQ(recorder_.waitFinal(again), BsTaskFinished);
    task_->removeCallBack(&stored);
    const auto [file, missing] = stored.asked();
    EXPECT_FALSE(missing);
    EXPECT_EQ(file.rfind(frameStoreFolder(path.c_str()) + "/s0-32x24-t15000000-p", 0), 0u) << file;
    EXPECT_EQ(StoreAskingRecorder::ask(feature, time), stored.asked());
}

INSTANTIATE_TEST_SUITE_P(EachFault, VideoFrameTaskFaultTest, eachWriteFault(), writeFaultName);

}  // namespace
}  // namespace ZOR::test
