#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Adapter/Adapter.h"
#include "BsDataStructure/BsDataStructure.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmMediaInternal.h"
#include "DataModel/DmTimeline.h"
#include "MediaTestSupport.h"
#include "TimelineDescs.h"

namespace ZOR::test {
namespace {

using MediaTest::ffmpeg;

constexpr int64_t kSecond = 10'000'000;  // cns

template <class I>
I* query(IDmBaseObj* object, const char* name) {
    return static_cast<I*>(object->queryInterface(name));
}

// Counts the objects it is installed on that were destroyed.
class DestroyCounter final : public IDmReleaseNotifier {
public:
    void onObjectReleasing() override { count_.fetch_add(1); }
    int count() const { return count_.load(); }

private:
    std::atomic<int> count_{0};
};

// The media every test uses, made once: a 2 s stereo sine WAV, a 2 s 64x48
// video with a stereo AAC track, and a 1 s video without sound.
class DmTimelineTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        folder_ = std::make_unique<TempFolder>();
        tone_ = folder_->file("tone.wav");
        movie_ = folder_->file("movie.mp4");
        silent_ = folder_->file("silent.mp4");
        ffmpeg(MediaTest::toneArguments(tone_, 440, 44100, 2, 2));
        ffmpeg(MediaTest::filmArguments(movie_, 64, 48, 2, 440));
        ffmpeg(MediaTest::silentVideoArguments(silent_, 32, 32, 1));
    }
    static void TearDownTestSuite() { folder_.reset(); }

    static IDmTimeline* make(const DmTimelineDesc& desc) {
        std::string error = "not cleared";
        IDmTimeline* timeline = createTimeline(desc, &error);
        EXPECT_NE(timeline, nullptr) << error;
        EXPECT_EQ(error, "");
        return timeline;
    }

    // A timeline of one audio track holding one clip of clip.
    static IDmTimeline* makeAudioClip(const DmClipDesc& clip) {
        DmTimelineDesc desc;
        desc.tracks.push_back(trackDesc(DmTrackAudio, "A1", {clip}));
        return make(desc);
    }

    static IDmAudioWaveMgrInternal* managerOf(IDmClip* clip) {
        auto* internal = query<IDmClipInternal>(clip, "IDmClipInternal");
        return internal != nullptr ? acquireIDmAudioWaveMgrInternal(internal->waveManagerSource()) : nullptr;
    }

    static std::unique_ptr<TempFolder> folder_;
    static std::string tone_;
    static std::string movie_;
    static std::string silent_;
};

std::unique_ptr<TempFolder> DmTimelineTest::folder_;
std::string DmTimelineTest::tone_;
std::string DmTimelineTest::movie_;
std::string DmTimelineTest::silent_;

bool boolOf(IDmPropertyOwner* owner, const char* key) {
    ZorProperty value;
    EXPECT_EQ(owner->getProperty(key, &value), 0) << key;
    EXPECT_EQ(value.kind, ZorProperty::Bool) << key;
    return value.boolValue();
}

TEST_F(DmTimelineTest, TracksKeepTheirOrderKindAndProperties) {
    DmTimelineDesc desc;
    desc.tracks.push_back(trackDesc(DmTrackVideo, "V1", {clipDesc(silent_, "pic", 0, kSecond, 0, kSecond)}));
    DmTrackDesc audio = trackDesc(DmTrackAudio, "A1", {});
    audio.mute = true;
    audio.visible = false;
    audio.solo = true;
    desc.tracks.push_back(audio);
    auto timeline = ZorRef<IDmTimeline>::adopt(make(desc));
    ASSERT_NE(timeline.get(), nullptr);
    EXPECT_EQ(timeline->refCount(), 1);

    for (const char* name : {"IDmTimeline", "IDmCallbackSource", "IDmBaseObj", "RefCnt"})
        EXPECT_NE(timeline->queryInterface(name), nullptr) << name;
    EXPECT_EQ(timeline->queryInterface("IDmTrack"), nullptr);

    ASSERT_EQ(timeline->trackCount(), 2);
    IDmTrack* video = timeline->track(0);
    IDmTrack* sound = timeline->track(1);
    ASSERT_NE(video, nullptr);
    ASSERT_NE(sound, nullptr);
    EXPECT_EQ(timeline->track(2), nullptr);
    EXPECT_EQ(timeline->track(-1), nullptr);
    EXPECT_EQ(video->trackKind(), DmTrackVideo);
    EXPECT_EQ(sound->trackKind(), DmTrackAudio);
    EXPECT_EQ(video->trackIndex(), 0);
    EXPECT_EQ(sound->trackIndex(), 1);
    EXPECT_EQ(video->owner(), timeline.get());
    EXPECT_EQ(sound->owner(), timeline.get());
    EXPECT_EQ(timeline->clipCount(0), 1);
    EXPECT_EQ(timeline->clipCount(1), 0);
    EXPECT_EQ(timeline->clipCount(5), 0);
    EXPECT_EQ(timeline->clip(1, 0), nullptr);
    EXPECT_EQ(timeline->clip(0, 1), nullptr);
    EXPECT_EQ(timeline->clip(-1, 0), nullptr);
    // Nothing handed out takes a reference.
    EXPECT_EQ(video->refCount(), 1);

    for (const char* name : {"IDmTrack", "IDmPropertyOwner", "IDmCallbackSource", "IDmBaseObj", "RefCnt"})
        EXPECT_NE(sound->queryInterface(name), nullptr) << name;
    auto* videoProperties = query<IDmPropertyOwner>(video, "IDmPropertyOwner");
    auto* soundProperties = query<IDmPropertyOwner>(sound, "IDmPropertyOwner");
    EXPECT_FALSE(boolOf(videoProperties, trackKey::mute));
    EXPECT_TRUE(boolOf(videoProperties, trackKey::visible));
    EXPECT_FALSE(boolOf(videoProperties, trackKey::solo));
    EXPECT_TRUE(boolOf(soundProperties, trackKey::mute));
    EXPECT_FALSE(boolOf(soundProperties, trackKey::visible));
    EXPECT_TRUE(boolOf(soundProperties, trackKey::solo));

    // IDmTrack and IDmPropertyOwner read the same values, and setting shows in both.
    ZorProperty value;
    ASSERT_EQ(sound->getProperty(trackKey::mute, &value), 0);
    EXPECT_EQ(value.kind, ZorProperty::Bool);
    EXPECT_TRUE(value.boolValue());
    EXPECT_EQ(soundProperties->setProperty(trackKey::mute, boolProperty(false)), 0);
    ASSERT_EQ(sound->getProperty(trackKey::mute, &value), 0);
    EXPECT_FALSE(value.boolValue());
    EXPECT_EQ(videoProperties->setProperty(trackKey::visible, boolProperty(false)), 0);
    ASSERT_EQ(video->getProperty(trackKey::visible, &value), 0);
    EXPECT_FALSE(value.boolValue());
    EXPECT_NE(sound->getProperty("no.such.key", &value), 0);
    EXPECT_NE(soundProperties->setProperty("no.such.key", boolProperty(true)), 0);
    EXPECT_NE(soundProperties->setProperty(trackKey::solo, ZorProperty{}), 0);
    EXPECT_TRUE(boolOf(soundProperties, trackKey::solo));
}

