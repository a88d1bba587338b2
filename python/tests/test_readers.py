"""What Python lists and reads, beside what independent readers do."""

import json
import lzma
import os
import pathlib
import re
import shutil

import kvfs
from support import VolumeTest, known_volumes, need_program, run

PIECES = (977, 4096, 65537, 1 << 22)


class Readers(VolumeTest):
    def read(self, volume: kvfs.Volume, item: kvfs.Item) -> bytes:
        with volume.open(item) as file:
            return b"".join(iter(lambda: file.read(PIECES[item.id % len(PIECES)]), b""))

    def assert_same_as_7z(self) -> int:
        """Every regular file that 7z extracts is there with the same bytes. Returns how many were compared."""
        folder = self.folder / "extracted"
        shutil.rmtree(folder, ignore_errors=True)
        run("7z", "x", "-y", "-thfs", f"-o{folder}", self.image, ok=False)
        count = 0
        with kvfs.open(self.image) as volume:
            for path in sorted(folder.rglob("*")):
                # It shows forks, attributes and private folders as files of their own, below the label, and "/" as "_".
                names = path.relative_to(folder).parts[1:]
                if not names or not path.is_file() or path.is_symlink() or re.search(":|HFS\\+ Private|either_or", str(path)):
                    continue
                item = volume.stat("/".join(names))
                if item.kind == kvfs.Kind.FILE:
                    self.assertEqual(self.read(volume, item), path.read_bytes(), path)
                    count += 1
        return count

    def assert_same_as_fls(self) -> int:
        """Every item that fls lists is there, files with the bytes that icat gives. Returns how many were compared."""
        listed = run("fls", "-r", "-p", "-f", "hfs", self.image, ok=False)
        if "Error finding thread node" in listed.stderr:
            return 0  # to fls the reference of a hard link is an ID, which it is not on every system
        ids = [int(found) for found in re.findall(r"^\S+ (\d+):", listed.stdout, re.MULTILINE)]
        with kvfs.open(self.image) as volume:
            walked = {item.id for _, item in volume.walk()}
            for item_id in ids:
                if item_id >= 16:  # below are its names for the special files
                    self.assertIn(item_id, walked)
            for item_id in ids[:40]:
                if item_id >= 16 and volume.item(item_id).kind == kvfs.Kind.FILE:
                    target = self.folder / "content"
                    run("sh", "-c", f"icat -f hfs '{self.image}' {item_id} >'{target}'")
                    self.assertEqual(self.read(volume, volume.item(item_id)), target.read_bytes())
        return len(ids)

    def test_sample_volume_reads_as_by_others(self) -> None:
        need_program("7z")
        need_program("fls")
        self.assertGreater(self.assert_same_as_7z(), 3)
        self.assertGreater(self.assert_same_as_fls(), 5)

    def test_volume_of_xorriso_reads_as_by_others(self) -> None:
        for program in ("xorriso", "7z", "fls"):
            need_program(program)
        source = self.folder / "source" / "Gr\u00f6\u00dfe" / "deep"
        source.mkdir(parents=True)
        for i in range(60):
            where = source if i % 2 else source.parent
            (where / f"\ud55c\uad6d {i}").write_bytes(os.urandom(i * 997))
        os.symlink("Gr\u00f6\u00dfe/deep", self.folder / "source" / "link")
        disk = str(self.folder / "disk")
        words = ["-as", "mkisofs", "-quiet", "-hfsplus", "-V", "X", "-o", disk, str(self.folder / "source")]
        run("env", "LC_ALL=C.UTF-8", "xorriso", *words)
        run(os.environ["KVFS_PYTHON_VOLUME"], "cut", disk, self.image)
        self.assertEqual(self.assert_same_as_7z(), 60)
        self.assert_same_as_fls()
        with kvfs.open(self.image) as volume:
            self.assertEqual(volume.readlink("link"), "Gr\u00f6\u00dfe/deep")

    def test_volumes_of_other_systems_read_as_by_others(self) -> None:
        packed = known_volumes()
        need_program("7z")
        need_program("fls")
        for path in packed:
            with self.subTest(path.name):
                pathlib.Path(self.image).write_bytes(lzma.decompress(path.read_bytes()))
                for known in json.loads((path.parent / "manifest.json").read_text(encoding="utf-8"))["volumes"]:
                    if known["file"] == path.name:
                        with kvfs.open(self.image) as volume:
                            self.assertEqual(volume.label, known["label_composed"])
                            self.assertEqual(volume.raw_label, known["label_raw"])
                self.assert_same_as_7z()
                self.assert_same_as_fls()
