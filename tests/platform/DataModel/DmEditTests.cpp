// Edits of timelines (DmEdit.h): what each changes, the notifications it
// sends (a recording listener answers the seven callback interfaces) and the
// event it publishes afterwards (observed on the default bus), undo and redo,
// and closing.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Adapter/Adapter.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmEdit.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmTimeline.h"
#include "ListenerCenter/ListenerCenter.h"
#include "MakeRef.h"
#include "MediaTestSupport.h"
#include "TimelineDescs.h"
#include "Timeouts.h"

namespace ZOR::test {
namespace {

using MediaTest::ffmpeg;

constexpr int64_t kSecond = 10'000'000;  // cns

const char* const kAllEventKeys[] = {"timeline.dataChanged",
                                     "timeline.trackPropertyChanged",
                                     "clip.videoPropertyChanged",
                                     "clip.audioPropertyChanged",
                                     "clip.basePropertyChanged",
                                     "clip.multiCameraPropertyChanged",
                                     "clip.speedChanged",
                                     "clip.effectPropertyChanged",
                                     "clip.timelineClipPropertyChanged",
                                     "clip.clipRelink",
                                     "undoRedo.undo",
                                     "undoRedo.redo",
                                     "undoRedo.stackChanged"};

template <class I>
I* query(IDmBaseObj* object, const char* name) {
    return static_cast<I*>(object->queryInterface(name));
}

ZorProperty propertyOf(IDmClip* clip, const char* key) {
    ZorProperty value;
    EXPECT_EQ(query<IDmPropertyOwner>(clip, "IDmPropertyOwner")->getProperty(key, &value), 0) << key;
    return value;
}

bool trackFlag(IDmTrack* track, const char* key) {
    ZorProperty value;
    EXPECT_EQ(track->getProperty(key, &value), 0) << key;
    return value.boolValue();
}

std::pair<int32_t, int32_t> positionOf(IDmClip* clip) {
    int32_t first = -2;
    int32_t second = -2;
    query<IDmClipInternal>(clip, "IDmClipInternal")->containerPosition(&first, &second);
    return {first, second};
}

using Lines = std::vector<std::string>;

// Everything heard, in order: notifications as "<operation> <object> [<key>]",
// events as "event <key> <timeline> <clip or track or -> <property key or ->".
// Objects are written by the names given to them, looked up when the lines
// are taken (so a clip named after it was first heard of is named too).
class Journal {
public:
    void name(const void* object, const std::string& name) {
        std::lock_guard<std::mutex> lock(lock_);
        names_[token(object)] = name;
    }

    // What stands for object in a line until it is taken.
    static std::string token(const void* object) {
        if (object == nullptr) return "-";
        char text[40];
        std::snprintf(text, sizeof text, "@{%p}", object);
        return text;
    }

    static std::string effectName(IDmEffect* effect) {
        if (effect == nullptr) return "-";
        return std::string(effect->effectName()) + "@" + token(effect->ownerClip());
    }

    void add(std::string line) {
        std::lock_guard<std::mutex> lock(lock_);
        lines_.push_back(std::move(line));
        if (!onEventThread()) offThread_ = true;
    }

    // What was heard since the last take, with the objects' names.
    Lines take() {
        std::lock_guard<std::mutex> lock(lock_);
        Lines lines = std::exchange(lines_, {});
        for (std::string& line : lines) {
            for (size_t at = line.find("@{"); at != std::string::npos; at = line.find("@{", at)) {
                const size_t end = line.find('}', at);
                if (end == std::string::npos) break;
                auto found = names_.find(line.substr(at, end + 1 - at));
                const std::string name = found != names_.end() ? found->second : "<unnamed>";
                line.replace(at, end + 1 - at, name);
                at += name.size();
            }
        }
        return lines;
    }

    bool heardOffTheEventThread() const {
        std::lock_guard<std::mutex> lock(lock_);
        return offThread_;
    }

private:
    mutable std::mutex lock_;  // leaf: guards the three members below only
    std::map<std::string, std::string> names_;
    Lines lines_;
    bool offThread_ = false;
};

// The seven callback interfaces of the data model in one base.
class EveryCallback : public IDmTimelineCallback,
                      public IDmClipCallback,
                      public IDmVideoAudioBaseClipCallback,
                      public IDmAudioClipCallback,
                      public IDmEffectCallback,
                      public IDmTrackCallback,
                      public IDmAudioTimelineClipCallback {};

// Answers the seven callback interfaces by name and writes each call down.
class RecordingListener final : public RefCnt<void>, public virtual IDmBaseObj, public EveryCallback {
public:
    ZOR_IMPLEMENT_REFCNT

    explicit RecordingListener(Journal* journal) : journal_(journal) {}

    void* queryInterface(const char* name) override {
        if (name == nullptr) return nullptr;
        const std::string asked = name;
        if (asked == "IDmTimelineCallback") return static_cast<IDmTimelineCallback*>(this);
        if (asked == "IDmClipCallback") return static_cast<IDmClipCallback*>(this);
        if (asked == "IDmVideoAudioBaseClipCallback") return static_cast<IDmVideoAudioBaseClipCallback*>(this);
        if (asked == "IDmAudioClipCallback") return static_cast<IDmAudioClipCallback*>(this);
        if (asked == "IDmEffectCallback") return static_cast<IDmEffectCallback*>(this);
        if (asked == "IDmTrackCallback") return static_cast<IDmTrackCallback*>(this);
        if (asked == "IDmAudioTimelineClipCallback") return static_cast<IDmAudioTimelineClipCallback*>(this);
        if (asked == "IDmBaseObj") return static_cast<IDmBaseObj*>(this);
        return nullptr;
    }

