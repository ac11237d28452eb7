#!/usr/bin/env bash
# share.sh: how much of the code is tests: the lines of tests/ and fuzz/, and of all code, that are neither blank nor
# comment.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."

[ $# -eq 0 ] || { echo "usage: scripts/share.sh" >&2; exit 2; }

git ls-files -z '*.c' '*.h' '*.cpp' '*.hpp' '*.py' '*.sh' '*.lua' '*.js' ':!:*/vendor/*' | xargs -0 awk '
  FNR == 1 { inComment = 0; comment = FILENAME ~ /\.(py|sh)$/ ? "#" : FILENAME ~ /\.lua$/ ? "--" : "//" }
  { sub(/^[ \t]+/, "") }
  comment == "//" && /^\/\*/ { inComment = 1 }
  inComment { if (/\*\//) inComment = 0; next }
  $0 == "" || index($0, comment) == 1 { next }
  { ++all; if (FILENAME ~ /^(tests|fuzz)\//) ++tests }
  END { printf "tests: %d of %d lines of code, %.1f %%\n", tests, all, 100 * tests / all }'
