#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "CliTestSupport.h"
#include "MediaTestSupport.h"
#include "WavePeaks.h"
#include "ZorUtils/ZorUtils.h"

namespace {

using MediaTest::expectedThumbnail;
using MediaTest::ffmpeg;
using ZOR::test::TempFolder;

using CliTest::CliRun;
using CliTest::rampWav;
using CliTest::runMiravel;

// The values the command must print for [begin, end) with samples points:
// each frame from the begin frame below the end frame, by the frame step,
// 40 values a frame, from the definition over the file's own samples.
std::vector<float> expectedWave(const std::vector<float>& windows, int64_t begin, int64_t end, int64_t samples) {
    const int64_t beginFrame = begin / 400'000;  // both non-negative here
    const int64_t endFrame = end / 400'000;
    const int64_t frames = endFrame - beginFrame;
    const int64_t step = frames > samples ? frames / samples : 1;
    std::vector<float> values;
    for (int64_t frame = beginFrame; frame < endFrame; frame += step)
        for (int64_t k = 0; k < 40; ++k) {
            const size_t window = static_cast<size_t>(frame * 40 + k);
            values.push_back(window < windows.size() ? windows[window] : 0.0f);
        }
    return values;
}

TEST(MiravelCli, WaveValuesEqualTheDefinitionForGeneratedSamples) {
    TempFolder folder;
    for (int rate : {44100, 48000}) {
        SCOPED_TRACE(rate);
        const std::string wav = rampWav(folder, rate);
        const std::vector<float> windows = MediaTest::waveValues(MediaTest::readWav16(wav));
        ASSERT_FALSE(windows.empty());
        struct Query {
            int64_t begin, end, samples;
        };
        // Whole file in one value step; a middle range with a step of 3; a
        // range running past the end.
        for (const Query& q :
             {Query{0, 25'000'000, 100}, Query{4'400'000, 18'000'123, 11}, Query{20'000'000, 30'000'000, 50}}) {
            const CliRun run =
                runMiravel(folder, "wave '" + wav + "' --begin " + std::to_string(q.begin) + " --end " +
                                       std::to_string(q.end) + " --samples " + std::to_string(q.samples));
            ASSERT_EQ(run.exitCode, 0) << run.err;
            const auto json = nlohmann::json::parse(run.out);
            const std::vector<float> expected = expectedWave(windows, q.begin, q.end, q.samples);
            EXPECT_EQ(json.at("status").get<int>(), 2);
            EXPECT_GE(json.at("token").get<int64_t>(), 0);
            EXPECT_EQ(json.at("count").get<size_t>(), expected.size());
            EXPECT_EQ(json.at("span").get<int64_t>(), (q.end / 400'000 - q.begin / 400'000) * 40);
            const auto& values = json.at("values");
            ASSERT_EQ(values.size(), expected.size());
            int mismatches = 0;
            for (size_t i = 0; i < expected.size(); ++i) {
                const float printed = values[i].get<float>();
                if (printed != expected[i] && ++mismatches <= 5)
                    ADD_FAILURE() << "value " << i << ": " << printed << " expected " << expected[i];
            }
            EXPECT_EQ(mismatches, 0);
        }
    }
}

// The PNG file is width x height, opaque, with colour at its centre.
void expectPicture(const std::string& file, int width, int height, const std::array<int, 3>& colour, int tolerance) {
    unsigned char* pixels = nullptr;
    int loadedWidth = 0, loadedHeight = 0;
    ASSERT_EQ(ZOR::loadPNG(file.c_str(), &pixels, &loadedWidth, &loadedHeight), 0) << file;
    EXPECT_EQ(loadedWidth, width) << file;
    EXPECT_EQ(loadedHeight, height) << file;
    if (loadedWidth == width && loadedHeight == height) {
        const unsigned char* centre =
            pixels +
            (static_cast<size_t>(height / 2) * static_cast<size_t>(width) + static_cast<size_t>(width / 2)) * 4;
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(centre[c], colour[static_cast<size_t>(c)], tolerance) << file << " channel " << c;
        EXPECT_EQ(centre[3], 255) << file;
    }
    ZOR::freeImageBuffer(pixels);
}

TEST(MiravelCli, FramesShowTheColourOfTheirSecondInRequestOrder) {
    TempFolder folder;
    const std::string video = folder.file("colours.mp4");
    ASSERT_TRUE(
        ffmpeg("-f lavfi -i color=c=red:s=320x180:d=1:r=25 -f lavfi -i color=c=blue:s=320x180:d=1:r=25 "
               "-f lavfi -i color=c=lime:s=320x180:d=1:r=25 -filter_complex '[0][1][2]concat=n=3:v=1:a=0' "
               "-c:v libx264 -pix_fmt yuv420p -g 75 '" +
               video + "'"));
    const CliRun run = runMiravel(folder, "frames '" + video + "' --times 25000000,5000000,15000000,0 --size 160x90");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto json = nlohmann::json::parse(run.out);
    const auto& frames = json.at("frames");
    ASSERT_EQ(frames.size(), 4u);
    const std::vector<int64_t> times{25'000'000, 5'000'000, 15'000'000, 0};
    // At 25 frames per second the frame shown at t started at the last
    // multiple of 400,000 cns at or before t.
    const std::vector<std::array<int, 3>> colours{{0, 255, 0}, {255, 0, 0}, {0, 0, 255}, {255, 0, 0}};
    for (size_t i = 0; i < times.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(frames[i].at("time").get<int64_t>(), times[i]);
        EXPECT_EQ(frames[i].at("shown").get<int64_t>(), times[i] / 400'000 * 400'000);
        expectPicture(frames[i].at("file").get<std::string>(), 160, 90, colours[i], 12);
    }
}

TEST(MiravelCli, MissingFileFailsWithOneLineNamingIt) {
    TempFolder folder;
    const std::string missing = folder.file("missing.wav");
    const CliRun run = runMiravel(folder, "wave '" + missing + "' --begin 0 --end 400000 --samples 1");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.out.empty());
    EXPECT_NE(run.err.find(missing), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("No such file or directory"), std::string::npos) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
}

