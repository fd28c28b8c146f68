#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "DataModel/DataModel.h"
#include "DataModel/DmTime.h"
#include "DataModel/DmTimeline.h"
#include "MediaTestSupport.h"

namespace ZOR::test {
namespace {

using MediaTest::writeText;

// Seconds as cns, for times that are exact in both.
constexpr int64_t cns(double seconds) { return static_cast<int64_t>(seconds * static_cast<double>(kCnsPerSecond)); }

std::string rationalTime(const std::string& value, const std::string& rate) {
    return R"({"OTIO_SCHEMA": "RationalTime.1", "value": )" + value + R"(, "rate": )" + rate + "}";
}

std::string timeRange(const std::string& start, const std::string& duration) {
    return R"({"OTIO_SCHEMA": "TimeRange.1", "start_time": )" + start + R"(, "duration": )" + duration + "}";
}

// A time range in whole frames at 24 per second.
std::string frames24(int start, int duration) {
    return timeRange(rationalTime(std::to_string(start), "24"), rationalTime(std::to_string(duration), "24"));
}

// A timeline with one video track holding the given items.
std::string documentWithItems(const std::string& items) {
    return R"({"OTIO_SCHEMA": "Timeline.1", "name": "Cut", "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [
        {"OTIO_SCHEMA": "Track.1", "name": "V1", "kind": "Video", "children": [)" +
           items + "]}]}}";
}

// A clip with an external reference, one second long, and the given
// "miravel" metadata.
std::string clipWithMiravel(const std::string& miravel) {
    return R"({"OTIO_SCHEMA": "Clip.1", "name": "Shot",
        "source_range": )" +
           frames24(0, 24) + R"(,
        "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": "/media/shot.mov"},
        "metadata": {"miravel": )" +
           miravel + "}}";
}

// A description that a failed read must leave as it is.
DmTimelineDesc sentinel() {
    DmTimelineDesc desc;
    desc.name = "before";
    DmTrackDesc track;
    track.name = "kept";
    track.kind = DmTrackAudio;
    DmClipDesc clip;
    clip.name = "kept clip";
    clip.mediaPath = "/kept.wav";
    clip.begin = 7;
    clip.end = 9;
    track.clips.push_back(clip);
    desc.tracks.push_back(track);
    return desc;
}

void expectSentinel(const DmTimelineDesc& desc) {
    EXPECT_EQ(desc.name, "before");
    ASSERT_EQ(desc.tracks.size(), 1u);
    EXPECT_EQ(desc.tracks[0].name, "kept");
    EXPECT_EQ(desc.tracks[0].kind, DmTrackAudio);
    ASSERT_EQ(desc.tracks[0].clips.size(), 1u);
    EXPECT_EQ(desc.tracks[0].clips[0].name, "kept clip");
    EXPECT_EQ(desc.tracks[0].clips[0].mediaPath, "/kept.wav");
    EXPECT_EQ(desc.tracks[0].clips[0].begin, 7);
    EXPECT_EQ(desc.tracks[0].clips[0].end, 9);
}

// Writes text as a document and reads it: the error text, with the code and
// the untouched description checked.
std::string failureOf(const TempFolder& folder, const std::string& text) {
    const std::string path = folder.file("cut.otio");
    writeText(path, text);
    DmTimelineDesc desc = sentinel();
    std::string error;
    EXPECT_EQ(parseTimelineDocument(path.c_str(), &desc, &error), kResultFailure);
    expectSentinel(desc);
    return error;
}

// Writes text as a document and reads it, which must succeed.
DmTimelineDesc readOf(const TempFolder& folder, const std::string& text) {
    const std::string path = folder.file("cut.otio");
    writeText(path, text);
    DmTimelineDesc desc;
    std::string error = "stale";
    EXPECT_EQ(parseTimelineDocument(path.c_str(), &desc, &error), 0) << error;
    EXPECT_EQ(error, "");
    return desc;
}

// The fault text after "<path>: ".
std::string faultOf(const TempFolder& folder, const std::string& text) {
    const std::string error = failureOf(folder, text);
    const std::string prefix = folder.file("cut.otio") + ": ";
    EXPECT_EQ(error.substr(0, prefix.size()), prefix);
    return error.size() >= prefix.size() ? error.substr(prefix.size()) : error;
}

// ---------------------------------------------------------------------------
// A document with every "miravel" field and the OpenTimelineIO features.

std::string fullDocument() {
    const std::string marker = R"({"OTIO_SCHEMA": "Marker.2", "name": "beat", "color": "RED",
        "marked_range": )" + frames24(10, 0) +
                               R"(, "metadata": {}})";
    const std::string pictures = R"({"OTIO_SCHEMA": "Track.1", "name": "Pictures", "kind": "Video",
        "enabled": false, "source_range": null, "effects": [], "markers": [], "metadata": {}, "children": [
        {"OTIO_SCHEMA": "Gap.1", "name": "", "source_range": )" +
                                 frames24(0, 48) + R"(, "effects": [], "markers": [], "metadata": {}},
        {"OTIO_SCHEMA": "Clip.1", "name": "Opening", "enabled": true,
         "source_range": )" + frames24(86448, 72) +
                                 R"(,
         "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "name": "", "metadata": {},
                             "target_url": "file:///media/my%20clip.mov",
                             "available_range": )" +
                                 frames24(86400, 240000) + R"(},
         "effects": [{"OTIO_SCHEMA": "LinearTimeWarp.1", "name": "", "effect_name": "LinearTimeWarp",
                      "metadata": {}, "time_scalar": 2.0}],
         "markers": [)" + marker +
                                 R"(],
         "metadata": {"other tool": {"x": 1}, "miravel": {"stream_id": 1}}},
        {"OTIO_SCHEMA": "Transition.1", "name": "dissolve", "transition_type": "SMPTE_Dissolve",
         "in_offset": )" + rationalTime("12", "24") +
                                 R"(, "out_offset": )" + rationalTime("12", "24") + R"(, "metadata": {}},
        {"OTIO_SCHEMA": "Clip.2", "name": "Still", "enabled": false,
         "source_range": )" + timeRange(rationalTime("12", "24"), rationalTime("25", "25")) +
                                 R"(,
         "active_media_reference_key": "proxy",
         "media_references": {
            "DEFAULT_MEDIA": {"OTIO_SCHEMA": "MissingReference.1", "name": "", "metadata": {}, "available_range": null},
            "proxy": {"OTIO_SCHEMA": "ExternalReference.1", "name": "", "metadata": {},
                      "target_url": "proxies/still frame.mov", "available_range": null}},
         "effects": [{"OTIO_SCHEMA": "FreezeFrame.1", "name": "", "effect_name": "FreezeFrame",
                      "metadata": {}, "time_scalar": 0.0}],
         "markers": [], "metadata": {}},
        {"OTIO_SCHEMA": "Gap.1", "source_range": )" +
                                 timeRange(rationalTime("0", "30000"), rationalTime("1001", "30000")) + R"(},
        {"OTIO_SCHEMA": "Clip.1", "name": "Lost", "source_range": null,
         "media_reference": {"OTIO_SCHEMA": "MissingReference.1", "name": "", "metadata": {},
                             "available_range": )" +
                                 frames24(24, 240) + R"(},
         "effects": [], "markers": [], "metadata": {}}]})";

    const std::string sound = R"({"OTIO_SCHEMA": "Track.1", "name": "Sound", "kind": "Audio", "enabled": false,
        "metadata": {"miravel": {"mute": false, "visible": false, "solo": true}}, "children": [
        {"OTIO_SCHEMA": "Clip.1", "name": "Voice", "enabled": false,
         "source_range": )" + timeRange(rationalTime("72000", "48000"), rationalTime("192000", "48000")) +
                              R"(,
         "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": "voice.wav", "metadata": {}},
         "effects": [{"OTIO_SCHEMA": "LinearTimeWarp.1", "time_scalar": -1.0}],
         "markers": [)" + marker +
                              R"(],
         "metadata": {"miravel": {
            "stream_id": 2, "volume_db": -6.5, "volume_gain_db": 3.0,
            "loudness": {"enabled": true, "gain": 0.5}, "mute": false,
            "volume_keyframes": [[0, -6.0], [1.25, 0.0], [3.5, -12.5]],
            "ducking": {"enabled": false, "depth": 0.75, "fade": 0.2, "fade_ratio": 0.4}}}},
        {"OTIO_SCHEMA": "Clip.2", "name": "Music",
         "source_range": )" + timeRange(rationalTime("0", "1"), rationalTime("6", "1")) +
                              R"(,
         "media_references": {"DEFAULT_MEDIA": {"OTIO_SCHEMA": "ExternalReference.1",
                              "target_url": "file://localhost/srv/audio/theme%20song%231.flac"}},
         "effects": [{"OTIO_SCHEMA": "LinearTimeWarp.1", "time_scalar": 1.5},
                     {"OTIO_SCHEMA": "Effect.1", "effect_name": "Blur", "metadata": {}}],
         "metadata": {"miravel": {"stream_id": 0, "mute": true, "reverse": true,
            "speed_parts": [{"begin": 0, "end": 2, "speed": 1.0},
                            {"begin": 2, "end": 3, "speed": 0},
                            {"begin": 3, "end": 6, "speed": 2.5}]}}},
        {"OTIO_SCHEMA": "Clip.1", "name": "Forward",
         "source_range": )" + frames24(0, 24) +
                              R"(,
         "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": "/srv/audio/fx.wav"},
         "effects": [{"OTIO_SCHEMA": "LinearTimeWarp.1", "time_scalar": -2}],
         "metadata": {"miravel": {"reverse": false}}}]})";

    return R"({"OTIO_SCHEMA": "Timeline.1", "name": "Cut 3", "metadata": {},
        "global_start_time": )" +
           rationalTime("86400", "24") + R"(,
        "tracks": {"OTIO_SCHEMA": "Stack.1", "name": "tracks", "metadata": {}, "effects": [], "markers": [],
                   "source_range": null, "children": [)" +
           pictures + ",\n" + sound + "]}}";
}

