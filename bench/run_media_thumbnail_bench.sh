#!/usr/bin/env bash
# Media thumbnails: the media thumbnail manager through `miravel media`, each
# mode beside its peer in the same hyperfine invocation, then the manager's
# latencies (bench/MediaThumbnailBench.cpp) and the thumb adapter's decode
# counts (bench/ThumbAdapterBench.cpp), all in one session.
#
#   bench/run_media_thumbnail_bench.sh [BUILD_DIR]
#
# BUILD_DIR (default ./build-bench) is configured as a Release build with the
# benchmarks on, and miravel, miravel_bench_media and
# miravel_bench_thumb_adapter are built in it. The video (10 min, 1920x1080,
# 25 fps, H.264, a keyframe every 250 frames) is made once by the recipe of
# bench/run_cli_benchmarks.sh in MIRAVEL_CLIBENCH_WORK (default
# /tmp/miravel-clibench) and read once before timing, so that every side reads
# it from the page cache. MIRAVEL_MEDIA_RUNS (default 3) sets the hyperfine
# runs per command. Needs ffmpeg, ffprobe, ffmpegthumbnailer, hyperfine and jq
# (Debian packages of the same names).
#
# Pictures: N = 100 over the video's duration D (cns): picture i shows media
# time t_i = trunc(i / 100 x D) (computed in double precision, as the
# manager does), fitted into 320x180.
#
# 1. Exact. `miravel media VIDEO --root R` with a new empty R every run
#    (cold: nothing on disk), against three ffmpeg command lines writing the
#    same 100 exact frames (frame n_i = floor(t_i / 400000), the frame shown
#    at t_i): one decode with a select filter; one process per picture with
#    an accurate seek (-ss n_i x 0.04 before -i), one after another; the same,
#    two at a time (xargs -P2). The peer is the fastest of the three. Goal:
#    Miravel at most 0.5x the peer's time.
# 2. Keyframe. `miravel media VIDEO --root R --seek keyframe`, against
#    ffmpegthumbnailer called once per picture, one after another
#    (`-s 320 -t hh:mm:ss`, the whole seconds of t_i: it takes no finer
#    time). Goal: Miravel at most 0.2x the peer's total.
# Checks (outside the timing): every Miravel run's JSON lists 100 files; the
# pictures of Miravel's last run are compared byte for byte (as RGBA) with
# ffmpeg's of the same frame converted with the adapter's scaler settings
# (bicubic, accurate rounding, full chroma interpolation, BT.709 input), for
# the exact frames and, in keyframe mode, for the keyframe at or before t_i;
# the three exact peers' PNG files must be identical to each other; each
# ffmpegthumbnailer picture is compared by PSNR with the keyframe at or
# before t_i and the one at or after, to tell which it shows.
# 3. bench/MediaThumbnailBench.cpp (all repetitions shown) and
#    BM_ThumbExact of bench/ThumbAdapterBench.cpp (the decode counts of the
#    100 exact pictures in the manager's order).
set -euo pipefail

script_dir="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
source_dir="$(cd "${script_dir}/.." && pwd)"
build_dir="${1:-./build-bench}"
work="${MIRAVEL_CLIBENCH_WORK:-/tmp/miravel-clibench}"
runs="${MIRAVEL_MEDIA_RUNS:-3}"

for tool in ffmpeg ffprobe ffmpegthumbnailer hyperfine jq; do
  command -v "$tool" > /dev/null || { echo "$tool is missing (apt-get install $tool)" >&2; exit 1; }
done

cmake -S "${source_dir}" -B "${build_dir}" -DCMAKE_BUILD_TYPE=Release -DMIRAVEL_BUILD_BENCHMARKS=ON >&2
cmake --build "${build_dir}" --parallel 2 --target miravel miravel_bench_media miravel_bench_thumb_adapter >&2
build_dir="$(cd "${build_dir}" && pwd)"
miravel="${build_dir}/bin/miravel"

say() { printf '%s\n' "$*"; }

mkdir -p "${work}"
video="${work}/video.mp4"
if [[ ! -s "${video}" ]]; then
  say "making ${video} (10 min, 1920x1080, 25 fps, H.264, a keyframe every 250 frames)"
  ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=25 -t 600 \
    -c:v libx264 -preset veryfast -g 250 -keyint_min 250 -sc_threshold 0 -pix_fmt yuv420p \
    -f mp4 "${video}.tmp"
  mv "${video}.tmp" "${video}"
