"""Sessions of the library, and who may use them when."""

from __future__ import annotations

import collections
import os
import threading
from ctypes import c_void_p
from typing import Any, Callable, Deque, Optional, Tuple

from . import _library
from ._errors import ClosedError, Result


class Session:
    """A session of the library with the handles of its listings and streams, for any number of threads.

    The library has its functions of one session take turns, but for closing a handle, while which nobody else may use
    it. So each use of a handle is `with session.turn:`, and looks the handle up in there.

    The garbage collector does not choose when it drops a listing or a file or closes one that is wrapped, nor does a
    signal when its handler closes one: it may be in the middle of a turn, and one thread's of this session would wait
    for another's of a second one, which waits for it. So closing waits for no turn: a handle is only put aside. It is
    closed before the next one is opened, with the session, or when nobody has the session any more.

    Turns are had with `with` alone, which a signal cannot leave half done as it can anything written out.
    """

    def __init__(self, handle: c_void_p) -> None:
        self.turn = threading.RLock()  # entered and left in one step each, so that no signal comes in between
        self._handle = handle  # null once it is closed
        self._process_id = os.getpid()
        self._is_dropped = False
        self._put_aside: Deque[Tuple[Any, c_void_p]] = collections.deque()

    @property
    def is_open(self) -> bool:
        """Whether the session is open."""
        return self._handle.value is not None

    @property
    def is_inherited(self) -> bool:
        """Whether it was another process that has opened the session, and has forked."""
        return os.getpid() != self._process_id

    @property
    def handle(self) -> c_void_p:
        """The handle of the session, in a turn."""
        if not self.is_open:
            raise ClosedError(Result.CLOSED, _library.text_of(Result.CLOSED))
        return self._handle

    def put_aside(self, function: Any, handle: c_void_p) -> None:
        """Has a handle closed later on, without waiting for anybody. It may be closed already: then it is null."""
        self._put_aside.append((function, handle))
        if self._is_dropped:  # of a cycle, the session was finalized before what belongs to it
            self.tidy()

    def tidy(self) -> None:
        """Closes the handles that were put aside, unless this thread is in a turn."""
        if self._put_aside and not self._in_turn():
            with self.turn:
                self._close_put_aside()

    def close(self, flush: Optional[Callable[[], None]] = None) -> None:
        """Closes the session. An open one is flushed before, in the same turn; it is closed also when that fails."""
        if self._in_turn():
            raise RuntimeError("a volume cannot be closed in the middle of another call on it")
        with self.turn:
            try:
                if flush is not None and self.is_open:
                    flush()
            finally:
                self._close_put_aside()
                _library.close(_library.session_close, self._handle)

    def drop(self) -> None:
        """Closes the session for whoever has not asked for it.

        An inherited one stays as it is: the lock on the file is one for both processes, and so closing would take it
        away from the other one.
        """
        if not self.is_inherited:
            self.close()

    def __del__(self) -> None:
        if hasattr(self, "_put_aside") and not self.is_inherited:  # it may not have been made whole
            self._is_dropped = True
            self.close()

    def _in_turn(self) -> bool:
        is_owned: bool = self.turn._is_owned()  # type: ignore[attr-defined]
        return is_owned

    def _close_put_aside(self) -> None:
        while self._put_aside:
            _library.close(*self._put_aside[0])
            self._put_aside.popleft()  # only now, as a signal may come before it is closed
