# bash completion for kvfslabel: the option, then a device or image; a label is free text.
_kvfslabel() {
  local current=${COMP_WORDS[COMP_CWORD]} device=1
  if [[ ${COMP_WORDS[1]} == --output-mode && ${COMP_WORDS[2]} == = ]]; then
    device=4  # bash takes the sign of an option's value for a word of its own
  elif ((COMP_CWORD > 1)) && [[ ${COMP_WORDS[1]} == --output-mode=* ]]; then
    device=2  # unless it is told not to
  fi
  COMPREPLY=()
  if ((COMP_CWORD < device)); then
    mapfile -t COMPREPLY < <(compgen -W 'raw composed' -- "${current#=}")
  elif ((COMP_CWORD == 1)) && [[ $current == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W '--output-mode=raw --output-mode=composed' -- "$current")
  elif ((COMP_CWORD == device)); then
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
  fi
}
complete -o filenames -F _kvfslabel kvfslabel
