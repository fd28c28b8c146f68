#include "BsAudioThumbnailBuilder.h"

#include <algorithm>
#include <cmath>
#include <future>
#include <system_error>
#include <variant>

#include "Adapter/Adapter.h"
#include "BsDataStructure/BsDataStructure.h"
#include "BsPointerValue.h"
#include "Common/ZorInternalComUtility.h"
#include "DataModel/DmTime.h"

ZOR_LOG_SOURCE("modules/BaseService/Miravel/BsClipThumbnailService/BsAudioThumbnailBuilder")

namespace ZOR {

namespace {

// Wave data is addressed in frames of 25 per second.
constexpr DmRational kWaveRate{25, 1};

// Change bits of a clip (set by the timeline's change tracker).
constexpr uint32_t kChangeMarks = 0x2;
constexpr uint32_t kChangeRange = 0x4;
constexpr uint32_t kChangeLoudness = 0x8;
constexpr uint32_t kChangeDucking = 0x10;
constexpr uint32_t kChangeSpeed = 0x20;
constexpr uint32_t kChangeVolume = 0x40;
constexpr uint32_t kChangeRemoved = 0x80;
constexpr uint32_t kChangeEnable = 0x200;
constexpr uint32_t kChangeStream = 0x400;
constexpr uint32_t kChangeVolumeGain = 0x800;
constexpr uint32_t kPositionBits = kChangeStream | kChangeSpeed | kChangeMarks;  // 0x422
constexpr uint32_t kAllPositionsBits = kChangeSpeed | kChangeMarks;              // 0x22
constexpr uint32_t kDuckingRelated = 0x3D4;
constexpr uint32_t kDuckingByOthers = 0x304;

constexpr int32_t kEffectDucking = 4109;
constexpr int32_t kEffectVolume = 4110;
constexpr int32_t kEffectReverse = 4139;

// A keyframe at or below this level is silence.
constexpr double kSilenceDb = -48.0;
// The factor of the dB-to-gain power, as the float 0.05 widened to double
// (0.05000000074505806), which is what the envelope has always used.
constexpr double kDbFactor = static_cast<double>(0.05f);
constexpr double kMaxStaticGain = 50.0;

IBsAudioThumbnailQueryer* queryerOf(uint64_t key) {
    return reinterpret_cast<IBsAudioThumbnailQueryer*>(static_cast<uintptr_t>(key));
}

// The gain of a level in dB: 10^(dB x 0.05), the product in double narrowed to
// float and the power in single precision; silence at or below -48 dB.
double gainOfDb(double db) {
    if (!(db > kSilenceDb)) return 0.0;
    return static_cast<double>(powf(10.0f, static_cast<float>(db * kDbFactor)));
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

bool readProperty(IDmAudioFeature* audio, const char* key, ZorProperty* value) {
    return audio != nullptr && audio->getProperty(key, value) == 0;
}

// A property of any data-model object, through whichever property face it has.
bool readObjectProperty(IDmBaseObj* object, const char* key, ZorProperty* value) {
    if (object == nullptr) return false;
    if (auto* owner = static_cast<IDmPropertyOwner*>(object->queryInterface("IDmPropertyOwner")))
        return owner->getProperty(key, value) == 0;
    if (auto* audio = static_cast<IDmAudioFeature*>(object->queryInterface("IDmAudioFeature")))
        return audio->getProperty(key, value) == 0;
    return false;
}

double numberOf(const ZorProperty& value) {
    return value.kind == ZorProperty::Double ? value.doubleValue : static_cast<double>(value.intValue);
}

// The ducking effect of clip that counts: its base audio clip's effect 4109,
// unless that clip is muted or the effect is off.
IDmEffect* activeDuckingEffect(IDmClip* clip) {
    IDmClip* audioClip = getBaseAudioClip(clip);
    if (audioClip == nullptr) return nullptr;
    IDmEffect* effect = audioClip->effect(kEffectDucking);
    if (effect == nullptr) return nullptr;
    if (audioClip->queryInterface("IDmAudioClip") != nullptr) {
        ZorProperty mute;
        auto* audio = static_cast<IDmAudioFeature*>(audioClip->queryInterface("IDmAudioFeature"));
        if (readProperty(audio, audioKey::mute, &mute) && mute.boolValue()) return nullptr;
    }
    if (!effect->isEnabled()) return nullptr;
    return effect;
}

bool rangesOverlap(IDmClip* a, IDmClip* b) {
    return beginTimeOfClip(a) < endTimeOfClip(b) && beginTimeOfClip(b) < endTimeOfClip(a);
}

bool sameRecords(const std::vector<FAudioDuckInfo>& a, const std::vector<FAudioDuckInfo>& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        if (a[i].clip.get() != b[i].clip.get() || a[i].begin != b[i].begin || a[i].end != b[i].end ||
            a[i].depth != b[i].depth || a[i].fade != b[i].fade || a[i].fadeRatio != b[i].fadeRatio)
            return false;
    }
    return true;
}

// A cancelled task no longer fills the cache: requests of its media stop
// waiting for it.
void forgetCacheTask(const std::shared_ptr<BsAudioSampleCache>& cache, int64_t token) {
    if (!cache) return;
    std::lock_guard<std::mutex> guard(cache->lock());
    if (cache->taskToken() == token) cache->setTaskToken(-1);
}

// The point times of a request: t = begin + trunc(i / count x (end - begin)).
int64_t pointTime(int64_t begin, int64_t end, int32_t i, int32_t count) {
    return begin + static_cast<int64_t>(static_cast<double>(i) / static_cast<double>(count) *
                                        static_cast<double>(end - begin));
}

// Reads one raw amplitude per position from the cache (its lock held).
int32_t readRawSamples(BsAudioSampleCache& cache, IZORLonglongList* positions, std::vector<float>& raw) {
    std::lock_guard<std::mutex> guard(cache.lock());
    if (!cache.open()) return kResultFailure;
    const int32_t count = positions != nullptr ? positions->count() : 0;
    raw.assign(static_cast<size_t>(std::max(count, 0)), 0.0f);
    const int64_t frameLength = cnsTimeFromFrame(kWaveRate, 1);
    const uint32_t perFrame = cache.valuesPerFrame();
    int64_t lastFrame = 0;
    const std::vector<float>* values = nullptr;
    bool haveLast = false;
    for (int32_t i = 0; i < count; ++i) {
        const int64_t position = positions->get(i);
        const int64_t frame = frameFromCnsTime(kWaveRate, position);
        if (!haveLast || frame != lastFrame) {
            values = frame >= INT32_MIN && frame <= INT32_MAX ? cache.frame(static_cast<int32_t>(frame)) : nullptr;
            lastFrame = frame;
            haveLast = true;
        }
        if (values == nullptr) continue;
        const int64_t frameStart = cnsTimeFromFrame(kWaveRate, frame);
        const float fraction = static_cast<float>(position - frameStart) / static_cast<float>(frameLength);
        uint32_t index = static_cast<uint32_t>(fraction * static_cast<float>(perFrame));
        index = std::min(index, perFrame - 1);
        if (index < values->size()) raw[static_cast<size_t>(i)] = (*values)[index];
    }
    return 0;
}

// The envelope of keyframes (times, with their gains) at time t: linear in
// gain between neighbours, the first gain before the first keyframe and the
// last after the last.
double envelopeAt(const std::vector<std::pair<int64_t, double>>& keyframes, const std::vector<double>& gains,
                  int64_t t) {
    if (keyframes.size() == 1) return gains[0];
    size_t next = 0;
    while (next < keyframes.size() && !(keyframes[next].first > t)) ++next;
    if (next == 0) return gains[0];
    if (next == keyframes.size()) return gains.back();
    const size_t previous = next - 1;
    return gains[previous] + static_cast<double>(t - keyframes[previous].first) /
                                 static_cast<double>(keyframes[next].first - keyframes[previous].first) *
                                 (gains[next] - gains[previous]);
}

// The gain of the volume envelope at clip time t.
double volumeAtTime(const AudioThumbnailParam& entry, int64_t t) {
    if (entry.volumeKeyframes.empty()) return gainOfDb(static_cast<double>(entry.volume) + entry.volumeGain);
    return envelopeAt(entry.volumeKeyframes, entry.keyframeGains, t);
}

// The ducking factor at clip time t: 1 - the deepest level of the records.
double duckingFactor(const std::vector<FAudioDuckInfo>& records, int64_t t) {
    double deepest = 0.0;
    for (const FAudioDuckInfo& record : records) {
        const double fadeLength = static_cast<double>(static_cast<int64_t>(record.fade * 10000000.0));
        const double outside = (1.0 - record.fadeRatio) * fadeLength;
        const int64_t inside = static_cast<int64_t>(record.fadeRatio * fadeLength);
        const int64_t a = static_cast<int64_t>(static_cast<double>(record.begin) - outside);
        const int64_t h = std::min((record.end - record.begin) / 2, inside);
        const int64_t b = record.begin + h;
        const int64_t c = record.end - h;
        const int64_t d = static_cast<int64_t>(static_cast<double>(record.end) + outside);
        double level = 0.0;
        if (b <= t && t <= c)
            level = record.depth;
        else if (a <= t && t < b)
            level = static_cast<double>(t - a) / static_cast<double>(b - a) * record.depth;
        else if (c < t && t <= d)
            level = static_cast<double>(d - t) / static_cast<double>(d - c) * record.depth;
        deepest = std::max(deepest, level);
    }
    return deepest > 0.0 ? 1.0 - deepest : 1.0;
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
            ZOR_LOG(IBsLogger::Info, "ZOR::BsAudioThumbnailBuilder::BsAudioThumbnailBuilder", "==wav clip AudioWaveTask create");
        }
        task_ = shared.task;
        if (task_ != nullptr) {
            task_->addCallBack(this);
            task_->AddRef();
        }
    }
    ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::BsAudioThumbnailBuilder", "==wav clip init %llx", pointerHex(this));
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
        {
            std::lock_guard<std::mutex> guard(queueLock_);
            queue_.clear();
            queue_.push_back(WaveMessage{WaveMessage::Quit, 0, 0, false});
        }
        queueSignal_.notify_all();
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
            ZOR_LOG(IBsLogger::Info, "ZOR::BsAudioThumbnailBuilder::~BsAudioThumbnailBuilder", "==wav clip AudioWaveTask release");
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
    ScopeTimeSpan timer("ZOR::BsAudioThumbnailBuilder::queryAudioThumbnailData[293]", true, 0,
                        IBsLogger::Timing);
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
    ZOR_LOG(IBsLogger::Trace, kFunction, "==wav clip:%s %llx new query %llx: begincns:%lld  endcns:%lld  sampleCount:%lld",
            key.c_str(), pointerHex(clip), pointerHex(queryer), static_cast<long long>(begincns),
            static_cast<long long>(endcns), static_cast<long long>(sampleCount));

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
    ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::cancelQuery", "cancel queryer:%llx,obj:%llx", pointerHex(queryer),
            pointerHex(clip));
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
        ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::clearAudioRawSamples", "==wav clip clear:%llx", pointerHex(notified));
        if (owner_ != nullptr) owner_->onAudioThumbnailNotice(notified);
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Ducking intervals

