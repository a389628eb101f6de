#!/usr/bin/env bash
# Instructions per buffer (callgrind) of ruvoaudiosink's render function against the
# library's push and its share of playback reports alone, on the same 400-byte blocks and
# the same emulated device. Prints both and the ratio; fails above 1.2.
#   cost_check.sh <gst_audio_alloc_test>
set -euo pipefail
prog=$1
command -v valgrind > /dev/null || { echo "cost_check: valgrind is missing (scripts/setup.sh installs it)"; exit 1; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
# total FILTER TOGGLES...: the instructions callgrind counted inside the toggled functions.
total() {
  local filter=$1 out
  shift
  out=$tmp/$(echo "$filter" | tr -dc 'a-z_').out
  valgrind --tool=callgrind --collect-atstart=no "$@" --callgrind-out-file="$out" \
    "$prog" --gtest_filter="$filter" > "$tmp/test.txt" 2>> "$tmp/valgrind.txt" ||
    { cat "$tmp/test.txt"; echo "cost_check: $filter failed under valgrind"; exit 1; }
  cat "$out"* | awk '/^totals: / { t += $2 } END { print t + 0 }'
}
# 200 buffers through render (the stream already started); the library alone pushes the
# 200 and the one before them, with the reports it needs for room.
render=$(total '*render_path_allocates*' --toggle-collect='ruvo_audio_sink_render*')
library=$(total '*library_alone*' --toggle-collect='quarvel_audio_output_push_data*' \
  --toggle-collect='quarvel_audio_output_get_info*')
awk -v r="$render" -v l="$library" 'BEGIN {
  if (r == 0 || l == 0) { print "cost_check: a measurement is missing"; exit 1 }
  per_render = r / 200; per_library = l / 201
  printf "| Per buffer | Instructions |\n|---|---:|\n"
  printf "| ruvoaudiosink render | %.0f |\n", per_render
  printf "| library push_data + get_info | %.0f |\n", per_library
  printf "\nrender / library calls: %.3f (goal <= 1.2)\n", per_render / per_library
  exit (per_render / per_library <= 1.2) ? 0 : 1
}'