TEST(MiravelCli, FileWithoutTheStreamFails) {
    TempFolder folder;
    const std::string wav = rampWav(folder, 44100);
    CliRun run = runMiravel(folder, "frames '" + wav + "' --times 0 --size 16x9");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("no video stream"), std::string::npos) << run.err;
    run = runMiravel(folder, "wave '" + wav + "' --stream 5 --begin 0 --end 400000 --samples 1");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find(wav), std::string::npos) << run.err;
    EXPECT_TRUE(run.out.empty());
}

TEST(MiravelCli, BadArgumentsAreUsageErrors) {
    TempFolder folder;
    const std::string wav = folder.file("x.wav");
    for (const std::string& arguments :
         {std::string("wave"), "wave '" + wav + "' --begin 0 --end 10",
          "wave '" + wav + "' --begin a --end 1 --samples 1", "wave '" + wav + "' --begin 0 --end 10 --samples 0",
          "wave '" + wav + "' --begin 9 --end 1 --samples 1", "frames '" + wav + "' --times 0",
          "frames '" + wav + "' --times 0,x --size 16x9", "frames '" + wav + "' --times 0 --size 0x9",
          "frames '" + wav + "' --times 0 --size big", "wave '" + wav + "' --begin 0 --end 1 --samples 1 --bogus 3",
          std::string("nonsense")}) {
        const CliRun run = runMiravel(folder, arguments);
        EXPECT_EQ(run.exitCode, 2) << arguments;
        EXPECT_NE(run.err.find("usage: miravel"), std::string::npos) << arguments;
        EXPECT_TRUE(run.out.empty()) << arguments;
    }
}

TEST(MiravelCli, LogOptionWritesLibraryLinesToStderr) {
    TempFolder folder;
    const std::string wav = rampWav(folder, 44100);
    const CliRun run = runMiravel(folder, "wave '" + wav + "' --begin 0 --end 800000 --samples 2 --log info");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.err.find("ZOR::BsAudioWaveExtractWrapper::queryAudioWave"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("query wav clip id "), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("finsh wav clip id "), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("append token:"), std::string::npos) << "trace lines are below info";
}

// ---------------------------------------------------------------------------
// Timeline documents: audio, video and render through the clip thumbnail
// service.

using Json = nlohmann::json;
using CliTest::otioClip;
using CliTest::otioGap;
using CliTest::otioRange;
using CliTest::otioTrack;
using CliTest::writeDocument;

std::vector<float> printedValues(const Json& json) {
    std::vector<float> values;
    for (const Json& value : json.at("values")) values.push_back(value.get<float>());
    return values;
}

void expectSameValues(const std::vector<float>& printed, const std::vector<float>& expected) {
    ASSERT_EQ(printed.size(), expected.size());
    int mismatches = 0;
    for (size_t i = 0; i < expected.size(); ++i)
        if (printed[i] != expected[i] && ++mismatches <= 5)
            ADD_FAILURE() << "value " << i << ": " << printed[i] << " expected " << expected[i];
    EXPECT_EQ(mismatches, 0);
}

// A 2.5 s stereo WAV file whose levels change over time, and a document with
// one audio clip "Tone" of it at -6 dB: source 0.4 s .. 2.0 s, placed at 1 s
// after a gap.
struct ToneDocument {
    std::string wav;
    std::string document;
    std::vector<float> windows;
};

constexpr int64_t kToneMarkIn = 4'000'000;
constexpr int64_t kToneLength = 16'000'000;

Json toneTrack(const std::string& wav) {
    return otioTrack(
        "Music", "Audio",
        Json::array({otioGap(10'000'000), otioClip("Tone", wav, kToneMarkIn, kToneLength, {{"volume_db", -6.0}})}));
}