bool BsAudioThumbnailBuilder::trackPasses(IDmTrack* track) {
    if (track == nullptr || track->trackKind() != DmTrackAudio) return false;
    ZorProperty value;
    if (track->getProperty(trackKey::mute, &value) == 0 && value.boolValue()) return false;
    if (track->getProperty(trackKey::visible, &value) == 0 && !value.boolValue()) return false;
    return true;
}

bool BsAudioThumbnailBuilder::makeDuckRecord(IDmClip* clip, FAudioDuckInfo* record, bool heldByRecord) {
    // A clip that only an interval still holds has been let go by the data
    // model.
    if ((heldByRecord && clip->refCount() <= 1) || clip->timeline() == nullptr) {
        ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::updateDuckInfo", " clip is release");
        return false;
    }
    ZorProperty enable;
    if (readObjectProperty(clip, clipKey::enable, &enable) && !enable.boolValue()) return false;
    if (clip->timeline() != timeline_ || !trackPasses(clip->track())) return false;
    IDmEffect* effect = activeDuckingEffect(clip);
    if (effect == nullptr) return false;
    record->changes = 0;
    record->clip = ZorRef<IDmClip>::share(clip);
    record->begin = beginTimeOfClip(clip);
    record->end = endTimeOfClip(clip);
    record->depth = static_cast<double>(effect->value(0));
    record->fade = static_cast<double>(effect->value(1));
    record->fadeRatio = static_cast<double>(effect->value(2));
    return true;
}

