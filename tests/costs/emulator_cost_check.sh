#!/usr/bin/env bash
# The emulator's instructions per request on the per-frame and per-block requests stay at
# or under LIMIT (scripts/emulator-costs.sh, from a callgrind run of the costs benchmark).
#
#   emulator_cost_check.sh COSTS_BENCH CALLS LIMIT
set -euo pipefail
bench=$1
calls=$2
limit=$3
here=$(cd "$(dirname "$0")" && pwd)
command -v valgrind > /dev/null || { echo "emulator_cost_check: valgrind is missing (scripts/setup.sh installs it)"; exit 1; }

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
valgrind --tool=callgrind --collect-atstart=no --toggle-collect='_set_audio_mute*' \
  --callgrind-out-file="$tmp/cg.out" "$bench" --callgrind "$calls" 2> "$tmp/valgrind.txt"
bash "$here/../../scripts/emulator-costs.sh" "$tmp" "$calls" | tee "$tmp/table.md"

rows=$(grep -c '^| `' "$tmp/table.md" || true)
if [ "$rows" -ne 4 ]; then
  echo "emulator_cost_check: expected 4 rows, got $rows"
  exit 1
fi
over=$(awk -F'|' -v limit="$limit" '/^\| `/ { if ($4 + 0 > limit) print $2 }' "$tmp/table.md")
if [ -n "$over" ]; then
  echo "emulator_cost_check: over $limit instructions per request:$over"
  exit 1
fi
echo "emulator_cost_check: every request at or under $limit"
