// The thumb adapter's lanes under threads: plans, pictures, new sizes and
// modes, closing and opening, and release while the lanes decode.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "Common/ZorInternalComUtility.h"
#include "ThumbAdapterInternal.h"
#include "Adapter/Adapter.h"
#include "MediaTestSupport.h"
#include "Timeouts.h"

namespace ZOR::test {
namespace {

constexpr int64_t kSecond = 10'000'000;
constexpr int64_t kFrame = 400'000;  // 25 frames per second
constexpr int32_t kWidth = 128;
constexpr int32_t kHeight = 64;

// The frame number the band of a picture spells, or -1.
int numberOf(const std::vector<unsigned char>& rgba) { return MediaTest::numberOfBand(rgba.data(), kWidth); }

class ThumbReadAheadConcurrencyTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        folder_ = new TempFolder();
        // 10 s at 25/1 under a band that spells each frame's number, a
        // keyframe every 2 s, B-frames in a pyramid.
        path_ = folder_->file("numbered.mp4");
        ASSERT_TRUE(MediaTest::ffmpeg(MediaTest::numberedVideoArguments(path_, 128, 64, 10)));
    }
    static void TearDownTestSuite() {
        delete folder_;
        folder_ = nullptr;
    }

    static TempFolder* folder_;
    static std::string path_;
};

TempFolder* ThumbReadAheadConcurrencyTest::folder_ = nullptr;
std::string ThumbReadAheadConcurrencyTest::path_;

TEST_F(ThumbReadAheadConcurrencyTest, PlansPicturesAndSettingsFromThreeThreads) {
    const auto adapter = ZorRef<IThumbAdapter>::adopt(createThumbAdapter());
    ASSERT_NE(adapter, nullptr);
    ASSERT_EQ(adapter->setMediaPath(path_.c_str()), 0);
    ASSERT_EQ(adapter->setOutputSize(kWidth, kHeight), 0);
    ASSERT_EQ(adapter->open(-1), 0);

    std::atomic<bool> done{false};
    std::atomic<int> pictures{0};
    std::atomic<int> wrong{0};
    // The renderer: plans six times, asks for them in order, again and again.
    auto renderer = std::async(std::launch::async, [&] {
        std::vector<unsigned char> buffer(static_cast<size_t>(kWidth) * kHeight * 4);
        for (int round = 0; round < 12; ++round) {
            std::vector<int64_t> times;
            for (int k = 0; k < 6; ++k) times.push_back(((round * 7 + k * 13) % 240) * kFrame + kFrame / 2);
            adapter->readAhead(times.data(), static_cast<int32_t>(times.size()));
            for (int64_t t : times) {
                const int32_t result = adapter->frameAt(t, buffer.data(), static_cast<int64_t>(buffer.size()));
                if (result != 0) continue;  // closed or resized meanwhile
                const int number = numberOf(buffer);
                const int exact = static_cast<int>(t / kFrame);
                const int keyframe = exact - exact % 50;
                // Exact, or the keyframe while the other thread had keyframe
                // mode set; -1 while it had another size set.
                if (number != -1 && number != exact && number != keyframe) ++wrong;
                ++pictures;
            }
        }
        done = true;
    });
    // Settings: mode and size back and forth, closing and opening.
    auto settings = std::async(std::launch::async, [&] {
        for (int k = 0; !done.load() && k < 10000; ++k) {
            adapter->setSeekMode(k % 2 == 0 ? ThumbSeekKeyframe : ThumbSeekExact);
            adapter->setOutputSize(k % 3 == 0 ? 64 : kWidth, k % 3 == 0 ? 32 : kHeight);
            adapter->setOutputSize(kWidth, kHeight);
            if (k % 5 == 0) {
                adapter->close();
                adapter->open(-1);
            }
            adapter->setSeekMode(ThumbSeekExact);
            std::this_thread::yield();
        }
    });
    // Counts and sizes read meanwhile.
    auto reader = std::async(std::launch::async, [&] {
        auto* inner = static_cast<IThumbAdapterInternal*>(adapter->queryInterface("IThumbAdapterInternal"));
        int64_t frames = 0;
        while (!done.load()) {
            if (inner != nullptr) frames = std::max(frames, inner->decodeCounts().frames);
            int32_t w = 0;
            int32_t h = 0;
            adapter->outputSize(&w, &h);
            std::this_thread::yield();
        }
        return frames;
    });
    ASSERT_EQ(renderer.wait_for(kGenerousForStress), std::future_status::ready);
    ASSERT_EQ(settings.wait_for(kGenerousForStress), std::future_status::ready);
    ASSERT_EQ(reader.wait_for(kGenerousForStress), std::future_status::ready);
    renderer.get();
    settings.get();
    EXPECT_GE(reader.get(), 0);
    EXPECT_EQ(wrong.load(), 0);

    // Quiet again: every planned picture is the exact frame.
    ASSERT_EQ(adapter->setOutputSize(kWidth, kHeight), 0);
    ASSERT_EQ(adapter->setSeekMode(ThumbSeekExact), 0);
    ASSERT_EQ(adapter->open(-1), 0);
    const std::vector<int64_t> times{9 * kSecond, kSecond, 5 * kSecond};
    ASSERT_EQ(adapter->readAhead(times.data(), 3), 0);
    std::vector<unsigned char> buffer(static_cast<size_t>(kWidth) * kHeight * 4);
    for (int64_t t : times) {
        ASSERT_EQ(adapter->frameAt(t, buffer.data(), static_cast<int64_t>(buffer.size())), 0);
        EXPECT_EQ(numberOf(buffer), static_cast<int>(t / kFrame));
    }
}

TEST_F(ThumbReadAheadConcurrencyTest, ReleasedWhileItsLanesDecode) {
    for (int round = 0; round < 5; ++round) {
        auto adapter = ZorRef<IThumbAdapter>::adopt(createThumbAdapter());
        ASSERT_NE(adapter, nullptr);
        ASSERT_EQ(adapter->setMediaPath(path_.c_str()), 0);
        ASSERT_EQ(adapter->setOutputSize(kWidth, kHeight), 0);
        ASSERT_EQ(adapter->open(-1), 0);
        const std::vector<int64_t> times{9 * kSecond, 7 * kSecond, 5 * kSecond, 3 * kSecond};
        ASSERT_EQ(adapter->readAhead(times.data(), 4), 0);
        // Released at once, from another thread than the one that planned;
        // the lanes end with their pictures.
        auto released = std::async(std::launch::async, [held = std::move(adapter)]() mutable { held.reset(); });
        ASSERT_EQ(released.wait_for(kGenerousForStress), std::future_status::ready);
    }
}

}  // namespace
}  // namespace ZOR::test
