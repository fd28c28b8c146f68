// What the audio thumbnail builder's files share: the rate of wave frames,
// the change bits it acts on, the effects it reads, and the helpers both its
// request side and its parameter side use.
#pragma once

#include <cstdint>
#include <vector>

#include "BsAudioSampleCache.h"
#include "BsDataStructure/BsDataStructure.h"
#include "BsTimelineChangedInfo.h"
#include "DataModel/DataModel.h"
#include "DataModel/DmTime.h"

namespace ZOR::audio_thumbnails {

// Wave data is addressed in frames of 25 per second.
inline constexpr DmRational kWaveRate{25, 1};

// Change bits of a clip, as the timeline's change tracker sets them.
using Bits = BsTimelineChangedInfo::ChangeBits;
inline constexpr uint32_t kChangeMarks = Bits::kMarks;
inline constexpr uint32_t kChangeRange = Bits::kRange;
inline constexpr uint32_t kChangeLoudness = Bits::kLoudness;
inline constexpr uint32_t kChangeDucking = Bits::kDucking;
inline constexpr uint32_t kChangeSpeed = Bits::kSpeed;
inline constexpr uint32_t kChangeVolume = Bits::kVolume;
inline constexpr uint32_t kChangeRemoved = Bits::kRemoved;
inline constexpr uint32_t kChangeEnable = Bits::kEnable;
inline constexpr uint32_t kChangeStream = Bits::kStream;
inline constexpr uint32_t kChangeVolumeGain = Bits::kVolumeGain;
inline constexpr uint32_t kPositionBits = kChangeStream | kChangeSpeed | kChangeMarks;  // 0x422
inline constexpr uint32_t kAllPositionsBits = kChangeSpeed | kChangeMarks;              // 0x22
inline constexpr uint32_t kDuckingRelated = 0x3D4;
inline constexpr uint32_t kDuckingByOthers = 0x304;

inline constexpr int32_t kEffectDucking = 4109;
inline constexpr int32_t kEffectVolume = 4110;
inline constexpr int32_t kEffectReverse = 4139;

// The ducking effect of clip that counts: its base audio clip's effect 4109,
// unless that clip is muted or the effect is off.
IDmEffect* activeDuckingEffect(IDmClip* clip);

// Whether the timeline ranges of two clips overlap.
bool rangesOverlap(IDmClip* a, IDmClip* b);

// Reads one raw amplitude per position from the cache (its lock held).
int32_t readRawSamples(BsAudioSampleCache& cache, IZORLonglongList* positions, std::vector<float>& raw);

}  // namespace ZOR::audio_thumbnails
