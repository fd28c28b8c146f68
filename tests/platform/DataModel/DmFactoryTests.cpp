// The data model's factory (clip lists, media information of files) and a
// timeline seen as a media object.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "Adapter/Adapter.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmTimeline.h"
#include "MediaTestSupport.h"
#include "TimelineDescs.h"

namespace ZOR::test {
namespace {

using MediaTest::ffmpeg;

int64_t intOf(IDmMediaInfo* info, const char* key) {
    ZorProperty value;
    EXPECT_EQ(info->getProperty(key, &value), 0) << key;
    EXPECT_EQ(value.kind, ZorProperty::Int) << key;
    return value.intValue;
}

// The media information of the file at path.
ZorRef<IDmMediaInfo> infoOf(const std::string& path) {
    return ZorRef<IDmMediaInfo>::adopt(getDmFactoryInstance()->createMediaInfo(path.c_str()));
}

// A track of kind holding one clip, named name, of the first length cns of
// the file at path.
DmTrackDesc trackOf(int32_t kind, const std::string& name, const std::string& path, int64_t length) {
    DmTrackDesc track;
    track.kind = kind;
    track.clips.push_back(clipOf(name, path, 0, 0, length, 0.0));
    return track;
}

class DmFactoryTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        folder_ = std::make_unique<TempFolder>();
        wide_ = folder_->file("wide.mp4");
        rotated_ = folder_->file("rotated.mp4");
        tone_ = folder_->file("tone.wav");
        ASSERT_TRUE(
            ffmpeg("-f lavfi -i \"testsrc2=s=160x90:r=25:d=2\" -f lavfi -i \"sine=f=440:r=48000:d=2\" "
                   "-c:v libx264 -pix_fmt yuv420p -c:a aac -map 1:a -map 0:v '" +
                   wide_ + "'"));
        ASSERT_TRUE(ffmpeg("-i '" + wide_ + "' -c copy -map 0 -metadata:s:v rotate=90 '" + rotated_ + "'"));
        ASSERT_TRUE(ffmpeg(MediaTest::toneArguments(tone_, 440, 48000, 1)));
    }
    static void TearDownTestSuite() { folder_.reset(); }

    static std::unique_ptr<TempFolder> folder_;
    static std::string wide_;
    static std::string rotated_;
    static std::string tone_;
};

std::unique_ptr<TempFolder> DmFactoryTest::folder_;
std::string DmFactoryTest::wide_;
std::string DmFactoryTest::rotated_;
std::string DmFactoryTest::tone_;

TEST_F(DmFactoryTest, MediaInfoGivesThePictureSizeAndTheVideoStream) {
    const auto info = infoOf(wide_);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->refCount(), 1);
    EXPECT_EQ(info->queryInterface("IDmMediaInfo"), static_cast<void*>(info.get()));
    EXPECT_EQ(intOf(info.get(), mediaInfoKey::width), 160);
    EXPECT_EQ(intOf(info.get(), mediaInfoKey::height), 90);
    EXPECT_EQ(intOf(info.get(), mediaInfoKey::vid_stream_id), 1);  // the sound is stream 0
    EXPECT_EQ(intOf(info.get(), mediaInfoKey::duration), 20'000'000);
    ZorProperty value;
    EXPECT_EQ(info->getProperty("mediaInfo.colour", &value), 1001);
    EXPECT_EQ(info->getProperty(nullptr, &value), 1001);
}

TEST_F(DmFactoryTest, MediaInfoAppliesTheRotationToWidthAndHeight) {
    const auto info = infoOf(rotated_);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(intOf(info.get(), mediaInfoKey::width), 90);
    EXPECT_EQ(intOf(info.get(), mediaInfoKey::height), 160);
}

TEST_F(DmFactoryTest, MediaInfoOfASoundFileHasNoPicture) {
    const auto info = infoOf(tone_);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(intOf(info.get(), mediaInfoKey::width), 0);
    EXPECT_EQ(intOf(info.get(), mediaInfoKey::height), 0);
    EXPECT_EQ(intOf(info.get(), mediaInfoKey::vid_stream_id), -1);
}

