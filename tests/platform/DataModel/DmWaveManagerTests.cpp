#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "Adapter/Adapter.h"
#include "BsDataStructure/BsDataStructure.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmMediaInternal.h"
#include "MediaTestSupport.h"

namespace ZOR::test {
namespace {

using MediaTest::ffmpeg;
using MediaTest::quantised;

constexpr int32_t kValues = 40;

class DmWaveManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        path_ = folder_.file("tone.wav");
        ASSERT_TRUE(ffmpeg(MediaTest::toneArguments(path_, 440, 44100, 1)));
    }
    ZorRef<IDmClip> newClip(const std::string& path) {
        auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
        EXPECT_NE(clip, nullptr);
        return clip;
    }
    static ZorRef<IDmAudioWaveMgrInternal> managerOf(const ZorRef<IDmClip>& clip) {
        auto* internal = static_cast<IDmClipInternal*>(clip->queryInterface("IDmClipInternal"));
        return ZorRef<IDmAudioWaveMgrInternal>::adopt(acquireIDmAudioWaveMgrInternal(internal->waveManagerSource()));
    }
    static IDmAudioWaveStore* storeOf(const ZorRef<IDmClip>& clip) {
        auto* source = static_cast<IDmMediaSource*>(clip->queryInterface("IDmMediaSource"));
        return source->waveStore();
    }

    TempFolder folder_;
    std::string path_;
};

TEST_F(DmWaveManagerTest, StoredValuesReadBackAsTheNearestSixteenBitStep) {
    const auto clip = newClip(path_);
    IDmAudioWaveStore* store = storeOf(clip);
    ASSERT_NE(store, nullptr);
    const auto manager = managerOf(clip);
    ASSERT_NE(manager, nullptr);

    std::vector<float> values(2 * kValues);
    for (int i = 0; i < 2 * kValues; ++i) values[static_cast<size_t>(i)] = static_cast<float>(i) / 79.0f * 0.999f;
    values[3] = 1.25f;  // decoders overshoot full scale: kept
    values[4] = 0.5f;
    values[5] = 1.0f / 65536.0f + 1e-9f;  // just above half a step: rounds up to one step
    values[6] = 1.0f / 65536.0f - 1e-9f;  // just below: rounds to zero
    values[7] = 12345.0f / 32768.0f;      // a 16-bit PCM sample: kept exactly
    values[8] = 3.0f;                     // beyond what 16 bits hold: the largest step
    ASSERT_EQ(store->storeFrames(store->contentGeneration(), 10, 2, values.data()), 0);

    std::vector<float> read(kValues, -1.0f);
    for (int32_t frame = 10; frame <= 11; ++frame) {
        ASSERT_EQ(manager->readFrame(frame, 25, 1, read.data(), kValues), 0);
        for (int k = 0; k < kValues; ++k) {
            const float expected = quantised(values[static_cast<size_t>((frame - 10) * kValues + k)]);
            EXPECT_EQ(read[static_cast<size_t>(k)], expected) << "frame " << frame << " value " << k;
        }
    }
    ASSERT_EQ(manager->readFrame(10, 25, 1, read.data(), kValues), 0);
    EXPECT_EQ(read[3], 1.25f);
    EXPECT_EQ(read[4], 0.5f);
    EXPECT_EQ(read[5], 1.0f / 32768.0f);
    EXPECT_EQ(read[6], 0.0f);
    EXPECT_EQ(read[7], 12345.0f / 32768.0f);
    EXPECT_EQ(read[8], 65535.0f / 32768.0f);

    // Ranges: held only where every frame is.
    EXPECT_NE(manager->hasFrames(10, 11), 0);
    EXPECT_NE(manager->hasFrames(11, 11), 0);
    EXPECT_EQ(manager->hasFrames(9, 11), 0);
    EXPECT_EQ(manager->hasFrames(10, 12), 0);
    EXPECT_EQ(manager->hasFrames(11, 10), 0);

    // A frame not held reads as zeros and says so.
    std::fill(read.begin(), read.end(), 7.0f);
    EXPECT_EQ(manager->readFrame(12, 25, 1, read.data(), kValues), 1001);
    for (float value : read) EXPECT_EQ(value, 0.0f);

    const auto missing = store->missingRanges(8, 14);
    ASSERT_EQ(missing.size(), 2u);
    EXPECT_EQ(missing[0], std::make_pair(8, 9));
    EXPECT_EQ(missing[1], std::make_pair(12, 14));
}