    int32_t onTimelineChanged(IDmTimeline* t) override { return note("onTimelineChanged", t); }
    int32_t onTrackAdded(IDmTimeline* t, IDmCallbackSource*) override { return note("onTrackAdded", t); }
    int32_t onTrackRemoved(IDmTimeline* t, IDmCallbackSource*) override { return note("onTrackRemoved", t); }
    int32_t onTrackMoved(IDmTimeline* t, IDmTrack*) override { return note("onTrackMoved", t); }
    int32_t onClipAdded(IDmTimeline* t, IDmClip* c) override { return note("onClipAdded", t, c); }
    int32_t onClipRemoved(IDmTimeline* t, IDmClip* c) override { return note("onClipRemoved", t, c); }
    int32_t onClipMoved(IDmTimeline* t, IDmClip* c) override { return note("onClipMoved", t, c); }
    int32_t onTimelineGone(IDmTimeline* t) override { return note("onTimelineGone", t); }
    int32_t onClipPropertyChanged(IDmClip* c, const char* key) override {
        return note("onClipPropertyChanged", c, key);
    }
    int32_t onMediaChanged(IDmClip* c) override { return note("onMediaChanged", c); }
    int32_t onStreamChanged(IDmClip* c) override { return note("onStreamChanged", c); }
    int32_t onRangeChanged(IDmClip* c) override { return note("onRangeChanged", c); }
    int32_t onSpeedChanged(IDmClip* c) override { return note("onSpeedChanged", c); }
    int32_t onRelinked(IDmClip* c) override { return note("onRelinked", c); }
    int32_t onSelectionChanged(IDmClip* c) override { return note("onSelectionChanged", c); }
    int32_t onNameChanged(IDmClip* c) override { return note("onNameChanged", c); }
    int32_t onAudioPropertyChanged(IDmClip* c, const char* key) override {
        return note("onAudioPropertyChanged", c, key);
    }
    int32_t onAudioStreamReplaced(IDmClip* c) override { return note("onAudioStreamReplaced", c); }
    int32_t onAudioLevelsChanged(IDmClip* c) override { return note("onAudioLevelsChanged", c); }
    int32_t onEffectAdded(IDmEffect* e) override { return noteEffect("onEffectAdded", e); }
    int32_t onEffectRemoved(IDmEffect* e) override { return noteEffect("onEffectRemoved", e); }
    int32_t onEffectChanged(IDmEffect* e) override { return noteEffect("onEffectChanged", e); }
    int32_t onKeyframesChanged(IDmEffect* e) override { return noteEffect("onKeyframesChanged", e); }
    int32_t onTrackPropertyChanged(IDmTrack* t, const char* key) override {
        return note("onTrackPropertyChanged", t, key);
    }
    int32_t onTimelineClipPropertyChanged(IDmClip* c, const char* key) override {
        return note("onTimelineClipPropertyChanged", c, key);
    }

private:
    int32_t note(const char* operation, const void* object, const char* key = nullptr) {
        std::string line = std::string(operation) + " " + Journal::token(object);
        if (key != nullptr) line += std::string(" ") + key;
        journal_->add(std::move(line));
        return 0;
    }
    int32_t note(const char* operation, IDmTimeline* timeline, IDmClip* clip) {
        journal_->add(std::string(operation) + " " + Journal::token(timeline) + " " + Journal::token(clip));
        return 0;
    }
    int32_t noteEffect(const char* operation, IDmEffect* effect) {
        journal_->add(std::string(operation) + " " + Journal::effectName(effect));
        return 0;
    }

    Journal* journal_;
};

// Subscribes to every data-model key for the length of a test; each event is
// written to the journal.
class EventRecorder {
public:
    explicit EventRecorder(Journal* journal) : journal_(journal) {
        for (const char* key : kAllEventKeys) {
            const int32_t id = defaultEventBus()->subscribe(key, &EventRecorder::handle, this, 0);
            EXPECT_GE(id, 0) << key;
            if (id >= 0) ids_.push_back(id);
        }
    }
    ~EventRecorder() {
        for (int32_t id : ids_) defaultEventBus()->unsubscribe(id);
    }
    EventRecorder(const EventRecorder&) = delete;
    EventRecorder& operator=(const EventRecorder&) = delete;

private:
    static void handle(const char* key, const void* data, void* context) {
        auto* self = static_cast<EventRecorder*>(context);
        DmEditEvent event;
        ASSERT_NE(data, nullptr) << key;
        std::memcpy(&event, data, sizeof event);
        const void* subject =
            event.clip != nullptr ? static_cast<const void*>(event.clip) : static_cast<const void*>(event.track);
        self->journal_->add(std::string("event ") + key + " " + Journal::token(event.timeline) + " " +
                            Journal::token(subject) + " " + (event.key != nullptr ? event.key : "-"));
    }

    Journal* journal_;
    std::vector<int32_t> ids_;
};

// Returns once the bus has delivered everything published before the call.
void settle() {
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> delivered = done->get_future();
    ASSERT_EQ(defaultEventBus()->post([done] { done->set_value(); }), 0);
    ASSERT_EQ(delivered.wait_for(kGenerous), std::future_status::ready);
}

// The media, made once: a 2 s stereo tone, a 2 s video with sound, a 1 s
// video without sound and a file with two audio streams (440 Hz mono, then
// 880 Hz stereo).
class DmEditTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        folder_ = std::make_unique<TempFolder>();
        tone_ = folder_->file("tone.wav");
        movie_ = folder_->file("movie.mp4");
        silent_ = folder_->file("silent.mp4");
        dual_ = folder_->file("dual.mkv");
        ffmpeg(MediaTest::toneArguments(tone_, 440, 44100, 2, 2));
        ffmpeg(MediaTest::filmArguments(movie_, 64, 48, 2, 440));
        ffmpeg(MediaTest::silentVideoArguments(silent_, 32, 32, 1));
        ffmpeg(MediaTest::twoStreamsArguments(dual_, {440, 44100, 1}, {880, 48000, 2}, 2));
    }
    static void TearDownTestSuite() { folder_.reset(); }

    // V1: scene (video with sound), picture (video without); A1: music; A2: empty.
    void SetUp() override {
        DmTimelineDesc desc;
        desc.name = "edited";
        desc.tracks.push_back(trackDesc(DmTrackVideo, "V1",
                                        {clipDesc(movie_, "scene", 0, kSecond, 0, kSecond),
                                         clipDesc(silent_, "picture", kSecond, 2 * kSecond, 0, kSecond)}));
        desc.tracks.push_back(trackDesc(DmTrackAudio, "A1", {clipDesc(tone_, "music", 0, kSecond, 0, kSecond)}));
        desc.tracks.push_back(trackDesc(DmTrackAudio, "A2", {}));
        std::string error;
        timeline_ = ZorRef<IDmTimeline>::adopt(createTimeline(desc, &error));
        ASSERT_NE(timeline_.get(), nullptr) << error;
        scene_ = timeline_->clip(0, 0);
        sceneSound_ = getBaseAudioClip(scene_);
        picture_ = timeline_->clip(0, 1);
        music_ = timeline_->clip(1, 0);
        ASSERT_NE(sceneSound_, nullptr);
        ASSERT_NE(sceneSound_, scene_);
        ASSERT_EQ(getBaseAudioClip(picture_), nullptr);
        ASSERT_EQ(getBaseAudioClip(music_), music_);

        listener_ = makeRef<RecordingListener>(&journal_);
        journal_.name(timeline_.get(), "timeline");
        watch(timeline_.get());
        for (int32_t t = 0; t < timeline_->trackCount(); ++t) {
            journal_.name(timeline_->track(t), t == 0 ? "V1" : t == 1 ? "A1" : "A2");
            watch(timeline_->track(t));
        }
        nameClip(scene_, "scene");
        nameClip(sceneSound_, "scene.sound");
        nameClip(picture_, "picture");
        nameClip(music_, "music");
        events_ = std::make_unique<EventRecorder>(&journal_);
    }

    void TearDown() override {
        settle();
        events_.reset();
        for (ZorRef<IDmBaseObj>& source : watched_) {
            if (auto* callbacks = query<IDmCallbackSource>(source.get(), "IDmCallbackSource"))
                callbacks->unregisterCallback(listener_.get());
            source.reset();
        }
        watched_.clear();
        timeline_.reset();
        listener_.reset();
        EXPECT_FALSE(journal_.heardOffTheEventThread());
    }

