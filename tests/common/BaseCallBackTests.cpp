#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "Common/ZorInternalComUtility.h"

namespace ZOR::test {
namespace {

class ITestCallback {
public:
    virtual void onEvent(int value) = 0;

protected:
    ~ITestCallback() = default;
};

class Recorder final : public ITestCallback {
public:
    Recorder(int id, std::vector<int>* calls) : id_(id), calls_(calls) {}
    void onEvent(int value) override { calls_->push_back(id_ * 100 + value); }

private:
    int id_;
    std::vector<int>* calls_;
};

// Exposes the owner's side of the list.
class TestList final : public BaseCallBack<ITestCallback> {
public:
    void notify(int value) {
        notifyCallBacks([value](ITestCallback* callback) { callback->onEvent(value); });
    }
    template <class Each>
    void notifyEach(Each each) {
        notifyCallBacks(each);
    }
    size_t size() const { return callBackCount(); }
};

TEST(BaseCallBack, AddingSameCallbackTwiceRegistersOnceAndReturnsZeroBothTimes) {
    std::vector<int> calls;
    Recorder a(1, &calls);
    TestList list;
    EXPECT_EQ(list.addCallBack(&a), 0);
    EXPECT_EQ(list.addCallBack(&a), 0);
    EXPECT_EQ(list.size(), 1u);
    list.notify(5);
    EXPECT_EQ(calls, std::vector<int>({105}));
}

TEST(BaseCallBack, RemovingCallbackNeverAddedReturnsZero) {
    std::vector<int> calls;
    Recorder a(1, &calls);
    Recorder b(2, &calls);
    TestList list;
    list.addCallBack(&a);
    EXPECT_EQ(list.removeCallBack(&b), 0);
    EXPECT_EQ(list.size(), 1u);
    EXPECT_EQ(list.removeCallBack(&a), 0);
    EXPECT_EQ(list.removeCallBack(&a), 0);
    EXPECT_EQ(list.size(), 0u);
}

TEST(BaseCallBack, AddingOrRemovingNullReturns1001AndLeavesListUnchanged) {
    std::vector<int> calls;
    Recorder a(1, &calls);
    TestList list;
    list.addCallBack(&a);
    EXPECT_EQ(list.addCallBack(nullptr), 1001);
    EXPECT_EQ(list.removeCallBack(nullptr), 1001);
    EXPECT_EQ(list.size(), 1u);
    list.notify(1);
    EXPECT_EQ(calls, std::vector<int>({101}));
}

TEST(BaseCallBack, NotificationWithEmptyListDoesNothing) {
    std::vector<int> calls;
    Recorder gone(1, &calls);
    TestList list;
    list.addCallBack(&gone);
    list.removeCallBack(&gone);
    int invoked = 0;
    list.notifyEach([&invoked](ITestCallback*) { ++invoked; });
    list.notify(3);
    EXPECT_EQ(list.size(), 0u);
    EXPECT_EQ(invoked, 0);
    EXPECT_TRUE(calls.empty());
}

TEST(BaseCallBack, CallbacksAreCalledInOrderOfFirstAddition) {
    std::vector<int> calls;
    Recorder a(1, &calls), b(2, &calls), c(3, &calls);
    TestList list;
    list.addCallBack(&b);
    list.addCallBack(&a);
    list.addCallBack(&c);
    list.addCallBack(&b);  // already there: keeps its first place
    list.notify(7);
    EXPECT_EQ(calls, std::vector<int>({207, 107, 307}));
    calls.clear();
    list.removeCallBack(&a);
    list.addCallBack(&a);  // re-added after removal: now last
    list.notify(8);
    EXPECT_EQ(calls, std::vector<int>({208, 308, 108}));
}

TEST(BaseCallBack, ThrowingCallbackReleasesTheLock) {
    struct Thrower final : ITestCallback {
        void onEvent(int) override { throw std::runtime_error("callback failed"); }
    } thrower;
    TestList list;
    list.addCallBack(&thrower);
    EXPECT_THROW(list.notify(1), std::runtime_error);
    // The list's mutex was released: the list is usable again.
    EXPECT_EQ(list.removeCallBack(&thrower), 0);
    EXPECT_EQ(list.size(), 0u);
}

}  // namespace
}  // namespace ZOR::test
