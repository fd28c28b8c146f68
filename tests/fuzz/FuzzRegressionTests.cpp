// The fuzz roads in the normal suite: every road takes the smallest inputs,
// media held in memory reads as its file does, and the inputs the fuzzers
// found a fault with pass through their roads.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "Adapter/Adapter.h"
#include "BtmMediaDecoder.h"
#include "BtmWaveSamples.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "FuzzRegressions.h"
#include "FuzzRoads.h"
#include "MediaTestSupport.h"
#include "ZorUtils/ZorUtils.h"

namespace ZOR::test {
namespace {

using MediaTest::ffmpeg;

int64_t intProperty(IDmClip* clip, const char* key) {
    auto* owner = static_cast<IDmPropertyOwner*>(clip->queryInterface("IDmPropertyOwner"));
    ZorProperty value;
    if (owner == nullptr || owner->getProperty(key, &value) != 0) return -1;
    return value.intValue;
}

// Every sample of the first audio stream, decoded; empty when it cannot open.
std::vector<float> decodedSamples(const std::string& path, std::string* problem) {
    btm::MediaDecoder decoder;
    std::vector<float> samples;
    if (!decoder.open(path, 1, problem)) return samples;
    av::FramePtr frame = av::newFrame();
    btm::FloatSamples floats;
    while (decoder.next(frame.get(), [] { return false; }) == 0) {
        EXPECT_TRUE(floats.load(frame.get()));
        for (int i = 0; i < floats.count(); ++i)
            for (int c = 0; c < floats.channels(); ++c) samples.push_back(floats.channelPeak(c, i, i + 1));
        av_frame_unref(frame.get());
    }
    return samples;
}

class FuzzRoadTest : public ::testing::Test {
protected:
    void SetUp() override { fuzz::prepareProcess(); }

    // A second of film (H.264 at 64 x 48, stereo AAC at 48 kHz) and its bytes.
    std::string makeFilm() {
        const std::string path = folder_.file("film.mp4");
        ffmpeg(MediaTest::filmArguments(path, 64, 48, 1.0, 440));
        return path;
    }

    TempFolder folder_;
};

TEST_F(FuzzRoadTest, EveryRoadTakesNoBytesOneByteAndTwoBytes) {
    const uint8_t bytes[2] = {0xff, 0x00};
    for (const fuzz::RoadEntry& entry : fuzz::kRoads) {
        SCOPED_TRACE(std::string(entry.name));
        EXPECT_EQ(entry.road(bytes, 0), 0);
        EXPECT_EQ(entry.road(bytes, 1), 0);
        EXPECT_EQ(entry.road(bytes, 2), 0);
    }
}

TEST_F(FuzzRoadTest, MediaInMemoryProbesAsItsFileDoes) {
    const std::string path = makeFilm();
    const std::vector<char> bytes = MediaTest::readBytes(path);
    ASSERT_FALSE(bytes.empty());
    const char* memoryPath = "/miravel-test/in-memory/film.mp4";
    setMemoryMedia(memoryPath, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());

    auto fromFile = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    std::string error;
    auto fromMemory = ZorRef<IDmClip>::adopt(createMediaClip(memoryPath, -1, -1, &error));
    ASSERT_NE(fromMemory.get(), nullptr);
    EXPECT_EQ(error, "");
    EXPECT_EQ(fromMemory->clipType(), DmTrackVideo);
    EXPECT_EQ(fromMemory->clipType(), fromFile->clipType());
    for (const char* key : {mediaInfoKey::width, mediaInfoKey::height, mediaInfoKey::vid_stream_id,
                            mediaInfoKey::duration}) {
        SCOPED_TRACE(key);
        EXPECT_EQ(intProperty(fromMemory.get(), key), intProperty(fromFile.get(), key));
    }
    EXPECT_EQ(intProperty(fromMemory.get(), mediaInfoKey::width), 64);
    auto* memorySound = static_cast<IDmAudioFeature*>(fromMemory->queryInterface("IDmAudioFeature"));
    auto* fileSound = static_cast<IDmAudioFeature*>(fromFile->queryInterface("IDmAudioFeature"));
    ASSERT_NE(memorySound, nullptr);
    ASSERT_NE(fileSound, nullptr);
    EXPECT_EQ(memorySound->sampleRate(), 48000);
    EXPECT_EQ(memorySound->channelCount(), 2);
    EXPECT_EQ(memorySound->mediaDuration(), fileSound->mediaDuration());

    // Once the bytes are taken back, the path is looked for on disk again.
    clearMemoryMedia(memoryPath);
    forgetMediaFailures(memoryPath);
    auto gone = ZorRef<IDmClip>::adopt(createMediaClip(memoryPath, -1, -1, &error));
    ASSERT_NE(gone.get(), nullptr);
    EXPECT_EQ(gone->clipType(), 0);
    EXPECT_EQ(error, std::string("'") + memoryPath + "': No such file or directory");
}

TEST_F(FuzzRoadTest, MediaInMemoryDecodesToTheSamplesOfItsFile) {
    const std::string path = makeFilm();
    const std::vector<char> bytes = MediaTest::readBytes(path);
    const std::string memoryPath = folder_.file("not-on-disk.mp4");
    setMemoryMedia(memoryPath.c_str(), reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    std::string problem;
    const std::vector<float> fromFile = decodedSamples(path, &problem);
    const std::vector<float> fromMemory = decodedSamples(memoryPath, &problem);
    clearMemoryMedia(memoryPath.c_str());
    EXPECT_EQ(problem, "");
    // A second of stereo at 48 kHz, less the encoder's priming it trims.
    EXPECT_GE(fromFile.size(), 2u * 47000u);
    EXPECT_EQ(fromMemory, fromFile);
}

TEST_F(FuzzRoadTest, MediaInMemoryThatIsNotMediaIsRefusedNamingThePath) {
    const std::string text = "this is not a media file, only words";
    const char* memoryPath = "/miravel-test/in-memory/words.mp4";
    setMemoryMedia(memoryPath, reinterpret_cast<const unsigned char*>(text.data()), text.size());
    std::string error;
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(memoryPath, -1, -1, &error));
    clearMemoryMedia(memoryPath);
    forgetMediaFailures(memoryPath);
    ASSERT_NE(clip.get(), nullptr);
    EXPECT_EQ(clip->clipType(), 0);
    EXPECT_EQ(error, std::string("'") + memoryPath + "': Invalid data found when processing input");
}

TEST_F(FuzzRoadTest, EveryFoundInputNamesAKnownRoadAndPassesThroughIt) {
    for (const fuzz::Regression& regression : fuzz::kRegressions) {
        SCOPED_TRACE(std::string(regression.road) + ": " + std::string(regression.name));
        fuzz::Road road = nullptr;
        for (const fuzz::RoadEntry& entry : fuzz::kRoads)
            if (entry.name == regression.road) road = entry.road;
        ASSERT_NE(road, nullptr);
        const std::vector<uint8_t> bytes = regression.bytes();
        EXPECT_FALSE(bytes.empty());
        EXPECT_EQ(road(bytes.data(), bytes.size()), 0);
    }
}

}  // namespace
}  // namespace ZOR::test