int32_t BsAudioThumbnailBuilder::updateDuckInfo() {
    if (timeline_ == nullptr) return kResultFailure;
    if (duckInfo_) {
        if (!duckInfoChanged_) return 0;
        auto rebuilt = std::make_shared<std::vector<FAudioDuckInfo>>();
        for (FAudioDuckInfo& record : *duckInfo_) {
            if (record.changes == 0) {
                rebuilt->push_back(record);
            } else if ((record.changes & kChangeRemoved) == 0) {
                FAudioDuckInfo remade;
                if (record.clip.get() != nullptr && makeDuckRecord(record.clip.get(), &remade, true))
                    rebuilt->push_back(std::move(remade));
            }
        }
        duckInfo_ = std::move(rebuilt);
        duckInfoChanged_ = false;
        return 0;
    }
    auto made = std::make_shared<std::vector<FAudioDuckInfo>>();
    for (int32_t t = 0; t < timeline_->trackCount(); ++t) {
        if (!trackPasses(timeline_->track(t))) continue;
        for (int32_t i = 0; i < timeline_->clipCount(t); ++i) {
            IDmClip* clip = timeline_->clip(t, i);
            FAudioDuckInfo record;
            if (clip != nullptr && makeDuckRecord(clip, &record, false)) made->push_back(std::move(record));
        }
    }
    duckInfo_ = std::move(made);
    duckInfoChanged_ = false;
    return 0;
}

