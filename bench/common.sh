# Sourced by the bench/run_*.sh scripts, after `set -euo pipefail`.
#
# Sets source_dir, the top of the source tree, and gives:
#   bench_parse_args "$@"  [build-dir] [--json] [extra benchmark flags...]:
#                          build_dir (default ./build-bench), format
#                          ("json" with --json, else "console") and the array
#                          extra (every other argument, in order).
#   bench_build TARGET...  configures a Release build in build_dir with the
#                          benchmarks on and the tests off and builds TARGET...

source_dir="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

bench_parse_args() {
  build_dir="./build-bench"
  if [[ $# -gt 0 && "$1" != --* ]]; then
    build_dir="$1"
    shift
  fi
  format="console"
  extra=()
  local arg
  for arg in "$@"; do
    if [[ "$arg" == "--json" ]]; then format="json"; else extra+=("$arg"); fi
  done
}

bench_build() {
  cmake -S "${source_dir}" -B "${build_dir}" \
    -DCMAKE_BUILD_TYPE=Release \
    -DMIRAVEL_BUILD_BENCHMARKS=ON \
    -DMIRAVEL_BUILD_TESTS=OFF >&2
  cmake --build "${build_dir}" --parallel "$(nproc)" --target "$@" >&2
}
