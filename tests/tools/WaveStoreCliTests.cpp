// The wave store from the command line: a second process serves from it,
// peaks are the largest millisecond values of their buckets, two processes
// share one store, the cache command reports, prunes and clears, and render
// draws waveforms peak-true.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "CliTestSupport.h"
#include "MediaTestSupport.h"
#include "ZorUtils/ZorUtils.h"

namespace {

using CliTest::CliRun;
using CliTest::Json;
using CliTest::rampWav;
using CliTest::runShell;
using CliTest::shellQuoted;
using ZOR::test::TempFolder;

// Runs miravel with the wave store on, its cache root under the folder, and
// extra environment settings before it.
CliRun runWithStore(const TempFolder& folder, const std::string& arguments, const std::string& environment = "") {
    const std::string errPath = folder.file("stderr.txt");
    return runShell("MIRAVEL_WAVE_STORE=1 XDG_CACHE_HOME=" + shellQuoted(folder.file("cache")) + " " + environment +
                        " '" MIRAVEL_CLI "' " + arguments + " 2>" + shellQuoted(errPath),
                    errPath);
}

// Each channel's millisecond values by their definition: window m holds the
// largest absolute sample n of the channel with floor(n x 1000 / rate) = m.
std::vector<std::vector<float>> channelWindows(const MediaTest::Pcm& pcm) {
    std::vector<std::vector<float>> windows(static_cast<size_t>(pcm.channels));
    for (size_t n = 0; n < pcm.frames(); ++n) {
        const auto m = static_cast<size_t>(static_cast<int64_t>(n) * 1000 / pcm.rate);
        for (int c = 0; c < pcm.channels; ++c) {
            std::vector<float>& channel = windows[static_cast<size_t>(c)];
            if (channel.size() <= m) channel.resize(m + 1, 0.0f);
            channel[m] = std::max(
                channel[m], std::fabs(pcm.samples[n * static_cast<size_t>(pcm.channels) + static_cast<size_t>(c)]));
        }
    }
    return windows;
}

// The peaks of [begin, end) in points buckets over the channels given.
std::vector<float> expectedPeaks(const std::vector<std::vector<float>>& windows, const std::vector<int>& channels,
                                 int64_t begin, int64_t end, int64_t points) {
    std::vector<float> peaks;
    for (int64_t i = 0; i < points; ++i) {
        const int64_t from = begin + i * (end - begin) / points;
        const int64_t to = begin + (i + 1) * (end - begin) / points;
        const int64_t first = from / 10'000;
        const int64_t last = to > from ? (to - 1) / 10'000 : first;
        float best = 0.0f;
        for (int c : channels)
            for (int64_t w = first; w <= last; ++w)
                if (static_cast<size_t>(w) < windows[static_cast<size_t>(c)].size())
                    best = std::max(best, windows[static_cast<size_t>(c)][static_cast<size_t>(w)]);
        peaks.push_back(best);
    }
    return peaks;
}

std::vector<float> floats(const Json& values) {
    std::vector<float> out;
    for (const Json& value : values) out.push_back(value.get<float>());
    return out;
}

TEST(WaveStoreCli, ASecondProcessServesTheWaveFromTheStoreWithTheSameValues) {
    TempFolder folder;
    const std::string wav = rampWav(folder, 44100);
    const std::string arguments = "wave " + shellQuoted(wav) + " --begin 0 --end 25000000 --samples 100";
    const CliRun cold = runWithStore(folder, arguments + " --log debug");
    ASSERT_EQ(cold.exitCode, 0) << cold.err;
    EXPECT_EQ(cold.err.find("frames from"), std::string::npos);
    EXPECT_NE(cold.err.find(" pieces, "), std::string::npos) << cold.err;  // the audio task planned decoding
    const CliRun warm = runWithStore(folder, arguments + " --log debug");
    ASSERT_EQ(warm.exitCode, 0) << warm.err;
    EXPECT_EQ(warm.out, cold.out);
    EXPECT_NE(warm.err.find("stream 0: 63 frames from '" + folder.file("cache") + "/miravel/waves/"), std::string::npos)
        << warm.err;
    // Nothing was decoded the second time: the audio task planned no piece.
    EXPECT_EQ(warm.err.find(" pieces, "), std::string::npos) << warm.err;
}

TEST(WaveStoreCli, PeaksAreTheLargestMillisecondValuesOfTheirBuckets) {
    TempFolder folder;
    const std::string wav = rampWav(folder, 44100);
    const std::vector<std::vector<float>> windows = channelWindows(MediaTest::readWav16(wav));
    ASSERT_EQ(windows.size(), 2u);
    struct Case {
        std::string range;  // "" for the whole stream
        int64_t begin, end, points;
    };
    // Buckets above, at and below one millisecond; ranges that start and end
    // inside a millisecond.
    for (const Case& at : {Case{"", 0, 25'000'000, 7}, Case{"", 0, 25'000'000, 2500},
                           Case{" --begin 0 --end 10000000", 0, 10'000'000, 4000},
                           Case{" --begin 12345 --end 1234567", 12'345, 1'234'567, 333},
                           Case{" --begin 5001 --end 5002", 5'001, 5'002, 3},
                           Case{" --begin 24990001 --end 25000000", 24'990'001, 25'000'000, 2}}) {
        SCOPED_TRACE(at.range + " points " + std::to_string(at.points));
        const CliRun run = runWithStore(
            folder, "peaks " + shellQuoted(wav) + at.range + " --points " + std::to_string(at.points) + " --channels");
        ASSERT_EQ(run.exitCode, 0) << run.err;
        const Json result = Json::parse(run.out);
        EXPECT_EQ(result["begin"], at.begin);
        EXPECT_EQ(result["end"], at.end);
        EXPECT_EQ(result["points"], at.points);
        EXPECT_EQ(floats(result["values"]), expectedPeaks(windows, {0, 1}, at.begin, at.end, at.points));
        ASSERT_EQ(result["channels"].size(), 2u);
        EXPECT_EQ(floats(result["channels"][0]), expectedPeaks(windows, {0}, at.begin, at.end, at.points));
        EXPECT_EQ(floats(result["channels"][1]), expectedPeaks(windows, {1}, at.begin, at.end, at.points));
    }
    const CliRun plain = runWithStore(folder, "peaks " + shellQuoted(wav) + " --points 3");
    ASSERT_EQ(plain.exitCode, 0) << plain.err;
    EXPECT_FALSE(Json::parse(plain.out).contains("channels"));
}

TEST(WaveStoreCli, PeaksRefuseWhatTheUsageDoesNotAllow) {
    TempFolder folder;
    const std::string wav = rampWav(folder, 44100);
    for (const std::string& bad :
         {std::string(" --points 0"), std::string(" --points 1000001"), std::string(" --points 5 --begin 10"),
          std::string(" --points 5 --begin 10 --end 10")}) {
        const CliRun run = runWithStore(folder, "peaks " + shellQuoted(wav) + bad);
        EXPECT_EQ(run.exitCode, 2) << bad;
    }
    const CliRun missing = runWithStore(folder, "peaks " + shellQuoted(folder.file("none.wav")) + " --points 5");
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.err.find("none.wav"), std::string::npos) << missing.err;
}

TEST(WaveStoreCli, TwoProcessesWritingOneStoreAtOnceBothFinishRight) {
    TempFolder folder;
    const std::string wav = rampWav(folder, 48000);
    const std::vector<std::vector<float>> windows = channelWindows(MediaTest::readWav16(wav));
    const std::string miravel =
        "MIRAVEL_WAVE_STORE=1 XDG_CACHE_HOME=" + shellQuoted(folder.file("cache")) + " '" MIRAVEL_CLI "'";
    const std::string errPath = folder.file("stderr.txt");
    const CliRun both =
        runShell("(" + miravel + " peaks " + shellQuoted(wav) + " --begin 0 --end 15000000 --points 1500 >" +
                     shellQuoted(folder.file("a.json")) + " & " + miravel + " peaks " + shellQuoted(wav) +
                     " --begin 10000000 --end 25000000 --points 1500 >" + shellQuoted(folder.file("b.json")) +
                     " & wait) 2>" + shellQuoted(errPath),
                 errPath);
    ASSERT_EQ(both.exitCode, 0) << both.err;
    const auto read = [&](const std::string& name) {
        std::vector<char> bytes = MediaTest::readBytes(folder.file(name));
        return Json::parse(std::string(bytes.begin(), bytes.end()));
    };
    EXPECT_EQ(floats(read("a.json")["values"]), expectedPeaks(windows, {0, 1}, 0, 15'000'000, 1500));
    EXPECT_EQ(floats(read("b.json")["values"]), expectedPeaks(windows, {0, 1}, 10'000'000, 25'000'000, 1500));
    // The store is whole and holds both: a third run reads it all, with no
    // warning, and decodes nothing.
    const CliRun third = runWithStore(folder, "peaks " + shellQuoted(wav) + " --points 2500 --log debug");
    ASSERT_EQ(third.exitCode, 0) << third.err;
    EXPECT_EQ(third.err.find("is ignored"), std::string::npos) << third.err;
    EXPECT_EQ(third.err.find("peaks: 0%"), std::string::npos) << third.err;
    EXPECT_EQ(floats(Json::parse(third.out)["values"]), expectedPeaks(windows, {0, 1}, 0, 25'000'000, 2500));
}

TEST(WaveStoreCli, TheCacheCommandReportsPrunesAndClears) {
    TempFolder folder;
    const std::string wav = rampWav(folder, 44100);
    ASSERT_EQ(runWithStore(folder, "peaks " + shellQuoted(wav) + " --points 10").exitCode, 0);

    CliRun run = runWithStore(folder, "cache", "MIRAVEL_CACHE_BUDGET=5M");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    Json usage = Json::parse(run.out);
    EXPECT_EQ(usage["root"], folder.file("cache") + "/miravel");
    EXPECT_EQ(usage["budget"], 5 * 1024 * 1024);
    EXPECT_EQ(usage["stores"]["waves"]["files"], 1);
    const int64_t waveBytes = usage["stores"]["waves"]["bytes"].get<int64_t>();
    int64_t onDisk = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder.file("cache/miravel/waves")))
        if (entry.path().extension() == ".mwav") onDisk += static_cast<int64_t>(entry.file_size());
    EXPECT_EQ(waveBytes, onDisk);
    EXPECT_GT(waveBytes, 0);
    EXPECT_EQ(usage["stores"]["frames"]["files"], 0);
    EXPECT_EQ(usage["bytes"], waveBytes);

    run = runWithStore(folder, "cache --prune " + std::to_string(waveBytes));
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(Json::parse(run.out)["bytes"], waveBytes);  // it fits: nothing goes
    run = runWithStore(folder, "cache --prune 0");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(Json::parse(run.out)["bytes"], 0);
    EXPECT_EQ(Json::parse(run.out)["stores"]["waves"]["files"], 0);

    ASSERT_EQ(runWithStore(folder, "peaks " + shellQuoted(wav) + " --points 10").exitCode, 0);
    run = runWithStore(folder, "cache --clear");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    usage = Json::parse(run.out);
    EXPECT_EQ(usage["bytes"], 0);
    EXPECT_EQ(usage["budget"], int64_t{2} << 30);

    run = runWithStore(folder, "cache --prune lots");
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("--prune needs a number of bytes"), std::string::npos) << run.err;
    EXPECT_EQ(runWithStore(folder, "cache --prune 1K --clear").exitCode, 2);
}

