"""Listings of folders."""

from __future__ import annotations

from ctypes import byref, c_void_p
from types import TracebackType
from typing import TYPE_CHECKING, Iterator, Optional, Type

from . import _library
from ._items import Item
from ._session import Session

if TYPE_CHECKING:
    from ._volume import Volume


class Listing(Iterator[Item]):
    """The items of a folder one by one, made by `Volume.listdir`.

    It closes itself at its end, with its last reference, and at the end of a `with` block. It keeps its volume alive.
    """

    __slots__ = ("_handle", "_is_open", "_record", "_record_reference", "_session", "_shown", "_turn", "_volume")

    def __init__(self, volume: Volume, session: Session, folder_id: int, shown: str) -> None:
        """Not to be called: see `Volume.listdir`."""
        self._handle = c_void_p()
        self._volume = volume
        self._session = session
        self._is_open = True
        self._turn = session.turn
        self._shown = shown
        self._record = _library.new_item_record()
        self._record_reference = byref(self._record)
        session.tidy()
        with session.turn:
            _library.call(_library.listing_open, session.handle, folder_id, byref(self._handle), path=shown)

    def __next__(self) -> Item:
        with self._turn:
            if not self._is_open:
                raise StopIteration
            result = _library.listing_next(self._handle, self._record_reference)
            if result or _library.log.lines:
                _library.conclude(result, self._shown)
            if not result:
                return Item(self._record)
        self.close()
        raise StopIteration

    def close(self) -> None:
        """Ends the listing."""
        if self._is_open:
            self._is_open = False
            self._session.put_aside(_library.listing_close, self._handle)

    def __enter__(self) -> Listing:
        return self

    def __exit__(
        self,
        exception_type: Optional[Type[BaseException]],
        exception: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        self.close()

    def __del__(self) -> None:
        session = getattr(self, "_session", None)  # it may not have been made whole
        if session is not None and self._handle:
            session.put_aside(_library.listing_close, self._handle)