    // Registers the listener on object (kept alive until the test ends).
    void watch(IDmBaseObj* object) {
        auto* source = query<IDmCallbackSource>(object, "IDmCallbackSource");
        ASSERT_NE(source, nullptr);
        EXPECT_EQ(source->registerCallback(listener_.get()), 0);
        watched_.push_back(ZorRef<IDmBaseObj>::share(object));
    }

    void nameClip(IDmClip* clip, const std::string& name) {
        journal_.name(clip, name);
        watch(clip);
    }

    // What was heard once the bus has delivered everything.
    Lines heard() {
        settle();
        return journal_.take();
    }

    static std::unique_ptr<TempFolder> folder_;
    static std::string tone_;
    static std::string movie_;
    static std::string silent_;
    static std::string dual_;

    Journal journal_;
    ZorRef<RecordingListener> listener_;
    std::unique_ptr<EventRecorder> events_;
    std::vector<ZorRef<IDmBaseObj>> watched_;
    ZorRef<IDmTimeline> timeline_;
    IDmClip* scene_ = nullptr;
    IDmClip* sceneSound_ = nullptr;
    IDmClip* picture_ = nullptr;
    IDmClip* music_ = nullptr;
};

std::unique_ptr<TempFolder> DmEditTest::folder_;
std::string DmEditTest::tone_;
std::string DmEditTest::movie_;
std::string DmEditTest::silent_;
std::string DmEditTest::dual_;

// First in this file: nothing has been edited yet in this process, so the
// keys are there because the library registered them when it was loaded.
TEST(DmEditEventKeysTest, KeysHaveTheirTextsAndAreRegisteredWhenTheLibraryIsLoaded) {
    EXPECT_STREQ(timelineEventKey::dataChanged, "timeline.dataChanged");
    EXPECT_STREQ(timelineEventKey::trackPropertyChanged, "timeline.trackPropertyChanged");
    EXPECT_STREQ(clipEventKey::videoPropertyChanged, "clip.videoPropertyChanged");
    EXPECT_STREQ(clipEventKey::audioPropertyChanged, "clip.audioPropertyChanged");
    EXPECT_STREQ(clipEventKey::basePropertyChanged, "clip.basePropertyChanged");
    EXPECT_STREQ(clipEventKey::multiCameraPropertyChanged, "clip.multiCameraPropertyChanged");
    EXPECT_STREQ(clipEventKey::speedChanged, "clip.speedChanged");
    EXPECT_STREQ(clipEventKey::effectPropertyChanged, "clip.effectPropertyChanged");
    EXPECT_STREQ(clipEventKey::timelineClipPropertyChanged, "clip.timelineClipPropertyChanged");
    EXPECT_STREQ(clipEventKey::clipRelink, "clip.clipRelink");
    EXPECT_STREQ(undoRedoEventKey::undoEvent, "undoRedo.undo");
    EXPECT_STREQ(undoRedoEventKey::redoEvent, "undoRedo.redo");
    EXPECT_STREQ(undoRedoEventKey::stackChanged, "undoRedo.stackChanged");
    for (const char* key : kAllEventKeys) {
        const int32_t id = defaultEventBus()->subscribe(
            key, [](const char*, const void*, void*) {}, nullptr, 0);
        EXPECT_GE(id, 0) << key;
        EXPECT_EQ(defaultEventBus()->unsubscribe(id), 0) << key;
    }
}

TEST_F(DmEditTest, SoundPropertiesOfAVideoClipAreItsLinkedClips) {
    struct Case {
        const char* key;
        ZorProperty value;
    };
    const Case cases[] = {
        {audioKey::volume, doubleProperty(-6.5)},         {audioKey::mute, boolProperty(true)},
        {clipVolumeKey::volumeGain, doubleProperty(3.0)}, {audioLoudness::enable, boolProperty(true)},
        {audioLoudness::gain, doubleProperty(0.5)},       {audioReversePlayKey::enable, boolProperty(true)},
    };
    for (const Case& c : cases) {
        ASSERT_EQ(setClipProperty(scene_, c.key, c.value), 0) << c.key;
        const std::string key = c.key;
        EXPECT_EQ(heard(), (Lines{"onAudioPropertyChanged scene.sound " + key,
                                  "onTimelineClipPropertyChanged scene.sound " + key,
                                  "event clip.audioPropertyChanged timeline scene.sound " + key}))
            << key;
        const ZorProperty stored = propertyOf(sceneSound_, c.key);
        EXPECT_EQ(stored.kind, c.value.kind) << key;
        if (c.value.kind == ZorProperty::Double)
            EXPECT_EQ(stored.doubleValue, c.value.doubleValue) << key;
        else
            EXPECT_EQ(stored.boolValue(), c.value.boolValue()) << key;
        // The video clip reads the same value.
        EXPECT_EQ(propertyOf(scene_, c.key).doubleValue, stored.doubleValue) << key;
    }
    // A clip on an audio track carries its own; a number may come as Int.
    ASSERT_EQ(setClipProperty(music_, audioKey::volume, intProperty(-3)), 0);
    EXPECT_EQ(heard(),
              (Lines{"onAudioPropertyChanged music audio.volume", "onTimelineClipPropertyChanged music audio.volume",
                     "event clip.audioPropertyChanged timeline music audio.volume"}));
    EXPECT_EQ(propertyOf(music_, audioKey::volume).kind, ZorProperty::Double);
    EXPECT_EQ(propertyOf(music_, audioKey::volume).doubleValue, -3.0);
    // Given the linked clip itself: the same.
    ASSERT_EQ(setClipProperty(sceneSound_, audioKey::mute, boolProperty(false)), 0);
    EXPECT_EQ(heard(), (Lines{"onAudioPropertyChanged scene.sound audio.mute",
                              "onTimelineClipPropertyChanged scene.sound audio.mute",
                              "event clip.audioPropertyChanged timeline scene.sound audio.mute"}));
}

TEST_F(DmEditTest, SettingTheValueAlreadyThereDoesNothing) {
    ASSERT_EQ(setClipProperty(music_, audioKey::volume, doubleProperty(0.0)), 0);
    ASSERT_EQ(setTrackProperty(timeline_->track(1), trackKey::visible, true), 0);
    ASSERT_EQ(moveClip(music_, 0), 0);
    ASSERT_EQ(setClipReverse(music_, false), 0);
    ASSERT_EQ(setClipVolumeKeyframes(music_, {}), 0);
    EXPECT_EQ(heard(), Lines{});
    EXPECT_EQ(undoableEditCount(timeline_.get()), 0);
}

