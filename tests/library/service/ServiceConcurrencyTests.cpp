// The clip thumbnail service under concurrent clients and edits, on the real
// task service and the real data model, with media made by the ffmpeg
// command: four client threads, each with its own service, query audio and
// video thumbnails of the clips of two timelines (cancelling, clearing,
// switching ducking and replacing their services now and then), while a fifth
// thread edits both timelines a few thousand times. Afterwards every client
// still gets exact values and hears an edit's notice exactly once, every
// service goes, and with them every implementation and sample cache; the
// sanitizer builds check the rest (races under ThreadSanitizer, leaks under
// LeakSanitizer).
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <latch>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Adapter/Adapter.h"
#include "AudioRecording.h"
#include "BsAudioSampleCache.h"
#include "BsClipThumbnailService.h"
#include "BsDataStructure/BsDataStructure.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmEdit.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmTimeline.h"
#include "ListenerCenter/ListenerCenter.h"
#include "MediaTestSupport.h"
#include "Miravel/ClipThumbnailKey.h"
#include "Miravel/IBsClipThumbnailService.h"
#include "TimelineDescs.h"
#include "WavePeaks.h"

namespace ZOR::test {
namespace {

// The test media, and the thumbnails worked out from their samples.
using namespace MediaTest;

constexpr int64_t kSecond = 10'000'000;  // cns
constexpr int64_t kFrame = 400'000;      // one frame at 25/1, cns

constexpr int kClients = 4;
constexpr int kTimelines = 2;
// Edits made by the editing thread, and operations made by each client (the
// two take about as long).
constexpr int kEdits = 2400;
constexpr int kClientOperations = 600;

// The layout of each timeline, in cns. Music (audio): A on [0, 1.5 s) from
// 0.2 s of music.wav; D on [1.5 s, 3 s) from 0.3 s of voice.wav, ducking.
// Pictures (video): V on [1 s, 2.5 s) from 0.1 s of movie.mov, with sound.
// Spare (audio): F on [10 s, 11 s) from 0.5 s of spare.wav at -4 dB, which
// nobody touches until the end.
constexpr int64_t kALength = 15'000'000;
constexpr int64_t kAMarkIn = 2'000'000;
constexpr int64_t kDBegin = 15'000'000;
constexpr int64_t kDMarkIn = 3'000'000;
constexpr int64_t kVBegin = 10'000'000;
constexpr int64_t kVMarkIn = 1'000'000;
constexpr int64_t kFBegin = 100'000'000;
constexpr int64_t kFMarkIn = 5'000'000;
constexpr int64_t kFLength = 10'000'000;
constexpr double kFVolume = -4.0;

// --- The values of F: expectedThumbnail (WavePeaks.h) ------------------------

// How many points differ from the expected values, bit for bit.
int mismatchesOf(const std::vector<float>& actual, const std::vector<float>& expected) {
    if (actual.size() != expected.size()) return static_cast<int>(std::max(actual.size(), expected.size()));
    int mismatches = 0;
    for (size_t i = 0; i < actual.size(); ++i)
        if (std::memcmp(&actual[i], &expected[i], sizeof(float)) != 0) ++mismatches;
    return mismatches;
}

bool flagOf(IDmAudioFeature* audio, const char* key) {
    ZorProperty value;
    return audio != nullptr && audio->getProperty(key, &value) == 0 && value.boolValue();
}

bool trackFlag(IDmTrack* track, const char* key) {
    ZorProperty value;
    return track->getProperty(key, &value) == 0 && value.boolValue();
}

// --- The clients ---------------------------------------------------------------

// A client's callbacks: counts what it hears and keeps the deliveries and
// notices of the clips it is told to watch.
class Client final : public IBsAudioClipThumbnailCallback, public IBsVideoClipThumbnailCallback {
public:
    int32_t onAudioThumbnailNotice(IDmClip* clip) override {
        notices_.fetch_add(1, std::memory_order_relaxed);
        if (isWatched(clip)) watchedNotices_.record(clip);
        return 0;
    }
    int32_t onAudioThumbnailChanged(IDmClip*) override {
        changed_.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    int32_t onAudioThumbnailData(IDmClip* clip, int64_t begin, int64_t end, const float* samples,
                                 int32_t count) override {
        audio_.fetch_add(1, std::memory_order_relaxed);
        if (count < 0 || (count > 0 && samples == nullptr)) bad_.fetch_add(1, std::memory_order_relaxed);
        if (isWatched(clip))
            deliveries_.record(AudioDelivery{clip, begin, end, std::vector<float>(samples, samples + count)});
        return 0;
    }
    int32_t onVideoThumbnailNotice(void*) override { return 0; }
    int32_t onVideoThumbnailChanged(IDmClip*) override { return 0; }
    int32_t onVideoThumbnailData(IDmClip* clip, int32_t width, int32_t height, IZORLonglongList* frames,
                                 IZORPByteList* pictures, int32_t count, int32_t bytesPerPicture) override {
        video_.fetch_add(1, std::memory_order_relaxed);
        // Every picture is readable during the call, all of its bytes.
        if (frames == nullptr || pictures == nullptr || frames->count() != count || pictures->count() != count ||
            bytesPerPicture != width * height * 4) {
            bad_.fetch_add(1, std::memory_order_relaxed);
            return 0;
        }
        unsigned sum = 0;
        for (int32_t i = 0; i < count; ++i) {
            const unsigned char* picture = pictures->get(i);
            for (int32_t b = 0; b < bytesPerPicture; b += 97) sum += picture[b];
        }
        pictureBytes_.fetch_add(sum, std::memory_order_relaxed);
        if (isWatched(clip) && width == 32 && height == 24)
            for (int32_t i = 0; i < count; ++i) seenFrames_.record({clip, frames->get(i)});
        return 0;
    }

    void watch(IDmClip* clip) {
        std::lock_guard<std::mutex> lock(mutex_);
        watched_.push_back(clip);
    }
    size_t deliveryCount() const { return deliveries_.size(); }
    std::optional<AudioDelivery> waitForDelivery(IDmClip* clip, size_t from) {
        return waitForDeliveryOf(deliveries_, clip, from);
    }
    void forgetFrames() { seenFrames_.clear(); }
    // Waits until every one of times was delivered for clip since forgetFrames().
    bool waitForFrames(IDmClip* clip, const std::vector<int64_t>& times) {
        return seenFrames_.waitFor([&](const std::vector<std::pair<IDmClip*, int64_t>>& seen) {
            return std::all_of(times.begin(), times.end(), [&](int64_t time) {
                return std::find(seen.begin(), seen.end(), std::pair{clip, time}) != seen.end();
            });
        });
    }
    std::vector<IDmClip*> takeWatchedNotices() { return watchedNotices_.take(); }

    uint64_t audioCount() const { return audio_.load(); }
    uint64_t videoCount() const { return video_.load(); }
    uint64_t noticeCount() const { return notices_.load(); }
    uint64_t badCount() const { return bad_.load(); }

private:
    bool isWatched(IDmClip* clip) const {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::find(watched_.begin(), watched_.end(), clip) != watched_.end();
    }

    std::atomic<uint64_t> audio_{0};
    std::atomic<uint64_t> video_{0};
    std::atomic<uint64_t> notices_{0};
    std::atomic<uint64_t> changed_{0};
    std::atomic<uint64_t> bad_{0};
    std::atomic<uint64_t> pictureBytes_{0};
    mutable std::mutex mutex_;  // leaf: guards watched_
    std::vector<IDmClip*> watched_;
    CallRecorder<AudioDelivery> deliveries_;  // of the clips watched only
    CallRecorder<IDmClip*> watchedNotices_;
    CallRecorder<std::pair<IDmClip*, int64_t>> seenFrames_;
};

// The clips and tracks of one timeline.
struct Cut {
    ZorRef<IDmTimeline> timeline;
    IDmTrack* music = nullptr;
    IDmTrack* pictures = nullptr;
    IDmClip* a = nullptr;
    IDmClip* d = nullptr;
    IDmClip* v = nullptr;
    IDmClip* vs = nullptr;  // the sound of V
    IDmClip* f = nullptr;
};

class ServiceConcurrency : public ::testing::Test {
protected:
    void SetUp() override {
        music_ = folder_.file("music.wav");
        voice_ = folder_.file("voice.wav");
        sound_ = folder_.file("sound.wav");
        spare_ = folder_.file("spare.wav");
        movie_ = folder_.file("movie.mov");
        ASSERT_TRUE(ffmpeg(steppedSource(2, 2.0, 0) + " -c:a pcm_s16le '" + music_ + "'"));
        ASSERT_TRUE(ffmpeg(steppedSource(1, 2.0, 7) + " -c:a pcm_s16le '" + voice_ + "'"));
        ASSERT_TRUE(ffmpeg(steppedSource(2, 2.0, 13) + " -c:a pcm_s16le '" + sound_ + "'"));
        ASSERT_TRUE(ffmpeg(steppedSource(2, 2.0, 29) + " -c:a pcm_s16le '" + spare_ + "'"));
        ASSERT_TRUE(ffmpeg("-f lavfi -i \"testsrc2=s=64x48:r=25:d=2\" -i '" + sound_ +
                           "' -map 0:v -map 1:a -c:v libx264 -pix_fmt yuv420p -c:a pcm_s16le '" + movie_ + "'"));
        spareWindows_ = MediaTest::waveValues(MediaTest::readWav16(spare_));
        ASSERT_EQ(spareWindows_.size(), 2000u);
        setFrameStoreRoot(folder_.file("frames").c_str());
        ASSERT_EQ(BsClipThumbnailServiceRegistry::instance().size(), 0u);

        for (Cut& cut : cuts_) {
            DmTimelineDesc desc;
            desc.name = "cut";
            DmTrackDesc music;
            music.name = "Music";
            music.kind = DmTrackAudio;
            music.clips.push_back(clipOf("A", music_, 0, kAMarkIn, kALength, -6.0));
            DmClipDesc d = clipOf("D", voice_, kDBegin, kDMarkIn, kALength, -2.0);
            d.ducking = DmDuckingDesc{true, true, 0.4, 0.1, 0.5};
            music.clips.push_back(d);
            DmTrackDesc pictures;
            pictures.name = "Pictures";
            pictures.kind = DmTrackVideo;
            pictures.clips.push_back(clipOf("V", movie_, kVBegin, kVMarkIn, kALength, -3.0));
            DmTrackDesc spare;
            spare.name = "Spare";
            spare.kind = DmTrackAudio;
            spare.clips.push_back(clipOf("F", spare_, kFBegin, kFMarkIn, kFLength, kFVolume));
            desc.tracks = {music, pictures, spare};
            std::string error;
            cut.timeline = ZorRef<IDmTimeline>::adopt(createTimeline(desc, &error));
            ASSERT_NE(cut.timeline, nullptr) << error;
            cut.music = cut.timeline->track(0);
            cut.pictures = cut.timeline->track(1);
            cut.a = cut.timeline->clip(0, 0);
            cut.d = cut.timeline->clip(0, 1);
            cut.v = cut.timeline->clip(1, 0);
            cut.f = cut.timeline->clip(2, 0);
            ASSERT_NE(cut.a, nullptr);
            ASSERT_NE(cut.d, nullptr);
            ASSERT_NE(cut.v, nullptr);
            ASSERT_NE(cut.f, nullptr);
            cut.vs = getBaseAudioClip(cut.v);
            ASSERT_NE(cut.vs, nullptr);
            ASSERT_NE(cut.vs, cut.v);
            ASSERT_NE(cut.d->effect(DmEffectDucking), nullptr);
        }
    }

