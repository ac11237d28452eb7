#!/usr/bin/env bash
# demo.sh [--board]: builds the example hosts, starts them on loopback one after the other, and collects from each as a
# server would. With --board the hosts are the 32-bit big-endian build, run under qemu. Writes into build/ only.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/common.sh

case "${1-}" in
  '') board= ;;
  --board) board=-board ;;
  *) echo "usage: scripts/demo.sh [--board]" >&2; exit 2 ;;
esac

need "${build_packages[@]}" "${tool_packages[@]}" ${board:+"${board_packages[@]}"}

say "building"
tools=$PWD/build/demo
host=$PWD/build/demo$board
# Without the store's trace, so that the host's output can be read.
cmake -S . -B "$tools" -G Ninja -DKEP_FAULT_LOG_PATH="$tools/kep.log" -DKEP_STORE_TRACE=OFF >/dev/null
cmake --build "$tools" --target kep-board kep-station kep-collect kep-config | tail -n 1
run=()
if [ -n "$board" ]; then
  cmake -S . -B "$host" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/board.cmake" -DKEP_BUILD_TOOLS=OFF \
    -DKEP_FAULT_LOG_PATH="$host/kep.log" -DKEP_STORE_TRACE=OFF >/dev/null
  cmake --build "$host" --target kep-board kep-station | tail -n 1
  run=(qemu-ppc -L /usr/powerpc-linux-gnu)
fi

pids=()
stop() {
  [ ${#pids[@]} -eq 0 ] && return
  kill "${pids[@]}" 2>/dev/null || true
  wait "${pids[@]}" 2>/dev/null || true
  pids=()
}
trap stop EXIT

# start NAME: starts a host and waits until it serves, that is until UDP port 9099 (0x238B) is bound. A host that cannot
# bind it says why and ends.
start() {
  say "starting $1${board:+ under qemu}"
  "${run[@]}" "$host/examples/$1" >"$host/$1.out" 2>&1 &
  local pid=$!
  pids+=("$pid")
  until grep -q ':238B ' /proc/net/udp; do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  kill -0 "$pid" 2>/dev/null || { cat "$host/$1.out"; exit 1; }
}

collect() {
  say "kep-collect 127.0.0.1 $*"
  "$tools/tools/kep-collect/kep-collect" 127.0.0.1 "$@"
}

# What a host printed, without the lines of the service itself.
printed() { grep -v -e '^size=' -e '\[[a-z]*\] \(begin...\|end\)$' "$host/$1.out"; }

rm -f "$host/kep.log"
start kep-board
collect --type 1
collect --selftest
collect --type 2
say "the fault log"
wc -c "$host/kep.log"
say "the host's memory table"
printed kep-board | sed -n '/   id        size/,$p'
stop

say "a configuration server"
printf '[station]\ninterval = 200\n' >"$host/station.ini"
"$tools/tools/kep-config/kep-config" "$host/station.ini" >"$host/kep-config.out" 2>&1 &
pids+=($!)
start kep-station
cat "$host/kep-config.out"  # empty where the machine's network has no broadcast: the host then takes its default
sleep 1                     # a few samples
collect --type 1
collect --type 2
say "the host's report"
printed kep-station
stop
