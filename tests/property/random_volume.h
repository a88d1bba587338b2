// Random volumes for sessions: every shape of catalog, files in pieces, hard links.

#ifndef KVFS_RANDOM_VOLUME_H
#define KVFS_RANDOM_VOLUME_H

#include <cstdint>
#include <string>

#include "property/random.h"
#include "volume_builder.h"

namespace kvfs_test {

// A text of `most` units at most when it is decomposed, as it is given to the library.
std::string random_text(Random& random, std::uint32_t most);

// Units of the longest names with which nodes of this size can be divided.
std::uint32_t longest_name(std::uint32_t node_size);

// A description that can be built, whose files have all of their bytes in it.
VolumeDescription random_description(Random& random);

}  // namespace kvfs_test

#endif  // KVFS_RANDOM_VOLUME_H