TEST_F(DmFactoryTest, MediaInfoOfAMissingOrUnreadableFileIsNull) {
    EXPECT_EQ(getDmFactoryInstance()->createMediaInfo(folder_->file("absent.mp4").c_str()), nullptr);
    EXPECT_EQ(getDmFactoryInstance()->createMediaInfo(""), nullptr);
    EXPECT_EQ(getDmFactoryInstance()->createMediaInfo(nullptr), nullptr);
    EXPECT_EQ(getDmFactoryInstance()->createMediaInfo(folder_->path().string().c_str()), nullptr);
}

TEST_F(DmFactoryTest, ClipListsHoldAReferenceOnEachClipInOrder) {
    std::string error;
    const auto first = ZorRef<IDmClip>::adopt(createMediaClip(tone_.c_str(), -1, -1, &error));
    const auto second = ZorRef<IDmClip>::adopt(createMediaClip(wide_.c_str(), -1, -1, &error));
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    auto list = ZorRef<IDmClipList>::adopt(getDmFactoryInstance()->createIDmClipList());
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->count(), 0);
    EXPECT_EQ(list->append(first.get()), 0);
    EXPECT_EQ(list->append(second.get()), 0);
    EXPECT_EQ(list->append(nullptr), 1001);
    EXPECT_EQ(list->count(), 2);
    EXPECT_EQ(list->get(0), first.get());
    EXPECT_EQ(list->get(1), second.get());
    EXPECT_EQ(list->get(2), nullptr);
    EXPECT_EQ(first->refCount(), 2);
    list.reset();
    EXPECT_EQ(first->refCount(), 1);
}

TEST_F(DmFactoryTest, TimelineAsAMediaObjectHasTheTopmostVisiblePictureAndItsOwnHandle) {
    DmTimelineDesc desc;
    desc.tracks = {trackOf(DmTrackVideo, "wide", wide_, 20'000'000),
                   trackOf(DmTrackVideo, "rotated", rotated_, 20'000'000)};
    std::string error;
    auto timeline = ZorRef<IDmTimeline>::adopt(createTimeline(desc, &error));
    ASSERT_NE(timeline, nullptr) << error;
    auto* internal = static_cast<IDmTimelineInternal*>(timeline->queryInterface("IDmTimelineInternal"));
    ASSERT_NE(internal, nullptr);
    EXPECT_EQ(internal->adapterHandle(), static_cast<int64_t>(reinterpret_cast<uintptr_t>(timeline.get())));
    IDmTimelineInternal::Settings settings{0, 0, 0};
    ASSERT_EQ(internal->settings(&settings), 0);
    EXPECT_EQ(settings.width, 90);
    EXPECT_EQ(settings.ratioNum, 90);
    EXPECT_EQ(settings.ratioDen, 160);

    // Hidden, the upper track gives way to the lower one.
    desc.tracks[1].visible = false;
    timeline = ZorRef<IDmTimeline>::adopt(createTimeline(desc, &error));
    ASSERT_NE(timeline, nullptr) << error;
    internal = static_cast<IDmTimelineInternal*>(timeline->queryInterface("IDmTimelineInternal"));
    ASSERT_EQ(internal->settings(&settings), 0);
    EXPECT_EQ(settings.width, 160);
    EXPECT_EQ(settings.ratioNum, 160);
    EXPECT_EQ(settings.ratioDen, 90);
    EXPECT_EQ(internal->settings(nullptr), 1001);
}

TEST_F(DmFactoryTest, TimelineWithoutPicturesDefaultsTo1920At16By9) {
    DmTimelineDesc desc;
    desc.tracks = {trackOf(DmTrackAudio, "tone", tone_, 10'000'000)};
    std::string error;
    const auto timeline = ZorRef<IDmTimeline>::adopt(createTimeline(desc, &error));
    ASSERT_NE(timeline, nullptr) << error;
    auto* internal = static_cast<IDmTimelineInternal*>(timeline->queryInterface("IDmTimelineInternal"));
    IDmTimelineInternal::Settings settings{0, 0, 0};
    ASSERT_EQ(internal->settings(&settings), 0);
    EXPECT_EQ(settings.width, 1920);
    EXPECT_EQ(settings.ratioNum, 16);
    EXPECT_EQ(settings.ratioDen, 9);
}

}  // namespace
}  // namespace ZOR::test
