// The change tracker of a timeline: what each data-model notification records
// and what processChanges() reports.
#include <gtest/gtest.h>

#include <vector>

#include "BsClipThumbnailService.h"
#include "BsTimelineChangedInfo.h"
#include "FakeDataModel.h"

namespace ZOR::test {
namespace {

struct AudioReport {
    IDmTimeline* timeline;
    std::vector<IDmClip*> clips;
    std::vector<uint32_t> flags;
};

class RecordingChanges final : public IChangedCallback {
public:
    int32_t onAudioChanged(IDmTimeline* timeline, IDmClipList* clips, IZORIntList* flags) override {
        AudioReport report{timeline, {}, {}};
        for (int32_t i = 0; i < clips->count(); ++i) report.clips.push_back(clips->get(i));
        for (int32_t i = 0; i < flags->count(); ++i) report.flags.push_back(static_cast<uint32_t>(flags->get(i)));
        audio.push_back(std::move(report));
        return 0;
    }
    int32_t onClipChanged(IDmTimeline* timeline, IDmClip* clip) override {
        changedTimelines.push_back(timeline);
        changed.push_back(clip);
        return 0;
    }
    int32_t onChangeIgnored(void*) override { return 0; }
    int32_t onAllClipsChanged(IDmTimeline* timeline) override {
        allChanged.push_back(timeline);
        return 0;
    }
    size_t calls() const { return audio.size() + changed.size() + allChanged.size(); }

    std::vector<AudioReport> audio;
    std::vector<IDmClip*> changed;
    std::vector<IDmTimeline*> changedTimelines;
    std::vector<IDmTimeline*> allChanged;
};

class TimelineChanges : public ::testing::Test {
protected:
    void SetUp() override {
        timeline_->addTrack(DmTrackAudio);
        timeline_->addTrack(DmTrackAudio);
        a_ = timeline_->addClip(0, "a", wave_.get(), 0, 0, 10'000'000);
        b_ = timeline_->addClip(0, "b", wave_.get(), 0, 10'000'000, 20'000'000);
        c_ = timeline_->addClip(1, "c", wave_.get(), 0, 0, 10'000'000);
        info_ = makeRef<BsTimelineChangedInfo>(&callback_, timeline_.get());
    }
    void TearDown() override {
        info_.reset();
        timeline_.reset();
        wave_.reset();
    }
    void process() { info_->processChanges(nullptr); }
    // The one audio report of the last processChanges.
    AudioReport onlyReport() {
        EXPECT_EQ(callback_.audio.size(), 1u);
        return callback_.audio.empty() ? AudioReport{} : callback_.audio.back();
    }

