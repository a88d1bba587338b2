// A program outside of the tree, built with what is installed: prints the label of a volume.

#include <fcntl.h>
#include <kvfs/device.h>
#include <kvfs/unicode.h>
#include <kvfs/volume.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

static void print_label(const kvfs_volume* volume) {
  std::uint16_t units[255];
  for (std::uint32_t i = 0; i < *volume->label_length; ++i) {
    units[i] = volume->label[i].get();
  }
  char* text = nullptr;
  std::size_t length = 0;
  if (kvfs_unicode_unistr_to_utf8(units, *volume->label_length, kUnicodeHostOrder, &text, &length) == kvfs_ok) {
    std::puts(text);
    std::free(text);
  }
}

int main(int argc, char** argv) {
  const int fd = argc == 2 ? open(argv[1], O_RDONLY) : -1;
  kvfs_device* device = nullptr;
  if (fd < 0 || kvfs_device_create(fd, 1, 512, 0, &device) != kvfs_ok) {
    return EXIT_FAILURE;
  }
  kvfs_volume* volume = nullptr;
  const kvfs_result opened = kvfs_volume_create(device, 1, &volume);
  if (opened == kvfs_ok) {
    print_label(volume);
    kvfs_volume_destroy(&volume);
  }
  kvfs_device_destroy(&device);
  close(fd);
  return opened == kvfs_ok ? EXIT_SUCCESS : EXIT_FAILURE;
}