TEST_F(DmEditTest, StreamIdReplacesTheStreamTheClipReads) {
    DmTimelineDesc desc;
    DmClipDesc first = clipDesc(dual_, "dual", 0, kSecond, 0, kSecond);
    first.streamId = 0;
    desc.tracks.push_back(trackDesc(DmTrackAudio, "A1", {first}));
    auto timeline = ZorRef<IDmTimeline>::adopt(createTimeline(desc, nullptr));
    ASSERT_NE(timeline.get(), nullptr);
    IDmClip* dual = timeline->clip(0, 0);
    journal_.name(timeline.get(), "dual timeline");
    nameClip(dual, "dual");
    auto* audio = query<IDmAudioFeature>(dual, "IDmAudioFeature");
    ASSERT_NE(audio, nullptr);
    EXPECT_EQ(audio->audioStreamIndex(), 0);
    EXPECT_EQ(audio->channelCount(), 1);
    EXPECT_EQ(propertyOf(dual, audioKey::streamId).intValue, 0);
    IDmBaseObj* firstManager = query<IDmClipInternal>(dual, "IDmClipInternal")->waveManagerSource();
    ASSERT_NE(firstManager, nullptr);

    ASSERT_EQ(setClipProperty(dual, audioKey::streamId, intProperty(1)), 0);
    EXPECT_EQ(heard(), (Lines{"onAudioPropertyChanged dual audio.streamId",
                              "onTimelineClipPropertyChanged dual audio.streamId", "onAudioStreamReplaced dual",
                              "event clip.audioPropertyChanged dual timeline dual audio.streamId"}));
    EXPECT_EQ(audio->audioStreamIndex(), 1);
    EXPECT_EQ(audio->channelCount(), 2);
    EXPECT_EQ(audio->sampleRate(), 48000);
    EXPECT_EQ(propertyOf(dual, audioKey::streamId).intValue, 1);
    IDmBaseObj* secondManager = query<IDmClipInternal>(dual, "IDmClipInternal")->waveManagerSource();
    EXPECT_NE(secondManager, firstManager);

    // A stream the file does not have (or a video clip without sound): refused, nothing heard.
    EXPECT_EQ(setClipProperty(dual, audioKey::streamId, intProperty(7)), 1001);
    EXPECT_EQ(setClipProperty(picture_, audioKey::streamId, intProperty(0)), 1001);
    EXPECT_EQ(heard(), Lines{});
    EXPECT_EQ(audio->audioStreamIndex(), 1);

    ASSERT_EQ(undoTimelineEdit(timeline.get()), 0);
    EXPECT_EQ(heard(),
              (Lines{"onAudioPropertyChanged dual audio.streamId", "onTimelineClipPropertyChanged dual audio.streamId",
                     "onAudioStreamReplaced dual", "event undoRedo.undo dual timeline dual audio.streamId",
                     "event undoRedo.stackChanged dual timeline - -"}));
    EXPECT_EQ(audio->audioStreamIndex(), 0);
    EXPECT_EQ(audio->channelCount(), 1);
    EXPECT_EQ(propertyOf(dual, audioKey::streamId).intValue, 0);
    EXPECT_EQ(query<IDmClipInternal>(dual, "IDmClipInternal")->waveManagerSource(), firstManager);
}

TEST_F(DmEditTest, EnableNotifiesTheClipThenItsLinkedClip) {
    ASSERT_EQ(setClipProperty(scene_, clipKey::enable, boolProperty(false)), 0);
    EXPECT_EQ(
        heard(),
        (Lines{"onTimelineClipPropertyChanged scene clip.enable", "onClipPropertyChanged scene clip.enable",
               "onTimelineClipPropertyChanged scene.sound clip.enable", "onClipPropertyChanged scene.sound clip.enable",
               "event clip.basePropertyChanged timeline scene clip.enable"}));
    EXPECT_FALSE(propertyOf(scene_, clipKey::enable).boolValue());
    EXPECT_FALSE(propertyOf(sceneSound_, clipKey::enable).boolValue());

    ASSERT_EQ(setClipProperty(music_, clipKey::enable, intProperty(0)), 0);
    EXPECT_EQ(heard(),
              (Lines{"onTimelineClipPropertyChanged music clip.enable", "onClipPropertyChanged music clip.enable",
                     "event clip.basePropertyChanged timeline music clip.enable"}));
    EXPECT_EQ(propertyOf(music_, clipKey::enable).kind, ZorProperty::Bool);
}

TEST_F(DmEditTest, TrackPropertiesNotifyTheTrack) {
    IDmTrack* a1 = timeline_->track(1);
    ASSERT_EQ(setTrackProperty(a1, trackKey::mute, true), 0);
    ASSERT_EQ(setTrackProperty(timeline_->track(0), trackKey::visible, false), 0);
    ASSERT_EQ(setTrackProperty(a1, trackKey::solo, true), 0);
    EXPECT_EQ(
        heard(),
        (Lines{"onTrackPropertyChanged A1 track.mute", "event timeline.trackPropertyChanged timeline A1 track.mute",
               "onTrackPropertyChanged V1 track.visible",
               "event timeline.trackPropertyChanged timeline V1 track.visible", "onTrackPropertyChanged A1 track.solo",
               "event timeline.trackPropertyChanged timeline A1 track.solo"}));
    EXPECT_TRUE(trackFlag(a1, trackKey::mute));
    EXPECT_FALSE(trackFlag(timeline_->track(0), trackKey::visible));
    EXPECT_TRUE(trackFlag(a1, trackKey::solo));
    EXPECT_EQ(setTrackProperty(a1, "track.volume", true), 1001);
    EXPECT_EQ(setTrackProperty(nullptr, trackKey::mute, true), 1001);
}

TEST_F(DmEditTest, VolumeKeyframesAddChangeAndRemoveTheEffect) {
    ASSERT_EQ(sceneSound_->effect(DmEffectVolume), nullptr);
    ASSERT_EQ(setClipVolumeKeyframes(scene_, {{0, -3.0}, {kSecond / 2, -12.0}}), 0);
    IDmEffect* volume = sceneSound_->effect(DmEffectVolume);
    ASSERT_NE(volume, nullptr);
    EXPECT_EQ(scene_->effect(DmEffectVolume), nullptr);  // the sound's, not the picture's
    EXPECT_EQ(volume->ownerClip(), sceneSound_);
    EXPECT_STREQ(volume->effectName(), "audio/effect/volume");
    EXPECT_EQ(volume->effectType(), 4110);
    ASSERT_EQ(volume->keyframeCount(1), 2);
    int64_t time = -1;
    double db = 0.0;
    ASSERT_EQ(volume->keyframe(1, 1, &time, &db), 0);
    EXPECT_EQ(time, kSecond / 2);
    EXPECT_EQ(db, -12.0);
    EXPECT_EQ(heard(), (Lines{"onEffectAdded audio/effect/volume@scene.sound",
                              "event clip.effectPropertyChanged timeline scene.sound -"}));

    ASSERT_EQ(setClipVolumeKeyframes(scene_, {{0, -1.0}}), 0);
    EXPECT_EQ(sceneSound_->effect(DmEffectVolume), volume);
    EXPECT_EQ(volume->keyframeCount(1), 1);
    EXPECT_EQ(heard(), (Lines{"onKeyframesChanged audio/effect/volume@scene.sound",
                              "event clip.effectPropertyChanged timeline scene.sound -"}));

    ASSERT_EQ(setClipVolumeKeyframes(scene_, {}), 0);
    EXPECT_EQ(sceneSound_->effect(DmEffectVolume), nullptr);
    EXPECT_EQ(heard(), (Lines{"onEffectRemoved audio/effect/volume@scene.sound",
                              "event clip.effectPropertyChanged timeline scene.sound -"}));
    // The removed effect is still a live object.
    EXPECT_EQ(volume->keyframeCount(1), 1);
    EXPECT_EQ(volume->ownerClip(), sceneSound_);

    // Undo puts the same effect back.
    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);
    EXPECT_EQ(sceneSound_->effect(DmEffectVolume), volume);
    EXPECT_EQ(heard(),
              (Lines{"onEffectAdded audio/effect/volume@scene.sound", "event undoRedo.undo timeline scene.sound -",
                     "event undoRedo.stackChanged timeline - -"}));

    EXPECT_EQ(setClipVolumeKeyframes(scene_, {{kSecond, 0.0}, {0, 1.0}}), 1001);  // times go back
    EXPECT_EQ(setClipVolumeKeyframes(picture_, {{0, 0.0}}), 1001);                // no sound
    EXPECT_EQ(heard(), Lines{});
}

