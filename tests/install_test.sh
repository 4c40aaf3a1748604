#!/usr/bin/env bash
# install_test.sh BUILD SOURCE-DIR WORK-DIR: makes the Debian packages of BUILD, unpacks
# them into a scratch root, builds tests/install_consumer against it with find_package and
# with pkg-config and runs both on a private redis; runs the tool and the Lua module from it.
set -euo pipefail
build=$1 source=$2 work=$3
rm -rf "$work" && mkdir -p "$work"
trap 'kill "$server" 2>/dev/null; wait "$server" 2>/dev/null || true' EXIT
redis-server --port 0 --unixsocket "$work/redis.sock" --save "" --dir "$work" --daemonize no >/dev/null &
server=$!
(cd "$build" && cpack -G DEB -B "$work/debs" >/dev/null)
for deb in "$work"/debs/*.deb; do dpkg -x "$deb" "$work/root"; done
libdir=$(dirname "$(find "$work/root/usr/lib" -name libbmsg.so | head -1)")
export LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}"
for mode in OFF ON; do
  PKG_CONFIG_SYSROOT_DIR="$work/root" PKG_CONFIG_LIBDIR="$libdir/pkgconfig" \
    cmake -S "$source/tests/install_consumer" -B "$work/consumer-$mode" \
    -DUSE_PKGCONFIG=$mode -DCMAKE_PREFIX_PATH="$work/root/usr" >/dev/null
  cmake --build "$work/consumer-$mode" >/dev/null
  for _ in $(seq 100); do [ -S "$work/redis.sock" ] && break; sleep 0.05; done
  "$work/consumer-$mode/consumer" "$work/redis.sock"
  echo "consumer built with $([ $mode = ON ] && echo pkg-config || echo find_package) ran"
done
"$work/root/usr/bin/bmsg" --help | grep '^Usage: bmsg' >/dev/null
LUA_CPATH="$libdir/lua/5.1/?.so" luajit -e 'assert(require("bmsg").messager)'
echo "bmsg --help and the Lua module ran from the packages"