ToneDocument toneDocument(const TempFolder& folder) {
    ToneDocument tone;
    tone.wav = rampWav(folder, 44100);
    tone.windows = MediaTest::waveValues(MediaTest::readWav16(tone.wav));
    tone.document = writeDocument(folder, "tone.otio", Json::array({toneTrack(tone.wav)}));
    return tone;
}

TEST(MiravelCli, AudioValuesAreTheWaveDataShapedByTheClipVolume) {
    TempFolder folder;
    const ToneDocument tone = toneDocument(folder);
    ASSERT_FALSE(tone.windows.empty());

    // The default range: the clip's whole clip time, from its mark in.
    CliRun run = runMiravel(folder, "audio '" + tone.document + "' --clip Tone --points 97");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    Json json = Json::parse(run.out);
    EXPECT_EQ(json.at("clip").get<std::string>(), "Tone");
    EXPECT_EQ(json.at("begin").get<int64_t>(), kToneMarkIn);
    EXPECT_EQ(json.at("end").get<int64_t>(), kToneMarkIn + kToneLength);
    EXPECT_EQ(json.at("count").get<int64_t>(), 97);
    expectSameValues(printedValues(json),
                     expectedThumbnail(tone.windows, kToneMarkIn, kToneMarkIn + kToneLength, 97, -6.0));

    // A range given: passed on as it is.
    run = runMiravel(folder, "audio '" + tone.document + "' --clip Tone --begin 5000000 --end 12345678 --points 333");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    json = Json::parse(run.out);
    EXPECT_EQ(json.at("begin").get<int64_t>(), 5'000'000);
    EXPECT_EQ(json.at("end").get<int64_t>(), 12'345'678);
    EXPECT_EQ(json.at("count").get<int64_t>(), 333);
    expectSameValues(printedValues(json), expectedThumbnail(tone.windows, 5'000'000, 12'345'678, 333, -6.0));
}

TEST(MiravelCli, AudioDuckingCanBeTurnedOff) {
    TempFolder folder;
    const ToneDocument tone = toneDocument(folder);
    // A voice over timeline 1.5 s .. 2.0 s ducks the tone: clip time 0.9 s .. 1.4 s.
    const Json voice = otioTrack(
        "Voice", "Audio",
        Json::array(
            {otioGap(15'000'000),
             otioClip("Voice", tone.wav, 0, 5'000'000,
                      {{"ducking", {{"enabled", true}, {"depth", 0.5}, {"fade", 0.0}, {"fade_ratio", 0.0}}}})}));
    const std::string document = writeDocument(folder, "ducked.otio", Json::array({toneTrack(tone.wav), voice}));
    constexpr int64_t kPoints = 160;  // one every 0.01 s
    const std::vector<float> plain =
        expectedThumbnail(tone.windows, kToneMarkIn, kToneMarkIn + kToneLength, kPoints, -6.0);

    CliRun run = runMiravel(folder, "audio '" + document + "' --clip Tone --points 160 --no-ducking");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    expectSameValues(printedValues(Json::parse(run.out)), plain);

    run = runMiravel(folder, "audio '" + document + "' --clip Tone --points 160");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::vector<float> ducked = printedValues(Json::parse(run.out));
    ASSERT_EQ(ducked.size(), plain.size());
    int lower = 0;
    for (size_t i = 0; i < plain.size(); ++i) {
        const int64_t t = kToneMarkIn + static_cast<int64_t>(i) * 100'000;  // clip time of point i
        if (t < 8'000'000 || t > 15'000'000) {
            EXPECT_EQ(ducked[i], plain[i]) << "point " << i << " lies outside the voice";
        } else if (t >= 10'000'000 && t <= 13'000'000) {
            EXPECT_LT(ducked[i], plain[i]) << "point " << i << " lies under the voice";
            ++lower;
        }
    }
    EXPECT_GT(lower, 0);
}

TEST(MiravelCli, AudioOfAClipWithoutSoundFails) {
    TempFolder folder;
    const std::string video = folder.file("silent.mp4");
    ASSERT_TRUE(ffmpeg("-f lavfi -i color=c=red:s=64x36:d=1:r=25 -c:v libx264 -pix_fmt yuv420p '" + video + "'"));
    const std::string document = writeDocument(
        folder, "silent.otio",
        Json::array({otioTrack("V", "Video", Json::array({otioClip("Mute shot", video, 0, 10'000'000)}))}));
    const CliRun run = runMiravel(folder, "audio '" + document + "' --clip 'Mute shot' --points 10");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.out.empty());
    EXPECT_EQ(run.err, "miravel: " + document + ": clip 'Mute shot' has no sound\n");
}

