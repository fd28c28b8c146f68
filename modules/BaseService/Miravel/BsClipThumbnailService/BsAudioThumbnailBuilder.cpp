#include "BsAudioThumbnailBuilder.h"

#include <algorithm>
#include <cmath>
#include <future>
#include <system_error>
#include <variant>

#include "Adapter/Adapter.h"
#include "BsDataStructure/BsDataStructure.h"
#include "BsAudioBuilderShared.h"
#include "BsAudioDuckIntervals.h"
#include "BsAudioEnvelope.h"
#include "BsPointerValue.h"
#include "BsTimelineChangedInfo.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DmTime.h"

ZOR_LOG_SOURCE("modules/BaseService/Miravel/BsClipThumbnailService/BsAudioThumbnailBuilder")

namespace ZOR {

using namespace audio_thumbnails;

namespace {

IBsAudioThumbnailQueryer* queryerOf(uint64_t key) {
    return reinterpret_cast<IBsAudioThumbnailQueryer*>(static_cast<uintptr_t>(key));
}

// The process-wide audio wave extraction task shared by every builder. The
// slot holds one reference; each builder holds one more.
struct SharedTask {
    std::mutex lock;  // taken alone
    IBsAudioWaveExtractTask* task = nullptr;
};

SharedTask& sharedTask() {
    static SharedTask* instance = new SharedTask;  // never destroyed: builders may outlive statics
    return *instance;
}

// A cancelled task no longer fills the cache: its media's requests stop waiting.
void forgetCacheTask(const std::shared_ptr<BsAudioSampleCache>& cache, int64_t token) {
    if (!cache) return;
    std::lock_guard<std::mutex> guard(cache->lock());
    if (cache->taskToken() == token) cache->setTaskToken(-1);
}

}  // namespace

// ---------------------------------------------------------------------------
// Entries and requests

AudioThumbnailRequest::~AudioThumbnailRequest() { resetPositions(nullptr); }

void AudioThumbnailRequest::resetPositions(IZORLonglongList* list) {
    IZORLonglongList* old = std::exchange(positions, list);
    if (old != nullptr) old->Release();
}

AudioThumbnailParam::~AudioThumbnailParam() {
    requests.clear();
    if (clip != nullptr) clip->Release();
}

// ---------------------------------------------------------------------------
// Construction and destruction

BsAudioThumbnailBuilder::BsAudioThumbnailBuilder(IBsAudioClipThumbnailCallback* owner, IDmTimeline* timeline)
    : owner_(owner), timeline_(timeline) {
    SharedTask& shared = sharedTask();
    {
        std::lock_guard<std::mutex> guard(shared.lock);
        if (shared.task == nullptr) {
            shared.task = createAudioWaveExtractTask();
            if (shared.task != nullptr) shared.task->initialize();
            ZOR_LOG(IBsLogger::Info, "ZOR::BsAudioThumbnailBuilder::BsAudioThumbnailBuilder",
                    "==wav clip AudioWaveTask create");
        }
        task_ = shared.task;
        if (task_ != nullptr) {
            task_->addCallBack(this);
            task_->AddRef();
        }
    }
    ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::BsAudioThumbnailBuilder", "==wav clip init %llx",
            pointerHex(this));
}

BsAudioThumbnailBuilder::~BsAudioThumbnailBuilder() {
    stopped_.store(true);
    {
        std::lock_guard<std::mutex> guard(lock_);
        for (auto& [clipKey, entry] : clips_)
            for (auto& [queryerKey, request] : entry->requests)
                if (request.token >= 0 && task_ != nullptr) {
                    task_->cancel(request.token);
                    forgetCacheTask(entry->sampleCache, request.token);
                }
    }
    if (worker_.joinable()) {
        queue_.quit();
        worker_.join();  // from the worker itself: std::system_error (resource deadlock)
    }
    {
        std::lock_guard<std::mutex> guard(lock_);
        clips_.clear();
    }

    if (task_ != nullptr) {
        task_->removeCallBack(this);
        IBsAudioWaveExtractTask* last = nullptr;
        {
            SharedTask& shared = sharedTask();
            std::lock_guard<std::mutex> guard(shared.lock);
            if (task_->Release() == 1 && shared.task == task_) last = std::exchange(shared.task, nullptr);
        }
        if (last != nullptr) {
            // Only the slot's reference was left: the next builder makes a new task.
            ZOR_LOG(IBsLogger::Info, "ZOR::BsAudioThumbnailBuilder::~BsAudioThumbnailBuilder",
                    "==wav clip AudioWaveTask release");
            last->shutdown();
            last->Release();
        }
        task_ = nullptr;
    }
    ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::~BsAudioThumbnailBuilder", "==wav clip release %llx",
            pointerHex(timeline_));
}

