// The audio effects of a timeline clip: ducking (4109), volume keyframes
// (4110) and reverse play (4139).
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmTimeline.h"

namespace ZOR {

// One effect of a clip. Everything but the owner is fixed at construction,
// so every operation may be called from any thread.
class DmEffect final : public RefCnt<void>, public virtual IDmEffect {
public:
    ZOR_IMPLEMENT_REFCNT

    // The keyframes of property 1 (the volume's level) and the values, in
    // order of their index.
    DmEffect(int32_t type, std::string name, bool enabled, IDmClip* owner, std::vector<float> values,
             std::vector<DmKeyframeDesc> keyframes);
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

    // The owning clip is going: forget it.
    void detachFromClip() { owner_.store(nullptr, std::memory_order_release); }

    // The property whose keyframes the volume effect holds (its level in dB).
    static constexpr int32_t kLevelProperty = 1;

private:
    const int32_t type_;
    const std::string name_;
    const bool enabled_;
    std::atomic<IDmClip*> owner_;  // plain back pointer; null once the clip is gone
    const std::vector<float> values_;
    const std::vector<DmKeyframeDesc> keyframes_;
};

// The effects a clip description asks for, in the order ducking, volume,
// reverse play; each with one reference for the caller.
std::vector<DmEffect*> makeClipEffects(const DmClipDesc& desc, IDmClip* owner);

}  // namespace ZOR
