# bash completion for kvfslabel: the option, then a device or image; a label is free text.
_kvfslabel() {
  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
  COMPREPLY=()
  # bash takes the sign of an option's value for a word of its own.
  if [[ $current == = || $previous == = ]]; then
    mapfile -t COMPREPLY < <(compgen -W 'raw composed' -- "${current#=}")
  elif ((COMP_CWORD == 1)) && [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W '--output-mode=raw --output-mode=composed' -- "$current")
  elif ((COMP_CWORD == 1)) || [[ ${COMP_WORDS[1]} == --output-mode && $COMP_CWORD -le 4 ]]; then
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  fi
}
complete -o filenames -F _kvfslabel kvfslabel