// ---------------------------------------------------------------------------
// Queries

int32_t BsAudioThumbnailBuilder::queryAudioThumbnailData(IBsAudioThumbnailQueryer* queryer, IDmClip* clip,
                                                         int64_t begincns, int64_t endcns, int32_t sampleCount) {
    constexpr const char* kFunction = "ZOR::BsAudioThumbnailBuilder::queryAudioThumbnailData";
    if (sampleCount < 1) {
        ZOR_LOG(IBsLogger::Error, kFunction, "==wav clip:%llx sampleCount:%d", pointerHex(clip), sampleCount);
        return kResultFailure;
    }
    ScopeTimeSpan timer("ZOR::BsAudioThumbnailBuilder::queryAudioThumbnailData[293]", true, 0, IBsLogger::Timing);
    if (clip == nullptr || clip->queryInterface("IDmAudioFeature") == nullptr) return kResultFailure;

    int32_t first = -1;
    int32_t second = -1;
    if (auto* internal = static_cast<IDmClipInternal*>(clip->queryInterface("IDmClipInternal")))
        internal->containerPosition(&first, &second);
    const char* clipId = clip->clipId();
    std::string key = string_sprintf("0x%llx_%s_type:%d_(%d-%d)", pointerHex(clip), clipId != nullptr ? clipId : "",
                                     clip->clipType(), first, second);

    // The first accepted query starts the worker; of two first queries on two
    // threads only one does.
    bool notStarted = true;
    if (stopped_.load() && stopped_.compare_exchange_strong(notStarted, false)) {
        std::promise<void> started;
        auto running = started.get_future();
        worker_ = std::thread([this, &started] {
            workerRunning_.store(true);
            started.set_value();
            waveWorkerLoop();
            workerRunning_.store(false);
        });
        running.wait();
    }

    std::lock_guard<std::mutex> guard(lock_);
    updateDuckInfo();

    auto found = clips_.find(pointerKey(clip));
    ZOR_LOG(IBsLogger::Trace, kFunction,
            "==wav clip:%s %llx new query %llx: begincns:%lld  endcns:%lld  sampleCount:%lld", key.c_str(),
            pointerHex(clip), pointerHex(queryer), static_cast<long long>(begincns), static_cast<long long>(endcns),
            static_cast<long long>(sampleCount));

    if (found == clips_.end()) {
        // A clip queried for the first time.
        auto entry = std::make_shared<AudioThumbnailParam>();
        clips_.emplace(pointerKey(clip), entry);
        entry->key = std::move(key);
        std::lock_guard<std::mutex> param(entry->paramLock);
        entry->sampleCache = BsAudioSampleCache::obtainForClip(clip);
        clip->AddRef();
        if (entry->clip != nullptr) entry->clip->Release();
        entry->clip = clip;
        entry->dirty = 0xFFFFFFFFu;
        AudioThumbnailRequest& request = entry->requests[pointerKey(queryer)];
        request.begin = begincns;
        request.end = endcns;
        request.sampleCount = sampleCount;
        fillSamplePositions(clip, request);
        updateAudioThumbnailParam(clip, *entry);
        dispatchAudioThumbnailTask(*entry, queryer);
        entry->dirty = 0;
        return 0;
    }

    AudioThumbnailParam& entry = *found->second;
    entry.key = std::move(key);
    auto existing = entry.requests.find(pointerKey(queryer));
    if (existing != entry.requests.end()) {
        const AudioThumbnailRequest& request = existing->second;
        // The sample count is not compared: the outstanding task answers with
        // the count of the query that started it.
        if (request.begin == begincns && request.end == endcns && request.token >= 0 && request.taskState == 1 &&
            entry.dirty == 0)
            return 0;
    } else {
        // A new queryer of a known clip starts from a zeroed request.
        existing = entry.requests.try_emplace(pointerKey(queryer)).first;
        existing->second.token = 0;
    }
    AudioThumbnailRequest& request = existing->second;

    request.cancelled.store(true);
    std::set<uint64_t> toDispatch{pointerKey(queryer)};
    if (entry.dirty != 0) {
        for (auto& [queryerKey, other] : entry.requests) {
            if (other.inWork.load()) {
                toDispatch.insert(queryerKey);
                other.cancelled.store(true);
            }
        }
    }

    std::lock_guard<std::mutex> param(entry.paramLock);
    if (!(request.begin == begincns && request.end == endcns && request.sampleCount == sampleCount &&
          (entry.dirty & kPositionBits) == 0)) {
        request.begin = begincns;
        request.end = endcns;
        request.sampleCount = sampleCount;
        if ((entry.dirty & kAllPositionsBits) != 0) {
            for (auto& [queryerKey, each] : entry.requests) {
                each.resetPositions(nullptr);
                fillSamplePositions(clip, each);
            }
        } else {
            request.resetPositions(nullptr);
            fillSamplePositions(clip, request);
        }
    }
    if ((entry.dirty & kChangeStream) != 0 || !entry.sampleCache)
        entry.sampleCache = BsAudioSampleCache::obtainForClip(clip);
    if (entry.dirty != 0 && updateAudioThumbnailParam(clip, entry) != 0) {
        for (auto& [queryerKey, each] : entry.requests) each.samples.clear();
    }
    for (uint64_t queryerKey : toDispatch) dispatchAudioThumbnailTask(entry, queryerOf(queryerKey));
    entry.dirty = 0;
    return 0;
}

