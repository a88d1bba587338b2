"""Names and paths, and how they are given to the library."""

from __future__ import annotations

import os
import re
import struct
from typing import Tuple, Union

from ._errors import InvalidError, Result

PathType = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]

# What cannot stand in a name as it is, "%" where it would read as a spelled unit, and spelled units.
_TO_SPELL = re.compile("[\0/\ud800-\udfff]|%(?=u[0-9A-F]{4})")
_SPELLED = re.compile("%u([0-9A-F]{4})")


def spell(name: str) -> str:
    """Spells a name of any characters so that it can stand in a path.

    NUL, "/" and surrogates become "%u" and four hexadecimal digits, and so does a "%" in front of what would read as
    such a spelling. Everything else stands for itself.

        >>> spell("either/or")
        'either%u002For'
    """
    return _TO_SPELL.sub(lambda found: f"%u{ord(found.group()):04X}", name)


def unspell(name: str) -> str:
    """Undoes `spell`: gives the characters of a spelled name.

        >>> unspell("either%u002For")
        'either/or'
    """
    units = _SPELLED.sub(lambda found: chr(int(found.group(1), 16)), name)
    # Two spelled halves of a pair are one character. Halves without their other one stay as they are.
    return units.encode("utf-16", "surrogatepass").decode("utf-16", "surrogatepass")


def to_text(text: Union[str, bytes]) -> bytes:
    """A text for the library: UTF-8 without a zero byte, which would end it."""
    try:
        encoded = text.encode() if isinstance(text, str) else text
    except UnicodeEncodeError as error:
        raise InvalidError(Result.INVALID, "this is no text (see kvfs.spell)", ascii(text)) from error
    if b"\0" in encoded:
        raise InvalidError(Result.INVALID, "the text has a NUL in it (see kvfs.spell)", ascii(text))
    return encoded


def to_stored(name: str) -> bytes:
    """A name for the library that is to be stored unit by unit as it is: it does not decompose what is spelled."""
    units = unspell(name).encode("utf-16-be", "surrogatepass")
    return b"".join(b"%%u%04X" % unit for (unit,) in struct.iter_unpack(">H", units))


def to_path(path: PathType) -> bytes:
    """A path for the library."""
    return to_text(os.fspath(path))


def to_shown(path: Union[str, bytes]) -> str:
    """A path as messages show it."""
    return path if isinstance(path, str) else os.fsdecode(path)


def split(path: bytes) -> Tuple[bytes, bytes]:
    """The folder's path and the last name of a path; the name is empty for the root folder."""
    folder, _, name = path.rstrip(b"/").rpartition(b"/")
    return folder, name
