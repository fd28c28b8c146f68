// Miravel: thumbnails for a video editor's media and timeline.
//
// The umbrella header: everything a client includes.
#pragma once

#include "Miravel/ClipThumbnailKey.h"
#include "Miravel/MiravelExport.h"
