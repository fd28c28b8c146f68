// An owning reference to an extraction task: released through the task's
// IDmBaseObj when the holder goes.
#pragma once

#include <utility>

#include "DataModel/IDmBaseObj.h"

namespace ZOR {

template <class Task>
class BsTaskReference {
public:
    BsTaskReference() = default;
    explicit BsTaskReference(Task* adopted) : task_(adopted) {}
    BsTaskReference(const BsTaskReference&) = delete;
    BsTaskReference& operator=(const BsTaskReference&) = delete;
    ~BsTaskReference() { reset(nullptr); }

    // Takes over adopted (one reference) and releases the task held before.
    void reset(Task* adopted) {
        Task* old = std::exchange(task_, adopted);
        if (old != nullptr) static_cast<IDmBaseObj*>(old)->Release();
    }
    Task* get() const { return task_; }
    Task* operator->() const { return task_; }
    explicit operator bool() const { return task_ != nullptr; }

private:
    Task* task_ = nullptr;
};

}  // namespace ZOR
