#!/usr/bin/env bash
# Crash consistency under SIGKILL:
#   scripts/crash-stress.sh [KILLS]      (default 300)
#
# Makes a few small media files with the ffmpeg command, then, until KILLS
# runs have been killed, starts one of
#   miravel media  FILE --root ROOT      (the media thumbnail folder)
#   miravel frames FILE --times ...      (the frame store under the cache root)
#   miravel wave   FILE --begin --end    (the wave store on, under the cache root)
# and kills it with SIGKILL after a random delay between 0 and the command's
# normal run time (measured first with one clean run of each). Before a run,
# some of what earlier runs left may be removed, as a pruned cache would be,
# so that every run has files to write.
#
# Afterwards each command runs once more to completion over what the kills
# left, and the script checks that
#   - every PNG in the roots decodes (ffmpeg -v error, no output);
#   - the media thumbnails and the frame store hold the same files, byte for
#     byte, as the same runs make in fresh roots;
#   - every wave store file is read back (no "is ignored" warning) and the
#     peaks over the stressed cache equal those over a fresh cache;
#   - no temporary (*.tmp-*) is left anywhere in the roots.
# It exits 1 when a file is damaged or stale, naming it, and ends with one
# line of counts.
#
# MIRAVEL_BIN: the miravel binary to use; otherwise a Release build in
# MIRAVEL_BUILD_DIR (default build-stress) is made or brought up to date
# with MIRAVEL_JOBS jobs (default: the number of cores).
# MIRAVEL_STRESS_KEEP=1 keeps the temporary folder (its path is printed).
set -euo pipefail

kills=${1:-300}
if ! [[ "$kills" =~ ^[0-9]+$ ]] || ((kills < 1)); then
  echo "usage: crash-stress.sh [KILLS]   (KILLS: a whole number, at least 1)" >&2
  exit 2
fi
for tool in ffmpeg cmp find sort; do
  command -v "$tool" >/dev/null || { echo "crash-stress: $tool is needed" >&2; exit 2; }
done

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
if [[ -n "${MIRAVEL_BIN:-}" ]]; then
  miravel=$MIRAVEL_BIN
else
  build=${MIRAVEL_BUILD_DIR:-$root/build-stress}
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DMIRAVEL_BUILD_TESTS=OFF \
    -DMIRAVEL_BUILD_VIEWER=OFF >/dev/null
  cmake --build "$build" -j "${MIRAVEL_JOBS:-$(nproc 2>/dev/null || echo 2)}" --target miravel >/dev/null
  miravel=$build/bin/miravel
fi
[[ -x "$miravel" ]] || { echo "crash-stress: no miravel binary at $miravel" >&2; exit 2; }

work=$(mktemp -d "${TMPDIR:-/tmp}/miravel-crash-stress.XXXXXX")
running=""
finish() {
  if [[ -n "$running" ]]; then kill -KILL "$running" 2>/dev/null || true; fi
  if [[ "${MIRAVEL_STRESS_KEEP:-0}" == 1 ]]; then
    echo "crash-stress: kept $work" >&2
  else
    rm -rf "$work"
  fi
}
trap finish EXIT

# ---------------------------------------------------------------------------
# Media: video and sound, small; one at 29.97 frames per second.
media=$work/media
mkdir -p "$media"
ffmpeg -v error -f lavfi -i "testsrc=s=320x180:r=25:d=3" -f lavfi -i "sine=f=440:r=48000:d=3" \
  -c:v libx264 -pix_fmt yuv420p -c:a aac -shortest "$media/bars.mp4"
ffmpeg -v error -f lavfi -i "testsrc2=s=320x180:r=30000/1001:d=4" -f lavfi -i "sine=f=660:r=44100:d=4" \
  -c:v libx264 -pix_fmt yuv420p -c:a aac -shortest "$media/ntsc.mp4"
ffmpeg -v error -f lavfi -i "smptebars=s=256x144:r=24:d=2" \
  -f lavfi -i "aevalsrc=exprs='0.4*sin(2*PI*330*t)|0.2*sin(2*PI*550*t)':s=44100:d=2" \
  -c:v libx264 -pix_fmt yuv420p -c:a aac -shortest "$media/stereo.mov"
files=(bars.mp4 ntsc.mp4 stereo.mov)
duration_cns=(30000000 40000000 20000000)

# The times the frames runs take from: twelve over each file.
frame_times() { # index of the file
  local step=$((duration_cns[$1] / 12)) times="" i
  for ((i = 0; i < 12; i++)); do times+="${times:+,}$((i * step))"; done
  echo "$times"
}

