"""What is known about items and volumes."""

from __future__ import annotations

import dataclasses
import datetime
from typing import Optional

from . import _library
from ._enums import OpenEnum

_UTC_EPOCH = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc)


def _date(seconds: int) -> Optional[datetime.datetime]:
    return None if seconds == _library.NO_DATE else _UTC_EPOCH + datetime.timedelta(seconds=seconds)


def _local_date(seconds: int) -> Optional[datetime.datetime]:
    date = _date(seconds)
    return None if date is None else date.replace(tzinfo=None)


def _four_characters(number: int) -> bytes:
    return number.to_bytes(4, "big")


class Kind(OpenEnum):
    """Kinds of items."""

    FILE = 1  #: also devices and the like: see `Item.mode`
    FOLDER = 2  #: holds items
    SYMBOLIC_LINK = 3  #: holds the path of another item
    HARD_LINK = 4  #: stands for a file that lies in a private folder
    FOLDER_LINK = 5  #: stands for a folder that lies in a private folder


class Item:
    """A file, a folder or a link, as it was when it was looked up or listed. Facts of a link are those of the link itself.

    Sizes are in bytes. Dates are in UTC, and None where the volume has none.
    """

    # The record of the library is kept and read when it is asked, because a folder may have very many items.
    __slots__ = ("_record", "name")

    name: str  #: spelled as paths are, decomposed as it is stored; the label for the root folder

    def __init__(self, record: _library.ItemRecord) -> None:
        """Copies a record that the library has filled."""
        self.name = record.name.decode()
        self._record = _library.NamelessItemRecord.from_buffer_copy(record)

    @property
    def kind(self) -> Kind:
        """What the item is."""
        return Kind(self._record.kind)

    @property
    def id(self) -> int:
        """The number of the item, which it keeps for as long as it exists."""
        return int(self._record.id)

    @property
    def parent_id(self) -> int:
        """The ID of the folder that holds the item; 1 for the root folder."""
        return int(self._record.parent_id)

    @property
    def target_id(self) -> int:
        """Hard and folder links: the ID of what they stand for; otherwise 0."""
        return int(self._record.target_id)

    @property
    def valence(self) -> int:
        """Folders: items in it, as its record counts them."""
        return int(self._record.valence)

    @property
    def size(self) -> int:
        """Size of the data fork, which is the content."""
        return int(self._record.data_size)

    @property
    def resource_size(self) -> int:
        """Size of the resource fork."""
        return int(self._record.resource_size)

    @property
    def allocated(self) -> int:
        """Size of the blocks of the data fork."""
        return int(self._record.data_allocated)

    @property
    def resource_allocated(self) -> int:
        """Size of the blocks of the resource fork."""
        return int(self._record.resource_allocated)

    @property
    def creation_date(self) -> Optional[datetime.datetime]:
        """When the item was made."""
        return _date(self._record.creation_date)

    @property
    def modification_date(self) -> Optional[datetime.datetime]:
        """When its content was changed."""
        return _date(self._record.modification_date)

    @property
    def change_date(self) -> Optional[datetime.datetime]:
        """When what its record says was changed."""
        return _date(self._record.change_date)

    @property
    def access_date(self) -> Optional[datetime.datetime]:
        """When its content was read."""
        return _date(self._record.access_date)

    @property
    def backup_date(self) -> Optional[datetime.datetime]:
        """When it was backed up."""
        return _date(self._record.backup_date)

    @property
    def owner_id(self) -> int:
        """The user who owns it."""
        return int(self._record.owner_id)

    @property
    def group_id(self) -> int:
        """The group that owns it."""
        return int(self._record.group_id)

    @property
    def mode(self) -> int:
        """Kind and permissions, for the module `stat`; 0 where owner, group and mode are not kept."""
        return int(self._record.mode)

    @property
    def special(self) -> int:
        """Devices: the number; files that hard links stand for: how many links."""
        return int(self._record.special)

    @property
    def finder_type(self) -> bytes:
        """Files: four characters, such as b"TEXT"."""
        return _four_characters(self._record.finder_type)

    @property
    def finder_creator(self) -> bytes:
        """Files: four characters, likewise."""
        return _four_characters(self._record.finder_creator)

    @property
    def finder_flags(self) -> int:
        """Bits such as 0x4000, invisible."""
        return int(self._record.finder_flags)

    @property
    def record_flags(self) -> int:
        """Bits of the record, as they are."""
        return int(self._record.record_flags)

    @property
    def admin_flags(self) -> int:
        """Bits that only an administrator changes: 1 archived, 2 immutable, 4 append."""
        return int(self._record.admin_flags)

    @property
    def owner_flags(self) -> int:
        """Bits that the owner changes: 2 immutable, 4 append, 32 compressed."""
        return int(self._record.owner_flags)

    def __repr__(self) -> str:
        return f"<kvfs.Item {self.name!r} {self.kind.name} id={self.id} size={self.size}>"

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, Item):
            return NotImplemented
        return self.name == other.name and bytes(self._record) == bytes(other._record)

    def __hash__(self) -> int:
        return hash((self.id, self.name))


@dataclasses.dataclass(frozen=True)
class VolumeFacts:
    """What is known about a volume, as its header has it. Sizes are in bytes. Dates are None where it has none."""

    block_size: int  #: of an allocation block
    size: int  #: of all allocation blocks
    free_size: int  #: of the blocks that are counted as free
    block_count: int  #: allocation blocks
    free_block_count: int  #: allocation blocks that are counted as free
    file_count: int  #: files; hard links count each
    folder_count: int  #: folders; the root folder does not count
    next_id: int  #: for the next new item
    attributes: int  #: bits, as they are
    identifier: int  #: set when the volume was first used; 0 when it was not
    creation_date: Optional[datetime.datetime]  #: in the local time of where the volume was made, hence without a zone
    modification_date: Optional[datetime.datetime]  #: of anything on the volume, in UTC
    backup_date: Optional[datetime.datetime]  #: of the volume as a whole, in UTC
    check_date: Optional[datetime.datetime]  #: of its consistency, in UTC
    write_count: int  #: grows with each mount
    last_mounted_by: bytes  #: four characters for who mounted it last
    is_hfsx: bool  #: HFSX rather than HFS Plus
    is_case_sensitive: bool  #: names that differ in case are different
    is_journaled: bool  #: there is a journal, which is neither replayed nor written
    is_dirty: bool  #: not unmounted properly, so that counts may be off and a journal not empty
    is_locked: bool  #: its owner wants it unchanged; that is for programs to respect
    is_writable: bool  #: it was opened for changing
    has_allocation_file: bool  #: it was opened with the allocation file
    has_unflushed_changes: bool  #: changes were made since the last flush


def volume_facts(record: _library.FactsRecord) -> VolumeFacts:
    """Copies a record that the library has filled."""
    facts = {}
    for field in dataclasses.fields(VolumeFacts):
        value = getattr(record, field.name)
        if field.name.startswith(("is_", "has_")):
            value = bool(value)
        elif field.name.endswith("_date"):
            value = _date(value)
        facts[field.name] = value
    facts["creation_date"] = _local_date(record.creation_date)
    facts["last_mounted_by"] = _four_characters(record.last_mounted_by)
    return VolumeFacts(**facts)
