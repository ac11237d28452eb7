# Completes the arguments of kep's commands, from what --help of the command says. Installed under each one's name.

_kep() {
  local cur prev words cword split # the last for the helper: --option=VALUE counts as two words
  _init_completion -s || return
  local help subcommands value
  help=$("$1" --help 2>/dev/null)
  subcommands=$(sed -n '/^Subcommands:/,/^$/s/^  \([a-z]\+\) .*/\1/p' <<<"$help")
  if [[ $cword -gt 1 && " ${subcommands//$'\n'/ } " == *" ${words[1]} "* ]]; then
    help=$("$1" "${words[1]}" --help 2>/dev/null)
    subcommands=
  fi

  # What follows an option's name behind one blank is its value: FILE, DIR, choices, or what only the user knows. What
  # follows behind more tells of an option without a value.
  [[ ! $prev =~ ^--?[a-z-]+$ ]] || value=$(sed -nE "s/^  (-[a-z],)?$prev ([^ ]+).*/\2/p" <<<"$help")
  # Behind no option: what stands first of the positional arguments.
  if [[ -z $value && $cur != -* ]]; then
    COMPREPLY=($(compgen -W "$subcommands" -- "$cur"))
    value=$(sed -nE '/^Positionals:/,/^$/s/^  ([A-Z]+) .*/\1/p' <<<"$help" | head -n 1)
  fi

  case $value in
    *'|'*) COMPREPLY=($(compgen -W "${value//|/ }" -- "$cur")) ;;
    FILE) _filedir ;;
    DIR) _filedir -d ;;
    HOST) _known_hosts_real -- "$cur" ;;
    '')
      [[ $cur != -* ]] ||
        COMPREPLY=($(compgen -W "$(sed -nE 's/^  (-[a-z],)?(--[a-z-]+).*/\2/p' <<<"$help")" -- "$cur"))
      ;;
  esac
} && complete -F _kep kep-collect kep-config kep-faultlog kep-fleet kep-names
