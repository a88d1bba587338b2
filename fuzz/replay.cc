// Runs a fuzzer's target on the files named, where there is no fuzzer: any compiler can replay what was found.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

static void replay(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
  std::printf("%s: %zu bytes\n", path.filename().c_str(), input.size());
  std::fflush(stdout);
  (void)LLVMFuzzerTestOneInput(input.data(), input.size());
}

// Each argument is a file or a folder of files.
int main(int argc, char** argv) {
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i])) {
      replay(argv[i]);
      ++replayed;
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      replay(entry.path());
      ++replayed;
    }
  }
  std::printf("%d inputs replayed\n", replayed);
  return replayed == 0 ? 1 : 0;
}
