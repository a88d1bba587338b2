"""Changes the label of a volume.

usage: set_label.py VOLUME LABEL
"""

import sys

import kvfs

if len(sys.argv) != 3:
    sys.exit("usage: set_label.py VOLUME LABEL")
try:
    with kvfs.open(sys.argv[1], writable=True) as volume:
        volume.label = sys.argv[2]
except kvfs.KvfsError as error:
    sys.exit(f"cannot change the label: {error}")
