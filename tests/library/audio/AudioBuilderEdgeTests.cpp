// Edge cases of the audio thumbnail builder: worker start, entries and
// requests, the shared extraction task, change batches, refusals, log lines,
// and how task reports and wave data messages reach the worker.
#include <chrono>
#include <future>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "AudioEdgeSupport.h"
#include "Timeouts.h"

namespace ZOR::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* kQueryFunction = "ZOR::BsAudioThumbnailBuilder::queryAudioThumbnailData";

// The values of a query of clip time [0, 2 s] in 5 points on a fully held,
// default wave manager at unit gain: frames 0, 10, ..., 40, value index 0.
std::vector<float> firstFivePoints() {
    return {waveValue(0, 0), waveValue(10, 0), waveValue(20, 0), waveValue(30, 0), waveValue(40, 0)};
}

// ---------------------------------------------------------------------------
// Builder

TEST_F(AudioEdgeTest, FirstAcceptedQueryStartsTheWorkerAndAnUnqueriedBuilderNeverDoes) {
    FakeClip* clip = addClip("a", 0, 0, 4 * kSecond);
    RecordingQueryer queryer;
    {
        BsAudioThumbnailBuilder idle(&owner_, timeline_.get());
        EXPECT_FALSE(idle.workerStarted());
    }

    EXPECT_FALSE(builder().workerStarted());
    // Refused queries do not count.
    EXPECT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, kSecond, 0), 1001);
    EXPECT_EQ(builder().queryAudioThumbnailData(&queryer, nullptr, 0, kSecond, 4), 1001);
    EXPECT_FALSE(builder().workerStarted());

    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, kSecond, 4), 0);
    EXPECT_TRUE(builder().workerStarted());
    ASSERT_TRUE(queryer.callback.waitForDeliveries(1));
    EXPECT_TRUE(builder().workerStarted());
}

// With nothing queued the worker's wait ends by its time-out and the loop goes
// round again: rounds go on while no message arrives.
TEST_F(AudioEdgeTest, TheWorkerWakesWithinItsWaitWithNothingQueued) {
    FakeClip* clip = addClip("a", 0, 0, 4 * kSecond);
    RecordingQueryer queryer;
    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, kSecond, 4), 0);
    ASSERT_TRUE(queryer.callback.waitForDeliveries(1));
    ASSERT_TRUE(drainWorker());
    const size_t deliveries = queryer.callback.deliveries().size();
    const uint64_t before = builder().workerRounds();
    const auto deadline = std::chrono::steady_clock::now() + kGenerous;
    while (builder().workerRounds() < before + 3 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_GE(builder().workerRounds(), before + 3);
    EXPECT_EQ(queryer.callback.deliveries().size(), deliveries);  // the rounds brought nothing
}

TEST_F(AudioEdgeTest, TwoQueryersOfOneClipShareItsEntryAndWaveHandleAndGetTheirOwnRanges) {
    FakeClip* clip = addClip("a", 0, 0, 4 * kSecond);
    RecordingQueryer first;
    RecordingQueryer second;

    // [0, 2 s] in 4 points: 0, 0.5 s, 1 s, 1.5 s (frames 0, 12, 25, 37; the
    // half-frame points read value index 20).
    ASSERT_EQ(builder().queryAudioThumbnailData(&first, clip, 0, 2 * kSecond, 4), 0);
    ASSERT_TRUE(first.callback.waitForDeliveries(1));
    // [0, 1 s] in 2 points: 0, 0.5 s, both frames already read.
    ASSERT_EQ(builder().queryAudioThumbnailData(&second, clip, 0, kSecond, 2), 0);
    ASSERT_TRUE(second.callback.waitForDeliveries(1));
    ASSERT_TRUE(drainWorker());

    const auto one = first.callback.deliveries();
    const auto two = second.callback.deliveries();
    ASSERT_EQ(one.size(), 1u);
    ASSERT_EQ(two.size(), 1u);
    EXPECT_EQ(one[0].clip, static_cast<IDmClip*>(clip));
    EXPECT_EQ(one[0].begin, 0);
    EXPECT_EQ(one[0].end, 2 * kSecond);
    EXPECT_EQ(one[0].values,
              (std::vector<float>{waveValue(0, 0), waveValue(12, 20), waveValue(25, 0), waveValue(37, 20)}));
    EXPECT_EQ(two[0].clip, static_cast<IDmClip*>(clip));
    EXPECT_EQ(two[0].begin, 0);
    EXPECT_EQ(two[0].end, kSecond);
    EXPECT_EQ(two[0].values, (std::vector<float>{waveValue(0, 0), waveValue(12, 20)}));

    // One entry: the clip is held by the timeline and once by the builder.
    EXPECT_EQ(clip->refCount(), 2);
    // One wave handle: every frame was read from the manager once.
    EXPECT_EQ(wave_->reads(), (std::map<int32_t, int32_t>{{0, 1}, {12, 1}, {25, 1}, {37, 1}}));
    EXPECT_EQ(wave_->countCalls(), 1);
    EXPECT_TRUE(lastAudioTask()->appends().empty());
}

