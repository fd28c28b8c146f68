// The clip thumbnail service: acquiring the per-timeline implementation,
// its property, which clips it watches, its end, and the data-model events
// after which every implementation reports what changed. Extraction runs on
// the scripted task service.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "BsClipThumbnailService.h"
#include "Adapter/Adapter.h"
#include "AudioRecording.h"
#include "CapturingLogger.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DmTimeline.h"
#include "ListenerCenter/ListenerCenter.h"
#include "MediaTestSupport.h"
#include "Miravel/ClipThumbnailKey.h"
#include "ScriptedTaskService.h"
#include "TimelineDescs.h"

namespace ZOR::test {
namespace {

using MediaTest::ffmpeg;

std::string hex(const void* pointer) {
    char text[32];
    std::snprintf(text, sizeof text, "%llx", static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pointer)));
    return text;
}

class ServiceEdge : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        folder_ = std::make_unique<TempFolder>();
        tone_ = folder_->file("tone.wav");
        movie_ = folder_->file("movie.mp4");
        ASSERT_TRUE(ffmpeg(MediaTest::toneArguments(tone_, 330, 48000, 3)));
        ASSERT_TRUE(
            ffmpeg("-f lavfi -i \"testsrc2=s=64x36:r=25:d=3\" -f lavfi -i \"sine=f=440:r=48000:d=3\" "
                   "-c:v libx264 -pix_fmt yuv420p -c:a aac '" +
                   movie_ + "'"));
    }
    static void TearDownTestSuite() { folder_.reset(); }

    void SetUp() override {
        resetScriptedTasks();
        a_ = makeTimeline();
        b_ = makeTimeline();
    }
    void TearDown() override {
        services_.clear();
        timelines_.clear();
    }

    // A timeline of the movie and the tone, held until the test ends.
    IDmTimeline* makeTimeline() {
        DmTrackDesc video;
        video.kind = DmTrackVideo;
        video.clips.push_back(clipOf("movie", movie_, 0, 0, 20'000'000, 0.0));
        DmTrackDesc audio;
        audio.kind = DmTrackAudio;
        audio.clips.push_back(clipOf("tone", tone_, 0, 0, 20'000'000, 0.0));
        DmTimelineDesc desc;
        desc.tracks = {video, audio};
        std::string error;
        timelines_.push_back(ZorRef<IDmTimeline>::adopt(createTimeline(desc, &error)));
        EXPECT_NE(timelines_.back(), nullptr) << error;
        return timelines_.back().get();
    }
    // A service held until the test ends, or release().
    IBsClipThumbnailService* newService() {
        services_.push_back(ZorRef<IBsClipThumbnailService>::adopt(createBsClipThumbnaiService()));
        return services_.back().get();
    }
    void release(IBsClipThumbnailService* service) {
        services_.erase(std::find_if(services_.begin(), services_.end(),
                                     [service](const auto& held) { return held.get() == service; }));
    }
    static BsClipThumbnailService* concrete(IBsClipThumbnailService* service) {
        return dynamic_cast<BsClipThumbnailService*>(service);
    }
    static std::string queryerHex(IBsClipThumbnailService* service) {
        return hex(static_cast<IBsAudioThumbnailQueryer*>(concrete(service)));
    }
    static IDmClip* tone(IDmTimeline* timeline) { return timeline->clip(1, 0); }
    static IDmClip* movie(IDmTimeline* timeline) { return timeline->clip(0, 0); }
    static std::vector<std::string> acquireLines(CapturingSink& sink) {
        std::vector<std::string> lines;
        for (const CapturedLine& line : sink.lines())
            if (line.function == "ZOR::BsClipThumbnailService::acquire") lines.push_back(line.text);
        return lines;
    }

    static std::unique_ptr<TempFolder> folder_;
    static std::string tone_;
    static std::string movie_;
    std::vector<ZorRef<IDmTimeline>> timelines_;
    IDmTimeline* a_ = nullptr;  // the timelines' own
    IDmTimeline* b_ = nullptr;
    std::vector<ZorRef<IBsClipThumbnailService>> services_;
};

std::unique_ptr<TempFolder> ServiceEdge::folder_;
std::string ServiceEdge::tone_;
std::string ServiceEdge::movie_;

TEST_F(ServiceEdge, FactoryGivesOneReferenceAndAnswersOnlyItsInterfaceName) {
    IBsClipThumbnailService* service = newService();
    EXPECT_EQ(service->refCount(), 1);
    EXPECT_EQ(service->queryInterface("IBsClipThumbnailService"), static_cast<void*>(service));
    EXPECT_EQ(service->queryInterface("IDmBaseObj"), nullptr);
    EXPECT_EQ(service->queryInterface("IBsAudioThumbnailQueryer"), nullptr);
}

