// Miravel: thumbnails for a video editor's media and timeline.
//
// The umbrella header: everything a client includes.
#pragma once

#include "Miravel/ClipThumbnailKey.h"
#include "Miravel/IBsAudioWaveExtractWrapper.h"
#include "Miravel/IBsClipThumbnailCallbacks.h"
#include "Miravel/IBsClipThumbnailService.h"
#include "Miravel/IBsThumbManager.h"
#include "Miravel/IBsVideoFrameExtractWrapper.h"
#include "Miravel/MiravelExport.h"
