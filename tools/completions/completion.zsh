#compdef kep-collect kep-config kep-faultlog kep-fleet kep-names
# Completes the arguments of kep's commands, from what --help of the command says. Installed under each one's name.

# _kep_specs LINE...: sets specs, for _arguments, and subcommands, for _describe, from the lines of a help.
_kep_specs() {
  local line value section
  specs=() subcommands=()
  for line; do
    case $line in
      [A-Z]*:) section=${line%:} ;;
      '  '(-?,|)--*)
        [[ $line =~ '^  (-[a-z],)?(--[a-z-]+)( ([^ ]+)( [A-Z]+)*)?( +(.*))?$' ]] || continue
        value=$match[4]
        specs+=("$match[2][${${match[7]//\[/(}//\]/)}]${value:+:$value:$(_kep_action $value)}")
        ;;
      '  '[A-Z]##' '*)
        [[ $section == Positionals ]] && specs+=("*:${${=line}[1]}:$(_kep_action ${${=line}[1]})")
        ;;
      '  '[a-z]##' '*)
        [[ $section == Subcommands ]] && subcommands+=("${${=line}[1]}:${${=line}[2,-1]}")
        ;;
    esac
  done
}

# _kep_action VALUE: how _arguments completes it.
_kep_action() {
  case $1 in
    *'|'*) print -r -- "(${1//|/ })" ;;
    FILE) print _files ;;
    DIR) print '_files -/' ;;
    HOST) print _hosts ;;
    *) print ' ' ;;
  esac
}

_kep() {
  emulate -L zsh
  setopt extended_glob
  local -a specs subcommands
  local -a match mbegin mend
  _kep_specs "${(@f)$(_call_program options $words[1] --help 2>/dev/null)}"
  if (( CURRENT > 2 && ${subcommands[(I)$words[2]:*]} )); then
    _kep_specs "${(@f)$(_call_program options $words[1] $words[2] --help 2>/dev/null)}"
    shift words
    (( --CURRENT ))
  elif (( CURRENT == 2 && $#subcommands )) && [[ $PREFIX != -* ]]; then
    _describe command subcommands
  fi
  _arguments $specs
}

_kep "$@"
