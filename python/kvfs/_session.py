"""Sessions of the library, and who may use them when."""

from __future__ import annotations

import collections
import threading
from ctypes import c_void_p
from typing import Any, Deque, Tuple

from . import _library
from ._errors import ClosedError, Result


class Session:
    """A session of the library with the handles of its listings and streams, for any number of threads.

    The library has its functions of one session take turns, but for closing a handle, while which nobody else may use
    it. So each use of a handle is `with session.turn:`, and looks the handle up in there.

    A handle may be closed at any point of any thread, because the garbage collector and signals do not choose: in the
    middle of a turn it is only put aside.
    """

    def __init__(self, handle: c_void_p) -> None:
        self.turn = threading.RLock()  # entered and left in one step each, so that no signal comes in between
        self._handle = handle  # null once it is closed
        self._put_aside: Deque[Tuple[Any, c_void_p]] = collections.deque()

    @property
    def is_open(self) -> bool:
        """Whether the session is open."""
        return self._handle.value is not None

    @property
    def handle(self) -> c_void_p:
        """The handle of the session, in a turn."""
        if not self.is_open:
            raise ClosedError(Result.CLOSED, _library.text_of(Result.CLOSED))
        return self._handle

    def close_handle(self, function: Any, handle: c_void_p) -> None:
        """Closes a handle of a listing or stream, now or with the next one that is opened or closed.

        It may be closed already: then it is null.
        """
        self._put_aside.append((function, handle))
        self.tidy()

    def tidy(self) -> None:
        """Closes the handles that were put aside, unless somebody has the turn."""
        if not self._put_aside or self._in_turn():
            return
        try:
            if self.turn.acquire(blocking=False):
                self._close_put_aside()
        finally:
            if self._in_turn():  # a signal may have come right after the turn was had
                self.turn.release()

    def close(self) -> None:
        """Closes the session."""
        if self._in_turn():
            raise RuntimeError("a volume cannot be closed in the middle of another call on it")
        with self.turn:
            self._close_put_aside()
            _library.close(_library.session_close, self._handle)

    def _in_turn(self) -> bool:
        is_owned: bool = self.turn._is_owned()  # type: ignore[attr-defined]
        return is_owned

    def _close_put_aside(self) -> None:
        while self._put_aside:
            _library.close(*self._put_aside.popleft())
