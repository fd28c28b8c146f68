// What the audio wave task must extract before a command reads the wave
// store: the frames of a range that the store does not hold.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "DataModel/DataModel.h"
#include "DataModel/DmMediaInternal.h"

namespace miravel {

// Extracts the frames of [first, last] that store (the wave store of clip's
// stream) lacks, with a progress line under progressLabel (none when null),
// and waits for them at most timeout. Throws Failure naming media and the
// cause when the audio cannot be decoded or the time runs out.
void extractMissingWave(const std::string& media, ZOR::IDmClip* clip, ZOR::IDmAudioWaveStore* store, int32_t first,
                        int32_t last, std::chrono::seconds timeout, const char* progressLabel);

}  // namespace miravel
