#include "BsVideoThumbnailBuilder.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include "Adapter/Adapter.h"
#include "BsDataStructure/BsDataStructure.h"
#include "BsPointerValue.h"
#include "Common/ZorInternalComUtility.h"

ZOR_LOG_SOURCE("modules/BaseService/Miravel/BsClipThumbnailService/BsVideoThumbnailBuilder")

namespace ZOR {

namespace {

constexpr int32_t kMediaIdBytes = 64;
constexpr size_t kPathSlotBytes = 1024;

// The text of a style data object, if it is one of the two kinds.
bool styleText(IDmBaseObj* data, const char* kind, std::string* text) {
    auto* style = static_cast<IDmStyleData*>(data->queryInterface(kind));
    if (style == nullptr) return false;
    const char* value = style->text(2);
    *text = value != nullptr ? value : "";
    return true;
}

}  // namespace

BsVideoThumbnailBuilder::BsVideoThumbnailBuilder(IBsVideoClipThumbnailCallback* owner) : owner_(owner) {
    task_ = createVideoFrameExtractTask();
    if (task_ != nullptr) {
        task_->addCallBack(this);
        task_->AddRef();
    }
}

BsVideoThumbnailBuilder::~BsVideoThumbnailBuilder() {
    if (task_ != nullptr) {
        // No report reaches this builder once the callback is removed (a
        // restart in flight may still store a record before that); the task's
        // work is cancelled and joined before the task goes.
        task_->removeCallBack(this);
        task_->shutdown();
    }
    std::map<int64_t, VideoThumbnailTaskRecord> records;
    {
        std::lock_guard<std::mutex> guard(lock_);
        records.swap(tasks_);
    }
    for (auto& [token, record] : records) releaseRecord(record);
    for (EarlyReport& report : early_)
        if (report.data != nullptr) report.data->Release();
    early_.clear();
    if (task_ != nullptr) {
        task_->Release();  // the builder's own reference
        task_->Release();  // the creation's
        task_ = nullptr;
    }
}

void BsVideoThumbnailBuilder::releaseRecord(VideoThumbnailTaskRecord& record) {
    if (record.clip != nullptr) record.clip->Release();
    record.clip = nullptr;
}

size_t BsVideoThumbnailBuilder::taskCount() {
    std::lock_guard<std::mutex> guard(lock_);
    return tasks_.size();
}

std::string BsVideoThumbnailBuilder::styleIdOf(IDmClip* clip) {
    if (clip == nullptr) return {};
    IDmAttachedItemList* items = clip->attachedItems();
    if (items == nullptr) return {};
    const int32_t count = items->count();
    for (int32_t i = 0; i < count; ++i) {
        IDmAttachedItem* item = items->get(i);
        if (item == nullptr || !item->isApplied() || !item->isVisualStyle()) continue;
        IDmBaseObj* data = item->dataCount() > 0 ? item->data(0) : nullptr;
        if (data == nullptr) return {};
        std::string text;
        if (styleText(data, "IImageStylizesData", &text)) return text;
        if (styleText(data, "IAITemplateGenerateData", &text)) return text;
        return {};
    }
    return {};
}

std::string BsVideoThumbnailBuilder::mediaIdOf(IDmClip* clip) {
    char buffer[kMediaIdBytes] = {};
    if (clip != nullptr) clip->mediaId(buffer, kMediaIdBytes);
    buffer[kMediaIdBytes - 1] = '\0';
    return buffer;
}

void BsVideoThumbnailBuilder::deliver(IDmClip* clip, int32_t width, int32_t height, IZORLonglongList* frames,
                                      IZORPByteList* pictures) {
    if (owner_ == nullptr) return;
    owner_->onVideoThumbnailData(clip, width, height, frames, pictures, frames != nullptr ? frames->count() : 0,
                                 width * height * 4);
}

// ---------------------------------------------------------------------------
// Requests

int32_t BsVideoThumbnailBuilder::requestThumbnails(const VideoThumbnailRequest& request) {
    IDmClip* clip = request.clip;
    if (clip == nullptr || request.width < 1 || request.height < 1 || request.frameCount < 0 ||
        (request.frameCount > 0 && request.frames == nullptr))
        return kResultFailure;

    VideoThumbnailTaskRecord record;
    record.mediaId = mediaIdOf(clip);
    record.styleId = styleIdOf(clip);
    clip->AddRef();
    record.clip = clip;
    record.width = request.width;
    record.height = request.height;
    record.streamId = request.streamId;
    record.refresh = request.refresh;
    record.hasTaskData = 0;
    const VideoThumbnailKey key{record.mediaId, record.styleId, record.streamId};

    if (request.refresh != 0) clearCache(clip, record.mediaId);

    auto frames = ZorRef<IZORLonglongList>::adopt(createZORLonglongList());
    auto pictures = ZorRef<IZORPByteList>::adopt(createZORPByteList());
    std::vector<BsVideoThumbnailCacheManager::Picture> held;  // the delivered pixels stay valid while delivering

    int64_t* begin = request.frames;
    int64_t* end = request.frames + request.frameCount;
    std::sort(begin, end);
    end = std::unique(begin, end);
    for (int64_t* frame = begin; frame != end; ++frame) {
        BsVideoThumbnailCacheManager::Picture holder;
        if (unsigned char* picture = cache_.getThumbnail(key, *frame, request.width, request.height, &holder)) {
            held.push_back(std::move(holder));
            frames->append(*frame);
            pictures->append(picture);
        } else {
            record.requestedFrames.push_back(*frame);
            record.missingFrames.push_back(*frame);
        }
    }
    if (frames->count() > 0) deliver(clip, request.width, request.height, frames.get(), pictures.get());
    frames.reset();
    pictures.reset();
    held.clear();
    if (record.missingFrames.empty()) {
        releaseRecord(record);
        return 0;
    }

    // Join the running task of the clip when it can take the frames.
    if (request.refresh == 0 && task_ != nullptr) {
        int64_t running = -1;
        bool covered = false;
        {
            std::lock_guard<std::mutex> guard(lock_);
            for (auto& [token, existing] : tasks_) {
                if (existing.clip != clip) continue;
                running = token;
                const std::vector<int64_t>& queued = existing.missingFrames;
                covered = std::all_of(record.missingFrames.begin(), record.missingFrames.end(), [&](int64_t frame) {
                    return std::binary_search(queued.begin(), queued.end(), frame);
                });
                break;
            }
        }
        if (running != -1) {
            if (covered) {
                releaseRecord(record);
                return 0;
            }
            if (task_->addFrames(running, record.missingFrames.data(),
                                 static_cast<int32_t>(record.missingFrames.size())) == 0) {
                std::lock_guard<std::mutex> guard(lock_);
                auto found = tasks_.find(running);
                if (found != tasks_.end()) {
                    found->second.requestedFrames = record.missingFrames;
                    found->second.missingFrames = record.missingFrames;
                    found->second.hasTaskData = 0;
                }
                releaseRecord(record);
                return 0;
            }
        }
    }

    if (task_ == nullptr) {
        releaseRecord(record);
        return kResultFailure;
    }
    if (task_->isStarted() == 0) task_->start();
    VideoThumbnailTaskRecord replaced;
    int64_t replacedToken = -1;
    {
        std::lock_guard<std::mutex> guard(lock_);
        for (auto it = tasks_.begin(); it != tasks_.end(); ++it) {
            if (it->second.clip != clip) continue;
            replacedToken = it->first;
            replaced = std::move(it->second);
            tasks_.erase(it);
            break;
        }
    }
    if (replacedToken >= 1) task_->cancel(replacedToken);
    releaseRecord(replaced);

    int64_t token = -1;
    appendsInFlight_.fetch_add(1);
    const int32_t result =
        task_->append(clip, record.missingFrames.data(), static_cast<int32_t>(record.missingFrames.size()), &token,
                      request.width, request.height, request.refresh);
    if (result != 0) {
        releaseRecord(record);
        storeRecord(-1, nullptr);
        return result;
    }
    storeRecord(token, &record);
    return 0;
}

void BsVideoThumbnailBuilder::storeRecord(int64_t token, VideoThumbnailTaskRecord* record) {
    VideoThumbnailTaskRecord previous;
    std::vector<EarlyReport> dropped;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (record != nullptr) {
            auto& slot = tasks_[token];
            previous = std::move(slot);
            slot = std::move(*record);
            record->clip = nullptr;
            replaying_.insert(token);
        }
        if (appendsInFlight_.fetch_sub(1) == 1) {
            // No append is in flight any more: reports of tokens that no
            // record claims are of nobody.
            for (auto it = early_.begin(); it != early_.end();) {
                if (replaying_.count(it->token) == 0) {
                    dropped.push_back(*it);
                    it = early_.erase(it);
                } else {
                    ++it;
                }
            }
        }
    }
    releaseRecord(previous);
    for (EarlyReport& report : dropped)
        if (report.data != nullptr) report.data->Release();
    if (record == nullptr) return;
    // The task may have reported the token before append() returned: those
    // reports were kept and are handled now, in their order, before any later
    // one (reports that arrive meanwhile join the queue).
    for (;;) {
        EarlyReport report;
        {
            std::lock_guard<std::mutex> guard(lock_);
            auto it = std::find_if(early_.begin(), early_.end(),
                                   [&](const EarlyReport& kept) { return kept.token == token; });
            if (it == early_.end()) {
                replaying_.erase(token);
                return;
            }
            report = *it;
            early_.erase(it);
        }
        handleReport(token, report.status, report.data);
        if (report.data != nullptr) report.data->Release();
    }
}

