# Completion of pelorusctl for bash. Subcommands and options are taken from its own help, so that
# they are always those of the program that is installed.

_pelorusctl_subcommands() {
  "$1" --help 2> /dev/null | awk '/^[Ss]ubcommands:/ { on = 1; next } /^[^ ]/ { on = 0 }
    on && /^  [a-z]/ { print $1 }'
}

_pelorusctl() {
  local program=$1 word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  local subcommands subcommand="" known i
  subcommands=$(_pelorusctl_subcommands "$program")
  for ((i = 1; i < COMP_CWORD; ++i)); do
    for known in $subcommands; do
      [[ ${COMP_WORDS[i]} == "$known" ]] && subcommand=$known
    done
  done
  COMPREPLY=()
  if [[ $word == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$("$program" ${subcommand:+"$subcommand"} --help 2> /dev/null |
      grep -oE -- '--[a-z][a-z-]*' | sort -u)" -- "$word")
  elif [[ -z $subcommand && $previous != --* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$subcommands" -- "$word")
  else
    compopt -o filenames 2> /dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  fi
}
complete -F _pelorusctl pelorusctl
