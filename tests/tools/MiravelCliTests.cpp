#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "MediaTestSupport.h"
#include "ZorUtils/ZorUtils.h"

namespace {

using MediaTest::ffmpeg;
using MediaTest::TempFolder;

struct CliRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Runs the miravel command line with the frame store under folder.
CliRun runMiravel(const TempFolder& folder, const std::string& arguments) {
    const std::string errPath = folder.file("stderr.txt");
    const std::string command = "XDG_CACHE_HOME='" + folder.file("cache") + "' '" MIRAVEL_CLI "' " + arguments +
                                " 2>'" + errPath + "' </dev/null";
    CliRun run;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return run;
    std::array<char, 4096> buffer{};
    size_t got = 0;
    while ((got = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) run.out.append(buffer.data(), got);
    const int status = pclose(pipe);
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    std::ifstream err(errPath);
    std::stringstream text;
    text << err.rdbuf();
    run.err = text.str();
    return run;
}

std::string rampWav(const TempFolder& folder, int rate) {
    const std::string path = folder.file("ramp-" + std::to_string(rate) + ".wav");
    ffmpeg("-f lavfi -i \"aevalsrc=exprs='(0.1+0.3*t)*sin(2*PI*440*t)|(0.9-0.3*t)*sin(2*PI*660*t)':s=" +
           std::to_string(rate) + ":d=2.5\" -c:a pcm_s16le '" + path + "'");
    return path;
}

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
        for (const Query& q : {Query{0, 25'000'000, 100}, Query{4'400'000, 18'000'123, 11}, Query{20'000'000, 30'000'000, 50}}) {
            const CliRun run = runMiravel(folder, "wave '" + wav + "' --begin " + std::to_string(q.begin) + " --end " +
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

TEST(MiravelCli, FramesShowTheColourOfTheirSecondInRequestOrder) {
    TempFolder folder;
    const std::string video = folder.file("colours.mp4");
    ASSERT_TRUE(ffmpeg("-f lavfi -i color=c=red:s=320x180:d=1:r=25 -f lavfi -i color=c=blue:s=320x180:d=1:r=25 "
                       "-f lavfi -i color=c=lime:s=320x180:d=1:r=25 -filter_complex '[0][1][2]concat=n=3:v=1:a=0' "
                       "-c:v libx264 -pix_fmt yuv420p -g 75 '" + video + "'"));
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
        const std::string file = frames[i].at("file").get<std::string>();
        unsigned char* pixels = nullptr;
        int width = 0, height = 0;
        ASSERT_EQ(ZOR::loadPNG(file.c_str(), &pixels, &width, &height), 0) << file;
        EXPECT_EQ(width, 160);
        EXPECT_EQ(height, 90);
        const unsigned char* centre = pixels + (static_cast<size_t>(45) * 160 + 80) * 4;
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(centre[c], colours[i][static_cast<size_t>(c)], 12) << "channel " << c;
        EXPECT_EQ(centre[3], 255);
        ZOR::freeImageBuffer(pixels);
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
         {std::string("wave"), "wave '" + wav + "' --begin 0 --end 10", "wave '" + wav + "' --begin a --end 1 --samples 1",
          "wave '" + wav + "' --begin 0 --end 10 --samples 0", "wave '" + wav + "' --begin 9 --end 1 --samples 1",
          "frames '" + wav + "' --times 0", "frames '" + wav + "' --times 0,x --size 16x9",
          "frames '" + wav + "' --times 0 --size 0x9", "frames '" + wav + "' --times 0 --size big",
          "wave '" + wav + "' --begin 0 --end 1 --samples 1 --bogus 3", std::string("nonsense")}) {
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

}  // namespace
