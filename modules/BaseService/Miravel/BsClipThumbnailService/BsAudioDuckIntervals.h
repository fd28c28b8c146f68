// The ducking intervals of a timeline as the audio thumbnails apply them: one
// record per clip whose ducking effect lowers the others, and the factor the
// records give at a time.
#pragma once

#include <cstdint>
#include <vector>

#include "Common/ZorInternalComUtility.h"
#include "DataModel/DataModel.h"

namespace ZOR {

// One ducking interval.
struct FAudioDuckInfo {
    uint32_t changes = 0;  // bits noted since the last rebuild; 0x80: the clip is gone
    ZorRef<IDmClip> clip;  // the clip whose ducking effect makes the interval
    int64_t begin = 0;
    int64_t end = 0;
    double depth = 0.0;
    double fade = 0.0;       // seconds
    double fadeRatio = 0.0;  // the part of the fade inside [begin, end]
};

// The ducking factor at clip time t: 1 - the deepest level of the records
// (not their sum).
double duckingFactor(const std::vector<FAudioDuckInfo>& records, int64_t t);

// Whether two record lists describe the same intervals of the same clips.
bool sameRecords(const std::vector<FAudioDuckInfo>& a, const std::vector<FAudioDuckInfo>& b);

}  // namespace ZOR
