// Timelines written back as documents (writeTimelineDocument) and read again:
// the same tracks, clips, ranges and "miravel" values, after edits too; the
// file replaced whole or not at all. Media made by the ffmpeg command.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "Adapter/Adapter.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmEdit.h"
#include "DataModel/DmTimeline.h"
#include "MediaTestSupport.h"
#include "ZorUtils/ZorUtils.h"
#include "WriteFaults.h"

namespace ZOR::test {
namespace {

using MediaTest::ffmpeg;
using MediaTest::filesUnder;
using MediaTest::readBytes;
using MediaTest::writeText;

constexpr int64_t kSecond = 10'000'000;

// Every field of a description, one per line, so that a difference names the
// field and both values.
std::string dump(const DmTimelineDesc& desc) {
    std::ostringstream out;
    out.precision(17);
    out << "timeline " << desc.name << "\n";
    for (const DmTrackDesc& track : desc.tracks) {
        out << "track " << track.name << " kind " << track.kind << " mute " << track.mute << " visible "
            << track.visible << " solo " << track.solo << "\n";
        for (const DmClipDesc& clip : track.clips) {
            out << " clip " << clip.name << "\n  media " << clip.mediaPath << "\n  stream " << clip.streamId
                << "\n  range " << clip.begin << " " << clip.end << " mark " << clip.markIn << " " << clip.markOut
                << "\n  speed " << clip.speed << " reverse " << clip.reverse << "\n  enabled " << clip.enabled
                << " mute " << clip.mute << "\n  volume " << clip.volumeDb << " gain " << clip.volumeGainDb
                << "\n  loudness " << clip.loudnessEnabled << " " << clip.loudnessGain << "\n";
            // Speed parts may come in any order; the timeline keeps them sorted.
            std::vector<DmSpeedPartDesc> parts = clip.speedParts;
            std::sort(parts.begin(), parts.end(),
                      [](const DmSpeedPartDesc& a, const DmSpeedPartDesc& b) { return a.begin < b.begin; });
            for (const DmSpeedPartDesc& part : parts)
                out << "  part " << part.begin << " " << part.end << " " << part.speed << "\n";
            for (const DmKeyframeDesc& keyframe : clip.volumeKeyframes)
                out << "  keyframe " << keyframe.time << " " << keyframe.db << "\n";
            out << "  ducking " << clip.ducking.present << " " << clip.ducking.enabled << " " << clip.ducking.depth
                << " " << clip.ducking.fade << " " << clip.ducking.fadeRatio << "\n";
        }
    }
    return out.str();
}

DmTimelineDesc parsed(const std::string& path) {
    DmTimelineDesc desc;
    std::string error;
    EXPECT_EQ(parseTimelineDocument(path.c_str(), &desc, &error), 0) << error;
    return desc;
}

DmTimelineDesc described(IDmTimeline* timeline) {
    DmTimelineDesc desc;
    std::string error = "not cleared";
    EXPECT_EQ(describeTimeline(timeline, &desc, &error), 0) << error;
    EXPECT_EQ(error, "");
    return desc;
}

IDmClip* clipNamed(IDmTimeline* timeline, const std::string& name) {
    for (int32_t t = 0; t < timeline->trackCount(); ++t)
        for (int32_t i = 0; i < timeline->clipCount(t); ++i)
            if (IDmClip* clip = timeline->clip(t, i); clip != nullptr && clip->name() == name) return clip;
    ADD_FAILURE() << "no clip " << name;
    return nullptr;
}

// A document with every "miravel" field and every way of naming media: a
// video track (gap, a clip at double speed with sound, a frozen clip) and an
// audio track (a clip with keyframes, speed parts, ducking off, reverse and
// mute; a gap; a disabled clip of the second stream of a Matroska file
// played backwards by its time warp and ducking; a clip of missing media).
std::string document(const std::string& movieUrl, const std::string& tonePath) {
    const auto time = [](int value, int rate) {
        return R"({"OTIO_SCHEMA": "RationalTime.1", "value": )" + std::to_string(value) + R"(, "rate": )" +
               std::to_string(rate) + "}";
    };
    const auto range = [&](int start, int duration, int rate) {
        return R"({"OTIO_SCHEMA": "TimeRange.1", "start_time": )" + time(start, rate) + R"(, "duration": )" +
               time(duration, rate) + "}";
    };
    return R"({"OTIO_SCHEMA": "Timeline.1", "name": "Cut \"one\"",
  "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [
    {"OTIO_SCHEMA": "Track.1", "name": "Pictures", "kind": "Video",
     "metadata": {"miravel": {"mute": true, "visible": true, "solo": false}},
     "children": [
       {"OTIO_SCHEMA": "Gap.1", "source_range": )" +
           range(0, 25, 25) + R"(},
       {"OTIO_SCHEMA": "Clip.1", "name": "Shot", "source_range": )" +
           range(12, 36, 24) + R"(,
        "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": ")" +
           movieUrl + R"(",
                            "available_range": )" +
           range(0, 100, 25) + R"(},
        "effects": [{"OTIO_SCHEMA": "LinearTimeWarp.1", "time_scalar": 2.0}],
        "metadata": {"miravel": {"stream_id": 0, "volume_db": -4.5}}},
       {"OTIO_SCHEMA": "Clip.1", "name": "Still", "source_range": )" +
           range(50, 13, 25) + R"(,
        "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": ")" +
           movieUrl + R"("},
        "effects": [{"OTIO_SCHEMA": "FreezeFrame.1", "time_scalar": 0.0}]}]},
    {"OTIO_SCHEMA": "Track.1", "name": "Music", "kind": "Audio", "enabled": false,
     "metadata": {"miravel": {"mute": false, "visible": false, "solo": true}},
     "children": [
       {"OTIO_SCHEMA": "Clip.1", "name": "Music", "source_range": )" +
           range(12000, 144000, 48000) + R"(,
        "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": ")" +
           tonePath + R"("},
        "metadata": {"miravel": {
            "stream_id": 0, "volume_db": -6, "volume_gain_db": 2.5,
            "loudness": {"enabled": true, "gain": 0.75}, "mute": true,
            "volume_keyframes": [[0.5, -12], [1.5, 0], [2.5, -48]],
            "ducking": {"enabled": false, "depth": 0.4, "fade": 0.3, "fade_ratio": 0.25},
            "reverse": true,
            "speed_parts": [{"begin": 2.0, "end": 2.5, "speed": 0.5}, {"begin": 0.5, "end": 1.0, "speed": 0}]}}},
       {"OTIO_SCHEMA": "Gap.1", "source_range": )" +
           range(0, 5, 10) + R"(},
       {"OTIO_SCHEMA": "Clip.1", "name": "Voice", "enabled": false, "source_range": )" +
           range(0, 25, 25) + R"(,
        "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": "two streams.mkv"},
        "effects": [{"OTIO_SCHEMA": "LinearTimeWarp.1", "time_scalar": -1.0}],
        "metadata": {"miravel": {"stream_id": 1, "mute": false,
            "ducking": {"enabled": true, "depth": 0.7, "fade": 0.6, "fade_ratio": 0.5}}}},
       {"OTIO_SCHEMA": "Clip.1", "name": "Lost", "source_range": )" +
           range(0, 10, 25) + R"(,
        "media_reference": {"OTIO_SCHEMA": "MissingReference.1"}}]}]}})";
}

