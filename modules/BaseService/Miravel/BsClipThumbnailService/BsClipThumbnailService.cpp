#include "BsClipThumbnailService.h"

#include <cstring>

#include "BsPointerValue.h"
#include "ListenerCenter/ListenerCenter.h"
#include "Miravel/ClipThumbnailKey.h"

ZOR_LOG_SOURCE("modules/BaseService/Miravel/BsClipThumbnailService/BsClipThumbnailService")

namespace ZOR {

namespace {

// The data-model events after which the timelines' records are reported, in
// the order they are subscribed to.
const char* const* eventKeys() {
    static const char* const keys[] = {
        timelineEventKey::dataChanged,
        timelineEventKey::trackPropertyChanged,
        clipEventKey::videoPropertyChanged,
        clipEventKey::audioPropertyChanged,
        clipEventKey::basePropertyChanged,
        clipEventKey::multiCameraPropertyChanged,
        clipEventKey::speedChanged,
        clipEventKey::effectPropertyChanged,
        clipEventKey::timelineClipPropertyChanged,
        clipEventKey::clipRelink,
        undoRedoEventKey::undoEvent,
        undoRedoEventKey::redoEvent,
        undoRedoEventKey::stackChanged,
    };
    return keys;
}
constexpr size_t kEventKeyCount = 13;

}  // namespace

// ---------------------------------------------------------------------------
// The per-timeline implementation

BsClipThumbnailServiceImpl::BsClipThumbnailServiceImpl(IDmTimeline* timeline)
    : timeline_(ZorRef<IDmTimeline>::share(timeline)) {
    ZOR_LOG(IBsLogger::Info, "ZOR::BsClipThumbnailServiceImpl::BsClipThumbnailServiceImpl", "create %llx this %llx",
            pointerHex(timeline_.get()), pointerHex(this));
    videoBuilder_ = std::make_shared<BsVideoThumbnailBuilder>(static_cast<IBsVideoClipThumbnailCallback*>(this));
    audioBuilder_ =
        std::make_shared<BsAudioThumbnailBuilder>(static_cast<IBsAudioClipThumbnailCallback*>(this), timeline_.get());
    changedInfo_ = ZorRef<BsTimelineChangedInfo>::share(
        new BsTimelineChangedInfo(static_cast<IChangedCallback*>(this), timeline_.get()));
}

BsClipThumbnailServiceImpl::~BsClipThumbnailServiceImpl() {
    changedInfo_.reset();
    audioBuilder_.reset();
    videoBuilder_.reset();
    ZOR_LOG(IBsLogger::Info, "ZOR::BsClipThumbnailServiceImpl::~BsClipThumbnailServiceImpl", "release %llx this %llx",
            pointerHex(timeline_.get()), pointerHex(this));
    timeline_.reset();
}

int32_t BsClipThumbnailServiceImpl::onVideoThumbnailNotice(void*) { return 0; }

int32_t BsClipThumbnailServiceImpl::onVideoThumbnailChanged(IDmClip* clip) {
    BaseCallBack<IBsVideoClipThumbnailCallback>::notifyCallBacks(
        [&](IBsVideoClipThumbnailCallback* callback) { callback->onVideoThumbnailChanged(clip); });
    return 0;
}

int32_t BsClipThumbnailServiceImpl::onVideoThumbnailData(IDmClip* clip, int32_t width, int32_t height,
                                                         IZORLonglongList* frames, IZORPByteList* pictures,
                                                         int32_t count, int32_t bytesPerPicture) {
    BaseCallBack<IBsVideoClipThumbnailCallback>::notifyCallBacks([&](IBsVideoClipThumbnailCallback* callback) {
        callback->onVideoThumbnailData(clip, width, height, frames, pictures, count, bytesPerPicture);
    });
    return 0;
}

int32_t BsClipThumbnailServiceImpl::addVideoClipThumbnailCallback(IBsVideoClipThumbnailCallback* callback) {
    registrations_.fetch_add(1);
    return BaseCallBack<IBsVideoClipThumbnailCallback>::addCallBack(callback);
}
int32_t BsClipThumbnailServiceImpl::addAudioClipThumbnailCallback(IBsAudioClipThumbnailCallback* callback) {
    registrations_.fetch_add(1);
    return BaseCallBack<IBsAudioClipThumbnailCallback>::addCallBack(callback);
}
int32_t BsClipThumbnailServiceImpl::removeVideoClipThumbnailCallback(IBsVideoClipThumbnailCallback* callback) {
    return BaseCallBack<IBsVideoClipThumbnailCallback>::removeCallBack(callback);
}
int32_t BsClipThumbnailServiceImpl::removeAudioClipThumbnailCallback(IBsAudioClipThumbnailCallback* callback) {
    return BaseCallBack<IBsAudioClipThumbnailCallback>::removeCallBack(callback);
}

int32_t BsClipThumbnailServiceImpl::clearAudioRawSamples(IDmClip* audioClip) {
    return audioBuilder_->clearAudioRawSamples(audioClip);
}

int32_t BsClipThumbnailServiceImpl::queryAudioThumbnailData(IBsAudioThumbnailQueryer* queryer, IDmClip* clip,
                                                            int64_t beginCns, int64_t endCns, uint32_t sampleCount) {
    // Only audio clips are queried: a video clip's sound is its base audio clip.
    if (clip == nullptr || getBaseAudioClip(clip) != clip) return kResultFailure;
    changedInfo_->watchClip(clip);
    return audioBuilder_->queryAudioThumbnailData(queryer, clip, beginCns, endCns, static_cast<int32_t>(sampleCount));
}

int32_t BsClipThumbnailServiceImpl::cancelAudioQueries(IBsAudioThumbnailQueryer* queryer) {
    audioBuilder_->cancelQuery(queryer);
    return 0;
}

int32_t BsClipThumbnailServiceImpl::cancelAudioThumbnailQuery(IBsAudioThumbnailQueryer* queryer, IDmClip* clip) {
    if (clip != nullptr) {
        changedInfo_->unwatchClip(clip);
        audioBuilder_->cancelQuery(queryer, clip);
    }
    return 0;
}

int32_t BsClipThumbnailServiceImpl::onAudioThumbnailNotice(IDmClip* clip) {
    BaseCallBack<IBsAudioClipThumbnailCallback>::notifyCallBacks(
        [&](IBsAudioClipThumbnailCallback* callback) { callback->onAudioThumbnailNotice(clip); });
    return 0;
}

int32_t BsClipThumbnailServiceImpl::onAudioThumbnailChanged(IDmClip*) { return 0; }

int32_t BsClipThumbnailServiceImpl::onAudioThumbnailData(IDmClip* clip, int64_t beginCns, int64_t endCns,
                                                         const float* samples, int32_t count) {
    BaseCallBack<IBsAudioClipThumbnailCallback>::notifyCallBacks([&](IBsAudioClipThumbnailCallback* callback) {
        callback->onAudioThumbnailData(clip, beginCns, endCns, samples, count);
    });
    return 0;
}

int32_t BsClipThumbnailServiceImpl::onAudioChanged(IDmTimeline* timeline, IDmClipList* clips, IZORIntList* flags) {
    audioBuilder_->onAudioChanged(timeline, clips, flags);
    return 0;
}

int32_t BsClipThumbnailServiceImpl::onClipChanged(IDmTimeline* timeline, IDmClip* clip) {
    IDmClip* audioClip = getBaseAudioClip(clip);
    if (audioClip != clip) {
        videoBuilder_->cancelClip(clip);
        videoBuilder_->clearCacheOnClipChange(timeline, clip);
    }
    if (audioClip != nullptr) {
        audioBuilder_->cancelQuery(nullptr, audioClip);
        BaseCallBack<IBsAudioClipThumbnailCallback>::notifyCallBacks(
            [&](IBsAudioClipThumbnailCallback* callback) { callback->onAudioThumbnailChanged(audioClip); });
    }
    return 0;
}

int32_t BsClipThumbnailServiceImpl::onChangeIgnored(void*) { return 0; }

int32_t BsClipThumbnailServiceImpl::onAllClipsChanged(IDmTimeline*) {
    const std::set<IDmClip*> watched = changedInfo_ != nullptr ? changedInfo_->watchedClips() : std::set<IDmClip*>{};
    for (IDmClip* clip : watched) audioBuilder_->cancelQuery(nullptr, clip);
    return 0;
}

int32_t BsClipThumbnailServiceImpl::queryVideoThumbnail(VideoThumbnailRequest* request) {
    if (request == nullptr) return kResultFailure;
    if (request->clip != nullptr) changedInfo_->watchClip(request->clip);
    return videoBuilder_->requestThumbnails(*request);
}

int32_t BsClipThumbnailServiceImpl::cancelVideoThumbnailQuery(IDmClip* clip) {
    videoBuilder_->cancelClip(clip);
    return 0;
}

// ---------------------------------------------------------------------------
// The registry

BsClipThumbnailServiceRegistry& BsClipThumbnailServiceRegistry::instance() {
    static auto* registry = new BsClipThumbnailServiceRegistry;  // outlives every service
    return *registry;
}

void BsClipThumbnailServiceRegistry::Deleter::operator()(BsClipThumbnailServiceImpl* impl) const {
    std::lock_guard<std::mutex> guard(registry->lock_);
    // Whatever the entry holds by now.
    registry->impls_.erase(timeline);
    delete impl;
}

std::shared_ptr<BsClipThumbnailServiceImpl> BsClipThumbnailServiceRegistry::acquire(IDmTimeline* timeline) {
    std::lock_guard<std::mutex> guard(lock_);
    auto& slot = impls_[timeline];
    if (auto existing = slot.lock()) return existing;
    std::shared_ptr<BsClipThumbnailServiceImpl> made(new BsClipThumbnailServiceImpl(timeline), Deleter{this, timeline});
    slot = made;
    return made;
}

std::vector<std::shared_ptr<BsClipThumbnailServiceImpl>> BsClipThumbnailServiceRegistry::live() {
    std::vector<std::shared_ptr<BsClipThumbnailServiceImpl>> impls;
    std::lock_guard<std::mutex> guard(lock_);
    for (auto& [timeline, weak] : impls_)
        if (auto impl = weak.lock()) impls.push_back(std::move(impl));
    return impls;
}

size_t BsClipThumbnailServiceRegistry::size() {
    std::lock_guard<std::mutex> guard(lock_);
    return impls_.size();
}

// ---------------------------------------------------------------------------
// The service

BsClipThumbnailService::BsClipThumbnailService() {
    ZOR_LOG(IBsLogger::Info, "ZOR::BsClipThumbnailService::BsClipThumbnailService", "create %llx",
            pointerHex(static_cast<IBsAudioThumbnailQueryer*>(this)));
    if (subscriptions_.empty()) {
        IEventBus* bus = defaultEventBus();
        const char* const* keys = eventKeys();
        for (size_t i = 0; bus != nullptr && i < kEventKeyCount; ++i) {
            void* context = static_cast<IBsClipThumbnailService*>(this);
            int32_t id = bus->subscribe(keys[i], &BsClipThumbnailService::onDataModelEvent, context, 1);
            if (id < 0) {
                bus->registerKey(keys[i], 1);
                id = bus->subscribe(keys[i], &BsClipThumbnailService::onDataModelEvent, context, 1);
            }
            subscriptions_.push_back(id);
        }
    }
}

BsClipThumbnailService::~BsClipThumbnailService() {
    if (IEventBus* bus = defaultEventBus()) {
        for (int32_t id : subscriptions_)
            if (id >= 0) bus->unsubscribe(id);
    }
    subscriptions_.clear();
    const auto videoCallbacks = callbacksOf<IBsVideoClipThumbnailCallback>();
    const auto audioCallbacks = callbacksOf<IBsAudioClipThumbnailCallback>();
    for (auto& [pointer, impl] : acquired_) {
        impl->cancelAudioQueries(this);
        for (IBsVideoClipThumbnailCallback* callback : videoCallbacks) impl->removeVideoClipThumbnailCallback(callback);
        for (IBsAudioClipThumbnailCallback* callback : audioCallbacks) impl->removeAudioClipThumbnailCallback(callback);
    }
    ZOR_LOG(IBsLogger::Info, "ZOR::BsClipThumbnailService::~BsClipThumbnailService", "release %llx",
            pointerHex(static_cast<IBsAudioThumbnailQueryer*>(this)));
    acquired_.clear();
}

void* BsClipThumbnailService::queryInterface(const char* name) {
    if (name != nullptr && std::strcmp(name, "IBsClipThumbnailService") == 0)
        return static_cast<IBsClipThumbnailService*>(this);
    return nullptr;
}

template <class I>
std::vector<I*> BsClipThumbnailService::callbacksOf() {
    std::vector<I*> callbacks;
    BaseCallBack<I>::notifyCallBacks([&](I* callback) { callbacks.push_back(callback); });
    return callbacks;
}

IDmTimeline* BsClipThumbnailService::timelineOfClip(IDmClip* clip) {
    if (clip == nullptr) return nullptr;
    auto* internal = static_cast<IDmClipInternal*>(clip->queryInterface("IDmClipInternal"));
    if (IDmClip* parent = internal != nullptr ? internal->parentClip() : nullptr) return parent->timeline();
    return clip->timeline();
}

std::shared_ptr<BsClipThumbnailServiceImpl> BsClipThumbnailService::acquire(IDmTimeline* timeline) {
    std::shared_ptr<BsClipThumbnailServiceImpl> impl = BsClipThumbnailServiceRegistry::instance().acquire(timeline);
    if (acquired_.count(impl.get()) != 0) return impl;
    for (IBsVideoClipThumbnailCallback* callback : callbacksOf<IBsVideoClipThumbnailCallback>())
        impl->addVideoClipThumbnailCallback(callback);
    for (IBsAudioClipThumbnailCallback* callback : callbacksOf<IBsAudioClipThumbnailCallback>())
        impl->addAudioClipThumbnailCallback(callback);
    ZOR_LOG(IBsLogger::Info, "ZOR::BsClipThumbnailService::acquire", "this %llx acquire service %llx for timeline %llx",
            pointerHex(static_cast<IBsAudioThumbnailQueryer*>(this)), pointerHex(impl.get()), pointerHex(timeline));
    acquired_.emplace(impl.get(), impl);
    return impl;
}

void BsClipThumbnailService::onDataModelEvent(const char*, const void*, void*) {
    for (const auto& impl : BsClipThumbnailServiceRegistry::instance().live())
        if (BsTimelineChangedInfo* info = impl->changedInfo()) info->processChanges(impl);
}

int32_t BsClipThumbnailService::setProperty(const char* key, const ZorProperty& value) {
    if (key == nullptr || std::strcmp(key, ClipThumbnailKey::enableCalcDucking) != 0) return kResultFailure;
    enableCalcDucking_.store(value.boolValue());
    return 0;
}

int32_t BsClipThumbnailService::getProperty(const char* key, ZorProperty* value) {
    if (key == nullptr || std::strcmp(key, ClipThumbnailKey::enableCalcDucking) != 0) return kResultFailure;
    if (value != nullptr) *value = boolProperty(enableCalcDucking_.load());
    return 0;
}

int32_t BsClipThumbnailService::addVideoClipThumbnailCallback(IBsVideoClipThumbnailCallback* callback) {
    for (auto& [pointer, impl] : acquired_) impl->addVideoClipThumbnailCallback(callback);
    return BaseCallBack<IBsVideoClipThumbnailCallback>::addCallBack(callback);
}

int32_t BsClipThumbnailService::addAudioClipThumbnailCallback(IBsAudioClipThumbnailCallback* callback) {
    for (auto& [pointer, impl] : acquired_) impl->addAudioClipThumbnailCallback(callback);
    return BaseCallBack<IBsAudioClipThumbnailCallback>::addCallBack(callback);
}

int32_t BsClipThumbnailService::removeVideoClipThumbnailCallback(IBsVideoClipThumbnailCallback* callback) {
    for (auto& [pointer, impl] : acquired_) impl->removeVideoClipThumbnailCallback(callback);
    return BaseCallBack<IBsVideoClipThumbnailCallback>::removeCallBack(callback);
}

int32_t BsClipThumbnailService::removeAudioClipThumbnailCallback(IBsAudioClipThumbnailCallback* callback) {
    for (auto& [pointer, impl] : acquired_) impl->removeAudioClipThumbnailCallback(callback);
    return BaseCallBack<IBsAudioClipThumbnailCallback>::removeCallBack(callback);
}

int32_t BsClipThumbnailService::clearAudioRawSamples(IDmClip* clip) {
    IDmClip* audioClip = getBaseAudioClip(clip);
    if (audioClip == nullptr) return kResultFailure;
    acquire(timelineOfClip(audioClip))->clearAudioRawSamples(audioClip);
    return 0;
}

int32_t BsClipThumbnailService::queryAudioThumbnailData(IDmClip* clip, int64_t beginCns, int64_t endCns,
                                                        uint32_t sampleCount) {
    // A refused query is learnt of only by never receiving data.
    acquire(timelineOfClip(clip))->queryAudioThumbnailData(this, clip, beginCns, endCns, sampleCount);
    return 0;
}

int32_t BsClipThumbnailService::cancelAudioThumbnailQuery(IDmClip* clip) {
    acquire(timelineOfClip(clip))->cancelAudioThumbnailQuery(this, clip);
    return 0;
}

int32_t BsClipThumbnailService::queryVideoThumbnail(VideoThumbnailRequest* request) {
    IDmClip* clip = request != nullptr ? request->clip : nullptr;
    acquire(timelineOfClip(clip))->queryVideoThumbnail(request);
    return 0;
}

int32_t BsClipThumbnailService::cancelVideoThumbnailQuery(IDmClip* clip) {
    // The clip stays watched: only its audio cancel unwatches it.
    acquire(timelineOfClip(clip))->cancelVideoThumbnailQuery(clip);
    return 0;
}

IBsAudioClipThumbnailCallback* BsClipThumbnailService::getResultCallback() {
    return static_cast<IBsAudioClipThumbnailCallback*>(this);
}

bool BsClipThumbnailService::isCalcDuckingEnabled() { return enableCalcDucking_.load(); }

int32_t BsClipThumbnailService::onAudioThumbnailNotice(IDmClip* clip) {
    BaseCallBack<IBsAudioClipThumbnailCallback>::notifyCallBacks(
        [&](IBsAudioClipThumbnailCallback* callback) { callback->onAudioThumbnailNotice(clip); });
    return 0;
}

int32_t BsClipThumbnailService::onAudioThumbnailChanged(IDmClip* audioClip) {
    BaseCallBack<IBsAudioClipThumbnailCallback>::notifyCallBacks(
        [&](IBsAudioClipThumbnailCallback* callback) { callback->onAudioThumbnailChanged(audioClip); });
    return 0;
}

int32_t BsClipThumbnailService::onAudioThumbnailData(IDmClip* clip, int64_t beginCns, int64_t endCns,
                                                     const float* samples, int32_t count) {
    BaseCallBack<IBsAudioClipThumbnailCallback>::notifyCallBacks([&](IBsAudioClipThumbnailCallback* callback) {
        callback->onAudioThumbnailData(clip, beginCns, endCns, samples, count);
    });
    return 0;
}

}  // namespace ZOR