TEST_F(DmWaveManagerTest, OnlyTwentyFiveFramesPerSecondIsKept) {
    const auto clip = newClip(path_);
    const auto manager = managerOf(clip);
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ(manager->valueCountPerFrame(25, 1), 40u);
    EXPECT_EQ(manager->valueCountPerFrame(50, 2), 40u);
    EXPECT_EQ(manager->valueCountPerFrame(30, 1), 0u);
    EXPECT_EQ(manager->valueCountPerFrame(25, 0), 0u);
    std::vector<float> read(kValues, 3.0f);
    EXPECT_NE(manager->readFrame(0, 30, 1, read.data(), kValues), 0);
    EXPECT_EQ(read[0], 0.0f);

    auto* audio = static_cast<IDmAudioFeature*>(clip->queryInterface("IDmAudioFeature"));
    int32_t count = -1;
    EXPECT_EQ(audio->valueCountPerFrame(&count, 25, 1), 0);
    EXPECT_EQ(count, 40);
    EXPECT_NE(audio->valueCountPerFrame(&count, 30000, 1001), 0);
    EXPECT_EQ(count, 0);
}

TEST_F(DmWaveManagerTest, EndOfStreamBoundsTheMissingFrames) {
    const auto clip = newClip(path_);
    IDmAudioWaveStore* store = storeOf(clip);
    EXPECT_EQ(store->endFrame(), -1);
    store->setEndFrame(store->contentGeneration(), 25);
    EXPECT_EQ(store->endFrame(), 25);
    const auto missing = store->missingRanges(20, 40);
    ASSERT_EQ(missing.size(), 1u);
    EXPECT_EQ(missing[0], std::make_pair(20, 24));
    EXPECT_TRUE(store->missingRanges(25, 30).empty());
    int64_t pts = 0;
    int32_t rate = 0;
    const uint64_t generation = store->contentGeneration();
    EXPECT_FALSE(store->decodeOrigin(generation, &pts, &rate));
    store->setDecodeOrigin(generation, 1105, 44100);
    ASSERT_TRUE(store->decodeOrigin(generation, &pts, &rate));
    EXPECT_EQ(pts, 1105);
    EXPECT_EQ(rate, 44100);
}

TEST_F(DmWaveManagerTest, FillValuesCopiesListedFramesInOrderWithZerosForFramesNotHeld) {
    const auto clip = newClip(path_);
    IDmAudioWaveStore* store = storeOf(clip);
    std::vector<float> values(3 * kValues);
    for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>(i + 1) / 200.0f;
    ASSERT_EQ(store->storeFrames(store->contentGeneration(), 0, 3, values.data()), 0);

    const auto frames = ZorRef<IZORLonglongList>::adopt(createZORLonglongList());
    for (int64_t frame : {2, 0, 5, 1}) frames->append(frame);
    std::vector<float> buffer(4 * kValues, -1.0f);
    auto* audio = static_cast<IDmAudioFeature*>(clip->queryInterface("IDmAudioFeature"));
    ASSERT_EQ(audio->fillValues(frames.get(), 25, 1, buffer.data()), 0);
    const int64_t order[] = {2, 0, -1, 1};
    for (int i = 0; i < 4; ++i)
        for (int k = 0; k < kValues; ++k) {
            const float got = buffer[static_cast<size_t>(i * kValues + k)];
            const float expected = order[i] < 0 ? 0.0f : quantised(values[static_cast<size_t>(order[i] * kValues + k)]);
            EXPECT_EQ(got, expected) << "slot " << i << " value " << k;
        }
    EXPECT_NE(audio->fillValues(frames.get(), 24, 1, buffer.data()), 0);
}

TEST_F(DmWaveManagerTest, ClipsOfOneFileShareOneManagerUntilTheLastIsGone) {
    const std::string link = folder_.file("link.wav");
    std::filesystem::create_symlink(path_, link);
    {
        const auto first = newClip(path_);
        const auto viaLink = newClip(link);
        ZorRef<IDmClip> relative;
        {
            // The same file through a relative path.
            const auto previous = std::filesystem::current_path();
            std::filesystem::current_path(folder_.path());
            relative = newClip("./tone.wav");
            std::filesystem::current_path(previous);
        }
        const auto a = managerOf(first);
        const auto b = managerOf(viaLink);
        const auto c = managerOf(relative);
        ASSERT_NE(a, nullptr);
        EXPECT_EQ(a.get(), b.get());
        EXPECT_EQ(a.get(), c.get());
        std::vector<float> values(kValues, 0.5f);
        ASSERT_EQ(storeOf(first)->storeFrames(storeOf(first)->contentGeneration(), 4, 1, values.data()), 0);
        EXPECT_NE(b->hasFrames(4, 4), 0);
    }

    // Every holder is gone: a new clip starts with an empty manager.
    const auto again = newClip(path_);
    const auto fresh = managerOf(again);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(fresh->hasFrames(4, 4), 0);
    EXPECT_EQ(fresh->refCount(), 2);  // the clip's and ours
}

