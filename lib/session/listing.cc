// Walking over the items of a folder, and listings.
//
// A folder's items follow its thread record, in the order of their names. A listing holds no locators between two
// calls, so that it is in nobody's way: it takes a few records at a time and goes on behind the last key that it has
// given.

#include <cstdlib>
#include <cstring>

#include "arithmetic.h"
#include "btree.h"
#include "fork.h"
#include "owned.h"
#include "session_private.h"
#include "volume.h"

// ---- Walks ---------------------------------------------------------------------------------------------------------

// Records that a catalog of this size has at most, with which a walk must get along even where nodes form a ring.
static std::uint64_t most_records(kvfs_session* session) {
  constexpr std::uint64_t kSmallestRecord = kHFSPlusCatalogKeyNameOffset + kHFSPlusCatalogThreadNameOffset;
  return *(*session->volume->catalog->btree)->fork->logical_size / kSmallestRecord;
}

static bool is_in_folder(const kvfs_btree_record_locator* record, std::uint32_t folder_id) {
  return record->key_length >= kHFSPlusCatalogKeyParentEnd &&
         kvfs_view_as<HFSPlusCatalogKey>(record->key)->parentID.get() == folder_id;
}

// Replaces the record by the one behind it, whatever that is.
static kvfs_result step_to_next(kvfs_session_walk* walk) {
  if (walk->steps == 0) {
    KVFS_ERROR_AS("kvfs_session_step", "Folder %lu has more items than the catalog has room for.\n",
                  to_ul(walk->folder_id));
    return kvfs_inconsistent;
  }
  --walk->steps;
  kvfs_catalog_record_locator* next = nullptr;
  const kvfs_result result = kvfs_catalog_get_next_record(walk->session->volume->catalog, walk->record, &next);
  kvfs_catalog_record_locator_close(&walk->record);
  walk->record = next;
  return result;
}

// Ends the walk where the record is no item of the folder any more.
static kvfs_result check_record(kvfs_session_walk* walk) {
  if (walk->record == nullptr) {
    return kvfs_ok;
  }
  if (!is_in_folder(walk->record->btree_locator, walk->folder_id)) {
    kvfs_catalog_record_locator_close(&walk->record);
    return kvfs_ok;
  }
  return kvfs_session_check_item(walk->record->btree_locator);
}

kvfs_result kvfs_session_step(kvfs_session_walk* walk) {
  const kvfs_result result = step_to_next(walk);
  return result == kvfs_ok ? check_record(walk) : result;
}

// Begins on the first record behind a key; `found` tells whether one with the key was there.
static kvfs_result begin_behind(const HFSPlusCatalogKey* key, kvfs_session_walk* walk, bool* found) {
  kvfs_session_found place;
  kvfs_result result = kvfs_catalog_search_node(walk->session->volume->catalog, key, place.out());
  if (result != kvfs_ok) {
    return result;
  }
  *found = place.found();
  const bool is_behind = !place.found() && place.out()->after == 0;
  walk->record = place.take();
  if (walk->record != nullptr && !is_behind) {
    result = step_to_next(walk);
  }
  return result == kvfs_ok ? check_record(walk) : result;
}

static kvfs_result begin_at_first(kvfs_session_walk* walk) {
  HFSPlusCatalogKey thread;
  kvfs_session_make_key(walk->folder_id, nullptr, 0, &thread);
  bool ignored = false;
  return begin_behind(&thread, walk, &ignored);
}

static bool is_key(const kvfs_btree_record_locator* record, const HFSPlusCatalogKey* key) {
  const std::size_t size = key->keyLength.get() + sizeof(key->keyLength);
  return record->key_length >= size && std::memcmp(record->key, key, size) == 0;
}

// Begins at the first item and passes all of them up to the one with exactly a key.
static kvfs_result pass_items(const HFSPlusCatalogKey* key, kvfs_session_walk* walk) {
  kvfs_session_end_walk(walk);
  kvfs_result result = begin_at_first(walk);
  while (result == kvfs_ok && walk->record != nullptr && !is_key(walk->record->btree_locator, key)) {
    result = kvfs_session_step(walk);
  }
  return result == kvfs_ok && walk->record != nullptr ? kvfs_session_step(walk) : result;
}

kvfs_result kvfs_session_begin_walk(kvfs_session* session, std::uint32_t folder_id, const HFSPlusCatalogKey* behind,
                                    bool is_there, kvfs_session_walk* walk) {
  *walk = {session, folder_id, nullptr, most_records(session)};
  if (behind == nullptr) {
    return begin_at_first(walk);
  }
  // Names with NUL units in them are not told from each other by the order, so that a search may end before or behind.
  if (kvfs_session_has_nul(behind->nodeName.unicode, behind->nodeName.length.get())) {
    return pass_items(behind, walk);
  }
  bool found = false;
  const kvfs_result result = begin_behind(behind, walk, &found);
  return result == kvfs_ok && !found && is_there ? pass_items(behind, walk) : result;
}

void kvfs_session_end_walk(kvfs_session_walk* walk) {
  if (walk->record != nullptr) {
    kvfs_catalog_record_locator_close(&walk->record);
  }
}

