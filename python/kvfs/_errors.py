"""What failures look like."""

from __future__ import annotations

import errno
from typing import Any, ClassVar, Dict, NamedTuple, Optional, Tuple, Type

from ._enums import OpenEnum


class Result(OpenEnum):
    """What the library's functions return; all but OK and END are failures."""

    OK = 0
    FAILED = 1
    NO_MEMORY = 2
    INVALID = 3
    IO_ERROR = 4
    UNSUPPORTED_EXTENTS = 5
    INCONSISTENT = 6
    INTERNAL = 7
    OVERFLOW = 8
    EXISTS = 9
    LIMIT = 10
    NOT_FOUND = 32
    NOT_A_FOLDER = 33
    NOT_A_FILE = 34
    NOT_EMPTY = 35
    READ_ONLY = 36
    BUSY = 37
    NO_SPACE = 38
    CLOSED = 39
    SPOILED = 40
    END = 41


class LogLine(NamedTuple):
    """One message of the library's log."""

    level: str  #: "ERROR", "WARNING" or "CRITICAL"
    routine: str  #: the routine of the library that reports
    line: int  #: in the source of that routine
    text: str  #: the message


class KvfsError(Exception):
    """A call of the library has failed.

    Raised as such when there is no HFS Plus volume or a lock fails (`Result.FAILED`), and for results that have no class
    of their own.
    """

    #: What `errno` says in those that are an OSError too.
    default_errno: ClassVar[int] = errno.EIO

    result: Result  #: what the library has returned
    text: str  #: the result in words
    path: Optional[str]  #: what the call was about, as far as it was about one item
    log: Tuple[LogLine, ...]  #: what the library has reported during the call, in its order

    def __init__(
        self,
        result: int,
        text: str,
        path: Optional[str] = None,
        log: Tuple[LogLine, ...] = (),
        number: int = 0,
    ) -> None:
        if isinstance(self, OSError):
            OSError.__init__(self, number or self.default_errno, text, path)
        else:
            super().__init__(text)
        self.result = Result(result)
        self.text = text
        self.path = path
        self.log = log
        self._number = number

    def __str__(self) -> str:
        about = f": {self.path!r}" if self.path is not None else ""
        cause = f" ({self.log[0].text})" if self.log else ""  # failures are reported first where they are found
        return f"{self.text}{about}{cause}"

    def __reduce__(self) -> Tuple[Any, ...]:
        return type(self), (int(self.result), self.text, self.path, self.log, self._number)


class NotFoundError(KvfsError, FileNotFoundError):
    """There is no such item."""

    default_errno = errno.ENOENT


class NotAFolderError(KvfsError, NotADirectoryError):
    """The item is no folder."""

    default_errno = errno.ENOTDIR


class NotAFileError(KvfsError, OSError):
    """The item has no forks, or is no symbolic link."""

    default_errno = errno.EINVAL


class IsAFolderError(NotAFileError, IsADirectoryError):
    """The item is a folder where a file is needed."""

    default_errno = errno.EISDIR


class ExistsError(KvfsError, FileExistsError):
    """The name is taken."""

    default_errno = errno.EEXIST


class NotEmptyError(KvfsError, OSError):
    """The folder holds items."""

    default_errno = errno.ENOTEMPTY


class ReadOnlyError(KvfsError, OSError):
    """The volume was not opened for changing."""

    default_errno = errno.EROFS


class BusyError(KvfsError, BlockingIOError):
    """Another program holds the lock on the device or image file."""

    default_errno = errno.EAGAIN


class NoSpaceError(KvfsError, OSError):
    """The volume has no free block that could be used."""

    default_errno = errno.ENOSPC


class DeviceError(KvfsError, OSError):
    """The device failed, moved too few bytes or could not be opened."""


class DeviceNotFoundError(DeviceError, FileNotFoundError):
    """There is no such device or image file."""

    default_errno = errno.ENOENT


class DevicePermissionError(DeviceError, PermissionError):
    """The device or image file is not for this user to open in this way."""

    default_errno = errno.EACCES


class NoMemoryError(KvfsError, MemoryError):
    """An allocation failed."""


class InvalidError(KvfsError, ValueError):
    """An argument or a text is not acceptable."""


class ClosedError(KvfsError, ValueError):
    """The volume is closed, or could not be opened again by a discard."""


class InconsistentError(KvfsError):
    """The volume contradicts itself."""


class LimitError(KvfsError):
    """This is beyond what the library can do."""


class SpoiledError(KvfsError):
    """An earlier change failed half-way: `Volume.discard` is all that helps."""


_CLASSES: Dict[int, Type[KvfsError]] = {
    Result.NO_MEMORY: NoMemoryError,
    Result.INVALID: InvalidError,
    Result.IO_ERROR: DeviceError,
    Result.INCONSISTENT: InconsistentError,
    Result.EXISTS: ExistsError,
    Result.LIMIT: LimitError,
    Result.NOT_FOUND: NotFoundError,
    Result.NOT_A_FOLDER: NotAFolderError,
    Result.NOT_A_FILE: NotAFileError,
    Result.NOT_EMPTY: NotEmptyError,
    Result.READ_ONLY: ReadOnlyError,
    Result.BUSY: BusyError,
    Result.NO_SPACE: NoSpaceError,
    Result.CLOSED: ClosedError,
    Result.SPOILED: SpoiledError,
}

_DEVICE_CLASSES: Dict[int, Type[KvfsError]] = {
    errno.ENOENT: DeviceNotFoundError,
    errno.EACCES: DevicePermissionError,
    errno.EPERM: DevicePermissionError,
}


def class_of(result: int, number: int = 0) -> Type[KvfsError]:
    """The exception for a result; `number` is the system's errno for an opening that failed, or 0."""
    if result == Result.IO_ERROR and number in _DEVICE_CLASSES:
        return _DEVICE_CLASSES[number]
    return _CLASSES.get(result, KvfsError)
