#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>

#include "AllocationWatch.h"
#include "Common/ZorInternalComUtility.h"
#include "TestObjects.h"

namespace ZOR::test {
namespace {

// Records how many objects were already destroyed when it is told of a release.
class RecordingNotifier final : public IDmReleaseNotifier {
public:
    explicit RecordingNotifier(std::atomic<int>* destroyed) : destroyed_(destroyed) {}
    void onObjectReleasing() override {
        ++calls;
        destroyedWhenCalled = destroyed_->load();
    }
    int calls = 0;
    int destroyedWhenCalled = -1;

private:
    std::atomic<int>* destroyed_;
};

// An object that does not answer "RefCnt".
class Unqueryable final : public RefCnt<void>, public virtual ITestThing {
public:
    ZOR_IMPLEMENT_REFCNT
    void* queryInterface(const char*) override { return nullptr; }
    int32_t value() override { return 0; }
};

TEST(RefCnt, FactoryResultReportsCountOneAndOneReleaseDestroysIt) {
    const int before = FactoryThing::destructions().load();
    ITestThing* thing = zorCreateObject<FactoryThing, ITestThing>();
    EXPECT_EQ(thing->refCount(), 1);
    EXPECT_EQ(thing->value(), 9);
    EXPECT_EQ(thing->Release(), 0);
    EXPECT_EQ(FactoryThing::destructions().load(), before + 1);
}

TEST(RefCnt, CountsUpAndDownAndLastReleaseDestroys) {
    std::atomic<int> destroyed{0};
    auto* thing = new TestThing(&destroyed);
    EXPECT_EQ(thing->refCount(), -1);  // never referenced yet
    EXPECT_EQ(thing->AddRef(), 1);
    EXPECT_EQ(thing->AddRef(), 2);
    EXPECT_EQ(thing->AddRef(), 3);
    EXPECT_EQ(thing->refCount(), 3);
    EXPECT_EQ(thing->Release(), 2);
    EXPECT_EQ(thing->Release(), 1);
    EXPECT_EQ(destroyed.load(), 0);
    EXPECT_EQ(thing->Release(), 0);
    EXPECT_EQ(destroyed.load(), 1);
}

TEST(RefCnt, ReleaseOfNeverAddRefedObjectReturnsZeroAndDestroysIt) {
    std::atomic<int> destroyed{0};
    auto* thing = new TestThing(&destroyed);
    RefCntBlock* block = thing->counterBlock();
    watchFrees(block);
    EXPECT_EQ(thing->Release(), 0);
    EXPECT_EQ(destroyed.load(), 1);
    // Nothing watches the block of a never-counted object, so it goes with it.
    EXPECT_EQ(watchedFrees(), 1);
    watchFrees(nullptr);
}

TEST(RefCnt, AddRefAfterLastReleaseThroughWeakHolderReturnsZero) {
    std::atomic<int> destroyed{0};
    auto* thing = new WatchableThing(&destroyed);
    thing->AddRef();
    RefCntWeakHolder<ITestThing> holder(thing);
    EXPECT_EQ(thing->Release(), 0);
    EXPECT_EQ(destroyed.load(), 1);
    EXPECT_TRUE(holder.expired());
    EXPECT_EQ(holder.tryAddRef(), 0);
    EXPECT_EQ(holder.tryAddRef(), 0);  // never revived
    EXPECT_EQ(holder.lock(), nullptr);
    EXPECT_EQ(holder.counterBlock()->strong.load(), 0);
}

TEST(RefCnt, WeakHolderTakesReferenceWhileAlive) {
    std::atomic<int> destroyed{0};
    auto* thing = new WatchableThing(&destroyed);
    thing->AddRef();
    RefCntWeakHolder<ITestThing> holder(thing);
    EXPECT_FALSE(holder.expired());
    EXPECT_EQ(holder.counterBlock()->weak.load(), 2);  // the object's own and the holder's
    ITestThing* locked = holder.lock();
    ASSERT_EQ(locked, thing);
    EXPECT_EQ(thing->refCount(), 2);
    EXPECT_EQ(locked->Release(), 1);
    EXPECT_EQ(thing->Release(), 0);
    EXPECT_EQ(destroyed.load(), 1);
}

TEST(RefCnt, QueryInterfaceOwnNameAndBaseNameGiveSamePointerOthersNull) {
    ITestThing* thing = zorCreateObject<FactoryThing, ITestThing>();
    void* own = thing->queryInterface("ITestThing");
    void* base = thing->queryInterface("IDmBaseObj");
    EXPECT_EQ(own, static_cast<void*>(thing));
    EXPECT_EQ(own, base);
    EXPECT_EQ(thing->queryInterface("RefCnt"), nullptr);
    EXPECT_EQ(thing->queryInterface("IDmClip"), nullptr);
    EXPECT_EQ(thing->queryInterface(""), nullptr);
    EXPECT_EQ(thing->queryInterface(nullptr), nullptr);
    EXPECT_EQ(thing->refCount(), 1);  // no query touched the count
    thing->Release();
}

TEST(RefCnt, WeakAcquisitionOfDeadObjectThrowsMustBeAddRef) {
    std::atomic<int> destroyed{0};
    // Strong count 0: the object died but is still in memory while its
    // release notifier runs; that is the one moment a caller can reach it.
    auto* thing = new WatchableThing(&destroyed);
    thing->AddRef();
    struct TryAcquire final : IDmReleaseNotifier {
        WatchableThing* target = nullptr;
        std::string message;
        void onObjectReleasing() override {
            try {
                RefCntWeakHolder<ITestThing> holder(target);
            } catch (const std::runtime_error& error) {
                message = error.what();
            }
        }
    } probe;
    probe.target = thing;
    thing->setReleaseNotifier(&probe);
    EXPECT_EQ(thing->Release(), 0);
    EXPECT_EQ(probe.message, "obj must be AddRef.");
}

TEST(RefCnt, WeakAcquisitionOfNeverReferencedObjectThrowsMustBeAddRef) {
    std::atomic<int> destroyed{0};
    auto* thing = new WatchableThing(&destroyed);  // strong count -1
    try {
        RefCntWeakHolder<ITestThing> holder(thing);
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "obj must be AddRef.");
    }
    EXPECT_EQ(thing->counterBlock()->weak.load(), 1);  // no weak count taken
    thing->Release();
}

TEST(RefCnt, WeakAcquisitionOfObjectAnsweringNullToRefCntThrowsMustImplementQuery) {
    auto* thing = new Unqueryable();
    thing->AddRef();
    try {
        RefCntWeakHolder<ITestThing> holder(thing);
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "obj must implement the Query interface.");
    }
    EXPECT_EQ(thing->Release(), 0);
}

