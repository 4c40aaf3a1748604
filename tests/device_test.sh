#!/usr/bin/env bash
# device_test.sh BUILD WORK-DIR: bmsg-device in a scratch root as dpkg installs it and a first boot
# starts it (as root): its units as systemd reads them, its tmpfiles, provisioning, and a bus with
# the shipped configuration on which every role does its job with its own password, and no more.
set -euo pipefail
build=$1 work=$2 root=$2/root
[ "$(id -u)" = 0 ] || { echo "skipped: maintainer scripts run as root"; exit 77; }
rm -rf "$work"
trap '[ -z "${server:-}" ] || { kill "$server"; wait "$server"; } 2>/dev/null || true' EXIT
(cd "$build" && cpack -G DEB -B "$work/debs" -D CPACK_COMPONENTS_ALL="libs;tools;device" >/dev/null)
for deb in "$work"/debs/*.deb; do dpkg -x "$deb" "$root"; done
dpkg -e "$work"/debs/bmsg-device_*.deb "$work/control"
export DPKG_ROOT=$root DPKG_MAINTSCRIPT_PACKAGE=bmsg-device
libdir=$(dirname "$(find "$root/usr/lib" -name 'libbmsg.so.*' | head -1)")
export LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"  # and hiredis 1.x where a test run brings it
"$work/control/postinst" configure
for u in multi-user.target.wants/bmsg-bus.service timers.target.wants/bmsg-health.timer; do [ -L "$root/etc/systemd/system/$u" ]; done
[ ! -e "$root/etc/bmsg/device.acl" ]  # no password before the bus's first start
# Every unit, the template as a role's, beside the system's own units and stand-ins for the
# programs they run: systemd-analyze prints nothing when systemd would take each as it is.
names=$(ls "$root/usr/lib/systemd/system" | sed 's/@\./@capture./')
cp -rn /usr/lib/systemd/system/. "$root/usr/lib/systemd/system"
for f in /bin/sh /usr/bin/redis-server /usr/libexec/bmsg/capture; do install -D -m755 /dev/null "$root$f"; done
out=$(systemd-analyze verify --man=no --root="$root" $names 2>&1) && [ -z "$out" ] || { echo "$out" >&2; exit 1; }
# The boot's tmpfiles and provisioning (twice, as at every start of the bus: passwords kept,
# the access list written again).
id_of() { awk -F: -v n="$2" '$1 == n { print $3 }' "$root/etc/$1"; }
mkdir -p "$root/dev/shm" && touch "$root/dev/shm/BIOMETRIC_SAMPLE_x"
systemd-tmpfiles --create --remove --boot --root="$root" "$root/usr/lib/tmpfiles.d/bmsg-device.conf"
[ "$(stat -c '%a %u %g' "$root/run/bmsg")" = "750 $(id_of passwd bmsg) $(id_of group bmsg)" ] &&
  [ ! -e "$root/dev/shm/BIOMETRIC_SAMPLE_x" ] || exit 1
"$root/usr/libexec/bmsg/provision-device" "$root"
passwords=$(cat "$root"/etc/bmsg/*.env); echo stale > "$root/etc/bmsg/device.acl"
"$root/usr/libexec/bmsg/provision-device"
[ "$(cat "$root"/etc/bmsg/*.env)" = "$passwords" ]
for f in device.acl:bmsg $(awk '$1 == "user" && $3 == "on" { print $2 ".env:bmsg-" $2 }' "$root/usr/share/bmsg/device.acl"); do
  [ "$(stat -c '%a %u' "$root/etc/bmsg/${f%:*}")" = "600 $(id_of passwd "${f#*:}")" ]
done
redis-server "$root/etc/bmsg/redis.conf" --unixsocket "$work/redis.sock" --dir "$work" \
  --aclfile "$root/etc/bmsg/device.acl" --supervised no >/dev/null & server=$!
for _ in $(seq 100); do [ -S "$work/redis.sock" ] && break; sleep 0.05; done
pw() { sed -n 's/^BMSG_PASSWORD=//p' "$root/etc/bmsg/$1.env"; }
as() { BMSG_PASSWORD=$(pw "$1") "$root/usr/bin/bmsg" -s "$work/redis.sock" --user "$@"; }
admin() { REDISCLI_AUTH=$(pw admin) redis-cli -s "$work/redis.sock" --user admin "$@"; }
# A full bus refuses writes before the recorder's output buffer could fill it.
limit=$(admin config get client-output-buffer-limit | tail -1 | cut -d' ' -f2)
[ "$limit" -gt 0 ] && [ "$(admin config get maxmemory | tail -1)" -gt "$limit" ] || exit 1
"$root/usr/bin/bmsg" keygen -o "$work/analyst" >/dev/null  # the device holds only analyst.pub
as recorder record --samples --seal-to "$work/analyst.pub" -d 2 -o "$work/bus.bmsgrec" >/dev/null & recorder=$!
# And a black box beside it, which writes the window of a status message.
as recorder record --ring 10 --after 1 --trigger SYSTEM_STATUS=up -d 2 -o "$work/bb.bmsgrec" >/dev/null & blackbox=$!
for _ in $(seq 100); do [ "$(admin client list | grep -c cmd=monitor)" = 2 ] && break; sleep 0.05; done
as control push cmd capture:1 && as control set mode enrol && as control publish SYSTEM_STATUS up >/dev/null || exit 1
[ "$(as capture pop cmd)" = capture:1 ]
printf 'P5 3 2 255\n\1\2\3\4\5\6' > "$work/sample.pgm"
as capture sample send -t 5 DEVICEKIT "$work/sample.pgm" >/dev/null & sender=$!
[[ "$(as consumer sample recv -t 5 DEVICEKIT)" == "3 2 "* ]]
wait "$sender"
[ "$(as fieldtool len cmd)" = 0 ]
rc=0; as fieldtool set mode x 2>/dev/null || rc=$?; [ "$rc" = 1 ]
BMSG_PASSWORD=$(pw capture) "$root/usr/bin/bmsg" -s "$work/redis.sock" --user control ping 2>/dev/null && exit 1
wait "$recorder" && "$root/usr/bin/bmsg" export --key "$work/analyst.key" "$work/bus.bmsgrec" -o "$work/export" >/dev/null &&
  ls "$work"/export/samples/*.png >/dev/null || exit 1  # the recording holds the sample's pixels
wait "$blackbox" && "$root/usr/bin/bmsg" info "$work"/bb-*-SYSTEM_STATUS.bmsgrec | grep -q '^  push *BIO_CMD *1 ' || exit 1
"$work/control/postrm" purge
[ -z "$(find "$root/etc/bmsg" -name '*.env' -o -name 'device.acl*')" ]
echo "bmsg-device: units, tmpfiles and provisioning as a boot makes them; each role does its job on the bus"
