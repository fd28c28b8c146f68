// The clip thumbnail service end to end: two services of one timeline loaded
// from a timeline document (an audio track of two clips, the second ducking
// the others, and a video track of a film with sound), on the real task
// service and the real data model, with media made by the ffmpeg command.
// The timeline is changed through the data model's edits, which run on the
// event bus's thread and publish their event keys there; what each client
// hears after each edit is compared with the clips the edit's change bits
// concern, and every thumbnail value with what the WAV files' samples give.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Adapter/Adapter.h"
#include "AudioRecording.h"
#include "BsAudioSampleCache.h"
#include "BsClipThumbnailService.h"
#include "BsDataStructure/BsDataStructure.h"
#include "CapturingLogger.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmEdit.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmTimeline.h"
#include "ListenerCenter/ListenerCenter.h"
#include "MediaTestSupport.h"
#include "Miravel/ClipThumbnailKey.h"
#include "Miravel/IBsClipThumbnailService.h"
#include "Timeouts.h"
#include "VideoRecording.h"
#include "WavePeaks.h"

namespace ZOR::test {
namespace {

// The test media, and the thumbnails worked out from their samples.
using namespace MediaTest;

constexpr int64_t kSecond = 10'000'000;  // cns

// The document's layout, in cns. Music track: A on [0, 2 s) from 0.3 s of
// music.wav at -6 dB; D on [2.5 s, 4.5 s) from 0.5 s of voice.wav at -2.5 dB,
// ducking the others by half their power (no fade). Pictures track: V on
// [3 s, 5 s) from 0.2 s of movie.mov at -3 dB; its sound overlaps D's range
// on [3 s, 4.5 s).
constexpr int64_t kLength = 2 * kSecond;
constexpr int64_t kABegin = 0;
constexpr int64_t kAMarkIn = 3'000'000;
constexpr double kAVolume = -6.0;
constexpr int64_t kDBegin = 25'000'000;
constexpr int64_t kDMarkIn = 5'000'000;
constexpr double kDVolume = -2.5;
constexpr double kDuckDepth = 0.5;
constexpr int64_t kVBegin = 3 * kSecond;
constexpr int64_t kVMarkIn = 2'000'000;
constexpr double kVVolume = -3.0;

// Point counts of the queries: odd, so that no point of the sound of V falls
// on an end of the ducked stretch.
constexpr int kACount = 997;
constexpr int kDCount = 613;
constexpr int kVCount = 497;

constexpr int32_t kPictureWidth = 64;
constexpr int32_t kPictureHeight = 48;

unsigned long long hexOf(const void* pointer) {
    return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pointer));
}

// --- The expected values, from their definitions (WavePeaks.h) --------------

// D's range on the timeline as clip time of the sound of V placed at vBegin.
Ducked duckedByD(int64_t vBegin, int64_t dBegin = kDBegin) {
    const int64_t shift = kVMarkIn - vBegin;
    return Ducked{dBegin + shift, dBegin + kLength + shift, 1.0 - kDuckDepth};
}

// --- The timeline document ---------------------------------------------------

std::string rational(int64_t value, int64_t rate) {
    return R"({"OTIO_SCHEMA": "RationalTime.1", "value": )" + std::to_string(value) + R"(, "rate": )" +
           std::to_string(rate) + "}";
}

std::string timeRange(int64_t start, int64_t duration, int64_t rate) {
    return R"({"OTIO_SCHEMA": "TimeRange.1", "start_time": )" + rational(start, rate) + R"(, "duration": )" +
           rational(duration, rate) + "}";
}

std::string gap(int64_t duration, int64_t rate) {
    return R"({"OTIO_SCHEMA": "Gap.1", "source_range": )" + timeRange(0, duration, rate) + "}";
}

std::string clipItem(const std::string& name, const std::string& path, const std::string& range,
                     const std::string& miravel) {
    return R"({"OTIO_SCHEMA": "Clip.1", "name": ")" + name + R"(", "source_range": )" + range +
           R"(, "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": ")" + path +
           R"("}, "metadata": {"miravel": )" + miravel + "}}";
}

std::string documentText(const std::string& music, const std::string& voice, const std::string& movie) {
    const std::string musicTrack =
        R"({"OTIO_SCHEMA": "Track.1", "name": "Music", "kind": "Audio", "children": [)" +
        clipItem("A", music, timeRange(3, 20, 10), R"({"volume_db": -6})") + ", " + gap(5, 10) + ", " +
        clipItem("D", voice, timeRange(5, 20, 10),
                 R"({"volume_db": -2.5, "ducking": {"enabled": true, "depth": 0.5, "fade": 0, "fade_ratio": 0.5}})") +
        "]}";
    const std::string picturesTrack =
        R"({"OTIO_SCHEMA": "Track.1", "name": "Pictures", "kind": "Video", "children": [)" + gap(30, 10) + ", " +
        clipItem("V", movie, timeRange(5, 50, 25), R"({"volume_db": -3})") + "]}";
    return R"({"OTIO_SCHEMA": "Timeline.1", "name": "Cut", "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [)" +
           musicTrack + ", " + picturesTrack + "]}}";
}

// --- The client --------------------------------------------------------------

