#!/usr/bin/env bash
# scripts_test.sh: the scripts find their folder from anywhere; a demo that fails leaves nothing behind, and one that
# does not says what is seen, in lines that fit; and who needs a package that another one keeps out is told of it.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/../.."
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
check() { [ "$1" = "$2" ] || { echo "scripts_test.sh: $3: $1, not $2" >&2; failed=1; }; }

# Wrong usage is found behind the way to the repository, which a CDPATH with a folder of the same name would mislead.
mkdir "$work/scripts"
for script in scripts/*.sh; do
  [ "$script" != scripts/common.sh ] || continue
  status=0
  CDPATH=$work "$script" --no-such-option >"$work/usage" 2>&1 || status=$?
  check "$status" 2 "exit status of $script for wrong usage, with a CDPATH"
done

# Every package that a script installs is explained, and the packages have the library's version.
packages=$(sed -e :a -e '/\\$/{N;s/\\\n//;ta' -e '}' scripts/*.sh |
  sed -nE 's/"[^"]*"//g; s/[$][{][a-z]+:[+]//g; s/^(.*\|\| )?(need|want [^ ]+) (.*)/\3/p
    s/^ *[a-z_]*packages[+]?=\(//p' |
  tr ' ()}' '\n' | grep -E '^[a-z0-9][a-z0-9.+-]+$' | sort -u)
check "$(for package in $packages; do grep -qF "\`$package\`" docs/dependencies.md || echo "$package"; done)" "" \
  "packages that docs/dependencies.md does not name"
check "$(sed -n '1s/.*(\(.*\)).*/\1/p' debian/changelog)" \
  "$(sed -n 's/^#define KEP_VERSION "\(.*\)"/\1/p' include/kep/kep.h)" "version in debian/changelog"

# A package that another one keeps out is not installed, and that one is named.
mkdir "$work/apt"
cat >"$work/apt/apt-get" <<'STUB'
#!/bin/sh
case "$*" in
  *--simulate*) echo 'Remv one-that-stays [1.0]' ;;
  *--no-remove*) echo 'E: Packages need to be removed but remove is disabled.'; exit 100 ;;
esac
STUB
printf '#!/bin/sh\nexec "$@"\n' >"$work/apt/sudo"
chmod +x "$work"/apt/*
status=0
PATH=$work/apt:$PATH bash -euc '. scripts/common.sh; need no-such-package' >"$work/need" 2>&1 || status=$?
check "$status" 1 "exit status where a package would have to go"
check "$(grep -c '^not installed: .*first: one-that-stays$' "$work/need")" 1 "who names what is in the way"

# A demo fails while its host runs, at its sed, and not even tail works then. In its place a second one is tried.
mkdir "$work/bin"
cat >"$work/bin/sed" <<STUB
#!/bin/sh
scripts/demo.sh >"$work/second" 2>&1
ls build/demo/kep-board.out build/demo/kep.log >"$work/kept"
exit 1
STUB
printf '#!/bin/sh\nexit 1\n' >"$work/bin/tail"
chmod +x "$work"/bin/*
status=0
PATH=$work/bin:$PATH scripts/demo.sh >"$work/first" 2>&1 || status=$?
check "$status" 1 "exit status of a demo that fails"
check "$(cat "$work/second")" "demo.sh: UDP port 9099 is in use by another program" "what a second demo says"
check "$(grep -c . "$work/kept")" 2 "files of the first demo that the second left"
check "$(awk '$2 ~ /:238B$/' /proc/net/udp)" "" "who is left on port 9099"

# A port that is taken while the demo builds is told in one line.
cat >"$work/bin/cmake" <<STUB
#!/bin/sh
python3 -c "import socket, time; s = socket.socket(type=2); s.bind(('', 9099)); time.sleep(60)" 2>/dev/null &
echo \$! >>"$work/holders"
sleep 1
STUB
chmod +x "$work/bin/cmake"
PATH=$work/bin:$PATH scripts/demo.sh >"$work/taken" 2>&1 && check 0 1 "exit status of a demo whose port is taken"
check "$(grep -v '^$' "$work/taken")" "== building
demo.sh: UDP port 9099 is in use by another program" "what a demo says whose port is taken"
while read -r holder; do kill "$holder" 2>/dev/null || true; done <"$work/holders"
until ! grep -q ':238B' /proc/net/udp; do sleep 0.1; done

COLUMNS=60 scripts/demo.sh --board >"$work/told" 2>&1 || check $? 0 "exit status of a demo"
check "$(LC_ALL=C.UTF-8 wc -L <"$work/told")" 60 "the widest line of a demo"
for told in 'A board is' 'type 0 asks' 'type 1 for' 'type 2 has' 'ELF 32-bit MSB' 'uptime .* s$' 'page size .* B$'; do
  grep -q "$told" "$work/told" || check "" "$told" "what a demo does not tell"
done
exit $failed