int32_t BsAudioThumbnailBuilder::cancelQuery(IBsAudioThumbnailQueryer* queryer) {
    ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::cancelQuery", "cancel %llx", pointerHex(queryer));
    cancelRequests(queryer, nullptr);
    return 0;
}

int32_t BsAudioThumbnailBuilder::cancelQuery(IBsAudioThumbnailQueryer* queryer, IDmClip* clip) {
    ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::cancelQuery", "cancel queryer:%llx,obj:%llx",
            pointerHex(queryer), pointerHex(clip));
    cancelRequests(queryer, clip);
    return 0;
}

void BsAudioThumbnailBuilder::cancelRequests(IBsAudioThumbnailQueryer* queryer, IDmClip* clip) {
    std::vector<Entry> erased;  // released after the lock, with their clips
    std::lock_guard<std::mutex> guard(lock_);
    for (auto it = clips_.begin(); it != clips_.end();) {
        if (clip != nullptr && it->first != pointerKey(clip)) {
            ++it;
            continue;
        }
        AudioThumbnailParam& entry = *it->second;
        for (auto request = entry.requests.begin(); request != entry.requests.end();) {
            if (queryer != nullptr && request->first != pointerKey(queryer)) {
                ++request;
                continue;
            }
            request->second.cancelled.store(true);
            if (request->second.token >= 0 && request->second.taskState == 1 && task_ != nullptr) {
                task_->cancel(request->second.token);
                forgetCacheTask(entry.sampleCache, request->second.token);
            }
            // Waits for a computation of this entry in progress on the worker.
            std::lock_guard<std::mutex> param(entry.paramLock);
            request = entry.requests.erase(request);
        }
        if (entry.requests.empty()) {
            erased.push_back(it->second);
            it = clips_.erase(it);
        } else {
            ++it;
        }
    }
}

