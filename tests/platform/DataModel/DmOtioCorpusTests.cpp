// Timeline documents as OpenTimelineIO writes them (every object with its
// OTIO_SCHEMA, names, metadata, effects and markers; rates written as doubles,
// 23.976 as 24000/1001), written here and read by parseTimelineDocument and
// loadTimelineDocument. Where the clips must land is computed here from the
// rational values written (cns = llround(value / rate x 10^7)) and the time
// mapping of a clip as the host defines it, not by the reader's arithmetic.
#include <gtest/gtest.h>

#include <charconv>
#include <cmath>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "CapturingLogger.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmTimeline.h"
#include "MediaTestSupport.h"

namespace ZOR::test {
namespace {

using MediaTest::writeText;

constexpr double kNtscFilm = 24000.0 / 1001.0;   // 23.976...
constexpr double kNtscVideo = 30000.0 / 1001.0;  // 29.97...
constexpr const char* kTimeRangeText = "expected a time between -922337203685 and 922337203685 seconds";

// value / rate seconds in cns.
int64_t cnsOf(double value, double rate) { return std::llround(value / rate * 1e7); }

// ---------------------------------------------------------------------------
// Writing documents the way OpenTimelineIO does.

// A double in its shortest form, integers with ".0" as OpenTimelineIO writes them.
std::string num(double value) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    std::string text(buffer, result.ptr);
    if (text.find_first_of(".e") == std::string::npos) text += ".0";
    return text;
}

std::string rationalTime(const std::string& value, const std::string& rate) {
    return R"({"OTIO_SCHEMA": "RationalTime.1", "rate": )" + rate + R"(, "value": )" + value + "}";
}
std::string rt(double value, double rate) { return rationalTime(num(value), num(rate)); }

std::string timeRange(const std::string& start, const std::string& duration) {
    return R"({"OTIO_SCHEMA": "TimeRange.1", "duration": )" + duration + R"(, "start_time": )" + start + "}";
}
// A range of whole units at one rate.
std::string tr(double start, double duration, double rate) { return timeRange(rt(start, rate), rt(duration, rate)); }

std::string join(const std::vector<std::string>& items) {
    std::string text;
    for (const std::string& item : items) {
        if (!text.empty()) text += ",\n";
        text += item;
    }
    return text;
}

// What every item carries.
struct Item {
    explicit Item(std::string itemName, std::string range = "null")
        : name(std::move(itemName)), sourceRange(std::move(range)) {}

    std::string name;
    std::string sourceRange;
    std::vector<std::string> effects;
    std::vector<std::string> markers;
    std::string metadata = "{}";
    bool enabled = true;
};

std::string itemFields(const Item& item) {
    return R"("name": )" + nlohmann::json(item.name).dump() + R"(, "metadata": )" + item.metadata +
           R"(, "source_range": )" + item.sourceRange + R"(, "effects": [)" + join(item.effects) +
           R"(], "markers": [)" + join(item.markers) + R"(], "enabled": )" + (item.enabled ? "true" : "false");
}

// Clip.1; reference "" leaves media_reference out.
std::string clip1(const Item& item, const std::string& reference) {
    return R"({"OTIO_SCHEMA": "Clip.1", )" + itemFields(item) +
           (reference.empty() ? std::string() : R"(, "media_reference": )" + reference) + "}";
}

// Clip.2 with its map of references and the key of the active one.
std::string clip2(const Item& item, const std::string& references, const std::string& activeKey) {
    return R"({"OTIO_SCHEMA": "Clip.2", )" + itemFields(item) + R"(, "media_references": )" + references +
           R"(, "active_media_reference_key": )" + nlohmann::json(activeKey).dump() + "}";
}

std::string gap(const std::string& sourceRange, const std::string& schema = "Gap.1") {
    return R"({"OTIO_SCHEMA": ")" + schema + R"(", "name": "", "metadata": {}, "source_range": )" + sourceRange +
           R"(, "effects": [], "markers": [], "enabled": true})";
}

std::string transition(double offset, double rate) {
    return R"({"OTIO_SCHEMA": "Transition.1", "name": "Dissolve", "metadata": {},
        "transition_type": "SMPTE_Dissolve", "in_offset": )" +
           rt(offset, rate) + R"(, "out_offset": )" + rt(offset, rate) + "}";
}

std::string track(const Item& item, const std::string& kind, const std::vector<std::string>& children,
                  const std::string& schema = "Track.1") {
    return R"({"OTIO_SCHEMA": ")" + schema + R"(", )" + itemFields(item) + R"(, "kind": ")" + kind +
           R"(", "children": [)" + join(children) + "]}";
}

std::string stack(const Item& item, const std::vector<std::string>& children) {
    return R"({"OTIO_SCHEMA": "Stack.1", )" + itemFields(item) + R"(, "children": [)" + join(children) + "]}";
}

std::string timeline(const std::string& name, const std::vector<std::string>& tracks,
                     const std::string& metadata = "{}", const std::string& schema = "Timeline.1") {
    return R"({"OTIO_SCHEMA": ")" + schema + R"(", "name": )" + nlohmann::json(name).dump() + R"(, "metadata": )" +
           metadata + R"(, "global_start_time": )" + rt(86400, 24) +
           R"(, "tracks": {"OTIO_SCHEMA": "Stack.1", "name": "tracks", "metadata": {}, "source_range": null,
           "effects": [], "markers": [], "enabled": true, "children": [)" +
           join(tracks) + "]}}";
}

std::string external(const std::string& url, const std::string& availableRange = "null") {
    return R"({"OTIO_SCHEMA": "ExternalReference.1", "name": "", "metadata": {}, "available_range": )" +
           availableRange + R"(, "available_image_bounds": null, "target_url": )" + nlohmann::json(url).dump() + "}";
}

std::string missing(const std::string& availableRange = "null") {
    return R"({"OTIO_SCHEMA": "MissingReference.1", "name": "", "metadata": {}, "available_range": )" + availableRange +
           R"(, "available_image_bounds": null})";
}

std::string generator(const std::string& availableRange) {
    return R"({"OTIO_SCHEMA": "GeneratorReference.1", "name": "bars", "metadata": {}, "available_range": )" +
           availableRange + R"(, "available_image_bounds": null, "generator_kind": "SMPTEBars",
           "parameters": {"pattern": "75%"}})";
}

std::string imageSequence(const std::string& availableRange) {
    return R"({"OTIO_SCHEMA": "ImageSequenceReference.1", "name": "", "metadata": {}, "available_range": )" +
           availableRange + R"(, "available_image_bounds": null, "target_url_base": "file:///shots/plate/",
           "name_prefix": "plate.", "name_suffix": ".exr", "start_frame": 1001, "frame_step": 1,
           "rate": 24.0, "frame_zero_padding": 4, "missing_frame_policy": "error"})";
}

std::string timeWarp(double scalar, bool enabled = true) {
    return R"({"OTIO_SCHEMA": "LinearTimeWarp.1", "name": "", "metadata": {}, "effect_name": "LinearTimeWarp",
        "enabled": )" +
           std::string(enabled ? "true" : "false") + R"(, "time_scalar": )" + num(scalar) + "}";
}

