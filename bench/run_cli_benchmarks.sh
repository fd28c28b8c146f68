#!/usr/bin/env bash
# Extraction through the command line: audio wave data and exact video frames,
# each measured beside ffmpeg doing the same job on the same file, in the same run.
#
#   bench/run_cli_benchmarks.sh BUILD_DIR
#
# BUILD_DIR holds bin/miravel (a Release build). Media are generated with
# ffmpeg into the work folder (MIRAVEL_CLIBENCH_WORK, default
# /tmp/miravel-clibench) when missing, and kept there for the next run; nothing
# is written into the repository. MIRAVEL_CLIBENCH_RUNS (default 3) sets the
# hyperfine runs per command. Needs ffmpeg, hyperfine, jq and /usr/bin/time
# (Debian packages ffmpeg, hyperfine, jq, time).
#
# 1. Audio: `miravel wave FILE --begin 0 --end 36000000000 --samples 1000` (the
#    whole hour) on a 60-minute stereo 44.1 kHz MP3 (192k) and on the same
#    audio as 16-bit WAV, against `ffmpeg -v error -i FILE -vn -f null -`.
#    Every miravel run is a new process, so its wave data starts cold (the
#    wave data lives in the process only). Every run's JSON must say status 2.
#    Peak memory: "Maximum resident set size" of /usr/bin/time -v, every run.
# 2. Video: the 100 exact frames at t_i = i * 6 s (i = 0..99) of a 10-minute
#    1920x1080 25 fps H.264 file (keyframe every 10 s), fitted into 160x90:
#    `miravel frames FILE --times ... --size 160x90` with a new empty frame
#    store (XDG_CACHE_HOME) every run, against three ffmpeg command lines that
#    give the same frames: one process per frame with an accurate seek (-ss
#    before -i), run one after another and two at a time (xargs -P2), and one
#    process with a select filter. The peer is the fastest of the three. Before
#    timing, one run of each writes its frames to verify/: the ffmpeg frames
#    must be identical across the three, every Miravel frame must report
#    shown == time, and Miravel's frames are compared with ffmpeg's by PSNR
#    (at 160x90 against the same and the next frame; at 1920x1080 for three
#    times against the frames 40 ms before, at and after them).
set -euo pipefail

