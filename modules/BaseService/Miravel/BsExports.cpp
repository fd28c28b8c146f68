// The library's exported entry points.
#include "Miravel/ClipThumbnailKey.h"

namespace ZOR {

const char* const ClipThumbnailKey::enableCalcDucking = "enableCalcDucking";

}  // namespace ZOR