TEST(MiravelCli, DocumentWarningsAreOneLineEachOnStderrBeforeTheResult) {
    TempFolder folder;
    // A tab in the document's name: the warnings name the document, and each
    // stays one line.
    const Json slate = {{"OTIO_SCHEMA", "Slate.1"}, {"name", "board"}, {"source_range", otioRange(0, 10'000'000)}};
    const Json lost = {{"OTIO_SCHEMA", "Clip.1"},
                       {"name", "Lost"},
                       {"source_range", otioRange(0, 5'000'000)},
                       {"media_reference", {{"OTIO_SCHEMA", "MissingReference.1"}}}};
    const std::string document = writeDocument(
        folder, "cut\ttake.otio",
        Json::array({otioTrack("Notes", "Data", Json::array()), otioTrack("A", "Audio", Json::array({slate, lost}))}));
    const std::string shown = folder.file("cut\\ttake.otio");
    const CliRun run = runMiravel(folder, "audio '" + document + "' --clip Lost --points 3");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.out.empty());
    EXPECT_EQ(run.err, "miravel: warning: " + shown +
                           ": $.tracks.children[0]: track kind \"Data\" (\"Notes\") is neither \"Video\" nor "
                           "\"Audio\"; the track is left out\n"
                           "miravel: warning: " +
                           shown +
                           ": $.tracks.children[1].children[0]: unknown schema \"Slate.1\" (\"board\") taken as a gap "
                           "of 1 s\n"
                           "miravel: " +
                           shown + ": clip 'Lost' has no sound (its media is missing)\n");
}

TEST(MiravelCli, ClipNamesThatAreMissingOrNotUniqueAreUsageErrors) {
    TempFolder folder;
    const std::string wav = rampWav(folder, 44100);
    const std::string document = writeDocument(
        folder, "names.otio",
        Json::array(
            {otioTrack("A1", "Audio",
                       Json::array({otioClip("Intro", wav, 0, 5'000'000), otioClip("Twice", wav, 0, 5'000'000)})),
             otioTrack("A2", "Audio", Json::array({otioClip("Twice", wav, 0, 5'000'000)}))}));

    CliRun run = runMiravel(folder, "audio '" + document + "' --clip Outro --points 10");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_TRUE(run.out.empty());
    EXPECT_NE(run.err.find("miravel: no clip named 'Outro' in " + document + "; its clips: 'Intro', 'Twice'\n"),
              std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find("usage: miravel"), std::string::npos) << run.err;

    run = runMiravel(folder, "audio '" + document + "' --clip Twice --points 10");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(
        run.err.find("miravel: more than one clip named 'Twice' in " + document + "; its clips: 'Intro', 'Twice'\n"),
        std::string::npos)
        << run.err;

    run = runMiravel(folder,
                     "video '" + document + "' --clip Nobody --times 0 --size 16x9 --out '" + folder.file("p") + "'");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("no clip named 'Nobody'"), std::string::npos) << run.err;
}

TEST(MiravelCli, BadServiceCommandArgumentsAreUsageErrors) {
    TempFolder folder;
    const std::string doc = folder.file("x.otio");
    const std::string out = folder.file("out");
    for (const std::string& arguments :
         {"audio '" + doc + "' --clip A", "audio '" + doc + "' --points 3", std::string("audio --clip A --points 3"),
          "audio '" + doc + "' --clip A --points 0", "audio '" + doc + "' --clip A --points 3 --begin 5",
          "audio '" + doc + "' --clip A --points 3 --begin 9 --end 1",
          "audio '" + doc + "' --clip A --points 3 --timeout 0", "video '" + doc + "' --clip A --times 0 --size 16x9",
          "video '" + doc + "' --clip A --size 16x9 --out '" + out + "'",
          "video '" + doc + "' --clip A --times 0 --out '" + out + "'",
          "video '" + doc + "' --clip A --times 0,y --size 16x9 --out '" + out + "'", "render '" + doc + "'",
          "render '" + doc + "' --out '" + out + "' --width 10",
          "render '" + doc + "' --out '" + out + "' --width wide", std::string("demo extra"),
          std::string("demo --bogus 1")}) {
        const CliRun run = runMiravel(folder, arguments);
        EXPECT_EQ(run.exitCode, 2) << arguments << "\n" << run.err;
        EXPECT_NE(run.err.find("usage: miravel"), std::string::npos) << arguments;
        EXPECT_TRUE(run.out.empty()) << arguments;
    }
}

TEST(MiravelCli, BadDocumentFailsWithOneLineNamingIt) {
    TempFolder folder;
    const std::string broken = folder.file("broken.otio");
    MediaTest::writeText(broken, "{\"OTIO_SCHEMA\": \"Timeline.1\", ");
    const std::string missing = folder.file("missing.otio");
    for (const std::string& command :
         {std::string("audio '") + broken + "' --clip A --points 3",
          std::string("video '") + broken + "' --clip A --times 0 --size 8x8 --out '" + folder.file("p") + "'",
          std::string("render '") + broken + "' --out '" + folder.file("t.png") + "'"}) {
        const CliRun run = runMiravel(folder, command);
        EXPECT_EQ(run.exitCode, 1) << command;
        EXPECT_TRUE(run.out.empty()) << command;
        EXPECT_EQ(run.err.rfind("miravel: " + broken + ": invalid JSON at byte ", 0), 0u) << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    }
    const CliRun run = runMiravel(folder, "render '" + missing + "' --out '" + folder.file("t.png") + "'");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err, "miravel: " + missing + ": cannot open: No such file or directory\n");
    EXPECT_FALSE(std::filesystem::exists(folder.file("t.png")));
}

