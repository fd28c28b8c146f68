// The video frame extraction task.
//
// A request asks for the pictures of one video stream at media times, fitted
// into width x height. Times whose picture the frame store already has are
// skipped (unless the request refreshes); every other picture is decoded,
// written to the store and reported with status 1 and an IBsVideoFrameData.
// A request with nothing to decode reports one status 1 without data. Then
// status 2.
//
// The times of a batch are sorted and split into runs, one per keyframe the
// decoding starts from (VideoSession::runs). The job of the request queues
// helper jobs, up to one per worker; each job takes the next run (first the
// one whose first picture is nearest its keyframe, then the longest first)
// and decodes it with its own decoder on its own thread, so runs are
// decoded in parallel. Each
// picture is handed to the request's outbox; whichever job finds nobody
// reporting reports what the outbox holds, one report after the other,
// without a lock held. The job that finds the batch done (no run left, none
// being decoded) takes the frames added meanwhile (addFrames) as the next
// batch, or queues the final report, which so comes last.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "BackgroundTaskManager/BackgroundTaskManager.h"
#include "BtmMediaDecoder.h"
#include "BtmTaskControl.h"
#include "BtmTaskCore.h"
#include "BtmVideoPicture.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DmMedia.h"
#include "DataModel/DmMediaInternal.h"
#include "ZorUtils/ZorUtils.h"

ZOR_LOG_SOURCE("platform/BackgroundTaskManager/BtmVideoFrameTask")

namespace ZOR::btm {

namespace {

// PNG compression: quick to write, still small for thumbnails.
constexpr int kPngLevel = 3;

// One decoded picture, the data object of a status-1 report.
class VideoFrameData final : public RefCnt<void>, public virtual IBsVideoFrameData {
public:
    ZOR_IMPLEMENT_REFCNT

    VideoFrameData(int64_t requested, int64_t shown, int32_t width, int32_t height, std::vector<unsigned char> pixels)
        : requested_(requested), shown_(shown), width_(width), height_(height), pixels_(std::move(pixels)) {}

    void* queryInterface(const char* name) override {
        if (name != nullptr && std::strcmp(name, "RefCnt") == 0) return static_cast<RefCnt<void>*>(this);
        return zorQueryInterface(name, "IBsVideoFrameData", static_cast<IBsVideoFrameData*>(this));
    }
    int64_t requestedTime() override { return requested_; }
    int64_t shownTime() override { return shown_; }
    int32_t width() override { return width_; }
    int32_t height() override { return height_; }
    int64_t byteSize() override { return static_cast<int64_t>(pixels_.size()); }
    const unsigned char* bytes() override { return pixels_.data(); }

private:
    const int64_t requested_;
    const int64_t shown_;
    const int32_t width_;
    const int32_t height_;
    const std::vector<unsigned char> pixels_;
};

// Times to decode one after the other from one keyframe.
struct Run {
    std::vector<int64_t> times;
    int64_t cost = 0;  // VideoRun::cost
    int64_t lead = 0;  // VideoRun::lead
};

// A report waiting in a request's outbox.
struct Outgoing {
    enum Kind { Picture, Empty, Final } kind = Picture;
    int32_t percent = 0;
    int32_t status = BsTaskProgress;
    VideoFrameData* data = nullptr;  // Picture: one reference, let go once reported
    bool unstored = false;           // Picture: the store could not keep its file
};

class VideoRequest final : public Request {
public:
    VideoRequest(int64_t token, std::string mediaPath, int32_t streamIndex, int32_t pictureWidth, int32_t pictureHeight,
                 bool refreshStored, const int64_t* times, int32_t count)
        : Request(token),
          path(std::move(mediaPath)),
          stream(streamIndex),
          width(pictureWidth),
          height(pictureHeight),
          refresh(refreshStored),
          pending_(times, times + count) {}

    ~VideoRequest() override {
        for (Outgoing& item : outbox_)
            if (item.data != nullptr) item.data->Release();
    }

