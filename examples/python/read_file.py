"""Writes the content of a file, or its resource fork, to standard output.

usage: read_file.py VOLUME PATH [resource]
"""

import shutil
import sys

import kvfs


def read_file(path: str, file_path: str, is_resource: bool) -> None:
    with kvfs.open(path, allocation=False) as volume:
        with volume.open(file_path, fork="resource" if is_resource else "data") as file:
            shutil.copyfileobj(file, sys.stdout.buffer, 1 << 20)


if len(sys.argv) not in (3, 4):
    sys.exit("usage: read_file.py VOLUME PATH [resource]")
try:
    read_file(sys.argv[1], sys.argv[2], len(sys.argv) == 4)
except kvfs.KvfsError as error:
    sys.exit(f"cannot read the file: {error}")
