#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <filesystem>
#include <string>
#include <vector>

#include "MediaTestSupport.h"
#include "Adapter/Adapter.h"
#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "BsDataStructure/BsDataStructure.h"
#include "BtmPacketIndex.h"
#include "CapturingLogger.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmMediaInternal.h"
#include "PipeServer.h"
#include "TaskTestSupport.h"

namespace ZOR::test {
namespace {

using MediaTest::ffmpeg;
using MediaTest::rampInput;

constexpr int32_t kValues = 40;
// 16-bit PCM samples are k / 32768, which the wave store keeps exactly.
constexpr float kStepTolerance = 0.0f;

class AudioWaveTaskTest : public ::testing::Test {
protected:
    void SetUp() override {
        task_ = ZorRef<IBsAudioWaveExtractTask>::adopt(createAudioWaveExtractTask());
        ASSERT_NE(task_.get(), nullptr);
        ASSERT_EQ(task_->addCallBack(&recorder_), 0);
        ASSERT_EQ(task_->initialize(), 0);
        ASSERT_EQ(task_->start(), 0);
    }
    void TearDown() override {
        if (task_ != nullptr) {
            task_->removeCallBack(&recorder_);
            task_.reset();
        }
    }

    std::string makeWav(const std::string& name, int rate, double seconds) {
        const std::string path = folder_.file(name);
        ffmpeg(rampInput(rate, seconds) + " -c:a pcm_s16le '" + path + "'");
        return path;
    }

    int64_t append(IDmClip* clip, int32_t first, int32_t last, int32_t expectedResult = 0) {
        BsWaveTaskRecord record;
        record.clip = clip;
        record.beginFrame = first;
        record.endFrame = last;
        int64_t token = -1;
        EXPECT_EQ(task_->append(&record, &token), expectedResult);
        if (expectedResult == 0) {
            EXPECT_GT(token, 0);
        }
        return token;
    }

    static std::vector<float> values(IDmClip* clip, int32_t first, int32_t last) {
        auto* audio = static_cast<IDmAudioFeature*>(clip->queryInterface("IDmAudioFeature"));
        EXPECT_NE(audio, nullptr);
        std::vector<float> read(static_cast<size_t>(last - first + 1) * kValues, -1.0f);
        if (audio == nullptr) return read;
        auto frames = ZorRef<IZORLonglongList>::adopt(createZORLonglongList());
        for (int32_t frame = first; frame <= last; ++frame) frames->append(frame);
        EXPECT_EQ(audio->fillValues(frames.get(), 25, 1, read.data()), 0);
        return read;
    }

    static IDmAudioWaveMgrInternal* managerOf(IDmClip* clip) {
        auto* internal = static_cast<IDmClipInternal*>(clip->queryInterface("IDmClipInternal"));
        return acquireIDmAudioWaveMgrInternal(internal->waveManagerSource());
    }

    // Compares frames [first, last] of the clip with the expected windows.
    static void expectWave(IDmClip* clip, const std::vector<float>& expected, int32_t first, int32_t last,
                           float tolerance) {
        const std::vector<float> got = values(clip, first, last);
        int mismatches = 0;
        for (int32_t frame = first; frame <= last; ++frame)
            for (int k = 0; k < kValues; ++k) {
                const size_t window = static_cast<size_t>(frame) * kValues + static_cast<size_t>(k);
                const float want = window < expected.size() ? expected[window] : 0.0f;
                const float have = got[static_cast<size_t>(frame - first) * kValues + static_cast<size_t>(k)];
                if (std::fabs(have - want) > tolerance && ++mismatches <= 5)
                    ADD_FAILURE() << "frame " << frame << " value " << k << ": " << have << " expected " << want;
            }
        EXPECT_EQ(mismatches, 0);
    }

    TempFolder folder_;
    TaskRecorder recorder_;
    ZorRef<IBsAudioWaveExtractTask> task_;
};

TEST_F(AudioWaveTaskTest, WavValuesAreThePeaksOfEachMillisecondAt44100) {
    const std::string path = makeWav("ramp.wav", 44100, 2.99);
    const std::vector<float> expected = MediaTest::waveValues(MediaTest::readWav16(path));
    ASSERT_EQ(expected.size(), 75u * kValues);  // 2.99 s: the last frame is partly covered
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    const int64_t token = append(clip.get(), 0, 100);
    ASSERT_EQ(recorder_.waitFinal(token), BsTaskFinished);
    expectWave(clip.get(), expected, 0, 74, kStepTolerance);

    // Frames beyond the end are not held and read as zeros.
    auto manager = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(clip.get()));
    EXPECT_NE(manager->hasFrames(0, 74), 0);
    EXPECT_EQ(manager->hasFrames(74, 75), 0);
    EXPECT_EQ(manager->hasFrames(80, 100), 0);
    std::vector<float> beyond(kValues, 5.0f);
    EXPECT_NE(manager->readFrame(80, 25, 1, beyond.data(), kValues), 0);
    for (float value : beyond) EXPECT_EQ(value, 0.0f);
    // Windows after the last sample of the last frame hold nothing.
    const std::vector<float> last = values(clip.get(), 74, 74);
    EXPECT_GT(last[29], 0.0f);
    EXPECT_EQ(last[30], 0.0f);