// A client's audio and video callbacks: keeps everything it hears (the
// pictures copied); the test waits for deliveries.
class Client final : public RecordingVideoOwner, public IBsAudioClipThumbnailCallback {
public:
    Client() : RecordingVideoOwner(Pixels::All) {}

    int32_t onAudioThumbnailNotice(IDmClip* clip) override {
        notices_.record(clip);
        return 0;
    }
    int32_t onAudioThumbnailChanged(IDmClip* audioClip) override {
        audioChanged_.record(audioClip);
        return 0;
    }
    int32_t onAudioThumbnailData(IDmClip* clip, int64_t begin, int64_t end, const float* samples,
                                 int32_t count) override {
        // Recorded under the hold's lock: a delivery the test has already
        // seen (recorded before holdNextDelivery()) is never the one held.
        std::unique_lock<std::mutex> lock(mutex_);
        audio_.record(AudioDelivery{clip, begin, end, std::vector<float>(samples, samples + count)});
        if (held_ != nullptr && held_ == clip) {
            // Keeps the builder's worker here until the test lets it go.
            held_ = nullptr;
            holding_ = true;
            signal_.notify_all();
            signal_.wait_for(lock, kGenerous, [&] { return !holding_; });
            holding_ = false;
        }
        return 0;
    }

    // The next delivery of clip keeps the thread that makes it (the audio
    // builder's worker) inside this callback until release().
    void holdNextDelivery(IDmClip* clip) {
        std::lock_guard<std::mutex> lock(mutex_);
        held_ = clip;
    }
    bool waitUntilHolding() {
        std::unique_lock<std::mutex> lock(mutex_);
        return signal_.wait_for(lock, kGenerous, [&] { return holding_; });
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex_);
        holding_ = false;
        signal_.notify_all();
    }

    size_t audioCount() const { return audio_.size(); }
    // The first audio delivery of clip from index from on, once it came.
    std::optional<AudioDelivery> waitForAudio(IDmClip* clip, size_t from) {
        return waitForDeliveryOf(audio_, clip, from);
    }
    std::vector<AudioDelivery> audio() const { return audio_.snapshot(); }
    // Waits until a notice of clip is among those not taken yet.
    bool waitForNotice(IDmClip* clip, std::chrono::seconds limit) {
        return notices_.waitForAny([clip](IDmClip* noticed) { return noticed == clip; }, limit);
    }
    // The notices heard since the last call, and the stale clips.
    std::vector<IDmClip*> takeNotices() { return notices_.take(); }
    std::vector<IDmClip*> takeChanged() { return audioChanged_.take(); }

private:
    CallRecorder<IDmClip*> notices_;
    CallRecorder<IDmClip*> audioChanged_;
    CallRecorder<AudioDelivery> audio_;
    std::mutex mutex_;  // guards the hold below; taken before audio_'s own
    std::condition_variable signal_;
    IDmClip* held_ = nullptr;
    bool holding_ = false;
};

// The captured lines written by function.
std::vector<std::string> textsOf(const CapturingSink& sink, const std::string& function) {
    std::vector<std::string> found;
    for (const CapturedLine& line : sink.lines())
        if (line.function == function) found.push_back(line.text);
    return found;
}

// Waits until the event thread has delivered every event published so far
// (work posted there runs in order with events): the notices of an edit are
// all heard once this returns.
void settle() {
    ASSERT_EQ(runOnEventThread([] {}), 0);
}

