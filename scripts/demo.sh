#!/usr/bin/env bash
# demo.sh [--board | --threads | --memcheck]: builds the example hosts, starts them on loopback one after the other, and
# collects from each as a server would. With --board the hosts are the 32-bit big-endian build, run under qemu; with
# --threads they are built with ThreadSanitizer, and with --memcheck run under valgrind, and the first report ends them
# and the demo. Writes into build/ only.
#
# demo.sh --fleet [--stay]: kep-fleet collects from 50 simulated boards, two with a self-test that fails, and ends; with
# --stay it goes on until Ctrl-C, so that its page can be looked at.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."
. scripts/common.sh

kind=${1-} stay=${2-}
packages=("${build_packages[@]}" "${tool_packages[@]}")
programs="kep-board kep-station kep-worker"
ports=(udp:9099 udp:8999)
flags=(-DKEP_BUILD_TOOLS=OFF)
run=()
case "$*" in
  '') ;;
  --fleet | "--fleet --stay")
    packages+=("${fleet_packages[@]}")
    programs="kep-fleet kep-boards"
    ports=(udp:9099 tcp:9098 tcp:9180)
    flags=(-DKEP_BUILD_FLEET=ON)
    ;;
  --board)
    packages+=("${board_packages[@]}")
    flags+=(-DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/board.cmake" -DKEP_POSIX_PRIO_INHERIT=OFF)
    run=(qemu-ppc -L /usr/powerpc-linux-gnu)
    ;;
  --threads)
    flags+=(-DCMAKE_BUILD_TYPE=Debug -DKEP_SANITIZE=thread)
    run=(env TSAN_OPTIONS=halt_on_error=1)
    ;;
  --memcheck)
    packages+=(valgrind)
    flags+=(-DCMAKE_BUILD_TYPE=Debug)
    run=(valgrind --quiet --error-exitcode=99 --exit-on-first-error=yes)
    ;;
  *) echo "usage: scripts/demo.sh [--board | --threads | --memcheck | --fleet [--stay]]" >&2; exit 2 ;;
esac

# isBound PROTOCOL:PORT: whether a socket of this machine has the UDP port, or listens at the TCP port.
isBound() {
  awk -v port="$(printf '%04X' "${1#*:}")" \
    '{ n = split($2, at, ":") } at[n] == port && $4 ~ /0[7A]/ { found = 1 } END { exit !found }' \
    < <(cat /proc/net/"${1%:*}"{,6} 2>/dev/null)
}

# Before anything is touched: another demo may be running, in this very checkout.
for port in "${ports[@]}"; do
  name=${port%:*}
  ! isBound "$port" || { echo "demo.sh: ${name^^} port ${port#*:} is in use by another program" >&2; exit 1; }
done

need "${packages[@]}"

# build FOLDER PROGRAMS FLAG...
build() {
  quietly "$1/build.log" cmake -S . -B "$1" -G Ninja -DKEP_FAULT_LOG_PATH="$1/kep.log" "${@:3}"
  quietly "$1/build.log" cmake --build "$1" --target $2
}

say "building"
tools=$PWD/build/demo
host=$PWD/build/demo${kind#-}
[ "$kind" = --fleet ] || build "$tools" "kep-collect kep-config kep-faultlog $programs"
[ -z "$kind" ] || build "$host" "$programs" "${flags[@]}"

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

# endByItself: a signal ends the program that was launched last, which takes its leave by itself.
endByItself() {
  local pid=${pids[-1]} status=0
  unset 'pids[-1]'
  kill "$pid" 2>/dev/null || true
  wait "$pid" || status=$?
  [ $status -eq 0 ] || fail "a program ended with status $status"
}

# stop: ends the programs, all of which must have lived until now.
stop() {
  local pid
  for pid in "${pids[@]}"; do kill -0 "$pid" 2>/dev/null || fail "a program has died"; done
  endAll
}

# launch NAME READY COMMAND...: starts a program and waits until it serves, which the command READY tells. Its ports were
# free before, so who holds them then is the program, as long as that lives: one that cannot have them ends.
launch() {
  local name=$1 ready=$2 tries=100
  shift 2
  outputs+=("$host/$name.out")
  "$@" >"$host/$name.out" 2>&1 &
  pids+=($!)
  until $ready; do
    kill -0 $! 2>/dev/null && ((tries-- > 0)) || fail "$name did not start"
    sleep 0.1
  done
}

# start NAME ARGUMENT...: starts a host.
start() {
  say "starting $1${kind:+ ($kind)}"
  launch "$1" "isBound udp:9099" "${run[@]}" "$host/examples/$@"
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

# says NAME WORD: whether a program has printed the word.
says() { grep -q "$2" "$host/$1.out"; }

# request METHOD PATH: what kep-fleet answers.
request() {
  exec 3<>/dev/tcp/127.0.0.1/9180
  printf '%s %s HTTP/1.1\r\nHost: localhost\r\nX-Kep: 1\r\nContent-Length: 0\r\n\r\n' "$@" >&3
  tr -d '\r' <&3 | sed '1,/^$/d'
  echo
  exec 3>&-
}

selfTest() { request POST "/api/selftest?name=board-$(printf %02d "$1")" | grep -o '"outcome":"[a-z ]*"'; }

# fleet ARGUMENT...: kep-fleet beside the one that serves.
fleet() {
  say "kep-fleet $*"
  "$host/tools/kep-fleet/kep-fleet" --config "$host/fleet.toml" "$@"
}

playFleet() {
  rm -f "$host"/{fleet.db*,copy.db,*.out}
  say "starting 50 boards: the self-tests of 7 and 20 fail, 1 is slow, 1 breaks off, 1 is dead, 1 means harm"
  launch kep-boards "says kep-boards processes" "$host/examples/kep-boards" 50 --failing =7,20 --slow 1 --breaking 1 \
    --dead 1 --hostile 1 --names examples/fleet/board.toml --write-config "$host/boards.toml" --control "$host/control"
  printf 'store = "fleet.db"\nlisten = "127.0.0.1:9098"\nlimits = { connect = "2s" }\n' |
    cat - "$host/boards.toml" >"$host/fleet.toml"
  fleet --check
  say "starting kep-fleet"
  launch kep-fleet "says kep-fleet page" "$host/tools/kep-fleet/kep-fleet" --config "$host/fleet.toml"
  sleep 6 # every board has been asked, and the dead one waited for
  say "what became of the runs"
  fleet runs --format csv | tail -n +4 | cut -d , -f 4-5 | sort | uniq -c
  say "the self-tests of boards 7 and 20, and of the first once more when it is mended"
  selfTest 7
  selfTest 20
  echo 'mend 7' >"$host/control"
  sleep 1
  selfTest 7
  sleep 2 # until that is stored
  fleet runs board-07 --from 1h
  fleet export board-07 --format csv | sed -n 1,20p
  fleet backup "$host/copy.db"
  say "what has happened"
  cat "$host/kep-fleet.out"
  say "the state of the server"
  request GET /healthz
  say "look at http://127.0.0.1:9180/${stay:+, until Ctrl-C}"
  if [ "$stay" ]; then
    trap : INT TERM
    wait "${pids[-1]}" || true # Ctrl-C is for all: the programs may have ended already
  fi
  say "ending kep-fleet"
  endByItself
  endAll
}

if [ "$kind" = --fleet ]; then
  playFleet
  exit
fi

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
launch kep-config "isBound udp:8999" "$tools/tools/kep-config/kep-config" "$host/station.ini"
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
