#!/usr/bin/env bash
# A cold 2,000-point audio thumbnail of a whole 60-minute MP3 clip, query to
# callback, beside the audio wave extraction task alone extracting the same
# frames (bench/AudioColdQueryBench.cpp).
#
# Usage: bench/run_audio_cold_bench.sh [build-dir] [--json] [extra benchmark flags...]
#   build-dir  defaults to ./build-bench
#   --json     print JSON instead of the console table
#
# Configures a Release build with the benchmarks on and the tests off, builds
# miravel_bench_audio_cold and runs it with 5 repetitions (every repetition's
# figures and the aggregates). The MP3 (60 minutes of a 440 Hz sine, stereo,
# 44.1 kHz, 128 kbit/s) is made with ffmpeg once and kept under the build
# folder (bench-media/sine-60min.mp3) for the next run; it is read once before
# the run so that it is in the page cache. The benchmark changes the file's
# modification time while it runs (see the source) and puts it back.
set -euo pipefail

# shellcheck source=bench/common.sh
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
bench_parse_args "$@"

command -v ffmpeg > /dev/null || { echo "ffmpeg is missing (apt-get install ffmpeg)" >&2; exit 1; }

bench_build miravel_bench_audio_cold

media_dir="${build_dir}/bench-media"
mp3="${media_dir}/sine-60min.mp3"
mkdir -p "${media_dir}"
if [[ ! -s "${mp3}" ]]; then
  echo "making ${mp3} (60 min, 440 Hz sine, stereo, 44.1 kHz, 128k)" >&2
  ffmpeg -nostdin -v error -y -f lavfi -i "sine=frequency=440:duration=3600" \
    -ac 2 -ar 44100 -c:a libmp3lame -b:a 128k -f mp3 "${mp3}.tmp"
  mv "${mp3}.tmp" "${mp3}"
fi
cat "${mp3}" > /dev/null  # in the page cache for both benchmarks

MIRAVEL_BENCH_MP3="$(cd "$(dirname "${mp3}")" && pwd)/$(basename "${mp3}")" \
  "${build_dir}/bin/miravel_bench_audio_cold" \
  --benchmark_repetitions=5 \
  --benchmark_format="${format}" \
  "${extra[@]+"${extra[@]}"}"