TEST(RefCnt, CounterBlockFreedOnlyAfterLastWeakHolderReleases) {
    std::atomic<int> destroyed{0};
    auto* thing = new WatchableThing(&destroyed);
    thing->AddRef();
    RefCntBlock* block = thing->counterBlock();
    watchFrees(block);
    auto first = std::make_unique<RefCntWeakHolder<ITestThing>>(thing);
    auto second = std::make_unique<RefCntWeakHolder<ITestThing>>(*first);  // copy: one more weak
    EXPECT_EQ(block->weak.load(), 3);

    EXPECT_EQ(thing->Release(), 0);
    EXPECT_EQ(destroyed.load(), 1);
    EXPECT_EQ(watchedFrees(), 0);  // the object is gone, its block is not
    EXPECT_EQ(block->weak.load(), 2);
    EXPECT_EQ(block->strong.load(), 0);

    first.reset();
    EXPECT_EQ(watchedFrees(), 0);
    EXPECT_EQ(second->counterBlock()->weak.load(), 1);
    second.reset();
    EXPECT_EQ(watchedFrees(), 1);
    watchFrees(nullptr);
}

TEST(RefCnt, BlockFreedWithObjectWhenNoWeakHolderRemains) {
    std::atomic<int> destroyed{0};
    auto* thing = new WatchableThing(&destroyed);
    thing->AddRef();
    watchFrees(thing->counterBlock());
    { RefCntWeakHolder<ITestThing> holder(thing); }
    EXPECT_EQ(watchedFrees(), 0);
    EXPECT_EQ(thing->Release(), 0);
    EXPECT_EQ(watchedFrees(), 1);
    watchFrees(nullptr);
}

TEST(RefCnt, ReleaseNotifierIsCalledBeforeTeardownAndSwappedAtomically) {
    std::atomic<int> destroyed{0};
    auto* thing = new TestThing(&destroyed);
    thing->AddRef();
    RecordingNotifier first(&destroyed);
    RecordingNotifier second(&destroyed);
    EXPECT_EQ(thing->releaseNotifier(), nullptr);
    EXPECT_EQ(thing->setReleaseNotifier(&first), nullptr);
    EXPECT_EQ(thing->setReleaseNotifier(&second), &first);
    EXPECT_EQ(thing->releaseNotifier(), &second);
    EXPECT_EQ(thing->Release(), 0);
    EXPECT_EQ(first.calls, 0);
    EXPECT_EQ(second.calls, 1);
    EXPECT_EQ(second.destroyedWhenCalled, 0);  // called before the destructor ran
    EXPECT_EQ(destroyed.load(), 1);
}

TEST(RefCnt, ObjectReachedThroughVirtualBaseCountsOnItsOneBlock) {
    std::atomic<int> destroyed{0};
    auto* thing = new TestThing(&destroyed);
    IDmBaseObj* asBase = static_cast<ITestThing*>(thing);
    EXPECT_EQ(asBase->AddRef(), 1);
    EXPECT_EQ(static_cast<RefCnt<void>*>(thing)->AddRef(), 2);
    EXPECT_EQ(asBase->refCount(), 2);
    EXPECT_EQ(static_cast<RefCnt<void>*>(thing)->Release(), 1);
    EXPECT_EQ(asBase->Release(), 0);
    EXPECT_EQ(destroyed.load(), 1);
}

}  // namespace
}  // namespace ZOR::test
