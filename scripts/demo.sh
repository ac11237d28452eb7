#!/usr/bin/env bash
# demo.sh [--board | --threads | --memcheck]: builds the example hosts, starts them on loopback one after the other,
# collects from each as a server would, and says what is seen. With --board the hosts are the 32-bit big-endian build,
# run under qemu; with --threads they are built with ThreadSanitizer, and with --memcheck run under valgrind, and the
# first report ends them and the demo. Writes into build/ only. No line is wider than the terminal, or $COLUMNS.
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
    packages+=("${board_packages[@]}" file)
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

fail() {
  echo "demo.sh: $*" >&2
  exit 1
}

expectFreePorts() {
  local port name
  for port in "${ports[@]}"; do
    name=${port%:*}
    ! isBound "$port" || fail "${name^^} port ${port#*:} is in use by another program"
  done
}

# Before anything is touched: another demo may be running, in this very checkout.
expectFreePorts
need "${packages[@]}"

export LC_ALL=C.UTF-8
width=${COLUMNS:-$(tput cols 2>/dev/null || echo 80)}
((width >= 40)) || width=40

# tell TEXT: what is to be seen next, in lines that fit; title TEXT: what is done for it.
tell() { printf '\n%s\n' "$*" | fold -s -w "$width"; }
title() { say "${*//$PWD\//}" | fold -s -w "$width"; }

