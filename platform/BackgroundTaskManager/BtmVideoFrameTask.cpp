// The video frame extraction task.
//
// A request asks for the pictures of one video stream at media times, fitted
// into width x height. Times whose picture the frame store already has are
// skipped (unless the request refreshes); every other picture is decoded,
// written to the store and reported with status 1 and an IBsVideoFrameData.
// A request with nothing to decode reports one status 1 without data. Then
// status 2. One job decodes a request, in ascending order of time; frames
// added to it while it runs (addFrames) are decoded after the ones it has.
#include <algorithm>
#include <cstring>
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

class VideoRequest final : public Request {
public:
    VideoRequest(int64_t token, std::string mediaPath, int32_t streamIndex, int32_t pictureWidth,
                 int32_t pictureHeight, bool refreshStored, const int64_t* times, int32_t count)
        : Request(token),
          path(std::move(mediaPath)),
          stream(streamIndex),
          width(pictureWidth),
          height(pictureHeight),
          refresh(refreshStored),
          pending_(times, times + count) {}

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

    const std::string path;
    const int32_t stream;
    const int32_t width;
    const int32_t height;
    const bool refresh;

private:
    std::mutex lock_;                // leaf
    std::vector<int64_t> pending_;   // guarded by lock_
    bool closed_ = false;            // guarded by lock_
};