// ---- Listings ------------------------------------------------------------------------------------------------------

// An item as it is stored. Both kinds of records begin a file record's bytes.
struct listed_record {
  HFSPlusCatalogKey key;
  HFSPlusCatalogFile data;
};

// Items that are taken at a time.
static constexpr std::uint32_t kBatch = 32;

struct kvfs_listing {
  kvfs_session* session;
  std::uint32_t folder_id;
  std::uint64_t epoch;     // of the session when the batch was taken
  std::uint64_t left;      // items that may still come, unless the catalog leads in a ring
  HFSPlusCatalogKey last;  // of the item given last
  bool has_last;
  bool is_at_end;  // nothing is behind the batch
  std::uint32_t next;
  std::uint32_t count;
  listed_record batch[kBatch];
};

static void keep_record(const kvfs_btree_record_locator* record, listed_record* kept) {
  // A record and a key may have bytes behind what they are made of, which do not matter.
  std::memcpy(&kept->key, record->key, kvfs_min<std::size_t>(record->key_length, sizeof(kept->key)));
  std::memcpy(&kept->data, record->data, kvfs_min<std::size_t>(record->data_size, sizeof(kept->data)));
}

// Takes the items behind the one given last.
static kvfs_result take_batch(kvfs_listing* listing) {
  kvfs_session_walk walk;
  const bool is_there = listing->epoch == listing->session->epoch;
  kvfs_result result = kvfs_session_begin_walk(listing->session, listing->folder_id,
                                               listing->has_last ? &listing->last : nullptr, is_there, &walk);
  std::uint32_t count = 0;
  while (result == kvfs_ok && walk.record != nullptr && count < kBatch) {
    keep_record(walk.record->btree_locator, &listing->batch[count]);
    ++count;
    result = kvfs_session_step(&walk);
  }
  if (result == kvfs_ok || count != 0) {  // items before a damaged one are given before its failure
    listing->is_at_end = result == kvfs_ok && walk.record == nullptr;
    listing->next = 0;
    listing->count = count;
    listing->epoch = listing->session->epoch;
    result = kvfs_ok;
  }
  kvfs_session_end_walk(&walk);
  return result;
}

static kvfs_result refill(kvfs_listing* listing) {
  const bool is_current = listing->epoch == listing->session->epoch;
  if (is_current && listing->next < listing->count) {
    return kvfs_ok;
  }
  if (is_current && listing->is_at_end) {
    return kvfs_end;
  }
  listing->next = 0;
  listing->count = 0;
  const kvfs_result result = take_batch(listing);
  return result == kvfs_ok && listing->count == 0 ? kvfs_end : result;
}

static kvfs_result give_next(kvfs_listing* listing, kvfs_item* out_item) {
  const kvfs_result result = refill(listing);
  if (result != kvfs_ok) {
    return result;
  }
  if (listing->left == 0) {
    KVFS_ERROR_AS("kvfs_listing_next", "Folder %lu has more items than the catalog has room for.\n",
                  to_ul(listing->folder_id));
    return kvfs_inconsistent;
  }
  --listing->left;
  const listed_record& record = listing->batch[listing->next++];
  listing->last = record.key;
  listing->has_last = true;
  kvfs_item item;
  kvfs_session_describe(&record.key, &record.data, listing->session->volume->header->blockSize.get(), &item);
  kvfs_session_copy_struct(&item, sizeof(item), out_item, out_item->struct_size);
  return kvfs_ok;
}

static kvfs_result open_listing(kvfs_session* session, std::uint32_t folder_id, kvfs_listing** out_listing) {
  kvfs_session_found folder;
  kvfs_result result = kvfs_session_find_folder(session, folder_id, &folder);
  if (result != kvfs_ok) {
    return result;
  }
  folder.release();
  kvfs_listing* const listing = kvfs_allocate_zeroed<kvfs_listing>().release();
  if (listing == nullptr) {
    KVFS_ERROR_AS("kvfs_listing_open", "Error while allocating %zu bytes for kvfs_listing.\n", sizeof(kvfs_listing));
    return kvfs_no_memory;
  }
  listing->session = session;
  listing->folder_id = folder_id;
  listing->epoch = session->epoch;
  listing->left = most_records(session);
  kvfs_session_hold(session);
  *out_listing = listing;
  return kvfs_ok;
}

uint64_t kvfs_listing_open(kvfs_session* session, uint32_t folder_id, kvfs_listing** out_listing) {
  if (session == nullptr || out_listing == nullptr) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(session, [=] { return open_listing(session, folder_id, out_listing); });
}

uint64_t kvfs_listing_next(kvfs_listing* listing, kvfs_item* out_item) {
  if (listing == nullptr || out_item == nullptr || out_item->struct_size < sizeof(kvfs_item)) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(listing->session, [=] { return give_next(listing, out_item); });
}

uint64_t kvfs_listing_close(kvfs_listing** listing) {
  if (listing == nullptr || *listing == nullptr) {
    return kvfs_ok;
  }
  const kvfs_result result = kvfs_session_let_go((*listing)->session);
  if (result == kvfs_ok) {
    kvfs_zero_and_free(*listing);
    *listing = nullptr;
  }
  return result;
}
