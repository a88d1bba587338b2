// The figures of a campaign.

#ifndef KVFS_TEST_CAMPAIGN_REPORT_H
#define KVFS_TEST_CAMPAIGN_REPORT_H

#include <cstddef>
#include <string>
#include <vector>

namespace kvfs_test {

// How many failures of a kind an operation met.
struct FailureCount {
  std::string kind;
  std::size_t failures;
};

// Prints how many failures of each kind an operation met, as a row of a table. With KVFS_CAMPAIGN_REPORT=FILE the row
// is appended to a file as well, an empty one first getting the head of the table; scripts/reliability-tables brings
// it into docs/reliability.md.
void report_failures(const std::string& operation, const std::vector<FailureCount>& counts);

}  // namespace kvfs_test

#endif  // KVFS_TEST_CAMPAIGN_REPORT_H
