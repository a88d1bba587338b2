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

    The garbage collector does not choose when it drops a listing or a file, nor does a signal when its handler closes
    one: from the former a handle is only put aside, and so it is in the middle of a turn. Turns are had with `with`
    alone, which a signal cannot leave half done as it can anything written out.
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
        """Closes a handle of a listing or stream; in the middle of a turn it is put aside."""
        self.put_aside(function, handle)
        self.tidy()

    def put_aside(self, function: Any, handle: c_void_p) -> None:
        """Has a handle closed with the next one that is opened or closed, without waiting for anybody.

        It may be closed already: then it is null.
        """
        self._put_aside.append((function, handle))

    def tidy(self) -> None:
        """Closes the handles that were put aside, unless this thread is in a turn."""
        if self._put_aside and not self._in_turn():
            with self.turn:
                self._close_put_aside()

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