TEST_F(AudioEdgeTest, QueryIdenticalToOneWithARunningTaskReturnsZeroAndSubmitsNothing) {
    wave_->holdNothing();
    FakeClip* clip = addClip("a", 0, 0, 4 * kSecond);
    RecordingQueryer queryer;
    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, 2 * kSecond, 5), 0);
    ASSERT_EQ(lastAudioTask()->appends().size(), 1u);
    EXPECT_EQ(lastAudioTask()->appends()[0].token, 1);

    EXPECT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, 2 * kSecond, 5), 0);
    EXPECT_EQ(lastAudioTask()->appends().size(), 1u);
    EXPECT_TRUE(lastAudioTask()->cancels().empty());

    // The running task answers the query, once.
    wave_->setHeld(0, 1 << 30);
    lastAudioTask()->deliver(1, 2);
    ASSERT_TRUE(queryer.callback.waitForDeliveries(1));
    ASSERT_TRUE(drainWorker());
    const auto delivered = queryer.callback.deliveries();
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_EQ(delivered[0].values, firstFivePoints());
}

class AudioClosingStatusTest : public AudioEdgeTest, public ::testing::WithParamInterface<int32_t> {};

TEST_P(AudioClosingStatusTest, TaskReportWithThisStatusProducesNoCallback) {
    wave_->holdNothing();
    FakeClip* clip = addClip("a", 0, 0, 4 * kSecond);
    RecordingQueryer queryer;
    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, 2 * kSecond, 5), 0);
    ASSERT_EQ(lastAudioTask()->appends().size(), 1u);

    lastAudioTask()->deliver(1, GetParam());
    ASSERT_TRUE(drainWorker());
    EXPECT_TRUE(queryer.callback.deliveries().empty());

    // The request is closed: the same query submits a new task.
    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, 2 * kSecond, 5), 0);
    const auto appends = lastAudioTask()->appends();
    ASSERT_EQ(appends.size(), 2u);
    EXPECT_EQ(appends[1].token, 2);
    EXPECT_TRUE(queryer.callback.deliveries().empty());
}

INSTANTIATE_TEST_SUITE_P(FailedCancelledAndAborted, AudioClosingStatusTest, ::testing::Values(3, 4, 7));

TEST_F(AudioEdgeTest, HeldWaveDataIsAnsweredWithoutAnyTask) {
    FakeClip* clip = addClip("a", 0, 0, 4 * kSecond);
    RecordingQueryer queryer;
    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, 2 * kSecond, 5), 0);
    // No deliver(): the wave data message was queued by the query itself.
    ASSERT_TRUE(queryer.callback.waitForDeliveries(1));
    const auto delivered = queryer.callback.deliveries();
    EXPECT_EQ(delivered[0].clip, static_cast<IDmClip*>(clip));
    EXPECT_EQ(delivered[0].values, firstFivePoints());
    const auto task = lastAudioTask();
    EXPECT_TRUE(task->appends().empty());
    EXPECT_EQ(task->startCount(), 0);
    EXPECT_TRUE(task->cancels().empty());
}

