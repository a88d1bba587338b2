"""Opens a volume and says, when that fails, what the library has reported.

usage: report.py VOLUME
"""

import sys

import kvfs

if len(sys.argv) != 2:
    sys.exit("usage: report.py VOLUME")
try:
    with kvfs.open(sys.argv[1], wait=False) as volume:
        print(volume.label)
except kvfs.BusyError:
    sys.exit("another program uses the volume")
except PermissionError:
    sys.exit("this is not yours to read")
except kvfs.KvfsError as error:
    for line in error.log:
        print(f"{line.level} {line.routine} {line.text}", file=sys.stderr)
    sys.exit(f"result {int(error.result)}, {error.text}")
