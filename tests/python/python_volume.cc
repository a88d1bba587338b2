// What the tests of the Python package need of the volume builder and the volume checker.
//
//   python_volume make FILE            the volume that most of them use, which python/tests/support.py describes
//   python_volume check FILE           prints what the checker finds
//   python_volume damage FILE FIELD N  gives a field, as volume_image.h names them, another value
//   python_volume cut DISK FILE        the volume on a disk with a partition map

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "volume_builder.h"
#include "volume_checker.h"

namespace {

using kvfs_test::Bytes;
using kvfs_test::kRootFolderId;
using kvfs_test::SparseImage;
using kvfs_test::Volume;

Bytes bytes_of(const std::string& text) {
  return {text.begin(), text.end()};
}

// Bytes that tell where they stand, over more than a block.
Bytes pattern(std::size_t size) {
  Bytes bytes(size);
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<std::uint8_t>(i * 31 + i / 251);
  }
  return bytes;
}

Volume sample_volume() {
  kvfs_test::VolumeDescription description;
  description.set_label("Caf\u00E9");
  const std::uint32_t documents = description.add_folder(kRootFolderId, u"Documents");
  (void)description.add_folder(kRootFolderId, u"empty");
  const std::uint32_t text = description.add_file_with(documents, u"a.txt", bytes_of("Hello from here\n"));
  description.item(text).file_type = 0x54455854;  // TEXT
  description.item(text).creator = 0x74747874;    // ttxt
  description.item(text).finder_flags = 0x4000;
  const std::uint32_t big = description.add_file(documents, u"big");
  description.item(big).data = {300000, pattern(300000), 20, 1, 0};
  description.item(big).resource = {5000, pattern(5000), 2, 1, 0};
  (void)description.add_file(documents, u"either/or", 3);
  (void)description.add_symlink(documents, u"link", "a.txt");
  const std::uint32_t shared = description.add_inode();
  description.item(shared).data = {6, bytes_of("shared"), 1, 1, 0};
  (void)description.add_hard_link(documents, u"hard", shared);
  // It keeps the extents overflow file from becoming empty with the other one's deletion.
  (void)description.add_file(documents, u"more", 40960, 10);
  const std::uint32_t sub = description.add_folder(documents, u"sub");
  (void)description.add_file(sub, kvfs_test::decomposed("r\u00E9sum\u00E9"));
  return build_volume(description);
}

int run(const std::vector<std::string>& words) {
  const std::string& verb = words.at(0);
  if (verb == "make") {
    sample_volume().write_to(words.at(1));
  } else if (verb == "check") {
    std::fputs(kvfs_test::joined(check_volume(Volume::load(words.at(1)))).c_str(), stdout);
  } else if (verb == "damage") {
    Volume volume = Volume::load(words.at(1));
    volume.set_field(words.at(2), std::stoull(words.at(3)));
    volume.write_to(words.at(1));
  } else if (verb == "cut") {
    kvfs_test::cut_out_partition(SparseImage::load(words.at(1))).write_to(words.at(2));
  } else {
    return 2;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(std::vector<std::string>(argv + 1, argv + argc));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "python_volume: %s\n", error.what());
    return 1;
  }
}