TEST_F(AudioEdgeTest, CancellingAQueryerErasesEachEntryOnceItsLastRequestIsGone) {
    FakeClip* a = addClip("a", 0, 0, 4 * kSecond);
    FakeClip* b = addClip("b", 4 * kSecond, 4 * kSecond, 8 * kSecond);
    RecordingQueryer everywhere;
    RecordingQueryer onA;
    ASSERT_EQ(builder().queryAudioThumbnailData(&everywhere, a, 0, 2 * kSecond, 5), 0);
    ASSERT_TRUE(everywhere.callback.waitForDeliveries(1));
    ASSERT_EQ(builder().queryAudioThumbnailData(&everywhere, b, 4 * kSecond, 6 * kSecond, 5), 0);
    ASSERT_TRUE(everywhere.callback.waitForDeliveries(2));
    ASSERT_EQ(builder().queryAudioThumbnailData(&onA, a, 0, kSecond, 2), 0);
    ASSERT_TRUE(onA.callback.waitForDeliveries(1));
    ASSERT_TRUE(drainWorker());  // the worker holds no entry any more
    ASSERT_EQ(a->refCount(), 2);
    ASSERT_EQ(b->refCount(), 2);

    EXPECT_EQ(builder().cancelQuery(&everywhere), 0);
    EXPECT_EQ(b->refCount(), 1);  // its only request was gone: entry erased, clip released
    EXPECT_EQ(a->refCount(), 2);  // still requested by onA

    EXPECT_EQ(builder().cancelQuery(&onA), 0);
    EXPECT_EQ(a->refCount(), 1);
    EXPECT_TRUE(lastAudioTask()->cancels().empty());  // nothing was running
}

TEST_F(AudioEdgeTest, LastBuilderReleasesTheSharedTaskAndTheNextBuilderCreatesANewOne) {
    ScopedCapture capture(IBsLogger::Info);
    const std::string createText = "==wav clip AudioWaveTask create";
    const std::string releaseText = "==wav clip AudioWaveTask release";
    RecordingCallback otherOwner;

    auto first = std::make_unique<BsAudioThumbnailBuilder>(&owner_, timeline_.get());
    auto second = std::make_unique<BsAudioThumbnailBuilder>(&otherOwner, timeline_.get());
    ASSERT_EQ(scriptedAudioTasks().size(), 1u);
    const auto task = scriptedAudioTasks()[0];
    EXPECT_EQ(task->initializeCount(), 1);
    EXPECT_EQ(task->callbackCount(), 2u);
    const auto created = linesWithText(capture.sink(), createText);
    ASSERT_EQ(created.size(), 1u);
    EXPECT_EQ(created[0].severity, IBsLogger::Info);
    EXPECT_EQ(created[0].function, "ZOR::BsAudioThumbnailBuilder::BsAudioThumbnailBuilder");
    EXPECT_EQ(created[0].file, "modules/BaseService/Miravel/BsClipThumbnailService/BsAudioThumbnailBuilder");

    first.reset();
    EXPECT_TRUE(task->alive());
    EXPECT_EQ(task->shutdownCount(), 0);
    EXPECT_EQ(task->callbackCount(), 1u);
    EXPECT_TRUE(linesWithText(capture.sink(), releaseText).empty());

    second.reset();
    EXPECT_FALSE(task->alive());
    EXPECT_EQ(task->shutdownCount(), 1);
    EXPECT_EQ(task->callbackCount(), 0u);
    const auto released = linesWithText(capture.sink(), releaseText);
    ASSERT_EQ(released.size(), 1u);
    EXPECT_EQ(released[0].severity, IBsLogger::Info);
    EXPECT_EQ(released[0].function, "ZOR::BsAudioThumbnailBuilder::~BsAudioThumbnailBuilder");

    auto third = std::make_unique<BsAudioThumbnailBuilder>(&owner_, timeline_.get());
    ASSERT_EQ(scriptedAudioTasks().size(), 2u);
    const auto next = scriptedAudioTasks()[1];
    EXPECT_TRUE(next->alive());
    EXPECT_EQ(next->initializeCount(), 1);
    EXPECT_EQ(next->callbackCount(), 1u);
    EXPECT_EQ(linesWithText(capture.sink(), createText).size(), 2u);

    third.reset();
    EXPECT_FALSE(next->alive());
    EXPECT_EQ(next->shutdownCount(), 1);
    EXPECT_EQ(linesWithText(capture.sink(), releaseText).size(), 2u);
}

