// The audio thumbnail builder on the real task service and real timelines
// (createTimeline), with media made by the ffmpeg command. Every expected
// value is worked out here from the WAV file's samples: the wave values by
// their definition (the peak of every channel per millisecond), then the
// point placement, the frame and value index of each position and the volume
// gain, and compared bit for bit with what the builder delivers.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Adapter/Adapter.h"
#include "AudioRecording.h"
#include "BsAudioSampleCache.h"
#include "BsAudioThumbnailBuilder.h"
#include "BsDataStructure/BsDataStructure.h"
#include "CapturingLogger.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmTimeline.h"
#include "FakeDataModel.h"
#include "MediaTestSupport.h"
#include "TimelineDescs.h"
#include "WavePeaks.h"

namespace ZOR::test {
namespace {

// The test media, and the thumbnails worked out from their samples.
using namespace MediaTest;

constexpr int64_t kSecond = 10'000'000;  // cns
constexpr uint32_t kChangeVolume = 0x40;

// A queryer that keeps every delivery, and an owner that keeps every notice;
// the test waits for them.
class Recorder final : public RecordingCallback, public IBsAudioThumbnailQueryer {
public:
    IBsAudioClipThumbnailCallback* getResultCallback() override { return this; }
    bool isCalcDuckingEnabled() override { return true; }
};

IDmTimeline* timelineOf(int32_t kind, const DmClipDesc& clip) {
    DmTimelineDesc desc;
    desc.name = "cut";
    DmTrackDesc track;
    track.name = kind == DmTrackAudio ? "A1" : "V1";
    track.kind = kind;
    track.clips.push_back(clip);
    desc.tracks.push_back(track);
    std::string error;
    IDmTimeline* timeline = createTimeline(desc, &error);
    EXPECT_NE(timeline, nullptr) << error;
    return timeline;
}

// The lines of the captured log written by function whose text contains part.
size_t linesOf(const CapturingSink& sink, const std::string& function, const std::string& part) {
    size_t count = 0;
    for (const CapturedLine& line : sink.lines())
        if (line.function == function && line.text.find(part) != std::string::npos) ++count;
    return count;
}

class AudioRealService : public ::testing::Test {
protected:
    // Queries clip over [begin, end) with count points through queryer and
    // returns the delivery (checking its clip and range).
    static std::vector<float> query(BsAudioThumbnailBuilder& builder, Recorder& queryer, IDmClip* clip, int64_t begin,
                                    int64_t end, int count) {
        const size_t before = queryer.deliveries().size();
        EXPECT_EQ(builder.queryAudioThumbnailData(&queryer, clip, begin, end, count), 0);
        EXPECT_TRUE(queryer.waitForDeliveries(before + 1));
        const std::vector<AudioDelivery> deliveries = queryer.deliveries();
        if (deliveries.size() <= before) return {};
        const AudioDelivery& delivery = deliveries[before];
        EXPECT_EQ(delivery.clip, clip);
        EXPECT_EQ(delivery.begin, begin);
        EXPECT_EQ(delivery.end, end);
        return delivery.values;
    }