int32_t BsAudioThumbnailBuilder::onAudioChanged(IDmTimeline* timeline, IDmClipList* clips, IZORIntList* changes) {
    if (timeline != timeline_) return kResultFailure;
    std::set<uint64_t> toNotify;
    {
        std::lock_guard<std::mutex> guard(lock_);
        const int32_t count = clips != nullptr && changes != nullptr ? std::min(clips->count(), changes->count()) : 0;
        for (int32_t i = 0; i < count; ++i) {
            IDmClip* changed = clips->get(i);
            const uint32_t bits = static_cast<uint32_t>(changes->get(i));
            if (changed == nullptr) continue;
            const bool ducking = activeDuckingEffect(changed) != nullptr;
            if (!ducking && bits == kChangeEnable) {
                toNotify.insert(pointerKey(changed));
                continue;
            }
            bool concernsDucking = false;
            if (ducking && (bits & kDuckingRelated) != 0) {
                concernsDucking = true;
            } else if (duckInfo_) {
                for (const FAudioDuckInfo& record : *duckInfo_)
                    if (record.clip.get() == changed) concernsDucking = true;
            }

            auto entry = clips_.find(pointerKey(changed));
            if (entry != clips_.end()) {
                uint32_t dirty = (entry->second->dirty | bits) & ~kChangeRange;
                if (!concernsDucking && (bits & kDuckingByOthers) != 0) dirty |= kChangeDucking;
                entry->second->dirty = dirty;
                toNotify.insert(pointerKey(changed));
            }

            if (concernsDucking) {
                bool marked = false;
                if (duckInfo_) {
                    for (FAudioDuckInfo& record : *duckInfo_) {
                        if (record.clip.get() == changed) {
                            record.changes |= bits;
                            marked = true;
                        }
                    }
                    // A ducking source that has no interval yet (newly added,
                    // unmuted or switched on) gets one at the next rebuild.
                    if (!marked && bits != kChangeRemoved) {
                        FAudioDuckInfo pending;
                        pending.changes = bits;
                        pending.clip = ZorRef<IDmClip>::share(changed);
                        duckInfo_->push_back(std::move(pending));
                    }
                }
                duckInfoChanged_ = true;
                for (auto& [clipKey, other] : clips_) {
                    if (other->clip == nullptr || other->clip == changed) continue;
                    if (!rangesOverlap(other->clip, changed)) continue;
                    // The entry's copy of the intervals is taken again at
                    // its next query.
                    other->dirty |= kChangeDucking;
                    toNotify.insert(clipKey);
                }
            }
        }
    }
    for (uint64_t clipKey : toNotify) {
        auto* clip = reinterpret_cast<IDmClip*>(static_cast<uintptr_t>(clipKey));
        ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::onAudioChanged", "==wav clip:%llx", pointerHex(clip));
        if (owner_ != nullptr) owner_->onAudioThumbnailNotice(clip);
    }
    return 0;
}

