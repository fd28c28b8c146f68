#include "BsThumbManager.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "DataModel/DataModel.h"
#include "ZorUtils/ZorUtils.h"

ZOR_LOG_SOURCE("modules/BaseService/Miravel/BsThumbManager")

namespace ZOR {

namespace {

constexpr size_t kPathBytes = 1024;
constexpr const char* kCacheFolder = "media_thumbnail";
// Pictures planned ahead with the adapter at each step.
constexpr size_t kReadAheadFrames = 8;

uint64_t boxKey(int32_t width, int32_t height) {
    return (static_cast<uint64_t>(static_cast<uint32_t>(width)) << 32) | static_cast<uint32_t>(height);
}

std::string textOf(const char* buffer, size_t size) { return std::string(buffer, strnlen(buffer, size)); }

}  // namespace

BsThumbManager::BsThumbManager() : adapter_(ZorRef<IThumbAdapter>::adopt(createThumbAdapter())) {}

BsThumbManager::~BsThumbManager() {
    stopWorker();
    {
        std::lock_guard<std::mutex> guard(mutex_);
        callbacks_.clear();
    }
    ZorRef<IDmBaseObj> object;
    {
        std::lock_guard<std::mutex> guard(mediaLock_);
        object = std::move(currentObject_);
    }
    object.reset();
    if (adapter_) {
        if (adapterOpen_.exchange(false)) adapter_->close();
        adapter_.reset();
    }
}

void* BsThumbManager::queryInterface(const char* name) {
    return zorQueryInterface(name, "IBsThumbManager", static_cast<IBsThumbManager*>(this));
}

// ---------------------------------------------------------------------------
// The adapter and its media

int32_t BsThumbManager::setMediaPath(const char* path) {
    ZorRef<IDmBaseObj> released;
    {
        std::lock_guard<std::mutex> guard(mediaLock_);
        currentPath_ = path != nullptr ? path : "";
        released = std::move(currentObject_);
    }
    released.reset();
    return adapter_ ? adapter_->setMediaPath(path) : kResultFailure;
}

int32_t BsThumbManager::setMediaObject(IDmBaseObj* object) {
    ZorRef<IDmBaseObj> released = ZorRef<IDmBaseObj>::share(object);
    {
        std::lock_guard<std::mutex> guard(mediaLock_);
        std::swap(released, currentObject_);
        currentPath_.clear();
    }
    released.reset();
    int64_t handle = 0;
    if (object != nullptr)
        if (auto* internal = static_cast<IDmTimelineInternal*>(object->queryInterface("IDmTimelineInternal")))
            handle = internal->adapterHandle();
    return adapter_ ? adapter_->setMediaObject(handle) : kResultFailure;
}

int32_t BsThumbManager::setThumbSize(int32_t width, int32_t height) {
    std::lock_guard<std::mutex> guard(mutex_);
    thumbWidth_ = width;
    thumbHeight_ = height;
    box_.store(boxKey(width, height));
    return 0;
}

int32_t BsThumbManager::adapterOutputSize(int32_t* width, int32_t* height) {
    return adapter_ ? adapter_->outputSize(width, height) : kResultFailure;
}
int32_t BsThumbManager::setAdapterSeekMode(int32_t mode) {
    return adapter_ ? adapter_->setSeekMode(mode) : kResultFailure;
}
int32_t BsThumbManager::adapterSeekMode(int32_t* mode) { return adapter_ ? adapter_->seekMode(mode) : kResultFailure; }

int32_t BsThumbManager::open() {
    if (!adapter_) return kResultFailure;
    ZorRef<IDmBaseObj> held;
    std::string path;
    {
        std::lock_guard<std::mutex> guard(mediaLock_);
        held = currentObject_;
        path = currentPath_;
    }
    IDmBaseObj* object = held.get();
    int32_t width = 0;
    int32_t height = 0;
    int32_t streamId = 0;
    if (object != nullptr) {
        if (auto* internal = static_cast<IDmTimelineInternal*>(object->queryInterface("IDmTimelineInternal"))) {
            IDmTimelineInternal::Settings settings{0, 0, 0};
            if (internal->settings(&settings) == 0 && settings.ratioNum != 0) {
                width = settings.width;
                height =
                    static_cast<int32_t>(static_cast<double>(settings.width) * settings.ratioDen / settings.ratioNum);
            }
        }
        held.reset();
    } else if (IDmFactory* factory = getDmFactoryInstance()) {
        if (ZorRef<IDmMediaInfo> info = ZorRef<IDmMediaInfo>::adopt(factory->createMediaInfo(path.c_str()))) {
            ZorProperty value;
            if (info->getProperty(mediaInfoKey::width, &value) == 0) width = static_cast<int32_t>(value.intValue);
            if (info->getProperty(mediaInfoKey::height, &value) == 0) height = static_cast<int32_t>(value.intValue);
            if (info->getProperty(mediaInfoKey::vid_stream_id, &value) == 0)
                streamId = static_cast<int32_t>(value.intValue);
        }
    }
    int32_t fittedWidth = 0;
    int32_t fittedHeight = 0;
    bool fitted = false;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        fitted = adjust(width, height, thumbWidth_, thumbHeight_, &fittedWidth, &fittedHeight);
        openedBox_.store(boxKey(thumbWidth_, thumbHeight_));
    }
    // Without a size there is nothing to render into: the media counts as
    // unreadable, so that its task completes instead of being retried.
    if (!fitted) {
        adapterOpen_.store(false);
        return kResultFailure;
    }
    adapter_->setOutputSize(fittedWidth, fittedHeight);
    const int32_t result = adapter_->open(streamId);
    adapterOpen_.store(result == 0);
    return result;
}

