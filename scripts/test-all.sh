#!/usr/bin/env bash
# Builds the library, the emulated platform and the tests for both ABIs (x86-64 host and
# ARMv7 hard-float, the latter run under qemu-arm) and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)

build_and_test() {
  local dir=$1; shift
  cmake -S . -B "$dir" "$@"
  cmake --build "$dir" -j "$jobs"
  (cd "$dir" && ctest --output-on-failure -j "$jobs" -LE "${RUVO_CTEST_EXCLUDE_LABELS:-^$}")
}

echo "== x86-64 host =="
build_and_test build/host -DCMAKE_BUILD_TYPE=RelWithDebInfo
echo "== armhf (qemu-arm) =="
# The GStreamer plugin cross-builds against a sysroot unpacked from Debian's armhf packages.
gst_sysroot=()
if bash scripts/gst-armhf-sysroot.sh build/armhf-gst-sysroot; then
  gst_sysroot=(-DRUVO_GST_SYSROOT="$PWD/build/armhf-gst-sysroot")
else
  echo "!! armhf: the GStreamer sysroot could not be made (apt-get download failed); the plugin is left out" >&2
fi
build_and_test build/armhf -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/arm-linux-gnueabihf.cmake" -DRUVO_BUILD_BENCH=OFF "${gst_sysroot[@]}"