// The file's identity is its size and modification time; anything that is not
// a regular file has none.
TEST_F(DmWaveManagerTest, FileIdentityIsSizeAndModificationTime) {
    const DmFileIdentity identity = mediaFileIdentity(path_.c_str());
    EXPECT_TRUE(identity.regular);
    EXPECT_EQ(identity.size, static_cast<int64_t>(std::filesystem::file_size(path_)));
    EXPECT_EQ(mediaFileIdentity(path_.c_str()), identity);
    const auto stamp = std::filesystem::last_write_time(path_);
    std::filesystem::last_write_time(path_, stamp + std::chrono::seconds(3));
    const DmFileIdentity touched = mediaFileIdentity(path_.c_str());
    EXPECT_EQ(touched.size, identity.size);
    EXPECT_EQ(touched.modified, identity.modified + 3'000'000'000);
    EXPECT_NE(touched, identity);
    EXPECT_FALSE(mediaFileIdentity(folder_.file("missing.wav").c_str()).regular);
    EXPECT_FALSE(mediaFileIdentity(folder_.path().string().c_str()).regular);
    EXPECT_EQ(mediaFileIdentity(folder_.file("missing.wav").c_str()), DmFileIdentity{});
    EXPECT_FALSE(mediaFileIdentity(nullptr).regular);
}

// A new identity drops everything the manager held and begins a new
// generation; writes of the old generation are refused.
TEST_F(DmWaveManagerTest, ANewFileIdentityDropsHeldFramesAndRefusesStaleWrites) {
    const auto clip = newClip(path_);
    IDmAudioWaveStore* store = storeOf(clip);
    const auto manager = managerOf(clip);
    ASSERT_NE(manager, nullptr);
    const DmFileIdentity identity = mediaFileIdentity(path_.c_str());
    const uint64_t old = store->contentGeneration();
    // The identity the clip was made with: nothing changes.
    EXPECT_EQ(store->adoptContent(identity), old);
    std::vector<float> values(2 * kValues, 0.25f);
    ASSERT_EQ(store->storeFrames(old, 0, 2, values.data()), 0);
    store->setEndFrame(old, 25);
    store->setDecodeOrigin(old, 0, 44100);
    EXPECT_NE(manager->hasFrames(0, 1), 0);

    // No identity (the file cannot be looked at): nothing changes either.
    EXPECT_EQ(store->adoptContent(DmFileIdentity{}), old);
    EXPECT_NE(manager->hasFrames(0, 1), 0);

    DmFileIdentity changed = identity;
    changed.size += 1;
    const uint64_t fresh = store->adoptContent(changed);
    EXPECT_NE(fresh, old);
    EXPECT_EQ(store->contentGeneration(), fresh);
    EXPECT_EQ(manager->hasFrames(0, 0), 0);
    EXPECT_EQ(store->endFrame(), -1);
    EXPECT_FALSE(store->decodeOrigin(fresh, nullptr, nullptr));
    ASSERT_EQ(store->missingRanges(0, 30).size(), 1u);
    EXPECT_EQ(store->missingRanges(0, 30)[0], std::make_pair(0, 30));

    // A decoder of the old content writes in vain.
    EXPECT_EQ(store->storeFrames(old, 0, 2, values.data()), IDmAudioWaveStore::kStaleGeneration);
    store->setEndFrame(old, 25);
    store->setDecodeOrigin(old, 0, 44100);
    EXPECT_EQ(manager->hasFrames(0, 0), 0);
    EXPECT_EQ(store->endFrame(), -1);
    EXPECT_FALSE(store->decodeOrigin(old, nullptr, nullptr));
    EXPECT_FALSE(store->decodeOrigin(fresh, nullptr, nullptr));
    ASSERT_EQ(store->storeFrames(fresh, 1, 1, values.data()), 0);
    EXPECT_NE(manager->hasFrames(1, 1), 0);
}

// A clip made after the file changed on disk shares the manager of the older
// clips, which starts over for the new content.
TEST_F(DmWaveManagerTest, AClipOfAChangedFileEmptiesTheSharedManager) {
    const auto before = newClip(path_);
    IDmAudioWaveStore* store = storeOf(before);
    std::vector<float> values(kValues, 0.5f);
    const uint64_t old = store->contentGeneration();
    ASSERT_EQ(store->storeFrames(old, 3, 1, values.data()), 0);
    // The same file again: what is held stays.
    const auto same = newClip(path_);
    const auto manager = managerOf(same);
    EXPECT_NE(manager->hasFrames(3, 3), 0);
    EXPECT_EQ(store->contentGeneration(), old);

    ASSERT_TRUE(ffmpeg(MediaTest::toneArguments(path_, 220, 44100, 1.5)));
    const auto after = newClip(path_);
    EXPECT_EQ(storeOf(after), store);
    EXPECT_EQ(manager->hasFrames(3, 3), 0);
    EXPECT_NE(store->contentGeneration(), old);
    EXPECT_EQ(store->storeFrames(old, 3, 1, values.data()), IDmAudioWaveStore::kStaleGeneration);
}

}  // namespace
}  // namespace ZOR::test
