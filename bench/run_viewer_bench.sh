#!/usr/bin/env bash
# The viewer's benchmark: the scripted tour (--tour) over a timeline of 200
# clips cut from the demo's media, measured (--measure), first with Miravel's
# caches cold (no frame store, no media thumbnails, a new process: empty
# memory caches), then warm (the same cache folder again). Each is run RUNS
# times (default 3); every run prints its JSON line.
#   bench/run_viewer_bench.sh [RUNS]
# Builds like scripts/view.sh (release, build-view/); the media, the document
# and the caches live in build-view/bench-cache.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
runs=${1:-3}
"$root/scripts/deps.sh" view
jobs=$(nproc 2>/dev/null || echo 2)
cmake -S "$root" -B "$root/build-view" -DCMAKE_BUILD_TYPE=Release -DMIRAVEL_BUILD_TESTS=OFF \
  -DMIRAVEL_BUILD_VIEWER=ON >/dev/null
cmake --build "$root/build-view" -j "$jobs" --target miravel-view >/dev/null

viewer="$root/build-view/bin/miravel-view"
export XDG_CACHE_HOME="$root/build-view/bench-cache"
export QT_QPA_PLATFORM=offscreen
cache="$XDG_CACHE_HOME/miravel"
document="$XDG_CACHE_HOME/many-clips.otio"
mkdir -p "$XDG_CACHE_HOME"
"$viewer" --make-document "$document" --clips 200 >/dev/null

echo "== machine"
echo "date: $(date -u +%Y-%m-%dT%H:%M:%SZ)"
echo "nproc: $(nproc)"
lscpu | grep -E '^(Model name|CPU\(s\)|Thread\(s\) per core|CPU max MHz)' || true
echo "load: $(cut -d' ' -f1-3 /proc/loadavg)"

tour() { "$viewer" "$document" --tour --measure --size 1280x760 2>/dev/null; }

echo "== cold: $document, no frame store, no media thumbnails"
for ((i = 1; i <= runs; ++i)); do
  rm -rf "$cache/frames" "$cache/media-thumbnails"
  tour
done
echo "== warm: the same, the caches the last cold run filled kept"
for ((i = 1; i <= runs; ++i)); do
  tour
done
echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)"
