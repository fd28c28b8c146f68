// The shared frame decoder: which frame each media time shows, at the frame
// rates cameras, phones and the web use, in files whose timestamps start
// late or vary, in both seek modes; where streams end; and its options.
//
// The test media are grey pictures whose luma encodes the frame number
// (16 + 8 x (n mod 28), coded losslessly), so the frame a picture comes from
// is read back from its pixels, and each frame's time is computed here from
// the rate the file was made at.
#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "AvShared/AvFrameDecoder.h"
#include "AvShared/AvPicture.h"

#include "MediaTestSupport.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace {

using ZOR::av::FrameDecoder;
using ZOR::av::FrameDecoderOptions;

constexpr int kCycle = 28;

// The frame number (mod kCycle) a decoded picture shows.
int frameNumber(const AVFrame* frame) {
    const int y = frame->data[0][(frame->height / 2) * frame->linesize[0] + frame->width / 2];
    return (y - 16 + 4) / 8;
}

// A grey test clip: frames at rate num/den, keyframes every `gop` frames.
std::string makeClip(const ZOR::test::TempFolder& folder, const std::string& name, const std::string& rate, int frames,
                     int gop, const std::string& extra = "") {
    const std::string path = folder.file(name);
    MediaTest::ffmpeg("-f lavfi -i \"color=black:size=64x36:rate=" + rate +
                      ",format=yuv420p,geq=lum='16+8*mod(N\\,28)':cb=128:cr=128\" -frames:v " + std::to_string(frames) +
                      " -c:v libx264 -qp 0 -pix_fmt yuv420p -g " + std::to_string(gop) + " -keyint_min " +
                      std::to_string(gop) + " -sc_threshold 0 " + extra + " \"" + path + "\"");
    return path;
}

// round(k x den x 10^7 / num): the media time of frame k at rate num/den,
// rounded to the nearest cns (halves up; times here are positive).
int64_t frameTime(int64_t k, int64_t num, int64_t den) {
    return (2 * k * den * 10'000'000 + num) / (2 * num);  // small frame numbers: no overflow
}

struct Shown {
    int number = -1;  // mod kCycle
    int64_t time = 0;
};

Shown shownAt(FrameDecoder& decoder, int64_t time, bool keyframe = false) {
    const AVFrame* frame = nullptr;
    Shown shown;
    std::string cause;
    const int result = decoder.frameAt(time, keyframe, &frame, &shown.time, &cause);
    EXPECT_EQ(result, 0) << cause;
    if (result == 0) shown.number = frameNumber(frame);
    return shown;
}

struct Rate {
    const char* text;
    int64_t num;
    int64_t den;
    const char* container;
};

void PrintTo(const Rate& rate, std::ostream* out) { *out << rate.text << " fps in " << rate.container; }

class FrameTimes : public ::testing::TestWithParam<Rate> {};

// At each rate: asking at a frame's own time gives that frame, and asking
// 1 cns earlier gives the frame before, one decoder asked in order, fresh
// decoders asked once, and a decoder with a plan.
TEST_P(FrameTimes, AFrameIsShownFromItsOwnTimeAndNotOneCnsEarlier) {
    const Rate rate = GetParam();
    ZOR::test::TempFolder folder;
    const std::string path = makeClip(folder, std::string("clip.") + rate.container, rate.text, 90, 12, "-bf 2");
    const std::vector<int64_t> frames = {1, 2, 11, 12, 13, 29, 47, 60, 89};

    FrameDecoder ordered(path, -1, nullptr);
    FrameDecoder planned(path, -1, nullptr);
    std::vector<int64_t> plan;
    for (int64_t k : frames) {
        plan.push_back(frameTime(k, rate.num, rate.den) - 1);
        plan.push_back(frameTime(k, rate.num, rate.den));
    }
    planned.plan(plan);
    for (int64_t k : frames) {
        const int64_t time = frameTime(k, rate.num, rate.den);
        for (FrameDecoder* decoder : {&ordered, &planned}) {
            const Shown before = shownAt(*decoder, time - 1);
            EXPECT_EQ(before.number, (k - 1) % kCycle) << rate.text << " frame " << k << " at " << time - 1;
            EXPECT_EQ(before.time, frameTime(k - 1, rate.num, rate.den));
            const Shown at = shownAt(*decoder, time);
            EXPECT_EQ(at.number, k % kCycle) << rate.text << " frame " << k << " at " << time;
            EXPECT_EQ(at.time, time);
        }
        FrameDecoder fresh(path, -1, nullptr);
        EXPECT_EQ(shownAt(fresh, time).number, k % kCycle) << rate.text << " frame " << k << ", fresh";
        FrameDecoder freshBefore(path, -1, nullptr);
        EXPECT_EQ(shownAt(freshBefore, time - 1).number, (k - 1) % kCycle) << rate.text << " frame " << k << ", fresh";
    }
}

