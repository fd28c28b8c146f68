// The bus used from several threads at once. Meant for ThreadSanitizer (and
// AddressSanitizer: a handler called after its unsubscribe has returned would
// touch freed memory).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "LcTestSupport.h"
#include "ListenerCenter/ListenerCenter.h"

namespace ZOR::test {
namespace {

struct Stamp {
    int32_t publisher;
    int32_t sequence;
};

// Checks that each publisher's events arrive in its order, all of them.
struct OrderCheck {
    std::vector<int32_t> next;  // written on the delivery thread only
    std::atomic<int> received{0};
    std::atomic<int> outOfOrder{0};
};

void orderHandler(const char*, const void* data, void* context) {
    auto* check = static_cast<OrderCheck*>(context);
    Stamp stamp{};
    std::memcpy(&stamp, data, sizeof stamp);
    if (stamp.sequence != check->next[static_cast<size_t>(stamp.publisher)]) check->outOfOrder.fetch_add(1);
    check->next[static_cast<size_t>(stamp.publisher)] = stamp.sequence + 1;
    check->received.fetch_add(1);
}

// The context of a short-lived subscription; freed right after unsubscribe.
struct Fleeting {
    std::atomic<bool> closed{false};
    std::atomic<int>* lateCalls;
    int64_t calls = 0;  // written by the handler only
};

void fleetingHandler(const char*, const void*, void* context) {
    auto* fleeting = static_cast<Fleeting*>(context);
    if (fleeting->closed.load()) fleeting->lateCalls->fetch_add(1);
    ++fleeting->calls;
}

TEST(ListenerCenterConcurrencyTest, PublishersKeepTheirOrderWhileOthersSubscribeAndUnsubscribe) {
    IEventBus* bus = defaultEventBus();
    ASSERT_EQ(bus->registerKey("lc.concurrency.stream", 0), 0);
    constexpr int kPublishers = 3;
    constexpr int kEvents = 2000;
    constexpr int kChurners = 2;
    constexpr int kRounds = 300;

    OrderCheck check;
    check.next.assign(kPublishers, 0);
    const int32_t id = bus->subscribe("lc.concurrency.stream", orderHandler, &check, 0);
    ASSERT_GE(id, 0);

    std::atomic<int> lateCalls{0};
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int p = 0; p < kPublishers; ++p) {
        threads.emplace_back([&, p] {
            for (int i = 0; i < kEvents; ++i) {
                const Stamp stamp{p, i};
                if (bus->publish("lc.concurrency.stream", &stamp, sizeof stamp) != 0) failures.fetch_add(1);
            }
        });
    }
    for (int c = 0; c < kChurners; ++c) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                auto* fleeting = new Fleeting{};
                fleeting->lateCalls = &lateCalls;
                const int32_t mine = bus->subscribe("lc.concurrency.stream", fleetingHandler, fleeting, 0);
                if (mine < 0) failures.fetch_add(1);
                if (bus->unsubscribe(mine) != 0) failures.fetch_add(1);
                fleeting->closed.store(true);
                delete fleeting;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    flushBus();
    EXPECT_EQ(bus->unsubscribe(id), 0);

    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(lateCalls.load(), 0);
    EXPECT_EQ(check.received.load(), kPublishers * kEvents);
    EXPECT_EQ(check.outOfOrder.load(), 0);
}

// Handlers unsubscribe themselves while other threads unsubscribe the same
// ids: each id is removed exactly once.
TEST(ListenerCenterConcurrencyTest, EachSubscriptionIsRemovedOnceWhoeverRemovesIt) {
    IEventBus* bus = defaultEventBus();
    ASSERT_EQ(bus->registerKey("lc.concurrency.race", 0), 0);
    constexpr int kSubscriptions = 400;
    struct Slot {
        std::atomic<int32_t> id{-1};
        std::atomic<int>* removed;
    };
    std::atomic<int> removed{0};
    std::vector<Slot> slots(kSubscriptions);
    for (Slot& slot : slots) {
        slot.removed = &removed;
        const int32_t id = bus->subscribe(
            "lc.concurrency.race",
            [](const char*, const void*, void* context) {
                auto* self = static_cast<Slot*>(context);
                if (defaultEventBus()->unsubscribe(self->id.load()) == 0) self->removed->fetch_add(1);
            },
            &slot, 0);
        ASSERT_GE(id, 0);
        slot.id.store(id);
    }
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        for (int i = 0; i < 20; ++i) bus->publish("lc.concurrency.race", nullptr, 0);
    });
    for (int half = 0; half < 2; ++half) {
        threads.emplace_back([&, half] {
            for (int i = half; i < kSubscriptions; i += 2)
                if (bus->unsubscribe(slots[static_cast<size_t>(i)].id.load()) == 0) removed.fetch_add(1);
        });
    }
    for (std::thread& thread : threads) thread.join();
    flushBus();
    EXPECT_EQ(removed.load(), kSubscriptions);
}

TEST(ListenerCenterConcurrencyTest, WorkFromManyThreadsRunsOnePieceAtATime) {
    constexpr int kThreads = 4;
    constexpr int kPieces = 500;
    int64_t counter = 0;  // no lock: every piece runs on the delivery thread
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kPieces; ++i) {
                if (runOnEventThread([&] { ++counter; }) != 0) failures.fetch_add(1);
                if (i % 50 == 0 && defaultEventBus()->post([&] { ++counter; }) != 0) failures.fetch_add(1);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    flushBus();
    int64_t seen = 0;
    ASSERT_EQ(runOnEventThread([&] { seen = counter; }), 0);
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(seen, kThreads * kPieces + kThreads * (kPieces / 50));
}

}  // namespace
}  // namespace ZOR::test
