#!/usr/bin/env bash
# Instructions per frame (callgrind) of ruvovideosink's render path against the library's
# push and set-timestamp calls alone, and of the whole sink against fakevideosink. Prints a
# table; fails when the element's own render work exceeds 1.2x the two library calls.
#   cost_check.sh <gst_video_cost> [frames]
set -euo pipefail
prog=$1
frames=${2:-200}
command -v valgrind > /dev/null || { echo "cost_check: valgrind is missing (scripts/setup.sh installs it)"; exit 1; }
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$tmp/cg.out" "$prog" "$frames" 2> "$tmp/valgrind.txt"
for f in "$tmp"/cg.out.*; do
  desc=$(sed -n 's/^desc: Trigger: Client Request: //p' "$f")
  total=$(sed -n 's/^totals: //p' "$f")
  [ -n "$desc" ] && printf '%s\t%s\n' "$desc" "$total"
done > "$tmp/ir.tsv"
# The element's render function alone: every frame but the preroll one passes through it
# with its push and timestamp (the preroll frame only sets its timestamp there).
valgrind --tool=callgrind --collect-atstart=no --toggle-collect='*sink_render*' \
  --callgrind-out-file="$tmp/render.out" "$prog" "$frames" render 2>> "$tmp/valgrind.txt"
cat "$tmp"/render.out* | awk '/^totals: / { t += $2 } END { printf "ruvovideosink render\t%d\n", t }' >> "$tmp/ir.tsv"
awk -F'\t' -v n="$frames" '
  { ir[$1] = $2 / n }
  END {
    lib = ir["library push+set_pts"]; ruvo = ir["ruvovideosink chain"]; fake = ir["fakevideosink chain"]
    own = ir["ruvovideosink render"] * n / (n + 4)  # n + 5 frames, the preroll one aside
    if (lib == 0 || ruvo == 0 || fake == 0 || own == 0) { print "cost_check: a measurement is missing"; exit 1 }
    printf "| Per frame | Instructions |\n|---|---:|\n"
    printf "| library push_frame_to_display + set_pts | %.0f |\n", lib
    printf "| gst_pad_push into ruvovideosink | %.0f |\n", ruvo
    printf "| gst_pad_push into fakevideosink | %.0f |\n", fake
    printf "| ruvovideosink render function | %.0f |\n", own
    printf "\nrender / library calls: %.3f (goal <= 1.2); ruvovideosink / fakevideosink: %.2f\n", own / lib, ruvo / fake
    exit (own / lib <= 1.2) ? 0 : 1
  }' "$tmp/ir.tsv"
