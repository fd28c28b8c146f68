#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "ThumbAdapterInternal.h"
#include "Adapter/Adapter.h"
#include "CapturingLogger.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmTimeline.h"
#include "MediaTestSupport.h"
#include "TimelineDescs.h"

namespace ZOR::test {
namespace {

using MediaTest::ffmpeg;

constexpr int64_t kSecond = 10'000'000;
constexpr int64_t kFrame = 400'000;  // 25 frames per second
constexpr int32_t kOk = 0;

// ---------------------------------------------------------------------------
// Pictures

using Rgb = std::array<int, 3>;

// The colour of each second of the colour video, in order.
const std::vector<Rgb>& palette() {
    static const std::vector<Rgb> colours{
        {255, 0, 0},   {0, 255, 0},     {0, 0, 255}, {255, 255, 0},   {0, 255, 255},
        {255, 0, 255}, {255, 255, 255}, {0, 0, 0},   {128, 128, 128}, {255, 128, 0},
    };
    return colours;
}

std::string hex(const Rgb& colour) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%02X%02X%02X", colour[0], colour[1], colour[2]);
    return text;
}

constexpr int kClear = -1;
constexpr int kOther = -2;

struct Picture {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> rgba;

    Picture() = default;
    Picture(int w, int h) : width(w), height(h), rgba(static_cast<size_t>(w) * h * 4, 0xAB) {}
    const unsigned char* at(int x, int y) const { return rgba.data() + (static_cast<size_t>(y) * width + x) * 4; }
    // The palette index of pixel (x, y) (within the error of a YUV 4:2:0
    // round trip), kClear for (0, 0, 0, 0), kOther otherwise.
    int colourAt(int x, int y) const {
        const unsigned char* p = at(x, y);
        if (p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 0) return kClear;
        if (p[3] != 255) return kOther;
        for (size_t i = 0; i < palette().size(); ++i) {
            const Rgb& c = palette()[i];
            if (std::abs(p[0] - c[0]) <= 40 && std::abs(p[1] - c[1]) <= 40 && std::abs(p[2] - c[2]) <= 40)
                return static_cast<int>(i);
        }
        return kOther;
    }
    int centreColour() const { return colourAt(width / 2, height / 2); }
};

// The colour the colour video shows at time (exact), and the colour of the
// keyframe at or before time (a keyframe every 2 s).
int colourOfSecond(int64_t time) { return static_cast<int>(std::clamp<int64_t>(time / kSecond, 0, 9)); }
int colourOfKeyframe(int64_t time) { return 2 * static_cast<int>(std::clamp<int64_t>(time / (2 * kSecond), 0, 4)); }

constexpr int kNumberedWidth = 128;
constexpr int kNumberedHeight = 64;
constexpr int kNumberedFrames = 250;

// The frame number the band of a numbered picture spells, or -1.
int numberOf(const Picture& picture) { return MediaTest::numberOfBand(picture.rgba.data(), picture.width); }

// ---------------------------------------------------------------------------
// Media, each file made when a test first needs it (ctest runs every test in
// a process of its own)

class Media {
public:
    const std::string& colours() {
        // 10 s at 25/1, 320x180: a colour of the palette each second, a
        // keyframe every 2 s and B-frames in a pyramid.
        return made(colours_, "colours.mp4", [&](const std::string& path) {
            MediaTest::ColourVideo video;
            for (const Rgb& colour : palette()) video.colours.push_back(hex(colour));
            video.width = 320;
            video.height = 180;
            video.encoding = MediaTest::kH264Pyramid;
            return ffmpeg(MediaTest::colourVideoArguments(path, video));
        });
    }
    const std::string& coloursTs() {
        // The same in an MPEG transport stream: no keyframe index, seeks by
        // timestamps, and a start time other than 0.
        return made(coloursTs_, "colours.ts", [&](const std::string& path) {
            return ffmpeg("-i '" + colours() + "' -c copy -f mpegts '" + path + "'");
        });
    }
    const std::string& numbered() {
        // 10 s at 25/1, 128x64: a moving test pattern under a band that
        // spells each frame's number; most pictures depend on others, and
        // many frames are never referred to.
        return made(numbered_, "numbered.mp4", [&](const std::string& path) {
            return ffmpeg(MediaTest::numberedVideoArguments(path, 128, 64, 10));
        });
    }
    const std::string& longGroup() {
        // 60 s at 25/1, 640x360, one keyframe and no B-frames: the last
        // picture depends on all 1,500 frames.
        return made(longGroup_, "longgroup.mp4", [&](const std::string& path) {
            return ffmpeg(
                "-f lavfi -i \"testsrc2=s=640x360:r=25:d=60\" -c:v libx264 -preset ultrafast "
                "-pix_fmt yuv420p -x264-params keyint=1500:min-keyint=1500:scenecut=0:bframes=0 '" +
                path + "'");
        });
    }
    const std::string& rotated() {
        // 320x180 whose top half is blue and bottom half red, turned a
        // quarter by its display matrix.
        return made(rotated_, "rotated.mp4", [&](const std::string& path) {
            const std::string plain = folder_.file("halves.mp4");
            return ffmpeg(
                       "-f lavfi -i \"color=c=0xFF0000:s=320x180:r=25:d=1\" -vf "
                       "\"drawbox=x=0:y=0:w=320:h=90:color=0x0000FF:t=fill\" -c:v libx264 -pix_fmt yuv420p '" +
                       plain + "'") &&
                   ffmpeg("-i '" + plain + "' -c copy -metadata:s:v rotate=90 '" + path + "'");
        });
    }
    const std::string& rotatedReference() {
        // The player's own view of the rotated video, upright.
        return made(rotatedReference_, "rotated.rgba", [&](const std::string& path) {
            return ffmpeg("-i '" + rotated() + "' -frames:v 1 -f rawvideo -pix_fmt rgba '" + path + "'");
        });
    }
    const std::string& anamorphic() {
        // 160x180 pixels twice as wide as high: a 320x180 picture, left half
        // green and right half blue.
        return made(anamorphic_, "anamorphic.mp4", [&](const std::string& path) {
            return ffmpeg(
                "-f lavfi -i \"color=c=0x0000FF:s=160x180:r=25:d=1\" -vf "
                "\"drawbox=x=0:y=0:w=80:h=180:color=0x00FF00:t=fill,setsar=2/1\" -c:v libx264 "
                "-pix_fmt yuv420p '" +
                path + "'");
        });
    }
    const std::string& sound() {
        return made(sound_, "sound.wav", [&](const std::string& path) {
            return ffmpeg("-f lavfi -i \"sine=f=440:r=44100:d=1\" '" + path + "'");
        });
    }
    const std::string& soundFirst() {
        // Sound as stream 0, a green video as stream 1.
        return made(soundFirst_, "soundfirst.mp4", [&](const std::string& path) {
            return ffmpeg(
                "-f lavfi -i \"color=c=0x00FF00:s=64x36:r=25:d=1\" -f lavfi -i \"sine=f=440:r=44100:d=1\" "
                "-map 1:a -map 0:v -c:v libx264 -pix_fmt yuv420p -c:a aac '" +
                path + "'");
        });
    }
    const std::string& text() {
        return made(text_, "notes.txt", [&](const std::string& path) {
            MediaTest::writeText(path, "these are not pictures\n");
            return true;
        });
    }
    std::string file(const std::string& name) const { return folder_.file(name); }
    std::string folder() const { return folder_.path().string(); }

private:
    template <class Make>
    const std::string& made(std::string& path, const std::string& name, Make make) {
        if (path.empty()) {
            const std::string target = folder_.file(name);
            EXPECT_TRUE(make(target)) << "cannot make " << name;
            path = target;
        }
        return path;
    }

