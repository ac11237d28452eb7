#!/usr/bin/env bash
# test.sh [--all]: everything that must hold before a change lands: formatting, static analysis, what the library weighs,
# the examples' run, and the tests on the developer's host (debug with sanitizers; release with g++ and with clang++) and
# on the board (under qemu). With --all also under valgrind, with their coverage, a while of fuzzing, and a soak.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."
. scripts/common.sh

case "${1-}" in
  '') all= ;;
  --all) all=yes ;;
  *) echo "usage: scripts/test.sh [--all]" >&2; exit 2 ;;
esac

need "${build_packages[@]}" "${tool_packages[@]}" "${fleet_packages[@]}" "${board_packages[@]}" \
  git clang clang-format clang-tidy cppcheck libgtest-dev googletest binutils mandoc iproute2 \
  python3 tshark doxygen curl systemd bash-completion zsh ${all:+gcovr valgrind abigail-tools "${fuzz_packages[@]}"}

# What kep-fleet is tried with. A browser without a head does, and brings no desktop along.
want prometheus prometheus
ls /usr/lib/postgresql/*/bin/initdb >/dev/null 2>&1 || want initdb postgresql
command -v chromium >/dev/null || want chromium-headless-shell chromium-headless-shell
want npm npm

presets=(dev release release-clang board)
compiled=(bench "${presets[@]}" ${all:+coverage memcheck})

sources() { git ls-files "$@" | grep -E '\.(c|h|cpp|hpp)$'; }

# run_tests PRESET: only what did not pass is listed.
run_tests() {
  say "testing: $1"
  ctest --preset "$1" -j "$(nproc)" --output-on-failure | grep -vE '^ *[0-9]+/[0-9]+ Test .*Passed|^ +Start '
}

say "formatting"
sources . | xargs clang-format --dry-run -Werror

say "the share of the tests"
scripts/share.sh

say "configuring"
for preset in "${compiled[@]}"; do
  cmake --preset "$preset" >/dev/null
done

say "static analysis"
sources src platform server examples tools | grep '\.cpp$' |
  xargs -P "$(nproc)" -n 1 clang-tidy --quiet --warnings-as-errors='*' -p build/dev 2>/dev/null
cppcheck --quiet --error-exitcode=1 --std=c++17 --language=c++ --enable=warning,performance,portability \
  --suppressions-list=scripts/cppcheck.txt -Iinclude -Isrc -Itools -I. src platform server examples tools

for preset in "${compiled[@]}"; do
  say "building: $preset"
  cmake --build --preset "$preset" -- --quiet
done

scripts/size.sh

say "the demo: on the host, under ThreadSanitizer, on the board, of a fleet${all:+, under valgrind}"
for kind in '' --threads --board --fleet ${all:+--memcheck}; do
  quietly build/demo.log scripts/demo.sh $kind
done
quietly build/scripts.log tests/scripts/scripts_test.sh

if [ -n "$all" ]; then
  quietly build/abi.log scripts/abi.sh
  scripts/fuzz.sh 10
  scripts/soak.sh 60
  quietly build/fleet-load.out scripts/fleet-load.sh --quick

  say "building: fleet-threads"
  cmake --preset fleet-threads >/dev/null
  cmake --build --preset fleet-threads -- --quiet
  run_tests fleet-threads

  run_tests memcheck

  find build/coverage -name '*.gcda' -delete # of earlier runs
  run_tests coverage
  say "coverage"
  lines=build/coverage/lines.json
  gcovr --root . -j "$(nproc)" --exclude-throw-branches --filter '(src|server|tools)/' --json $lines build/coverage
  for room in src/ server/ 'tools/(?!kep-fleet/)' tools/kep-fleet/; do
    gcovr --root . --filter "$room" --print-summary --fail-under-line 98 --add-tracefile $lines
  done
fi

for preset in "${presets[@]}"; do
  run_tests "$preset"
done