fi
rate=$(ffprobe -v error -select_streams v:0 -show_entries stream=r_frame_rate -of csv=p=0 "${video}")
[[ "${rate}" == "25/1" ]] || { echo "${video}: expected 25 fps, found ${rate}" >&2; exit 1; }
seconds=$(ffprobe -v error -select_streams v:0 -show_entries stream=duration -of csv=p=0 "${video}")
# (awk's %d stops at 2^31 - 1: large whole numbers are printed with %.0f)
duration=$(awk -v s="${seconds}" 'BEGIN { printf "%.0f", int(s * 10000000 + 0.5) }')
cat "${video}" > /dev/null

say "== Machine and tools"
say "date -u: $(date -u)"
say "nproc: $(nproc)"
say "lscpu: $(lscpu | grep 'Model name' | sed 's/  */ /g')"
say "uptime: $(uptime)"
say "free -g: $(free -g | awk '/Mem:/ { print $2 " GiB total, " $3 " used, " $7 " available" }')"
say "ffmpeg: $(ffmpeg -version | head -1)"
say "ffmpegthumbnailer: $(ffmpegthumbnailer -v 2>&1 | head -1) ($(dpkg-query -W -f '${Version}' ffmpegthumbnailer 2>/dev/null || echo '?'))"
say "hyperfine: $(hyperfine --version)"
say "compiler: $(c++ --version | head -1)"
say "git: $(git -C "${source_dir}" rev-parse --short HEAD) ($(git -C "${source_dir}" status --porcelain | wc -l) paths changed or untracked)"
say "video: ${video}, ${seconds} s = ${duration} cns, ${rate} fps"

# ---------------------------------------------------------------- times
lists="${work}/media-thumb"
rm -rf "${lists}"
mkdir -p "${lists}"
# i, t_i (cns), exact frame n_i, keyframe number, ffmpegthumbnailer time
awk -v d="${duration}" 'BEGIN {
  for (i = 0; i < 100; ++i) {
    t = int(i / 100 * d)
    n = int(t / 400000)
    k = int(t / 100000000) * 250
    s = int(t / 10000000)
    printf "%03d %.0f %.0f %.0f %02d:%02d:%02d\n", i, t, n, k, s / 3600, (s % 3600) / 60, s % 60
  }
}' > "${lists}/times.txt"
awk '{ printf "%03d %.2f\n", $1, $3 * 0.04 }' "${lists}/times.txt" > "${lists}/exact-seconds.txt"
awk '{ printf "%03d %.2f\n", $1, $4 * 0.04 }' "${lists}/times.txt" > "${lists}/keyframe-seconds.txt"
awk '{ print $1, $5 }' "${lists}/times.txt" > "${lists}/thumbnailer-times.txt"
select_expr=$(awk '{ printf "%seq(n\\,%d)", (NR > 1 ? "+" : ""), $3 }' "${lists}/times.txt")
say "pictures whose t_i is not a whole frame time: $(awk '$2 % 400000 != 0 { printf "%s%d (t=%.0f)", (c++ ? ", " : ""), $1, $2 }' "${lists}/times.txt")"

out="${work}/media-out"
# Before every run, each command's own output folder is emptied (Miravel's
# root: nothing on disk, a cold run); each command's last run is left to check.
rm -rf "${out}"
fresh() { printf 'rm -rf %s && mkdir -p %s' "${out}/$1" "${out}/$1"; }

# ---------------------------------------------------------------- 1. exact
say ""
say "== 1. Exact: 100 pictures at 320x180"
miravel_exact="${miravel} media ${video} --root ${out}/mir >> ${lists}/exact-runs.json 2>/dev/null"
peer_select="ffmpeg -nostdin -v error -i ${video} -an -vf \"select='${select_expr}',scale=320:180\" -fps_mode passthrough -frames:v 100 -y ${out}/sel/%03d.png"
peer_seq="xargs -P1 -n2 sh -c 'ffmpeg -nostdin -v error -ss \"\$2\" -i ${video} -an -frames:v 1 -vf scale=320:180 -y ${out}/seq/\$1.png' _ < ${lists}/exact-seconds.txt"
peer_par="xargs -P2 -n2 sh -c 'ffmpeg -nostdin -v error -ss \"\$2\" -i ${video} -an -frames:v 1 -vf scale=320:180 -y ${out}/par/\$1.png' _ < ${lists}/exact-seconds.txt"
hyperfine --runs "${runs}" --warmup 0 --export-json "${lists}/hyperfine-exact.json" \
  --prepare "$(fresh mir)" --prepare "$(fresh sel)" --prepare "$(fresh seq)" --prepare "$(fresh par)" \
  -n "miravel media" "${miravel_exact}" \
  -n "ffmpeg select" "${peer_select}" \
  -n "ffmpeg -ss per picture" "${peer_seq}" \
  -n "ffmpeg -ss per picture, -P2" "${peer_par}"