TEST_F(DmTimelineTest, ClipsTakeTheirRangesNamesAndPlacesFromTheDescription) {
    DmTimelineDesc desc;
    desc.tracks.push_back(trackDesc(DmTrackVideo, "V1",
                                    {clipDesc(silent_, "first", 0, 5'000'000, 1'000'000, 6'000'000),
                                     clipDesc(silent_, "second", 5'000'000, 8'000'000, 0, 3'000'000)}));
    desc.tracks.push_back(
        trackDesc(DmTrackAudio, "A1", {clipDesc(tone_, "music", 2'000'000, 19'000'000, 500'000, 17'500'000)}));
    auto timeline = ZorRef<IDmTimeline>::adopt(make(desc));
    ASSERT_NE(timeline.get(), nullptr);
    IDmClip* first = timeline->clip(0, 0);
    IDmClip* second = timeline->clip(0, 1);
    IDmClip* music = timeline->clip(1, 0);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    ASSERT_NE(music, nullptr);

    EXPECT_STREQ(first->name(), "first");
    EXPECT_STREQ(second->name(), "second");
    EXPECT_STREQ(music->name(), "music");
    EXPECT_EQ(first->clipType(), DmTrackVideo);
    EXPECT_EQ(music->clipType(), DmTrackAudio);
    EXPECT_EQ(first->timeline(), timeline.get());
    EXPECT_EQ(first->track(), timeline->track(0));
    EXPECT_EQ(music->track(), timeline->track(1));
    EXPECT_STRNE(first->clipId(), second->clipId());

    EXPECT_EQ(beginTimeOfClip(first), 0);
    EXPECT_EQ(endTimeOfClip(first), 5'000'000);
    EXPECT_EQ(markInTimeOfClip(first), 1'000'000);
    EXPECT_EQ(markOutTimeOfClip(first), 6'000'000);
    EXPECT_EQ(beginTimeOfClip(second), 5'000'000);
    EXPECT_EQ(endTimeOfClip(second), 8'000'000);
    EXPECT_EQ(beginTimeOfClip(music), 2'000'000);
    EXPECT_EQ(endTimeOfClip(music), 19'000'000);
    EXPECT_EQ(markInTimeOfClip(music), 500'000);
    EXPECT_EQ(markOutTimeOfClip(music), 17'500'000);
    // The range is the description's, not the media's.
    auto* owner = query<IDmPropertyOwner>(music, "IDmPropertyOwner");
    ZorProperty range;
    range.kind = ZorProperty::Int;
    range.intValue = 0;
    EXPECT_NE(owner->setProperty(clipKey::markIn, range), 0);
    EXPECT_EQ(markInTimeOfClip(music), 500'000);

    EXPECT_EQ(timeline->duration(), 19'000'000);

    int32_t trackIndex = -5;
    int32_t clipIndex = -5;
    auto* internal = query<IDmClipInternal>(second, "IDmClipInternal");
    ASSERT_NE(internal, nullptr);
    EXPECT_EQ(internal->containerPosition(&trackIndex, &clipIndex), 0);
    EXPECT_EQ(trackIndex, 0);
    EXPECT_EQ(clipIndex, 1);
    EXPECT_EQ(internal->parentClip(), nullptr);
    EXPECT_EQ(query<IDmClipInternal>(music, "IDmClipInternal")->containerPosition(&trackIndex, &clipIndex), 0);
    EXPECT_EQ(trackIndex, 1);
    EXPECT_EQ(clipIndex, 0);

    // Media in use, by the canonical path (what mediaId gives) and by the path
    // as described.
    char id[1024];
    ASSERT_EQ(music->mediaId(id, sizeof id), 0);
    EXPECT_EQ(std::string(id), std::filesystem::canonical(tone_).string());
    EXPECT_NE(timeline->usesMedia(id), 0);
    EXPECT_NE(timeline->usesMedia(silent_.c_str()), 0);
    EXPECT_EQ(timeline->usesMedia(movie_.c_str()), 0);
    EXPECT_EQ(timeline->usesMedia(""), 0);
    EXPECT_EQ(timeline->usesMedia(nullptr), 0);

    for (const char* name : {"IDmClip", "IDmClipInternal", "IDmPropertyOwner", "IDmMediaSource", "IDmClipSpeedPart",
                             "IDmCallbackSource", "IDmBaseObj", "RefCnt", "IDmAudioFeature"})
        EXPECT_NE(music->queryInterface(name), nullptr) << name;
    EXPECT_EQ(music->queryInterface("IDmVideoFeature"), nullptr);
    EXPECT_EQ(music->queryInterface(nullptr), nullptr);
}

TEST_F(DmTimelineTest, EmptyTimelineHasNoDuration) {
    auto timeline = ZorRef<IDmTimeline>::adopt(make(DmTimelineDesc{}));
    ASSERT_NE(timeline.get(), nullptr);
    EXPECT_EQ(timeline->trackCount(), 0);
    EXPECT_EQ(timeline->duration(), 0);
    EXPECT_EQ(timeline->clip(0, 0), nullptr);
}

TEST_F(DmTimelineTest, AudioPropertiesComeFromTheDescriptionAndCanBeSet) {
    DmClipDesc clip = clipDesc(tone_, "music", 0, kSecond, 0, kSecond);
    clip.streamId = 0;
    clip.volumeDb = -6.5;
    clip.mute = true;
    clip.volumeGainDb = 3.25;
    clip.loudnessEnabled = true;
    clip.loudnessGain = 0.75;
    clip.reverse = true;
    clip.enabled = false;
    auto timeline = ZorRef<IDmTimeline>::adopt(makeAudioClip(clip));
    ASSERT_NE(timeline.get(), nullptr);
    IDmClip* music = timeline->clip(0, 0);
    auto* audio = query<IDmAudioFeature>(music, "IDmAudioFeature");
    ASSERT_NE(audio, nullptr);
    EXPECT_EQ(audio->audioStreamIndex(), 0);
    EXPECT_EQ(audio->sampleRate(), 44100);
    EXPECT_EQ(audio->channelCount(), 2);

    ZorProperty value;
    ASSERT_EQ(audio->getProperty(audioKey::volume, &value), 0);
    EXPECT_EQ(value.kind, ZorProperty::Double);
    EXPECT_EQ(value.doubleValue, -6.5);
    ASSERT_EQ(audio->getProperty(audioKey::mute, &value), 0);
    EXPECT_EQ(value.kind, ZorProperty::Bool);
    EXPECT_TRUE(value.boolValue());
    ASSERT_EQ(audio->getProperty(audioKey::streamId, &value), 0);
    EXPECT_EQ(value.kind, ZorProperty::Int);
    EXPECT_EQ(value.intValue, 0);
    ASSERT_EQ(audio->getProperty(clipVolumeKey::volumeGain, &value), 0);
    EXPECT_EQ(value.kind, ZorProperty::Double);
    EXPECT_EQ(value.doubleValue, 3.25);
    ASSERT_EQ(audio->getProperty(audioLoudness::enable, &value), 0);
    EXPECT_EQ(value.kind, ZorProperty::Bool);
    EXPECT_TRUE(value.boolValue());
    ASSERT_EQ(audio->getProperty(audioLoudness::gain, &value), 0);
    EXPECT_EQ(value.kind, ZorProperty::Double);
    EXPECT_EQ(value.doubleValue, 0.75);
    ASSERT_EQ(audio->getProperty(audioReversePlayKey::enable, &value), 0);
    EXPECT_EQ(value.kind, ZorProperty::Bool);
    EXPECT_TRUE(value.boolValue());
    ASSERT_EQ(audio->getProperty(clipKey::enable, &value), 0);
    EXPECT_EQ(value.kind, ZorProperty::Bool);
    EXPECT_FALSE(value.boolValue());

    // Settable as on media clips; the change shows through every interface.
    auto* owner = query<IDmPropertyOwner>(music, "IDmPropertyOwner");
    EXPECT_EQ(audio->setProperty(audioKey::volume, doubleProperty(-12.0)), 0);
    ASSERT_EQ(owner->getProperty(audioKey::volume, &value), 0);
    EXPECT_EQ(value.doubleValue, -12.0);
    EXPECT_EQ(owner->setProperty(clipKey::enable, boolProperty(true)), 0);
    ASSERT_EQ(audio->getProperty(clipKey::enable, &value), 0);
    EXPECT_TRUE(value.boolValue());
    EXPECT_NE(owner->setProperty(audioKey::streamId, doubleProperty(1.0)), 0);
    EXPECT_NE(audio->getProperty("no.such.key", &value), 0);

    // The defaults when the description says nothing.
    auto plain = ZorRef<IDmTimeline>::adopt(makeAudioClip(clipDesc(tone_, "plain", 0, kSecond, 0, kSecond)));
    auto* plainAudio = query<IDmAudioFeature>(plain->clip(0, 0), "IDmAudioFeature");
    ASSERT_NE(plainAudio, nullptr);
    ASSERT_EQ(plainAudio->getProperty(audioKey::streamId, &value), 0);
    EXPECT_EQ(value.intValue, -1);
    ASSERT_EQ(plainAudio->getProperty(audioLoudness::gain, &value), 0);
    EXPECT_EQ(value.doubleValue, 1.0);
    ASSERT_EQ(plainAudio->getProperty(clipKey::enable, &value), 0);
    EXPECT_TRUE(value.boolValue());
    ASSERT_EQ(plainAudio->getProperty(audioReversePlayKey::enable, &value), 0);
    EXPECT_FALSE(value.boolValue());
}

TEST_F(DmTimelineTest, EffectsAreThoseTheDescriptionAsksFor) {
    DmClipDesc clip = clipDesc(tone_, "music", 0, 2 * kSecond, 0, 2 * kSecond);
    clip.ducking.present = true;
    clip.ducking.enabled = false;
    clip.ducking.depth = 0.6;
    clip.ducking.fade = 1.5;
    clip.ducking.fadeRatio = 0.25;
    clip.volumeKeyframes = {{0, -3.0}, {5'000'000, -12.5}, {15'000'000, 0.0}};
    clip.reverse = true;
    auto timeline = ZorRef<IDmTimeline>::adopt(makeAudioClip(clip));
    ASSERT_NE(timeline.get(), nullptr);
    IDmClip* music = timeline->clip(0, 0);

    IDmEffect* ducking = music->effect(DmEffectDucking);
    ASSERT_NE(ducking, nullptr);
    EXPECT_EQ(ducking->effectType(), 4109);
    EXPECT_STREQ(ducking->effectName(), "audio/effect/ducking");
    EXPECT_FALSE(ducking->isEnabled());
    EXPECT_EQ(ducking->ownerClip(), music);
    EXPECT_EQ(ducking->value(0), 0.6f);
    EXPECT_EQ(ducking->value(1), 1.5f);
    EXPECT_EQ(ducking->value(2), 0.25f);
    EXPECT_EQ(ducking->value(3), 0.0f);
    EXPECT_EQ(ducking->keyframeCount(1), 0);
    EXPECT_EQ(ducking->refCount(), 1);
    EXPECT_NE(ducking->queryInterface("IDmEffect"), nullptr);
    EXPECT_NE(ducking->queryInterface("IDmBaseObj"), nullptr);
    EXPECT_EQ(ducking->queryInterface("IDmClip"), nullptr);

    IDmEffect* volume = music->effect(DmEffectVolume);
    ASSERT_NE(volume, nullptr);
    EXPECT_EQ(volume->effectType(), 4110);
    EXPECT_STREQ(volume->effectName(), "audio/effect/volume");
    EXPECT_TRUE(volume->isEnabled());
    EXPECT_EQ(volume->ownerClip(), music);
    ASSERT_EQ(volume->keyframeCount(1), 3);
    EXPECT_EQ(volume->keyframeCount(0), 0);
    EXPECT_EQ(volume->keyframeCount(2), 0);
    const int64_t times[] = {0, 5'000'000, 15'000'000};
    const double levels[] = {-3.0, -12.5, 0.0};
    for (int32_t i = 0; i < 3; ++i) {
        int64_t time = -1;
        double level = 99.0;
        ASSERT_EQ(volume->keyframe(1, i, &time, &level), 0);
        EXPECT_EQ(time, times[i]);
        EXPECT_EQ(level, levels[i]);
    }
    int64_t time = 0;
    double level = 0.0;
    EXPECT_NE(volume->keyframe(1, 3, &time, &level), 0);
    EXPECT_NE(volume->keyframe(1, -1, &time, &level), 0);
    EXPECT_NE(volume->keyframe(2, 0, &time, &level), 0);

    IDmEffect* reverse = music->effect(DmEffectReversePlay);
    ASSERT_NE(reverse, nullptr);
    EXPECT_EQ(reverse->effectType(), 4139);
    EXPECT_STREQ(reverse->effectName(), "audio/effect/reverse");
    EXPECT_TRUE(reverse->isEnabled());
    EXPECT_EQ(reverse->value(0), 1.0f);
    EXPECT_EQ(reverse->ownerClip(), music);

    EXPECT_EQ(music->effect(1234), nullptr);

    // None of them when the description asks for none.
    auto plain = ZorRef<IDmTimeline>::adopt(makeAudioClip(clipDesc(tone_, "plain", 0, kSecond, 0, kSecond)));
    for (int32_t type : {DmEffectDucking, DmEffectVolume, DmEffectReversePlay})
        EXPECT_EQ(plain->clip(0, 0)->effect(type), nullptr) << type;
}

TEST_F(DmTimelineTest, SpeedPartsAreListedInClipTime) {
    DmClipDesc clip = clipDesc(tone_, "music", 0, 2 * kSecond, 0, 2 * kSecond);
    clip.speedParts = {{2'000'000, 3'000'000, 2.0}, {4'000'000, 5'000'000, 0.0}};
    auto timeline = ZorRef<IDmTimeline>::adopt(makeAudioClip(clip));
    auto* parts = query<IDmClipSpeedPart>(timeline->clip(0, 0), "IDmClipSpeedPart");
    ASSERT_NE(parts, nullptr);
    ASSERT_EQ(parts->speedPartCount(), 2);
    int64_t begin = 0;
    int64_t end = 0;
    double speed = -1.0;
    ASSERT_EQ(parts->speedPart(0, &begin, &end, &speed), 0);
    EXPECT_EQ(begin, 2'000'000);
    EXPECT_EQ(end, 3'000'000);
    EXPECT_EQ(speed, 2.0);
    ASSERT_EQ(parts->speedPart(1, &begin, &end, &speed), 0);
    EXPECT_EQ(begin, 4'000'000);
    EXPECT_EQ(end, 5'000'000);
    EXPECT_EQ(speed, 0.0);
    EXPECT_EQ(parts->speedPart(2, &begin, &end, &speed), 1001);
    EXPECT_EQ(parts->speedPart(-1, &begin, &end, &speed), 1001);

    auto plain = ZorRef<IDmTimeline>::adopt(makeAudioClip(clipDesc(tone_, "plain", 0, kSecond, 0, kSecond)));
    auto* none = query<IDmClipSpeedPart>(plain->clip(0, 0), "IDmClipSpeedPart");
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->speedPartCount(), 0);
    EXPECT_EQ(none->speedPart(0, &begin, &end, &speed), 1001);
}

TEST_F(DmTimelineTest, SourcePositionWithoutSpeedChangeIsTheClipTime) {
    // markIn 0.5 s, markOut 1.7 s.
    auto timeline =
        ZorRef<IDmTimeline>::adopt(makeAudioClip(clipDesc(tone_, "music", 0, 12'000'000, 5'000'000, 17'000'000)));
    auto* audio = query<IDmAudioFeature>(timeline->clip(0, 0), "IDmAudioFeature");
    ASSERT_NE(audio, nullptr);
    EXPECT_EQ(audio->sourcePosition(5'000'000, false), 5'000'000);
    EXPECT_EQ(audio->sourcePosition(7'000'001, false), 7'000'001);
    EXPECT_EQ(audio->sourcePosition(123'456'789'123, false), 123'456'789'123);
    // Backwards: mirrored inside the clip, 5e6 + 17e6 - s.
    EXPECT_EQ(audio->sourcePosition(5'000'000, true), 17'000'000);
    EXPECT_EQ(audio->sourcePosition(7'000'001, true), 14'999'999);
    EXPECT_EQ(audio->sourcePosition(17'000'000, true), 5'000'000);
}

TEST_F(DmTimelineTest, SourcePositionAtConstantSpeedScalesFromMarkIn) {
    DmClipDesc clip = clipDesc(tone_, "double", 0, 5'000'000, 2'000'000, 12'000'000);
    clip.speed = 2.0;
    auto fast = ZorRef<IDmTimeline>::adopt(makeAudioClip(clip));
    auto* audio = query<IDmAudioFeature>(fast->clip(0, 0), "IDmAudioFeature");
    ASSERT_NE(audio, nullptr);
    // s = 2e6 + (c - 2e6) x 2
    EXPECT_EQ(audio->sourcePosition(2'000'000, false), 2'000'000);
    EXPECT_EQ(audio->sourcePosition(3'000'000, false), 4'000'000);
    EXPECT_EQ(audio->sourcePosition(7'000'000, false), 12'000'000);
    EXPECT_EQ(audio->sourcePosition(1'000'000, false), 0);
    // Backwards: 2e6 + 12e6 - s.
    EXPECT_EQ(audio->sourcePosition(3'000'000, true), 10'000'000);
    EXPECT_EQ(audio->sourcePosition(7'000'000, true), 2'000'000);

    // A third of normal speed, rounded to the nearest cns: 3 + (c - 3) / 3.
    clip.markIn = 3;
    clip.speed = 1.0 / 3.0;
    auto slow = ZorRef<IDmTimeline>::adopt(makeAudioClip(clip));
    auto* slowAudio = query<IDmAudioFeature>(slow->clip(0, 0), "IDmAudioFeature");
    ASSERT_NE(slowAudio, nullptr);
    EXPECT_EQ(slowAudio->sourcePosition(4, false), 3);  // 3.33
    EXPECT_EQ(slowAudio->sourcePosition(5, false), 4);  // 3.67
    EXPECT_EQ(slowAudio->sourcePosition(6, false), 4);  // 4
    EXPECT_EQ(slowAudio->sourcePosition(30'000'003, false), 10'000'003);

    // Speed 0 holds the mark-in position.
    clip.markIn = 2'000'000;
    clip.speed = 0.0;
    auto frozen = ZorRef<IDmTimeline>::adopt(makeAudioClip(clip));
    auto* frozenAudio = query<IDmAudioFeature>(frozen->clip(0, 0), "IDmAudioFeature");
    ASSERT_NE(frozenAudio, nullptr);
    EXPECT_EQ(frozenAudio->sourcePosition(2'000'000, false), 2'000'000);
    EXPECT_EQ(frozenAudio->sourcePosition(9'999'999, false), 2'000'000);
}

TEST_F(DmTimelineTest, SourcePositionThroughSpeedPartsWithAFrozenPart) {
    // markIn 1 s; parts [2e6, 3e6) at 2, [4e6, 5e6) frozen, [6e6, 8e6) at 0.5;
    // speed 1 between them.
    DmClipDesc clip = clipDesc(tone_, "parts", 0, 10'000'000, 1'000'000, 10'000'000);
    clip.speedParts = {{4'000'000, 5'000'000, 0.0}, {2'000'000, 3'000'000, 2.0}, {6'000'000, 8'000'000, 0.5}};
    clip.speed = 3.0;  // the parts rule; the constant speed does not apply
    auto timeline = ZorRef<IDmTimeline>::adopt(makeAudioClip(clip));
    auto* audio = query<IDmAudioFeature>(timeline->clip(0, 0), "IDmAudioFeature");
    ASSERT_NE(audio, nullptr);
    struct Case {
        int64_t clipTime;
        int64_t position;
    };
    const Case cases[] = {
        {1'000'000, 1'000'000},                          // mark in
        {1'500'000, 1'500'000},                          // before the first part: speed 1
        {2'000'000, 2'000'000}, {2'500'000, 3'000'000},  // 2e6 + 0.5e6 x 2
        {3'000'000, 4'000'000},                          // the part done: 2e6 + 1e6 x 2
        {3'500'000, 4'500'000}, {4'000'000, 5'000'000},  // the frozen part holds 5e6 ...
        {4'500'000, 5'000'000}, {4'999'999, 5'000'000}, {5'000'000, 5'000'000},
        {5'500'001, 5'500'001},                          // ... and the position moves on from there
        {6'000'000, 6'000'000}, {7'000'000, 6'500'000},  // 6e6 + 1e6 x 0.5
        {7'000'001, 6'500'001},                          // 6e6 + 1000001 x 0.5 = 6500000.5, rounded away from zero
        {8'000'000, 7'000'000}, {9'000'000, 8'000'000}, {500'000, 500'000},  // before mark in: speed 1 backwards
    };
    for (const Case& c : cases) {
        EXPECT_EQ(audio->sourcePosition(c.clipTime, false), c.position) << c.clipTime;
        // Backwards: 1e6 + 10e6 - s.
        EXPECT_EQ(audio->sourcePosition(c.clipTime, true), 11'000'000 - c.position) << c.clipTime;
    }
}

TEST_F(DmTimelineTest, MediaClipSourcePositionFollowsTheSameRule) {
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(tone_.c_str(), -1, -1, nullptr));
    auto* audio = query<IDmAudioFeature>(clip.get(), "IDmAudioFeature");
    ASSERT_NE(audio, nullptr);
    const int64_t markOut = markOutTimeOfClip(clip.get());
    EXPECT_EQ(markInTimeOfClip(clip.get()), 0);
    EXPECT_EQ(audio->sourcePosition(3'000'001, false), 3'000'001);
    EXPECT_EQ(audio->sourcePosition(3'000'001, true), markOut - 3'000'001);
}

TEST_F(DmTimelineTest, VideoClipCarriesItsSoundInALinkedAudioClip) {
    DmClipDesc clip = clipDesc(movie_, "scene", 1'000'000, 9'000'000, 2'000'000, 10'000'000);
    clip.volumeDb = -4.0;
    clip.mute = true;
    clip.reverse = true;
    clip.volumeKeyframes = {{2'000'000, -1.0}};
    clip.ducking.present = true;
    clip.ducking.depth = 0.5;
    clip.speedParts = {{3'000'000, 4'000'000, 2.0}};
    DmTimelineDesc desc;
    desc.tracks.push_back(trackDesc(DmTrackAudio, "A1", {clipDesc(tone_, "music", 0, kSecond, 0, kSecond)}));
    desc.tracks.push_back(
        trackDesc(DmTrackVideo, "V1", {clipDesc(silent_, "mute picture", 0, 1'000'000, 0, 1'000'000), clip}));
    auto timeline = ZorRef<IDmTimeline>::adopt(make(desc));
    ASSERT_NE(timeline.get(), nullptr);
    IDmClip* video = timeline->clip(1, 1);
    ASSERT_NE(video, nullptr);

    IDmClip* linked = getBaseAudioClip(video);
    ASSERT_NE(linked, nullptr);
    EXPECT_NE(linked, video);
    EXPECT_EQ(getBaseAudioClip(linked), linked);
    EXPECT_EQ(linked->refCount(), 1);

    // Features: the picture on the video clip, the sound on the linked one.
    EXPECT_NE(video->queryInterface("IDmVideoFeature"), nullptr);
    EXPECT_EQ(video->queryInterface("IDmAudioFeature"), nullptr);
    EXPECT_EQ(linked->queryInterface("IDmVideoFeature"), nullptr);
    auto* audio = query<IDmAudioFeature>(linked, "IDmAudioFeature");
    ASSERT_NE(audio, nullptr);
    EXPECT_EQ(query<IDmVideoFeature>(video, "IDmVideoFeature")->videoStreamIndex(), 0);
    EXPECT_EQ(audio->audioStreamIndex(), 1);
    EXPECT_EQ(audio->sampleRate(), 48000);
    EXPECT_EQ(video->feature(DmFeatureAudioWave, 0), nullptr);
    ASSERT_NE(linked->feature(DmFeatureAudioWave, 0), nullptr);
    EXPECT_EQ(linked->feature(DmFeatureAudioWave, 0)->queryInterface("IDmAudioFeature"), audio);

    // The linked clip sits where the video clip does.
    auto* videoInternal = query<IDmClipInternal>(video, "IDmClipInternal");
    auto* linkedInternal = query<IDmClipInternal>(linked, "IDmClipInternal");
    EXPECT_EQ(linkedInternal->parentClip(), video);
    EXPECT_EQ(videoInternal->parentClip(), nullptr);
    EXPECT_EQ(linked->timeline(), timeline.get());
    EXPECT_EQ(linked->track(), timeline->track(1));
    EXPECT_EQ(video->track(), timeline->track(1));
    int32_t first = -5;
    int32_t second = -5;
    EXPECT_EQ(linkedInternal->containerPosition(&first, &second), 0);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
    EXPECT_STREQ(linked->name(), "scene");
    EXPECT_EQ(video->clipType(), DmTrackVideo);
    EXPECT_EQ(linked->clipType(), DmTrackAudio);
    EXPECT_EQ(beginTimeOfClip(linked), 1'000'000);
    EXPECT_EQ(endTimeOfClip(linked), 9'000'000);
    EXPECT_EQ(markInTimeOfClip(linked), 2'000'000);
    EXPECT_EQ(markOutTimeOfClip(linked), 10'000'000);
    char videoId[1024];
    char linkedId[1024];
    ASSERT_EQ(video->mediaId(videoId, sizeof videoId), 0);
    ASSERT_EQ(linked->mediaId(linkedId, sizeof linkedId), 0);
    EXPECT_STREQ(videoId, linkedId);

    // The sound's properties, effects and speed live on the linked clip; the
    // video clip reads and writes the same properties.
    ZorProperty value;
    ASSERT_EQ(audio->getProperty(audioKey::volume, &value), 0);
    EXPECT_EQ(value.doubleValue, -4.0);
    ASSERT_EQ(audio->getProperty(audioKey::mute, &value), 0);
    EXPECT_TRUE(value.boolValue());
    ASSERT_EQ(audio->getProperty(audioReversePlayKey::enable, &value), 0);
    EXPECT_TRUE(value.boolValue());
    auto* videoProperties = query<IDmPropertyOwner>(video, "IDmPropertyOwner");
    EXPECT_EQ(videoProperties->setProperty(audioKey::volume, doubleProperty(-9.0)), 0);
    ASSERT_EQ(audio->getProperty(audioKey::volume, &value), 0);
    EXPECT_EQ(value.doubleValue, -9.0);
    ASSERT_NE(linked->effect(DmEffectDucking), nullptr);
    EXPECT_EQ(linked->effect(DmEffectDucking)->ownerClip(), linked);
    EXPECT_EQ(linked->effect(DmEffectDucking)->value(0), 0.5f);
    ASSERT_NE(linked->effect(DmEffectVolume), nullptr);
    EXPECT_EQ(linked->effect(DmEffectVolume)->keyframeCount(1), 1);
    ASSERT_NE(linked->effect(DmEffectReversePlay), nullptr);
    EXPECT_EQ(video->effect(DmEffectDucking), nullptr);
    EXPECT_EQ(video->effect(DmEffectVolume), nullptr);
    auto* parts = query<IDmClipSpeedPart>(linked, "IDmClipSpeedPart");
    ASSERT_NE(parts, nullptr);
    EXPECT_EQ(parts->speedPartCount(), 1);
    // 2e6 + 1e6 (speed 1) + 0.5e6 x 2
    EXPECT_EQ(audio->sourcePosition(3'500'000, false), 4'000'000);

    // A video without sound has no linked clip; a clip on an audio track is
    // its own.
    IDmClip* mutePicture = timeline->clip(1, 0);
    EXPECT_EQ(getBaseAudioClip(mutePicture), nullptr);
    EXPECT_EQ(mutePicture->queryInterface("IDmAudioFeature"), nullptr);
    IDmClip* music = timeline->clip(0, 0);
    EXPECT_EQ(getBaseAudioClip(music), music);
    EXPECT_EQ(query<IDmClipInternal>(music, "IDmClipInternal")->parentClip(), nullptr);
    EXPECT_EQ(getBaseAudioClip(timeline.get()), nullptr);
    EXPECT_EQ(getBaseAudioClip(timeline->track(0)), nullptr);
}

TEST_F(DmTimelineTest, VideoFileOnAnAudioTrackIsOnlyItsSound) {
    DmClipDesc clip = clipDesc(movie_, "soundtrack", 0, kSecond, 0, kSecond);
    clip.streamId = 1;
    auto timeline = ZorRef<IDmTimeline>::adopt(makeAudioClip(clip));
    IDmClip* sound = timeline->clip(0, 0);
    auto* audio = query<IDmAudioFeature>(sound, "IDmAudioFeature");
    ASSERT_NE(audio, nullptr);
    EXPECT_EQ(audio->audioStreamIndex(), 1);
    EXPECT_EQ(sound->queryInterface("IDmVideoFeature"), nullptr);
    EXPECT_EQ(sound->clipType(), DmTrackAudio);
    EXPECT_EQ(getBaseAudioClip(sound), sound);
}

TEST_F(DmTimelineTest, ClipsWithoutMediaHaveNoFeaturesButKeepRangeAndProperties) {
    DmClipDesc missing = clipDesc("", "lost", 0, 4'000'000, 1'000'000, 5'000'000);
    missing.volumeDb = -2.0;
    DmClipDesc absent = clipDesc(folder_->file("absent.mp4"), "gone", 4'000'000, 6'000'000, 0, 2'000'000);
    DmClipDesc lostSound = missing;
    lostSound.ducking.present = true;
    DmTimelineDesc desc;
    desc.tracks.push_back(trackDesc(DmTrackVideo, "V1", {missing, absent}));
    desc.tracks.push_back(trackDesc(DmTrackAudio, "A1", {lostSound}));
    auto timeline = ZorRef<IDmTimeline>::adopt(make(desc));
    ASSERT_NE(timeline.get(), nullptr);
    for (IDmClip* clip : {timeline->clip(0, 0), timeline->clip(0, 1), timeline->clip(1, 0)}) {
        ASSERT_NE(clip, nullptr);
        EXPECT_EQ(clip->queryInterface("IDmAudioFeature"), nullptr) << clip->name();
        EXPECT_EQ(clip->queryInterface("IDmVideoFeature"), nullptr) << clip->name();
        EXPECT_EQ(clip->feature(DmFeatureAudioWave, 0), nullptr) << clip->name();
        EXPECT_EQ(getBaseAudioClip(clip), nullptr) << clip->name();
        EXPECT_EQ(managerOf(clip), nullptr) << clip->name();
    }
    IDmClip* lost = timeline->clip(0, 0);
    EXPECT_STREQ(lost->name(), "lost");
    EXPECT_EQ(beginTimeOfClip(lost), 0);
    EXPECT_EQ(endTimeOfClip(lost), 4'000'000);
    EXPECT_EQ(markInTimeOfClip(lost), 1'000'000);
    EXPECT_EQ(markOutTimeOfClip(lost), 5'000'000);
    ZorProperty value;
    ASSERT_EQ(query<IDmPropertyOwner>(lost, "IDmPropertyOwner")->getProperty(audioKey::volume, &value), 0);
    EXPECT_EQ(value.doubleValue, -2.0);
    EXPECT_STREQ(timeline->clip(0, 1)->name(), "gone");
    EXPECT_EQ(endTimeOfClip(timeline->clip(0, 1)), 6'000'000);
    // A clip on an audio track keeps the effects it was described with.
    EXPECT_NE(timeline->clip(1, 0)->effect(DmEffectDucking), nullptr);
    EXPECT_EQ(timeline->duration(), 6'000'000);
}

TEST_F(DmTimelineTest, ClipsOfOneMediaStreamShareOneWaveManager) {
    DmTimelineDesc desc;
    desc.tracks.push_back(trackDesc(
        DmTrackAudio, "A1",
        {clipDesc(tone_, "one", 0, kSecond, 0, kSecond), clipDesc(tone_, "two", kSecond, 2 * kSecond, 0, kSecond)}));
    desc.tracks.push_back(trackDesc(DmTrackVideo, "V1", {clipDesc(movie_, "scene", 0, kSecond, 0, kSecond)}));
    DmClipDesc soundtrack = clipDesc(movie_, "soundtrack", 0, kSecond, 0, kSecond);
    soundtrack.streamId = 1;
    desc.tracks.push_back(trackDesc(DmTrackAudio, "A2", {soundtrack}));
    auto timeline = ZorRef<IDmTimeline>::adopt(make(desc));
    ASSERT_NE(timeline.get(), nullptr);

    auto one = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(timeline->clip(0, 0)));
    auto two = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(timeline->clip(0, 1)));
    ASSERT_NE(one.get(), nullptr);
    EXPECT_EQ(one.get(), two.get());
    // A media clip of the same file finds the same manager.
    auto media = ZorRef<IDmClip>::adopt(createMediaClip(tone_.c_str(), -1, -1, nullptr));
    auto viaMedia = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(media.get()));
    EXPECT_EQ(viaMedia.get(), one.get());

    // The linked clip of the video and the audio-track clip of its sound.
    IDmClip* linked = getBaseAudioClip(timeline->clip(1, 0));
    ASSERT_NE(linked, nullptr);
    auto scene = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(linked));
    auto sound = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(timeline->clip(2, 0)));
    ASSERT_NE(scene.get(), nullptr);
    EXPECT_EQ(scene.get(), sound.get());
    EXPECT_NE(scene.get(), one.get());
    // The video clip itself has none: its sound is the linked clip's.
    EXPECT_EQ(managerOf(timeline->clip(1, 0)), nullptr);

    // The wave values read through a timeline clip as through any clip.
    auto* audio = query<IDmAudioFeature>(timeline->clip(0, 0), "IDmAudioFeature");
    int32_t count = 0;
    EXPECT_EQ(audio->valueCountPerFrame(&count, 25, 1), 0);
    EXPECT_EQ(count, 40);
    auto* source = query<IDmMediaSource>(timeline->clip(0, 0), "IDmMediaSource");
    ASSERT_NE(source, nullptr);
    EXPECT_NE(source->waveStore(), nullptr);
    EXPECT_EQ(source->resolvedStream(DmTrackAudio), 0);
}

