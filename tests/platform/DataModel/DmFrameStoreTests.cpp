#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmMediaInternal.h"
#include "MediaTestSupport.h"
#include "ZorUtils/ZorUtils.h"

namespace ZOR::test {
namespace {

using MediaTest::ffmpeg;

constexpr size_t kSlot = 1024;

// Restores the frame store root and the environment a test changed.
class DmFrameStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* cache = std::getenv("XDG_CACHE_HOME");
        hadCache_ = cache != nullptr;
        if (hadCache_) savedCache_ = cache;
        setFrameStoreRoot(folder_.file("store").c_str());
    }
    void TearDown() override {
        if (hadCache_)
            ::setenv("XDG_CACHE_HOME", savedCache_.c_str(), 1);
        else
            ::unsetenv("XDG_CACHE_HOME");
        setFrameStoreRoot(nullptr);
    }
    std::string makeVideo() {
        const std::string path = folder_.file("movie.mp4");
        ffmpeg(MediaTest::silentVideoArguments(path, 64, 48, 1));
        return path;
    }
    // Writes a stored frame the way the frame task does.
    static void store(const std::string& folder, const std::string& name, int width, int height) {
        std::filesystem::create_directories(folder);
        std::vector<unsigned char> pixels(static_cast<size_t>(width * height * 4), 200);
        ASSERT_EQ(dumpPNG(width, height, pixels.data(), (std::filesystem::path(folder) / name).c_str(), 1), 0);
    }

    TempFolder folder_;
    bool hadCache_ = false;
    std::string savedCache_;
};

TEST_F(DmFrameStoreTest, RootIsSettableAndDefaultsToTheUserCache) {
    EXPECT_EQ(frameStoreRoot(), folder_.file("store"));
    setFrameStoreRoot(nullptr);
    ::setenv("XDG_CACHE_HOME", "/somewhere/cache", 1);
    EXPECT_EQ(frameStoreRoot(), "/somewhere/cache/miravel/frames");
    ::setenv("XDG_CACHE_HOME", "", 1);
    const char* home = std::getenv("HOME");
    if (home != nullptr && *home != '\0') {
        EXPECT_EQ(frameStoreRoot(), (std::filesystem::path(home) / ".cache/miravel/frames").string());
    }
    setFrameStoreRoot("");
    EXPECT_NE(frameStoreRoot(), folder_.file("store"));
}

