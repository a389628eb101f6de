#!/usr/bin/env bash
# The emulator's own share of the bare side of the calls that run per frame and per audio
# block: the instructions inside the emulator's interposed ioctl and write (device model,
# record, counters), per request, as a markdown table. Reads the callgrind files
# (CG_DIR/cg.out.*) of `costs_bench --callgrind CALLS` (scripts/costs.sh runs it).
#
#   bash scripts/emulator-costs.sh CG_DIR CALLS
#
# Callgrind counts the calls of the five uncollected warm-up runs too: the instructions are
# of CALLS runs, the requests of CALLS + 5.
set -euo pipefail
dir=$1
calls=$2

echo "| Bare side of | Emulated requests per call | Emulator instructions per request |"
echo "|---|---:|---:|"
for f in "$dir"/cg.out.*; do
  desc=$(sed -n 's/^desc: Trigger: Client Request: //p' "$f")
  case "$desc" in
    "bare video_output_push_frame_to_display" | "bare video_output_set_rect (moved)" | \
    "bare audio_output_push_data" | "bare audio_output_get_info") ;;
    *) continue ;;
  esac
  # From the callgrind files' directory: run where the sources are, callgrind_annotate
  # names them relative to it and its inclusive figure of the interposed call comes out
  # short.
  (cd "$dir" && callgrind_annotate --inclusive=yes "$f" 2> /dev/null) |
    awk -v name="${desc#bare }" -v calls="$calls" '
      /interpose\.cpp:(ioctl|write) \[/ { gsub(",", "", $1); ir += $1 }
      /=> .*interpose\.cpp:(ioctl|write) \(/ { n = $NF; gsub(/[()x]/, "", n); requests += n }
      END { if (requests > 0) printf "| `%s` | %.0f | %.0f |\n", name, requests / (calls + 5), ir / (requests * calls / (calls + 5)) }'
done
