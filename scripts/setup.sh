#!/usr/bin/env bash
# Installs every Debian package the build, the tests and the armhf cross build need.
# Idempotent: installs only what is missing. Run as root (or through sudo).
set -u

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

HOST_PKGS=(
  cmake g++ pkg-config make
  libdrm-dev libasound2-dev libwayland-dev libwayland-bin wayland-protocols libweston-10-dev
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  weston clang libclang-rt-14-dev libfuzzer-14-dev valgrind
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-tools
  gstreamer1.0-plugins-base gstreamer1.0-plugins-base-apps gstreamer1.0-plugins-good
  gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav
  clang-format doxygen qemu-system-arm tmux cpio kmod xz-utils
)
CROSS_PKGS=(
  g++-arm-linux-gnueabihf qemu-user
  libdrm-dev:armhf libasound2-dev:armhf libwayland-dev:armhf
  libgtest-dev:armhf libgmock-dev:armhf libbenchmark-dev:armhf
)

missing() {
  local out=()
  for p in "$@"; do
    if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
      out+=("$p")
    fi
  done
  echo "${out[@]:-}"
}

if ! dpkg --print-foreign-architectures | grep -qx armhf; then
  $SUDO dpkg --add-architecture armhf
fi

need=$(missing "${HOST_PKGS[@]}" "${CROSS_PKGS[@]}")
if [ -z "$need" ]; then
  echo "setup: all packages present"
  exit 0
fi

# One suite's index may fail to refresh for a while (a mirror in sync); what counts
# is whether the packages install, so the exit status of update is not checked.
$SUDO apt-get update || true
# --no-remove: apt must never take the host compiler away to satisfy an armhf package.
# The cross compiler brings its own kernel headers; linux-libc-dev:armhf is never asked for.
# shellcheck disable=SC2086
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-remove --no-install-recommends $need
status=$?
still=$(missing "${HOST_PKGS[@]}" "${CROSS_PKGS[@]}")
if [ -n "$still" ]; then
  echo "setup: could not install: $still" >&2
  exit 1
fi
exit $status
