#include "BtmTaskCore.h"

#include <vector>

#include "Common/ZorInternalComUtility.h"

ZOR_LOG_SOURCE("platform/BackgroundTaskManager/BtmTaskCore")

namespace ZOR::btm {

namespace {

// The report the calling thread is making, and the first jobs of requests
// appended from inside it.
struct ReportScope {
    const TaskCore* core = nullptr;
    std::vector<Job> deferred;
};
thread_local ReportScope* tReport = nullptr;

}  // namespace

TaskCore::TaskCore(IDmBaseObj* face, const char* name) : face_(face), name_(name) {}

TaskCore::~TaskCore() = default;

int32_t TaskCore::initialize() {
    std::shared_ptr<WorkerPool> acquired;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (closing()) return kTaskClosed;
        if (pool_) return kTaskOk;
    }
    acquired = WorkerPool::acquire();  // may join finished workers: not under lock_
    std::lock_guard<std::mutex> guard(lock_);
    if (closing()) return kTaskClosed;  // the pool goes when acquired does, outside
    if (!pool_) pool_ = std::move(acquired);
    return kTaskOk;
}

int32_t TaskCore::start() {
    if (closing()) return kTaskClosed;
    const int32_t result = initialize();
    if (result != kTaskOk) return result;
    started_.store(true, std::memory_order_release);
    ZOR_LOG(IBsLogger::Trace, "ZOR::TaskCore::start", "%s started", name_);
    std::shared_ptr<WorkerPool> pool;
    {
        std::lock_guard<std::mutex> guard(lock_);
        pool = pool_;
    }
    if (pool) pool->wake();
    return kTaskOk;
}

int32_t TaskCore::pause() {
    if (closing()) return kTaskClosed;
    paused_.store(true, std::memory_order_release);
    ZOR_LOG(IBsLogger::Trace, "ZOR::TaskCore::pause", "%s paused", name_);
    return kTaskOk;
}

int32_t TaskCore::resume() {
    if (closing()) return kTaskClosed;
    paused_.store(false, std::memory_order_release);
    ZOR_LOG(IBsLogger::Trace, "ZOR::TaskCore::resume", "%s resumed", name_);
    std::shared_ptr<WorkerPool> pool;
    {
        std::lock_guard<std::mutex> guard(lock_);
        pool = pool_;
    }
    if (pool) pool->wake();
    return kTaskOk;
}

int32_t TaskCore::isStarted() const { return started_.load(std::memory_order_acquire) && !closing() ? 1 : 0; }

int32_t TaskCore::isPaused() const { return paused_.load(std::memory_order_acquire) ? 1 : 0; }

int32_t TaskCore::setPriority(int32_t priority) {
    priority_.store(priority, std::memory_order_relaxed);
    return kTaskOk;
}

int32_t TaskCore::pendingCount() {
    std::lock_guard<std::mutex> guard(lock_);
    return static_cast<int32_t>(requests_.size());
}

size_t TaskCore::workerCount() {
    std::lock_guard<std::mutex> guard(lock_);
    return pool_ ? pool_->workerCount() : 0;
}

int64_t TaskCore::newToken() {
    static std::atomic<int64_t> next{1};
    return next.fetch_add(1, std::memory_order_relaxed);
}

int32_t TaskCore::add(const std::shared_ptr<Request>& request, std::function<void()> job) {
    if (initialize() != kTaskOk) return kTaskClosed;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (closing() || !pool_) return kTaskClosed;
        requests_.emplace(request->token(), request);
        // A job holds the core; the core is owned by shared_ptr through the face.
        Job queued{ownerOf(), request, std::move(job)};
        if (tReport != nullptr && tReport->core == this)
            tReport->deferred.push_back(std::move(queued));  // queued when the report returns
        else
            pool_->submit(std::move(queued));
    }
    return kTaskOk;
}

bool TaskCore::submit(const std::shared_ptr<Request>& request, std::function<void()> job) {
    std::lock_guard<std::mutex> guard(lock_);
    if (closing() || !pool_) return false;
    pool_->submit(Job{ownerOf(), request, std::move(job)});
    return true;
}

std::shared_ptr<Request> TaskCore::find(int64_t token) {
    std::lock_guard<std::mutex> guard(lock_);
    auto found = requests_.find(token);
    return found != requests_.end() ? found->second : nullptr;
}

