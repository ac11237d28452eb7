#!/usr/bin/env bash
# boards_test.sh KEP-BOARDS KEP-COLLECT KEP-NAMES FILE: simulated boards do to a server what their options say, each
# from its own address, which kep-collect insists on.
set -uo pipefail
boards=$1 collect=$2 check=$3 names=$4
work=$(mktemp -d)
trap 'kill -KILL $player 2>/dev/null; rm -rf "$work"' EXIT
net=127.$((RANDOM % 100 + 100)).$((RANDOM % 250))
failed=0
fail() { echo "boards_test.sh: $*" >&2; failed=1; }

# play ARGUMENT...: starts boards, and returns when they can be asked.
play() {
  "$boards" --first $net.1 --port 19099 "$@" >"$work/out" &
  player=$!
  until grep -q 'boards at' "$work/out"; do kill -0 $player || exit 1; sleep 0.1; done
}

# ask BOARD STATUS PATTERN ARGUMENT...: what kep-collect makes of a board; a line of it fits the pattern.
ask() {
  local board=$1 expected=$2 pattern=$3 status=0
  shift 3
  "$collect" "$net.$board:19099" --names "$names" "$@" >"$work/said" 2>&1 || status=$?
  [ $status -eq "$expected" ] || fail "board $board, $*: status $status, not $expected"
  grep -qE "$pattern" "$work/said" || { fail "board $board, $*: no $pattern in"; cat "$work/said" >&2; }
}

# order LINE: the control file's answer is waited for.
order() { echo "$1" >"$work/control"; until grep -qx "$1" "$work/out"; do sleep 0.1; done; }

# leaves STATUS: how the boards end, and that no process of theirs is left.
leaves() {
  local status=0
  wait $player || status=$?
  [ $status -eq "$1" ] || fail "ends with $status, not $1"
  [ -z "$(pgrep -f -- "--first $net.1 ")" ] || fail "processes are left"
}

"$check" --check "$names" >/dev/null || fail "the names file is not good"
play 11 --per-process 2 --failing =3 --dead 1 --slow 1 --trickling 1 --breaking 1 --repeating 1 --garbage 1 --hostile 1 \
  --names "$names" --write-config "$work/fleet.toml" --control "$work/control"
ask 1 0 '8 messages, 70 records, [0-9]+ bytes$'
ask 2 0 'logs +supply +init log +[0-9/]+ [0-9:]+ +watching the 5 V rail' --type 1
ask 3 5 'FAIL +sensors +5 V rail +4.310 V' --selftest
order 'mend 3'
ask 3 0 'PASS +0 of 3 tests failed' --selftest
ask 3 0 'logs +supply +run log .*rail is good again' --type 1
order 'die 3'
ask 3 3 'no connection' --timeout 1
order 'live 3'
ask 3 0 'alarms +none'
ask 5 0 'key 4 +.x1b\]0;owned.x07' # hostile
ask 6 3 'does not begin with' --timeout 1 # garbage: noise, noise behind a beginning, a few bytes changed
ask 6 1 'damaged at offset'
ask 7 1 'a message of type 0 as number 6' # repeating: a run twice, two connections
ask 7 0 '5 messages'
ask 8 1 'cut short'
ask 9 0 '5 messages, 2 records' --timeout 2
ask 10 0 '5 messages, 2 records' --timeout 2
ask 11 3 'no connection' --timeout 1
[ "$(grep -c "^host = \"$net" "$work/fleet.toml")" = 11 ] || fail "the configuration lists other boards"
kill $player
leaves 0

play 3 --per-process 1 --small
ask 3 0 '[0-9]+ messages, 9 records'
kill -KILL "$(cut -d ' ' -f 1 /proc/$player/task/$player/children)" # a process of boards
leaves 1
exit $failed
