// kvfslabel: prints or sets the label of an HFS Plus volume that is not mounted.

#include <fcntl.h>
#include <mntent.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "catalog.h"
#include "device.h"
#include "label.h"
#include "volume.h"

static const char kToolName[] = "kvfslabel";
static const char kToolVersion[] = "3014.8.10";

static const char kOutputModeOption[] = "--output-mode=";
static const char kMountTable[] = "/proc/mounts";

static constexpr std::uint32_t kSectorSize = 512;

// ---- Arguments -----------------------------------------------------------------------------------------------------

namespace {

// What the command line asks for. Without a device it was not understood.
struct arguments {
  const char* device;
  const char* new_label;  // null to print the label
};

}  // namespace

// By the tool's own name, whatever it was called by (Q-tool-2).
static void kvfslabel_usage() {
  std::fprintf(stderr, "%s %s\n", kToolName, kToolVersion);
  std::fprintf(stderr, "usage: %s [--output-mode=<raw|composed>] <device> [<new label>]\n", kToolName);
}

// Sets the output mode by the name that an option gives; false when there is no such mode.
static bool set_output_mode(const char* name) {
  if (std::strcmp(name, "raw") == 0) {
    output_mode = kOutputRaw;
    return true;
  }
  if (std::strcmp(name, "composed") == 0) {
    output_mode = kOutputComposed;
    return true;
  }
  return false;
}

// Reads the command line. Only its first argument can be the option; whatever else it begins with, it is the device
// (Q-tool-1).
static arguments parse_arguments(int argc, char* const* argv) {
  constexpr arguments kNotUnderstood = {nullptr, nullptr};
  constexpr std::size_t kOptionLength = sizeof(kOutputModeOption) - 1;
  if (argc < 2 || argc > 4) {
    return kNotUnderstood;
  }
  output_mode = kOutputComposed;
  int index = 1;
  if (std::strncmp(argv[index], kOutputModeOption, kOptionLength) == 0) {
    if (!set_output_mode(argv[index] + kOptionLength)) {
      return kNotUnderstood;
    }
    ++index;
  }
  arguments parsed = kNotUnderstood;
  if (index < argc) {
    parsed.device = argv[index++];
  }
  if (index < argc) {
    parsed.new_label = argv[index++];
  }
  return index == argc ? parsed : kNotUnderstood;
}

// ---- The mount table -----------------------------------------------------------------------------------------------

static bool is_octal_digit(char c) {
  return c >= '0' && c <= '7';
}

// Reads one character of a mount table field, in which blanks, backslashes and more stand as three octal digits.
static char next_decoded(const char** field) {
  const char* const f = *field;
  if (f[0] == '\\' && is_octal_digit(f[1]) && is_octal_digit(f[2]) && is_octal_digit(f[3])) {
    *field = f + 4;
    return static_cast<char>((f[1] - '0') * 64 + (f[2] - '0') * 8 + (f[3] - '0'));
  }
  *field = f + 1;
  return f[0];
}

// Compares a field, as the table has it, with a path.
static bool names_device(const char* field, const char* path) {
  while (*field != '\0' && *path != '\0') {
    if (next_decoded(&field) != *path++) {
      return false;
    }
  }
  return *field == *path;
}

// Reads the text of the table for a device.
static bool text_lists_device(std::FILE* table, const char* path) {
  static char field[16384];  // the longest path, every character of it escaped
  std::rewind(table);
  while (std::fscanf(table, " %16383[^ \n]%*[^\n]", field) > 0) {
    if (names_device(field, path)) {
      return true;
    }
  }
  return false;
}

// Whether the table lists a device. Some C libraries decode its fields and some do not, which cannot be told from a
// field. Where one has a backslash, the text is looked at as well: there a name is decoded once, and no device hides
// another (X-tool-1).
static bool lists_device(std::FILE* table, const char* path) {
  bool escaped = false;
  for (const mntent* entry = getmntent(table); entry != nullptr; entry = getmntent(table)) {
    if (std::strcmp(entry->mnt_fsname, path) == 0) {
      return true;
    }
    escaped = escaped || std::strchr(entry->mnt_fsname, '\\') != nullptr;
  }
  return escaped && text_lists_device(table, path);
}

