"""Looks up a path and says what is there.

usage: look_up.py VOLUME PATH
"""

import stat
import sys

import kvfs


def look_up(path: str, item_path: str) -> None:
    with kvfs.open(path) as volume:
        item = volume.stat(item_path)
        print(f"{item.kind.name.lower()} {item.id} in folder {item.parent_id}")
        print(f"mode      {stat.filemode(item.mode)}")
        print(f"modified  {item.modification_date}")
        if item.kind == kvfs.Kind.FOLDER:
            print(f"items     {item.valence}")
        elif item.kind == kvfs.Kind.SYMBOLIC_LINK:
            print(f"target    {volume.readlink(item)}")
        else:
            print(f"bytes     {item.size}, {item.resource_size} in the resource fork")


if len(sys.argv) != 3:
    sys.exit("usage: look_up.py VOLUME PATH")
try:
    look_up(sys.argv[1], sys.argv[2])
except FileNotFoundError as error:  # the volume itself, or the path on it
    sys.exit(f"there is no {error.filename}")
except kvfs.KvfsError as error:
    sys.exit(f"cannot look up the path: {error}")