// ---------------------------------------------------------------------------
// Reports

int32_t BsVideoThumbnailBuilder::processChanged(IDmBaseObj* /*task*/, int32_t /*progress*/, int32_t status,
                                                const BsTaskProgressInfo* info) {
    const int64_t token = info != nullptr ? info->token : -1;
    IDmBaseObj* data = info != nullptr ? info->data : nullptr;
    {
        std::lock_guard<std::mutex> guard(lock_);
        if (replaying_.count(token) != 0 || (appendsInFlight_.load() > 0 && tasks_.count(token) == 0)) {
            if (data != nullptr) data->AddRef();
            early_.push_back(EarlyReport{token, status, data});
            return 0;
        }
    }
    return handleReport(token, status, data);
}

int32_t BsVideoThumbnailBuilder::handleReport(int64_t token, int32_t status, IDmBaseObj* data) {
    if (status == BsTaskProgress) return onTaskProcessing(token, data);
    ZOR_LOG(IBsLogger::Trace, "ZOR::BsVideoThumbnailBuilder::processChanged", "status %d token:%lld", status,
            static_cast<long long>(token));
    VideoThumbnailTaskRecord record;
    bool found = false;
    {
        std::lock_guard<std::mutex> guard(lock_);
        auto it = tasks_.find(token);
        if (it != tasks_.end()) {
            record = std::move(it->second);
            tasks_.erase(it);
            found = true;
        }
    }
    if (status == BsTaskResubmit && found && record.clip != nullptr && task_ != nullptr) {
        // The request moves to a new token with what is still outstanding;
        // if the restart writes no token, the record stays under 0.
        int64_t restarted = 0;
        appendsInFlight_.fetch_add(1);
        task_->append(record.clip, record.missingFrames.data(), static_cast<int32_t>(record.missingFrames.size()),
                      &restarted, record.width, record.height, 0);
        record.requestedFrames = record.missingFrames;
        // hasTaskData is kept: after a batch report was handled, the new
        // token's reports are single-frame reports.
        storeRecord(restarted, &record);
        return 0;
    }
    releaseRecord(record);
    return 0;
}

