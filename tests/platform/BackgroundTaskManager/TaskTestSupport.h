// Watching a task's reports in tests.
#pragma once

#include <dirent.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "Timeouts.h"

namespace ZOR::test {


struct Report {
    int64_t token = -1;
    int32_t status = 0;
    int32_t percent = 0;
    int32_t progress = 0;
    IDmBaseObj* task = nullptr;
    bool hasData = false;
    // The data object's contents, for status 1 reports of the video task.
    int64_t requested = 0;
    int64_t shown = 0;
    int32_t width = 0;
    int32_t height = 0;
    std::vector<unsigned char> pixels;
    std::thread::id thread;
};

// 7 (submit again) ends a request too: it moves to a new token.
inline bool isFinal(int32_t status) {
    return status == BsTaskFinished || status == BsTaskFailed || status == BsTaskCancelled ||
           status == BsTaskResubmit;
}

// Records every report; waits for a request's final one.
class Recorder : public IZorCallBack {
public:
    int32_t processChanged(IDmBaseObj* task, int32_t progress, int32_t status,
                           const BsTaskProgressInfo* info) override {
        Report report;
        report.task = task;
        report.progress = progress;
        report.status = status;
        report.thread = std::this_thread::get_id();
        if (info != nullptr) {
            report.token = info->token;
            report.percent = info->percent;
            if (info->data != nullptr) {
                report.hasData = true;
                auto* frame = static_cast<IBsVideoFrameData*>(info->data->queryInterface("IBsVideoFrameData"));
                if (frame != nullptr) {
                    report.requested = frame->requestedTime();
                    report.shown = frame->shownTime();
                    report.width = frame->width();
                    report.height = frame->height();
                    report.pixels.assign(frame->bytes(), frame->bytes() + frame->byteSize());
                }
            }
        }
        onReport(report);
        {
            std::lock_guard<std::mutex> guard(lock_);
            reports_.push_back(std::move(report));
        }
        changed_.notify_all();
        return 0;
    }

    // Called on the reporting thread before the report is recorded.
    virtual void onReport(const Report& /*report*/) {}

    // The final status of the request, or 0 when none came in time.
    int32_t waitFinal(int64_t token, std::chrono::milliseconds limit = kGenerous) {
        std::unique_lock<std::mutex> guard(lock_);
        int32_t status = 0;
        changed_.wait_for(guard, limit, [&] {
            for (const Report& report : reports_)
                if (report.token == token && isFinal(report.status)) {
                    status = report.status;
                    return true;
                }
            return false;
        });
        return status;
    }

    // Waits until some report satisfies the predicate.
    template <class Predicate>
    bool waitFor(Predicate predicate, std::chrono::milliseconds limit = kGenerous) {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, limit, [&] {
            for (const Report& report : reports_)
                if (predicate(report)) return true;
            return false;
        });
    }

    // Waits until at least count reports came.
    bool waitForCount(size_t count, std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, limit, [&] { return reports_.size() >= count; });
    }

    std::vector<Report> reportsOf(int64_t token) const {
        std::lock_guard<std::mutex> guard(lock_);
        std::vector<Report> found;
        for (const Report& report : reports_)
            if (report.token == token) found.push_back(report);
        return found;
    }
    std::vector<Report> all() const {
        std::lock_guard<std::mutex> guard(lock_);
        return reports_;
    }
    size_t count() const {
        std::lock_guard<std::mutex> guard(lock_);
        return reports_.size();
    }

private:
    mutable std::mutex lock_;  // guards reports_
    std::condition_variable changed_;
    std::vector<Report> reports_;
};

// The number of threads of this process.
inline int threadCount() {
    int count = 0;
    if (DIR* dir = ::opendir("/proc/self/task")) {
        while (const dirent* entry = ::readdir(dir))
            if (entry->d_name[0] != '.') ++count;
        ::closedir(dir);
    }
    return count;
}

template <class T>
struct Held {
    T* object = nullptr;
    explicit Held(T* o) : object(o) {}
    ~Held() { reset(); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    void reset() {
        if (object != nullptr) object->Release();
        object = nullptr;
    }
    T* operator->() const { return object; }
    T* get() const { return object; }
};

}  // namespace ZOR::test
