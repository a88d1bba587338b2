// Deleting files and folders.
//
// The catalog's deletion frees blocks in its own way: those of the data fork's eight extents, at once, and into another
// byte than their own (Q-catalog-17, Q-bitmap-1). So a file gives all its blocks up before it is deleted, and they are
// freed here, with the flush that makes the deletion known: until then the device has them in use.

#include <cstdlib>

#include "bitmap.h"
#include "btree.h"
#include "extents.h"
#include "fork.h"
#include "fork/private.h"
#include "session/private.h"
#include "volume.h"

// ---- Blocks --------------------------------------------------------------------------------------------------------

// Notes blocks that the next flush is to free.
static kvfs_result add_freed(kvfs_session* session, kvfs_block_run run) {
  const std::size_t size = (std::size_t{session->freed_count} + 1) * sizeof(kvfs_block_run);
  void* const grown = std::realloc(session->freed, size);
  if (grown == nullptr) {
    KVFS_ERROR_AS(kvfs_session_delete, "Error while allocating %zu bytes for blocks to free.\n", size);
    return kvfs_no_memory;
  }
  session->freed = static_cast<kvfs_block_run*>(grown);
  session->freed[session->freed_count++] = run;
  return kvfs_ok;
}

static kvfs_result check_run(kvfs_session* session, std::uint32_t id, kvfs_block_run run) {
  const HFSPlusVolumeHeader& header = *session->volume->header;
  bool in_use = false;
  kvfs_result result = kvfs_ok;
  if (run.first > header.totalBlocks.get() || run.count > header.totalBlocks.get() - run.first) {
    result = kvfs_inconsistent;
  } else {
    result = kvfs_session_run_in_use(session, run, &in_use);
  }
  if (result == kvfs_inconsistent || (result == kvfs_ok && !in_use)) {
    KVFS_ERROR_AS(kvfs_session_delete, "Blocks %lu and %lu behind it cannot be those of file %lu.\n", to_ul(run.first),
                  to_ul(run.count), to_ul(id));
    return kvfs_inconsistent;
  }
  return result;
}

// Checks the blocks of a fork and notes them.
static kvfs_result collect_fork(kvfs_session* session, const HFSPlusCatalogFile* file, std::uint8_t fork_type) {
  kvfs_session_fork fork;
  kvfs_result result = kvfs_session_open_fork(session, file, fork_type, &fork);
  if (result != kvfs_ok) {
    return result;
  }
  const kvfs_session_extents extents = {fork.fork->priv->fork_extents, fork.fork->priv->fork_extents_count};
  for (std::uint32_t i = 0; i < extents.count && result == kvfs_ok; ++i) {
    const kvfs_block_run run = {extents.array[i].startBlock.get(), extents.array[i].blockCount.get()};
    result = check_run(session, file->fileID.get(), run);
    if (result == kvfs_ok) {
      result = add_freed(session, run);
    }
  }
  if (result == kvfs_ok) {
    result = kvfs_session_check_unreserved(session, {KVFS_NAME_OF(kvfs_session_delete), file->fileID.get(), extents});
  }
  kvfs_session_close_fork(&fork);
  return result;
}

// ---- Overflow records ----------------------------------------------------------------------------------------------

// What is done with each overflow record of a file.
using overflow_visit = kvfs_result (*)(kvfs_btree* tree, kvfs_btree_record_locator* record, void* context);

// Adds the blocks of extents up to the first without any: what stands behind it belongs to no file.
static std::uint64_t blocks_in_use(const HFSPlusExtentRecord& record) {
  std::uint64_t blocks = 0;
  for (const HFSPlusExtentDescriptor& extent : record.extents) {
    if (extent.blockCount.get() == 0) {
      break;
    }
    blocks += extent.blockCount.get();
  }
  return blocks;
}

// Visits the overflow record that begins at a block of a fork, and copies it before.
static kvfs_result visit_record(kvfs_extents* extents, std::uint32_t id, std::uint8_t fork_type, std::uint32_t start,
                                overflow_visit visit, void* context, HFSPlusExtentRecord* record) {
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  kvfs_result result = kvfs_session_blame_volume(kvfs_extents_search(extents, fork_type, id, start, &found));
  if (result == kvfs_ok && (found.found == 0 || found.locator->data_size < sizeof(*record))) {
    result = kvfs_inconsistent;
  }
  if (result == kvfs_ok) {
    *record = *kvfs_view_as<HFSPlusExtentRecord>(found.locator->data);
    result = visit(extents->btree, found.locator, context);
  }
  kvfs_btree_search_result_release(&found);
  return result;
}

// Visits the overflow records of one fork, of which each was found before. One that adds no blocks would be found again
// and again (X-session-3).
static kvfs_result visit_fork_overflow(kvfs_session* session, std::uint32_t id, std::uint8_t fork_type,
                                       const HFSPlusForkData& data, overflow_visit visit, void* context) {
  HFSPlusExtentRecord record = data.extents;
  std::uint64_t start = blocks_in_use(record);
  while (start < data.totalBlocks.get()) {
    const kvfs_result result = visit_record(session->volume->extents, id, fork_type, static_cast<std::uint32_t>(start),
                                            visit, context, &record);
    if (result != kvfs_ok) {
      return result;
    }
    const std::uint64_t added = blocks_in_use(record);
    if (added == 0) {
      return kvfs_inconsistent;
    }
    start += added;
  }
  return kvfs_ok;
}

static kvfs_result visit_overflow(kvfs_session* session, const HFSPlusCatalogFile& file, overflow_visit visit,
                                  void* context) {
  const std::uint32_t id = file.fileID.get();
  const kvfs_result result = visit_fork_overflow(session, id, kHFSDataForkType, file.dataFork, visit, context);
  return result == kvfs_ok ? visit_fork_overflow(session, id, kHFSResourceForkType, file.resourceFork, visit, context)
                           : result;
}

