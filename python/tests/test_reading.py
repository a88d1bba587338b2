"""Looking up, listing and facts."""

import datetime
import gc
import itertools
import pathlib
import pickle
import stat
import unicodedata
import warnings

import kvfs
from support import VolumeTest


class Labels(VolumeTest):
    def test_label_is_composed_and_raw_label_as_stored(self) -> None:
        volume = self.open()
        self.assertEqual(volume.label, "Caf\u00e9")
        self.assertEqual(volume.raw_label, "Cafe\u0301")

    def test_longest_label_fits(self) -> None:
        self.make("--label", "\ud55c" * 85)  # three units and nine bytes each
        self.assertEqual(self.open().raw_label, unicodedata.normalize("NFD", "\ud55c" * 85))


class Facts(VolumeTest):
    def test_volume_facts_are_those_of_the_header(self) -> None:
        facts = self.open().facts
        self.assertEqual(facts.block_size, 4096)
        self.assertEqual(facts.size, facts.block_count * 4096)
        self.assertEqual(facts.free_size, facts.free_block_count * 4096)
        self.assertEqual((facts.file_count, facts.folder_count), (8, 4))
        self.assertEqual(facts.creation_date, datetime.datetime(2024, 1, 1))
        self.assertEqual(facts.modification_date, datetime.datetime(2024, 1, 1, tzinfo=datetime.timezone.utc))
        self.assertIsNone(facts.backup_date)
        self.assertEqual(facts.last_mounted_by, b"10.0")
        self.assertIs(facts.is_writable, False)
        self.assertIs(facts.has_allocation_file, True)
        self.assertFalse(facts.is_hfsx or facts.is_case_sensitive or facts.is_journaled or facts.is_dirty)

    def test_free_blocks_are_counted(self) -> None:
        volume = self.open()
        in_use = [volume.block_in_use(block) for block in range(volume.facts.block_count)]
        self.assertTrue(in_use[0])
        self.assertEqual(in_use.count(False), volume.count_free_blocks())
        self.assertEqual(volume.count_free_blocks(), volume.facts.free_block_count)

    def test_block_behind_the_last_one_is_refused(self) -> None:
        volume = self.open()
        for block in (volume.facts.block_count, -1, 2**32, 2**32 + 1):
            with self.assertRaises(kvfs.InvalidError):
                volume.block_in_use(block)

    def test_without_the_allocation_file_blocks_are_not_told(self) -> None:
        with kvfs.open(self.image, allocation=False) as volume:
            self.assertIs(volume.facts.has_allocation_file, False)
            with self.assertRaises(kvfs.InvalidError):
                volume.count_free_blocks()


class Items(VolumeTest):
    def test_file_has_its_facts(self) -> None:
        item = self.open().stat("/Documents/a.txt")
        self.assertEqual((item.name, item.kind, item.id, item.parent_id), ("a.txt", kvfs.Kind.FILE, 18, 16))
        self.assertEqual((item.size, item.allocated, item.resource_size, item.resource_allocated), (16, 4096, 0, 0))
        self.assertEqual((item.finder_type, item.finder_creator, item.finder_flags), (b"TEXT", b"ttxt", 0x4000))
        self.assertEqual(stat.filemode(item.mode), "-rw-r--r--")
        self.assertEqual(item.modification_date, datetime.datetime(2024, 1, 1, tzinfo=datetime.timezone.utc))
        self.assertIsNone(item.backup_date)

    def test_other_kinds_have_their_facts(self) -> None:
        volume = self.open()
        folder = volume.stat("Documents")
        self.assertEqual((folder.kind, folder.valence), (kvfs.Kind.FOLDER, 7))
        self.assertEqual(volume.stat("/Documents/link").kind, kvfs.Kind.SYMBOLIC_LINK)
        hard = volume.stat("/Documents/hard")
        self.assertEqual((hard.kind, hard.target_id), (kvfs.Kind.HARD_LINK, 23))
        self.assertEqual(volume.item(hard.target_id).special, 1)
        root = volume.stat("/")
        self.assertEqual((root.id, root.parent_id, root.name), (2, 1, "Cafe\u0301"))

    def test_every_kind_of_path_leads_to_the_item(self) -> None:
        volume = self.open()
        for path in (
            "/Documents/sub/r\u00e9sum\u00e9",
            "Documents//sub/re\u0301sume\u0301/",
            "/documents/SUB/R\u00c9SUM\u00c9",
            "/Documents/sub/r\u00e9sum\u00e9".encode(),
            pathlib.PurePosixPath("/Documents", "sub", "r\u00e9sum\u00e9"),
        ):
            with self.subTest(path):
                self.assertEqual(volume.stat(path).id, 27)
        self.assertEqual(volume.stat("").id, 2)
        self.assertEqual(volume.stat("/Documents/either%u002For").id, 20)
        self.assertEqual(volume.item(20), volume.stat("/Documents/" + kvfs.spell("either/or")))

    def test_names_are_text_whatever_the_path_was(self) -> None:
        self.assertEqual(self.open().stat(b"/Documents/sub/r\xc3\xa9sum\xc3\xa9").name, "re\u0301sume\u0301")

    def test_existence_is_told(self) -> None:
        volume = self.open()
        self.assertTrue(volume.exists("/Documents"))
        self.assertFalse(volume.exists("/Nothing"))
        self.assertFalse(volume.exists("/Documents/a.txt/more"))

    def test_items_compare_and_pickle_by_what_they_say(self) -> None:
        volume = self.open()
        item, other = volume.stat("/Documents/a.txt"), volume.stat("/Documents/big")
        self.assertEqual(item, volume.item(18))
        self.assertEqual({item, volume.item(18)}, {item})
        self.assertNotEqual(item, other)
        self.assertNotEqual(item, "a.txt")
        copy = pickle.loads(pickle.dumps(item))
        self.assertEqual((copy, copy.size, copy.name), (item, 16, "a.txt"))
        self.assertEqual(repr(item), "<kvfs.Item 'a.txt' FILE id=18 size=16>")

    def test_item_stays_as_it_was_while_a_listing_goes_on(self) -> None:
        listing = self.open().listdir("/Documents")
        first = next(listing)
        self.assertEqual([item.name for item in listing][0], "big")
        self.assertEqual((first.name, first.id), ("a.txt", 18))


