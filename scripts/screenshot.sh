#!/usr/bin/env bash
# Regenerates docs/miravel-view.png: the viewer on the demo's timeline after
# its scripted tour, grabbed offscreen. The demo's media and every cache live
# in build-view/screenshot-cache, so the picture does not depend on what the
# user's cache holds.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export XDG_CACHE_HOME="$root/build-view/screenshot-cache"
export QT_QPA_PLATFORM=offscreen
mkdir -p "$XDG_CACHE_HOME"
"$root/scripts/view.sh" --tour --size 1280x760 --screenshot "$root/docs/miravel-view.png"
echo "docs/miravel-view.png"
