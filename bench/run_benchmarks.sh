#!/usr/bin/env bash
# Configures a Release build with the benchmarks on and the tests off, builds
# the benchmark targets and runs each with 5 repetitions (aggregates only).
#
# Usage: bench/run_benchmarks.sh [build-dir] [--json] [extra benchmark flags...]
#   build-dir  defaults to ./build-bench
#   --json     print JSON instead of the console table
# Any further arguments (e.g. --benchmark_filter=RefCnt) go to every binary.
set -euo pipefail

# shellcheck source=bench/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
bench_parse_args "$@"

benchmarks=(miravel_bench_foundation miravel_bench_audio)

bench_build "${benchmarks[@]}"

for bench in "${benchmarks[@]}"; do
  "${build_dir}/bin/${bench}" \
    --benchmark_repetitions=5 \
    --benchmark_report_aggregates_only=true \
    --benchmark_format="${format}" \
    "${extra[@]+"${extra[@]}"}"
done
