// The figures of a campaign.

#ifndef KVFS_TEST_CAMPAIGN_REPORT_H
#define KVFS_TEST_CAMPAIGN_REPORT_H

#include <cstddef>
#include <string>
#include <vector>

namespace kvfs_test {

// Prints how many failures of each kind an operation met, as a row of a table. With KVFS_CAMPAIGN_REPORT=FILE the row
// is appended to a file as well.
void report_failures(const std::string& operation, const std::vector<std::size_t>& counts);

}  // namespace kvfs_test

#endif  // KVFS_TEST_CAMPAIGN_REPORT_H
