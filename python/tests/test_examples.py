"""The programs of examples/python, and the guide that shows them."""

import re
import unittest
from typing import List, Tuple

import kvfs
from support import SOURCE, VolumeTest, run_python

EXAMPLES = SOURCE / "examples" / "python"


class Examples(VolumeTest):
    def run_example(self, name: str, *arguments: str) -> str:
        done = run_python(str(EXAMPLES / name), self.image, *arguments)
        self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout)
        return done.stdout

    def refused(self, name: str, *arguments: str) -> str:
        before = self.content()
        done = run_python(str(EXAMPLES / name), self.image, *arguments)
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertEqual(self.content(), before)
        return done.stderr

    def test_volume_info_prints_label_and_numbers(self) -> None:
        with kvfs.open(self.image) as volume:
            size, free = volume.facts.size, volume.facts.free_size
        self.assertEqual(
            self.run_example("volume_info.py"),
            f"label         Caf\u00e9\nsize          {size}\nfree          {free}\n"
            "files         8\nfolders       4\n",
        )

    def test_look_up_says_what_is_there(self) -> None:
        self.assertEqual(
            self.run_example("look_up.py", "/Documents/a.txt"),
            "file 18 in folder 16\nmode      -rw-r--r--\nmodified  2024-01-01 00:00:00+00:00\n"
            "bytes     16, 0 in the resource fork\n",
        )
        self.assertIn("\nitems     7\n", self.run_example("look_up.py", "Documents"))
        self.assertIn("\ntarget    a.txt\n", self.run_example("look_up.py", "Documents/link"))
        self.assertEqual(self.refused("look_up.py", "/none"), "there is no /none\n")

    def test_list_folder_prints_items(self) -> None:
        self.assertEqual(
            self.run_example("list_folder.py", "/").splitlines()[:2],
            ["folder            16        0  Documents", "folder            17        0  empty"],
        )
        everything = self.run_example("list_folder.py", "-r", "/Documents").splitlines()
        self.assertEqual(everything[-1], "file              27        0  /Documents/sub/re\u0301sume\u0301")
        self.assertEqual(
            self.refused("list_folder.py", "/Documents/a.txt"),
            "cannot list the folder: the item is no folder: '/Documents/a.txt'\n",
        )

    def test_read_file_writes_the_fork(self) -> None:
        self.assertEqual(self.run_example("read_file.py", "/Documents/a.txt"), "Hello from here\n")
        self.assertEqual(self.run_example("read_file.py", "/Documents/a.txt", "resource"), "")
        self.assertIn("there is no such item", self.refused("read_file.py", "/none"))

    def test_set_label_sets_it(self) -> None:
        self.run_example("set_label.py", "B\u00e4ckup")
        self.assert_sound()
        with kvfs.open(self.image) as volume:
            self.assertEqual(volume.label, "B\u00e4ckup")
        self.assertIn("an argument is not acceptable", self.refused("set_label.py", ""))

    def test_first_steps_print_label_and_file_and_change_the_label(self) -> None:
        printed = self.run_example("first_steps.py", "B\u00e4ckup", "/Documents/a.txt")
        self.assertEqual(printed, "Caf\u00e9\nHello from here\n\n")
        self.assert_sound()
        with kvfs.open(self.image) as volume:
            self.assertEqual(volume.label, "B\u00e4ckup")
        self.assertIn("there is no such item", self.refused("first_steps.py", "Label", "/none"))

    def test_change_items_changes_them(self) -> None:
        self.run_example("change_items.py", "rename", "/Documents/a.txt", "/Documents/b.txt")
        self.run_example("change_items.py", "move", "/Documents/b.txt", "/empty")
        self.run_example("change_items.py", "link", "b.txt", "/empty/link")
        self.run_example("change_items.py", "delete", "/Documents/big")
        self.assert_sound()
        with kvfs.open(self.image) as volume:
            self.assertEqual([item.name for item in volume.listdir("/empty")], ["b.txt", "link"])
        self.assertIn("the folder is not empty", self.refused("change_items.py", "delete", "/Documents"))
        self.assertIn("usage:", self.refused("change_items.py", "rename", "/Documents"))

    def test_flush_keeps_the_first_link_alone(self) -> None:
        self.assertEqual(self.run_example("flush.py", "/one", "/two"), "True True\nTrue False\n")
        self.assert_sound()
        volume = self.open()
        self.assertEqual((volume.exists("/one"), volume.exists("/two")), (True, False))

    def test_report_shows_the_log(self) -> None:
        self.assertEqual(self.run_example("report.py"), "Caf\u00e9\n")
        with kvfs.open(self.image, writable=True):
            self.assertEqual(self.refused("report.py"), "another program uses the volume\n")
        self.damage("signature", 0)
        self.assertEqual(
            self.refused("report.py"),
            "ERROR kvfs_volume_setup Invalid signature word for HFS+ volume: 0x0\n"
            "ERROR kvfs_volume_create Error while setting up HFS volume.\n"
            "result 1, there is no HFS Plus volume, or a lock failed\n",
        )

    def test_every_example_says_how_it_is_used(self) -> None:
        # The first steps are too short for that.
        for example in set(EXAMPLES.glob("*.py")) - {EXAMPLES / "first_steps.py"}:
            with self.subTest(example.name):
                done = run_python(str(example))
                self.assertEqual((done.returncode, done.stdout), (1, ""))
                self.assertIn(f"usage: {example.name} VOLUME".split(" VOLUME")[0], done.stderr)


def quotations() -> List[Tuple[str, str]]:
    """The pieces of Python in the guide, with the file that the line before names."""
    guide = (SOURCE / "docs" / "library.md").read_text(encoding="utf-8")
    return re.findall(r"^From `(examples/python/\w+\.py)`:\n\n```python\n(.*?)^```", guide, re.DOTALL | re.MULTILINE)


class Guide(unittest.TestCase):
    def test_every_piece_is_part_of_the_example_that_it_names(self) -> None:
        for file, code in quotations():
            with self.subTest(file):
                self.assertIn(code, (SOURCE / file).read_text(encoding="utf-8"))

    def test_every_example_is_shown(self) -> None:
        shown = {file for file, _ in quotations()}
        self.assertEqual(shown, {f"examples/python/{example.name}" for example in EXAMPLES.glob("*.py")})