class FullDocument : public ::testing::Test {
protected:
    void SetUp() override {
        path = folder.file("cut.otio");
        writeText(path, fullDocument());
        error = "stale";
        ASSERT_EQ(parseTimelineDocument(path.c_str(), &desc, &error), 0) << error;
        ASSERT_EQ(desc.tracks.size(), 2u);
        ASSERT_EQ(desc.tracks[0].clips.size(), 3u);
        ASSERT_EQ(desc.tracks[1].clips.size(), 3u);
    }

    TempFolder folder;
    std::string path;
    std::string error;
    DmTimelineDesc desc;
};

TEST_F(FullDocument, SuccessClearsTheErrorAndKeepsTheTimelineName) {
    EXPECT_EQ(error, "");
    EXPECT_EQ(desc.name, "Cut 3");
}

TEST_F(FullDocument, DisabledVideoTrackIsHiddenAndMiravelTrackValuesWin) {
    const DmTrackDesc& pictures = desc.tracks[0];
    EXPECT_EQ(pictures.name, "Pictures");
    EXPECT_EQ(pictures.kind, DmTrackVideo);
    EXPECT_FALSE(pictures.visible);
    EXPECT_FALSE(pictures.mute);
    EXPECT_FALSE(pictures.solo);

    // Disabled, so muted, but "miravel" says not muted; hidden and solo too.
    const DmTrackDesc& sound = desc.tracks[1];
    EXPECT_EQ(sound.name, "Sound");
    EXPECT_EQ(sound.kind, DmTrackAudio);
    EXPECT_FALSE(sound.mute);
    EXPECT_FALSE(sound.visible);
    EXPECT_TRUE(sound.solo);
}

