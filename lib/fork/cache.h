// The items of a fork's cache: one MiB of the fork each, made when it is first touched.

#ifndef KVFS_FORK_CACHE_H
#define KVFS_FORK_CACHE_H

#include <cstdint>

#include "fork.h"
#include "fork/private.h"
#include "result.h"

namespace kvfs::fork {

// Frees what a private part holds, complete or not, in the reverse order of its making.
void free_private(kvfs_fork_private* priv);

// Creates the item of a slot that is still empty. There is none behind the last slot (X-fork-3).
kvfs_result ensure_item(const char* speaker, kvfs_fork* fork, std::uint64_t index);

// A block has to fit an item. A transfer unit comes from disk, and nothing has tested it before the first access
// (X-fork-2).
kvfs_result check_transfer_unit(const char* speaker, const kvfs_fork* fork);

}  // namespace kvfs::fork

#endif  // KVFS_FORK_CACHE_H
