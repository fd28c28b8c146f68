// What a test or a benchmark hears from a task of the task service: every
// report, and waits for a request's final one.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <thread>
#include <vector>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "CallRecorder.h"

namespace ZOR::test {

struct TaskReport {
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
    return status == BsTaskFinished || status == BsTaskFailed || status == BsTaskCancelled || status == BsTaskResubmit;
}

// Records every report; waits for a request's final one.
class TaskRecorder : public IZorCallBack {
public:
    int32_t processChanged(IDmBaseObj* task, int32_t progress, int32_t status,
                           const BsTaskProgressInfo* info) override {
        TaskReport report;
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
        reports_.record(std::move(report));
        return 0;
    }

    // Called on the reporting thread before the report is recorded.
    virtual void onReport(const TaskReport& /*report*/) {}

    // The final status of the request, or 0 when none came in time.
    int32_t waitFinal(int64_t token, std::chrono::milliseconds limit = kGenerous) {
        const std::optional<TaskReport> final = reports_.waitForFirst(
            [token](const TaskReport& report) { return report.token == token && isFinal(report.status); }, 0, limit);
        return final ? final->status : 0;
    }

    // Waits until some report satisfies the predicate.
    template <class Predicate>
    bool waitFor(Predicate predicate, std::chrono::milliseconds limit = kGenerous) {
        return reports_.waitForAny(predicate, limit);
    }

    // Waits until at least count reports came.
    bool waitForCount(size_t count, std::chrono::milliseconds limit) { return reports_.waitForCount(count, limit); }

    std::vector<TaskReport> reportsOf(int64_t token) const {
        std::vector<TaskReport> found;
        for (TaskReport& report : reports_.snapshot())
            if (report.token == token) found.push_back(std::move(report));
        return found;
    }
    std::vector<TaskReport> all() const { return reports_.snapshot(); }
    size_t count() const { return reports_.size(); }

private:
    CallRecorder<TaskReport> reports_;
};

}  // namespace ZOR::test
