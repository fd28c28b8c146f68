// ListenerCenter: the process's event bus. Events are delivered on the bus's
// own delivery thread, in the order they were published.
#pragma once

#include <cstdint>
#include <functional>

#include "ZorPlatformExport.h"

namespace ZOR {

// key: the event key; data: the event's data (valid during the call);
// context: what was given at subscription.
//
// Handlers run on the delivery thread, one at a time, with no lock of the
// bus held: a handler may subscribe, unsubscribe, publish or post (what it
// queues is delivered after it returns). One that blocks holds up every
// event, and every data-model edit of the reference host (DmEdit.h). What a
// handler throws is caught and logged.
using EventHandler = void (*)(const char* key, const void* data, void* context);

class IEventBus {
public:
    // Subscribes handler to key; returns an id >= 0, or a negative value when
    // the key is not registered. context is passed to the handler as given
    // (no reference taken): keep it valid until unsubscribe() has returned.
    // Every operation of the bus may be called from any thread.
    virtual int32_t subscribe(const char* key, EventHandler handler, void* context, int32_t flag) = 0;
    // Registers key so that it can be subscribed to; 0 on success.
    virtual int32_t registerKey(const char* key, int32_t flag) = 0;
    // 0 on success; an unknown id gives 1001. When it returns, the handler is
    // not running and will not run again.
    virtual int32_t unsubscribe(int32_t id) = 0;
    // Queues an event for delivery; data is copied (size bytes).
    virtual int32_t publish(const char* key, const void* data, int32_t size) = 0;
    // Runs work on the delivery thread, in order with events.
    virtual int32_t post(std::function<void()> work) = 0;

protected:
    ~IEventBus() = default;
};

ZOR_PLATFORM_API IEventBus* defaultEventBus();

}  // namespace ZOR

namespace ZOR {

// Host side: the default bus's delivery thread as the place where the data
// model is changed, so that changes, their notifications and event delivery
// never run at the same time.
//
// Runs work on the delivery thread and returns once it has run; called on
// that thread (from a handler or from posted work), runs it at once. Returns
// 0 once work has run, 1001 for empty work. What work throws is thrown again
// here. Work must not wait for a thread that is itself waiting here.
//
// Once the bus has stopped (the process is exiting), work runs on the calling
// thread, one piece at a time.
ZOR_PLATFORM_API int32_t runOnEventThread(std::function<void()> work);

// Whether the caller is the default bus's delivery thread (or runs work
// handed over by runOnEventThread once the bus has stopped).
ZOR_PLATFORM_API bool onEventThread();

}  // namespace ZOR