TEST_F(DmTimelineTest, InconsistentDescriptionsAreRefusedWithOneLine) {
    std::string error;
    auto expectRefused = [&](const DmTimelineDesc& desc, const std::vector<std::string>& named) {
        error.clear();
        EXPECT_EQ(createTimeline(desc, &error), nullptr);
        EXPECT_FALSE(error.empty());
        EXPECT_EQ(error.find('\n'), std::string::npos) << error;
        for (const std::string& text : named) EXPECT_NE(error.find(text), std::string::npos) << error;
    };

    DmTimelineDesc backwards;
    backwards.tracks.push_back(trackDesc(DmTrackAudio, "A1",
                                         {clipDesc(tone_, "fine", 0, kSecond, 0, kSecond),
                                          clipDesc(tone_, "reversed", 5'000'000, 4'000'000, 0, kSecond)}));
    expectRefused(backwards, {"reversed", "A1", "5000000", "4000000"});

    DmTimelineDesc marks;
    marks.tracks.push_back(
        trackDesc(DmTrackVideo, "V1", {clipDesc(silent_, "crossed", 0, kSecond, 3'000'000, 2'000'000)}));
    expectRefused(marks, {"crossed", "mark"});

    DmTimelineDesc kind;
    kind.tracks.push_back(trackDesc(DmTrackAudio, "A1", {}));
    kind.tracks.push_back(trackDesc(7, "Subtitles", {}));
    expectRefused(kind, {"Subtitles", "track 1", "kind 7"});

    DmTimelineDesc speed;
    DmClipDesc overlapping = clipDesc(tone_, "jumpy", 0, kSecond, 0, kSecond);
    overlapping.speedParts = {{0, 3'000'000, 2.0}, {2'000'000, 4'000'000, 0.5}};
    speed.tracks.push_back(trackDesc(DmTrackAudio, "A1", {overlapping}));
    expectRefused(speed, {"jumpy", "overlap"});

    DmTimelineDesc negative;
    DmClipDesc slow = clipDesc(tone_, "negative", 0, kSecond, 0, kSecond);
    slow.speed = -1.0;
    negative.tracks.push_back(trackDesc(DmTrackAudio, "A1", {slow}));
    expectRefused(negative, {"negative", "speed"});

    // No error text asked for: still refused.
    EXPECT_EQ(createTimeline(kind, nullptr), nullptr);
    // A described clip of zero length is consistent.
    DmTimelineDesc empty;
    empty.tracks.push_back(trackDesc(DmTrackAudio, "A1", {clipDesc(tone_, "point", kSecond, kSecond, 0, 0)}));
    auto timeline = ZorRef<IDmTimeline>::adopt(make(empty));
    EXPECT_NE(timeline.get(), nullptr);
}