    // Adds times; false once the request took its last batch.
    bool add(const int64_t* times, int32_t count) {
        std::lock_guard<std::mutex> guard(lock_);
        if (closed_) return false;
        pending_.insert(pending_.end(), times, times + count);
        return true;
    }
    // The times added since the last call; empty (and closed for good) when
    // there are none.
    std::vector<int64_t> take() {
        std::lock_guard<std::mutex> guard(lock_);
        std::vector<int64_t> batch;
        batch.swap(pending_);
        if (batch.empty()) closed_ = true;
        return batch;
    }

    // What a job does next.
    enum class Step { Decode, TakeBatch, Leave };
    // Under the lock: the next run to decode, the next batch to take (when
    // nothing is left or being decoded), or nothing. Stopping drops the runs
    // left; the last job out then queues the final report.
    Step next(bool stopping, Run* run) {
        std::lock_guard<std::mutex> guard(lock_);
        if (ending_) return Step::Leave;
        if (stopping) runs_.clear();
        if (!runs_.empty()) {
            *run = std::move(runs_.front());
            runs_.pop_front();
            ++busy_;
            return Step::Decode;
        }
        if (busy_ > 0) return Step::Leave;  // the last of those decoding goes on
        ++busy_;
        return Step::TakeBatch;
    }
    // A run decoded (or abandoned), a batch taken.
    void runDone() {
        std::lock_guard<std::mutex> guard(lock_);
        --busy_;
    }
    // Adds a batch: known pictures (stored already) and runs to decode.
    void addBatch(int64_t count, int64_t stored, std::vector<Run> runs) {
        std::lock_guard<std::mutex> guard(lock_);
        total_ += count;
        done_ += stored;
        for (Run& run : runs) runs_.push_back(std::move(run));
        --busy_;
    }
    // Queues the final report (after the empty one when nothing was
    // reported); false when it was queued already.
    bool end(bool stopping) {
        std::lock_guard<std::mutex> guard(lock_);
        if (ending_) return false;
        ending_ = true;
        closed_ = true;
        --busy_;
        Outgoing final;
        final.kind = Outgoing::Final;
        if (failed()) {
            final.status = BsTaskFailed;
            final.percent = percentLocked();
        } else if (stopping) {
            final.status = BsTaskCancelled;
            final.percent = percentLocked();
        } else {
            final.status = BsTaskFinished;
            final.percent = 100;
            if (!reportedData_) {
                Outgoing empty;
                empty.kind = Outgoing::Empty;
                empty.percent = 100;
                outbox_.push_back(empty);
            }
        }
        outbox_.push_back(final);
        return true;
    }
    // Queues a picture (taking over its reference).
    void queue(VideoFrameData* data, bool unstored) {
        std::lock_guard<std::mutex> guard(lock_);
        ++done_;
        reportedData_ = true;
        Outgoing item;
        item.data = data;
        item.unstored = unstored;
        item.percent = percentLocked();
        outbox_.push_back(item);
    }
    // Makes the calling job the reporter when nobody is; then the next item
    // to report, until the outbox is empty (and the job no reporter).
    bool becomeReporter() {
        std::lock_guard<std::mutex> guard(lock_);
        if (reporting_ || outbox_.empty()) return false;
        reporting_ = true;
        return true;
    }
    bool nextToReport(Outgoing* item) {
        std::lock_guard<std::mutex> guard(lock_);
        if (outbox_.empty()) {
            reporting_ = false;
            return false;
        }
        *item = outbox_.front();
        outbox_.pop_front();
        return true;
    }

    void fail() { failed_.store(true, std::memory_order_release); }
    bool failed() const { return failed_.load(std::memory_order_acquire); }

    const std::string path;
    const int32_t stream;
    const int32_t width;
    const int32_t height;
    const bool refresh;
    std::set<int64_t> seen;  // times handled so far; touched by the job taking a batch only

private:
    int32_t percentLocked() const { return static_cast<int32_t>(done_ * 100 / std::max<int64_t>(1, total_)); }

