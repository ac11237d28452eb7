#!/usr/bin/env bash
# bench.sh [--quick] [--instructions] [FILTER]: what calls cost beside the plainest code that does the same and beside
# other libraries, as one table; of the cases whose names have FILTER, an expression, in them. With --instructions it
# counts those instead of time: slow, but the same in every run.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."
. scripts/common.sh

for argument in "$@"; do
  case "$argument" in
    --quick | --instructions) ;;
    -*) echo "usage: scripts/bench.sh [--quick] [--instructions] [FILTER]" >&2; exit 2 ;;
  esac
done

need "${build_packages[@]}" "${tool_packages[@]}" pkg-config valgrind \
  libsmartcols-dev libglib2.0-dev libfmt-dev libspdlog-dev libmsgpack-dev libzmq3-dev

say "building the benchmarks"
quietly build/bench.log cmake --preset bench
quietly build/bench.log cmake --build --preset bench

build/bench/bench/kep-bench "$@"
