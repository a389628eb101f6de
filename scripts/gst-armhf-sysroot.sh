#!/usr/bin/env bash
# A sysroot with Debian's armhf GStreamer development files, for the cross build of the
# GStreamer plugin and its tests. Debian's armhf GStreamer -dev packages cannot be
# installed through multiarch here (they pull libc6-dev:armhf and linux-libc-dev:armhf,
# which must not be installed), so their packages are downloaded and unpacked instead:
# apt-get download + dpkg -x, nothing installed. The libraries that GStreamer and GLib
# load at run time (libunwind, libdw, pcre2, ...) come along, for the tests under qemu-arm.
#
#   bash scripts/gst-armhf-sysroot.sh [DIR]          (default build/armhf-gst-sysroot)
#
# Then: cmake ... -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake -DRUVO_GST_SYSROOT=DIR
#
# pkg-config runs with PKG_CONFIG_SYSROOT_DIR=DIR. The packages that glib and GStreamer
# name only for static linking (Requires.private: libpcre2-8, libffi, zlib, ...) get empty
# stand-in .pc files in DIR/stub-pkgconfig: a dynamic link needs nothing from them.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$(realpath -m "${1:-build/armhf-gst-sysroot}")
pkgs=(libgstreamer1.0-dev libgstreamer1.0-0 libgstreamer-plugins-base1.0-dev libgstreamer-plugins-base1.0-0
      libglib2.0-dev libglib2.0-0 liborc-0.4-0 libunwind8 libdw1 libelf1 libffi8 libpcre2-8-0 libmount1 libblkid1
      libselinux1 liblzma5 libbz2-1.0)
modules=(gstreamer-1.0 gstreamer-base-1.0 gstreamer-video-1.0 gstreamer-audio-1.0 gstreamer-check-1.0)

if [ -f "$dir/.complete" ]; then
  exit 0
fi
rm -rf "$dir"
mkdir -p "$dir/debs" "$dir/stub-pkgconfig"
(cd "$dir/debs" && apt-get download "${pkgs[@]/%/:armhf}" > /dev/null)
for deb in "$dir"/debs/*.deb; do
  dpkg -x "$deb" "$dir"
done
rm -rf "$dir/debs"

export PKG_CONFIG_SYSROOT_DIR="$dir"
export PKG_CONFIG_LIBDIR="$dir/usr/lib/arm-linux-gnueabihf/pkgconfig:$dir/usr/share/pkgconfig:$dir/stub-pkgconfig"
for _ in $(seq 1 30); do
  missing=$(pkg-config --cflags "${modules[@]}" 2>&1 | sed -n "s/^Package '\([^']*\)', required by.*/\1/p" | head -1 || true)
  [ -z "$missing" ] && break
  printf 'Name: %s\nDescription: stand-in, named only for static linking\nVersion: 999\n' "$missing" \
    > "$dir/stub-pkgconfig/$missing.pc"
done
pkg-config --cflags --libs "${modules[@]}" > /dev/null
touch "$dir/.complete"
echo "gst-armhf-sysroot: $dir"
