"""Shows what flushing does: makes two symbolic links, of which only the first is kept.

usage: flush.py VOLUME FIRST SECOND
"""

import sys

import kvfs


def make_links(path: str, first: str, second: str) -> None:
    with kvfs.open(path, writable=True) as volume:
        volume.symlink("target", first)
        volume.flush()
        volume.symlink("target", second)
        print(volume.exists(first), volume.exists(second))
        volume.discard()
        print(volume.exists(first), volume.exists(second))


if len(sys.argv) != 4:
    sys.exit("usage: flush.py VOLUME FIRST SECOND")
try:
    make_links(*sys.argv[1:])
except kvfs.KvfsError as error:
    sys.exit(f"cannot make the links: {error}")