TEST_F(ServiceEdge, NullClipAcquiresTheImplOfTheNullTimelineWithoutAReference) {
    ScopedCapture capture;
    const size_t before = BsClipThumbnailServiceRegistry::instance().size();
    IBsClipThumbnailService* service = newService();
    EXPECT_EQ(service->cancelAudioThumbnailQuery(nullptr), 0);
    EXPECT_EQ(BsClipThumbnailServiceRegistry::instance().size(), before + 1);
    const auto impl = concrete(service)->acquire(nullptr);
    EXPECT_EQ(impl->timeline(), nullptr);
    const auto lines = acquireLines(capture.sink());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "this " + queryerHex(service) + " acquire service " + hex(impl.get()) + " for timeline 0");
}

TEST_F(ServiceEdge, TwoServicesQueryingOneTimelineShareOneImpl) {
    ScopedCapture capture;
    const int32_t timelineReferences = a_->refCount();
    IBsClipThumbnailService* first = newService();
    IBsClipThumbnailService* second = newService();
    EXPECT_EQ(first->queryAudioThumbnailData(tone(a_), 0, 10'000'000, 10), 0);
    EXPECT_EQ(second->queryAudioThumbnailData(tone(a_), 0, 10'000'000, 10), 0);
    const auto impl = concrete(first)->acquire(a_);
    EXPECT_EQ(concrete(second)->acquire(a_), impl);
    EXPECT_EQ(BsClipThumbnailServiceRegistry::instance().size(), 1u);
    EXPECT_EQ(a_->refCount(), timelineReferences + 1);  // the Impl's one reference
    const auto lines = acquireLines(capture.sink());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0],
              "this " + queryerHex(first) + " acquire service " + hex(impl.get()) + " for timeline " + hex(a_));
    EXPECT_EQ(lines[1],
              "this " + queryerHex(second) + " acquire service " + hex(impl.get()) + " for timeline " + hex(a_));
}

TEST_F(ServiceEdge, AcquiringOneTimelineTwiceRegistersTheCallbacksOnceAndLogsOnce) {
    ScopedCapture capture;
    RecordingCallback notices;
    IBsClipThumbnailService* service = newService();
    service->addAudioClipThumbnailCallback(&notices);
    service->queryAudioThumbnailData(tone(a_), 0, 10'000'000, 10);
    service->cancelVideoThumbnailQuery(movie(a_));
    const auto impl = concrete(service)->acquire(a_);
    EXPECT_EQ(acquireLines(capture.sink()).size(), 1u);
    // One audio callback, registered once though the timeline was acquired
    // three times.
    EXPECT_EQ(impl->callbackRegistrations(), 1);
    impl->onAudioThumbnailNotice(tone(a_));
    EXPECT_EQ(notices.notices(), std::vector<IDmClip*>{tone(a_)});
}

TEST_F(ServiceEdge, CallbacksReachImplsAcquiredBeforeAndAfterAndLeaveThemOnRemoval) {
    RecordingCallback notices;
    IBsClipThumbnailService* service = newService();
    service->queryAudioThumbnailData(tone(a_), 0, 10'000'000, 10);
    service->addAudioClipThumbnailCallback(&notices);
    service->queryAudioThumbnailData(tone(b_), 0, 10'000'000, 10);
    concrete(service)->acquire(a_)->onAudioThumbnailNotice(tone(a_));
    concrete(service)->acquire(b_)->onAudioThumbnailNotice(tone(b_));
    EXPECT_EQ(notices.notices(), (std::vector<IDmClip*>{tone(a_), tone(b_)}));
    service->removeAudioClipThumbnailCallback(&notices);
    concrete(service)->acquire(a_)->onAudioThumbnailNotice(tone(a_));
    EXPECT_EQ(notices.notices().size(), 2u);
}

