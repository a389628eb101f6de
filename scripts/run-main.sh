#!/usr/bin/env bash
# Builds the library, the emulated TV platform and the session player (build/host), then
# plays tools/scenarios/default.scn: five seconds of a 50 fps stream with audio, ending in
# an advertising-break hand-back. Prints the library's lines, the decoded trace of every
# driver request and a summary; draws the session into out/session.svg.
# Extra arguments go to the player (e.g. --quiet, --no-trace).
set -euo pipefail
cd "$(dirname "$0")/.."

cmake -S . -B build/host -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build build/host --target tv-session-player -j "$(nproc)"
mkdir -p out
build/host/tools/tv-session-player --svg out/session.svg "$@" tools/scenarios/default.scn
