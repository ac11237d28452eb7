#!/usr/bin/env bash
# size.sh: what the library weighs on the board: its code and static data, the deepest stack of its calls, what a host
# of a part of it links, and the memory that things take. In bytes; fails above the limits below, and when an exported
# function is not among those whose stack is measured. Takes UDP ports 8997 to 8999 and 9099 on loopback.
#
# The preset leaves out unwind tables and two steps that -Os takes although they cost room.
set -euo pipefail
CDPATH='' cd "$(dirname "$0")/.."
. scripts/common.sh

text_limit=48500   # the whole library's code and constants
static_limit=18000 # its static data
stack_limit=4000   # a call, the C library's frames included, but for those that format a text of the caller's:
formatting='ZuString_SFormat ZuString_Format'
record_limit=14.4 # what is kept of 8 bytes, a record of 12

[ $# -eq 0 ] || { echo "usage: scripts/size.sh" >&2; exit 2; }
need "${build_packages[@]}" "${board_packages[@]}" tzdata

say "building for size"
quietly build/size.log cmake --preset size
quietly build/size.log cmake --build --preset size

built=build/size
figures=$built/figures
qemu-ppc $built/bench/size/kep-stack | grep -E '^(stack|memory) [A-Za-z0-9_-]+ [0-9.]+$' >"$figures"

# sizes OBJECT...: text, data and bss of each, and its name.
sizes() { powerpc-linux-gnu-size "$@" | awk 'NR > 1 { print $1, $2, $3, $6 }'; }

# Modules are what the exported names begin with; a source of another name stands for itself, without a stack.
say "the library, module by module"
{
  sizes $built/libkep.a |
    sed -E 's/collect_client\.cpp\.o/CollectClient/; s/collect_[a-z]*\.cpp\.o/Collect/; s/\.cpp\.o//'
  sed -E 's/^stack ([A-Za-z0-9]+)_/stack \1 \1_/' "$figures" | grep ^stack
} | awk '
  $1 == "stack" { if ($4 + 0 > stack[$2] + 0) { stack[$2] = $4; deepest[$2] = $3 } next }
  { text[$4] += $1; data[$4] += $2; bss[$4] += $3; all[1] += $1; all[2] += $2; all[3] += $3 }
  END {
    form = "%-14s %6s %6s %6s %6s  %s\n"
    printf form, "module", "text", "data", "bss", "stack", "of"
    for (module in text) {
      printf form, module, text[module], data[module], bss[module], stack[module], deepest[module] | "sort"
    }
    close("sort")
    printf form, "all", all[1], all[2], all[3], "", ""
  }' | tee $built/modules

say "what a host of one part links of the library"
printf '%-14s %6s %6s %6s\n' host text data bss
for part in $built/bench/size/host_*.part.o; do
  name=${part##*/host_}
  name=${name%.part.o}
  { sizes "$part"; sizes $built/bench/size/CMakeFiles/kep-host-$name.dir/host_$name.c.o; } |
    awk -v name="$name" 'NR == 1 { t = $1; d = $2; b = $3 }
      NR == 2 { printf "%-14s %6d %6d %6d\n", name, t - $1, d - $2, b - $3 }'
done

say "memory for each, as tracked"
awk '$1 == "memory" { gsub("-", " ", $2); printf "%-22s %7s\n", $2, $3 }' "$figures"

failures=$(
  awk -v text=$text_limit -v static=$static_limit '$1 == "all" {
    if ($2 > text) print "text: " $2 " of " text
    if ($3 + $4 > static) print "static data: " $3 + $4 " of " static
  }' $built/modules
  awk -v limit=$stack_limit -v formatting=" $formatting " \
    '$1 == "stack" && $3 > limit && !index(formatting, " " $2 " ") { print "stack of " $2 ": " $3 " of " limit }' \
    "$figures"
  awk -v limit=$record_limit \
    '$2 == "record-of-8-bytes" { seen = 1; if ($3 > limit) print "memory for a record of 8 bytes: " $3 " of " limit }
    END { if (!seen) print "memory for a record of 8 bytes: not measured" }' "$figures"
  grep -v '^#' tests/package/exports.txt | tr ' ' '\n' | grep -v '^g_' | sort |
    comm -23 - <(awk '$1 == "stack" { print $2 }' "$figures" | sort) | sed 's/$/: its stack is not measured/'
)
if [ -n "$failures" ]; then
  echo
  echo "$failures" | sed 's/^/size.sh: /' >&2
  exit 1
fi