class ServiceEndToEnd : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        folder_ = std::make_unique<TempFolder>();
        music_ = folder_->file("music.wav");
        voice_ = folder_->file("voice.wav");
        sound_ = folder_->file("sound.wav");
        movie_ = folder_->file("movie.mov");
        document_ = folder_->file("cut.otio");
        ASSERT_TRUE(ffmpeg(steppedSource(2, 3.0, 0) + " -c:a pcm_s16le '" + music_ + "'"));
        ASSERT_TRUE(ffmpeg(steppedSource(1, 3.0, 7) + " -c:a pcm_s16le '" + voice_ + "'"));
        ASSERT_TRUE(ffmpeg(steppedSource(2, 3.0, 13) + " -c:a pcm_s16le '" + sound_ + "'"));
        // One second each of red, green and blue, with the sound of sound.wav
        // as 16-bit PCM (the WAV file's own samples).
        MediaTest::ColourVideo film;
        film.colours = {"0xFF0000", "0x00FF00", "0x0000FF"};
        film.sound = sound_;
        ASSERT_TRUE(ffmpeg(MediaTest::colourVideoArguments(movie_, film)));
        musicWindows_ = MediaTest::waveValues(MediaTest::readWav16(music_));
        voiceWindows_ = MediaTest::waveValues(MediaTest::readWav16(voice_));
        soundWindows_ = MediaTest::waveValues(MediaTest::readWav16(sound_));
        MediaTest::writeText(document_, documentText(music_, voice_, movie_));
        setFrameStoreRoot(folder_->file("frames").c_str());
    }
    static void TearDownTestSuite() {
        setFrameStoreRoot(nullptr);
        folder_.reset();
    }

    void SetUp() override {
        ASSERT_EQ(musicWindows_.size(), 3000u);
        ASSERT_EQ(voiceWindows_.size(), 3000u);
        ASSERT_EQ(soundWindows_.size(), 3000u);
        ASSERT_EQ(BsClipThumbnailServiceRegistry::instance().size(), 0u);
        ASSERT_EQ(BsAudioSampleCache::registrySize(), 0u);

        std::string error = "not cleared";
        timeline_ = ZorRef<IDmTimeline>::adopt(loadTimelineDocument(document_.c_str(), &error));
        ASSERT_NE(timeline_.get(), nullptr) << error;
        ASSERT_EQ(timeline_->trackCount(), 2);
        ASSERT_EQ(timeline_->clipCount(0), 2);
        ASSERT_EQ(timeline_->clipCount(1), 1);
        musicTrack_ = timeline_->track(0);
        picturesTrack_ = timeline_->track(1);
        a_ = timeline_->clip(0, 0);
        d_ = timeline_->clip(0, 1);
        v_ = timeline_->clip(1, 0);
        ASSERT_NE(a_, nullptr);
        ASSERT_NE(d_, nullptr);
        ASSERT_NE(v_, nullptr);
        vs_ = getBaseAudioClip(v_);
        ASSERT_NE(vs_, nullptr);
        ASSERT_NE(vs_, v_);
        ASSERT_EQ(getBaseAudioClip(a_), a_);
        ASSERT_EQ(getBaseAudioClip(d_), d_);
        names_ = {{a_, "A"}, {d_, "D"}, {v_, "V"}, {vs_, "V.sound"}};

        // The document as read: places, marks, and D's ducking.
        ASSERT_EQ(beginTimeOfClip(a_), kABegin);
        ASSERT_EQ(markInTimeOfClip(a_), kAMarkIn);
        ASSERT_EQ(markOutTimeOfClip(a_), kAMarkIn + kLength);
        ASSERT_EQ(beginTimeOfClip(d_), kDBegin);
        ASSERT_EQ(markInTimeOfClip(d_), kDMarkIn);
        ASSERT_EQ(endTimeOfClip(d_), kDBegin + kLength);
        ASSERT_EQ(beginTimeOfClip(v_), kVBegin);
        ASSERT_EQ(markInTimeOfClip(vs_), kVMarkIn);
        ASSERT_EQ(markOutTimeOfClip(vs_), kVMarkIn + kLength);
        IDmEffect* ducking = d_->effect(DmEffectDucking);
        ASSERT_NE(ducking, nullptr);
        ASSERT_TRUE(ducking->isEnabled());
        ASSERT_EQ(ducking->value(0), 0.5f);
        ASSERT_EQ(ducking->value(1), 0.0f);
        ASSERT_EQ(a_->effect(DmEffectDucking), nullptr);
        ASSERT_EQ(vs_->effect(DmEffectDucking), nullptr);

        first_ = ZorRef<IBsClipThumbnailService>::adopt(createBsClipThumbnaiService());
        second_ = ZorRef<IBsClipThumbnailService>::adopt(createBsClipThumbnaiService());
        ASSERT_NE(first_.get(), nullptr);
        ASSERT_NE(second_.get(), nullptr);
        for (auto [service, client] :
             {std::pair{first_.get(), &firstClient_}, std::pair{second_.get(), &secondClient_}}) {
            ASSERT_EQ(service->addAudioClipThumbnailCallback(client), 0);
            ASSERT_EQ(service->addVideoClipThumbnailCallback(client), 0);
        }

        // Every clip's thumbnail through the first service, then through the
        // second, each waited for: the second finds the wave data decoded.
        for (IBsClipThumbnailService* service : {first_.get(), second_.get()}) {
            Client& client = clientOf(service);
            expectSameFloats(query(service, a_, kACount), expectedA(kAVolume));
            expectSameFloats(query(service, d_, kDCount), expectedD());
            expectSameFloats(query(service, vs_, kVCount), expectedVs(duckedByD(kVBegin)));
            if (HasFatalFailure()) return;
            EXPECT_TRUE(client.takeNotices().empty());
            EXPECT_TRUE(client.takeChanged().empty());
        }
        // The worker answers in order: once these answers came, it has
        // finished with every earlier one, and with A altogether.
        expectSameFloats(query(first_.get(), a_, kACount), expectedA(kAVolume));
        expectSameFloats(query(first_.get(), d_, kDCount), expectedD());
        // One implementation, one sample cache per media.
        EXPECT_EQ(BsClipThumbnailServiceRegistry::instance().size(), 1u);
        EXPECT_EQ(BsAudioSampleCache::registrySize(), 3u);
    }

    void TearDown() override {
        first_.reset();
        second_.reset();
        settle();
        // The implementation goes with the last service of its timeline.
        EXPECT_EQ(BsClipThumbnailServiceRegistry::instance().size(), 0u);
        EXPECT_EQ(BsAudioSampleCache::registrySize(), 0u);
        timeline_.reset();
    }

    Client& clientOf(IBsClipThumbnailService* service) {
        return service == first_.get() ? firstClient_ : secondClient_;
    }

    // Queries the whole clip time of clip with count points and returns the
    // values delivered (checking the clip and the range).
    std::vector<float> query(IBsClipThumbnailService* service, IDmClip* clip, int count) {
        Client& client = clientOf(service);
        const int64_t begin = markInTimeOfClip(clip);
        const int64_t end = begin + kLength;
        const size_t from = client.audioCount();
        EXPECT_EQ(service->queryAudioThumbnailData(clip, begin, end, static_cast<uint32_t>(count)), 0);
        const std::optional<AudioDelivery> delivery = client.waitForAudio(clip, from);
        EXPECT_TRUE(delivery.has_value()) << "no values for " << nameOf(clip);
        if (!delivery) return {};
        EXPECT_EQ(delivery->begin, begin);
        EXPECT_EQ(delivery->end, end);
        return delivery->values;
    }

    std::vector<float> expectedA(double volumeDb) const {
        return expectedThumbnail(musicWindows_, kAMarkIn, kAMarkIn + kLength, kACount, volumeDb);
    }
    std::vector<float> expectedD() const {
        return expectedThumbnail(voiceWindows_, kDMarkIn, kDMarkIn + kLength, kDCount, kDVolume);
    }
    std::vector<float> expectedVs(const Ducked& ducked) const {
        return expectedThumbnail(soundWindows_, kVMarkIn, kVMarkIn + kLength, kVCount, kVVolume, ducked);
    }

    std::string nameOf(IDmClip* clip) const {
        auto found = names_.find(clip);
        return found != names_.end() ? found->second : "clip " + std::to_string(hexOf(clip));
    }
    // The names of clips, sorted (a clip heard twice is named twice).
    std::vector<std::string> namesOf(const std::vector<IDmClip*>& clips) const {
        std::vector<std::string> names;
        for (IDmClip* clip : clips) names.push_back(nameOf(clip));
        std::sort(names.begin(), names.end());
        return names;
    }

    // Lets the edit's events be delivered, then checks that each client heard
    // exactly the notices and stale clips expected (each once), and forgets them.
    void expectHeard(const std::vector<std::string>& notices, const std::vector<std::string>& changed = {}) {
        settle();
        std::vector<std::string> sortedNotices = notices;
        std::vector<std::string> sortedChanged = changed;
        std::sort(sortedNotices.begin(), sortedNotices.end());
        std::sort(sortedChanged.begin(), sortedChanged.end());
        for (Client* client : {&firstClient_, &secondClient_}) {
            const char* which = client == &firstClient_ ? "first client" : "second client";
            EXPECT_EQ(namesOf(client->takeNotices()), sortedNotices) << which;
            EXPECT_EQ(namesOf(client->takeChanged()), sortedChanged) << which;
        }
    }

    static std::unique_ptr<TempFolder> folder_;
    static std::string music_;
    static std::string voice_;
    static std::string sound_;
    static std::string movie_;
    static std::string document_;
    static std::vector<float> musicWindows_;
    static std::vector<float> voiceWindows_;
    static std::vector<float> soundWindows_;

    ScopedCapture capture_{IBsLogger::Trace};
    ZorRef<IDmTimeline> timeline_;
    IDmTrack* musicTrack_ = nullptr;
    IDmTrack* picturesTrack_ = nullptr;
    IDmClip* a_ = nullptr;
    IDmClip* d_ = nullptr;
    IDmClip* v_ = nullptr;
    IDmClip* vs_ = nullptr;
    std::map<IDmClip*, std::string> names_;
    Client firstClient_;
    Client secondClient_;
    ZorRef<IBsClipThumbnailService> first_;
    ZorRef<IBsClipThumbnailService> second_;
};

