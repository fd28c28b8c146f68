// The limits of the command line: every number it accepts works, and one
// past each limit is a usage error naming the option and the limit, before
// any work.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "CliTestSupport.h"
#include "MediaTestSupport.h"

namespace {

using CliTest::CliRun;
using CliTest::Json;
using CliTest::otioClip;
using CliTest::otioTrack;
using CliTest::rampWav;
using CliTest::runMiravel;
using CliTest::shellQuoted;
using CliTest::writeDocument;
using MediaTest::ffmpeg;
using ZOR::test::TempFolder;

constexpr int64_t kTimeLimit = 100'000'000'000'000;  // 10^14 cns
constexpr int64_t kWaveRange = 10'000'000'000'000;   // 10^13 cns
constexpr int64_t kFrame = 400'000;                  // 40 ms

// A usage error: exit 2, nothing on stdout, the message then the usage.
void expectUsageError(const CliRun& run, const std::string& message) {
    EXPECT_EQ(run.exitCode, 2) << run.err;
    EXPECT_TRUE(run.out.empty()) << run.out;
    EXPECT_EQ(run.err.substr(0, run.err.find('\n') + 1), "miravel: " + message + "\n") << run.err;
    EXPECT_NE(run.err.find("\nusage: miravel"), std::string::npos) << run.err;
}

// The size a PNG file's header gives.
std::pair<int, int> pngSize(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    unsigned char header[24] = {};
    in.read(reinterpret_cast<char*>(header), sizeof header);
    const auto word = [&](int at) {
        return (header[at] << 24) | (header[at + 1] << 16) | (header[at + 2] << 8) | header[at + 3];
    };
    return {word(16), word(20)};
}

// 64x36, 25 frames a second, every frame a keyframe: one second of red.
std::string tinyVideo(const TempFolder& folder) {
    const std::string video = folder.file("tiny.mp4");
    EXPECT_TRUE(ffmpeg("-f lavfi -i color=c=red:s=64x36:d=1:r=25 -c:v libx264 -g 1 -pix_fmt yuv420p '" + video + "'"));
    return video;
}

std::string waveArguments(const std::string& wav, int64_t begin, int64_t end, int64_t samples) {
    return "wave " + shellQuoted(wav) + " --begin " + std::to_string(begin) + " --end " + std::to_string(end) +
           " --samples " + std::to_string(samples);
}

// floor(t / 40 ms).
int64_t frameOf(int64_t t) { return t >= 0 ? t / kFrame : -((-t + kFrame - 1) / kFrame); }

TEST(MiravelCliLimits, UsageListsTheLimits) {
    TempFolder folder;
    const CliRun run = runMiravel(folder, "help");
    ASSERT_EQ(run.exitCode, 0);
    for (const char* line :
         {"limits (a number outside them is refused before any work):\n",
          "  --begin, --end, each of --times                            from -100000000000000 to 100000000000000 cns "
          "(wave, audio, frames, video)\n",
          "  --end minus --begin                                        from 0 to 10000000000000 cns (wave)\n",
          "  a picture, W x H x 4                                       from 4 to 268435456 bytes (frames, video, "
          "media, render)\n",
          "  --count                                                    from 1 to 1000 pictures (media)\n",
          "  --timeout                                                  from 1 to 1000000000 seconds (every command "
          "that waits)\n"})
        EXPECT_NE(run.out.find(line), std::string::npos) << line;
}

TEST(MiravelCliLimits, WaveTimesRangeSamplesAndValuesAtTheirEdges) {
    TempFolder folder;
    const std::string wav = rampWav(folder, 44100);
    struct Edge {
        int64_t begin, end, samples, count, span;
    };
    // The earliest and latest ranges, the longest range over the media, the
    // most samples, the most values.
    for (const Edge& edge :
         {Edge{-kTimeLimit, -kTimeLimit + kWaveRange, 5, 200, 1'000'000'000},
          Edge{kTimeLimit - kWaveRange, kTimeLimit, 5, 200, 1'000'000'000}, Edge{0, kWaveRange, 5, 200, 1'000'000'000},
          Edge{0, kFrame, 10'000'000, 40, 40}, Edge{0, 100'000 * kFrame, 100'000, 4'000'000, 4'000'000}}) {
        SCOPED_TRACE(edge.end);
        const CliRun run = runMiravel(folder, waveArguments(wav, edge.begin, edge.end, edge.samples));
        ASSERT_EQ(run.exitCode, 0) << run.err;
        const Json json = Json::parse(run.out);
        EXPECT_EQ(json.at("status").get<int>(), 2);
        EXPECT_EQ(json.at("count").get<int64_t>(), edge.count);
        EXPECT_EQ(json.at("span").get<int64_t>(), edge.span);
        EXPECT_EQ(static_cast<int64_t>(json.at("values").size()), edge.count);
    }

    expectUsageError(runMiravel(folder, waveArguments(wav, -kTimeLimit - 1, 0, 5)),
                     "--begin needs a whole number from -100000000000000 to 100000000000000 cns, not "
                     "'-100000000000001'");
    expectUsageError(runMiravel(folder, waveArguments(wav, kTimeLimit - kWaveRange, kTimeLimit + 1, 5)),
                     "--end needs a whole number from -100000000000000 to 100000000000000 cns, not '100000000000001'");
    expectUsageError(runMiravel(folder, waveArguments(wav, 0, kWaveRange + 1, 5)),
                     "--end needs a range from 0 to 10000000000000 cns after --begin, not 10000000000001");
    expectUsageError(runMiravel(folder, waveArguments(wav, 0, kFrame, 10'000'001)),
                     "--samples needs a whole number from 1 to 10000000, not '10000001'");
    expectUsageError(runMiravel(folder, waveArguments(wav, 0, kFrame, 0)),
                     "--samples needs a whole number from 1 to 10000000, not '0'");
    expectUsageError(runMiravel(folder, waveArguments(wav, 0, 100'001 * kFrame, 100'000)),
                     "--samples 100000 over --begin 0 --end 40000400000 asks for 4000040 values; at most 4000000 are "
                     "printed");
}

TEST(MiravelCliLimits, WaveSpanOfHugeRangesIsRightOrARefusal) {
    TempFolder folder;
    const std::string wav = rampWav(folder, 44100);
    // Within the limits: the span the wrapper told, 40 values for each frame
    // of the range, wherever the range lies.
    for (const auto& [begin, end] : std::vector<std::pair<int64_t, int64_t>>{{0, kWaveRange},
                                                                             {123'456'789, 123'456'789 + kWaveRange},
                                                                             {-kWaveRange / 2 - 1, kWaveRange / 2 - 1},
                                                                             {kTimeLimit - kWaveRange + 7, kTimeLimit},
                                                                             {-kTimeLimit, -kTimeLimit + 399'999}}) {
        SCOPED_TRACE(std::to_string(begin) + " " + std::to_string(end));
        const CliRun run = runMiravel(folder, waveArguments(wav, begin, end, 3));
        ASSERT_EQ(run.exitCode, 0) << run.err;
        const Json json = Json::parse(run.out);
        EXPECT_EQ(json.at("span").get<int64_t>(), (frameOf(end) - frameOf(begin)) * 40);
    }
    // Beyond them: refused, each the same way, however far beyond.
    for (const char* end :
         {"10000000000001", "100000000000000", "1000000000000000", "100000000000000000", "9223372036854775807"}) {
        const CliRun run = runMiravel(folder, "wave " + shellQuoted(wav) + " --begin 0 --end " + end + " --samples 5");
        EXPECT_EQ(run.exitCode, 2) << end << "\n" << run.err;
        EXPECT_TRUE(run.out.empty()) << end;
        EXPECT_EQ(run.err.rfind("miravel: --end needs a ", 0), 0u) << run.err;
    }
    expectUsageError(
        runMiravel(folder, "wave " + shellQuoted(wav) + " --begin 0 --end 9223372036854775808 --samples 5"),
        "--end needs a whole number from -100000000000000 to 100000000000000 cns, not "
        "'9223372036854775808'");
}

TEST(MiravelCliLimits, StreamAndTimeoutAtTheirEdges) {
    TempFolder folder;
    const std::string wav = rampWav(folder, 44100);
    const std::string video = tinyVideo(folder);
    const std::string range = " --begin 0 --end 400000 --samples 1";
    // The highest stream index is asked for, and the file has none there.
    CliRun run = runMiravel(folder, "wave " + shellQuoted(wav) + " --stream 65535" + range);
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err, "miravel: '" + wav + "': no stream 65535 (the file has 1); '" + wav + "': no video stream\n");
    run = runMiravel(folder, "frames " + shellQuoted(video) + " --stream 65535 --times 0 --size 4x4");
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_EQ(run.err,
              "miravel: '" + video + "': no audio stream; '" + video + "': no stream 65535 (the file has 1)\n");
    run = runMiravel(folder, "wave " + shellQuoted(wav) + " --stream -1" + range);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    expectUsageError(runMiravel(folder, "wave " + shellQuoted(wav) + " --stream 65536" + range),
                     "--stream needs a whole number from -1 to 65535, not '65536'");
    expectUsageError(runMiravel(folder, "frames " + shellQuoted(video) + " --stream -2 --times 0 --size 4x4"),
                     "--stream needs a whole number from -1 to 65535, not '-2'");

    for (const char* timeout : {"1", "1000000000"}) {
        run = runMiravel(folder, "wave " + shellQuoted(wav) + range + " --timeout " + timeout);
        EXPECT_EQ(run.exitCode, 0) << timeout << "\n" << run.err;
    }
    expectUsageError(runMiravel(folder, "wave " + shellQuoted(wav) + range + " --timeout 0"),
                     "--timeout needs a whole number from 1 to 1000000000 seconds, not '0'");
    expectUsageError(runMiravel(folder, "media " + shellQuoted(video) + " --root r --timeout 1000000001"),
                     "--timeout needs a whole number from 1 to 1000000000 seconds, not '1000000001'");
}

TEST(MiravelCliLimits, FramesSizesAndTimesAtTheirEdges) {
    TempFolder folder;
    const std::string video = tinyVideo(folder);
    const std::string frames = "frames " + shellQuoted(video);
    // The widest picture (the most bytes too) and the smallest.
    CliRun run = runMiravel(folder, frames + " --times 0 --size 16384x4096");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    Json json = Json::parse(run.out);
    EXPECT_EQ(pngSize(json.at("frames")[0].at("file").get<std::string>()), std::make_pair(16384, 4096));
    run = runMiravel(folder, frames + " --times 0 --size 1x1");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(pngSize(Json::parse(run.out).at("frames")[0].at("file").get<std::string>()), std::make_pair(1, 1));
    for (const char* size : {"16385x1", "1x16385", "16384x4097", "8192x8193", "0x1", "1x0", "64", "axb"})
        expectUsageError(runMiravel(folder, frames + " --times 0 --size " + size),
                         std::string("--size needs WxH, each side from 1 to 16384 pixels and W x H x 4 at most ") +
                             "268435456 bytes, not '" + size + "'");

    // The earliest and latest times: the first and the last frame.
    run = runMiravel(folder, frames + " --times -100000000000000,100000000000000 --size 8x8");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    json = Json::parse(run.out);
    EXPECT_EQ(json.at("frames")[0].at("shown").get<int64_t>(), 0);
    EXPECT_EQ(json.at("frames")[1].at("shown").get<int64_t>(), 24 * kFrame);
    expectUsageError(runMiravel(folder, frames + " --times 0,100000000000001 --size 8x8"),
                     "--times needs whole numbers from -100000000000000 to 100000000000000 cns, not '100000000000001'");
    expectUsageError(runMiravel(folder, frames + " --times -100000000000001 --size 8x8"),
                     "--times needs whole numbers from -100000000000000 to 100000000000000 cns, not "
                     "'-100000000000001'");

    // The most times (one argument of 19999 bytes).
    std::string times = "0";
    for (int i = 1; i < 10'000; ++i) times += ",0";
    run = runMiravel(folder, frames + " --times " + times + " --size 8x8");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    json = Json::parse(run.out);
    ASSERT_EQ(json.at("frames").size(), 10'000u);
    EXPECT_EQ(json.at("frames")[9'999].at("file"), json.at("frames")[0].at("file"));
    expectUsageError(runMiravel(folder, frames + " --times " + times + ",0 --size 8x8"),
                     "--times takes at most 10000 times, not 10001");
}

// One video clip "Red" of the tiny video and one audio clip "Ramp".
std::string clipsDocument(const TempFolder& folder, const std::string& video, const std::string& wav) {
    return writeDocument(folder, "clips.otio",
                         Json::array({otioTrack("V1", "Video", Json::array({otioClip("Red", video, 0, 10'000'000)})),
                                      otioTrack("A1", "Audio", Json::array({otioClip("Ramp", wav, 0, 20'000'000)}))}));
}

TEST(MiravelCliLimits, VideoSizesTimesAndHeldPicturesAtTheirEdges) {
    TempFolder folder;
    const std::string document = clipsDocument(folder, tinyVideo(folder), rampWav(folder, 44100));
    const std::string out = folder.file("pictures");
    const std::string video = "video " + shellQuoted(document) + " --clip Red --out " + shellQuoted(out);
    // The largest picture, which is also all the service may hold.
    CliRun run = runMiravel(folder, video + " --times 0 --size 8192x8192");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(pngSize(Json::parse(run.out).at("frames")[0].at("file").get<std::string>()), std::make_pair(8192, 8192));
    expectUsageError(runMiravel(folder, video + " --times 0,400000 --size 8192x8192"),
                     "--times and --size ask for 2 pictures of 8192x8192, 536870912 bytes held; at most 268435456");
    expectUsageError(runMiravel(folder, video + " --times 0 --size 16385x1"),
                     "--size needs WxH, each side from 1 to 16384 pixels and W x H x 4 at most 268435456 bytes, not "
                     "'16385x1'");

    run = runMiravel(folder, video + " --times -100000000000000,100000000000000 --size 16x9");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(Json::parse(run.out).at("frames").size(), 2u);
    expectUsageError(runMiravel(folder, video + " --times 100000000000001 --size 16x9"),
                     "--times needs whole numbers from -100000000000000 to 100000000000000 cns, not '100000000000001'");

    std::string times = "0";
    for (int i = 1; i < 10'000; ++i) times += ",0";
    run = runMiravel(folder, video + " --times " + times + " --size 16x9");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(Json::parse(run.out).at("frames").size(), 1u);  // one distinct time
    expectUsageError(runMiravel(folder, video + " --times " + times + ",0 --size 16x9"),
                     "--times takes at most 10000 times, not 10001");
}

TEST(MiravelCliLimits, AudioPointsAndTimesAtTheirEdges) {
    TempFolder folder;
    const std::string document = clipsDocument(folder, tinyVideo(folder), rampWav(folder, 44100));
    const std::string audio = "audio " + shellQuoted(document) + " --clip Ramp";
    CliRun run = runMiravel(folder, audio + " --points 4000000");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(Json::parse(run.out).at("count").get<int64_t>(), 4'000'000);
    expectUsageError(runMiravel(folder, audio + " --points 4000001"),
                     "--points needs a whole number from 1 to 4000000, not '4000001'");
    expectUsageError(runMiravel(folder, audio + " --points 0"),
                     "--points needs a whole number from 1 to 4000000, not '0'");

    run = runMiravel(folder, audio + " --begin -100000000000000 --end 100000000000000 --points 4");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    Json json = Json::parse(run.out);
    EXPECT_EQ(json.at("begin").get<int64_t>(), -kTimeLimit);
    EXPECT_EQ(json.at("end").get<int64_t>(), kTimeLimit);
    // Points at -10^14, -5 x 10^13, 0 and 5 x 10^13: only the third, at the
    // start of the sound, hears it.
    ASSERT_EQ(json.at("values").size(), 4u);
    EXPECT_EQ(json.at("values")[0].get<float>(), 0.0f);
    EXPECT_EQ(json.at("values")[1].get<float>(), 0.0f);
    EXPECT_GT(json.at("values")[2].get<float>(), 0.0f);
    EXPECT_EQ(json.at("values")[3].get<float>(), 0.0f);
    expectUsageError(runMiravel(folder, audio + " --begin -100000000000001 --end 0 --points 3"),
                     "--begin needs a whole number from -100000000000000 to 100000000000000 cns, not "
                     "'-100000000000001'");
}

// A document of empty tracks: each video track is 64 rows of the picture,
// each audio track 70; the ruler and margins 28.
std::string emptyTracks(const TempFolder& folder, const std::string& name, int videoTracks, int audioTracks) {
    Json tracks = Json::array();
    // Names built by appending (GCC 12 misreports "literal" + std::string&&).
    const auto trackName = [](char kind, int i) {
        std::string text(1, kind);
        text += std::to_string(i);
        return text;
    };
    for (int i = 0; i < videoTracks; ++i) tracks.push_back(otioTrack(trackName('V', i), "Video", Json::array()));
    for (int i = 0; i < audioTracks; ++i) tracks.push_back(otioTrack(trackName('A', i), "Audio", Json::array()));
    return writeDocument(folder, name, tracks);
}

TEST(MiravelCliLimits, RenderWidthAndPictureAtTheirEdges) {
    TempFolder folder;
    const std::string out = " --out " + shellQuoted(folder.file("timeline.png"));
    struct Edge {
        int videoTracks, audioTracks, width, height;
    };
    // The tallest picture (at the narrowest width) and the one of the most
    // bytes (at the widest).
    for (const Edge& edge : {Edge{249, 6, 200, 16384}, Edge{57, 6, 16384, 4096}}) {
        const std::string document = emptyTracks(folder, "edge.otio", edge.videoTracks, edge.audioTracks);
        const CliRun run =
            runMiravel(folder, "render " + shellQuoted(document) + out + " --width " + std::to_string(edge.width));
        ASSERT_EQ(run.exitCode, 0) << run.err;
        const Json json = Json::parse(run.out);
        EXPECT_EQ(json.at("width").get<int>(), edge.width);
        EXPECT_EQ(json.at("height").get<int>(), edge.height);
        EXPECT_EQ(pngSize(folder.file("timeline.png")), std::make_pair(edge.width, edge.height));
    }
    for (const Edge& edge : {Edge{249, 7, 200, 16454}, Edge{58, 6, 16384, 4160}}) {
        const std::string document = emptyTracks(folder, "past.otio", edge.videoTracks, edge.audioTracks);
        const CliRun run =
            runMiravel(folder, "render " + shellQuoted(document) + out + " --width " + std::to_string(edge.width));
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_TRUE(run.out.empty());
        EXPECT_EQ(run.err, "miravel: " + document + ": the timeline picture of its " +
                               std::to_string(edge.videoTracks + edge.audioTracks) + " tracks would be " +
                               std::to_string(edge.width) + "x" + std::to_string(edge.height) +
                               " pixels; a picture has sides from 1 to 16384 pixels and at most 268435456 bytes\n");
    }
    const std::string small = emptyTracks(folder, "small.otio", 1, 1);
    expectUsageError(runMiravel(folder, "render " + shellQuoted(small) + out + " --width 199"),
                     "--width needs a whole number from 200 to 16384 pixels, not '199'");
    expectUsageError(runMiravel(folder, "render " + shellQuoted(small) + out + " --width 16385"),
                     "--width needs a whole number from 200 to 16384 pixels, not '16385'");
}

TEST(MiravelCliLimits, RenderOfAHundredThousandTracksIsRefusedNamingTheDocument) {
    TempFolder folder;
    const std::string document = emptyTracks(folder, "tall.otio", 100'000, 0);
    const CliRun run =
        runMiravel(folder, "render " + shellQuoted(document) + " --out " + shellQuoted(folder.file("tall.png")));
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_TRUE(run.out.empty());
    EXPECT_EQ(run.err, "miravel: " + document +
                           ": the timeline picture of its 100000 tracks would be 1600x6400028 pixels; a picture has "
                           "sides from 1 to 16384 pixels and at most 268435456 bytes\n");
    EXPECT_FALSE(std::filesystem::exists(folder.file("tall.png")));
}

// A path of exactly length bytes: base (one letter longer when needed),
// folders of at most 200 letters, then leaf.
std::string pathOfLength(const std::string& base, size_t length, const std::string& leaf) {
    std::string path = base;
    // A folder takes at least two bytes ("/d"): one byte left over cannot be.
    if (length - path.size() - 1 - leaf.size() == 1) path += 'x';
    for (size_t left = length - path.size() - 1 - leaf.size(); left > 0;
         left = length - path.size() - 1 - leaf.size()) {
        size_t name = std::min<size_t>(left - 1, 200);
        if (left - 1 - name == 1) --name;
        path += '/';
        path.append(name, 'd');
    }
    path += '/';
    path += leaf;
    EXPECT_EQ(path.size(), length);
    return path;
}

TEST(MiravelCliLimits, MediaCountBoxPositionAndPathsAtTheirEdges) {
    TempFolder folder;
    const std::string video = tinyVideo(folder);
    const std::string media = "media " + shellQuoted(video);
    const std::string root = " --root " + shellQuoted(folder.file("thumbs"));
    // The most pictures.
    CliRun run = runMiravel(folder, media + root + " --count 1000 --box 2x2 --seek keyframe");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(Json::parse(run.out).at("files").size(), 1000u);
    EXPECT_EQ(MediaTest::filesUnder(folder.file("thumbs")).size(), 1000u);
    expectUsageError(runMiravel(folder, media + root + " --count 1001"),
                     "--count needs a whole number from 1 to 1000 pictures, not '1001'");
    expectUsageError(runMiravel(folder, media + root + " --count 0"),
                     "--count needs a whole number from 1 to 1000 pictures, not '0'");

    // The tallest box, into which 16:9 fits as 4096x2304.
    run = runMiravel(folder, media + " --root " + shellQuoted(folder.file("tall")) + " --count 1 --box 4096x16384");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(pngSize(Json::parse(run.out).at("files")[0].at("file").get<std::string>()), std::make_pair(4096, 2304));
    // Each side at its limit is too many bytes: refused at once.
    expectUsageError(runMiravel(folder, media + root + " --box 16384x16384"),
                     "--box needs WxH, each side from 1 to 16384 pixels and W x H x 4 at most 268435456 bytes, not "
                     "'16384x16384'");

    for (const char* position : {"0", "1"}) {
        run = runMiravel(folder, media + " --root " + shellQuoted(folder.file(std::string("p") + position)) +
                                     " --count 3 --box 8x8 --position " + position);
        ASSERT_EQ(run.exitCode, 0) << position << "\n" << run.err;
        EXPECT_EQ(Json::parse(run.out).at("files").size(), 3u);
    }
    expectUsageError(runMiravel(folder, media + root + " --position 1.0000001"),
                     "--position needs a number from 0 to 1, not '1.0000001'");
    expectUsageError(runMiravel(folder, media + root + " --position -1e-9"),
                     "--position needs a number from 0 to 1, not '-1e-9'");

    // The longest paths.
    const std::string longMedia = pathOfLength(folder.file("long"), 1023, "tiny.mp4");
    std::filesystem::create_directories(std::filesystem::path(longMedia).parent_path());
    std::filesystem::copy_file(video, longMedia);
    run = runMiravel(folder, "media " + shellQuoted(longMedia) + root + " --count 2 --box 8x8");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const std::string tooLong = pathOfLength(folder.file("long"), 1024, "tiny.mp4");
    expectUsageError(runMiravel(folder, "media " + shellQuoted(tooLong) + root),
                     "MEDIA needs a path from 1 to 1023 bytes, not one of 1024");
    const std::string longRoot = pathOfLength(folder.file("roots"), 959, "r");
    run = runMiravel(folder, media + " --root " + shellQuoted(longRoot) + " --count 2 --box 8x8");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(MediaTest::filesUnder(longRoot).size(), 2u);
    expectUsageError(runMiravel(folder, media + " --root " + shellQuoted(pathOfLength(folder.file("roots"), 960, "r"))),
                     "--root needs a path from 1 to 959 bytes, not one of 960");
}

}  // namespace