    TempFolder folder_;
    std::string colours_;
    std::string coloursTs_;
    std::string numbered_;
    std::string longGroup_;
    std::string rotated_;
    std::string rotatedReference_;
    std::string anamorphic_;
    std::string sound_;
    std::string soundFirst_;
    std::string text_;
};

// ---------------------------------------------------------------------------
// Fixture

class ThumbAdapterTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { media_ = new Media(); }
    static void TearDownTestSuite() {
        delete media_;
        media_ = nullptr;
    }
    static Media& media() { return *media_; }

    static ZorRef<IThumbAdapter> newAdapter() {
        auto adapter = ZorRef<IThumbAdapter>::adopt(createThumbAdapter());
        EXPECT_NE(adapter, nullptr);
        return adapter;
    }
    // An adapter with path open at width x height in mode.
    static ZorRef<IThumbAdapter> openFile(const std::string& path, int32_t width, int32_t height,
                                          int32_t mode = ThumbSeekExact, int32_t stream = -1) {
        ZorRef<IThumbAdapter> adapter = newAdapter();
        EXPECT_EQ(adapter->setMediaPath(path.c_str()), kOk);
        EXPECT_EQ(adapter->setOutputSize(width, height), kOk);
        EXPECT_EQ(adapter->setSeekMode(mode), kOk);
        EXPECT_EQ(adapter->open(stream), kOk) << path;
        return adapter;
    }
    static Picture frame(IThumbAdapter* adapter, int64_t time) {
        int32_t width = 0;
        int32_t height = 0;
        EXPECT_EQ(adapter->outputSize(&width, &height), kOk);
        Picture picture(width, height);
        EXPECT_EQ(adapter->frameAt(time, picture.rgba.data(), static_cast<int64_t>(picture.rgba.size())), kOk)
            << "at " << time;
        return picture;
    }
    static IThumbAdapterInternal* internal(IThumbAdapter* adapter) {
        auto* inner = static_cast<IThumbAdapterInternal*>(adapter->queryInterface("IThumbAdapterInternal"));
        EXPECT_NE(inner, nullptr);
        return inner;
    }
    static ThumbDecodeCounts counts(IThumbAdapter* adapter) {
        IThumbAdapterInternal* inner = internal(adapter);
        return inner != nullptr ? inner->decodeCounts() : ThumbDecodeCounts{};
    }

    static Media* media_;
};

Media* ThumbAdapterTest::media_ = nullptr;

// ---------------------------------------------------------------------------
// The object

TEST_F(ThumbAdapterTest, IsACountedObjectWithItsSettings) {
    ZorRef<IThumbAdapter> adapter = newAdapter();
    EXPECT_EQ(adapter->refCount(), 1);
    EXPECT_EQ(adapter->queryInterface("IThumbAdapter"), static_cast<void*>(adapter.get()));
    EXPECT_EQ(adapter->queryInterface("IDmBaseObj"), static_cast<void*>(adapter.get()));
    EXPECT_EQ(adapter->queryInterface("IDmTimeline"), nullptr);
    EXPECT_EQ(adapter->queryInterface(nullptr), nullptr);

    int32_t mode = -5;
    EXPECT_EQ(adapter->seekMode(&mode), kOk);
    EXPECT_EQ(mode, ThumbSeekExact);
    EXPECT_EQ(adapter->setSeekMode(ThumbSeekKeyframe), kOk);
    EXPECT_EQ(adapter->seekMode(&mode), kOk);
    EXPECT_EQ(mode, ThumbSeekKeyframe);
    EXPECT_EQ(adapter->setSeekMode(2), kResultFailure);
    EXPECT_EQ(adapter->setSeekMode(-1), kResultFailure);
    EXPECT_EQ(adapter->seekMode(&mode), kOk);
    EXPECT_EQ(mode, ThumbSeekKeyframe) << "an unknown mode changes nothing";
    EXPECT_EQ(adapter->seekMode(nullptr), kResultFailure);

    int32_t width = -1;
    int32_t height = -1;
    EXPECT_EQ(adapter->outputSize(&width, &height), kOk);
    EXPECT_EQ(width, 0);
    EXPECT_EQ(height, 0);
    EXPECT_EQ(adapter->setOutputSize(160, 90), kOk);
    EXPECT_EQ(adapter->setOutputSize(0, 90), kResultFailure);
    EXPECT_EQ(adapter->setOutputSize(160, -3), kResultFailure);
    EXPECT_EQ(adapter->setOutputSize(100000, 100000), kResultFailure);
    EXPECT_EQ(adapter->outputSize(&width, &height), kOk);
    EXPECT_EQ(width, 160);
    EXPECT_EQ(height, 90);
    EXPECT_EQ(adapter->outputSize(nullptr, &height), kResultFailure);

    EXPECT_EQ(adapter->setMediaPath(nullptr), kResultFailure);
    EXPECT_EQ(adapter->setMediaObject(0), kResultFailure);
}

