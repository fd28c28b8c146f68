// Monotonic time for TimeSpan, with a replaceable clock for tests, and sleeping.
#include "ZorUtils/ZorUtils.h"

#include <atomic>
#include <chrono>
#include <limits>
#include <thread>

namespace ZOR {

namespace {

// A replacement clock installed by tests; null means the steady clock.
std::atomic<SteadyClockFn> g_clockOverride{nullptr};

// Marks a TimeSpan point that was never set. A real clock reading never takes
// this value, while 0 is a perfectly good reading of a test clock.
constexpr int64_t kUnset = std::numeric_limits<int64_t>::min();

}  // namespace

int64_t zorSteadyNowNs() {
    if (SteadyClockFn clock = g_clockOverride.load(std::memory_order_acquire)) {
        return clock();
    }
    const auto since = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(since).count();
}

SteadyClockFn setSteadyClockForTesting(SteadyClockFn clock) {
    return g_clockOverride.exchange(clock, std::memory_order_acq_rel);
}

TimeSpan::TimeSpan() : startNs_(kUnset), endNs_(kUnset) {}

TimeSpan::~TimeSpan() = default;

TimeSpan& TimeSpan::start() {
    startNs_ = zorSteadyNowNs();
    return *this;
}

TimeSpan& TimeSpan::end() {
    endNs_ = zorSteadyNowNs();
    return *this;
}

int64_t TimeSpan::timeSpan() const {
    if (startNs_ == kUnset || endNs_ == kUnset) {
        return 0;
    }
    return (endNs_ - startNs_) / 1'000'000;
}

void ZorSleep(int64_t milliseconds) {
    if (milliseconds <= 0) {
        return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

}  // namespace ZOR
