#!/usr/bin/env bash
# test.sh: everything that must hold before a change lands: formatting, static analysis, and the tests on the
# developer's host (debug with sanitizers; release with g++ and with clang++) and on the board (under qemu).
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/common.sh

need "${build_packages[@]}" "${tool_packages[@]}" "${board_packages[@]}" \
  git clang clang-format clang-tidy cppcheck libgtest-dev googletest libbenchmark-dev pkg-config binutils mandoc iproute2

sources() { git ls-files "$@" | grep -E '\.(c|h|cpp|hpp)$'; }

say "formatting"
sources . | xargs clang-format --dry-run -Werror

say "configuring"
for preset in dev release release-clang board bench; do
  cmake --preset "$preset" >/dev/null
done

say "static analysis"
sources src platform examples tools | grep '\.cpp$' |
  xargs -P "$(nproc)" -n 1 clang-tidy --quiet --warnings-as-errors='*' -p build/dev 2>/dev/null
cppcheck --quiet --error-exitcode=1 --std=c++17 --language=c++ --enable=warning,performance,portability \
  --inline-suppr --suppressions-list=scripts/cppcheck.txt -Iinclude -Isrc src platform examples tools

for preset in bench dev release release-clang board; do
  say "building: $preset"
  cmake --build --preset "$preset" -- --quiet
done

say "the demo, on the host and on the board"
quietly build/demo.log scripts/demo.sh
quietly build/demo.log scripts/demo.sh --board

for preset in dev release release-clang board; do
  say "testing: $preset"
  ctest --preset "$preset" -j "$(nproc)" --output-on-failure | grep -vE '^ *[0-9]+/[0-9]+ Test .*Passed|^ +Start '
done