TEST_F(FullDocument, ClipAfterGapStartsAfterItAndMarkInIsRelativeToAvailableRange) {
    const DmClipDesc& clip = desc.tracks[0].clips[0];
    EXPECT_EQ(clip.name, "Opening");
    EXPECT_EQ(clip.mediaPath, "/media/my clip.mov");
    EXPECT_EQ(clip.streamId, 1);
    EXPECT_EQ(clip.audioStreamId, -1);
    // The gap of 48 frames at 24 is 2 s; the clip lasts 72 frames, 3 s.
    EXPECT_EQ(clip.begin, cns(2.0));
    EXPECT_EQ(clip.end, cns(5.0));
    // (86448 - 86400) / 24 = 2 s into the media.
    EXPECT_EQ(clip.markIn, cns(2.0));
    // Time scalar 2: 3 s on the timeline use 6 s of media.
    EXPECT_EQ(clip.markOut, cns(2.0) + cns(6.0));
    EXPECT_EQ(clip.speed, 2.0);
    EXPECT_FALSE(clip.reverse);
    EXPECT_TRUE(clip.enabled);
    EXPECT_FALSE(clip.mute);
    EXPECT_TRUE(clip.speedParts.empty());
    EXPECT_TRUE(clip.volumeKeyframes.empty());
    EXPECT_FALSE(clip.ducking.present);
}

TEST_F(FullDocument, TransitionTakesNoRoomAndClip2UsesItsActiveReference) {
    const DmClipDesc& clip = desc.tracks[0].clips[1];
    EXPECT_EQ(clip.name, "Still");
    EXPECT_EQ(clip.mediaPath, folder.file("proxies/still frame.mov"));
    EXPECT_EQ(clip.begin, cns(5.0));
    EXPECT_EQ(clip.end, cns(6.0));
    // No available range: the mark in is the source start, 12 / 24 s.
    EXPECT_EQ(clip.markIn, cns(0.5));
    // A freeze frame: speed 0, the mark out is mark in + duration.
    EXPECT_EQ(clip.speed, 0.0);
    EXPECT_FALSE(clip.reverse);
    EXPECT_EQ(clip.markOut, cns(0.5) + cns(1.0));
    EXPECT_FALSE(clip.enabled);
    EXPECT_TRUE(clip.mute);
    EXPECT_EQ(clip.streamId, -1);
}