std::unique_ptr<TempFolder> ServiceEndToEnd::folder_;
std::string ServiceEndToEnd::music_;
std::string ServiceEndToEnd::voice_;
std::string ServiceEndToEnd::sound_;
std::string ServiceEndToEnd::movie_;
std::string ServiceEndToEnd::document_;
std::vector<float> ServiceEndToEnd::musicWindows_;
std::vector<float> ServiceEndToEnd::voiceWindows_;
std::vector<float> ServiceEndToEnd::soundWindows_;

// The two services acquired the one implementation of the timeline: one was
// made, and each service's acquire line names it and the timeline.
TEST_F(ServiceEndToEnd, TwoServicesOfOneTimelineShareOneImplementation) {
    const std::vector<std::shared_ptr<BsClipThumbnailServiceImpl>> live =
        BsClipThumbnailServiceRegistry::instance().live();
    ASSERT_EQ(live.size(), 1u);
    EXPECT_EQ(live[0]->timeline(), timeline_.get());
    EXPECT_EQ(textsOf(capture_.sink(), "ZOR::BsClipThumbnailServiceImpl::BsClipThumbnailServiceImpl").size(), 1u);

    std::set<unsigned long long> expectedThis;
    for (IBsClipThumbnailService* service : {first_.get(), second_.get()}) {
        auto* concrete = dynamic_cast<BsClipThumbnailService*>(service);
        ASSERT_NE(concrete, nullptr);
        expectedThis.insert(hexOf(static_cast<IBsAudioThumbnailQueryer*>(concrete)));
    }
    ASSERT_EQ(expectedThis.size(), 2u);

    const std::vector<std::string> lines = textsOf(capture_.sink(), "ZOR::BsClipThumbnailService::acquire");
    ASSERT_EQ(lines.size(), 2u);
    std::set<unsigned long long> seenThis;
    for (const std::string& line : lines) {
        unsigned long long self = 0;
        unsigned long long impl = 0;
        unsigned long long timeline = 0;
        ASSERT_EQ(
            std::sscanf(line.c_str(), "this %llx acquire service %llx for timeline %llx", &self, &impl, &timeline), 3)
            << line;
        seenThis.insert(self);
        EXPECT_EQ(impl, hexOf(live[0].get())) << line;
        EXPECT_EQ(timeline, hexOf(timeline_.get())) << line;
    }
    EXPECT_EQ(seenThis, expectedThis);
}