    void TearDown() override {
        for (Cut& cut : cuts_) cut.timeline.reset();
        setFrameStoreRoot(nullptr);
    }

    // One client's work: random queries and cancels of the clips of both
    // timelines, now and then a new service in place of its own.
    void runClient(int index, ZorRef<IBsClipThumbnailService>& service, Client& client) {
        std::mt19937 random(static_cast<uint32_t>(1000 + index));
        bool ducking = true;
        for (int operation = 0; operation < kClientOperations; ++operation) {
            const Cut& cut = cuts_[random() % kTimelines];
            IDmClip* const sounds[] = {cut.a, cut.d, cut.vs};
            IDmClip* clip = sounds[random() % 3];
            const uint32_t choice = random() % 100;
            if (choice < 55) {
                const int64_t begin = markInTimeOfClip(clip);
                const uint32_t count = 40 + random() % 300;
                EXPECT_EQ(service->queryAudioThumbnailData(clip, begin, begin + kALength, count), 0);
            } else if (choice < 65) {
                EXPECT_EQ(service->cancelAudioThumbnailQuery(clip), 0);
            } else if (choice < 80) {
                int64_t frames[] = {static_cast<int64_t>(random() % 15) * kFrame, 4'000'000, 12'000'000};
                VideoThumbnailRequest request;
                request.clip = cut.v;
                request.width = 32;
                request.height = 24;
                request.frames = frames;
                request.frameCount = 3;
                request.refresh = random() % 10 == 0 ? 1u : 0u;
                EXPECT_EQ(service->queryVideoThumbnail(&request), 0);
            } else if (choice < 86) {
                EXPECT_EQ(service->cancelVideoThumbnailQuery(cut.v), 0);
            } else if (choice < 91) {
                ducking = !ducking;
                EXPECT_EQ(service->setProperty(ClipThumbnailKey::enableCalcDucking, boolProperty(ducking)), 0);
            } else if (choice < 93) {
                EXPECT_EQ(service->clearAudioRawSamples(clip), 0);
            } else if (choice < 95) {
                // The client closes its view and opens another.
                service.reset();
                service = ZorRef<IBsClipThumbnailService>::adopt(createBsClipThumbnaiService());
                ASSERT_NE(service, nullptr);
                EXPECT_EQ(service->addAudioClipThumbnailCallback(&client), 0);
                EXPECT_EQ(service->addVideoClipThumbnailCallback(&client), 0);
                ducking = true;
            } else {
                std::this_thread::yield();
            }
        }
    }

