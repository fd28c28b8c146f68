#include "BsAudioWaveExtractWrapper.h"

#include <limits>
#include <memory>
#include <new>
#include <optional>

#include "BsDataStructure/BsDataStructure.h"
#include "DataModel/DmTime.h"

ZOR_LOG_SOURCE("modules/BaseService/Miravel/BsAudioWaveExtractWrapper")

namespace ZOR {

namespace {

// The wrapper counts frames at 25 per second, whatever the clip's own rate.
constexpr DmRational kWaveRate{25, 1};

}  // namespace

BsAudioWaveExtractWrapper::BsAudioWaveExtractWrapper() {
    task_.reset(createAudioWaveExtractTask());
    if (task_) {
        task_->addCallBack(this);
        task_->initialize();
    }
}

// Members go in reverse order: the pending requests (and their clips), then
// the task.
BsAudioWaveExtractWrapper::~BsAudioWaveExtractWrapper() = default;

void* BsAudioWaveExtractWrapper::queryInterface(const char* name) {
    return zorQueryInterface(name, "IBsAudioWaveExtractWrapper", static_cast<IBsAudioWaveExtractWrapper*>(this));
}

int32_t BsAudioWaveExtractWrapper::addCallBack(IBsAudioWaveExtractCallback* callback) {
    return BaseCallBack<IBsAudioWaveExtractCallback>::addCallBack(callback);
}

int32_t BsAudioWaveExtractWrapper::removeCallBack(IBsAudioWaveExtractCallback* callback) {
    return BaseCallBack<IBsAudioWaveExtractCallback>::removeCallBack(callback);
}

int32_t BsAudioWaveExtractWrapper::queryAudioWave(IDmClip* clip, int64_t begin, int64_t end, int32_t samples,
                                                  uint32_t option, int64_t* token) {
    BsWaveTaskRecord record;
    record.option = option;
    record.clip = clip;
    record.rateNum = kWaveRate.num;
    record.rateDen = kWaveRate.den;
    record.beginFrame = static_cast<int32_t>(frameFromCnsTime(kWaveRate, begin));
    record.endFrame = static_cast<int32_t>(frameFromCnsTime(kWaveRate, end));
    const int64_t frames = int64_t{record.endFrame} - record.beginFrame;
    // Kept beyond the caller's precondition: a non-empty range with fewer
    // than one sample would divide by zero below.
    if (frames > samples && samples < 1) return kResultFailure;
    record.frameStep = frames > samples ? static_cast<int32_t>(frames / samples) : 1;

    addRefClip(clip);  // held for the duration of the call
    ZOR_LOG(IBsLogger::Info, "ZOR::BsAudioWaveExtractWrapper::queryAudioWave",
            "query wav clip id %lld type:%d [%lld %lld] samples:%d", pointerValue(clip),
            clip != nullptr ? clip->clipType() : 0, static_cast<long long>(begin), static_cast<long long>(end),
            samples);

    int64_t newToken = token != nullptr ? *token : -1;
    int32_t result = kResultFailure;
    // Reports that come before the entry is stored are kept, then handled.
    pending_.appendStarting();
    if (task_) {
        if (task_->isStarted() == 0) task_->start();
        result = task_->append(&record, &newToken);
    }
    if (token != nullptr) *token = newToken;
    ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioWaveExtractWrapper::queryAudioWave", "append token:%lld",
            static_cast<long long>(newToken));

    const auto early = pending_.storeAppended(newToken, PendingQuery{clip, begin, end, samples, record});
    releaseClip(clip);
    replayEarly(early);
    return result;
}

void BsAudioWaveExtractWrapper::replayEarly(const std::vector<BsPendingRequests<PendingQuery>::EarlyReport>& early) {
    for (const auto& report : early) {
        BsTaskProgressInfo info;
        info.token = report.token;
        processChanged(nullptr, report.progress, report.status, &info);
    }
}

int32_t BsAudioWaveExtractWrapper::cancelQueryOfClip(IDmClip* clip) {
    // The entries stay until the task reports them.
    if (task_)
        for (int64_t token : pending_.tokensOf(clip)) task_->cancel(token);
    return 0;
}