// Writes the picture into the store; the path, or "" when it could not.
std::string storePicture(const std::string& folder, const VideoRequest& request, int64_t time,
                         const Picture& picture) {
    if (folder.empty()) return std::string();
    if (!DirUtil::create(Path(folder))) {
        ZOR_LOG(5, "ZOR::VideoFrameExtractTask::store", "cannot create the frame store folder '%s'", folder.c_str());
        return std::string();
    }
    const std::string name = frameStoreFileName(request.stream, request.width, request.height, time, picture.shown);
    const std::string path = PathUtil::join(Path(folder), name).str();
    const int32_t result = dumpPNG(request.width, request.height, picture.rgba.data(), path.c_str(), kPngLevel);
    if (result != 0) {
        ZOR_LOG(5, "ZOR::VideoFrameExtractTask::store", "cannot write '%s' (%d)", path.c_str(), result);
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

void runRequest(TaskCore& core, const std::shared_ptr<VideoRequest>& request) {
    VideoRequest& r = *request;
    const auto stop = [&core, &r] { return core.stopping(r); };
    if (stop()) {
        core.finish(r, 0, BsTaskCancelled);
        return;
    }
    const std::string folder = frameStoreFolder(r.path.c_str());
    VideoSession session(r.path, r.stream, r.width, r.height);
    std::set<int64_t> seen;  // times handled by this request
    int64_t total = 0;
    int64_t done = 0;
    bool reportedData = false;
    for (;;) {
        std::vector<int64_t> batch = r.take();
        if (batch.empty()) break;
        std::sort(batch.begin(), batch.end());
        batch.erase(std::unique(batch.begin(), batch.end()), batch.end());
        std::vector<int64_t> needed;
        std::vector<DmStoredFrame> stored;
        if (!r.refresh) stored = frameStoreScan(folder, r.stream, r.width, r.height);
        for (int64_t time : batch) {
            if (!seen.insert(time).second) continue;
            ++total;
            const auto found = std::lower_bound(stored.begin(), stored.end(), time,
                                                [](const DmStoredFrame& frame, int64_t t) { return frame.time < t; });
            const bool have = found != stored.end() && found->time == time;
            if (have)
                ++done;
            else
                needed.push_back(time);
        }
        for (int64_t time : needed) {
            if (stop()) {
                core.finish(r, static_cast<int32_t>(done * 100 / std::max<int64_t>(1, total)), BsTaskCancelled);
                return;
            }
            Picture picture;
            std::string problem;
            const int result = session.pictureAt(time, stop, &picture, &problem);
            if (result == MediaDecoder::kStopped) {
                core.finish(r, static_cast<int32_t>(done * 100 / std::max<int64_t>(1, total)), BsTaskCancelled);
                return;
            }
            if (result != 0) {
                ZOR_LOG(6, "ZOR::VideoFrameExtractTask::decode", "token:%lld cannot decode %s",
                        static_cast<long long>(r.token()), problem.c_str());
                core.finish(r, static_cast<int32_t>(done * 100 / std::max<int64_t>(1, total)), BsTaskFailed);
                return;
            }
            storePicture(folder, r, time, picture);
            ++done;
            auto* data = new VideoFrameData(time, picture.shown, r.width, r.height, std::move(picture.rgba));
            data->AddRef();
            core.report(r, static_cast<int32_t>(done * 100 / std::max<int64_t>(1, total)), BsTaskProgress,
                        static_cast<IDmBaseObj*>(static_cast<IBsVideoFrameData*>(data)));
            data->Release();
            reportedData = true;
        }
    }
    if (stop()) {
        core.finish(r, 100, BsTaskCancelled);
        return;
    }
    if (!reportedData) core.report(r, 100, BsTaskProgress, nullptr);
    core.finish(r, 100, BsTaskFinished);
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

    int32_t append(IDmBaseObj* clip, const int64_t* times, int32_t count, int64_t* token, int32_t width,
                   int32_t height, uint32_t flags) override {
        if (clip == nullptr || token == nullptr || count < 0 || (count > 0 && times == nullptr)) {
            ZOR_LOG(5, "ZOR::VideoFrameExtractTask::append", "rejected: no clip, token or times");
            return kTaskBadArgument;
        }
        auto* source = static_cast<IDmMediaSource*>(clip->queryInterface("IDmMediaSource"));
        if (source == nullptr) {
            ZOR_LOG(5, "ZOR::VideoFrameExtractTask::append", "rejected: the clip has no media file");
            return kTaskNoMedia;
        }
        if (!frameStoreSizeAllowed(width, height)) {
            ZOR_LOG(5, "ZOR::VideoFrameExtractTask::append", "rejected: '%s': picture size %dx%d", source->mediaPath(),
                    width, height);
            return kTaskUnsupported;
        }
        const int32_t stream = source->resolvedStream(DmTrackVideo);
        if (stream < 0) {
            ZOR_LOG(5, "ZOR::VideoFrameExtractTask::append", "rejected: no video to decode: %s",
                    source->streamProblem(DmTrackVideo));
            return kTaskNoMedia;
        }
        auto request = std::make_shared<VideoRequest>(TaskCore::newToken(), source->mediaPath(), stream, width, height,
                                                      (flags & 1u) != 0, times, count);
        TaskCore* owner = core_.get();
        const int32_t result = core_->add(request, [owner, request] { runRequest(*owner, request); });
        if (result != kTaskOk) {
            ZOR_LOG(5, "ZOR::VideoFrameExtractTask::append", "rejected: the task is shut down");
            return result;
        }
        *token = request->token();
        ZOR_LOG(4, "ZOR::VideoFrameExtractTask::append", "token:%lld '%s' stream %d %d frames %dx%d%s",
                static_cast<long long>(*token), request->path.c_str(), stream, count, width, height,
                request->refresh ? " refresh" : "");
        return kTaskOk;
    }

    int32_t cancel(int64_t token) override { return core_->cancel(token); }

    int32_t addFrames(int64_t token, const int64_t* times, int32_t count) override {
        if (count <= 0 || times == nullptr) return kTaskBadArgument;
        auto request = std::dynamic_pointer_cast<VideoRequest>(core_->find(token));
        if (!request || !request->add(times, count)) return kTaskUnknownToken;
        ZOR_LOG(4, "ZOR::VideoFrameExtractTask::addFrames", "token:%lld %d more frames", static_cast<long long>(token),
                count);
        return kTaskOk;
    }
};

}  // namespace

}  // namespace ZOR::btm

extern "C" ZOR::IBsVideoFrameExtractTask* createVideoFrameExtractTask() {
    return ZOR::zorCreateObject<ZOR::btm::VideoFrameExtractTask, ZOR::IBsVideoFrameExtractTask>();
}
