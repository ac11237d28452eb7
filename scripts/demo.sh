#!/usr/bin/env bash
# demo.sh [--board | --threads | --memcheck]: builds the example hosts, starts them on loopback one after the other, and
# collects from each as a server would. With --board the hosts are the 32-bit big-endian build, run under qemu; with
# --threads they are built with ThreadSanitizer, and with --memcheck run under valgrind, and the first report ends them
# and the demo. Writes into build/ only.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."
. scripts/common.sh

kind=${1-}
packages=("${build_packages[@]}" "${tool_packages[@]}")
flags=()
run=()
case "$kind" in
  '') ;;
  --board)
    packages+=("${board_packages[@]}")
    flags=(-DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/board.cmake" -DKEP_POSIX_PRIO_INHERIT=OFF)
    run=(qemu-ppc -L /usr/powerpc-linux-gnu)
    ;;
  --threads)
    flags=(-DCMAKE_BUILD_TYPE=Debug -DKEP_SANITIZE=thread)
    run=(env TSAN_OPTIONS=halt_on_error=1)
    ;;
  --memcheck)
    packages+=(valgrind)
    flags=(-DCMAKE_BUILD_TYPE=Debug)
    run=(valgrind --quiet --error-exitcode=99 --exit-on-first-error=yes)
    ;;
  *) echo "usage: scripts/demo.sh [--board | --threads | --memcheck]" >&2; exit 2 ;;
esac

# isBound PORT: whether a UDP socket of this machine is bound to the port.
isBound() {
  awk -v port="$(printf '%04X' "$1")" '{ split($2, at, ":"); if (at[2] == port) found = 1 } END { exit !found }' /proc/net/udp
}

# Before anything is touched: another demo may be running, in this very checkout.
for port in 9099 8999; do
  ! isBound "$port" || { echo "demo.sh: UDP port $port is in use by another program" >&2; exit 1; }
done

need "${packages[@]}"

say "building"
tools=$PWD/build/demo
host=$PWD/build/demo${kind#-}
quietly "$tools/build.log" cmake -S . -B "$tools" -G Ninja -DKEP_FAULT_LOG_PATH="$tools/kep.log"
quietly "$tools/build.log" cmake --build "$tools" --target kep-{board,station,worker,collect,config,faultlog}
if [ -n "$kind" ]; then
  quietly "$host/build.log" cmake -S . -B "$host" -G Ninja "${flags[@]}" -DKEP_BUILD_TOOLS=OFF \
    -DKEP_FAULT_LOG_PATH="$host/kep.log"
  quietly "$host/build.log" cmake --build "$host" --target kep-{board,station,worker}
fi

fail() {
  echo "demo.sh: $*" >&2
  exit 1
}

pids=()
outputs=()
endAll() {
  [ ${#pids[@]} -eq 0 ] && return
  kill "${pids[@]}" 2>/dev/null || true
  wait "${pids[@]}" 2>/dev/null || true
  pids=()
}

# The programs end first, whatever becomes of the rest.
cleanUp() {
  local status=$?
  endAll
  [ $status -eq 0 ] || [ ${#outputs[@]} -eq 0 ] || tail -n 100 "${outputs[@]}" >&2 || true
}
trap cleanUp EXIT

# endByItself: a signal ends the one program, which takes its leave by itself.
endByItself() {
  local pid=${pids[0]} status=0
  kill "$pid"
  wait "$pid" || status=$?
  pids=()
  [ $status -eq 0 ] || fail "a program ended with status $status"
}

# stop: ends the programs, all of which must have lived until now.
stop() {
  local pid
  for pid in "${pids[@]}"; do kill -0 "$pid" 2>/dev/null || fail "a program has died"; done
  endAll
}

# launch NAME PORT COMMAND...: starts a program and waits until it serves on its UDP port. The port was free before, so
# who holds it then is the program, as long as that lives: one that cannot have it ends.
launch() {
  local name=$1 port=$2 tries=100
  shift 2
  outputs+=("$host/$name.out")
  "$@" >"$host/$name.out" 2>&1 &
  pids+=($!)
  until isBound "$port"; do
    kill -0 $! 2>/dev/null && ((tries-- > 0)) || fail "$name did not start"
    sleep 0.1
  done
}

# start NAME ARGUMENT...: starts a host.
start() {
  say "starting $1${kind:+ ($kind)}"
  launch "$1" 9099 "${run[@]}" "$host/examples/$@"
}

# collect ARGUMENT...: collects from the host that runs, with its names where there are any.
names=()
collect() {
  say "kep-collect 127.0.0.1${names:+ ${names[*]}} $*"
  "$tools/tools/kep-collect/kep-collect" 127.0.0.1 "${names[@]}" "$@"
}

faultlog() {
  say "kep-faultlog $*"
  "$tools/tools/kep-faultlog/kep-faultlog" "$@"
}

# What a host printed, without the lines of the service itself.
printed() { grep -v -e '^size=' -e '\[[a-z]*\] \(begin...\|end\)$' "$host/$1.out"; }

rm -f "$host/kep.log" "$host"/*.out
names=(--names examples/board/board.toml)
start kep-board
collect --type 1
collect --selftest
sleep 1.5 # while the host's other thread takes a sample
collect --type 2
faultlog "$host/kep.log" "${names[@]}" --type register
say "the host's memory table"
printed kep-board | sed -n '/   id        size/,$p'
stop

say "starting a configuration server"
printf '[station]\ninterval = 200\n' >"$host/station.ini"
launch kep-config 8999 "$tools/tools/kep-config/kep-config" "$host/station.ini"
names=(--names examples/station/station.toml)
start kep-station
sleep 1 # a few samples
collect --type 1
collect --type 2
say "the host's report"
printed kep-station
say "what the configuration server was asked (nothing, where the network carries no broadcast)"
cat "$host/kep-config.out"
stop

rm -rf "$host/faults"
mkdir "$host/faults"
names=()
start kep-worker "$host/faults"
sleep 1.5 # some readings, and a report
collect --type 1
collect --selftest
collect --type 2
sleep 0.5 # faults of which the file does not tell yet
say "ending kep-worker, which saves them"
endByItself
say "its fault file"
ls "$host/faults"
faultlog --check "$host/faults/worker.faults"
faultlog "$host/faults/worker.faults" | tail -n 12
