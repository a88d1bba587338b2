"""Lists the items of a folder: kind, ID, bytes and name; with -r everything below it.

usage: list_folder.py [-r] VOLUME PATH
"""

import sys

import kvfs


def print_item(item: kvfs.Item, name: str) -> None:
    print(f"{item.kind.name.lower():<13} {item.id:6} {item.size:8}  {name}")


def list_folder(path: str, folder: str) -> None:
    with kvfs.open(path) as volume:
        for item in volume.listdir(folder):
            print_item(item, item.name)


def list_everything(path: str, folder: str) -> None:
    with kvfs.open(path) as volume:
        for item_path, item in volume.walk(folder):
            print_item(item, item_path)


arguments = [argument for argument in sys.argv[1:] if argument != "-r"]
if len(arguments) != 2:
    sys.exit("usage: list_folder.py [-r] VOLUME PATH")
try:
    (list_everything if "-r" in sys.argv else list_folder)(*arguments)
except kvfs.KvfsError as error:
    sys.exit(f"cannot list the folder: {error}")
