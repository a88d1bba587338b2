// Makes HFS Plus volumes from the shell, for demonstrations and for trying the tool on.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "volume_builder.h"
#include "volume_checker.h"

namespace {

using kvfs_test::VolumeDescription;

struct Options {
  VolumeDescription description;
  std::uint32_t files = 0;
  std::uint32_t folders = 0;
  std::uint32_t overflow_records = 0;
  std::optional<std::string> readme;
  std::string path;
  bool help = false;
};

struct Option {
  std::string_view name;
  std::string_view argument;  // empty: takes none
  std::string_view help;
  std::function<void(Options&, const std::string&)> apply;
};

std::uint64_t suffix_factor(std::string_view suffix) {
  constexpr std::string_view kSuffixes = "KMGT";
  if (suffix.empty()) {
    return 1;
  }
  const std::size_t at = kSuffixes.find(suffix);
  if (suffix.size() != 1 || at == std::string_view::npos) {
    throw std::invalid_argument("a number may end in K, M, G or T only");
  }
  return std::uint64_t{1} << (10 * (at + 1));
}

std::uint64_t to_number(const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(text.c_str(), &end, 0);
  if (end == text.c_str() || text[0] == '-' || errno != 0) {
    throw std::invalid_argument("not a number: " + text);
  }
  const std::uint64_t factor = suffix_factor(end);
  if (value > ~std::uint64_t{0} / factor) {
    throw std::invalid_argument("too large: " + text);
  }
  return value * factor;
}

std::uint32_t to_u32(const std::string& text) {
  const std::uint64_t value = to_number(text);
  if (value > 0xFFFFFFFFU) {
    throw std::invalid_argument("too large: " + text);
  }
  return static_cast<std::uint32_t>(value);
}

std::uint16_t to_u16(const std::string& text) {
  const std::uint32_t value = to_u32(text);
  if (value > 0xFFFF) {
    throw std::invalid_argument("too large: " + text);
  }
  return static_cast<std::uint16_t>(value);
}

const std::vector<Option>& options_table() {
  static const std::vector<Option> table = {
      {"--label", "TEXT", "name of the volume, stored decomposed (Untitled)",
       [](Options& o, const std::string& v) { o.description.set_label(v); }},
      {"--verbatim-label", "TEXT", "name of the volume, stored as it is given",
       [](Options& o, const std::string& v) { o.description.set_label_verbatim(v); }},
      {"--size", "BYTES", "size of the device; holes take no space (as small as possible)",
       [](Options& o, const std::string& v) { o.description.size = to_number(v); }},
      {"--spare-blocks", "N", "free blocks when no size is given (64)",
       [](Options& o, const std::string& v) { o.description.spare_blocks = to_u32(v); }},
      {"--block-size", "BYTES", "allocation block size, 512 to 65536 (4096)",
       [](Options& o, const std::string& v) { o.description.block_size = to_u32(v); }},
      {"--node-size", "BYTES", "node size of the catalog, 512 to 32768 (4096)",
       [](Options& o, const std::string& v) { o.description.catalog.node_size = to_u32(v); }},
      {"--extents-node-size", "BYTES", "node size of the extents overflow file (4096)",
       [](Options& o, const std::string& v) { o.description.extents.node_size = to_u32(v); }},
      {"--hfsx", "", "an HFSX volume", [](Options& o, const std::string&) { o.description.hfsx = true; }},
      {"--case-sensitive", "", "names differ by case (implies --hfsx)",
       [](Options& o, const std::string&) { o.description.hfsx = o.description.case_sensitive = true; }},
      {"--files", "N", "so many empty files in the root folder",
       [](Options& o, const std::string& v) { o.files = to_u32(v); }},
      {"--folders", "N", "so many empty folders in the root folder",
       [](Options& o, const std::string& v) { o.folders = to_u32(v); }},
      {"--readme", "TEXT", "a file README with this text in the root folder",
       [](Options& o, const std::string& v) { o.readme = v; }},
      {"--fragments", "N", "extents of the catalog file (1)",
       [](Options& o, const std::string& v) { o.description.catalog.extent_count = to_u32(v); }},
      {"--overflow-records", "N", "so many extents overflow records of one file",
       [](Options& o, const std::string& v) { o.overflow_records = to_u32(v); }},
      {"--height", "N", "height of the catalog's B-tree",
       [](Options& o, const std::string& v) { o.description.catalog.height = to_u16(v); }},
      {"--free-nodes", "N", "free nodes in the catalog (8 or more)",
       [](Options& o, const std::string& v) { o.description.catalog.spare_nodes = to_u32(v); }},
      {"--help", "", "show this text", [](Options& o, const std::string&) { o.help = true; }},
  };
  return table;
}

void print_help() {
  std::puts("usage: make_volume [options] FILE\n\nMakes an HFS Plus volume in FILE.\n");
  for (const Option& option : options_table()) {
    const std::string left = std::string(option.name) + " " + std::string(option.argument);
    std::printf("  %-28s%s\n", left.c_str(), std::string(option.help).c_str());
  }
  std::puts("\nNumbers may end in K, M, G or T. \"--option=value\" works like \"--option value\".");
}

const Option& find_option(const std::string& name) {
  for (const Option& option : options_table()) {
    if (option.name == name) {
      return option;
    }
  }
  throw std::invalid_argument("unknown option " + name);
}

// Takes one option off the front of the arguments and applies it.
void take_option(Options& options, std::vector<std::string>& arguments) {
  std::string name = arguments.front();
  arguments.erase(arguments.begin());
  std::optional<std::string> value;
  if (const std::size_t equals = name.find('='); equals != std::string::npos) {
    value = name.substr(equals + 1);
    name.resize(equals);
  }
  const Option& option = find_option(name);
  if (option.argument.empty() && value) {
    throw std::invalid_argument(name + " takes no value");
  }
  if (!option.argument.empty() && !value) {
    if (arguments.empty()) {
      throw std::invalid_argument(name + " needs a value");
    }
    value = arguments.front();
    arguments.erase(arguments.begin());
  }
  option.apply(options, value.value_or(""));
}

Options parse(std::vector<std::string> arguments) {
  Options options;
  while (!arguments.empty() && !options.help) {
    if (arguments.front().compare(0, 2, "--") == 0) {
      take_option(options, arguments);
    } else if (options.path.empty()) {
      options.path = arguments.front();
      arguments.erase(arguments.begin());
    } else {
      throw std::invalid_argument("more than one file");
    }
  }
  if (options.path.empty() && !options.help) {
    throw std::invalid_argument("no file given; see --help");
  }
  return options;
}

void make(Options& options) {
  VolumeDescription& description = options.description;
  (void)description.add_folders(kvfs_test::kRootFolderId, options.folders);
  (void)description.add_files(kvfs_test::kRootFolderId, options.files);
  if (options.readme) {
    (void)description.add_file_with(kvfs_test::kRootFolderId, u"README",
                                    {options.readme->begin(), options.readme->end()});
  }
  if (options.overflow_records != 0) {
    (void)description.add_overflow_records(options.overflow_records);
  }
  const kvfs_test::Volume volume = build_volume(description);
  const std::vector<std::string> findings = check_volume(volume);
  if (!findings.empty()) {
    throw std::runtime_error("the volume made is not sound:\n" + kvfs_test::joined(findings));
  }
  volume.write_to(options.path);
  std::printf("%s: %s volume \"%s\", %llu bytes, %llu-byte blocks, %llu files, %llu folders, catalog height %llu\n",
              options.path.c_str(), description.hfsx ? "HFSX" : "HFS Plus",
              kvfs_test::to_utf8(description.label).c_str(), static_cast<unsigned long long>(volume.size()),
              static_cast<unsigned long long>(volume.block_size()),
              static_cast<unsigned long long>(volume.get_field("fileCount")),
              static_cast<unsigned long long>(volume.get_field("folderCount")),
              static_cast<unsigned long long>(volume.get_field("catalog.header.treeDepth")));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    Options options = parse(std::vector<std::string>(argv + 1, argv + argc));
    if (options.help) {
      print_help();
    } else {
      make(options);
    }
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "make_volume: %s\n", error.what());
    return 1;
  }
}