int32_t BsVideoThumbnailBuilder::onTaskProcessing(int64_t token, IDmBaseObj* data) {
    constexpr const char* kFunction = "ZOR::BsVideoThumbnailBuilder::onTaskProcessing";
    VideoThumbnailTaskRecord record;
    {
        std::lock_guard<std::mutex> guard(lock_);
        auto it = tasks_.find(token);
        if (it == tasks_.end() || it->second.clip == nullptr) return kResultFailure;
        const VideoThumbnailTaskRecord& stored = it->second;
        record.clip = stored.clip;
        record.clip->AddRef();  // held while this report is handled
        record.mediaId = stored.mediaId;
        record.width = stored.width;
        record.height = stored.height;
        record.streamId = stored.streamId;
        record.styleId = stored.styleId;
        record.refresh = stored.refresh;
        record.missingFrames = stored.missingFrames;
        record.hasTaskData = stored.hasTaskData;
    }
    IDmClip* clip = record.clip;
    auto* feature = static_cast<IDmVideoFeature*>(clip->queryInterface("IDmVideoFeature"));
    if (feature == nullptr) {
        ZOR_LOG(IBsLogger::Error, kFunction, "can not find videoFeature %lld", pointerValue(clip));
        releaseRecord(record);
        return kResultFailure;
    }

    const VideoThumbnailKey key{record.mediaId, record.styleId, record.streamId};
    auto frames = ZorRef<IZORLonglongList>::adopt(createZORLonglongList());
    auto pictures = ZorRef<IZORPByteList>::adopt(createZORPByteList());
    std::vector<BsVideoThumbnailCacheManager::Picture> held;  // the delivered pixels stay valid while delivering
    BsVideoThumbnailCacheManager::Picture holder;
    auto finish = [&](int32_t result) {
        frames.reset();
        pictures.reset();
        releaseRecord(record);
        return result;
    };
    auto* frame =
        data != nullptr ? static_cast<IBsVideoFrameData*>(data->queryInterface("IBsVideoFrameData")) : nullptr;

    size_t outstanding = record.missingFrames.size();
    if (record.hasTaskData == 1) {
        if (!record.missingFrames.empty()) {
            if (data == nullptr) {
                ZOR_LOG(IBsLogger::Error, kFunction, "data is null,token %lld", static_cast<long long>(token));
                return finish(kResultFailure);
            }
            const int64_t time = frame != nullptr ? frame->requestedTime() : -1;
            auto position = std::find(record.missingFrames.begin(), record.missingFrames.end(), time);
            if (position == record.missingFrames.end()) {
                ZOR_LOG(IBsLogger::Error, kFunction, "is not in missingFrames,frame %lld",
                        static_cast<long long>(time));
                return finish(kResultFailure);
            }
            record.missingFrames.erase(position);
            if (unsigned char* picture = cache_.addThumbnail(key, time, record.width, record.height, frame->bytes(),
                                                             frame->byteSize(), &holder)) {
                held.push_back(std::move(holder));
                frames->append(time);
                pictures->append(picture);
            }
            {
                // Frames may have been added to the request (addFrames on
                // another thread) since the copy was taken: only this frame
                // leaves the record's list.
                std::lock_guard<std::mutex> guard(lock_);
                auto it = tasks_.find(token);
                if (it != tasks_.end()) {
                    auto& current = it->second.missingFrames;
                    current.erase(std::remove(current.begin(), current.end(), time), current.end());
                    outstanding = current.size();
                } else {
                    outstanding = record.missingFrames.size();
                }
            }
        }
    } else {
        const size_t count = record.missingFrames.size();
        std::vector<int64_t> stillMissing(count, 0);
        std::vector<char> slots(count * kPathSlotBytes, '\0');
        char text[256] = {};
        int32_t stillMissingCount = 0;
        int32_t result = feature->prepareThumbnailSize(record.width, record.height, text, sizeof text);
        if (result == 0)
            result = feature->thumbnailFiles(record.missingFrames.data(), static_cast<int32_t>(count), slots.data(),
                                             stillMissing.data(), &stillMissingCount);
        if (result != 0) {
            ZOR_LOG(IBsLogger::Error, kFunction, "thumbnail failed %lld", pointerValue(clip));
            return finish(kResultFailure);
        }
        stillMissing.resize(
            static_cast<size_t>(std::clamp<int32_t>(stillMissingCount, 0, static_cast<int32_t>(count))));
        std::sort(stillMissing.begin(), stillMissing.end());
        for (size_t i = 0; i < count; ++i) {
            const int64_t time = record.missingFrames[i];
            if (std::binary_search(stillMissing.begin(), stillMissing.end(), time)) continue;
            unsigned char* picture = nullptr;
            if (frame != nullptr && frame->requestedTime() == time) {
                picture = cache_.addThumbnail(key, time, record.width, record.height, frame->bytes(), frame->byteSize(),
                                              &holder);
            } else {
                char* slot = slots.data() + i * kPathSlotBytes;
                slot[kPathSlotBytes - 1] = '\0';
                picture = cache_.addThumbnail(key, time, record.width, record.height, slot, &holder);
            }
            if (picture != nullptr) {
                held.push_back(std::move(holder));
                frames->append(time);
                pictures->append(picture);
            }
        }
        outstanding = stillMissing.size();
        {
            std::lock_guard<std::mutex> guard(lock_);
            auto it = tasks_.find(token);
            if (it != tasks_.end()) {
                if (it->second.missingFrames == record.missingFrames) {
                    it->second.missingFrames = stillMissing;
                    it->second.hasTaskData = 1;
                } else {
                    // Replaced by frames added meanwhile: drop what this
                    // report delivered and leave the rest to the next batch.
                    auto& current = it->second.missingFrames;
                    for (int32_t i = 0; i < frames->count(); ++i) {
                        const int64_t delivered = frames->get(i);
                        current.erase(std::remove(current.begin(), current.end(), delivered), current.end());
                    }
                    outstanding = current.size();
                }
            }
        }
    }

    bool present = false;
    VideoThumbnailTaskRecord completed;
    {
        std::lock_guard<std::mutex> guard(lock_);
        auto it = tasks_.find(token);
        present = it != tasks_.end();
        if (present && outstanding == 0) {
            completed = std::move(it->second);
            tasks_.erase(it);
        }
    }
    if (!present) {
        ZOR_LOG(IBsLogger::Warning, kFunction, "hasTaskData false,token %lld", static_cast<long long>(token));
        return finish(0);
    }
    if (outstanding == 0) {
        // The job is complete.
        if (task_ != nullptr) task_->cancel(token);
        releaseRecord(completed);
    }
    deliver(clip, record.width, record.height, frames.get(), pictures.get());
    return finish(0);
}

