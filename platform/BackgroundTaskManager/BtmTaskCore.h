// What the two extraction tasks share: tokens and requests, the callback list,
// the control state, reports and shutdown. The task objects that clients hold
// are thin faces over a TaskCore; jobs on the worker threads hold the core
// (std::shared_ptr), so a job that outlives its task's face still has its
// core to finish on, and reports nothing more once the task is shut down.
//
// A request appended from inside one of the core's reports (a client that
// resubmits on status 7 from its callback) is registered at once, but its
// first job is queued only when that report has returned: so everything the
// callback does after append() (recording the new token, telling its own
// clients) happens before the new request can report anything.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "BtmCallbackList.h"
#include "BtmWorkerPool.h"

namespace ZOR::btm {

// Results of the control operations.
enum TaskResult : int32_t {
    kTaskOk = 0,
    kTaskBadArgument = kResultFailure,
    kTaskClosed = 1002,        // shut down
    kTaskUnknownToken = 1003,  // no such running request
    kTaskNoMedia = 1004,       // the clip has no media this task can read
    kTaskUnsupported = 1005,   // a rate or size the task does not make
};

// One queued request. Subclasses carry what the decoder needs.
class Request {
public:
    explicit Request(int64_t token) : token_(token) {}
    virtual ~Request() = default;
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    int64_t token() const { return token_; }
    bool cancelled() const { return cancelled_.load(std::memory_order_acquire); }
    void cancel() { cancelled_.store(true, std::memory_order_release); }
    // True for the first caller only: the one that makes the final report.
    bool end() { return !ended_.exchange(true, std::memory_order_acq_rel); }

private:
    const int64_t token_;
    std::atomic<bool> cancelled_{false};
    std::atomic<bool> ended_{false};
};

class TaskCore : public std::enable_shared_from_this<TaskCore> {
public:
    // face: what reports pass as the task (not owned; valid until shutdown()).
    TaskCore(IDmBaseObj* face, const char* name);
    ~TaskCore();
    TaskCore(const TaskCore&) = delete;
    TaskCore& operator=(const TaskCore&) = delete;

    const char* name() const { return name_; }

    // Control.
    int32_t initialize();
    int32_t start();
    int32_t pause();
    int32_t resume();
    int32_t isStarted() const;
    int32_t isPaused() const;
    int32_t setPriority(int32_t priority);
    int32_t priorityValue() const { return priority_.load(std::memory_order_relaxed); }
    int32_t pendingCount();
    int32_t addCallBack(IZorCallBack* callback) { return callbacks_.add(callback); }
    int32_t removeCallBack(IZorCallBack* callback) { return callbacks_.remove(callback); }
    // Cancels every request, drops the queued jobs, waits for the running
    // ones (but the caller's own) and lets go of the workers. No report is
    // made after it returns. Idempotent.
    int32_t shutdown();
    bool closing() const { return closing_.load(std::memory_order_acquire); }
    size_t workerCount();

    // Requests.
    static int64_t newToken();
    // Registers the request and queues its first job (when called inside a
    // report of this core on the same thread: once that report returned);
    // kTaskClosed after shutdown.
    int32_t add(const std::shared_ptr<Request>& request, std::function<void()> job);
    // Queues another job of a registered request; false after shutdown.
    bool submit(const std::shared_ptr<Request>& request, std::function<void()> job);
    std::shared_ptr<Request> find(int64_t token);
    // -1: every request. kTaskUnknownToken when there is no such request.
    int32_t cancel(int64_t token);
    // Whether a request's job should stop: cancelled or shut down.
    bool stopping(const Request& request) const { return request.cancelled() || closing(); }

    // Reports status 1 (or any non-final status).
    void report(const Request& request, int32_t percent, int32_t status, IDmBaseObj* data);
    // The final report of a request (2, 3 or 4), once: later calls do nothing.
    // Unregisters the request before reporting.
    void finish(Request& request, int32_t percent, int32_t status);

    // For the pool.
    bool mayRun(const Request& request) const;
    void jobStarted() { running_.fetch_add(1, std::memory_order_acq_rel); }
    void jobEnded();

private:
    std::shared_ptr<TaskCore> ownerOf() { return shared_from_this(); }

    IDmBaseObj* const face_;
    const char* const name_;
    CallbackList callbacks_;

    std::atomic<bool> started_{false};
    std::atomic<bool> paused_{false};
    std::atomic<bool> closing_{false};
    std::atomic<int32_t> priority_{0};
    std::atomic<int32_t> running_{0};  // jobs of this core being run

    std::mutex lock_;  // order: 1, before WorkerPool::State::lock; never held while reporting
    std::map<int64_t, std::shared_ptr<Request>> requests_;  // guarded by lock_: not yet finished
    std::shared_ptr<WorkerPool> pool_;                      // guarded by lock_

    std::mutex idleLock_;  // leaf: pairs with idle_ for the wait in shutdown()
    std::condition_variable idle_;
};

}  // namespace ZOR::btm
