"""Changes, and their way to the device."""

import pathlib
import struct
import unicodedata

import kvfs
from support import VolumeTest, need_program, run


def spelled(name: str) -> str:
    """A name with each of its units spelled."""
    return "".join(f"%u{unit:04X}" for (unit,) in struct.iter_unpack(">H", name.encode("utf-16-be", "surrogatepass")))


class Labels(VolumeTest):
    def test_label_is_set_in_any_composition(self) -> None:
        for label in ("Backup", "\u00c4\u00d6\u00dc", "A\u0308", "a/b:c", "\ud55c\uad6d", "\U0001f600"):
            with self.subTest(label):
                with kvfs.open(self.image, writable=True) as volume:
                    volume.label = label
                    self.assertEqual(volume.raw_label, unicodedata.normalize("NFD", label))
                with kvfs.open(self.image) as volume:
                    self.assertEqual(volume.label, unicodedata.normalize("NFC", label))
                self.assert_sound()

    def test_text_that_is_no_label_is_refused(self) -> None:
        volume = self.open(writable=True)
        for label in ("", "x" * 256, "a\0b", "\ud800"):
            with self.subTest(ascii(label)), self.assertRaises(kvfs.InvalidError):
                volume.label = label
        self.assertEqual(volume.label, "Caf\u00e9")
        self.assertFalse(volume.facts.has_unflushed_changes)


class Changes(VolumeTest):
    def test_rename_gives_another_name_and_folder(self) -> None:
        with kvfs.open(self.image, writable=True) as volume:
            volume.rename("/Documents/a.txt", "/empty/b.txt")
            volume.rename(volume.stat("/Documents/big"), "/Documents/BIG")
            volume.rename(b"/Documents/sub", pathlib.PurePosixPath("/other"))
            self.assertEqual(volume.open("/empty/b.txt").read(), b"Hello from here\n")
        self.assert_sound()
        volume = self.open()
        self.assertEqual([item.name for item in volume.listdir("/empty")], ["b.txt"])
        self.assertEqual(volume.stat("/documents/big").name, "BIG")
        self.assertEqual(volume.stat("/other/r\u00e9sum\u00e9").id, 27)
        self.assertEqual((volume.stat("/Documents").valence, volume.stat("/empty").valence), (5, 1))

    def test_move_keeps_the_name(self) -> None:
        with kvfs.open(self.image, writable=True) as volume:
            volume.move("/Documents/either%u002For", "/empty")
            volume.move(volume.stat("/Documents/sub"), volume.stat("/"))
        self.assert_sound()
        self.assertTrue(self.open().exists("/empty/either%u002For"))

    def test_move_keeps_a_name_as_it_is_stored(self) -> None:
        # Some programs do not decompose; what is spelled is stored as it is.
        for stored in ("caf\u00e9", "cafe\u0301", "a/%u0041\ud800", "\U0001f600", "\ud55c" * 20):
            with self.subTest(ascii(stored)), self.open(writable=True) as volume:
                volume.rename("/Documents/a.txt", "/Documents/" + spelled(stored))
                volume.move("/Documents/" + spelled(stored), "/empty")
                self.assertEqual([kvfs.unspell(item.name) for item in volume.listdir("/empty")], [stored])
                volume.discard()

    def test_move_keeps_the_name_that_an_item_has_by_now(self) -> None:
        volume = self.open(writable=True)
        item = volume.stat("/Documents/a.txt")
        volume.rename(item, "/Documents/b.txt")
        volume.move(item, "/empty")
        self.assertEqual([item.name for item in volume.listdir("/empty")], ["b.txt"])

    def test_refused_renames_change_nothing(self) -> None:
        volume = self.open(writable=True)
        for source, destination, error in (
            ("/Documents/a.txt", "/Documents/big", FileExistsError),
            ("/Documents/none", "/Documents/x", FileNotFoundError),
            ("/Documents/a.txt", "/none/x", FileNotFoundError),
            ("/Documents/a.txt", "/Documents/big/x", NotADirectoryError),
            ("/Documents", "/Documents/sub/x", kvfs.InvalidError),
            ("/", "/x", kvfs.InvalidError),
            ("/Documents/a.txt", "/", kvfs.InvalidError),
            ("/Documents/a.txt", "/x\0y", kvfs.InvalidError),
            ("/Documents/a.txt", "/" + "x" * 256, kvfs.InvalidError),
            ("/Documents/a.txt", b"/\xff", kvfs.InvalidError),
        ):
            with self.subTest(destination), self.assertRaises(error):
                volume.rename(source, destination)
        self.assertFalse(volume.facts.has_unflushed_changes)

    def test_remove_deletes_files_and_links(self) -> None:
        with kvfs.open(self.image, writable=True) as volume:
            free = volume.facts.free_block_count
            volume.remove("/Documents/big")
            volume.remove(volume.stat("/Documents/link"))
            volume.flush()
            self.assertEqual(volume.facts.free_block_count, free + 74 + 2 + 1)
            self.assertEqual(volume.count_free_blocks(), free + 77)
        self.assert_sound()
        self.assertFalse(self.open().exists("/Documents/big"))

    def test_rmdir_deletes_empty_folders(self) -> None:
        with kvfs.open(self.image, writable=True) as volume:
            volume.rmdir("/empty")
            with self.assertRaises(kvfs.NotEmptyError):
                volume.rmdir("/Documents")
        self.assert_sound()
        self.assertFalse(self.open().exists("/empty"))

    def test_wrong_kinds_are_not_deleted(self) -> None:
        volume = self.open(writable=True)
        with self.assertRaises(IsADirectoryError):
            volume.remove("/empty")
        with self.assertRaises(NotADirectoryError):
            volume.rmdir("/Documents/a.txt")
        with self.assertRaises(kvfs.LimitError):
            volume.remove("/Documents/hard")
        self.assertFalse(volume.facts.has_unflushed_changes)

    def test_symlink_is_made_and_returned(self) -> None:
        with kvfs.open(self.image, writable=True) as volume:
            item = volume.symlink("../Documents/r\u00e9sum\u00e9", "/empty/new")
            self.assertEqual((item.name, item.kind), ("new", kvfs.Kind.SYMBOLIC_LINK))
            self.assertEqual(volume.readlink(item), "../Documents/r\u00e9sum\u00e9")
            self.assertEqual(volume.readlink(volume.symlink(b"/a b", "/empty/bytes")), "/a b")
            self.assertEqual(volume.readlink(volume.symlink("x" * 255, "/empty/long")), "x" * 255)
        self.assert_sound()

    def test_refused_symlinks_change_nothing(self) -> None:
        volume = self.open(writable=True)
        for target, path, error in (
            ("", "/x", kvfs.InvalidError),
            ("x" * 256, "/x", kvfs.InvalidError),
            ("a\\b", "/x", kvfs.InvalidError),
            (b"\xff", "/x", kvfs.InvalidError),
            ("\udcff", "/x", kvfs.InvalidError),
            ("a\0b", "/x", kvfs.InvalidError),
            ("a", "/", kvfs.InvalidError),
            ("a", "/Documents", FileExistsError),
            ("a", "/none/x", FileNotFoundError),
        ):
            with self.subTest((target, path)), self.assertRaises(error):
                volume.symlink(target, path)
        self.assertFalse(volume.facts.has_unflushed_changes)

    def test_volume_for_reading_refuses_changes(self) -> None:
        before = self.content()
        volume = self.open()
        for change in (
            lambda: volume.rename("/empty", "/x"),
            lambda: volume.rmdir("/empty"),
            lambda: volume.remove("/Documents/a.txt"),
            lambda: volume.symlink("a", "/x"),
            lambda: setattr(volume, "label", "x"),
        ):
            with self.assertRaises(kvfs.ReadOnlyError):
                change()
        volume.close()
        self.assertEqual(self.content(), before)

    def test_other_readers_see_the_changes(self) -> None:
        need_program("fls")
        with kvfs.open(self.image, writable=True) as volume:
            volume.rename("/Documents/a.txt", "/Documents/renamed.txt")
            volume.rmdir("/empty")
        seen = run("fls", "-r", "-p", "-f", "hfs", self.image).stdout
        self.assertIn("Documents/renamed.txt", seen)
        self.assertNotIn("a.txt", seen)
        self.assertNotIn("empty", seen)