TEST_F(ServiceEdge, OtherPropertyKeysAreRefusedAndLeaveTheFlagAlone) {
    IBsClipThumbnailService* service = newService();
    ZorProperty value;
    ASSERT_EQ(service->getProperty(ClipThumbnailKey::enableCalcDucking, &value), 0);
    EXPECT_TRUE(value.boolValue());
    EXPECT_EQ(service->setProperty("enableCalcDuckingX", boolProperty(false)), 1001);
    EXPECT_EQ(service->setProperty("", boolProperty(false)), 1001);
    EXPECT_EQ(service->getProperty("enableCalc", &value), 1001);
    ASSERT_EQ(service->getProperty(ClipThumbnailKey::enableCalcDucking, &value), 0);
    EXPECT_TRUE(value.boolValue());
    EXPECT_TRUE(concrete(service)->isCalcDuckingEnabled());
    // The key's text, not its address, is compared.
    const std::string copy = ClipThumbnailKey::enableCalcDucking;
    EXPECT_EQ(service->setProperty(copy.c_str(), boolProperty(false)), 0);
    ASSERT_EQ(service->getProperty(ClipThumbnailKey::enableCalcDucking, &value), 0);
    EXPECT_FALSE(value.boolValue());
    EXPECT_FALSE(concrete(service)->isCalcDuckingEnabled());
}

TEST_F(ServiceEdge, AudioQueryOfAVideoClipWithSoundStartsNothingAndWatchesNothing) {
    IBsClipThumbnailService* service = newService();
    ASSERT_NE(getBaseAudioClip(movie(a_)), nullptr);
    ASSERT_NE(getBaseAudioClip(movie(a_)), movie(a_));
    EXPECT_EQ(service->queryAudioThumbnailData(movie(a_), 0, 10'000'000, 10), 0);
    const auto impl = concrete(service)->acquire(a_);
    EXPECT_EQ(impl->changedInfo()->watchedClips().count(movie(a_)), 0u);
    EXPECT_TRUE(lastAudioTask() == nullptr || lastAudioTask()->appends().empty());
    // Its base audio clip is what is to be queried.
    EXPECT_EQ(service->queryAudioThumbnailData(getBaseAudioClip(movie(a_)), 0, 10'000'000, 10), 0);
    EXPECT_EQ(impl->changedInfo()->watchedClips().count(getBaseAudioClip(movie(a_))), 1u);
    EXPECT_EQ(lastAudioTask()->appends().size(), 1u);
}

