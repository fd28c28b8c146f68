#!/usr/bin/env bash
# Video clip thumbnails (bench/VideoThumbnailBench.cpp): cache lookups, a
# request whose 50 frames are cached, the heap per cached picture, the task's
# cost of one cold picture; then a cold request of 100 frames of a 10-minute
# 1080p file through the builder, beside the video frame task alone and the
# peers extracting the same 100 frames: ffmpeg (the fastest command line of
# bench/run_cli_benchmarks.sh: one accurate-seek process per frame, two at a
# time) and `miravel frames`.
#
# Usage: bench/run_video_thumbnail_bench.sh [build-dir] [--json] [--no-peers] [extra benchmark flags...]
#   build-dir   defaults to ./build-bench
#   --json      print the first part's results as JSON instead of the console table
#   --no-peers  leave the peers out of the rounds
#
# Environment:
#   MIRAVEL_CLIBENCH_WORK  work folder of the media (default /tmp/miravel-clibench, shared
#                          with bench/run_cli_benchmarks.sh)
#   MIRAVEL_BENCH_CLI      a miravel binary for the `miravel frames` peer (default:
#                          build-dir/bin/miravel when it exists; left out without one)
#   MIRAVEL_ROUNDS         rounds of the 100-frame comparison (default 3)
#   MIRAVEL_PEER_SELECT    1: also time ffmpeg's select-filter command line in every round
#                          (slower than the per-frame one in every run so far)
#
# Configures a Release build with the benchmarks on and the tests off and
# builds miravel_bench_video. The video (10 min, 1920x1080, 25 fps, H.264, a
# keyframe every 250 frames) is made with ffmpeg once, by the recipe of
# bench/run_cli_benchmarks.sh, and kept in the work folder; it is read once
# before the runs so that every side reads it from the page cache.
#
# First part: every benchmark but the two 100-frame ones, 5 repetitions (the
# memory count 1: fixed in the source), every repetition shown. Second part:
# MIRAVEL_ROUNDS rounds, each running the builder's cold 100-frame request
# and the task alone once (one benchmark repetition each), then each peer
# once, so that the sides of a round share the machine's load. Every cold run
# of every side starts with a new empty frame store (the benchmark's own
# folder; XDG_CACHE_HOME for `miravel frames`). The load average is printed
# before every run. Each round's results are in WORK/video-thumb-round-N.json.<benchmark>
# and summed up at the end.
set -euo pipefail

# shellcheck source=bench/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

build_dir="./build-bench"
if [[ $# -gt 0 && "$1" != --* ]]; then
  build_dir="$1"
  shift
fi
format="console"
peers=1
extra=()
for arg in "$@"; do
  case "$arg" in
    --json) format="json" ;;
    --no-peers) peers=0 ;;
    *) extra+=("$arg") ;;
  esac
done

for tool in ffmpeg ffprobe jq; do
  command -v "$tool" > /dev/null || { echo "$tool is missing (apt-get install ffmpeg jq)" >&2; exit 1; }
done

bench_build miravel_bench_video
build_dir="$(cd "${build_dir}" && pwd)"
bench="${build_dir}/bin/miravel_bench_video"

work="${MIRAVEL_CLIBENCH_WORK:-/tmp/miravel-clibench}"
video="${work}/video.mp4"
mkdir -p "${work}"
if [[ ! -s "${video}" ]]; then
  echo "making ${video} (10 min, 1920x1080, 25 fps, H.264, a keyframe every 250 frames)" >&2
  ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=25 -t 600 \
    -c:v libx264 -preset veryfast -g 250 -keyint_min 250 -sc_threshold 0 -pix_fmt yuv420p \
    -f mp4 "${video}.tmp"
  mv "${video}.tmp" "${video}"
fi
cat "${video}" > /dev/null  # in the page cache for every side
export MIRAVEL_BENCH_VIDEO="${video}"

say() { printf '%s\n' "$*" >&2; }
load() { uptime | sed 's/.*load average: //'; }

say "== Machine"
say "date -u: $(date -u)"
say "nproc: $(nproc)"
say "lscpu: $(lscpu | grep 'Model name' | sed 's/  */ /g')"
say "uptime: $(uptime)"
say "ffmpeg: $(ffmpeg -version | head -1)"
say "video: ${video} ($(ffprobe -v error -select_streams v:0 -show_entries stream=codec_name,width,height,r_frame_rate,nb_frames:format=duration -of compact=p=0:nk=0 "${video}" | paste -sd' ' -))"