int32_t BsAudioThumbnailBuilder::clearAudioRawSamples(IDmClip* clip) {
    std::set<uint64_t> toNotify;
    {
        std::lock_guard<std::mutex> guard(lock_);
        auto cache = BsAudioSampleCache::obtainForClip(clip);
        for (auto& [clipKey, entry] : clips_) {
            if (entry->sampleCache != cache) continue;
            toNotify.insert(pointerKey(entry->clip));
            // The worker reads these under the entry's param lock.
            std::lock_guard<std::mutex> param(entry->paramLock);
            for (auto& [queryerKey, request] : entry->requests) {
                request.cancelled.store(true);
                if (request.token >= 0 && task_ != nullptr) {
                    task_->cancel(request.token);
                    forgetCacheTask(entry->sampleCache, request.token);
                }
                request.rawSamples.clear();
                request.samples.clear();
            }
        }
        cache->clear();
    }
    for (uint64_t clipKey : toNotify) {
        auto* notified = reinterpret_cast<IDmClip*>(static_cast<uintptr_t>(clipKey));
        ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::clearAudioRawSamples", "==wav clip clear:%llx",
                pointerHex(notified));
        if (owner_ != nullptr) owner_->onAudioThumbnailNotice(notified);
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Tasks and the worker

int32_t BsAudioThumbnailBuilder::dispatchAudioThumbnailTask(AudioThumbnailParam& entry,
                                                            IBsAudioThumbnailQueryer* queryer) {
    AudioThumbnailRequest& request = entry.requests[pointerKey(queryer)];
    if (request.rawSamples.empty() && request.token >= 0 && request.taskState == 1) {
        if (task_ != nullptr) task_->cancel(request.token);
        forgetCacheTask(entry.sampleCache, request.token);
        request.token = -1;
        request.taskState = 0;
        ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::dispatchAudioThumbnailTask", "===:appendWaveTask");
    }

    bool available = false;
    bool cacheBusy = false;
    int64_t busyToken = -1;
    const int32_t beginFrame = static_cast<int32_t>(frameFromCnsTime(kWaveRate, request.sourceBegin));
    const int32_t endFrame = static_cast<int32_t>(frameFromCnsTime(kWaveRate, request.sourceEnd));
    BsAudioSampleCache* cache = entry.sampleCache.get();
    if (cache != nullptr) {
        std::lock_guard<std::mutex> guard(cache->lock());
        busyToken = cache->taskToken();
        if (busyToken != -1)
            cacheBusy = true;
        else
            available = cache->hasFrames(beginFrame, endFrame);
    }

    if (!cacheBusy && !available) {
        int64_t token = -1;
        int32_t result = kResultFailure;
        if (task_ != nullptr) {
            if (task_->isStarted() == 0) task_->start();
            BsWaveTaskRecord record;
            record.option = 0;
            record.clip = entry.clip;
            record.rateNum = kWaveRate.num;
            record.rateDen = kWaveRate.den;
            record.beginFrame = beginFrame;
            record.endFrame = endFrame;
            record.frameStep = endFrame != beginFrame ? endFrame - beginFrame : 1;
            result = task_->append(&record, &token);
        }
        ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::appendWaveTask", "==wav clip %llx",
                pointerHex(entry.clip));
        if (result != 0) {
            request.token = -1;
            request.taskState = 0;
        } else {
            request.token = token;
            request.taskState = 1;
            if (cache != nullptr) {
                std::lock_guard<std::mutex> guard(cache->lock());
                cache->setTaskToken(token);
            }
        }
    }

    if (request.token >= 0 && request.taskState == 1) {
        request.cancelled.store(false);
        return 0;
    }
    request.waitedToken = cacheBusy ? busyToken : -1;
    pushWaveData(entry.clip, queryer);
    request.cancelled.store(false);
    return 0;
}

void BsAudioThumbnailBuilder::pushWaveData(IDmClip* clip, IBsAudioThumbnailQueryer* queryer) {
    queue_.pushWaveData(static_cast<int64_t>(pointerKey(clip)), static_cast<int64_t>(pointerKey(queryer)));
}

int32_t BsAudioThumbnailBuilder::processChanged(IDmBaseObj* /*task*/, int32_t /*progress*/, int32_t status,
                                                const BsTaskProgressInfo* info) {
    const int64_t token = info != nullptr ? info->token : -1;
    if (status != BsTaskFinished && status != BsTaskFailed && status != BsTaskCancelled && status != BsTaskResubmit)
        return 0;
    ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::processChanged", "status %d token:%lld", status,
            static_cast<long long>(token));
    queue_.pushTaskEnd(token, status);
    return 0;
}

void BsAudioThumbnailBuilder::waveWorkerLoop() {
    using Payload = std::variant<std::monostate, int64_t>;
    while (!stopped_.load()) {
        WaveMessage message;
        const bool have = queue_.pop(std::chrono::milliseconds(100), stopped_, &message);
        workerRounds_.fetch_add(1);
        if (have) {
            // A message whose flag does not match its kind is malformed.
            const bool expectFlag = message.kind == WaveMessage::TaskEnd;
            if ((message.kind == WaveMessage::TaskEnd || message.kind == WaveMessage::WaveData) &&
                message.flag != expectFlag)
                (void)std::get<int64_t>(Payload{});
            if (message.kind == WaveMessage::Quit) break;
            if (message.kind == WaveMessage::WaveData) {
                dealWithGenerateWaveTask(reinterpret_cast<IDmClip*>(static_cast<uintptr_t>(message.first)),
                                         queryerOf(static_cast<uint64_t>(message.second)));
                std::this_thread::yield();
            } else if (message.kind == WaveMessage::TaskEnd) {
                dealWithWaveTaskEnd(message.first, static_cast<int32_t>(message.second));
            }
        }
    }
}

