#!/usr/bin/env bash
# ways.sh SOURCE PREFIX CMAKE_OPTION...: a host in C is built in every way that the documentation names, and run, with
# what is installed in PREFIX. The compiler CC, READELF, EMULATOR, which may be empty, and the options are the target's.
set -euo pipefail
source=$1 prefix=$2
shift 2
options=(-G Ninja -DCMAKE_BUILD_TYPE=Debug "$@")
work=$PWD/ways
rm -rf "$work"
mkdir "$work"
cd "$work"
cp "$source/tests/package/consumer/main.c" host.c
sed -n '/^```c$/,/^```$/{ /^```/d; p }' "$source/docs/porting.md" >layer.c
failed=0
fail() { echo "ways.sh: $*" >&2; failed=1; }

# run WAY KIND HOST: a static host needs no other library than C's, a shared one finds ours in the folder `libraries`.
run() {
  local needed expected='' emulator
  read -ra emulator <<<"$EMULATOR"
  [ "$2" = static ] || expected=libkep.so
  needed=$("$READELF" -d "$3" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' | grep -v '^libc\.so\|^ld' || true)
  [ "${needed%.so*}" = "${expected%.so}" ] || fail "$1: needs ${needed:-no library}"
  LD_LIBRARY_PATH=${expected:+$libraries} "${emulator[@]}" "$3" | grep -q 'linked from C' ||
    fail "$1: its host does not run"
}

# Lines for a shell, as the documentation prints them. Those who neither say so nor name an archive link the shared one.
lines() {
  grep -h '^cc ' "$source/README.md" "$source/docs/porting.md"
  cat <<'LINES'
cc host.c $(pkg-config --cflags --libs kep-platform-posix kep)
cc host.c $(pkg-config --static --cflags --libs kep kep-platform-posix)
cc host.c $(pkg-config --static --cflags --libs kep-platform-posix kep)
cc -static host.c $(pkg-config --static --cflags --libs kep-platform-posix kep)
LINES
}
# As linkers are by nature: some compilers tell them to leave out libraries that are not needed.
# shellcheck disable=SC2317 # called by eval
cc() { "$CC" -o host -Wl,--no-as-needed "$@"; }

# byHand PREFIX LIBRARIES: each line, with what lies there.
byHand() {
  local line kind count=0
  export PKG_CONFIG_LIBDIR=$2/pkgconfig
  libraries=$2
  while read -r line; do
    kind=shared
    case $line in *libkep.a* | *--static*) kind=static ;; esac
    rm -f host
    if eval "${line//PREFIX/$1}"; then run "$line" $kind ./host; else fail "$line: does not link"; fi
    count=$((count + 1))
  done < <(lines)
  [ $count -eq 9 ] || fail "the documentation has other lines to link by: $count"
}

# project NAME OPTION...: the consumer's, built in a folder of that name.
project() {
  local name=$1
  shift
  { cmake -S "$source/tests/package/consumer" -B "$name" "${options[@]}" "$@" && cmake --build "$name"; } \
    >"$name.log" 2>&1 || { cat "$name.log" >&2; fail "$name: is not built"; return; }
  ! grep 'CMake.*Warning' "$name.log" || fail "$name: CMake warns"
  run "$name" static "$name/host"
}

# installed NAME: the files that it installs, under a folder of the packager's.
installed() {
  DESTDIR=$work/$1.stage cmake --install "$1" >>"$1.log"
  [ ! -d "$1.stage" ] || (cd "$1.stage" && find . -type f)
}

# Installed, and then moved.
cp -r "$prefix" moved
byHand "$work/moved" "$work/moved/lib"
project found -DCMAKE_PREFIX_PATH="$work/moved"
run "found, shared" shared found/shared_host
[ ! -e found/pkgconfig_host ] || run "found by pkg-config" shared found/pkgconfig_host

# A part of another build: nothing of it is installed.
project part -DWAY=add_subdirectory -DKEP="$source" -DCMAKE_UNITY_BUILD=ON -DCMAKE_UNITY_BUILD_BATCH_SIZE=0
(cd "$source" && cmake -E tar czf "$work/kep.tar.gz" CMakeLists.txt cmake include src platform)
project fetched -DWAY=URL -DKEP="$work/kep.tar.gz" -DCMAKE_UNITY_BUILD=ON -DKEP_BUILD_SHARED=OFF
[ -z "$(installed part)$(installed fetched)" ] || fail "parts of another build are installed"

# It is where it is asked for, to any folders.
project asked -DWAY=SOURCE_DIR -DKEP="$source" -DCMAKE_UNITY_BUILD=ON -DKEP_INSTALL=ON -DCMAKE_INSTALL_PREFIX="$work" \
  -DCMAKE_INSTALL_LIBDIR="$work/a/lib" -DCMAKE_INSTALL_INCLUDEDIR="$work/b/include"
installed asked >asked.files
grep -q "^\.$work/a/lib/libkep\.a$" asked.files || fail "nothing lies where it was asked for"
! grep -v "^\.$work/\(a/lib\|b/include\)/" asked.files || fail "it lies elsewhere"
! grep -rl '\.stage' asked.stage --include='*.pc' --include='*.cmake' || fail "the packager's folder is named"
cmake --install asked >>asked.log
export PKG_CONFIG_LIBDIR=$work/a/lib/pkgconfig
libraries=$work/a/lib
project apart -Dkep_DIR="$work/a/lib/cmake/kep"
# shellcheck disable=SC2046 # words
cc host.c $(pkg-config --cflags --libs kep kep-platform-posix)
run "apart by pkg-config" shared ./host

# A debug build looks at the blocks of a layer.
cc -I b/include host.c layer.c -L a/lib -l:libkep.a -l:libkep_platform_posix.a
run "the documented layer" static ./host 2>complaints
[ ! -s complaints ] || fail "the documented layer: $(cat complaints)"
exit $failed