TEST_F(FullDocument, ClipWithoutSourceRangeUsesAvailableRangeOfMissingReference) {
    const DmClipDesc& clip = desc.tracks[0].clips[2];
    EXPECT_EQ(clip.name, "Lost");
    EXPECT_EQ(clip.mediaPath, "");
    // After the still (ending at 6 s) and a gap of 1001 / 30000 s, rounded to
    // the nearest cns.
    const int64_t gap = std::llround(1001.0 / 30000.0 * 1e7);
    EXPECT_EQ(gap, 333'667);
    EXPECT_EQ(clip.begin, cns(6.0) + gap);
    EXPECT_EQ(clip.end, cns(6.0) + gap + cns(10.0));
    EXPECT_EQ(clip.markIn, 0);
    EXPECT_EQ(clip.markOut, cns(10.0));
    EXPECT_EQ(clip.speed, 1.0);
    EXPECT_TRUE(clip.enabled);
    EXPECT_FALSE(clip.mute);
}

TEST_F(FullDocument, AudioClipCarriesEveryMiravelField) {
    const DmClipDesc& clip = desc.tracks[1].clips[0];
    EXPECT_EQ(clip.name, "Voice");
    EXPECT_EQ(clip.mediaPath, folder.file("voice.wav"));
    EXPECT_EQ(clip.streamId, 2);
    EXPECT_EQ(clip.audioStreamId, -1);
    EXPECT_EQ(clip.begin, 0);
    EXPECT_EQ(clip.end, cns(4.0));
    EXPECT_EQ(clip.markIn, cns(1.5));
    // Time scalar -1: backwards at speed 1.
    EXPECT_EQ(clip.markOut, cns(1.5) + cns(4.0));
    EXPECT_EQ(clip.speed, 1.0);
    EXPECT_TRUE(clip.reverse);
    // Disabled, but "miravel" says not muted.
    EXPECT_FALSE(clip.enabled);
    EXPECT_FALSE(clip.mute);
    EXPECT_EQ(clip.volumeDb, -6.5);
    EXPECT_EQ(clip.volumeGainDb, 3.0);
    EXPECT_TRUE(clip.loudnessEnabled);
    EXPECT_EQ(clip.loudnessGain, 0.5);
    ASSERT_EQ(clip.volumeKeyframes.size(), 3u);
    EXPECT_EQ(clip.volumeKeyframes[0].time, cns(1.5));
    EXPECT_EQ(clip.volumeKeyframes[0].db, -6.0);
    EXPECT_EQ(clip.volumeKeyframes[1].time, cns(1.5) + cns(1.25));
    EXPECT_EQ(clip.volumeKeyframes[1].db, 0.0);
    EXPECT_EQ(clip.volumeKeyframes[2].time, cns(1.5) + cns(3.5));
    EXPECT_EQ(clip.volumeKeyframes[2].db, -12.5);
    EXPECT_TRUE(clip.ducking.present);
    EXPECT_FALSE(clip.ducking.enabled);
    EXPECT_EQ(clip.ducking.depth, 0.75);
    EXPECT_EQ(clip.ducking.fade, 0.2);
    EXPECT_EQ(clip.ducking.fadeRatio, 0.4);
    EXPECT_TRUE(clip.speedParts.empty());
}

TEST_F(FullDocument, SpeedPartsAreClipTimeAndMiravelReverseWins) {
    const DmClipDesc& clip = desc.tracks[1].clips[1];
    EXPECT_EQ(clip.name, "Music");
    EXPECT_EQ(clip.mediaPath, "/srv/audio/theme song#1.flac");
    EXPECT_EQ(clip.streamId, 0);
    EXPECT_EQ(clip.begin, cns(4.0));
    EXPECT_EQ(clip.end, cns(10.0));
    EXPECT_EQ(clip.markIn, 0);
    // With speed parts the mark out is mark in + duration.
    EXPECT_EQ(clip.markOut, cns(6.0));
    EXPECT_EQ(clip.speed, 1.5);
    EXPECT_TRUE(clip.reverse);
    EXPECT_TRUE(clip.enabled);
    EXPECT_TRUE(clip.mute);
    ASSERT_EQ(clip.speedParts.size(), 3u);
    EXPECT_EQ(clip.speedParts[0].begin, 0);
    EXPECT_EQ(clip.speedParts[0].end, cns(2.0));
    EXPECT_EQ(clip.speedParts[0].speed, 1.0);
    EXPECT_EQ(clip.speedParts[1].begin, cns(2.0));
    EXPECT_EQ(clip.speedParts[1].end, cns(3.0));
    EXPECT_EQ(clip.speedParts[1].speed, 0.0);
    EXPECT_EQ(clip.speedParts[2].begin, cns(3.0));
    EXPECT_EQ(clip.speedParts[2].end, cns(6.0));
    EXPECT_EQ(clip.speedParts[2].speed, 2.5);
    // Unset "miravel" fields keep their defaults.
    EXPECT_EQ(clip.volumeDb, 0.0);
    EXPECT_EQ(clip.volumeGainDb, 0.0);
    EXPECT_FALSE(clip.loudnessEnabled);
    EXPECT_EQ(clip.loudnessGain, 1.0);
    EXPECT_FALSE(clip.ducking.present);
}

TEST_F(FullDocument, NegativeTimeScalarWithMiravelReverseFalsePlaysForward) {
    const DmClipDesc& clip = desc.tracks[1].clips[2];
    EXPECT_EQ(clip.name, "Forward");
    EXPECT_EQ(clip.mediaPath, "/srv/audio/fx.wav");
    EXPECT_EQ(clip.begin, cns(10.0));
    EXPECT_EQ(clip.end, cns(11.0));
    EXPECT_EQ(clip.speed, 2.0);
    EXPECT_FALSE(clip.reverse);
    EXPECT_EQ(clip.markIn, 0);
    EXPECT_EQ(clip.markOut, cns(2.0));
}

TEST(DmOtioDocument, DocumentGivenByRelativePathResolvesMediaAgainstItsFolder) {
    TempFolder folder;
    const std::string path = folder.file("cut.otio");
    writeText(path, documentWithItems(R"({"OTIO_SCHEMA": "Clip.1", "source_range": )" + frames24(0, 24) + R"(,
        "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": "media/../a.mov"}})"));
    DmTimelineDesc desc;
    std::string error;
    ASSERT_EQ(parseTimelineDocument(path.c_str(), &desc, &error), 0) << error;
    ASSERT_EQ(desc.tracks.size(), 1u);
    ASSERT_EQ(desc.tracks[0].clips.size(), 1u);
    EXPECT_EQ(desc.tracks[0].clips[0].mediaPath, folder.file("a.mov"));
}

