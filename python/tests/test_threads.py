"""Volumes that are used by several threads, closed meanwhile, or used by a handler of a signal."""

import gc
import io
import itertools
import os
import signal
import sys
import threading
import unittest
from types import FrameType
from typing import Callable, List, Optional

import kvfs
from support import Handles, VolumeTest, pattern, run_python


def run_together(*works: Callable[[], None]) -> List[BaseException]:
    """Runs each on a thread of its own. Returns what they have raised."""
    failures: List[BaseException] = []

    def guarded(work: Callable[[], None]) -> None:
        try:
            work()
        except BaseException as failure:
            failures.append(failure)

    threads = [threading.Thread(target=guarded, args=(work,)) for work in works]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    return failures


class Threads(VolumeTest):
    def setUp(self) -> None:
        super().setUp()
        interval = sys.getswitchinterval()
        self.addCleanup(sys.setswitchinterval, interval)
        sys.setswitchinterval(1e-5)

    def test_one_volume_serves_many_threads(self) -> None:
        volume = self.open()
        shared = volume.open("/Documents/big")
        expected = pattern(300000)

        def read() -> None:
            for _ in range(5):
                self.assertEqual(volume.open("/Documents/big").read(), expected)

        def read_shared() -> None:
            piece = bytearray(1000)
            for offset in range(0, 300000, 9973):
                count = shared.readinto_at(piece, offset)
                self.assertEqual(piece[:count], expected[offset : offset + count])

        def list_all() -> None:
            for _ in range(20):
                self.assertEqual(len(list(volume.walk())), 12)

        self.assertEqual(run_together(read, read, read_shared, read_shared, list_all, list_all), [])

    def test_changes_of_many_threads_are_whole(self) -> None:
        self.make("--files", "300", "--folders", "4", "--free-nodes", "64")
        with kvfs.open(self.image, writable=True) as volume:

            def move(first: int) -> Callable[[], None]:
                def work() -> None:
                    for i in range(5 * first, 300, 20):
                        volume.rename(f"/f{i:06}", f"/d{first:06}/moved{i}")

                return work

            self.assertEqual(run_together(*[move(i) for i in range(4)]), [])
        self.assert_sound()
        self.assertEqual(len(list(self.open().listdir("/d000002"))), 15)

    def test_close_ends_what_other_threads_do(self) -> None:
        for _ in range(10):
            volume = kvfs.open(self.image)
            file = volume.open("/Documents/big")
            began = threading.Barrier(4)

            def read() -> None:
                began.wait()
                while True:
                    file.seek(0)
                    file.read(5000)

            def list_all() -> None:
                began.wait()
                while True:
                    list(volume.listdir("/Documents"))

            def close() -> None:
                began.wait()
                volume.close()

            failures = run_together(read, list_all, list_all, close)
            self.assertEqual([type(failure) for failure in failures], [kvfs.ClosedError] * 3)
            file.close()

    def test_file_is_closed_while_others_read_it(self) -> None:
        volume = self.open()
        for _ in range(20):
            file = volume.open("/Documents/big")
            piece = bytearray(100)
            began = threading.Barrier(3)

            def read() -> None:
                began.wait()
                while True:
                    file.readinto_at(bytearray(100), 0)

            def close() -> None:
                began.wait()
                file.close()

            failures = run_together(read, read, close)
            self.assertEqual(len(failures), 2)
            for failure in failures:
                self.assertIsInstance(failure, ValueError)
            self.assertEqual(len(piece), 100)

    def test_garbage_is_collected_while_turns_last(self) -> None:
        volume = self.open()
        self.addCleanup(gc.set_threshold, *gc.get_threshold())
        gc.set_threshold(1)

        def work() -> None:
            for _ in range(30):
                cycle = [volume.open("/Documents/big"), volume.listdir("/Documents")]
                cycle.append(cycle)  # type: ignore[arg-type]
                next(cycle[1])  # type: ignore[call-overload]
                with self.assertRaises(kvfs.InvalidError):
                    volume.stat("/" + "x" * 300)  # it reports, within the turn

        self.assertEqual(run_together(work, work, work), [])

    def test_closing_waits_for_nobody(self) -> None:
        # The garbage collector closes what is wrapped, in the middle of whatever a thread does.
        volume = self.open()
        wrapped = [io.TextIOWrapper(io.BufferedReader(volume.open("/Documents/a.txt")))]
        file = volume.open("/Documents/a.txt")
        listing = volume.listdir("/Documents")
        for close in (wrapped.clear, file.close, listing.close):
            with self.subTest(close):
                closing = threading.Thread(target=close)
                with volume._session.turn:
                    closing.start()
                    closing.join(10)
                    self.assertFalse(closing.is_alive())
                closing.join()

    def test_change_of_another_thread_is_flushed_or_refused_by_close(self) -> None:
        for _ in range(20):
            volume = kvfs.open(self.image, writable=True)
            made: List[str] = []
            began = threading.Barrier(2)

            def change() -> None:
                for i in range(10000):
                    volume.label = f"Label {i}"
                    made.append(f"Label {i}")
                    if i == 1:
                        began.wait()

            def close() -> None:
                began.wait()
                volume.close()

            failures = run_together(change, close)
            self.assertEqual([type(failure) for failure in failures], [kvfs.ClosedError])
            with kvfs.open(self.image) as written:
                self.assertEqual(written.label, made[-1])


