#!/usr/bin/env bash
# A real ARM kernel as witness: fetches Debian's armhf kernel and busybox-static, builds an
# initramfs with the armhf build's check programs and probe, boots it with
# qemu-system-arm -M virt (virtio-gpu gives a real /dev/dri/card0, snd-aloop a real sound
# card) and reads one "KW {...}" line per check from the serial console.
#
#   scripts/kernel-witness.sh [ARMHF_BUILD_DIR]     (default build/armhf)
#
# Fails, and says why, when the kernel package cannot be fetched, the guest does not
# finish, or any check fails. Work files: ARMHF_BUILD_DIR/kernel-witness/.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build/armhf}" && pwd)
work=$build/kernel-witness
triplet=arm-linux-gnueabihf
boot_timeout=${KERNEL_WITNESS_BOOT_TIMEOUT:-240}
started=$(date +%s)

say() { echo "kernel-witness: $*"; }
fail() {
  echo "kernel-witness: FAIL: $*"
  exit 1
}

programs=("$build/tests/kernel/kernel-checks" "$build/tools/avsink-probe" "$build/tools/avsink-probe-emulated")
for p in "${programs[@]}"; do
  [ -x "$p" ] || fail "$p is missing: build the armhf tree first (scripts/test-all.sh)"
done
for tool in qemu-system-arm cpio depmod modprobe dpkg-deb apt-get readelf; do
  command -v "$tool" > /dev/null || fail "$tool is not installed (scripts/setup.sh installs it)"
done

# ---- packages ------------------------------------------------------------------------
mkdir -p "$work/debs"
cd "$work/debs"
download() {
  if ! apt-get download "$1" > "$work/apt.log" 2>&1; then
    fail "cannot fetch $1 with apt-get download: $(grep -E '^(E|W):' "$work/apt.log" | tr '\n' ' ')"
  fi
}
# The metapackage is fetched every time: it says whether the armhf archive answers and
# which kernel is current; the versioned package is kept once fetched.
rm -f linux-image-armmp_*_armhf.deb
download linux-image-armmp:armhf
meta=$(ls linux-image-armmp_*_armhf.deb)
image=$(dpkg-deb -f "$meta" Depends | grep -o 'linux-image-[0-9][^ ,(]*-armmp' | head -n 1)
[ -n "$image" ] || fail "$meta names no versioned kernel package"
ls "${image}"_*_armhf.deb > /dev/null 2>&1 || download "$image:armhf"
ls busybox-static_*_armhf.deb > /dev/null 2>&1 || download busybox-static:armhf
kdeb=$(ls "${image}"_*_armhf.deb | head -n 1)
say "kernel package $kdeb (from $meta)"

