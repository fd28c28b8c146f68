#include "LcEventBus.h"

#include <cstring>
#include <exception>
#include <future>
#include <system_error>
#include <utility>

#include "Common/ZorInternalComUtility.h"

ZOR_LOG_SOURCE("platform/ListenerCenter/LcEventBus")

namespace ZOR {

namespace {

// The bus whose delivery thread (or whose work after stop) the current
// thread is running; null elsewhere.
thread_local const LcEventBus* tRunningFor = nullptr;

// Sets tRunningFor for the length of a scope.
class RunningFor {
public:
    explicit RunningFor(const LcEventBus* bus) : previous_(tRunningFor) { tRunningFor = bus; }
    ~RunningFor() { tRunningFor = previous_; }
    RunningFor(const RunningFor&) = delete;
    RunningFor& operator=(const RunningFor&) = delete;

private:
    const LcEventBus* previous_;
};

}  // namespace

LcEventBus::~LcEventBus() { stop(); }

int32_t LcEventBus::registerKey(const char* key, int32_t /*flag*/) {
    if (key == nullptr) return kResultFailure;
    std::lock_guard<std::mutex> lock(lock_);
    keys_.emplace(key);
    return kLcOk;
}

int32_t LcEventBus::subscribe(const char* key, EventHandler handler, void* context, int32_t /*flag*/) {
    if (key == nullptr || handler == nullptr) return -1;
    std::lock_guard<std::mutex> lock(lock_);
    if (keys_.find(std::string_view(key)) == keys_.end()) return -1;
    if (nextId_ == INT32_MAX) return -1;  // every id has been given out
    const int32_t id = nextId_++;
    subscriptions_.emplace(id, Subscription{key, handler, context});
    ids_[key].push_back(id);
    return id;
}

int32_t LcEventBus::unsubscribe(int32_t id) {
    std::unique_lock<std::mutex> lock(lock_);
    auto found = subscriptions_.find(id);
    if (found == subscriptions_.end()) return kResultFailure;
    auto ids = ids_.find(found->second.key);
    if (ids != ids_.end()) {
        std::erase(ids->second, id);
        if (ids->second.empty()) ids_.erase(ids);
    }
    subscriptions_.erase(found);
    // The delivery thread never waits for itself: a handler that unsubscribes
    // (itself or another) only removes the subscription.
    if (tRunningFor == this) return kLcOk;
    idle_.wait(lock, [&] { return running_ != id; });
    return kLcOk;
}

int32_t LcEventBus::publish(const char* key, const void* data, int32_t size) {
    if (key == nullptr || size < 0 || (size > 0 && data == nullptr)) return kResultFailure;
    Item item;
    item.key = key;
    if (size > 0) {
        const auto* bytes = static_cast<const unsigned char*>(data);
        item.data.assign(bytes, bytes + size);
    }
    std::lock_guard<std::mutex> lock(lock_);
    if (keys_.find(item.key) == keys_.end()) return kResultFailure;
    return enqueueLocked(std::move(item));
}

int32_t LcEventBus::post(std::function<void()> work) {
    if (!work) return kResultFailure;
    Item item;
    item.isWork = true;
    item.work = std::move(work);
    std::lock_guard<std::mutex> lock(lock_);
    return enqueueLocked(std::move(item));
}

int32_t LcEventBus::enqueueLocked(Item item) {
    if (stopping_) return kLcStopped;
    if (!thread_.joinable()) {
        try {
            thread_ = std::thread(&LcEventBus::run, this);
        } catch (const std::system_error& error) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::LcEventBus::enqueueLocked", "cannot start the delivery thread: %s",
                    error.what());
            return kLcNoThread;
        }
    }
    queue_.push_back(std::move(item));
    wake_.notify_one();
    return kLcOk;
}

bool LcEventBus::onDeliveryThread() const { return tRunningFor == this; }