// Every clip's sound has its thumbnail (checked in SetUp for both services:
// A and D as their WAV files give, the sound of V ducked by half its power
// where D plays); the video clip itself has no sound to query, and its
// pictures are the film's colours at the times asked.
TEST_F(ServiceEndToEnd, EveryClipHasItsAudioThumbnailAndTheVideoClipItsPictures) {
    EXPECT_GT(distinctValues(expectedA(kAVolume)), 400u);
    EXPECT_GT(distinctValues(expectedD()), 100u);
    // Part of the sound of V is ducked and part is not, and no point lies on
    // an end of the ducked stretch.
    const Ducked ducked = duckedByD(kVBegin);
    int inside = 0;
    for (int i = 0; i < kVCount; ++i) {
        const int64_t t = pointTime(kVMarkIn, kVMarkIn + kLength, i, kVCount);
        EXPECT_NE(t, ducked.to);
        if (t <= ducked.to) ++inside;
    }
    EXPECT_GT(inside, 300);
    EXPECT_LT(inside, kVCount);
    EXPECT_NE(expectedVs(ducked), expectedVs(Ducked{}));

    // The video clip's own query is refused; the query after it is answered
    // (with another count than before), and nothing else is.
    const size_t before = firstClient_.audioCount();
    EXPECT_EQ(first_->queryAudioThumbnailData(v_, kVMarkIn, kVMarkIn + kLength, 100), 0);
    expectSameFloats(query(first_.get(), a_, 1500),
                     expectedThumbnail(musicWindows_, kAMarkIn, kAMarkIn + kLength, 1500, kAVolume));
    EXPECT_EQ(firstClient_.audioCount(), before + 1);

    // Red, green and blue seconds of the film, at media times.
    std::vector<int64_t> times = {5'000'000, 15'000'000, 21'000'000};
    const struct { int r, g, b; } colours[] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}};
    VideoThumbnailRequest request;
    request.clip = v_;
    request.width = kPictureWidth;
    request.height = kPictureHeight;
    request.frames = times.data();
    request.frameCount = static_cast<int32_t>(times.size());
    ASSERT_EQ(first_->queryVideoThumbnail(&request), 0);
    ASSERT_TRUE(firstClient_.waitForFrames(times, v_));
    std::map<int64_t, int> seen;
    for (const VideoDelivery& delivery : firstClient_.deliveries()) {
        EXPECT_EQ(delivery.clip, v_);
        EXPECT_EQ(delivery.width, kPictureWidth);
        EXPECT_EQ(delivery.height, kPictureHeight);
        EXPECT_EQ(delivery.bytesPerPicture, kPictureWidth * kPictureHeight * 4);
        EXPECT_EQ(delivery.count, static_cast<int32_t>(delivery.frames.size()));
        ASSERT_EQ(delivery.copies.size(), delivery.frames.size());
        EXPECT_TRUE(std::is_sorted(delivery.frames.begin(), delivery.frames.end()));
        for (size_t i = 0; i < delivery.frames.size(); ++i) {
            const int64_t time = delivery.frames[i];
            ++seen[time];
            const size_t index = static_cast<size_t>(std::find(times.begin(), times.end(), time) - times.begin());
            ASSERT_LT(index, times.size()) << "time " << time;
            const std::vector<unsigned char>& picture = delivery.copies[i];
            const size_t centre = (static_cast<size_t>(kPictureHeight / 2) * kPictureWidth + kPictureWidth / 2) * 4;
            EXPECT_NEAR(picture[centre], colours[index].r, 40) << "time " << time;
            EXPECT_NEAR(picture[centre + 1], colours[index].g, 40) << "time " << time;
            EXPECT_NEAR(picture[centre + 2], colours[index].b, 40) << "time " << time;
            EXPECT_EQ(picture[centre + 3], 255) << "time " << time;
        }
    }
    EXPECT_EQ(seen, (std::map<int64_t, int>{{times[0], 1}, {times[1], 1}, {times[2], 1}}));

    for (const AudioDelivery& delivery : firstClient_.audio()) EXPECT_NE(delivery.clip, v_);
    EXPECT_EQ(firstClient_.audioCount(), before + 1);
    EXPECT_TRUE(firstClient_.changed().empty());
    expectHeard({});
}

