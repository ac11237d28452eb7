#!/usr/bin/env bash
# abi.sh [--renew]: whether the shared library is still the one that hosts were linked with: abidiff compares it with
# the baseline in scripts/abi, on x86-64 and on the board. What is added is a change as well. A change is meant where
# the same commit renews the baseline (--renew) and says so in CHANGELOG.md.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."
. scripts/common.sh

case "$*" in
  '' | --renew) ;;
  *) echo "usage: scripts/abi.sh [--renew]" >&2; exit 2 ;;
esac
need "${build_packages[@]}" "${board_packages[@]}" abigail-tools git

# built TARGET OPTION...: the library with its types, in few sources: it is only looked at.
built() {
  quietly "build/abi/$1.log" cmake -S . -B "build/abi/$1" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_UNITY_BUILD=ON \
    -DKEP_BUILD_TOOLS=OFF -DKEP_BUILD_EXAMPLES=OFF "${@:2}"
  quietly "build/abi/$1.log" cmake --build "build/abi/$1" --target kep_shared
}

# described TARGET: what hosts can see of it: types as the public headers show them, without folders and names that say
# nothing to them.
described() {
  abidw --headers-dir include --drop-private-types --exported-interfaces-only --drop-undefined-syms --no-corpus-path \
    --no-comp-dir-path --no-show-locs --no-parameter-names --no-elf-needed --type-id-style hash \
    "build/abi/$1/libkep.so" | sed "s| path='[^']*/| path='|" >"build/abi/$1.xml"
  grep -q '<function-decl' "build/abi/$1.xml" || { echo "abi.sh: no types in the library for $1" >&2; exit 1; }
}

# isTold: whether the baseline's latest change came with a line in CHANGELOG.md.
isTold() {
  if [ -n "$(git status --porcelain scripts/abi)" ]; then
    git diff HEAD -- CHANGELOG.md
  else
    git show -m --first-parent --format= "$(git log -1 --format=%H -- scripts/abi)" -- CHANGELOG.md
  fi | grep '^+[^+]' >/dev/null # which reads on: nobody is to write into a closed pipe
}

say "building what the ABI is looked up in"
built x86_64 -DCMAKE_CXX_COMPILER=g++ -DCMAKE_C_COMPILER=gcc
built powerpc -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/board.cmake"

failed=
for target in x86_64 powerpc; do
  baseline=scripts/abi/$target.xml
  described $target
  if [ "${1-}" = --renew ]; then
    cp build/abi/$target.xml $baseline
  elif ! abidiff $baseline build/abi/$target.xml; then
    echo "abi.sh: changed on $target; where that is meant: scripts/abi.sh --renew, and a line in CHANGELOG.md" >&2
    failed=yes
  fi
done
if [ "$(git --git-dir=.git rev-parse --is-shallow-repository 2>/dev/null)" = false ]; then
  isTold || { echo "abi.sh: CHANGELOG.md says nothing of the baseline's latest change" >&2; failed=yes; }
else # where a shallow one begins, all of CHANGELOG.md seems new
  echo "abi.sh: no git repository, or a shallow one: whether CHANGELOG.md tells of the baseline is not looked at" >&2
fi
[ -z "$failed" ]