TEST_F(AudioEdgeTest, EnableOnlyChangeOfAnUnduckedClipOnlyNotifiesTheOwner) {
    FakeClip* clip = addClip("a", 0, 0, 4 * kSecond);
    RecordingQueryer queryer;
    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, 2 * kSecond, 5), 0);
    ASSERT_TRUE(queryer.callback.waitForDeliveries(1));
    // A louder clip: seen only if the volume is read again.
    clip->setProperty(audioKey::volume, doubleProperty(6.0));
    const int32_t readsBefore = clip->propertyReads();

    auto clips = clipList({clip});
    auto bits = intList({0x200});
    EXPECT_EQ(builder().onAudioChanged(timeline_.get(), clips.get(), bits.get()), 0);
    EXPECT_EQ(owner_.notices(), (std::vector<IDmClip*>{clip}));

    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, 2 * kSecond, 5), 0);
    ASSERT_TRUE(queryer.callback.waitForDeliveries(2));
    auto delivered = queryer.callback.deliveries();
    EXPECT_EQ(delivered[1].values, delivered[0].values);
    EXPECT_EQ(delivered[1].values, firstFivePoints());
    EXPECT_EQ(clip->propertyReads(), readsBefore);  // no parameter was read again
    EXPECT_EQ(wave_->totalReads(), 5);
    EXPECT_TRUE(lastAudioTask()->appends().empty());

    // Whereas a volume change is read at the next query.
    auto volumeBits = intList({0x40});
    EXPECT_EQ(builder().onAudioChanged(timeline_.get(), clips.get(), volumeBits.get()), 0);
    EXPECT_EQ(owner_.notices(), (std::vector<IDmClip*>{clip, clip}));
    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, 2 * kSecond, 5), 0);
    ASSERT_TRUE(queryer.callback.waitForDeliveries(3));
    delivered = queryer.callback.deliveries();
    EXPECT_GT(clip->propertyReads(), readsBefore);
    EXPECT_GT(delivered[2].values[1], delivered[0].values[1]);
}

TEST_F(AudioEdgeTest, ChangesOfAnotherTimelineAreRefused) {
    FakeClip* clip = addClip("a", 0, 0, 4 * kSecond);
    auto other = makeRef<FakeTimeline>();
    auto clips = clipList({clip});
    auto bits = intList({0x40});
    EXPECT_EQ(builder().onAudioChanged(other.get(), clips.get(), bits.get()), 1001);
    EXPECT_EQ(builder().onAudioChanged(nullptr, clips.get(), bits.get()), 1001);
    EXPECT_TRUE(owner_.notices().empty());
    EXPECT_EQ(builder().onAudioChanged(timeline_.get(), clips.get(), bits.get()), 0);
}