// Red, blue and lime, one second each, and a document with one video clip of
// it named "Colour bars" on a video track and a sound clip on an audio track.
std::string coloursDocument(const TempFolder& folder) {
    const std::string video = folder.file("colours.mp4");
    EXPECT_TRUE(
        ffmpeg("-f lavfi -i color=c=red:s=320x180:d=1:r=25 -f lavfi -i color=c=blue:s=320x180:d=1:r=25 "
               "-f lavfi -i color=c=lime:s=320x180:d=1:r=25 -filter_complex '[0][1][2]concat=n=3:v=1:a=0' "
               "-c:v libx264 -pix_fmt yuv420p -g 25 '" +
               video + "'"));
    const std::string wav = rampWav(folder, 48000);
    return writeDocument(
        folder, "colours.otio",
        Json::array(
            {otioTrack("V1", "Video", Json::array({otioClip("Colour bars", video, 0, 30'000'000)})),
             otioTrack("A1", "Audio", Json::array({otioGap(5'000'000), otioClip("Ramp", wav, 0, 20'000'000)}))}));
}

TEST(MiravelCli, VideoWritesTheDeliveredPicturesAsFiles) {
    TempFolder folder;
    const std::string document = coloursDocument(folder);
    const std::string out = folder.file("pictures");
    const std::vector<int64_t> times{22'500'000, 2'500'000, 12'500'000};
    const std::map<int64_t, std::array<int, 3>> colours{
        {2'500'000, {255, 0, 0}}, {12'500'000, {0, 0, 255}}, {22'500'000, {0, 255, 0}}};
    for (const char* refresh : {"", " --refresh"}) {
        SCOPED_TRACE(refresh);
        const CliRun run = runMiravel(folder, "video '" + document +
                                                  "' --clip 'Colour bars' --times 22500000,2500000,12500000 "
                                                  "--size 64x36 --out '" +
                                                  out + "'" + refresh);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        const Json json = Json::parse(run.out);
        EXPECT_EQ(json.at("clip").get<std::string>(), "Colour bars");
        EXPECT_EQ(json.at("width").get<int>(), 64);
        EXPECT_EQ(json.at("height").get<int>(), 36);
        const Json& frames = json.at("frames");
        ASSERT_EQ(frames.size(), 3u);
        std::set<int64_t> seen;
        for (const Json& frame : frames) {
            const int64_t time = frame.at("time").get<int64_t>();
            ASSERT_EQ(colours.count(time), 1u) << time;
            seen.insert(time);
            const std::string file = frame.at("file").get<std::string>();
            EXPECT_EQ(file, out + "/Colour_bars-" + std::to_string(time) + ".png");
            expectPicture(file, 64, 36, colours.at(time), 40);
        }
        EXPECT_EQ(seen.size(), 3u);
    }
    // Only the pictures: no partial files left beside them.
    EXPECT_EQ(MediaTest::filesUnder(out).size(), 3u);
}

TEST(MiravelCli, VideoOfAClipWithoutPicturesFails) {
    TempFolder folder;
    const std::string document = coloursDocument(folder);
    const CliRun run = runMiravel(
        folder, "video '" + document + "' --clip Ramp --times 0 --size 16x9 --out '" + folder.file("p") + "'");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err, "miravel: " + document + ": clip 'Ramp' has no video\n");
}

TEST(MiravelCli, RenderWritesAPictureOfThePrintedSize) {
    TempFolder folder;
    const std::string document = coloursDocument(folder);
    for (const std::string& width : {std::string(), std::string(" --width 640")}) {
        const std::string out = folder.file("render/timeline" + std::to_string(width.size()) + ".png");
        const CliRun run = runMiravel(folder, "render '" + document + "' --out '" + out + "'" + width);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        const Json json = Json::parse(run.out);
        EXPECT_EQ(json.at("file").get<std::string>(), out);
        EXPECT_EQ(json.at("width").get<int>(), width.empty() ? 1600 : 640);
        unsigned char* pixels = nullptr;
        int pictureWidth = 0, pictureHeight = 0;
        ASSERT_EQ(ZOR::loadPNG(out.c_str(), &pixels, &pictureWidth, &pictureHeight), 0) << out;
        EXPECT_EQ(pictureWidth, json.at("width").get<int>());
        EXPECT_EQ(pictureHeight, json.at("height").get<int>());
        // The first second of the clip shows its red frames.
        size_t red = 0;
        for (size_t i = 0; i < static_cast<size_t>(pictureWidth) * static_cast<size_t>(pictureHeight); ++i)
            if (pixels[i * 4] > 200 && pixels[i * 4 + 1] < 60 && pixels[i * 4 + 2] < 60) ++red;
        EXPECT_GT(red, 100u);
        ZOR::freeImageBuffer(pixels);
    }
}

