// The values of audio thumbnails: volume, gains, keyframes, frozen stretches
// and ducking. Every expectation is worked out here from the definitions of
// the envelope, independently of the builder's code, and compared exactly.
#include <cmath>
#include <functional>

#include "AudioBuilderFixture.h"
#include "WavePeaks.h"

namespace ZOR::test {
namespace {

// --- The definitions, written out for the tests -----------------------------

// dB to gain (gainOf), the point times of a query (pointTime) and the exact
// comparison (expectSameFloats) are those of WavePeaks.h.
using MediaTest::expectSameFloats;
using MediaTest::gainOf;
using MediaTest::pointTime;

// The static factor.
float expectedStatic(float volume, double volumeGain, float loudness) {
    if (loudness == 0.0f && volumeGain == 0.0) return 1.0f;
    const float l = loudness != 0.0f ? 20.0f * std::log10(loudness) : 0.0f;
    double g = gainOf(static_cast<double>(volume) + volumeGain + static_cast<double>(l));
    if (g > 50.0) g = 50.0;
    return std::sqrt(static_cast<float>(g));
}

struct Keyframe {
    int64_t time;
    double db;
};

double expectedEnvelope(const std::vector<Keyframe>& keys, float volume, double volumeGain, int64_t t) {
    if (keys.empty()) return gainOf(static_cast<double>(volume) + volumeGain);
    if (keys.size() == 1) return gainOf(keys[0].db);
    if (t < keys.front().time) return gainOf(keys.front().db);
    if (t >= keys.back().time) return gainOf(keys.back().db);
    size_t next = 1;
    while (keys[next].time <= t) ++next;
    const Keyframe& p = keys[next - 1];
    const Keyframe& n = keys[next];
    const double gp = gainOf(p.db);
    const double gn = gainOf(n.db);
    return gp + static_cast<double>(t - p.time) / static_cast<double>(n.time - p.time) * (gn - gp);
}

struct Duck {
    int64_t begin;  // clip time of the ducked clip
    int64_t end;
    double depth;
    double fade;
    double ratio;
};

double expectedDuckLevel(const Duck& d, int64_t t) {
    const double fadeCns = std::trunc(d.fade * 1e7);
    const double outside = (1.0 - d.ratio) * fadeCns;
    const int64_t inside = static_cast<int64_t>(std::trunc(d.ratio * fadeCns));
    const int64_t a = static_cast<int64_t>(std::trunc(static_cast<double>(d.begin) - outside));
    const int64_t half = (d.end - d.begin) / 2;
    const int64_t h = half < inside ? half : inside;
    const int64_t b = d.begin + h;
    const int64_t c = d.end - h;
    const int64_t e = static_cast<int64_t>(std::trunc(static_cast<double>(d.end) + outside));
    if (t >= b && t <= c) return d.depth;
    if (t >= a && t < b) return static_cast<double>(t - a) / static_cast<double>(b - a) * d.depth;
    if (t > c && t <= e) return static_cast<double>(e - t) / static_cast<double>(e - c) * d.depth;
    return 0.0;
}

double expectedDucking(const std::vector<Duck>& ducks, int64_t t) {
    double deepest = 0.0;
    for (const Duck& d : ducks) deepest = std::max(deepest, expectedDuckLevel(d, t));
    return deepest > 0.0 ? 1.0 - deepest : 1.0;
}

struct Expectation {
    float volume = 0.0f;
    double volumeGain = 0.0;
    float loudness = 0.0f;
    std::vector<Keyframe> keys;
    std::vector<std::pair<int64_t, int64_t>> silent;
    std::vector<Duck> ducks;
};

std::vector<float> expectedValues(const Expectation& e, int64_t begin, int64_t end, int count,
                                  const std::function<float(int64_t)>& raw) {
    const float s = expectedStatic(e.volume, e.volumeGain, e.loudness);
    std::vector<float> out;
    for (int i = 0; i < count; ++i) {
        const int64_t t = pointTime(begin, end, i, count);
        double x = 0.0;
        bool silent = false;
        for (const auto& [a, b] : e.silent) silent = silent || (a <= t && t <= b);
        if (!silent)
            x = expectedEnvelope(e.keys, e.volume, e.volumeGain, t) * static_cast<double>(s) *
                expectedDucking(e.ducks, t);
        const float v = static_cast<float>(std::sqrt(x) * static_cast<double>(raw(t)));
        out.push_back(v > 1.0f ? 1.0f : v);
    }
    return out;
}

// --- Fixture -----------------------------------------------------------------

class AudioEnvelope : public AudioBuilderTest {
protected:
    // Queries clip over [begin, end] with count points and returns the values.
    std::vector<float> query(FakeClip* clip, int64_t begin, int64_t end, int count, bool ducking = true) {
        auto queryer = std::make_unique<RecordingQueryer>(ducking);
        EXPECT_EQ(builder().queryAudioThumbnailData(queryer.get(), clip, begin, end, count), 0);
        EXPECT_TRUE(queryer->callback.waitForDeliveries(1));
        auto deliveries = queryer->callback.deliveries();
        builder().cancelQuery(queryer.get());
        queryers_.push_back(std::move(queryer));
        return deliveries.empty() ? std::vector<float>{} : deliveries[0].values;
    }
    void constantRaw(float value) {
        wave_->setValues([value](int32_t, int32_t) { return value; });
    }
    std::vector<std::unique_ptr<RecordingQueryer>> queryers_;
};

const auto kHalf = [](int64_t) { return 0.5f; };

// --- Edge cases --------------------------------------------------------------

TEST_F(AudioEnvelope, VolumePlusGainAtMinus48DbWithoutKeyframesGivesZeros) {
    constantRaw(0.5f);
    FakeClip* clip = addClip("quiet", 0, 0, 10 * kSecond);
    clip->setProperty(audioKey::volume, doubleProperty(-30.0));
    clip->setProperty(clipVolumeKey::volumeGain, doubleProperty(-18.0));
    const auto values = query(clip, 0, 10 * kSecond, 16);
    ASSERT_EQ(values.size(), 16u);
    for (float v : values) EXPECT_EQ(v, 0.0f);
}

TEST_F(AudioEnvelope, ZeroLoudnessAndZeroVolumeGainLeaveStaticFactorOneWhileVolumeActsThroughEnvelope) {
    constantRaw(0.25f);
    FakeClip* clip = addClip("loud", 0, 0, 10 * kSecond);
    clip->setProperty(audioKey::volume, doubleProperty(6.0));
    const auto values = query(clip, 0, 10 * kSecond, 8);
    Expectation e;
    e.volume = 6.0f;
    expectSameFloats(values, expectedValues(e, 0, 10 * kSecond, 8, [](int64_t) { return 0.25f; }));
    // The volume counts once, through the envelope: sqrt(gain(6 dB)) x 0.25,
    // about 0.353 (counted twice it would be about 0.499).
    EXPECT_NEAR(values[0], 0.353, 0.001);
}

TEST_F(AudioEnvelope, HugeGainIsCappedAtFiftyBeforeTheSquareRoot) {
    constantRaw(0.001f);
    FakeClip* clip = addClip("huge", 0, 0, 10 * kSecond);
    clip->setProperty(clipVolumeKey::volumeGain, doubleProperty(40.0));
    const auto values = query(clip, 0, 10 * kSecond, 4);
    Expectation e;
    e.volumeGain = 40.0;
    expectSameFloats(values, expectedValues(e, 0, 10 * kSecond, 4, [](int64_t) { return 0.001f; }));
    // Uncapped the static factor would be 10; capped it is sqrt(50).
    const double envelope = gainOf(40.0);
    EXPECT_EQ(values[0], static_cast<float>(std::sqrt(envelope * static_cast<double>(std::sqrt(50.0f))) *
                                            static_cast<double>(0.001f)));
}

TEST_F(AudioEnvelope, ValuesAboveOneAreDeliveredAsExactlyOneAndNegativeValuesPassUnclamped) {
    wave_->setValues([](int32_t frame, int32_t) { return frame < 125 ? 0.9f : -0.9f; });
    FakeClip* clip = addClip("clip", 0, 0, 10 * kSecond);
    clip->setProperty(audioKey::volume, doubleProperty(12.0));
    const auto values = query(clip, 0, 10 * kSecond, 2);
    ASSERT_EQ(values.size(), 2u);
    EXPECT_EQ(values[0], 1.0f);
    const float negative = static_cast<float>(std::sqrt(gainOf(12.0)) * static_cast<double>(-0.9f));
    EXPECT_LT(negative, -1.0f);
    EXPECT_EQ(values[1], negative);
}

TEST_F(AudioEnvelope, PointExactlyOnSilentRangeEndIsZero) {
    constantRaw(0.5f);
    FakeClip* clip = addClip("frozen", 0, 0, 10 * kSecond);
    // Points every second; the frozen stretch ends exactly on the point at 4 s.
    clip->setSpeedParts({{2 * kSecond, 4 * kSecond, 0.0}, {6 * kSecond, 7 * kSecond, 0.5}});
    const auto values = query(clip, 0, 10 * kSecond, 10);
    ASSERT_EQ(values.size(), 10u);
    EXPECT_EQ(values[1], 0.5f);
    EXPECT_EQ(values[2], 0.0f);
    EXPECT_EQ(values[3], 0.0f);
    EXPECT_EQ(values[4], 0.0f);  // on the end: included
    EXPECT_EQ(values[5], 0.5f);
    EXPECT_EQ(values[6], 0.5f);  // speed 0.5 is not frozen
}

class AudioDucking : public AudioEnvelope {
protected:
    void SetUp() override {
        AudioEnvelope::SetUp();
        timeline_->addTrack(DmTrackAudio);
        timeline_->addTrack(DmTrackAudio);
        constantRaw(0.5f);
    }
    FakeClip* addDucker(int32_t track, const std::string& name, int64_t begin, int64_t end, float depth, float fade,
                        float ratio) {
        FakeClip* clip = addClip(name, 0, begin, end, track);
        clip->addEffect(4109)->setValues(depth, fade, ratio);
        return clip;
    }
};

TEST_F(AudioDucking, TwoOverlappingRecordsTakeTheDeepestNotTheSum) {
    FakeClip* ducked = addClip("music", 0, 0, 10 * kSecond);
    addDucker(1, "voice-a", 2 * kSecond, 6 * kSecond, 0.3f, 0.0f, 0.0f);
    addDucker(2, "voice-b", 4 * kSecond, 8 * kSecond, 0.5f, 0.0f, 0.0f);
    const auto values = query(ducked, 0, 10 * kSecond, 10);
    ASSERT_EQ(values.size(), 10u);
    EXPECT_EQ(values[3], static_cast<float>(std::sqrt(1.0 - static_cast<double>(0.3f)) * 0.5));
    // Both at 5 s: K = 0.5, not 0.2.
    EXPECT_EQ(values[5], static_cast<float>(std::sqrt(1.0 - 0.5) * 0.5));
    EXPECT_EQ(values[9], 0.5f);
}

TEST_F(AudioDucking, QueryerThatDoesNotAskForDuckingGetsNone) {
    FakeClip* ducked = addClip("music", 0, 0, 10 * kSecond);
    addDucker(1, "voice", 0, 10 * kSecond, 0.5f, 0.0f, 0.0f);
    const auto values = query(ducked, 0, 10 * kSecond, 4, /*ducking=*/false);
    ASSERT_EQ(values.size(), 4u);
    for (float v : values) EXPECT_EQ(v, 0.5f);
}

TEST_F(AudioDucking, MutedOrSwitchedOffDuckingSourceDucksNothing) {
    FakeClip* ducked = addClip("music", 0, 0, 10 * kSecond);
    FakeClip* muted = addDucker(1, "muted voice", 0, 10 * kSecond, 0.5f, 0.0f, 0.0f);
    muted->setProperty(audioKey::mute, boolProperty(true));
    FakeClip* off = addDucker(2, "voice off", 0, 10 * kSecond, 0.7f, 0.0f, 0.0f);
    off->addEffect(4109)->setEnabled(false);
    const auto values = query(ducked, 0, 10 * kSecond, 4);
    ASSERT_EQ(values.size(), 4u);
    for (float v : values) EXPECT_EQ(v, 0.5f);
}

TEST_F(AudioDucking, ClipsOnMutedOrHiddenTracksAndDisabledClipsDuckNothing) {
    timeline_->addTrack(DmTrackAudio);
    timeline_->addTrack(DmTrackVideo);
    FakeClip* ducked = addClip("music", 0, 0, 10 * kSecond);
    addDucker(1, "on muted track", 0, 10 * kSecond, 0.5f, 0.0f, 0.0f);
    static_cast<IDmPropertyOwner*>(timeline_->track(1)->queryInterface("IDmPropertyOwner"))
        ->setProperty(trackKey::mute, boolProperty(true));
    addDucker(2, "on hidden track", 0, 10 * kSecond, 0.5f, 0.0f, 0.0f);
    static_cast<IDmPropertyOwner*>(timeline_->track(2)->queryInterface("IDmPropertyOwner"))
        ->setProperty(trackKey::visible, boolProperty(false));
    FakeClip* disabled = addDucker(3, "disabled", 0, 10 * kSecond, 0.5f, 0.0f, 0.0f);
    disabled->setProperty(clipKey::enable, boolProperty(false));
    addDucker(4, "on a video track", 0, 10 * kSecond, 0.5f, 0.0f, 0.0f);
    const auto values = query(ducked, 0, 10 * kSecond, 4);
    ASSERT_EQ(values.size(), 4u);
    for (float v : values) EXPECT_EQ(v, 0.5f);
}

TEST_F(AudioDucking, DuckingSourceIsNeverDuckedItself) {
    FakeClip* voice = addDucker(0, "voice", 0, 10 * kSecond, 0.5f, 0.0f, 0.0f);
    addDucker(1, "other voice", 0, 10 * kSecond, 0.5f, 0.0f, 0.0f);
    const auto values = query(voice, 0, 10 * kSecond, 4);
    ASSERT_EQ(values.size(), 4u);
    for (float v : values) EXPECT_EQ(v, 0.5f);
}

TEST_F(AudioDucking, FadeRatioOneKeepsTheWholeFadeInsideTheInterval) {
    FakeClip* ducked = addClip("music", 0, 0, 10 * kSecond);
    addDucker(1, "voice", 2 * kSecond, 8 * kSecond, 0.8f, 1.0f, 1.0f);
    // Points every 0.5 s.
    const auto values = query(ducked, 0, 10 * kSecond, 20);
    ASSERT_EQ(values.size(), 20u);
    Expectation e;
    e.ducks = {{2 * kSecond, 8 * kSecond, static_cast<double>(0.8f), 1.0, 1.0}};
    expectSameFloats(values, expectedValues(e, 0, 10 * kSecond, 20, kHalf));
    EXPECT_EQ(values[3], 0.5f);  // 1.5 s: before the interval, no fade outside
    EXPECT_EQ(values[4], 0.5f);  // 2.0 s: the fade starts at begin
    EXPECT_EQ(values[5], static_cast<float>(std::sqrt(1.0 - 0.5 * static_cast<double>(0.8f)) * 0.5));  // 2.5 s
    EXPECT_EQ(values[16], 0.5f);  // 8.0 s: the fade ends at end
}

TEST_F(AudioDucking, FadeRatioZeroPutsTheWholeFadeOutsideWithFullDepthFromBeginToEnd) {
    FakeClip* ducked = addClip("music", 0, 0, 10 * kSecond);
    addDucker(1, "voice", 2 * kSecond, 8 * kSecond, 0.8f, 1.0f, 0.0f);
    const auto values = query(ducked, 0, 10 * kSecond, 20);
    ASSERT_EQ(values.size(), 20u);
    Expectation e;
    e.ducks = {{2 * kSecond, 8 * kSecond, static_cast<double>(0.8f), 1.0, 0.0}};
    expectSameFloats(values, expectedValues(e, 0, 10 * kSecond, 20, kHalf));
    const float full = static_cast<float>(std::sqrt(1.0 - static_cast<double>(0.8f)) * 0.5);
    EXPECT_EQ(values[2], 0.5f);  // 1.0 s: where the fade-in starts
    EXPECT_EQ(values[3], static_cast<float>(std::sqrt(1.0 - 0.5 * static_cast<double>(0.8f)) * 0.5));
    EXPECT_EQ(values[4], full);   // 2.0 s: full depth at begin
    EXPECT_EQ(values[16], full);  // 8.0 s: full depth at end
    EXPECT_EQ(values[18], 0.5f);  // 9.0 s: the fade-out is over
}

TEST_F(AudioDucking, IntervalShorterThanTwiceTheInnerFadeReachesFullDepthOnlyAtItsMiddle) {
    FakeClip* ducked = addClip("music", 0, 0, 10 * kSecond);
    // 2 s long, 4 s of fade all inside: h = 1 s.
    addDucker(1, "voice", 4 * kSecond, 6 * kSecond, 0.6f, 4.0f, 1.0f);
    const auto values = query(ducked, 0, 10 * kSecond, 40);
    ASSERT_EQ(values.size(), 40u);
    Expectation e;
    e.ducks = {{4 * kSecond, 6 * kSecond, static_cast<double>(0.6f), 4.0, 1.0}};
    expectSameFloats(values, expectedValues(e, 0, 10 * kSecond, 40, kHalf));
    const float full = static_cast<float>(std::sqrt(1.0 - static_cast<double>(0.6f)) * 0.5);
    EXPECT_EQ(values[20], full);  // 5.0 s, the middle
    EXPECT_GT(values[19], full);  // 4.75 s: still fading in
    EXPECT_GT(values[21], full);  // 5.25 s: already fading out
}

TEST_F(AudioEnvelope, TimesBeforeTheFirstKeyframeAndAfterTheLastHoldTheirGains) {
    constantRaw(0.5f);
    FakeClip* clip = addClip("keys", 0, 0, 10 * kSecond);
    clip->addEffect(4110)->setKeyframes({{3 * kSecond, -6.0}, {7 * kSecond, 3.0}});
    const auto values = query(clip, 0, 10 * kSecond, 10);
    ASSERT_EQ(values.size(), 10u);
    const float first = static_cast<float>(std::sqrt(gainOf(-6.0)) * 0.5);
    const float last = static_cast<float>(std::sqrt(gainOf(3.0)) * 0.5);
    EXPECT_EQ(values[0], first);
    EXPECT_EQ(values[2], first);
    EXPECT_EQ(values[8], last);
    EXPECT_EQ(values[9], last);
    Expectation e;
    e.keys = {{3 * kSecond, -6.0}, {7 * kSecond, 3.0}};
    expectSameFloats(values, expectedValues(e, 0, 10 * kSecond, 10, kHalf));
}

// --- Everything at once ------------------------------------------------------

TEST_F(AudioDucking, KeyframesLoudnessVolumeGainSilentRangesAndTwoDucksGiveTheExactValues) {
    // The ducked clip sits at 1 s on the timeline and starts 2 s into its
    // media: clip time = timeline time + 1 s.
    wave_->setValues([](int32_t frame, int32_t k) { return static_cast<float>((frame * 7 + k) % 50) / 64.0f; });
    FakeClip* clip = addClip("music", 2 * kSecond, 1 * kSecond, 11 * kSecond);
    clip->setProperty(audioKey::volume, doubleProperty(-3.5));
    clip->setProperty(clipVolumeKey::volumeGain, doubleProperty(2.25));
    clip->setProperty(audioLoudness::enable, boolProperty(true));
    clip->setProperty(audioLoudness::gain, doubleProperty(1.7));
    clip->addEffect(4110)->setKeyframes(
        {{3 * kSecond, -10.0}, {6 * kSecond, 4.0}, {9 * kSecond, -60.0}, {11 * kSecond, 0.0}});
    clip->setSpeedParts({{7 * kSecond, 7 * kSecond + 5'000'000, 0.0}});
    addDucker(1, "voice-a", 3 * kSecond, 7 * kSecond, 0.35f, 0.75f, 0.4f);
    addDucker(2, "voice-b", 5 * kSecond, 9 * kSecond, 0.6f, 1.25f, 0.7f);

    const int count = 301;
    const int64_t begin = 2 * kSecond;
    const int64_t end = 12 * kSecond;
    const auto values = query(clip, begin, end, count);

    Expectation e;
    e.volume = 0.0f;  // keyframes replace the static volume in the envelope
    e.volumeGain = 2.25;
    e.loudness = static_cast<float>(1.7);
    e.keys = {{3 * kSecond, -10.0}, {6 * kSecond, 4.0}, {9 * kSecond, -60.0}, {11 * kSecond, 0.0}};
    e.silent = {{7 * kSecond, 7 * kSecond + 5'000'000}};
    // Duck intervals moved into the clip's time base (+1 s).
    e.ducks = {
        {4 * kSecond, 8 * kSecond, static_cast<double>(0.35f), static_cast<double>(0.75f), static_cast<double>(0.4f)},
        {6 * kSecond, 10 * kSecond, static_cast<double>(0.6f), static_cast<double>(1.25f), static_cast<double>(0.7f)}};
    const auto raw = [](int64_t s) {
        const int64_t frame = s / kFrame;  // s >= 0 here
        const float fraction = static_cast<float>(s - frame * kFrame) / static_cast<float>(kFrame);
        int32_t k = static_cast<int32_t>(fraction * 40.0f);
        if (k > 39) k = 39;
        return static_cast<float>((frame * 7 + k) % 50) / 64.0f;
    };
    // With keyframes the static volume is 0, in the envelope and in the
    // static factor alike.
    expectSameFloats(values, expectedValues(e, begin, end, count, raw));
}

TEST_F(AudioEnvelope, KeyframesPastMarkInAndMarkOutKeepTheEnvelopeInsideTheClip) {
    constantRaw(0.5f);
    // Media range [3 s, 8 s]; keyframes at 1, 5 and 10 s of media time.
    FakeClip* clip = addClip("trimmed", 3 * kSecond, 0, 5 * kSecond);
    std::vector<Keyframe> keys = {{1 * kSecond, -20.0}, {5 * kSecond, 6.0}, {10 * kSecond, -3.0}};
    clip->addEffect(4110)->setKeyframes({{1 * kSecond, -20.0}, {5 * kSecond, 6.0}, {10 * kSecond, -3.0}});
    const int count = 50;
    const auto values = query(clip, 3 * kSecond, 8 * kSecond, count);
    ASSERT_EQ(values.size(), static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        const int64_t t = pointTime(3 * kSecond, 8 * kSecond, i, count);
        const double expected = std::sqrt(expectedEnvelope(keys, 0.0f, 0.0, t)) * 0.5;
        // The boundary keyframes carry the envelope's own gain there; the line
        // through them is the same line, up to the last bits of a double.
        EXPECT_NEAR(values[static_cast<size_t>(i)], expected, 1e-6) << i;
    }
}

}  // namespace
}  // namespace ZOR::test
