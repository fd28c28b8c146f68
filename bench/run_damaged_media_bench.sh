#!/usr/bin/env bash
# A damaged clip in a document of ten: the time from the command's start to
# its exit, for `miravel audio`, `video` and `render` on the damaged clip.
#
#   bench/run_damaged_media_bench.sh BUILD_DIR [RUNS]
#
# BUILD_DIR holds bin/miravel (a Release build); RUNS (default 5) runs each
# command that many times, each a new process with a new empty frame store.
# The media are made with ffmpeg into the work folder (MIRAVEL_DAMAGED_WORK,
# default /tmp/miravel-damaged): a 30 s 1280x720 25 fps H.264 file with AAC
# sound, its metadata at the front (faststart), and a copy whose bytes after
# the start of its media data are zeroed, so that it opens and describes its
# streams but none of its packets decode. The document holds nine clips of
# the good file and, seventh, one of the damaged file ("Bad"), 10 s each.
# Every run must exit 1 with one line naming the clip; the script prints each
# run's wall time (from `date +%s%N` around the process), the median and the
# largest.
set -euo pipefail

if [[ $# -lt 1 ]]; then
    echo "usage: $0 BUILD_DIR [RUNS]" >&2
    exit 2
fi
BUILD=$(cd "$1" && pwd)
RUNS=${2:-5}
MIRAVEL="$BUILD/bin/miravel"
WORK="${MIRAVEL_DAMAGED_WORK:-/tmp/miravel-damaged}"
mkdir -p "$WORK"
cd "$WORK"

if [[ ! -f good.mp4 ]]; then
    ffmpeg -v error -y -f lavfi -i testsrc2=size=1280x720:rate=25 -f lavfi -i "sine=f=440:sample_rate=48000" -t 30 \
        -c:v libx264 -preset veryfast -pix_fmt yuv420p -c:a aac -movflags +faststart good.mp4
fi
python3 - <<'EOF'
data = bytearray(open("good.mp4", "rb").read())
start = data.find(b"mdat") + 68
data[start:] = bytes(len(data) - start)
open("bad.mp4", "wb").write(data)
clips = []
for i in range(10):
    name, media = ("Bad", "bad.mp4") if i == 6 else ("Good %d" % i, "good.mp4")
    rt = lambda v: {"OTIO_SCHEMA": "RationalTime.1", "value": v, "rate": 25}
    clips.append({"OTIO_SCHEMA": "Clip.1", "name": name,
                  "source_range": {"OTIO_SCHEMA": "TimeRange.1", "start_time": rt(0), "duration": rt(250)},
                  "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": media}})
import json
doc = {"OTIO_SCHEMA": "Timeline.1", "name": "damaged", "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [
    {"OTIO_SCHEMA": "Track.1", "name": "V1", "kind": "Video", "children": clips}]}}
open("damaged.otio", "w").write(json.dumps(doc, indent=1))
EOF

echo "date: $(date -u '+%Y-%m-%d %H:%M:%S UTC'); load: $(cut -d' ' -f1-3 /proc/loadavg); nproc: $(nproc)"
echo "miravel: $("$MIRAVEL" version)"

measure() {
    local label=$1
    shift
    local times=()
    for ((run = 1; run <= RUNS; ++run)); do
        rm -rf cache out timeline.png
        local start end code=0
        start=$(date +%s%N)
        XDG_CACHE_HOME="$WORK/cache" "$MIRAVEL" "$@" >/dev/null 2>err.txt || code=$?
        end=$(date +%s%N)
        if [[ $code -ne 1 ]] || ! grep -q "clip 'Bad': " err.txt; then
            echo "$label: run $run exited $code without naming the clip:" >&2
            cat err.txt >&2
            exit 1
        fi
        times+=("$(( (end - start) / 1000000 ))")
    done
    local sorted
    sorted=$(printf '%s\n' "${times[@]}" | sort -n)
    echo "$label: runs (ms) ${times[*]}; median $(echo "$sorted" | sed -n "$(( (RUNS + 1) / 2 ))p") ms; largest $(echo "$sorted" | tail -1) ms"
}

measure audio audio damaged.otio --clip Bad --points 2000
measure video video damaged.otio --clip Bad --times 0,20000000,40000000,60000000,80000000 --size 160x90 --out out
measure render render damaged.otio --out timeline.png
tail -1 err.txt
