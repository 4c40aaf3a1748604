#!/usr/bin/env bash
# The demo: the device's whole exchange with separate processes against a
# private redis-server on a Unix socket only, under the device's ACL file
# (data/device.acl) with passwords made for this run, every process logged in
# as its role (the password in its environment, never on a command line),
# and a small web service over HTTPS, with a CA made for the run. `bmsg
# record --samples`, logged in as the recorder, records the whole exchange
# into OUTPUT-DIR/exchange.bmsgrec, and `bmsg info` sums it up at the end.
# Every server is started and stopped by pid.
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

# A password per role for this run, kept in this script's variables (not
# exported): provision-acl is given them all, each process below only its own
# as BMSG_PASSWORD, redis-server and the rest none. The ACL copy holds only
# their hashes.
declare -A pw
unset BMSG_PASSWORD "${!BMSG_PASSWORD_@}"  # nor any inherited from the caller
for role in capture consumer control recorder; do
  pw[$role]=$(head -c 18 /dev/urandom | base64 | tr -d '/+=')
done
BMSG_PASSWORD_CAPTURE=${pw[capture]} BMSG_PASSWORD_CONSUMER=${pw[consumer]} \
  BMSG_PASSWORD_CONTROL=${pw[control]} BMSG_PASSWORD_RECORDER=${pw[recorder]} \
  "$here/../../data/provision-acl" "$here/../../data/device.acl" "$dir/device.acl"
redis-server --port 0 --unixsocket "$dir/redis.sock" --aclfile "$dir/device.acl" --save "" \
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
echo "redis-server on $dir/redis.sock only, web service on https://127.0.0.1:$web_port"
echo "redis-server runs data/device.acl with this run's passwords: default user off, one user per role"

rm -f "$out/exchange.bmsgrec"
BMSG_PASSWORD=${pw[recorder]} "$build/tools/bmsg" -s "$dir/redis.sock" --user recorder \
  record --samples -o "$out/exchange.bmsgrec" &
recorder=$!
pids+=($recorder)
for _ in $(seq 100); do [ -s "$out/exchange.bmsgrec" ] && break; sleep 0.05; done
sleep 0.2
echo "bmsg record --samples logged in as recorder, into $out/exchange.bmsgrec"

start=$(date +%s%3N)
BMSG_PASSWORD=${pw[capture]} "$build/examples/demo/demo_capture" "$dir/redis.sock" "$start" &
capture=$!
BMSG_PASSWORD=${pw[consumer]} BMSG_DEMO_CA="$dir/ca.pem" \
  "$build/examples/demo/demo_consumer" "$dir/redis.sock" "$start" "$web_port" "$out" "$count" &
consumer=$!
status=0
# A bound on the script, so a lost message cannot keep the demo waiting.
BMSG_PASSWORD=${pw[control]} LUA_CPATH="$build/lua/?.so" \
  timeout 120 luajit "$here/control.lua" "$dir/redis.sock" "$start" "$count" || status=1
wait "$consumer" || status=1
BMSG_PASSWORD=${pw[control]} "$build/tools/bmsg" -s "$dir/redis.sock" --user control push cmd quit
wait "$capture" || status=1
kill -INT "$recorder"
wait "$recorder" || status=1
"$build/tools/bmsg" info "$out/exchange.bmsgrec" || status=1

records=$(python3 -c "import ssl, urllib.request as u; print(u.urlopen('https://127.0.0.1:$web_port/count',
  context=ssl.create_default_context(cafile='$dir/ca.pem')).read().decode().strip())")
echo "PNGs: $(ls "$out"/capture-*.png 2>/dev/null | tr '\n' ' ')"
echo "web service counted $records record(s) of $count capture(s)"
[ "$status" -eq 0 ] && [ "$records" = "$count" ] && [ "$(ls "$out"/capture-*.png | wc -l)" -eq "$count" ]