// ---------------------------------------------------------------------------
// Documents that cannot be read.

TEST(DmOtioDocument, MissingFileNamesTheFileAndTheSystemError) {
    TempFolder folder;
    const std::string path = folder.file("absent.otio");
    DmTimelineDesc desc = sentinel();
    std::string error;
    EXPECT_EQ(parseTimelineDocument(path.c_str(), &desc, &error), kResultFailure);
    EXPECT_EQ(error, path + ": cannot open: No such file or directory");
    expectSentinel(desc);
}

TEST(DmOtioDocument, FolderInsteadOfFileCannotBeRead) {
    TempFolder folder;
    const std::string path = folder.path().string();
    DmTimelineDesc desc = sentinel();
    std::string error;
    EXPECT_EQ(parseTimelineDocument(path.c_str(), &desc, &error), kResultFailure);
    EXPECT_EQ(error, path + ": cannot open: Is a directory");
    expectSentinel(desc);
}

TEST(DmOtioDocument, InvalidJsonGivesTheByteAndTheParserMessage) {
    TempFolder folder;
    // The 41st byte, "}", stands where a value is expected.
    EXPECT_EQ(failureOf(folder, R"({"OTIO_SCHEMA": "Timeline.1", "tracks": })"),
              folder.file("cut.otio") +
                  ": invalid JSON at byte 41: syntax error while parsing value - unexpected '}'; "
                  "expected '[', '{', or a literal");
}

TEST(DmOtioDocument, TruncatedJsonGivesTheEndOfInput) {
    TempFolder folder;
    EXPECT_EQ(failureOf(folder, R"({"name": "Cut)"),
              folder.file("cut.otio") +
                  ": invalid JSON at byte 14: syntax error while parsing value - invalid string: missing closing "
                  "quote");
}

TEST(DmOtioDocument, NumberTooLargeForADoubleIsInvalidJson) {
    TempFolder folder;
    EXPECT_EQ(failureOf(folder, R"({"name": 1e400})"),
              folder.file("cut.otio") + ": invalid JSON at byte 14: number overflow parsing '1e400'");
}

