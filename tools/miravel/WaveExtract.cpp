#include "WaveExtract.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "Cli.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DmMedia.h"

namespace miravel {
namespace {

// The final report of the one request of an audio wave task, and its percent
// meanwhile. The task serves no other request, so every report is about it
// (the first may come before append() has returned its token).
class TaskEnd final : public ZOR::IZorCallBack {
public:
    int32_t processChanged(ZOR::IDmBaseObj* /*task*/, int32_t /*progress*/, int32_t status,
                           const ZOR::BsTaskProgressInfo* info) override {
        if (info == nullptr) return 0;
        std::lock_guard<std::mutex> lock(mutex_);
        percent_.store(info->percent);
        if (status == ZOR::BsTaskFinished || status == ZOR::BsTaskFailed || status == ZOR::BsTaskCancelled) {
            status_ = status;
            ended_.notify_all();
        }
        return 0;
    }
    int32_t status() {
        std::lock_guard<std::mutex> lock(mutex_);
        return status_;
    }
    void waitUntil(std::chrono::steady_clock::time_point until) {
        std::unique_lock<std::mutex> lock(mutex_);
        ended_.wait_until(lock, until, [this] { return status_ != 0; });
    }
    int32_t percent() const { return percent_.load(); }

private:
    std::mutex mutex_;  // leaf: guards status_
    std::condition_variable ended_;
    int32_t status_ = 0;
    std::atomic<int32_t> percent_{0};
};

}  // namespace

void extractMissingWave(const std::string& media, ZOR::IDmClip* clip, ZOR::IDmAudioWaveStore* store, int32_t first,
                        int32_t last, std::chrono::seconds timeout, const char* progressLabel) {
    if (store->missingRanges(first, last).empty()) return;
    const auto task = ZOR::ZorRef<ZOR::IBsAudioWaveExtractTask>::adopt(createAudioWaveExtractTask());
    if (task.get() == nullptr || task.get()->initialize() != 0)
        throw Failure(media + ": the audio wave task could not be made");
    TaskEnd end;
    task.get()->addCallBack(&end);
    task.get()->start();
    ZOR::BsWaveTaskRecord record;
    record.clip = clip;
    record.beginFrame = first;
    record.endFrame = last;
    int64_t token = -1;
    if (task.get()->append(&record, &token) != 0) {
        task.get()->shutdown();
        throw Failure(media + ": the audio wave request was not accepted");
    }
    std::optional<Progress> shown;
    if (progressLabel != nullptr) shown.emplace(progressLabel);
    Progress* progress = shown ? &*shown : nullptr;
    if (progress != nullptr) progress->update(0.0);
    const auto check = [&] {
        if (progress != nullptr) progress->update(end.percent() / 100.0);
        return end.status() != 0;
    };
    const auto sleep = [&](std::chrono::steady_clock::time_point until) { end.waitUntil(until); };
    Progress quiet("");  // drawn only when shown
    const bool ended = waitWithProgress(std::chrono::steady_clock::now() + timeout,
                                        progress != nullptr ? *progress : quiet, check, sleep);
    task.get()->removeCallBack(&end);
    task.get()->shutdown();
    if (!ended) throw Failure(media + ": no wave values within " + std::to_string(timeout.count()) + " s");
    if (progress != nullptr) {
        progress->update(1.0);
        progress->finish();
    }
    if (end.status() == ZOR::BsTaskFailed) {
        std::string cause;
        if (ZOR::mediaFailure(media.c_str(), ZOR::DmTrackAudio, &cause))
            throw Failure(media + ": the audio could not be decoded: " + cause);
        throw Failure(media + ": the audio could not be decoded (see --log error)");
    }
    if (end.status() == ZOR::BsTaskCancelled) throw Failure(media + ": the audio wave request was cancelled");
}

}  // namespace miravel