TEST_F(DmTimelineTest, UnreadableDocumentLoadsNothing) {
    std::string error;
    const std::string missing = folder_->file("missing.otio");
    EXPECT_EQ(loadTimelineDocument(missing.c_str(), &error), nullptr);
    EXPECT_FALSE(error.empty());
}

TEST_F(DmTimelineTest, ListenersAreRegisteredOnceAndUnregisteredByPointer) {
    DmTimelineDesc desc;
    desc.tracks.push_back(trackDesc(DmTrackAudio, "A1", {clipDesc(tone_, "music", 0, kSecond, 0, kSecond)}));
    auto timeline = ZorRef<IDmTimeline>::adopt(make(desc));
    auto listener = ZorRef<IDmTimeline>::adopt(make(DmTimelineDesc{}));  // any object serves as a listener
    auto other = ZorRef<IDmTimeline>::adopt(make(DmTimelineDesc{}));
    std::vector<IDmCallbackSource*> sources = {
        query<IDmCallbackSource>(timeline.get(), "IDmCallbackSource"),
        query<IDmCallbackSource>(timeline->track(0), "IDmCallbackSource"),
        query<IDmCallbackSource>(timeline->clip(0, 0), "IDmCallbackSource"),
    };
    for (IDmCallbackSource* source : sources) {
        ASSERT_NE(source, nullptr);
        EXPECT_EQ(source->registerCallback(listener.get()), 0);
        EXPECT_EQ(source->registerCallback(listener.get()), 0);  // a second time: nothing
        EXPECT_EQ(source->registerCallback(other.get()), 0);
        EXPECT_EQ(listener->refCount(), 1);  // no reference taken
        EXPECT_EQ(source->unregisterCallback(listener.get()), 0);
        // Registered once only, so it is gone now.
        EXPECT_EQ(source->unregisterCallback(listener.get()), 1001);
        EXPECT_EQ(source->unregisterCallback(other.get()), 0);
        EXPECT_EQ(source->unregisterCallback(other.get()), 1001);
        EXPECT_EQ(source->registerCallback(nullptr), 1001);
        EXPECT_EQ(source->unregisterCallback(nullptr), 1001);
    }
}

