# fish completion for kvfslabel: the option, then a device or image; a label is free text.
function __kvfslabel_wants_device
    set -l words (commandline -opc)
    test (count $words) -eq 1; and return
    test (count $words) -eq 2; and string match -q -- '--output-mode=*' $words[2]
end
complete -c kvfslabel -f
complete -c kvfslabel -n __fish_is_first_arg -l output-mode -x -a 'composed raw' -d 'How the label is printed'
complete -c kvfslabel -n __kvfslabel_wants_device -F
