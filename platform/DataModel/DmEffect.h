// The audio effects of a timeline clip: ducking (4109), volume keyframes
// (4110) and reverse play (4139).
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmTimeline.h"

namespace ZOR {

// One effect of a clip. Its type and name are fixed; its settings (on/off,
// values, keyframes) are changed by edits on the event thread and read from
// any thread, each read under the effect's lock.
class DmEffect final : public RefCnt<void>, public virtual IDmEffect {
public:
    ZOR_IMPLEMENT_REFCNT

    // What an edit may change.
    struct Settings {
        bool enabled = true;
        std::vector<float> values;              // in order of their index
        std::vector<DmKeyframeDesc> keyframes;  // of property 1 (the volume's level)

        bool operator==(const Settings& other) const;
    };

    DmEffect(int32_t type, std::string name, IDmClip* owner, Settings settings);
    DmEffect(const DmEffect&) = delete;
    DmEffect& operator=(const DmEffect&) = delete;

    void* queryInterface(const char* name) override;

    int32_t effectType() override;
    const char* effectName() override;
    bool isEnabled() override;
    IDmClip* ownerClip() override;
    // 0 for an index the effect has no value at.
    float value(int32_t index) override;
    int32_t keyframeCount(int32_t property) override;
    // 0 on success; 1001 for a property or index without a keyframe.
    int32_t keyframe(int32_t property, int32_t index, int64_t* time, double* value) override;

    Settings settings() const;
    void setSettings(Settings settings);

    // The owning clip is going: forget it.
    void detachFromClip() { owner_.store(nullptr, std::memory_order_release); }

    // The property whose keyframes the volume effect holds (its level in dB).
    static constexpr int32_t kLevelProperty = 1;

private:
    const int32_t type_;
    const std::string name_;
    std::atomic<IDmClip*> owner_;  // plain back pointer; null once the clip is gone

    mutable std::mutex lock_;  // leaf: guards settings_ only
    Settings settings_;        // guarded by lock_
};

// The name of an effect type ("audio/effect/ducking", ...); "" for another type.
const char* effectNameOf(int32_t type);

// The settings of the ducking effect described by ducking (present or not).
DmEffect::Settings duckingSettings(const DmDuckingDesc& ducking);
// The settings of a volume effect with these keyframes (kept in their order).
DmEffect::Settings volumeSettings(std::vector<DmKeyframeDesc> keyframes);
// The settings of the reverse-play effect.
DmEffect::Settings reverseSettings();

// The effects a clip description asks for, in the order ducking, volume,
// reverse play; each with one reference for the caller.
std::vector<DmEffect*> makeClipEffects(const DmClipDesc& desc, IDmClip* owner);

}  // namespace ZOR
