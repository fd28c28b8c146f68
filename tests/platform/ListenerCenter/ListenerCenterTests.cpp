#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "LcTestSupport.h"
#include "ListenerCenter/ListenerCenter.h"

namespace ZOR::test {
namespace {

// What handlers saw, in the order they saw it: "<handler name>:<key>:<int
// data or ->".
class Journal {
public:
    void add(std::string line) {
        std::lock_guard<std::mutex> lock(lock_);
        lines_.push_back(std::move(line));
    }
    std::vector<std::string> lines() const {
        std::lock_guard<std::mutex> lock(lock_);
        return lines_;
    }

private:
    mutable std::mutex lock_;  // leaf: guards lines_ only
    std::vector<std::string> lines_;
};

struct Recorder {
    Journal* journal;
    std::string name;
};

void recordingHandler(const char* key, const void* data, void* context) {
    auto* recorder = static_cast<Recorder*>(context);
    std::string value = "-";
    if (data != nullptr) {
        int32_t number = 0;
        std::memcpy(&number, data, sizeof number);
        value = std::to_string(number);
    }
    recorder->journal->add(recorder->name + ":" + key + ":" + value);
}

int32_t publishInt(const char* key, int32_t value) { return defaultEventBus()->publish(key, &value, sizeof value); }

// Unsubscribes every id it was given when the test ends.
class Subscriptions {
public:
    ~Subscriptions() {
        for (int32_t id : ids_) defaultEventBus()->unsubscribe(id);
    }
    int32_t add(const char* key, EventHandler handler, void* context) {
        const int32_t id = defaultEventBus()->subscribe(key, handler, context, 0);
        EXPECT_GE(id, 0) << key;
        if (id >= 0) ids_.push_back(id);
        return id;
    }

private:
    std::vector<int32_t> ids_;
};

TEST(ListenerCenterTest, OnlyRegisteredKeysCanBeSubscribedTo) {
    IEventBus* bus = defaultEventBus();
    ASSERT_NE(bus, nullptr);
    EXPECT_EQ(bus, defaultEventBus());
    Journal journal;
    Recorder recorder{&journal, "h"};
    EXPECT_LT(bus->subscribe("lc.test.never-registered", recordingHandler, &recorder, 0), 0);
    EXPECT_EQ(bus->subscribe("lc.test.never-registered", recordingHandler, &recorder, 0), -1);

    EXPECT_EQ(bus->registerKey("lc.test.registered", 0), 0);
    EXPECT_EQ(bus->registerKey("lc.test.registered", 0), 0);  // twice is fine
    EXPECT_NE(bus->registerKey(nullptr, 0), 0);
    EXPECT_LT(bus->subscribe(nullptr, recordingHandler, &recorder, 0), 0);
    EXPECT_LT(bus->subscribe("lc.test.registered", nullptr, &recorder, 0), 0);

    const int32_t first = bus->subscribe("lc.test.registered", recordingHandler, &recorder, 0);
    const int32_t second = bus->subscribe("lc.test.registered", recordingHandler, &recorder, 0);
    EXPECT_GE(first, 0);
    EXPECT_GE(second, 0);
    EXPECT_NE(first, second);
    EXPECT_EQ(bus->unsubscribe(first), 0);
    EXPECT_EQ(bus->unsubscribe(first), 1001);  // already gone
    EXPECT_EQ(bus->unsubscribe(second), 0);
    EXPECT_EQ(bus->unsubscribe(987654321), 1001);
    EXPECT_EQ(bus->unsubscribe(-1), 1001);
}

TEST(ListenerCenterTest, PublishRefusesWhatCannotBeDelivered) {
    IEventBus* bus = defaultEventBus();
    ASSERT_EQ(bus->registerKey("lc.test.refusals", 0), 0);
    const int32_t value = 1;
    EXPECT_EQ(bus->publish(nullptr, &value, sizeof value), 1001);
    EXPECT_EQ(bus->publish("lc.test.not-a-key", &value, sizeof value), 1001);
    EXPECT_EQ(bus->publish("lc.test.refusals", nullptr, 4), 1001);
    EXPECT_EQ(bus->publish("lc.test.refusals", &value, -1), 1001);
    EXPECT_EQ(bus->publish("lc.test.refusals", nullptr, 0), 0);
    EXPECT_EQ(bus->post(std::function<void()>()), 1001);
}

TEST(ListenerCenterTest, EventsArriveInPublishOrderAndHandlersInSubscriptionOrder) {
    IEventBus* bus = defaultEventBus();
    ASSERT_EQ(bus->registerKey("lc.test.order.a", 0), 0);
    ASSERT_EQ(bus->registerKey("lc.test.order.b", 0), 0);
    Journal journal;
    Recorder first{&journal, "first"};
    Recorder second{&journal, "second"};
    Recorder third{&journal, "third"};
    Subscriptions subscriptions;
    subscriptions.add("lc.test.order.a", recordingHandler, &first);
    subscriptions.add("lc.test.order.b", recordingHandler, &third);
    subscriptions.add("lc.test.order.a", recordingHandler, &second);

    for (int32_t i = 1; i <= 3; ++i) {
        ASSERT_EQ(publishInt("lc.test.order.a", 10 * i), 0);
        ASSERT_EQ(publishInt("lc.test.order.b", 10 * i + 1), 0);
    }
    ASSERT_EQ(bus->publish("lc.test.order.a", nullptr, 0), 0);
    flushBus();
    EXPECT_EQ(journal.lines(), (std::vector<std::string>{
                                   "first:lc.test.order.a:10", "second:lc.test.order.a:10", "third:lc.test.order.b:11",
                                   "first:lc.test.order.a:20", "second:lc.test.order.a:20", "third:lc.test.order.b:21",
                                   "first:lc.test.order.a:30", "second:lc.test.order.a:30", "third:lc.test.order.b:31",
                                   "first:lc.test.order.a:-", "second:lc.test.order.a:-"}));
}

TEST(ListenerCenterTest, DataIsCopiedWhenPublished) {
    IEventBus* bus = defaultEventBus();
    ASSERT_EQ(bus->registerKey("lc.test.copy", 0), 0);
    Journal journal;
    Recorder recorder{&journal, "h"};
    Subscriptions subscriptions;
    subscriptions.add("lc.test.copy", recordingHandler, &recorder);

    // Hold the delivery thread so that the event waits in the queue while
    // its source changes.
    Signal holding;
    Signal release;
    ASSERT_EQ(bus->post([&] {
        holding.raise();
        EXPECT_TRUE(release.wait());
    }),
              0);
    ASSERT_TRUE(holding.wait());
    auto source = std::make_unique<int32_t>(41);
    ASSERT_EQ(bus->publish("lc.test.copy", source.get(), sizeof(int32_t)), 0);
    *source = 99;
    source.reset();
    release.raise();
    flushBus();
    EXPECT_EQ(journal.lines(), (std::vector<std::string>{"h:lc.test.copy:41"}));
}

TEST(ListenerCenterTest, UnsubscribeWaitsForTheRunningHandler) {
    IEventBus* bus = defaultEventBus();
    ASSERT_EQ(bus->registerKey("lc.test.wait", 0), 0);
    struct Blocking {
        Signal entered;
        Signal release;
        std::atomic<bool> finished{false};
        std::atomic<int> calls{0};
    } blocking;
    const int32_t id = bus->subscribe(
        "lc.test.wait",
        [](const char*, const void*, void* context) {
            auto* state = static_cast<Blocking*>(context);
            state->calls.fetch_add(1);
            state->entered.raise();
            EXPECT_TRUE(state->release.wait());
            state->finished.store(true);
        },
        &blocking, 0);
    ASSERT_GE(id, 0);
    ASSERT_EQ(publishInt("lc.test.wait", 1), 0);
    ASSERT_TRUE(blocking.entered.wait());

    std::atomic<bool> finishedWhenReturned{false};
    Signal calling;
    auto unsubscribed = std::async(std::launch::async, [&] {
        calling.raise();
        const int32_t result = bus->unsubscribe(id);
        finishedWhenReturned.store(blocking.finished.load());
        return result;
    });
    ASSERT_TRUE(calling.wait());
    // Still inside the handler: unsubscribe has not returned.
    EXPECT_EQ(unsubscribed.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    blocking.release.raise();
    ASSERT_EQ(unsubscribed.wait_for(kGenerous), std::future_status::ready);
    EXPECT_EQ(unsubscribed.get(), 0);
    EXPECT_TRUE(finishedWhenReturned.load()) << "unsubscribe returned while the handler was running";

    // And it is never called again.
    ASSERT_EQ(publishInt("lc.test.wait", 2), 0);
    flushBus();
    EXPECT_EQ(blocking.calls.load(), 1);
}

TEST(ListenerCenterTest, UnsubscribeFromInsideAHandlerRemovesWithoutWaiting) {
    IEventBus* bus = defaultEventBus();
    ASSERT_EQ(bus->registerKey("lc.test.inside", 0), 0);
    struct Ids {
        int32_t self = -1;
        int32_t other = -1;
        std::atomic<int> selfCalls{0};
        std::atomic<int> otherCalls{0};
        std::atomic<int> results{-1};
    } ids;
    ids.self = bus->subscribe(
        "lc.test.inside",
        [](const char*, const void*, void* context) {
            auto* state = static_cast<Ids*>(context);
            state->selfCalls.fetch_add(1);
            // Both: itself, which is running, and the next subscriber, which
            // then does not get this event.
            const int32_t a = defaultEventBus()->unsubscribe(state->self);
            const int32_t b = defaultEventBus()->unsubscribe(state->other);
            state->results.store(a * 10000 + b);
        },
        &ids, 0);
    ids.other = bus->subscribe(
        "lc.test.inside", [](const char*, const void*, void* context) { static_cast<Ids*>(context)->otherCalls++; },
        &ids, 0);
    ASSERT_GE(ids.self, 0);
    ASSERT_GE(ids.other, 0);

    ASSERT_EQ(publishInt("lc.test.inside", 1), 0);
    ASSERT_EQ(publishInt("lc.test.inside", 2), 0);
    flushBus();
    EXPECT_EQ(ids.selfCalls.load(), 1);
    EXPECT_EQ(ids.otherCalls.load(), 0);
    EXPECT_EQ(ids.results.load(), 0);
    EXPECT_EQ(bus->unsubscribe(ids.self), 1001);
}

TEST(ListenerCenterTest, PostedWorkRunsOnTheDeliveryThreadInOrderWithEvents) {
    IEventBus* bus = defaultEventBus();
    ASSERT_EQ(bus->registerKey("lc.test.post", 0), 0);
    Journal journal;
    Recorder recorder{&journal, "h"};
    Subscriptions subscriptions;
    subscriptions.add("lc.test.post", recordingHandler, &recorder);
    std::atomic<bool> workOnEventThread{false};
    std::thread::id workThread;

    ASSERT_EQ(publishInt("lc.test.post", 1), 0);
    ASSERT_EQ(bus->post([&] { journal.add("work:1"); }), 0);
    ASSERT_EQ(publishInt("lc.test.post", 2), 0);
    ASSERT_EQ(bus->post([&] {
        journal.add("work:2");
        workOnEventThread.store(onEventThread());
        workThread = std::this_thread::get_id();
    }),
              0);
    flushBus();
    EXPECT_EQ(journal.lines(), (std::vector<std::string>{"h:lc.test.post:1", "work:1", "h:lc.test.post:2", "work:2"}));
    EXPECT_TRUE(workOnEventThread.load());
    EXPECT_NE(workThread, std::this_thread::get_id());
    EXPECT_FALSE(onEventThread());
}

TEST(ListenerCenterTest, WorkThatThrowsDoesNotStopDelivery) {
    IEventBus* bus = defaultEventBus();
    ASSERT_EQ(bus->post([] { throw std::runtime_error("posted work failing"); }), 0);
    std::atomic<bool> ran{false};
    ASSERT_EQ(bus->post([&] { ran.store(true); }), 0);
    flushBus();
    EXPECT_TRUE(ran.load());
}

TEST(ListenerCenterTest, RunOnEventThreadFromOutsideWaitsForTheWork) {
    IEventBus* bus = defaultEventBus();
    ASSERT_EQ(bus->registerKey("lc.test.run", 0), 0);
    Journal journal;
    Recorder recorder{&journal, "h"};
    Subscriptions subscriptions;
    subscriptions.add("lc.test.run", recordingHandler, &recorder);

    // Queued before it: delivered before the work runs.
    ASSERT_EQ(publishInt("lc.test.run", 7), 0);
    bool onThread = false;
    std::thread::id ranOn;
    EXPECT_EQ(runOnEventThread([&] {
                  journal.add("work");
                  onThread = onEventThread();
                  ranOn = std::this_thread::get_id();
              }),
              0);
    // The work has run when the call returns: its writes are visible here.
    EXPECT_EQ(journal.lines(), (std::vector<std::string>{"h:lc.test.run:7", "work"}));
    EXPECT_TRUE(onThread);
    EXPECT_NE(ranOn, std::this_thread::get_id());

    EXPECT_EQ(runOnEventThread(std::function<void()>()), 1001);
    EXPECT_THROW(runOnEventThread([] { throw std::runtime_error("from the work"); }), std::runtime_error);
    // The bus goes on after a throwing piece of work.
    int32_t value = 0;
    EXPECT_EQ(runOnEventThread([&] { value = 5; }), 0);
    EXPECT_EQ(value, 5);
}

TEST(ListenerCenterTest, RunOnEventThreadFromInsideRunsAtOnce) {
    IEventBus* bus = defaultEventBus();
    ASSERT_EQ(bus->registerKey("lc.test.nested", 0), 0);
    Journal journal;
    struct Context {
        Journal* journal;
        std::atomic<int32_t> result{-1};
    } context{&journal};
    Subscriptions subscriptions;
    subscriptions.add(
        "lc.test.nested",
        [](const char*, const void*, void* raw) {
            auto* state = static_cast<Context*>(raw);
            state->journal->add("handler begins");
            state->result.store(runOnEventThread([state] { state->journal->add("nested work"); }));
            state->journal->add("handler ends");
        },
        &context);

    ASSERT_EQ(publishInt("lc.test.nested", 1), 0);
    // From posted work as well, and from work run by runOnEventThread.
    EXPECT_EQ(runOnEventThread([&] {
                  journal.add("outer work begins");
                  EXPECT_EQ(runOnEventThread([&] { journal.add("inner work"); }), 0);
                  journal.add("outer work ends");
              }),
              0);
    EXPECT_EQ(journal.lines(), (std::vector<std::string>{"handler begins", "nested work", "handler ends",
                                                         "outer work begins", "inner work", "outer work ends"}));
    EXPECT_EQ(context.result.load(), 0);
}

// Uses the bus from the destructor of a static that outlives the bus's own
// statics (it is made before the bus is first used).
struct LateUser {
    ~LateUser() {
        int ran = 0;
        const int32_t run = runOnEventThread([&] { ran = onEventThread() ? 1 : 2; });
        const int32_t published = defaultEventBus()->publish("lc.test.late", nullptr, 0);
        const int32_t subscribed = defaultEventBus()->subscribe("lc.test.late", recordingHandler, nullptr, 0);
        std::fprintf(stderr, "late: run %d ran %d publish %d unsubscribe %d\n", run, ran, published,
                     defaultEventBus()->unsubscribe(subscribed));
    }
};

[[noreturn]] void exitWithALateUser() {
    static LateUser late;
    IEventBus* bus = defaultEventBus();
    bus->registerKey("lc.test.late", 0);
    Journal journal;
    Recorder recorder{&journal, "h"};
    const int32_t id = bus->subscribe("lc.test.late", recordingHandler, &recorder, 0);
    bus->publish("lc.test.late", nullptr, 0);  // the delivery thread runs from here on
    flushBus();
    bus->unsubscribe(id);
    std::exit(journal.lines().size() == 1 ? 0 : 3);
}

TEST(ListenerCenterTest, TheBusStillAnswersAfterItsThreadStoppedAtExit) {
    // A fresh process, in which the static above is made before the bus.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exitWithALateUser(), ::testing::ExitedWithCode(0), "late: run 0 ran 1 publish 1002 unsubscribe 0");
}

}  // namespace
}  // namespace ZOR::test
