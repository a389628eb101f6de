#!/usr/bin/env bash
# gst-play-1.0 (a player nobody here wrote) plays a 30 s H.264 + AAC clip with ruvovideosink
# and ruvoaudiosink on the preloaded emulated TV, in real time, driven through its keyboard
# in a tmux terminal as a viewer would: pause and resume, a seek forward and one back, volume
# up, a faster rate, quit. Checks the emulator's timeline (the panel stood still while paused,
# the seeks moved the picture forward and back, the decoder's rate) and its request trace
# (the gain).
#   gst_play_check.sh RUNNER LIBEMUTV PLUGIN_DIR PLATFORM MEDIA_DIR WORK_DIR
set -euo pipefail
runner=$1 emutv=$2 plugins=$3 platform=$4 media=$5 work=$6
rm -rf "$work"
mkdir -p "$work"
"$runner" --make-media --media "$media"
clip=$media/mp4-25.mp4
session="ruvo-gst-play-$$"
fail() {
    echo "gst_play_check: $*"
    tail -20 "$work/stdout" 2>/dev/null || true
    exit 1
}
cleanup() { tmux kill-session -t "$session" 2>/dev/null || true; }
trap cleanup EXIT

# The player's own terminal: keys typed into it reach its keyboard handler.
tmux new-session -d -s "$session" -x 160 -y 40 \
    "env GST_REGISTRY='$work/registry.bin' GST_PLUGIN_PATH='$plugins' LD_PRELOAD='$emutv' \
RUVO_EMUTV='$platform' RUVO_EMUTV_LOG='$work/timeline.jsonl' RUVO_EMUTV_TRACE='$work/trace' \
gst-play-1.0 --videosink=ruvovideosink --audiosink=ruvoaudiosink '$clip' > '$work/stdout' 2>&1; \
echo \$? > '$work/status'"

# Each key typed is noted with the time it was typed, for reading the timeline afterwards.
key() {
    local name=$1
    shift
    echo "$name $(cut -d' ' -f1 /proc/uptime)" >> "$work/keys"
    tmux send-keys -t "$session" "$@"
}
# Wait until the player shows its first frame (at most 20 s).
for _ in $(seq 200); do
    [ -s "$work/timeline.jsonl" ] && grep -q '"new":true' "$work/timeline.jsonl" && break
    sleep 0.1
done
grep -q '"new":true' "$work/timeline.jsonl" 2>/dev/null || fail "no frame on the panel in 20 s"
sleep 2
key pause Space
sleep 1.5
key resume Space
sleep 2
key seek Right
sleep 2
key seek-back Left
sleep 2
key volume Up
sleep 1
key rate +
sleep 2
key quit q
for _ in $(seq 100); do
    [ -s "$work/status" ] && break
    sleep 0.1
done
[ -s "$work/status" ] || fail "gst-play-1.0 did not quit"
[ "$(cat "$work/status")" = 0 ] || fail "gst-play-1.0 exited with status $(cat "$work/status")"
grep -q "ERROR" "$work/stdout" && fail "errors in the player's output"

tl=$work/timeline.jsonl
# Pause: the decoder's rate went to 0 and back, and for a second the panel latched nothing.
grep -q '"what":"speed","detail":"0"' "$tl" || fail "pause: the decoder was never held (speed 0)"
longest_still=$(grep '"type":"vsync"' "$tl" | sed -n 's/.*"t_ns":\([0-9]*\).*"new":\(true\|false\).*/\1 \2/p' |
    awk '$2 == "true" { if (last && $1 - last > gap) gap = $1 - last; last = $1 } END { printf "%d\n", gap / 1e6 }')
echo "longest time without a new frame: $longest_still ms (paused 1500 ms)"
[ "$longest_still" -ge 1000 ] || fail "pause: the panel never stood still for a second"
# Seek forward: some frame on the panel lies seconds past the one before it.
jump=$(grep '"type":"vsync"' "$tl" | sed -n 's/.*"pts":\([0-9]*\).*/\1/p' |
    awk '{ if (last != "" && $1 - last > j) j = $1 - last; last = $1 } END { printf "%d\n", j / 90 }')
echo "largest forward jump of the picture: $jump ms"
[ "$jump" -ge 2000 ] || fail "seek: the picture never jumped forward"
# Seek back: some frame on the panel lies before the one before it (gst-play-1.0 steps back
# by a hundredth of the duration, to the keyframe before: about a second in this clip;
# playing never goes back).
back=$(grep '"type":"vsync"' "$tl" | sed -n 's/.*"pts":\([0-9]*\).*/\1/p' |
    awk '{ if (last != "" && last - $1 > j) j = last - $1; last = $1 } END { printf "%d\n", j / 90 }')
echo "largest backward jump of the picture: $back ms"
[ "$back" -ge 200 ] || fail "seek back: the picture never jumped back"
# Volume up: a gain above unity (32768) reached the decoder's gain control.
gains=$(sed -n 's/.*"what":"volume","detail":"qvl speaker main gain=\([0-9]*\)".*/\1/p' "$tl" | sort -un | tr '\n' ' ')
echo "speaker gains set: $gains"
echo "$gains" | tr ' ' '\n' | awk '$1 > 32768 { up = 1 } END { exit !up }' || fail "volume: no gain above unity"
# Faster rate: the decoder's rate control went above 100.
speeds=$(sed -n 's/.*"what":"speed","detail":"\([0-9]*\)".*/\1/p' "$tl" | sort -un | tr '\n' ' ')
echo "decoder speeds set: $speeds"
echo "$speeds" | tr ' ' '\n' | awk '$1 > 100 { up = 1 } END { exit !up }' || fail "rate: no speed above 100"
# The trace saw the picture pushed and the decoder started.
grep -q 'DRM_IOCTL_SDP_SET_DP_SOURCE' "$work/trace" || fail "no source request in the trace"
grep -q 'SNDRV_COMPRESS_START' "$work/trace" || fail "the audio decoder was never started"
echo "gst_play_check: ok"