std::string freezeFrame() {
    return R"({"OTIO_SCHEMA": "FreezeFrame.1", "name": "", "metadata": {}, "effect_name": "FreezeFrame",
        "enabled": true, "time_scalar": 0.0})";
}

std::string effect(const std::string& effectName) {
    return R"({"OTIO_SCHEMA": "Effect.1", "name": "", "metadata": {}, "enabled": true, "effect_name": )" +
           nlohmann::json(effectName).dump() + "}";
}

std::string marker2(const std::string& range) {
    return R"({"OTIO_SCHEMA": "Marker.2", "name": "beat", "metadata": {"level": NaN}, "color": "RED",
        "comment": "", "marked_range": )" +
           range + "}";
}

std::string marker1(const std::string& range) {
    return R"({"OTIO_SCHEMA": "Marker.1", "name": "old", "metadata": {}, "color": "GREEN", "marked_range": )" + range +
           "}";
}

// "miravel" metadata.
std::string miravel(const std::string& fields) { return R"({"miravel": )" + fields + "}"; }

// ---------------------------------------------------------------------------
// Reading them.

// Writes the document and reads it, which must succeed.
DmTimelineDesc readOf(const TempFolder& folder, const std::string& text, const std::string& name = "cut.otio") {
    const std::string path = folder.file(name);
    writeText(path, text);
    DmTimelineDesc desc;
    std::string error = "stale";
    EXPECT_EQ(parseTimelineDocument(path.c_str(), &desc, &error), 0) << error;
    EXPECT_EQ(error, "");
    return desc;
}

// Writes the document and reads it, which must fail: the one line of error.
std::string errorOf(const TempFolder& folder, const std::string& text) {
    const std::string path = folder.file("cut.otio");
    writeText(path, text);
    DmTimelineDesc desc;
    desc.name = "untouched";
    std::string error;
    EXPECT_EQ(parseTimelineDocument(path.c_str(), &desc, &error), kResultFailure);
    EXPECT_EQ(desc.name, "untouched");
    EXPECT_TRUE(desc.tracks.empty());
    EXPECT_TRUE(desc.warnings.empty());
    EXPECT_EQ(error.find('\n'), std::string::npos);
    return error;
}

// The clips' names and ranges on the timeline, as loadTimelineDocument gives
// them through the data model, must be those of the description.
void expectLoadedAsDescribed(const std::string& path, const DmTimelineDesc& desc) {
    std::string error = "stale";
    std::vector<std::string> warnings{"stale"};
    auto loaded = ZorRef<IDmTimeline>::adopt(loadTimelineDocument(path.c_str(), &error, &warnings));
    ASSERT_NE(loaded.get(), nullptr) << error;
    EXPECT_EQ(error, "");
    EXPECT_EQ(warnings, desc.warnings);
    ASSERT_EQ(loaded->trackCount(), static_cast<int32_t>(desc.tracks.size()));
    for (size_t t = 0; t < desc.tracks.size(); ++t) {
        const std::vector<DmClipDesc>& clips = desc.tracks[t].clips;
        ASSERT_EQ(loaded->clipCount(static_cast<int32_t>(t)), static_cast<int32_t>(clips.size()));
        for (size_t c = 0; c < clips.size(); ++c) {
            IDmClip* clip = loaded->clip(static_cast<int32_t>(t), static_cast<int32_t>(c));
            ASSERT_NE(clip, nullptr);
            EXPECT_EQ(std::string(clip->name()), clips[c].name);
            EXPECT_EQ(beginTimeOfClip(clip), clips[c].begin);
            EXPECT_EQ(endTimeOfClip(clip), clips[c].end);
            EXPECT_EQ(markInTimeOfClip(clip), clips[c].markIn);
            EXPECT_EQ(markOutTimeOfClip(clip), clips[c].markOut);
        }
    }
}

// What a clip is expected to be.
struct Expected {
    Expected(std::string clipName, int64_t clipBegin, int64_t clipEnd, int64_t clipMarkIn, int64_t clipMarkOut,
             double clipSpeed = 1.0, bool clipReverse = false, std::string clipMediaPath = "", bool clipEnabled = true)
        : name(std::move(clipName)),
          begin(clipBegin),
          end(clipEnd),
          markIn(clipMarkIn),
          markOut(clipMarkOut),
          speed(clipSpeed),
          reverse(clipReverse),
          mediaPath(std::move(clipMediaPath)),
          enabled(clipEnabled) {}

    std::string name;
    int64_t begin;
    int64_t end;
    int64_t markIn;
    int64_t markOut;
    double speed;
    bool reverse;
    std::string mediaPath;
    bool enabled;
};

void expectClip(const DmClipDesc& clip, const Expected& expected) {
    SCOPED_TRACE(expected.name);
    EXPECT_EQ(clip.name, expected.name);
    EXPECT_EQ(clip.begin, expected.begin);
    EXPECT_EQ(clip.end, expected.end);
    EXPECT_EQ(clip.markIn, expected.markIn);
    EXPECT_EQ(clip.markOut, expected.markOut);
    EXPECT_EQ(clip.speed, expected.speed);
    EXPECT_EQ(clip.reverse, expected.reverse);
    EXPECT_EQ(clip.mediaPath, expected.mediaPath);
    EXPECT_EQ(clip.enabled, expected.enabled);
    EXPECT_EQ(clip.mute, !expected.enabled);
}

// The media position a clip plays at timeline time t, by the host's time
// mapping: clip time c = markIn + (t - begin); without speed change s = c; at
// a constant speed k, s = markIn + (c - markIn) x k; through speed parts the
// position advances at each part's speed (1 between parts); backwards,
// s' = markIn + markOut - s.
int64_t mediaPositionAt(const DmClipDesc& clip, int64_t t) {
    const int64_t c = clip.markIn + (t - clip.begin);
    int64_t s = c;
    if (!clip.speedParts.empty()) {
        double advanced = 0.0;
        for (int64_t at = clip.markIn; at < c;) {
            double speed = 1.0;
            int64_t until = c;
            for (const DmSpeedPartDesc& part : clip.speedParts) {
                if (part.begin <= at && at < part.end) {
                    speed = part.speed;
                    until = std::min(until, part.end);
                } else if (part.begin > at) {
                    until = std::min(until, part.begin);
                }
            }
            advanced += static_cast<double>(until - at) * speed;
            at = until;
        }
        s = clip.markIn + std::llround(advanced);
    } else if (clip.speed != 1.0) {
        s = clip.markIn + std::llround(static_cast<double>(c - clip.markIn) * clip.speed);
    }
    return clip.reverse ? clip.markIn + clip.markOut - s : s;
}

// ---------------------------------------------------------------------------
// Every schema an OpenTimelineIO timeline holds.

