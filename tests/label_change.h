// What setting a label may change on a volume, told from the bytes before and after.

#ifndef KVFS_LABEL_CHANGE_H
#define KVFS_LABEL_CHANGE_H

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "volume_checker.h"
#include "volume_image.h"

namespace kvfs_test {

// The catalog nodes that a set rewrites when every record finds room in its node: the header node, for the count of
// records; the first leaf; and all index nodes above it, since the root folder's record is the first one of each.
std::set<std::uint32_t> nodes_of_label(const Volume& volume);

// The transfers that bring these nodes of the catalog to the device: in the order of the fork, one for each node, or
// one for each part of a node that lies across extents.
std::vector<ByteRange> transfers_of_nodes(const Volume& volume, const std::set<std::uint32_t>& nodes);

// The nodes of the catalog that differ.
std::set<std::uint32_t> changed_nodes(const Volume& before, const Volume& after);

// Compares a volume with what it was before its label was set, and says what is wrong: findings of the checker that
// were not there before, bytes changed outside of the catalog file, a root folder or a thread that are not as they must
// be, any other record that was changed, added or lost. Empty when all is well.
std::string faults_of_change(const Volume& before, const Volume& after, const Name& label,
                             const CheckOptions& options = {});

// Bytes outside the blocks that the volume gives its catalog file and that differ; "" when there are none.
std::string changes_outside_catalog(const Volume& before, const SparseImage& after);

// Whether each unit of so many bytes of the catalog's nodes is either as it was or as the complete set leaves it, and
// nothing else has changed: "" when that is so. A set that is stopped while it writes leaves whole nodes, a transfer
// that falls short leaves a part of one.
std::string faults_of_partial_change(const Volume& before, const Volume& complete, const Volume& after,
                                     std::uint64_t unit);

}  // namespace kvfs_test

#endif  // KVFS_LABEL_CHANGE_H