@unittest.skipUnless(hasattr(signal, "setitimer"), "needs timers")
class Signals(VolumeTest):
    def interrupt(self, handler: Callable[..., None], seconds: float) -> None:
        before = signal.signal(signal.SIGALRM, handler)
        self.addCleanup(signal.signal, signal.SIGALRM, before)
        self.addCleanup(signal.setitimer, signal.ITIMER_REAL, 0)
        signal.setitimer(signal.ITIMER_REAL, seconds, seconds)

    @unittest.skipIf(sys.version_info < (3, 10), "Python 3.9 may leave any lock held when a signal ends its block")
    def test_interrupted_calls_leave_the_volume_usable(self) -> None:
        class Interrupted(Exception):
            pass

        expected = False

        def handler(*_: object) -> None:
            nonlocal expected
            if expected:  # not while the one before is caught
                expected = False
                raise Interrupted

        # What a signal interrupts in a destructor is told and ignored.
        self.addCleanup(setattr, sys, "unraisablehook", sys.unraisablehook)
        sys.unraisablehook = lambda unraisable: None
        volume = self.open()
        interrupted = 0
        self.interrupt(handler, 0.002)
        while interrupted < 30:
            try:
                for _ in itertools.repeat(None):
                    expected = True
                    list(volume.listdir("/Documents"))
            except Interrupted:
                interrupted += 1
        signal.setitimer(signal.ITIMER_REAL, 0)
        self.assertEqual(run_together(lambda: self.assertEqual(volume.label, "Caf\u00e9")), [])
        volume.close()

    def test_signal_at_any_call_leaves_the_turn_free_and_no_handle_open(self) -> None:
        # Signals are handled where a function begins; there an exception is raised at one place after the other.
        class Interrupted(Exception):
            pass

        left = 0

        def is_of_package(frame: FrameType) -> bool:
            return os.path.basename(os.path.dirname(frame.f_code.co_filename)) == "kvfs"

        def is_in_destructor(frame: Optional[FrameType]) -> bool:
            while frame is not None and frame.f_code.co_name != "__del__":
                frame = frame.f_back
            return frame is not None

        def trace(frame: FrameType, event: str, _: object) -> None:
            nonlocal left
            if is_of_package(frame) and not is_in_destructor(frame):  # what is raised in there is ignored
                left -= 1
                if left == 0:
                    raise Interrupted

        volume = self.open()
        ended = False
        place = 0
        while not ended:
            place += 1
            left = place
            with Handles() as handles:
                before = sys.gettrace()
                sys.settrace(trace)
                try:
                    volume.open("/Documents/a.txt").close()
                    with volume.listdir("/Documents") as listing:
                        next(listing)
                    ended = True
                except Interrupted:
                    pass
                finally:
                    sys.settrace(before)
                listing = None  # type: ignore[assignment]
                self.assertFalse(volume._session.turn._is_owned(), place)  # type: ignore[attr-defined]
                volume._session.tidy()
                self.assertEqual(handles.count, 0, place)
        self.assertGreater(place, 20)

    def test_handler_may_use_the_volume_and_close_files(self) -> None:
        volume = self.open()
        handled: List[int] = []

        def handler(*_: object) -> None:
            with volume.open("/Documents/a.txt") as file:
                handled.append(len(file.read()))

        self.interrupt(handler, 0.002)
        while len(handled) < 30:
            self.assertEqual(len(list(volume.listdir("/Documents"))), 7)
        signal.setitimer(signal.ITIMER_REAL, 0)
        self.assertEqual(set(handled), {16})

    def test_volume_is_not_closed_in_the_middle_of_a_call(self) -> None:
        volume = self.open(writable=True)
        volume.label = "Unflushed"
        with volume._session.turn, self.assertRaises(RuntimeError):
            volume.close()
        self.assertEqual(volume.label, "Unflushed")
        self.assertTrue(volume.facts.has_unflushed_changes)

    def test_signal_ends_the_waiting_for_the_lock(self) -> None:
        holder = self.open(writable=True)
        self.interrupt(lambda *_: None, 0.01)
        with self.assertRaises(kvfs.KvfsError) as caught:
            kvfs.open(self.image)
        signal.setitimer(signal.ITIMER_REAL, 0)
        self.assertEqual(caught.exception.result, kvfs.Result.FAILED)
        self.assertFalse(holder.closed)