std::string everySchemaDocument() {
    Item interview{"Interview", tr(86424, 48, 24)};
    interview.effects = {timeWarp(0.5), effect("Blur"),
                         R"({"OTIO_SCHEMA": "VideoFlip.1", "name": "", "metadata": {}, "effect_name": "",
                             "enabled": true, "flip_horizontally": true, "flip_vertically": false})"};
    interview.markers = {marker2(tr(0, 0, 24)), marker1(tr(12, 1, 24))};
    interview.metadata = R"({"vendor": {"peak": Inf, "floor": -Infinity, "ratio": NaN, "list": [Inf, -Inf, NaN]},
                             "note": "NaN and Inf stay words in strings"})";

    Item graded{"Graded", tr(35, 50, 25)};
    Item bars{"Bars", tr(15, 45, 30)};
    Item plate{"Plate", tr(1011, 24, 24)};
    plate.effects = {freezeFrame()};
    Item offline{"Offline"};
    Item unlinked{"Unlinked", tr(0, 24, 24)};
    unlinked.enabled = false;
    Item absent{"Absent", tr(0, 30, 30)};

    const std::string picture = track(
        Item{"Picture"}, "Video",
        {gap(tr(0, 12, kNtscFilm)),
         clip1(interview, external("file:///media/interview%20take%202.mov", tr(86400, 2400, 24))), transition(6, 24),
         clip2(graded,
               R"({"DEFAULT_MEDIA": )" + external("graded.mov", tr(0, 500, 25)) + R"(, "proxy": )" +
                   external("proxies/graded.mp4", tr(10, 490, 25)) + "}",
               "proxy"),
         clip1(bars, generator(timeRange(rt(0, 30), rationalTime("Infinity", "30.0")))),
         clip1(plate, imageSequence(tr(1001, 100, 24))), clip1(offline, missing(tr(0, 300, kNtscVideo))),
         clip1(unlinked, "null"), clip1(absent, "")});

    Item line{"Line", tr(48000, 96000, 48000)};
    line.effects = {timeWarp(-1.0)};
    Item tone{"Tone", tr(50, 50, 25)};
    tone.effects = {timeWarp(2.0), timeWarp(0.75)};
    Item idle{"Idle warp", tr(0, 25, 25)};
    idle.effects = {timeWarp(4.0, false)};
    const std::string dialogue = track(Item{"Dialogue"}, "Audio",
                                       {gap(tr(0, 24000, 48000), "Filler.1"), clip1(line, external("dialogue.wav")),
                                        clip1(tone, external("/srv/tone.wav")), clip1(idle, external("/srv/tone.wav"))},
                                       "Sequence.1");

    return timeline("Corpus", {picture, dialogue}, R"({"vendor": {"start": -Infinity, "rates": [NaN, Inf]}})");
}

TEST(DmOtioCorpus, EverySchemaOfATimelineIsReadAndItsClipsLandWhereTheirDurationsPutThem) {
    TempFolder folder;
    const DmTimelineDesc desc = readOf(folder, everySchemaDocument());
    EXPECT_EQ(desc.name, "Corpus");
    EXPECT_TRUE(desc.warnings.empty());
    ASSERT_EQ(desc.tracks.size(), 2u);
    EXPECT_EQ(desc.tracks[0].name, "Picture");
    EXPECT_EQ(desc.tracks[0].kind, DmTrackVideo);
    EXPECT_EQ(desc.tracks[1].name, "Dialogue");
    EXPECT_EQ(desc.tracks[1].kind, DmTrackAudio);
    const std::vector<DmClipDesc>& picture = desc.tracks[0].clips;
    ASSERT_EQ(picture.size(), 7u);

    // A gap of 12 frames at 23.976, then the interview: 48 frames at 24 from
    // frame 86424 of media starting at 86400, at half speed.
    int64_t at = cnsOf(12, kNtscFilm);
    const int64_t interviewIn = cnsOf(86424, 24) - cnsOf(86400, 24);
    expectClip(picture[0], {"Interview", at, at + cnsOf(48, 24), interviewIn,
                            interviewIn + std::llround(static_cast<double>(cnsOf(48, 24)) * 0.5), 0.5, false,
                            "/media/interview take 2.mov"});
    at += cnsOf(48, 24);
    // The transition takes no room; the proxy is the active reference, its
    // available range starts at 10 of 25.
    const int64_t gradedIn = cnsOf(35, 25) - cnsOf(10, 25);
    expectClip(picture[1], {"Graded", at, at + cnsOf(50, 25), gradedIn, gradedIn + cnsOf(50, 25), 1.0, false,
                            folder.file("proxies/graded.mp4")});
    at += cnsOf(50, 25);
    // Generated bars: no file, an available range of infinite duration whose
    // start (0) places the mark in.
    expectClip(picture[2], {"Bars", at, at + cnsOf(45, 30), cnsOf(15, 30), cnsOf(15, 30) + cnsOf(45, 30)});
    at += cnsOf(45, 30);
    // An image sequence, frozen: speed 0, mark out = mark in + duration.
    const int64_t plateIn = cnsOf(1011, 24) - cnsOf(1001, 24);
    expectClip(picture[3], {"Plate", at, at + cnsOf(24, 24), plateIn, plateIn + cnsOf(24, 24), 0.0});
    at += cnsOf(24, 24);
    // No source range: the missing reference's available range, 300 frames at 29.97.
    expectClip(picture[4], {"Offline", at, at + cnsOf(300, kNtscVideo), 0, cnsOf(300, kNtscVideo)});
    at += cnsOf(300, kNtscVideo);
    expectClip(picture[5], {"Unlinked", at, at + cnsOf(24, 24), 0, cnsOf(24, 24), 1.0, false, "", false});
    at += cnsOf(24, 24);
    expectClip(picture[6], {"Absent", at, at + cnsOf(30, 30), 0, cnsOf(30, 30)});

    const std::vector<DmClipDesc>& dialogue = desc.tracks[1].clips;
    ASSERT_EQ(dialogue.size(), 3u);
    at = cnsOf(24000, 48000);
    expectClip(dialogue[0], {"Line", at, at + cnsOf(96000, 48000), cnsOf(48000, 48000),
                             cnsOf(48000, 48000) + cnsOf(96000, 48000), 1.0, true, folder.file("dialogue.wav")});
    at += cnsOf(96000, 48000);
    // Two time warps multiply: 2 x 0.75.
    expectClip(dialogue[1],
               {"Tone", at, at + cnsOf(50, 25), cnsOf(50, 25),
                cnsOf(50, 25) + std::llround(static_cast<double>(cnsOf(50, 25)) * 1.5), 1.5, false, "/srv/tone.wav"});
    at += cnsOf(50, 25);
    // A time warp that is not enabled is omitted.
    expectClip(dialogue[2], {"Idle warp", at, at + cnsOf(25, 25), 0, cnsOf(25, 25), 1.0, false, "/srv/tone.wav"});

    expectLoadedAsDescribed(folder.file("cut.otio"), desc);
}

