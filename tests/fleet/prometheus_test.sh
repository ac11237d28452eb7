#!/usr/bin/env bash
# prometheus_test.sh SOURCE KEP-FLEET KEP-BOARDS: Debian's prometheus scrapes a fleet as the example configuration tells
# it to, and answers questions. Skipped, and says so, where it is not installed.
set -euo pipefail
source=$1 fleet=$2 boards=$3
for program in prometheus promtool; do
  command -v $program >/dev/null || { echo "SKIPPED: there is no $program" >&2; exit 77; }
done
work=$(mktemp -d)
started=()
stop() {
  for process in "${started[@]}"; do kill "$process" 2>/dev/null || true; done
  wait
  rm -rf "$work"
}
trap stop EXIT
fail() { echo "prometheus_test.sh: $*" >&2; tail -n 20 "$work"/*.log >&2; exit 1; }

# start NAME PATTERN COMMAND...: in the background; returns when a line of its log fits the pattern.
start() {
  local name=$1 pattern=$2
  shift 2
  "$@" >"$work/$name.log" 2>&1 &
  started+=($!)
  until grep -q "$pattern" "$work/$name.log"; do kill -0 $! 2>/dev/null || fail "$name has ended"; sleep 0.1; done
}

# asked EXPRESSION PATTERN: what prometheus answers comes to fit the pattern.
asked() {
  for ((i = 0; i < 300; ++i)); do
    promtool query instant "http://$address" "$1" >"$work/answer" 2>&1 && grep -qE "$2" "$work/answer" && return
    sleep 0.2
  done
  fail "$1: no $2 in: $(cat "$work/answer")"
}

get() { python3 -c 'import sys, urllib.request; sys.stdout.buffer.write(urllib.request.urlopen(sys.argv[1]).read())' "$1"; }

sed '/^$/,$d' "$source/tests/fleet/metrics/expected.txt" | promtool check metrics || fail "the golden file is not good"
promtool test rules "$source/tests/fleet/metrics/rules_test.yml" || fail "the rules are not good"

start boards 'boards at' "$boards" 6 --first 127.$((RANDOM % 100 + 100)).$((RANDOM % 250)).1 --port 19099 --failing =2 \
  --hostile 1 --dead 1 --names "$source/examples/fleet/board.toml" --write-config "$work/boards.toml"
cat >"$work/fleet.toml" - <(sed 's/"15s"/"1s"/; s/"24h"/"2s"/; 0,/^names/{/^names/d}' "$work/boards.toml") <<'END'
store = "fleet.db"
listen = "127.0.0.1:0"
http = { address = "127.0.0.1:0" }
limits = { connect = "1s" }
END
start fleet 'the page is at' "$fleet" --config "$work/fleet.toml"
page=$(grep -oE 'http://127[^/]*' "$work/fleet.log")
cp "$source/tools/kep-fleet/prometheus/rules.yml" "$work"
sed "s/127.0.0.1:9180/${page#http://}/; s/1m\$/1s/; s/30s\$/1s/" "$source/tools/kep-fleet/prometheus/prometheus.yml" >"$work/prometheus.yml"
promtool check config "$work/prometheus.yml" >/dev/null || fail "its configuration is not good"
start prometheus 'Server is ready' prometheus --config.file="$work/prometheus.yml" --storage.tsdb.path="$work/data" \
  --web.listen-address=127.0.0.1:0
address=$(grep -oE 'Listening on" address=.*' "$work/prometheus.log" | cut -d = -f 2)

asked 'count(kep_up{job="kep-fleet", type="0"} == 1)' '=> 5 @'
asked 'count(kep_up{job="kep-fleet", type="0"} == 0)' '=> 1 @'
asked 'kep_selftest_passed == 0' 'item="sensors"'
asked 'count(kep_sensors_5_v_rail_volts{job="kep-fleet"} > 4 < 6)' '=> 3 @'
asked 'sum by (state) (kep_system_source{job="kep-fleet"})' 'state="mains"'
asked 'rate(kep_ports_received_bytes_total{job="kep-fleet"}[10s]) >= 0' 'section='
asked 'kep_value{job="kep-fleet", item="sensors", section="0", key="10"} > 4000' 'board="board-1"'
asked 'count(kep_up{job="kep-probe"} == 1)' '=> 5 @'
asked 'kep_sensors_5_v_rail_volts{job="kep-probe"} > 4' 'board='
asked 'count(kep_fleet_held_boards == 6)' '=> 1 @'
get "$page/metrics" >"$work/metrics"
promtool check metrics <"$work/metrics" || fail "what is scraped is not good"
