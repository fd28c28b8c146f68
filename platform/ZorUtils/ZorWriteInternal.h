// Inside ZorUtils: the one way a file is written whole, shared by
// writeFileAtomically and dumpPNG.
#pragma once

#include <cstdio>
#include <functional>
#include <string>

namespace ZOR::write {

// Where a write failed.
enum class Stage { None, Open, Write, Close, Rename };

struct Outcome {
    Stage stage = Stage::None;
    int error = 0;  // errno; 0 when the write succeeded
};

// Writes target under a temporary name in its folder: fill writes the
// content into the open file and returns false on failure (errno telling
// why, or 0 for EIO). Then flush, fsync, close and rename over target. On
// failure the temporary is removed and the failure recorded for
// lastWriteFailure.
Outcome writeWhole(const std::string& target, const std::function<bool(std::FILE*)>& fill);

}  // namespace ZOR::write
