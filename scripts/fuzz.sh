#!/usr/bin/env bash
# fuzz.sh [SECONDS]: builds the fuzz harnesses and runs each for so long (60 by default), after the inputs kept in
# fuzz/corpus. What they find in passing stays in build/fuzz/corpus; an input that breaks something is kept in
# build/fuzz/artifacts, named on the way out, and ends the script with a failure.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."
. scripts/common.sh

seconds=${1:-60}
[[ $# -le 1 && "$seconds" =~ ^[1-9][0-9]*$ ]] || { echo "usage: scripts/fuzz.sh [SECONDS]" >&2; exit 2; }

need "${build_packages[@]}" "${tool_packages[@]}" "${fuzz_packages[@]}"

say "building the fuzz harnesses"
quietly build/fuzz.log cmake --preset fuzz
quietly build/fuzz.log cmake --build --preset fuzz

# fuzz NAME: replays and extends the corpus of one harness; its log ends with the executions and the peak of memory.
fuzz() {
  local name=$1 log=build/fuzz/$1.log
  mkdir -p "build/fuzz/corpus/$name" build/fuzz/artifacts
  "build/fuzz/fuzz/$name" "build/fuzz/corpus/$name" "fuzz/corpus/$name" -max_total_time="$seconds" -timeout=25 \
    -artifact_prefix="build/fuzz/artifacts/$name-" -print_final_stats=1 -close_fd_mask=1 >"$log" 2>&1 ||
    { tail -n 60 "$log" >&2; echo "fuzz.sh: $name failed" >&2; return 1; }
  printf '%-20s %s\n' "$name" \
    "$(grep -E 'number_of_executed_units|peak_rss_mb' "$log" | sed 's/stat:://' | tr -s ' \n' ' ')"
}
export -f fuzz
export seconds

say "fuzzing for $seconds s each"
ls fuzz/corpus | xargs -P "$(nproc)" -I{} bash -euo pipefail -c 'fuzz {}'