TEST_F(ServiceEdge, VideoCancelLeavesTheClipWatchedWhileAudioCancelUnwatchesIt) {
    IBsClipThumbnailService* service = newService();
    int64_t frames[] = {0, 400'000};
    VideoThumbnailRequest request;
    request.clip = movie(a_);
    request.width = 32;
    request.height = 18;
    request.frames = frames;
    request.frameCount = 2;
    EXPECT_EQ(service->queryVideoThumbnail(&request), 0);
    const auto impl = concrete(service)->acquire(a_);
    EXPECT_EQ(impl->changedInfo()->watchedClips().count(movie(a_)), 1u);
    EXPECT_EQ(service->cancelVideoThumbnailQuery(movie(a_)), 0);
    EXPECT_EQ(impl->changedInfo()->watchedClips().count(movie(a_)), 1u);

    EXPECT_EQ(service->queryAudioThumbnailData(tone(a_), 0, 10'000'000, 10), 0);
    EXPECT_EQ(impl->changedInfo()->watchedClips().count(tone(a_)), 1u);
    EXPECT_EQ(service->cancelAudioThumbnailQuery(tone(a_)), 0);
    EXPECT_EQ(impl->changedInfo()->watchedClips().count(tone(a_)), 0u);
}

TEST_F(ServiceEdge, ClearingRawSamplesNeedsAClipWithSound) {
    IBsClipThumbnailService* service = newService();
    EXPECT_EQ(service->clearAudioRawSamples(nullptr), 1001);
    EXPECT_EQ(service->clearAudioRawSamples(movie(a_)), 0);  // its base audio clip
    EXPECT_EQ(service->clearAudioRawSamples(tone(a_)), 0);
}

TEST_F(ServiceEdge, DestroyingTheLastServiceCancelsItsQueriesAndDestroysTheImplAfterItsOwnReleaseLine) {
    ScopedCapture capture;
    RecordingCallback notices;
    IBsClipThumbnailService* service = newService();
    service->addAudioClipThumbnailCallback(&notices);
    EXPECT_EQ(service->queryAudioThumbnailData(tone(a_), 0, 10'000'000, 10), 0);
    auto task = lastAudioTask();
    ASSERT_EQ(task->appends().size(), 1u);
    const int64_t token = task->appends()[0].token;
    // Held past the service, to see what the service left on it.
    auto held = concrete(service)->acquire(a_);
    const std::string implHex = hex(held.get());
    const std::string serviceHex = queryerHex(service);
    const int32_t timelineReferences = a_->refCount();

    release(service);

    const std::vector<int64_t> cancels = task->cancels();
    EXPECT_EQ(std::count(cancels.begin(), cancels.end(), token), 1);
    // The service's callback is off the Impl: a notice reaches nobody.
    held->onAudioThumbnailNotice(tone(a_));
    EXPECT_TRUE(notices.notices().empty());
    held.reset();
    EXPECT_EQ(BsClipThumbnailServiceRegistry::instance().size(), 0u);
    EXPECT_EQ(a_->refCount(), timelineReferences - 1);
    std::vector<std::string> texts = capture.sink().texts();
    const auto own = std::find(texts.begin(), texts.end(), "release " + serviceHex);
    const auto impl = std::find(texts.begin(), texts.end(), "release " + hex(a_) + " this " + implHex);
    ASSERT_NE(own, texts.end());
    ASSERT_NE(impl, texts.end());
    EXPECT_LT(own - texts.begin(), impl - texts.begin());
}

TEST_F(ServiceEdge, AnyOfTheThirteenEventsMakesEveryLiveImplReportEvenForAnotherTimeline) {
    RecordingCallback notices;
    IBsClipThumbnailService* service = newService();
    service->addAudioClipThumbnailCallback(&notices);
    ASSERT_EQ(service->queryAudioThumbnailData(tone(a_), 0, 10'000'000, 10), 0);
    ASSERT_EQ(service->queryAudioThumbnailData(tone(b_), 0, 10'000'000, 10), 0);
    const auto impl = concrete(service)->acquire(a_);
    const auto other = concrete(service)->acquire(b_);
    ASSERT_NE(impl, other);
    const char* keys[] = {timelineEventKey::dataChanged,
                          timelineEventKey::trackPropertyChanged,
                          clipEventKey::videoPropertyChanged,
                          clipEventKey::audioPropertyChanged,
                          clipEventKey::basePropertyChanged,
                          clipEventKey::multiCameraPropertyChanged,
                          clipEventKey::speedChanged,
                          clipEventKey::effectPropertyChanged,
                          clipEventKey::timelineClipPropertyChanged,
                          clipEventKey::clipRelink,
                          undoRedoEventKey::undoEvent,
                          undoRedoEventKey::redoEvent,
                          undoRedoEventKey::stackChanged};
    size_t expected = 0;
    for (const char* key : keys) {
        // A volume change of each timeline's clip recorded as the data model
        // would, on the bus's thread; then one event about timeline b: both
        // Impls report.
        runOnEventThread([&] {
            impl->changedInfo()->onAudioPropertyChanged(tone(a_), audioKey::volume);
            other->changedInfo()->onAudioPropertyChanged(tone(b_), audioKey::volume);
        });
        IDmTimeline* concerned = b_;
        ASSERT_EQ(defaultEventBus()->publish(key, &concerned, sizeof concerned), 0) << key;
        expected += 2;
        ASSERT_TRUE(notices.waitForNotices(expected)) << key;
    }
    runOnEventThread([] {});
    const std::vector<IDmClip*> seen = notices.notices();
    EXPECT_EQ(seen.size(), expected);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), tone(a_)), 13);
    EXPECT_EQ(std::count(seen.begin(), seen.end(), tone(b_)), 13);
}

TEST_F(ServiceEdge, EveryServiceSubscribesToTheThirteenKeysAndUnsubscribesAtItsEnd) {
    RecordingCallback notices;
    IBsClipThumbnailService* service = newService();
    service->addAudioClipThumbnailCallback(&notices);
    ASSERT_EQ(service->queryAudioThumbnailData(tone(a_), 0, 10'000'000, 10), 0);
    const auto impl = concrete(service)->acquire(a_);
    // With two services alive, one event is processed once per service; the
    // records are emptied by the first.
    IBsClipThumbnailService* second = newService();
    runOnEventThread([&] { impl->changedInfo()->onAudioPropertyChanged(tone(a_), audioKey::volume); });
    defaultEventBus()->publish(clipEventKey::audioPropertyChanged, nullptr, 0);
    ASSERT_TRUE(notices.waitForNotices(1));
    release(second);
    runOnEventThread([&] { impl->changedInfo()->onAudioPropertyChanged(tone(a_), audioKey::volume); });
    defaultEventBus()->publish(clipEventKey::audioPropertyChanged, nullptr, 0);
    ASSERT_TRUE(notices.waitForNotices(2));
    runOnEventThread([] {});
    EXPECT_EQ(notices.notices().size(), 2u);
}

}  // namespace
}  // namespace ZOR::test
