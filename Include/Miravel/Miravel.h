// Miravel: thumbnails for a video editor's media and timeline.
//
// The umbrella header: everything a client includes. What holds for every
// interface here:
// - Objects come from the four exported factories, each with one reference
//   owned by the caller; give it back with Release(). The last Release()
//   stops the object's work and may wait for its threads, so it is never
//   made from inside one of the object's callbacks.
// - Results are 32-bit codes: 0 success, 1001 (ZOR::kResultFailure) the
//   failure. A few operations pass on the background task service's own
//   codes (1002 task shut down, 1004 no media it can decode, 1005 a size or
//   rate it does not make) or the frame decoder's (1002 media that cannot be
//   read); each says so.
// - Times are in cns (100 ns, 10,000,000 a second).
// - Callback interfaces are not reference counted: registering takes no
//   reference; keep the object alive until its removal has returned.
//   Callbacks run on the library's threads (or, where a header says so, on
//   the caller's thread during the call) with the callback list's lock held:
//   copy what you need and return.
// - Data-model objects passed in are used during the call; the library takes
//   its own references on those it keeps (not on a MediaThumbRequest's
//   mediaObject). Pointers handed to a callback
//   carry no reference and, with the buffers they point to, are valid during
//   the call only unless the header says otherwise.
//
// docs/architecture.md draws the threads and the roads of data;
// docs/embedding.md shows how an editor wires the library in.
#pragma once

#include "Miravel/ClipThumbnailKey.h"
#include "Miravel/IBsAudioWaveExtractWrapper.h"
#include "Miravel/IBsClipThumbnailCallbacks.h"
#include "Miravel/IBsClipThumbnailService.h"
#include "Miravel/IBsThumbManager.h"
#include "Miravel/IBsVideoFrameExtractWrapper.h"
#include "Miravel/MiravelExport.h"
