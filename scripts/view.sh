#!/usr/bin/env bash
# Builds miravel-view, the viewer, in a release build of its own (build-view/)
# and starts it with the arguments given:
#   scripts/view.sh [DOC] [viewer options]
# Without DOC it opens the demo's timeline, made under the cache root
# ($XDG_CACHE_HOME/miravel, else ~/.cache/miravel) on first use. Options:
# --tour, --measure, --screenshot PNG, --size WxH, --log SEVERITY (see
# tools/miravel-view/main.cpp). With no display it runs offscreen, which suits
# --tour and --measure.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/deps.sh" view

jobs=$(nproc 2>/dev/null || echo 2)
cmake -S "$root" -B "$root/build-view" -DCMAKE_BUILD_TYPE=Release -DMIRAVEL_BUILD_TESTS=OFF \
  -DMIRAVEL_BUILD_VIEWER=ON >/dev/null
cmake --build "$root/build-view" -j "$jobs" --target miravel-view >/dev/null

if [[ -z "${QT_QPA_PLATFORM:-}" && -z "${DISPLAY:-}" && -z "${WAYLAND_DISPLAY:-}" ]]; then
  echo "view.sh: no display: running offscreen" >&2
  export QT_QPA_PLATFORM=offscreen
fi
exec "$root/build-view/bin/miravel-view" "$@"
