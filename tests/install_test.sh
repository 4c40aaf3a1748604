#!/usr/bin/env bash
# install_test.sh BUILD SOURCE-DIR WORK-DIR: builds tests/install_consumer against a
# staged install of BUILD with find_package and with pkg-config, runs both on a private redis.
set -euo pipefail
build=$1 source=$2 work=$3
rm -rf "$work" && mkdir -p "$work"
trap 'kill "$server" 2>/dev/null; wait "$server" 2>/dev/null || true' EXIT
redis-server --port 0 --unixsocket "$work/redis.sock" --save "" --dir "$work" --daemonize no >/dev/null &
server=$!
DESTDIR="$work/stage" cmake --install "$build" >/dev/null
prefix=$(cmake -L -N "$build" | sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p')
libdir=$(dirname "$(find "$work/stage$prefix" -name libbmsg.so | head -1)")
for mode in OFF ON; do
  PKG_CONFIG_SYSROOT_DIR="$work/stage" PKG_CONFIG_LIBDIR="$libdir/pkgconfig" \
    cmake -S "$source/tests/install_consumer" -B "$work/consumer-$mode" \
    -DUSE_PKGCONFIG=$mode -DCMAKE_PREFIX_PATH="$work/stage$prefix" >/dev/null
  cmake --build "$work/consumer-$mode" >/dev/null
  for _ in $(seq 100); do [ -S "$work/redis.sock" ] && break; sleep 0.05; done
  LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" "$work/consumer-$mode/consumer" "$work/redis.sock"
  echo "consumer built with $([ $mode = ON ] && echo pkg-config || echo find_package) ran"
done
