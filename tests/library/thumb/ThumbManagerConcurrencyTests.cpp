// The media thumbnail manager used from several threads while its worker
// renders: requests over five media items, each with its own root, with items stopped,
// the box changed and caches cleared in between, then every picture brought
// to disk and the manager destroyed. Meant for the ThreadSanitizer build.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <latch>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ThumbTestSupport.h"

namespace ZOR::test {
namespace {

namespace fs = std::filesystem;

constexpr int32_t kCount = 10;
constexpr int kMedia = 5;
constexpr int kThreads = 3;

TEST(ThumbManagerConcurrencyTest, GetFrameFromThreeThreadsWithStopsResizesAndCacheClearsThenDestruction) {
    TempFolder folder;
    // Five media items: one small video under five names.
    const std::string first = folder.file("media0.mp4");
    ASSERT_TRUE(makeColourVideo(first, {{255, 0, 0}, {0, 0, 255}}, 64, 36, 25));
    std::vector<std::string> media{first};
    for (int m = 1; m < kMedia; ++m) {
        media.push_back(folder.file("media" + std::to_string(m) + ".mp4"));
        fs::copy_file(first, media.back());
    }
    std::vector<std::string> roots;
    for (int m = 0; m < kMedia; ++m) roots.push_back(folder.file("root" + std::to_string(m)));
    auto requestFor = [&](int m) {
        return makeRequest(media[static_cast<size_t>(m)], roots[static_cast<size_t>(m)], 0, 2 * kSecond, 2 * kSecond);
    };

    Recorder recorder;
    ManagerHolder manager;
    ASSERT_NE(manager.get(), nullptr);
    manager->setWorkerSleep(1);
    manager->setThumbCount(kCount);
    manager->setThumbSize(64, 36);
    ASSERT_EQ(manager->addCallback(&recorder), 0);

    // What a file the manager names looks like: under one of the roots, of an
    // index in range, at one of the two boxes.
    const std::regex named(R"(.*/root([0-4])/media_thumbnail/(\d+)_(64_36|32_18)\.png)");
    std::atomic<int> badResults{0};
    std::atomic<int> badPaths{0};
    std::atomic<int> found{0};
    std::latch start(kThreads);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);

    auto client = [&](int id) {
        start.arrive_and_wait();
        char out[1024];
        for (int k = 0; k < 300 || (recorder.notices().size() < 30 && std::chrono::steady_clock::now() < deadline);
             ++k) {
            const int m = (k + id) % kMedia;
            const MediaThumbRequest request = requestFor(m);
            out[0] = '\0';
            const int32_t result = manager->getFrame(&request, static_cast<double>((k * 7 + id) % 11) / 10.0, out);
            if (result == 0) {
                ++found;
                std::smatch match;
                const std::string path(out);
                if (!std::regex_match(path, match, named) || match[1].str() != std::to_string(m)) ++badPaths;
            } else if (result != 1001) {
                ++badResults;
            }
            if (id == 1 && k % 7 == 3 && manager->stopGetFrame(&request) != 0) ++badResults;
            if (id == 2 && k % 10 == 5) {
                if ((k / 10) % 2 == 0)
                    manager->setThumbSize(32, 18);
                else
                    manager->setThumbSize(64, 36);
            }
            if (id == 2 && k % 25 == 12) {
                const int32_t cleared = manager->clearCache(roots[static_cast<size_t>(m)].c_str());
                if (cleared != 0 && cleared != 1001) ++badResults;
            }
            std::this_thread::yield();
        }
    };
    std::vector<std::thread> threads;
    for (int id = 0; id < kThreads; ++id) threads.emplace_back(client, id);
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(badResults.load(), 0);
    EXPECT_EQ(badPaths.load(), 0);

    for (const Notice& notice : recorder.notices()) {
        EXPECT_GE(notice.index, 0);
        EXPECT_LT(notice.index, kCount);
        std::smatch match;
        const bool matched = std::regex_match(notice.path, match, named);
        EXPECT_TRUE(matched) << notice.path;
        if (matched) {
            EXPECT_EQ(match[2].str(), std::to_string(notice.index)) << notice.path;
            const size_t m = static_cast<size_t>(std::stoi(match[1].str()));
            EXPECT_STREQ(notice.request.rootDir, roots[m].c_str()) << notice.path;
            EXPECT_STREQ(notice.request.mediaPath, media[m].c_str()) << notice.path;
        }
    }

    // Quiet now: every item stopped, then asked for again at one box until
    // every picture of every item is on disk.
    for (int m = 0; m < kMedia; ++m) {
        const MediaThumbRequest request = requestFor(m);
        EXPECT_EQ(manager->stopGetFrame(&request), 0);
    }
    ASSERT_EQ(manager->setThumbSize(64, 36), 0);
    ASSERT_EQ(manager->setMaxTasks(kMedia), 0);
    const auto settle = std::chrono::steady_clock::now() + kGenerousForStress;
    for (;;) {
        int missingItems = 0;
        for (int m = 0; m < kMedia; ++m) {
            int missing = -1;
            for (int i = 0; i < kCount && missing < 0; ++i)
                if (!fs::exists(thumbFile(roots[static_cast<size_t>(m)], i, 64, 36))) missing = i;
            if (missing < 0) continue;
            ++missingItems;
            // Asked for at a missing picture, so that the item is queued.
            const MediaThumbRequest request = requestFor(m);
            char out[1024];
            manager->getFrame(&request, (missing + 0.5) / kCount, out);
        }
        if (missingItems == 0) break;
        ASSERT_LT(std::chrono::steady_clock::now(), settle) << "pictures still missing";
        recorder.waitForCount(recorder.notices().size() + 1, std::chrono::milliseconds(2000));
    }
    for (int m = 0; m < kMedia; ++m)
        for (int i = 0; i < kCount; ++i) {
            const std::string file = thumbFile(roots[static_cast<size_t>(m)], i, 64, 36);
            EXPECT_EQ(readPicture(file).status, 0) << file;
        }

    // Destroyed while it may still be working: returns promptly.
    auto destroyed = std::async(std::launch::async, [held = manager.take()]() mutable { held.reset(); });
    ASSERT_EQ(destroyed.wait_for(kGenerous), std::future_status::ready);
    destroyed.get();
    EXPECT_TRUE(filesNamed(folder.path(), ".tmp").empty());
}

}  // namespace
}  // namespace ZOR::test
