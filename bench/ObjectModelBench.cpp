// Object model micro-benchmarks, each beside the peer an engineer would
// otherwise reach for:
//   - an AddRef+Release pair through an interface pointer (virtual calls)
//     vs copying and destroying a std::shared_ptr (atomic inc/dec);
//   - notifying a BaseCallBack list of 1 and 10 callbacks vs walking a
//     std::vector<std::function<void()>> under a std::mutex.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "Common/ZorInternalComUtility.h"

namespace {

// ---------------------------------------------------------------------------
// A bench-local class built the way the library's classes are.

class IBenchThing : public ZOR::IDmBaseObj {
public:
    virtual int32_t value() = 0;

protected:
    ~IBenchThing() = default;
};

class BenchThing final : public ZOR::RefCnt<void>, public virtual IBenchThing {
public:
    ZOR_IMPLEMENT_REFCNT

    void* queryInterface(const char* name) override {
        return ZOR::zorQueryInterface(name, "IBenchThing", static_cast<IBenchThing*>(this));
    }
    int32_t value() override { return 7; }
};

struct PeerThing {
    int32_t value = 7;
};

// One AddRef+Release pair per iteration on an object that stays alive (its
// count goes 1 -> 2 -> 1). The interface pointer is passed through
// DoNotOptimize so the compiler cannot see the dynamic type and devirtualise.
void BM_RefCnt_AddRefRelease(benchmark::State& state) {
    IBenchThing* thing = ZOR::zorCreateObject<BenchThing, IBenchThing>();
    benchmark::DoNotOptimize(thing);
    for (auto _ : state) {
        benchmark::DoNotOptimize(thing->AddRef());
        benchmark::DoNotOptimize(thing->Release());
    }
    if (thing->refCount() != 1) state.SkipWithError("reference count drifted");
    thing->Release();
}
BENCHMARK(BM_RefCnt_AddRefRelease);

// Peer: one copy and one destruction of a std::shared_ptr per iteration.
void BM_SharedPtr_CopyDestroy(benchmark::State& state) {
    auto owner = std::make_shared<PeerThing>();
    benchmark::DoNotOptimize(owner);
    for (auto _ : state) {
        std::shared_ptr<PeerThing> copy(owner);
        benchmark::DoNotOptimize(copy);
    }
    if (owner.use_count() != 1) state.SkipWithError("use count drifted");
}
BENCHMARK(BM_SharedPtr_CopyDestroy);

// ---------------------------------------------------------------------------
// Callback lists

class IBenchCallBack {
public:
    virtual void onEvent() = 0;

protected:
    ~IBenchCallBack() = default;
};

class CountingCallBack final : public IBenchCallBack {
public:
    void onEvent() override { ++count; }
    int64_t count = 0;
};

class BenchNotifier : public ZOR::BaseCallBack<IBenchCallBack> {
public:
    void fire() {
        notifyCallBacks([](IBenchCallBack* callback) { callback->onEvent(); });
    }
};

void BM_BaseCallBack_Notify(benchmark::State& state) {
    const auto count = static_cast<size_t>(state.range(0));
    std::vector<CountingCallBack> callbacks(count);
    BenchNotifier notifier;
    for (auto& callback : callbacks) notifier.addCallBack(&callback);
    BenchNotifier* target = &notifier;
    benchmark::DoNotOptimize(target);
    for (auto _ : state) {
        target->fire();
        benchmark::ClobberMemory();
    }
    int64_t calls = 0;
    for (const auto& callback : callbacks) calls += callback.count;
    if (calls != static_cast<int64_t>(state.iterations() * count)) state.SkipWithError("missed callbacks");
    for (auto& callback : callbacks) notifier.removeCallBack(&callback);
}
BENCHMARK(BM_BaseCallBack_Notify)->Arg(1)->Arg(10);

// Peer: a vector of std::function walked under a mutex.
class PeerNotifier {
public:
    void add(std::function<void()> callback) {
        std::lock_guard<std::mutex> lock(mutex_);
        callbacks_.push_back(std::move(callback));
    }
    void fire() {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& callback : callbacks_) callback();
    }

private:
    std::mutex mutex_;
    std::vector<std::function<void()>> callbacks_;
};

void BM_StdFunctionVector_Notify(benchmark::State& state) {
    const auto count = static_cast<size_t>(state.range(0));
    std::vector<int64_t> counters(count, 0);
    PeerNotifier notifier;
    for (auto& counter : counters) notifier.add([&counter] { ++counter; });
    PeerNotifier* target = &notifier;
    benchmark::DoNotOptimize(target);
    for (auto _ : state) {
        target->fire();
        benchmark::ClobberMemory();
    }
    int64_t calls = 0;
    for (const auto counter : counters) calls += counter;
    if (calls != static_cast<int64_t>(state.iterations() * count)) state.SkipWithError("missed callbacks");
}
BENCHMARK(BM_StdFunctionVector_Notify)->Arg(1)->Arg(10);

}  // namespace