std::vector<FAudioDuckInfo> BsAudioThumbnailBuilder::duckRecordsFor(IDmClip* clip) const {
    std::vector<FAudioDuckInfo> records;
    if (!duckInfo_) return records;
    const int64_t begin = beginTimeOfClip(clip);
    const int64_t end = endTimeOfClip(clip);
    const int64_t shift = markInTimeOfClip(clip) - begin;
    for (const FAudioDuckInfo& record : *duckInfo_) {
        if (!(record.begin < end && begin < record.end)) continue;
        FAudioDuckInfo copy = record;
        copy.begin += shift;
        copy.end += shift;
        records.push_back(std::move(copy));
    }
    return records;
}

// ---------------------------------------------------------------------------
// Parameters and positions

uint32_t BsAudioThumbnailBuilder::updateAudioThumbnailParam(IDmClip* clip, AudioThumbnailParam& entry) {
    ScopeTimeSpan timer("ZOR::BsAudioThumbnailBuilder::updateAudioThumbnailParam[700]", true, 0,
                        IBsLogger::Timing);
    auto* audio = static_cast<IDmAudioFeature*>(clip->queryInterface("IDmAudioFeature"));
    uint32_t result = entry.dirty;
    ZorProperty value;

    if ((entry.dirty & kChangeLoudness) != 0) {
        entry.loudnessGain = 0.0f;
        if (readProperty(audio, audioLoudness::enable, &value) && value.boolValue() &&
            readProperty(audio, audioLoudness::gain, &value))
            entry.loudnessGain = static_cast<float>(numberOf(value));
    }
    if ((entry.dirty & kChangeVolumeGain) != 0)
        entry.volumeGain = readProperty(audio, clipVolumeKey::volumeGain, &value) ? numberOf(value) : 0.0;

    const int64_t markIn = markInTimeOfClip(clip);
    const int64_t markOut = markOutTimeOfClip(clip);

    if ((entry.dirty & kChangeVolume) != 0) {
        const bool muted = readProperty(audio, audioKey::mute, &value) && value.boolValue();
        entry.volume = 0.0f;
        if (!muted && readProperty(audio, audioKey::volume, &value)) entry.volume = static_cast<float>(numberOf(value));
        entry.volumeKeyframes.clear();
        entry.keyframeGains.clear();
        IDmEffect* effect = clip->effect(kEffectVolume);
        const int32_t count = effect != nullptr ? effect->keyframeCount(1) : 0;
        if (count > 0) {
            entry.volume = 0.0f;
            std::vector<std::pair<int64_t, double>> all;
            std::vector<double> allGains;
            for (int32_t i = 0; i < count; ++i) {
                int64_t time = 0;
                double db = 0.0;
                if (effect->keyframe(1, i, &time, &db) == 0) {
                    all.emplace_back(time, db);
                    allGains.push_back(gainOfDb(db));
                }
            }
            // Boundary keyframes. The envelope runs linearly in gain from one
            // keyframe to the next and holds the first and last levels beyond
            // them (envelopeAt). Keyframes outside [mark in, mark out] are
            // dropped; where some lay before mark in (after mark out) and none
            // lies exactly on it, one is placed on the boundary with the
            // envelope's gain there. The envelope between the boundaries is
            // then the same line segments as before, so the clip sounds and
            // draws as it did; its gain is kept as computed, not re-derived
            // from a dB value, so that no rounding creeps in.
            bool before = false;
            bool after = false;
            bool atIn = false;
            bool atOut = false;
            for (const auto& [time, db] : all) {
                before = before || time < markIn;
                after = after || time > markOut;
                atIn = atIn || time == markIn;
                atOut = atOut || time == markOut;
            }
            auto place = [&](int64_t at) {
                const double gain = envelopeAt(all, allGains, at);
                entry.volumeKeyframes.emplace_back(at, gain > 0.0 ? 20.0 * std::log10(gain) : kSilenceDb);
                entry.keyframeGains.push_back(gain);
            };
            if (before && !atIn) place(markIn);
            for (size_t i = 0; i < all.size(); ++i) {
                if (all[i].first < markIn || all[i].first > markOut) continue;
                entry.volumeKeyframes.push_back(all[i]);
                entry.keyframeGains.push_back(allGains[i]);
            }
            if (after && !atOut && markOut > markIn) place(markOut);
        }
    }

    if ((entry.dirty & kChangeDucking) != 0) {
        bool changed = false;
        if (activeDuckingEffect(clip) != nullptr) {
            // A ducking source is never ducked itself.
            changed = !entry.duckRecords.empty();
            entry.duckRecords.clear();
        } else {
            std::vector<FAudioDuckInfo> records = duckRecordsFor(clip);
            changed = !sameRecords(records, entry.duckRecords);
            entry.duckRecords = std::move(records);
        }
        if (!changed) result &= ~kChangeDucking;
    }

    if ((entry.dirty & kChangeSpeed) != 0) {
        entry.silentRanges.clear();
        if (auto* parts = static_cast<IDmClipSpeedPart*>(clip->queryInterface("IDmClipSpeedPart"))) {
            const int32_t count = parts->speedPartCount();
            for (int32_t i = 0; i < count; ++i) {
                int64_t begin = -1;
                int64_t end = -1;
                double speed = 1.0;
                parts->speedPart(i, &begin, &end, &speed);
                if (speed == 0.0) entry.silentRanges.emplace_back(begin, end);
            }
        }
    }
    return result;
}

