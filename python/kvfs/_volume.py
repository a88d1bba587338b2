"""Open volumes."""

from __future__ import annotations

import os
import warnings
from ctypes import byref, c_int, c_size_t, c_uint32, create_string_buffer, sizeof
from types import TracebackType
from typing import Iterator, Literal, Optional, Tuple, Type, Union

from . import _library
from ._errors import InvalidError, IsAFolderError, NotAFileError, NotAFolderError, NotFoundError, Result
from ._file import File
from ._items import Item, Kind, VolumeFacts, volume_facts
from ._listing import Listing
from ._names import PathType, split, to_path, to_shown, to_stored, to_text
from ._session import Session

ItemOrPath = Union[PathType, Item]

_FORKS = {"data": _library.DATA_FORK, "resource": _library.RESOURCE_FORK}


def open(
    path: Union[PathType, int], writable: bool = False, *, wait: bool = True, allocation: bool = True
) -> Volume:
    """Opens the volume on a block device or in a disk image. Never open a mounted volume for changing.

    Args:
        path: of the device or image file; or a file descriptor, which has to stay open as long as the volume and is not
            closed with it.
        writable: for changing as well. The lock on the device or image file is then exclusive, otherwise shared.
        wait: for that lock. Otherwise `BusyError` is raised when another program holds it. A signal with a handler of
            Python's, as Ctrl-C has one, ends the waiting with a `KvfsError` whose `result` is `Result.FAILED`; what the
            handler raises may be ignored, as what is raised in a destructor.
        allocation: with the allocation file. Without, nothing that asks or changes it works.

    Raises:
        KvfsError: there is no HFS Plus volume, or a class of it: `DeviceNotFoundError`, `DevicePermissionError` or
            `DeviceError` when the file cannot be opened or read, `BusyError`, `InconsistentError` for a damaged volume.
    """
    device = path if isinstance(path, int) else os.fsencode(path)
    name = str(path) if isinstance(path, int) else to_shown(os.fspath(path))
    if isinstance(device, bytes) and b"\0" in device:
        raise InvalidError(Result.INVALID, "the path has a NUL in it", name)
    flags = 0
    if writable:
        flags |= _library.OPEN_WRITE
    if not wait:
        flags |= _library.OPEN_NO_WAIT
    if not allocation:
        flags |= _library.OPEN_NO_ALLOCATION
    return Volume(Session(_library.open_session(device, flags, name)), name, writable)