TEST_F(ThumbAdapterTest, CallsOutOfOrderAreRefused) {
    test::ScopedCapture capture(IBsLogger::Warning);
    ZorRef<IThumbAdapter> adapter = newAdapter();
    std::vector<unsigned char> buffer(320 * 180 * 4);
    const auto size = static_cast<int64_t>(buffer.size());
    EXPECT_EQ(adapter->open(-1), kResultFailure) << "nothing to open";
    EXPECT_EQ(adapter->frameAt(0, buffer.data(), size), kResultFailure) << "not open";
    int64_t duration = 0;
    int64_t num = 0;
    int64_t den = 0;
    EXPECT_EQ(adapter->mediaDuration(&duration, 0), kResultFailure);
    EXPECT_EQ(adapter->frameRate(&num, &den, 0), kResultFailure);
    EXPECT_EQ(adapter->close(), kOk) << "closing what is not open";

    ASSERT_EQ(adapter->setMediaPath(media().colours().c_str()), kOk);
    ASSERT_EQ(adapter->open(-1), kOk);
    EXPECT_EQ(adapter->frameAt(0, buffer.data(), size), kResultFailure) << "no output size";
    ASSERT_EQ(adapter->setOutputSize(320, 180), kOk);
    EXPECT_EQ(adapter->frameAt(0, buffer.data(), size - 1), kResultFailure) << "a buffer one byte short";
    EXPECT_EQ(adapter->frameAt(0, nullptr, size), kResultFailure);
    EXPECT_EQ(adapter->frameAt(0, buffer.data(), size), kOk);
    EXPECT_EQ(adapter->mediaDuration(nullptr, 0), kResultFailure);
    EXPECT_EQ(adapter->frameRate(nullptr, &den, 0), kResultFailure);

    EXPECT_EQ(adapter->close(), kOk);
    EXPECT_EQ(adapter->frameAt(0, buffer.data(), size), kResultFailure) << "closed";
    EXPECT_EQ(adapter->close(), kOk);
    // The path stays set: open() opens it again.
    ASSERT_EQ(adapter->open(-1), kOk);
    EXPECT_EQ(adapter->frameAt(3 * kSecond, buffer.data(), size), kOk);
}

// ---------------------------------------------------------------------------
// Exact pictures

TEST_F(ThumbAdapterTest, ExactPicturesShowTheColourOfTheTimeAskedFor) {
    ZorRef<IThumbAdapter> adapter = openFile(media().colours(), 320, 180);
    std::vector<int64_t> times;
    // Increasing, including times in the middle of a group of pictures and
    // on both sides of each change of colour.
    for (int64_t t = 0; t < 10 * kSecond; t += 3 * kSecond / 10) times.push_back(t);
    for (int second = 1; second < 10; ++second) {
        times.push_back(second * kSecond - 1);
        times.push_back(second * kSecond);
    }
    std::sort(times.begin(), times.end());
    for (int64_t t : times) EXPECT_EQ(frame(adapter.get(), t).centreColour(), colourOfSecond(t)) << "at " << t;
    // Decreasing.
    for (auto it = times.rbegin(); it != times.rend(); ++it)
        EXPECT_EQ(frame(adapter.get(), *it).centreColour(), colourOfSecond(*it)) << "at " << *it;
    // Random.
    std::mt19937_64 random(7);
    std::uniform_int_distribution<int64_t> anyTime(0, 10 * kSecond - 1);
    for (int i = 0; i < 60; ++i) {
        const int64_t t = anyTime(random);
        EXPECT_EQ(frame(adapter.get(), t).centreColour(), colourOfSecond(t)) << "at " << t;
    }
    // Before the first frame: the first; after the last: the last.
    EXPECT_EQ(frame(adapter.get(), -kSecond).centreColour(), 0);
    EXPECT_EQ(frame(adapter.get(), 60 * kSecond).centreColour(), 9);
    EXPECT_EQ(frame(adapter.get(), std::numeric_limits<int64_t>::min()).centreColour(), 0);
    EXPECT_EQ(frame(adapter.get(), std::numeric_limits<int64_t>::max()).centreColour(), 9);
}

TEST_F(ThumbAdapterTest, ExactPicturesAreTheFramesOfAPlainDecode) {
    // Every frame in order, one after the other: a plain decode.
    ZorRef<IThumbAdapter> plain = openFile(media().numbered(), kNumberedWidth, kNumberedHeight);
    std::vector<Picture> frames;
    for (int n = 0; n < kNumberedFrames; ++n) {
        frames.push_back(frame(plain.get(), n * kFrame + kFrame / 2));
        ASSERT_EQ(numberOf(frames.back()), n);
    }
    EXPECT_EQ(counts(plain.get()).seeks, 0) << "in order, the decoder only moves forward";

    // The same frames asked for in random order, in the middle of groups of
    // pictures: with the frames no picture needs skipped, and with nothing
    // skipped.
    ZorRef<IThumbAdapter> skipping = openFile(media().numbered(), kNumberedWidth, kNumberedHeight);
    ZorRef<IThumbAdapter> full = openFile(media().numbered(), kNumberedWidth, kNumberedHeight);
    ASSERT_NE(internal(full.get()), nullptr);
    internal(full.get())->setFrameSkipping(false);
    std::mt19937_64 generator(11);
    std::uniform_int_distribution<int64_t> anyTime(0, kNumberedFrames * kFrame - 1);
    for (int i = 0; i < 150; ++i) {
        const int64_t t = anyTime(generator);
        const int n = static_cast<int>(t / kFrame);
        for (IThumbAdapter* adapter : {skipping.get(), full.get()}) {
            const Picture picture = frame(adapter, t);
            ASSERT_EQ(numberOf(picture), n) << "at " << t;
            ASSERT_EQ(picture.rgba, frames[static_cast<size_t>(n)].rgba) << "frame " << n << " differs";
        }
    }
    const ThumbDecodeCounts skipped = counts(skipping.get());
    const ThumbDecodeCounts decoded = counts(full.get());
    EXPECT_GT(skipped.discarded, 0) << "frames no picture needed were skipped";
    EXPECT_EQ(skipped.redone, 0);
    EXPECT_EQ(decoded.discarded, 0);
    EXPECT_EQ(skipped.seeks, decoded.seeks);
    EXPECT_LT(skipped.frames, decoded.frames) << "the decoder gave fewer frames";
}

TEST_F(ThumbAdapterTest, TheDecoderMovesForwardWithinAGroupOfPicturesAndSeeksOnlyWhenNeeded) {
    ZorRef<IThumbAdapter> adapter = openFile(media().numbered(), kNumberedWidth, kNumberedHeight);
    auto expectFrame = [&](int64_t t) {
        const Picture picture = frame(adapter.get(), t);
        EXPECT_EQ(numberOf(picture), static_cast<int>(t / kFrame)) << "at " << t;
    };
    // The first group (0 s to 2 s) from the start of the file: no seek.
    expectFrame(2 * kSecond / 10);
    const int64_t opened = counts(adapter.get()).seeks;
    EXPECT_EQ(opened, 0);
    for (int64_t t : {5 * kSecond / 10, 9 * kSecond / 10, 13 * kSecond / 10, 19 * kSecond / 10}) expectFrame(t);
    EXPECT_EQ(counts(adapter.get()).seeks, 0) << "later times in the same group";

    // The same time again, and an earlier one the frame held still shows:
    // nothing decoded.
    const ThumbDecodeCounts held = counts(adapter.get());
    expectFrame(19 * kSecond / 10);
    expectFrame(19 * kSecond / 10 - 10);
    EXPECT_EQ(counts(adapter.get()).seeks, held.seeks);
    EXPECT_EQ(counts(adapter.get()).frames, held.frames);

    // Earlier in the group: back to its keyframe.
    expectFrame(11 * kSecond / 10);
    EXPECT_EQ(counts(adapter.get()).seeks, held.seeks + 1);
    // Later in a group ahead: a seek to that group's keyframe, then forward
    // again without seeking.
    expectFrame(73 * kSecond / 10);
    const int64_t ahead = counts(adapter.get()).seeks;
    EXPECT_EQ(ahead, held.seeks + 2);
    for (int64_t t : {74 * kSecond / 10, 77 * kSecond / 10, 79 * kSecond / 10}) expectFrame(t);
    EXPECT_EQ(counts(adapter.get()).seeks, ahead);
    // Decreasing times, group by group.
    for (int64_t t = 99 * kSecond / 10; t >= 0; t -= 7 * kSecond / 10) expectFrame(t);
}

