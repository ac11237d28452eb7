#!/usr/bin/env bash
# soak.sh [SECONDS]: eight threads use the library of a host that serves, is stopped and begins again, for so long (60
# by default), under ThreadSanitizer. Fails at its first report; at a line that is torn, out of order, there twice or
# not at all; at a call that waits with the lock held; when memory or descriptors grow; and when nothing moves.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."
. scripts/common.sh

seconds=${1:-60}
[[ $# -le 1 && "$seconds" =~ ^[1-9][0-9]{0,6}$ ]] || { echo "usage: scripts/soak.sh [SECONDS]" >&2; exit 2; }

need "${build_packages[@]}" libgtest-dev

say "building the soak"
quietly build/soak.log cmake --preset threads
quietly build/soak.log cmake --build --preset threads --target soak

say "soaking for $seconds s"
KEP_TEST_LOCK=1 TSAN_OPTIONS=halt_on_error=1 build/threads/tests/soak/soak "$seconds"