TEST_F(DmEditTest, DuckingIsAddedChangedAndRemoved) {
    DmDuckingDesc ducking;
    ducking.present = true;
    ducking.depth = 0.5;
    ducking.fade = 1.25;
    ducking.fadeRatio = 0.25;
    ASSERT_EQ(setClipDucking(music_, ducking), 0);
    IDmEffect* effect = music_->effect(DmEffectDucking);
    ASSERT_NE(effect, nullptr);
    EXPECT_STREQ(effect->effectName(), "audio/effect/ducking");
    EXPECT_EQ(effect->ownerClip(), music_);
    EXPECT_TRUE(effect->isEnabled());
    EXPECT_EQ(effect->value(0), 0.5f);
    EXPECT_EQ(effect->value(1), 1.25f);
    EXPECT_EQ(effect->value(2), 0.25f);
    EXPECT_EQ(heard(),
              (Lines{"onEffectAdded audio/effect/ducking@music", "event clip.effectPropertyChanged timeline music -"}));

    ducking.enabled = false;
    ducking.depth = 0.75;
    ASSERT_EQ(setClipDucking(music_, ducking), 0);
    EXPECT_EQ(music_->effect(DmEffectDucking), effect);
    EXPECT_FALSE(effect->isEnabled());
    EXPECT_EQ(effect->value(0), 0.75f);
    EXPECT_EQ(heard(), (Lines{"onEffectChanged audio/effect/ducking@music",
                              "event clip.effectPropertyChanged timeline music -"}));

    ASSERT_EQ(setClipDucking(music_, DmDuckingDesc{}), 0);
    EXPECT_EQ(music_->effect(DmEffectDucking), nullptr);
    EXPECT_EQ(heard(), (Lines{"onEffectRemoved audio/effect/ducking@music",
                              "event clip.effectPropertyChanged timeline music -"}));

    // Undo twice: back, then its first settings.
    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);
    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);
    EXPECT_EQ(music_->effect(DmEffectDucking), effect);
    EXPECT_TRUE(effect->isEnabled());
    EXPECT_EQ(effect->value(0), 0.5f);
    EXPECT_EQ(heard(), (Lines{"onEffectAdded audio/effect/ducking@music", "event undoRedo.undo timeline music -",
                              "event undoRedo.stackChanged timeline - -", "onEffectChanged audio/effect/ducking@music",
                              "event undoRedo.undo timeline music -", "event undoRedo.stackChanged timeline - -"}));

    ducking.depth = 1.5;
    EXPECT_EQ(setClipDucking(music_, ducking), 1001);
    EXPECT_EQ(heard(), Lines{});
}

TEST_F(DmEditTest, ReverseAddsItsEffectAndSetsItsProperty) {
    ASSERT_EQ(setClipReverse(scene_, true), 0);
    IDmEffect* reverse = sceneSound_->effect(DmEffectReversePlay);
    ASSERT_NE(reverse, nullptr);
    EXPECT_STREQ(reverse->effectName(), "audio/effect/reverse");
    EXPECT_EQ(reverse->value(0), 1.0f);
    EXPECT_TRUE(propertyOf(sceneSound_, audioReversePlayKey::enable).boolValue());
    EXPECT_EQ(heard(), (Lines{"onEffectAdded audio/effect/reverse@scene.sound",
                              "onAudioPropertyChanged scene.sound audioReversePlay.enable",
                              "onTimelineClipPropertyChanged scene.sound audioReversePlay.enable",
                              "event clip.effectPropertyChanged timeline scene.sound -"}));

    ASSERT_EQ(setClipReverse(scene_, true), 0);  // already
    EXPECT_EQ(heard(), Lines{});

    ASSERT_EQ(setClipReverse(scene_, false), 0);
    EXPECT_EQ(sceneSound_->effect(DmEffectReversePlay), nullptr);
    EXPECT_FALSE(propertyOf(sceneSound_, audioReversePlayKey::enable).boolValue());
    EXPECT_EQ(heard(), (Lines{"onEffectRemoved audio/effect/reverse@scene.sound",
                              "onAudioPropertyChanged scene.sound audioReversePlay.enable",
                              "onTimelineClipPropertyChanged scene.sound audioReversePlay.enable",
                              "event clip.effectPropertyChanged timeline scene.sound -"}));

    // Undone: the same notifications as the edit that puts the effect back.
    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);
    EXPECT_EQ(sceneSound_->effect(DmEffectReversePlay), reverse);
    EXPECT_EQ(heard(),
              (Lines{"onEffectAdded audio/effect/reverse@scene.sound",
                     "onAudioPropertyChanged scene.sound audioReversePlay.enable",
                     "onTimelineClipPropertyChanged scene.sound audioReversePlay.enable",
                     "event undoRedo.undo timeline scene.sound -", "event undoRedo.stackChanged timeline - -"}));
}

TEST_F(DmEditTest, TheAudioEffectsFeatureIsTheSoundClipsCallbackSource) {
    // A second listener, registered through the feature only.
    Journal journal;
    journal.name(sceneSound_, "scene.sound");
    const auto other = makeRef<RecordingListener>(&journal);
    IDmBaseObj* feature = sceneSound_->feature(DmFeatureAudioEffects, 1);
    ASSERT_NE(feature, nullptr);
    auto* source = query<IDmCallbackSource>(feature, "IDmCallbackSource");
    ASSERT_NE(source, nullptr);
    ASSERT_EQ(source->registerCallback(other.get()), 0);
    ASSERT_EQ(setClipVolumeKeyframes(scene_, {{0, -2.0}}), 0);
    settle();
    EXPECT_EQ(journal.take(), (Lines{"onEffectAdded audio/effect/volume@scene.sound"}));
    // It is the clip's list: unregistering on the clip removes it.
    EXPECT_EQ(query<IDmCallbackSource>(sceneSound_, "IDmCallbackSource")->unregisterCallback(other.get()), 0);
    EXPECT_EQ(source->unregisterCallback(other.get()), 1001);
}

