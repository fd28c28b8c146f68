#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "AllocationWatch.h"
#include "Common/ZorInternalComUtility.h"
#include "TestObjects.h"

namespace ZOR::test {
namespace {

TEST(ObjectModelConcurrency, EightThreadsMillionPairsThenWeakHoldersRaceLastRelease) {
    constexpr int kThreads = 8;
    constexpr int kPairs = 1'000'000;
    constexpr int kHolders = 4;

    std::atomic<int> destroyed{0};
    auto* thing = new WatchableThing(&destroyed);
    thing->AddRef();
    RefCntBlock* block = thing->counterBlock();

    std::vector<std::unique_ptr<RefCntWeakHolder<ITestThing>>> holders;
    for (int i = 0; i < kHolders; ++i) holders.push_back(std::make_unique<RefCntWeakHolder<ITestThing>>(thing));

    // Phase 1: pairs on eight threads, while one more thread takes and drops
    // references through a weak holder (the object stays alive throughout).
    {
        std::latch start(kThreads + 2);
        std::vector<std::thread> threads;
        std::atomic<bool> pairsDone{false};
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&] {
                start.arrive_and_wait();
                for (int i = 0; i < kPairs; ++i) {
                    thing->AddRef();
                    thing->Release();
                }
            });
        }
        std::atomic<int64_t> locks{0};
        threads.emplace_back([&] {
            start.arrive_and_wait();
            while (!pairsDone.load()) {
                if (ITestThing* locked = holders[0]->lock()) {
                    locks.fetch_add(1);
                    locked->Release();
                }
            }
        });
        start.arrive_and_wait();
        for (int t = 0; t < kThreads; ++t) threads[static_cast<size_t>(t)].join();
        pairsDone = true;
        threads.back().join();
        EXPECT_GT(locks.load(), 0);
    }
    EXPECT_EQ(thing->refCount(), 1);
    EXPECT_EQ(destroyed.load(), 0);
    EXPECT_EQ(block->weak.load(), kHolders + 1);

    // Phase 2: the last Release races every holder's drop.
    watchFrees(block);
    {
        std::latch go(kHolders + 1);
        std::vector<std::thread> threads;
        for (int h = 0; h < kHolders; ++h) {
            threads.emplace_back([&, h] {
                go.arrive_and_wait();
                holders[static_cast<size_t>(h)].reset();
            });
        }
        threads.emplace_back([&] {
            go.arrive_and_wait();
            thing->Release();
        });
        for (auto& thread : threads) thread.join();
    }
    EXPECT_EQ(destroyed.load(), 1);
    EXPECT_EQ(watchedFrees(), 1);
    watchFrees(nullptr);
}

TEST(ObjectModelConcurrency, LastReleaseRacingWeakHolderDropsDestroysOnceAndFreesBlockOnce) {
    constexpr int kRounds = 300;
    constexpr int kHolders = 3;
    for (int round = 0; round < kRounds; ++round) {
        std::atomic<int> destroyed{0};
        auto* thing = new WatchableThing(&destroyed);
        thing->AddRef();
        thing->AddRef();
        std::vector<std::unique_ptr<RefCntWeakHolder<ITestThing>>> holders;
        for (int i = 0; i < kHolders; ++i) holders.push_back(std::make_unique<RefCntWeakHolder<ITestThing>>(thing));
        watchFrees(thing->counterBlock());
        std::latch go(kHolders + 2);
        std::vector<std::thread> threads;
        for (int h = 0; h < kHolders; ++h)
            threads.emplace_back([&, h] {
                go.arrive_and_wait();
                holders[static_cast<size_t>(h)].reset();
            });
        for (int r = 0; r < 2; ++r)
            threads.emplace_back([&] {
                go.arrive_and_wait();
                thing->Release();
            });
        for (auto& thread : threads) thread.join();
        ASSERT_EQ(destroyed.load(), 1) << "round " << round;
        ASSERT_EQ(watchedFrees(), 1) << "round " << round;
    }
    watchFrees(nullptr);
}

class ICountingCallback {
public:
    virtual void onEvent() = 0;

protected:
    ~ICountingCallback() = default;
};

// Fails the test when it is called while not registered.
class GuardedCallback final : public ICountingCallback {
public:
    void onEvent() override {
        calls.fetch_add(1);
        if (!registered.load()) lateCalls.fetch_add(1);
    }
    std::atomic<bool> registered{false};
    std::atomic<int64_t> calls{0};
    std::atomic<int64_t> lateCalls{0};
};

class NotifyingList final : public BaseCallBack<ICountingCallback> {
public:
    void notify() {
        notifyCallBacks([](ICountingCallback* callback) { callback->onEvent(); });
    }
};

TEST(ObjectModelConcurrency, FourThreadsAddRemoveAndNotifyOnOneCallbackList) {
    constexpr int kIterations = 20'000;
    NotifyingList list;
    GuardedCallback callbacks[2];
    std::latch start(4);
    std::vector<std::thread> threads;
    // Two threads each own one callback and add and remove it over and over.
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            GuardedCallback& mine = callbacks[t];
            start.arrive_and_wait();
            for (int i = 0; i < kIterations; ++i) {
                mine.registered = true;
                list.addCallBack(&mine);
                list.removeCallBack(&mine);
                mine.registered = false;  // removeCallBack returned: no call may follow
            }
        });
    }
    // Two threads notify.
    std::atomic<int64_t> notifications{0};
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            start.arrive_and_wait();
            for (int i = 0; i < kIterations; ++i) {
                list.notify();
                notifications.fetch_add(1);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(notifications.load(), 2 * kIterations);
    for (auto& callback : callbacks) EXPECT_EQ(callback.lateCalls.load(), 0);
    // The list ends empty: a final notification calls nobody.
    const int64_t before = callbacks[0].calls + callbacks[1].calls;
    list.notify();
    EXPECT_EQ(callbacks[0].calls + callbacks[1].calls, before);
}

}  // namespace
}  // namespace ZOR::test