// ---------------------------------------------------------------------------
// Reading ahead

// The frames of the numbered video at times, one plain decode each.
std::vector<Picture> plainFrames(IThumbAdapter* adapter, const std::vector<int64_t>& times) {
    std::vector<Picture> pictures;
    for (int64_t t : times) {
        int32_t width = 0;
        int32_t height = 0;
        EXPECT_EQ(adapter->outputSize(&width, &height), kOk);
        Picture picture(width, height);
        EXPECT_EQ(adapter->frameAt(t, picture.rgba.data(), static_cast<int64_t>(picture.rgba.size())), kOk);
        pictures.push_back(std::move(picture));
    }
    return pictures;
}

TEST_F(ThumbAdapterTest, PicturesReadAheadAreThoseDecodedInPlace) {
    // Coarse to fine over the numbered video, as a strip is rendered.
    const std::vector<int64_t> times{0,
                                     99 * kSecond / 10,
                                     49 * kSecond / 10,
                                     74 * kSecond / 10,
                                     24 * kSecond / 10,
                                     86 * kSecond / 10,
                                     61 * kSecond / 10,
                                     36 * kSecond / 10,
                                     12 * kSecond / 10,
                                     93 * kSecond / 10};
    ZorRef<IThumbAdapter> plain = openFile(media().numbered(), kNumberedWidth, kNumberedHeight);
    const std::vector<Picture> expected = plainFrames(plain.get(), times);

    ZorRef<IThumbAdapter> ahead = openFile(media().numbered(), kNumberedWidth, kNumberedHeight);
    ASSERT_EQ(ahead->readAhead(times.data(), static_cast<int32_t>(times.size())), kOk);
    for (size_t i = 0; i < times.size(); ++i) {
        const Picture picture = frame(ahead.get(), times[i]);
        EXPECT_EQ(numberOf(picture), static_cast<int>(times[i] / kFrame)) << "at " << times[i];
        EXPECT_EQ(picture.rgba, expected[i].rgba) << "at " << times[i];
    }
    // The lanes did the decoding: the adapter's own decoder was never
    // opened past its open() (one open), while the lanes opened the file
    // and sought.
    const ThumbDecodeCounts counts = this->counts(ahead.get());
    EXPECT_GE(counts.opens, 2);
    EXPECT_GE(counts.seeks, 1);
    EXPECT_GT(counts.frames, 0);
}

TEST_F(ThumbAdapterTest, APlanIsAHintThatFollowsTheCaller) {
    const std::vector<int64_t> times{1 * kSecond, 3 * kSecond, 5 * kSecond, 7 * kSecond, 9 * kSecond};
    ZorRef<IThumbAdapter> plain = openFile(media().numbered(), kNumberedWidth, kNumberedHeight);
    ZorRef<IThumbAdapter> ahead = openFile(media().numbered(), kNumberedWidth, kNumberedHeight);
    ASSERT_EQ(ahead->readAhead(times.data(), static_cast<int32_t>(times.size())), kOk);
    // Skipping ahead drops the times before; they are then decoded in place.
    EXPECT_EQ(frame(ahead.get(), 7 * kSecond).rgba, frame(plain.get(), 7 * kSecond).rgba);
    EXPECT_EQ(frame(ahead.get(), 1 * kSecond).rgba, frame(plain.get(), 1 * kSecond).rgba);
    // A time never planned, then a new plan that replaces the old one.
    EXPECT_EQ(frame(ahead.get(), 2 * kSecond).rgba, frame(plain.get(), 2 * kSecond).rgba);
    const std::vector<int64_t> next{8 * kSecond, 4 * kSecond};
    ASSERT_EQ(ahead->readAhead(next.data(), static_cast<int32_t>(next.size())), kOk);
    EXPECT_EQ(frame(ahead.get(), 4 * kSecond).rgba, frame(plain.get(), 4 * kSecond).rgba);
    EXPECT_EQ(frame(ahead.get(), 9 * kSecond).rgba, frame(plain.get(), 9 * kSecond).rgba);
    // The same time twice in a plan, an empty plan.
    const std::vector<int64_t> twice{6 * kSecond, 6 * kSecond};
    ASSERT_EQ(ahead->readAhead(twice.data(), 2), kOk);
    EXPECT_EQ(frame(ahead.get(), 6 * kSecond).rgba, frame(plain.get(), 6 * kSecond).rgba);
    EXPECT_EQ(frame(ahead.get(), 6 * kSecond).rgba, frame(plain.get(), 6 * kSecond).rgba);
    EXPECT_EQ(ahead->readAhead(nullptr, 0), kOk);
    EXPECT_EQ(frame(ahead.get(), 5 * kSecond).rgba, frame(plain.get(), 5 * kSecond).rgba);
}

TEST_F(ThumbAdapterTest, APlanFollowsTheSizeModeAndFileOpen) {
    const std::vector<int64_t> times{3 * kSecond, 5 * kSecond};
    ZorRef<IThumbAdapter> adapter = openFile(media().numbered(), kNumberedWidth, kNumberedHeight);
    ASSERT_EQ(adapter->readAhead(times.data(), 2), kOk);
    // A new size forgets what was planned at the old one.
    ASSERT_EQ(adapter->setOutputSize(64, 32), kOk);
    EXPECT_EQ(frame(adapter.get(), 3 * kSecond).width, 64);
    ASSERT_EQ(adapter->readAhead(times.data(), 2), kOk);
    const Picture small = frame(adapter.get(), 5 * kSecond);
    EXPECT_EQ(small.width, 64);
    EXPECT_EQ(small.rgba.size(), 64u * 32u * 4u);

    // Keyframe mode: the keyframe at or before each time (one every 2 s).
    ZorRef<IThumbAdapter> colours = openFile(media().colours(), 32, 18, ThumbSeekKeyframe);
    const std::vector<int64_t> seconds{7 * kSecond + kSecond / 2, 3 * kSecond + kSecond / 2};
    ASSERT_EQ(colours->readAhead(seconds.data(), 2), kOk);
    for (int64_t t : seconds) EXPECT_EQ(frame(colours.get(), t).centreColour(), colourOfKeyframe(t)) << t;

    // Another file opened: its pictures, not those planned before.
    ASSERT_EQ(colours->setSeekMode(ThumbSeekExact), kOk);
    ASSERT_EQ(colours->readAhead(seconds.data(), 2), kOk);
    ASSERT_EQ(colours->setMediaPath(media().numbered().c_str()), kOk);
    ASSERT_EQ(colours->open(-1), kOk);
    EXPECT_EQ(numberOf(frame(colours.get(), seconds[0])), -1) << "32x18 is too small for the band";
    ASSERT_EQ(colours->setOutputSize(kNumberedWidth, kNumberedHeight), kOk);
    ASSERT_EQ(colours->readAhead(seconds.data(), 2), kOk);
    EXPECT_EQ(numberOf(frame(colours.get(), seconds[0])), static_cast<int>(seconds[0] / kFrame));

    // Closed: nothing planned is given, and the adapter refuses.
    ASSERT_EQ(colours->readAhead(seconds.data(), 2), kOk);
    ASSERT_EQ(colours->close(), kOk);
    std::vector<unsigned char> buffer(static_cast<size_t>(kNumberedWidth) * kNumberedHeight * 4);
    EXPECT_EQ(colours->frameAt(seconds[1], buffer.data(), static_cast<int64_t>(buffer.size())), kResultFailure);
}

