// Background threads of the viewer give way to the UI thread.
#pragma once

namespace miravel::view {

// Lowers the calling thread's scheduling priority (nice 10). Threads it
// starts afterwards inherit it: the clip thumbnail service's workers and
// extraction tasks, started by the document's thread, and the media
// thumbnail manager's worker, started by the thumbnails' thread, so that
// decoding never takes the processor from the UI thread. Nothing the UI
// thread waits for runs at that priority.
void lowerThisThreadsPriority();

}  // namespace miravel::view
