#!/usr/bin/env bash
# Makes the seed inputs of every fuzz road under OUT/<road>/: tiny media of
# each container and codec Miravel meets, made by FFmpeg's own encoders; PNG
# files of every colour type; timeline documents of every schema and older
# name; and, when MIRAVEL_BIN names a miravel program, wave store files that
# it writes for the media. Nothing here is kept in the repository.
#
#     scripts/fuzz-seeds.sh OUT
set -euo pipefail

if [[ $# -ne 1 ]]; then
  echo "usage: scripts/fuzz-seeds.sh OUT" >&2
  exit 2
fi
out=$1
command -v ffmpeg >/dev/null || { echo "fuzz-seeds: ffmpeg is missing (scripts/deps.sh test installs it)" >&2; exit 1; }

roads=(otio_document png_load media_probe audio_wave frame_at wave_store)
work=$(mktemp -d "${TMPDIR:-/tmp}/miravel-seeds.XXXXXX")
trap 'rm -rf "$work"' EXIT
for road in "${roads[@]}"; do
  rm -rf "${out:?}/$road"
  mkdir -p "$out/$road"
done

ff() { ffmpeg -hide_banner -loglevel error -nostdin -y "$@"; }
video="testsrc2=size=32x18:rate=25:duration=0.4"
video_ntsc="testsrc2=size=32x18:rate=30000/1001:duration=0.4"
audio="sine=frequency=440:sample_rate=8000:duration=0.4"

# name, then the encoding options and the container (by the name's extension).
media=(
  "h264-aac.mp4|-f lavfi -i $video -f lavfi -i $audio -c:v libx264 -preset ultrafast -g 4 -c:a aac -b:a 16k"
  "h264-ntsc.mov|-f lavfi -i $video_ntsc -f lavfi -i $audio -c:v libx264 -preset ultrafast -bf 2 -c:a pcm_s16le"
  "hevc.mp4|-f lavfi -i $video -c:v libx265 -preset ultrafast -x265-params log-level=none -tag:v hvc1"
  "vp9-opus.webm|-f lavfi -i $video -f lavfi -i sine=sample_rate=48000:duration=0.4 -c:v libvpx-vp9 -deadline realtime -c:a libopus -b:a 16k"
  "vp8-vorbis.mkv|-f lavfi -i $video -f lavfi -i $audio -c:v libvpx -deadline realtime -c:a libvorbis"
  "av1.mkv|-f lavfi -i $video -c:v libaom-av1 -cpu-used 8 -usage realtime"
  "mpeg2-mp2.ts|-f lavfi -i $video -f lavfi -i sine=sample_rate=32000:duration=0.4 -c:v mpeg2video -c:a mp2"
  "mpeg4-ac3.avi|-f lavfi -i $video -f lavfi -i sine=sample_rate=48000:duration=0.4 -c:v mpeg4 -c:a ac3"
  "mjpeg-pcm.avi|-f lavfi -i $video -f lavfi -i $audio -c:v mjpeg -c:a pcm_s16le"
  "prores.mov|-f lavfi -i $video -c:v prores_ks -profile:v 0"
  "dnxhr.mxf|-f lavfi -i testsrc2=size=256x144:rate=25:duration=0.04 -c:v dnxhd -profile:v dnxhr_lb -pix_fmt yuv422p"
  "ffv1.mkv|-f lavfi -i $video -c:v ffv1"
  "gif.gif|-f lavfi -i $video"
  "rotated.mp4|-f lavfi -i $video -c:v libx264 -preset ultrafast -metadata:s:v rotate=90"
  "pcm16.wav|-f lavfi -i $audio -c:a pcm_s16le"
  "float-stereo.wav|-f lavfi -i $audio -ac 2 -c:a pcm_f32le"
  "pcm24.w64|-f lavfi -i $audio -c:a pcm_s24le"
  "pcm16be.aiff|-f lavfi -i $audio -c:a pcm_s16be"
  "pcm.caf|-f lavfi -i $audio -c:a pcm_s16le"
  "mp3.mp3|-f lavfi -i sine=sample_rate=22050:duration=0.4 -c:a libmp3lame -b:a 32k"
  "flac.flac|-f lavfi -i $audio -c:a flac"
  "alac.m4a|-f lavfi -i $audio -c:a alac"
  "aac.aac|-f lavfi -i $audio -c:a aac -b:a 16k"
  "aac.m4a|-f lavfi -i $audio -c:a aac -b:a 16k"
  "vorbis.ogg|-f lavfi -i $audio -c:a libvorbis"
  "opus.opus|-f lavfi -i sine=sample_rate=48000:duration=0.4 -c:a libopus -b:a 16k"
)

made=0
for entry in "${media[@]}"; do
  name=${entry%%|*}
  read -r -a options <<<"${entry#*|}"
  if ff "${options[@]}" -t 0.4 "$work/$name" 2>"$work/error"; then
    # media_probe and frame_at read two bytes of choices before the media:
    # the best streams, and the start (frame_at: exact seeking).
    cp "$work/$name" "$out/audio_wave/$name"
    { printf '\x00\x00'; cat "$work/$name"; } >"$out/media_probe/$name"
    { printf '\x00\x04'; cat "$work/$name"; } >"$out/frame_at/$name"
    made=$((made + 1))
  else
    echo "fuzz-seeds: skipped $name: $(head -c 200 "$work/error")" >&2
  fi
done

# PNG files of each colour type and depth, as caches and other tools write them.
pngs=0
for format in rgb24 rgba gray gray16be pal8 rgb48be rgba64be ya8 ya16be monob; do
  if ff -f lavfi -i testsrc2=size=16x9 -frames:v 1 -pix_fmt "$format" "$out/png_load/$format.png" 2>"$work/error"; then
    pngs=$((pngs + 1))
  else
    echo "fuzz-seeds: skipped $format.png: $(head -c 200 "$work/error")" >&2
  fi
done

# Timeline documents: the schemas and older names other tools write.
docs=$out/otio_document
cat >"$docs/timeline.otio" <<'JSON'
{"OTIO_SCHEMA": "Timeline.1", "name": "cut", "global_start_time": {"OTIO_SCHEMA": "RationalTime.1", "rate": 24.0, "value": 86400.0},
 "tracks": {"OTIO_SCHEMA": "Stack.1", "name": "tracks", "children": [
  {"OTIO_SCHEMA": "Track.1", "name": "V1", "kind": "Video", "children": [
   {"OTIO_SCHEMA": "Gap.1", "name": "", "source_range": {"OTIO_SCHEMA": "TimeRange.1",
     "start_time": {"OTIO_SCHEMA": "RationalTime.1", "rate": 24.0, "value": 0.0},
     "duration": {"OTIO_SCHEMA": "RationalTime.1", "rate": 24.0, "value": 12.0}}},
   {"OTIO_SCHEMA": "Clip.1", "name": "shot", "metadata": {}, "markers": [], "effects": [
      {"OTIO_SCHEMA": "LinearTimeWarp.1", "name": "", "effect_name": "LinearTimeWarp", "time_scalar": 2.0}],
    "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": "file:///media/shot.mov",
      "available_range": {"OTIO_SCHEMA": "TimeRange.1",
        "start_time": {"OTIO_SCHEMA": "RationalTime.1", "rate": 23.976023976023978, "value": 0.0},
        "duration": {"OTIO_SCHEMA": "RationalTime.1", "rate": 23.976023976023978, "value": 240.0}}},
    "source_range": {"OTIO_SCHEMA": "TimeRange.1",
      "start_time": {"OTIO_SCHEMA": "RationalTime.1", "rate": 24.0, "value": 24.0},
      "duration": {"OTIO_SCHEMA": "RationalTime.1", "rate": 24.0, "value": 48.0}}},
   {"OTIO_SCHEMA": "Transition.1", "name": "dissolve", "transition_type": "SMPTE_Dissolve",
    "in_offset": {"OTIO_SCHEMA": "RationalTime.1", "rate": 24.0, "value": 6.0},
    "out_offset": {"OTIO_SCHEMA": "RationalTime.1", "rate": 24.0, "value": 6.0}}]},
  {"OTIO_SCHEMA": "Track.1", "name": "A1", "kind": "Audio", "children": [
   {"OTIO_SCHEMA": "Clip.2", "name": "music", "active_media_reference_key": "DEFAULT_MEDIA",
    "media_references": {"DEFAULT_MEDIA": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": "music.wav"}},
    "source_range": {"OTIO_SCHEMA": "TimeRange.1",
      "start_time": {"OTIO_SCHEMA": "RationalTime.1", "rate": 48000.0, "value": 0.0},
      "duration": {"OTIO_SCHEMA": "RationalTime.1", "rate": 48000.0, "value": 96000.0}}}]}]}}
JSON
cat >"$docs/older-names.otio" <<'JSON'
{"OTIO_SCHEMA": "Timeline.1", "name": "old", "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [
 {"OTIO_SCHEMA": "Sequence.1", "kind": "Video", "children": [
  {"OTIO_SCHEMA": "Filler.1", "source_range": {"OTIO_SCHEMA": "TimeRange.1",
    "start_time": {"OTIO_SCHEMA": "RationalTime.1", "rate": 30.0, "value": 0},
    "duration": {"OTIO_SCHEMA": "RationalTime.1", "rate": 30.0, "value": 30}}},
  {"OTIO_SCHEMA": "Clip.1", "name": "a", "media_reference": {"OTIO_SCHEMA": "MissingReference.1"},
   "source_range": {"OTIO_SCHEMA": "TimeRange.1",
    "start_time": {"OTIO_SCHEMA": "RationalTime.1", "rate": 29.97002997002997, "value": 1.5},
    "duration": {"OTIO_SCHEMA": "RationalTime.1", "rate": 29.97002997002997, "value": NaN}}}]}]}}