# fit: passes on what fits of each line.
fit() {
  local line
  while IFS= read -r line || [ "$line" ]; do
    ((${#line} <= width)) || line=${line:0:width-1}…
    printf '%s\n' "$line"
  done
}

# build FOLDER PROGRAMS FLAG...
build() {
  quietly "$1/build.log" cmake -S . -B "$1" -G Ninja -DKEP_FAULT_LOG_PATH="$1/kep.log" "${@:3}"
  quietly "$1/build.log" cmake --build "$1" --target $2
}

title "building"
tools=$PWD/build/demo
host=$PWD/build/demo${kind#-}
[ "$kind" != --fleet ] || host=${KEP_FLEET_BUILD:-$host}
[ "$kind" = --fleet ] || build "$tools" "kep-collect kep-config kep-faultlog $programs"
[ -z "$kind" ] || [ "$host" = "${KEP_FLEET_BUILD-}" ] || build "$host" "$programs" "${flags[@]}"
expectFreePorts # as before the build, which may have taken a while

pids=()
outputs=()
neverStarted= # the program whose own words tell all
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
  [ $status -eq 0 ] || [ ${#outputs[@]} -eq 0 ] || [ "$neverStarted" ] || tail -n 100 "${outputs[@]}" >&2 || true
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

# launch NAME READY COMMAND...: starts a program and waits until it serves, which the command READY tells. Its ports
# were free before, so who holds them then is the program, as long as that lives: one that cannot have them ends.
launch() {
  local name=$1 ready=$2 tries=100
  shift 2
  outputs+=("$host/$name.out")
  "$@" >"$host/$name.out" 2>&1 &
  pids+=($!)
  until $ready; do
    if ! kill -0 $! 2>/dev/null; then
      neverStarted=yes
      fail "$name did not start: $(tail -n 1 "$host/$name.out")"
    fi
    ((tries-- > 0)) || fail "$name does not serve"
    sleep 0.1
  done
}

# start NAME ARGUMENT...: starts a host.
start() {
  title "starting $1${kind:+ ($kind)}"
  launch "$1" "isBound udp:9099" "${run[@]}" "$host/examples/$@"
}

# collect ARGUMENT...: collects from the host that runs, and prints by its names file.
names=()
collect() {
  title "kep-collect 127.0.0.1 ${names[*]} $*"
  "$tools/tools/kep-collect/kep-collect" 127.0.0.1 "${names[@]}" "$@" --width "$width" --cut | fit
}

faultlog() {
  title "kep-faultlog $*"
  "$tools/tools/kep-faultlog/kep-faultlog" "$@" | fit
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
  title "kep-fleet $*"
  "$host/tools/kep-fleet/kep-fleet" --config "$host/fleet.toml" "$@"
}

playFleet() {
  rm -f "$host"/{fleet.db*,copy.db,*.out}
  tell "A board is a machine that runs a host: a process that links kep. Here one program plays 50 of them, each at a" \
    "loopback address of its own. kep-fleet asks every board on a schedule what it has to report, keeps the answers" \
    "and shows them."
  title "starting 50 boards: the self-tests of 7 and 20 fail, 1 is slow, 1 breaks off, 1 is dead, 1 means harm"
  launch kep-boards "says kep-boards processes" "$host/examples/kep-boards" 50 --failing =7,20 --slow 1 --breaking 1 \
    --dead 1 --hostile 1 --names examples/fleet/board.toml --write-config "$host/boards.toml" --control "$host/control"
  printf 'store = "fleet.db"\nlisten = "127.0.0.1:9098"\nlimits = { connect = "2s" }\n' |
    cat - "$host/boards.toml" >"$host/fleet.toml"
  fleet --check
  title "starting kep-fleet"
  launch kep-fleet "says kep-fleet page" "$host/tools/kep-fleet/kep-fleet" --config "$host/fleet.toml"
  sleep 6 # every board has been asked, and the dead one waited for
  title "what became of the runs"
  fleet runs --format csv | tail -n +4 | cut -d , -f 4-5 | sort | uniq -c
  title "the self-tests of boards 7 and 20, and of the first once more when it is mended"
  selfTest 7
  selfTest 20
  echo 'mend 7' >"$host/control"
  sleep 1
  selfTest 7
  sleep 2 # until that is stored
  fleet runs board-07 --from 1h | fit
  fleet export board-07 --format csv | sed -n 1,20p | fit
  fleet backup "$host/copy.db"
  title "what has happened"
  fold -s -w "$width" "$host/kep-fleet.out"
  title "the state of the server"
  request GET /healthz | fold -w "$width"
  title "look at http://127.0.0.1:9180/${stay:+, until Ctrl-C}"
  if [ "$stay" ]; then
    trap : INT TERM
    wait "${pids[-1]}" || true # Ctrl-C is for all: the programs may have ended already
  fi
  title "ending kep-fleet"
  endByItself
  endAll
}

if [ "$kind" = --fleet ]; then
  playFleet
  exit
fi

tell "A board is a machine in the field that runs a host: a process that links kep. Three example hosts are such" \
  "boards here, one after the other, at 127.0.0.1. kep-collect is the server that asks them: by a datagram to UDP port" \
  "9099, upon which the host connects to it and reports."
tell "What a request asks for is its type, and what each stands for is for the host to say. In the examples type 0" \
  "asks for figures, type 1 for the same and the logs, and type 2 has the faults saved to a file. A self-test is a" \
  "request of its own. On the wire values have numbers for names: a names file on the server's side has the rest."
if [ "$kind" = --board ]; then
  tell "The hosts are 32-bit big-endian programs, as on the board, and run under user-mode emulation; the server is" \
    "this machine's own. file says of kep-board:"
  file -b "$host/examples/kep-board" | fold -s -w "$width"
fi

rm -f "$host/kep.log" "$host"/*.out
names=(--names examples/board/board.toml)
tell "The first host samples its machine and reports it: the system, its memory, its network interfaces."
start kep-board
collect --type 0
tell "The logs of its faults, of the start (init) and of what came then (run), are reported where type 1 asks for them:"
collect --type 1
tell "A self-test passes by the rules of the names file:"
collect --selftest
sleep 1.5 # while the host's other thread takes a sample
tell "Type 2 has every fault record its registers, counters and values, and all of it saved to the fault file:"
collect --type 2
faultlog "$host/kep.log" "${names[@]}"
title "the host's memory, as kep counts it: 0 is the toolkit's own, 100 the collection side's"
printed kep-board | sed -n '/   id        size/,$p' | fit
stop

tell "The second host asks a configuration server for its interval, samples on a timer, and keeps a function log."
title "starting a configuration server"
printf '[station]\ninterval = 200\n' >"$host/station.ini"
launch kep-config "isBound udp:8999" "$tools/tools/kep-config/kep-config" "${host#"$PWD/"}/station.ini"
names=(--names examples/station/station.toml)
start kep-station
sleep 1 # a few samples
collect --type 1
tell "Type 2 has this one print a report, as a text table, on its own console:"
collect --type 2
title "the host's console"
printed kep-station | fit
title "what the configuration server was asked (nothing, where the network carries no broadcast)"
fit <"$host/kep-config.out"
stop

rm -rf "$host/faults"
mkdir "$host/faults"
names=(--names examples/worker/worker.toml)
tell "The third host has a thread for each sensor, which logs and records faults where they happen. One of its sensors" \
  "is broken on purpose."
start kep-worker "$host/faults"
sleep 1.5 # some readings, and a report
collect --type 0
collect --type 1
tell "So its self-test fails:"
collect --selftest || [ $? -eq 5 ]
collect --type 2
sleep 0.5 # faults of which the file does not tell yet
title "ending kep-worker, which saves them"
endByItself
title "its fault file: whole, whenever it is looked at"
ls "$host/faults"
faultlog --check "$host/faults/worker.faults"
faultlog "$host/faults/worker.faults" "${names[@]}"