TEST_F(AudioEdgeTest, ZeroSampleCountIsRefusedWithAnErrorLine) {
    ScopedCapture capture;
    FakeClip* clip = addClip("a", 0, 0, 4 * kSecond);
    RecordingQueryer queryer;
    const std::string hex = hexText(static_cast<IDmClip*>(clip));

    EXPECT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, kSecond, 0), 1001);
    EXPECT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, kSecond, -3), 1001);

    const auto zero = linesWithText(capture.sink(), "==wav clip:" + hex + " sampleCount:0");
    ASSERT_EQ(zero.size(), 1u);
    EXPECT_EQ(zero[0].severity, IBsLogger::Error);
    EXPECT_EQ(zero[0].function, kQueryFunction);
    const auto negative = linesWithText(capture.sink(), "==wav clip:" + hex + " sampleCount:-3");
    ASSERT_EQ(negative.size(), 1u);
    EXPECT_EQ(negative[0].severity, IBsLogger::Error);

    EXPECT_EQ(clip->refCount(), 1);  // no entry
    EXPECT_FALSE(builder().workerStarted());
    EXPECT_TRUE(lastAudioTask()->appends().empty());
    builder_.reset();
}

TEST_F(AudioEdgeTest, NullClipIsRefused) {
    RecordingQueryer queryer;
    EXPECT_EQ(builder().queryAudioThumbnailData(&queryer, nullptr, 0, kSecond, 4), 1001);
    EXPECT_FALSE(builder().workerStarted());
    EXPECT_TRUE(lastAudioTask()->appends().empty());
}

TEST_F(AudioEdgeTest, QueryIsTimedAtTimingSeverity) {
    FakeClip* clip = addClip("a", 0, 0, 4 * kSecond);
    RecordingQueryer queryer;
    const std::regex timed(R"(ZOR::BsAudioThumbnailBuilder::queryAudioThumbnailData\[293\] cost \d+ milliSecond\.)");
    auto timedLines = [&](const CapturingSink& sink) {
        std::vector<CapturedLine> found;
        for (const CapturedLine& line : sink.lines())
            if (line.text.find("queryAudioThumbnailData[293]") != std::string::npos) found.push_back(line);
        return found;
    };

    {
        ScopedCapture above(IBsLogger::Debug);
        ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, 2 * kSecond, 5), 0);
        EXPECT_TRUE(timedLines(above.sink()).empty());
        ASSERT_TRUE(queryer.callback.waitForDeliveries(1));
    }
    {
        ScopedCapture capture(IBsLogger::Timing);
        ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, kSecond, 5), 0);
        const auto found = timedLines(capture.sink());
        ASSERT_EQ(found.size(), 1u);
        EXPECT_TRUE(std::regex_match(found[0].text, timed)) << found[0].text;
        EXPECT_EQ(found[0].severity, IBsLogger::Timing);
        EXPECT_EQ(found[0].tag, "performance");
        EXPECT_EQ(found[0].function, "ZOR::ScopeTimeSpan::~ScopeTimeSpan");
        ASSERT_TRUE(queryer.callback.waitForDeliveries(2));
        builder_.reset();
    }
}

TEST_F(AudioEdgeTest, NewQueryLineCarriesTheEntryKey) {
    ScopedCapture capture;
    FakeClip* a = addClip("a", 0, 0, 4 * kSecond);
    FakeClip* b = addClip("b", 4 * kSecond, 4 * kSecond, 8 * kSecond);
    RecordingQueryer queryer;
    const std::string q = hexText(static_cast<IBsAudioThumbnailQueryer*>(&queryer));
    auto expected = [&](IDmClip* clip, const std::string& id, const std::string& position, const std::string& tail) {
        const std::string hex = hexText(clip);
        return "==wav clip:0x" + hex + "_" + id + "_type:2_" + position + " " + hex + " new query " + q + ": " + tail;
    };

    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, a, 0, 2 * kSecond, 5), 0);
    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, b, 4 * kSecond, 6 * kSecond, 7), 0);
    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, markerClip_, 123, kSecond, 1), 0);

    const auto lineA =
        linesWithText(capture.sink(), expected(a, "a", "(0-0)", "begincns:0  endcns:20000000  sampleCount:5"));
    ASSERT_EQ(lineA.size(), 1u);
    EXPECT_EQ(lineA[0].severity, IBsLogger::Trace);
    EXPECT_EQ(lineA[0].function, kQueryFunction);
    EXPECT_EQ(
        linesWithText(capture.sink(), expected(b, "b", "(0-1)", "begincns:40000000  endcns:60000000  sampleCount:7"))
            .size(),
        1u);
    EXPECT_EQ(linesWithText(capture.sink(),
                            expected(markerClip_, "marker", "(1-0)", "begincns:123  endcns:10000000  sampleCount:1"))
                  .size(),
              1u);
    builder_.reset();
}