TEST_F(DmEditTest, SpeedPartsNotifyTheClipThenItsLinkedClip) {
    const std::vector<DmSpeedPartDesc> parts = {{kSecond / 2, kSecond, 2.0}, {0, kSecond / 4, 0.0}};
    ASSERT_EQ(setClipSpeedParts(scene_, parts), 0);
    EXPECT_EQ(heard(), (Lines{"onSpeedChanged scene", "onSpeedChanged scene.sound",
                              "event clip.speedChanged timeline scene -"}));
    for (IDmClip* clip : {scene_, sceneSound_}) {
        auto* speed = query<IDmClipSpeedPart>(clip, "IDmClipSpeedPart");
        ASSERT_EQ(speed->speedPartCount(), 2);
        int64_t begin = -1;
        int64_t end = -1;
        double factor = -1.0;
        ASSERT_EQ(speed->speedPart(0, &begin, &end, &factor), 0);  // sorted by begin
        EXPECT_EQ(begin, 0);
        EXPECT_EQ(end, kSecond / 4);
        EXPECT_EQ(factor, 0.0);
    }
    // A frozen first quarter: the position holds at mark in.
    EXPECT_EQ(query<IDmAudioFeature>(sceneSound_, "IDmAudioFeature")->sourcePosition(kSecond / 8, false), 0);

    EXPECT_EQ(setClipSpeedParts(scene_, {{0, kSecond, 1.0}, {kSecond / 2, 2 * kSecond, 2.0}}), 1001);  // overlap
    EXPECT_EQ(setClipSpeedParts(scene_, {{0, kSecond, -1.0}}), 1001);
    EXPECT_EQ(heard(), Lines{});

    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);
    EXPECT_EQ(query<IDmClipSpeedPart>(sceneSound_, "IDmClipSpeedPart")->speedPartCount(), 0);
    EXPECT_EQ(heard(), (Lines{"onSpeedChanged scene", "onSpeedChanged scene.sound",
                              "event undoRedo.undo timeline scene -", "event undoRedo.stackChanged timeline - -"}));
}

TEST_F(DmEditTest, MoveKeepsTheDurationAndTellsTheTimeline) {
    ASSERT_EQ(moveClip(sceneSound_, 3 * kSecond), 0);  // the linked clip moves its video clip
    EXPECT_EQ(heard(),
              (Lines{"onTimelineClipPropertyChanged scene clip.timelineBegin",
                     "onTimelineClipPropertyChanged scene clip.timelineEnd",
                     "onTimelineClipPropertyChanged scene.sound clip.timelineBegin",
                     "onTimelineClipPropertyChanged scene.sound clip.timelineEnd", "onClipMoved timeline scene",
                     "event clip.timelineClipPropertyChanged timeline scene -"}));
    for (IDmClip* clip : {scene_, sceneSound_}) {
        EXPECT_EQ(beginTimeOfClip(clip), 3 * kSecond);
        EXPECT_EQ(endTimeOfClip(clip), 4 * kSecond);
        EXPECT_EQ(markInTimeOfClip(clip), 0);
        EXPECT_EQ(markOutTimeOfClip(clip), kSecond);
    }
    EXPECT_EQ(timeline_->duration(), 4 * kSecond);
    EXPECT_EQ(moveClip(scene_, -1), 1001);
}

TEST_F(DmEditTest, TrimMovesTheEndWithTheMarks) {
    ASSERT_EQ(trimClip(music_, kSecond / 2, kSecond), 0);
    EXPECT_EQ(heard(), (Lines{"onTimelineClipPropertyChanged music clip.markIn",
                              "onTimelineClipPropertyChanged music clip.markOut",
                              "onTimelineClipPropertyChanged music clip.timelineEnd",
                              "event clip.timelineClipPropertyChanged timeline music -"}));
    EXPECT_EQ(beginTimeOfClip(music_), 0);
    EXPECT_EQ(endTimeOfClip(music_), kSecond / 2);
    EXPECT_EQ(markInTimeOfClip(music_), kSecond / 2);
    EXPECT_EQ(markOutTimeOfClip(music_), kSecond);

    // A clip that shows 1 s of media over 2 s keeps that ratio.
    IDmClip* slow = nullptr;
    ASSERT_EQ(addClip(timeline_.get(), 2, -1, clipDesc(tone_, "slow", kSecond, 3 * kSecond, 0, kSecond), &slow), 0);
    ASSERT_NE(slow, nullptr);
    journal_.take();
    ASSERT_EQ(trimClip(slow, kSecond / 4, kSecond / 2), 0);
    EXPECT_EQ(beginTimeOfClip(slow), kSecond);
    EXPECT_EQ(endTimeOfClip(slow), kSecond + kSecond / 2);

    EXPECT_EQ(trimClip(music_, kSecond, kSecond / 2), 1001);
    EXPECT_EQ(trimClip(music_, -1, kSecond), 1001);
}

TEST_F(DmEditTest, ClipsAreAddedRemovedAndMovedBetweenTracks) {
    IDmClip* voice = nullptr;
    ASSERT_EQ(addClip(timeline_.get(), 1, 0, clipDesc(tone_, "voice", kSecond, 2 * kSecond, 0, kSecond), &voice), 0);
    ASSERT_NE(voice, nullptr);
    journal_.name(voice, "voice");
    EXPECT_EQ(heard(), (Lines{"onClipAdded timeline voice", "event timeline.dataChanged timeline voice -"}));
    EXPECT_EQ(timeline_->clipCount(1), 2);
    EXPECT_EQ(timeline_->clip(1, 0), voice);
    EXPECT_EQ(timeline_->clip(1, 1), music_);
    EXPECT_EQ(voice->timeline(), timeline_.get());
    EXPECT_EQ(voice->track(), timeline_->track(1));
    EXPECT_EQ(positionOf(voice), std::make_pair(1, 0));
    EXPECT_EQ(positionOf(music_), std::make_pair(1, 1));
    EXPECT_STREQ(voice->name(), "voice");
    EXPECT_EQ(timeline_->usesMedia(tone_.c_str()), 1);

    ASSERT_EQ(removeClip(music_), 0);
    EXPECT_EQ(heard(), (Lines{"onClipRemoved timeline music", "event timeline.dataChanged timeline music -"}));
    EXPECT_EQ(timeline_->clipCount(1), 1);
    EXPECT_EQ(music_->timeline(), nullptr);
    EXPECT_EQ(music_->track(), nullptr);
    EXPECT_EQ(positionOf(music_), std::make_pair(-1, -1));
    EXPECT_EQ(getBaseAudioClip(music_), music_);  // still a whole clip
    EXPECT_EQ(removeClip(music_), 1001);          // on no timeline now
    EXPECT_EQ(setClipProperty(music_, audioKey::volume, doubleProperty(-1.0)), 1001);

    // A video clip moves with its linked clip; index counts the others.
    ASSERT_EQ(moveClipToTrack(scene_, 0, -1), 0);
    EXPECT_EQ(heard(), (Lines{"onClipMoved timeline scene", "event timeline.dataChanged timeline scene -"}));
    EXPECT_EQ(timeline_->clip(0, 0), picture_);
    EXPECT_EQ(timeline_->clip(0, 1), scene_);
    EXPECT_EQ(positionOf(scene_), std::make_pair(0, 1));
    EXPECT_EQ(positionOf(sceneSound_), std::make_pair(0, 1));
    EXPECT_EQ(positionOf(picture_), std::make_pair(0, 0));

    ASSERT_EQ(moveClipToTrack(voice, 2, 0), 0);
    EXPECT_EQ(heard(), (Lines{"onClipMoved timeline voice", "event timeline.dataChanged timeline voice -"}));
    EXPECT_EQ(timeline_->clipCount(1), 0);
    EXPECT_EQ(timeline_->clip(2, 0), voice);
    EXPECT_EQ(voice->track(), timeline_->track(2));
    EXPECT_EQ(positionOf(voice), std::make_pair(2, 0));

    EXPECT_EQ(moveClipToTrack(voice, 0, 0), 1001);  // a video track
    EXPECT_EQ(moveClipToTrack(voice, 2, 2), 1001);  // beyond the end
    EXPECT_EQ(moveClipToTrack(voice, 7, 0), 1001);
    EXPECT_EQ(addClip(timeline_.get(), 9, 0, clipDesc(tone_, "x", 0, kSecond, 0, kSecond), nullptr), 1001);
    EXPECT_EQ(addClip(timeline_.get(), 1, 5, clipDesc(tone_, "x", 0, kSecond, 0, kSecond), nullptr), 1001);
    EXPECT_EQ(addClip(timeline_.get(), 1, 0, clipDesc(tone_, "x", kSecond, 0, 0, kSecond), nullptr), 1001);
    EXPECT_EQ(heard(), Lines{});
}