// The media every test uses, made once: a 4 s stereo WAV, a 4 s 64x48 film
// with sound, a Matroska file of two audio streams.
class DmTimelineWriter : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        folder_ = std::make_unique<TempFolder>();
        const std::string tone = folder_->file("tone.wav");
        ffmpeg(MediaTest::toneArguments(tone, 440, 48000, 4, 2));
        ffmpeg(MediaTest::filmArguments(folder_->file("my film.mp4"), 64, 48, 4, 330));
        ffmpeg(MediaTest::twoStreamsArguments(folder_->file("two streams.mkv"), {300, 48000, 2}, {600, 22050, 1}, 2));
        document_ = folder_->file("cut.otio");
        writeText(document_, document("file://" + folder_->file("my%20film.mp4"), tone));
    }
    static void TearDownTestSuite() { folder_.reset(); }

    void SetUp() override {
        std::string error;
        timeline_ = ZorRef<IDmTimeline>::adopt(loadTimelineDocument(document_.c_str(), &error));
        ASSERT_NE(timeline_.get(), nullptr) << error;
    }
    void TearDown() override { timeline_.reset(); }

    static std::unique_ptr<TempFolder> folder_;
    static std::string document_;
    ZorRef<IDmTimeline> timeline_;
};

std::unique_ptr<TempFolder> DmTimelineWriter::folder_;
std::string DmTimelineWriter::document_;