TEST(DmOtioDocument, DeeplyNestedJsonIsReadWithoutCrashing) {
    TempFolder folder;
    const std::string text = std::string(200000, '[') + std::string(200000, ']');
    EXPECT_EQ(faultOf(folder, text), "$: expected an object");
}

TEST(DmOtioDocument, RootOfAnotherSchemaIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, R"({"OTIO_SCHEMA": "Stack.1", "children": []})"),
              R"($.OTIO_SCHEMA: expected "Timeline.1")");
}

TEST(DmOtioDocument, TrackOfUnknownKindIsLeftOutWithAWarning) {
    TempFolder folder;
    const DmTimelineDesc desc =
        readOf(folder, R"({"OTIO_SCHEMA": "Timeline.1", "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [
                  {"OTIO_SCHEMA": "Track.1", "kind": "Subtitle", "children": []}]}})");
    EXPECT_TRUE(desc.tracks.empty());
    EXPECT_EQ(desc.warnings,
              std::vector<std::string>{folder.file("cut.otio") +
                                       R"(: $.tracks.children[0]: track kind "Subtitle" ("") is neither )"
                                       R"("Video" nor "Audio"; the track is left out)"});
}

TEST(DmOtioDocument, TrackWithoutKindIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, R"({"OTIO_SCHEMA": "Timeline.1", "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [
                  {"OTIO_SCHEMA": "Track.1", "children": []}]}})"),
              R"($.tracks.children[0].kind: expected "Video" or "Audio")");
}

TEST(DmOtioDocument, UnknownSchemaWhereTrackExpectedIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, R"({"OTIO_SCHEMA": "Timeline.1", "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [
                  {"OTIO_SCHEMA": "Clip.1", "kind": "Video"}]}})"),
              R"($.tracks.children[0].OTIO_SCHEMA: expected "Track.1")");
}

// The one clip of a document that loads, with its media missing and the
// second it lasts.
void expectOneSecondClipWithMissingMedia(const DmTimelineDesc& desc) {
    ASSERT_EQ(desc.tracks.size(), 1u);
    ASSERT_EQ(desc.tracks[0].clips.size(), 1u);
    EXPECT_EQ(desc.tracks[0].clips[0].mediaPath, "");
    EXPECT_EQ(desc.tracks[0].clips[0].begin, 0);
    EXPECT_EQ(desc.tracks[0].clips[0].end, cns(1.0));
    EXPECT_TRUE(desc.warnings.empty());
}

TEST(DmOtioDocument, ClipWithNullMediaReferenceHasMissingMedia) {
    TempFolder folder;
    expectOneSecondClipWithMissingMedia(
        readOf(folder, documentWithItems(R"({"OTIO_SCHEMA": "Clip.1", "source_range": )" + frames24(0, 24) +
                                         R"(, "media_reference": null})")));
}

TEST(DmOtioDocument, ClipWithoutMediaReferenceHasMissingMedia) {
    TempFolder folder;
    expectOneSecondClipWithMissingMedia(
        readOf(folder, documentWithItems(R"({"OTIO_SCHEMA": "Clip.1", "source_range": )" + frames24(0, 24) + "}")));
}

TEST(DmOtioDocument, Clip2WhoseActiveKeyNamesNoReferenceHasMissingMedia) {
    TempFolder folder;
    expectOneSecondClipWithMissingMedia(
        readOf(folder, documentWithItems(R"({"OTIO_SCHEMA": "Clip.2", "source_range": )" + frames24(0, 24) +
                                         R"(, "active_media_reference_key": "high res",
        "media_references": {"DEFAULT_MEDIA": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": "a.mov"}}})")));
}

TEST(DmOtioDocument, MediaReferenceThatIsNotAnObjectIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(R"({"OTIO_SCHEMA": "Clip.1", "source_range": )" + frames24(0, 24) +
                                                R"(, "media_reference": "a.mov"})")),
              "$.tracks.children[0].children[0].media_reference: expected a media reference");
}

TEST(DmOtioDocument, ClipWithoutSourceOrAvailableRangeIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(R"({"OTIO_SCHEMA": "Clip.1",
        "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": "a.mov"}})")),
              "$.tracks.children[0].children[0].source_range: expected a source_range or an available_range");
}

TEST(DmOtioDocument, NegativeClipDurationIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(R"({"OTIO_SCHEMA": "Clip.1", "source_range": )" + frames24(0, -24) +
                                                R"(, "media_reference": {"OTIO_SCHEMA": "MissingReference.1"}})")),
              "$.tracks.children[0].children[0].source_range.duration: expected a duration of 0 or more");
}

