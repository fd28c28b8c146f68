#include "DmEffect.h"

#include <cstring>
#include <utility>

namespace ZOR {

namespace {

constexpr int32_t kOk = 0;

}  // namespace

bool DmEffect::Settings::operator==(const Settings& other) const {
    if (enabled != other.enabled || values != other.values || keyframes.size() != other.keyframes.size()) return false;
    for (size_t i = 0; i < keyframes.size(); ++i)
        if (keyframes[i].time != other.keyframes[i].time || keyframes[i].db != other.keyframes[i].db) return false;
    return true;
}

DmEffect::DmEffect(int32_t type, std::string name, IDmClip* owner, Settings settings)
    : type_(type), name_(std::move(name)), owner_(owner), settings_(std::move(settings)) {}

void* DmEffect::queryInterface(const char* name) {
    if (name != nullptr && std::strcmp(name, "RefCnt") == 0) return static_cast<RefCnt<void>*>(this);
    return zorQueryInterface(name, "IDmEffect", static_cast<IDmEffect*>(this));
}

int32_t DmEffect::effectType() { return type_; }
const char* DmEffect::effectName() { return name_.c_str(); }
IDmClip* DmEffect::ownerClip() { return owner_.load(std::memory_order_acquire); }

bool DmEffect::isEnabled() {
    std::lock_guard<std::mutex> lock(lock_);
    return settings_.enabled;
}

float DmEffect::value(int32_t index) {
    std::lock_guard<std::mutex> lock(lock_);
    if (index < 0 || static_cast<size_t>(index) >= settings_.values.size()) return 0.0f;
    return settings_.values[static_cast<size_t>(index)];
}

int32_t DmEffect::keyframeCount(int32_t property) {
    std::lock_guard<std::mutex> lock(lock_);
    return property == kLevelProperty ? static_cast<int32_t>(settings_.keyframes.size()) : 0;
}

int32_t DmEffect::keyframe(int32_t property, int32_t index, int64_t* time, double* value) {
    std::lock_guard<std::mutex> lock(lock_);
    if (property != kLevelProperty || index < 0 || static_cast<size_t>(index) >= settings_.keyframes.size())
        return kResultFailure;
    const DmKeyframeDesc& found = settings_.keyframes[static_cast<size_t>(index)];
    if (time != nullptr) *time = found.time;
    if (value != nullptr) *value = found.db;
    return kOk;
}

DmEffect::Settings DmEffect::settings() const {
    std::lock_guard<std::mutex> lock(lock_);
    return settings_;
}

void DmEffect::setSettings(Settings settings) {
    std::lock_guard<std::mutex> lock(lock_);
    settings_ = std::move(settings);
}

const char* effectNameOf(int32_t type) {
    switch (type) {
        case DmEffectDucking:
            return "audio/effect/ducking";
        case DmEffectVolume:
            return "audio/effect/volume";
        case DmEffectReversePlay:
            return "audio/effect/reverse";
        default:
            return "";
    }
}

DmEffect::Settings duckingSettings(const DmDuckingDesc& ducking) {
    DmEffect::Settings settings;
    settings.enabled = ducking.enabled;
    settings.values = {static_cast<float>(ducking.depth), static_cast<float>(ducking.fade),
                       static_cast<float>(ducking.fadeRatio)};
    return settings;
}

DmEffect::Settings volumeSettings(std::vector<DmKeyframeDesc> keyframes) {
    DmEffect::Settings settings;
    settings.keyframes = std::move(keyframes);
    return settings;
}

DmEffect::Settings reverseSettings() {
    DmEffect::Settings settings;
    settings.values = {1.0f};
    return settings;
}

std::vector<DmEffect*> makeClipEffects(const DmClipDesc& desc, IDmClip* owner) {
    std::vector<DmEffect*> effects;
    auto add = [&effects, owner](int32_t type, DmEffect::Settings settings) {
        auto* effect = new DmEffect(type, effectNameOf(type), owner, std::move(settings));
        effect->AddRef();
        effects.push_back(effect);
    };
    if (desc.ducking.present) add(DmEffectDucking, duckingSettings(desc.ducking));
    if (!desc.volumeKeyframes.empty()) add(DmEffectVolume, volumeSettings(desc.volumeKeyframes));
    if (desc.reverse) add(DmEffectReversePlay, reverseSettings());
    return effects;
}

}  // namespace ZOR