    RecordingChanges callback_;
    ZorRef<FakeWaveManager> wave_ = makeRef<FakeWaveManager>();
    ZorRef<FakeTimeline> timeline_ = makeRef<FakeTimeline>();
    FakeClip* a_ = nullptr;
    FakeClip* b_ = nullptr;
    FakeClip* c_ = nullptr;
    ZorRef<BsTimelineChangedInfo> info_;
};

TEST_F(TimelineChanges, AnswersItsSevenCallbackNames) {
    for (const char* name :
         {"IDmTimelineCallback", "IDmClipCallback", "IDmVideoAudioBaseClipCallback", "IDmAudioClipCallback",
          "IDmEffectCallback", "IDmTrackCallback", "IDmAudioTimelineClipCallback"})
        EXPECT_NE(info_->queryInterface(name), nullptr) << name;
    EXPECT_EQ(info_->queryInterface("IDmTimelineCallback"),
              static_cast<void*>(static_cast<IDmTimelineCallback*>(info_.get())));
    EXPECT_EQ(info_->queryInterface("IChangedCallback"), nullptr);
}

TEST_F(TimelineChanges, MuteChangeReportsTheAudioClipWith0x50) {
    info_->onAudioPropertyChanged(a_, audioKey::mute);
    process();
    const AudioReport report = onlyReport();
    EXPECT_EQ(report.timeline, timeline_.get());
    ASSERT_EQ(report.clips.size(), 1u);
    EXPECT_EQ(report.clips[0], a_);
    EXPECT_EQ(report.flags[0], 0x50u);
}

TEST_F(TimelineChanges, TimelineBeginReports0x4) {
    info_->onTimelineClipPropertyChanged(a_, clipKey::timelineBegin);
    process();
    EXPECT_EQ(onlyReport().flags, std::vector<uint32_t>{0x4});
}

TEST_F(TimelineChanges, MarkOutReports0x2) {
    info_->onTimelineClipPropertyChanged(b_, clipKey::markOut);
    process();
    const AudioReport report = onlyReport();
    EXPECT_EQ(report.clips, std::vector<IDmClip*>{b_});
    EXPECT_EQ(report.flags, std::vector<uint32_t>{0x2});
}

TEST_F(TimelineChanges, UnrelatedKeyReportsNothingAtAll) {
    info_->onTimelineClipPropertyChanged(a_, "clip.colour");
    info_->onClipPropertyChanged(a_, "clip.name");
    process();
    EXPECT_EQ(callback_.calls(), 0u);
}

TEST_F(TimelineChanges, EachPropertyKeySetsItsBit) {
    const std::pair<const char*, uint32_t> keys[] = {
        {clipKey::enable, 0x200},     {audioKey::streamId, 0x400}, {audioReversePlayKey::enable, 0x20},
        {clipKey::timelineEnd, 0x4},  {clipKey::markIn, 0x2},      {audioKey::volume, 0x40},
        {audioLoudness::enable, 0x8}, {audioLoudness::gain, 0x8},  {clipVolumeKey::volumeGain, 0x800},
    };
    for (const auto& [key, bits] : keys) {
        info_->onAudioPropertyChanged(c_, key);
        process();
        ASSERT_FALSE(callback_.audio.empty()) << key;
        EXPECT_EQ(callback_.audio.back().flags, std::vector<uint32_t>{bits}) << key;
    }
}

TEST_F(TimelineChanges, ChangesOfOneEventAreFoldedIntoOneReportInClipOrder) {
    info_->onAudioPropertyChanged(a_, audioKey::volume);
    info_->onAudioPropertyChanged(a_, audioLoudness::gain);
    info_->onAudioStreamReplaced(c_);
    info_->onSpeedChanged(b_);
    info_->onSelectionChanged(b_);
    process();
    const AudioReport report = onlyReport();
    std::map<IDmClip*, uint32_t> expected{{a_, 0x48}, {b_, 0x20}, {c_, 0x400}};
    ASSERT_EQ(report.clips.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(report.flags[i], expected[report.clips[i]]);
        if (i > 0) {
            EXPECT_LT(report.clips[i - 1], report.clips[i]);
        }
    }
    process();
    EXPECT_EQ(callback_.audio.size(), 1u);  // the records were emptied
}

TEST_F(TimelineChanges, EffectChangesMarkTheirOwnersClip) {
    info_->onEffectChanged(a_->addEffect(4109));
    info_->onKeyframesChanged(b_->addEffect(4110));
    info_->onEffectChanged(c_->addEffect(4139));  // not an effect the thumbnails depend on
    process();
    const AudioReport report = onlyReport();
    ASSERT_EQ(report.clips.size(), 2u);
    for (size_t i = 0; i < 2; ++i) EXPECT_EQ(report.flags[i], report.clips[i] == a_ ? 0x10u : 0x40u);
}

TEST_F(TimelineChanges, RemovedAndReAddedClipIsReportedOnceWith0x100AndNotAsChanged) {
    info_->onClipRemoved(timeline_.get(), a_);
    info_->onClipAdded(timeline_.get(), a_);
    process();
    const AudioReport report = onlyReport();
    EXPECT_EQ(report.clips, std::vector<IDmClip*>{a_});
    EXPECT_EQ(report.flags, std::vector<uint32_t>{0x100});
    EXPECT_TRUE(callback_.changed.empty());
}

TEST_F(TimelineChanges, RemovedClipWithAudioIsReportedWithExactly0x80ThenAsChanged) {
    info_->watchClip(a_);
    info_->onAudioPropertyChanged(a_, audioKey::mute);
    info_->onTimelineClipPropertyChanged(a_, clipKey::markIn);
    info_->onClipRemoved(timeline_.get(), a_);
    process();
    const AudioReport report = onlyReport();
    EXPECT_EQ(report.clips, std::vector<IDmClip*>{a_});
    EXPECT_EQ(report.flags, std::vector<uint32_t>{0x80});
    EXPECT_EQ(callback_.changed, std::vector<IDmClip*>{a_});
    EXPECT_EQ(callback_.changedTimelines, std::vector<IDmTimeline*>{timeline_.get()});
    EXPECT_EQ(info_->watchedClips().count(a_), 0u);
}

TEST_F(TimelineChanges, TogglingSoloReportsEveryAudioBearingClipOfTheTrackWith0x200) {
    info_->onTrackPropertyChanged(timeline_->track(0), trackKey::solo);
    process();
    const AudioReport report = onlyReport();
    ASSERT_EQ(report.clips.size(), 2u);
    EXPECT_EQ(std::set<IDmClip*>(report.clips.begin(), report.clips.end()), (std::set<IDmClip*>{a_, b_}));
    EXPECT_EQ(report.flags, (std::vector<uint32_t>{0x200, 0x200}));
}

TEST_F(TimelineChanges, OtherTrackKeysReportNothing) {
    info_->onTrackPropertyChanged(timeline_->track(1), "track.height");
    process();
    EXPECT_EQ(callback_.calls(), 0u);
}

TEST_F(TimelineChanges, EventAfterWhichNothingWasRecordedCallsNoOperationOfTheCallback) {
    process();
    EXPECT_EQ(callback_.calls(), 0u);
    info_->onSelectionChanged(a_);
    info_->onNameChanged(a_);
    info_->onAudioLevelsChanged(a_);
    info_->onClipMoved(timeline_.get(), a_);
    process();
    EXPECT_EQ(callback_.calls(), 0u);
}

TEST_F(TimelineChanges, TimelineGoneTellsAllClipsChangedAndForgetsTheWatchedClips) {
    info_->watchClip(a_);
    info_->watchClip(b_);
    info_->onTimelineGone(timeline_.get());
    EXPECT_EQ(callback_.allChanged, std::vector<IDmTimeline*>{timeline_.get()});
    EXPECT_TRUE(info_->watchedClips().empty());
    EXPECT_EQ(info_->timeline(), nullptr);
    // Afterwards only the watched set is kept.
    info_->watchClip(c_);
    EXPECT_EQ(info_->watchedClips().count(c_), 1u);
    info_->onTimelineGone(timeline_.get());
    EXPECT_EQ(callback_.allChanged, (std::vector<IDmTimeline*>{timeline_.get(), nullptr}));
}

}  // namespace
}  // namespace ZOR::test
