// Thousands of edits from one thread while three others read the timeline
// (structure, ranges, properties, effects, speed parts): meant for
// ThreadSanitizer and AddressSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Adapter/Adapter.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmEdit.h"
#include "DataModel/DmTimeline.h"
#include "ListenerCenter/ListenerCenter.h"
#include "MediaTestSupport.h"
#include "Timeouts.h"

namespace ZOR::test {
namespace {

using MediaTest::ffmpeg;

constexpr int64_t kSecond = 10'000'000;  // cns

DmClipDesc clipOf(const std::string& path, const std::string& name, int64_t begin, int64_t end) {
    DmClipDesc clip;
    clip.name = name;
    clip.mediaPath = path;
    clip.begin = begin;
    clip.end = end;
    clip.markIn = 0;
    clip.markOut = end - begin;
    return clip;
}

// Counts down to zero; waiting is bounded.
class CountDown {
public:
    explicit CountDown(int count) : count_(count) {}
    void arrive() {
        std::lock_guard<std::mutex> lock(lock_);
        if (--count_ == 0) zero_.notify_all();
    }
    bool wait() {
        std::unique_lock<std::mutex> lock(lock_);
        return zero_.wait_for(lock, kGenerous, [this] { return count_ <= 0; });
    }

private:
    std::mutex lock_;  // leaf
    std::condition_variable zero_;
    int count_;  // guarded by lock_
};

void settle() {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> delivered = done->get_future();
    ASSERT_EQ(defaultEventBus()->post([done] { done->set_value(); }), 0);
    ASSERT_EQ(delivered.wait_for(kGenerous), std::future_status::ready);
}

// One pass over the whole timeline; the number of impossible values seen.
int readEverything(IDmTimeline* timeline) {
    int bad = 0;
    if (timeline->duration() < 0) ++bad;
    for (int32_t t = 0; t < timeline->trackCount(); ++t) {
        IDmTrack* track = timeline->track(t);
        ZorProperty flag;
        if (track == nullptr || track->getProperty(trackKey::mute, &flag) != 0) ++bad;
        const int32_t count = timeline->clipCount(t);
        for (int32_t i = 0; i < count; ++i) {
            IDmClip* clip = timeline->clip(t, i);
            if (clip == nullptr) continue;  // the track changed meanwhile
            if (endTimeOfClip(clip) < beginTimeOfClip(clip)) ++bad;
            if (markOutTimeOfClip(clip) < markInTimeOfClip(clip)) ++bad;
            int32_t first = 0;
            int32_t second = 0;
            static_cast<IDmClipInternal*>(clip->queryInterface("IDmClipInternal"))->containerPosition(&first, &second);
            if (first < -1 || second < -1) ++bad;
            auto* properties = static_cast<IDmPropertyOwner*>(clip->queryInterface("IDmPropertyOwner"));
            ZorProperty value;
            if (properties->getProperty(clipKey::enable, &value) != 0 || value.kind != ZorProperty::Bool) ++bad;
            if (auto* parts = static_cast<IDmClipSpeedPart*>(clip->queryInterface("IDmClipSpeedPart"))) {
                const int32_t partCount = parts->speedPartCount();
                for (int32_t p = 0; p < partCount; ++p) {
                    int64_t begin = 0;
                    int64_t end = 0;
                    double speed = 1.0;
                    if (parts->speedPart(p, &begin, &end, &speed) == 0 && (end < begin || speed < 0.0)) ++bad;
                }
            }
            IDmClip* sound = getBaseAudioClip(clip);
            if (sound == nullptr) continue;
            auto* audio = static_cast<IDmAudioFeature*>(sound->queryInterface("IDmAudioFeature"));
            if (audio == nullptr || audio->getProperty(audioKey::volume, &value) != 0 ||
                value.kind != ZorProperty::Double || value.doubleValue > 0.0)
                ++bad;
            if (audio != nullptr) {
                const bool reverse = sound->effect(DmEffectReversePlay) != nullptr;
                if (audio->sourcePosition(kSecond / 2, reverse) < -kSecond) ++bad;
                if (audio->sampleRate() <= 0 || sound->feature(DmFeatureAudioEffects, 1) == nullptr) ++bad;
            }
            if (IDmEffect* ducking = sound->effect(DmEffectDucking)) {
                if (ducking->value(0) < 0.0f || ducking->value(0) > 1.0f || ducking->ownerClip() != sound) ++bad;
            }
            if (IDmEffect* volume = sound->effect(DmEffectVolume)) {
                const int32_t keyframes = volume->keyframeCount(1);
                for (int32_t k = 0; k < keyframes; ++k) {
                    int64_t time = 0;
                    double db = 0.0;
                    if (volume->keyframe(1, k, &time, &db) == 0 && db > 0.0) ++bad;
                }
            }
            if (IDmEffect* reverse = sound->effect(DmEffectReversePlay)) {
                if (reverse->value(0) != 1.0f) ++bad;
            }
        }
    }
    return bad;
}

void countEvent(const char*, const void*, void* context) { static_cast<std::atomic<int>*>(context)->fetch_add(1); }

TEST(DmEditConcurrencyTest, ReadersOnOtherThreadsWhileEditsRun) {
    TempFolder folder;
    const std::string tone = folder.file("tone.wav");
    const std::string movie = folder.file("movie.mp4");
    ASSERT_TRUE(ffmpeg(MediaTest::toneArguments(tone, 440, 44100, 2, 2)));
    ASSERT_TRUE(ffmpeg(MediaTest::filmArguments(movie, 64, 48, 2, 440)));
    DmTimelineDesc desc;
    DmTrackDesc v1;
    v1.kind = DmTrackVideo;
    v1.clips = {clipOf(movie, "scene", 0, kSecond)};
    DmTrackDesc a1;
    a1.kind = DmTrackAudio;
    a1.clips = {clipOf(tone, "music", 0, kSecond), clipOf(tone, "voice", kSecond, 2 * kSecond)};
    DmTrackDesc a2;
    a2.kind = DmTrackAudio;
    desc.tracks = {v1, a1, a2};
    std::string error;
    auto timeline = ZorRef<IDmTimeline>::adopt(createTimeline(desc, &error));
    ASSERT_NE(timeline, nullptr) << error;
    IDmClip* scene = timeline->clip(0, 0);
    IDmClip* music = timeline->clip(1, 0);
    IDmClip* voice = timeline->clip(1, 1);

    std::atomic<int> events{0};
    std::vector<int32_t> subscriptions;
    for (const char* key :
         {timelineEventKey::dataChanged, timelineEventKey::trackPropertyChanged, clipEventKey::audioPropertyChanged,
          clipEventKey::basePropertyChanged, clipEventKey::speedChanged, clipEventKey::effectPropertyChanged,
          clipEventKey::timelineClipPropertyChanged, undoRedoEventKey::undoEvent, undoRedoEventKey::redoEvent,
          undoRedoEventKey::stackChanged}) {
        subscriptions.push_back(defaultEventBus()->subscribe(key, countEvent, &events, 0));
        ASSERT_GE(subscriptions.back(), 0) << key;
    }

    constexpr int kReaders = 3;
    constexpr int kCycles = 200;  // 16 edits each
    std::atomic<bool> editing{true};
    std::atomic<int> badReads{0};
    std::atomic<int> passes{0};
    CountDown readersStarted(kReaders);
    std::vector<std::thread> readers;
    for (int r = 0; r < kReaders; ++r) {
        readers.emplace_back([&] {
            bool first = true;
            do {
                badReads.fetch_add(readEverything(timeline.get()));
                passes.fetch_add(1);
                if (first) readersStarted.arrive();
                first = false;
                std::this_thread::yield();
            } while (editing.load());
        });
    }

    int failures = 0;
    int expectedEvents = 0;
    ASSERT_TRUE(readersStarted.wait());
    std::thread editor([&] {
        auto edit = [&](int32_t result, int published) {
            if (result != 0) ++failures;
            expectedEvents += published;
        };
        IDmTrack* a1Track = timeline->track(1);
        for (int k = 0; k < kCycles; ++k) {
            const bool even = k % 2 == 0;
            edit(setClipProperty(music, audioKey::volume, doubleProperty(even ? -1.0 : -2.0)), 1);
            edit(setClipProperty(scene, audioKey::mute, boolProperty(even)), 1);
            edit(moveClip(voice, kSecond + (even ? kSecond / 4 : 0)), 1);
            edit(trimClip(music, even ? kSecond / 8 : 0, kSecond), 1);
            edit(setClipVolumeKeyframes(scene, even ? std::vector<DmKeyframeDesc>{{0, -3.0}, {kSecond / 2, -6.0}}
                                                    : std::vector<DmKeyframeDesc>{}),
                 1);
            DmDuckingDesc ducking;
            ducking.present = even;
            ducking.depth = 0.5;
            edit(setClipDucking(music, ducking), 1);
            edit(setClipReverse(scene, even), 1);
            edit(setClipSpeedParts(music, even ? std::vector<DmSpeedPartDesc>{{0, kSecond / 4, 0.5}}
                                               : std::vector<DmSpeedPartDesc>{}),
                 1);
            edit(setClipProperty(scene, clipKey::enable, boolProperty(!even)), 1);
            edit(setTrackProperty(a1Track, trackKey::mute, even), 1);
            edit(removeClip(voice), 1);
            edit(undoTimelineEdit(timeline.get()), 2);
            edit(moveClipToTrack(music, 2, 0), 1);
            edit(moveClipToTrack(music, 1, 0), 1);
            edit(undoTimelineEdit(timeline.get()), 2);
            edit(redoTimelineEdit(timeline.get()), 2);
        }
    });
    editor.join();
    editing.store(false);
    for (std::thread& reader : readers) reader.join();
    settle();
    for (int32_t id : subscriptions) EXPECT_EQ(defaultEventBus()->unsubscribe(id), 0);

    EXPECT_EQ(failures, 0);
    EXPECT_EQ(badReads.load(), 0);
    EXPECT_GE(passes.load(), kReaders);
    EXPECT_EQ(events.load(), expectedEvents);
    // The model ends where the last cycle left it.
    EXPECT_EQ(timeline->clip(1, 0), music);
    EXPECT_EQ(timeline->clipCount(2), 0);
    EXPECT_EQ(beginTimeOfClip(voice), kSecond);
    EXPECT_EQ(music->effect(DmEffectDucking), nullptr);
    EXPECT_EQ(timeline.detach()->Release(), 0);
}

}  // namespace
}  // namespace ZOR::test
