#!/usr/bin/env bash
# The demo: installs what is missing, builds, starts a simulated CANopen
# device (cosim) on a private virtual bus and runs the demo program (codemo)
# against it; cotool dump records the same traffic alongside.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

log=$(mktemp)
tmpdump=$(mktemp)
console=$(mktemp -u)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null || true
  done
  wait 2>/dev/null || true
  exec 3>&- 2>/dev/null || true
  rm -f "$log" "$tmpdump" "$console" "${lssstore:-}"
}
trap cleanup EXIT

echo "Building into build/ (log: scripts/build.sh build) ..."
if ! scripts/build.sh build >"$log" 2>&1; then
  cat "$log"
  echo "Build failed." >&2
  exit 1
fi
echo "Build done."
echo

# A private bus: a UDP port nobody else uses right now, so that the demo never
# meets another virtual bus on this machine (tests, other demos).
port=$(python3 -c 'import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("", 0)); print(s.getsockname()[1])')
node=5

# The device boots 1.5 s after its start, so that the demo is listening by then.
# Its stdin console is a named pipe that the demo writes commands to ("heartbeat
# 0", "emcy ..."); this shell keeps the pipe open, so the device never sees its
# end. The console's answers are not shown.
mkfifo "$console"
exec 3<>"$console"
build/tools/simdevice/cosim --port "$port" --node "$node" --heartbeat 500 --delay 1500 --quiet \
  <"$console" >/dev/null &
pids+=($!)
# Three more devices, without node-ID: the LSS step finds them and numbers them.
lssstore=$(mktemp -u)
build/tools/simdevice/cosim --port "$port" --unconfigured 3 --lss-store "$lssstore" --heartbeat 1000 \
  --no-console --quiet >/dev/null &
pids+=($!)
# The gateway server, for the gateway step: CiA 309-3 lines on a free TCP port.
gwport=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
build/tools/cogateway/cogateway --port "$port" --listen "$gwport" >/dev/null &
pids+=($!)
build/tools/cotool/cotool dump --port "$port" >"$tmpdump" &
dump_pid=$!
pids+=($dump_pid)

status=0
build/tools/demo/codemo --port "$port" --node "$node" --gateway-port "$gwport" \
  --device-console "$console" || status=$?

kill -INT "$dump_pid" 2>/dev/null || true
wait "$dump_pid" 2>/dev/null || true
echo
echo "The same traffic as 'cotool dump --port $port' printed it (time stamp, CAN-ID, [length], data):"
head -n 30 "$tmpdump" | sed 's/^/  /'
lines=$(wc -l <"$tmpdump")
if [ "$lines" -gt 30 ]; then echo "  ... ($((lines - 30)) more lines)"; fi
echo
echo "Try it yourself, on the default bus (UDP port 45674), each in its own terminal:"
echo "  build/tools/simdevice/cosim"
echo "  build/tools/cotool/cotool dump"
echo "  build/tools/cotool/cotool send 123#DEADBEEF 12345678#11.22 123##1000102030405060708090A0B"
echo "  build/tools/cotool/cotool monitor 5 --heartbeat 1500"
echo "  build/tools/cotool/cotool nmt start 5"
echo "  build/tools/cotool/cotool sync --period 100ms"
echo "  build/tools/cotool/cotool pdo 185 --map u16,i32"
echo "  build/tools/cotool/cotool emcy      (then type 'emcy 8110 11' into cosim)"
echo "  build/tools/simdevice/cosim --unconfigured 3   and   build/tools/cotool/cotool lss scan --start 10"
echo "  build/tools/cotool/cotool sdo read 5 1018 1 u32      (--usdo, --block, -o file, write ... VALUE|@file)"
echo "  build/tools/cogateway/cogateway --listen 5555   then: printf '[1] 5 r 0x1018 1 u32\\n' | nc -q1 127.0.0.1 5555"
exit $status