    std::mutex lock_;                  // leaf: nothing is called with it held
    std::vector<int64_t> pending_;     // guarded by lock_
    bool closed_ = false;              // guarded by lock_
    std::deque<Run> runs_;             // guarded by lock_: runs no job took yet, the longest first
    int busy_ = 0;                     // guarded by lock_: jobs decoding a run or taking a batch
    bool ending_ = false;              // guarded by lock_: the final report is queued
    int64_t total_ = 0;                // guarded by lock_: times of the batches taken
    int64_t done_ = 0;                 // guarded by lock_: of those, stored already or queued
    bool reportedData_ = false;        // guarded by lock_
    std::deque<Outgoing> outbox_;      // guarded by lock_
    bool reporting_ = false;           // guarded by lock_: a job is reporting the outbox
    std::atomic<bool> failed_{false};  // a job could not decode: the others stop
};

// Writes the picture into the store; the path, or "" when it could not.
std::string storePicture(const std::string& folder, const VideoRequest& request, int64_t time, const Picture& picture) {
    if (folder.empty()) return std::string();
    // The cause of a failure stays with ZorUtils (lastWriteFailure) for the
    // caller that finds the picture missing.
    if (const int32_t error = createFolder(Path(folder)); error != 0) {
        ZOR_LOG(IBsLogger::Warning, "ZOR::VideoFrameExtractTask::store",
                "cannot create the frame store folder '%s': %s", folder.c_str(), writeErrorText(error).c_str());
        return std::string();
    }
    const std::string name = frameStoreFileName(request.stream, request.width, request.height, time, picture.shown);
    const std::string path = PathUtil::join(Path(folder), name).str();
    const int32_t result = dumpPNG(request.width, request.height, picture.rgba.data(), path.c_str(), kPngLevel);
    if (result != 0) {
        const int32_t error = lastWriteFailure(Path(folder), nullptr);
        ZOR_LOG(IBsLogger::Warning, "ZOR::VideoFrameExtractTask::store", "cannot write '%s' (%d): %s", path.c_str(),
                result, error != 0 ? writeErrorText(error).c_str() : "unknown cause");
        return std::string();
    }
    // A refreshed picture may show another frame than the file it replaces.
    const std::string prefix = name.substr(0, name.rfind("-p") + 2);
    std::error_code ec;
    for (auto it = std::filesystem::directory_iterator(folder, ec); !ec && it != std::filesystem::directory_iterator();
         it.increment(ec)) {
        const std::string other = it->path().filename().string();
        if (other != name && other.compare(0, prefix.size(), prefix) == 0 && other.size() > 4 &&
            other.compare(other.size() - 4, 4, ".png") == 0) {
            std::error_code removeEc;
            std::filesystem::remove(it->path(), removeEc);
        }
    }
    return path;
}

// Reports what the outbox holds when no other job is reporting it. Pictures
// that come after a cancel are dropped (they are in the store).
void reportQueued(TaskCore& core, VideoRequest& r) {
    if (!r.becomeReporter()) return;
    Outgoing item;
    while (r.nextToReport(&item)) {
        switch (item.kind) {
            case Outgoing::Picture:
                if (!core.stopping(r) && !r.failed()) {
                    // The report is this picture's only one: one the store
                    // could not keep is delivered from the report's data.
                    if (item.unstored)
                        setUnstoredFrameInReport(frameStoreFolder(r.path.c_str()).c_str(), item.data->requestedTime(),
                                                 r.width, r.height);
                    core.report(r, item.percent, BsTaskProgress,
                                static_cast<IDmBaseObj*>(static_cast<IBsVideoFrameData*>(item.data)));
                    if (item.unstored) setUnstoredFrameInReport(nullptr, 0, 0, 0);
                }
                item.data->Release();
                break;
            case Outgoing::Empty:
                core.report(r, item.percent, BsTaskProgress, nullptr);
                break;
            case Outgoing::Final:
                core.finish(r, item.percent, item.status);
                break;
        }
    }
}

void runJob(TaskCore& core, const std::shared_ptr<VideoRequest>& request);

// Takes the next batch of times: what the store lacks is split into runs.
// Returns the number of runs.
size_t takeBatch(TaskCore& core, VideoRequest& r, const std::string& folder, VideoSession& session,
                 std::vector<int64_t> batch) {
    std::sort(batch.begin(), batch.end());
    batch.erase(std::unique(batch.begin(), batch.end()), batch.end());
    std::vector<int64_t> needed;
    std::vector<DmStoredFrame> stored;
    if (!r.refresh) stored = frameStoreScan(folder, r.stream, r.width, r.height);
    int64_t count = 0;
    int64_t have = 0;
    for (int64_t time : batch) {
        if (!r.seen.insert(time).second) continue;
        ++count;
        const auto found = std::lower_bound(stored.begin(), stored.end(), time,
                                            [](const DmStoredFrame& frame, int64_t t) { return frame.time < t; });
        if (found != stored.end() && found->time == time)
            ++have;
        else
            needed.push_back(time);
    }
    std::vector<Run> runs;
    if (!needed.empty() && !core.stopping(r)) {
        for (const VideoRun& run : session.runs(needed)) {
            const auto begin = needed.begin() + static_cast<std::ptrdiff_t>(run.first);
            runs.push_back(
                Run{std::vector<int64_t>(begin, begin + static_cast<std::ptrdiff_t>(run.count)), run.cost, run.lead});
        }
        // First the run whose first picture is nearest its keyframe, so that
        // the caller sees a picture soon; then the longest first, so that
        // the last ones to end are short.
        std::stable_sort(runs.begin(), runs.end(), [](const Run& a, const Run& b) { return a.cost > b.cost; });
        const auto quickest =
            std::min_element(runs.begin(), runs.end(), [](const Run& a, const Run& b) { return a.lead < b.lead; });
        std::rotate(runs.begin(), quickest, quickest + 1);
    }
    const size_t made = runs.size();
    r.addBatch(count, have, std::move(runs));
    return made;
}

// One job of a request: decodes runs until none is left; the last job out
// takes the next batch or ends the request.
void runJob(TaskCore& core, const std::shared_ptr<VideoRequest>& request) {
    VideoRequest& r = *request;
    const auto stop = [&core, &r] { return core.stopping(r) || r.failed(); };
    const std::string folder = frameStoreFolder(r.path.c_str());
    VideoSession session(r.path, r.stream, r.width, r.height);
    for (;;) {
        Run run;
        const VideoRequest::Step step = r.next(stop(), &run);
        if (step == VideoRequest::Step::Leave) break;
        if (step == VideoRequest::Step::TakeBatch) {
            std::vector<int64_t> batch = stop() ? std::vector<int64_t>() : r.take();
            if (batch.empty()) {
                if (r.end(core.stopping(r))) reportQueued(core, r);
                break;
            }
            const size_t runs = takeBatch(core, r, folder, session, std::move(batch));
            // Helpers for the other runs, one per worker at most; a helper
            // that finds nothing left leaves at once.
            const size_t helpers = std::min(runs, std::max<size_t>(1, core.workerCount())) - (runs > 0 ? 1 : 0);
            for (size_t i = 0; i < helpers; ++i) {
                TaskCore* owner = &core;
                if (!core.submit(request, [owner, request] { runJob(*owner, request); })) break;
            }
            continue;
        }
        session.plan(run.times);
        for (int64_t time : run.times) {
            if (stop()) break;
            Picture picture;
            std::string problem;
            const int result = session.pictureAt(time, stop, &picture, &problem);
            if (result == VideoSession::kStopped) break;
            if (result != 0) {
                ZOR_LOG(IBsLogger::Error, "ZOR::VideoFrameExtractTask::decode", "token:%lld cannot decode %s",
                        static_cast<long long>(r.token()), problem.c_str());
                noteMediaFailure(r.path.c_str(), DmTrackVideo, problem.c_str());
                r.fail();
                break;
            }
            const bool stored = !storePicture(folder, r, time, picture).empty();
            auto* data = new VideoFrameData(time, picture.shown, r.width, r.height, std::move(picture.rgba));
            data->AddRef();
            r.queue(data, !stored);
            reportQueued(core, r);
        }
        r.runDone();
    }
    const VideoSessionCounts& counts = session.counts();
    if (counts.packets > 0)
        ZOR_LOG(IBsLogger::Debug, "ZOR::VideoFrameExtractTask::decode",
                "token:%lld '%s': %lld seeks, %lld packets (%lld skippable), %lld frames, %lld decoded again",
                static_cast<long long>(r.token()), r.path.c_str(), static_cast<long long>(counts.seeks),
                static_cast<long long>(counts.packets), static_cast<long long>(counts.discarded),
                static_cast<long long>(counts.frames), static_cast<long long>(counts.redone));
    // A job that leaves while another is reporting: that one reports what
    // this one queued; nothing is left behind when both looked.
    reportQueued(core, r);
}

class VideoFrameExtractTask final : public RefCnt<void>, public TaskControl, public virtual IBsVideoFrameExtractTask {
public:
    ZOR_IMPLEMENT_REFCNT

