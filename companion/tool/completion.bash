# SPDX-License-Identifier: Apache-2.0
# Completes the words of uafd-companion in bash: offers what the program's own help lists.
_uafd_companion() {
  local word=$2 before=$3 command=${COMP_WORDS[1]} help argument words=''
  COMPREPLY=()
  if ((COMP_CWORD > 1)); then
    help=$("$1" "$command" --help 2>/dev/null)
  else
    help=$("$1" --help | sed '/^Options of/,/^$/{/^Options of every/,$!d}') # the common options alone
  fi
  argument=$(sed -n "1s/^Usage: uafd-companion $command \[*\([^] ]*\).*/\1/p" <<<"$help")
  if [[ $before == --@(directory|sysroot) ]]; then
    mapfile -t COMPREPLY < <(compgen -d -- "$word")
    return
  elif grep -qe "^ .*$before [A-Z]" <<<"$help" && [[ $before == --* ]]; then
    return # a number or a name
  elif [[ $word == -* ]]; then
    words=$(grep -oe '--[a-z-]*' <<<"$help")
  elif ((COMP_CWORD == 1)); then
    words=$(sed -n '/^Commands:/,/^$/s/^  \([a-z]*\).*/\1/p' <<<"$help")
  elif [[ $argument == FILE ]]; then
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
    return
  else
    words=$(sed -n 's/|/ /p' <<<"$argument") # a choice
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -o filenames -F _uafd_companion uafd-companion