    const std::vector<TaskReport> reports = recorder_.reportsOf(token);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].percent, 100);
    EXPECT_EQ(reports[0].task, task_->queryInterface("IDmBaseObj"));
    EXPECT_NE(reports[0].thread, std::this_thread::get_id());
}

TEST_F(AudioWaveTaskTest, WavValuesAt48000AndARangeInTheMiddleArePlacedExactly) {
    const std::string path = makeWav("ramp48.wav", 48000, 3.0);
    const std::vector<float> expected = MediaTest::waveValues(MediaTest::readWav16(path));
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    ScopedCapture capture(IBsLogger::Debug);
    const int64_t token = append(clip.get(), 31, 40);
    ASSERT_EQ(recorder_.waitFinal(token), BsTaskFinished);
    expectWave(clip.get(), expected, 31, 40, kStepTolerance);
    // WAV timestamps are sample-exact: the piece seeks, and stays with it.
    bool seeking = false;
    for (const std::string& text : capture.sink().texts()) {
        if (text.find("seeking") != std::string::npos) seeking = true;
        EXPECT_EQ(text.find("from the start"), std::string::npos) << text;
    }
    EXPECT_TRUE(seeking);
    auto manager = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(clip.get()));
    EXPECT_NE(manager->hasFrames(31, 40), 0);
    // Only what was asked for was decoded (in whole pieces at most).
    EXPECT_EQ(manager->hasFrames(0, 74), 0);

    // A second range after it, and the whole stream.
    const int64_t second = append(clip.get(), 0, 74);
    ASSERT_EQ(recorder_.waitFinal(second), BsTaskFinished);
    expectWave(clip.get(), expected, 0, 74, kStepTolerance);
}

TEST_F(AudioWaveTaskTest, LongRangesAreDecodedInPiecesThatJoinExactly) {
    const std::string path = folder_.file("long.wav");
    ASSERT_TRUE(ffmpeg(rampInput(44100, 24.0) + " -ac 1 -c:a pcm_s16le '" + path + "'"));
    const std::vector<float> expected = MediaTest::waveValues(MediaTest::readWav16(path));
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    ScopedCapture capture(IBsLogger::Debug);
    const int64_t token = append(clip.get(), 0, 599);
    ASSERT_EQ(recorder_.waitFinal(token), BsTaskFinished);
    expectWave(clip.get(), expected, 0, 599, kStepTolerance);
    bool split = false;
    for (const std::string& text : capture.sink().texts())
        if (text.find("3 pieces") != std::string::npos || text.find("4 pieces") != std::string::npos) split = true;
    EXPECT_TRUE(split) << "600 frames on at least two workers make several pieces";
}

TEST_F(AudioWaveTaskTest, CompressedFilesGiveTheValuesOfTheirDecodedSamples) {
    const std::string wav = makeWav("source.wav", 44100, 3.0);
    const std::string mp3 = folder_.file("ramp.mp3");
    const std::string m4a = folder_.file("ramp.m4a");
    ASSERT_TRUE(ffmpeg("-i '" + wav + "' -c:a libmp3lame -b:a 192k '" + mp3 + "'"));
    // Without noise substitution: its noise generator runs on from the start of
    // decoding, so noisy bands would differ after a seek.
    ASSERT_TRUE(ffmpeg("-i '" + wav + "' -c:a aac -aac_pns 0 -b:a 192k '" + m4a + "'"));
    for (const std::string& path : {mp3, m4a}) {
        SCOPED_TRACE(path);
        const std::vector<float> expected =
            MediaTest::waveValues(MediaTest::decodeWithCommand(path, path + ".raw", 44100, 2));
        ASSERT_FALSE(expected.empty());
        const int32_t lastFrame = static_cast<int32_t>(expected.size() / kValues) - 1;
        auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
        // A range in the middle first (the MP4 file seeks to it), then the rest.
        const int64_t middle = append(clip.get(), 40, 50);
        ASSERT_EQ(recorder_.waitFinal(middle), BsTaskFinished);
        expectWave(clip.get(), expected, 40, 50, 1e-4f);
        const int64_t all = append(clip.get(), 0, lastFrame + 5);
        ASSERT_EQ(recorder_.waitFinal(all), BsTaskFinished);
        expectWave(clip.get(), expected, 0, lastFrame, 1e-4f);
        auto manager = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(clip.get()));
        EXPECT_NE(manager->hasFrames(0, lastFrame), 0);
        EXPECT_EQ(manager->hasFrames(lastFrame + 1, lastFrame + 1), 0);
    }
}