int32_t BsThumbManager::close() {
    if (!adapterOpen_.exchange(false)) return kResultFailure;
    return adapter_ ? adapter_->close() : kResultFailure;
}

int32_t BsThumbManager::getAdapterFrame(int64_t time, unsigned char* buffer, int64_t bufferSize) {
    if (!adapterOpen_.load() || !adapter_) return kResultFailure;
    return adapter_->frameAt(time, buffer, bufferSize);
}

int32_t BsThumbManager::adapterDuration(int64_t* duration) {
    return adapter_ ? adapter_->mediaDuration(duration, 0) : kResultFailure;
}

int32_t BsThumbManager::adapterFrameRate(int64_t* num, int64_t* den) {
    return adapter_ ? adapter_->frameRate(num, den, 0) : kResultFailure;
}

// ---------------------------------------------------------------------------
// Settings

int32_t BsThumbManager::setThumbCount(int32_t count) {
    thumbCount_.store(count);
    return 0;
}
int32_t BsThumbManager::thumbCount() { return thumbCount_.load(); }
int32_t BsThumbManager::setFramesPerStep(int32_t count) {
    framesPerStep_.store(std::max(count, 1));
    return 0;
}
int32_t BsThumbManager::framesPerStep() { return framesPerStep_.load(); }
int32_t BsThumbManager::setWorkerSleep(int32_t milliseconds) {
    workerSleep_.store(milliseconds);
    return 0;
}
int32_t BsThumbManager::workerSleep() { return workerSleep_.load(); }
int32_t BsThumbManager::setTaskFilter(ThumbTaskFilter filter) {
    taskFilter_.store(filter);
    return 0;
}
int32_t BsThumbManager::setCaching(int32_t enabled) {
    std::lock_guard<std::mutex> guard(mutex_);
    isCaching_.store(enabled != 0);
    return 0;
}
int32_t BsThumbManager::setMaxTasks(int32_t count) {
    std::lock_guard<std::mutex> guard(mutex_);
    maxTasks_ = count;
    return 0;
}

int32_t BsThumbManager::addCallback(IBsThumbManagerCallback* callback) {
    if (callback == nullptr) return kResultFailure;
    std::lock_guard<std::mutex> guard(mutex_);
    if (std::find(callbacks_.begin(), callbacks_.end(), callback) == callbacks_.end()) callbacks_.push_back(callback);
    return 0;
}

int32_t BsThumbManager::removeCallback(IBsThumbManagerCallback* callback) {
    if (callback == nullptr) return kResultFailure;
    std::lock_guard<std::mutex> guard(mutex_);
    auto found = std::find(callbacks_.begin(), callbacks_.end(), callback);
    if (found != callbacks_.end()) callbacks_.erase(found);
    return 0;
}

std::vector<std::shared_ptr<_ThumbTask>> BsThumbManager::queuedTasks() {
    std::lock_guard<std::mutex> guard(mutex_);
    return {queue_.begin(), queue_.end()};
}