TEST_F(DmTimelineWriter, DescribesTheTimelineAsItsDocumentSaysIt) {
    DmTimelineDesc expected = parsed(document_);
    expected.warnings.clear();
    EXPECT_EQ(dump(described(timeline_.get())), dump(expected));
    // Spot checks against the document's own numbers, so that the comparison
    // above does not merely agree with itself.
    const DmTimelineDesc desc = described(timeline_.get());
    ASSERT_EQ(desc.tracks.size(), 2u);
    ASSERT_EQ(desc.tracks[0].clips.size(), 2u);
    const DmClipDesc& shot = desc.tracks[0].clips[0];
    EXPECT_EQ(shot.begin, kSecond);
    EXPECT_EQ(shot.end, kSecond + 15'000'000);
    EXPECT_EQ(shot.markIn, 5'000'000);
    EXPECT_EQ(shot.markOut, 5'000'000 + 30'000'000);
    EXPECT_EQ(shot.speed, 2.0);
    EXPECT_EQ(shot.volumeDb, -4.5);
    const DmClipDesc& lost = desc.tracks[1].clips[2];
    EXPECT_EQ(lost.mediaPath, "");
    EXPECT_EQ(lost.begin, 45'000'000);  // 3 s of music, a gap of 0.5 s, 1 s of voice
    EXPECT_EQ(lost.end, 49'000'000);
}

TEST_F(DmTimelineWriter, WrittenDocumentReadsBackToTheSameTimeline) {
    const std::string written = folder_->file("written.otio");
    std::string error = "not cleared";
    ASSERT_EQ(writeTimelineDocument(timeline_.get(), written.c_str(), &error), 0) << error;
    EXPECT_EQ(error, "");

    DmTimelineDesc original = parsed(document_);
    original.warnings.clear();
    const DmTimelineDesc again = parsed(written);
    EXPECT_TRUE(again.warnings.empty());
    EXPECT_EQ(dump(again), dump(original));

    // The media lie beside the document: named by file name alone; missing
    // media by a MissingReference.1.
    const std::vector<char> bytes = readBytes(written);
    const std::string text(bytes.begin(), bytes.end());
    EXPECT_NE(text.find(R"("target_url": "my film.mp4")"), std::string::npos);
    EXPECT_NE(text.find(R"("target_url": "two streams.mkv")"), std::string::npos);
    EXPECT_NE(text.find(R"("OTIO_SCHEMA": "MissingReference.1")"), std::string::npos);

    // And a timeline loaded from it describes itself the same way.
    auto reloaded = ZorRef<IDmTimeline>::adopt(loadTimelineDocument(written.c_str(), &error));
    ASSERT_NE(reloaded.get(), nullptr) << error;
    EXPECT_EQ(dump(described(reloaded.get())), dump(original));
}

TEST_F(DmTimelineWriter, EditsAreWrittenAndMediaElsewhereAreNamedByAbsolutePaths) {
    IDmClip* music = clipNamed(timeline_.get(), "Music");
    IDmClip* shot = clipNamed(timeline_.get(), "Shot");
    ASSERT_NE(music, nullptr);
    ASSERT_NE(shot, nullptr);
    EXPECT_EQ(setClipProperty(shot, audioKey::volume, doubleProperty(-12.0)), 0);
    EXPECT_EQ(setClipProperty(music, audioKey::mute, boolProperty(false)), 0);
    DmDuckingDesc ducking;
    ducking.present = true;
    ducking.enabled = true;
    ducking.depth = 0.35;
    ducking.fade = 1.25;
    ducking.fadeRatio = 0.1;
    EXPECT_EQ(setClipDucking(shot, ducking), 0);
    EXPECT_EQ(setClipReverse(music, false), 0);
    EXPECT_EQ(setClipVolumeKeyframes(music, {{5'000'000, -3.0}, {20'000'000, -9.5}}), 0);
    EXPECT_EQ(setTrackProperty(timeline_->track(0), trackKey::solo, true), 0);
    const DmTimelineDesc edited = described(timeline_.get());

    std::filesystem::create_directories(folder_->path() / "elsewhere");
    const std::string written = folder_->file("elsewhere/edited.otio");
    std::string error;
    ASSERT_EQ(writeTimelineDocument(timeline_.get(), written.c_str(), &error), 0) << error;
    const DmTimelineDesc again = parsed(written);
    EXPECT_EQ(dump(again), dump(edited));

    ASSERT_EQ(again.tracks.size(), 2u);
    const DmClipDesc& shotAgain = again.tracks[0].clips[0];
    EXPECT_EQ(shotAgain.volumeDb, -12.0);
    EXPECT_TRUE(shotAgain.ducking.present);
    EXPECT_EQ(static_cast<float>(shotAgain.ducking.depth), 0.35f);
    EXPECT_EQ(static_cast<float>(shotAgain.ducking.fade), 1.25f);
    EXPECT_EQ(static_cast<float>(shotAgain.ducking.fadeRatio), 0.1f);
    EXPECT_EQ(shotAgain.mediaPath, folder_->file("my film.mp4"));
    const DmClipDesc& musicAgain = again.tracks[1].clips[0];
    EXPECT_FALSE(musicAgain.mute);
    EXPECT_FALSE(musicAgain.reverse);
    ASSERT_EQ(musicAgain.volumeKeyframes.size(), 2u);
    EXPECT_EQ(musicAgain.volumeKeyframes[1].time, 20'000'000);
    EXPECT_EQ(musicAgain.volumeKeyframes[1].db, -9.5);
    EXPECT_TRUE(again.tracks[0].solo);

    const std::vector<char> bytes = readBytes(written);
    const std::string text(bytes.begin(), bytes.end());
    EXPECT_NE(text.find("\"target_url\": \"" + folder_->file("my film.mp4") + "\""), std::string::npos);
}