    // The edits: volumes, mutes, track flags, moves back and forth, removals
    // undone, undo and redo; each one's result counted when it is not 0.
    void runEditor(std::atomic<int>& failures) {
        std::mt19937 random(7);
        const double volumes[] = {-12.0, -6.0, -3.0, 0.0, 2.5};
        auto check = [&](int32_t result) {
            if (result != 0) failures.fetch_add(1);
        };
        for (int edit = 0; edit < kEdits;) {
            const Cut& cut = cuts_[edit % kTimelines];
            auto* aAudio = static_cast<IDmAudioFeature*>(cut.a->queryInterface("IDmAudioFeature"));
            auto* vAudio = static_cast<IDmAudioFeature*>(cut.vs->queryInterface("IDmAudioFeature"));
            switch (random() % 10) {
                case 0:
                    check(setClipProperty(cut.a, audioKey::volume, doubleProperty(volumes[random() % 5])));
                    ++edit;
                    break;
                case 1:
                    check(setClipProperty(cut.d, audioKey::volume, doubleProperty(volumes[random() % 5])));
                    ++edit;
                    break;
                case 2:
                    check(setClipProperty(cut.v, audioKey::mute, boolProperty(!flagOf(vAudio, audioKey::mute))));
                    ++edit;
                    break;
                case 3:
                    check(setClipProperty(cut.a, audioKey::mute, boolProperty(!flagOf(aAudio, audioKey::mute))));
                    ++edit;
                    break;
                case 4: {
                    IDmTrack* track = random() % 2 == 0 ? cut.music : cut.pictures;
                    const char* key = random() % 2 == 0 ? trackKey::mute : trackKey::solo;
                    check(setTrackProperty(track, key, !trackFlag(track, key)));
                    ++edit;
                    break;
                }
                case 5:
                    check(moveClip(cut.a, beginTimeOfClip(cut.a) == 0 ? 5'000'000 : 0));
                    ++edit;
                    break;
                case 6:
                    check(moveClip(cut.v, beginTimeOfClip(cut.v) == kVBegin ? kVBegin + 2'500'000 : kVBegin));
                    ++edit;
                    break;
                case 7:
                    check(removeClip(random() % 2 == 0 ? cut.d : cut.a));
                    check(undoTimelineEdit(cut.timeline.get()));
                    edit += 2;
                    break;
                case 8:
                    check(removeClip(cut.v));
                    check(undoTimelineEdit(cut.timeline.get()));
                    edit += 2;
                    break;
                default:
                    if (undoableEditCount(cut.timeline.get()) > 0) {
                        check(undoTimelineEdit(cut.timeline.get()));
                        check(redoTimelineEdit(cut.timeline.get()));
                        edit += 2;
                    }
                    break;
            }
        }
    }

