#include "DmEffect.h"

#include <cstring>
#include <utility>

namespace ZOR {

namespace {

constexpr int32_t kOk = 0;
constexpr int32_t kBadArgument = 1001;

}  // namespace

DmEffect::DmEffect(int32_t type, std::string name, bool enabled, IDmClip* owner, std::vector<float> values,
                   std::vector<DmKeyframeDesc> keyframes)
    : type_(type),
      name_(std::move(name)),
      enabled_(enabled),
      owner_(owner),
      values_(std::move(values)),
      keyframes_(std::move(keyframes)) {}

void* DmEffect::queryInterface(const char* name) {
    if (name != nullptr && std::strcmp(name, "RefCnt") == 0) return static_cast<RefCnt<void>*>(this);
    return zorQueryInterface(name, "IDmEffect", static_cast<IDmEffect*>(this));
}

int32_t DmEffect::effectType() { return type_; }
const char* DmEffect::effectName() { return name_.c_str(); }
bool DmEffect::isEnabled() { return enabled_; }
IDmClip* DmEffect::ownerClip() { return owner_.load(std::memory_order_acquire); }

float DmEffect::value(int32_t index) {
    if (index < 0 || static_cast<size_t>(index) >= values_.size()) return 0.0f;
    return values_[static_cast<size_t>(index)];
}

int32_t DmEffect::keyframeCount(int32_t property) {
    return property == kLevelProperty ? static_cast<int32_t>(keyframes_.size()) : 0;
}

int32_t DmEffect::keyframe(int32_t property, int32_t index, int64_t* time, double* value) {
    if (property != kLevelProperty || index < 0 || static_cast<size_t>(index) >= keyframes_.size())
        return kBadArgument;
    const DmKeyframeDesc& found = keyframes_[static_cast<size_t>(index)];
    if (time != nullptr) *time = found.time;
    if (value != nullptr) *value = found.db;
    return kOk;
}

std::vector<DmEffect*> makeClipEffects(const DmClipDesc& desc, IDmClip* owner) {
    std::vector<DmEffect*> effects;
    auto add = [&effects](DmEffect* effect) {
        effect->AddRef();
        effects.push_back(effect);
    };
    if (desc.ducking.present)
        add(new DmEffect(DmEffectDucking, "audio/effect/ducking", desc.ducking.enabled, owner,
                         {static_cast<float>(desc.ducking.depth), static_cast<float>(desc.ducking.fade),
                          static_cast<float>(desc.ducking.fadeRatio)},
                         {}));
    if (!desc.volumeKeyframes.empty())
        add(new DmEffect(DmEffectVolume, "audio/effect/volume", true, owner, {}, desc.volumeKeyframes));
    if (desc.reverse) add(new DmEffect(DmEffectReversePlay, "audio/effect/reverse", true, owner, {1.0f}, {}));
    return effects;
}

}  // namespace ZOR