TEST(DmOtioCorpus, Clip2WithoutAnActiveKeyUsesItsDefaultMedia) {
    TempFolder folder;
    const std::string clip = R"({"OTIO_SCHEMA": "Clip.2", "name": "Default", "metadata": {},
        "source_range": )" + tr(0, 25, 25) +
                             R"(, "effects": [], "markers": [], "enabled": true,
        "media_references": {"proxy": )" +
                             external("proxy.mov") + R"(, "DEFAULT_MEDIA": )" +
                             external("/full/default.mov", tr(-25, 100, 25)) + "}}";
    const DmTimelineDesc desc = readOf(folder, timeline("Keys", {track(Item{"V"}, "Video", {clip})}));
    ASSERT_EQ(desc.tracks.size(), 1u);
    ASSERT_EQ(desc.tracks[0].clips.size(), 1u);
    expectClip(desc.tracks[0].clips[0], {"Default", 0, cnsOf(25, 25), cnsOf(25, 25), cnsOf(25, 25) + cnsOf(25, 25), 1.0,
                                         false, "/full/default.mov"});
}

// ---------------------------------------------------------------------------
// Nested compositions.

// At 25 frames a second (a frame is 400,000 cns, every cut below a whole
// number of cns at every speed used):
//
// track V:  Before [0, 25) | Outer, its [25, 137) | After
// Outer (a stack, bottom first):
//   Bed:       Base [0, 200), double speed, keyframes
//   Cutaways:  gap [0, 50) | Inner, its [12, 87)
// Inner (a stack):
//   Under:     Low [0, 100), backwards at half speed
//   Over:      gap [0, 6) | Parts [6, 44), speed parts and keyframes | gap [44, 50) | Still [50, 100), frozen
//
// Inner shows Low [0, 6), Parts [6, 44), Low [44, 50), Still [50, 100); its
// window [12, 87) keeps Parts [12, 44), Low [44, 50), Still [50, 87), placed at
// 50 in Cutaways. Outer shows Base [0, 50), those three, Base [125, 200); its
// window [25, 137) keeps Base [25, 50), Parts, Low, Still, Base [125, 137).
std::string nestedDocument() {
    Item base{"Base", tr(250, 200, 25)};
    base.effects = {timeWarp(2.0)};
    base.metadata = miravel(R"({"volume_keyframes": [[0, -6], [1.5, 0], [7, -3]]})");
    Item low{"Low", tr(100, 100, 25)};
    low.effects = {timeWarp(-0.5)};
    Item parts{"Parts", tr(500, 38, 25)};
    parts.metadata = miravel(R"({"volume_keyframes": [[0.2, -1], [1.2, -2]],
        "speed_parts": [{"begin": 0.08, "end": 0.4, "speed": 0}, {"begin": 0.76, "end": 1.24, "speed": 2}]})");
    Item still{"Still", tr(75, 50, 25)};
    still.effects = {freezeFrame()};

    const std::string inner =
        stack(Item{"Inner", tr(12, 75, 25)}, {track(Item{"Under"}, "Video", {clip1(low, external("/media/low.mov"))}),
                                              track(Item{"Over"}, "Video",
                                                    {gap(tr(0, 6, 25)), clip1(parts, external("/media/parts.mov")),
                                                     gap(tr(0, 6, 25)), clip1(still, external("/media/still.mov"))})});
    const std::string outer =
        stack(Item{"Outer", tr(25, 112, 25)}, {track(Item{"Bed"}, "Video", {clip1(base, external("/media/base.mov"))}),
                                               track(Item{"Cutaways"}, "Video", {gap(tr(0, 50, 25)), inner})});
    return timeline("Nested", {track(Item{"V"}, "Video",
                                     {clip1(Item{"Before", tr(0, 25, 25)}, external("/media/before.mov")), outer,
                                      clip1(Item{"After", tr(0, 25, 25)}, external("/media/after.mov"))})});
}

