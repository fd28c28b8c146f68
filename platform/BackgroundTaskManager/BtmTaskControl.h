// The IBsTaskControl operations of both tasks, forwarded to their TaskCore.
#pragma once

#include <memory>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "BtmTaskCore.h"

namespace ZOR::btm {

class TaskControl : public virtual IBsTaskControl {
public:
    const char* taskName() override { return core_->name(); }
    int32_t setPriority(int32_t priority) override { return core_->setPriority(priority); }
    int32_t priority() override { return core_->priorityValue(); }
    int32_t pendingCount() override { return core_->pendingCount(); }
    int32_t isPaused() override { return core_->isPaused(); }
    int32_t addCallBack(IZorCallBack* callback) override { return core_->addCallBack(callback); }
    int32_t removeCallBack(IZorCallBack* callback) override { return core_->removeCallBack(callback); }
    int32_t start() override { return core_->start(); }
    int32_t pause() override { return core_->pause(); }
    int32_t resume() override { return core_->resume(); }
    int32_t shutdown() override { return core_->shutdown(); }
    int32_t isStarted() override { return core_->isStarted(); }

protected:
    TaskControl() = default;
    ~TaskControl() = default;

    std::shared_ptr<TaskCore> core_;  // set by the task's constructor
};

}  // namespace ZOR::btm