TEST(DmOtioDocument, NegativeGapDurationIsRejected) {
    TempFolder folder;
    EXPECT_EQ(
        faultOf(folder, documentWithItems(R"({"OTIO_SCHEMA": "Gap.1", "source_range": )" + frames24(0, -1) + "}")),
        "$.tracks.children[0].children[0].source_range.duration: expected a duration of 0 or more");
}

TEST(DmOtioDocument, NegativeAvailableRangeDurationIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(R"({"OTIO_SCHEMA": "Clip.1", "source_range": )" + frames24(0, 24) +
                                                R"(, "media_reference": {"OTIO_SCHEMA": "ExternalReference.1",
        "target_url": "a.mov", "available_range": )" +
                                                frames24(0, -48) + "}}")),
              "$.tracks.children[0].children[0].media_reference.available_range.duration: expected a duration of 0 "
              "or more");
}

TEST(DmOtioDocument, RateOfZeroIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(R"({"OTIO_SCHEMA": "Gap.1", "source_range": )" +
                                                timeRange(rationalTime("0", "24"), rationalTime("24", "0")) + "}")),
              "$.tracks.children[0].children[0].source_range.duration.rate: expected a rate above 0");
}

TEST(DmOtioDocument, TimeBeyondTheCnsRangeIsRejected) {
    TempFolder folder;
    EXPECT_EQ(
        faultOf(folder, documentWithItems(R"({"OTIO_SCHEMA": "Gap.1", "source_range": )" +
                                          timeRange(rationalTime("0", "24"), rationalTime("1e300", "1e-300")) + "}")),
        "$.tracks.children[0].children[0].source_range.duration: expected a time between -922337203685 and "
        "922337203685 seconds");
}

TEST(DmOtioDocument, UnknownSchemaWithoutADurationIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(R"({"OTIO_SCHEMA": "Gap.1", "source_range": )" + frames24(0, 24) +
                                                R"(}, {"OTIO_SCHEMA": "Foo.1"})")),
              "$.tracks.children[0].children[1].source_range: expected a source_range or an available_range");
}

TEST(DmOtioDocument, NestedEmptyStackInsideTrackTakesNoRoom) {
    TempFolder folder;
    const DmTimelineDesc desc = readOf(folder, documentWithItems(R"({"OTIO_SCHEMA": "Stack.1", "children": []},
        )" + clipWithMiravel("{}")));
    ASSERT_EQ(desc.tracks.size(), 1u);
    ASSERT_EQ(desc.tracks[0].clips.size(), 1u);
    EXPECT_EQ(desc.tracks[0].clips[0].name, "Shot");
    EXPECT_EQ(desc.tracks[0].clips[0].begin, 0);
    EXPECT_EQ(desc.tracks[0].clips[0].end, cns(1.0));
    EXPECT_TRUE(desc.warnings.empty());
}

TEST(DmOtioDocument, ReferenceOnAnotherMachineIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(R"({"OTIO_SCHEMA": "Clip.1", "source_range": )" + frames24(0, 24) +
                                                R"(, "media_reference": {"OTIO_SCHEMA": "ExternalReference.1",
        "target_url": "file://server/share/a.mov"}})")),
              "$.tracks.children[0].children[0].media_reference.target_url: expected a local file URL or a path");
}

TEST(DmOtioDocument, VolumeOfTextTypeIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(clipWithMiravel(R"({"volume_db": "loud"})"))),
              "$.tracks.children[0].children[0].metadata.miravel.volume_db: expected a number");
}

TEST(DmOtioDocument, MuteOfNumberTypeIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(clipWithMiravel(R"({"mute": 1})"))),
              "$.tracks.children[0].children[0].metadata.miravel.mute: expected a boolean");
}

TEST(DmOtioDocument, TrackVisibleOfTextTypeIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, R"({"OTIO_SCHEMA": "Timeline.1", "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [
                  {"OTIO_SCHEMA": "Track.1", "kind": "Audio", "children": [],
                   "metadata": {"miravel": {"visible": "yes"}}}]}})"),
              "$.tracks.children[0].metadata.miravel.visible: expected a boolean");
}

TEST(DmOtioDocument, KeyframeWithTextTimeIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(clipWithMiravel(R"({"volume_keyframes": [[0, 1], ["1", -3]]})"))),
              "$.tracks.children[0].children[0].metadata.miravel.volume_keyframes[1][0]: expected a number");
}

TEST(DmOtioDocument, KeyframeThatIsNotAPairIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(clipWithMiravel(R"({"volume_keyframes": [[0, 1, 2]]})"))),
              "$.tracks.children[0].children[0].metadata.miravel.volume_keyframes[0]: expected a [seconds, dB] pair");
}

