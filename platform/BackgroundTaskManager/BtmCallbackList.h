// The registered IZorCallBack objects of one task.
//
// Unlike BaseCallBack, no lock is held while a callback runs: reports come
// from several worker threads, and a callback may call back into the task.
// removeCallBack() still guarantees that once it returns the callback is not
// being called (except by the removing thread itself, from inside the
// callback) and will not be called again.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "BackgroundTaskManager/BackgroundTaskManager.h"

namespace ZOR::btm {

class CallbackList {
public:
    // 1001 for null; otherwise 0, whether added or already there.
    int32_t add(IZorCallBack* callback) {
        if (callback == nullptr) return kResultFailure;
        std::lock_guard<std::mutex> lock(lock_);
        for (const auto& entry : entries_)
            if (entry->callback == callback) return 0;
        entries_.push_back(std::make_shared<Entry>(callback));
        return 0;
    }

    // 1001 for null; otherwise 0, whether or not it was registered. Waits
    // until calls of the callback on other threads have returned.
    int32_t remove(IZorCallBack* callback) {
        if (callback == nullptr) return kResultFailure;
        std::unique_lock<std::mutex> lock(lock_);
        auto found = std::find_if(entries_.begin(), entries_.end(),
                                  [callback](const auto& entry) { return entry->callback == callback; });
        if (found == entries_.end()) return 0;
        std::shared_ptr<Entry> entry = *found;
        entries_.erase(found);
        entry->removed = true;
        const std::thread::id self = std::this_thread::get_id();
        idle_.wait(lock, [&] {
            return std::all_of(entry->callers.begin(), entry->callers.end(),
                               [self](std::thread::id caller) { return caller == self; });
        });
        return 0;
    }

    // call(IZorCallBack*) for every registered callback, in registration
    // order, without the lock held. call returns false to stop early.
    template <class Call>
    void notify(Call&& call) {
        std::vector<std::shared_ptr<Entry>> snapshot;
        {
            std::lock_guard<std::mutex> lock(lock_);
            snapshot = entries_;
        }
        const std::thread::id self = std::this_thread::get_id();
        for (const auto& entry : snapshot) {
            {
                std::lock_guard<std::mutex> lock(lock_);
                if (entry->removed) continue;
                entry->callers.push_back(self);
            }
            // Leaves the entry even when the callback throws.
            struct Leave {
                CallbackList* list;
                Entry* entry;
                std::thread::id self;
                ~Leave() {
                    {
                        std::lock_guard<std::mutex> lock(list->lock_);
                        auto it = std::find(entry->callers.begin(), entry->callers.end(), self);
                        if (it != entry->callers.end()) entry->callers.erase(it);
                    }
                    list->idle_.notify_all();
                }
            } leave{this, entry.get(), self};
            if (!call(entry->callback)) break;
        }
    }

private:
    struct Entry {
        explicit Entry(IZorCallBack* c) : callback(c) {}
        IZorCallBack* const callback;
        bool removed = false;                  // guarded by CallbackList::lock_
        std::vector<std::thread::id> callers;  // guarded by CallbackList::lock_: threads inside the callback
    };

    std::mutex lock_;               // leaf: never held while a callback runs or while taking another lock
    std::condition_variable idle_;  // a call returned
    std::vector<std::shared_ptr<Entry>> entries_;  // guarded by lock_
};

}  // namespace ZOR::btm
