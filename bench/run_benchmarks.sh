#!/usr/bin/env bash
# Configures a Release build with the benchmarks on and the tests off, builds
# the benchmark targets and runs each with 5 repetitions (aggregates only).
#
# Usage: bench/run_benchmarks.sh [build-dir] [--json] [extra benchmark flags...]
#   build-dir  defaults to ./build-bench
#   --json     print JSON instead of the console table
# Any further arguments (e.g. --benchmark_filter=RefCnt) go to every binary.
set -euo pipefail

script_dir="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
source_dir="$(cd "${script_dir}/.." && pwd)"

build_dir="./build-bench"
if [[ $# -gt 0 && "$1" != --* ]]; then
  build_dir="$1"
  shift
fi
format="console"
extra=()
for arg in "$@"; do
  if [[ "$arg" == "--json" ]]; then format="json"; else extra+=("$arg"); fi
done

benchmarks=(miravel_bench_foundation miravel_bench_audio)

cmake -S "${source_dir}" -B "${build_dir}" \
  -DCMAKE_BUILD_TYPE=Release \
  -DMIRAVEL_BUILD_BENCHMARKS=ON \
  -DMIRAVEL_BUILD_TESTS=OFF >&2
cmake --build "${build_dir}" --parallel "$(nproc)" --target "${benchmarks[@]}" >&2

for bench in "${benchmarks[@]}"; do
  "${build_dir}/bin/${bench}" \
    --benchmark_repetitions=5 \
    --benchmark_report_aggregates_only=true \
    --benchmark_format="${format}" \
    "${extra[@]+"${extra[@]}"}"
done
