// A timeline document loaded with loadTimelineDocument and read back through
// the data model's interfaces only (IDmTimeline, IDmTrack, IDmClip,
// IDmAudioFeature, IDmEffect, IDmClipSpeedPart, the clip functions), with
// media made by the ffmpeg command; and documents that cannot be loaded,
// which give one line of error and leave nothing allocated behind.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "Adapter/Adapter.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmTime.h"
#include "DataModel/DmTimeline.h"
#include "MediaTestSupport.h"

// ---------------------------------------------------------------------------
// Every block allocated with the global operator new in the process (the
// data-model library's included) is counted while it lives.

namespace {
std::atomic<int64_t> liveBlocks{0};

void* countedNew(std::size_t size) {
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) throw std::bad_alloc();
    liveBlocks.fetch_add(1, std::memory_order_relaxed);
    return block;
}

void countedDelete(void* block) noexcept {
    if (block == nullptr) return;
    liveBlocks.fetch_sub(1, std::memory_order_relaxed);
    std::free(block);
}
}  // namespace

void* operator new(std::size_t size) { return countedNew(size); }
void* operator new[](std::size_t size) { return countedNew(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return countedNew(size);
    } catch (...) {
        return nullptr;
    }
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    try {
        return countedNew(size);
    } catch (...) {
        return nullptr;
    }
}
void operator delete(void* block) noexcept { countedDelete(block); }
void operator delete[](void* block) noexcept { countedDelete(block); }
void operator delete(void* block, std::size_t) noexcept { countedDelete(block); }
void operator delete[](void* block, std::size_t) noexcept { countedDelete(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { countedDelete(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { countedDelete(block); }

namespace ZOR::test {
namespace {

using MediaTest::ffmpeg;
using MediaTest::writeText;

constexpr int64_t kSecond = 10'000'000;  // cns

// Seconds as cns, for times that are exact in both.
constexpr int64_t cns(double seconds) { return static_cast<int64_t>(seconds * static_cast<double>(kSecond)); }

// The open file descriptors of the process.
size_t openDescriptors() {
    size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
    return count;
}

// A document with every "miravel" field: a video track (a gap, then a clip of
// a film with sound at double speed) and an audio track (a clip of a WAV file
// with keyframes, speed parts, ducking off and reverse; a gap; a clip of the
// second audio stream of a Matroska file, played backwards by its time warp,
// disabled but not muted, ducking the others). The three media are named
// three ways: a file URL, an absolute path and a path relative to the
// document.
//
// musicMiravel and voiceMiravel replace the clips' "miravel" objects when given.
std::string document(const std::string& movieUrl, const std::string& tonePath, const std::string& musicMiravel = "",
                     const std::string& voiceMiravel = "") {
    const std::string music = musicMiravel.empty() ? R"({
            "stream_id": 0, "volume_db": -6, "volume_gain_db": 2.5,
            "loudness": {"enabled": true, "gain": 0.75}, "mute": true,
            "volume_keyframes": [[0.5, -12], [1.5, 0], [2.5, -48]],
            "ducking": {"enabled": false, "depth": 0.4, "fade": 0.3, "fade_ratio": 0.25},
            "reverse": true,
            "speed_parts": [{"begin": 2.0, "end": 2.5, "speed": 0.5}, {"begin": 0.5, "end": 1.0, "speed": 0}]})"
                                                   : musicMiravel;
    const std::string voice = voiceMiravel.empty() ? R"({
            "stream_id": 1, "mute": false,
            "ducking": {"enabled": true, "depth": 0.5, "fade": 0.25, "fade_ratio": 0.5}})"
                                                   : voiceMiravel;
    return R"({"OTIO_SCHEMA": "Timeline.1", "name": "Document",
  "global_start_time": {"OTIO_SCHEMA": "RationalTime.1", "value": 86400, "rate": 24},
  "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [
    {"OTIO_SCHEMA": "Track.1", "name": "Pictures", "kind": "Video",
     "metadata": {"miravel": {"mute": true, "visible": true, "solo": false}},
     "children": [
       {"OTIO_SCHEMA": "Gap.1", "source_range": {"OTIO_SCHEMA": "TimeRange.1",
          "start_time": {"OTIO_SCHEMA": "RationalTime.1", "value": 0, "rate": 25},
          "duration": {"OTIO_SCHEMA": "RationalTime.1", "value": 25, "rate": 25}}},
       {"OTIO_SCHEMA": "Clip.1", "name": "Shot",
        "source_range": {"OTIO_SCHEMA": "TimeRange.1",
          "start_time": {"OTIO_SCHEMA": "RationalTime.1", "value": 12, "rate": 24},
          "duration": {"OTIO_SCHEMA": "RationalTime.1", "value": 36, "rate": 24}},
        "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": ")" +
           movieUrl + R"("},
        "effects": [{"OTIO_SCHEMA": "LinearTimeWarp.1", "name": "", "effect_name": "LinearTimeWarp",
                     "metadata": {}, "time_scalar": 2.0}],
        "metadata": {"miravel": {"stream_id": 0, "volume_db": -4.5}}}]},
    {"OTIO_SCHEMA": "Track.1", "name": "Music", "kind": "Audio", "enabled": false,
     "metadata": {"miravel": {"mute": false, "visible": false, "solo": true}},
     "children": [
       {"OTIO_SCHEMA": "Clip.1", "name": "Music",
        "source_range": {"OTIO_SCHEMA": "TimeRange.1",
          "start_time": {"OTIO_SCHEMA": "RationalTime.1", "value": 12000, "rate": 48000},
          "duration": {"OTIO_SCHEMA": "RationalTime.1", "value": 144000, "rate": 48000}},
        "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": ")" +
           tonePath + R"("},
        "metadata": {"miravel": )" +
           music + R"(}},
       {"OTIO_SCHEMA": "Gap.1", "source_range": {"OTIO_SCHEMA": "TimeRange.1",
          "start_time": {"OTIO_SCHEMA": "RationalTime.1", "value": 0, "rate": 10},
          "duration": {"OTIO_SCHEMA": "RationalTime.1", "value": 5, "rate": 10}}},
       {"OTIO_SCHEMA": "Clip.1", "name": "Voice", "enabled": false,
        "source_range": {"OTIO_SCHEMA": "TimeRange.1",
          "start_time": {"OTIO_SCHEMA": "RationalTime.1", "value": 0, "rate": 25},
          "duration": {"OTIO_SCHEMA": "RationalTime.1", "value": 25, "rate": 25}},
        "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": "two streams.mkv"},
        "effects": [{"OTIO_SCHEMA": "LinearTimeWarp.1", "time_scalar": -1.0}],
        "metadata": {"miravel": )" +
           voice + R"(}}]}]}})";
}

bool boolOf(IDmTrack* track, const char* key) {
    ZorProperty value;
    EXPECT_EQ(track->getProperty(key, &value), 0) << key;
    EXPECT_EQ(value.kind, ZorProperty::Bool) << key;
    return value.boolValue();
}

ZorProperty propertyOf(IDmAudioFeature* audio, const char* key) {
    ZorProperty value;
    EXPECT_EQ(audio->getProperty(key, &value), 0) << key;
    return value;
}

IDmAudioFeature* audioOf(IDmClip* clip) {
    return static_cast<IDmAudioFeature*>(clip->queryInterface("IDmAudioFeature"));
}

std::string mediaIdOf(IDmClip* clip) {
    char buffer[4096] = {};
    EXPECT_EQ(clip->mediaId(buffer, sizeof buffer), 0);
    return buffer;
}

// The media every test uses, made once: a 4 s stereo WAV at 48 kHz; a 4 s
// 64x48 film at 25 fps with a stereo AAC track (video stream 0, audio 1); a
// Matroska file of two audio streams (0: stereo 48 kHz, 1: mono 22.05 kHz).
class DmTimelineDocument : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        folder_ = std::make_unique<TempFolder>();
        tone_ = folder_->file("tone.wav");
        movie_ = folder_->file("my film.mp4");
        streams_ = folder_->file("two streams.mkv");
        ffmpeg(MediaTest::toneArguments(tone_, 440, 48000, 4, 2));
        ffmpeg(MediaTest::filmArguments(movie_, 64, 48, 4, 330));
        ffmpeg(MediaTest::twoStreamsArguments(streams_, {300, 48000, 2}, {600, 22050, 1}, 2));
        document_ = folder_->file("cut.otio");
        // The film by a file URL (the space percent-encoded), the tone by its
        // absolute path, the two streams by a path relative to the document.
        writeText(document_, document("file://" + folder_->file("my%20film.mp4"), tone_));
    }
    static void TearDownTestSuite() { folder_.reset(); }

    void SetUp() override {
        std::string error = "not cleared";
        timeline_ = ZorRef<IDmTimeline>::adopt(loadTimelineDocument(document_.c_str(), &error));
        ASSERT_NE(timeline_.get(), nullptr) << error;
        EXPECT_EQ(error, "");
    }
    void TearDown() override { timeline_.reset(); }

    static std::unique_ptr<TempFolder> folder_;
    static std::string tone_;
    static std::string movie_;
    static std::string streams_;
    static std::string document_;
    ZorRef<IDmTimeline> timeline_;
};

std::unique_ptr<TempFolder> DmTimelineDocument::folder_;
std::string DmTimelineDocument::tone_;
std::string DmTimelineDocument::movie_;
std::string DmTimelineDocument::streams_;
std::string DmTimelineDocument::document_;

TEST_F(DmTimelineDocument, TracksHoldTheirClipsWithoutTheGapsAndTheirMiravelFlags) {
    ASSERT_EQ(timeline_->trackCount(), 2);
    IDmTrack* pictures = timeline_->track(0);
    IDmTrack* music = timeline_->track(1);
    ASSERT_NE(pictures, nullptr);
    ASSERT_NE(music, nullptr);
    EXPECT_EQ(pictures->trackKind(), DmTrackVideo);
    EXPECT_EQ(music->trackKind(), DmTrackAudio);
    EXPECT_EQ(pictures->trackIndex(), 0);
    EXPECT_EQ(music->trackIndex(), 1);
    EXPECT_EQ(pictures->owner(), timeline_.get());
    EXPECT_EQ(music->owner(), timeline_.get());
    EXPECT_EQ(timeline_->clipCount(0), 1);
    EXPECT_EQ(timeline_->clipCount(1), 2);
    EXPECT_EQ(timeline_->clip(0, 1), nullptr);
    EXPECT_EQ(timeline_->clip(1, 2), nullptr);

    EXPECT_TRUE(boolOf(pictures, trackKey::mute));
    EXPECT_TRUE(boolOf(pictures, trackKey::visible));
    EXPECT_FALSE(boolOf(pictures, trackKey::solo));
    // The track is disabled (so muted), but "miravel" says it is not muted.
    EXPECT_FALSE(boolOf(music, trackKey::mute));
    EXPECT_FALSE(boolOf(music, trackKey::visible));
    EXPECT_TRUE(boolOf(music, trackKey::solo));

    // The last clip ends at 3 s + 0.5 s + 1 s.
    EXPECT_EQ(timeline_->duration(), cns(4.5));
    for (int32_t t = 0; t < 2; ++t)
        for (int32_t c = 0; c < timeline_->clipCount(t); ++c) {
            EXPECT_EQ(timeline_->clip(t, c)->timeline(), timeline_.get());
            EXPECT_EQ(timeline_->clip(t, c)->track(), timeline_->track(t));
        }
}

TEST_F(DmTimelineDocument, VideoClipAfterTheGapCarriesItsSoundInTheLinkedAudioClip) {
    IDmClip* shot = timeline_->clip(0, 0);
    ASSERT_NE(shot, nullptr);
    EXPECT_STREQ(shot->name(), "Shot");
    EXPECT_EQ(shot->clipType(), DmTrackVideo);
    EXPECT_EQ(mediaIdOf(shot), std::filesystem::canonical(movie_).string());
    // After the 1 s gap, 36 frames at 24 (1.5 s) long; from 12 / 24 s into the
    // film, at double speed: 3 s of the film.
    EXPECT_EQ(beginTimeOfClip(shot), cns(1.0));
    EXPECT_EQ(endTimeOfClip(shot), cns(2.5));
    EXPECT_EQ(markInTimeOfClip(shot), cns(0.5));
    EXPECT_EQ(markOutTimeOfClip(shot), cns(3.5));
    auto* video = static_cast<IDmVideoFeature*>(shot->queryInterface("IDmVideoFeature"));
    ASSERT_NE(video, nullptr);
    EXPECT_EQ(video->videoStreamIndex(), 0);
    EXPECT_EQ(shot->queryInterface("IDmAudioFeature"), nullptr);
    auto* owner = static_cast<IDmPropertyOwner*>(shot->queryInterface("IDmPropertyOwner"));
    ASSERT_NE(owner, nullptr);
    ZorProperty value;
    ASSERT_EQ(owner->getProperty(videoKey::streamId, &value), 0);
    EXPECT_EQ(value.intValue, 0);
    ASSERT_EQ(owner->getProperty(clipKey::enable, &value), 0);
    EXPECT_TRUE(value.boolValue());
    auto* parts = static_cast<IDmClipSpeedPart*>(shot->queryInterface("IDmClipSpeedPart"));
    ASSERT_NE(parts, nullptr);
    EXPECT_EQ(parts->speedPartCount(), 0);

    IDmClip* sound = getBaseAudioClip(shot);
    ASSERT_NE(sound, nullptr);
    EXPECT_NE(sound, shot);
    EXPECT_EQ(getBaseAudioClip(sound), sound);
    auto* internal = static_cast<IDmClipInternal*>(sound->queryInterface("IDmClipInternal"));
    ASSERT_NE(internal, nullptr);
    EXPECT_EQ(internal->parentClip(), shot);
    EXPECT_EQ(sound->clipType(), DmTrackAudio);
    EXPECT_EQ(beginTimeOfClip(sound), cns(1.0));
    EXPECT_EQ(endTimeOfClip(sound), cns(2.5));
    EXPECT_EQ(markInTimeOfClip(sound), cns(0.5));
    EXPECT_EQ(markOutTimeOfClip(sound), cns(3.5));
    IDmAudioFeature* audio = audioOf(sound);
    ASSERT_NE(audio, nullptr);
    EXPECT_EQ(audio->audioStreamIndex(), 1);
    EXPECT_EQ(audio->sampleRate(), 48000);
    EXPECT_EQ(audio->channelCount(), 2);
    EXPECT_EQ(propertyOf(audio, audioKey::volume).doubleValue, -4.5);
    EXPECT_FALSE(propertyOf(audio, audioKey::mute).boolValue());
    // The stream the sound uses: the best one, as no audio stream was named.
    EXPECT_EQ(propertyOf(audio, audioKey::streamId).intValue, -1);
    EXPECT_EQ(propertyOf(audio, clipVolumeKey::volumeGain).doubleValue, 0.0);
    EXPECT_FALSE(propertyOf(audio, audioLoudness::enable).boolValue());
    EXPECT_EQ(propertyOf(audio, audioLoudness::gain).doubleValue, 1.0);
    EXPECT_FALSE(propertyOf(audio, audioReversePlayKey::enable).boolValue());
    EXPECT_TRUE(propertyOf(audio, clipKey::enable).boolValue());
    // The video clip reads its sound's properties.
    ASSERT_EQ(owner->getProperty(audioKey::volume, &value), 0);
    EXPECT_EQ(value.doubleValue, -4.5);
    // No audio effects were asked for.
    for (int32_t type : {4109, 4110, 4139}) {
        EXPECT_EQ(sound->effect(type), nullptr) << type;
        EXPECT_EQ(shot->effect(type), nullptr) << type;
    }
    // Double speed from the mark in.
    EXPECT_EQ(audio->sourcePosition(cns(0.5), false), cns(0.5));
    EXPECT_EQ(audio->sourcePosition(cns(0.5) + 7'500'001, false), cns(0.5) + 15'000'002);
    EXPECT_EQ(audio->sourcePosition(cns(2.0), false), cns(3.5));
}

TEST_F(DmTimelineDocument, AudioClipCarriesEveryMiravelFieldThroughItsInterfaces) {
    IDmClip* music = timeline_->clip(1, 0);
    ASSERT_NE(music, nullptr);
    EXPECT_STREQ(music->name(), "Music");
    EXPECT_EQ(music->clipType(), DmTrackAudio);
    EXPECT_EQ(getBaseAudioClip(music), music);
    EXPECT_EQ(mediaIdOf(music), std::filesystem::canonical(tone_).string());
    // 12000 / 48000 s into the file, 3 s long, at the start of the track; with
    // speed parts the mark out is the mark in + the duration.
    const int64_t markIn = cns(0.25);
    EXPECT_EQ(beginTimeOfClip(music), 0);
    EXPECT_EQ(endTimeOfClip(music), cns(3.0));
    EXPECT_EQ(markInTimeOfClip(music), markIn);
    EXPECT_EQ(markOutTimeOfClip(music), markIn + cns(3.0));

    IDmAudioFeature* audio = audioOf(music);
    ASSERT_NE(audio, nullptr);
    EXPECT_EQ(audio->audioStreamIndex(), 0);
    EXPECT_EQ(propertyOf(audio, audioKey::streamId).intValue, 0);
    EXPECT_EQ(propertyOf(audio, audioKey::volume).doubleValue, -6.0);
    EXPECT_TRUE(propertyOf(audio, audioKey::mute).boolValue());
    EXPECT_EQ(propertyOf(audio, clipVolumeKey::volumeGain).doubleValue, 2.5);
    EXPECT_TRUE(propertyOf(audio, audioLoudness::enable).boolValue());
    EXPECT_EQ(propertyOf(audio, audioLoudness::gain).doubleValue, 0.75);
    EXPECT_TRUE(propertyOf(audio, audioReversePlayKey::enable).boolValue());
    EXPECT_TRUE(propertyOf(audio, clipKey::enable).boolValue());

    // Ducking, switched off.
    IDmEffect* ducking = music->effect(4109);
    ASSERT_NE(ducking, nullptr);
    EXPECT_EQ(ducking->effectType(), 4109);
    EXPECT_STREQ(ducking->effectName(), "audio/effect/ducking");
    EXPECT_FALSE(ducking->isEnabled());
    EXPECT_EQ(ducking->ownerClip(), music);
    EXPECT_EQ(ducking->value(0), 0.4f);
    EXPECT_EQ(ducking->value(1), 0.3f);
    EXPECT_EQ(ducking->value(2), 0.25f);
    EXPECT_EQ(ducking->value(3), 0.0f);

    // Keyframes of the level (property 1), at the mark in + their seconds.
    IDmEffect* volume = music->effect(4110);
    ASSERT_NE(volume, nullptr);
    EXPECT_STREQ(volume->effectName(), "audio/effect/volume");
    EXPECT_TRUE(volume->isEnabled());
    EXPECT_EQ(volume->ownerClip(), music);
    EXPECT_EQ(volume->keyframeCount(0), 0);
    ASSERT_EQ(volume->keyframeCount(1), 3);
    const int64_t times[] = {markIn + cns(0.5), markIn + cns(1.5), markIn + cns(2.5)};
    const double levels[] = {-12.0, 0.0, -48.0};
    for (int32_t i = 0; i < 3; ++i) {
        int64_t time = -1;
        double db = 1.0;
        ASSERT_EQ(volume->keyframe(1, i, &time, &db), 0) << i;
        EXPECT_EQ(time, times[i]) << i;
        EXPECT_EQ(db, levels[i]) << i;
    }
    int64_t time = -1;
    double db = 1.0;
    EXPECT_NE(volume->keyframe(1, 3, &time, &db), 0);
    EXPECT_NE(volume->keyframe(0, 0, &time, &db), 0);

    IDmEffect* reverse = music->effect(4139);
    ASSERT_NE(reverse, nullptr);
    EXPECT_TRUE(reverse->isEnabled());
    EXPECT_EQ(reverse->value(0), 1.0f);
    EXPECT_EQ(reverse->ownerClip(), music);

    // Speed parts in clip time, in order of their beginning.
    auto* parts = static_cast<IDmClipSpeedPart*>(music->queryInterface("IDmClipSpeedPart"));
    ASSERT_NE(parts, nullptr);
    ASSERT_EQ(parts->speedPartCount(), 2);
    int64_t begin = -1;
    int64_t end = -1;
    double speed = -1.0;
    ASSERT_EQ(parts->speedPart(0, &begin, &end, &speed), 0);
    EXPECT_EQ(begin, markIn + cns(0.5));
    EXPECT_EQ(end, markIn + cns(1.0));
    EXPECT_EQ(speed, 0.0);
    ASSERT_EQ(parts->speedPart(1, &begin, &end, &speed), 0);
    EXPECT_EQ(begin, markIn + cns(2.0));
    EXPECT_EQ(end, markIn + cns(2.5));
    EXPECT_EQ(speed, 0.5);
    EXPECT_NE(parts->speedPart(2, &begin, &end, &speed), 0);

    // The source position runs at speed 1 between the parts, stands still in
    // the frozen one and runs at half speed in the other; backwards, it is
    // mirrored inside [mark in, mark out].
    const int64_t markOut = markIn + cns(3.0);
    struct Point {
        int64_t clipTime;
        int64_t source;
    };
    const Point points[] = {
        {markIn, markIn},
        {markIn + cns(0.5), markIn + cns(0.5)},
        {markIn + cns(0.75), markIn + cns(0.5)},                          // frozen
        {markIn + cns(1.5), markIn + cns(0.5) + cns(0.5)},                // 0.5 s after the frozen part
        {markIn + cns(2.25), markIn + cns(0.5) + cns(1.0) + cns(0.125)},  // halfway in the half-speed part
        {markOut, markIn + cns(0.5) + cns(1.0) + cns(0.25) + cns(0.5)},
    };
    for (const Point& point : points) {
        EXPECT_EQ(audio->sourcePosition(point.clipTime, false), point.source) << point.clipTime;
        EXPECT_EQ(audio->sourcePosition(point.clipTime, true), markIn + markOut - point.source) << point.clipTime;
    }
}

TEST_F(DmTimelineDocument, DisabledClipOfTheSecondStreamPlaysBackwardsByItsTimeWarpAndDucks) {
    IDmClip* voice = timeline_->clip(1, 1);
    ASSERT_NE(voice, nullptr);
    EXPECT_STREQ(voice->name(), "Voice");
    // The path relative to the document names the file beside it.
    EXPECT_EQ(mediaIdOf(voice), std::filesystem::canonical(streams_).string());
    // After the music (3 s) and a gap of 0.5 s, 1 s long.
    EXPECT_EQ(beginTimeOfClip(voice), cns(3.5));
    EXPECT_EQ(endTimeOfClip(voice), cns(4.5));
    EXPECT_EQ(markInTimeOfClip(voice), 0);
    EXPECT_EQ(markOutTimeOfClip(voice), cns(1.0));

    IDmAudioFeature* audio = audioOf(voice);
    ASSERT_NE(audio, nullptr);
    // Stream 1: the mono one at 22.05 kHz.
    EXPECT_EQ(propertyOf(audio, audioKey::streamId).intValue, 1);
    EXPECT_EQ(audio->audioStreamIndex(), 1);
    EXPECT_EQ(audio->sampleRate(), 22050);
    EXPECT_EQ(audio->channelCount(), 1);
    // Disabled, which mutes, but "miravel" says not muted.
    EXPECT_FALSE(propertyOf(audio, clipKey::enable).boolValue());
    EXPECT_FALSE(propertyOf(audio, audioKey::mute).boolValue());
    EXPECT_EQ(propertyOf(audio, audioKey::volume).doubleValue, 0.0);
    EXPECT_TRUE(propertyOf(audio, audioReversePlayKey::enable).boolValue());

    IDmEffect* ducking = voice->effect(4109);
    ASSERT_NE(ducking, nullptr);
    EXPECT_TRUE(ducking->isEnabled());
    EXPECT_EQ(ducking->value(0), 0.5f);
    EXPECT_EQ(ducking->value(1), 0.25f);
    EXPECT_EQ(ducking->value(2), 0.5f);
    EXPECT_EQ(voice->effect(4110), nullptr);
    IDmEffect* reverse = voice->effect(4139);
    ASSERT_NE(reverse, nullptr);
    EXPECT_EQ(reverse->value(0), 1.0f);

    auto* parts = static_cast<IDmClipSpeedPart*>(voice->queryInterface("IDmClipSpeedPart"));
    ASSERT_NE(parts, nullptr);
    EXPECT_EQ(parts->speedPartCount(), 0);
    EXPECT_EQ(audio->sourcePosition(cns(0.25), false), cns(0.25));
    EXPECT_EQ(audio->sourcePosition(cns(0.25), true), cns(0.75));
    EXPECT_EQ(audio->sourcePosition(0, true), cns(1.0));
}

// Two documents that cannot be loaded: one the reader rejects after two
// tracks' worth of items have been read, one whose speed parts overlap (read,
// then refused by createTimeline). Each gives null and one line naming the
// fault; loading each 20 more times leaves as many blocks allocated and files
// open as before.
TEST_F(DmTimelineDocument, BadDocumentsGiveNullAndOneLineAndLeaveNothingBehind) {
    const std::string rejected = folder_->file("rejected.otio");
    writeText(rejected, document(movie_, tone_, "", R"({"stream_id": 1, "volume_db": "loud"})"));
    const std::string overlapping = folder_->file("overlapping.otio");
    writeText(
        overlapping,
        document(
            movie_, tone_,
            R"({"speed_parts": [{"begin": 0.5, "end": 1.0, "speed": 0}, {"begin": 0.75, "end": 1.25, "speed": 0.5}]})"));

    const std::string rejectedLine =
        rejected + ": $.tracks.children[1].children[2].metadata.miravel.volume_db: expected a number";
    const std::string overlappingLine =
        "createTimeline: clip 0 \"Music\" on track 1 \"Music\" has speed parts that overlap: [7500000, 12500000) "
        "and [10000000, 15000000)";
    std::string error;
    error.reserve(1024);
    EXPECT_EQ(loadTimelineDocument(rejected.c_str(), &error), nullptr);
    EXPECT_EQ(error, rejectedLine);
    EXPECT_EQ(loadTimelineDocument(overlapping.c_str(), &error), nullptr);
    EXPECT_EQ(error, overlappingLine);
    EXPECT_EQ(error.find('\n'), std::string::npos);

    // The count sees the data model's own allocations: a timeline that lives holds blocks.
    const int64_t empty = liveBlocks.load();
    auto loaded = ZorRef<IDmTimeline>::adopt(loadTimelineDocument(document_.c_str(), &error));
    ASSERT_NE(loaded.get(), nullptr) << error;
    EXPECT_GT(liveBlocks.load(), empty);
    loaded.reset();

    const size_t descriptors = openDescriptors();
    int unexpected = 0;
    const int64_t blocks = liveBlocks.load();
    for (int i = 0; i < 20; ++i) {
        if (loadTimelineDocument(rejected.c_str(), &error) != nullptr || error != rejectedLine) ++unexpected;
        if (loadTimelineDocument(overlapping.c_str(), &error) != nullptr || error != overlappingLine) ++unexpected;
    }
    const int64_t blocksAfter = liveBlocks.load();
    EXPECT_EQ(unexpected, 0);
    EXPECT_EQ(blocksAfter, blocks);
    EXPECT_EQ(openDescriptors(), descriptors);
}

}  // namespace
}  // namespace ZOR::test