// ---------------------------------------------------------------------------
// Dispatch and completion

TEST_F(AudioEdgeTest, CompletionOfACancelledRequestDeliversNothing) {
    wave_->holdNothing();
    FakeClip* clip = addClip("a", 0, 0, 4 * kSecond);
    RecordingQueryer queryer;
    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, 2 * kSecond, 5), 0);
    ASSERT_EQ(lastAudioTask()->appends().size(), 1u);

    EXPECT_EQ(builder().cancelQuery(&queryer), 0);
    EXPECT_EQ(lastAudioTask()->cancels(), (std::vector<int64_t>{1}));
    EXPECT_EQ(clip->refCount(), 1);

    wave_->setHeld(0, 1 << 30);
    lastAudioTask()->deliver(1, 2);
    ASSERT_TRUE(drainWorker());
    EXPECT_TRUE(queryer.callback.deliveries().empty());
    EXPECT_EQ(wave_->totalReads(), 0);
}

TEST_F(AudioEdgeTest, OneWaveDataMessagePerClipIsQueuedAtATime) {
    FakeClip* a = addClip("a", 0, 0, 4 * kSecond);
    FakeClip* b = addClip("b", 4 * kSecond, 4 * kSecond, 8 * kSecond);
    GateQueryer gate;
    RecordingQueryer first;
    RecordingQueryer second;

    // The worker is held inside the delivery for a while b is queried twice.
    ASSERT_EQ(builder().queryAudioThumbnailData(&gate, a, 0, 2 * kSecond, 5), 0);
    ASSERT_TRUE(gate.callback.waitEntered());
    ASSERT_EQ(builder().queryAudioThumbnailData(&first, b, 4 * kSecond, 6 * kSecond, 5), 0);
    ASSERT_EQ(builder().queryAudioThumbnailData(&second, b, 4 * kSecond, 5 * kSecond, 3), 0);
    gate.callback.open();
    ASSERT_TRUE(drainWorker());

    EXPECT_EQ(gate.callback.calls(), 1);
    const auto answered = first.callback.deliveries();
    ASSERT_EQ(answered.size(), 1u);
    EXPECT_EQ(answered[0].clip, static_cast<IDmClip*>(b));
    EXPECT_EQ(answered[0].begin, 4 * kSecond);
    EXPECT_EQ(answered[0].end, 6 * kSecond);
    EXPECT_TRUE(second.callback.deliveries().empty());

    // Queried again, the second queryer is answered.
    ASSERT_EQ(builder().queryAudioThumbnailData(&second, b, 4 * kSecond, 5 * kSecond, 3), 0);
    ASSERT_TRUE(second.callback.waitForDeliveries(1));
    const auto late = second.callback.deliveries();
    EXPECT_EQ(late[0].begin, 4 * kSecond);
    EXPECT_EQ(late[0].end, 5 * kSecond);
    EXPECT_EQ(late[0].values.size(), 3u);
}

TEST_F(AudioEdgeTest, BuilderWithAnIdleWorkerIsDestroyed) {
    wave_->holdNothing();
    FakeClip* clip = addClip("a", 0, 0, 4 * kSecond);
    RecordingQueryer queryer;
    // The query waits for its task: nothing is ever queued for the worker.
    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, 2 * kSecond, 5), 0);
    ASSERT_TRUE(builder().workerStarted());
    ASSERT_EQ(lastAudioTask()->appends().size(), 1u);
    const auto task = lastAudioTask();

    auto destroyed = std::async(std::launch::async, [this] { builder_.reset(); });
    ASSERT_EQ(destroyed.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(task->cancels(), (std::vector<int64_t>{1}));
    EXPECT_FALSE(task->alive());
    EXPECT_EQ(clip->refCount(), 1);
    EXPECT_TRUE(queryer.callback.deliveries().empty());
}

