"""Numbers of the library that may become more."""

from __future__ import annotations

import enum


class OpenEnum(enum.IntEnum):
    """An enumeration that takes values which are new to it: those of a library newer than this package."""

    @classmethod
    def _missing_(cls, value: object) -> OpenEnum | None:
        if not isinstance(value, int):
            return None
        member = int.__new__(cls, value)
        member._name_ = f"UNKNOWN_{value}"
        member._value_ = value
        return member