TEST_F(DmFrameStoreTest, NamesFollowMediaStreamSizeAndTimes) {
    EXPECT_EQ(frameStoreFileName(0, 160, 90, 2'500'000, 2'400'000), "s0-160x90-t2500000-p2400000.png");
    EXPECT_EQ(frameStoreFileName(3, 8, 6, -400'000, 0), "s3-8x6-t-400000-p0.png");
    const std::string media = makeVideo();
    const std::string folder = frameStoreFolder(media.c_str());
    ASSERT_FALSE(folder.empty());
    EXPECT_EQ(std::filesystem::path(folder).parent_path().string(), folder_.file("store"));
    EXPECT_EQ(std::filesystem::path(folder).filename().string().rfind("movie.mp4-", 0), 0u) << folder;
    EXPECT_EQ(frameStoreFolder(media.c_str()), folder);  // stable
    EXPECT_EQ(frameStoreFolder(folder_.file("none.mp4").c_str()), "");

    // An edited file gets another folder.
    const auto stamp = std::filesystem::last_write_time(media);
    std::filesystem::last_write_time(media, stamp + std::chrono::seconds(5));
    EXPECT_NE(frameStoreFolder(media.c_str()), folder);
}

TEST_F(DmFrameStoreTest, ScanFindsTheFramesOfOneStreamAndSize) {
    const std::string folder = folder_.file("scan");
    store(folder, frameStoreFileName(0, 8, 6, 400'000, 360'000), 8, 6);
    store(folder, frameStoreFileName(0, 8, 6, -5, 0), 8, 6);
    store(folder, frameStoreFileName(0, 9, 6, 400'000, 360'000), 9, 6);
    store(folder, frameStoreFileName(1, 8, 6, 800'000, 800'000), 8, 6);
    MediaTest::writeText(folder + "/" + frameStoreFileName(0, 8, 6, 7, 7) + ".tmp-1-2", "partial");
    MediaTest::writeText(folder + "/s0-8x6-tjunk-p1.png", "junk");
    const std::vector<DmStoredFrame> frames = frameStoreScan(folder, 0, 8, 6);
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].time, -5);
    EXPECT_EQ(frames[0].shown, 0);
    EXPECT_EQ(frames[1].time, 400'000);
    EXPECT_EQ(frames[1].shown, 360'000);
    EXPECT_EQ(frames[1].path, folder + "/" + frameStoreFileName(0, 8, 6, 400'000, 360'000));
    EXPECT_TRUE(frameStoreScan(folder_.file("nothing"), 0, 8, 6).empty());
}

TEST_F(DmFrameStoreTest, ScanRemovesTheTemporariesOfWritersThatEnded) {
    const std::string folder = folder_.file("leftovers");
    store(folder, frameStoreFileName(0, 8, 6, 0, 0), 8, 6);
    const pid_t child = ::fork();
    if (child == 0) ::_exit(0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    const std::string ended = frameStoreFileName(0, 8, 6, 400'000, 400'000) + ".tmp-" + std::to_string(child) + "-3";
    const std::string alive =
        frameStoreFileName(0, 8, 6, 800'000, 800'000) + ".tmp-" + std::to_string(::getpid()) + "-3";
    MediaTest::writeText(folder + "/" + ended, "partial");
    MediaTest::writeText(folder + "/" + alive, "being written");
    const std::vector<DmStoredFrame> frames = frameStoreScan(folder, 0, 8, 6);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].time, 0);
    EXPECT_FALSE(std::filesystem::exists(folder + "/" + ended));
    EXPECT_TRUE(std::filesystem::exists(folder + "/" + alive));
}

TEST_F(DmFrameStoreTest, FillFramesAndThumbnailFilesReportStoredFiles) {
    const std::string media = makeVideo();
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(media.c_str(), -1, -1, nullptr));
    ASSERT_NE(clip.get(), nullptr);
    auto* video = static_cast<IDmVideoFeature*>(clip->queryInterface("IDmVideoFeature"));
    ASSERT_NE(video, nullptr);
    const std::string folder = frameStoreFolder(media.c_str());
    const std::string stored = folder + "/" + frameStoreFileName(0, 16, 12, 400'000, 400'000);
    store(folder, frameStoreFileName(0, 16, 12, 400'000, 400'000), 16, 12);

    const int64_t times[] = {0, 400'000, 800'000};
    std::vector<char> slots(3 * kSlot, 'x');
    int64_t shown[3] = {7, 7, 7};
    int32_t filled = 0;
    // Nothing prepared yet: no size, no files.
    EXPECT_NE(video->fillFrames(times, 3, slots.data(), shown, &filled), 0);
    EXPECT_EQ(std::string(slots.data() + kSlot), "");

    ASSERT_EQ(video->prepareFrames(16, 12, 25, 1), 0);
    ASSERT_EQ(video->fillFrames(times, 3, slots.data(), shown, &filled), 0);
    EXPECT_EQ(filled, 3);
    EXPECT_EQ(std::string(slots.data()), "");
    EXPECT_EQ(std::string(slots.data() + kSlot), stored);
    EXPECT_EQ(std::string(slots.data() + 2 * kSlot), "");
    EXPECT_EQ(shown[0], -1);
    EXPECT_EQ(shown[1], 400'000);
    EXPECT_EQ(shown[2], -1);

    char text[32] = {0};
    ASSERT_EQ(video->prepareThumbnailSize(16, 12, text, sizeof text), 0);
    EXPECT_STREQ(text, "16x12");
    std::vector<char> thumbSlots(3 * kSlot, 'x');
    int64_t missing[3] = {0, 0, 0};
    int32_t missingCount = -1;
    ASSERT_EQ(video->thumbnailFiles(times, 3, thumbSlots.data(), missing, &missingCount), 0);
    EXPECT_EQ(std::string(thumbSlots.data() + kSlot), stored);
    ASSERT_EQ(missingCount, 2);
    EXPECT_EQ(missing[0], 0);
    EXPECT_EQ(missing[1], 800'000);

    EXPECT_NE(video->prepareFrames(0, 12, 25, 1), 0);
    EXPECT_NE(video->prepareFrames(100'000, 100'000, 25, 1), 0);
}

}  // namespace
}  // namespace ZOR::test
