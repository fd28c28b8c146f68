#include "DmTrack.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

#include "DataModel/DmKeyTexts.h"
#include "DmTimelineClip.h"

namespace ZOR {

namespace {

constexpr int32_t kOk = 0;
constexpr int32_t kUnknownKey = 1005;

}  // namespace

DmTrack::DmTrack(DmTimeline* owner, int32_t index, int32_t kind, std::string name, bool mute, bool visible, bool solo)
    : owner_(owner), index_(index), kind_(kind), name_(std::move(name)), mute_(mute), visible_(visible), solo_(solo) {}

DmTrack::~DmTrack() {
    // The last reference is gone: nobody else can look at clips_ any more.
    for (DmTimelineClip* clip : clips_) {
        clip->detachFromTrack();
        clip->Release();
    }
}

void* DmTrack::queryInterface(const char* name) {
    if (name == nullptr) return nullptr;
    if (std::strcmp(name, "IDmTrack") == 0) return static_cast<IDmTrack*>(this);
    if (std::strcmp(name, "IDmPropertyOwner") == 0) return static_cast<IDmPropertyOwner*>(this);
    if (std::strcmp(name, "IDmCallbackSource") == 0) return static_cast<IDmCallbackSource*>(this);
    if (std::strcmp(name, "IDmBaseObj") == 0) return static_cast<IDmBaseObj*>(static_cast<IDmTrack*>(this));
    if (std::strcmp(name, "RefCnt") == 0) return static_cast<RefCnt<void>*>(this);
    return nullptr;
}

int32_t DmTrack::trackKind() { return kind_; }

IDmTimeline* DmTrack::owner() {
    DmTimeline* timeline = owner_.load(std::memory_order_acquire);
    return timeline != nullptr ? static_cast<IDmTimeline*>(timeline) : nullptr;
}

int32_t DmTrack::trackIndex() { return index_; }

std::atomic<bool>* DmTrack::flag(const char* key) {
    if (std::strcmp(key, keytext::kTrackMute) == 0) return &mute_;
    if (std::strcmp(key, keytext::kTrackVisible) == 0) return &visible_;
    if (std::strcmp(key, keytext::kTrackSolo) == 0) return &solo_;
    return nullptr;
}

int32_t DmTrack::getProperty(const char* key, ZorProperty* value) {
    if (key == nullptr || value == nullptr) return kResultFailure;
    std::atomic<bool>* found = flag(key);
    if (found == nullptr) return kUnknownKey;
    *value = boolProperty(found->load(std::memory_order_acquire));
    return kOk;
}

int32_t DmTrack::setProperty(const char* key, const ZorProperty& value) {
    if (key == nullptr) return kResultFailure;
    std::atomic<bool>* found = flag(key);
    if (found == nullptr) return kUnknownKey;
    if (value.kind == ZorProperty::None) return kResultFailure;
    found->store(value.boolValue(), std::memory_order_release);
    return kOk;
}

int32_t DmTrack::registerCallback(IDmBaseObj* listener) { return callbacks_.add(listener); }
int32_t DmTrack::unregisterCallback(IDmBaseObj* listener) { return callbacks_.remove(listener); }

void DmTrack::appendClip(DmTimelineClip* clip) {
    std::lock_guard<std::mutex> lock(clipsLock_);
    clips_.push_back(clip);
}

void DmTrack::detachFromTimeline() {
    owner_.store(nullptr, std::memory_order_release);
    std::lock_guard<std::mutex> lock(clipsLock_);
    for (DmTimelineClip* clip : clips_) clip->forgetTimeline();
}

void DmTrack::insertClip(DmTimelineClip* clip, int32_t index) {
    clip->AddRef();
    std::lock_guard<std::mutex> lock(clipsLock_);
    const size_t at = index < 0 ? 0 : std::min(static_cast<size_t>(index), clips_.size());
    clips_.insert(clips_.begin() + static_cast<std::ptrdiff_t>(at), clip);
    clip->placeOn(owner_.load(std::memory_order_acquire), this, index_, static_cast<int32_t>(at));
    renumberLocked(at + 1);
}

int32_t DmTrack::removeClip(DmTimelineClip* clip) {
    int32_t removedAt = -1;
    {
        std::lock_guard<std::mutex> lock(clipsLock_);
        auto found = std::find(clips_.begin(), clips_.end(), clip);
        if (found == clips_.end()) return -1;
        removedAt = static_cast<int32_t>(found - clips_.begin());
        clips_.erase(found);
        clip->takeOff();
        renumberLocked(static_cast<size_t>(removedAt));
    }
    clip->Release();
    return removedAt;
}

void DmTrack::renumberLocked(size_t first) {
    for (size_t i = first; i < clips_.size(); ++i) clips_[i]->setPosition(index_, static_cast<int32_t>(i));
}

int32_t DmTrack::clipCount() const {
    std::lock_guard<std::mutex> lock(clipsLock_);
    return static_cast<int32_t>(clips_.size());
}

DmTimelineClip* DmTrack::clipAt(int32_t index) const {
    std::lock_guard<std::mutex> lock(clipsLock_);
    if (index < 0 || static_cast<size_t>(index) >= clips_.size()) return nullptr;
    return clips_[static_cast<size_t>(index)];
}

int32_t DmTrack::indexOf(const DmTimelineClip* clip) const {
    std::lock_guard<std::mutex> lock(clipsLock_);
    auto found = std::find(clips_.begin(), clips_.end(), clip);
    return found == clips_.end() ? -1 : static_cast<int32_t>(found - clips_.begin());
}

std::vector<DmTimelineClip*> DmTrack::clips() const {
    std::lock_guard<std::mutex> lock(clipsLock_);
    return clips_;
}

}  // namespace ZOR
