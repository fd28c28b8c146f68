#include <gtest/gtest.h>

#include <cstring>
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

template <class I>
I* query(IDmBaseObj* object, const char* name) {
    return static_cast<I*>(object->queryInterface(name));
}

int64_t intProperty(IDmPropertyOwner* owner, const char* key) {
    ZorProperty value;
    EXPECT_EQ(owner->getProperty(key, &value), 0) << key;
    EXPECT_EQ(value.kind, ZorProperty::Int) << key;
    return value.intValue;
}

class DmMediaClipTest : public ::testing::Test {
protected:
    std::string makeWav(const std::string& name, int rate, double seconds) {
        const std::string path = folder_.file(name);
        ffmpeg("-f lavfi -i \"aevalsrc=0.5*sin(2*PI*1000*t)|0.25*sin(2*PI*500*t):s=" + std::to_string(rate) +
               ":d=" + std::to_string(seconds) + "\" -c:a pcm_s16le '" + path + "'");
        return path;
    }
    // 64x48 video at 25/1 with a stereo sine track, both 2 s.
    std::string makeVideo(const std::string& name, const std::string& extra = "") {
        const std::string path = folder_.file(name);
        ffmpeg(
            "-f lavfi -i \"testsrc2=s=64x48:r=25:d=2\" -f lavfi -i \"sine=f=440:r=48000:d=2\" -ac 2 "
            "-c:v libx264 -pix_fmt yuv420p -c:a aac " +
            extra + " '" + path + "'");
        return path;
    }

    TempFolder folder_;
};

TEST_F(DmMediaClipTest, AudioFileGivesAnAudioClipWithItsStreamFacts) {
    const std::string path = makeWav("tone.wav", 44100, 2.0);
    std::string error = "not cleared";
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, &error));
    ASSERT_NE(clip.get(), nullptr);
    EXPECT_EQ(error, "");
    EXPECT_EQ(clip->refCount(), 1);
    EXPECT_EQ(clip->clipType(), DmTrackAudio);
    EXPECT_STREQ(clip->name(), "tone.wav");

    auto* audio = query<IDmAudioFeature>(clip.get(), "IDmAudioFeature");
    ASSERT_NE(audio, nullptr);
    EXPECT_EQ(query<IDmVideoFeature>(clip.get(), "IDmVideoFeature"), nullptr);
    EXPECT_EQ(audio->audioStreamIndex(), 0);
    EXPECT_EQ(audio->sampleRate(), 44100);
    EXPECT_EQ(audio->channelCount(), 2);
    EXPECT_NEAR(static_cast<double>(audio->mediaDuration()), 20'000'000.0, 1000.0);

    EXPECT_EQ(markInTimeOfClip(clip.get()), 0);
    EXPECT_EQ(markOutTimeOfClip(clip.get()), audio->mediaDuration());
    EXPECT_EQ(beginTimeOfClip(clip.get()), 0);
    EXPECT_EQ(endTimeOfClip(clip.get()), audio->mediaDuration());
    EXPECT_EQ(getBaseAudioClip(clip.get()), clip.get());
    EXPECT_EQ(audio->sourcePosition(5'000'000, false), 5'000'000);
    EXPECT_EQ(audio->sourcePosition(5'000'000, true), audio->mediaDuration() - 5'000'000);

    char id[1024];
    ASSERT_EQ(clip->mediaId(id, sizeof id), 0);
    EXPECT_EQ(std::string(id), std::filesystem::canonical(path).string());
    char tiny[4];
    EXPECT_NE(clip->mediaId(tiny, sizeof tiny), 0);
    EXPECT_EQ(std::strlen(tiny), 3u);
}