    TempFolder folder_;
};

// A clip of a stereo WAV file, 0.71 s into the file, 2 s into the timeline, at
// -6 dB: the 997 points over its clip time are the file's peaks at each
// position, scaled by sqrt(gain(-6 dB)). Then the volume goes to 0 dB: the
// values are the peaks themselves, recomputed from the raw values kept and
// read again by a new queryer with another count.
TEST_F(AudioRealService, ClipOfAWavFileDeliversThePeaksOfItsSamplesWithTheVolumeApplied) {
    const std::string path = folder_.file("stepped.wav");
    ASSERT_TRUE(ffmpeg(steppedSource(2, 4.0) + " -c:a pcm_s16le '" + path + "'"));
    const MediaTest::Pcm pcm = MediaTest::readWav16(path);
    ASSERT_EQ(pcm.rate, 48000);
    ASSERT_EQ(pcm.channels, 2);
    ASSERT_EQ(pcm.frames(), 4u * 48000u);
    const std::vector<float> windows = MediaTest::waveValues(pcm);
    ASSERT_EQ(windows.size(), 4000u);

    const int64_t markIn = 7'123'457;  // 0.7123457 s: inside a frame and inside a window
    const int64_t length = 3 * kSecond;
    const int64_t markOut = markIn + length;
    auto timeline =
        ZorRef<IDmTimeline>::adopt(timelineOf(DmTrackAudio, clipOf("clip", path, 2 * kSecond, markIn, length, -6.0)));
    ASSERT_NE(timeline.get(), nullptr);
    IDmClip* clip = timeline->clip(0, 0);
    ASSERT_NE(clip, nullptr);
    ASSERT_EQ(beginTimeOfClip(clip), 2 * kSecond);
    ASSERT_EQ(markInTimeOfClip(clip), markIn);
    ASSERT_EQ(markOutTimeOfClip(clip), markOut);
    auto* audio = static_cast<IDmAudioFeature*>(clip->queryInterface("IDmAudioFeature"));
    ASSERT_NE(audio, nullptr);
    // Speed 1, forwards: the source position is the clip time.
    EXPECT_EQ(audio->sourcePosition(markIn, false), markIn);
    EXPECT_EQ(audio->sourcePosition(markIn + 12'345'678, false), markIn + 12'345'678);

    Recorder owner;
    Recorder queryer;
    auto builder = std::make_unique<BsAudioThumbnailBuilder>(&owner, timeline.get());

    const std::vector<float> quiet = query(*builder, queryer, clip, markIn, markOut, 997);
    const std::vector<float> expectedQuiet = expectedThumbnail(windows, markIn, markOut, 997, -6.0);
    expectSameFloats(quiet, expectedQuiet);
    EXPECT_GT(distinctValues(expectedQuiet), 400u);
    // -6 dB is about half the power: sqrt(0.501) of the peaks.
    EXPECT_NEAR(quiet[100] / rawValueAt(windows, pointTime(markIn, markOut, 100, 997)), 0.708, 0.001);

    // The volume to 0 dB, and the change told to the builder.
    ASSERT_EQ(audio->setProperty(audioKey::volume, doubleProperty(0.0)), 0);
    auto clips = ZorRef<FakeClipList>::adopt(zorCreateObject<FakeClipList, FakeClipList>());
    clips->append(clip);
    auto bits = ZorRef<IZORIntList>::adopt(createZORIntList());
    bits->append(static_cast<int32_t>(kChangeVolume));
    ASSERT_EQ(builder->onAudioChanged(timeline.get(), clips.get(), bits.get()), 0);
    EXPECT_EQ(owner.notices(), std::vector<IDmClip*>{clip});

    const std::vector<float> full = query(*builder, queryer, clip, markIn, markOut, 997);
    const std::vector<float> expectedFull = expectedThumbnail(windows, markIn, markOut, 997, 0.0);
    expectSameFloats(full, expectedFull);
    // At 0 dB the gain is exactly 1: the values are the file's peaks.
    for (int i = 0; i < 997; ++i)
        ASSERT_EQ(expectedFull[static_cast<size_t>(i)], rawValueAt(windows, pointTime(markIn, markOut, i, 997))) << i;

    Recorder other;
    const std::vector<float> again = query(*builder, other, clip, markIn, markOut, 1500);
    expectSameFloats(again, expectedThumbnail(windows, markIn, markOut, 1500, 0.0));
    builder.reset();
}

// A second timeline of the same file, with its own builder: its clip shares
// the wave manager, so its entry shares the sample cache of the first (one
// cache lives, with both entries alive), and its thumbnail is delivered from
// the frames the first query had decoded: the task is asked once and plans
// one decoding in all.
TEST_F(AudioRealService, SecondTimelineOfTheSameMediaSharesTheSampleCacheAndDecodesNothingAgain) {
    const std::string path = folder_.file("shared.wav");
    ASSERT_TRUE(ffmpeg(steppedSource(1, 3.0) + " -c:a pcm_s16le '" + path + "'"));
    const std::vector<float> windows = MediaTest::waveValues(MediaTest::readWav16(path));
    ASSERT_EQ(windows.size(), 3000u);
    ScopedCapture capture(IBsLogger::Trace);
    ASSERT_EQ(BsAudioSampleCache::registrySize(), 0u);

    const int64_t length = 2 * kSecond;
    auto first = ZorRef<IDmTimeline>::adopt(timelineOf(DmTrackAudio, clipOf("clip", path, 0, 5'000'000, length, -3.0)));
    ASSERT_NE(first.get(), nullptr);
    IDmClip* firstClip = first->clip(0, 0);
    Recorder firstOwner;
    Recorder firstQueryer;
    auto firstBuilder = std::make_unique<BsAudioThumbnailBuilder>(&firstOwner, first.get());
    const std::vector<float> firstValues =
        query(*firstBuilder, firstQueryer, firstClip, 5'000'000, 5'000'000 + length, 800);
    expectSameFloats(firstValues, expectedThumbnail(windows, 5'000'000, 5'000'000 + length, 800, -3.0));
    EXPECT_EQ(BsAudioSampleCache::registrySize(), 1u);

    const std::string append = "ZOR::AudioWaveExtractTask::append";
    const std::string plan = "ZOR::AudioWaveExtractTask::plan";
    const std::string builderAppend = "ZOR::BsAudioThumbnailBuilder::appendWaveTask";
    EXPECT_EQ(linesOf(capture.sink(), append, "token:"), 1u);
    EXPECT_EQ(linesOf(capture.sink(), plan, " pieces, "), 1u);
    EXPECT_EQ(linesOf(capture.sink(), builderAppend, "==wav clip"), 1u);

    // The second timeline uses a part of the same frames, at another place and volume.
    const int64_t secondIn = 9'000'000;
    const int64_t secondLength = kSecond;
    auto second = ZorRef<IDmTimeline>::adopt(
        timelineOf(DmTrackAudio, clipOf("clip", path, 3 * kSecond, secondIn, secondLength, 0.0)));
    ASSERT_NE(second.get(), nullptr);
    IDmClip* secondClip = second->clip(0, 0);
    ASSERT_NE(secondClip, firstClip);
    auto managerOf = [](IDmClip* clip) {
        auto* internal = static_cast<IDmClipInternal*>(clip->queryInterface("IDmClipInternal"));
        return internal != nullptr ? acquireIDmAudioWaveMgrInternal(internal->waveManagerSource()) : nullptr;
    };
    auto firstManager = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(firstClip));
    auto secondManager = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(secondClip));
    ASSERT_NE(firstManager.get(), nullptr);
    EXPECT_EQ(firstManager.get(), secondManager.get());
    // Every frame the second query needs is held already.
    EXPECT_NE(secondManager->hasFrames(static_cast<int32_t>(secondIn / kWaveFrame),
                                       static_cast<int32_t>((secondIn + secondLength) / kWaveFrame)),
              0);