    VideoFrameExtractTask() {
        core_ = std::make_shared<TaskCore>(static_cast<IDmBaseObj*>(static_cast<IBsVideoFrameExtractTask*>(this)),
                                           "VideoFrameExtractTask");
    }
    ~VideoFrameExtractTask() override { core_->shutdown(); }

    void* queryInterface(const char* name) override {
        if (name == nullptr) return nullptr;
        if (std::strcmp(name, "IBsVideoFrameExtractTask") == 0) return static_cast<IBsVideoFrameExtractTask*>(this);
        if (std::strcmp(name, "IBsTaskControl") == 0) return static_cast<IBsTaskControl*>(this);
        if (std::strcmp(name, "IDmBaseObj") == 0)
            return static_cast<IDmBaseObj*>(static_cast<IBsVideoFrameExtractTask*>(this));
        if (std::strcmp(name, "RefCnt") == 0) return static_cast<RefCnt<void>*>(this);
        return nullptr;
    }

    int32_t initialize() override { return core_->initialize(); }
    int32_t taskKind() override { return 2; }

    int32_t append(IDmBaseObj* clip, const int64_t* times, int32_t count, int64_t* token, int32_t width, int32_t height,
                   uint32_t flags) override {
        if (clip == nullptr || token == nullptr || count < 0 || (count > 0 && times == nullptr)) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::VideoFrameExtractTask::append", "rejected: no clip, token or times");
            return kTaskBadArgument;
        }
        auto* source = static_cast<IDmMediaSource*>(clip->queryInterface("IDmMediaSource"));
        if (source == nullptr) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::VideoFrameExtractTask::append", "rejected: the clip has no media file");
            return kTaskNoMedia;
        }
        if (!frameStoreSizeAllowed(width, height)) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::VideoFrameExtractTask::append", "rejected: '%s': picture size %dx%d",
                    source->mediaPath(), width, height);
            return kTaskUnsupported;
        }
        const int32_t stream = source->resolvedStream(DmTrackVideo);
        if (stream < 0) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::VideoFrameExtractTask::append", "rejected: no video to decode: %s",
                    source->streamProblem(DmTrackVideo));
            return kTaskNoMedia;
        }
        auto request = std::make_shared<VideoRequest>(TaskCore::newToken(), source->mediaPath(), stream, width, height,
                                                      (flags & 1u) != 0, times, count);
        TaskCore* owner = core_.get();
        const int32_t result = core_->add(request, [owner, request] { runJob(*owner, request); });
        if (result != kTaskOk) {
            ZOR_LOG(IBsLogger::Warning, "ZOR::VideoFrameExtractTask::append", "rejected: the task is shut down");
            return result;
        }
        *token = request->token();
        ZOR_LOG(IBsLogger::Info, "ZOR::VideoFrameExtractTask::append", "token:%lld '%s' stream %d %d frames %dx%d%s",
                static_cast<long long>(*token), request->path.c_str(), stream, count, width, height,
                request->refresh ? " refresh" : "");
        return kTaskOk;
    }

    int32_t cancel(int64_t token) override { return core_->cancel(token); }

    int32_t addFrames(int64_t token, const int64_t* times, int32_t count) override {
        if (count <= 0 || times == nullptr) return kTaskBadArgument;
        auto request = std::dynamic_pointer_cast<VideoRequest>(core_->find(token));
        if (!request || !request->add(times, count)) return kTaskUnknownToken;
        ZOR_LOG(IBsLogger::Info, "ZOR::VideoFrameExtractTask::addFrames", "token:%lld %d more frames",
                static_cast<long long>(token), count);
        return kTaskOk;
    }
};

}  // namespace

}  // namespace ZOR::btm

extern "C" ZOR::IBsVideoFrameExtractTask* createVideoFrameExtractTask() {
    return ZOR::zorCreateObject<ZOR::btm::VideoFrameExtractTask, ZOR::IBsVideoFrameExtractTask>();
}