// ---------------------------------------------------------------------------
// Clearing and cancelling

int32_t BsVideoThumbnailBuilder::clearCache(IDmClip* clip, const std::string& mediaId) {
    if (clip == nullptr) return kResultFailure;
    auto* feature = static_cast<IDmVideoFeature*>(clip->queryInterface("IDmVideoFeature"));
    if (feature == nullptr) return kResultFailure;
    const std::string styleId = styleIdOf(clip);
    int32_t streamId = 0;
    ZorProperty value;
    if (feature->getProperty(videoKey::streamId, &value) == 0) streamId = static_cast<int32_t>(value.intValue);
    const VideoThumbnailKey key{mediaId, styleId, streamId};
    if (cache_.containsKey(key)) {
        if (owner_ != nullptr) owner_->onVideoThumbnailChanged(clip);
        cache_.removeKey(key);
        ZOR_LOG_STREAM(IBsLogger::Info, "ZOR::BsVideoThumbnailBuilder::clearCache",
                       "clear cache "
                           << "clipPtr:" << static_cast<const void*>(clip) << "mediaId:" << mediaId);
    }
    return 0;
}

int32_t BsVideoThumbnailBuilder::clearCacheOnClipChange(IDmTimeline* changeSource, IDmClip* clip) {
    if (clip == nullptr || clip->queryInterface("IDmVideoFeature") == nullptr) return kResultFailure;
    const std::string mediaId = mediaIdOf(clip);
    if (changeSource != nullptr && changeSource->usesMedia(mediaId.c_str()) != 0) return 0;
    clearCache(clip, mediaId);
    return 0;
}

void BsVideoThumbnailBuilder::cancelClip(IDmClip* clip) {
    int64_t token = -1;
    VideoThumbnailTaskRecord removed;
    {
        std::lock_guard<std::mutex> guard(lock_);
        for (auto it = tasks_.begin(); it != tasks_.end(); ++it) {
            if (it->second.clip != clip) continue;
            token = it->first;
            removed = std::move(it->second);
            tasks_.erase(it);
            break;
        }
    }
    if (token >= 1 && task_ != nullptr) task_->cancel(token);
    releaseRecord(removed);
}

void BsVideoThumbnailBuilder::cancelTask(int64_t token) {
    VideoThumbnailTaskRecord removed;
    {
        std::lock_guard<std::mutex> guard(lock_);
        auto it = tasks_.find(token);
        if (it != tasks_.end()) {
            removed = std::move(it->second);
            tasks_.erase(it);
        }
    }
    if (task_ != nullptr) task_->cancel(token);
    releaseRecord(removed);
}

}  // namespace ZOR