// ---------------------------------------------------------------------------
// The disk cache

std::string BsThumbManager::thumbnailDir(const char* rootDir) {
    return PathUtil::join(Path(rootDir), kCacheFolder).str();
}

std::string BsThumbManager::thumbnailPath(const std::string& dir, int64_t frameIndex) {
    return PathUtil::join(Path(dir), BsThumbDiskListing::fileName(frameIndex, box_.load())).str();
}

std::string BsThumbManager::findThumbnail(const std::string& dir, int64_t index, int64_t searchRadius, bool* found) {
    const uint64_t box = box_.load();
    auto fileOf = [&](int64_t frameIndex) {
        return PathUtil::join(Path(dir), BsThumbDiskListing::fileName(frameIndex, box)).str();
    };
    std::string path = fileOf(index);
    if (PathUtil::exists(Path(path))) {
        if (found != nullptr) *found = true;
        return path;
    }
    if (found != nullptr) *found = false;
    if (searchRadius < 1) return path;
    // The neighbours in order (+1, -1, +2, -2, ...), asked of the folder's
    // listing; the one chosen is asked of the disk. When the disk says no,
    // the listing was out of date, and every candidate is asked of the disk.
    if (const std::shared_ptr<const BsThumbDiskListing::Listing> listing = diskListing_.current(dir, box)) {
        bool stale = false;
        for (int64_t distance = 1; distance <= searchRadius && !stale; ++distance) {
            for (const int64_t candidate : {index + distance, index - distance}) {
                if (listing->indices.count(candidate) == 0) continue;
                std::string neighbour = fileOf(candidate);
                if (PathUtil::exists(Path(neighbour))) return neighbour;
                stale = true;
                break;
            }
        }
        if (!stale) return path;
    }
    for (int64_t distance = 1; distance <= searchRadius; ++distance) {
        for (const int64_t candidate : {index + distance, index - distance}) {
            std::string neighbour = fileOf(candidate);
            if (PathUtil::exists(Path(neighbour))) return neighbour;
        }
    }
    return path;
}

int32_t BsThumbManager::clearCache(const char* rootDir) {
    if (rootDir == nullptr) return kResultFailure;
    bool inUse = false;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        for (const auto& task : queue_)
            if (std::strcmp(textOf(task->request.rootDir, kPathBytes).c_str(), rootDir) == 0) inUse = true;
    }
    ZOR_LOG_STREAM(IBsLogger::Info, "ZOR::BsThumbManager::clearCache", "isCaching: " << std::boolalpha << inUse);
    if (inUse) return kResultFailure;
    const bool removed = DirUtil::removeAll(Path(thumbnailDir(rootDir)));
    diskListing_.changed();
    return removed ? 0 : kResultFailure;
}

// ---------------------------------------------------------------------------
// Requests

std::vector<int32_t> BsThumbManager::frameOrder(int64_t count) {
    std::vector<int32_t> frames;
    if (count < 1) return frames;
    frames.push_back(0);
    if (count == 1) return frames;
    frames.push_back(static_cast<int32_t>(count - 1));
    std::vector<int32_t> sorted{0, static_cast<int32_t>(count - 1)};
    while (static_cast<int64_t>(frames.size()) < count) {
        const size_t before = frames.size();
        for (size_t i = sorted.size() - 1; i-- > 0;) {
            const int32_t a = sorted[i];
            const int32_t b = sorted[i + 1];
            if (b - a > 1) {
                const int32_t middle = a + (b - a) / 2;
                frames.push_back(middle);
                sorted.insert(sorted.begin() + static_cast<std::ptrdiff_t>(i) + 1, middle);
            }
        }
        if (frames.size() == before) break;
    }
    return frames;
}

bool BsThumbManager::sameMedia(const _ThumbTask& task, const MediaThumbRequest& request) {
    return task.request.mediaObject == request.mediaObject &&
           textOf(task.request.mediaPath, kPathBytes) == textOf(request.mediaPath, kPathBytes);
}

