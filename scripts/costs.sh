#!/usr/bin/env bash
# What every exported call costs, beside the bare driver requests it sends on the same
# emulated device: driver requests and heap allocations per call, the median time per call
# (Google Benchmark) and the instructions per call (valgrind --tool=callgrind, a stable
# figure), with the ratios library / bare. Writes a markdown table to standard output;
# progress goes to standard error.
#
#   bash scripts/costs.sh > table.md
#
# Environment: RUVO_COSTS_BUILD_DIR (default build/h-proof), RUVO_COSTS_CALLS (calls per
# callgrind figure, default 200), RUVO_COSTS_MIN_TIME (seconds per benchmark repetition,
# default 0.2).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${RUVO_COSTS_BUILD_DIR:-build/h-proof}
calls=${RUVO_COSTS_CALLS:-200}
min_time=${RUVO_COSTS_MIN_TIME:-0.2}

command -v valgrind > /dev/null || { echo "costs: valgrind is missing (scripts/setup.sh installs it)" >&2; exit 1; }
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build "$build" --target costs_bench -j "$(nproc)" >&2
bench="$build/bench/costs_bench"

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

echo "costs: requests and allocations" >&2
"$bench" --counts > "$tmp/counts.tsv"
echo "costs: Google Benchmark (median of 5 repetitions)" >&2
"$bench" --benchmark_color=false --benchmark_min_time="$min_time" --costs-out "$tmp/times.tsv" > "$tmp/bench.txt"
echo "costs: callgrind, $calls calls each" >&2
# Collection is per thread: the hand-back's audio-mute thread is counted from its entry.
valgrind --tool=callgrind --collect-atstart=no --toggle-collect='_set_audio_mute*' --callgrind-out-file="$tmp/cg.out" \
  "$bench" --callgrind "$calls" 2> "$tmp/valgrind.txt"
for f in "$tmp"/cg.out.*; do
  desc=$(sed -n 's/^desc: Trigger: Client Request: //p' "$f")
  total=$(sed -n 's/^totals: //p' "$f")
  [ -n "$desc" ] && printf '%s\t%s\n' "$desc" "$total"
done > "$tmp/ir.tsv"

awk -F'\t' -v calls="$calls" '
  function ratio(a, b) { return (b > 0) ? sprintf("%.2f", a / b) : "-" }
  FILENAME == ARGV[1] { if (FNR > 1) { order[++n] = $1; req[$1] = $2 + $3 + $4; alloc[$1] = $5; own[$1] = $6 }; next }
  FILENAME == ARGV[2] { lib_ns[$1] = $2; bare_ns[$1] = $3; next }
  FILENAME == ARGV[3] {
    split($1, w, " "); side = w[1]; name = substr($1, length(side) + 2)
    ir[side, name] = $2 / calls; next
  }
  END {
    print "| Call | Driver requests | Heap allocations (library'"'"'s own) | Time, library / bare (ns) | Ratio | Instructions, library / bare | Ratio |"
    print "|---|---:|---:|---:|---:|---:|---:|"
    for (i = 1; i <= n; i++) {
      c = order[i]
      li = ir["library", c]; bi = ir["bare", c]
      t = (bare_ns[c] == "-" || bare_ns[c] == "") ? sprintf("%s / -", lib_ns[c]) : sprintf("%s / %s", lib_ns[c], bare_ns[c])
      tr = (bare_ns[c] == "-" || bare_ns[c] == "") ? "-" : ratio(lib_ns[c], bare_ns[c])
      ins = (bi == "") ? sprintf("%.0f / -", li) : sprintf("%.0f / %.0f", li, bi)
      irr = (bi == "") ? "-" : ratio(li, bi)
      printf "| `%s` | %d | %d (%d) | %s | %s | %s | %s |\n", c, req[c], alloc[c], own[c], t, tr, ins, irr
    }
  }' "$tmp/counts.tsv" "$tmp/times.tsv" "$tmp/ir.tsv"

# The emulator's own share per request, from the same callgrind run.
echo
bash scripts/emulator-costs.sh "$tmp" "$calls"