TEST(DmOtioCorpus, StacksNestedTwoLevelsDeepAreFlattenedAndCutAtBothEdgesOfEachWindow) {
    TempFolder folder;
    const DmTimelineDesc desc = readOf(folder, nestedDocument());
    EXPECT_TRUE(desc.warnings.empty());
    ASSERT_EQ(desc.tracks.size(), 1u);
    const std::vector<DmClipDesc>& clips = desc.tracks[0].clips;
    ASSERT_EQ(clips.size(), 7u);
    const int64_t frame = cnsOf(1, 25);
    EXPECT_EQ(frame, 400'000);

    expectClip(clips[0], {"Before", 0, 25 * frame, 0, 25 * frame, 1.0, false, "/media/before.mov"});

    // Base from 10 s at double speed, [25, 50) of it: the first 25 frames
    // (1 s) cut off moved its media 2 s on; 1 s left uses 2 s.
    const int64_t baseIn = cnsOf(250, 25);
    const DmClipDesc& base1 = clips[1];
    expectClip(base1, {"Base", 25 * frame, 50 * frame, baseIn + 2 * 25 * frame,
                       baseIn + 2 * 25 * frame + 2 * 25 * frame, 2.0, false, "/media/base.mov"});
    // Clip time moved by (new mark in - old mark in) - cut = 2 s - 1 s.
    ASSERT_EQ(base1.volumeKeyframes.size(), 3u);
    EXPECT_EQ(base1.volumeKeyframes[0].time, baseIn + 25 * frame);
    EXPECT_EQ(base1.volumeKeyframes[1].time, baseIn + cnsOf(1.5, 1) + 25 * frame);
    EXPECT_EQ(base1.volumeKeyframes[2].time, baseIn + cnsOf(7, 1) + 25 * frame);
    EXPECT_EQ(base1.volumeKeyframes[2].db, -3.0);

    // Parts from 20 s, [12, 44) of the inner stack where it stood at [6, 44):
    // the 6 frames (0.24 s) cut off were 0.08 s at speed 1 and the rest inside
    // the frozen part, so the media moved 0.08 s.
    const int64_t partsIn = cnsOf(500, 25);
    const int64_t partsCut = 6 * frame;
    const int64_t partsMoved = cnsOf(0.08, 1);
    const int64_t partsNewIn = partsIn + partsMoved;
    const DmClipDesc& parts = clips[2];
    expectClip(parts,
               {"Parts", 50 * frame, 82 * frame, partsNewIn, partsNewIn + 32 * frame, 1.0, false, "/media/parts.mov"});
    const int64_t partsShift = partsMoved - partsCut;
    ASSERT_EQ(parts.speedParts.size(), 2u);
    // The frozen part [0.08, 0.4) s keeps what is left after the cut.
    EXPECT_EQ(parts.speedParts[0].begin, partsNewIn);
    EXPECT_EQ(parts.speedParts[0].end, partsIn + cnsOf(0.4, 1) + partsShift);
    EXPECT_EQ(parts.speedParts[0].speed, 0.0);
    EXPECT_EQ(parts.speedParts[1].begin, partsIn + cnsOf(0.76, 1) + partsShift);
    EXPECT_EQ(parts.speedParts[1].end, partsIn + cnsOf(1.24, 1) + partsShift);
    EXPECT_EQ(parts.speedParts[1].speed, 2.0);
    ASSERT_EQ(parts.volumeKeyframes.size(), 2u);
    EXPECT_EQ(parts.volumeKeyframes[0].time, partsIn + cnsOf(0.2, 1) + partsShift);
    EXPECT_EQ(parts.volumeKeyframes[1].time, partsIn + cnsOf(1.2, 1) + partsShift);

    // Low from 4 s, backwards at half speed: mark out 4 s + 2 s. [44, 50) of
    // it: the 44 frames cut off moved the media 22 frames down from the mark
    // out; the 6 frames left use 3 frames.
    const int64_t lowOut = cnsOf(100, 25) + cnsOf(100, 25) / 2;
    expectClip(clips[3], {"Low", 82 * frame, 88 * frame, lowOut - 22 * frame - 3 * frame, lowOut - 22 * frame, 0.5,
                          true, "/media/low.mov"});

    // Still, frozen at 3 s, [50, 87) of its [50, 100): cut at its end only.
    expectClip(clips[4], {"Still", 88 * frame, 125 * frame, cnsOf(75, 25), cnsOf(75, 25) + 37 * frame, 0.0, false,
                          "/media/still.mov"});

    // Base again, [125, 137): 125 frames cut off moved its media 250 frames on.
    const DmClipDesc& base2 = clips[5];
    expectClip(base2, {"Base", 125 * frame, 137 * frame, baseIn + 250 * frame, baseIn + 250 * frame + 24 * frame, 2.0,
                       false, "/media/base.mov"});
    ASSERT_EQ(base2.volumeKeyframes.size(), 3u);
    EXPECT_EQ(base2.volumeKeyframes[0].time, baseIn + 125 * frame);

    expectClip(clips[6], {"After", 137 * frame, 162 * frame, 0, 25 * frame, 1.0, false, "/media/after.mov"});

    expectLoadedAsDescribed(folder.file("cut.otio"), desc);
}

TEST(DmOtioCorpus, FlattenedClipsPlayAtEveryInstantWhatTheyPlayedBeforeTheCut) {
    // Each clip stands 2 s into a nested track that the outer track shows
    // from 2.4 s for 1.6 s, from 0.4 s on the timeline; so [0.4, 2) of the
    // timeline shows [0.4, 2) s of the clip. Unnested, the same clip would
    // start at 0 on the timeline: what it plays there is the reference.
    struct Case {
        std::string name;
        std::string effects;
        std::string miravelFields;
    };
    const std::vector<Case> cases = {
        {"forward", "", ""},
        {"double speed", timeWarp(2.0), ""},
        {"half speed", timeWarp(0.5), ""},
        {"backwards", timeWarp(-1.0), ""},
        {"backwards faster", timeWarp(-1.5), ""},
        {"frozen", freezeFrame(), ""},
        {"frozen backwards", freezeFrame(), R"({"reverse": true})"},
        {"parts", "",
         R"({"speed_parts": [{"begin": 0.2, "end": 0.6, "speed": 0}, {"begin": 0.8, "end": 1.6, "speed": 0.5},
                          {"begin": 1.8, "end": 2.2, "speed": 3}]})"},
        // No part left after the cut: still timed by parts, at speed 1, not 1.5.
        {"parts elsewhere", timeWarp(1.5),
         R"({"speed_parts": [{"begin": 0.1, "end": 0.3, "speed": 0}, {"begin": 3.0, "end": 3.5, "speed": 2}]})"},
        {"parts backwards", timeWarp(-1.0),
         R"({"speed_parts": [{"begin": 0.2, "end": 0.6, "speed": 0}, {"begin": 0.8, "end": 1.6, "speed": 0.5},
             {"begin": 1.8, "end": 2.2, "speed": 3}]})"},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        TempFolder folder;
        Item clip{each.name, tr(250, 100, 25)};  // from 10 s, 4 s long
        if (!each.effects.empty()) clip.effects = {each.effects};
        if (!each.miravelFields.empty()) clip.metadata = miravel(each.miravelFields);
        const std::string clipText = clip1(clip, external("/media/shot.mov", tr(50, 1000, 25)));

        const DmTimelineDesc cut =
            readOf(folder, timeline("Cut", {track(Item{"V"}, "Video",
                                                  {gap(tr(0, 10, 25)), track(Item{"Nest", tr(60, 40, 25)}, "Video",
                                                                             {gap(tr(0, 50, 25)), clipText})})}));
        const DmTimelineDesc whole =
            readOf(folder, timeline("Whole", {track(Item{"V"}, "Video", {clipText})}), "whole.otio");
        ASSERT_EQ(cut.tracks.size(), 1u);
        ASSERT_EQ(cut.tracks[0].clips.size(), 1u);
        ASSERT_EQ(whole.tracks[0].clips.size(), 1u);
        const DmClipDesc& trimmed = cut.tracks[0].clips[0];
        const DmClipDesc& reference = whole.tracks[0].clips[0];
        EXPECT_EQ(trimmed.begin, cnsOf(10, 25));
        EXPECT_EQ(trimmed.end, cnsOf(50, 25));
        EXPECT_EQ(trimmed.speed, reference.speed);
        EXPECT_EQ(trimmed.reverse, reference.reverse);
        int mismatches = 0;
        for (int64_t t = trimmed.begin; t < trimmed.end; t += 10'000) {
            if (mediaPositionAt(trimmed, t) != mediaPositionAt(reference, t)) ++mismatches;
        }
        EXPECT_EQ(mediaPositionAt(trimmed, trimmed.end - 1), mediaPositionAt(reference, trimmed.end - 1));
        EXPECT_EQ(mismatches, 0);
        // The media the cut clip spans lies inside what the whole one spans.
        EXPECT_GE(trimmed.markIn, reference.markIn);
        EXPECT_LE(trimmed.markOut, reference.markOut);
        expectLoadedAsDescribed(folder.file("cut.otio"), cut);
    }
}

TEST(DmOtioCorpus, SourceRangeOfATimelineTrackShowsOnlyThatPartOfIt) {
    TempFolder folder;
    // The track's items span [0, 3) s; it shows [0.5, 2.5) s of them from 0.
    const DmTimelineDesc desc = readOf(
        folder,
        timeline("W", {track(Item{"V", tr(15, 60, 30)}, "Video",
                             {clip1(Item{"A", tr(0, 30, 30)}, missing()), clip1(Item{"B", tr(0, 30, 30)}, missing()),
                              clip1(Item{"C", tr(0, 30, 30)}, missing())})}));
    const std::vector<DmClipDesc>& clips = desc.tracks[0].clips;
    ASSERT_EQ(clips.size(), 3u);
    const int64_t half = cnsOf(15, 30);
    const int64_t second = cnsOf(30, 30);
    expectClip(clips[0], {"A", 0, half, half, second});
    expectClip(clips[1], {"B", half, half + second, 0, second});
    expectClip(clips[2], {"C", half + second, 2 * second, 0, half});
}