int32_t BsAudioThumbnailBuilder::fillSamplePositions(IDmClip* clip, AudioThumbnailRequest& request) {
    if (request.positions != nullptr && request.positions->count() > 0) return 0;
    request.resetPositions(createZORLonglongList());
    request.sourceBegin = INT64_MAX;
    request.sourceEnd = 0;
    bool reverse = false;
    if (IDmEffect* effect = clip->effect(kEffectReverse)) reverse = effect->value(0) != 0.0f;
    auto* audio = static_cast<IDmAudioFeature*>(clip->queryInterface("IDmAudioFeature"));
    for (int32_t i = 0; i < request.sampleCount; ++i) {
        const int64_t t = pointTime(request.begin, request.end, i, request.sampleCount);
        const int64_t s = audio != nullptr ? audio->sourcePosition(t, reverse) : t;
        if (request.positions != nullptr) request.positions->append(s);
        request.sourceEnd = std::max(request.sourceEnd, s);
        request.sourceBegin = std::min(request.sourceBegin, s);
    }
    request.rawSamples.clear();
    request.samples.clear();
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
        ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::appendWaveTask", "==wav clip %llx", pointerHex(entry.clip));
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
    {
        std::lock_guard<std::mutex> guard(queueLock_);
        // One WaveData per clip at a time, whichever queryer it is for.
        const auto clipKey = static_cast<int64_t>(pointerKey(clip));
        for (const WaveMessage& message : queue_)
            if (message.kind == WaveMessage::WaveData && message.first == clipKey) return;
        queue_.push_back(
            WaveMessage{WaveMessage::WaveData, clipKey, static_cast<int64_t>(pointerKey(queryer)), false});
    }
    queueSignal_.notify_all();
}

