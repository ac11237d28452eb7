#!/usr/bin/env bash
# package.sh [--board]: builds the Debian packages, twice, in build/package, and tries them: lintian finds nothing that
# is not excused; in a fresh minimal root they are installed, hosts are built against them and collected from, kep-fleet
# is started, and all of it is removed again without a trace; both builds are the same to the byte, and so are two
# archives of a tag. With --board also cross-built for powerpc, the library and the example hosts, which run under qemu.
#
# The root is made by mmdebstrap, which takes root or user namespaces; where there are neither that part is skipped.
# What is left to look at: build/package/one, a list of what is in the packages in kep.spdx.json, and all logs.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."
. scripts/common.sh

case "$*" in
  '') board= ;;
  --board) board=yes ;;
  *) echo "usage: scripts/package.sh [--board]" >&2; exit 2 ;;
esac

need "${build_packages[@]}" "${tool_packages[@]}" "${fleet_packages[@]}" "${package_packages[@]}" \
  git iproute2 python3 tshark ${board:+"${board_packages[@]}" file}

work=$PWD/build/package
one=$work/one two=$work/elsewhere/two
powerpc=powerpc-linux-gnu
mkdir -p "$work"
commit=$(git stash create) # of what git knows, as it is now
commit=${commit:-HEAD}
version=$(dpkg-parsechangelog -S Version)

fail() {
  echo "package.sh: $*" >&2
  exit 1
}

# unpack FOLDER: the sources, with the rights that they have, whatever the umask.
unpack() {
  rm -rf "$1"
  mkdir -p "$1"
  install -d -m 755 "$1/kep"
  git archive "$commit" | tar -xp -C "$1/kep"
}

# build FOLDER ARGUMENT...: the packages, from sources unpacked there; without what debuggers want, which takes as long
# as all the rest.
build() (
  cd "$1/kep"
  export DEB_BUILD_OPTIONS=noautodbgsym DEB_CFLAGS_STRIP=-g DEB_CXXFLAGS_STRIP=-g
  quietly "$1/build.log" nice dpkg-buildpackage --no-sign -j"$(nproc)" "${@:2}"
)

# build_other FOLDER ARGUMENT...: the same elsewhere, at other times, for another user's habits, and by no cache.
build_other() (
  umask 027
  unpack "$1"
  find "$1" -exec touch {} + # they had the commit's time
  export TZ=Pacific/Auckland LC_ALL=C.UTF-8 CCACHE_DISABLE=1
  build "$@"
)

# same FOLDER OTHER: packages and sources are the same to the byte.
same() {
  local file
  for file in "$1"/*.deb "$1"/*.dsc "$1"/*.tar.*; do
    [ ! -e "$file" ] || cmp "$file" "$2/${file##*/}" || fail "two builds differ"
  done
}

# Not for powerpc: what runs on a server. Of Debian 12 there is none for powerpc, from which the C library could be
# installed that the build needs there by its rules; the cross compiler brings one of its own. Hence -d.
board_arguments=(--build=any --host-arch=powerpc -d --build-profiles=cross,nocheck,nodoc,pkg.kep.notools)

others=
trap '[ -z "$others" ] || kill -- -$others 2>/dev/null || true' EXIT

say "building"
unpack "$one"
build "$one"
[ -z "$board" ] || { unpack "$work/board"; build "$work/board" "${board_arguments[@]}"; }
set -m # in a group of its own, which can be ended
{
  build_other "$two"
  [ -z "$board" ] || build_other "$work/elsewhere/board" "${board_arguments[@]}"
} &
others=$!
set +m

say "lintian"
awk 'NF == 0 { reason = 0 } /^#/ { reason = 1; next } NF && !reason { print FILENAME ": no reason: " $0; bad = 1 }
  END { exit bad }' debian/*.lintian-overrides debian/source/lintian-overrides