TEST(DmOtioCorpus, NestedTrackWithoutSourceRangeTakesItsWholeLength) {
    TempFolder folder;
    const std::string nested = track(Item{"Nest"}, "Audio",
                                     {clip1(Item{"One", tr(0, 30, 30)}, missing()), gap(tr(0, 15, 30), "Filler.1"),
                                      clip1(Item{"Two", tr(30, 60, 30)}, missing())},
                                     "Sequence.1");
    const DmTimelineDesc desc =
        readOf(folder,
               timeline("N", {track(Item{"A"}, "Audio", {nested, clip1(Item{"Three", tr(0, 48000, 48000)}, "null")})}));
    ASSERT_EQ(desc.tracks.size(), 1u);
    const std::vector<DmClipDesc>& clips = desc.tracks[0].clips;
    ASSERT_EQ(clips.size(), 3u);
    const int64_t one = cnsOf(30, 30);
    const int64_t pause = cnsOf(15, 30);
    const int64_t two = cnsOf(60, 30);
    expectClip(clips[0], {"One", 0, one, 0, one});
    expectClip(clips[1], {"Two", one + pause, one + pause + two, cnsOf(30, 30), cnsOf(30, 30) + two});
    expectClip(clips[2], {"Three", one + pause + two, one + pause + two + cnsOf(48000, 48000), 0, cnsOf(48000, 48000)});
}

TEST(DmOtioCorpus, DisabledClipsInANestedStackLetTheChildrenBelowShow) {
    TempFolder folder;
    Item hidden{"Hidden", tr(0, 50, 25)};
    hidden.enabled = false;
    // Bottom: Under [0, 100). Middle: a disabled clip over [25, 75), which
    // lets Under show. Top: Over [50, 75).
    const std::string nest =
        stack(Item{"Nest"},
              {track(Item{"Bottom"}, "Video", {clip1(Item{"Under", tr(0, 100, 25)}, missing())}),
               track(Item{"Middle"}, "Video", {gap(tr(0, 25, 25)), clip1(hidden, missing())}),
               track(Item{"Top"}, "Video", {gap(tr(0, 50, 25)), clip1(Item{"Over", tr(0, 25, 25)}, missing())})});
    const DmTimelineDesc desc = readOf(folder, timeline("S", {track(Item{"V"}, "Video", {nest})}));
    ASSERT_EQ(desc.tracks.size(), 1u);
    const std::vector<DmClipDesc>& clips = desc.tracks[0].clips;
    ASSERT_EQ(clips.size(), 3u);
    const int64_t frame = cnsOf(1, 25);
    expectClip(clips[0], {"Under", 0, 50 * frame, 0, 50 * frame});
    expectClip(clips[1], {"Over", 50 * frame, 75 * frame, 0, 25 * frame});
    expectClip(clips[2], {"Under", 75 * frame, 100 * frame, 75 * frame, 100 * frame});
}

TEST(DmOtioCorpus, DisabledClipOfTheBottomChildStaysWhereNothingCoversIt) {
    TempFolder folder;
    Item hidden{"Hidden", tr(0, 50, 25)};
    hidden.enabled = false;
    const std::string nest =
        stack(Item{"Nest"},
              {track(Item{"Bottom"}, "Video", {clip1(hidden, missing())}),
               track(Item{"Top"}, "Video", {gap(tr(0, 25, 25)), clip1(Item{"Over", tr(0, 50, 25)}, missing())})});
    const DmTimelineDesc desc = readOf(folder, timeline("S", {track(Item{"V"}, "Video", {nest})}));
    const std::vector<DmClipDesc>& clips = desc.tracks[0].clips;
    ASSERT_EQ(clips.size(), 2u);
    const int64_t frame = cnsOf(1, 25);
    expectClip(clips[0], {"Hidden", 0, 25 * frame, 0, 25 * frame, 1.0, false, "", false});
    expectClip(clips[1], {"Over", 25 * frame, 75 * frame, 0, 50 * frame});
}

TEST(DmOtioCorpus, DisabledCompositionDisablesItsClips) {
    TempFolder folder;
    Item nest{"Nest"};
    nest.enabled = false;
    // Not muted by its own word, but inside a disabled track.
    Item quiet{"Quiet", tr(0, 24, 24)};
    quiet.metadata = miravel(R"({"mute": false})");
    const DmTimelineDesc desc =
        readOf(folder, timeline("D", {track(Item{"A"}, "Audio",
                                            {clip1(Item{"Kept", tr(0, 24, 24)}, missing()),
                                             track(nest, "Audio", {clip1(quiet, missing())})})}));
    const std::vector<DmClipDesc>& clips = desc.tracks[0].clips;
    ASSERT_EQ(clips.size(), 2u);
    expectClip(clips[0], {"Kept", 0, cnsOf(24, 24), 0, cnsOf(24, 24)});
    expectClip(clips[1], {"Quiet", cnsOf(24, 24), 2 * cnsOf(24, 24), 0, cnsOf(24, 24), 1.0, false, "", false});
}

TEST(DmOtioCorpus, TransitionsInsideNestedCompositionsTakeNoRoom) {
    TempFolder folder;
    const std::string nest = track(
        Item{"Nest"}, "Video",
        {clip1(Item{"A", tr(0, 30, 30)}, missing()), transition(5, 30), clip1(Item{"B", tr(0, 30, 30)}, missing())});
    const DmTimelineDesc desc = readOf(folder, timeline("T", {track(Item{"V"}, "Video", {nest, transition(3, 30)})}));
    const std::vector<DmClipDesc>& clips = desc.tracks[0].clips;
    ASSERT_EQ(clips.size(), 2u);
    expectClip(clips[0], {"A", 0, cnsOf(30, 30), 0, cnsOf(30, 30)});
    expectClip(clips[1], {"B", cnsOf(30, 30), 2 * cnsOf(30, 30), 0, cnsOf(30, 30)});
}

TEST(DmOtioCorpus, CompositionsNestedTooDeepAreRefused) {
    TempFolder folder;
    std::string nest = clip1(Item{"Deep", tr(0, 24, 24)}, missing());
    std::string path = "$.tracks.children[0]";
    for (int level = 0; level < 70; ++level) nest = stack(Item{"Level"}, {nest});
    for (int level = 0; level < 64; ++level) path += ".children[0]";
    EXPECT_EQ(errorOf(folder, timeline("Deep", {track(Item{"V"}, "Video", {nest})})),
              folder.file("cut.otio") + ": " + path + ": expected compositions nested at most 64 deep");
}

// ---------------------------------------------------------------------------
// What is left out, with a warning.