JSON
cat >"$docs/timeline2-nested.otio" <<'JSON'
{"OTIO_SCHEMA": "Timeline.2", "name": "nested", "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [
 {"OTIO_SCHEMA": "Track.1", "kind": "Audio", "children": [
  {"OTIO_SCHEMA": "Stack.1", "name": "inner", "source_range": {"OTIO_SCHEMA": "TimeRange.1",
    "start_time": {"OTIO_SCHEMA": "RationalTime.1", "rate": 59.94005994005994, "value": 0},
    "duration": {"OTIO_SCHEMA": "RationalTime.1", "rate": 59.94005994005994, "value": 120}},
   "children": [{"OTIO_SCHEMA": "Track.1", "kind": "Audio", "children": [
    {"OTIO_SCHEMA": "Clip.1", "name": "voice", "media_reference": {"OTIO_SCHEMA": "ExternalReference.1", "target_url": "voice.m4a"},
     "metadata": {"miravel": {"volume": 0.5, "mute": false}}, "enabled": true,
     "effects": [{"OTIO_SCHEMA": "FreezeFrame.1", "time_scalar": 0.0}],
     "markers": [{"OTIO_SCHEMA": "Marker.2", "name": "m", "color": "RED", "marked_range": {"OTIO_SCHEMA": "TimeRange.1",
       "start_time": {"OTIO_SCHEMA": "RationalTime.1", "rate": 1, "value": 0}, "duration": {"OTIO_SCHEMA": "RationalTime.1", "rate": 1, "value": 0}}}],
     "source_range": {"OTIO_SCHEMA": "TimeRange.1",
      "start_time": {"OTIO_SCHEMA": "RationalTime.1", "rate": 1, "value": -1e300},
      "duration": {"OTIO_SCHEMA": "RationalTime.1", "rate": 1, "value": 1e-9}}}]}]}]}]}}
