"""The package beside the header, the sources and what is installed."""

import ctypes
import importlib.util
import inspect
import pathlib
import re
import shutil
import sys
import tempfile
import unittest
from typing import Dict, List, Tuple

import kvfs
from kvfs import _library
from support import SOURCE, lacks, run_python

HEADER = (SOURCE / "lib" / "kvfs.h").read_text(encoding="utf-8")
CODE = re.sub("//.*", "", HEADER)

TYPES = {
    "uint8_t": ctypes.c_uint8,
    "uint16_t": ctypes.c_uint16,
    "uint32_t": ctypes.c_uint32,
    "uint64_t": ctypes.c_uint64,
    "int64_t": ctypes.c_int64,
    "int": ctypes.c_int,
    "size_t": ctypes.c_size_t,
    "char*": ctypes.c_char_p,
    "const char*": ctypes.c_char_p,
    "void*": ctypes.c_void_p,
    "int*": ctypes.POINTER(ctypes.c_int),
    "uint32_t*": ctypes.POINTER(ctypes.c_uint32),
    "uint64_t*": ctypes.POINTER(ctypes.c_uint64),
    "size_t*": ctypes.POINTER(ctypes.c_size_t),
    "kvfs_log_handler": _library._log_handler,
    "kvfs_item*": ctypes.POINTER(_library.ItemRecord),
    "kvfs_volume_facts*": ctypes.POINTER(_library.FactsRecord),
}
for handle in ("session", "listing", "stream"):
    TYPES[f"kvfs_{handle}*"] = ctypes.c_void_p
    TYPES[f"kvfs_{handle}**"] = ctypes.POINTER(ctypes.c_void_p)


def constants() -> Dict[str, int]:
    found = {}
    for name, value in re.findall(r"#define KVFS_(\w+) (?:U?INT\d+_C\()?(\w+)\)?", CODE):
        if value.isdigit():
            found[name] = int(value)
    return found


def fields(structure: str) -> List[Tuple[str, object]]:
    body = re.search(rf"typedef struct {structure} {{(.*?)}}", CODE, re.DOTALL)
    assert body is not None
    found: List[Tuple[str, object]] = []
    for kind, name, size in re.findall(r"(\w+) (\w+)(?:\[(\w+)\])?;", body.group(1)):
        found.append((name, ctypes.c_char * constants()[size[5:]] if size else TYPES[kind]))
    return found


class Header(unittest.TestCase):
    def test_constants_are_those_of_the_header(self) -> None:
        found = constants()
        self.assertGreater(len(found), 30)
        results = {result.name: int(result) for result in kvfs.Result}
        kinds = {kind.name: int(kind) for kind in kvfs.Kind}
        for name, value in {**results, **kinds}.items():
            self.assertEqual(found.pop(name), value, name)
        for name, value in found.items():
            self.assertEqual(getattr(_library, name), value, name)

    def test_structures_are_those_of_the_header(self) -> None:
        self.assertEqual(list(_library.ItemRecord._fields_), fields("kvfs_item"))
        self.assertEqual(list(_library.FactsRecord._fields_), fields("kvfs_volume_facts"))

    def test_functions_are_those_of_the_header(self) -> None:
        declared = re.findall(r"^(\w[\w ]*\*?) (kvfs_\w+)\(([^)]*)\)", CODE, re.MULTILINE)
        self.assertGreater(len(declared), 25)
        for result, name, parameters in declared:
            with self.subTest(name):
                function = getattr(_library._library, name)
                words = [" ".join(parameter.split()) for parameter in parameters.split(",")]
                kinds = [re.sub(r" ?\w+$", "", word) for word in words if word != "void"]
                self.assertEqual([TYPES[kind] for kind in kinds], list(function.argtypes))
                self.assertEqual(function.restype, TYPES.get(result.strip()))


class Sources(unittest.TestCase):
    def test_version_is_that_of_the_project(self) -> None:
        project = (SOURCE / "CMakeLists.txt").read_text()
        self.assertIn(f"\n  VERSION {kvfs.__version__} ", project)

    def test_everything_public_is_documented(self) -> None:
        self.assertEqual(kvfs.__all__, sorted(kvfs.__all__, key=lambda name: (name.islower(), name)))
        for name in kvfs.__all__:
            item = getattr(kvfs, name)
            self.assertTrue(inspect.getdoc(item), name)
            for member, value in vars(item).items() if inspect.isclass(item) else ():
                if not member.startswith("_") and (inspect.isfunction(value) or isinstance(value, property)):
                    self.assertTrue(value.__doc__, f"{name}.{member}")

    def test_missing_library_is_said(self) -> None:
        import os

        program = "import os; os.environ['KVFS_LIBRARY'] = '/none/lib.so'\nimport kvfs"
        done = run_python("-c", program)
        self.assertEqual(done.returncode, 1)
        self.assertIn("ImportError: the shared library of kvfs cannot be loaded: /none/lib.so", done.stderr)
        self.assertTrue(os.environ["KVFS_LIBRARY"])


class Ending(unittest.TestCase):
    def test_library_may_report_when_the_package_is_gone(self) -> None:
        program = """
import ctypes, os, sys, weakref
from kvfs import _library

class Late:
    def __del__(self, open=_library.session_open, handle=ctypes.byref(ctypes.c_void_p()), write=os.write):
        write(1, b"result %d" % open(b"/none/image", 0, handle))

sys.late = Late()  # sys goes last
"""
        done = run_python("-c", program)
        self.assertEqual((done.stdout, done.stderr, done.returncode), ("result 4", "", 0))


class Installing(unittest.TestCase):
    def test_pip_installs_it_from_the_tree(self) -> None:
        for module in ("pip", "setuptools", "wheel"):
            if importlib.util.find_spec(module) is None:
                lacks(f"{module} for {sys.executable}, which scripts/setup installs for Debian's own Python")
        with tempfile.TemporaryDirectory() as folder:
            tree = pathlib.Path(folder, "python")
            shutil.copytree(SOURCE / "python", tree, ignore=shutil.ignore_patterns("__pycache__", "build", "*.egg-info"))
            site = pathlib.Path(folder, "site")
            words = ["-m", "pip", "install", "--quiet", "--no-index", "--no-build-isolation", "--no-deps"]
            done = run_python(*words, "--target", str(site), str(tree), path=str(site))
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
            self.assertTrue((site / "kvfs" / "py.typed").exists())
            metadata = (site / f"kvfs-{kvfs.__version__}.dist-info" / "METADATA").read_text()
            self.assertIn("\nRequires-Python: >=3.9\n", metadata)
            done = run_python("-c", "import kvfs; print(kvfs.__file__)", path=str(site))
            self.assertEqual(done.stdout, f"{site}/kvfs/__init__.py\n", done.stderr)
