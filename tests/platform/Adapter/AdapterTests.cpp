#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "Adapter/Adapter.h"
#include "Common/ZorInternalComUtility.h"

namespace ZOR::test {
namespace {

TEST(AdapterKeys, EveryKeyHasItsOwnStableText) {
    // The texts are what hosts and logs see; they must not change.
    const std::vector<std::pair<const char*, const char*>> keys{
        {audioKey::volume, "audio.volume"},
        {audioKey::mute, "audio.mute"},
        {audioKey::streamId, "audio.streamId"},
        {clipVolumeKey::volumeGain, "clipVolume.volumeGain"},
        {audioLoudness::enable, "audioLoudness.enable"},
        {audioLoudness::gain, "audioLoudness.gain"},
        {audioReversePlayKey::enable, "audioReversePlay.enable"},
        {trackKey::mute, "track.mute"},
        {trackKey::visible, "track.visible"},
        {trackKey::solo, "track.solo"},
        {clipKey::enable, "clip.enable"},
        {clipKey::markIn, "clip.markIn"},
        {clipKey::markOut, "clip.markOut"},
        {clipKey::timelineBegin, "clip.timelineBegin"},
        {clipKey::timelineEnd, "clip.timelineEnd"},
        {videoKey::streamId, "video.streamId"},
        {mediaInfoKey::width, "mediaInfo.width"},
        {mediaInfoKey::height, "mediaInfo.height"},
        {mediaInfoKey::vid_stream_id, "mediaInfo.vid_stream_id"},
        {mediaInfoKey::duration, "mediaInfo.duration"},
    };
    std::set<std::string> distinct;
    for (const auto& [key, text] : keys) {
        ASSERT_NE(key, nullptr);
        EXPECT_STREQ(key, text);
        distinct.insert(key);
    }
    EXPECT_EQ(distinct.size(), keys.size());
}

// A wave manager stand-in that counts its references.
class FakeManager final : public RefCnt<void>, public virtual IDmAudioWaveMgrInternal {
public:
    ZOR_IMPLEMENT_REFCNT
    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "IDmAudioWaveMgrInternal", static_cast<IDmAudioWaveMgrInternal*>(this));
    }
    uint32_t valueCountPerFrame(int64_t, int64_t) override { return 40; }
    int32_t readFrame(int32_t, int64_t, int64_t, float*, uint32_t) override { return 1001; }
    int32_t hasFrames(int32_t, int32_t) override { return 0; }
};

class NotAManager final : public RefCnt<void>, public virtual IDmBaseObj {
public:
    ZOR_IMPLEMENT_REFCNT
    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "NotAManager", static_cast<IDmBaseObj*>(this));
    }
};

TEST(AdapterWaveManager, SourceGivesItsManagerWithAReferenceForTheCaller) {
    const auto manager =
        ZorRef<IDmAudioWaveMgrInternal>::adopt(zorCreateObject<FakeManager, IDmAudioWaveMgrInternal>());
    auto acquired = ZorRef<IDmAudioWaveMgrInternal>::adopt(acquireIDmAudioWaveMgrInternal(manager.get()));
    EXPECT_EQ(acquired.get(), manager.get());
    EXPECT_EQ(manager->refCount(), 2);
    acquired.reset();
    EXPECT_EQ(manager->refCount(), 1);

    EXPECT_EQ(acquireIDmAudioWaveMgrInternal(nullptr), nullptr);
    const auto other = ZorRef<IDmBaseObj>::adopt(zorCreateObject<NotAManager, IDmBaseObj>());
    EXPECT_EQ(acquireIDmAudioWaveMgrInternal(other.get()), nullptr);
    EXPECT_EQ(other->refCount(), 1);
}

}  // namespace
}  // namespace ZOR::test