TEST_F(DmEditTest, UndoAndRedoRestoreValuesAndTheSameClips) {
    ASSERT_EQ(setClipProperty(music_, audioKey::volume, doubleProperty(-9.0)), 0);
    ASSERT_EQ(moveClip(music_, 2 * kSecond), 0);
    ASSERT_EQ(removeClip(scene_), 0);
    EXPECT_EQ(undoableEditCount(timeline_.get()), 3);
    EXPECT_EQ(redoableEditCount(timeline_.get()), 0);
    journal_.take();
    settle();
    journal_.take();

    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);
    EXPECT_EQ(heard(), (Lines{"onClipAdded timeline scene", "event undoRedo.undo timeline scene -",
                              "event undoRedo.stackChanged timeline - -"}));
    EXPECT_EQ(timeline_->clip(0, 0), scene_);  // the same object, where it was
    EXPECT_EQ(scene_->timeline(), timeline_.get());
    EXPECT_EQ(positionOf(scene_), std::make_pair(0, 0));
    EXPECT_EQ(positionOf(picture_), std::make_pair(0, 1));
    EXPECT_EQ(getBaseAudioClip(scene_), sceneSound_);
    EXPECT_EQ(sceneSound_->timeline(), timeline_.get());

    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);
    EXPECT_EQ(heard(), (Lines{"onTimelineClipPropertyChanged music clip.timelineBegin",
                              "onTimelineClipPropertyChanged music clip.timelineEnd", "onClipMoved timeline music",
                              "event undoRedo.undo timeline music -", "event undoRedo.stackChanged timeline - -"}));
    EXPECT_EQ(beginTimeOfClip(music_), 0);

    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);
    EXPECT_EQ(heard(),
              (Lines{"onAudioPropertyChanged music audio.volume", "onTimelineClipPropertyChanged music audio.volume",
                     "event undoRedo.undo timeline music audio.volume", "event undoRedo.stackChanged timeline - -"}));
    EXPECT_EQ(propertyOf(music_, audioKey::volume).doubleValue, 0.0);
    EXPECT_EQ(undoTimelineEdit(timeline_.get()), 1002);
    EXPECT_EQ(undoableEditCount(timeline_.get()), 0);
    EXPECT_EQ(redoableEditCount(timeline_.get()), 3);

    ASSERT_EQ(redoTimelineEdit(timeline_.get()), 0);
    EXPECT_EQ(heard(),
              (Lines{"onAudioPropertyChanged music audio.volume", "onTimelineClipPropertyChanged music audio.volume",
                     "event undoRedo.redo timeline music audio.volume", "event undoRedo.stackChanged timeline - -"}));
    EXPECT_EQ(propertyOf(music_, audioKey::volume).doubleValue, -9.0);
    ASSERT_EQ(redoTimelineEdit(timeline_.get()), 0);
    ASSERT_EQ(redoTimelineEdit(timeline_.get()), 0);
    EXPECT_EQ(beginTimeOfClip(music_), 2 * kSecond);
    EXPECT_EQ(timeline_->clip(0, 0), picture_);
    EXPECT_EQ(scene_->timeline(), nullptr);
    EXPECT_EQ(redoTimelineEdit(timeline_.get()), 1002);
    journal_.take();
    settle();
    journal_.take();

    // A new edit after an undo forgets what could be redone.
    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);
    EXPECT_EQ(redoableEditCount(timeline_.get()), 1);
    ASSERT_EQ(setTrackProperty(timeline_->track(0), trackKey::mute, true), 0);
    EXPECT_EQ(redoableEditCount(timeline_.get()), 0);
    EXPECT_EQ(redoTimelineEdit(timeline_.get()), 1002);
    EXPECT_EQ(undoableEditCount(timeline_.get()), 3);
}

// Counts the objects it is installed on that were destroyed.
class DestroyCounter final : public IDmReleaseNotifier {
public:
    void onObjectReleasing() override { count_.fetch_add(1); }
    int count() const { return count_.load(); }

private:
    std::atomic<int> count_{0};
};

TEST_F(DmEditTest, ClipsTakenOffStayAliveUntilTheTimelineGoes) {
    DestroyCounter counter;
    IDmClip* added = nullptr;
    ASSERT_EQ(addClip(timeline_.get(), 2, 0, clipDesc(tone_, "added", 0, kSecond, 0, kSecond), &added), 0);
    ASSERT_NE(added, nullptr);
    added->setReleaseNotifier(&counter);
    music_->setReleaseNotifier(&counter);
    ASSERT_EQ(setClipVolumeKeyframes(music_, {{0, -1.0}}), 0);
    IDmEffect* volume = music_->effect(DmEffectVolume);
    ASSERT_NE(volume, nullptr);
    volume->setReleaseNotifier(&counter);
    ASSERT_EQ(removeClip(music_), 0);
    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);  // music back
    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);  // no keyframes
    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);  // added taken off
    // Forget the redo side: nothing can put added back now.
    ASSERT_EQ(removeClip(music_), 0);
    EXPECT_EQ(redoableEditCount(timeline_.get()), 0);
    EXPECT_EQ(counter.count(), 0);
    EXPECT_EQ(added->timeline(), nullptr);
    EXPECT_STREQ(added->name(), "added");  // alive
    EXPECT_EQ(volume->keyframeCount(1), 1);

    // The test's own references first (the listener's registrations stay).
    settle();
    journal_.take();
    for (ZorRef<IDmBaseObj>& source : watched_) {
        query<IDmCallbackSource>(source.get(), "IDmCallbackSource")->unregisterCallback(listener_.get());
        source.reset();
    }
    watched_.clear();
    EXPECT_EQ(counter.count(), 0);
    EXPECT_EQ(timeline_.detach()->Release(), 0);
    EXPECT_EQ(counter.count(), 3);
}