TEST_F(ThumbAdapterTest, AClosedFileStopsThePictureBeingReadAhead) {
    const int64_t last = 60 * kSecond - kFrame / 2;  // frame 1499, 1,500 frames from the keyframe
    // Read ahead and taken: the lane decodes every frame up to it.
    ZorRef<IThumbAdapter> whole = openFile(media().longGroup(), 64, 36);
    ASSERT_EQ(whole->readAhead(&last, 1), kOk);
    frame(whole.get(), last);
    internal(whole.get())->waitForReadAhead();
    EXPECT_GE(counts(whole.get()).frames, 1500);

    // Read ahead, then the file closed at once: the lane stops reading
    // (long before the 1,500 frames, or before it starts).
    ZorRef<IThumbAdapter> closed = openFile(media().longGroup(), 64, 36);
    ASSERT_EQ(closed->readAhead(&last, 1), kOk);
    ASSERT_EQ(closed->close(), kOk);
    internal(closed.get())->waitForReadAhead();
    EXPECT_LT(counts(closed.get()).frames, 1500);
    // The lane opens the file anew for what comes next.
    ASSERT_EQ(closed->open(-1), kOk);
    ASSERT_EQ(closed->readAhead(&last, 1), kOk);
    EXPECT_EQ(frame(closed.get(), last).rgba, frame(whole.get(), last).rgba);
}

TEST_F(ThumbAdapterTest, ABadPlanIsRefusedAndAPlanWithoutAFileIsIgnored) {
    ZorRef<IThumbAdapter> adapter = newAdapter();
    const int64_t time = kSecond;
    EXPECT_EQ(adapter->readAhead(&time, -1), kResultFailure);
    EXPECT_EQ(adapter->readAhead(nullptr, 1), kResultFailure);
    EXPECT_EQ(adapter->readAhead(&time, 1), kOk) << "nothing open: nothing to read ahead";
    EXPECT_EQ(counts(adapter.get()).opens, 0);
}

TEST_F(ThumbAdapterTest, APlannedPictureThatCannotBeDecodedFailsAsInPlace) {
    // The first half of the colour video, its index at the end cut away:
    // the times past the cut fail (or give a picture) the same way planned
    // or not.
    const std::string front = media().file("front-plan.mp4");
    ASSERT_TRUE(ffmpeg("-i '" + media().colours() + "' -c copy -movflags +faststart '" + front + "'"));
    const std::vector<char> bytes = MediaTest::readBytes(front);
    const std::string cut = media().file("cut-plan.mp4");
    MediaTest::writeText(cut,
                         std::string(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(bytes.size() / 2)));
    ZorRef<IThumbAdapter> plain = newAdapter();
    ZorRef<IThumbAdapter> ahead = newAdapter();
    for (IThumbAdapter* adapter : {plain.get(), ahead.get()}) {
        ASSERT_EQ(adapter->setMediaPath(cut.c_str()), kOk);
        ASSERT_EQ(adapter->setOutputSize(32, 18), kOk);
        ASSERT_EQ(adapter->open(-1), kOk);
    }
    const std::vector<int64_t> times{9 * kSecond, 1 * kSecond, 8 * kSecond};
    ASSERT_EQ(ahead->readAhead(times.data(), 3), kOk);
    std::vector<unsigned char> a(32 * 18 * 4);
    std::vector<unsigned char> b(32 * 18 * 4);
    int failed = 0;
    for (int64_t t : times) {
        const int32_t expected = plain->frameAt(t, a.data(), static_cast<int64_t>(a.size()));
        EXPECT_EQ(ahead->frameAt(t, b.data(), static_cast<int64_t>(b.size())), expected) << "at " << t;
        if (expected == kOk)
            EXPECT_EQ(a, b) << "at " << t;
        else
            ++failed;
    }
    EXPECT_GT(failed, 0) << "the cut file still held every time";
}

// ---------------------------------------------------------------------------
// Keyframe pictures

TEST_F(ThumbAdapterTest, KeyframePicturesShowTheKeyframeAtOrBeforeTheTime) {
    ZorRef<IThumbAdapter> adapter = openFile(media().colours(), 320, 180, ThumbSeekKeyframe);
    std::vector<int64_t> times{
        0,           1 * kSecond, 19 * kSecond / 10, 2 * kSecond, 35 * kSecond / 10, 4 * kSecond - 1,
        4 * kSecond, 5 * kSecond, 79 * kSecond / 10, 8 * kSecond, 99 * kSecond / 10};
    for (int64_t t : times) EXPECT_EQ(frame(adapter.get(), t).centreColour(), colourOfKeyframe(t)) << "at " << t;
    for (auto it = times.rbegin(); it != times.rend(); ++it)
        EXPECT_EQ(frame(adapter.get(), *it).centreColour(), colourOfKeyframe(*it)) << "at " << *it;
    EXPECT_EQ(frame(adapter.get(), -kSecond).centreColour(), 0);
    EXPECT_EQ(frame(adapter.get(), 50 * kSecond).centreColour(), 8);
}

