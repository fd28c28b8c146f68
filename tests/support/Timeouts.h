// How long a test waits for what another thread is to do before it calls the
// wait a failure. A wait ends as soon as what it waits for happens: these are
// limits for a loaded machine, a sanitizer build, or both, and never how long
// a passing test takes.
#pragma once

#include <chrono>

namespace ZOR::test {

// A callback, a report, a worker's step, an event or a file.
inline constexpr std::chrono::seconds kGenerous{60};

// The threads of a stress test (thousands of iterations each, under
// ThreadSanitizer on a shared machine), and the viewer's windows, which
// decode and draw a whole timeline, to be done.
inline constexpr std::chrono::seconds kGenerousForStress{240};

}  // namespace ZOR::test