TEST_F(DmEditTest, ClosedTimelinesAreGoneForListenersAndEdits) {
    ASSERT_EQ(setClipProperty(music_, audioKey::mute, boolProperty(true)), 0);
    journal_.take();
    settle();
    journal_.take();
    ASSERT_EQ(closeTimeline(timeline_.get()), 0);
    EXPECT_EQ(heard(), (Lines{"onTimelineGone timeline", "event timeline.dataChanged timeline - -"}));
    EXPECT_EQ(closeTimeline(timeline_.get()), 1001);
    EXPECT_EQ(setClipProperty(music_, audioKey::mute, boolProperty(false)), 1001);
    EXPECT_EQ(setTrackProperty(timeline_->track(0), trackKey::mute, true), 1001);
    EXPECT_EQ(moveClip(music_, kSecond), 1001);
    EXPECT_EQ(removeClip(music_), 1001);
    EXPECT_EQ(addClip(timeline_.get(), 1, 0, clipDesc(tone_, "late", 0, kSecond, 0, kSecond), nullptr), 1001);
    EXPECT_EQ(undoTimelineEdit(timeline_.get()), 1001);
    EXPECT_EQ(undoableEditCount(timeline_.get()), 0);
    EXPECT_EQ(heard(), Lines{});
    // Still readable.
    EXPECT_EQ(timeline_->clip(1, 0), music_);
    EXPECT_TRUE(propertyOf(music_, audioKey::mute).boolValue());
}

TEST_F(DmEditTest, BadArgumentsChangeNothing) {
    EXPECT_EQ(setClipProperty(nullptr, audioKey::volume, doubleProperty(1.0)), 1001);
    EXPECT_EQ(setClipProperty(music_, nullptr, doubleProperty(1.0)), 1001);
    EXPECT_EQ(setClipProperty(music_, "audio.pan", doubleProperty(1.0)), 1001);
    EXPECT_EQ(setClipProperty(music_, clipKey::markIn, intProperty(1)), 1001);  // by trimClip only
    EXPECT_EQ(setClipProperty(music_, audioKey::volume, ZorProperty{}), 1001);
    EXPECT_EQ(setClipProperty(music_, audioKey::volume, boolProperty(true)), 1001);
    EXPECT_EQ(setClipProperty(music_, audioLoudness::gain, doubleProperty(-1.0)), 1001);
    EXPECT_EQ(setClipProperty(picture_, audioKey::volume, doubleProperty(1.0)), 1001);  // no sound
    EXPECT_EQ(setClipReverse(picture_, true), 1001);
    EXPECT_EQ(setClipDucking(picture_, DmDuckingDesc{}), 1001);
    EXPECT_EQ(moveClip(nullptr, 0), 1001);
    EXPECT_EQ(undoTimelineEdit(nullptr), 1001);
    EXPECT_EQ(closeTimeline(nullptr), 1001);

    // A clip that is not on a timeline.
    std::string error;
    auto loose = ZorRef<IDmClip>::adopt(createMediaClip(tone_.c_str(), -1, -1, &error));
    ASSERT_NE(loose.get(), nullptr) << error;
    EXPECT_EQ(setClipProperty(loose.get(), audioKey::volume, doubleProperty(1.0)), 1001);
    EXPECT_EQ(moveClip(loose.get(), kSecond), 1001);
    EXPECT_EQ(removeClip(loose.get()), 1001);

    EXPECT_EQ(heard(), Lines{});
    EXPECT_EQ(undoableEditCount(timeline_.get()), 0);
    EXPECT_EQ(undoTimelineEdit(timeline_.get()), 1002);
}

// A listener that edits while it is being notified: the nested edit runs at
// once on the event thread, after the edit being notified in the history.
class EditingListener final : public RefCnt<void>, public virtual IDmBaseObj, public IDmTimelineCallback {
public:
    ZOR_IMPLEMENT_REFCNT
    void* queryInterface(const char* name) override {
        if (name != nullptr && std::strcmp(name, "IDmTimelineCallback") == 0)
            return static_cast<IDmTimelineCallback*>(this);
        if (name != nullptr && std::strcmp(name, "IDmBaseObj") == 0) return static_cast<IDmBaseObj*>(this);
        return nullptr;
    }
    int32_t onTimelineChanged(IDmTimeline*) override { return 0; }
    int32_t onTrackAdded(IDmTimeline*, IDmCallbackSource*) override { return 0; }
    int32_t onTrackRemoved(IDmTimeline*, IDmCallbackSource*) override { return 0; }
    int32_t onTrackMoved(IDmTimeline*, IDmTrack*) override { return 0; }
    int32_t onClipAdded(IDmTimeline*, IDmClip* clip) override {
        nestedResult = setClipProperty(clip, audioKey::volume, doubleProperty(-20.0));
        onEventThreadWhenNotified = onEventThread();
        return 0;
    }
    int32_t onClipRemoved(IDmTimeline*, IDmClip*) override { return 0; }
    int32_t onClipMoved(IDmTimeline*, IDmClip*) override { return 0; }
    int32_t onTimelineGone(IDmTimeline*) override { return 0; }

    int32_t nestedResult = -1;
    bool onEventThreadWhenNotified = false;
};

TEST_F(DmEditTest, AListenerMayEditWhileBeingNotified) {
    const auto editor = makeRef<EditingListener>();
    auto* source = query<IDmCallbackSource>(timeline_.get(), "IDmCallbackSource");
    ASSERT_EQ(source->registerCallback(editor.get()), 0);
    IDmClip* added = nullptr;
    ASSERT_EQ(addClip(timeline_.get(), 2, 0, clipDesc(tone_, "added", 0, kSecond, 0, kSecond), &added), 0);
    ASSERT_EQ(source->unregisterCallback(editor.get()), 0);
    journal_.name(added, "added");
    EXPECT_EQ(editor->nestedResult, 0);
    EXPECT_TRUE(editor->onEventThreadWhenNotified);
    EXPECT_EQ(propertyOf(added, audioKey::volume).doubleValue, -20.0);
    // The events in the order the edits ended.
    EXPECT_EQ(heard(),
              (Lines{"onClipAdded timeline added", "event clip.audioPropertyChanged timeline added audio.volume",
                     "event timeline.dataChanged timeline added -"}));
    EXPECT_EQ(undoableEditCount(timeline_.get()), 2);
    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);  // the volume first
    EXPECT_EQ(propertyOf(added, audioKey::volume).doubleValue, 0.0);
    EXPECT_EQ(added->timeline(), timeline_.get());
    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);
    EXPECT_EQ(added->timeline(), nullptr);
}

}  // namespace
}  // namespace ZOR::test
