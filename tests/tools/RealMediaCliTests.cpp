// The command line on media as cameras, phones and the web make it: frames
// land on their own times at 23.976 to 59.94 frames per second and at
// variable rates, in every command that shows pictures; files whose
// timestamps start late; clips that play frozen, reversed or fast; and a
// damaged clip that ends the commands at once.
//
// The test pictures are grey, their luma telling the frame number
// (16 + 8 x (n mod 28), coded losslessly); each frame's time is computed here
// from the rate the file was made at.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "CliTestSupport.h"
#include "MediaTestSupport.h"
#include "ZorUtils/ZorUtils.h"

namespace {

using Json = nlohmann::json;
using ZOR::test::TempFolder;

constexpr int kCycle = 28;
constexpr int kGop = 12;

using CliTest::runMiravel;

struct Rate {
    const char* text;
    int64_t num;
    int64_t den;
};

// The media time of frame k at rate num/den, rounded to the nearest cns.
int64_t frameTime(int64_t k, const Rate& rate) {
    return (2 * k * rate.den * 10'000'000 + rate.num) / (2 * rate.num);  // small k: no overflow
}

// The frame shown at time: the last one whose time is at or before it.
int64_t frameShownAt(int64_t time, const Rate& rate, int64_t frames) {
    int64_t k = 0;
    while (k + 1 < frames && frameTime(k + 1, rate) <= time) ++k;
    return k;
}

std::string grey(const TempFolder& folder, const std::string& name, const Rate& rate, int frames,
                 const std::string& extra = "") {
    const std::string path = folder.file(name);
    MediaTest::ffmpeg("-f lavfi -i \"color=black:size=64x36:rate=" + std::string(rate.text) +
                      ",format=yuv420p,geq=lum='16+8*mod(N\\,28)':cb=128:cr=128\" -frames:v " + std::to_string(frames) +
                      " -c:v libx264 -qp 0 -pix_fmt yuv420p -bf 2 -g " + std::to_string(kGop) + " -keyint_min " +
                      std::to_string(kGop) + " -sc_threshold 0 " + extra + " \"" + path + "\"");
    return path;
}

// The frame number (mod kCycle) an RGBA picture shows at (x, y): the grey
// of the luma 16 + 8n, converted at the video range.
int numberAt(const unsigned char* pixels, int width, int x, int y) {
    const unsigned char* pixel =
        pixels + (static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)) * 4;
    const double luma = pixel[1] * 219.0 / 255.0;
    return static_cast<int>(luma / 8.0 + 0.5) % kCycle;
}

int numberOfPicture(const std::string& file, int x = -1, int y = -1) {
    unsigned char* pixels = nullptr;
    int width = 0;
    int height = 0;
    if (ZOR::loadPNG(file.c_str(), &pixels, &width, &height) != 0 || pixels == nullptr) {
        ADD_FAILURE() << "cannot read " << file;
        return -1;
    }
    const int number = numberAt(pixels, width, x < 0 ? width / 2 : x, y < 0 ? height / 2 : y);
    ZOR::freeImageBuffer(pixels);
    return number;
}

// ---------------------------------------------------------------------------
// Timeline documents

Json rationalTime(double value, double rate) {
    return Json{{"OTIO_SCHEMA", "RationalTime.1"}, {"value", value}, {"rate", rate}};
}

Json rationalRange(double start, double duration, double rate) {
    return Json{{"OTIO_SCHEMA", "TimeRange.1"},
                {"start_time", rationalTime(start, rate)},
                {"duration", rationalTime(duration, rate)}};
}

// A clip of media from frame `first` for `frames` frames at the file's rate.
Json clipOfFrames(const std::string& name, const std::string& media, int first, int frames, const Rate& rate,
                  Json effects = Json::array()) {
    const double fps = static_cast<double>(rate.num) / static_cast<double>(rate.den);
    return Json{{"OTIO_SCHEMA", "Clip.1"},
                {"name", name},
                {"source_range", rationalRange(first, frames, fps)},
                {"media_reference", {{"OTIO_SCHEMA", "ExternalReference.1"}, {"target_url", media}}},
                {"effects", std::move(effects)}};
}