    TempFolder folder_;
    std::string music_;
    std::string voice_;
    std::string sound_;
    std::string movie_;
    std::string spare_;
    std::vector<float> spareWindows_;
    Cut cuts_[kTimelines];
};

TEST_F(ServiceConcurrency, FourClientsAndAnEditorOnTwoTimelines) {
    Client clients[kClients];
    std::array<ZorRef<IBsClipThumbnailService>, kClients> services;
    for (int i = 0; i < kClients; ++i) {
        services[i] = ZorRef<IBsClipThumbnailService>::adopt(createBsClipThumbnaiService());
        ASSERT_NE(services[i], nullptr);
        ASSERT_EQ(services[i]->addAudioClipThumbnailCallback(&clients[i]), 0);
        ASSERT_EQ(services[i]->addVideoClipThumbnailCallback(&clients[i]), 0);
        for (const Cut& cut : cuts_) {
            clients[i].watch(cut.f);
            clients[i].watch(cut.v);
        }
    }

    std::atomic<int> editFailures{0};
    {
        std::latch start(kClients + 1);
        std::vector<std::thread> threads;
        for (int i = 0; i < kClients; ++i) {
            threads.emplace_back([&, i] {
                start.arrive_and_wait();
                runClient(i, services[i], clients[i]);
            });
        }
        threads.emplace_back([&] {
            start.arrive_and_wait();
            runEditor(editFailures);
        });
        for (std::thread& thread : threads) thread.join();
    }
    EXPECT_EQ(editFailures.load(), 0);
    ASSERT_EQ(runOnEventThread([] {}), 0);

    // Everything was put back by undo: the clips are where they were.
    for (const Cut& cut : cuts_) {
        EXPECT_EQ(cut.timeline->clipCount(0), 2);
        EXPECT_EQ(cut.timeline->clipCount(1), 1);
        EXPECT_EQ(cut.a->timeline(), cut.timeline.get());
        EXPECT_EQ(cut.d->timeline(), cut.timeline.get());
        EXPECT_EQ(cut.v->timeline(), cut.timeline.get());
    }

    // Each client, one after the other, gets F of each timeline exactly as
    // its WAV file gives it (its media was decoded by nobody before).
    for (int i = 0; i < kClients; ++i) {
        for (int t = 0; t < kTimelines; ++t) {
            IDmClip* f = cuts_[t].f;
            const int count = 200 + 7 * i + t;
            const size_t from = clients[i].deliveryCount();
            EXPECT_EQ(
                services[i]->queryAudioThumbnailData(f, kFMarkIn, kFMarkIn + kFLength, static_cast<uint32_t>(count)),
                0);
            const std::optional<AudioDelivery> delivery = clients[i].waitForDelivery(f, from);
            ASSERT_TRUE(delivery.has_value()) << "client " << i << " timeline " << t;
            EXPECT_EQ(delivery->begin, kFMarkIn);
            EXPECT_EQ(delivery->end, kFMarkIn + kFLength);
            EXPECT_EQ(mismatchesOf(delivery->values,
                                   expectedThumbnail(spareWindows_, kFMarkIn, kFMarkIn + kFLength, count, kFVolume)),
                      0)
                << "client " << i << " timeline " << t;
        }
    }
    // A volume edit of F is heard once by every client (each has F's entry).
    for (Client& client : clients) (void)client.takeWatchedNotices();
    for (const Cut& cut : cuts_) {
        ASSERT_EQ(setClipProperty(cut.f, audioKey::volume, doubleProperty(-1.0)), 0);
        ASSERT_EQ(runOnEventThread([] {}), 0);
        for (int i = 0; i < kClients; ++i)
            EXPECT_EQ(clients[i].takeWatchedNotices(), std::vector<IDmClip*>{cut.f}) << "client " << i;
    }

    for (int i = 0; i < kClients; ++i) {
        EXPECT_GT(clients[i].audioCount(), 0u) << "client " << i;
        EXPECT_GT(clients[i].noticeCount(), 0u) << "client " << i;
        EXPECT_EQ(clients[i].badCount(), 0u) << "client " << i;
    }
    // And the pictures of V of each timeline.
    for (int i = 0; i < kClients; ++i) {
        for (const Cut& cut : cuts_) {
            std::vector<int64_t> times = {4'000'000, 12'000'000};
            const std::vector<int64_t> asked = times;
            clients[i].forgetFrames();
            VideoThumbnailRequest request;
            request.clip = cut.v;
            request.width = 32;
            request.height = 24;
            request.frames = times.data();
            request.frameCount = static_cast<int32_t>(times.size());
            EXPECT_EQ(services[i]->queryVideoThumbnail(&request), 0);
            ASSERT_TRUE(clients[i].waitForFrames(cut.v, asked)) << "client " << i;
        }
        EXPECT_GT(clients[i].videoCount(), 0u);
    }

    // Every service goes at once, each on its own thread.
    {
        std::latch start(kClients);
        std::vector<std::thread> threads;
        for (int i = 0; i < kClients; ++i) {
            threads.emplace_back([&, i] {
                start.arrive_and_wait();
                services[i].reset();
            });
        }
        for (std::thread& thread : threads) thread.join();
    }
    ASSERT_EQ(runOnEventThread([] {}), 0);
    EXPECT_EQ(BsClipThumbnailServiceRegistry::instance().size(), 0u);
    EXPECT_EQ(BsAudioSampleCache::registrySize(), 0u);
}

}  // namespace
}  // namespace ZOR::test