TEST_F(DmTimelineTest, EverythingIsDestroyedWithTheTimelinesLastReference) {
    DmClipDesc scene = clipDesc(movie_, "scene", 0, kSecond, 0, kSecond);
    scene.ducking.present = true;
    scene.volumeKeyframes = {{0, -1.0}};
    scene.reverse = true;
    DmClipDesc music = clipDesc(tone_, "music", 0, kSecond, 0, kSecond);
    music.ducking.present = true;
    DmTimelineDesc desc;
    desc.tracks.push_back(
        trackDesc(DmTrackVideo, "V1", {scene, clipDesc(silent_, "pic", kSecond, 2 * kSecond, 0, kSecond)}));
    desc.tracks.push_back(trackDesc(DmTrackAudio, "A1", {music}));

    DestroyCounter counter;
    IDmTimeline* timeline = make(desc);
    ASSERT_NE(timeline, nullptr);
    int objects = 0;
    auto watch = [&](IDmBaseObj* object) {
        ASSERT_NE(object, nullptr);
        EXPECT_EQ(object->setReleaseNotifier(&counter), nullptr);
        ++objects;
    };
    watch(timeline);
    for (int32_t t = 0; t < timeline->trackCount(); ++t) {
        watch(timeline->track(t));
        for (int32_t c = 0; c < timeline->clipCount(t); ++c) {
            IDmClip* clip = timeline->clip(t, c);
            watch(clip);
            IDmClip* sound = getBaseAudioClip(clip);
            if (sound != nullptr && sound != clip) watch(sound);
            if (sound != nullptr)
                for (int32_t type : {DmEffectDucking, DmEffectVolume, DmEffectReversePlay})
                    if (IDmEffect* effect = sound->effect(type)) watch(effect);
        }
    }
    // The timeline, 2 tracks, 3 clips, 1 linked clip, 3 + 1 effects.
    EXPECT_EQ(objects, 11);
    EXPECT_EQ(timeline->Release(), 0);
    EXPECT_EQ(counter.count(), objects);
}