// ---------------------------------------------------------------------------
// Media thumbnails: the media thumbnail manager through `miravel media`.

// Ten colours, one second each, 25 frames a second, a keyframe every two
// seconds (no scene cuts): 10 s of video.
const std::vector<std::pair<const char*, std::array<int, 3>>> kSecondColours{
    {"red", {255, 0, 0}},       {"blue", {0, 0, 255}}, {"lime", {0, 255, 0}},      {"yellow", {255, 255, 0}},
    {"white", {255, 255, 255}}, {"black", {0, 0, 0}},  {"magenta", {255, 0, 255}}, {"cyan", {0, 255, 255}},
    {"gray", {128, 128, 128}},  {"navy", {0, 0, 128}}};
constexpr int64_t kTenSeconds = 100'000'000;

std::string tenColoursVideo(const TempFolder& folder) {
    const std::string video = folder.file("ten-colours.mp4");
    std::string inputs;
    for (const auto& [name, rgb] : kSecondColours) {
        inputs += "-f lavfi -i color=c=";
        inputs += name;
        inputs += ":s=320x180:d=1:r=25 ";
    }
    EXPECT_TRUE(ffmpeg(inputs +
                       "-filter_complex 'concat=n=10:v=1:a=0' -c:v libx264 -pix_fmt yuv420p "
                       "-x264-params keyint=50:min-keyint=50:scenecut=0 '" +
                       video + "'"));
    return video;
}

// The manager's rendering order of count pictures: 0 and count - 1, then
// pass by pass over the sorted indices' neighbours, from the last pair to
// the first, a + (b - a) / 2 wherever b - a > 1.
std::vector<int> renderingOrder(int count) {
    std::vector<int> order{0};
    if (count > 1) order.push_back(count - 1);
    std::vector<int> sorted = order;
    for (bool added = true; added;) {
        added = false;
        for (size_t i = sorted.size() - 1; i-- > 0;) {
            const int a = sorted[i];
            const int b = sorted[i + 1];
            if (b - a <= 1) continue;
            order.push_back(a + (b - a) / 2);
            sorted.insert(sorted.begin() + static_cast<std::ptrdiff_t>(i) + 1, a + (b - a) / 2);
            added = true;
        }
    }
    return order;
}

// Picture i of count shows media time trunc(i / count x duration).
int64_t pictureTime(int index, int count) {
    return static_cast<int64_t>(static_cast<double>(index) / static_cast<double>(count) *
                                static_cast<double>(kTenSeconds));
}

std::string thumbnailFile(const std::string& root, int index, const std::string& box) {
    return root + "/media_thumbnail/" + std::to_string(index) + "_" + box + ".png";
}

// The printed document: root and count, and the files as index and path.
std::vector<std::pair<int, std::string>> mediaFiles(const CliRun& run, const std::string& root, int count) {
    const Json json = Json::parse(run.out);
    EXPECT_EQ(json.at("root").get<std::string>(), root);
    EXPECT_EQ(json.at("count").get<int>(), count);
    std::vector<std::pair<int, std::string>> files;
    for (const Json& file : json.at("files"))
        files.emplace_back(file.at("index").get<int>(), file.at("file").get<std::string>());
    return files;
}

TEST(MiravelCli, MediaThumbnailsComeCoarseToFineShowingTheirTimes) {
    TempFolder folder;
    const std::string video = tenColoursVideo(folder);
    const std::string root = folder.file("thumbs");
    const CliRun run = runMiravel(folder, "media '" + video + "' --root '" + root + "' --count 20 --box 64x36");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::vector<std::pair<int, std::string>> files = mediaFiles(run, root, 20);
    const std::vector<int> order = renderingOrder(20);
    ASSERT_EQ(order.size(), 20u);
    EXPECT_EQ(std::vector<int>(order.begin(), order.begin() + 9), (std::vector<int>{0, 19, 9, 14, 4, 16, 11, 6, 2}));
    ASSERT_EQ(files.size(), order.size());
    for (size_t k = 0; k < order.size(); ++k) {
        SCOPED_TRACE(k);
        const int index = order[k];
        EXPECT_EQ(files[k].first, index);
        EXPECT_EQ(files[k].second, thumbnailFile(root, index, "64_36"));
        // The exact frame: the colour of the second its time falls in.
        const size_t second = static_cast<size_t>(pictureTime(index, 20) / 10'000'000);
        expectPicture(files[k].second, 64, 36, kSecondColours[second].second, 30);
    }
    EXPECT_EQ(MediaTest::filesUnder(root).size(), 20u);

    // All on disk: nothing is made again, nor listed.
    const CliRun again = runMiravel(folder, "media '" + video + "' --root '" + root + "' --count 20 --box 64x36");
    ASSERT_EQ(again.exitCode, 0) << again.err;
    EXPECT_EQ(again.out, "{\"root\": \"" + root + "\", \"count\": 20, \"files\": []}\n");
    EXPECT_EQ(again.err, "media: 100%\n");
    EXPECT_EQ(MediaTest::filesUnder(root).size(), 20u);
}