TEST_F(AudioWaveTaskTest, RangesReachingFarBeyondTheEndStopAtTheEnd) {
    const std::string wav = makeWav("short.wav", 44100, 1.5);
    const std::string mp3 = folder_.file("short.mp3");
    ASSERT_TRUE(ffmpeg("-i '" + wav + "' -c:a libmp3lame '" + mp3 + "'"));
    const std::vector<float> expected = MediaTest::waveValues(MediaTest::readWav16(wav));
    for (const std::string& path : {wav, mp3}) {
        SCOPED_TRACE(path);
        auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
        const int64_t token = append(clip.get(), 10, 2'000'000'000);
        ASSERT_EQ(recorder_.waitFinal(token), BsTaskFinished);
        auto manager = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(clip.get()));
        EXPECT_NE(manager->hasFrames(10, 37), 0);
        EXPECT_EQ(manager->hasFrames(38 + (path == mp3 ? 2 : 0), 40), 0);
        EXPECT_EQ(manager->hasFrames(0, 9), 0);
        if (path == wav) expectWave(clip.get(), expected, 10, 37, kStepTolerance);
        // Asked again: nothing is missing any more.
        const int64_t again = append(clip.get(), 10, 2'000'000'000);
        EXPECT_EQ(recorder_.waitFinal(again), BsTaskFinished);
    }
}

TEST_F(AudioWaveTaskTest, HeldFramesNeedNoDecodingEvenWhenTheFileIsGone) {
    const std::string path = makeWav("tone.wav", 44100, 1.0);
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    const int64_t first = append(clip.get(), 0, 24);
    ASSERT_EQ(recorder_.waitFinal(first), BsTaskFinished);
    const std::vector<float> before = values(clip.get(), 0, 24);
    std::filesystem::remove(path);
    const int64_t second = append(clip.get(), 5, 20);
    ASSERT_EQ(recorder_.waitFinal(second), BsTaskFinished);
    EXPECT_EQ(values(clip.get(), 0, 24), before);
    // Frames that are not held now fail: the file is gone.
    const int64_t beyond = append(clip.get(), 30, 40);
    EXPECT_EQ(recorder_.waitFinal(beyond), BsTaskFailed);
}

TEST_F(AudioWaveTaskTest, ClipsOfOneStreamShareWhatWasDecoded) {
    const std::string path = makeWav("shared.wav", 44100, 1.0);
    auto a = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    auto b = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), 0, -1, nullptr));
    const int64_t token = append(a.get(), 0, 24);
    ASSERT_EQ(recorder_.waitFinal(token), BsTaskFinished);
    auto manager = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(b.get()));
    EXPECT_NE(manager->hasFrames(0, 24), 0);
    EXPECT_EQ(values(a.get(), 0, 24), values(b.get(), 0, 24));
}

TEST_F(AudioWaveTaskTest, AppendRejectsRequestsItCannotServe) {
    const std::string path = makeWav("tone.wav", 44100, 1.0);
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    int64_t token = -1;
    EXPECT_NE(task_->append(nullptr, &token), 0);
    BsWaveTaskRecord record;
    EXPECT_NE(task_->append(&record, &token), 0);  // no clip
    record.clip = clip.get();
    EXPECT_NE(task_->append(&record, nullptr), 0);
    record.rateNum = 30;
    EXPECT_NE(task_->append(&record, &token), 0);
    record.rateNum = 25;
    record.beginFrame = 10;
    record.endFrame = 9;
    EXPECT_NE(task_->append(&record, &token), 0);
    EXPECT_EQ(token, -1);
    EXPECT_EQ(task_->pendingCount(), 0);
    // Cancelling an unknown token does nothing.
    task_->cancel(123456789);
    EXPECT_EQ(recorder_.count(), 0u);
}