TEST_F(DmMediaClipTest, VideoFileGivesBothFeaturesAndItsPictureFacts) {
    const std::string path = makeVideo("movie.mp4");
    std::string error;
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, &error));
    ASSERT_NE(clip.get(), nullptr);
    EXPECT_EQ(error, "");
    EXPECT_EQ(clip->clipType(), DmTrackVideo);
    auto* video = query<IDmVideoFeature>(clip.get(), "IDmVideoFeature");
    auto* audio = query<IDmAudioFeature>(clip.get(), "IDmAudioFeature");
    ASSERT_NE(video, nullptr);
    ASSERT_NE(audio, nullptr);
    EXPECT_EQ(video->videoStreamIndex(), 0);
    EXPECT_EQ(audio->audioStreamIndex(), 1);
    EXPECT_EQ(audio->sampleRate(), 48000);
    int32_t width = 0;
    int32_t height = 0;
    ASSERT_EQ(video->videoSize(&width, &height), 0);
    EXPECT_EQ(width, 64);
    EXPECT_EQ(height, 48);
    int64_t num = 0;
    int64_t den = 0;
    ASSERT_EQ(video->frameRate(&num, &den), 0);
    EXPECT_EQ(num * 1, 25 * den);
    auto* owner = query<IDmPropertyOwner>(clip.get(), "IDmPropertyOwner");
    ASSERT_NE(owner, nullptr);
    EXPECT_EQ(intProperty(owner, mediaInfoKey::width), 64);
    EXPECT_EQ(intProperty(owner, mediaInfoKey::height), 48);
    EXPECT_EQ(intProperty(owner, mediaInfoKey::vid_stream_id), 0);
    EXPECT_EQ(intProperty(owner, videoKey::streamId), -1);
    EXPECT_EQ(intProperty(owner, audioKey::streamId), -1);
    // The clip's range is the video stream's duration.
    EXPECT_NEAR(static_cast<double>(markOutTimeOfClip(clip.get())), 20'000'000.0, 50'000.0);
    EXPECT_EQ(intProperty(owner, mediaInfoKey::duration), markOutTimeOfClip(clip.get()));
}

TEST_F(DmMediaClipTest, RotatedVideoReportsUprightSize) {
    const std::string plain = makeVideo("plain.mp4");
    const std::string rotated = folder_.file("rotated.mp4");
    ASSERT_TRUE(ffmpeg("-i '" + plain + "' -c copy -metadata:s:v rotate=90 '" + rotated + "'"));
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(rotated.c_str(), -1, -1, nullptr));
    auto* video = query<IDmVideoFeature>(clip.get(), "IDmVideoFeature");
    ASSERT_NE(video, nullptr);
    int32_t width = 0;
    int32_t height = 0;
    ASSERT_EQ(video->videoSize(&width, &height), 0);
    EXPECT_EQ(width, 48);
    EXPECT_EQ(height, 64);
}

TEST_F(DmMediaClipTest, ExplicitStreamIndexesSelectThoseStreams) {
    const std::string path = folder_.file("two.mkv");
    ASSERT_TRUE(
        ffmpeg("-f lavfi -i \"sine=f=440:r=44100:d=1\" -f lavfi -i \"sine=f=880:r=22050:d=1\" "
               "-map 0 -map 1 -c:a pcm_s16le '" +
               path + "'"));
    auto best = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    auto second = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), 1, -1, nullptr));
    auto* bestAudio = query<IDmAudioFeature>(best.get(), "IDmAudioFeature");
    auto* secondAudio = query<IDmAudioFeature>(second.get(), "IDmAudioFeature");
    ASSERT_NE(bestAudio, nullptr);
    ASSERT_NE(secondAudio, nullptr);
    EXPECT_EQ(secondAudio->audioStreamIndex(), 1);
    EXPECT_EQ(secondAudio->sampleRate(), 22050);
    auto* owner = query<IDmPropertyOwner>(second.get(), "IDmPropertyOwner");
    EXPECT_EQ(intProperty(owner, audioKey::streamId), 1);

    // Another stream means another wave manager; the same stream the same one.
    auto secondAgain = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), 1, -1, nullptr));
    auto* internalA = query<IDmClipInternal>(second.get(), "IDmClipInternal");
    auto* internalB = query<IDmClipInternal>(secondAgain.get(), "IDmClipInternal");
    auto* internalBest = query<IDmClipInternal>(best.get(), "IDmClipInternal");
    auto a = ZorRef<IDmAudioWaveMgrInternal>::adopt(acquireIDmAudioWaveMgrInternal(internalA->waveManagerSource()));
    auto b = ZorRef<IDmAudioWaveMgrInternal>::adopt(acquireIDmAudioWaveMgrInternal(internalB->waveManagerSource()));
    auto c = ZorRef<IDmAudioWaveMgrInternal>::adopt(acquireIDmAudioWaveMgrInternal(internalBest->waveManagerSource()));
    ASSERT_NE(a.get(), nullptr);
    EXPECT_EQ(a.get(), b.get());
    EXPECT_NE(a.get(), c.get());

    // A stream index that is not audio: no audio feature, and the error says so.
    std::string error;
    auto wrong = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), 7, -1, &error));
    ASSERT_NE(wrong.get(), nullptr);
    EXPECT_EQ(query<IDmAudioFeature>(wrong.get(), "IDmAudioFeature"), nullptr);
    EXPECT_NE(error.find("two.mkv"), std::string::npos) << error;
    EXPECT_NE(error.find("stream 7"), std::string::npos) << error;
}