TEST(MiravelCli, MediaThumbnailsInKeyframeModeShowTheKeyframes) {
    TempFolder folder;
    const std::string video = tenColoursVideo(folder);
    const std::string root = folder.file("keyframes");
    const CliRun run =
        runMiravel(folder, "media '" + video + "' --root '" + root + "' --count 20 --box 64x36 --seek keyframe");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::vector<std::pair<int, std::string>> files = mediaFiles(run, root, 20);
    ASSERT_EQ(files.size(), 20u);
    std::vector<int> indices;
    for (const auto& [index, file] : files) {
        SCOPED_TRACE(index);
        indices.push_back(index);
        EXPECT_EQ(file, thumbnailFile(root, index, "64_36"));
        // The keyframe at or before the time: one every two seconds.
        const size_t second = static_cast<size_t>(pictureTime(index, 20) / 20'000'000 * 2);
        expectPicture(file, 64, 36, kSecondColours[second].second, 30);
    }
    EXPECT_EQ(indices, renderingOrder(20));
}

TEST(MiravelCli, MediaThumbnailsMissingFromAnEarlierRunAreMadeAndListed) {
    TempFolder folder;
    const std::string video = tenColoursVideo(folder);
    const std::string root = folder.file("partial");
    // Another box, another set of files; the item queued at its last position.
    CliRun run = runMiravel(folder, "media '" + video + "' --root '" + root + "' --count 7 --box 48x48 --position 1");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    std::vector<std::pair<int, std::string>> files = mediaFiles(run, root, 7);
    ASSERT_EQ(files.size(), 7u);
    for (size_t k = 0; k < files.size(); ++k) {
        EXPECT_EQ(files[k].first, renderingOrder(7)[k]);
        // 16:9 fitted into 48x48: 48x27.
        expectPicture(files[k].second, 48, 27,
                      kSecondColours[static_cast<size_t>(pictureTime(files[k].first, 7) / 10'000'000)].second, 30);
    }
    // Pictures 2 and 5 gone, picture 0 (at the default position) still there.
    std::filesystem::remove(thumbnailFile(root, 2, "48_48"));
    std::filesystem::remove(thumbnailFile(root, 5, "48_48"));
    run = runMiravel(folder, "media '" + video + "' --root '" + root + "' --count 7 --box 48x48");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    files = mediaFiles(run, root, 7);
    EXPECT_EQ(files, (std::vector<std::pair<int, std::string>>{{5, thumbnailFile(root, 5, "48_48")},
                                                               {2, thumbnailFile(root, 2, "48_48")}}));
    EXPECT_EQ(MediaTest::filesUnder(root).size(), 7u);
}

TEST(MiravelCli, MediaThumbnailsOfAFileThatCannotBeShownFail) {
    TempFolder folder;
    const std::string missing = folder.file("missing.mp4");
    const std::string root = folder.file("thumbs");
    CliRun run = runMiravel(folder, "media '" + missing + "' --root '" + root + "'");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.out.empty());
    EXPECT_EQ(run.err, "miravel: '" + missing + "': No such file or directory\n");

    const std::string wav = rampWav(folder, 44100);
    run = runMiravel(folder, "media '" + wav + "' --root '" + root + "'");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.out.empty());
    EXPECT_EQ(run.err, "miravel: '" + wav + "': no video stream\n");
    EXPECT_TRUE(MediaTest::filesUnder(root).empty());
}

TEST(MiravelCli, BadMediaArgumentsAreUsageErrors) {
    TempFolder folder;
    const std::string video = folder.file("v.mp4");
    const std::string root = " --root '" + folder.file("thumbs") + "'";
    for (const std::string& arguments :
         {std::string("media"), "media '" + video + "'", "media '" + video + "' '" + video + "'" + root,
          "media '" + video + "'" + root + " --count 0", "media '" + video + "'" + root + " --count many",
          "media '" + video + "'" + root + " --box 0x9", "media '" + video + "'" + root + " --box 64",
          "media '" + video + "'" + root + " --position -0.1", "media '" + video + "'" + root + " --position 1.5",
          "media '" + video + "'" + root + " --position half", "media '" + video + "'" + root + " --seek fast",
          "media '" + video + "'" + root + " --timeout 0", "media '" + video + "'" + root + " --bogus 1"}) {
        const CliRun run = runMiravel(folder, arguments);
        EXPECT_EQ(run.exitCode, 2) << arguments << "\n" << run.err;
        EXPECT_NE(run.err.find("usage: miravel"), std::string::npos) << arguments;
        EXPECT_TRUE(run.out.empty()) << arguments;
    }
    const CliRun run = runMiravel(folder, "media '" + video + "'" + root + " --seek fast");
    EXPECT_EQ(run.err.substr(0, run.err.find('\n') + 1), "miravel: --seek needs exact or keyframe, not 'fast'\n");
}