// Each bad file ends in a rejected append or in status 3, with a log line that
// names the file and the cause.
TEST_F(AudioWaveTaskTest, BadInputIsRejectedOrFailsWithANamedCause) {
    ScopedCapture capture(IBsLogger::Info);
    const std::string good = makeWav("good.wav", 44100, 1.0);
    const std::string video = folder_.file("silent.mp4");
    ASSERT_TRUE(ffmpeg(MediaTest::silentVideoArguments(video, 32, 32, 1)));
    const std::string m4a = folder_.file("cut.m4a");
    ASSERT_TRUE(ffmpeg("-i '" + good + "' -c:a aac '" + m4a + "'"));
    MediaTest::writeText(folder_.file("empty.wav"), "");
    MediaTest::writeText(folder_.file("notes.mp4"), "not a movie at all\n");

    auto logged = [&](const std::string& name, const std::string& cause) {
        for (const std::string& text : capture.sink().texts())
            if (text.find(name) != std::string::npos && text.find(cause) != std::string::npos) return true;
        return false;
    };

    struct Rejected {
        std::string file;
        std::string cause;
    };
    for (const Rejected& bad : {Rejected{"missing.wav", "No such file"}, Rejected{"empty.wav", "Invalid data"},
                                Rejected{"notes.mp4", "Invalid data"}, Rejected{"silent.mp4", "no audio stream"}}) {
        SCOPED_TRACE(bad.file);
        auto clip = ZorRef<IDmClip>::adopt(createMediaClip(folder_.file(bad.file).c_str(), -1, -1, nullptr));
        append(clip.get(), 0, 10, 1004);
        EXPECT_TRUE(logged(bad.file, bad.cause));
    }

    // Files that break after their clip was made: status 3.
    const std::string moved = folder_.file("moved.wav");
    std::filesystem::copy_file(good, moved);
    auto movedClip = ZorRef<IDmClip>::adopt(createMediaClip(moved.c_str(), -1, -1, nullptr));
    std::filesystem::remove(moved);
    EXPECT_EQ(recorder_.waitFinal(append(movedClip.get(), 0, 10)), BsTaskFailed);
    EXPECT_TRUE(logged("moved.wav", "No such file"));

    auto cutClip = ZorRef<IDmClip>::adopt(createMediaClip(m4a.c_str(), -1, -1, nullptr));
    std::filesystem::resize_file(m4a, 2000);  // the index at the end is gone
    EXPECT_EQ(recorder_.waitFinal(append(cutClip.get(), 0, 10)), BsTaskFailed);
    EXPECT_TRUE(logged("cut.m4a", "Invalid data"));

    const std::string replaced = folder_.file("replaced.wav");
    std::filesystem::copy_file(good, replaced);
    auto replacedClip = ZorRef<IDmClip>::adopt(createMediaClip(replaced.c_str(), -1, -1, nullptr));
    MediaTest::writeText(replaced, "now it is text\n");
    EXPECT_EQ(recorder_.waitFinal(append(replacedClip.get(), 0, 10)), BsTaskFailed);
    EXPECT_TRUE(logged("replaced.wav", "Invalid data"));
    EXPECT_EQ(task_->pendingCount(), 0);
}

TEST_F(AudioWaveTaskTest, CancelledBeforeStartingReportsStatusFour) {
    const std::string path = makeWav("tone.wav", 44100, 1.0);
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    ASSERT_EQ(task_->pause(), 0);
    EXPECT_EQ(task_->isPaused(), 1);
    const int64_t a = append(clip.get(), 0, 10);
    const int64_t b = append(clip.get(), 11, 20);
    EXPECT_EQ(task_->pendingCount(), 2);
    EXPECT_EQ(task_->cancel(a), 0);
    // A cancelled request ends even while the task is paused.
    EXPECT_EQ(recorder_.waitFinal(a), BsTaskCancelled);
    EXPECT_EQ(task_->pendingCount(), 1);
    // The other one waits for resume().
    EXPECT_EQ(recorder_.waitFinal(b, std::chrono::milliseconds(300)), 0);
    ASSERT_EQ(task_->resume(), 0);
    EXPECT_EQ(recorder_.waitFinal(b), BsTaskFinished);
    auto manager = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(clip.get()));
    EXPECT_EQ(manager->hasFrames(0, 10), 0);
    EXPECT_NE(manager->hasFrames(11, 20), 0);

    // cancel(-1) cancels every request.
    ASSERT_EQ(task_->pause(), 0);
    const int64_t c = append(clip.get(), 0, 5);
    const int64_t d = append(clip.get(), 30, 35);
    EXPECT_EQ(task_->cancel(-1), 0);
    EXPECT_EQ(recorder_.waitFinal(c), BsTaskCancelled);
    EXPECT_EQ(recorder_.waitFinal(d), BsTaskCancelled);
    EXPECT_EQ(recorder_.reportsOf(c).size(), 1u);
}

// ---------------------------------------------------------------------------
// MP3 by packet index

// Stereo sines with pink noise, so that the encoder uses its bit reservoir.
std::string mixSource(double seconds, int rate) {
    const std::string d = std::to_string(seconds);
    const std::string r = std::to_string(rate);
    return "-f lavfi -i \"sine=f=220:r=" + r + ":d=" + d + "\" -f lavfi -i \"sine=f=1234:r=" + r + ":d=" + d +
           "\" -f lavfi -i \"anoisesrc=color=pink:r=" + r + ":a=0.3:d=" + d +
           "\" -filter_complex \"[0][1][2]amix=inputs=3,pan=stereo|c0=c0|c1=0.5*c0+0.5*c1\" -t " + d;
}