TEST_F(DmTimelineTest, ObjectsHeldBeyondTheirOwnersForgetThem) {
    DmClipDesc scene = clipDesc(movie_, "scene", 0, kSecond, 0, kSecond);
    scene.ducking.present = true;
    DmTimelineDesc desc;
    desc.tracks.push_back(trackDesc(DmTrackVideo, "V1", {scene}));
    desc.tracks.push_back(trackDesc(DmTrackAudio, "A1", {clipDesc(tone_, "music", 0, kSecond, 0, kSecond)}));
    IDmTimeline* timeline = make(desc);
    ASSERT_NE(timeline, nullptr);

    IDmClip* video = timeline->clip(0, 0);
    IDmClip* linked = getBaseAudioClip(video);
    ASSERT_NE(linked, nullptr);
    IDmTrack* track = timeline->track(1);
    IDmEffect* ducking = linked->effect(DmEffectDucking);
    ASSERT_NE(ducking, nullptr);
    video->AddRef();
    track->AddRef();
    linked->AddRef();
    ducking->AddRef();
    DestroyCounter counter;
    timeline->setReleaseNotifier(&counter);
    video->setReleaseNotifier(&counter);
    linked->setReleaseNotifier(&counter);
    track->setReleaseNotifier(&counter);
    EXPECT_EQ(timeline->Release(), 0);
    EXPECT_EQ(counter.count(), 1);  // the timeline only

    EXPECT_EQ(video->timeline(), nullptr);
    EXPECT_EQ(video->track(), nullptr);
    EXPECT_EQ(track->owner(), nullptr);
    EXPECT_EQ(track->trackKind(), DmTrackAudio);
    int32_t first = 0;
    int32_t second = 0;
    EXPECT_EQ(query<IDmClipInternal>(video, "IDmClipInternal")->containerPosition(&first, &second), -1);
    EXPECT_EQ(first, -1);
    EXPECT_EQ(second, -1);
    EXPECT_EQ(query<IDmClipInternal>(linked, "IDmClipInternal")->parentClip(), video);
    EXPECT_EQ(linked->timeline(), nullptr);

    EXPECT_EQ(video->Release(), 0);  // the linked clip stays: it is held
    EXPECT_EQ(counter.count(), 2);
    EXPECT_EQ(query<IDmClipInternal>(linked, "IDmClipInternal")->parentClip(), nullptr);
    EXPECT_EQ(ducking->ownerClip(), linked);
    EXPECT_EQ(linked->Release(), 0);
    EXPECT_EQ(counter.count(), 3);
    EXPECT_EQ(ducking->ownerClip(), nullptr);
    EXPECT_EQ(ducking->Release(), 0);

    // The track held its clip until now.
    EXPECT_EQ(track->Release(), 0);
    EXPECT_EQ(counter.count(), 4);
}

