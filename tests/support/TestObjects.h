// Small reference-counted classes built the way the library's classes are.
#pragma once

#include <atomic>

#include "Common/ZorInternalComUtility.h"

namespace ZOR::test {

class ITestThing : public IDmBaseObj {
public:
    virtual int32_t value() = 0;

protected:
    ~ITestThing() = default;
};

// Counts its destructions in *destroyed (when given).
class TestThing final : public RefCnt<void>, public virtual ITestThing {
public:
    ZOR_IMPLEMENT_REFCNT

    TestThing() = default;
    explicit TestThing(std::atomic<int>* destroyed) : destroyed_(destroyed) {}
    ~TestThing() override {
        if (destroyed_ != nullptr) destroyed_->fetch_add(1);
    }

    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "ITestThing", static_cast<ITestThing*>(this));
    }
    int32_t value() override { return 7; }

private:
    std::atomic<int>* destroyed_ = nullptr;
};

// A data-model style object: answers "RefCnt" with its counter, so weak
// holders can watch it.
class WatchableThing final : public RefCnt<void>, public virtual ITestThing {
public:
    ZOR_IMPLEMENT_REFCNT

    explicit WatchableThing(std::atomic<int>* destroyed) : destroyed_(destroyed) {}
    ~WatchableThing() override {
        if (destroyed_ != nullptr) destroyed_->fetch_add(1);
    }

    void* queryInterface(const char* name) override {
        if (name != nullptr && std::strcmp(name, "RefCnt") == 0) return static_cast<RefCnt<void>*>(this);
        return zorQueryInterface(name, "ITestThing", static_cast<ITestThing*>(this));
    }
    int32_t value() override { return 8; }

private:
    std::atomic<int>* destroyed_;
};

}  // namespace ZOR::test

namespace ZOR::test {

// Made by a factory (default constructor); counts destructions in a static.
class FactoryThing final : public RefCnt<void>, public virtual ITestThing {
public:
    ZOR_IMPLEMENT_REFCNT

    static std::atomic<int>& destructions() {
        static std::atomic<int> count{0};
        return count;
    }
    ~FactoryThing() override { destructions().fetch_add(1); }

    void* queryInterface(const char* name) override {
        return zorQueryInterface(name, "ITestThing", static_cast<ITestThing*>(this));
    }
    int32_t value() override { return 9; }
};

}  // namespace ZOR::test