// A volume edit of A notices A once to each client, and A's next thumbnail
// is the WAV file's peaks at the new gain (+4.5 dB: some reach full scale).
TEST_F(ServiceEndToEnd, VolumeEditNoticesTheClipOnceAndItsValuesFollowTheNewGain) {
    ASSERT_EQ(setClipProperty(a_, audioKey::volume, doubleProperty(4.5)), 0);
    expectHeard({"A"});

    const std::vector<float> louder = query(first_.get(), a_, kACount);
    const std::vector<float> expected = expectedA(4.5);
    expectSameFloats(louder, expected);
    EXPECT_GT(std::count(expected.begin(), expected.end(), 1.0f), 0);
    // Each value that is not clipped is the old one times the square root of
    // the ratio of the gains (up to the rounding of each to float).
    const std::vector<float> quieter = expectedA(kAVolume);
    const double ratio = std::sqrt(gainOf(4.5) / gainOf(kAVolume));
    ASSERT_EQ(louder.size(), quieter.size());
    int compared = 0;
    for (size_t i = 0; i < louder.size(); ++i) {
        if (!(louder[i] < 1.0f) || !(quieter[i] > 0.0f)) continue;
        ++compared;
        EXPECT_NEAR(static_cast<double>(louder[i]) / static_cast<double>(quieter[i]), ratio, ratio * 1e-6) << i;
    }
    EXPECT_GT(compared, 500);
    // The second client's request reads the new volume too.
    expectSameFloats(query(second_.get(), a_, kACount), expected);
    // The others did not change.
    expectSameFloats(query(first_.get(), d_, kDCount), expectedD());
    expectSameFloats(query(first_.get(), vs_, kVCount), expectedVs(duckedByD(kVBegin)));

    // The same volume again is no edit: no event, no notice.
    ASSERT_EQ(setClipProperty(a_, audioKey::volume, doubleProperty(4.5)), 0);
    expectHeard({});
    // Muting A changes its volume and its ducking bits: A only.
    ASSERT_EQ(setClipProperty(a_, audioKey::mute, boolProperty(true)), 0);
    expectHeard({"A"});
}

// Muting or soloing the music track marks its clips 0x200: A and D are
// noticed, and so is the sound of V, which D ducks; with the track muted D
// ducks nothing, so the sound of V is drawn at its full power until the
// track sounds again. The pictures track holds V only: its sound alone.
TEST_F(ServiceEndToEnd, TrackMuteAndSoloNoticeTheTracksClipsAndTheClipsTheyDuck) {
    ASSERT_EQ(setTrackProperty(musicTrack_, trackKey::mute, true), 0);
    expectHeard({"A", "D", "V.sound"});
    expectSameFloats(query(first_.get(), vs_, kVCount), expectedVs(Ducked{}));
    expectSameFloats(query(first_.get(), a_, kACount), expectedA(kAVolume));
    expectSameFloats(query(first_.get(), d_, kDCount), expectedD());
    expectHeard({});

    ASSERT_EQ(setTrackProperty(musicTrack_, trackKey::mute, false), 0);
    expectHeard({"A", "D", "V.sound"});
    expectSameFloats(query(first_.get(), vs_, kVCount), expectedVs(duckedByD(kVBegin)));

    ASSERT_EQ(setTrackProperty(musicTrack_, trackKey::solo, true), 0);
    expectHeard({"A", "D", "V.sound"});
    ASSERT_EQ(setTrackProperty(musicTrack_, trackKey::solo, false), 0);
    expectHeard({"A", "D", "V.sound"});
    expectSameFloats(query(first_.get(), vs_, kVCount), expectedVs(duckedByD(kVBegin)));

    ASSERT_EQ(setTrackProperty(picturesTrack_, trackKey::solo, true), 0);
    expectHeard({"V.sound"});
    ASSERT_EQ(setTrackProperty(picturesTrack_, trackKey::solo, false), 0);
    expectHeard({"V.sound"});
    ASSERT_EQ(setTrackProperty(picturesTrack_, trackKey::mute, true), 0);
    expectHeard({"V.sound"});
    ASSERT_EQ(setTrackProperty(picturesTrack_, trackKey::mute, false), 0);
    expectHeard({"V.sound"});
    expectSameFloats(query(first_.get(), vs_, kVCount), expectedVs(duckedByD(kVBegin)));
}

// Moving A notices A only (its clip time, so its thumbnail, is the same);
// moving V notices its sound, which D then ducks over another stretch.
TEST_F(ServiceEndToEnd, MovingAClipNoticesThatClip) {
    ASSERT_EQ(moveClip(a_, 2'500'000), 0);
    expectHeard({"A"});
    ASSERT_EQ(beginTimeOfClip(a_), 2'500'000);
    expectSameFloats(query(first_.get(), a_, kACount), expectedA(kAVolume));
    ASSERT_EQ(moveClip(a_, kABegin), 0);
    expectHeard({"A"});
    expectSameFloats(query(first_.get(), a_, kACount), expectedA(kAVolume));

    const int64_t later = 35'000'000;
    ASSERT_EQ(moveClip(v_, later), 0);
    expectHeard({"V.sound"});
    ASSERT_EQ(beginTimeOfClip(vs_), later);
    const std::vector<float> moved = query(first_.get(), vs_, kVCount);
    expectSameFloats(moved, expectedVs(duckedByD(later)));
    EXPECT_NE(moved, expectedVs(duckedByD(kVBegin)));
    ASSERT_EQ(moveClip(v_, kVBegin), 0);
    expectHeard({"V.sound"});
    expectSameFloats(query(first_.get(), vs_, kVCount), expectedVs(duckedByD(kVBegin)));
}