say ""
say "== Part 1 (started $(date -u +%T) UTC, load $(load))"
"${bench}" \
  --benchmark_filter='-100Frames/' \
  --benchmark_repetitions=5 \
  --benchmark_format="${format}" \
  "${extra[@]+"${extra[@]}"}"
say "== Part 1 ended $(date -u +%T) UTC, load $(load)"

# ---------------------------------------------------------------- rounds
rounds="${MIRAVEL_ROUNDS:-3}"
cli="${MIRAVEL_BENCH_CLI:-${build_dir}/bin/miravel}"
out="${work}/video-thumb-peers"
times=$(for i in $(seq 0 99); do printf '%d\n' $((i * 60000000)); done | paste -sd, -)
seconds="${work}/seconds.txt"
seq 0 6 594 > "${seconds}"
one_frame="ffmpeg -v error -ss {} -i ${video} -an -frames:v 1 -s 160x90 -y"
peer_names=()
peer_commands=()
if [[ $peers == 1 ]]; then
  peer_names+=("ffmpeg per frame, xargs -P2")
  peer_commands+=("xargs -P2 -I{} ${one_frame} ${out}/par/t{}.png < ${seconds}")
  if [[ "${MIRAVEL_PEER_SELECT:-0}" == 1 ]]; then
    peer_names+=("ffmpeg select filter")
    peer_commands+=("ffmpeg -v error -i ${video} -an -vf \"select='not(mod(n\\,150))',scale=160:90\" -fps_mode passthrough -frames:v 100 -y ${out}/sel/f%03d.png")
  fi
  if [[ -x "${cli}" ]]; then
    peer_names+=("miravel frames")
    peer_commands+=("XDG_CACHE_HOME=${out}/cache ${cli} frames ${video} --times ${times} --size 160x90 > ${out}/frames.json")
  else
    say "no miravel binary at ${cli}: the \`miravel frames\` peer is left out (set MIRAVEL_BENCH_CLI)"
  fi
fi

# Runs a peer command line once with a new empty output folder; prints its
# wall time in seconds (3 decimals) and, when GNU time is there, user and
# system time.
time_peer() {
  rm -rf "${out}" && mkdir -p "${out}/cache" "${out}/par" "${out}/sel"
  local usage="${work}/video-thumb-usage.txt"
  local start end
  start=$(date +%s%N)
  if [[ -x /usr/bin/time ]]; then
    /usr/bin/time -f "%U %S" -o "${usage}" bash -c "$1"
  else
    bash -c "$1"
    echo "- -" > "${usage}"
  fi
  end=$(date +%s%N)
  read -r user sys < "${usage}"
  printf '%.3f s wall, user %s s, system %s s' "$(awk -v a="${start}" -v b="${end}" 'BEGIN { print (b - a) / 1e9 }')" \
    "${user}" "${sys}"
}

summary=()
for round in $(seq 1 "${rounds}"); do
  say ""
  say "== Round ${round} of ${rounds} (started $(date -u +%T) UTC)"
  json="${work}/video-thumb-round-${round}.json"
  for name in BM_VideoColdRequest100Frames BM_VideoColdTaskAlone100Frames; do
    say "-- ${name}, load $(load)"
    "${bench}" --benchmark_filter="^${name}/" --benchmark_repetitions=1 \
      --benchmark_out="${json}.${name}" --benchmark_out_format=json >&2
    line=$(jq -r '.benchmarks[] | select(.run_type == "iteration") |
      "first \(.first_ms | . * 10 | round / 10) ms (CPU \(.first_cpu_ms | round) ms), 50th \(.half_ms | round) ms, all \(.all_ms | round) ms (CPU \(.all_cpu_ms | round) ms)"' \
      "${json}.${name}")
    summary+=("round ${round}, ${name}: ${line}")
  done
  for i in "${!peer_commands[@]}"; do
    say "-- ${peer_names[$i]}, load $(load)"
    result=$(time_peer "${peer_commands[$i]}")
    if [[ "${peer_names[$i]}" == "miravel frames" ]]; then
      n=$(jq '.frames | length' "${out}/frames.json")
      bad=$(jq '[.frames[] | select(.time != .shown)] | length' "${out}/frames.json")
      result="${result}; ${n} frames, ${bad} not shown at their time"
    fi
    say "${result}"
    summary+=("round ${round}, ${peer_names[$i]}: ${result}")
  done
done
say ""
say "== Rounds ended $(date -u +%T) UTC, load $(load)"
for line in "${summary[@]}"; do say "${line}"; done