TEST(DmOtioCorpus, UnknownSchemaInsideATrackTakesTheRoomOfItsDurationWithOneWarning) {
    TempFolder folder;
    const std::string titleCard = R"({"OTIO_SCHEMA": "TitleCard.3", "name": "Opening title", "metadata": {},
        "source_range": )" + tr(0, 60, 24) +
                                  R"(, "text": "Miravel"})";
    const std::string overlay =
        R"({"OTIO_SCHEMA": "Overlay.1", "name": "logo", "available_range": )" + tr(0, 75, 30) + "}";
    const DmTimelineDesc desc = readOf(
        folder,
        timeline("U", {track(Item{"V"}, "Video",
                             {clip1(Item{"First", tr(0, 24, 24)}, missing()), titleCard, stack(Item{"Nest"}, {overlay}),
                              clip1(Item{"Second", tr(0, 24, 24)}, missing())})}));
    const std::vector<DmClipDesc>& clips = desc.tracks[0].clips;
    ASSERT_EQ(clips.size(), 2u);
    expectClip(clips[0], {"First", 0, cnsOf(24, 24), 0, cnsOf(24, 24)});
    const int64_t second = cnsOf(24, 24) + cnsOf(60, 24) + cnsOf(75, 30);
    expectClip(clips[1], {"Second", second, second + cnsOf(24, 24), 0, cnsOf(24, 24)});
    const std::string path = folder.file("cut.otio");
    EXPECT_EQ(desc.warnings,
              (std::vector<std::string>{
                  path + R"(: $.tracks.children[0].children[1]: unknown schema "TitleCard.3" ("Opening title") )"
                         "taken as a gap of 2.5 s",
                  path + R"(: $.tracks.children[0].children[2].children[0]: unknown schema "Overlay.1" ("logo") )"
                         "taken as a gap of 2.5 s"}));
}

TEST(DmOtioCorpus, UnknownSchemaWithAnInfiniteAvailableDurationIsRefused) {
    TempFolder folder;
    const std::string endless =
        R"({"OTIO_SCHEMA": "Endless.1", "available_range": )" + timeRange(rt(0, 24), rationalTime("Inf", "24.0")) + "}";
    EXPECT_EQ(
        errorOf(folder, timeline("U", {track(Item{"V"}, "Video", {endless})})),
        folder.file("cut.otio") + ": $.tracks.children[0].children[0].available_range.duration: " + kTimeRangeText);
}

TEST(DmOtioCorpus, TrackOfAnotherKindIsLeftOutWithOneWarning) {
    TempFolder folder;
    const DmTimelineDesc desc =
        readOf(folder, timeline("K", {track(Item{"V"}, "Video", {clip1(Item{"Shot", tr(0, 24, 24)}, missing())}),
                                      track(Item{"Subs"}, "Subtitle", {R"({"OTIO_SCHEMA": "Caption.1"})"}),
                                      track(Item{"A"}, "Audio", {clip1(Item{"Sound", tr(0, 24, 24)}, missing())})}));
    ASSERT_EQ(desc.tracks.size(), 2u);
    EXPECT_EQ(desc.tracks[0].name, "V");
    EXPECT_EQ(desc.tracks[1].name, "A");
    ASSERT_EQ(desc.tracks[1].clips.size(), 1u);
    EXPECT_EQ(desc.tracks[1].clips[0].name, "Sound");
    EXPECT_EQ(desc.warnings, std::vector<std::string>{folder.file("cut.otio") +
                                                      R"(: $.tracks.children[1]: track kind "Subtitle" ("Subs") is )"
                                                      R"(neither "Video" nor "Audio"; the track is left out)"});
    expectLoadedAsDescribed(folder.file("cut.otio"), desc);
}

// A document with one of each warning, in document order.
std::string warningsDocument() {
    Item nest{"Slow\nmotion", tr(0, 24, 24)};
    nest.effects = {timeWarp(0.5), freezeFrame()};
    Item shot{"Shot", tr(0, 24, 24)};
    shot.effects = {timeWarp(0.5)};
    const std::string strange = R"({"OTIO_SCHEMA": "Hologram.1", "name": "depth", "metadata": {}})";
    const std::string unknown = R"({"OTIO_SCHEMA": "Slate.2", "name": "", "source_range": )" +
                                timeRange(rt(0, 24), rationalTime("1000", num(kNtscVideo))) + "}";
    return timeline("Warnings", {track(Item{"Notes"}, "Data", {}),
                                 track(Item{"V"}, "Video", {unknown, track(nest, "Video", {clip1(shot, strange)})})});
}

TEST(DmOtioCorpus, WarningLinesAreOneEachExactlyAsDesignedAndLogged) {
    TempFolder folder;
    const std::string path = folder.file("cut.otio");
    const std::vector<std::string> expected = {
        path + R"(: $.tracks.children[0]: track kind "Data" ("Notes") is neither "Video" nor "Audio"; the track is )"
               "left out",
        path + R"(: $.tracks.children[1].children[0]: unknown schema "Slate.2" ("") taken as a gap of 33.3666667 s)",
        path + R"(: $.tracks.children[1].children[1]: time effects of Track.1 ("Slow\nmotion") are not applied)",
        path + R"(: $.tracks.children[1].children[1].children[0].media_reference: unknown media reference schema )"
               R"("Hologram.1" taken as missing media)"};
    ScopedCapture capture(IBsLogger::Warning);
    const DmTimelineDesc desc = readOf(folder, warningsDocument());
    EXPECT_EQ(desc.warnings, expected);

    std::vector<std::string> logged;
    for (const CapturedLine& line : capture.sink().lines()) {
        EXPECT_EQ(line.severity, IBsLogger::Warning);
        logged.push_back(line.text);
    }
    EXPECT_EQ(logged, expected);

    // The clip inside keeps its own speed; the gap of 1000 frames at 29.97 is
    // 33.3666667 s.
    ASSERT_EQ(desc.tracks.size(), 1u);
    ASSERT_EQ(desc.tracks[0].clips.size(), 1u);
    EXPECT_EQ(cnsOf(1000, kNtscVideo), 333'666'667);
    expectClip(desc.tracks[0].clips[0],
               {"Shot", cnsOf(1000, kNtscVideo), cnsOf(1000, kNtscVideo) + cnsOf(24, 24), 0, cnsOf(12, 24), 0.5});

    std::string error;
    std::vector<std::string> warnings;
    auto loaded = ZorRef<IDmTimeline>::adopt(loadTimelineDocument(path.c_str(), &error, &warnings));
    ASSERT_NE(loaded.get(), nullptr) << error;
    EXPECT_EQ(warnings, expected);
    loaded.reset();

    // Nothing loaded, no warnings handed out.
    warnings = {"stale"};
    EXPECT_EQ(loadTimelineDocument(folder.file("absent.otio").c_str(), &error, &warnings), nullptr);
    EXPECT_TRUE(warnings.empty());
}