// Removing A: the builder is told 0x80 for A (noticed), then A is stale to
// every client and its queries are cancelled (its entry, and the cache of its
// media with it, are gone). Undoing brings A back with 0x100, which concerns
// no entry; once queried again, redoing reports 0x80 and A is stale again.
TEST_F(ServiceEndToEnd, RemovingAClipCancelsItsQueriesAndUndoRedoReportTheirChangeBits) {
    capture_.sink().clear();
    ASSERT_EQ(removeClip(a_), 0);
    expectHeard({"A"}, {"A"});
    EXPECT_EQ(a_->timeline(), nullptr);
    const std::vector<std::string> cancels = textsOf(capture_.sink(), "ZOR::BsAudioThumbnailBuilder::cancelQuery");
    char cancel[64];
    std::snprintf(cancel, sizeof cancel, "cancel queryer:0,obj:%llx", hexOf(a_));
    EXPECT_EQ(std::count(cancels.begin(), cancels.end(), std::string(cancel)), 1) << cancel;
    EXPECT_EQ(BsAudioSampleCache::registrySize(), 2u);

    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);
    expectHeard({});
    ASSERT_EQ(a_->timeline(), timeline_.get());
    ASSERT_EQ(timeline_->clip(0, 0), a_);
    expectSameFloats(query(first_.get(), a_, kACount), expectedA(kAVolume));
    EXPECT_EQ(BsAudioSampleCache::registrySize(), 3u);

    ASSERT_EQ(redoTimelineEdit(timeline_.get()), 0);
    expectHeard({"A"}, {"A"});
    EXPECT_EQ(timeline_->clipCount(0), 1);
    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);
    expectHeard({});
    expectSameFloats(query(first_.get(), a_, kACount), expectedA(kAVolume));
    expectSameFloats(query(second_.get(), a_, kACount), expectedA(kAVolume));

    // The other clips' thumbnails were untouched throughout.
    expectSameFloats(query(second_.get(), d_, kDCount), expectedD());
    expectSameFloats(query(second_.get(), vs_, kVCount), expectedVs(duckedByD(kVBegin)));
    expectHeard({});
}

// Removing D, which ducks the sound of V: D is noticed and stale, the sound
// of V is noticed and drawn at full power; undoing brings D's ducking back
// (the sound of V noticed, ducked again), and redoing takes it away again.
TEST_F(ServiceEndToEnd, RemovingTheDuckingClipNoticesTheClipItDuckedAndUndoRedoFollow) {
    ASSERT_EQ(removeClip(d_), 0);
    expectHeard({"D", "V.sound"}, {"D"});
    expectSameFloats(query(first_.get(), vs_, kVCount), expectedVs(Ducked{}));

    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);
    expectHeard({"V.sound"});
    expectSameFloats(query(first_.get(), vs_, kVCount), expectedVs(duckedByD(kVBegin)));
    expectSameFloats(query(first_.get(), d_, kDCount), expectedD());

    ASSERT_EQ(redoTimelineEdit(timeline_.get()), 0);
    expectHeard({"D", "V.sound"}, {"D"});
    expectSameFloats(query(second_.get(), vs_, kVCount), expectedVs(Ducked{}));

    ASSERT_EQ(undoTimelineEdit(timeline_.get()), 0);
    expectHeard({"V.sound"});
    expectSameFloats(query(second_.get(), vs_, kVCount), expectedVs(duckedByD(kVBegin)));
    expectSameFloats(query(first_.get(), vs_, kVCount), expectedVs(duckedByD(kVBegin)));
}

// A clip of media nobody has decoded yet is queried, and at once queried again
// over another range (the view scrolled) while its wave data is still being
// extracted. The second answer is the WAV file's values; or, if it was made
// from what was there, a notice follows and asking again gives them.
TEST_F(ServiceEndToEnd, QueryingAgainWhileTheMediaIsStillDecodedEndsWithItsValues) {
    const std::string fresh = folder_->file("fresh.wav");
    ASSERT_TRUE(ffmpeg(steppedSource(2, 3.0, 21) + " -c:a pcm_s16le '" + fresh + "'"));
    const std::vector<float> windows = MediaTest::waveValues(MediaTest::readWav16(fresh));
    ASSERT_EQ(windows.size(), 3000u);
    DmClipDesc clip;
    clip.name = "fresh";
    clip.mediaPath = fresh;
    clip.end = kLength;
    clip.markIn = 5'000'000;
    clip.markOut = clip.markIn + kLength;
    clip.volumeDb = -6.0;
    DmTrackDesc track;
    track.name = "Fresh";
    track.kind = DmTrackAudio;
    track.clips.push_back(clip);
    DmTimelineDesc desc;
    desc.name = "fresh";
    desc.tracks.push_back(track);
    std::string error;
    const auto timeline = ZorRef<IDmTimeline>::adopt(createTimeline(desc, &error));
    ASSERT_NE(timeline, nullptr) << error;
    IDmClip* f = timeline->clip(0, 0);
    ASSERT_NE(f, nullptr);
    names_[f] = "fresh";

    const int64_t begin = clip.markIn;
    const size_t from = firstClient_.audioCount();
    EXPECT_EQ(first_->queryAudioThumbnailData(f, begin, begin + kLength, 300), 0);
    EXPECT_EQ(first_->queryAudioThumbnailData(f, begin, begin + kSecond, 400), 0);
    const std::vector<float> expected = expectedThumbnail(windows, begin, begin + kSecond, 400, -6.0);
    const std::optional<AudioDelivery> delivery = firstClient_.waitForAudio(f, from);
    ASSERT_TRUE(delivery.has_value());
    EXPECT_EQ(delivery->begin, begin);
    EXPECT_EQ(delivery->end, begin + kSecond);
    if (delivery->values != expected) {
        // Extracting the media takes milliseconds: the notice is long due by then.
        const size_t zeros = static_cast<size_t>(std::count(delivery->values.begin(), delivery->values.end(), 0.0f));
        ASSERT_TRUE(firstClient_.waitForNotice(f, std::chrono::seconds(20)))
            << "answered with values the WAV file does not give (" << zeros << " of " << delivery->values.size()
            << " are 0), and never told to ask again";
        const size_t again = firstClient_.audioCount();
        EXPECT_EQ(first_->queryAudioThumbnailData(f, begin, begin + kSecond, 400), 0);
        const std::optional<AudioDelivery> second = firstClient_.waitForAudio(f, again);
        ASSERT_TRUE(second.has_value());
        expectSameFloats(second->values, expected);
    }
    (void)firstClient_.takeNotices();
}

