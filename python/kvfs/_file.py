"""Forks of files as file objects."""

from __future__ import annotations

import io
import os
from ctypes import byref, c_char, c_size_t, c_uint64, c_void_p
from typing import TYPE_CHECKING, List

from . import _library
from ._errors import InvalidError, Result
from ._session import Session

if TYPE_CHECKING:
    from _typeshed import ReadableBuffer, WriteableBuffer

    from ._volume import Volume

# Bytes that reading everything takes at a time.
_PIECE = 1 << 22

# No fork is larger.
_LAST_POSITION = 2**63 - 1


class File(io.RawIOBase):
    """One fork of a file, open for reading: an unbuffered binary file object.

    For many small reads put an `io.BufferedReader` around it, for text an `io.TextIOWrapper` around that. A file keeps its
    volume alive. After `Volume.close` it can only be closed.
    """

    name: str  #: the path or name that it was opened by
    mode = "rb"

    def __init__(self, volume: Volume, session: Session, item_id: int, fork: int, name: str) -> None:
        """Not to be called: see `Volume.open`."""
        super().__init__()
        self._stream = c_void_p()
        self._position = 0
        self._volume = volume  # kept alive
        self._session = session
        self.name = name
        session.tidy()
        with session.turn:
            _library.call(_library.stream_open, session.handle, item_id, fork, byref(self._stream), path=name)

    def readable(self) -> bool:
        """Always true."""
        return True

    def seekable(self) -> bool:
        """Always true."""
        return True

    def readinto(self, buffer: WriteableBuffer) -> int:
        """Reads into a buffer. Returns the bytes read, fewer than its size only at the end of the fork."""
        count = self.readinto_at(buffer, self._position)
        self._position += count
        return count

    def readinto_at(self, buffer: WriteableBuffer, offset: int) -> int:
        """The same at an offset, whatever the position, which stays as it is: for threads that share the file."""
        self._check_open()
        _check_position(offset)
        with memoryview(buffer).cast("B") as view:
            if len(view) == 0:
                return 0
            return self._read(c_char.from_buffer(view), len(view), offset)

    def _read(self, first_byte: c_char, size: int, offset: int) -> int:
        count = c_size_t()
        with self._session.turn:
            _library.call(
                _library.stream_read, self._stream, offset, byref(first_byte), size, byref(count), path=self.name
            )
        return count.value

    def write(self, data: ReadableBuffer) -> int:
        """Always refused: this library does not change the content of files."""
        raise io.UnsupportedOperation("not writable")

    def read(self, size: int = -1) -> bytes:
        """Reads at most `size` bytes, or everything to the end; fewer only at the end of the fork."""
        return self.readall() if size < 0 else super().read(size) or b""

    def readall(self) -> bytes:
        """Reads everything from the position to the end of the fork."""
        pieces: List[memoryview] = []
        while True:
            piece = bytearray(max(0, min(_PIECE, self.size() - self._position)))
            count = self.readinto(piece)
            if count == 0:
                return b"".join(pieces)
            pieces.append(memoryview(piece)[:count])

    def seek(self, offset: int, whence: int = os.SEEK_SET) -> int:
        """Moves the position, also behind the end of the fork. Returns it."""
        self._check_open()
        if whence == os.SEEK_CUR:
            offset += self._position
        elif whence == os.SEEK_END:
            offset += self.size()
        elif whence != os.SEEK_SET:
            raise InvalidError(Result.INVALID, "whence must be os.SEEK_SET, os.SEEK_CUR or os.SEEK_END", self.name)
        _check_position(offset)
        self._position = offset
        return offset

    def tell(self) -> int:
        """The position."""
        self._check_open()
        return self._position

    def size(self) -> int:
        """The size of the fork in bytes."""
        self._check_open()
        size = c_uint64()
        with self._session.turn:
            _library.call(_library.stream_size, self._stream, byref(size), path=self.name)
        return size.value

    def close(self) -> None:
        """Closes the fork."""
        if not self.closed:
            super().close()
            self._session.put_aside(_library.stream_close, self._stream)

    def __del__(self) -> None:
        session = getattr(self, "_session", None)  # it may not have been made whole
        if session is not None and self._stream:
            session.put_aside(_library.stream_close, self._stream)

    def _check_open(self) -> None:
        if self.closed:
            raise ValueError("I/O operation on closed file")

    def __repr__(self) -> str:
        return f"<kvfs.File {self.name!r}{' closed' if self.closed else ''}>"


def _check_position(position: int) -> None:
    if not 0 <= position <= _LAST_POSITION:
        raise InvalidError(Result.INVALID, f"{position} is no position in a file")