TEST(DmOtioCorpus, CollectionLoadsItsFirstTimelineAndWarnsOfTheOthers) {
    TempFolder folder;
    const std::string first = timeline(
        "First", {track(Item{"V"}, "Video", {clip1(Item{"One", tr(0, 24, 24)}, missing())})}, "{}", "Timeline.2");
    const std::string second = timeline("Second", {});
    const std::string collection = R"({"OTIO_SCHEMA": "SerializableCollection.1", "name": "Bin", "metadata": {},
        "children": [)" + clip1(Item{"Loose", tr(0, 24, 24)}, missing()) +
                                   ",\n" + first + ",\n" + second + "]}";
    const DmTimelineDesc desc = readOf(folder, collection);
    EXPECT_EQ(desc.name, "First");
    ASSERT_EQ(desc.tracks.size(), 1u);
    ASSERT_EQ(desc.tracks[0].clips.size(), 1u);
    EXPECT_EQ(desc.tracks[0].clips[0].name, "One");
    EXPECT_EQ(desc.warnings,
              std::vector<std::string>{folder.file("cut.otio") +
                                       R"(: $: SerializableCollection.1 holds 2 timelines; only the first, )"
                                       R"($.children[1] ("First"), is read)"});

    const std::string empty = R"({"OTIO_SCHEMA": "SerializableCollection.1", "name": "Bin", "children": []})";
    EXPECT_EQ(errorOf(folder, empty), folder.file("cut.otio") + ": $.children: expected a Timeline.1 object");
}

// ---------------------------------------------------------------------------
// Inf, -Infinity and NaN.

TEST(DmOtioCorpus, NonFiniteLiteralsWhereMiravelReadsNothingAreAccepted) {
    TempFolder folder;
    Item shot{"NaN Inf -Infinity", tr(0, 24, 24)};
    shot.metadata = R"({"Inf": {"NaN": [NaN,-Inf,Infinity,-Infinity,Inf], "text": "Inf"},
                        "miravel": {"volume_db": -3}})";
    // The available range's duration is never used: the clip has a source range.
    const DmTimelineDesc desc =
        readOf(folder,
               timeline("Literals",
                        {track(Item{"V"}, "Video",
                               {clip1(shot, external("/m.mov", timeRange(rt(-12, 24), rationalTime("NaN", "24.0"))))})},
                        R"({"scores":[Inf,NaN],"low":-Inf})"));
    ASSERT_EQ(desc.tracks.size(), 1u);
    ASSERT_EQ(desc.tracks[0].clips.size(), 1u);
    const DmClipDesc& clip = desc.tracks[0].clips[0];
    EXPECT_EQ(clip.name, "NaN Inf -Infinity");
    EXPECT_EQ(clip.markIn, cnsOf(12, 24));
    EXPECT_EQ(clip.volumeDb, -3.0);
}

TEST(DmOtioCorpus, NonFiniteValueInAFieldMiravelUsesFailsWithItsUsualMessage) {
    TempFolder folder;
    const std::string path = folder.file("cut.otio");
    const auto withClip = [](const std::string& sourceRange, const std::string& metadata = "{}",
                             const std::string& reference = missing()) {
        Item shot{"Shot", sourceRange};
        shot.metadata = metadata;
        return timeline("Bad", {track(Item{"V"}, "Video", {clip1(shot, reference)})});
    };
    const std::string clipPath = "$.tracks.children[0].children[0]";
    EXPECT_EQ(errorOf(folder, withClip(timeRange(rt(0, 24), rationalTime("Inf", "24.0")))),
              path + ": " + clipPath + ".source_range.duration: " + kTimeRangeText);
    EXPECT_EQ(errorOf(folder, withClip(timeRange(rationalTime("-Infinity", "24.0"), rt(24, 24)))),
              path + ": " + clipPath + ".source_range.start_time: " + kTimeRangeText);
    EXPECT_EQ(errorOf(folder, withClip(timeRange(rationalTime("NaN", "24.0"), rt(24, 24)))),
              path + ": " + clipPath + ".source_range.start_time: " + kTimeRangeText);
    EXPECT_EQ(errorOf(folder, withClip(timeRange(rt(0, 24), rationalTime("24.0", "NaN")))),
              path + ": " + clipPath + ".source_range.duration.rate: expected a rate above 0");
    EXPECT_EQ(errorOf(folder, withClip(tr(0, 24, 24), miravel(R"({"volume_db": -Infinity})"))),
              path + ": " + clipPath + ".metadata.miravel.volume_db: expected a number");
    EXPECT_EQ(errorOf(folder, withClip(tr(0, 24, 24), miravel(R"({"ducking": {"fade": Inf}})"))),
              path + ": " + clipPath + ".metadata.miravel.ducking.fade: expected a number of 0 or more");
    EXPECT_EQ(errorOf(folder, withClip(tr(0, 24, 24), miravel(R"({"volume_keyframes": [[0, NaN]]})"))),
              path + ": " + clipPath + ".metadata.miravel.volume_keyframes[0][1]: expected a number");
    EXPECT_EQ(errorOf(folder, withClip(tr(0, 24, 24), miravel(R"({"volume_keyframes": [[Inf, 0]]})"))),
              path + ": " + clipPath + ".metadata.miravel.volume_keyframes[0][0]: " + kTimeRangeText);
    EXPECT_EQ(errorOf(folder, withClip(tr(0, 24, 24),
                                       miravel(R"({"speed_parts": [{"begin": 0, "end": 1, "speed": Infinity}]})"))),
              path + ": " + clipPath + ".metadata.miravel.speed_parts[0].speed: expected a number of 0 or more");
    // An available range of unknown duration, used because there is no source range.
    EXPECT_EQ(errorOf(folder, withClip("null", "{}", missing(timeRange(rt(0, 24), rationalTime("Inf", "24.0"))))),
              path + ": " + clipPath + ".media_reference.available_range.duration: " + kTimeRangeText);
}

TEST(DmOtioCorpus, InvalidJsonByteOffsetsAreThoseOfTheTextAsWritten) {
    TempFolder folder;
    // The fault, a "}" where a value belongs, comes after literals of every
    // length; the byte named is the fault's own, counted from 1.
    const std::string text =
        R"({"OTIO_SCHEMA": "Timeline.1", "metadata": {"a": NaN, "b": [-Infinity, Inf, -Inf, Infinity]}, "tracks": })";
    const size_t fault = text.rfind(": }") + 2;
    EXPECT_EQ(errorOf(folder, text), folder.file("cut.otio") + ": invalid JSON at byte " + std::to_string(fault + 1) +
                                         ": syntax error while parsing value - unexpected '}'; expected '[', '{', "
                                         "or a literal");

    // Words that only look like the literals are the parser's to refuse, at
    // the byte it names for the text as written.
    for (const std::string& bad :
         {std::string(R"({"a": Infinit})"), std::string(R"({"a": NaNa})"), std::string(R"({"a": -Infinityx})"),
          std::string(R"({"a": 1Inf})"), std::string(R"({"a": [1,nan]})")}) {
        SCOPED_TRACE(bad);
        size_t byte = 0;
        try {
            const nlohmann::json parsed = nlohmann::json::parse(bad);
            ADD_FAILURE() << "parsed as " << parsed.dump();
        } catch (const nlohmann::json::parse_error& failure) {
            byte = failure.byte;
        }
        ASSERT_GT(byte, 0u);
        const std::string error = errorOf(folder, bad);
        EXPECT_EQ(error.substr(0, error.find(": ", folder.file("cut.otio").size() + 2)),
                  folder.file("cut.otio") + ": invalid JSON at byte " + std::to_string(byte));
    }
}

}  // namespace
}  // namespace ZOR::test
