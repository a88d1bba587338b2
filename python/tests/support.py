"""What the tests have in common: volumes to work on, and programs of others.

The environment says where things are: KVFS_PYTHON_VOLUME (the program that makes and checks volumes), KVFS_MAKE_VOLUME,
KVFS_SOURCE_DIR, KVFS_LIBRARY, and KVFS_VOLUMES_DIR (folders with volumes of other systems, separated by ":" or ";").
`tests/python/python_test` sets them.

The sample volume "Café", as its ID and path say:

    16 /Documents         18 a.txt    "Hello from here\n", type TEXT, creator ttxt, invisible
                          19 big      pattern(300000) in 20 extents, and a resource fork of pattern(5000)
                          20 either/or  3 zero bytes
                          21 link     a symbolic link to a.txt
                          24 hard     a hard link to the file 23, "shared", in the private folder 22
                          25 more     40960 zero bytes in 10 extents
                          26 sub      holds 27 résumé, an empty file
    17 /empty
"""

from __future__ import annotations

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from typing import Any, List, Optional
from unittest import mock

import kvfs
from kvfs import _library

SOURCE = pathlib.Path(os.environ.get("KVFS_SOURCE_DIR") or pathlib.Path(__file__).parents[2])


def _environment() -> "dict[str, str]":
    """Without what is preloaded for the library alone."""
    return {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}


def run(*words: str, ok: bool = True) -> subprocess.CompletedProcess[str]:
    """Runs a program that is none of Python's."""
    done = subprocess.run(
        words, env=_environment(), stdin=subprocess.DEVNULL, capture_output=True, text=True, errors="surrogateescape"
    )
    if ok and done.returncode != 0:
        raise AssertionError(f"{words} failed: {done.stdout}{done.stderr}")
    return done


def run_python(*words: str, path: Optional[str] = None) -> subprocess.CompletedProcess[str]:
    """Runs Python with the package, from the tree or from another folder, under what is preloaded here."""
    environment = dict(os.environ, PYTHONPATH=path or str(SOURCE / "python"), PYTHONIOENCODING="utf-8")
    return subprocess.run(
        [sys.executable, *words],
        cwd="/",
        env=environment,
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=300,
    )


def lacks(what: str) -> None:
    """Skips a test that this machine is not fit for; where CI=true it fails, lest it be lost unseen."""
    if os.environ.get("CI") == "true":
        raise AssertionError(f"needs {what}")
    raise unittest.SkipTest(f"needs {what}")


def need_program(name: str) -> None:
    """Skips a test without a program of others."""
    if shutil.which(name) is None:
        lacks(f"{name}, which scripts/setup installs")


def known_volumes() -> List[pathlib.Path]:
    """The packed volumes of other systems; skips a test where there are none."""
    folders = [folder for folder in re.split("[:;]", os.environ.get("KVFS_VOLUMES_DIR", "")) if folder]
    volumes = [volume for folder in folders for volume in sorted((SOURCE / folder).glob("*.img.xz"))]
    if not volumes:
        raise unittest.SkipTest("KVFS_VOLUMES_DIR names no volumes")
    return volumes


def pattern(size: int) -> bytes:
    """Bytes that tell where they stand."""
    return bytes((i * 31 + i // 251) & 0xFF for i in range(size))


class Handles:
    """Handles of listings and streams that the library has opened and not closed, counted while it is entered."""

    def __enter__(self) -> "Handles":
        self.count = 0
        self._patches = [
            mock.patch.object(_library, f"{kind}_{what}", self._counted(getattr(_library, f"{kind}_{what}")))
            for kind in ("listing", "stream")
            for what in ("open", "close")
        ]
        for patch in self._patches:
            patch.start()
        return self

    def __exit__(self, *_: object) -> None:
        for patch in self._patches:
            patch.stop()

    def _counted(self, function: Any) -> Any:
        def call(*arguments: Any) -> int:
            handle = arguments[-1]._obj  # of a byref
            self.count -= handle.value is not None
            result: int = function(*arguments)
            self.count += handle.value is not None
            return result

        return call


class VolumeTest(unittest.TestCase):
    """A test on a copy of the sample volume."""

    _sample: Optional[bytes] = None

    def setUp(self) -> None:
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.image = str(self.folder / "image")
        if VolumeTest._sample is None:
            run(os.environ["KVFS_PYTHON_VOLUME"], "make", self.image)
            VolumeTest._sample = pathlib.Path(self.image).read_bytes()
        pathlib.Path(self.image).write_bytes(VolumeTest._sample)

    def make(self, *options: str) -> None:
        """Replaces the volume by one of make_volume."""
        run(os.environ["KVFS_MAKE_VOLUME"], *options, self.image)

    def damage(self, field: str, value: int) -> None:
        """Gives a field of a structure another value."""
        run(os.environ["KVFS_PYTHON_VOLUME"], "damage", self.image, field, str(value))

    def open(self, writable: bool = False) -> kvfs.Volume:
        """The volume, closed with the test without flushing."""
        volume = kvfs.open(self.image, writable, wait=False)
        self.addCleanup(volume.__exit__, KeyError, None, None)
        return volume

    def content(self) -> bytes:
        """The bytes of the image."""
        return pathlib.Path(self.image).read_bytes()

    def assert_sound(self) -> None:
        """The volume checker finds nothing."""
        found = run(os.environ["KVFS_PYTHON_VOLUME"], "check", self.image).stdout
        self.assertEqual(found, "")
