#!/usr/bin/env bash
# Builds Miravel and shows what it can do so far: the command line's version
# and the library's exported entry points.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
"$root/scripts/deps.sh" demo

jobs=$(nproc 2>/dev/null || echo 2)
cmake -S "$root" -B "$root/build-demo" -DCMAKE_BUILD_TYPE=Release -DMIRAVEL_BUILD_TESTS=OFF >/dev/null
cmake --build "$root/build-demo" -j "$jobs" >/dev/null

miravel="$root/build-demo/bin/miravel"
echo "== miravel version"
"$miravel" version
echo "== symbols exported by libMiravel.so"
nm -D --defined-only --demangle "$root/build-demo/lib/libMiravel.so" | awk '{ $1=""; $2=""; sub(/^  /, ""); print }'
