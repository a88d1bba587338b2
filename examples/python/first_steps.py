"""Prints a volume's label and a file, and changes the label: first_steps.py VOLUME LABEL PATH"""

import sys
import kvfs

with kvfs.open(sys.argv[1], writable=True) as volume:
    print(volume.label, volume.open(sys.argv[3]).read().decode(), sep="\n")
    volume.label = sys.argv[2]