std::string writeVideoDocument(const TempFolder& folder, const std::string& name, const Json& videoClips) {
    const Json document{
        {"OTIO_SCHEMA", "Timeline.1"},
        {"name", name},
        {"tracks",
         {{"OTIO_SCHEMA", "Stack.1"},
          {"children",
           Json::array(
               {Json{{"OTIO_SCHEMA", "Track.1"}, {"name", "V1"}, {"kind", "Video"}, {"children", videoClips}}})}}}};
    const std::string path = folder.file(name);
    MediaTest::writeText(path, document.dump(2));
    return path;
}

// ---------------------------------------------------------------------------
// Frame times

void appendTime(std::string& times, int64_t time) {
    if (!times.empty()) times += ',';
    times += std::to_string(time);
}

const Rate kRates[] = {{"24000/1001", 24000, 1001}, {"24", 24, 1}, {"25", 25, 1},
                       {"30000/1001", 30000, 1001}, {"50", 50, 1}, {"60000/1001", 60000, 1001}};
const int64_t kFrames[] = {1, 11, 12, 13, 29, 47};

TEST(FrameTimesCli, FramesShowEachFrameFromItsOwnTimeAndTheOneBeforeOneCnsEarlier) {
    TempFolder folder;
    for (const Rate& rate : kRates) {
        SCOPED_TRACE(rate.text);
        const std::string media = grey(folder, std::string("r") + std::to_string(rate.num) + ".mp4", rate, 60);
        std::string times;
        std::vector<int64_t> asked;
        for (int64_t k : kFrames) {
            for (int64_t time : {frameTime(k, rate), frameTime(k, rate) - 1}) {
                appendTime(times, time);
                asked.push_back(time);
            }
        }
        const CliTest::CliRun run = runMiravel(folder, "frames '" + media + "' --times " + times + " --size 64x36");
        ASSERT_EQ(run.exitCode, 0) << run.err;
        const Json frames = Json::parse(run.out).at("frames");
        ASSERT_EQ(frames.size(), asked.size());
        for (size_t i = 0; i < asked.size(); ++i) {
            const int64_t expected = frameShownAt(asked[i], rate, 60);
            EXPECT_EQ(frames[i].at("time").get<int64_t>(), asked[i]);
            EXPECT_EQ(frames[i].at("shown").get<int64_t>(), frameTime(expected, rate)) << "at " << asked[i];
            EXPECT_EQ(numberOfPicture(frames[i].at("file").get<std::string>()), expected % kCycle) << "at " << asked[i];
        }
    }
}

