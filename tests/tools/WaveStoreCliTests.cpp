// The wave store from the command line: a second process serves from it,
// peaks are the largest millisecond values of their buckets, two processes
// share one store, and the cache command reports, prunes and clears.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "CliTestSupport.h"
#include "MediaTestSupport.h"

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
            channel[m] = std::max(channel[m], std::fabs(pcm.samples[n * static_cast<size_t>(pcm.channels) + static_cast<size_t>(c)]));
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
    for (const std::string& bad : {std::string(" --points 0"), std::string(" --points 1000001"),
                                   std::string(" --points 5 --begin 10"), std::string(" --points 5 --begin 10 --end 10")}) {
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
    const std::string miravel = "MIRAVEL_WAVE_STORE=1 XDG_CACHE_HOME=" + shellQuoted(folder.file("cache")) + " '" MIRAVEL_CLI "'";
    const std::string errPath = folder.file("stderr.txt");
    const CliRun both = runShell(
        "(" + miravel + " peaks " + shellQuoted(wav) + " --begin 0 --end 15000000 --points 1500 >" +
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

}  // namespace
