#compdef pelorusctl
# Completion of pelorusctl for zsh. Subcommands and options are taken from its own help, so that they
# are always those of the program that is installed.

_pelorusctl() {
  local program=${words[1]} word subcommand=
  local -a subcommands options
  subcommands=(${(f)"$($program --help 2> /dev/null | awk '
    /^[Ss]ubcommands:/ { on = 1; next } /^[^ ]/ { on = 0 }
    on && /^  [a-z]/ { name = $1; sub(/^ *[^ ]+ */, ""); print name ":" $0 }')"})
  for word in ${words[2,CURRENT-1]}; do
    (( ${subcommands[(I)${word}:*]} )) && subcommand=$word
  done
  if [[ ${words[CURRENT]} == -* ]]; then
    options=(${(f)"$($program $subcommand --help 2> /dev/null | grep -oE -- '--[a-z][a-z-]*' |
      sort -u)"})
    compadd -a options
  elif [[ -z $subcommand && ${words[CURRENT-1]} != --* ]]; then
    _describe subcommand subcommands
  else
    _files
  fi
}

_pelorusctl "$@"
