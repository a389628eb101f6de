#!/usr/bin/env bash
# gst-launch-1.0 (a player nobody here wrote) plays a 6 s H.264 + AAC clip through playbin,
# then through playbin3 (its decodebin told to stop at the compressed audio), with
# ruvovideosink and ruvoaudiosink on the preloaded emulated TV, in real time. Checks
# the emulator's timeline (frames latched on the panel, audio played) and request trace.
#   gst_launch_check.sh RUNNER LIBEMUTV PLUGIN_DIR PLATFORM MEDIA_DIR WORK_DIR
set -euo pipefail
runner=$1 emutv=$2 plugins=$3 platform=$4 media=$5 work=$6
rm -rf "$work"
mkdir -p "$work"
"$runner" --make-media --media "$media"
clip=$media/prog-aac.ts
fail() { echo "gst_launch_check: $*"; exit 1; }

# What playbin3's decodebin must stop at: the raw caps, and the compressed audio the audio
# sink takes (playbin asks the sink itself).
playbin3_caps='video/x-raw(ANY);audio/x-raw(ANY);text/x-raw(ANY);audio/mpeg,mpegversion=(int){2,4};audio/x-ac3;audio/x-eac3'

# play NAME PIPELINE...: gst-launch-1.0 plays PIPELINE on the TV; its timeline and trace are
# checked, under $work/NAME.
play() {
  local name=$1 dir=$work/$1
  shift
  mkdir -p "$dir"
  GST_REGISTRY="$work/registry.bin" GST_PLUGIN_PATH="$plugins" LD_PRELOAD="$emutv" RUVO_EMUTV="$platform" \
  RUVO_EMUTV_LOG="$dir/timeline.jsonl" RUVO_EMUTV_TRACE="$dir/trace" \
    gst-launch-1.0 -q "$@" > "$dir/stdout" 2> "$dir/stderr" || { tail -20 "$dir/stderr"; fail "$name: gst-launch-1.0 failed"; }

  latched=$(grep -c '"type":"vsync".*"new":true' "$dir/timeline.jsonl" || true)
  played=$(sed -n 's/.*"type":"audio".*"played":\([0-9]*\).*/\1/p' "$dir/timeline.jsonl" | awk '{ s += $1 } END { print s + 0 }')
  sources=$(grep -c 'DRM_IOCTL_SDP_SET_DP_SOURCE' "$dir/trace" || true)
  starts=$(grep -c 'SNDRV_COMPRESS_START' "$dir/trace" || true)
  echo "$name: frames latched: $latched (150 in the clip); audio frames played: $played (288000 in the clip);" \
    "source requests: $sources; decoder starts: $starts"
  # 6 s at 25 fps: every frame latched once (the last may still be waiting at the end).
  [ "$latched" -ge 145 ] && [ "$latched" -le 151 ] || fail "$name: expected about 150 latched frames"
  # 6 s at 48 kHz, the last decoder period possibly cut.
  [ "$played" -ge 280000 ] && [ "$played" -le 290000 ] || fail "$name: expected about 288000 audio frames played"
  [ "$sources" -ge 150 ] || fail "$name: expected a source request per frame"
  [ "$starts" -ge 1 ] || fail "$name: the audio decoder was never started"
  grep -q ERROR "$dir/stderr" && fail "$name: errors on standard error" || true
}

play playbin playbin uri="file://$clip" video-sink=ruvovideosink audio-sink=ruvoaudiosink
play playbin3 playbin3 uri="file://$clip" video-sink=ruvovideosink audio-sink=ruvoaudiosink \
  "uridecodebin3::caps=$playbin3_caps"
