#!/usr/bin/env bash
# The wave store against decoding: `miravel wave` of a 60-minute MP3 and WAV
# cold (an empty cache root) and warm (a second process), beside ffmpeg
# decoding the same file; `miravel peaks` of the 60-minute stereo file with
# 2000 points, warm, beside ffmpeg's showwavespic drawing its waveform; the
# store's size per hour per channel and the warm run's peak memory.
#
# Usage: bench/run_wave_store_bench.sh [miravel binary] [work folder]
# Each figure is the median of 5 runs (wall time, /usr/bin/time).
set -euo pipefail

miravel=${1:-build/bin/miravel}
work=${2:-/tmp/miravel-wave-store-bench}
mkdir -p "$work"
export XDG_CACHE_HOME="$work/cache"
export MIRAVEL_WAVE_STORE=1

mp3="$work/hour.mp3"
wav="$work/hour.wav"
if [[ ! -s "$mp3" ]]; then
  ffmpeg -nostdin -v error -y -f lavfi -i "aevalsrc=exprs='0.4*sin(2*PI*440*t)*(0.5+0.5*sin(2*PI*0.1*t))|0.3*sin(2*PI*660*t)':s=44100:d=3600" \
    -c:a libmp3lame -b:a 192k "$mp3"
fi
[[ -s "$wav" ]] || ffmpeg -nostdin -v error -y -i "$mp3" -c:a pcm_s16le "$wav"

# median of 5 wall times (s) of a command; with "cold" first, each run starts
# with an empty cache root
median() {
  local cold=0 times=()
  if [[ $1 == cold ]]; then cold=1; shift; fi
  for _ in 1 2 3 4 5; do
    [[ $cold == 1 ]] && rm -rf "$XDG_CACHE_HOME"
    local start end
    start=$(date +%s.%N)
    "$@" >/dev/null 2>&1
    end=$(date +%s.%N)
    times+=("$(echo "$end - $start" | bc -l)")
  done
  printf '%s\n' "${times[@]}" | sort -g | sed -n 3p
}

wave_args=(--begin 0 --end 36000000000 --samples 2000)
for file in "$mp3" "$wav"; do
  name=$(basename "$file")
  cold_wave=$(median cold "$miravel" wave "$file" "${wave_args[@]}")
  "$miravel" wave "$file" "${wave_args[@]}" >/dev/null 2>&1
  warm_wave=$(median "$miravel" wave "$file" "${wave_args[@]}")
  cold_peaks=$(median cold "$miravel" peaks "$file" --points 2000)
  "$miravel" peaks "$file" --points 2000 >/dev/null 2>&1
  warm_peaks=$(median "$miravel" peaks "$file" --points 2000)
  ff=$(median ffmpeg -nostdin -v error -i "$file" -f null -)
  pic=$(median ffmpeg -nostdin -v error -y -i "$file" -filter_complex "showwavespic=s=2000x200:split_channels=1" -frames:v 1 "$work/wave.png")
  /usr/bin/time -f '%M' -o "$work/rss.txt" "$miravel" peaks "$file" --points 2000 >/dev/null 2>&1
  rss=$(tail -1 "$work/rss.txt")
  store=$(find "$XDG_CACHE_HOME/miravel/waves" -name '*.mwav' -printf '%s\n' | head -1)
  printf '%s\n  wave --samples 2000: cold %.3f s, warm %.4f s (%.3f of cold, %.3f of ffmpeg decoding)\n  peaks --points 2000 (every frame): cold %.3f s, warm %.4f s (%.4f of cold); warm max RSS %s KiB\n  ffmpeg -f null decode %.3f s; ffmpeg showwavespic 2000x200 %.3f s\n  store %s bytes: %.2f MB per hour per channel\n' \
    "$name" "$cold_wave" "$warm_wave" "$(echo "$warm_wave / $cold_wave" | bc -l)" "$(echo "$warm_wave / $ff" | bc -l)" \
    "$cold_peaks" "$warm_peaks" "$(echo "$warm_peaks / $cold_peaks" | bc -l)" "$rss" "$ff" "$pic" \
    "$store" "$(echo "$store / 2 / 1000000" | bc -l)"
done