TEST(DmOtioDocument, FractionalStreamIdIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(clipWithMiravel(R"({"stream_id": 1.5})"))),
              "$.tracks.children[0].children[0].metadata.miravel.stream_id: expected an integer from -1 to 2147483647");
}

TEST(DmOtioDocument, HugeStreamIdIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(clipWithMiravel(R"({"stream_id": 18446744073709551615})"))),
              "$.tracks.children[0].children[0].metadata.miravel.stream_id: expected an integer from -1 to 2147483647");
}

TEST(DmOtioDocument, DuckingOfWrongTypeIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(clipWithMiravel(R"({"ducking": [0.5]})"))),
              "$.tracks.children[0].children[0].metadata.miravel.ducking: expected an object");
}

TEST(DmOtioDocument, DuckingDepthAboveOneIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(clipWithMiravel(R"({"ducking": {"depth": 1.5}})"))),
              "$.tracks.children[0].children[0].metadata.miravel.ducking.depth: expected a number from 0 to 1");
}

TEST(DmOtioDocument, NegativeDuckingFadeIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(clipWithMiravel(R"({"ducking": {"fade": -0.1}})"))),
              "$.tracks.children[0].children[0].metadata.miravel.ducking.fade: expected a number of 0 or more");
}

TEST(DmOtioDocument, NegativeLoudnessGainIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(clipWithMiravel(R"({"loudness": {"gain": -1}})"))),
              "$.tracks.children[0].children[0].metadata.miravel.loudness.gain: expected a number of 0 or more");
}

TEST(DmOtioDocument, SpeedPartEndingBeforeItBeginsIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(
                                  clipWithMiravel(R"({"speed_parts": [{"begin": 0.5, "end": 0.25, "speed": 1}]})"))),
              "$.tracks.children[0].children[0].metadata.miravel.speed_parts[0].end: expected a time not before "
              "begin");
}

TEST(DmOtioDocument, MiravelMetadataOfWrongTypeIsRejected) {
    TempFolder folder;
    EXPECT_EQ(faultOf(folder, documentWithItems(clipWithMiravel("null"))),
              "$.tracks.children[0].children[0].metadata.miravel: expected an object");
}

TEST(DmOtioDocument, FailureLeavesTheDescriptionUntouchedAfterEarlierTracksWereRead) {
    TempFolder folder;
    const std::string path = folder.file("cut.otio");
    // The first track is fine; the second fails.
    writeText(path, R"({"OTIO_SCHEMA": "Timeline.1", "name": "New", "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [
        {"OTIO_SCHEMA": "Track.1", "name": "V1", "kind": "Video", "children": [)" +
                        clipWithMiravel("{}") + R"(]},
        {"OTIO_SCHEMA": "Track.1", "name": "A1", "kind": "Audio", "enabled": 0, "children": []}]}})");
    DmTimelineDesc desc = sentinel();
    std::string error;
    EXPECT_EQ(parseTimelineDocument(path.c_str(), &desc, &error), kResultFailure);
    EXPECT_EQ(error, path + ": $.tracks.children[1].enabled: expected a boolean");
    expectSentinel(desc);
}

TEST(DmOtioDocument, SuccessReplacesTheWholeDescription) {
    TempFolder folder;
    const std::string path = folder.file("cut.otio");
    writeText(path, documentWithItems(clipWithMiravel("{}")));
    DmTimelineDesc desc = sentinel();
    std::string error = "stale";
    ASSERT_EQ(parseTimelineDocument(path.c_str(), &desc, &error), 0) << error;
    EXPECT_EQ(error, "");
    EXPECT_EQ(desc.name, "Cut");
    ASSERT_EQ(desc.tracks.size(), 1u);
    EXPECT_EQ(desc.tracks[0].name, "V1");
    EXPECT_EQ(desc.tracks[0].kind, DmTrackVideo);
    EXPECT_TRUE(desc.tracks[0].visible);
    ASSERT_EQ(desc.tracks[0].clips.size(), 1u);
    EXPECT_EQ(desc.tracks[0].clips[0].name, "Shot");
    EXPECT_EQ(desc.tracks[0].clips[0].mediaPath, "/media/shot.mov");
    EXPECT_EQ(desc.tracks[0].clips[0].begin, 0);
    EXPECT_EQ(desc.tracks[0].clips[0].end, cns(1.0));
    EXPECT_EQ(desc.tracks[0].clips[0].markOut, cns(1.0));
}

}  // namespace
}  // namespace ZOR::test