TEST_F(ThumbAdapterTest, KeyframePicturesDecodeOnePacketEach) {
    ZorRef<IThumbAdapter> adapter = openFile(media().numbered(), kNumberedWidth, kNumberedHeight, ThumbSeekKeyframe);
    std::vector<int64_t> times{73 * kSecond / 10, 31 * kSecond / 10, 91 * kSecond / 10, 5 * kSecond / 10,
                               55 * kSecond / 10};
    for (int64_t t : times) {
        const ThumbDecodeCounts before = counts(adapter.get());
        const Picture picture = frame(adapter.get(), t);
        EXPECT_EQ(numberOf(picture), static_cast<int>(t / (2 * kSecond)) * 50) << "at " << t;
        const ThumbDecodeCounts after = counts(adapter.get());
        EXPECT_EQ(after.packets - before.packets, 1) << "at " << t;
        EXPECT_EQ(after.frames - before.frames, 1) << "at " << t;
    }
    // Another time of the same group: the keyframe given last, again.
    const ThumbDecodeCounts before = counts(adapter.get());
    EXPECT_EQ(numberOf(frame(adapter.get(), 59 * kSecond / 10)), 100);
    const ThumbDecodeCounts after = counts(adapter.get());
    EXPECT_EQ(after.packets, before.packets);
    EXPECT_EQ(after.reused, before.reused + 1);
}

TEST_F(ThumbAdapterTest, AFileWithoutAKeyframeIndexGivesTheSamePictures) {
    ZorRef<IThumbAdapter> exact = openFile(media().coloursTs(), 320, 180);
    ZorRef<IThumbAdapter> keyframes = openFile(media().coloursTs(), 320, 180, ThumbSeekKeyframe);
    std::mt19937_64 random(5);
    std::uniform_int_distribution<int64_t> anyTime(0, 10 * kSecond - 1);
    std::vector<int64_t> times{0, 95 * kSecond / 10, 45 * kSecond / 10, 4 * kSecond - 1, 2 * kSecond};
    for (int i = 0; i < 30; ++i) times.push_back(anyTime(random));
    for (int64_t t : times) {
        EXPECT_EQ(frame(exact.get(), t).centreColour(), colourOfSecond(t)) << "at " << t;
        EXPECT_EQ(frame(keyframes.get(), t).centreColour(), colourOfKeyframe(t)) << "at " << t;
    }
    int64_t duration = 0;
    ASSERT_EQ(exact->mediaDuration(&duration, 0), kOk);
    EXPECT_NEAR(static_cast<double>(duration), 10.0 * kSecond, 2.0 * kFrame);
}

TEST_F(ThumbAdapterTest, ModesMixOnOneOpenFile) {
    ZorRef<IThumbAdapter> adapter = openFile(media().colours(), 320, 180);
    EXPECT_EQ(frame(adapter.get(), 5 * kSecond / 10).centreColour(), 0);
    ASSERT_EQ(adapter->setSeekMode(ThumbSeekKeyframe), kOk);
    EXPECT_EQ(frame(adapter.get(), 75 * kSecond / 10).centreColour(), 6);
    ASSERT_EQ(adapter->setSeekMode(ThumbSeekExact), kOk);
    EXPECT_EQ(frame(adapter.get(), 75 * kSecond / 10).centreColour(), 7);
    EXPECT_EQ(frame(adapter.get(), 85 * kSecond / 10).centreColour(), 8);
    ASSERT_EQ(adapter->setSeekMode(ThumbSeekKeyframe), kOk);
    EXPECT_EQ(frame(adapter.get(), 35 * kSecond / 10).centreColour(), 2);
    ASSERT_EQ(adapter->setSeekMode(ThumbSeekExact), kOk);
    EXPECT_EQ(frame(adapter.get(), 35 * kSecond / 10).centreColour(), 3);
}

// ---------------------------------------------------------------------------
// Media information

TEST_F(ThumbAdapterTest, DurationAndFrameRateComeFromTheVideoStream) {
    ZorRef<IThumbAdapter> adapter = openFile(media().colours(), 320, 180);
    int64_t duration = 0;
    ASSERT_EQ(adapter->mediaDuration(&duration, 0), kOk);
    EXPECT_NEAR(static_cast<double>(duration), 10.0 * kSecond, static_cast<double>(kFrame));
    int64_t num = 0;
    int64_t den = 0;
    ASSERT_EQ(adapter->frameRate(&num, &den, 0), kOk);
    ASSERT_GT(den, 0);
    EXPECT_EQ(num * 1, den * 25) << num << "/" << den;
}

// ---------------------------------------------------------------------------
// Shapes

TEST_F(ThumbAdapterTest, AWideVideoInATallerBoxIsCentredBetweenTransparentBars) {
    // 320x180 into 320x240: 320x180 at rows 30..209.
    ZorRef<IThumbAdapter> adapter = openFile(media().colours(), 320, 240);
    const Picture picture = frame(adapter.get(), 35 * kSecond / 10);
    for (int x : {0, 100, 319}) {
        for (int y : {0, 29, 210, 239}) EXPECT_EQ(picture.colourAt(x, y), kClear) << x << "," << y;
        for (int y : {30, 120, 209}) EXPECT_EQ(picture.colourAt(x, y), 3) << x << "," << y;
    }
    // Scaled down: 320x180 into 100x100 gives 100x56 at rows 22..77.
    ASSERT_EQ(adapter->setOutputSize(100, 100), kOk);
    const Picture small = frame(adapter.get(), 5 * kSecond / 10);
    for (int y : {0, 21, 78, 99}) EXPECT_EQ(small.colourAt(50, y), kClear) << y;
    for (int y : {23, 50, 76}) EXPECT_EQ(small.colourAt(50, y), 0) << y;
    for (int y : {23, 50, 76}) EXPECT_EQ(small.colourAt(0, y), 0) << "the bound side fills the box, at " << y;
}

TEST_F(ThumbAdapterTest, ARotatedVideoComesOutUpright) {
    // Upright it is 180x320, the blue half on the left (as the player shows it).
    const std::vector<char> player = MediaTest::readBytes(media().rotatedReference());
    ASSERT_EQ(player.size(), 180u * 320u * 4u) << "the player shows it 180x320";
    Picture reference(180, 320);
    reference.rgba.assign(player.begin(), player.end());

    ZorRef<IThumbAdapter> adapter = openFile(media().rotated(), 180, 320);
    const Picture upright = frame(adapter.get(), 0);
    for (int y : {10, 160, 310}) {
        EXPECT_EQ(upright.colourAt(20, y), 2) << y;
        EXPECT_EQ(upright.colourAt(160, y), 0) << y;
        for (int x : {20, 160}) EXPECT_EQ(upright.colourAt(x, y), reference.colourAt(x, y)) << x << "," << y;
    }
    // Into a square box: 180x320 fits as 180x320 inside 320x320, columns 70..249.
    ASSERT_EQ(adapter->setOutputSize(320, 320), kOk);
    const Picture boxed = frame(adapter.get(), 0);
    for (int y : {10, 160, 310}) {
        EXPECT_EQ(boxed.colourAt(69, y), kClear) << y;
        EXPECT_EQ(boxed.colourAt(90, y), 2) << y;
        EXPECT_EQ(boxed.colourAt(230, y), 0) << y;
        EXPECT_EQ(boxed.colourAt(250, y), kClear) << y;
    }
}