int32_t BsAudioThumbnailBuilder::processChanged(IDmBaseObj* /*task*/, int32_t /*progress*/, int32_t status,
                                                const BsTaskProgressInfo* info) {
    const int64_t token = info != nullptr ? info->token : -1;
    if (status != BsTaskFinished && status != BsTaskFailed && status != BsTaskCancelled && status != BsTaskResubmit) return 0;
    ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::processChanged", "status %d token:%lld", status,
            static_cast<long long>(token));
    {
        std::lock_guard<std::mutex> guard(queueLock_);
        queue_.push_back(WaveMessage{WaveMessage::TaskEnd, token, status, true});
    }
    queueSignal_.notify_all();
    return 0;
}

void BsAudioThumbnailBuilder::waveWorkerLoop() {
    using Payload = std::variant<std::monostate, int64_t>;
    while (!stopped_.load()) {
        WaveMessage message;
        bool have = false;
        {
            std::unique_lock<std::mutex> guard(queueLock_);
            queueSignal_.wait_for(guard, std::chrono::milliseconds(100),
                                  [this] { return !queue_.empty() || stopped_.load(); });
            workerRounds_.fetch_add(1);
            if (!queue_.empty()) {
                message = queue_.front();
                queue_.pop_front();
                have = true;
            }
        }
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
                ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::dealWithWaveTaskEnd", "===:ctsFINISH token:%lld,isRefreshing:%d",
                        static_cast<long long>(token), refreshing ? 1 : 0);
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
        ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::dealWithWaveTaskEnd", "==wav clip:%llx", pointerHex(clip));
        if (owner_ != nullptr) owner_->onAudioThumbnailNotice(clip);
    }
}

void BsAudioThumbnailBuilder::dealWithGenerateWaveTask(IDmClip* clip, IBsAudioThumbnailQueryer* queryer) {
    ScopeTimeSpan timer("ZOR::BsAudioThumbnailBuilder::dealWithGenerateWaveTask[1025]", true, 30,
                        IBsLogger::Warning);
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
        ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::dealWithGenerateWaveTask", "==wav clip:%s", entry->key.c_str());
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
                ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::dealWithGenerateWaveTask", "==wav clip:%s,onAudioThumbnailData",
                        entry->key.c_str());
            }
            if (!request->samples.empty()) {
                ZOR_LOG(IBsLogger::Trace, "ZOR::BsAudioThumbnailBuilder::dealWithGenerateWaveTask", "==wav clip:%s,onAudioThumbnailData",
                        entry->key.c_str());
                if (IBsAudioClipThumbnailCallback* callback = queryer != nullptr ? queryer->getResultCallback() : nullptr)
                    callback->onAudioThumbnailData(entry->clip, request->begin, request->end, request->samples.data(),
                                                   static_cast<int32_t>(request->samples.size()));
            }
        } while (false);
        request->inWork.store(false);
    }
    entry->busy.store(false);
}

void BsAudioThumbnailBuilder::applyAudioGain(AudioThumbnailParam& entry, AudioThumbnailRequest& request,
                                             IBsAudioThumbnailQueryer* queryer) {
    float staticFactor = 1.0f;
    if (!(entry.loudnessGain == 0.0f && entry.volumeGain == 0.0)) {
        const float loudness = entry.loudnessGain != 0.0f ? 20.0f * log10f(entry.loudnessGain) : 0.0f;
        const double db = entry.volume + entry.volumeGain + loudness;
        const double gain = std::min(gainOfDb(db), kMaxStaticGain);
        staticFactor = sqrtf(static_cast<float>(gain));
    }
    const bool ducking = queryer != nullptr && queryer->isCalcDuckingEnabled();
    const size_t count = request.rawSamples.size();
    request.samples.resize(count);
    for (size_t i = 0; i < count; ++i) {
        if (request.cancelled.load(std::memory_order_relaxed)) return;
        const int64_t t = pointTime(request.begin, request.end, static_cast<int32_t>(i), request.sampleCount);
        double x = 0.0;
        bool silent = false;
        for (const auto& [a, b] : entry.silentRanges) {
            if (a <= t && t <= b) {
                silent = true;
                break;
            }
        }
        if (!silent) {
            const double envelope = volumeAtTime(entry, t);
            const double k = ducking ? duckingFactor(entry.duckRecords, t) : 1.0;
            x = envelope * staticFactor * k;
        }
        const float value = static_cast<float>(std::sqrt(x) * static_cast<double>(request.rawSamples[i]));
        request.samples[i] = std::min(1.0f, value);
    }
}

}  // namespace ZOR
