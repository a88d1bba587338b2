complete -c kvfslabel -l output-mode -x -a 'composed raw' -d 'How the label is printed'
complete -c kvfslabel -n 'test (count (commandline -opc)) -le 2' -F