TEST_F(DmTimelineTest, GettersAndSettersMayRunOnManyThreads) {
    DmClipDesc scene = clipDesc(movie_, "scene", 0, kSecond, 0, kSecond);
    DmTimelineDesc desc;
    desc.tracks.push_back(trackDesc(DmTrackVideo, "V1", {scene}));
    auto timeline = ZorRef<IDmTimeline>::adopt(make(desc));
    ASSERT_NE(timeline.get(), nullptr);
    IDmClip* video = timeline->clip(0, 0);
    auto* videoProperties = query<IDmPropertyOwner>(video, "IDmPropertyOwner");
    auto* trackProperties = query<IDmPropertyOwner>(timeline->track(0), "IDmPropertyOwner");
    IDmClip* linked = getBaseAudioClip(video);
    ASSERT_NE(linked, nullptr);
    auto* audio = query<IDmAudioFeature>(linked, "IDmAudioFeature");
    constexpr int kRounds = 2000;
    std::atomic<int> badReads{0};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        for (int i = 0; i < kRounds; ++i) {
            videoProperties->setProperty(audioKey::volume, doubleProperty(-static_cast<double>(i % 7)));
            trackProperties->setProperty(trackKey::mute, boolProperty(i % 2 == 0));
        }
    });
    for (int r = 0; r < 3; ++r) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                ZorProperty value;
                if (audio->getProperty(audioKey::volume, &value) != 0 || value.doubleValue > 0.0 ||
                    value.doubleValue < -6.0)
                    badReads.fetch_add(1);
                if (trackProperties->getProperty(trackKey::mute, &value) != 0) badReads.fetch_add(1);
                if (endTimeOfClip(linked) != kSecond || timeline->duration() != kSecond) badReads.fetch_add(1);
                if (getBaseAudioClip(video) != linked) badReads.fetch_add(1);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(badReads.load(), 0);
}

}  // namespace
}  // namespace ZOR::test