JSON
printf '%s' '{"OTIO_SCHEMA": "SerializableCollection.1", "children": [{"OTIO_SCHEMA": "Timeline.1", "tracks": {"OTIO_SCHEMA": "Stack.1", "children": []}}]}' >"$docs/collection.otio"
printf '%s' '{"OTIO_SCHEMA": "Track.1", "kind": "Video", "children": [{"OTIO_SCHEMA": "Clip.1", "source_range": null}]}' >"$docs/bare-track.otio"
printf '%s' '{"OTIO_SCHEMA": "Timeline.1", "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [{"OTIO_SCHEMA": "Track.1", "kind": "Video", "children": [{"OTIO_SCHEMA": "ImageSequenceReference.1"}]}]}}' >"$docs/unknown-child.otio"
printf '\xef\xbb\xbf{"OTIO_SCHEMA": "Timeline.1", "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [Infinity, -Infinity, "\\u00e9\\ud83c\\udfac"]}}' >"$docs/bom-and-literals.otio"
printf '' >"$docs/empty.otio"
documents=$(find "$docs" -type f | wc -l)

# Wave store files: what miravel writes for some of the media above.
stores=0
if [[ -n "${MIRAVEL_BIN:-}" && -x "$MIRAVEL_BIN" ]]; then
  for name in pcm16.wav float-stereo.wav mp3.mp3 h264-aac.mp4 vorbis.ogg; do
    [[ -f "$work/$name" ]] || continue
    MIRAVEL_WAVE_STORE=1 XDG_CACHE_HOME="$work/cache" "$MIRAVEL_BIN" wave "$work/$name" \
      --begin 0 --end 4000000 --samples 10 >/dev/null 2>"$work/error" ||
      echo "fuzz-seeds: no wave store file for $name: $(head -c 200 "$work/error")" >&2
  done
  while IFS= read -r -d '' file; do
    cp "$file" "$out/wave_store/$(basename "$file")"
    stores=$((stores + 1))
  done < <(find "$work/cache" -type f ! -name '*.lock' ! -name '*.tmp-*' -print0 2>/dev/null)
else
  echo "fuzz-seeds: MIRAVEL_BIN not set: no wave store files" >&2
fi
# A store file cut short and an empty one, besides.
printf 'MRVLWAVE' >"$out/wave_store/header-only"
stores=$((stores + 1))

echo "fuzz-seeds: $made media files, $pngs PNG files, $documents documents, $stores wave store inputs in $out"