int32_t TaskCore::cancel(int64_t token) {
    std::shared_ptr<WorkerPool> pool;
    int cancelled = 0;
    {
        std::lock_guard<std::mutex> guard(lock_);
        for (auto& [key, request] : requests_) {
            if (token == -1 || key == token) {
                request->cancel();
                ++cancelled;
            }
        }
        pool = pool_;
    }
    ZOR_LOG(IBsLogger::Trace, "ZOR::TaskCore::cancel", "%s cancel token:%lld (%d requests)", name_,
            static_cast<long long>(token), cancelled);
    // Cancelled requests run even when the task is paused or not started.
    if (pool && cancelled > 0) pool->wake();
    return cancelled > 0 || token == -1 ? kTaskOk : kTaskUnknownToken;
}

void TaskCore::report(const Request& request, int32_t percent, int32_t status, IDmBaseObj* data) {
    if (closing()) return;
    BsTaskProgressInfo info;
    info.token = request.token();
    info.data = data;
    info.percent = percent;
    ReportScope scope;
    scope.core = this;
    // Restores the outer scope and queues the deferred jobs, also when a
    // callback throws. The core lives on: the reporting job holds it.
    struct Leave {
        TaskCore* core;
        ReportScope* scope;
        ReportScope* outer;
        ~Leave() {
            tReport = outer;
            if (scope->deferred.empty()) return;
            std::vector<Job> dropped;  // after shutdown; destroyed outside the lock
            {
                std::lock_guard<std::mutex> guard(core->lock_);
                if (core->closing() || !core->pool_)
                    dropped.swap(scope->deferred);
                else
                    for (Job& job : scope->deferred) core->pool_->submit(std::move(job));
            }
            scope->deferred.clear();
        }
    } leave{this, &scope, tReport};
    tReport = &scope;
    callbacks_.notify([&](IZorCallBack* callback) {
        // A callback may have shut the task down (or released it).
        if (closing()) return false;
        callback->processChanged(face_, percent, status, &info);
        return true;
    });
}

void TaskCore::finish(Request& request, int32_t percent, int32_t status) {
    if (!request.end()) return;
    {
        std::lock_guard<std::mutex> guard(lock_);
        requests_.erase(request.token());
    }
    ZOR_LOG(IBsLogger::Trace, "ZOR::TaskCore::finish", "%s token:%lld status %d", name_,
            static_cast<long long>(request.token()), status);
    report(request, percent, status, nullptr);
}

bool TaskCore::mayRun(const Request& request) const {
    if (closing()) return false;
    if (request.cancelled()) return true;
    return started_.load(std::memory_order_acquire) && !paused_.load(std::memory_order_acquire);
}

void TaskCore::jobEnded() {
    std::lock_guard<std::mutex> guard(idleLock_);
    running_.fetch_sub(1, std::memory_order_acq_rel);
    idle_.notify_all();
}

int32_t TaskCore::shutdown() {
    std::shared_ptr<WorkerPool> pool;
    std::map<int64_t, std::shared_ptr<Request>> dropped;  // released outside the lock
    {
        std::lock_guard<std::mutex> guard(lock_);
        closing_.store(true, std::memory_order_release);
        for (auto& entry : requests_) entry.second->cancel();
        dropped.swap(requests_);
        pool = pool_;
    }
    if (pool) pool->removeJobsOf(this);
    {
        // The caller's own job (a callback that shuts its task down) cannot
        // be waited for; it reports nothing more.
        const int32_t own = WorkerPool::currentJobOwner() == this ? 1 : 0;
        std::unique_lock<std::mutex> guard(idleLock_);
        idle_.wait(guard, [&] { return running_.load(std::memory_order_acquire) <= own; });
    }
    started_.store(false, std::memory_order_release);
    {
        std::lock_guard<std::mutex> guard(lock_);
        pool_.reset();
    }
    if (!dropped.empty())
        ZOR_LOG(IBsLogger::Trace, "ZOR::TaskCore::shutdown", "%s shut down with %zu requests unfinished", name_,
                dropped.size());
    pool.reset();  // the last task to go stops the workers here
    return kTaskOk;
}

}  // namespace ZOR::btm