TEST_F(ThumbAdapterTest, NonSquarePixelsKeepTheDisplayShape) {
    // 160x180 pixels of 2:1 show as 320x180: they fill a 320x180 box.
    ZorRef<IThumbAdapter> adapter = openFile(media().anamorphic(), 320, 180);
    const Picture picture = frame(adapter.get(), 0);
    for (int y : {0, 90, 179}) {
        EXPECT_EQ(picture.colourAt(2, y), 1) << y;
        EXPECT_EQ(picture.colourAt(150, y), 1) << y;
        EXPECT_EQ(picture.colourAt(170, y), 2) << y;
        EXPECT_EQ(picture.colourAt(317, y), 2) << y;
    }
    // And into a square box: 320x180 scaled to 200x112 at rows 44..155.
    ASSERT_EQ(adapter->setOutputSize(200, 200), kOk);
    const Picture boxed = frame(adapter.get(), 0);
    EXPECT_EQ(boxed.colourAt(100, 43), kClear);
    EXPECT_EQ(boxed.colourAt(50, 100), 1);
    EXPECT_EQ(boxed.colourAt(150, 100), 2);
    EXPECT_EQ(boxed.colourAt(100, 156), kClear);
}

// ---------------------------------------------------------------------------
// Streams and failures

TEST_F(ThumbAdapterTest, StreamZeroThatIsNotVideoMeansTheBestVideoStream) {
    for (int32_t stream : {-1, 0, 1}) {
        ZorRef<IThumbAdapter> adapter = openFile(media().soundFirst(), 64, 36, ThumbSeekExact, stream);
        EXPECT_EQ(frame(adapter.get(), 0).centreColour(), 1) << "stream " << stream;
    }
}

TEST_F(ThumbAdapterTest, MediaThatCannotGivePicturesFailsWithALogLine) {
    test::ScopedCapture capture(IBsLogger::Warning);
    const std::string missing = media().file("missing.mp4");
    const std::string garbage = media().file("garbage.mp4");
    {
        std::string bytes(4096, '\0');
        std::mt19937 random(3);
        for (char& c : bytes) c = static_cast<char>(random());
        MediaTest::writeText(garbage, bytes);
    }
    struct Case {
        std::string path;
        int32_t stream;
        std::string cause;
    };
    const std::vector<Case> cases{
        {missing, -1, "No such file"},
        {media().text(), -1, "Invalid data"},
        {garbage, -1, ""},
        {media().sound(), -1, "no video stream"},
        {media().sound(), 0, "no video stream"},
        {media().soundFirst(), 0 + 5, "no stream 5"},
        {media().colours(), 1, "no stream 1"},
        {media().folder(), -1, "not a regular file"},
    };
    for (const Case& c : cases) {
        capture.sink().clear();
        ZorRef<IThumbAdapter> adapter = newAdapter();
        ASSERT_EQ(adapter->setMediaPath(c.path.c_str()), kOk);
        EXPECT_NE(adapter->open(c.stream), kOk) << c.path;
        bool named = false;
        for (const std::string& line : capture.sink().texts())
            if (line.find(c.path) != std::string::npos && line.find(c.cause) != std::string::npos) named = true;
        EXPECT_TRUE(named) << "no log line names " << c.path << " and '" << c.cause << "'";
        std::vector<unsigned char> buffer(64 * 64 * 4);
        ASSERT_EQ(adapter->setOutputSize(64, 64), kOk);
        EXPECT_EQ(adapter->frameAt(0, buffer.data(), static_cast<int64_t>(buffer.size())), kResultFailure);
    }
}

TEST_F(ThumbAdapterTest, ACutShortFileGivesWhatItHoldsOrFails) {
    // The first half of a file whose index is at its end, and the same file
    // with its index first cut short: pictures or failures, never a crash.
    const std::string front = media().file("front.mp4");
    ASSERT_TRUE(ffmpeg("-i '" + media().colours() + "' -c copy -movflags +faststart '" + front + "'"));
    for (const std::string& source : {media().colours(), front}) {
        const std::vector<char> bytes = MediaTest::readBytes(source);
        const std::string cut = media().file("cut.mp4");
        MediaTest::writeText(cut,
                             std::string(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(bytes.size() / 2)));
        ZorRef<IThumbAdapter> adapter = newAdapter();
        ASSERT_EQ(adapter->setMediaPath(cut.c_str()), kOk);
        ASSERT_EQ(adapter->setOutputSize(32, 18), kOk);
        if (adapter->open(-1) != kOk) continue;
        std::vector<unsigned char> buffer(32 * 18 * 4);
        for (int64_t t : {9 * kSecond, 0 * kSecond, 4 * kSecond, 2 * kSecond}) {
            for (int32_t mode : {ThumbSeekExact, ThumbSeekKeyframe}) {
                ASSERT_EQ(adapter->setSeekMode(mode), kOk);
                const int32_t result = adapter->frameAt(t, buffer.data(), static_cast<int64_t>(buffer.size()));
                EXPECT_TRUE(result == kOk || result == 1002) << result;
            }
        }
    }
}

// ---------------------------------------------------------------------------
// Timelines

// The value the data model gives the thumb adapter for a timeline.
int64_t handleOf(IDmTimeline* timeline) {
    if (auto* internal = static_cast<IDmTimelineInternal*>(timeline->queryInterface("IDmTimelineInternal")))
        return internal->adapterHandle();
    return static_cast<int64_t>(reinterpret_cast<intptr_t>(timeline));
}

class ThumbAdapterTimelineTest : public ThumbAdapterTest {
protected:
    // Track 0: the colour video from 5 s, shown over [0 s, 3 s), then a gap,
    // then its start over [6 s, 8 s). Track 1 (above): the numbered video
    // over [0 s, 10 s), visible or not.
    static ZorRef<IDmTimeline> makeTimeline(bool upperVisible) {
        DmTimelineDesc desc;
        desc.name = "thumbs";
        const std::string colours = media().colours();
        const DmTrackDesc lower = trackDesc(DmTrackVideo, "lower",
                                            {clipDesc(colours, "first", 0, 3 * kSecond, 5 * kSecond, 8 * kSecond),
                                             clipDesc(colours, "second", 6 * kSecond, 8 * kSecond, 0, 2 * kSecond)});
        const DmTrackDesc sound =
            trackDesc(DmTrackAudio, "sound", {clipDesc(media().sound(), "tone", 0, kSecond, 0, kSecond)});
        DmTrackDesc upper = trackDesc(DmTrackVideo, "upper",
                                      {clipDesc(media().numbered(), "numbers", 0, 10 * kSecond, 0, 10 * kSecond)});
        upper.visible = upperVisible;
        desc.tracks = {lower, sound, upper};
        std::string error;
        auto timeline = ZorRef<IDmTimeline>::adopt(createTimeline(desc, &error));
        EXPECT_NE(timeline, nullptr) << error;
        return timeline;
    }
    static ZorRef<IThumbAdapter> openTimeline(IDmTimeline* timeline, int32_t width, int32_t height) {
        ZorRef<IThumbAdapter> adapter = newAdapter();
        EXPECT_EQ(adapter->setMediaObject(handleOf(timeline)), kOk);
        EXPECT_EQ(adapter->setOutputSize(width, height), kOk);
        EXPECT_EQ(adapter->open(-1), kOk);
        return adapter;
    }
};