TEST_F(AudioEdgeTest, FailedAppendIsServedFromWhatTheManagerHolds) {
    wave_->setHeld(0, 20);  // frames 30 and 40 are missing
    FakeClip* a = addClip("a", 0, 0, 4 * kSecond);
    RecordingQueryer partly;
    builder();
    lastAudioTask()->setAppendResult(1001);

    ASSERT_EQ(builder().queryAudioThumbnailData(&partly, a, 0, 2 * kSecond, 5), 0);
    ASSERT_TRUE(partly.callback.waitForDeliveries(1));
    auto appends = lastAudioTask()->appends();
    ASSERT_EQ(appends.size(), 1u);
    EXPECT_EQ(appends[0].result, 1001);
    EXPECT_EQ(partly.callback.deliveries()[0].values,
              (std::vector<float>{waveValue(0, 0), waveValue(10, 0), waveValue(20, 0), 0.0f, 0.0f}));

    // A manager that holds nothing gives zeros.
    auto empty = makeRef<FakeWaveManager>();
    empty->holdNothing();
    FakeClip* b = timeline_->addClip(0, "b", empty.get(), 0, 4 * kSecond, 8 * kSecond);
    RecordingQueryer nothing;
    ASSERT_EQ(builder().queryAudioThumbnailData(&nothing, b, 0, 2 * kSecond, 5), 0);
    ASSERT_TRUE(nothing.callback.waitForDeliveries(1));
    EXPECT_EQ(lastAudioTask()->appends().size(), 2u);
    EXPECT_EQ(nothing.callback.deliveries()[0].values, std::vector<float>(5, 0.0f));
}

TEST_F(AudioEdgeTest, AppendedRecordNamesTheFramesOfTheSourceRange) {
    wave_->holdNothing();
    FakeClip* clip = addClip("a", 0, 0, 4 * kSecond);
    RecordingQueryer queryer;
    // Points 0, 0.4 s, ..., 1.6 s: frames 0 to 40.
    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, clip, 0, 2 * kSecond, 5), 0);
    const auto appends = lastAudioTask()->appends();
    ASSERT_EQ(appends.size(), 1u);
    const BsWaveTaskRecord& record = appends[0].record;
    EXPECT_EQ(record.clip, static_cast<IDmClip*>(clip));
    EXPECT_EQ(record.option, 0u);
    EXPECT_EQ(record.rateNum, 25);
    EXPECT_EQ(record.rateDen, 1);
    EXPECT_EQ(record.beginFrame, 0);
    EXPECT_EQ(record.endFrame, 40);
    EXPECT_EQ(record.frameStep, 40);
    EXPECT_EQ(appends[0].token, 1);
    EXPECT_EQ(lastAudioTask()->startCount(), 1);
}

TEST_F(AudioEdgeTest, AppendedRecordOfOneFrameHasStepOne) {
    wave_->holdNothing();
    FakeClip* clip = addClip("a", 0, 0, 4 * kSecond);
    RecordingQueryer queryer;
    // Two points in frame 25 (1 s and 1.01 s).
    ASSERT_EQ(builder().queryAudioThumbnailData(&queryer, clip, kSecond, kSecond + kFrame / 2, 2), 0);
    const auto appends = lastAudioTask()->appends();
    ASSERT_EQ(appends.size(), 1u);
    EXPECT_EQ(appends[0].record.beginFrame, 25);
    EXPECT_EQ(appends[0].record.endFrame, 25);
    EXPECT_EQ(appends[0].record.frameStep, 1);
}

}  // namespace
}  // namespace ZOR::test
