#!/usr/bin/env bash
# soak.sh [SECONDS]: a host serves collection runs back to back for so long (60 by default), one in ten broken by its
# server. Fails at a wrong byte, and when the host's memory or descriptors grow. Takes UDP port 9099 on loopback.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."
. scripts/common.sh

seconds=${1:-60}
[[ $# -le 1 && "$seconds" =~ ^[1-9][0-9]{0,6}$ ]] || { echo "usage: scripts/soak.sh [SECONDS]" >&2; exit 2; }

need "${build_packages[@]}" "${tool_packages[@]}" libgtest-dev

say "building the soak"
quietly build/soak.log cmake --preset release
quietly build/soak.log cmake --build --preset release --target soak

say "soaking for $seconds s"
build/release/tests/soak/soak "$seconds"
