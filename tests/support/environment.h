// Numbers that make a test longer or repeat it, from the environment.

#ifndef KVFS_ENVIRONMENT_H
#define KVFS_ENVIRONMENT_H

#include <cstdlib>

namespace kvfs_test {

inline unsigned long number_from(const char* variable, unsigned long otherwise) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? otherwise : std::strtoul(text, nullptr, 10);
}

}  // namespace kvfs_test

#endif  // KVFS_ENVIRONMENT_H
