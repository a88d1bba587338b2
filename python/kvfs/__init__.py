"""HFS Plus volumes that are not mounted: their label, files and folders, read and changed.

    import kvfs

    with kvfs.open("disk.img", writable=True) as volume:
        volume.label = "Backup"
        for item in volume.listdir("/"):
            print(item.name, item.size)
        data = volume.open("/Documents/a.txt").read()

Changes are made in memory. They are written when the `with` block ends, by `Volume.flush` and by `Volume.close`; a
block that ends with an exception gives them up, and so does `Volume.discard`.

Paths: a path is a `str`, UTF-8 `bytes` or an `os.PathLike` of these. "/" separates names, empty names are passed over,
and every path begins at the root folder. "." and ".." are names like any other. Links are not followed. A name that
holds what a path cannot ("/", NUL, half a surrogate pair) is spelled with "%uXXXX": see `spell` and `unspell`. Names
that are returned are `str`, spelled in this way and decomposed as they are stored, so that they can be put into a path
as they are. Wherever an item that exists is meant, an `Item` does as well as its path.

Failures raise `KvfsError`, most of them a class that is also the exception of Python's own for such a failure, such as
`FileNotFoundError`. It carries the result of the library and the lines of its log. What the library reports without
failing goes to the logger "kvfs" of the module `logging`. The log is one for the whole process: once this module is
imported, nothing of it goes to standard error by itself.

Threads: volumes, files and listings may be used by any number of threads. Those of one volume take turns.

The shared library is libkvfs.so.1, or what the environment variable KVFS_LIBRARY names when this is imported.
"""

from ._errors import (
    BusyError,
    ClosedError,
    DeviceError,
    DeviceNotFoundError,
    DevicePermissionError,
    ExistsError,
    InconsistentError,
    InvalidError,
    IsAFolderError,
    KvfsError,
    LimitError,
    LogLine,
    NoMemoryError,
    NoSpaceError,
    NotAFileError,
    NotAFolderError,
    NotEmptyError,
    NotFoundError,
    ReadOnlyError,
    Result,
    SpoiledError,
)
from ._file import File
from ._items import Item, Kind, VolumeFacts
from ._listing import Listing
from ._names import spell, unspell
from ._volume import Volume, open

__version__ = "1.0.0"

__all__ = [
    "BusyError",
    "ClosedError",
    "DeviceError",
    "DeviceNotFoundError",
    "DevicePermissionError",
    "ExistsError",
    "File",
    "InconsistentError",
    "InvalidError",
    "IsAFolderError",
    "Item",
    "Kind",
    "KvfsError",
    "LimitError",
    "Listing",
    "LogLine",
    "NoMemoryError",
    "NoSpaceError",
    "NotAFileError",
    "NotAFolderError",
    "NotEmptyError",
    "NotFoundError",
    "ReadOnlyError",
    "Result",
    "SpoiledError",
    "Volume",
    "VolumeFacts",
    "open",
    "spell",
    "unspell",
]
