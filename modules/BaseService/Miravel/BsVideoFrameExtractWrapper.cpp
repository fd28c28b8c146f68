#include "BsVideoFrameExtractWrapper.h"

#include <memory>
#include <new>
#include <optional>

#include "DataModel/DmTime.h"

ZOR_LOG_SOURCE("modules/BaseService/Miravel/BsVideoFrameExtractWrapper")

namespace ZOR {

namespace {

constexpr DmRational kFrameRate{25, 1};

IDmBaseObj* asBase(IDmClip* clip) { return clip != nullptr ? static_cast<IDmBaseObj*>(clip) : nullptr; }

}  // namespace

BsVideoFrameExtractWrapper::BsVideoFrameExtractWrapper() {
    task_.reset(createVideoFrameExtractTask());
    if (task_) {
        task_->addCallBack(this);
        task_->initialize();
    }
}

// Members go in reverse order: the pending requests (and their clips), then
// the task.
BsVideoFrameExtractWrapper::~BsVideoFrameExtractWrapper() = default;

void* BsVideoFrameExtractWrapper::queryInterface(const char* name) {
    return zorQueryInterface(name, "IBsVideoFrameExtractWrapper", static_cast<IBsVideoFrameExtractWrapper*>(this));
}

int32_t BsVideoFrameExtractWrapper::addCallBack(IBsVideoFrameExtractCallback* callback) {
    return BaseCallBack<IBsVideoFrameExtractCallback>::addCallBack(callback);
}

int32_t BsVideoFrameExtractWrapper::removeCallBack(IBsVideoFrameExtractCallback* callback) {
    return BaseCallBack<IBsVideoFrameExtractCallback>::removeCallBack(callback);
}

int32_t BsVideoFrameExtractWrapper::queryVideoFrame(IDmClip* clip, int32_t first, int32_t second, const int64_t* times,
                                                    uint32_t count, uint32_t flags, int64_t* token) {
    addRefClip(clip);  // held for the duration of the call
    std::vector<int64_t> copy;
    if (times != nullptr) copy.assign(times, times + count);
    int64_t newToken = token != nullptr ? *token : -1;
    int32_t result = kResultFailure;
    // Reports that come before the entry is stored are kept, then handled.
    pending_.appendStarting();
    if (task_) {
        if (task_->isStarted() == 0) task_->start();
        result = task_->append(asBase(clip), copy.data(), static_cast<int32_t>(copy.size()), &newToken, first, second,
                               flags);
    }
    if (token != nullptr) *token = newToken;
    const auto early = pending_.storeAppended(newToken, PendingQuery{clip, first, second, std::move(copy)});
    releaseClip(clip);
    replayEarly(early);
    return result;
}

void BsVideoFrameExtractWrapper::replayEarly(const std::vector<BsPendingRequests<PendingQuery>::EarlyReport>& early) {
    for (const auto& report : early) {
        BsTaskProgressInfo info;
        info.token = report.token;
        processChanged(nullptr, report.progress, report.status, &info);
    }
}

int32_t BsVideoFrameExtractWrapper::cancelQueryOfClip(IDmClip* clip) {
    // The entries stay until the task reports them.
    if (task_)
        for (int64_t token : pending_.tokensOf(clip)) task_->cancel(token);
    return 0;
}

int32_t BsVideoFrameExtractWrapper::cancelQuery(int64_t token) {
    if (!task_) return 0;
    if (token == -1) {
        pending_.forEachTokenLocked([this](int64_t pendingToken) { task_->cancel(pendingToken); });
        return 0;
    }
    task_->cancel(token);
    pending_.erase(token);
    return 0;
}

// Unlike the audio wrapper, pause and resume report success whatever the
// task answers.
int32_t BsVideoFrameExtractWrapper::pauseQuery() {
    if (task_) task_->pause();
    return 0;
}

int32_t BsVideoFrameExtractWrapper::resumeQuery() {
    if (task_) task_->resume();
    return 0;
}

void BsVideoFrameExtractWrapper::notify(int64_t token, int32_t status, const int64_t* times, void* frames,
                                        int32_t count) {
    notifyCallBacks([&](IBsVideoFrameExtractCallback* callback) {
        callback->onVideoFrameChanged(token, status, times, frames, count);
    });
}

int32_t BsVideoFrameExtractWrapper::processChanged(IDmBaseObj* /*task*/, int32_t progress, int32_t status,
                                                   const BsTaskProgressInfo* info) {
    const int64_t token = info != nullptr ? info->token : -1;
    if (status != BsTaskProgress)
        ZOR_LOG(IBsLogger::Info, "ZOR::BsVideoFrameExtractWrapper::processChanged", "status %d token:%lld", status,
                static_cast<long long>(token));
    if (status != BsTaskFinished && status != BsTaskFailed && status != BsTaskCancelled && status != BsTaskResubmit)
        return 0;

    bool kept = false;
    // Takes over the entry's reference.
    std::optional<PendingQuery> taken = pending_.takeOrKeep(token, status, progress, &kept);
    if (!taken) {
        if (!kept)
            ZOR_LOG(IBsLogger::Error, "ZOR::BsVideoFrameExtractWrapper::processChanged", "can not find token %lld",
                    static_cast<long long>(token));
        return 0;
    }
    const PendingQuery& query = *taken;

    if (status == BsTaskFailed || status == BsTaskCancelled) {
        notify(token, status, nullptr, nullptr, 0);
    } else if (status == BsTaskResubmit) {
        int64_t newToken = token;
        pending_.appendStarting();
        if (task_)
            task_->append(asBase(query.clip), query.times.data(), static_cast<int32_t>(query.times.size()), &newToken,
                          query.first, query.second, 0);
        const auto early = pending_.storeAppended(newToken, query);
        notify(newToken, BsTaskResubmit, nullptr, nullptr, 0);
        replayEarly(early);
    } else {
        readFinished(token, query);
    }
    releaseClip(query.clip);
    return 0;
}

void BsVideoFrameExtractWrapper::readFinished(int64_t token, const PendingQuery& query) {
    auto* feature = dynamic_cast<IDmVideoFeature*>(query.clip);
    if (feature == nullptr) {
        ZOR_LOG(IBsLogger::Error, "ZOR::BsVideoFrameExtractWrapper::processChanged", "can not find videoFeature %lld",
                pointerValue(query.clip));
        return;
    }
    const size_t count = query.times.size();
    std::unique_ptr<unsigned char[]> frames(new (std::nothrow) unsigned char[count * kFrameSlotBytes + 1]());
    std::unique_ptr<int64_t[]> shown(new (std::nothrow) int64_t[count + 1]());
    if (!frames || !shown) return;
    int32_t filled = 0;
    feature->prepareFrames(query.first, query.second, kFrameRate.num, kFrameRate.den);
    // Callbacks are told whatever the fill gave, even nothing.
    feature->fillFrames(query.times.data(), static_cast<int32_t>(count), frames.get(), shown.get(), &filled);
    notify(token, BsTaskFinished, query.times.data(), frames.get(), static_cast<int32_t>(count));
}

}  // namespace ZOR
