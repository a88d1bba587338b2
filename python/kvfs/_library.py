"""The shared library: its functions and structures as kvfs.h declares them, its log, and calls."""

from __future__ import annotations

import ctypes
import logging
import os
import threading
from ctypes import POINTER, byref, c_char, c_char_p, c_int, c_int64, c_size_t, c_uint8, c_uint16, c_uint32, c_uint64
from ctypes import c_void_p
from typing import Any, List, Optional

from ._errors import KvfsError, LogLine, Result, class_of

INTERFACE_VERSION = 1

OPEN_WRITE = 1
OPEN_NO_WAIT = 2
OPEN_NO_ALLOCATION = 4
LABEL_COMPOSED = 0
LABEL_STORED = 1
LABEL_SIZE = 766
NO_DATE = -(2**63)
ROOT_ID = 2
NAME_SIZE = 1536
DATA_FORK = 0
RESOURCE_FORK = 1
TARGET_SIZE = 256
FLUSH_DEVICE = 1

_LOG_LEVELS = {"ERROR": logging.ERROR, "WARNING": logging.WARNING, "CRITICAL": logging.CRITICAL}
_logger = logging.getLogger("kvfs")
_logger.addHandler(logging.NullHandler())  # it is for programs to ask for


class FactsRecord(ctypes.Structure):
    """kvfs_volume_facts"""

    _fields_ = [
        ("struct_size", c_uint32),
        ("block_size", c_uint32),
        ("size", c_uint64),
        ("free_size", c_uint64),
        ("block_count", c_uint32),
        ("free_block_count", c_uint32),
        ("file_count", c_uint32),
        ("folder_count", c_uint32),
        ("next_id", c_uint32),
        ("attributes", c_uint32),
        ("identifier", c_uint64),
        ("creation_date", c_int64),
        ("modification_date", c_int64),
        ("backup_date", c_int64),
        ("check_date", c_int64),
        ("write_count", c_uint32),
        ("last_mounted_by", c_uint32),
        ("is_hfsx", c_uint8),
        ("is_case_sensitive", c_uint8),
        ("is_journaled", c_uint8),
        ("is_dirty", c_uint8),
        ("is_locked", c_uint8),
        ("is_writable", c_uint8),
        ("has_allocation_file", c_uint8),
        ("has_unflushed_changes", c_uint8),
    ]


class NamelessItemRecord(ctypes.Structure):
    """kvfs_item up to its name"""

    _fields_ = [
        ("struct_size", c_uint32),
        ("kind", c_uint32),
        ("id", c_uint32),
        ("parent_id", c_uint32),
        ("target_id", c_uint32),
        ("valence", c_uint32),
        ("data_size", c_uint64),
        ("resource_size", c_uint64),
        ("data_allocated", c_uint64),
        ("resource_allocated", c_uint64),
        ("creation_date", c_int64),
        ("modification_date", c_int64),
        ("change_date", c_int64),
        ("access_date", c_int64),
        ("backup_date", c_int64),
        ("owner_id", c_uint32),
        ("group_id", c_uint32),
        ("mode", c_uint32),
        ("special", c_uint32),
        ("finder_type", c_uint32),
        ("finder_creator", c_uint32),
        ("finder_flags", c_uint16),
        ("record_flags", c_uint16),
        ("admin_flags", c_uint8),
        ("owner_flags", c_uint8),
        ("name_length", c_uint16),
        ("reserved", c_uint32),
    ]


class ItemRecord(ctypes.Structure):
    """kvfs_item"""

    _fields_ = [*NamelessItemRecord._fields_, ("name", c_char * NAME_SIZE)]


def new_item_record() -> ItemRecord:
    """An empty record for the library to fill."""
    return ItemRecord(struct_size=ctypes.sizeof(ItemRecord))


def _load() -> ctypes.CDLL:
    name = os.environ.get("KVFS_LIBRARY") or "libkvfs.so.1"
    try:
        # It keeps errno for the opening of a device alone; nothing else tells it.
        return ctypes.CDLL(name, use_errno=True)
    except OSError as error:
        raise ImportError(f"the shared library of kvfs cannot be loaded: {error}") from error


_library = _load()


def _function(name: str, *argument_types: Any, result_type: Any = c_uint64) -> Any:
    function = getattr(_library, name)
    function.argtypes = argument_types
    function.restype = result_type
    return function


_handle = POINTER(c_void_p)
_log_handler = ctypes.CFUNCTYPE(None, c_void_p, c_char_p, c_char_p, c_int, c_char_p)

