#!/usr/bin/env bash
# The demo: the device's whole exchange with separate processes against a
# private redis-server (Unix socket for the C++ programs, a free TCP port on
# 127.0.0.1 for the Lua script, whose subscriptions connect over TCP) and a
# small web service over HTTPS, with a CA made for the run. Every server is
# started and stopped by pid.
# Usage: examples/demo/run.sh BUILD-DIR [OUTPUT-DIR [CAPTURES]]
# Exits 0 only when every capture was answered, stored as PNG and counted.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
build=$(cd "$1" && pwd)
out=${2:-$build/demo}
count=${3:-3}
mkdir -p "$out"
out=$(cd "$out" && pwd)
rm -f "$out"/capture-*.png

dir=$(mktemp -d /tmp/bmsg-demo-XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; done
  rm -rf "$dir"
}
trap cleanup EXIT

# A free TCP port: bind port 0, read what the kernel chose.
port=$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
redis-server --port "$port" --bind 127.0.0.1 --unixsocket "$dir/redis.sock" --save "" \
  --appendonly no --dir "$dir" --logfile "$dir/redis.log" --daemonize no &
pids+=($!)
# The run's CA and the web service's certificate for 127.0.0.1, signed by it.
# The keys stay in the run's directory, readable by this user only; the
# consumer is given the CA's certificate (BMSG_DEMO_CA), nothing secret.
"$here/../../scripts/local-ca" "$dir" bmsg-demo-ca
python3 "$here/web.py" "$dir/web.port" "$dir/server.pem" "$dir/server.key" &
pids+=($!)
for _ in $(seq 200); do [ -S "$dir/redis.sock" ] && [ -s "$dir/web.port" ] && break; sleep 0.05; done
web_port=$(cat "$dir/web.port")
echo "redis-server on $dir/redis.sock and 127.0.0.1:$port, web service on https://127.0.0.1:$web_port"

start=$(date +%s%3N)
"$build/examples/demo/demo_capture" "$dir/redis.sock" "$start" &
capture=$!
BMSG_DEMO_CA="$dir/ca.pem" "$build/examples/demo/demo_consumer" "$dir/redis.sock" "$start" "$web_port" "$out" "$count" &
consumer=$!
status=0
# A bound on the script, so a lost message cannot keep the demo waiting.
LUA_CPATH="$build/lua/?.so" timeout 120 luajit "$here/control.lua" "$port" "$start" "$count" || status=1
wait "$consumer" || status=1
"$build/tools/bmsg" -s "$dir/redis.sock" push cmd quit
wait "$capture" || status=1

records=$(python3 -c "import ssl, urllib.request as u; print(u.urlopen('https://127.0.0.1:$web_port/count',
  context=ssl.create_default_context(cafile='$dir/ca.pem')).read().decode().strip())")
echo "PNGs: $(ls "$out"/capture-*.png 2>/dev/null | tr '\n' ' ')"
echo "web service counted $records record(s) of $count capture(s)"
[ "$status" -eq 0 ] && [ "$records" = "$count" ] && [ "$(ls "$out"/capture-*.png | wc -l)" -eq "$count" ]
