// Waiting helpers for the event bus tests: one-shot signals with generous
// timeouts, and a flush that returns once everything queued before it has
// been delivered.
#pragma once

#include <chrono>
#include <future>
#include <memory>
#include <mutex>

#include <gtest/gtest.h>

#include "ListenerCenter/ListenerCenter.h"
#include "Timeouts.h"

namespace ZOR::test {

// A one-shot signal that may be raised more than once (only the first counts).
class Signal {
public:
    Signal() : future_(promise_.get_future().share()) {}
    void raise() {
        std::call_once(once_, [this] { promise_.set_value(); });
    }
    // True when raised within the generous timeout.
    bool wait() const { return future_.wait_for(kGenerous) == std::future_status::ready; }
    bool raised() const { return future_.wait_for(std::chrono::seconds(0)) == std::future_status::ready; }

private:
    std::once_flag once_;
    std::promise<void> promise_;
    std::shared_future<void> future_;
};

// Returns once the delivery thread has handled everything queued before the
// call (posted work runs in order with events).
inline void flushBus() {
    auto done = std::make_shared<Signal>();
    ASSERT_EQ(defaultEventBus()->post([done] { done->raise(); }), 0);
    ASSERT_TRUE(done->wait()) << "the delivery thread did not get through its queue";
}

}  // namespace ZOR::test
