#!/bin/busybox sh
# First process of the witness machine (see scripts/kernel-witness.sh): loads the
# modules, runs the checks and the probe comparison, prints one "KW {...}" line per check
# on the serial console and powers the machine off.
/bin/busybox --install -s /bin
export PATH=/bin LD_LIBRARY_PATH=/lib/arm-linux-gnueabihf
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
mount -t tmpfs tmp /tmp

kw() { echo "KW $*"; }

echo "kernel-witness: guest up, kernel $(uname -r) on $(uname -m)"
for m in $(cat /modules/order); do
  insmod "/modules/$m" || echo "kernel-witness: insmod $m failed"
done
for i in $(seq 1 100); do
  [ -e /dev/dri/card0 ] && [ -e /dev/snd/controlC0 ] && break
  sleep 0.1
done
ls -l /dev/dri /dev/snd
cards=$(cat /proc/asound/cards 2>/dev/null | head -n 1)
kw "{\"check\": \"devices\", \"ok\": $([ -e /dev/dri/card0 ] && [ -e /dev/snd/controlC0 ] && echo true || echo false), \"sound\": \"$(echo $cards)\"}"

echo "kernel-witness: == kernel-checks =="
/bin/kernel-checks

echo "kernel-witness: == probe on the real kernel =="
/bin/avsink-probe --json > /tmp/real.json 2> /tmp/real.err
echo "kernel-witness: avsink-probe exit status $?"
sed 's/^/  real> /' /tmp/real.err
sed 's/^/  real| /' /tmp/real.json
echo "kernel-witness: == the same probe on the emulated platform, set up with that topology =="
/bin/avsink-probe-emulated --topology /tmp/real.json --card hw:0 --json > /tmp/emu.json 2> /tmp/emu.err
echo "kernel-witness: avsink-probe-emulated exit status $?"
sed 's/^/  emu>  /' /tmp/emu.err
sed 's/^/  emu|  /' /tmp/emu.json

section() { sed -n "/^  \"$1\": {/,/^  }/p" "$2"; }
section drm_topology /tmp/real.json > /tmp/real.topo
section drm_topology /tmp/emu.json > /tmp/emu.topo
lines=$(wc -l < /tmp/real.topo)
echo "kernel-witness: == drm_topology, real kernel against emulated platform (diff -u) =="
if [ "$lines" -gt 2 ] && diff -u /tmp/real.topo /tmp/emu.topo; then
  echo "kernel-witness: drm_topology: $lines lines, identical"
  kw "{\"check\": \"probe.drm-topology\", \"ok\": true, \"lines\": $lines, \"differences\": 0}"
else
  kw "{\"check\": \"probe.drm-topology\", \"ok\": false, \"lines\": $lines, \"differences\": $(diff /tmp/real.topo /tmp/emu.topo | grep -c '^[-+]')}"
fi
# The library's four mixer controls: added on the loopback card by kernel-checks, built
# into the emulated card.
grep '"library_controls"' /tmp/real.json > /tmp/real.ctl
grep '"library_controls"' /tmp/emu.json > /tmp/emu.ctl
echo "kernel-witness: library controls, real: $(sed 's/^ *//' /tmp/real.ctl)"
if [ -s /tmp/real.ctl ] && diff -u /tmp/real.ctl /tmp/emu.ctl && ! grep -q false /tmp/real.ctl; then
  kw "{\"check\": \"probe.library-controls\", \"ok\": true}"
else
  kw "{\"check\": \"probe.library-controls\", \"ok\": false}"
fi
# The sections that differ by design (driver name, mode names, plane formats, the chip's
# devices and the library's open) are shown side by side in the log above.
json_ok=true
for f in /tmp/real.json /tmp/emu.json; do
  head -n 1 "$f" | grep -q '^{$' && tail -n 1 "$f" | grep -q '^}$' || json_ok=false
done
kw "{\"check\": \"probe.json\", \"ok\": $json_ok}"
echo "KW-END"
sync
poweroff -f
