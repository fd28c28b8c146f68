#!/usr/bin/env bash
# Runs the fuzz targets: builds them with clang, libFuzzer, AddressSanitizer
# and UndefinedBehaviorSanitizer in their own build folder, then runs one
# target or all of them for SECONDS each (default 60), printing libFuzzer's
# summary lines.
#
#     scripts/fuzz.sh [TARGET|all] [SECONDS]
#
# TARGET is one of: otio_document png_load media_probe audio_wave frame_at
# wave_store. Everything the runs keep lives outside the repository, under
# $MIRAVEL_FUZZ_DIR (default ~/.cache/miravel-fuzz): build/ the build folder,
# seeds/ the generated seeds, corpus/<target>/ what libFuzzer found worth
# keeping (it grows from run to run), crashes/<target>/ the inputs of any
# crash, leak or timeout, logs/ the full output, and runs.tsv one line per run
# (date, target, seconds, executions, coverage, features, corpus size, result).
# Exits 1 when a target found a fault, 2 on a usage error.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
targets=(otio_document png_load media_probe audio_wave frame_at wave_store)
usage() {
  echo "usage: scripts/fuzz.sh [TARGET|all] [SECONDS]   (TARGET: ${targets[*]})" >&2
  exit 2
}
[[ $# -le 2 ]] || usage
what=${1:-all}
seconds=${2:-60}
[[ "$seconds" =~ ^[1-9][0-9]{0,6}$ ]] || { echo "fuzz.sh: SECONDS must be a whole number from 1 to 9999999, not '$seconds'" >&2; usage; }
if [[ "$what" == all ]]; then
  chosen=("${targets[@]}")
else
  found=0
  for target in "${targets[@]}"; do [[ "$target" == "$what" ]] && found=1; done
  [[ $found -eq 1 ]] || { echo "fuzz.sh: unknown target '$what'" >&2; usage; }
  chosen=("$what")
fi

"$root/scripts/deps.sh" fuzz

work=${MIRAVEL_FUZZ_DIR:-${XDG_CACHE_HOME:-$HOME/.cache}/miravel-fuzz}
case "$work/" in
  "$root"/*) echo "fuzz.sh: MIRAVEL_FUZZ_DIR must be outside the repository ($root)" >&2; exit 2 ;;
esac
build=$work/build
mkdir -p "$work/logs"

# -O1 and line tables, as the sanitizers advise.
cmake -S "$root" -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g1" \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1" -DMIRAVEL_FUZZ=ON -DMIRAVEL_BUILD_TESTS=OFF \
  -DMIRAVEL_BUILD_VIEWER=OFF -DMIRAVEL_BUILD_TOOLS=ON >/dev/null
build_targets=(miravel)
for target in "${chosen[@]}"; do build_targets+=("fuzz_$target"); done
cmake --build "$build" -j "$(nproc 2>/dev/null || echo 2)" --target "${build_targets[@]}"

# The seeds are made again each time (a few seconds); the corpus is kept.
MIRAVEL_BIN=$build/bin/miravel "$root/scripts/fuzz-seeds.sh" "$work/seeds" >"$work/logs/seeds.log" 2>&1 ||
  { cat "$work/logs/seeds.log" >&2; exit 1; }

# Leaks are faults too; a sanitizer report ends the run with the input kept.
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}"

faults=0
[[ -f "$work/runs.tsv" ]] || printf 'date\ttarget\tseconds\texecutions\tcoverage\tfeatures\tcorpus\tresult\n' >"$work/runs.tsv"
for target in "${chosen[@]}"; do
  corpus=$work/corpus/$target
  crashes=$work/crashes/$target
  mkdir -p "$corpus" "$crashes"
  log=$work/logs/$target-$(date -u +%Y%m%dT%H%M%SZ).log
  options=(-max_total_time="$seconds" -print_final_stats=1 -timeout=60 -rss_limit_mb=3072
    -max_len=65536 -artifact_prefix="$crashes/")
  [[ "$target" == otio_document ]] && options+=(-dict="$root/tools/fuzz/otio.dict")
  echo "==== $target: $seconds s (corpus $corpus)"
  started=$(date +%s)
  status=0
  (cd "$work" && "$build/bin/fuzz_$target" "${options[@]}" "$corpus" "$work/seeds/$target") >"$log" 2>&1 || status=$?
  elapsed=$(($(date +%s) - started))
  # libFuzzer's own summary: its last status line, "Done ..." and the final stats.
  grep -E '^#[0-9]+[[:space:]]+(DONE|INITED)|^Done [0-9]+ runs|^stat::|^==[0-9]+==ERROR|^SUMMARY|artifact_prefix|Test unit written' "$log" | tail -n 12 || true
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  last=$(grep -E '^#[0-9]+' "$log" | tail -n 1 || true)
  coverage=$(sed -n 's/.* cov: \([0-9]*\).*/\1/p' <<<"$last")
  features=$(sed -n 's/.* ft: \([0-9]*\).*/\1/p' <<<"$last")
  units=$(find "$corpus" -type f | wc -l)
  if [[ $status -eq 0 ]]; then result=clean; else result="fault (exit $status; see $log)"; faults=$((faults + 1)); fi
  printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$(date -u +%Y-%m-%dT%H:%M:%SZ)" "$target" "$elapsed" \
    "${executions:-0}" "${coverage:-0}" "${features:-0}" "$units" "$result" >>"$work/runs.tsv"
  echo "$target: ${executions:-0} executions in $elapsed s, coverage ${coverage:-0}, $units corpus files: $result"
done
exit $((faults > 0 ? 1 : 0))
