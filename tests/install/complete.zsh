# Prints what an interactive zsh makes of lines when it is asked to complete them.
#
#   zsh -f complete.zsh FOLDER_OF_COMPLETIONS LINE...
zmodload zsh/zpty
zpty shell zsh -f -i

# A pair of quotes divides each mark, so that the echo of these commands is not taken for their output.
zpty -w shell "fpath=(${(q)1} \$fpath); autoload -Uz compinit; compinit -u -D"
zpty -w shell 'show() { print -r "line<"":$BUFFER:"">line"; BUFFER= }; zle -N show; bindkey "^X" show; print rea""dy'
zpty -r shell output '*ready*'
for line in "${@:2}"; do
  zpty -w -n shell "$line"$'\t\x18'
  zpty -r shell output '*line<:*:>line*'
  print -r -- "${${output#*line<:}%:>line*}"
done