// Two services query A while the worker is still busy answering another
// clip: both queries wait in the worker's queue, and both are answered, in
// the order they were made.
// One answer per clip is queued at a time, whichever service asked: a second
// service that asks while the first one's answer is still queued is answered
// when it asks again after that answer was handled.
TEST_F(ServiceEndToEnd, SecondServiceAskingWhileTheFirstOnesAnswerIsQueuedIsAnsweredWhenItAsksAgain) {
    firstClient_.holdNextDelivery(d_);
    EXPECT_EQ(first_->queryAudioThumbnailData(d_, kDMarkIn, kDMarkIn + kLength, kDCount), 0);
    ASSERT_TRUE(firstClient_.waitUntilHolding());

    const size_t firstFrom = firstClient_.audioCount();
    const size_t secondFrom = secondClient_.audioCount();
    EXPECT_EQ(first_->queryAudioThumbnailData(a_, kAMarkIn, kAMarkIn + kLength, 400), 0);
    EXPECT_EQ(second_->queryAudioThumbnailData(a_, kAMarkIn, kAMarkIn + kLength, 500), 0);
    firstClient_.release();

    const std::optional<AudioDelivery> first = firstClient_.waitForAudio(a_, firstFrom);
    ASSERT_TRUE(first.has_value());
    expectSameFloats(first->values, expectedThumbnail(musicWindows_, kAMarkIn, kAMarkIn + kLength, 400, kAVolume));
    // A later query's answer comes after every answer queued before it.
    expectSameFloats(query(first_.get(), vs_, kVCount), expectedVs(duckedByD(kVBegin)));
    EXPECT_EQ(secondClient_.audio().size(), secondFrom);

    EXPECT_EQ(second_->queryAudioThumbnailData(a_, kAMarkIn, kAMarkIn + kLength, 500), 0);
    const std::optional<AudioDelivery> second = secondClient_.waitForAudio(a_, secondFrom);
    ASSERT_TRUE(second.has_value());
    expectSameFloats(second->values, expectedThumbnail(musicWindows_, kAMarkIn, kAMarkIn + kLength, 500, kAVolume));
}

// Events after which nothing of this timeline was recorded: keys published
// by no edit of it, and edits of another timeline of the same document.
TEST_F(ServiceEndToEnd, EventsAfterWhichNothingWasRecordedNoticeNobody) {
    DmEditEvent event;
    event.timeline = timeline_.get();
    event.clip = a_;
    for (const char* key : {clipEventKey::videoPropertyChanged, clipEventKey::multiCameraPropertyChanged,
                            clipEventKey::clipRelink, undoRedoEventKey::stackChanged, timelineEventKey::dataChanged}) {
        ASSERT_EQ(defaultEventBus()->publish(key, &event, static_cast<int32_t>(sizeof event)), 0) << key;
        expectHeard({});
    }

    std::string error;
    auto other = ZorRef<IDmTimeline>::adopt(loadTimelineDocument(document_.c_str(), &error));
    ASSERT_NE(other.get(), nullptr) << error;
    ASSERT_EQ(setClipProperty(other->clip(0, 0), audioKey::volume, doubleProperty(-1.0)), 0);
    expectHeard({});
    ASSERT_EQ(setTrackProperty(other->track(0), trackKey::mute, true), 0);
    expectHeard({});
    ASSERT_EQ(removeClip(other->clip(0, 1)), 0);
    expectHeard({});
    ASSERT_EQ(undoTimelineEdit(other.get()), 0);
    expectHeard({});
    other.reset();

    // Setting D's volume to the value it has is no edit; a new volume is, and
    // being D's (a ducking clip's) it concerns the sound of V as well.
    ASSERT_EQ(setClipProperty(d_, audioKey::volume, doubleProperty(kDVolume)), 0);
    expectHeard({});
    ASSERT_EQ(setClipProperty(d_, audioKey::volume, doubleProperty(-1.0)), 0);
    expectHeard({"D", "V.sound"});
}

}  // namespace
}  // namespace ZOR::test
