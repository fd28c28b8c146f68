#!/usr/bin/env bash
# Installs the Debian packages that Miravel needs and that are missing.
#   scripts/deps.sh demo   what building and running the demo needs
#   scripts/deps.sh test   what building and running the tests needs
#   scripts/deps.sh view   what building and running the viewer (miravel-view) needs
#   scripts/deps.sh bench  what building and running the benchmarks needs
#   scripts/deps.sh fuzz   what building and running the fuzz targets needs (clang, libFuzzer)
set -euo pipefail

what=${1:-test}
packages=(cmake g++ make pkg-config binutils libpng-dev)
ffmpeg_dev=(libavformat-dev libavcodec-dev libswresample-dev libswscale-dev libavutil-dev)
# Qt 6 Widgets (and Qt Test, in the same package) for miravel-view; a font
# for its text, also when it runs offscreen.
viewer=(qt6-base-dev fonts-dejavu-core)
case "$what" in
  demo) packages+=(nlohmann-json3-dev "${ffmpeg_dev[@]}") ;;
  test) packages+=(libgtest-dev libgmock-dev nlohmann-json3-dev "${ffmpeg_dev[@]}" ffmpeg "${viewer[@]}") ;;
  view) packages+=(nlohmann-json3-dev "${ffmpeg_dev[@]}" "${viewer[@]}") ;;
  # libFuzzer comes with clang's runtime libraries.
  fuzz) packages+=(clang libclang-rt-dev nlohmann-json3-dev "${ffmpeg_dev[@]}" ffmpeg) ;;
  bench) packages+=(libbenchmark-dev libspdlog-dev nlohmann-json3-dev "${ffmpeg_dev[@]}") ;;
  *) echo "deps.sh: unknown set '$what' (demo, test, view, bench or fuzz)" >&2; exit 2 ;;
esac

missing=()
for package in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$package" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$package")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "Installing missing Debian packages: ${missing[*]}" >&2
sudo=()
if [[ $(id -u) -ne 0 ]]; then
  if command -v sudo >/dev/null 2>&1; then sudo=(sudo); else
    echo "deps.sh: need root (or sudo) to install: ${missing[*]}" >&2; exit 1
  fi
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -q
"${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