interface_version = _function("kvfs_interface_version", result_type=c_uint32)
result_text = _function("kvfs_result_text", c_uint64, result_type=c_char_p)
_set_log_handler = _function("kvfs_set_log_handler", _log_handler, c_void_p, result_type=None)
session_open = _function("kvfs_session_open", c_char_p, c_uint32, _handle)
session_open_descriptor = _function("kvfs_session_open_descriptor", c_int, c_uint32, _handle)
session_close = _function("kvfs_session_close", _handle)
session_label = _function("kvfs_session_label", c_void_p, c_uint32, c_char_p, c_size_t, POINTER(c_size_t))
session_set_label = _function("kvfs_session_set_label", c_void_p, c_char_p)
session_facts = _function("kvfs_session_facts", c_void_p, POINTER(FactsRecord))
session_block_in_use = _function("kvfs_session_block_in_use", c_void_p, c_uint32, POINTER(c_int))
session_count_free_blocks = _function("kvfs_session_count_free_blocks", c_void_p, POINTER(c_uint32))
session_find = _function("kvfs_session_find", c_void_p, c_uint32, c_char_p, POINTER(ItemRecord))
session_find_id = _function("kvfs_session_find_id", c_void_p, c_uint32, POINTER(ItemRecord))
listing_open = _function("kvfs_listing_open", c_void_p, c_uint32, _handle)
listing_next = _function("kvfs_listing_next", c_void_p, POINTER(ItemRecord))
listing_close = _function("kvfs_listing_close", _handle)
stream_open = _function("kvfs_stream_open", c_void_p, c_uint32, c_uint32, _handle)
stream_size = _function("kvfs_stream_size", c_void_p, POINTER(c_uint64))
stream_read = _function("kvfs_stream_read", c_void_p, c_uint64, c_void_p, c_size_t, POINTER(c_size_t))
stream_close = _function("kvfs_stream_close", _handle)
session_read_link = _function("kvfs_session_read_link", c_void_p, c_uint32, c_char_p, c_size_t, POINTER(c_size_t))
session_rename = _function("kvfs_session_rename", c_void_p, c_uint32, c_uint32, c_char_p)
session_delete = _function("kvfs_session_delete", c_void_p, c_uint32)
session_make_link = _function(
    "kvfs_session_make_link", c_void_p, c_uint32, c_char_p, c_char_p, POINTER(c_uint32)
)
session_flush = _function("kvfs_session_flush", c_void_p, c_uint32)
session_discard = _function("kvfs_session_discard", c_void_p)

if interface_version() < INTERFACE_VERSION:
    raise ImportError(f"the shared library of kvfs is too old: {_library._name}")


# ---- The log ---------------------------------------------------------------------------------------------------------


class _Log(threading.local):
    """What was reported on a thread since it was asked last: reports come on the thread whose call they are about."""

    def __init__(self) -> None:
        self.lines: List[LogLine] = []


log = _Log()


def _report(_context: object, level: bytes, routine: bytes, line: int, text: bytes) -> None:
    def decode(what: bytes) -> str:
        return what.decode(errors="backslashreplace")

    log.lines.append(LogLine(decode(level), decode(routine), line, decode(text)))


# It stays for good, with a reference that nobody gives back: the library may report even when this module has gone, as
# to another thread, or to whatever is finalized later.
_report_to_library = _log_handler(_report)
ctypes.pythonapi.Py_IncRef(ctypes.py_object(_report_to_library))
_set_log_handler(_report_to_library, None)


# ---- Calls -----------------------------------------------------------------------------------------------------------


def text_of(result: int) -> str:
    """A result in words."""
    words: bytes = result_text(result)
    return words.decode()


def error_of(result: int, path: Optional[str] = None, number: int = 0) -> KvfsError:
    """The exception for a result, with the log of this thread. `number` is the errno for an opening, or 0."""
    lines = tuple(log.lines)
    log.lines.clear()
    return class_of(result, number)(result, text_of(result), path, lines, number)


def conclude(result: int, path: Optional[str] = None, number: int = 0) -> None:
    """Draws the conclusions from a call that has failed or reported something."""
    if result not in (Result.OK, Result.END):
        raise error_of(result, path, number)
    lines = tuple(log.lines)
    log.lines.clear()
    for line in lines:
        _logger.log(_LOG_LEVELS.get(line.level, logging.ERROR), "%s, line %d: %s", line.routine, line.line, line.text)


def call(function: Any, *arguments: Any, path: Optional[str] = None) -> None:
    """Calls a function of the library; raises what its result says."""
    result = function(*arguments)
    if result or log.lines:
        conclude(result, path)


def open_session(device: Any, flags: int, path: str) -> c_void_p:
    """Opens a session on a descriptor or on the encoded path of a device. Returns its handle."""
    session = c_void_p()
    function = session_open_descriptor if isinstance(device, int) else session_open
    ctypes.set_errno(0)
    result = function(device, flags, byref(session))
    if result or log.lines:
        conclude(result, path, ctypes.get_errno() if result == Result.IO_ERROR else 0)
    return session


def close(function: Any, handle: c_void_p) -> None:
    """Closes a handle and makes it null, in one step; of a null handle it does nothing.

    What could fail is its lock; then it stays open, and nothing better can be done.
    """
    function(byref(handle))
    if log.lines:
        conclude(Result.OK)