// Restores the default pre-roll when the test ends.
struct PrerollOverride {
    explicit PrerollOverride(int32_t packets) { btm::setPacketIndexPreroll(packets); }
    ~PrerollOverride() { btm::setPacketIndexPreroll(-1); }
    PrerollOverride(const PrerollOverride&) = delete;
    PrerollOverride& operator=(const PrerollOverride&) = delete;
};

class Mp3IndexTest : public AudioWaveTaskTest {
protected:
    // The values of a sequential decode by the ffmpeg command, as stored.
    std::vector<float> sequentialValues(const std::string& path, int rate, int channels) {
        MediaTest::Pcm pcm = MediaTest::decodeWithCommand(path, path + ".raw", rate, channels);
        sequentialSamples_ = static_cast<int64_t>(pcm.frames());
        std::vector<float> values = MediaTest::waveValues(pcm);
        for (float& value : values) value = MediaTest::quantised(value);
        return values;
    }
    // Decodes frames [first, last] through the task and compares every value
    // with the sequential decode; true when the pieces went by the index.
    bool decodeAndCompare(IDmClip* clip, const std::vector<float>& expected, int32_t first, int32_t last,
                          size_t* pieceCount, std::vector<std::string>* logged = nullptr) {
        ScopedCapture capture(IBsLogger::Debug);
        const int64_t token = append(clip, first, last);
        EXPECT_EQ(recorder_.waitFinal(token), BsTaskFinished);
        expectWave(clip, expected, first, std::min<int32_t>(last, static_cast<int32_t>(expected.size() / kValues) - 1),
                   0.0f);
        bool indexed = false;
        for (const std::string& text : capture.sink().texts()) {
            const std::string tag = "token:" + std::to_string(token) + " ";
            const size_t at = text.find(tag);
            if (at == std::string::npos || text.find("by packet index") == std::string::npos) continue;
            indexed = true;
            if (pieceCount != nullptr) *pieceCount = std::stoul(text.substr(at + tag.size()));
        }
        if (logged != nullptr) *logged = capture.sink().texts();
        return indexed;
    }

    int64_t sequentialSamples_ = 0;
};

// CBR, VBR, a low-rate MPEG-2 file (576 samples a frame) and a file with
// large ID3v2 and ID3v1 tags and a cover picture: every value of the pieces
// equals the sequential decode's, for a range in the middle (a piece that
// starts after a pre-roll and checks it) and for the whole stream (pieces
// decoded in parallel, the last one trimmed at the end).
TEST_F(Mp3IndexTest, PiecesByPacketIndexEqualASequentialDecode) {
    const std::string wav = folder_.file("mix.wav");
    ASSERT_TRUE(ffmpeg(mixSource(30.0, 44100) + " -c:a pcm_s16le '" + wav + "'"));
    const std::string cover = folder_.file("cover.png");
    ASSERT_TRUE(ffmpeg("-f lavfi -i \"testsrc2=s=320x240\" -frames:v 1 '" + cover + "'"));
    struct Variant {
        std::string name;
        std::string arguments;
        int rate;
        int channels;
    };
    const std::vector<Variant> variants = {
        {"cbr.mp3", "-i '" + wav + "' -c:a libmp3lame -b:a 192k", 44100, 2},
        {"vbr.mp3", "-i '" + wav + "' -c:a libmp3lame -q:a 2", 44100, 2},
        {"lsf.mp3", "-i '" + wav + "' -ar 22050 -ac 1 -c:a libmp3lame -b:a 24k", 22050, 1},
        {"tagged.mp3",
         "-i '" + wav + "' -i '" + cover +
             "' -map 0:a -map 1:v -c:v png -disposition:v attached_pic "
             "-c:a libmp3lame -b:a 128k -id3v2_version 3 -write_id3v1 1 -metadata title=\"A long title\" "
             "-metadata artist=Someone -metadata comment=\"" +
             std::string(2000, 'x') + "\"",
         44100, 2},
    };
    for (const Variant& variant : variants) {
        SCOPED_TRACE(variant.name);
        const std::string path = folder_.file(variant.name);
        ASSERT_TRUE(ffmpeg(variant.arguments + " '" + path + "'"));
        const std::vector<float> expected = sequentialValues(path, variant.rate, variant.channels);
        ASSERT_GT(expected.size(), 700u * kValues);
        const int32_t lastFrame = static_cast<int32_t>(expected.size() / kValues) - 1;

        auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
        auto* source = static_cast<IDmMediaSource*>(clip->queryInterface("IDmMediaSource"));
        const btm::PacketIndexFacts facts = btm::packetIndexFacts(path, source->resolvedStream(DmTrackAudio));
        ASSERT_TRUE(facts.indexed) << facts.why;
        // The index counts exactly the samples a sequential decode gives.
        EXPECT_EQ(facts.samples, sequentialSamples_);
        EXPECT_EQ(facts.sampleRate, variant.rate);
        EXPECT_GT(facts.prerollStart, 0);
        EXPECT_LT(facts.prerollStart, facts.packets / 2);

        size_t pieces = 0;
        EXPECT_TRUE(decodeAndCompare(clip.get(), expected, 500, 520, &pieces));
        EXPECT_EQ(pieces, 1u);
        EXPECT_TRUE(decodeAndCompare(clip.get(), expected, 0, lastFrame + 100, &pieces));
        EXPECT_GE(pieces, 3u);
        auto manager = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(clip.get()));
        EXPECT_NE(manager->hasFrames(0, lastFrame), 0);
        EXPECT_EQ(manager->hasFrames(lastFrame + 1, lastFrame + 1), 0);
    }
}

