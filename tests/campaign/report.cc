#include "report.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

namespace kvfs_test {

void report_failures(const std::string& operation, const std::vector<std::size_t>& counts) {
  std::string row = "| " + operation + " |";
  for (const std::size_t count : counts) {
    row += " " + std::to_string(count) + " |";
  }
  std::puts(row.c_str());
  if (const char* const path = std::getenv("KVFS_CAMPAIGN_REPORT")) {
    std::FILE* const file = std::fopen(path, "a");
    ASSERT_NE(file, nullptr);
    std::fprintf(file, "%s\n", row.c_str());
    std::fclose(file);
  }
}

}  // namespace kvfs_test