namespace {

struct overflow_count {
  std::uint32_t records;
  std::uint16_t fewest_in_node;  // records of the emptiest node that has one of them
};

}  // namespace

static kvfs_result count_record(kvfs_btree* tree, kvfs_btree_record_locator* record, void* context) {
  overflow_count* const count = static_cast<overflow_count*>(context);
  std::uint16_t in_node = 0;
  const kvfs_result result = kvfs_session_records_in_node(tree, *record->node, &in_node);
  ++count->records;
  if (in_node < count->fewest_in_node) {
    count->fewest_in_node = in_node;
  }
  return result == kvfs_ok ? kvfs_session_check_index(tree, record, nullptr) : result;
}

static kvfs_result delete_record(kvfs_btree* tree, kvfs_btree_record_locator* record, void* /*context*/) {
  return kvfs_btree_delete_record(tree, record, 0);
}

// Whether the overflow file keeps records in all of its nodes without those of a file, and its index can follow.
static kvfs_result check_overflow(kvfs_session* session, const HFSPlusCatalogFile& file, bool* has_records) {
  overflow_count count = {0, UINT16_MAX};
  const kvfs_result result = visit_overflow(session, file, count_record, &count);
  *has_records = count.records != 0;
  if (result == kvfs_ok && count.records >= count.fewest_in_node) {
    KVFS_ERROR_AS(kvfs_session_delete, "Without file %lu a node of the extents overflow file would have no records.\n",
                  to_ul(file.fileID.get()));
    return kvfs_limit;
  }
  return result;
}

// ---- Deleting ------------------------------------------------------------------------------------------------------

// Takes the blocks from a file's record, and the file from the catalog.
static kvfs_result remove_item(kvfs_session* session, kvfs_session_found* item) {
  kvfs_result result = kvfs_ok;
  if (item->file() != nullptr) {
    HFSPlusCatalogFile file = *item->file();
    file.dataFork = {};
    file.resourceFork = {};
    result = kvfs_btree_record_locator_write_data(item->locator()->btree_locator, &file, sizeof(file));
  }
  if (result == kvfs_ok) {
    result = kvfs_session_expect_removal(session, *item);
  }
  return result == kvfs_ok ? kvfs_catalog_delete(session->volume->catalog, session->volume, item->locator()) : result;
}

// Deletes an item for which everything was looked at.
static kvfs_result delete_item(kvfs_session* session, kvfs_session_found* item, bool has_overflow) {
  constexpr int kRecords = 2;
  kvfs_session_valence folder = {};
  kvfs_result result = kvfs_session_get_valence(session, item->key()->parentID.get(), &folder);
  if (result != kvfs_ok) {
    return result;  // nothing has changed
  }
  const bool is_file = item->file() != nullptr;
  const HFSPlusCatalogFile file = is_file ? *item->file() : HFSPlusCatalogFile{};
  result = remove_item(session, item);
  item->release();
  session->changes.header = true;
  if (result == kvfs_ok && has_overflow) {
    session->changes.extents = true;
    result = visit_overflow(session, file, delete_record, nullptr);
  }
  if (result == kvfs_ok) {
    result = kvfs_session_check_valence(session, folder, -1);
  }
  return kvfs_session_end_change(session, result, -kRecords);
}

static kvfs_result delete_folder(kvfs_session* session, kvfs_session_found* folder) {
  int can_delete = 0;
  const kvfs_result result =
      kvfs_session_blame_volume(kvfs_catalog_can_delete_file(session->volume->catalog, folder->locator(), &can_delete));
  if (result != kvfs_ok) {
    return result;
  }
  if (can_delete == 0) {
    return kvfs_not_empty;
  }
  const std::uint32_t valence = folder->folder()->valence.get();
  if (valence != 0) {  // X-session-8
    KVFS_ERROR_AS(kvfs_session_delete, "Folder %lu counts %lu items and none is found.\n",
                  to_ul(folder->folder()->folderID.get()), to_ul(valence));
    return kvfs_inconsistent;
  }
  return delete_item(session, folder, false);
}

static kvfs_result delete_file(kvfs_session* session, kvfs_session_found* file) {
  const std::uint32_t kind = kvfs_session_kind_of(file->file());
  if (kind == KVFS_HARD_LINK || kind == KVFS_FOLDER_LINK) {
    return kvfs_limit;
  }
  const std::uint32_t freed_before = session->freed_count;
  kvfs_result result = collect_fork(session, file->file(), kHFSDataForkType);
  if (result == kvfs_ok) {
    result = collect_fork(session, file->file(), kHFSResourceForkType);
  }
  bool has_overflow = false;
  if (result == kvfs_ok) {
    result = check_overflow(session, *file->file(), &has_overflow);
  }
  if (result == kvfs_ok) {
    result = delete_item(session, file, has_overflow);
  }
  if (result != kvfs_ok) {
    session->freed_count = freed_before;
  }
  return result;
}

static kvfs_result delete_by_id(kvfs_session* session, std::uint32_t id) {
  kvfs_result result = kvfs_session_begin_change(session);
  if (result != kvfs_ok) {
    return result;
  }
  if (session->volume->bitmap == nullptr) {
    return kvfs_invalid;
  }
  kvfs_session_found item;
  result = kvfs_session_find_removable(session, id, &item);
  if (result != kvfs_ok) {
    return result;
  }
  return item.file() != nullptr ? delete_file(session, &item) : delete_folder(session, &item);
}

uint64_t kvfs_session_delete(kvfs_session* session, uint32_t id) {
  if (session == nullptr) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(session, [=] { return delete_by_id(session, id); });
}