class Flushing(VolumeTest):
    def test_changes_are_written_by_a_flush(self) -> None:
        for sync in (True, False):
            with self.subTest(sync):
                before = self.content()
                volume = self.open(writable=True)
                volume.label = f"Flushed {sync}"
                self.assertTrue(volume.facts.has_unflushed_changes)
                self.assertEqual(self.content(), before)
                volume.flush(sync=sync)
                self.assertFalse(volume.facts.has_unflushed_changes)
                self.assertNotEqual(self.content(), before)
                volume.close()

    def test_close_flushes(self) -> None:
        volume = kvfs.open(self.image, writable=True)
        volume.label = "Closed"
        volume.close()
        volume.close()
        self.assertTrue(volume.closed)
        self.assertEqual(self.open().label, "Closed")

    def test_block_that_fails_gives_changes_up(self) -> None:
        before = self.content()
        with self.assertRaises(ZeroDivisionError):
            with kvfs.open(self.image, writable=True) as volume:
                volume.label = "Lost"
                raise ZeroDivisionError
        self.assertTrue(volume.closed)
        self.assertEqual(self.content(), before)

    def test_volume_that_is_forgotten_gives_changes_up(self) -> None:
        before = self.content()
        volume = kvfs.open(self.image, writable=True)
        volume.label = "Lost"
        with self.assertWarns(ResourceWarning):
            del volume
        self.assertEqual(self.content(), before)

    def test_discard_forgets_changes(self) -> None:
        volume = self.open(writable=True)
        volume.rename("/Documents/a.txt", "/x")
        volume.discard()
        self.assertTrue(volume.exists("/Documents/a.txt"))
        self.assertFalse(volume.facts.has_unflushed_changes)
        volume.label = "Afterwards"
        volume.close()
        self.assertEqual(self.open().label, "Afterwards")

    def test_listing_follows_changes(self) -> None:
        volume = self.open(writable=True)
        listing = volume.listdir("/Documents")
        names = [next(listing).name]
        volume.remove("/Documents/a.txt")
        volume.remove("/Documents/big")
        names += [item.name for item in listing]
        self.assertEqual(names, ["a.txt", "either%u002For", "hard", "link", "more", "sub"])
