// The commands of the miravel command line. Each returns the exit code, or
// throws UsageError (exit 2) or Failure (exit 1).
#pragma once

namespace miravel {

int runWave(int argc, char** argv);
int runFrames(int argc, char** argv);

}  // namespace miravel
