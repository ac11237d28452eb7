#!/usr/bin/env bash
# board-vm.sh: boots Linux with kep-board on an emulated board, a 32-bit big-endian PowerPC machine with 16 MB of
# memory, and collects from it as a server would; then its fault file is brought off the board and read.
#
# board-vm.sh --check: what loopback cannot show, beside what is expected: servers that vanish without a word, links
# that go, servers that close, and thousands of runs. Takes two minutes. The board's patience is lowered for it; with
# --full it is Linux's own, which takes 22 minutes. The servers and the wire are in a network namespace of this user's
# own, for which /dev/net/tun must be his to open.
#
# The kernel is built from Debian's source, in four minutes of two processors, and kept. Writes into build/ only.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."
. scripts/common.sh

case "$*" in
  '' | --check | "--check --full") ;;
  *) echo "usage: scripts/board-vm.sh [--check [--full]]" >&2; exit 2 ;;
esac

[ $# -eq 0 ] || [ -w /dev/net/tun ] || { echo "board-vm.sh: this user cannot open /dev/net/tun" >&2; exit 1; }

need "${build_packages[@]}" "${tool_packages[@]}" "${board_packages[@]}" qemu-system-ppc linux-source-6.1 \
  make gcc bc bison flex xz-utils python3 iproute2 util-linux

vm=$PWD/build/board-vm
log=$vm/build.log
cross=powerpc-linux-gnu-

say "building"
quietly "$log" cmake -S . -B "$vm/tools" -G Ninja
quietly "$log" cmake --build "$vm/tools" --target kep-collect kep-faultlog
quietly "$log" cmake -S . -B "$vm/board" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/board.cmake" \
  -DCMAKE_EXE_LINKER_FLAGS="-static -s" -DKEP_BUILD_TOOLS=OFF -DKEP_FAULT_LOG_PATH=/tmp/kep.log
quietly "$log" cmake --build "$vm/board" --target kep kep_platform_posix kep-board kep-worker

# renew FILE: FILE.new takes its place where that says something else, so that nothing is made of it in vain.
renew() { if cmp -s "$1.new" "$1"; then rm "$1.new"; else mv "$1.new" "$1"; fi; }

# compile PROGRAM ARGUMENT...: of the source of that name.
compile() {
  quietly "$log" ${cross}gcc -std=c99 -Wall -Wextra -Werror -Os -static -s -o "$vm/$1.new" \
    "scripts/board_vm/$1.c" "${@:2}"
  renew "$vm/$1"
}
compile init
compile host -Iinclude "$vm"/board/libkep.a "$vm"/board/libkep_platform_posix.a

# The kernel makes the root of a list, so that nobody needs to be root to put a device into it.
cat >"$vm/root.list.new" <<LIST
dir /dev 0755 0 0
nod /dev/console 0600 0 0 c 5 1
dir /bin 0755 0 0
dir /proc 0755 0 0
dir /sys 0755 0 0
dir /tmp 0755 0 0
file /init $vm/init 0755 0 0
file /bin/host $vm/host 0755 0 0
file /bin/kep-board $vm/board/examples/kep-board 0755 0 0
file /bin/kep-worker $vm/board/examples/kep-worker 0755 0 0
LIST
renew "$vm/root.list"

# The first time takes minutes; afterwards only the root in it is made anew.
say "the kernel"
source=$vm/linux-source-6.1
config=$PWD/scripts/board_vm/kernel.config
build=(make -s -C "$source" O="$vm/kernel" ARCH=powerpc CROSS_COMPILE="$cross")
[ -e "$vm/kernel/.config" ] || quietly "$log" tar -xf "/usr/src/${source##*/}.tar.xz" -C "$vm"
quietly "$log" "${build[@]}" KCONFIG_ALLCONFIG="$config" allnoconfig
while IFS= read -r line; do
  [[ $line != CONFIG_* ]] || grep -qxF "$line" "$vm/kernel/.config" || { echo "not taken: $line" >&2; exit 1; }
done <"$config"
quietly "$log" "${build[@]}" -j"$(nproc)" vmlinux
ls -l "$vm/kernel/vmlinux"

inside=()
if [ $# -gt 0 ]; then
  apart=(unshare --net)
  [ "$(id -u)" -eq 0 ] || apart=(unshare --map-root-user --net)
  # shellcheck disable=SC2016 # expanded in the namespace
  inside=("${apart[@]}" bash -c 'ip link set lo up && exec "$@"' _)
fi
exec "${inside[@]}" python3 -B scripts/board_vm "$@"