int32_t LcEventBus::runAndWait(std::function<void()> work) {
    if (!work) return kResultFailure;
    if (onDeliveryThread()) {
        work();
        return kLcOk;
    }
    // The promise is shared with the posted wrapper, which may outlive this
    // call only if the wait below is left by an exception (it is not).
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    auto wrapper = [done, run = std::move(work)]() mutable {
        try {
            run();
            done->set_value();
        } catch (...) {
            done->set_exception(std::current_exception());
        }
    };
    int32_t queued = kLcStopped;
    {
        std::lock_guard<std::mutex> lock(lock_);
        if (!stopping_) {
            Item item;
            item.isWork = true;
            item.work = std::move(wrapper);
            queued = enqueueLocked(std::move(item));
        }
    }
    if (queued == kLcOk) {
        finished.get();  // throws what the work threw
        return kLcOk;
    }
    if (queued != kLcStopped) return queued;
    // No delivery thread any more: run here, one piece of work at a time, as
    // the delivery thread would have.
    std::lock_guard<std::mutex> serial(afterStop_);
    RunningFor running(this);
    wrapper();
    finished.get();
    return kLcOk;
}

void LcEventBus::run() {
    RunningFor running(this);
    std::unique_lock<std::mutex> lock(lock_);
    for (;;) {
        wake_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
        if (queue_.empty()) break;  // stopping, and everything queued has been delivered
        Item item = std::move(queue_.front());
        queue_.pop_front();
        if (item.isWork) {
            lock.unlock();
            try {
                item.work();
            } catch (const std::exception& error) {
                ZOR_LOG(IBsLogger::Warning, "ZOR::LcEventBus::run", "posted work threw: %s", error.what());
            } catch (...) {
                ZOR_LOG(IBsLogger::Warning, "ZOR::LcEventBus::run", "posted work threw");
            }
            // The work (and what it captured) goes before the lock is taken
            // again: its destructors may call the bus.
            item = Item();
            lock.lock();
        } else {
            deliver(lock, item);
        }
    }
}

void LcEventBus::deliver(std::unique_lock<std::mutex>& lock, const Item& event) {
    // The subscribers when delivery starts, in subscription order; each is
    // looked up again before its call, so one unsubscribed meanwhile is not
    // called.
    auto subscribed = ids_.find(event.key);
    if (subscribed == ids_.end()) return;
    const std::vector<int32_t> ids = subscribed->second;
    const void* data = event.data.empty() ? nullptr : event.data.data();
    for (int32_t id : ids) {
        auto found = subscriptions_.find(id);
        if (found == subscriptions_.end()) continue;
        const EventHandler handler = found->second.handler;
        void* const context = found->second.context;
        running_ = id;
        lock.unlock();
        try {
            handler(event.key.c_str(), data, context);
        } catch (...) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::LcEventBus::deliver", "the handler of subscription %d to '%s' threw", id,
                    event.key.c_str());
        }
        lock.lock();
        running_ = -1;
        idle_.notify_all();
    }
}

void LcEventBus::stop() {
    std::thread thread;
    {
        std::lock_guard<std::mutex> lock(lock_);
        stopping_ = true;
        thread = std::move(thread_);
        wake_.notify_all();
    }
    if (!thread.joinable()) return;
    if (thread.get_id() == std::this_thread::get_id())
        thread.detach();  // the process is exiting from a handler: the thread ends with it
    else
        thread.join();
}

// ---------------------------------------------------------------------------
// The default bus

namespace {

// Stops the default bus's thread when the library's statics are destroyed
// (at exit, or when the library is unloaded): the thread never outlives the
// code it runs.
class StopAtExit {
public:
    explicit StopAtExit(LcEventBus* bus) : bus_(bus) {}
    ~StopAtExit() { bus_->stop(); }
    StopAtExit(const StopAtExit&) = delete;
    StopAtExit& operator=(const StopAtExit&) = delete;

private:
    LcEventBus* bus_;
};

LcEventBus& theBus() {
    // Never destroyed, so the bus answers even from destructors of statics
    // that run after the stop below (it then queues nothing more).
    static LcEventBus* const bus = new LcEventBus();
    static StopAtExit stopAtExit(bus);
    return *bus;
}

}  // namespace

IEventBus* defaultEventBus() { return &theBus(); }

int32_t runOnEventThread(std::function<void()> work) { return theBus().runAndWait(std::move(work)); }

bool onEventThread() { return theBus().onDeliveryThread(); }

}  // namespace ZOR
