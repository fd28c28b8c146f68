// The calls a callback heard, kept in order under a lock, for a test to look
// at and to wait for: record() on whichever thread the callback runs,
// snapshot() and the waits on the test's own.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "Timeouts.h"

namespace ZOR::test {

template <class Call>
class CallRecorder {
public:
    void record(Call call) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            calls_.push_back(std::move(call));
        }
        signal_.notify_all();
    }

    std::vector<Call> snapshot() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    size_t size() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_.size();
    }
    bool empty() const { return size() == 0; }
    // The calls so far; the recorder starts again empty.
    std::vector<Call> take() {
        std::lock_guard<std::mutex> lock(mutex_);
        return std::exchange(calls_, {});
    }
    void clear() { (void)take(); }

    // Waits (at most timeout) until predicate holds for the calls so far, a
    // const std::vector<Call>&; whether it did.
    template <class Predicate>
    bool waitFor(Predicate predicate, std::chrono::milliseconds timeout = kGenerous) const {
        std::unique_lock<std::mutex> lock(mutex_);
        return signal_.wait_for(lock, timeout, [&] { return static_cast<bool>(predicate(std::as_const(calls_))); });
    }
    // Waits until at least count calls came.
    bool waitForCount(size_t count, std::chrono::milliseconds timeout = kGenerous) const {
        return waitFor([count](const std::vector<Call>& calls) { return calls.size() >= count; }, timeout);
    }
    // Waits until some call satisfies predicate (a const Call&).
    template <class Predicate>
    bool waitForAny(Predicate predicate, std::chrono::milliseconds timeout = kGenerous) const {
        return static_cast<bool>(waitForFirst(predicate, 0, timeout));
    }
    // The first call from index from on that satisfies predicate, once one
    // came; nothing when none came in time.
    template <class Predicate>
    std::optional<Call> waitForFirst(Predicate predicate, size_t from,
                                     std::chrono::milliseconds timeout = kGenerous) const {
        std::optional<Call> found;
        waitFor(
            [&](const std::vector<Call>& calls) {
                for (size_t i = from; i < calls.size(); ++i)
                    if (predicate(calls[i])) {
                        found = calls[i];
                        return true;
                    }
                return false;
            },
            timeout);
        return found;
    }

private:
    mutable std::mutex mutex_;  // leaf: guards calls_
    mutable std::condition_variable signal_;
    std::vector<Call> calls_;
};

}  // namespace ZOR::test
