#!/usr/bin/env bash
# browser_test.sh FOLDER KEP-FLEET KEP-BOARDS NAMES: the page in chromium, driven by playwright-core, which npm fetches
# into FOLDER. Skipped, and says so, where one of them cannot be had.
set -euo pipefail
here=$(dirname "$0") folder=$1
shift
skip() { echo "SKIPPED: $*" >&2; exit 77; }
command -v node >/dev/null || skip "there is no node"
command -v chromium >/dev/null || skip "there is no chromium"
mkdir -p "$folder"
if ! [ -d "$folder/node_modules/playwright-core" ]; then
  cp "$here"/package*.json "$folder"
  (cd "$folder" && npm ci --silent --no-audit --no-fund --ignore-scripts) || skip "npm cannot fetch playwright-core"
fi
NODE_PATH=$folder/node_modules exec node "$here/browser_test.js" "$@"
