#!/usr/bin/env bash
# fleet-load.sh [--quick] [ROW...]: what kep-fleet can do on this machine, and that it loses nothing, beside simulated
# boards on loopback: schedule, leases, outage, kills, hostile; all of them, unless some are named. Prints what it
# measured beside what is to be reached, and fails when something is missed. --quick: a tenth of the size, in two
# minutes; in full it takes half an hour. Everything runs in a network namespace of its own, where that can be had.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."
. scripts/common.sh

for argument in "$@"; do
  case "$argument" in
    --quick | schedule | leases | outage | kills | hostile) ;;
    *) echo "usage: scripts/fleet-load.sh [--quick] [schedule | leases | outage | kills | hostile]..." >&2; exit 2 ;;
  esac
done

need "${build_packages[@]}" "${tool_packages[@]}" "${fleet_packages[@]}" python3 postgresql iproute2 util-linux

say "building"
quietly build/fleet-load.log cmake --preset release
quietly build/fleet-load.log cmake --build --preset release --target kep-fleet kep-boards

apart=(unshare --net)
[ "$(id -u)" -eq 0 ] || apart=(unshare --map-current-user --keep-caps --net)
# shellcheck disable=SC2016 # expanded in the namespace
inside=("${apart[@]}" bash -c 'ip link set lo up && exec "$@"' _)
if ! "${inside[@]}" true 2>/dev/null; then
  echo "fleet-load.sh: no network namespace to be had: the boards are at 127.77.0.1 and on, for all of this machine" >&2
  inside=()
fi
exec "${inside[@]}" python3 -B scripts/fleet_load "$@"
