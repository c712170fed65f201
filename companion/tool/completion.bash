# Completion of uafd-companion's words, for bash.
_uafd_companion() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  local words=''
  COMPREPLY=()
  if ((COMP_CWORD == 1)); then
    words='record play loop events volume mute meter latency check --help'
  elif [[ $before == --directory ]]; then
    mapfile -t COMPREPLY < <(compgen -d -- "$word")
    return
  elif [[ $before == --* && $before != --help ]]; then
    return # a number
  elif [[ $word == -* ]]; then
    words='--seconds --tone --level --count --volume --wait --directory --help'
  elif [[ $before == record || $before == play ]]; then
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
    return
  elif [[ $before == mute ]]; then
    words='on off'
  fi
  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
}
complete -o filenames -F _uafd_companion uafd-companion
