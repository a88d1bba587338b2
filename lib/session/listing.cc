// Listings.
//
// A listing holds no locators between two calls, so that it is in nobody's way: it takes a few records at a time and
// goes on behind the last key that it has given.

#include <cstdlib>
#include <cstring>

#include "btree.h"
#include "ground/arithmetic.h"
#include "ground/owned.h"
#include "session/private.h"
#include "volume.h"

namespace {

// An item as it is stored. Both kinds of records begin a file record's bytes.
struct listed_record {
  HFSPlusCatalogKey key;
  HFSPlusCatalogFile data;
  std::uint32_t node;
  std::uint16_t index;  // in the node
};

}  // namespace

// Items that are taken at a time.
static constexpr std::uint32_t kBatch = 32;

struct kvfs_listing {
  kvfs_session* session;
  std::uint32_t folder_id;
  std::uint64_t epoch;  // of the session when the batch was taken
  kvfs_session_trail trail;
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
  kept->node = *record->node;
  kept->index = *record->index;
}

// Takes the items behind the one given last.
static kvfs_result take_batch(kvfs_listing* listing) {
  kvfs_session_walk walk;
  const bool is_there = listing->epoch == listing->session->epoch;
  if (!is_there) {
    listing->trail = {};  // records may have moved
  }
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
  const listed_record& record = listing->batch[listing->next];
  if (kvfs_session_leads_back(&listing->trail, record.node, record.index)) {
    KVFS_ERROR_AS(kvfs_listing_next, "The items of folder %lu form a ring.\n", to_ul(listing->folder_id));
    return kvfs_inconsistent;
  }
  ++listing->next;
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
  kvfs_listing* const listing = kvfs_allocate_zeroed<kvfs_listing>().release();
  if (listing == nullptr) {
    KVFS_ERROR_AS(kvfs_listing_open, "Error while allocating %zu bytes for kvfs_listing.\n", sizeof(kvfs_listing));
    return kvfs_no_memory;
  }
  listing->session = session;
  listing->folder_id = folder_id;
  listing->epoch = session->epoch;
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
  if (listing == nullptr || out_item == nullptr || !kvfs_session_can_fill(out_item->struct_size, sizeof(*out_item))) {
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