@unittest.skipUnless(hasattr(os, "fork"), "needs processes that fork")
class Forks(VolumeTest):
    def test_forked_process_leaves_the_volume_to_its_parent(self) -> None:
        volume = self.open()
        child = os.fork()
        if child == 0:
            os._exit(0 if volume.label == "Caf\u00e9" else 1)
        self.assertEqual(os.waitpid(child, 0)[1], 0)
        self.assertEqual(volume.label, "Caf\u00e9")

    def test_forked_process_leaves_the_lock_to_its_parent(self) -> None:
        # The child forgets the volume, ends with it, leaves its block, or ends while another thread has the turn.
        for in_child in (
            "del volume, file; sys.exit()",
            "sys.exit()",
            "exec('with volume: sys.exit()')",
            "cycle = [volume, file]; cycle.append(cycle); del volume, file, cycle; gc.collect(); sys.exit()",
        ):
            program = f"""
import gc, os, sys, threading
import kvfs

volume = kvfs.open({self.image!r}, writable=True)
file = volume.open("/Documents/a.txt")
held, forked = threading.Event(), threading.Event()

def hold():
    with volume._session.turn:
        held.set()
        forked.wait()

thread = threading.Thread(target=hold)
thread.start()
held.wait()
child = os.fork()
if child == 0:
    {in_child}
forked.set()
thread.join()
assert os.waitpid(child, 0)[1] == 0
try:
    kvfs.open({self.image!r}, wait=False)
except kvfs.BusyError:
    print("locked")
volume.close()
kvfs.open({self.image!r}, wait=False).close()
file.close()
"""
            with self.subTest(in_child):
                # Later versions warn that the parent has another thread.
                done = run_python("-W", "ignore::DeprecationWarning", "-c", program)
                self.assertEqual((done.stdout, done.stderr, done.returncode), ("locked\n", "", 0))

    def test_process_that_goes_on_closes_the_volume(self) -> None:
        volume = kvfs.open(self.image, writable=True)
        child = os.fork()
        if child == 0:
            try:
                volume.label = "Child"
                volume.close()
                os._exit(0)
            finally:
                os._exit(1)
        self.assertEqual(os.waitpid(child, 0)[1], 0)
        volume.__exit__(KeyError, None, None)
        self.assertEqual(self.open(writable=True).label, "Child")