lintian --allow-root --fail-on error,warning --tag-display-limit 0 "$one"/*.changes ${board:+"$work"/board/*.changes}

say "contents and fields"
contents() { dpkg-deb --fsys-tarfile "$1" | tar -t | sort; }
plugins=$(tshark -G folders 2>/dev/null | sed -n 's/^Global Lua Plugins:[[:space:]]*//p')
contents "$one"/kep-tools_*.deb | grep -xF ".$plugins/kep.lua" >/dev/null || fail "Wireshark does not find kep.lua"
[ "$(dpkg-deb -I "$one"/kep-fleet_*.deb conffiles)" = /etc/kep/fleet.toml ] || fail "fleet.toml is no conffile"
dpkg-deb -I "$one"/kep-fleet_*.deb prerm | grep 'stop.*kep-fleet' >/dev/null || fail "kep-fleet outlives its package"
grep -q '^libc6 ([^,]*)$' <<<"$(dpkg-deb -f "$one"/libkep0.2_*.deb Depends)" || fail "the library needs more than libc"
rm -rf "$work/doc"
dpkg-deb -x "$one"/kep-doc_*.deb "$work/doc"
python3 tests/docs/docs_test.py links "$work/doc/usr/share/doc/kep" || fail "pages of kep-doc lead nowhere"
SOURCE_DATE_EPOCH=$(dpkg-parsechangelog -S Timestamp) scripts/spdx.py "$one"/*.deb >"$work/kep.spdx.json"
tests/package/spdx_test.py "$work/kep.spdx.json" "$one"/*.deb

# alone COMMAND...: with a network of its own, where no port is taken; where this user may have none, beside the others.
alone() {
  local as_root=-r
  [ "$(id -u)" -ne 0 ] || as_root=
  if unshare $as_root -n true 2>/dev/null; then
    unshare $as_root -n sh -c 'ip link set lo up; exec "$@"' - "$@"
  else
    "$@"
  fi
}

# may_make_roots: whether this user may, as mmdebstrap makes them, and is found here as the other user that it then is.
may_make_roots() { mmdebstrap --unshare-helper unshare -n test -x "$PWD/scripts/package/in_root.sh" 2>/dev/null; }

if may_make_roots; then
  say "a fresh root"
  rm -rf "$work/root" "$work/tmp"
  mkdir -p "$work/root" "$work/tmp"
  chmod 0777 "$work/root" # which is another user's without root, as whom mmdebstrap is root in there
  cp -r "$one"/*.deb debian/tests "$work/root"
  wanted=$(for package in "$work"/root/*.deb; do dpkg-deb -f "$package" Pre-Depends Depends; done |
    sed 's/^[A-Za-z-]*: //; s/ *([^)]*)//g' | tr , '\n' | sed 's/|.*//; s/ //g' | sort -u | grep -v -e ^libkep -e ^kep-)
  TMPDIR=$work/tmp quietly "$work/root.log" nice mmdebstrap --variant=minbase --dpkgopt=force-unsafe-io \
    --include="cmake,gcc,libc6-dev,make,pkg-config,$(paste -sd, <<<"$wanted")" \
    --customize-hook="'$PWD/scripts/package/in_root.sh' \"\$1\" '$work/root' >&3" \
    "$(. /etc/os-release && echo "$VERSION_CODENAME")" /dev/null 3>&1
else
  say "SKIPPED: a fresh root, which this user may not make here: needs root, or user namespaces, newuidmap (uidmap), and" \
    "a folder that others may enter"
fi

if [ -n "$board" ]; then
  say "the board's packages"
  for package in "$work"/board/*.deb; do
    twin=$one/$(basename "${package%_powerpc.deb}")_$(dpkg --print-architecture).deb
    [ "$(dpkg-deb -f "$package" Architecture)" = powerpc ] || fail "$package is for another architecture"
    diff <(contents "$package") <(contents "$twin" | sed "s/$(gcc -print-multiarch)/$powerpc/")
    for field in Depends Multi-Arch Section; do # versions aside, which are those of another C library
      diff <(dpkg-deb -f "$package" $field | sed 's/ *([^)]*)//g') <(dpkg-deb -f "$twin" $field | sed 's/ *([^)]*)//g')
    done
    dpkg-deb -x "$package" "$work/board/root"
  done
  dpkg-deb -x "$one"/kep-tools_*.deb "$work/board/host"
  usr=$work/board/root/usr
  file -b "$usr/lib/$powerpc/libkep.so.0.2.0" "$usr/libexec/kep/kep-board"
  ! file -b "$usr/lib/$powerpc/libkep.so.0.2.0" "$usr"/libexec/kep/* | grep -v 'ELF 32-bit MSB.*PowerPC' ||
    fail "not for the board"
  CC=$powerpc-gcc RUN="qemu-ppc -L /usr/$powerpc -E LD_LIBRARY_PATH=$usr/lib/$powerpc" \
    CMAKE_ARGUMENTS="-DCMAKE_TOOLCHAIN_FILE=$PWD/cmake/board.cmake -DCMAKE_PREFIX_PATH=$usr" \
    debian/tests/hosts tests/package/consumer/*.c "$usr" "$usr/lib/$powerpc"
  say "collecting from the board's example host"
  alone bash -c '
    qemu-ppc -L "$1" "$2" >"$3" 2>&1 &
    trap "kill $!" EXIT
    for try in {1..50}; do
      "$4" 127.0.0.1 --timeout 5 2>"$3.errors" && exit
      sleep 0.2
    done
    cat "$3" "$3.errors" >&2
    exit 1' - "/usr/$powerpc" "$usr/libexec/kep/kep-board" "$work/board/kep-board.out" \
    "$work/board/host/usr/bin/kep-collect"
fi

say "the archive of a tag, twice"
# archive FOLDER CLONE_OPTION...: the archive beside a clone in that folder.
archive() {
  rm -rf "$1"
  git clone --quiet --no-tags "${@:2}" "file://$PWD" "$1"
  git -C "$1" tag "v$version"
  git -C "$1" archive --format=tar.gz --prefix="kep-$version/" --output=../kep.tar.gz "v$version"
}
archive "$work/archive/one"
(umask 027 && TZ=Pacific/Auckland archive "$work/archive/elsewhere/two" --depth 1)
cmp "$work/archive/kep.tar.gz" "$work/archive/elsewhere/kep.tar.gz"

say "the second build is the same"
wait "$others" || fail "the second build failed"
others=
same "$one" "$two"
[ -z "$board" ] || same "$work/board" "$work/elsewhere/board"
(cd "$one" && sha256sum *.deb)