namespace ZOR::test {
namespace {

std::string styleTextOf(IDmAttachedItem* item, const char* kind) {
    IDmBaseObj* data = item->data(0);
    auto* style = data != nullptr ? static_cast<IDmStyleData*>(data->queryInterface(kind)) : nullptr;
    return style != nullptr ? style->text(2) : "<none>";
}

TEST_F(DmTimelineTest, VisualStylesAreAttachedItemsWithTheirIdentifiers) {
    DmClipDesc plain = clipDesc(movie_, "plain", 0, 10'000'000, 0, 10'000'000);
    DmClipDesc styled = clipDesc(movie_, "styled", 10'000'000, 20'000'000, 0, 10'000'000);
    styled.imageStyleId = "sketch-7";
    styled.templateStyleId = "retro";
    DmTimelineDesc desc;
    desc.tracks.push_back(trackDesc(DmTrackVideo, "V1", {plain, styled}));
    auto timeline = ZorRef<IDmTimeline>::adopt(make(desc));
    ASSERT_NE(timeline.get(), nullptr);

    IDmAttachedItemList* none = timeline->clip(0, 0)->attachedItems();
    ASSERT_NE(none, nullptr);
    EXPECT_EQ(none->count(), 0);
    EXPECT_EQ(none->get(0), nullptr);

    IDmAttachedItemList* items = timeline->clip(0, 1)->attachedItems();
    ASSERT_NE(items, nullptr);
    ASSERT_EQ(items->count(), 2);
    for (int32_t i = 0; i < 2; ++i) {
        EXPECT_TRUE(items->get(i)->isApplied());
        EXPECT_TRUE(items->get(i)->isVisualStyle());
        EXPECT_EQ(items->get(i)->dataCount(), 1);
        EXPECT_EQ(items->get(i)->data(1), nullptr);
    }
    EXPECT_EQ(styleTextOf(items->get(0), "IImageStylizesData"), "sketch-7");
    EXPECT_EQ(styleTextOf(items->get(0), "IAITemplateGenerateData"), "<none>");
    EXPECT_EQ(styleTextOf(items->get(1), "IAITemplateGenerateData"), "retro");
    EXPECT_EQ(styleTextOf(items->get(1), "IImageStylizesData"), "<none>");
}

}  // namespace
}  // namespace ZOR::test