# Runs miravel with the wave store on and the cache root given.
run_miravel() { # cache, arguments...
  local cache=$1
  shift
  MIRAVEL_WAVE_STORE=1 XDG_CACHE_HOME=$cache "$miravel" "$@"
}

# The arguments of a whole run of a command over file index i.
whole_run() { # command, index, media root folder
  local file=$media/${files[$2]}
  case $1 in
    media) echo media "$file" --root "$3/${files[$2]}" --count 40 --box 128x72 ;;
    frames) echo frames "$file" --times "$(frame_times "$2")" --size 128x72 ;;
    wave) echo wave "$file" --begin 0 --end "${duration_cns[$2]}" --samples 400 ;;
  esac
}

now_ms() { echo $(($(date +%s%N) / 1000000)); }

# The normal run time of each command: a clean run over the longest file.
declare -A normal_ms
scratch=$work/scratch
for command in media frames wave; do
  started=$(now_ms)
  # shellcheck disable=SC2046 # the arguments hold no spaces
  run_miravel "$scratch/cache" $(whole_run "$command" 1 "$scratch/roots") >/dev/null 2>"$work/err.txt" || {
    echo "crash-stress: a clean run of $command failed:" >&2
    cat "$work/err.txt" >&2
    exit 1
  }
  normal_ms[$command]=$(($(now_ms) - started + 1))
done
rm -rf "$scratch"
echo "crash-stress: normal run times: media ${normal_ms[media]} ms, frames ${normal_ms[frames]} ms," \
  "wave ${normal_ms[wave]} ms" >&2

# ---------------------------------------------------------------------------
# The kills
cache=$work/cache     # the frame store and the wave store
roots=$work/roots     # a media thumbnail root per file
mkdir -p "$cache" "$roots"
declare -A killed=([media]=0 [frames]=0 [wave]=0)
total=0
ended=0 # runs that ended before their kill came
declare -A left_behind=()
commands=(media frames wave)

# Removes about half of the files in a folder (what a prune might do).
thin_out() { # folder, name pattern
  [[ -d "$1" ]] || return 0
  local file
  while IFS= read -r -d '' file; do
    if ((RANDOM % 2 == 0)); then rm -f "$file"; fi
  done < <(find "$1" -type f -name "$2" -print0)
  return 0
}

rounds=0
while ((total < kills)); do
  ((rounds += 1))
  if ((rounds > 4 * kills + 100)); then
    echo "crash-stress: $rounds rounds and only $total kills: the runs end too early to kill" >&2
    exit 1
  fi
  command=${commands[RANDOM % 3]}
  index=$((RANDOM % ${#files[@]}))
  file=$media/${files[$index]}
  case $command in
    media)
      # Every time: a media run over a full folder has nothing to write.
      thin_out "$roots/${files[$index]}" "*.png"
      set -- media "$file" --root "$roots/${files[$index]}" --count 40 --box 128x72
      ;;
    frames)
      if ((RANDOM % 2 == 0)); then
        for folder in "$cache"/miravel/frames/"${files[$index]}"-*; do thin_out "$folder" "*.png"; done
      fi
      # A random subset of the twelve times, or all of them.
      times=""
      IFS=, read -r -a all <<<"$(frame_times "$index")"
      for time in "${all[@]}"; do
        if ((RANDOM % 3 != 0)); then times+="${times:+,}$time"; fi
      done
      [[ -n "$times" ]] || times=${all[0]}
      set -- frames "$file" --times "$times" --size 128x72
      ;;
    wave)
      if ((RANDOM % 2 == 0)); then thin_out "$cache/miravel/waves" "*.mwav"; fi
      set -- wave "$file" --begin 0 --end "${duration_cns[index]}" --samples 200
      ;;
  esac
  # Temporaries that killed runs left (the next run over their folder removes them).
  while IFS= read -r -d '' file; do left_behind[$file]=1; done < <(find "$cache" "$roots" -name '*.tmp-*' -print0)
  delay_ms=$((RANDOM % normal_ms[$command]))
  run_miravel "$cache" "$@" >/dev/null 2>&1 &
  running=$!
  sleep "$((delay_ms / 1000)).$(printf '%03d' $((delay_ms % 1000)))"
  kill -KILL "$running" 2>/dev/null || true
  status=0
  { wait "$running"; } 2>/dev/null || status=$?
  running=""
  # 128 + 9: the kill ended the run; anything else: the run had ended.
  if ((status == 137)); then
    killed[$command]=$((killed[$command] + 1))
    ((total += 1))
  else
    ((ended += 1))
  fi
