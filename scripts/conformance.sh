#!/usr/bin/env bash
# The full playback conformance run: every shipped scenario through playbin with the TV's
# sinks on the preloaded emulated TV, in real time. Writes out/conformance/conformance.md
# and the plots. (CI runs the subset labelled 'conformance' in scripts/test-all.sh.)
# Extra arguments go to the runner.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build/host -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build/host --target avsink-conformance gstruvo emutv -j "$(nproc)"
build/host/tools/avsink_conformance/avsink-conformance --out out/conformance "$@" \
  tools/avsink_conformance/scenarios/*.play