class Listings(VolumeTest):
    NAMES = ["a.txt", "big", "either%u002For", "hard", "link", "more", "sub"]

    def test_items_come_in_the_order_of_the_catalog(self) -> None:
        volume = self.open()
        self.assertEqual([item.name for item in volume.listdir("/Documents")], self.NAMES)
        self.assertEqual([item.name for item in volume.listdir(volume.stat("/Documents"))], self.NAMES)
        self.assertEqual(list(volume.listdir("/empty")), [])

    def test_root_folder_is_listed_without_a_path(self) -> None:
        names = [item.name for item in self.open().listdir()]
        self.assertEqual(names[:2], ["Documents", "empty"])
        self.assertEqual(names[2], "%u0000%u0000%u0000%u0000HFS+ Private Data")

    def test_names_lead_back_to_their_items(self) -> None:
        volume = self.open()
        for path, item in volume.walk():
            with self.subTest(path):
                self.assertEqual(volume.stat(path), item)

    def test_large_folder_is_listed_whole_and_lazily(self) -> None:
        self.make("--files", "5000")
        volume = self.open()
        self.assertEqual([i.name for i in itertools.islice(volume.listdir(), 3)], ["f000000", "f000001", "f000002"])
        self.assertEqual([item.name for item in volume.listdir()], [f"f{i:06}" for i in range(5000)])

    def test_failure_comes_with_the_call(self) -> None:
        volume = self.open()
        with self.assertRaises(FileNotFoundError):
            volume.listdir("/Nothing")
        with self.assertRaises(NotADirectoryError):
            volume.listdir("/Documents/a.txt")

    def test_ended_listing_stays_at_its_end(self) -> None:
        with self.open().listdir("/Documents") as listing:
            next(listing)
        self.assertEqual(list(listing), [])
        listing.close()
        self.assertEqual(list(listing), [])

    def test_listings_keep_their_volume_alive(self) -> None:
        listing = kvfs.open(self.image).listdir("/Documents")
        gc.collect()
        self.assertEqual([item.name for item in listing], self.NAMES)
        with warnings.catch_warnings(record=True) as caught:
            warnings.simplefilter("always")
            del listing
            gc.collect()
        self.assertEqual([warning.category for warning in caught], [ResourceWarning])

    def test_walk_gives_everything_below_a_folder(self) -> None:
        volume = self.open()
        paths = [path for path, _ in volume.walk("/Documents/")]
        self.assertEqual(paths[0], "/Documents/a.txt")
        self.assertEqual(paths[-1], "/Documents/sub/re\u0301sume\u0301")
        self.assertEqual(len(paths), 8)
        self.assertEqual(len(list(volume.walk())), 12)
        self.assertEqual([path for path, _ in volume.walk("/empty")], [])

    def test_walk_from_an_item_is_relative_to_it(self) -> None:
        volume = self.open()
        paths = [path for path, _ in volume.walk(volume.stat("/Documents"))]
        self.assertEqual(paths[0], "a.txt")
        self.assertEqual(paths[-1], "sub/re\u0301sume\u0301")
        self.assertEqual([f"/Documents/{path}" for path in paths], [path for path, _ in volume.walk("/Documents")])

    def test_walk_from_a_path_keeps_it_as_it_is(self) -> None:
        volume = self.open()
        for path, first in (("", "/Documents"), ("/", "/Documents"), ("Documents", "Documents/a.txt")):
            with self.subTest(path):
                self.assertEqual(next(volume.walk(path))[0], first)


class Links(VolumeTest):
    def test_target_is_read(self) -> None:
        volume = self.open()
        self.assertEqual(volume.readlink("/Documents/link"), "a.txt")
        self.assertEqual(volume.readlink(volume.item(21)), "a.txt")

    def test_other_items_have_no_target(self) -> None:
        for path in ("/Documents/a.txt", "/Documents"):
            with self.subTest(path), self.assertRaises(kvfs.NotAFileError) as caught:
                self.open().readlink(path)
            self.assertEqual(caught.exception.path, path)
