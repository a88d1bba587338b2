"""Files as file objects."""

import array
import gc
import io
import os
import shutil
import weakref
from typing import Callable

import kvfs
from support import Handles, VolumeTest, pattern

BIG = pattern(300000)


class Files(VolumeTest):
    def test_whole_fork_is_read(self) -> None:
        volume = self.open()
        self.assertEqual(volume.open("/Documents/a.txt").read(), b"Hello from here\n")
        self.assertEqual(volume.open("/Documents/big").read(), BIG)
        self.assertEqual(volume.open(volume.item(19)).readall(), BIG)
        self.assertEqual(volume.open("/Documents/big", fork="resource").read(), pattern(5000))
        self.assertEqual(volume.open("/Documents/sub/r\u00e9sum\u00e9").read(), b"")

    def test_links_are_read_as_said(self) -> None:
        volume = self.open()
        self.assertEqual(volume.open("/Documents/hard").read(), b"shared")
        self.assertEqual(volume.open("/Documents/link").read(), b"a.txt")

    def test_pieces_of_awkward_sizes_make_up_the_fork(self) -> None:
        volume = self.open()
        for size in (1009, 4095, 4096, 4097, 65537, 1 << 20):
            with self.subTest(size), volume.open("/Documents/big") as file:
                self.assertEqual(b"".join(iter(lambda: file.read(size), b"")), BIG)

    def test_position_moves_as_in_other_files(self) -> None:
        with self.open().open("/Documents/big") as file:
            self.assertEqual(file.seek(4000), 4000)
            self.assertEqual(file.read(200), BIG[4000:4200])
            self.assertEqual(file.tell(), 4200)
            self.assertEqual(file.seek(-200, os.SEEK_CUR), 4000)
            self.assertEqual(file.seek(-1, os.SEEK_END), 299999)
            self.assertEqual(file.read(10), BIG[-1:])
            self.assertEqual(file.seek(400000), 400000)
            self.assertEqual((file.read(10), file.read(), file.tell()), (b"", b"", 400000))
            for offset, whence in ((-1, 0), (2**63, 0), (2**70, 0), (-300001, 2), (0, 3)):
                with self.subTest(offset), self.assertRaises(ValueError):
                    file.seek(offset, whence)

    def test_offset_leaves_the_position_alone(self) -> None:
        with self.open().open("/Documents/big") as file:
            piece = bytearray(10)
            self.assertEqual(file.readinto_at(piece, 299995), 5)
            self.assertEqual((bytes(piece[:5]), file.tell()), (BIG[-5:], 0))
            for offset in (-1, 2**64):
                with self.assertRaises(kvfs.InvalidError):
                    file.readinto_at(piece, offset)

    def test_buffers_of_other_types_are_filled(self) -> None:
        with self.open().open("/Documents/big") as file:
            numbers = array.array("I", [0] * 100)
            self.assertEqual(file.readinto(numbers), 400)
            self.assertEqual(numbers.tobytes(), BIG[:400])
            self.assertEqual(file.readinto(bytearray()), 0)
            kept = bytearray(10)
            file.readinto(kept)
            kept.append(0)  # nothing holds the buffer any more
            with self.assertRaises((TypeError, BufferError)):
                file.readinto(b"constant")  # type: ignore[arg-type]

    def test_file_is_raw_and_readable(self) -> None:
        file = self.open().open("/Documents/a.txt")
        self.assertIsInstance(file, io.RawIOBase)
        self.assertTrue(file.readable() and file.seekable() and not file.writable())
        self.assertEqual((file.name, file.mode, file.size()), ("/Documents/a.txt", "rb", 16))
        with self.assertRaises(io.UnsupportedOperation):
            file.write(b"x")
        with self.assertRaises(io.UnsupportedOperation):
            file.fileno()

    def test_buffers_and_text_wrap_it(self) -> None:
        volume = self.open()
        with io.TextIOWrapper(io.BufferedReader(volume.open("/Documents/a.txt")), "utf-8") as text:
            self.assertEqual(text.readlines(), ["Hello from here\n"])
        copy = io.BytesIO()
        shutil.copyfileobj(volume.open("/Documents/big"), copy)
        self.assertEqual(copy.getvalue(), BIG)

    def test_closed_file_says_so(self) -> None:
        file = self.open().open("/Documents/a.txt")
        file.close()
        file.close()
        self.assertTrue(file.closed)
        for call in (file.read, file.tell, file.size, file.readall, lambda: file.seek(0), lambda: file.readinto(b"")):
            with self.assertRaises(ValueError):
                call()  # type: ignore[operator]
        self.assertEqual(repr(file), "<kvfs.File '/Documents/a.txt' closed>")

    def test_file_keeps_its_volume_alive_and_closes_it(self) -> None:
        file = kvfs.open(self.image).open("/Documents/a.txt")
        gc.collect()
        self.assertEqual(file.read(), b"Hello from here\n")
        with self.assertWarns(ResourceWarning):
            del file
            gc.collect()
        kvfs.open(self.image, True, wait=False).close()  # the lock is free

    def test_file_of_a_closed_volume_can_only_be_closed(self) -> None:
        volume = self.open()
        file = volume.open("/Documents/a.txt")
        volume.close()
        with self.assertRaises(kvfs.ClosedError):
            file.read()
        file.close()

    def test_what_has_no_forks_is_refused(self) -> None:
        volume = self.open()
        with self.assertRaises(IsADirectoryError) as caught:
            volume.open("/Documents")
        self.assertIsInstance(caught.exception, kvfs.NotAFileError)
        with self.assertRaises(FileNotFoundError):
            volume.open("/Documents/none")
        with self.assertRaises(kvfs.InvalidError):
            volume.open("/Documents/big", fork="other")  # type: ignore[arg-type]

    def test_file_that_was_deleted_says_so(self) -> None:
        volume = self.open(writable=True)
        file = volume.open("/Documents/big")
        volume.remove("/Documents/big")
        with self.assertRaises(kvfs.NotFoundError):
            file.read()


