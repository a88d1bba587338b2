"""Failures: exceptions, the results and the log lines in them, and the log besides."""

import errno
import fcntl
import os
import pathlib
import pickle
import threading
import unittest

import kvfs
from support import VolumeTest, run_python


class Opening(VolumeTest):
    def test_missing_file_is_not_found(self) -> None:
        path = str(self.folder / "none")
        with self.assertRaises(FileNotFoundError) as caught:
            kvfs.open(path)
        error = caught.exception
        assert isinstance(error, kvfs.DeviceError)
        self.assertEqual((error.result, error.errno, error.filename, error.path), (4, errno.ENOENT, path, path))

    def test_file_of_others_is_not_permitted(self) -> None:
        if os.geteuid() == 0:
            self.skipTest("root may do everything")
        os.chmod(self.image, 0o400)
        with self.assertRaises(PermissionError) as caught:
            kvfs.open(self.image, writable=True)
        self.assertIsInstance(caught.exception, kvfs.DeviceError)

    def test_what_is_no_volume_is_refused_with_the_log(self) -> None:
        pathlib.Path(self.image).write_bytes(bytes(1 << 16))
        with self.assertRaises(kvfs.KvfsError) as caught:
            kvfs.open(self.image)
        error = caught.exception
        self.assertEqual(error.result, kvfs.Result.FAILED)
        self.assertEqual(
            [(line.level, line.routine, line.text) for line in error.log],
            [
                ("ERROR", "kvfs_volume_setup", "Invalid signature word for HFS+ volume: 0x0"),
                ("ERROR", "kvfs_volume_create", "Error while setting up HFS volume."),
            ],
        )
        self.assertGreater(error.log[0].line, 0)
        self.assertEqual(
            str(error),
            f"there is no HFS Plus volume, or a lock failed: {self.image!r} (Invalid signature word for HFS+ volume: 0x0)",
        )

    def test_damaged_volume_is_inconsistent(self) -> None:
        self.damage("catalog.header.btreeType", 128)
        with self.assertRaises(kvfs.InconsistentError) as caught:
            kvfs.open(self.image)
        self.assertIn("Tree type", caught.exception.log[0].text)

    def test_volume_in_use_is_busy(self) -> None:
        volume = kvfs.open(self.image, writable=True)
        with self.assertRaises(BlockingIOError) as caught:
            kvfs.open(self.image, wait=False)
        self.assertIsInstance(caught.exception, kvfs.BusyError)
        volume.close()
        kvfs.open(self.image, wait=False).close()

    def test_readers_share_a_volume(self) -> None:
        with kvfs.open(self.image) as first, kvfs.open(self.image, wait=False) as second:
            self.assertEqual(first.label, second.label)

    def test_paths_of_every_kind_open(self) -> None:
        for path in (self.image, os.fsencode(self.image), pathlib.Path(self.image)):
            with self.subTest(path), kvfs.open(path) as volume:
                self.assertEqual(volume.label, "Caf\u00e9")
        with self.assertRaises(kvfs.InvalidError):
            kvfs.open(self.image + "\0more")
        with self.assertRaises(TypeError):
            kvfs.open(None)  # type: ignore[arg-type]

    def test_descriptor_opens_and_stays_open(self) -> None:
        with open(self.image, "r+b") as file:
            with kvfs.open(file.fileno(), writable=True) as volume:
                volume.label = "Descriptor"
            os.fstat(file.fileno())
            fcntl.flock(file.fileno(), fcntl.LOCK_EX | fcntl.LOCK_NB)
        self.assertEqual(self.open().label, "Descriptor")