done

# ---------------------------------------------------------------------------
# The runs after the kills, and the same runs in fresh roots
fresh_cache=$work/fresh-cache
fresh_roots=$work/fresh-roots
checked=0
damaged=0
declare -A damaged_files # each file (or media file, for its runs and peaks) counted once
report() { # the file, what is wrong with it
  echo "crash-stress: $2" >&2
  if [[ -z "${damaged_files[$1]:-}" ]]; then
    damaged_files[$1]=1
    ((damaged += 1))
  fi
}

for ((index = 0; index < ${#files[@]}; index++)); do
  for command in media frames wave; do
    # shellcheck disable=SC2046 # the arguments hold no spaces
    if ! run_miravel "$cache" $(whole_run "$command" "$index" "$roots") >/dev/null 2>"$work/err.txt"; then
      report "${files[$index]}" "the run of $command over ${files[$index]} after the kills failed:" \
        "$(tail -n 1 "$work/err.txt")"
    fi
    # shellcheck disable=SC2046
    run_miravel "$fresh_cache" $(whole_run "$command" "$index" "$fresh_roots") >/dev/null 2>"$work/err.txt" || {
      echo "crash-stress: a clean run of $command over ${files[$index]} failed:" >&2
      cat "$work/err.txt" >&2
      exit 1
    }
  done
done

# No temporary is left.
stale=0
while IFS= read -r -d '' file; do
  echo "crash-stress: stale temporary file $file" >&2
  ((stale += 1))
done < <(find "$cache" "$roots" -name '*.tmp-*' -print0)

# Every picture decodes.
while IFS= read -r -d '' file; do
  ((checked += 1))
  if ! output=$(ffmpeg -nostdin -v error -i "$file" -f null - 2>&1) || [[ -n "$output" ]]; then
    report "$file" "damaged picture $file: $(head -n 1 <<<"${output:-ffmpeg failed}")"
  fi
done < <(find "$cache" "$roots" -name '*.png' -print0)

# The same files as in fresh roots, byte for byte.
compare_folders() { # stressed, fresh, what
  local listed fresh_listed name
  listed=$(cd "$1" && find . -name '*.png' | sort)
  fresh_listed=$(cd "$2" && find . -name '*.png' | sort)
  while IFS= read -r name; do
    [[ -n "$name" ]] || continue
    ((checked += 1))
    if [[ ! -f "$2/$name" ]]; then
      report "$1/${name#./}" "$3: $1/${name#./} is not made by a clean run"
    elif ! cmp -s "$1/$name" "$2/$name"; then
      report "$1/${name#./}" "$3: $1/${name#./} differs from the clean run's"
    fi
  done <<<"$listed"
  while IFS= read -r name; do
    [[ -n "$name" ]] || continue
    [[ -f "$1/$name" ]] || report "$1/${name#./}" "$3: $1/${name#./} is missing"
  done <<<"$fresh_listed"
}
compare_folders "$roots" "$fresh_roots" "media thumbnails"
compare_folders "$cache/miravel/frames" "$fresh_cache/miravel/frames" "frame store"

# Every wave store file is read back, and gives the values a fresh store gives.
for ((index = 0; index < ${#files[@]}; index++)); do
  peaks=(peaks "$media/${files[$index]}" --points 500 --channels --log warning)
  stressed=$(run_miravel "$cache" "${peaks[@]}" 2>"$work/err.txt") ||
    report "${files[$index]}" "peaks over ${files[$index]} failed"
  while IFS= read -r line; do
    if [[ "$line" == *"is ignored"* ]]; then report "${files[$index]}" "wave store: $line"; fi
  done <"$work/err.txt"
  fresh=$(run_miravel "$fresh_cache" "${peaks[@]}" 2>/dev/null)
  [[ "$stressed" == "$fresh" ]] ||
    report "${files[$index]}" "wave store: the peaks of ${files[$index]} differ from a fresh store's"
done
checked=$((checked + $(find "$cache/miravel/waves" -name '*.mwav' | wc -l)))

echo "crash-stress: $rounds runs, $ended of them ended before their kill; the kills left" \
  "${#left_behind[@]} temporaries, which later runs removed" >&2
echo "crash-stress: $total kills (media ${killed[media]}, frames ${killed[frames]}, wave ${killed[wave]})," \
  "$damaged damaged files, $stale stale temporary files, $checked files checked"
((damaged == 0 && stale == 0))