int32_t BsAudioWaveExtractWrapper::cancelQuery(int64_t token) {
    ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioWaveExtractWrapper::cancelQuery", "cancelQuery token:%lld",
            static_cast<long long>(token));
    if (!task_) return 0;
    if (token == -1) {
        // Every pending request; the entries stay until the task reports them.
        pending_.forEachTokenLocked([this](int64_t pendingToken) { task_->cancel(pendingToken); });
        return 0;
    }
    task_->cancel(token);
    pending_.erase(token);
    return 0;
}

int32_t BsAudioWaveExtractWrapper::pauseQuery() {
    ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioWaveExtractWrapper::pauseQuery", "pauseQuery");
    return task_ ? task_->pause() : kResultFailure;
}

int32_t BsAudioWaveExtractWrapper::resumeQuery() {
    ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioWaveExtractWrapper::resumeQuery", "resumeQuery");
    return task_ ? task_->resume() : kResultFailure;
}

void BsAudioWaveExtractWrapper::notify(int64_t token, int32_t status, const void* data, int32_t count, int32_t span) {
    notifyCallBacks(
        [&](IBsAudioWaveExtractCallback* callback) { callback->onAudioWaveChanged(token, status, data, count, span); });
}

int32_t BsAudioWaveExtractWrapper::processChanged(IDmBaseObj* /*task*/, int32_t progress, int32_t status,
                                                  const BsTaskProgressInfo* info) {
    const int64_t token = info != nullptr ? info->token : -1;
    ZOR_LOG(IBsLogger::Info, "ZOR::BsAudioWaveExtractWrapper::processChanged", "status %d token:%lld", status,
            static_cast<long long>(token));
    if (status != BsTaskFinished && status != BsTaskFailed && status != BsTaskCancelled && status != BsTaskResubmit)
        return 0;

    bool kept = false;
    // Takes over the entry's reference.
    std::optional<PendingQuery> taken = pending_.takeOrKeep(token, status, progress, &kept);
    if (!taken) return 0;
    const PendingQuery& query = *taken;

    if (status == BsTaskFailed || status == BsTaskCancelled) {
        notify(token, status, nullptr, 0, 0);
    } else if (status == BsTaskResubmit) {
        int64_t newToken = token;
        pending_.appendStarting();
        if (task_) task_->append(&query.record, &newToken);
        const auto early = pending_.storeAppended(newToken, query);
        notify(newToken, BsTaskResubmit, nullptr, 0, 0);
        replayEarly(early);
    } else {
        readFinished(token, query);
    }
    releaseClip(query.clip);
    return 0;
}

void BsAudioWaveExtractWrapper::readFinished(int64_t token, const PendingQuery& query) {
    // The cast is tested, though a clip that reaches a finished report is an
    // audio clip: a null clip, accepted at query time, would be dereferenced.
    auto* feature = dynamic_cast<IDmAudioFeature*>(query.clip);
    if (feature == nullptr) return;
    int32_t perFrame = 0;
    if (feature->valueCountPerFrame(&perFrame, kWaveRate.num, kWaveRate.den) != 0) return;

    const ZorRef<IZORLonglongList> frames = ZorRef<IZORLonglongList>::adopt(createZORLonglongList());
    if (!frames) return;
    const BsWaveTaskRecord& record = query.record;
    for (int64_t frame = record.beginFrame; frame < record.endFrame; frame += record.frameStep) frames->append(frame);

    const int64_t count = int64_t{frames->count()} * perFrame;
    // A count beyond what the callback can be told (or allocated) is a failed
    // allocation: nothing is reported.
    std::unique_ptr<float[]> buffer;
    if (count >= 0 && count <= std::numeric_limits<int32_t>::max())
        buffer.reset(new (std::nothrow) float[static_cast<size_t>(count > 0 ? count : 1)]());
    if (buffer && feature->fillValues(frames.get(), kWaveRate.num, kWaveRate.den, buffer.get()) == 0) {
        ZOR_LOG(IBsLogger::Info, "ZOR::BsAudioWaveExtractWrapper::processChanged",
                "finsh wav clip id %lld finish %lld %lld samples:%d", pointerValue(query.clip),
                static_cast<long long>(query.begin), static_cast<long long>(query.end),
                static_cast<int32_t>(query.samples));
        const int64_t span = (int64_t{record.endFrame} - record.beginFrame) * perFrame;
        notify(token, BsTaskFinished, buffer.get(), static_cast<int32_t>(count), static_cast<int32_t>(span));
    }
}

}  // namespace ZOR
