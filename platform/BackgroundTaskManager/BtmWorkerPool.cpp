#include "BtmWorkerPool.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>

#include "BtmTaskCore.h"
#include "Common/ZorInternalComUtility.h"

ZOR_LOG_SOURCE("platform/BackgroundTaskManager/BtmWorkerPool")

namespace ZOR::btm {

namespace {

thread_local const TaskCore* tCurrentOwner = nullptr;

// Workers that ended their own pool, waiting to be joined.
struct Graveyard {
    std::mutex lock;                   // leaf
    std::vector<std::thread> threads;  // guarded by lock

    void bury(std::thread thread) {
        std::lock_guard<std::mutex> guard(lock);
        threads.push_back(std::move(thread));
    }
    // Joins every buried thread except the calling one.
    void joinAll() {
        std::vector<std::thread> taken;
        {
            std::lock_guard<std::mutex> guard(lock);
            const auto self = std::this_thread::get_id();
            for (auto it = threads.begin(); it != threads.end();) {
                if (it->get_id() != self) {
                    taken.push_back(std::move(*it));
                    it = threads.erase(it);
                } else {
                    ++it;
                }
            }
        }
        for (std::thread& thread : taken) thread.join();
    }
    ~Graveyard() { joinAll(); }
};

Graveyard& graveyard() {
    static Graveyard instance;
    return instance;
}

struct PoolRegistry {
    std::mutex lock;                    // leaf
    std::weak_ptr<WorkerPool> current;  // guarded by lock
};

PoolRegistry& poolRegistry() {
    static PoolRegistry* instance = new PoolRegistry;  // never destroyed: tasks may outlive static destruction
    return *instance;
}

}  // namespace

struct WorkerPool::State {
    std::mutex lock;  // order: after TaskCore::lock_; nothing is called with it held but TaskCore's atomics
    std::condition_variable wake;
    std::deque<Job> jobs;  // guarded by lock
    bool stop = false;     // guarded by lock

    // The next job to run: the highest priority among the runnable ones,
    // the oldest of those.
    std::deque<Job>::iterator nextRunnable() {
        auto best = jobs.end();
        int32_t bestPriority = 0;
        for (auto it = jobs.begin(); it != jobs.end(); ++it) {
            if (!it->owner->mayRun(*it->request)) continue;
            const int32_t priority = it->owner->priorityValue();
            if (best == jobs.end() || priority > bestPriority) {
                best = it;
                bestPriority = priority;
            }
        }
        return best;
    }

    static void work(const std::shared_ptr<State>& state) {
        std::unique_lock<std::mutex> guard(state->lock);
        for (;;) {
            auto next = state->jobs.end();
            state->wake.wait(guard, [&] {
                if (state->stop) return true;
                next = state->nextRunnable();
                return next != state->jobs.end();
            });
            if (state->stop) return;
            Job job = std::move(*next);
            state->jobs.erase(next);
            job.owner->jobStarted();
            guard.unlock();

            tCurrentOwner = job.owner.get();
            try {
                job.run();
            } catch (const std::exception& error) {
                ZOR_LOG(IBsLogger::Error, "ZOR::WorkerPool::work", "a job of %s failed: %s", job.owner->name(),
                        error.what());
            } catch (...) {
                ZOR_LOG(IBsLogger::Error, "ZOR::WorkerPool::work", "a job of %s failed", job.owner->name());
            }
            tCurrentOwner = nullptr;
            std::shared_ptr<TaskCore> owner = std::move(job.owner);
            job = Job{};
            owner->jobEnded();
            owner.reset();  // may end the task's core and with it this pool

            guard.lock();
        }
    }
};

std::shared_ptr<WorkerPool> WorkerPool::acquire() {
    graveyard().joinAll();
    PoolRegistry& registry = poolRegistry();
    std::shared_ptr<WorkerPool> pool;
    bool created = false;
    {
        std::lock_guard<std::mutex> guard(registry.lock);
        pool = registry.current.lock();
        if (!pool) {
            pool.reset(new WorkerPool());
            registry.current = pool;
            created = true;
        }
    }
    if (created) ZOR_LOG(IBsLogger::Debug, "ZOR::WorkerPool::acquire", "%zu workers started", pool->workerCount());
    return pool;
}

WorkerPool::WorkerPool() : state_(std::make_shared<State>()) {
    const unsigned count = std::max(2u, std::thread::hardware_concurrency());
    threads_.reserve(count);
    for (unsigned i = 0; i < count; ++i) threads_.emplace_back(&State::work, state_);
}

WorkerPool::~WorkerPool() {
    {
        std::lock_guard<std::mutex> guard(state_->lock);
        state_->stop = true;
    }
    state_->wake.notify_all();
    const auto self = std::this_thread::get_id();
    for (std::thread& thread : threads_) {
        if (thread.get_id() == self)
            graveyard().bury(std::move(thread));
        else
            thread.join();
    }
    ZOR_LOG(IBsLogger::Debug, "ZOR::WorkerPool::~WorkerPool", "workers stopped");
}

void WorkerPool::submit(Job job) {
    {
        std::lock_guard<std::mutex> guard(state_->lock);
        state_->jobs.push_back(std::move(job));
    }
    state_->wake.notify_all();
}

void WorkerPool::removeJobsOf(const TaskCore* owner) {
    std::vector<Job> removed;  // destroyed after the lock is released
    {
        std::lock_guard<std::mutex> guard(state_->lock);
        for (auto it = state_->jobs.begin(); it != state_->jobs.end();) {
            if (it->owner.get() == owner) {
                removed.push_back(std::move(*it));
                it = state_->jobs.erase(it);
            } else {
                ++it;
            }
        }
    }
}

void WorkerPool::wake() {
    {
        // Taking the lock orders the state change before the workers' next look.
        std::lock_guard<std::mutex> guard(state_->lock);
    }
    state_->wake.notify_all();
}

const TaskCore* WorkerPool::currentJobOwner() { return tCurrentOwner; }

}  // namespace ZOR::btm