// The rows of the waveform colour in each column of a rendered picture:
// first and last (-1 when none).
struct WaveColumn {
    int top = -1;
    int bottom = -1;
    int extent() const { return top < 0 ? 0 : bottom - top + 1; }
};

std::vector<WaveColumn> waveColumns(const std::string& png, int fromRow = 0, int toRow = INT32_MAX) {
    unsigned char* pixels = nullptr;
    int width = 0;
    int height = 0;
    EXPECT_EQ(ZOR::loadPNG(png.c_str(), &pixels, &width, &height), 0) << png;
    std::vector<WaveColumn> columns(static_cast<size_t>(std::max(width, 0)));
    for (int y = std::max(fromRow, 0); y < std::min(height, toRow); ++y)
        for (int x = 0; x < width; ++x) {
            const unsigned char* p =
                pixels + (static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) * 4;
            if (p[0] != 112 || p[1] != 214 || p[2] != 130) continue;  // the waveform's colour
            WaveColumn& column = columns[static_cast<size_t>(x)];
            if (column.top < 0) column.top = y;
            column.bottom = y;
        }
    ZOR::freeImageBuffer(pixels);
    return columns;
}

TEST(WaveStoreCli, RenderDrawsTheTransientsThatPointsMissAndChannelsApart) {
    TempFolder folder;
    // Quiet in both channels (0.05), and a 1 ms burst of 0.9 in the second
    // channel only, between two of the service's points.
    const std::string wav = folder.file("click.wav");
    ASSERT_TRUE(MediaTest::ffmpeg(
        "-f lavfi -i \"aevalsrc=exprs='0.05*sin(2*PI*440*t)|0.05*sin(2*PI*440*t)+0.9*between(t\\,0.5012\\,0.5022)*sin(2*PI*3000*t)':s=48000:d=2\" -c:a pcm_s16le '" +
        wav + "'"));
    const std::string document = CliTest::writeDocument(
        folder, "click.otio",
        Json::array({CliTest::otioTrack("A", "Audio", Json::array({CliTest::otioClip("Click", wav, 0, 20'000'000)}))}));

    // The service's points (one per column of this picture) miss the burst.
    const CliRun points = runWithStore(folder, "audio " + shellQuoted(document) + " --clip Click --points 282");
    ASSERT_EQ(points.exitCode, 0) << points.err;
    const std::vector<float> pointValues = floats(Json::parse(points.out)["values"]);
    EXPECT_LT(*std::max_element(pointValues.begin(), pointValues.end()), 0.1f);

    const CliRun merged = runWithStore(folder, "render " + shellQuoted(document) + " --out " +
                                                   shellQuoted(folder.file("merged.png")) + " --width 300");
    ASSERT_EQ(merged.exitCode, 0) << merged.err;
    const CliRun split =
        runWithStore(folder, "render " + shellQuoted(document) + " --out " + shellQuoted(folder.file("split.png")) +
                                 " --width 300 --split-channels");
    ASSERT_EQ(split.exitCode, 0) << split.err;

    // The burst's level, as the samples hold it (the largest of the file).
    const MediaTest::Pcm pcm = MediaTest::readWav16(wav);
    float burstLevel = 0.0f;
    for (size_t n = 0; n < pcm.frames(); ++n) burstLevel = std::max(burstLevel, std::fabs(pcm.samples[n * 2 + 1]));
    ASSERT_GT(burstLevel, 0.85f);
    const auto extentAt = [](double level, double reach) {
        return 2 * static_cast<int>(std::lround(level * reach)) + 1;
    };

    // Merged: one lane of 60 rows (a reach of 29 at full scale); the burst's
    // column reaches its level, every other column the quiet level.
    const std::vector<WaveColumn> one = waveColumns(folder.file("merged.png"));
    const auto tall = std::max_element(
        one.begin(), one.end(), [](const WaveColumn& a, const WaveColumn& b) { return a.extent() < b.extent(); });
    ASSERT_NE(tall, one.end());
    EXPECT_EQ(tall->extent(), extentAt(burstLevel, 29.0));
    int quiet = 0;
    int drawn = 0;
    for (const WaveColumn& column : one) {
        drawn += column.extent() > 0 ? 1 : 0;
        quiet += column.extent() == extentAt(0.05, 29.0) ? 1 : 0;
    }
    EXPECT_GT(drawn, 250);
    EXPECT_EQ(quiet, drawn - 1);
    const int middle = (tall->top + tall->bottom) / 2;  // the lane's middle row

    // Split: two lanes of 30 rows (a reach of 14), the first above the merged
    // lane's middle and quiet, the second below it with the burst.
    const std::vector<WaveColumn> first = waveColumns(folder.file("split.png"), middle - 30, middle);
    const std::vector<WaveColumn> second = waveColumns(folder.file("split.png"), middle, middle + 30);
    const auto burst = static_cast<size_t>(tall - one.begin());
    int firstQuiet = 0;
    int secondQuiet = 0;
    for (size_t x = 0; x < first.size(); ++x) {
        firstQuiet += first[x].extent() == extentAt(0.05, 14.0) ? 1 : 0;
        if (x != burst) secondQuiet += second[x].extent() == extentAt(0.05, 14.0) ? 1 : 0;
    }
    EXPECT_EQ(firstQuiet, drawn);
    EXPECT_EQ(secondQuiet, drawn - 1);
    EXPECT_EQ(second[burst].extent(), extentAt(burstLevel, 14.0));

    // At -12 dB the burst is drawn at the gain the service applies: its own
    // points at -12 dB over those at 0 dB.
    const std::string dimmed = CliTest::writeDocument(
        folder, "dimmed.otio",
        Json::array({CliTest::otioTrack(
            "A", "Audio", Json::array({CliTest::otioClip("Click", wav, 0, 20'000'000, {{"volume_db", -12.0}})}))}));
    const CliRun dimmedPoints = runWithStore(folder, "audio " + shellQuoted(dimmed) + " --clip Click --points 282");
    ASSERT_EQ(dimmedPoints.exitCode, 0) << dimmedPoints.err;
    const std::vector<float> dimmedValues = floats(Json::parse(dimmedPoints.out)["values"]);
    ASSERT_EQ(dimmedValues.size(), pointValues.size());
    const size_t loudest =
        static_cast<size_t>(std::max_element(pointValues.begin(), pointValues.end()) - pointValues.begin());
    const double gain = static_cast<double>(dimmedValues[loudest]) / static_cast<double>(pointValues[loudest]);
    EXPECT_LT(gain, 0.9);
    const CliRun dimmedRender = runWithStore(
        folder, "render " + shellQuoted(dimmed) + " --out " + shellQuoted(folder.file("dimmed.png")) + " --width 300");
    ASSERT_EQ(dimmedRender.exitCode, 0) << dimmedRender.err;
    EXPECT_EQ(waveColumns(folder.file("dimmed.png"))[burst].extent(), extentAt(gain * burstLevel, 29.0));
}

}  // namespace