int32_t BsThumbManager::getFrame(const MediaThumbRequest* request, double position, char* outPath) {
    if (request == nullptr || outPath == nullptr) return kResultFailure;
    if (request->mediaPath[0] == '\0' && request->mediaObject == 0) return kResultFailure;
    if (request->duration < 1) return kResultFailure;
    // A position that is not a number names no picture.
    if (std::isnan(position)) return kResultFailure;

    const std::string rootDir = textOf(request->rootDir, kPathBytes);
    const std::string cacheDir = thumbnailDir(rootDir.c_str());
    const int64_t count = thumbCount_.load();
    const double startIndex =
        static_cast<double>(request->startTime) / static_cast<double>(request->duration) * static_cast<double>(count);
    const double endIndex =
        static_cast<double>(request->endTime) / static_cast<double>(request->duration) * static_cast<double>(count);
    // Clamped in double first: a huge position stays a valid integer.
    const double place = std::clamp(std::floor(position * (endIndex - startIndex) + startIndex), 0.0,
                                    static_cast<double>(std::max<int64_t>(count, 0)));
    const int64_t index = static_cast<int64_t>(place);

    bool found = false;
    const std::string path = findThumbnail(cacheDir, index, count / 2, &found);
    int32_t result = kResultFailure;
    if (PathUtil::exists(Path(path))) {
        zor_strcpy(outPath, kPathBytes, path.c_str());
        result = 0;
    }

    if (isCaching_.load() && !found) {
        ensureWorker();
        std::unique_lock<std::mutex> guard(mutex_, std::try_to_lock);
        if (guard.owns_lock()) {
            const std::shared_ptr<_ThumbTask> head = queue_.empty() ? nullptr : queue_.front();
            auto same = std::find_if(queue_.begin(), queue_.end(), [&](const std::shared_ptr<_ThumbTask>& task) {
                return sameMedia(*task, *request);
            });
            if (same != queue_.end()) {
                queue_.splice(queue_.begin(), queue_, same);
            } else {
                auto task = std::make_shared<_ThumbTask>();
                task->request = *request;
                task->request.mediaPath[kPathBytes - 1] = '\0';
                task->request.rootDir[kPathBytes - 1] = '\0';
                task->mediaObject = request->mediaObject;
                task->mediaPath = task->mediaObject != 0 ? std::string() : textOf(request->mediaPath, kPathBytes);
                task->cacheDir = cacheDir;
                task->thumbCount = count;
                task->startTime = request->startTime;
                task->endTime = request->endTime;
                task->duration = request->duration;
                task->frames = frameOrder(count);
                queue_.push_front(std::move(task));
                if (static_cast<int64_t>(queue_.size()) > maxTasks_) queue_.pop_back();
            }
            interrupt_.store(queue_.front() != head ? 1 : 0);
        }
    }
    return result;
}

int32_t BsThumbManager::stopGetFrame(const MediaThumbRequest* request) {
    if (request == nullptr || (request->mediaObject == 0 && request->mediaPath[0] == '\0')) {
        ZOR_LOG(IBsLogger::Error, "ZOR::BsThumbManager::stopGetFrame", "param invalid.");
        return kResultFailure;
    }
    interrupt_.store(1);
    std::shared_ptr<_ThumbTask> removed;  // released after the lock
    std::lock_guard<std::mutex> guard(mutex_);
    auto same = std::find_if(queue_.begin(), queue_.end(),
                             [&](const std::shared_ptr<_ThumbTask>& task) { return sameMedia(*task, *request); });
    if (same != queue_.end()) {
        removed = *same;
        queue_.erase(same);
    }
    return 0;
}

// ---------------------------------------------------------------------------
// The worker

void BsThumbManager::ensureWorker() {
    if (workerStarted_.load()) return;
    std::lock_guard<std::mutex> guard(workerLock_);
    if (worker_.joinable()) return;
    worker_ = std::thread(&BsThumbManager::workerMain, this);
    workerStarted_.store(true);
}

int32_t BsThumbManager::stopWorker() {
    {
        std::lock_guard<std::mutex> guard(workerLock_);
        if (worker_.joinable()) {
            stop_.store(1);
            worker_.join();  // from the worker itself: std::system_error (resource deadlock)
            stop_.store(0);
            worker_ = std::thread();
            workerStarted_.store(false);
        }
    }
    std::list<std::shared_ptr<_ThumbTask>> dropped;  // released after the lock
    std::lock_guard<std::mutex> guard(mutex_);
    dropped.swap(queue_);
    return 0;
}

void BsThumbManager::workerMain(BsThumbManager* manager) { manager->workerLoop(); }