TEST_F(DmTimelineWriter, ReplacesTheFileWholeAndLeavesNoTemporaryFile) {
    std::filesystem::create_directories(folder_->path() / "saves");
    const std::string target = folder_->file("saves/cut.otio");
    writeText(target, "an older document");
    std::string error;
    ASSERT_EQ(writeTimelineDocument(timeline_.get(), target.c_str(), &error), 0) << error;
    EXPECT_EQ(filesUnder(folder_->path() / "saves"), std::vector<std::string>{target});
    DmTimelineDesc original = parsed(document_);
    original.warnings.clear();
    EXPECT_EQ(dump(parsed(target)), dump(original));

    // A folder that does not exist: nothing is written, the error says why.
    const std::string nowhere = folder_->file("missing/cut.otio");
    EXPECT_EQ(writeTimelineDocument(timeline_.get(), nowhere.c_str(), &error), kResultFailure);
    EXPECT_EQ(error, nowhere + ": cannot create a file in its folder: No such file or directory");
    EXPECT_FALSE(std::filesystem::exists(folder_->path() / "missing"));

    // Something that is not a timeline of the data model.
    EXPECT_EQ(writeTimelineDocument(nullptr, target.c_str(), &error), kResultFailure);
    EXPECT_EQ(error, target + ": not a timeline made by the data model");
    EXPECT_EQ(writeTimelineDocument(timeline_.get(), "", &error), kResultFailure);
    EXPECT_EQ(error, ": no file name");
}

TEST_F(DmTimelineWriter, OverlappingClipsAreRefusedAndTheOldFileStays) {
    const std::string target = folder_->file("overlap.otio");
    writeText(target, "kept");
    IDmClip* still = clipNamed(timeline_.get(), "Still");
    ASSERT_NE(still, nullptr);
    // The shot ends at 2.5 s; the still is moved to begin inside it.
    ASSERT_EQ(moveClip(still, 2 * kSecond), 0);
    std::string error;
    EXPECT_EQ(writeTimelineDocument(timeline_.get(), target.c_str(), &error), kResultFailure);
    EXPECT_EQ(error, target + ": clip 'Still' of track 0 begins before the end of the clip before it");
    const std::vector<char> bytes = readBytes(target);
    EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "kept");
    for (const std::string& file : filesUnder(folder_->path()))
        EXPECT_EQ(file.find(".tmp-"), std::string::npos) << file;
}

// A write that fails as a disk would (an injected fault): the error names the
// file and the cause, the older document stays as it was, no temporary is
// left, and the next write replaces the document.
class DmTimelineWriterFault : public DmTimelineWriter, public ::testing::WithParamInterface<int> {
protected:
    void TearDown() override {
        injectWriteFault(0, 0);
        DmTimelineWriter::TearDown();
    }
};

TEST_P(DmTimelineWriterFault, AFailedWriteNamesTheCauseKeepsTheOlderDocumentAndTheNextWriteWorks) {
    const int fault = GetParam();
    const std::filesystem::path saves = folder_->path() / ("faults-" + std::to_string(fault));
    std::filesystem::create_directories(saves);
    const std::string target = (saves / "cut.otio").string();
    writeText(target, "an older document");
    std::string error;
    injectWriteFault(fault, 1);
    EXPECT_EQ(writeTimelineDocument(timeline_.get(), target.c_str(), &error), kResultFailure);
    EXPECT_EQ(error, target + ": cannot write: " + writeErrorText(fault));
    const std::vector<char> kept = readBytes(target);
    EXPECT_EQ(std::string(kept.begin(), kept.end()), "an older document");
    EXPECT_EQ(filesUnder(saves), std::vector<std::string>{target});
    EXPECT_EQ(lastWriteFailure(Path(saves.string()), nullptr), fault);

    ASSERT_EQ(writeTimelineDocument(timeline_.get(), target.c_str(), &error), 0) << error;
    EXPECT_EQ(error, "");
    EXPECT_EQ(filesUnder(saves), std::vector<std::string>{target});
    DmTimelineDesc original = parsed(document_);
    original.warnings.clear();
    EXPECT_EQ(dump(parsed(target)), dump(original));
}

INSTANTIATE_TEST_SUITE_P(EachFault, DmTimelineWriterFault, eachWriteFault(), writeFaultName);

}  // namespace
}  // namespace ZOR::test
