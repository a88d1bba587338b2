#include "report.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace kvfs_test {

static std::string head_of_table(const std::vector<FailureCount>& counts) {
  std::string names = "| operation |";
  std::string line = "|---|";
  for (const FailureCount& count : counts) {
    names += " " + count.kind + " |";
    line += "---|";
  }
  return names + "\n" + line + "\n";
}

void report_failures(const std::string& operation, const std::vector<FailureCount>& counts) {
  std::string row = "| `" + operation + "` |";
  for (const FailureCount& count : counts) {
    row += " " + std::to_string(count.failures) + " |";
  }
  std::puts(row.c_str());
  if (const char* const path = std::getenv("KVFS_CAMPAIGN_REPORT")) {
    std::ofstream file(path, std::ios::app | std::ios::ate);
    file << (file.tellp() == 0 ? head_of_table(counts) : "") << row << "\n";
    ASSERT_TRUE(file.good());
  }
}

}  // namespace kvfs_test