if [[ $# -ne 1 ]]; then
    echo "usage: $0 BUILD_DIR" >&2
    exit 2
fi
BUILD=$(cd "$1" && pwd)
MIRAVEL="$BUILD/bin/miravel"
WORK="${MIRAVEL_CLIBENCH_WORK:-/tmp/miravel-clibench}"
RUNS="${MIRAVEL_CLIBENCH_RUNS:-3}"
TIME=/usr/bin/time

[[ -x "$MIRAVEL" ]] || { echo "no $MIRAVEL: build first" >&2; exit 1; }
for tool in ffmpeg ffprobe hyperfine jq; do
    command -v "$tool" > /dev/null || { echo "$tool is missing (apt-get install ffmpeg hyperfine jq)" >&2; exit 1; }
done
[[ -x "$TIME" ]] || { echo "$TIME is missing (apt-get install time)" >&2; exit 1; }
mkdir -p "$WORK"

say() { printf '%s\n' "$*"; }

# ---------------------------------------------------------------- media
MP3="$WORK/audio.mp3"
WAV="$WORK/audio.wav"
VIDEO="$WORK/video.mp4"

if [[ ! -s "$WAV" ]]; then
    say "making $WAV (60 min, stereo, 44.1 kHz, 16-bit: two sines and pink noise)"
    ffmpeg -v error -y \
        -f lavfi -i "sine=frequency=220:sample_rate=44100:duration=3600" \
        -f lavfi -i "sine=frequency=1234:sample_rate=44100:duration=3600" \
        -f lavfi -i "anoisesrc=color=pink:sample_rate=44100:amplitude=0.3:duration=3600" \
        -filter_complex "[0][1][2]amix=inputs=3,pan=stereo|c0=c0|c1=c0,aformat=sample_fmts=s16" \
        -t 3600 -c:a pcm_s16le -f wav "$WAV.tmp"
    mv "$WAV.tmp" "$WAV"
fi
if [[ ! -s "$MP3" ]]; then
    say "making $MP3 (the same audio, MP3 192k)"
    ffmpeg -v error -y -i "$WAV" -c:a libmp3lame -b:a 192k -f mp3 "$MP3.tmp"
    mv "$MP3.tmp" "$MP3"
fi
if [[ ! -s "$VIDEO" ]]; then
    say "making $VIDEO (10 min, 1920x1080, 25 fps, H.264, a keyframe every 250 frames)"
    ffmpeg -v error -y -f lavfi -i testsrc2=size=1920x1080:rate=25 -t 600 \
        -c:v libx264 -preset veryfast -g 250 -keyint_min 250 -sc_threshold 0 -pix_fmt yuv420p \
        -f mp4 "$VIDEO.tmp"
    mv "$VIDEO.tmp" "$VIDEO"
fi

# ---------------------------------------------------------------- helpers
# median of the hyperfine export $1 for command index $2, in seconds (3 decimals)
median() { jq -r ".results[$2].median" "$1" | awk '{printf "%.3f", $1}'; }
times_of() { jq -r "[.results[$2].times[] | (. * 1000 | round / 1000)] | map(tostring) | join(\", \")" "$1"; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", a / b }'; }
# "Maximum resident set size (kbytes)" of every run in the /usr/bin/time -v file $1
rss_list() { grep 'Maximum resident set size' "$1" | awk '{print $NF}' | paste -sd, - | sed 's/,/, /g'; }
rss_max() { grep 'Maximum resident set size' "$1" | awk '{print $NF}' | sort -n | tail -1; }
kib_to_mib() { awk -v k="$1" 'BEGIN { printf "%.1f", k / 1024 }'; }
pass_if_le() { awk -v v="$1" -v g="$2" 'BEGIN { print (v <= g) ? "pass" : "miss" }'; }

say "== Machine"
say "date -u: $(date -u)"
say "nproc: $(nproc)"
say "lscpu: $(lscpu | grep 'Model name' | sed 's/  */ /g')"
say "free -g: $(free -g | awk '/^Mem:/ {print "Mem total " $2 " GiB, used " $3 ", free " $4 ", available " $7} /^Swap:/ {print "; Swap total " $2}' | paste -sd' ' -)"
say "uptime: $(uptime)"
say "ffmpeg: $(ffmpeg -version | head -1)"
say "hyperfine: $(hyperfine --version)"
say "miravel: $("$MIRAVEL" version 2>/dev/null | tr -d '\n' || true)"
say "runs per command: $RUNS"

# ---------------------------------------------------------------- audio
WAVE_SUMMARY=()
for kind in mp3 wav; do
    file="$WAV"
    [[ $kind == mp3 ]] && file="$MP3"
    out="$WORK/wave-$kind.out"
    rss_m="$WORK/rss-miravel-wave-$kind.txt"
    rss_f="$WORK/rss-ffmpeg-$kind.txt"
    export_json="$WORK/hyperfine-wave-$kind.json"
    rm -f "$out" "$rss_m" "$rss_f"
    cat "$file" > /dev/null   # the file in the page cache for both sides
    say ""
    say "== Audio ($kind): $(ffprobe -v error -show_entries format=duration:stream=codec_name,sample_rate,channels -of compact=p=0:nk=0 "$file" | paste -sd' ' -)"
    hyperfine --runs "$RUNS" --warmup 0 --export-json "$export_json" \
        -n "miravel wave $kind" \
        "$TIME -v -a -o $rss_m $MIRAVEL wave $file --begin 0 --end 36000000000 --samples 1000 >> $out" \
        -n "ffmpeg decode $kind" \
        "$TIME -v -a -o $rss_f ffmpeg -v error -i $file -vn -f null -"
    statuses=$(jq -r '.status' "$out" | paste -sd, -)
    runs_ok=$(jq -s "map(select(.status == 2)) | length" "$out")
    if [[ "$runs_ok" != "$RUNS" ]]; then
        say "FAIL: miravel wave $kind: statuses $statuses (every run must give status 2)"
        exit 1
    fi
    span=$(jq -s -r '.[-1].span' "$out")
    count=$(jq -s -r '.[-1].count' "$out")
    m=$(median "$export_json" 0)
    f=$(median "$export_json" 1)
    r=$(ratio "$m" "$f")
    WAVE_SUMMARY+=("$kind|$m|$f|$r|$(rss_max "$rss_m")|$(rss_max "$rss_f")|$span")
    say "miravel wave $kind: median $m s (runs: $(times_of "$export_json" 0)), statuses $statuses, count $count, span $span"
    say "ffmpeg decode $kind: median $f s (runs: $(times_of "$export_json" 1))"
    say "ratio miravel/ffmpeg: $r"
    say "max RSS kB: miravel $(rss_list "$rss_m"); ffmpeg $(rss_list "$rss_f")"
done

# ---------------------------------------------------------------- video
say ""
say "== Video: $(ffprobe -v error -select_streams v:0 -show_entries stream=codec_name,width,height,r_frame_rate,nb_frames:format=duration -of compact=p=0:nk=0 "$VIDEO" | paste -sd' ' -)"
TIMES=$(for i in $(seq 0 99); do printf '%d\n' $((i * 60000000)); done | paste -sd, -)
SECONDS_LIST="$WORK/seconds.txt"
seq 0 6 594 > "$SECONDS_LIST"
OUT="$WORK/out"
# one ffmpeg process per frame, accurate seek from the previous keyframe
one_frame="ffmpeg -v error -ss {} -i $VIDEO -an -frames:v 1 -s 160x90 -y"

# Verification pass (also puts the file in the page cache for every side).
V="$WORK/verify"
rm -rf "$V"
mkdir -p "$V/seq" "$V/par" "$V/sel" "$V/next" "$V/cache" "$V/miravel"
xargs -P1 -I{} $TIME -v -a -o "$V/rss-seq.txt" $one_frame "$V/seq/t{}.png" < "$SECONDS_LIST"
xargs -P2 -I{} $one_frame "$V/par/t{}.png" < "$SECONDS_LIST"
# frames n = 150 i and, for scale, the frames just after them (n = 150 i + 1, 40 ms later)
ffmpeg -v error -i "$VIDEO" -an -vf "select='lt(mod(n\,150)\,2)',scale=160:90" -fps_mode passthrough \
    -frames:v 200 -y "$V/sel/a%03d.png"
XDG_CACHE_HOME="$V/cache" "$MIRAVEL" frames "$VIDEO" --times "$TIMES" --size 160x90 > "$V/frames.json"
bad=$(jq '[.frames[] | select(.time != .shown)] | length' "$V/frames.json")
n=$(jq '.frames | length' "$V/frames.json")
[[ "$n" == 100 && "$bad" == 0 ]] || { say "FAIL: miravel frames gave $n frames, $bad not shown at their time"; exit 1; }
mismatch=0
for i in $(seq 0 99); do
    s=$((i * 6))
    k=$(printf %03d $((i + 1)))
    mv "$V/sel/a$(printf %03d $((2 * i + 1))).png" "$V/sel/f$k.png"
    mv "$V/sel/a$(printf %03d $((2 * i + 2))).png" "$V/next/f$k.png"
    a=$(md5sum < "$V/seq/t$s.png"); b=$(md5sum < "$V/par/t$s.png"); c=$(md5sum < "$V/sel/f$k.png")
    [[ "$a" == "$b" && "$a" == "$c" ]] || mismatch=$((mismatch + 1))
    ln -sf "$(jq -r ".frames[$i].file" "$V/frames.json")" "$V/miravel/m$k.png"
done
say "ffmpeg frames differing between the three peer command lines: $mismatch of 100"
[[ $mismatch == 0 ]] || { say "FAIL: the peer command lines do not give the same frames"; exit 1; }
# PSNR (dB) of each Miravel frame against ffmpeg's frame at the same time and
# against ffmpeg's next frame (40 ms later): a frame off by one would show.
psnr_avgs() {
    ffmpeg -v error -i "$1" -i "$2" \
        -lavfi "[0]format=rgb24[a];[1]format=rgb24[b];[a][b]psnr=stats_file=$3:shortest=1" -f null -
    awk '{for (k = 1; k <= NF; k++) if ($k ~ /^psnr_avg:/) {split($k, p, ":"); print p[2]}}' "$3" | sort -g
}
psnr_same=$(psnr_avgs "$V/miravel/m%03d.png" "$V/sel/f%03d.png" "$V/psnr-same.txt")
psnr_next=$(psnr_avgs "$V/miravel/m%03d.png" "$V/next/f%03d.png" "$V/psnr-next.txt")
say "PSNR miravel vs ffmpeg, same frame: $(wc -l <<< "$psnr_same") frames, lowest $(head -1 <<< "$psnr_same") dB, highest $(tail -1 <<< "$psnr_same") dB"
say "PSNR miravel vs ffmpeg, next frame (40 ms later): $(wc -l <<< "$psnr_next") frames, lowest $(head -1 <<< "$psnr_next") dB, highest $(tail -1 <<< "$psnr_next") dB"
say "max RSS kB of the 100 ffmpeg per-frame processes (verification pass): largest $(rss_max "$V/rss-seq.txt")"
# At full size (no scaling on either side), three of the times against
# ffmpeg's frame 40 ms before, at and 40 ms after each time, converted to RGB
# with the BT.709 matrix: the exact frame stands out from its neighbours.
XDG_CACHE_HOME="$V/cache-full" "$MIRAVEL" frames "$VIDEO" --times 60000000,3000000000,5940000000 \
    --size 1920x1080 > "$V/full.json"
full_line="PSNR at 1920x1080, miravel vs ffmpeg (in_color_matrix=bt709) 40 ms before / at / 40 ms after:"
j=0
for s in 6 300 594; do
    mine=$(jq -r ".frames[$j].file" "$V/full.json")
    line=""
    for d in -0.04 0 0.04; do
        at=$(awk -v a="$s" -v b="$d" 'BEGIN { printf "%.2f", a + b }')
        ffmpeg -v error -ss "$at" -i "$VIDEO" -an -frames:v 1 -vf "scale=in_color_matrix=bt709,format=rgb24" \
            -y "$V/full-$at.png"
        db=$(ffmpeg -hide_banner -nostats -i "$mine" -i "$V/full-$at.png" \
            -lavfi "[0]format=rgb24[a];[1]format=rgb24[b];[a][b]psnr" -f null - 2>&1 |
            grep -o 'average:[^ ]*' | cut -d: -f2)
        line="$line${line:+ / }$db"
    done
    full_line="$full_line t=$s s: $line dB;"
    j=$((j + 1))
done
say "${full_line%;}"

rss_m="$WORK/rss-miravel-frames.txt"
rss_s="$WORK/rss-ffmpeg-sel.txt"
rm -f "$rss_m" "$rss_s" "$WORK/frames.out"
export_json="$WORK/hyperfine-frames.json"
hyperfine --runs "$RUNS" --warmup 0 --export-json "$export_json" \
    --prepare "rm -rf $OUT && mkdir -p $OUT/cache $OUT/seq $OUT/par $OUT/sel" \
    -n "miravel frames" \
    "XDG_CACHE_HOME=$OUT/cache $TIME -v -a -o $rss_m $MIRAVEL frames $VIDEO --times $TIMES --size 160x90 >> $WORK/frames.out" \
    -n "ffmpeg per frame, sequential" \
    "xargs -P1 -I{} $one_frame $OUT/seq/t{}.png < $SECONDS_LIST" \
    -n "ffmpeg per frame, xargs -P2" \
    "xargs -P2 -I{} $one_frame $OUT/par/t{}.png < $SECONDS_LIST" \
    -n "ffmpeg select filter" \
    "$TIME -v -a -o $rss_s ffmpeg -v error -i $VIDEO -an -vf \"select='not(mod(n\\,150))',scale=160:90\" -fps_mode passthrough -frames:v 100 -y $OUT/sel/f%03d.png"
frames_ok=$(jq -s '[.[] | select((.frames | length) == 100 and ([.frames[] | select(.time != .shown)] | length) == 0)] | length' "$WORK/frames.out")
[[ "$frames_ok" == "$RUNS" ]] || { say "FAIL: only $frames_ok of $RUNS miravel frames runs gave the 100 frames"; exit 1; }
fm=$(median "$export_json" 0)
say "miravel frames: median $fm s (runs: $(times_of "$export_json" 0)), 100 frames, shown == time, every run"
best_i=1
best=$(median "$export_json" 1)
for i in 1 2 3; do
    t=$(median "$export_json" $i)
    say "$(jq -r ".results[$i].command" "$export_json"): median $t s (runs: $(times_of "$export_json" $i))"
    if awk -v a="$t" -v b="$best" 'BEGIN { exit !(a < b) }'; then best=$t; best_i=$i; fi
done
best_name=$(jq -r ".results[$best_i].command" "$export_json")
fr=$(ratio "$fm" "$best")
say "fastest peer: $best_name ($best s); ratio miravel/peer: $fr"
say "max RSS kB: miravel $(rss_list "$rss_m"); ffmpeg select $(rss_list "$rss_s")"

# ---------------------------------------------------------------- summary
say ""
say "== Summary"
say "| Benchmark | Miravel median (s) | ffmpeg median (s) | Ratio | Goal | Result | Miravel max RSS | ffmpeg max RSS |"
say "|---|---|---|---|---|---|---|---|"
for row in "${WAVE_SUMMARY[@]}"; do
    IFS='|' read -r kind m f r rm rf span <<< "$row"
    goal="-"; result="-"
    if [[ $kind == mp3 ]]; then goal="<= 0.6x"; result=$(pass_if_le "$r" 0.6); fi
    say "| wave, 1 h $kind | $m | $f | $r | $goal | $result | $rm kB ($(kib_to_mib "$rm") MiB), <= 100 MB: $(pass_if_le "$rm" 97656) | $rf kB ($(kib_to_mib "$rf") MiB) |"
done
say "| frames, 100 of 10 min 1080p | $fm | $best ($best_name) | $fr | <= 0.5x | $(pass_if_le "$fr" 0.5) | $(rss_max "$rss_m") kB ($(kib_to_mib "$(rss_max "$rss_m")") MiB) | select $(rss_max "$rss_s") kB |"
for row in "${WAVE_SUMMARY[@]}"; do
    IFS='|' read -r kind m f r rm rf span <<< "$row"
    say "wave data of the hour ($kind): span $span values (1000 a second: 40 per 40 ms frame) x 2 bytes (16-bit) = $((span * 2)) bytes; goal <= 8 MB (8000000 bytes) an hour: $(pass_if_le $((span * 2)) 8000000)"
done
