#!/usr/bin/env bash
# same-bytes.sh: one sequence of operations over the whole library (tests/sequence) gives the same bytes everywhere:
# built by g++ and clang++, at -O0, -O2 and -Os, with signed and unsigned plain char, for the developer's host and for
# the board, and by one compiler each for i386, also with times of 64 bits, s390x, 32-bit and 64-bit ARM; without a lock
# and with one. Prints what the parts of the sequence give, and fails with each build that gives something else, and in
# which part; also where the library exports a function that the sequence does not name.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."
. scripts/common.sh

[ $# -eq 0 ] || { echo "usage: scripts/same-bytes.sh" >&2; exit 2; }
need g++ clang "${board_packages[@]}" "${target_packages[@]}"

unnamed=$(grep -v '^#' tests/package/exports.txt | tr ' ' '\n' | grep -v '^g_' |
  while read -r name; do grep -qw "$name" tests/sequence/sequence.cpp || echo "$name"; done)
[ -z "$unnamed" ] || { echo "same-bytes.sh: the sequence does not call $unnamed" >&2; exit 1; }

export folder=build/same-bytes
rm -rf $folder
mkdir -p $folder

# try NAME TARGET COMPILER FLAG...: what the sequence gives, in NAME.out, and with a lock, in NAME.locked. The target is
# "host", or qemu's name of it and the triplet of Debian's compiler.
try() {
  local program=$folder/$1 run=()
  [ "$2" = host ] || run=("qemu-${2%:*}" -L "/usr/${2#*:}")
  "${@:3}" -std=c++17 -Wall -Wextra -Werror -ffp-contract=off -fno-exceptions -fno-rtti -Iinclude -Isrc -Itests \
    src/*.cpp tests/support/platform_double.cpp tests/sequence/sequence.cpp -pthread -o "$program" 2>"$program.log" &&
    "${run[@]}" "$program" >"$program.out" 2>>"$program.log" &&
    KEP_TEST_LOCK=1 "${run[@]}" "$program" >"$program.locked" 2>>"$program.log" ||
    { cat "$program.log" >&2; echo "same-bytes.sh: $1 cannot be built, or ends early" >&2
      rm -f "$program".{out,locked}; return 1; }
}
export -f try

# builds: the arguments of `try`, a line for each.
builds() {
  local level char target
  for level in O0 O2 Os; do
    for char in signed unsigned; do
      echo "g++-$level-$char host g++ -$level -f$char-char"
      echo "clang++-$level-$char host clang++ -$level -f$char-char"
      target=ppc:powerpc-linux-gnu
      echo "board-g++-$level-$char $target powerpc-linux-gnu-g++ -$level -f$char-char"
      echo "board-clang++-$level-$char $target clang++ --target=${target#*:} -$level -f$char-char"
    done
  done
  for target in i386:i686-linux-gnu s390x:s390x-linux-gnu arm:arm-linux-gnueabihf aarch64:aarch64-linux-gnu; do
    [ "${target%:*}" = i386 ] && level="-O2 -msse2 -mfpmath=sse" || level=-O2
    echo "${target%:*} $target ${target#*:}-g++ $level"
  done
  target=i386:i686-linux-gnu
  echo "i386-time64 $target ${target#*:}-g++ -O2 -msse2 -mfpmath=sse -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64"
}

say "the same bytes: $(builds | wc -l) builds of one sequence"
status=0
builds | xargs -P "$(nproc)" -I{} bash -euo pipefail -c 'try {}' || status=1

first= # of those that gave something: others were told of
for name in $(builds | cut -d ' ' -f 1); do
  [ -e "$folder/$name.out" ] || continue
  [ -n "$first" ] || { first=$name; cat "$folder/$first.out"; }
  for way in out locked; do
    diff "$folder/$first.out" "$folder/$name.$way" >&2 ||
      { echo "same-bytes.sh: $name.$way has other bytes" >&2; status=1; }
  done
done
exit $status
