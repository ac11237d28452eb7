#!/usr/bin/env bash
# completions_test.sh SOURCE PROGRAM...: what bash and zsh complete is what --help of the programs says.
set -euo pipefail
export LC_ALL=C
source=$1
shift
failed=0
check() { [ "$1" = "$2" ] || { printf 'completions_test.sh: %s:\n%s\nnot\n%s\n' "$3" "$1" "$2" >&2; failed=1; }; }
for program; do PATH=$(dirname "$program"):$PATH; done

set +eu # of which neither shell's own completions know
. /usr/share/bash-completion/bash_completion
. "$source/tools/completions/completion.bash"
in_bash() {
  COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMP_LINE=$* COMP_POINT=${#COMP_LINE}
  _kep "$1" "${!#}" "${COMP_WORDS[COMP_CWORD - 1]}"
  printf '%s\n' "${COMPREPLY[@]}" | sort
}
# in_zsh WORD...: what is handed to the shell: names and actions, without the explanations.
in_zsh() {
  zsh -fc '_arguments() { print -rl -- "$@"; }; _describe() { print -rl -- "${(@P)2}"; }
    _call_program() { "${@[2,-1]}"; }
    source=$1; shift; words=("$@"); CURRENT=$# PREFIX=$words[-1]; . $source' - \
    "$source/tools/completions/completion.zsh" "$@" | sed -E 's/\[[^]]*\]//; s/^([a-z]+):.*/\1/' | sort
}
help_of() { "$@" --help | sed -nE 's/^  (-h,)?(--[a-z-]+)( .*|$)/\2/p' | sort; }

for program; do
  name=${program##*/}
  check "$(in_bash "$name" --)" "$(help_of "$name")" "options of $name in bash"
  check "$(in_zsh "$name" -- | grep '^--' | cut -d : -f 1 | sort)" "$(help_of "$name")" "options of $name in zsh"
done

cd "$source/examples/board"
choices=$'csv\njson\ntext'
check "$(in_bash kep-collect host --format '')" "$choices" "choices in bash"
check "$(in_bash kep-collect host --format j)" json "a choice in bash"
check "$(in_bash kep-collect host --format=j)" json "a choice behind = in bash"
check "$(in_bash kep-faultlog --names board.t)" board.toml "a file in bash"
check "$(in_bash kep-faultlog -./b board.t 2>&1)" board.toml "a file behind what is no option in bash"
check "$(in_bash kep-faultlog board.t)" board.toml "a positional file in bash"
check "$(in_bash kep-collect --port '')" "" "a number in bash"
check "$(in_zsh kep-faultlog '' | grep -e '^--format' -e '^--names' -e '^[*]')" \
  $'*:FILE:_files\n--format:text|json|csv:(text json csv)\n--names:FILE:_files' "values in zsh"
case $* in
  *kep-fleet*)
    check "$(in_bash kep-fleet back)" backup "a subcommand in bash"
    check "$(in_bash kep-fleet runs --)" "$(help_of kep-fleet runs)" "options of a subcommand in bash"
    check "$(in_zsh kep-fleet '' | grep '^[a-z]')" $'backup\nexport\nruns' "subcommands in zsh"
    check "$(in_zsh kep-fleet runs '' | grep '^--' | cut -d : -f 1 | sort)" "$(help_of kep-fleet runs)" \
      "options of a subcommand in zsh"
    ;;
esac
exit $failed