// A pre-roll too short to settle the decoder is caught by the check, and the
// request is decoded from the start instead: the values are still exact.
TEST_F(Mp3IndexTest, AnUnsettledPreRollIsCaughtAndTheRequestDecodedFromTheStart) {
    const std::string path = folder_.file("short-preroll.mp3");
    ASSERT_TRUE(ffmpeg(mixSource(30.0, 44100) + " -c:a libmp3lame -b:a 192k '" + path + "'"));
    const std::vector<float> expected = sequentialValues(path, 44100, 2);
    const int32_t lastFrame = static_cast<int32_t>(expected.size() / kValues) - 1;
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    PrerollOverride override(1);  // one packet: the bit reservoir is still empty
    std::vector<std::string> logged;
    EXPECT_TRUE(decodeAndCompare(clip.get(), expected, 0, lastFrame, nullptr, &logged));
    bool caught = false;
    for (const std::string& text : logged)
        if (text.find("did not settle the decoder; decoding from the start") != std::string::npos) caught = true;
    EXPECT_TRUE(caught);
}

// The first pass only demuxes: it costs a small part of a sequential decode.
// The first pass only demuxes; its cost beside decoding is measured in the
// benchmarks, not here. What it must get right is the sample count.
TEST_F(Mp3IndexTest, TheIndexCountsTheSamplesADecodeGives) {
    const std::string path = folder_.file("minute.mp3");
    ASSERT_TRUE(ffmpeg(mixSource(60.0, 44100) + " -c:a libmp3lame -b:a 192k '" + path + "'"));
    const btm::PacketIndexFacts facts = btm::packetIndexFacts(path, 0);
    ASSERT_TRUE(facts.indexed) << facts.why;
    btm::MediaDecoder decoder;
    std::string problem;
    ASSERT_TRUE(decoder.open(path, 0, &problem)) << problem;
    btm::FramePtr frame = btm::newFrame();
    int64_t samples = 0;
    while (decoder.next(frame.get(), nullptr) == 0) {
        samples += frame->nb_samples;
        av_frame_unref(frame.get());
    }
    EXPECT_EQ(samples, facts.samples);
    EXPECT_GT(samples, int64_t{44100} * 59);
}

// Rewrites path with other audio, longer than rampSource's (so the file's size
// changes too).
void rewriteWith(const std::string& path, double seconds) {
    ASSERT_TRUE(ffmpeg("-f lavfi -i \"aevalsrc=exprs='0.3*sin(2*PI*1000*t)+0.2*sin(2*PI*90*t)':s=44100:d=" +
                       std::to_string(seconds) + "\" -ac 2 -c:a pcm_s16le '" + path + "'"));
}

// A recorder that acts from inside the reports of one status.
class ActingRecorder : public TaskRecorder {
public:
    int32_t actOn = 0;
    std::function<void(const TaskReport&)> act;
    void onReport(const TaskReport& report) override {
        if (report.status == actOn && act) act(report);
    }
};

