"""Prints the label of a volume and some of its numbers.

usage: volume_info.py VOLUME
"""

import sys

import kvfs


def print_info(path: str) -> None:
    with kvfs.open(path) as volume:
        facts = volume.facts
        print(f"label         {volume.label}")
        print(f"size          {facts.size}")
        print(f"free          {facts.free_size}")
        print(f"files         {facts.file_count}")
        print(f"folders       {facts.folder_count}")


if len(sys.argv) != 2:
    sys.exit("usage: volume_info.py VOLUME")
try:
    print_info(sys.argv[1])
except kvfs.KvfsError as error:
    sys.exit(f"cannot tell about the volume: {error}")