// Refuses a device that the mount table lists under exactly this path (Q-tool-3); says why and returns false.
static bool check_not_mounted(const char* path) {
  std::FILE* const table = fopen64(kMountTable, "r");
  if (table == nullptr) {
    const int error = errno;
    std::fprintf(stderr, "Error while opening /proc/mounts for reading: %s (%d)\n", std::strerror(error), error);
    return false;
  }
  static char buffer[4096];  // a table is read in fewer pieces than with the stream's own one
  (void)std::setvbuf(table, buffer, _IOFBF, sizeof(buffer));
  const bool mounted = lists_device(table, path);
  std::fclose(table);
  if (mounted) {
    std::fputs("Refusing to open mounted file system.\n", stderr);
  }
  return !mounted;
}

// ---- The device file -----------------------------------------------------------------------------------------------

// Opens a file away from the descriptors of the standard streams. Where one of these was closed, the file would take
// its place, and messages would be written over the volume (X-tool-2). Returns the descriptor, or -1.
static int open_device_file(const char* path, int flags) {
  const int fd = open64(path, flags);
  if (fd == -1 || fd > STDERR_FILENO) {
    return fd;
  }
  const int moved = fcntl(fd, F_DUPFD, STDERR_FILENO + 1);
  (void)close(fd);
  return moved;
}

// ---- The run -------------------------------------------------------------------------------------------------------

// Works on the volume of an open device.
static kvfs_result run_on_device(kvfs_device* device, const arguments& asked, const char* mode) {
  kvfs_catalog_search_result found;
  kvfs_catalog_search_result_init(&found);  // nothing in the run fills it
  kvfs_volume* volume = nullptr;
  // Neither printing nor setting allocates blocks, so that the allocation file stays unopened.
  kvfs_result result = kvfs_volume_create(device, 1, &volume);
  if (result != kvfs_ok) {
    std::fprintf(stderr, "Error while opening volume in read%s mode.\n", mode);
  } else if (asked.new_label != nullptr) {
    result = kvfslabel_set_label(volume, asked.new_label);
  } else {
    result = kvfslabel_print_label(volume);
  }
  kvfs_catalog_search_result_release(&found);
  if (volume != nullptr) {
    kvfs_volume_destroy(&volume);
  }
  return result;
}

// Works on an open file.
static kvfs_result run_on_file(int fd, const arguments& asked, const char* mode) {
  kvfs_device* device = nullptr;
  kvfs_result result = kvfs_device_create(fd, asked.new_label == nullptr ? 1 : 0, kSectorSize, 0, &device);
  if (result != kvfs_ok) {
    std::fprintf(stderr, "Error while opening device in read%s mode.\n", mode);
    return result;
  }
  result = run_on_device(device, asked, mode);
  kvfs_device_destroy(&device);
  return result;
}

int main(int argc, char** argv) {
  const arguments asked = parse_arguments(argc, argv);
  if (asked.device == nullptr) {
    kvfslabel_usage();
    return EXIT_FAILURE;
  }
  if (!check_not_mounted(asked.device)) {
    return EXIT_FAILURE;
  }
  const bool reading = asked.new_label == nullptr;
  const char* const mode = reading ? "" : "/write";
  const int fd = open_device_file(asked.device, reading ? O_RDONLY : O_RDWR);
  if (fd == -1) {
    // The three messages that name the mode speak of volume, device and volume in turn: Q-tool-4.
    std::fprintf(stderr, "Error while opening HFS+ volume in read%s mode.\n", mode);
    return EXIT_FAILURE;
  }
  const kvfs_result result = run_on_file(fd, asked, mode);
  (void)close(fd);  // what was written is on its way, and nothing is left to be undone
  return result == kvfs_ok ? EXIT_SUCCESS : EXIT_FAILURE;
}
