#!/usr/bin/env bash
# Builds and runs every test: the whole suite in a normal build, again under
# AddressSanitizer with UndefinedBehaviorSanitizer, and the concurrency tests
# under ThreadSanitizer, each in its own build folder. Any failure or
# sanitizer report fails the run.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/deps.sh" test

jobs=$(nproc 2>/dev/null || echo 2)
export CTEST_OUTPUT_ON_FAILURE=1
export ASAN_OPTIONS="halt_on_error=1:abort_on_error=1:detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1"
export UBSAN_OPTIONS="halt_on_error=1:abort_on_error=1:print_stacktrace=1"
export TSAN_OPTIONS="halt_on_error=1:abort_on_error=1:second_deadlock_stack=1"

# The sanitizer builds: -O1, as the sanitizers advise, and line tables only
# (-g1), enough for their reports to name files and lines; both compile much
# faster than -O2 -g.
sanitizer_flags="-O1 -g1 -DNDEBUG"

# suite <title> <build folder> <sanitizers> <build type> <target> [ctest options]
suite() {
  local title=$1 dir=$2 sanitize=$3 build_type=$4 target=$5; shift 5
  echo "==== $title ($dir)"
  cmake -S "$root" -B "$root/$dir" -DCMAKE_BUILD_TYPE="$build_type" \
    -DCMAKE_C_FLAGS_RELWITHDEBINFO="$sanitizer_flags" -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="$sanitizer_flags" \
    -DMIRAVEL_BUILD_TESTS=ON -DMIRAVEL_SANITIZE="$sanitize" >/dev/null
  cmake --build "$root/$dir" -j "$jobs" --target "$target"
  (cd "$root/$dir" && ctest -j "$jobs" --timeout 600 "$@")
}

# The normal build is a Release build, as the demo and the benchmarks use.
suite "tests" build "" Release all
suite "tests under AddressSanitizer and UndefinedBehaviorSanitizer" build-asan "address;undefined" RelWithDebInfo all
# Only the concurrency tests' executables are built here: no other runs.
suite "concurrency tests under ThreadSanitizer" build-tsan "thread" RelWithDebInfo miravel_concurrency_tests -L concurrency
echo "==== all test runs passed"