void BsAudioThumbnailBuilder::dealWithWaveTaskEnd(int64_t token, int32_t status) {
    std::set<uint64_t> stale;
    {
        std::lock_guard<std::mutex> guard(lock_);
        for (auto& [clipKey, entry] : clips_) {
            bool refreshing = false;
            if (entry->sampleCache) {
                std::lock_guard<std::mutex> cacheGuard(entry->sampleCache->lock());
                if (entry->sampleCache->taskToken() == token) entry->sampleCache->setTaskToken(-1);
                refreshing = entry->sampleCache->taskToken() != -1;
            }
            for (auto& [queryerKey, request] : entry->requests) {
                if (request.token != token) continue;
                ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::dealWithWaveTaskEnd",
                        "===:ctsFINISH token:%lld,isRefreshing:%d", static_cast<long long>(token), refreshing ? 1 : 0);
                if (status == BsTaskFinished) pushWaveData(entry->clip, queryerOf(queryerKey));
                request.taskState = status;
                request.token = -1;
                break;
            }
            // Requests that were answered while this task was still extracting
            // their media read what was there then: their values are dropped
            // and their clip is told to ask again.
            bool waited = false;
            for (auto& [queryerKey, request] : entry->requests) waited = waited || request.waitedToken == token;
            if (waited) {
                std::lock_guard<std::mutex> param(entry->paramLock);
                for (auto& [queryerKey, request] : entry->requests) {
                    if (request.waitedToken != token) continue;
                    request.waitedToken = -1;
                    request.rawSamples.clear();
                    request.samples.clear();
                    stale.insert(clipKey);
                }
            }
        }
    }
    for (uint64_t clipKey : stale) {
        auto* clip = reinterpret_cast<IDmClip*>(static_cast<uintptr_t>(clipKey));
        ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::dealWithWaveTaskEnd", "==wav clip:%llx",
                pointerHex(clip));
        if (owner_ != nullptr) owner_->onAudioThumbnailNotice(clip);
    }
}

void BsAudioThumbnailBuilder::dealWithGenerateWaveTask(IDmClip* clip, IBsAudioThumbnailQueryer* queryer) {
    ScopeTimeSpan timer("ZOR::BsAudioThumbnailBuilder::dealWithGenerateWaveTask[1025]", true, 30, IBsLogger::Warning);
    Entry entry;
    AudioThumbnailRequest* request = nullptr;
    std::unique_lock<std::mutex> param;
    {
        std::lock_guard<std::mutex> guard(lock_);
        auto found = clips_.find(pointerKey(clip));
        if (found == clips_.end()) return;
        entry = found->second;
        entry->busy.store(true);
        param = std::unique_lock<std::mutex>(entry->paramLock);
        // The request is looked up while the map cannot change shape; from
        // here on the param lock alone keeps it (erasing takes that lock).
        auto it = entry->requests.find(pointerKey(queryer));
        if (it != entry->requests.end()) request = &it->second;
    }
    if (request != nullptr) {
        request->inWork.store(true);
        ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::dealWithGenerateWaveTask", "==wav clip:%s",
                entry->key.c_str());
        do {
            if (request->cancelled.load()) break;
            const int32_t positions = request->positions != nullptr ? request->positions->count() : 0;
            if (request->rawSamples.empty() && positions > 0 && entry->sampleCache)
                readRawSamples(*entry->sampleCache, request->positions, request->rawSamples);
            if (request->cancelled.load()) break;
            if (!request->rawSamples.empty() && request->samples.empty()) {
                applyAudioGain(*entry, *request, queryer);
                if (request->cancelled.load()) break;
            } else if (request->rawSamples.empty()) {
                request->samples.assign(static_cast<size_t>(positions), 0.0f);
                ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::dealWithGenerateWaveTask",
                        "==wav clip:%s,onAudioThumbnailData", entry->key.c_str());
            }
            if (!request->samples.empty()) {
                ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::dealWithGenerateWaveTask",
                        "==wav clip:%s,onAudioThumbnailData", entry->key.c_str());
                if (IBsAudioClipThumbnailCallback* callback =
                        queryer != nullptr ? queryer->getResultCallback() : nullptr)
                    callback->onAudioThumbnailData(entry->clip, request->begin, request->end, request->samples.data(),
                                                   static_cast<int32_t>(request->samples.size()));
            }
        } while (false);
        request->inWork.store(false);
    }
    entry->busy.store(false);
}

}  // namespace ZOR