// The file changed on disk between append() and the start of its decoding:
// the request ends with status 7 and decodes nothing, the frames of the old
// content are dropped, and the request submitted again decodes the new file.
TEST_F(AudioWaveTaskTest, AFileChangedBeforeDecodingStartsAsksToSubmitAgain) {
    const std::string path = makeWav("changing.wav", 44100, 2.0);
    const std::vector<float> before = MediaTest::waveValues(MediaTest::readWav16(path));
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    const int64_t first = append(clip.get(), 0, 49);
    ASSERT_EQ(recorder_.waitFinal(first), BsTaskFinished);
    expectWave(clip.get(), before, 0, 49, kStepTolerance);
    auto manager = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(clip.get()));
    ASSERT_NE(manager->hasFrames(0, 49), 0);

    // Submitted again from inside the status-7 report, as clients do; the new
    // request reports nothing before that report returns.
    ActingRecorder acting;
    acting.actOn = BsTaskResubmit;
    std::atomic<int64_t> again{-1};
    std::atomic<bool> earlyReport{false};
    acting.act = [&](const TaskReport&) {
        again.store(append(clip.get(), 0, 60));
        const int64_t token = again.load();
        earlyReport.store(recorder_.waitFor([token](const TaskReport& r) { return r.token == token; },
                                            std::chrono::milliseconds(300)));
    };
    ASSERT_EQ(task_->addCallBack(&acting), 0);

    ASSERT_EQ(task_->pause(), 0);
    const int64_t stale = append(clip.get(), 0, 60);
    rewriteWith(path, 2.4);
    const std::vector<float> after = MediaTest::waveValues(MediaTest::readWav16(path));
    ASSERT_EQ(after.size(), 60u * kValues);
    ASSERT_EQ(task_->resume(), 0);
    ASSERT_EQ(recorder_.waitFinal(stale), BsTaskResubmit);
    const std::vector<TaskReport> staleReports = recorder_.reportsOf(stale);
    ASSERT_EQ(staleReports.size(), 1u);
    EXPECT_EQ(staleReports[0].status, BsTaskResubmit);

    ASSERT_TRUE(acting.waitFinal(stale) == BsTaskResubmit);
    const int64_t token = again.load();
    ASSERT_GT(token, 0);
    EXPECT_NE(token, stale);
    EXPECT_FALSE(earlyReport.load());
    ASSERT_EQ(recorder_.waitFinal(token), BsTaskFinished);
    expectWave(clip.get(), after, 0, 59, kStepTolerance);
    EXPECT_NE(manager->hasFrames(0, 59), 0);
    EXPECT_EQ(manager->hasFrames(60, 60), 0);
    task_->removeCallBack(&acting);
}

// Right after the status 7 the frames of the old content are gone.
TEST_F(AudioWaveTaskTest, StatusSevenDropsTheFramesOfTheOldContent) {
    const std::string path = makeWav("dropped.wav", 44100, 1.0);
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    const int64_t first = append(clip.get(), 0, 24);
    ASSERT_EQ(recorder_.waitFinal(first), BsTaskFinished);
    auto manager = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(clip.get()));
    ASSERT_NE(manager->hasFrames(0, 24), 0);
    ASSERT_EQ(task_->pause(), 0);
    // Every frame asked for is held: without the check it would finish at once.
    const int64_t stale = append(clip.get(), 0, 24);
    rewriteWith(path, 1.2);
    ASSERT_EQ(task_->resume(), 0);
    ASSERT_EQ(recorder_.waitFinal(stale), BsTaskResubmit);
    EXPECT_EQ(manager->hasFrames(0, 0), 0);
    std::vector<float> read(kValues, 5.0f);
    EXPECT_NE(manager->readFrame(0, 25, 1, read.data(), kValues), 0);
    EXPECT_EQ(read, std::vector<float>(kValues, 0.0f));
}

// A file that changed before the request was appended is simply decoded
// again: the held frames of the old content are not served.
TEST_F(AudioWaveTaskTest, AFileChangedBeforeTheAppendIsDecodedAfresh) {
    const std::string path = makeWav("edited.wav", 44100, 1.0);
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    const int64_t first = append(clip.get(), 0, 24);
    ASSERT_EQ(recorder_.waitFinal(first), BsTaskFinished);
    rewriteWith(path, 1.2);
    const std::vector<float> after = MediaTest::waveValues(MediaTest::readWav16(path));
    const int64_t second = append(clip.get(), 0, 29);
    ASSERT_EQ(recorder_.waitFinal(second), BsTaskFinished);
    expectWave(clip.get(), after, 0, 29, kStepTolerance);
}

// A file served through a pipe holds the decoder in the middle of the stream.
class HeldDecoderTest : public AudioWaveTaskTest {
protected:
    // The clip is made from the real file; then the file is replaced by a
    // pipe that serves the same bytes, holding its second reader (the piece's
    // decoder; the first is the planning look) after 64 KiB. Requests stay
    // within one piece (10 s), so there is one decoder at a time.
    void serve(const std::string& path) {
        clip_ = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
        ASSERT_NE(clip_.get(), nullptr);
        server_ = std::make_unique<PipeServer>(path, MediaTest::readBytes(path), 2, 64 * 1024);
        ASSERT_TRUE(server_->created());
    }
    void TearDown() override {
        if (server_) server_->openGate();
        AudioWaveTaskTest::TearDown();  // shuts the task down first
        server_.reset();
        clip_.reset();
    }

    ZorRef<IDmClip> clip_;
    std::unique_ptr<PipeServer> server_;
};