// In keyframe mode a time shows the keyframe at or before it: a keyframe's
// own time shows it, 1 cns earlier the keyframe before.
TEST_P(FrameTimes, AKeyframeIsShownFromItsOwnTimeAndNotOneCnsEarlier) {
    const Rate rate = GetParam();
    ZOR::test::TempFolder folder;
    const std::string path = makeClip(folder, std::string("clip.") + rate.container, rate.text, 90, 12, "-bf 2");
    FrameDecoder decoder(path, -1, nullptr);
    for (int64_t k : {12, 36, 84, 24}) {
        const int64_t time = frameTime(k, rate.num, rate.den);
        EXPECT_EQ(shownAt(decoder, time, true).number, k % kCycle) << rate.text << " keyframe " << k;
        EXPECT_EQ(shownAt(decoder, time - 1, true).number, (k - 12) % kCycle) << rate.text << " before keyframe " << k;
        EXPECT_EQ(shownAt(decoder, time + frameTime(11, rate.num, rate.den), true).number, k % kCycle);
    }
}

INSTANTIATE_TEST_SUITE_P(Rates, FrameTimes,
                         ::testing::Values(Rate{"24000/1001", 24000, 1001, "mp4"}, Rate{"24", 24, 1, "mp4"},
                                           Rate{"25", 25, 1, "mp4"}, Rate{"30000/1001", 30000, 1001, "mp4"},
                                           Rate{"50", 50, 1, "mov"}, Rate{"60000/1001", 60000, 1001, "mp4"}),
                         [](const ::testing::TestParamInfo<Rate>& rate) {
                             std::string name = rate.param.text;
                             for (char& c : name)
                                 if (c == '/') c = '_';
                             return "At" + name + "fps";
                         });

