# common.sh: what the scripts share. Sourced, with the repository's root as the working directory.

say() { printf '\n== %s\n' "$*"; }

# need PACKAGE...: installs those of Debian's packages that are missing, and says so. Nothing that is there is removed:
# what would have to be is named.
need() {
  local missing=() package as_root=() in_the_way
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  say "installing ${missing[*]}"
  if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || { echo "needs root or sudo to install them" >&2; exit 1; }
    as_root=(sudo)
  fi
  "${as_root[@]}" apt-get update -qq
  quietly build/apt.log "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y --no-install-recommends --no-remove "${missing[@]}" && return
  in_the_way=$(apt-get install --simulate --no-install-recommends "${missing[@]}" 2>/dev/null |
    awk '$1 == "Remv" { printf " %s", $2 }')
  [ -z "$in_the_way" ] || echo "not installed: these would have to be removed first:$in_the_way" >&2
  return 1
}

# want COMMAND PACKAGE: installs the package where there is no such command, from wherever. What cannot be had is said.
want() {
  command -v "$1" >/dev/null || (need "$2") || echo "there is no $1: the tests that need it are skipped" >&2
}

# quietly LOG COMMAND...: runs a command and shows what it printed only when it fails.
quietly() {
  local log=$1
  shift
  mkdir -p "$(dirname "$log")"
  "$@" >"$log" 2>&1 || { cat "$log" >&2; return 1; }
}

build_packages=(cmake ninja-build g++)
tool_packages=(libcli11-dev nlohmann-json3-dev libtomlplusplus-dev libabsl-dev)
fleet_packages=(pkg-config libasio-dev libcpp-httplib-dev libsqlite3-dev libpq-dev libzstd-dev libspdlog-dev)
board_packages=(g++-powerpc-linux-gnu qemu-user)
target_packages=(g++-i686-linux-gnu g++-s390x-linux-gnu g++-arm-linux-gnueabihf g++-aarch64-linux-gnu qemu-user)
package_packages=(debhelper doxygen dpkg-dev lintian mmdebstrap systemd)
fuzz_packages=(clang libclang-rt-dev)