TEST_F(ThumbAdapterTimelineTest, TheTopmostVisibleClipGivesThePicture) {
    ZorRef<IDmTimeline> timeline = makeTimeline(false);
    ASSERT_NE(timeline, nullptr);
    ZorRef<IThumbAdapter> adapter = openTimeline(timeline.get(), 320, 180);
    // The lower track's first clip: media time 5 s + (t - 0).
    EXPECT_EQ(frame(adapter.get(), 0).centreColour(), 5);
    EXPECT_EQ(frame(adapter.get(), 15 * kSecond / 10).centreColour(), 6);
    EXPECT_EQ(frame(adapter.get(), 29 * kSecond / 10).centreColour(), 7);
    // Its second clip: media time 0 s + (t - 6 s).
    EXPECT_EQ(frame(adapter.get(), 65 * kSecond / 10).centreColour(), 0);
    EXPECT_EQ(frame(adapter.get(), 75 * kSecond / 10).centreColour(), 1);
    // Backwards into the first clip again.
    EXPECT_EQ(frame(adapter.get(), 25 * kSecond / 10).centreColour(), 7);
    // The gap, and past the end: nothing shown, every byte 0.
    for (int64_t t : {3 * kSecond, 45 * kSecond / 10, 8 * kSecond, 95 * kSecond / 10, 30 * kSecond, -kSecond}) {
        const Picture picture = frame(adapter.get(), t);
        EXPECT_TRUE(std::all_of(picture.rgba.begin(), picture.rgba.end(), [](unsigned char b) { return b == 0; }))
            << "at " << t;
    }
    // Keyframe pictures of a clip: the keyframe at or before its media time.
    ASSERT_EQ(adapter->setSeekMode(ThumbSeekKeyframe), kOk);
    EXPECT_EQ(frame(adapter.get(), 15 * kSecond / 10).centreColour(), 6);
    EXPECT_EQ(frame(adapter.get(), 5 * kSecond / 10).centreColour(), 4);
    EXPECT_EQ(frame(adapter.get(), 75 * kSecond / 10).centreColour(), 0);

    int64_t duration = 0;
    ASSERT_EQ(adapter->mediaDuration(&duration, 0), kOk);
    EXPECT_EQ(duration, timeline->duration());
    int64_t num = 0;
    int64_t den = 0;
    ASSERT_EQ(adapter->frameRate(&num, &den, 0), kOk);
    ASSERT_GT(den, 0);
    EXPECT_EQ(num, 25 * den);
}

TEST_F(ThumbAdapterTimelineTest, AVisibleUpperTrackCoversTheLowerOne) {
    ZorRef<IDmTimeline> timeline = makeTimeline(true);
    ASSERT_NE(timeline, nullptr);
    ZorRef<IThumbAdapter> adapter = openTimeline(timeline.get(), kNumberedWidth, kNumberedHeight);
    for (int64_t t : {5 * kSecond / 10, 45 * kSecond / 10, 72 * kSecond / 10, 23 * kSecond / 10})
        EXPECT_EQ(numberOf(frame(adapter.get(), t)), static_cast<int>(t / kFrame)) << "at " << t;
}

// A timeline's picture at a time is what its clip plays there: a reversed
// clip runs backwards from its mark out, a frozen one holds its mark in, a
// fast one skips, as the clip's sound is mapped.
TEST_F(ThumbAdapterTimelineTest, ClipsShowWhatTheyPlayReversedFrozenOrFast) {
    DmTimelineDesc desc;
    desc.name = "played";
    DmClipDesc reversed = clipDesc(media().numbered(), "reversed", 0, 2 * kSecond, 2 * kSecond, 4 * kSecond);
    reversed.reverse = true;
    DmClipDesc frozen = clipDesc(media().numbered(), "frozen", 2 * kSecond, 4 * kSecond, 2 * kSecond, 4 * kSecond);
    frozen.speed = 0.0;
    DmClipDesc fast = clipDesc(media().numbered(), "fast", 4 * kSecond, 6 * kSecond, kSecond, 5 * kSecond);
    fast.speed = 2.0;
    desc.tracks = {trackDesc(DmTrackVideo, "track", {reversed, frozen, fast})};
    std::string error;
    auto timeline = ZorRef<IDmTimeline>::adopt(createTimeline(desc, &error));
    ASSERT_NE(timeline, nullptr) << error;
    ZorRef<IThumbAdapter> adapter = openTimeline(timeline.get(), kNumberedWidth, kNumberedHeight);
    // Reversed: timeline t in [0, 2 s) plays media 2 s + 4 s - (2 s + t).
    for (int64_t t : {int64_t{0}, kFrame, 13 * kFrame, 49 * kFrame})
        EXPECT_EQ(numberOf(frame(adapter.get(), t)), static_cast<int>((4 * kSecond - t) / kFrame)) << "at " << t;
    // Frozen: the mark in throughout.
    for (int64_t t : {2 * kSecond, 3 * kSecond, 4 * kSecond - 1})
        EXPECT_EQ(numberOf(frame(adapter.get(), t)), static_cast<int>(2 * kSecond / kFrame)) << "at " << t;
    // Twice as fast: media 1 s + 2 (t - 4 s).
    for (int64_t t : {4 * kSecond, 4 * kSecond + 7 * kFrame, 5 * kSecond})
        EXPECT_EQ(numberOf(frame(adapter.get(), t)), static_cast<int>((kSecond + 2 * (t - 4 * kSecond)) / kFrame))
            << "at " << t;
}

TEST_F(ThumbAdapterTimelineTest, TheAdapterHoldsTheTimelineWhileItUsesIt) {
    ZorRef<IDmTimeline> timeline = makeTimeline(false);
    ASSERT_NE(timeline, nullptr);
    const int32_t before = timeline->refCount();
    {
        ZorRef<IThumbAdapter> adapter = openTimeline(timeline.get(), 32, 18);
        EXPECT_GT(timeline->refCount(), before);
        // A file set after it: the timeline is let go once closed.
        ASSERT_EQ(adapter->setMediaPath(media().colours().c_str()), kOk);
        ASSERT_EQ(adapter->open(-1), kOk);
        EXPECT_EQ(timeline->refCount(), before);
        ASSERT_EQ(adapter->setMediaObject(handleOf(timeline.get())), kOk);
        EXPECT_GT(timeline->refCount(), before);
    }
    EXPECT_EQ(timeline->refCount(), before);
}

}  // namespace
}  // namespace ZOR::test
