// The worker threads shared by every task of the process.
//
// Tasks hold the pool (std::shared_ptr); it starts its threads when the first
// task is initialised and joins them when the last one lets go of it. Jobs
// run in order of their task's priority, then of submission, and only while
// their task lets them (started and not paused, or their request cancelled).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace ZOR::btm {

class TaskCore;
class Request;

struct Job {
    std::shared_ptr<TaskCore> owner;
    std::shared_ptr<Request> request;
    std::function<void()> run;
};

class WorkerPool {
public:
    // The process's pool, started when there is none.
    static std::shared_ptr<WorkerPool> acquire();

    // Stops and joins the workers. On one of its own workers (the last task
    // let go of the pool from a job) that worker is joined later, by the next
    // acquire() or at exit.
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    void submit(Job job);
    // Drops the queued jobs of a task.
    void removeJobsOf(const TaskCore* owner);
    // Re-examines the queue: a task was started, resumed, or a request cancelled.
    void wake();
    size_t workerCount() const { return threads_.size(); }

    // The task whose job the calling thread is running, or null.
    static const TaskCore* currentJobOwner();

    struct State;

private:
    WorkerPool();

    std::shared_ptr<State> state_;
    std::vector<std::thread> threads_;  // touched by the constructor and destructor only
};

}  // namespace ZOR::btm
