// Bringing changes to the device, in an order that a loss of power cannot make worse: see kvfs_session_flush.

#include "bitmap.h"
#include "btree.h"
#include "extents.h"
#include "fork.h"
#include "session/private.h"
#include "unix/system.h"
#include "volume.h"

// One part of a volume, as it is in memory.
using flush_part = kvfs_result (*)(kvfs_volume* volume);

static kvfs_result flush_allocation(kvfs_volume* volume) {
  return kvfs_bitmap_flush(volume->bitmap);
}
static kvfs_result flush_catalog(kvfs_volume* volume) {
  return kvfs_fork_flush((*volume->catalog->btree)->fork);
}
static kvfs_result flush_extents(kvfs_volume* volume) {
  return kvfs_fork_flush(volume->extents->btree->fork);
}

// Writes a part that has changed, which it has not any more then.
static kvfs_result flush_changed(kvfs_session* session, bool* changed, flush_part flush, bool to_device) {
  if (!*changed) {
    return kvfs_ok;
  }
  kvfs_result result = flush(session->volume);
  if (result == kvfs_ok && to_device) {
    result = kvfs_system_sync(session->fd);
  }
  if (result == kvfs_ok) {
    *changed = false;
  }
  return result;
}

// Frees the blocks of deleted files in memory. What is cleared before a failure is counted, for no other flush will.
static kvfs_result free_blocks(kvfs_session* session) {
  while (session->freed_count != 0) {
    kvfs_block_run* const run = &session->freed[session->freed_count - 1];
    std::uint32_t cleared = 0;
    session->changes.allocation = true;
    session->changes.header = true;
    const kvfs_result result = kvfs_session_clear_piece(session, run, &cleared);
    if (result != kvfs_ok) {
      return result;
    }
    kvfs_volume_add_free_blocks(session->volume, cleared);
    session->freed_count -= run->count == 0 ? 1 : 0;
  }
  return kvfs_ok;
}

static kvfs_result flush_steps(kvfs_session* session, bool to_device) {
  kvfs_session_changes* const changes = &session->changes;
  kvfs_result result = flush_changed(session, &changes->allocation, flush_allocation, to_device);
  if (result == kvfs_ok) {
    result = flush_changed(session, &changes->ids, kvfs_volume_flush, to_device);
  }
  if (result == kvfs_ok) {
    result = flush_changed(session, &changes->catalog, flush_catalog, to_device);
  }
  if (result == kvfs_ok) {
    result = flush_changed(session, &changes->extents, flush_extents, to_device);
  }
  if (result == kvfs_ok) {
    result = free_blocks(session);
  }
  if (result == kvfs_ok) {
    result = flush_changed(session, &changes->allocation, flush_allocation, to_device);
  }
  if (result == kvfs_ok) {
    result = flush_changed(session, &changes->header, kvfs_volume_flush, to_device);
  }
  return result;
}

static kvfs_result flush(kvfs_session* session, bool to_device) {
  if ((session->flags & KVFS_OPEN_WRITE) == 0) {
    return kvfs_ok;
  }
  if (session->spoiled) {
    return kvfs_spoiled;
  }
  if (session->changes.catalog) {
    const kvfs_result checked = kvfs_session_check_catalog(session);
    if (checked != kvfs_ok) {
      session->spoiled = checked == kvfs_inconsistent;
      return checked;
    }
  }
  const kvfs_result result = flush_steps(session, to_device);
  // What an earlier flush has left to the system is wanted on the device, too.
  return result == kvfs_ok && to_device ? kvfs_system_sync(session->fd) : result;
}

uint64_t kvfs_session_flush(kvfs_session* session, uint32_t flags) {
  if (session == nullptr || (flags & ~KVFS_FLUSH_DEVICE) != 0) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(session, [=] { return flush(session, (flags & KVFS_FLUSH_DEVICE) != 0); });
}