    Recorder secondOwner;
    Recorder secondQueryer;
    auto secondBuilder = std::make_unique<BsAudioThumbnailBuilder>(&secondOwner, second.get());
    const std::vector<float> secondValues =
        query(*secondBuilder, secondQueryer, secondClip, secondIn, secondIn + secondLength, 600);
    expectSameFloats(secondValues, expectedThumbnail(windows, secondIn, secondIn + secondLength, 600, 0.0));

    // One cache with both entries alive; no second request, no second decoding.
    EXPECT_EQ(BsAudioSampleCache::registrySize(), 1u);
    EXPECT_EQ(linesOf(capture.sink(), append, "token:"), 1u);
    EXPECT_EQ(linesOf(capture.sink(), plan, " pieces, "), 1u);
    EXPECT_EQ(linesOf(capture.sink(), builderAppend, "==wav clip"), 1u);

    // The cache goes with the last entry that uses it.
    secondBuilder.reset();
    EXPECT_EQ(BsAudioSampleCache::registrySize(), 1u);
    firstBuilder.reset();
    EXPECT_EQ(BsAudioSampleCache::registrySize(), 0u);
}

// A video clip with sound on a video track: its sound is in the linked audio
// clip that getBaseAudioClip gives, and querying that clip delivers the peaks
// of the sound track (16-bit PCM in a QuickTime file, the samples of the WAV
// file it was muxed from) at the clip's volume.
TEST_F(AudioRealService, VideoClipWithSoundIsQueriedThroughItsLinkedAudioClip) {
    const std::string wav = folder_.file("sound.wav");
    const std::string movie = folder_.file("movie.mov");
    ASSERT_TRUE(ffmpeg(steppedSource(2, 3.0) + " -c:a pcm_s16le '" + wav + "'"));
    ASSERT_TRUE(ffmpeg("-f lavfi -i \"testsrc2=s=64x48:r=25:d=3\" -i '" + wav +
                       "' -map 0:v -map 1:a -c:v libx264 -pix_fmt yuv420p -c:a copy '" + movie + "'"));
    const std::vector<float> windows = MediaTest::waveValues(MediaTest::readWav16(wav));
    ASSERT_EQ(windows.size(), 3000u);

    const int64_t markIn = 3'210'000;
    const int64_t length = 2 * kSecond;
    auto timeline =
        ZorRef<IDmTimeline>::adopt(timelineOf(DmTrackVideo, clipOf("clip", movie, kSecond, markIn, length, -3.0)));
    ASSERT_NE(timeline.get(), nullptr);
    IDmClip* video = timeline->clip(0, 0);
    ASSERT_NE(video, nullptr);
    EXPECT_EQ(video->queryInterface("IDmAudioFeature"), nullptr);
    EXPECT_NE(video->queryInterface("IDmVideoFeature"), nullptr);
    IDmClip* sound = getBaseAudioClip(video);
    ASSERT_NE(sound, nullptr);
    EXPECT_NE(sound, video);
    EXPECT_EQ(getBaseAudioClip(sound), sound);
    ASSERT_NE(sound->queryInterface("IDmAudioFeature"), nullptr);
    auto* internal = static_cast<IDmClipInternal*>(sound->queryInterface("IDmClipInternal"));
    ASSERT_NE(internal, nullptr);
    EXPECT_EQ(internal->parentClip(), video);
    EXPECT_EQ(markInTimeOfClip(sound), markIn);
    EXPECT_EQ(markOutTimeOfClip(sound), markIn + length);
    ZorProperty volume;
    ASSERT_EQ(
        static_cast<IDmAudioFeature*>(sound->queryInterface("IDmAudioFeature"))->getProperty(audioKey::volume, &volume),
        0);
    EXPECT_EQ(volume.doubleValue, -3.0);

    Recorder owner;
    Recorder queryer;
    auto builder = std::make_unique<BsAudioThumbnailBuilder>(&owner, timeline.get());
    const std::vector<float> values = query(*builder, queryer, sound, markIn, markIn + length, 731);
    const std::vector<float> expected = expectedThumbnail(windows, markIn, markIn + length, 731, -3.0);
    expectSameFloats(values, expected);
    EXPECT_GT(distinctValues(expected), 300u);
    // The video clip itself has no sound to query.
    Recorder refused;
    EXPECT_EQ(builder->queryAudioThumbnailData(&refused, video, markIn, markIn + length, 10), 1001);
    builder.reset();
}

}  // namespace
}  // namespace ZOR::test