class Volume:
    """An open volume, made by `open`.

    As a context manager it is closed at the end of the block, as `close` does, or without writing what was changed when
    the block ends with an exception.

    After a fork only one of the processes may go on using it, and `close` there gives the lock on the file back for
    both. The child does not close what it only drops, or leaves with an exception.
    """

    def __init__(self, session: Session, name: str, writable: bool) -> None:
        """Not to be called: see `open`."""
        self._session = session
        self._name = name
        self._writable = writable

    # ---- The end of it ----

    @property
    def closed(self) -> bool:
        """Whether the volume is closed. What is asked of a closed one raises `ClosedError`."""
        return not self._session.is_open

    def close(self) -> None:
        """Flushes what was changed, down to the device, and closes the volume, also when flushing fails.

        What another thread changes is flushed with the rest or raises `ClosedError`. Files and listings that are still
        open can only be closed then. Closing once more does nothing.
        """
        self._session.close(self.flush if self._writable else None)

    def __enter__(self) -> Volume:
        return self

    def __exit__(
        self,
        exception_type: Optional[Type[BaseException]],
        exception: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        if exception_type is None:
            self.close()
        else:
            self._session.drop()

    def __del__(self) -> None:
        session = getattr(self, "_session", None)
        if session is not None and session.is_open and not session.is_inherited:
            warnings.warn(f"unclosed volume {self._name!r}", ResourceWarning, stacklevel=2, source=self)

    def __repr__(self) -> str:
        return f"<kvfs.Volume {self._name!r}{' closed' if self.closed else ''}>"

    # ---- The volume ----

    @property
    def label(self) -> str:
        """The label, precomposed as most programs show text. It can be set, to a text of any composition."""
        return self._label(_library.LABEL_COMPOSED)

    @label.setter
    def label(self, label: str) -> None:
        encoded = to_text(label)
        with self._session.turn:
            _library.call(_library.session_set_label, self._session.handle, encoded, path=label)

    @property
    def raw_label(self) -> str:
        """The label as it is stored, decomposed."""
        return self._label(_library.LABEL_STORED)

    def _label(self, form: int) -> str:
        buffer = create_string_buffer(_library.LABEL_SIZE)
        length = c_size_t()
        with self._session.turn:
            _library.call(
                _library.session_label, self._session.handle, form, buffer, sizeof(buffer), byref(length)
            )
        return buffer.raw[: length.value].decode()

    @property
    def facts(self) -> VolumeFacts:
        """Facts about the volume, as they are now."""
        record = _library.FactsRecord(struct_size=sizeof(_library.FactsRecord))
        with self._session.turn:
            _library.call(_library.session_facts, self._session.handle, byref(record))
        return volume_facts(record)

    def block_in_use(self, block: int) -> bool:
        """Whether an allocation block is in use, as the allocation file has it."""
        in_use = c_int()
        _check_number(block)
        with self._session.turn:
            _library.call(_library.session_block_in_use, self._session.handle, block, byref(in_use))
        return in_use.value != 0

    def count_free_blocks(self) -> int:
        """Counts the blocks that are free in the allocation file, which on a sound volume is what the facts say."""
        count = c_uint32()
        with self._session.turn:
            _library.call(_library.session_count_free_blocks, self._session.handle, byref(count))
        return count.value

    # ---- Items ----

    def stat(self, path: PathType) -> Item:
        """Looks up a path. Links on the way and at its end are not followed."""
        return self._find(path)

    def item(self, item_id: int) -> Item:
        """Looks up an item by its ID."""
        record = _library.new_item_record()
        _check_number(item_id)
        with self._session.turn:
            _library.call(
                _library.session_find_id, self._session.handle, item_id, byref(record), path=f"item {item_id}"
            )
        return Item(record)

    def exists(self, path: PathType) -> bool:
        """Whether a path leads to an item."""
        try:
            self._find(path)
        except (NotFoundError, NotAFolderError):
            return False
        return True

    def listdir(self, path: ItemOrPath = "/") -> Listing:
        """Lists the items of a folder one by one, in the order of the catalog.

        Items that come or go in the meantime may be listed or not. Directly under the root folder are also the private
        folders, with what links stand for: their names begin with "%u0000" and ".HFS+ Private".
        """
        return Listing(self, self._session, self._find(path).id, _shown(path))

    def walk(self, path: ItemOrPath = "/") -> Iterator[Tuple[str, Item]]:
        """Lists everything below a folder, one by one: paths that begin with the folder's, and items.

        Below a folder that is given as an `Item`, the paths are relative to it and begin with a name: to look one up,
        put the folder's own path and "/" in front. A folder comes before what it holds. No folder is entered twice,
        whatever a damaged catalog says.
        """
        start = self._find(path)
        base = "" if isinstance(path, Item) else _shown(path).rstrip("/") + "/"
        entered = {start.id}
        levels = [(base, self.listdir(start))]
        while levels:
            base, listing = levels[-1]
            item = next(listing, None)
            if item is None:
                levels.pop()
                continue
            below = base + item.name
            yield below, item
            if item.kind == Kind.FOLDER and item.id not in entered:
                entered.add(item.id)
                levels.append((below + "/", self.listdir(item)))

    def open(self, path: ItemOrPath, *, fork: Literal["data", "resource"] = "data") -> File:
        """Opens a fork of a file for reading.

        Of a hard link it is the fork of the file that the link stands for, of a symbolic link its own. A file that its
        system has compressed (32 in `Item.owner_flags`) has an empty data fork.

        Raises:
            NotFoundError: there is no such item, or a hard link leads nowhere.
            IsAFolderError: the item is a folder.
        """
        if fork not in _FORKS:
            raise InvalidError(Result.INVALID, 'a fork is "data" or "resource"', _shown(path))
        item = self._find(path)
        try:
            return File(self, self._session, item.id, _FORKS[fork], _shown(path))
        except NotAFileError as error:
            raise IsAFolderError(error.result, "the item is a folder", error.path, error.log) from None

    def readlink(self, path: ItemOrPath) -> str:
        """The target of a symbolic link. Bytes that are no UTF-8 become lone surrogates, as `os.fsdecode` makes them."""
        item = self._find(path)
        size = _library.TARGET_SIZE
        length = c_size_t()
        with self._session.turn:
            while True:
                target = create_string_buffer(size)
                result = _library.session_read_link(self._session.handle, item.id, target, size, byref(length))
                if result != Result.OVERFLOW:
                    break
                size = length.value + 1  # links of other systems can be longer than those made here
            _library.conclude(result, _shown(path))
        return target.raw[: length.value].decode(errors="surrogateescape")

    # ---- Changes ----

    def rename(self, source: ItemOrPath, destination: PathType) -> None:
        """Gives an item another path: another name, or another folder, or both.

        Raises:
            ExistsError: the name is taken; nothing is replaced.
            InvalidError: for the root folder (see `label`), private folders and what lies in them, and a folder that would
                lie in itself.
        """
        folder_path, name = split(to_path(destination))
        shown = to_shown(os.fspath(destination))
        if not name:
            raise InvalidError(Result.INVALID, "the destination has no name", shown)
        with self._session.turn:
            item = self._find(source)
            folder = self._find(folder_path)
            _library.call(_library.session_rename, self._session.handle, item.id, folder.id, name, path=shown)

    def move(self, source: ItemOrPath, folder: ItemOrPath) -> None:
        """Gives an item another folder; it keeps its name, decomposed or not. Raises as `rename` does."""
        with self._session.turn:
            item = self.item(self._find(source).id)  # an item that was given may have another name by now
            target = self._find(folder)
            name = to_stored(item.name)
            _library.call(
                _library.session_rename, self._session.handle, item.id, target.id, name, path=_shown(source)
            )

    def remove(self, path: ItemOrPath) -> None:
        """Deletes a file with both of its forks, or a symbolic link. Its blocks become free with the flush.

        Raises:
            IsAFolderError: the item is a folder: see `rmdir`.
            LimitError: for hard links, and where the catalog cannot be changed like that.
        """
        with self._session.turn:
            item = self._find(path)
            if item.kind == Kind.FOLDER:
                raise IsAFolderError(Result.NOT_A_FILE, "the item is a folder", _shown(path))
            _library.call(_library.session_delete, self._session.handle, item.id, path=_shown(path))

    def rmdir(self, path: ItemOrPath) -> None:
        """Deletes an empty folder.

        Raises:
            NotEmptyError: the folder holds items.
            NotAFolderError: the item is none: see `remove`.
        """
        with self._session.turn:
            item = self._find(path)
            if item.kind != Kind.FOLDER:
                raise NotAFolderError(Result.NOT_A_FOLDER, _library.text_of(Result.NOT_A_FOLDER), _shown(path))
            _library.call(_library.session_delete, self._session.handle, item.id, path=_shown(path))

    def symlink(self, target: PathType, path: PathType) -> Item:
        """Makes a symbolic link at a path. Returns it.

        Args:
            target: a path for whoever follows the link: 1 to 255 bytes of UTF-8 without a backslash. It is written at once.
            path: of the link.
        """
        encoded = to_path(target)
        folder_path, name = split(to_path(path))
        shown = to_shown(os.fspath(path))
        if not name:
            raise InvalidError(Result.INVALID, "the link has no name", shown)
        new_id = c_uint32()
        with self._session.turn:
            folder = self._find(folder_path)
            _library.call(
                _library.session_make_link, self._session.handle, folder.id, name, encoded, byref(new_id), path=shown
            )
            return self.item(new_id.value)

    def flush(self, *, sync: bool = True) -> None:
        """Writes what was changed, in an order that leaves no damage when power is lost between two steps.

        Args:
            sync: waits until the writes have reached the device, between the steps too; only then is the order certain.

        Raises:
            SpoiledError: an earlier change failed half-way.
            InconsistentError: the changed catalog does not hold together; nothing was written, and the volume is spoiled.
        """
        with self._session.turn:
            _library.call(_library.session_flush, self._session.handle, _library.FLUSH_DEVICE if sync else 0)

    def discard(self) -> None:
        """Forgets the changes since the last flush by opening the volume again."""
        with self._session.turn:
            _library.call(_library.session_discard, self._session.handle)

    # ---- Inside ----

    def _find(self, path: ItemOrPath) -> Item:
        """The item at a path; an item is itself."""
        if isinstance(path, Item):
            return path
        encoded = to_path(path)
        record = _library.new_item_record()
        with self._session.turn:
            _library.call(
                _library.session_find,
                self._session.handle,
                _library.ROOT_ID,
                encoded,
                byref(record),
                path=_shown(path),
            )
        return Item(record)


def _shown(path: ItemOrPath) -> str:
    return path.name if isinstance(path, Item) else to_shown(os.fspath(path))


def _check_number(number: int) -> None:
    if not 0 <= number < 2**32:
        raise InvalidError(Result.INVALID, f"{number} is out of range")
