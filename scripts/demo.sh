#!/usr/bin/env bash
# Builds Miravel and runs its demo: sample media made on the spot, a timeline
# document that uses them, and every pipeline of the engine on them. The
# results land in build-demo/miravel-demo; the script says where the pictures
# are.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/deps.sh" demo

jobs=$(nproc 2>/dev/null || echo 2)
cmake -S "$root" -B "$root/build-demo" -DCMAKE_BUILD_TYPE=Release -DMIRAVEL_BUILD_TESTS=OFF >/dev/null
cmake --build "$root/build-demo" -j "$jobs" --target miravel >/dev/null

miravel="$root/build-demo/bin/miravel"
out="$root/build-demo/miravel-demo"
echo "== miravel version"
"$miravel" version
echo "== miravel demo --out $out"
"$miravel" demo --out "$out"
echo "== the pictures"
echo "timeline picture:           $out/timeline.png"
echo "clip pictures (service):    $out/video/"
echo "frames (wrapper):           $out/frame-store/"
echo "media thumbnails:           $out/media-thumbnails/video/media_thumbnail/"
echo "timeline document:          $out/timeline.otio"
echo "results and timings:        $out/summary.json"