class Errors(VolumeTest):
    def test_each_class_is_one_of_pythons_own(self) -> None:
        for own, known in (
            (kvfs.NotFoundError, FileNotFoundError),
            (kvfs.NotAFolderError, NotADirectoryError),
            (kvfs.IsAFolderError, IsADirectoryError),
            (kvfs.ExistsError, FileExistsError),
            (kvfs.BusyError, BlockingIOError),
            (kvfs.DeviceError, OSError),
            (kvfs.DevicePermissionError, PermissionError),
            (kvfs.NoMemoryError, MemoryError),
            (kvfs.InvalidError, ValueError),
            (kvfs.ClosedError, ValueError),
        ):
            with self.subTest(own):
                self.assertTrue(issubclass(own, known) and issubclass(own, kvfs.KvfsError))

    def test_error_says_what_it_was_about(self) -> None:
        with self.assertRaises(kvfs.NotFoundError) as caught:
            self.open().stat("/Documents/none")
        error = caught.exception
        self.assertEqual((error.result, error.path, error.log), (kvfs.Result.NOT_FOUND, "/Documents/none", ()))
        self.assertEqual((error.errno, error.filename), (errno.ENOENT, "/Documents/none"))
        self.assertEqual((error.strerror, error.text), ("there is no such item",) * 2)
        self.assertEqual(str(error), "there is no such item: '/Documents/none'")

    def test_errors_pickle(self) -> None:
        line = kvfs.LogLine("ERROR", "kvfs_x", 7, "text")
        for error in (
            kvfs.NotFoundError(32, "words", "/path", (line,)),
            kvfs.KvfsError(1, "words"),
            kvfs.DeviceError(4, "words", None, (line,), errno.EISDIR),
        ):
            with self.subTest(error):
                copy = pickle.loads(pickle.dumps(error))
                self.assertIs(type(copy), type(error))
                self.assertEqual(str(copy), str(error))
                self.assertEqual((copy.result, copy.path, copy.log), (error.result, error.path, error.log))
                self.assertEqual(getattr(copy, "errno", 0), getattr(error, "errno", 0))

    def test_results_of_a_newer_library_are_failures_too(self) -> None:
        error = kvfs.KvfsError(4711, "words")
        self.assertEqual((error.result, error.result.name), (4711, "UNKNOWN_4711"))

    def test_closed_volume_says_so(self) -> None:
        volume = kvfs.open(self.image)
        volume.close()
        self.assertTrue(volume.closed)
        for call in (
            lambda: volume.label,
            lambda: volume.facts,
            lambda: volume.stat("/"),
            lambda: volume.item(2),
            lambda: volume.listdir("/"),
            lambda: volume.open("/Documents/a.txt"),
            lambda: volume.rename("/empty", "/x"),
            lambda: volume.flush(),
            lambda: volume.discard(),
            lambda: volume.count_free_blocks(),
        ):
            with self.assertRaises(kvfs.ClosedError):
                call()
        self.assertEqual(repr(volume), f"<kvfs.Volume {self.image!r} closed>")

    def test_ids_out_of_range_are_refused(self) -> None:
        volume = self.open()
        for item_id in (-1, 2**32, 2**32 + 2):
            with self.subTest(item_id), self.assertRaises(kvfs.InvalidError):
                volume.item(item_id)
        for item_id in (0, 1, 5, 999):
            with self.subTest(item_id), self.assertRaises(FileNotFoundError):
                volume.item(item_id)

    def test_damaged_listing_gives_what_comes_before(self) -> None:
        self.damage("catalog.node[1].record[8].recordType", 9)
        volume = self.open()
        names = []
        with self.assertRaises(kvfs.InconsistentError) as caught:
            for item in volume.listdir("/Documents"):
                names.append(item.name)
        self.assertEqual(names, ["a.txt", "big"])
        self.assertTrue(caught.exception.log)

    def test_half_done_change_spoils_until_it_is_discarded(self) -> None:
        self.make("--files", "600", "--free-nodes", "0", "--node-size", "512")
        volume = self.open(writable=True)
        with self.assertRaises(kvfs.KvfsError):
            for i in range(600):
                volume.rename(f"/f{i:06}", f"/{'long' * 20}{i:06}")
        with self.assertRaises(kvfs.SpoiledError):
            volume.flush()
        with self.assertRaises(kvfs.SpoiledError):
            volume.label = "x"
        volume.discard()
        volume.label = "Discarded"
        volume.close()
        self.assert_sound()


class Log(VolumeTest):
    def test_lines_belong_to_the_thread_whose_call_failed(self) -> None:
        bad = [self.folder / f"bad{i}" for i in range(4)]
        for i, path in enumerate(bad):
            path.write_bytes(bytes(1024) + bytes([i + 1, 0]) + bytes(1 << 16))
        wrong = []

        def fail(number: int) -> None:
            for _ in range(50):
                try:
                    kvfs.open(bad[number])
                except kvfs.KvfsError as error:
                    if len(error.log) != 2 or not error.log[0].text.endswith(f": 0x{(number + 1) * 256}"):
                        wrong.append(error)

        threads = [threading.Thread(target=fail, args=(number,)) for number in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(wrong, [])

    def test_failed_call_does_not_log_besides(self) -> None:
        program = "import kvfs\ntry: kvfs.open('/dev/null')\nexcept kvfs.KvfsError as e: print(len(e.log))"
        done = run_python("-c", program)
        self.assertEqual((done.stdout, done.stderr), ("3\n", ""))

    @unittest.skipUnless(hasattr(unittest.TestCase, "assertNoLogs"), "needs Python 3.10")
    def test_calls_that_report_nothing_log_nothing(self) -> None:
        with self.assertNoLogs("kvfs"):
            list(self.open().walk())

    def test_reports_of_calls_that_succeed_go_to_the_logger(self) -> None:
        from kvfs import _library

        _library._report(None, b"WARNING", b"kvfs_routine", 12, b"odd \xff")
        with self.assertLogs("kvfs", "WARNING") as caught:
            self.assertEqual(self.open().label, "Caf\u00e9")
        self.assertEqual(caught.output, ["WARNING:kvfs:kvfs_routine, line 12: odd \\xff"])
        with self.assertRaises(FileNotFoundError):
            self.open().stat("/none")