TEST_F(HeldDecoderTest, CancelStopsADecodingRequest) {
    const std::string path = folder_.file("held.wav");
    ASSERT_TRUE(ffmpeg(rampInput(8000, 20.0) + " -ac 1 -c:a pcm_s16le '" + path + "'"));
    serve(path);
    const int64_t token = append(clip_.get(), 0, 249);
    ASSERT_TRUE(server_->waitAtGate(kGenerous));
    EXPECT_EQ(task_->pendingCount(), 1);
    EXPECT_EQ(task_->cancel(token), 0);
    server_->openGate();
    EXPECT_EQ(recorder_.waitFinal(token), BsTaskCancelled);
    auto manager = ZorRef<IDmAudioWaveMgrInternal>::adopt(managerOf(clip_.get()));
    EXPECT_EQ(manager->hasFrames(0, 249), 0);
    EXPECT_EQ(recorder_.reportsOf(token).size(), 1u);
}

TEST_F(HeldDecoderTest, PauseLetsRunningWorkFinishAndHoldsNewWork) {
    const std::string path = folder_.file("held.wav");
    ASSERT_TRUE(ffmpeg(rampInput(8000, 20.0) + " -ac 1 -c:a pcm_s16le '" + path + "'"));
    const std::vector<float> expected = MediaTest::waveValues(MediaTest::readWav16(path));
    serve(path);
    const int64_t running = append(clip_.get(), 0, 249);
    ASSERT_TRUE(server_->waitAtGate(kGenerous));
    ASSERT_EQ(task_->pause(), 0);
    server_->openGate();
    EXPECT_EQ(recorder_.waitFinal(running), BsTaskFinished);
    expectWave(clip_.get(), expected, 0, 249, kStepTolerance);

    // Held frames finish without decoding; this one needs decoding and waits.
    auto other = ZorRef<IDmClip>::adopt(createMediaClip(makeWav("other.wav", 8000, 1.0).c_str(), -1, -1, nullptr));
    const int64_t waiting = append(other.get(), 0, 24);
    EXPECT_EQ(recorder_.waitFinal(waiting, std::chrono::milliseconds(300)), 0);
    EXPECT_EQ(task_->pendingCount(), 1);
    ASSERT_EQ(task_->resume(), 0);
    EXPECT_EQ(recorder_.waitFinal(waiting), BsTaskFinished);
}

TEST_F(HeldDecoderTest, ShutdownCancelsJoinsAndReportsNothingMore) {
    const std::string path = folder_.file("held.wav");
    ASSERT_TRUE(ffmpeg(rampInput(8000, 20.0) + " -ac 1 -c:a pcm_s16le '" + path + "'"));
    serve(path);
    const int64_t token = append(clip_.get(), 0, 249);
    ASSERT_TRUE(server_->waitAtGate(kGenerous));
    server_->openGate();
    ASSERT_EQ(task_->shutdown(), 0);
    const size_t reportsAtShutdown = recorder_.count();
    // Nothing comes after shutdown() returned.
    EXPECT_FALSE(recorder_.waitForCount(reportsAtShutdown + 1, std::chrono::milliseconds(200)));
    EXPECT_EQ(task_->isStarted(), 0);
    EXPECT_EQ(task_->pendingCount(), 0);
    int64_t ignored = -1;
    BsWaveTaskRecord record;
    record.clip = clip_.get();
    EXPECT_NE(task_->append(&record, &ignored), 0);
    EXPECT_NE(task_->start(), 0);
    EXPECT_EQ(recorder_.count(), reportsAtShutdown);
    EXPECT_TRUE(recorder_.reportsOf(token).empty() || recorder_.reportsOf(token).size() == 1u);
}

TEST_F(AudioWaveTaskTest, TheLastReleaseJoinsTheWorkers) {
    const std::string path = makeWav("tone.wav", 44100, 1.0);
    auto clip = ZorRef<IDmClip>::adopt(createMediaClip(path.c_str(), -1, -1, nullptr));
    task_->removeCallBack(&recorder_);
    task_.reset();
    const int before = threadCount();

    auto task = ZorRef<IBsAudioWaveExtractTask>::adopt(createAudioWaveExtractTask());
    auto other = ZorRef<IBsVideoFrameExtractTask>::adopt(createVideoFrameExtractTask());
    ASSERT_EQ(task->initialize(), 0);
    ASSERT_EQ(other->initialize(), 0);
    task->addCallBack(&recorder_);
    task->start();
    const int during = threadCount();
    EXPECT_GE(during, before + 2);  // one pool of at least two workers, shared
    BsWaveTaskRecord record;
    record.clip = clip.get();
    record.endFrame = 24;
    int64_t token = -1;
    ASSERT_EQ(task->append(&record, &token), 0);
    EXPECT_EQ(recorder_.waitFinal(token), BsTaskFinished);
    task.reset();
    EXPECT_EQ(threadCount(), during);  // the video task still holds the workers
    other.reset();
    EXPECT_EQ(threadCount(), before);
}

}  // namespace
}  // namespace ZOR::test