kdir=$work/kernel
kver=${image#linux-image-}
if [ ! -f "$kdir/boot/vmlinuz-$kver" ]; then
  rm -rf "$kdir"
  dpkg-deb -x "$kdeb" "$kdir"
  depmod -b "$kdir" "$kver"
fi
bbdir=$work/busybox
[ -x "$bbdir/bin/busybox" ] || dpkg-deb -x "$(ls busybox-static_*_armhf.deb | head -n 1)" "$bbdir"

# ---- initramfs -----------------------------------------------------------------------
img=$work/root
rm -rf "$img"
mkdir -p "$img"/{bin,dev,proc,sys,tmp,etc,modules,lib/$triplet,usr/share/alsa}
cp "$bbdir/bin/busybox" "$img/bin/busybox"
cp "$root/tests/kernel/init.sh" "$img/init"
chmod 755 "$img/init"

# Modules and their dependencies, in load order, from depmod's answer on the package.
: > "$img/modules/order"
for m in virtio_mmio virtio-gpu snd-aloop; do
  modprobe -d "$kdir" -S "$kver" --show-depends "$m" | awk '$1 == "insmod" { print $2 }'
done | awk '!seen[$0]++' | while read -r ko; do
  cp "$ko" "$img/modules/"
  basename "$ko" >> "$img/modules/order"
done
say "modules: $(tr '\n' ' ' < "$img/modules/order")"

# Programs, and the libraries they need: the build's own, Debian's armhf libraries and the
# loader, all in the loader's default directories. (Not at the build paths the programs'
# run paths name: a build under /tmp would be hidden by the guest's /tmp.)
cp "${programs[@]}" "$img/bin/"
for lib in "$build"/src/lib*.so* "$build"/emutv/lib*.so*; do
  cp -P "$lib" "$img/lib/$triplet/"
done
find_lib() {
  local d
  for d in "$build/src" "$build/emutv" "/usr/lib/$triplet" "/lib/$triplet"; do
    [ -e "$d/$1" ] && { echo "$d/$1"; return 0; }
  done
  return 1
}
queue=("${programs[@]}" "$build"/emutv/lib*.so)
declare -A seen=()
while [ ${#queue[@]} -gt 0 ]; do
  f=${queue[0]}
  queue=("${queue[@]:1}")
  for need in $(readelf -d "$f" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p'); do
    [ -n "${seen[$need]:-}" ] && continue
    seen[$need]=1
    path=$(find_lib "$need") || fail "no armhf library $need (needed by $f)"
    case $path in
      "$build"/*) ;;
      *) cp -L "$path" "$img/lib/$triplet/$need" ;;
    esac
    queue+=("$(readlink -f "$path")")
  done
done
cp -L "/usr/lib/$triplet/ld-linux-armhf.so.3" "$img/lib/ld-linux-armhf.so.3"

# ALSA: the stock configuration, with "default" pointed at the loopback card.
cp -r /usr/share/alsa/alsa.conf /usr/share/alsa/cards /usr/share/alsa/ctl /usr/share/alsa/pcm "$img/usr/share/alsa/"
cat > "$img/etc/asound.conf" << 'ALSA'
ctl.!default {
  type hw
  card Loopback
}
ALSA

(cd "$img" && find . | cpio -o -H newc --quiet | gzip -1) > "$work/initrd.gz"
say "initramfs $(du -k "$work/initrd.gz" | cut -f1) KiB, $(ls "$img/lib/$triplet" | wc -l) libraries; made in $(($(date +%s) - started)) s"

# ---- boot ----------------------------------------------------------------------------
console=$work/console.log
boot_started=$(date +%s)
set +e
timeout "$boot_timeout" qemu-system-arm -M virt -cpu cortex-a15 -smp 1 -m 512 \
  -kernel "$kdir/boot/vmlinuz-$kver" -initrd "$work/initrd.gz" \
  -append "console=ttyAMA0 rdinit=/init panic=-1 loglevel=4" \
  -global virtio-mmio.force-legacy=false -device virtio-gpu-device -nic none \
  -display none -monitor none -serial stdio -no-reboot < /dev/null > "$console" 2>&1
qemu_status=$?
set -e
tr -d '\r' < "$console" > "$console.txt"
cat "$console.txt"
say "guest ran $(($(date +%s) - boot_started)) s (qemu status $qemu_status); $(($(date +%s) - started)) s in all"

# ---- results -------------------------------------------------------------------------
grep -q '^KW-END' "$console.txt" || fail "the guest did not finish (no KW-END line; qemu status $qemu_status)"
expected=(devices records.drm open.no-chip-devices open.generic-drm open.generic-drm-again mixer.setup
  "mixer.volume(1)" "mixer.volume(2)" "mixer.volume(0.5)" "mixer.volume(1e+10)" "mixer.volume(-1)"
  "mixer.volume(-1e+10)" "mixer.speed(1)" "mixer.speed(0.999)" mixer.audio-output-close
  mixer.hand-back-mute mixer.missing-control compr.open-missing-node probe.drm-topology probe.library-controls
  probe.json)
say "== results =="
failed=0
for c in "${expected[@]}"; do
  line=$(grep -F "KW {\"check\": \"$c\"," "$console.txt" | head -n 1 || true)
  if [ -z "$line" ]; then
    echo "MISSING $c"
    failed=$((failed + 1))
  elif echo "$line" | grep -q '"ok": true'; then
    echo "PASS    ${line#KW }"
  else
    echo "FAIL    ${line#KW }"
    failed=$((failed + 1))
  fi
done
# No request on the real kernel may have failed for a record the kernel does not know.
# (The emulated probe's lines are left out: the emulator refuses the requests it does
# not model with ENOTTY.)
enotty=$(grep -v '^  emu' "$console.txt" | grep -c 'Inappropriate ioctl for device' || true)
if [ "$enotty" -eq 0 ]; then
  echo "PASS    {\"check\": \"records.no-enotty\", \"ok\": true, \"lines\": 0}"
else
  echo "FAIL    {\"check\": \"records.no-enotty\", \"ok\": false, \"lines\": $enotty}"
  failed=$((failed + 1))
fi
[ "$failed" -eq 0 ] || fail "$failed of ${#expected[@]} checks failed or missing"
say "all $((${#expected[@]} + 1)) checks passed"
