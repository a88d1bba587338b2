// Sets the label of a volume and prints it while the volume stays open: set_and_print <image> <label>

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>

#include "device.h"
#include "label.h"
#include "volume.h"

static kvfs_result set_and_print(kvfs_device* device, const char* label) {
  kvfs_volume* volume = nullptr;
  kvfs_result result = kvfs_volume_create(device, 1, &volume);
  if (result != kvfs_ok) {
    return result;
  }
  result = kvfslabel_set_label(volume, label);
  if (result == kvfs_ok) {
    result = kvfslabel_print_label(volume);
  }
  kvfs_volume_destroy(&volume);
  return result;
}

int main(int argc, char** argv) {
  const int fd = argc == 3 ? open(argv[1], O_RDWR | O_CLOEXEC) : -1;
  kvfs_device* device = nullptr;
  if (fd == -1 || kvfs_device_create(fd, 0, 512, 0, &device) != kvfs_ok) {
    return EXIT_FAILURE;
  }
  const kvfs_result result = set_and_print(device, argv[2]);
  kvfs_device_destroy(&device);
  close(fd);
  return result == kvfs_ok ? EXIT_SUCCESS : EXIT_FAILURE;
}