for dir in sel seq par; do
  [[ $(ls "${out}/${dir}" | wc -l) -eq 100 ]] || { echo "ffmpeg ${dir}: not 100 pictures" >&2; exit 1; }
done
cp -r "${out}/mir" "${lists}/mir-exact"
differing=0
for f in "${out}"/seq/*.png; do
  name=$(basename "$f")
  cmp -s "$f" "${out}/par/${name}" || differing=$((differing + 1))
done
i=0
for f in "${out}"/sel/*.png; do  # numbered from 001, in frame order
  cmp -s "$f" "${out}/seq/$(printf '%03d' "$i").png" || differing=$((differing + 1))
  i=$((i + 1))
done
say "exact peers: ${differing} differing PNG files between the three ffmpeg command lines (of 200 compared)"

# ---------------------------------------------------------------- 2. keyframe
say ""
say "== 2. Keyframe: 100 pictures at 320x180"
miravel_key="${miravel} media ${video} --root ${out}/mirk --seek keyframe >> ${lists}/keyframe-runs.json 2>/dev/null"
peer_ft="while read i t; do ffmpegthumbnailer -i ${video} -o ${out}/ft/\$i.png -s 320 -t \$t > /dev/null 2>&1 || exit 1; done < ${lists}/thumbnailer-times.txt"
hyperfine --runs "${runs}" --warmup 0 --export-json "${lists}/hyperfine-keyframe.json" \
  --prepare "$(fresh mirk)" --prepare "$(fresh ft)" \
  -n "miravel media --seek keyframe" "${miravel_key}" \
  -n "ffmpegthumbnailer per picture" "${peer_ft}"
[[ $(ls "${out}/ft" | wc -l) -eq 100 ]] || { echo "ffmpegthumbnailer: not 100 pictures" >&2; exit 1; }
cp -r "${out}/mirk" "${lists}/mir-keyframe"
cp -r "${out}/ft" "${lists}/thumbnailer"

# ---------------------------------------------------------------- checks
say ""
say "== Checks"
for mode in exact keyframe; do
  bad=$(jq -s 'map(select((.files | length) != 100)) | length' "${lists}/${mode}-runs.json")
  total=$(jq -s 'length' "${lists}/${mode}-runs.json")
  say "${mode}: ${total} runs of miravel, ${bad} without 100 files listed"
done
# Miravel's pictures against ffmpeg's of the same frame, converted as the
# adapter converts, as RGBA bytes.
compare_rgba() {  # mode, seconds list, Miravel root
  local mode=$1 list=$2 root=$3 same=0
  mkdir -p "${lists}/raw-${mode}"
  xargs -P2 -n2 sh -c "ffmpeg -nostdin -v error -ss \"\$2\" -i ${video} -an -frames:v 1 \
    -vf scale=320:180:flags=bicubic+accurate_rnd+full_chroma_int:in_color_matrix=bt709,format=rgba \
    -f rawvideo -y ${lists}/raw-${mode}/ff-\$1.raw" _ < "${list}"
  while read -r i _; do
    ffmpeg -nostdin -v error -i "${root}/media_thumbnail/$((10#$i))_320_180.png" -f rawvideo -pix_fmt rgba \
      -y "${lists}/raw-${mode}/mir-$i.raw"
    if cmp -s "${lists}/raw-${mode}/ff-$i.raw" "${lists}/raw-${mode}/mir-$i.raw"; then same=$((same + 1)); fi
  done < "${list}"
  say "${mode}: ${same} of 100 Miravel pictures byte-identical (RGBA) to ffmpeg's frame"
}
compare_rgba exact "${lists}/exact-seconds.txt" "${lists}/mir-exact"
compare_rgba keyframe "${lists}/keyframe-seconds.txt" "${lists}/mir-keyframe"
# Which keyframe ffmpegthumbnailer shows: its pictures against ffmpeg's
# keyframes (decoded alone, -skip_frame nokey: keyframe j at 10 j s is file
# j + 1), the one at or before t_i and the one at or after its whole second,
# by PSNR (the colour conversions differ, so only which is nearer counts).
mkdir -p "${lists}/keyframes" "${lists}/seq-ft" "${lists}/seq-before" "${lists}/seq-after"
ffmpeg -nostdin -v error -skip_frame nokey -i "${video}" -an -vf scale=320:180 -fps_mode passthrough \
  -y "${lists}/keyframes/%03d.png"
last=$(ls "${lists}/keyframes" | wc -l)
while read -r i t _ k hms; do
  s=$((10#${hms:0:2} * 3600 + 10#${hms:3:2} * 60 + 10#${hms:6:2}))
  before=$((t / 100000000 + 1))
  after=$(((s + 9) / 10 + 1))
  ((after > last)) && after=${last}
  ln -sf "${lists}/thumbnailer/$i.png" "${lists}/seq-ft/$i.png"
  ln -sf "${lists}/keyframes/$(printf '%03d' "${before}").png" "${lists}/seq-before/$i.png"
  ln -sf "${lists}/keyframes/$(printf '%03d' "${after}").png" "${lists}/seq-after/$i.png"
done < "${lists}/times.txt"
for side in before after; do
  ffmpeg -nostdin -v error -start_number 0 -i "${lists}/seq-ft/%03d.png" -start_number 0 -i "${lists}/seq-${side}/%03d.png" \
    -lavfi "[0]scale=320:180,format=rgb24[a];[1]format=rgb24[b];[a][b]psnr=stats_file=${lists}/psnr-${side}.txt" -f null -
  awk '{ for (f = 1; f <= NF; ++f) if ($f ~ /^psnr_avg:/) { split($f, v, ":"); print v[2] } }' \
    "${lists}/psnr-${side}.txt" > "${lists}/psnr-${side}.values"
done
say "ffmpegthumbnailer pictures nearer (PSNR) to the keyframe at or before t_i / at or after its second / as near to both (the same keyframe): $(paste "${lists}/psnr-before.values" "${lists}/psnr-after.values" | awk '{ if ($1 > $2) b++; else if ($2 > $1) a++; else e++ } END { printf "%d / %d / %d", b, a, e }')"

# ---------------------------------------------------------------- summary
summary() {  # json, miravel name, goal
  local json=$1 name=$2 goal=$3
  jq -r --arg name "${name}" --argjson goal "${goal}" '
    def median: sort | if length % 2 == 1 then .[length / 2 | floor] else (.[length / 2 - 1] + .[length / 2]) / 2 end;
    def r3: . * 1000 | round / 1000;
    (.results | map({name: .command, median: (.times | median), times: .times, user: .user})) as $rows
    | ($rows | map(select(.name == $name)) | .[0]) as $m
    | ($rows | map(select(.name != $name)) | min_by(.median)) as $p
    | ($rows[] | "\(.name): median \(.median | r3) s; runs \(.times | map(r3) | join(", ")) s; mean user \(.user | r3) s"),
      "ratio: \($m.median | r3) / \($p.median | r3) (\($p.name)) = \($m.median / $p.median | r3); goal <= \($goal)x: \(if $m.median <= $goal * $p.median then "pass" else "miss" end)"
  ' "${json}"
}
say ""
say "== Summary"
summary "${lists}/hyperfine-exact.json" "miravel media" 0.5
summary "${lists}/hyperfine-keyframe.json" "miravel media --seek keyframe" 0.2

# ---------------------------------------------------------------- 3. the library
say ""
say "== 3. The manager's latencies (bench/MediaThumbnailBench.cpp); uptime: $(uptime)"
MIRAVEL_BENCH_VIDEO="${video}" "${build_dir}/bin/miravel_bench_media" --benchmark_counters_tabular=false
say ""
say "== The adapter's decode counts for the 100 exact pictures (BM_ThumbExact); uptime: $(uptime)"
MIRAVEL_BENCH_VIDEO="${video}" "${build_dir}/bin/miravel_bench_thumb_adapter" --benchmark_filter='BM_ThumbExact/'
say ""
say "== Single-threaded decoding of the whole file (ffmpeg -threads 1, no output); uptime: $(uptime)"
/usr/bin/time -f "%e s wall, %U s user" ffmpeg -nostdin -v error -threads 1 -i "${video}" -an -f null - 2>&1
say "date -u: $(date -u)"
