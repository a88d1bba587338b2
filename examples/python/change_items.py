"""Renames, moves and deletes items, and makes symbolic links.

usage: change_items.py VOLUME rename PATH NEW-PATH
       change_items.py VOLUME move PATH FOLDER
       change_items.py VOLUME delete PATH
       change_items.py VOLUME link TARGET PATH
"""

import sys

import kvfs


def delete(volume: kvfs.Volume, path: str) -> None:
    item = volume.stat(path)
    if item.kind == kvfs.Kind.FOLDER:
        volume.rmdir(item)
    else:
        volume.remove(item)


def change(volume: kvfs.Volume, verb: str, paths: "list[str]") -> None:
    if verb == "rename":
        volume.rename(paths[0], paths[1])
    elif verb == "move":
        volume.move(paths[0], paths[1])
    elif verb == "link":
        volume.symlink(paths[0], paths[1])
    else:
        delete(volume, paths[0])


if [len(sys.argv), *sys.argv[2:3]] not in ([5, "rename"], [5, "move"], [4, "delete"], [5, "link"]):
    sys.exit(__doc__)
try:
    with kvfs.open(sys.argv[1], writable=True) as volume:
        change(volume, sys.argv[2], sys.argv[3:])
except kvfs.KvfsError as error:
    sys.exit(f"cannot change the volume: {error}")