class Closing(VolumeTest):
    def test_handles_are_closed_whoever_goes_first(self) -> None:
        for forget in (False, True):
            for closes_volume in (False, True):
                with self.subTest(forget=forget, closes_volume=closes_volume), Handles() as handles:
                    volume = kvfs.open(self.image)
                    file, listing = volume.open("/Documents/big"), volume.listdir("/Documents")
                    wrapped = io.BufferedReader(volume.open("/Documents/a.txt"))
                    self.assertEqual(handles.count, 3)
                    if closes_volume:
                        volume.close()
                    if not forget:
                        file.close()
                        listing.close()
                        wrapped.close()
                    del wrapped, file, listing
                    if not closes_volume:
                        volume.close()
                    del volume
                    self.assertEqual(handles.count, 0)

    def test_handles_in_garbage_are_closed(self) -> None:
        # The garbage collector finalizes a cycle in any order, mostly the oldest first.
        wrap: Callable[[kvfs.File], object]
        for wrap in (lambda file: file, io.BufferedReader):
            with self.subTest(wrap), Handles() as handles:
                volume = kvfs.open(self.image)
                gone = weakref.ref(volume._session)
                cycle = [volume.listdir("/Documents"), wrap(volume.open("/Documents/a.txt"))]
                cycle.append(cycle)
                volume.close()
                del volume, cycle
                self.assertEqual(handles.count, 2)
                gc.collect()
                self.assertIsNone(gone())
                self.assertEqual(handles.count, 0)

    def test_next_one_closes_those_that_are_done_with(self) -> None:
        volume = self.open()
        with Handles() as handles:
            for _ in range(20):
                volume.open("/Documents/big").close()
                list(volume.listdir("/Documents"))
                volume.open("/Documents/big")
            self.assertLess(handles.count, 3)
            volume.close()
            self.assertEqual(handles.count, 0)
