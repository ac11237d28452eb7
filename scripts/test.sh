#!/usr/bin/env bash
# test.sh [--all]: everything that must hold before a change lands: formatting, static analysis, what the library
# weighs, the examples' run, and the tests on the developer's host (debug with sanitizers; release with g++ and with
# clang++) and on the board (under qemu). With --all also on other processors, where one sequence of operations must
# give the same bytes as here, the ABI, under valgrind, with their coverage, a while of fuzzing, and a soak; and static
# analysis looks deeper.
#
# What is only compiled or analysed goes on in the background, behind what is tried meanwhile: that waits a lot, and
# must not be kept waiting. Each step says how long it took, and how long all has taken so far.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."
. scripts/common.sh

case "$*" in
  '') all= ;;
  --all) all=yes ;;
  *) echo "usage: scripts/test.sh [--all]" >&2; exit 2 ;;
esac

need "${build_packages[@]}" "${tool_packages[@]}" "${fleet_packages[@]}" "${board_packages[@]}" \
  git make clang clang-format clang-tidy cppcheck libgtest-dev googletest binutils mandoc iproute2 \
  python3 tshark doxygen curl systemd bash-completion zsh \
  ${all:+gcovr valgrind abigail-tools "${fuzz_packages[@]}" "${target_packages[@]}"}

# What kep-fleet is tried with. A browser without a head does, and brings no desktop along.
want prometheus prometheus
ls /usr/lib/postgresql/*/bin/initdb >/dev/null 2>&1 || want initdb postgresql
command -v chromium >/dev/null || want chromium-headless-shell chromium-headless-shell
want npm npm

# In the order in which they are built and tested.
presets=(release dev release-clang ${all:+coverage fleet-threads memcheck i386 i386-time64 s390x arm arm64} board)

sources() { git ls-files "$@" | grep -E '\.(c|h|cpp|hpp)$'; }

# ---- steps

# took STEP SINCE: how long it took.
took() { printf -- '-- %s: %d s (%d s so far)\n' "$1" $((SECONDS - $2)) $SECONDS; }

# step NAME COMMAND...
step() {
  local began=$SECONDS
  say "$1"
  "${@:2}"
  took "$1" "$began"
}

formatting() {
  sources . | xargs clang-format --dry-run -Werror
  mandoc -T lint -W warning tools/*/*.[18] # the man pages
}

configure() { printf '%s\n' "${presets[@]}" bench | xargs -P "$(nproc)" -I{} cmake --preset {} >/dev/null; }

# test_preset PRESET: only what did not pass is listed, as it happens. Where there are no tests something went wrong.
test_preset() {
  [ "$1" != coverage ] || find build/coverage -name '*.gcda' -delete # of earlier runs
  ctest --preset "$1" -j $((2 * $(nproc))) --no-tests=error --output-on-failure |
    grep --line-buffered -vE '^ *[0-9]+/[0-9]+ Test .*Passed|^ +Start '
}

coverage() {
  local room lines=build/coverage/lines.json
  gcovr --root . -j "$(nproc)" --exclude-throw-branches --filter '(src|server|tools)/' --json $lines build/coverage
  # What is not reached of kep-fleet is a database, another instance or the system that fails at a certain moment.
  for room in 'src/ 98' 'server/ 98' 'tools/(?!kep-fleet/) 98' 'tools/kep-fleet/ 97'; do
    gcovr --root . --filter "${room% *}" --print-summary --fail-under-line "${room#* }" --add-tracefile $lines
  done
}

demos() {
  local kind
  for kind in '' --threads --board --fleet ${all:+--memcheck}; do
    KEP_FLEET_BUILD=$PWD/build/release quietly build/demo.log scripts/demo.sh $kind
  done
  quietly build/scripts.log tests/scripts/scripts_test.sh
}

# ---- in the background

# The largest source first. Most of clang-tidy's time goes into paths through functions, each followed for so many
# states; with a third of its own limit it still finds what is near.
analysis() {
  local depth=(--extra-arg=-Xclang --extra-arg=-analyzer-config --extra-arg=-Xclang --extra-arg=max-nodes=75000)
  [ -z "$all" ] || depth=()
  sources src platform server examples tools | grep '\.cpp$' | xargs ls -S | xargs -P "$(nproc)" -n 1 \
    clang-tidy --quiet --warnings-as-errors='*' "${depth[@]}" -p build/dev 2>/dev/null
  cppcheck -j "$(nproc)" --quiet --error-exitcode=1 --std=c++17 --language=c++ \
    --enable=warning,performance,portability --suppressions-list=scripts/cppcheck.txt -Iinclude -Isrc -Itools -I. \
    src platform server examples tools
}

build() { cmake --build --preset "$1" -- --quiet; }

# What is done, in this order; each, once it is, is told to the other end of the pipe.
background() {
  local began work
  renice -n 19 -p "$BASHPID" >/dev/null
  for work in "${presets[@]::${#presets[@]}-1}" analysis bench board; do
    began=$SECONDS
    if [ "$work" = analysis ]; then analysis; else build "$work"; fi
    took "in the background: $work" "$began"
    echo "$work" >&3
  done
}

# await WORK: until it is done; what fails in the background ends all.
declare -A ready=()
await() {
  local work
  until [ "${ready[$1]-}" ]; do
    read -r work <&3 || { echo "test.sh: no $1 after a failure in the background" >&2; exit 1; }
    ready[$work]=yes
  done
}

# A process group of its own, so that nothing of it is left when this ends.
begin_background() {
  rm -f build/done
  mkfifo build/done
  set -m
  background 3>build/done </dev/null & # who reads from the terminal there would be stopped
  trap "kill -- -$! 2>/dev/null || true" EXIT
  set +m
  exec 3<build/done
}

# ---- all of it

step "formatting" formatting
step "the share of the tests" scripts/share.sh
step "configuring" configure
begin_background

step "what the library weighs" scripts/size.sh
await release
step "the demo: on the host, under ThreadSanitizer, on the board, of a fleet${all:+, under valgrind}" demos
for preset in "${presets[@]::${#presets[@]}-1}"; do
  await "$preset"
  step "testing: $preset" test_preset "$preset"
done
if [ -n "$all" ]; then
  step "coverage" coverage
  step "the ABI" scripts/abi.sh
  step "fuzzing" scripts/fuzz.sh 10
  step "a soak" scripts/soak.sh 60
  step "the same bytes everywhere" scripts/same-bytes.sh
fi
await board # the last in the background
[ -z "$all" ] || step "the load of a fleet" quietly build/fleet-load.out scripts/fleet-load.sh --quick
say "testing: board"
test_preset board