TEST_F(DmMediaClipTest, UnreadableFilesGiveClipsWithoutFeaturesAndNamedErrors) {
    const std::string missing = folder_.file("missing.wav");
    const std::string empty = folder_.file("empty.wav");
    const std::string text = folder_.file("notes.mp4");
    MediaTest::writeText(empty, "");
    MediaTest::writeText(text, "This is a shopping list, not a movie.\nMilk\nBread\n");
    for (const std::string& path : {missing, empty, text}) {
        std::string error;
        auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, &error));
        ASSERT_NE(clip.get(), nullptr) << path;
        EXPECT_EQ(query<IDmAudioFeature>(clip.get(), "IDmAudioFeature"), nullptr) << path;
        EXPECT_EQ(query<IDmVideoFeature>(clip.get(), "IDmVideoFeature"), nullptr) << path;
        EXPECT_NE(query<IDmClip>(clip.get(), "IDmClip"), nullptr);
        EXPECT_EQ(clip->clipType(), 0);
        EXPECT_NE(error.find(std::filesystem::path(path).filename().string()), std::string::npos) << error;
        auto* source = query<IDmMediaSource>(clip.get(), "IDmMediaSource");
        ASSERT_NE(source, nullptr);
        EXPECT_EQ(source->resolvedStream(DmTrackAudio), -1);
        EXPECT_EQ(source->waveStore(), nullptr);
        EXPECT_STRNE(source->streamProblem(DmTrackAudio), "");
        auto* internal = query<IDmClipInternal>(clip.get(), "IDmClipInternal");
        EXPECT_EQ(acquireIDmAudioWaveMgrInternal(internal->waveManagerSource()), nullptr);
    }
    std::string error;
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(missing.c_str(), -1, -1, &error));
    EXPECT_NE(error.find("No such file"), std::string::npos) << error;
    EXPECT_EQ(createMediaClip("", -1, -1, &error), nullptr);
    EXPECT_FALSE(error.empty());
}

TEST_F(DmMediaClipTest, AnswersItsInterfaceNamesAndWeakHoldersWatchIt) {
    const std::string path = makeVideo("movie.mp4");
    IDmClip* clip = createMediaClip(path.c_str(), -1, -1, nullptr);
    ASSERT_NE(clip, nullptr);
    for (const char* name : {"IDmClip", "IDmAudioFeature", "IDmVideoFeature", "IDmClipInternal", "IDmPropertyOwner",
                             "IDmBaseObj", "RefCnt", "IDmMediaSource"})
        EXPECT_NE(clip->queryInterface(name), nullptr) << name;
    EXPECT_EQ(clip->queryInterface("IDmTimeline"), nullptr);
    EXPECT_EQ(clip->queryInterface(nullptr), nullptr);
    // Every interface is the same object: counting through one shows in all.
    auto* base = query<IDmBaseObj>(clip, "IDmBaseObj");
    auto* video = query<IDmVideoFeature>(clip, "IDmVideoFeature");
    EXPECT_EQ(base->AddRef(), 2);
    EXPECT_EQ(video->refCount(), 2);
    EXPECT_EQ(video->Release(), 1);
    ASSERT_NE(clip->attachedItems(), nullptr);
    EXPECT_EQ(clip->attachedItems()->count(), 0);
    IDmBaseObj* wave = clip->feature(DmFeatureAudioWave, 0);
    ASSERT_NE(wave, nullptr);
    EXPECT_EQ(wave->queryInterface("IDmAudioFeature"), clip->queryInterface("IDmAudioFeature"));

    RefCntWeakHolder<IDmClip> weak(clip);
    EXPECT_FALSE(weak.expired());
    EXPECT_EQ(clip->Release(), 0);
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(weak.lock(), nullptr);
}

