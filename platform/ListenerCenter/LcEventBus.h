// The event bus behind defaultEventBus(): registered keys, subscriptions and
// one delivery thread that runs handlers and posted work in queue order.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ListenerCenter/ListenerCenter.h"

namespace ZOR {

// Results of the bus's operations.
constexpr int32_t kLcOk = 0;
constexpr int32_t kLcStopped = 1002;   // the bus has stopped: nothing more is delivered
constexpr int32_t kLcNoThread = 1003;  // the delivery thread could not be started

// The delivery thread starts with the first event or work queued and runs
// until stop(), which delivers what is queued, then joins it. After stop()
// the bus still answers every call (subscriptions and keys keep working),
// but queues nothing more; runAndWait() then runs work on its caller.
class LcEventBus final : public IEventBus {
public:
    LcEventBus() = default;
    ~LcEventBus();
    LcEventBus(const LcEventBus&) = delete;
    LcEventBus& operator=(const LcEventBus&) = delete;

    // flag is not used (0).
    int32_t subscribe(const char* key, EventHandler handler, void* context, int32_t flag) override;
    int32_t registerKey(const char* key, int32_t flag) override;
    // On the delivery thread (inside a handler or posted work) it only
    // removes the subscription; elsewhere it also waits until the handler is
    // not running.
    int32_t unsubscribe(int32_t id) override;
    // 1001 for a null key, a key that is not registered, or size < 0 (or data
    // null with size > 0); 1002 once stopped. Handlers get a copy of the data,
    // aligned for any type, or null when size is 0.
    int32_t publish(const char* key, const void* data, int32_t size) override;
    int32_t post(std::function<void()> work) override;

    // See runOnEventThread() in ListenerCenter.h.
    int32_t runAndWait(std::function<void()> work);
    // Whether the caller is this bus's delivery thread (or runs work handed
    // over by runAndWait() once the bus has stopped).
    bool onDeliveryThread() const;
    // Delivers what is queued, stops the delivery thread and joins it (from
    // the delivery thread itself, it lets the thread go instead). Idempotent.
    void stop();

private:
    struct Subscription {
        std::string key;
        EventHandler handler = nullptr;
        void* context = nullptr;
    };
    struct Item {
        bool isWork = false;
        std::string key;                  // an event's key
        std::vector<unsigned char> data;  // an event's data
        std::function<void()> work;       // posted work
    };

    // Queues item, starting the thread when needed; lock_ held.
    int32_t enqueueLocked(Item item);
    void run();
    void deliver(std::unique_lock<std::mutex>& lock, const Item& event);

    // Lock order: lock_ is a leaf. Nothing else is locked while it is held,
    // and it is never held while a handler or work runs, nor while joining.
    mutable std::mutex lock_;
    std::condition_variable wake_;                                  // with lock_: queue_ or stopping_ changed
    std::condition_variable idle_;                                  // with lock_: running_ changed
    std::set<std::string, std::less<>> keys_;                       // guarded by lock_
    std::map<int32_t, Subscription> subscriptions_;                 // guarded by lock_, by id
    std::map<std::string, std::vector<int32_t>, std::less<>> ids_;  // guarded by lock_: ids of each key, in order
    std::deque<Item> queue_;                                        // guarded by lock_
    int32_t nextId_ = 1;                                            // guarded by lock_
    int32_t running_ = -1;   // guarded by lock_: the id whose handler runs now, -1 for none
    bool stopping_ = false;  // guarded by lock_
    std::thread thread_;     // guarded by lock_; joined by stop()

    // Lock order: taken before lock_ (and before anything the work locks);
    // serialises runAndWait() work once the bus has stopped.
    std::mutex afterStop_;
};

}  // namespace ZOR
