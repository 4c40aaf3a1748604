#!/usr/bin/env bash
# device_test.sh BUILD WORK-DIR: bmsg-device's maintainer scripts in a scratch root, as dpkg runs
# them (DPKG_ROOT, as root); its bus lets every role in with its own password only.
set -euo pipefail
build=$1 work=$2 root=$2/root
[ "$(id -u)" = 0 ] || { echo "skipped: maintainer scripts run as root"; exit 77; }
rm -rf "$work"
trap '[ -z "${server:-}" ] || { kill "$server"; wait "$server"; } 2>/dev/null || true' EXIT
(cd "$build" && cpack -G DEB -B "$work/debs" -D CPACK_COMPONENTS_ALL="libs;tools;device" >/dev/null)
for deb in "$work"/debs/*.deb; do dpkg -x "$deb" "$root"; done
dpkg -e "$work"/debs/bmsg-device_*.deb "$work/control"
export DPKG_ROOT=$root DPKG_MAINTSCRIPT_PACKAGE=bmsg-device
export LD_LIBRARY_PATH=$(dirname "$(find "$root/usr/lib" -name 'libbmsg.so.*' | head -1)")
"$work/control/postinst" configure
passwords=$(cat "$root"/etc/bmsg/*.env)
"$work/control/postinst" configure 2.0.0-1
[ "$(cat "$root"/etc/bmsg/*.env)" = "$passwords" ]
[ -L "$root/etc/systemd/system/multi-user.target.wants/bmsg-bus.service" ]
owner() { awk -F: -v u="$1" '$1 == u { print "600", $3 }' "$root/etc/passwd"; }
[ "$(stat -c '%a %u' "$root/etc/bmsg/device.acl")" = "$(owner bmsg)" ]
redis-server "$root/etc/bmsg/redis.conf" --unixsocket "$work/redis.sock" --dir "$work" \
  --aclfile "$root/etc/bmsg/device.acl" --supervised no >/dev/null &
server=$!
for _ in $(seq 100); do [ -S "$work/redis.sock" ] && break; sleep 0.05; done
password() { sed -n 's/^BMSG_PASSWORD=//p' "$root/etc/bmsg/$1.env"; }
bus() { BMSG_PASSWORD=$(password "$1") "$root/usr/bin/bmsg" -s "$work/redis.sock" --user "$2" ping &>/dev/null; }
last=default
for role in $(awk '$1 == "user" && $2 != "default" { print $2 }' "$root/usr/share/bmsg/device.acl"); do
  [ "$(stat -c '%a %u' "$root/etc/bmsg/$role.env")" = "$(owner "bmsg-$role")" ]
  bus "$role" "$role" && ! bus "$role" "$last" || { echo "role $role: wrong login" >&2; exit 1; }
  last=$role
done
REDISCLI_AUTH=$(password admin) redis-cli -s "$work/redis.sock" --user admin \
  config get client-output-buffer-limit | grep -q '^normal 67108864 16777216 10'
"$work/control/postrm" purge
[ -z "$(find "$root/etc/bmsg" -name '*.env' -o -name device.acl)" ]
echo "bmsg-device: each role logs in with its own password only; a purge removes them"
