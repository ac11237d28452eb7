#!/usr/bin/env bash
# demo.sh [--board]: builds the example host, starts it on loopback, and collects from it as a server would.
# With --board the host is the 32-bit big-endian build, run under qemu. Writes into build/ only.
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
cmake --build "$tools" --target kep-board kep-collect | tail -n 1
run=()
if [ -n "$board" ]; then
  cmake -S . -B "$host" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/board.cmake" -DKEP_BUILD_TOOLS=OFF \
    -DKEP_FAULT_LOG_PATH="$host/kep.log" -DKEP_STORE_TRACE=OFF >/dev/null
  cmake --build "$host" --target kep-board | tail -n 1
  run=(qemu-ppc -L /usr/powerpc-linux-gnu)
fi

say "starting the host${board:+ under qemu}"
rm -f "$host/kep.log"
"${run[@]}" "$host/examples/kep-board" >"$host/host.out" 2>&1 &
pid=$!
trap 'kill $pid 2>/dev/null || true' EXIT

# Ready when UDP port 9099 (0x238B) is bound; a host that cannot bind it says why and ends.
until grep -q ':238B ' /proc/net/udp; do
  kill -0 $pid 2>/dev/null || break
  sleep 0.1
done
kill -0 $pid 2>/dev/null || { cat "$host/host.out"; exit 1; }

collect() {
  say "kep-collect 127.0.0.1 $*"
  "$tools/tools/kep-collect/kep-collect" 127.0.0.1 "$@"
}
collect --type 1
collect --selftest
collect --type 2

say "the fault log"
wc -c "$host/kep.log"

say "the host's memory table"
sed -n '/   id        size/,$p' "$host/host.out" | grep -v -e '^size=' -e ' \[faults\] end$'

say "stopping the host"
kill $pid
wait $pid 2>/dev/null || true
trap - EXIT