TEST_F(DmMediaClipTest, PropertiesAreSettableWhereTheyAreNotFacts) {
    const std::string path = makeWav("tone.wav", 48000, 1.0);
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    auto* owner = query<IDmPropertyOwner>(clip.get(), "IDmPropertyOwner");
    auto* audio = query<IDmAudioFeature>(clip.get(), "IDmAudioFeature");
    ZorProperty value;
    ASSERT_EQ(owner->getProperty(audioKey::volume, &value), 0);
    EXPECT_EQ(value.kind, ZorProperty::Double);
    EXPECT_EQ(value.doubleValue, 0.0);
    ZorProperty loud;
    loud.kind = ZorProperty::Double;
    loud.doubleValue = -6.0;
    EXPECT_EQ(owner->setProperty(audioKey::volume, loud), 0);
    ASSERT_EQ(audio->getProperty(audioKey::volume, &value), 0);
    EXPECT_EQ(value.doubleValue, -6.0);
    EXPECT_EQ(audio->setProperty(audioKey::mute, boolProperty(true)), 0);
    ASSERT_EQ(owner->getProperty(audioKey::mute, &value), 0);
    EXPECT_TRUE(value.boolValue());
    ASSERT_EQ(owner->getProperty(clipKey::enable, &value), 0);
    EXPECT_TRUE(value.boolValue());

    ZorProperty index;
    index.kind = ZorProperty::Int;
    index.intValue = 3;
    EXPECT_NE(owner->setProperty(audioKey::streamId, index), 0);
    EXPECT_NE(owner->setProperty(clipKey::markIn, index), 0);
    EXPECT_NE(owner->setProperty("no.such.key", index), 0);
    EXPECT_NE(owner->getProperty("no.such.key", &value), 0);
    EXPECT_EQ(intProperty(owner, audioKey::streamId), -1);
}

TEST_F(DmMediaClipTest, VideoOnlyClipHasNoBaseAudioClip) {
    const std::string path = folder_.file("silent.mp4");
    ASSERT_TRUE(ffmpeg(MediaTest::silentVideoArguments(path, 32, 32, 1)));
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    EXPECT_EQ(getBaseAudioClip(clip.get()), nullptr);
    EXPECT_EQ(getBaseAudioClip(nullptr), nullptr);
    EXPECT_EQ(clip->feature(DmFeatureAudioWave, 0), nullptr);
    auto* internal = query<IDmClipInternal>(clip.get(), "IDmClipInternal");
    EXPECT_EQ(internal->waveManagerSource(), nullptr);
    EXPECT_EQ(beginTimeOfClip(nullptr), 0);
}

}  // namespace
}  // namespace ZOR::test

namespace ZOR::test {
namespace {

// What probing learnt of a file is used again only while the file stays the
// same: a file replaced by another at the same path is read anew.
TEST_F(DmMediaClipTest, FileReplacedOnDiskIsProbedAnew) {
    const std::string path = folder_.file("replaced.mkv");
    const std::string video = makeVideo("first.mkv");
    std::filesystem::copy_file(video, path);
    {
        std::string error;
        auto first = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, &error));
        auto again = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, &error));
        ASSERT_NE(first.get(), nullptr);
        ASSERT_NE(again.get(), nullptr);
        EXPECT_EQ(first->clipType(), DmTrackVideo);
        EXPECT_EQ(again->clipType(), DmTrackVideo);
        EXPECT_NE(query<IDmVideoFeature>(again.get(), "IDmVideoFeature"), nullptr);
        EXPECT_EQ(query<IDmAudioFeature>(again.get(), "IDmAudioFeature")->sampleRate(), 48000);
    }
    // Sound only, at another rate, in place of the film.
    const std::string sound = folder_.file("sound.mkv");
    ffmpeg(MediaTest::toneArguments(sound, 440, 22050, 3));
    std::filesystem::rename(sound, path);
    std::string error;
    auto replaced = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, &error));
    ASSERT_NE(replaced.get(), nullptr);
    EXPECT_EQ(replaced->clipType(), DmTrackAudio);
    EXPECT_EQ(query<IDmVideoFeature>(replaced.get(), "IDmVideoFeature"), nullptr);
    auto* audio = query<IDmAudioFeature>(replaced.get(), "IDmAudioFeature");
    ASSERT_NE(audio, nullptr);
    EXPECT_EQ(audio->sampleRate(), 22050);

    // A file that is gone gives a clip without features, each time.
    std::filesystem::remove(path);
    auto gone = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, &error));
    ASSERT_NE(gone.get(), nullptr);
    EXPECT_EQ(gone->clipType(), 0);
    EXPECT_NE(error, "");
}

}  // namespace
}  // namespace ZOR::test