// A file whose frames last unequal times: each frame is shown from its own
// time (milliseconds here, as the container keeps them).
TEST(FrameDecoder, VariableFrameRateFramesAreShownFromTheirOwnTimes) {
    ZOR::test::TempFolder folder;
    // Frame k at k x 40 ms plus 20 ms for every third frame before it.
    const std::string path =
        makeClip(folder, "vfr.mkv", "25", 60, 10,
                 "-vf \"settb=1/1000,setpts=N*40+floor(N/3)*20\" -fps_mode vfr -enc_time_base 1/1000");
    auto time = [](int64_t k) { return (k * 40 + (k / 3) * 20) * 10'000; };
    FrameDecoder decoder(path, -1, nullptr);
    for (int64_t k : {1, 3, 4, 9, 10, 11, 30, 59}) {
        EXPECT_EQ(shownAt(decoder, time(k) - 1).number, (k - 1) % kCycle) << "frame " << k;
        const Shown at = shownAt(decoder, time(k));
        EXPECT_EQ(at.number, k % kCycle) << "frame " << k;
        EXPECT_EQ(at.time, time(k));
    }
}

// Timestamps that start at 10 s: media time 0 is the first frame, and the
// stream lasts its own length, not the container's 10 s more.
TEST(FrameDecoder, TimestampsStartingLateCountFromTheFirstFrame) {
    ZOR::test::TempFolder folder;
    const std::string path = makeClip(folder, "late.mkv", "25", 75, 25, "-output_ts_offset 10");
    FrameDecoder decoder(path, -1, nullptr);
    std::string cause;
    ASSERT_TRUE(decoder.open(&cause)) << cause;
    EXPECT_EQ(decoder.duration(), 3 * 10'000'000);
    EXPECT_EQ(shownAt(decoder, 0).number, 0);
    EXPECT_EQ(shownAt(decoder, 1'000'000 * 4 - 1).number, 9);
    EXPECT_EQ(shownAt(decoder, 1'000'000 * 4).number, 10);
    EXPECT_EQ(shownAt(decoder, 29'600'000).number, 74 % kCycle);
    EXPECT_EQ(shownAt(decoder, 10 * 10'000'000).number, 74 % kCycle);
}

TEST(FrameDecoder, AStreamThatTellsItsDurationKeepsIt) {
    ZOR::test::TempFolder folder;
    const std::string path = makeClip(folder, "clip.mp4", "25", 50, 25);
    FrameDecoder decoder(path, -1, nullptr);
    std::string cause;
    ASSERT_TRUE(decoder.open(&cause)) << cause;
    EXPECT_EQ(decoder.duration(), 2 * 10'000'000);
    // Finding the duration leaves the decoder able to decode from anywhere.
    EXPECT_EQ(shownAt(decoder, 4'000'000).number, 10);
}

// A transport stream has no keyframe index: a seek by timestamp lands inside
// a group of pictures, and the packets up to its next keyframe are dropped,
// so the pictures are those of a decode from the start.
TEST(FrameDecoder, AfterASeekDecodingStartsAtAKeyframe) {
    ZOR::test::TempFolder folder;
    const std::string path = makeClip(folder, "clip.ts", "25", 250, 50, "-bf 0");
    FrameDecoder waiting(path, -1, nullptr);
    for (int64_t k : {170, 230, 120}) {
        const Shown shown = shownAt(waiting, k * 400'000);
        EXPECT_EQ(shown.number, k % kCycle) << "frame " << k;
    }
    EXPECT_GT(waiting.counts().seeks, 0);
    EXPECT_GT(waiting.counts().dropped, 0);

    FrameDecoderOptions options;
    options.awaitKeyAfterSeek = false;
    FrameDecoder eager(path, -1, nullptr, options);
    for (int64_t k : {170, 230, 120}) shownAt(eager, k * 400'000);
    EXPECT_GT(eager.counts().seeks, 0);
    EXPECT_EQ(eager.counts().dropped, 0);
}

// A stop asked for between packets ends the picture at once.
TEST(FrameDecoder, AStopEndsThePictureWithTheStoppedCode) {
    ZOR::test::TempFolder folder;
    const std::string path = makeClip(folder, "clip.mp4", "25", 100, 100);
    FrameDecoder decoder(path, -1, nullptr);
    decoder.setStop([] { return true; });
    const AVFrame* frame = nullptr;
    int64_t shown = 0;
    std::string cause;
    EXPECT_EQ(decoder.frameAt(30'000'000, false, &frame, &shown, &cause), FrameDecoder::kStopped);
    EXPECT_EQ(cause, "stopped");
    decoder.setStop(nullptr);
    EXPECT_EQ(shownAt(decoder, 30'000'000).number, 75 % kCycle);
}

// The head of an MP4 without the rest: no picture, and the cause, at once.
TEST(FrameDecoder, ATruncatedFileFailsWithItsCause) {
    ZOR::test::TempFolder folder;
    const std::string path = makeClip(folder, "clip.mp4", "25", 100, 25, "-movflags +faststart");
    const std::vector<char> bytes = MediaTest::readBytes(path);
    const std::string cut = folder.file("cut.mp4");
    MediaTest::writeText(cut,
                         std::string(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(bytes.size() / 20)));
    FrameDecoder decoder(cut, -1, nullptr);
    const AVFrame* frame = nullptr;
    int64_t shown = 0;
    std::string cause;
    const int result = decoder.frameAt(20'000'000, false, &frame, &shown, &cause);
    EXPECT_LT(result, 0);
    EXPECT_FALSE(cause.empty());
}

TEST(FrameDecoder, AStreamThatIsNotVideoIsRefusedByName) {
    ZOR::test::TempFolder folder;
    const std::string path = folder.file("sound.mkv");
    MediaTest::ffmpeg("-f lavfi -i \"color=black:size=64x36:rate=25\" -f lavfi -i sine -t 1 -c:v libx264 -c:a flac \"" +
                      path + "\"");
    FrameDecoder decoder(path, 1, nullptr);
    std::string cause;
    EXPECT_FALSE(decoder.open(&cause));
    EXPECT_EQ(cause, "stream 1 is not a video stream");
    FrameDecoder missing(path, 7, nullptr);
    EXPECT_FALSE(missing.open(&cause));
    EXPECT_EQ(cause, "no stream 7");
}

}  // namespace

namespace {

// Streams whose packets carry no presentation times (a raw H.264 stream, an
// AVI file with packed B-frames): frame n shows from n / rate on, as players
// time them.
TEST(FrameDecoder, StreamsWithoutPresentationTimesAreTimedByTheOrderOfTheirFrames) {
    ZOR::test::TempFolder folder;
    const std::string raw = makeClip(folder, "raw.h264", "25", 50, 12, "-bf 2 -f h264");
    const std::string avi = folder.file("packed.avi");
    MediaTest::ffmpeg(
        "-f lavfi -i \"color=black:size=64x36:rate=25,format=yuv420p,geq=lum='16+8*mod(N\\,28)':cb=128:"
        "cr=128\" -frames:v 50 -c:v mpeg4 -bf 2 -q:v 2 \"" +
        avi + "\"");
    for (const std::string& path : {raw, avi}) {
        SCOPED_TRACE(path);
        FrameDecoder decoder(path, -1, nullptr);
        for (int64_t k : {0, 1, 3, 6, 10, 9, 2, 49}) {
            const Shown at = shownAt(decoder, k * 400'000);
            EXPECT_EQ(at.number, k % kCycle) << "frame " << k;
            EXPECT_EQ(at.time, k * 400'000);
            if (k > 0) {
                EXPECT_EQ(shownAt(decoder, k * 400'000 - 1).number, (k - 1) % kCycle) << "before frame " << k;
            }
        }
        // Keyframe pictures of such a stream are exact ones.
        EXPECT_EQ(shownAt(decoder, 7 * 400'000, true).number, 7);
    }
}

// A pipe would block the open for as long as nobody writes.
TEST(FrameDecoder, AnythingButARegularFileIsRefusedAtOnce) {
    ZOR::test::TempFolder folder;
    const std::string pipe = folder.file("pipe.mp4");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    FrameDecoder fromPipe(pipe, -1, nullptr);
    std::string cause;
    EXPECT_FALSE(fromPipe.open(&cause));
    EXPECT_EQ(cause, "not a regular file");
    FrameDecoder fromFolder(folder.path().string(), -1, nullptr);
    EXPECT_FALSE(fromFolder.open(&cause));
    EXPECT_EQ(cause, "not a regular file");
}

}  // namespace

namespace ZOR::test {
namespace {

// A frame whose colour space field holds value, as a decoder copies it from
// a damaged bitstream.
av::FramePtr frameOfColourSpace(int value, int height) {
    av::FramePtr frame = av::newFrame();
    frame->height = height;
    std::memcpy(&frame->colorspace, &value, sizeof value);
    std::memcpy(&frame->color_range, &value, sizeof value);
    frame->format = AV_PIX_FMT_YUV420P;
    return frame;
}

// Found by the frame_at fuzz target: a ProRes frame whose colour matrix byte
// was 182.
TEST(Picture, AColourSpaceThatIsNoneOfTheKnownOnesConvertsAsAnUntaggedPicture) {
    for (int value : {182, 255, -1, 1 << 30}) {
        SCOPED_TRACE(value);
        EXPECT_EQ(av::swsColorspace(frameOfColourSpace(value, 480).get()), SWS_CS_ITU601);
        EXPECT_EQ(av::swsColorspace(frameOfColourSpace(value, 1080).get()), SWS_CS_ITU709);
        EXPECT_FALSE(av::fullRange(frameOfColourSpace(value, 480).get()));
    }
    EXPECT_EQ(av::swsColorspace(frameOfColourSpace(AVCOL_SPC_BT709, 480).get()), SWS_CS_ITU709);
    EXPECT_EQ(av::swsColorspace(frameOfColourSpace(AVCOL_SPC_BT2020_NCL, 480).get()), SWS_CS_BT2020);
    EXPECT_TRUE(av::fullRange(frameOfColourSpace(AVCOL_RANGE_JPEG, 480).get()));
}

}  // namespace
}  // namespace ZOR::test
