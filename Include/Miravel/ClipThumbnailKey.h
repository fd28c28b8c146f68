// Property keys of the clip thumbnail service (IBsClipThumbnailService's
// setProperty and getProperty, which compare keys as text).
#pragma once

#include "Miravel/MiravelExport.h"

namespace ZOR {

struct ClipThumbnailKey {
    // "enableCalcDucking": whether audio thumbnails include the ducking that
    // other clips cause (a boolean property; default true).
    MIRAVEL_API static const char* const enableCalcDucking;
};

}  // namespace ZOR