TEST(MiravelCli, DemoMakesItsMediaAndRunsEveryPipeline) {
    TempFolder folder;
    const std::string out = folder.file("demo");
    const CliRun run = runMiravel(folder, "demo --out '" + out + "'");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const Json json = Json::parse(run.out);
    EXPECT_EQ(json.at("out").get<std::string>(), out);
    std::set<std::string> files;
    for (const Json& file : json.at("files")) {
        const std::string name = file.get<std::string>();
        files.insert(name);
        EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::path(out) / name)) << name;
    }
    for (const char* name : {"video.mp4", "music.wav", "voice.wav", "timeline.otio", "wave.json", "frames.json",
                             "audio-music.json", "video.json", "timeline.png", "media-thumbnails.json", "summary.json"})
        EXPECT_EQ(files.count(name), 1u) << name;
    for (const char* step : {"media", "wave", "frames", "audio", "video", "render", "media_thumbnails", "total"})
        EXPECT_GE(json.at("timings").at(step).get<int64_t>(), 0) << step;
    const std::string summary = (std::filesystem::path(out) / "summary.json").string();
    std::ifstream in(summary);
    const Json parsed = Json::parse(in);
    EXPECT_EQ(parsed.at("files"), json.at("files"));
    // The wave step ran twice, decoding and then reading the wave store that
    // the demo keeps in its folder (the values are compared by the demo);
    // every step that decoded sound left its levels there.
    EXPECT_GE(parsed.at("wave_cold_ms").get<int64_t>(), 0);
    EXPECT_GE(parsed.at("wave_warm_ms").get<int64_t>(), 0);
    int storeFiles = 0;
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(out) / "wave-store"))
        storeFiles += entry.path().extension() == ".mwav" ? 1 : 0;
    EXPECT_EQ(storeFiles, 3);  // the sound of the music, the voice and the video

    // The media thumbnail manager's 24 pictures of the video, 160x90, in its
    // rendering order, listed in the output and in the summary.
    const Json& thumbnails = parsed.at("media_thumbnails");
    EXPECT_EQ(thumbnails.at("status").get<std::string>(), "done");
    EXPECT_EQ(thumbnails.at("media").get<std::string>(), "video.mp4");
    EXPECT_EQ(thumbnails.at("root").get<std::string>(), "media-thumbnails/video");
    EXPECT_EQ(thumbnails.at("count").get<int>(), 24);
    EXPECT_EQ(thumbnails.at("box").get<std::string>(), "160x90");
    EXPECT_EQ(thumbnails.at("seek").get<std::string>(), "exact");
    EXPECT_GE(thumbnails.at("milliseconds").get<int64_t>(), 0);
    EXPECT_LE(thumbnails.at("milliseconds").get<int64_t>(), json.at("timings").at("media_thumbnails").get<int64_t>());
    const std::vector<int> order = renderingOrder(24);
    ASSERT_EQ(thumbnails.at("files").size(), order.size());
    for (size_t k = 0; k < order.size(); ++k) {
        const std::string name = "media-thumbnails/video/media_thumbnail/" + std::to_string(order[k]) + "_160_90.png";
        EXPECT_EQ(thumbnails.at("files")[k].get<std::string>(), name);
        EXPECT_EQ(files.count(name), 1u) << name;
        unsigned char* thumbnail = nullptr;
        int thumbnailWidth = 0, thumbnailHeight = 0;
        const std::string path = (std::filesystem::path(out) / name).string();
        ASSERT_EQ(ZOR::loadPNG(path.c_str(), &thumbnail, &thumbnailWidth, &thumbnailHeight), 0) << path;
        EXPECT_EQ(thumbnailWidth, 160) << name;
        EXPECT_EQ(thumbnailHeight, 90) << name;
        ZOR::freeImageBuffer(thumbnail);
    }
    std::ifstream listed((std::filesystem::path(out) / "media-thumbnails.json").string());
    const Json media = Json::parse(listed);
    EXPECT_EQ(media.at("count").get<int>(), 24);
    EXPECT_EQ(media.at("files").size(), 24u);
    unsigned char* pixels = nullptr;
    int width = 0, height = 0;
    const std::string picture = (std::filesystem::path(out) / "timeline.png").string();
    ASSERT_EQ(ZOR::loadPNG(picture.c_str(), &pixels, &width, &height), 0);
    EXPECT_EQ(width, 1600);
    ZOR::freeImageBuffer(pixels);
    // The document loads and its clips answer: the music is ducked under the voice.
    const CliRun ducked = runMiravel(folder, "audio '" + out + "/timeline.otio' --clip 'Music Bed' --points 600");
    const CliRun plain =
        runMiravel(folder, "audio '" + out + "/timeline.otio' --clip 'Music Bed' --points 600 --no-ducking");
    ASSERT_EQ(ducked.exitCode, 0) << ducked.err;
    ASSERT_EQ(plain.exitCode, 0) << plain.err;
    EXPECT_NE(Json::parse(ducked.out).at("values"), Json::parse(plain.out).at("values"));
}

}  // namespace
