// The time mapping of a timeline clip, from clip time to media position. The
// clips use it to answer sourcePosition(); the document reader uses it to cut
// clips at the edges of nested compositions without changing what they play.
#pragma once

#include <cstdint>
#include <vector>

#include "DataModel/DmTimeline.h"

namespace ZOR {

// The media position that clip time c plays, before any reverse mirroring:
// counted from markIn through the speed parts (sorted by begin) when there are
// any, at speed 1 between them; otherwise at the constant speed. Rounded to
// the nearest cns.
int64_t forwardMediaPosition(const std::vector<DmSpeedPartDesc>& sortedParts, double speed, int64_t markIn, int64_t c);

}  // namespace ZOR