TEST(FrameTimesCli, FramesOfAVariableRateFileShowEachFrameFromItsOwnTime) {
    TempFolder folder;
    const Rate base{"25", 25, 1};
    // Frame k at k x 40 ms plus 20 ms for every third frame before it.
    const std::string media =
        grey(folder, "vfr.mkv", base, 60,
             "-vf \"settb=1/1000,setpts=N*40+floor(N/3)*20\" -fps_mode vfr -enc_time_base 1/1000");
    auto time = [](int64_t k) { return (k * 40 + (k / 3) * 20) * 10'000; };
    std::string times;
    std::vector<std::pair<int64_t, int64_t>> asked;  // time, frame expected
    for (int64_t k : {1, 3, 4, 9, 10, 31}) {
        asked.emplace_back(time(k), k);
        asked.emplace_back(time(k) - 1, k - 1);
    }
    for (const auto& [t, k] : asked) appendTime(times, t);
    const CliTest::CliRun run = runMiravel(folder, "frames '" + media + "' --times " + times + " --size 64x36");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const Json frames = Json::parse(run.out).at("frames");
    ASSERT_EQ(frames.size(), asked.size());
    for (size_t i = 0; i < asked.size(); ++i) {
        EXPECT_EQ(frames[i].at("shown").get<int64_t>(), time(asked[i].second)) << "at " << asked[i].first;
        EXPECT_EQ(numberOfPicture(frames[i].at("file").get<std::string>()), asked[i].second % kCycle);
    }
}

// The service keeps one picture per 10 ms of a clip's media (times in one
// such quantum share it), so a frame's own time and 1 cns earlier are asked
// for in two runs.
TEST(FrameTimesCli, ClipPicturesShowEachFrameFromItsOwnTimeAndTheOneBeforeOneCnsEarlier) {
    TempFolder folder;
    for (const Rate& rate : kRates) {
        SCOPED_TRACE(rate.text);
        const std::string media = grey(folder, std::string("c") + std::to_string(rate.num) + ".mp4", rate, 60);
        const std::string document = writeVideoDocument(folder, std::string("c") + std::to_string(rate.num) + ".otio",
                                                        Json::array({clipOfFrames("Shot", media, 0, 60, rate)}));
        for (int64_t early : {0, 1}) {
            std::string times;
            for (int64_t k : kFrames) appendTime(times, frameTime(k, rate) - early);
            const std::string out = folder.file("out" + std::to_string(rate.num) + "-" + std::to_string(early));
            const CliTest::CliRun run = runMiravel(
                folder, "video '" + document + "' --clip Shot --times " + times + " --size 64x36 --out '" + out + "'");
            ASSERT_EQ(run.exitCode, 0) << run.err;
            const Json frames = Json::parse(run.out).at("frames");
            ASSERT_EQ(frames.size(), std::size(kFrames));
            for (const Json& frame : frames) {
                const int64_t time = frame.at("time").get<int64_t>();
                EXPECT_EQ(numberOfPicture(frame.at("file").get<std::string>()), frameShownAt(time, rate, 60) % kCycle)
                    << "at " << time;
            }
        }
    }
}

// The manager's picture i is at i / count of the media's duration, in double
// and truncated; each shows the frame (or, by keyframes, the keyframe) shown
// at that time.
TEST(FrameTimesCli, MediaThumbnailsShowTheFrameShownAtTheirTimeInBothSeekModes) {
    TempFolder folder;
    for (const Rate& rate : {kRates[0], kRates[3], kRates[5], kRates[2]}) {
        SCOPED_TRACE(rate.text);
        constexpr int kFramesInFile = 48;
        const std::string media =
            grey(folder, std::string("m") + std::to_string(rate.num) + ".mp4", rate, kFramesInFile);
        const int64_t duration = frameTime(kFramesInFile, rate);
        for (const char* mode : {"exact", "keyframe"}) {
            SCOPED_TRACE(mode);
            const std::string root = folder.file(std::string("root-") + std::to_string(rate.num) + mode);
            const int count = kFramesInFile;
            const CliTest::CliRun run = runMiravel(folder, "media '" + media + "' --root '" + root + "' --count " +
                                                               std::to_string(count) + " --box 64x36 --seek " + mode);
            ASSERT_EQ(run.exitCode, 0) << run.err;
            ASSERT_EQ(Json::parse(run.out).at("files").size(), static_cast<size_t>(count));
            for (int i = 0; i < count; ++i) {
                const auto time = static_cast<int64_t>(static_cast<double>(i) / count * static_cast<double>(duration));
                int64_t expected = frameShownAt(time, rate, kFramesInFile);
                if (std::strcmp(mode, "keyframe") == 0) expected = expected / kGop * kGop;
                const std::string file = root + "/media_thumbnail/" + std::to_string(i) + "_64_36.png";
                EXPECT_EQ(numberOfPicture(file), expected % kCycle) << "picture " << i << " at " << time;
            }
        }
    }
}

TEST(FrameTimesCli, MediaThumbnailsOfAFileStartingAtTenSecondsSpreadOverItsOwnLength) {
    TempFolder folder;
    const Rate rate{"25", 25, 1};
    const std::string media = grey(folder, "late.mkv", rate, 75, "-output_ts_offset 10");
    const std::string root = folder.file("root");
    const CliTest::CliRun run =
        runMiravel(folder, "media '" + media + "' --root '" + root + "' --count 75 --box 64x36");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    // 3 s of pictures, picture i at i / 75 of them (in double, truncated),
    // each showing the frame of its 40 ms: none is the last frame but the last.
    for (int i = 0; i < 75; ++i) {
        const auto time = static_cast<int64_t>(static_cast<double>(i) / 75 * 30'000'000.0);
        EXPECT_EQ(numberOfPicture(root + "/media_thumbnail/" + std::to_string(i) + "_64_36.png"),
                  (time / 400'000) % kCycle)
            << "picture " << i;
    }
}

// ---------------------------------------------------------------------------
// The timeline picture

// A document of one clip 48 frames long, rendered 402 pixels wide: the clip
// fills the lane, whose 384 inner columns hold four 96 x 54 pictures, slot s
// at the clip time mark in + 48 frames x s / 4.
struct Strip {
    std::vector<int> numbers;
};

Strip renderStrip(const TempFolder& folder, const std::string& name, const Json& clip) {
    const std::string document = writeVideoDocument(folder, name + ".otio", Json::array({clip}));
    const std::string out = folder.file(name + ".png");
    const CliTest::CliRun run = runMiravel(folder, "render '" + document + "' --out '" + out + "' --width 402");
    Strip strip;
    EXPECT_EQ(run.exitCode, 0) << run.err;
    if (run.exitCode != 0) return strip;
    for (int slot = 0; slot < 4; ++slot) strip.numbers.push_back(numberOfPicture(out, 9 + 96 * slot + 48, 26 + 2 + 27));
    return strip;
}

class RenderedStrip : public ::testing::Test {
protected:
    const Rate rate_{"24000/1001", 24000, 1001};
    static constexpr int kFirst = 13;
    static constexpr int kLength = 48;

    // The frame shown at media position, and the clip's times.
    int64_t shown(int64_t position) const { return frameShownAt(position, rate_, 120) % kCycle; }
    int64_t markIn() const { return std::llround(kFirst / (24000.0 / 1001.0) * 1e7); }
    int64_t length() const { return std::llround(kLength / (24000.0 / 1001.0) * 1e7); }
    int64_t slotOffset(int slot) const { return static_cast<int64_t>(static_cast<double>(length()) * slot / 4); }
    Json warp(double scalar) const {
        return Json::array({Json{{"OTIO_SCHEMA", "LinearTimeWarp.1"}, {"time_scalar", scalar}}});
    }

    TempFolder folder_;
    std::string media_ = grey(folder_, "strip.mp4", rate_, 120);
};

TEST_F(RenderedStrip, AClipStartingAtFrameKShowsFrameKFirst) {
    const Strip strip = renderStrip(folder_, "forward", clipOfFrames("Shot", media_, kFirst, kLength, rate_));
    ASSERT_EQ(strip.numbers.size(), 4u);
    EXPECT_EQ(strip.numbers[0], kFirst % kCycle);
    for (int slot = 0; slot < 4; ++slot) EXPECT_EQ(strip.numbers[slot], shown(markIn() + slotOffset(slot))) << slot;
}

TEST_F(RenderedStrip, AReversedClipRunsBackwardsFromItsMarkOut) {
    const Strip strip =
        renderStrip(folder_, "reversed", clipOfFrames("Shot", media_, kFirst, kLength, rate_, warp(-1.0)));
    ASSERT_EQ(strip.numbers.size(), 4u);
    const int64_t markOut = markIn() + length();
    for (int slot = 0; slot < 4; ++slot)
        EXPECT_EQ(strip.numbers[slot], shown(markIn() + markOut - (markIn() + slotOffset(slot)))) << slot;
    EXPECT_GT((strip.numbers[0] - strip.numbers[3] + kCycle) % kCycle, 0);
}

TEST_F(RenderedStrip, AFrozenClipRepeatsItsFirstPicture) {
    const Json freeze = Json::array({Json{{"OTIO_SCHEMA", "FreezeFrame.1"}, {"time_scalar", 0.0}}});
    const Strip strip = renderStrip(folder_, "frozen", clipOfFrames("Shot", media_, kFirst, kLength, rate_, freeze));
    ASSERT_EQ(strip.numbers.size(), 4u);
    for (int slot = 0; slot < 4; ++slot) EXPECT_EQ(strip.numbers[slot], kFirst % kCycle) << slot;
}

TEST_F(RenderedStrip, ATwiceAsFastClipShowsEverySecondFrame) {
    const Strip strip = renderStrip(folder_, "fast", clipOfFrames("Shot", media_, kFirst, 24, rate_, warp(2.0)));
    ASSERT_EQ(strip.numbers.size(), 4u);
    const int64_t length = std::llround(24 / (24000.0 / 1001.0) * 1e7);
    for (int slot = 0; slot < 4; ++slot) {
        const int64_t offset = static_cast<int64_t>(static_cast<double>(length) * slot / 4);
        EXPECT_EQ(strip.numbers[slot], shown(markIn() + std::llround(static_cast<double>(offset) * 2.0))) << slot;
    }
}

// ---------------------------------------------------------------------------
// Damaged media

// A clip whose file opens but whose pictures and sound cannot be decoded, in
// a document of ten clips: the commands end as soon as the failure is known
// (well within the generous limit given here), name the clip, its file and
// the cause in one line, and exit 1.
TEST(DamagedMediaCli, ADamagedClipEndsAudioVideoAndRenderAtOnceNamingTheClip) {
    TempFolder folder;
    const std::string good = folder.file("good.mp4");
    ASSERT_TRUE(
        MediaTest::ffmpeg("-f lavfi -i testsrc2=size=160x90:rate=25 -f lavfi -i sine=f=440 -t 2 -c:v libx264 "
                          "-pix_fmt yuv420p -c:a aac -movflags +faststart '" +
                          good + "'"));
    // The same file with everything after the start of its media data
    // zeroed: its streams are described, none of their packets decode.
    std::vector<char> bytes = MediaTest::readBytes(good);
    const std::string text(bytes.begin(), bytes.end());
    const size_t data = text.find("mdat");
    ASSERT_NE(data, std::string::npos);
    std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(data + 68), bytes.end(), '\0');
    const std::string bad = folder.file("bad.mp4");
    MediaTest::writeText(bad, std::string(bytes.begin(), bytes.end()));

    const Rate rate{"25", 25, 1};
    Json clips = Json::array();
    for (int i = 0; i < 10; ++i)
        clips.push_back(clipOfFrames(i == 6 ? "Bad" : "Good " + std::to_string(i), i == 6 ? bad : good, 0, 40, rate));
    const std::string document = writeVideoDocument(folder, "damaged.otio", clips);

    for (const std::string& command : {"audio '" + document + "' --clip Bad --points 100",
                                       "video '" + document +
                                           "' --clip Bad --times 0,10000000 "
                                           "--size 64x36 --out '" +
                                           folder.file("pictures") + "'",
                                       "render '" + document + "' --out '" + folder.file("timeline.png") + "'"}) {
        SCOPED_TRACE(command);
        const CliTest::CliRun run = runMiravel(folder, command + " --timeout 120");
        EXPECT_EQ(run.exitCode, 1);
        EXPECT_TRUE(run.out.empty()) << run.out;
        const std::string line = run.err.substr(run.err.rfind("miravel: "));
        EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << line;
        EXPECT_NE(line.find(document + ": clip 'Bad': '" + bad + "': "), std::string::npos) << line;
        EXPECT_NE(line.find("Invalid data found when processing input"), std::string::npos) << line;
        EXPECT_EQ(line.find("within"), std::string::npos) << "waited for the limit: " << line;
    }
}

}  // namespace

namespace {

// A file name in another encoding than UTF-8: the JSON printed stays valid
// UTF-8, the stray byte shown as U+FFFD.
TEST(JsonOutputCli, NamesThatAreNotUtf8GiveValidJson) {
    ZOR::test::TempFolder folder;
    const Rate rate{"25", 25, 1};
    const std::string media = grey(folder, "clip.mp4", rate, 10);
    const std::string root = folder.file(std::string("r\xff") + "\xc3\xa9");  // a stray byte, then a real é
    const CliTest::CliRun run = runMiravel(folder, "media '" + media + "' --root '" + root + "' --count 2 --box 16x9");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const Json json = Json::parse(run.out);  // throws on text that is not UTF-8
    EXPECT_EQ(json.at("root").get<std::string>(), folder.file("r\xef\xbf\xbd\xc3\xa9"));
    EXPECT_EQ(json.at("files").size(), 2u);
}

}  // namespace

namespace {

// Every command tells its own usage, from the one table the arguments are
// read from.
TEST(UsageCli, EveryCommandTellsItsUsageWithHelp) {
    ZOR::test::TempFolder folder;
    for (const std::string command : {"wave", "frames", "audio", "video", "render", "media", "demo"}) {
        const CliTest::CliRun run = runMiravel(folder, command + " --help");
        EXPECT_EQ(run.exitCode, 0) << command;
        EXPECT_EQ(run.out.rfind("usage: miravel " + command, 0), 0u) << run.out;
        EXPECT_NE(run.out.find("--timeout SECONDS"), std::string::npos) << run.out;
        EXPECT_TRUE(run.err.empty()) << run.err;
    }
    const CliTest::CliRun frames = runMiravel(folder, "frames --help");
    EXPECT_NE(frames.out.find("  --size WxH              the box the pictures are fitted into\n"), std::string::npos)
        << frames.out;
    // Options are taken from the same table: one not listed is refused.
    const CliTest::CliRun wrong = runMiravel(folder, "render doc.otio --out x.png --size 4x4");
    EXPECT_EQ(wrong.exitCode, 2);
    EXPECT_EQ(wrong.err.rfind("miravel: unknown option --size\n", 0), 0u) << wrong.err;
}

}  // namespace