void BsThumbManager::workerLoop() {
    while (stop_.load() == 0) {
        std::shared_ptr<_ThumbTask> task;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            if (!queue_.empty() && isCaching_.load()) {
                interrupt_.exchange(0);
                task = queue_.front();
            }
        }
        if (task) {
            runStep(*task, framesPerStep_.load());
            if (task->progress >= static_cast<int64_t>(task->frames.size())) {
                close();
                std::lock_guard<std::mutex> guard(mutex_);
                queue_.remove(task);
            }
        }
        const int32_t pause = workerSleep_.load();
        ZorSleep(pause > 0 ? pause : 5);
    }
}

int64_t BsThumbManager::frameTime(const _ThumbTask& task, int32_t frameIndex) {
    return static_cast<int64_t>(static_cast<double>(frameIndex) / static_cast<double>(task.thumbCount) *
                                    static_cast<double>(task.duration) +
                                static_cast<double>(task.startTime));
}

void BsThumbManager::planReadAhead(const _ThumbTask& task) {
    // The next pictures this task will ask the adapter for, in order, so
    // that the adapter can decode them on its other cores meanwhile. Only a
    // few: the plan is renewed every step, and a new request may cut it.
    std::vector<int64_t> times;
    for (size_t i = static_cast<size_t>(task.progress); i < task.frames.size() && times.size() < kReadAheadFrames;
         ++i) {
        const int32_t frameIndex = task.frames[i];
        if (!PathUtil::exists(Path(thumbnailPath(task.cacheDir, frameIndex))))
            times.push_back(frameTime(task, frameIndex));
    }
    if (adapter_) adapter_->readAhead(times.data(), static_cast<int32_t>(times.size()));
}

void BsThumbManager::runStep(_ThumbTask& task, int32_t framesPerStep) {
    if (ThumbTaskFilter filter = taskFilter_.load())
        if (!filter(this, &task, framesPerStep)) return;
    if (!PathUtil::exists(Path(task.cacheDir)) && !DirUtil::create(Path(task.cacheDir))) return;

    bool holds = false;
    uint64_t box = 0;
    {
        std::lock_guard<std::mutex> guard(mutex_);
        box = boxKey(thumbWidth_, thumbHeight_);
    }
    {
        // The adapter must hold this media, fitted into the current box (the
        // file names carry the box, so must the pictures).
        std::lock_guard<std::mutex> guard(mediaLock_);
        holds = currentPath_ == task.mediaPath &&
                reinterpret_cast<uint64_t>(currentObject_.get()) == task.mediaObject && adapterOpen_.load() &&
                openedBox_.load() == box;
    }
    if (!holds) {
        close();
        if (task.mediaObject != 0)
            setMediaObject(reinterpret_cast<IDmBaseObj*>(static_cast<uintptr_t>(task.mediaObject)));
        else
            setMediaPath(task.mediaPath.c_str());
        if (open() != 0) {
            task.progress = static_cast<int64_t>(task.frames.size());
            return;
        }
    }

    int32_t width = 0;
    int32_t height = 0;
    adapterOutputSize(&width, &height);
    if (width < 1 || height < 1) return;
    const size_t bytes = static_cast<size_t>(width) * static_cast<size_t>(height) * 4;
    std::vector<unsigned char> buffer(bytes, 0);

    planReadAhead(task);

    int32_t done = 0;
    while (task.progress < static_cast<int64_t>(task.frames.size()) && stop_.load() == 0 && interrupt_.load() == 0) {
        const int32_t frameIndex = task.frames[static_cast<size_t>(task.progress)];
        const std::string path = thumbnailPath(task.cacheDir, frameIndex);
        if (!PathUtil::exists(Path(path))) {
            const int64_t time = frameTime(task, frameIndex);
            if (getAdapterFrame(time, buffer.data(), static_cast<int64_t>(bytes)) == 0) {
                dumpPNG(width, height, buffer.data(), path.c_str(), -1);
                diskListing_.changed();
                {
                    std::lock_guard<std::mutex> guard(mutex_);
                    for (IBsThumbManagerCallback* callback : callbacks_)
                        callback->onThumbnail(&task.request, frameIndex, path.c_str());
                }
                std::fill(buffer.begin(), buffer.end(), 0);
            }
        }
        ++task.progress;
        if (++done >= framesPerStep) break;
    }
}

}  // namespace ZOR
