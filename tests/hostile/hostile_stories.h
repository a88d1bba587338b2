// Volumes made to hurt whoever opens them.

#ifndef KVFS_TEST_HOSTILE_STORIES_H
#define KVFS_TEST_HOSTILE_STORIES_H

#include <functional>
#include <string>
#include <vector>

#include "volume_builder.h"

namespace kvfs_test {

struct Story {
  const char* name;
  std::function<Volume()> volume;
  std::string label;
  std::string printing;  // how the messages of printing begin; "" when the label is printed
  std::string setting;   // the same for setting
};

std::vector<Story> stories();

}  // namespace kvfs_test

#endif  // KVFS_TEST_HOSTILE_STORIES_H
