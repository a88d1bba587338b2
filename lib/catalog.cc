#include "catalog.h"

#include <cstddef>
#include <cstring>

#include "arithmetic.h"
#include "bitmap.h"
#include "catalog_private.h"
#include "device.h"
#include "extents.h"
#include "owned.h"
#include "rwlock_guard.h"
#include "support.h"
#include "unicode.h"
#include "unicode_private.h"
#include "volume.h"

// ---- Keys and records ----------------------------------------------------------------------------------------------
//
// Of keys and records no more is read than they hold: X-catalog-3.

static constexpr std::uint16_t key_length_for(std::uint32_t name_length) {
  return static_cast<std::uint16_t>(kHFSPlusCatalogKeyMinimumLength + sizeof(kvfs_be16) * name_length);
}

// Builds the key of an item: its folder, as stored, and its name of at most 255 units.
static void make_key(HFSPlusCatalogKey* key, kvfs_be32 parent, const kvfs_be16* name, std::uint32_t name_length) {
  key->keyLength.set(key_length_for(name_length));
  key->parentID = parent;
  key->nodeName.length.set(static_cast<std::uint16_t>(name_length));
  if (name_length != 0) {
    std::memcpy(key->nodeName.unicode, name, name_length * sizeof(kvfs_be16));
  }
}

// Builds the key of an item's thread record: the item itself and an empty name.
static void make_thread_key(HFSPlusCatalogKey* key, kvfs_be32 cnid) {
  key->keyLength.set(key_length_for(0));
  key->parentID = cnid;
  key->nodeName.length.set(0);
}

// The type of a locator's record that is long enough to have one, host order.
static std::uint16_t record_type_of(const kvfs_catalog_record_locator* locator) {
  return kvfs_view_as<kvfs_be16>(locator->btree_locator->data)->get();
}

// Reads the type of any locator's record, in the name of `speaker`.
static kvfs_result read_record_type(const char* speaker, const kvfs_catalog_record_locator* locator,
                                    std::uint16_t* type) {
  const std::size_t size = locator->btree_locator->data_size;
  if (size < sizeof(kvfs_be16)) {
    KVFS_ERROR_BY(speaker, "Record of %zu bytes is too short for a record type.\n", size);
    return kvfs_inconsistent;
  }
  *type = record_type_of(locator);
  return kvfs_ok;
}

// Reads the folder that holds the record of a locator, host order, out of the key.
static kvfs_result read_key_parent(const char* speaker, const kvfs_catalog_record_locator* locator,
                                   std::uint32_t* parent) {
  const kvfs_btree_record_locator* const record = locator->btree_locator;
  if (record->key_length < kHFSPlusCatalogKeyParentEnd) {
    KVFS_ERROR_BY(speaker, "Key of %lu bytes is too short for a parent.\n", to_ul(record->key_length));
    return kvfs_inconsistent;
  }
  *parent = kvfs_view_as<HFSPlusCatalogKey>(record->key)->parentID.get();
  return kvfs_ok;
}

// Checks that a locator's record has as many bytes as are going to be read.
static kvfs_result check_record_size(const char* speaker, const kvfs_catalog_record_locator* locator,
                                     std::size_t minimum) {
  const std::size_t size = locator->btree_locator->data_size;
  if (size >= minimum) {
    return kvfs_ok;
  }
  if (minimum == sizeof(HFSPlusCatalogFolder)) {
    KVFS_ERROR_BY(speaker, "Unexpected data size for HFSPlusCatalogFolder. Expected minimum: %zu Actual: %zu\n",
                  minimum, size);
  } else {
    KVFS_ERROR_BY(speaker, "Unexpected data size for catalog record. Expected minimum: %zu Actual: %zu\n", minimum,
                  size);
  }
  return kvfs_inconsistent;
}

// Copies a record of a known size out of a locator.
static kvfs_result copy_record(const char* speaker, const kvfs_catalog_record_locator* locator, void* record,
                               std::size_t size) {
  const kvfs_result checked = check_record_size(speaker, locator, size);
  if (checked == kvfs_ok) {
    std::memcpy(record, locator->btree_locator->data, size);
  }
  return checked;
}

static bool is_thread(std::uint16_t record_type) {
  return record_type == kHFSPlusFolderThreadRecord || record_type == kHFSPlusFileThreadRecord;
}

static kvfs_btree* btree_of(const kvfs_catalog* catalog) {
  return *catalog->btree;
}

// ---- Key order -----------------------------------------------------------------------------------------------------
//
// A key that cannot be compared sorts first (Q-catalog-2). One whose name goes on behind its end ends the search when
// it comes to that (X-catalog-1).

// A key with its fields in reach. Of the name only what the key holds can be read.
struct catalog_key_view {
  std::uint16_t key_length;
  std::uint32_t parent;
  kvfs_cut_name name;
};

// Takes apart a key that is known to hold its fixed fields.
static catalog_key_view view_key(const void* key) {
  const HFSPlusCatalogKey* const fields = kvfs_view_as<HFSPlusCatalogKey>(key);
  const std::uint16_t key_length = fields->keyLength.get();
  const std::size_t length = fields->nodeName.length.get();
  const std::size_t room = (key_length - std::size_t{key_length_for(0)}) / sizeof(kvfs_be16);
  return {key_length, fields->parentID.get(), {fields->nodeName.unicode, length, kvfs_min(length, room)}};
}

// The names of the private folders under the root folder begin with NUL units.
static bool is_private_name(const catalog_key_view& key) {
  return key.parent == kHFSRootFolderID && key.name.readable != 0 && key.name.units[0].get() == 0;
}

// Whether not even the first unit of a name is there, which decides how it is compared.
static bool lacks_first_unit(const catalog_key_view& key) {
  return key.name.readable == 0 && key.name.length != 0;
}

static int compare_key_views(const catalog_key_view& a, const catalog_key_view& b, std::uint8_t compare_type) {
  if (a.parent != b.parent) {
    return a.parent < b.parent ? -1 : 1;
  }
  const bool binary = compare_type == kHFSBinaryCompare;
  // The first key decides even when both are private names, so that such names are never equal: Q-catalog-1.
  if (is_private_name(a)) {
    return binary ? -1 : 1;
  }
  if (!lacks_first_unit(a) && is_private_name(b)) {
    return binary ? 1 : -1;
  }
  return kvfs_unicode_compare_cut_names(a.name, b.name, binary);
}

int kvfs_catalog_compare_keys(const void* key_a, const void* key_b, std::uint8_t compare_type) {
  const std::uint16_t length_a = kvfs_view_as<kvfs_be16>(key_a)->get();
  if (length_a < kHFSPlusCatalogKeyMinimumLength) {
    KVFS_ERROR("Data in A is too small to be a HFSPlusCatalogKey (%hu bytes).\n", length_a);
    return -1;
  }
  const std::uint16_t length_b = kvfs_view_as<kvfs_be16>(key_b)->get();
  if (length_b < kHFSPlusCatalogKeyMinimumLength) {
    KVFS_ERROR("Data in B is too small to be a HFSPlusCatalogKey (%hu bytes).\n", length_b);
    return -1;
  }
  if (compare_type != kHFSBinaryCompare && compare_type != kHFSCaseFolding) {
    KVFS_ERROR("Illegal value for compare_type: 0x%X\n", static_cast<unsigned>(compare_type));
    return -1;
  }
  const catalog_key_view a = view_key(key_a);
  const catalog_key_view b = view_key(key_b);
  const int order = compare_key_views(a, b, compare_type);
  if (order == kvfs_name_is_cut) {
    KVFS_ERROR("Names of %zu and %zu units do not fit their keys (%hu and %hu bytes).\n", a.name.length, b.name.length,
               a.key_length, b.key_length);
    return kvfs_key_malformed;
  }
  return order;
}

// ---- Opening and closing -------------------------------------------------------------------------------------------

kvfs_result kvfs_catalog_create(kvfs_device* device, kvfs_extents* extents, HFSPlusVolumeHeader* volume_header,
                                kvfs_catalog** out_catalog) {
  kvfs_owned<kvfs_catalog> catalog = kvfs_allocate_zeroed<kvfs_catalog>();
  if (!catalog) {
    KVFS_ERROR("Error while allocating %llu bytes for kvfs_catalog.\n", to_ull(sizeof(kvfs_catalog)));
    return kvfs_no_memory;
  }
  kvfs_owned<kvfs_catalog_private> priv = kvfs_allocate_zeroed<kvfs_catalog_private>();
  if (!priv) {
    KVFS_ERROR("Error while allocating %llu bytes for kvfs_catalog_private.\n", to_ull(sizeof(kvfs_catalog_private)));
    return kvfs_no_memory;
  }
  kvfs_result result = kvfs_rwlock_create(&priv->open_locators_lock);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while creating open locators list lock.\n");
    return result;
  }
  result =
      kvfs_btree_create(device, extents, 0, volume_header, kHFSCatalogFileID, kvfs_catalog_compare_keys, &priv->btree);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while reading Catalog B-Tree into memory.\n");
    if (kvfs_rwlock_destroy(&priv->open_locators_lock) != kvfs_ok) {
      KVFS_ERROR("Error while destroying catalog open locators list lock on cleanup.\n");
    }
    return result;
  }
  catalog->priv = priv.release();
  catalog->btree = &catalog->priv->btree;
  *out_catalog = catalog.release();
  return kvfs_ok;
}

// Takes a locator that is about to be freed from those that have it for their parent: none may follow a dead
// link (X-catalog-5).
static void forget_parent(kvfs_catalog_private* priv, const kvfs_catalog_record_locator* parent) {
  for (kvfs_catalog_record_locator* child = priv->open_locators; child != nullptr; child = child->priv->next) {
    if (child->priv->parent == parent) {
      child->priv->parent = nullptr;
    }
  }
}

// Closes the locators that are still open, from the head of the list. A head that somebody else references too stays,
// and ends the clean-up (Q-catalog-5).
static void close_leaked_locators(kvfs_catalog_private* priv) {
  std::uint64_t closed = 0;
  while (priv->open_locators != nullptr) {
    kvfs_catalog_record_locator* const head = priv->open_locators;
    kvfs_catalog_record_locator* leaked = head;
    if (head->priv->reference_count <= 1) {
      forget_parent(priv, head);
    }
    (void)kvfs_catalog_record_locator_close_internal(&leaked);  // it has no failures
    ++closed;
    if (priv->open_locators == head) {
      KVFS_CRITICAL_AS(kvfs_catalog_destroy,
                       "Internal error: Closing head of catalog open locators list did not change the head!\n");
      break;
    }
  }
  if (closed != 0) {
    KVFS_WARNING_AS(kvfs_catalog_destroy, "Cleaned up %llu leaked catalog record locators on destroy.\n",
                    to_ull(closed));
  }
}

void kvfs_catalog_destroy(kvfs_catalog** catalog) {
  kvfs_catalog_private* const priv = (*catalog)->priv;
  {
    kvfs_write_guard guard(priv->open_locators_lock);
    if (guard.result() != kvfs_ok) {
      KVFS_ERROR(
          "Error while acquiring open locators list lock! Leaking open locators on kvfs_catalog destruction...\n");
    } else {
      close_leaked_locators(priv);
      if (guard.release() != kvfs_ok) {
        KVFS_WARNING("Error while unlocking catalog open locators list lock. Ignoring...\n");
      }
    }
  }
  if (kvfs_rwlock_destroy(&priv->open_locators_lock) != kvfs_ok) {
    KVFS_ERROR("Error while destroying catalog open locators list lock. Leaking...\n");
  }
  kvfs_btree_destroy(&priv->btree);
  kvfs_zero_and_free(priv);
  kvfs_zero_and_free(*catalog);
  *catalog = nullptr;
}

// ---- Names ---------------------------------------------------------------------------------------------------------
//
// The zero byte needs room: X-catalog-8.

static constexpr std::uint16_t kSurrogateMask = 0xFC00;
static constexpr std::uint16_t kHighSurrogate = 0xD800;

static std::size_t count_units_before_nul(const kvfs_be16* units, std::size_t count) {
  std::size_t length = 0;
  while (length < count && units[length].get() != 0) {
    ++length;
  }
  return length;
}

// Brings the next units of a text into host order, as many as there is room for, and returns their number. A pair of
// surrogates stays together.
static std::size_t take_piece(const kvfs_be16* units, std::size_t count, std::uint16_t* native) {
  const std::size_t length = kvfs_min<std::size_t>(count, kHFSPlusMaxNameLength);
  for (std::size_t i = 0; i < length; ++i) {
    native[i] = units[i].get();
  }
  const bool cuts_pair = length < count && (units[length - 1].get() & kSurrogateMask) == kHighSurrogate;
  return cuts_pair ? length - 1 : length;
}

// Converts a text piece by piece, so that it may have any length: the converter measures units as they lie in memory,
// and so gets them in host order. Its capacity does not count the NUL.
std::size_t kvfs_catalog_widechar_to_utf8(const kvfs_be16* units, std::size_t count, char* buffer, std::size_t size) {
  if (size == 0) {
    KVFS_ERROR("Error while decoding UTF-16.\n");
    return 0;
  }
  const std::size_t end = count_units_before_nul(units, count);
  std::uint16_t native[kHFSPlusMaxNameLength];
  std::size_t length = 0;
  for (std::size_t done = 0; done < end;) {
    const std::size_t taken = take_piece(units + done, end - done, native);
    char* text = buffer + length;
    std::size_t text_length = size - 1 - length;
    if (kvfs_unicode_unistr_to_utf8(native, taken, kUnicodeHostOrder, &text, &text_length) != kvfs_ok) {
      KVFS_ERROR("Error while decoding UTF-16.\n");
      return 0;
    }
    if (text != buffer + length) {
      KVFS_ERROR("utf8_string was unexpectedly reallocated!\n");
      std::free(text);
      return 0;
    }
    done += taken;
    length += text_length;
  }
  buffer[length] = '\0';
  for (std::size_t i = 0; i < length; ++i) {
    if (buffer[i] == '\\') {
      buffer[i] = '/';
    }
  }
  return length;
}

// ---- Locators ------------------------------------------------------------------------------------------------------

// The block of a locator. The tag marks locators in a memory dump and is never tested.
struct catalog_locator_block {
  char tag[8];
  kvfs_catalog_record_locator locator;
  kvfs_catalog_record_locator_private priv;
};

// What the smallest machines pay for a locator, where pointers have 32 bits and 64-bit numbers are aligned to 8 bytes.
static_assert(sizeof(void*) != 4 || alignof(catalog_locator_block) != 8 || sizeof(catalog_locator_block) == 64);

static const char kLocatorTag[] = "kvfscrla";

// Links a locator to a parent, or to none; the caller holds the catalog's lock for writing.
static void set_parent(kvfs_catalog_record_locator* locator, kvfs_catalog_record_locator* parent) {
  kvfs_catalog_record_locator* old_parent = locator->priv->parent;
  locator->priv->parent = parent;
  if (parent != nullptr) {
    ++parent->priv->reference_count;
  }
  if (old_parent != nullptr) {
    (void)kvfs_catalog_record_locator_close_internal(&old_parent);  // it has no failures
  }
}

static void link_locator(kvfs_catalog_record_locator* locator) {
  kvfs_catalog_private* const catalog = locator->priv->catalog->priv;
  locator->priv->next = catalog->open_locators;
  if (catalog->open_locators != nullptr) {
    catalog->open_locators->priv->previous = locator;
  }
  catalog->open_locators = locator;
}

static void unlink_locator(kvfs_catalog_record_locator* locator) {
  kvfs_catalog_record_locator_private* const priv = locator->priv;
  if (priv->next != nullptr) {
    priv->next->priv->previous = priv->previous;
  }
  if (priv->previous == nullptr) {
    priv->catalog->priv->open_locators = priv->next;
  } else {
    priv->previous->priv->next = priv->next;
  }
}

kvfs_result kvfs_catalog_record_locator_open(kvfs_catalog* catalog, kvfs_btree_record_locator* btree_locator,
                                             std::uint32_t record_type, kvfs_catalog_record_locator* parent,
                                             std::uint32_t reserved, kvfs_catalog_record_locator** out_locator) {
  kvfs_owned<catalog_locator_block> block = kvfs_allocate_zeroed<catalog_locator_block>();
  if (!block) {
    KVFS_ERROR("Error while allocating %llu bytes for kvfs_catalog_record_locator allocation.\n",
               to_ull(sizeof(catalog_locator_block)));
    return kvfs_no_memory;
  }
  kvfs_write_guard guard(catalog->priv->open_locators_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while acquiring catalog open locators list lock.\n");
    return guard.result();
  }
  std::memcpy(block->tag, kLocatorTag, sizeof(block->tag));
  block->priv.allocation = block.get();
  block->priv.catalog = catalog;
  block->priv.reference_count = 1;
  block->locator = {btree_locator, record_type, &block->priv.parent, reserved, &block->priv};
  set_parent(&block->locator, parent);
  link_locator(&block->locator);
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_ERROR("Error while unlocking catalog open locators list lock.\n");
    // Q-catalog-3: the locator is freed although it was opened. The list must not keep what is freed.
    set_parent(&block->locator, nullptr);
    unlink_locator(&block->locator);
    return unlocked;
  }
  *out_locator = &block.release()->locator;
  return kvfs_ok;
}

kvfs_result kvfs_catalog_record_locator_set_parent_locator(kvfs_catalog_record_locator* locator,
                                                           kvfs_catalog_record_locator* parent) {
  kvfs_write_guard guard(locator->priv->catalog->priv->open_locators_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while acquiring write lock for catalog open locators list.\n");
    return guard.result();
  }
  set_parent(locator, parent);
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_ERROR("Error while releasing lock for open locators list.\n");
  }
  return unlocked;
}

kvfs_result kvfs_catalog_record_locator_close_internal(kvfs_catalog_record_locator** locator) {
  kvfs_catalog_record_locator* const closed = *locator;
  kvfs_catalog_record_locator_private* const priv = closed->priv;
  *locator = nullptr;
  if (priv->reference_count == 0) {  // Q-catalog-4
    KVFS_WARNING("Closing locator %p with 0 refcount!\n", static_cast<void*>(closed));
  } else {
    --priv->reference_count;
    if (priv->reference_count != 0) {
      return kvfs_ok;
    }
  }
  unlink_locator(closed);
  if (priv->parent != nullptr) {
    (void)kvfs_catalog_record_locator_close_internal(&priv->parent);  // it has no failures
  }
  kvfs_btree_record_locator_close(&closed->btree_locator);
  kvfs_zero_and_free(static_cast<catalog_locator_block*>(priv->allocation));
  return kvfs_ok;
}

void kvfs_catalog_record_locator_close(kvfs_catalog_record_locator** locator) {
  kvfs_write_guard guard((*locator)->priv->catalog->priv->open_locators_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while locking catalog open locators list.\n");
    *locator = nullptr;
    return;
  }
  (void)kvfs_catalog_record_locator_close_internal(locator);  // it has no failures
  if (guard.release() != kvfs_ok) {
    KVFS_WARNING("Error while unlocking catalog open locators list lock. Ignoring...\n");
  }
}

// ---- Search results ------------------------------------------------------------------------------------------------

void kvfs_catalog_search_result_init(kvfs_catalog_search_result* result) {
  *result = {0, 0, nullptr};
}

void kvfs_catalog_search_result_release(kvfs_catalog_search_result* result) {
  if (result->locator != nullptr) {
    kvfs_catalog_record_locator_close(&result->locator);
  }
  *result = {0, 0, nullptr};
}

// Releases a result and puts another one, which it takes over, in its place.
static void replace_result(kvfs_catalog_search_result* result, kvfs_catalog_search_result* other) {
  kvfs_catalog_search_result_release(result);
  *result = *other;
  kvfs_catalog_search_result_init(other);
}

// ---- Lookup by key, thread and ID ----------------------------------------------------------------------------------

kvfs_result kvfs_catalog_search_node(kvfs_catalog* catalog, const HFSPlusCatalogKey* key,
                                     kvfs_catalog_search_result* out_result) {
  kvfs_btree_search_result found;
  kvfs_btree_search_result_init(&found);
  kvfs_result result = kvfs_btree_search_node(btree_of(catalog), key, &found);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error in kvfs_btree_search_node.\n");
    return result;
  }
  kvfs_catalog_record_locator* locator = nullptr;
  result = kvfs_catalog_record_locator_open(catalog, found.locator, 0, nullptr, 0, &locator);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while creating kvfs_catalog_record_locator\n");
    kvfs_btree_search_result_release(&found);
    return result;
  }
  *out_result = {found.found, found.after, locator};
  return kvfs_ok;
}

kvfs_result kvfs_catalog_get_next_record(kvfs_catalog* catalog, const kvfs_catalog_record_locator* locator,
                                         kvfs_catalog_record_locator** out_next) {
  kvfs_btree_record_locator* next = nullptr;
  kvfs_result result = kvfs_btree_get_next_record(btree_of(catalog), locator->btree_locator, &next);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error in kvfs_btree_get_next_record.\n");
    return result;
  }
  if (next == nullptr) {
    *out_next = nullptr;
    return kvfs_ok;
  }
  result = kvfs_catalog_record_locator_open(catalog, next, 0, nullptr, 0, out_next);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while creating kvfs_catalog_record_locator.\n");
    kvfs_btree_record_locator_close(&next);
  }
  return result;
}

// Builds the key of the item that a thread record leads to, in the name of `speaker`. The record must hold its name
// (X-catalog-2).
static kvfs_result make_target_key(const char* speaker, const kvfs_catalog_record_locator* thread,
                                   HFSPlusCatalogKey* key) {
  const kvfs_btree_record_locator* const record = thread->btree_locator;
  const HFSPlusCatalogThread* const fields = kvfs_view_as<HFSPlusCatalogThread>(record->data);
  std::uint32_t name_length = 0;
  bool whole = record->data_size >= kHFSPlusCatalogThreadNameOffset;
  if (whole) {
    name_length = fields->nodeName.length.get();
    whole = name_length <= kHFSPlusMaxNameLength &&
            record->data_size - kHFSPlusCatalogThreadNameOffset >= name_length * sizeof(kvfs_be16);
  }
  if (!whole) {
    KVFS_ERROR_BY(speaker, "Thread record of %zu bytes cannot hold its name of %lu units.\n",
                  std::size_t{record->data_size}, to_ul(name_length));
    return kvfs_inconsistent;
  }
  make_key(key, fields->parentID, fields->nodeName.unicode, name_length);
  return kvfs_ok;
}

kvfs_result kvfs_catalog_follow_thread(kvfs_catalog* catalog, const kvfs_catalog_record_locator* thread,
                                       kvfs_catalog_search_result* out_result) {
  HFSPlusCatalogKey key;
  kvfs_result result = make_target_key(__func__, thread, &key);
  if (result != kvfs_ok) {
    return result;
  }
  result = kvfs_catalog_search_node(catalog, &key, out_result);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while searching for target of thread.\n");
  }
  return result;
}

// Replaces the result of finding a thread record by that of following it, in the name of kvfs_catalog_search_by_cnid.
// Another record stays the result.
static kvfs_result replace_by_thread_target(kvfs_catalog* catalog, kvfs_catalog_search_result* result) {
  std::uint16_t type = 0;
  const kvfs_result read = read_record_type(KVFS_NAME_OF(kvfs_catalog_search_by_cnid), result->locator, &type);
  if (read != kvfs_ok || !is_thread(type)) {
    return read;
  }
  kvfs_catalog_search_result target;
  kvfs_catalog_search_result_init(&target);
  const kvfs_result followed = kvfs_catalog_follow_thread(catalog, result->locator, &target);
  if (followed != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_search_by_cnid, "Error while following thread when searching for node by CNID.\n");
    return followed;
  }
  if (target.locator == nullptr) {
    KVFS_CRITICAL_AS(kvfs_catalog_search_by_cnid,
                     "Unexpected: kvfs_catalog_follow_thread returned NULL locator but no error.\n");
    return kvfs_internal;
  }
  replace_result(result, &target);
  return kvfs_ok;
}

kvfs_result kvfs_catalog_search_by_cnid(kvfs_catalog* catalog, std::uint32_t cnid, bool follow,
                                        kvfs_catalog_search_result* out_result) {
  HFSPlusCatalogKey key;
  make_thread_key(&key, kvfs_be32::of(cnid));
  kvfs_catalog_search_result found;
  kvfs_catalog_search_result_init(&found);
  kvfs_result result = kvfs_catalog_search_node(catalog, &key, &found);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while searching thread record when searching by CNID.\n");
    return result;
  }
  if (found.locator == nullptr) {
    KVFS_CRITICAL("Unexpected: kvfs_catalog_search_node returned NULL locator but no error.\n");
    return kvfs_internal;
  }
  if (found.found != 0 && follow) {
    result = replace_by_thread_target(catalog, &found);
  }
  if (result != kvfs_ok) {
    kvfs_catalog_search_result_release(&found);
    return result;
  }
  *out_result = found;
  return kvfs_ok;
}

// ---- Lookup by path ------------------------------------------------------------------------------------------------

// A walk along a path.
struct path_walk {
  kvfs_catalog* catalog;
  kvfs_catalog_component_source source;
  void* context;
  std::uint32_t parent_cnid;
  kvfs_catalog_record_locator* parent;  // the folder that is searched, or null; not owned
  kvfs_catalog_record_locator* held;    // the folder that the walk itself keeps open
  kvfs_catalog_search_result current;   // of the component looked up last
  kvfs_be16 component[kHFSPlusMaxNameLength];
  std::size_t component_length;  // units
};

static std::uint32_t folder_id_of(const kvfs_catalog_record_locator* locator) {
  return kvfs_view_as<HFSPlusCatalogFolder>(locator->btree_locator->data)->folderID.get();
}

// Sets the folder that the walk starts from.
static kvfs_result start_path(path_walk* walk, kvfs_catalog_record_locator* start) {
  walk->parent_cnid = kHFSRootFolderID;
  if (start == nullptr) {
    return kvfs_ok;
  }
  std::uint16_t type = 0;
  kvfs_result result = read_record_type(KVFS_NAME_OF(kvfs_catalog_search_by_path), start, &type);
  if (result != kvfs_ok) {
    return result;
  }
  if (type != kHFSPlusFolderRecord) {
    KVFS_ERROR_AS(kvfs_catalog_search_by_path, "Invalid argument: 'CatalogRecord' has non-folder type %hd.\n",
                  static_cast<short>(type));
    return kvfs_invalid;
  }
  result = check_record_size(KVFS_NAME_OF(kvfs_catalog_search_by_path), start, sizeof(HFSPlusCatalogFolder));
  if (result != kvfs_ok) {
    return result;
  }
  // The root folder's parent has no record to search in; the root folder stands for it: Q-catalog-8.
  if (folder_id_of(start) != kHFSRootParentID) {
    walk->parent_cnid = folder_id_of(start);
    walk->parent = start;
  }
  return kvfs_ok;
}

// Makes the record found last the folder that the next component is searched in.
static kvfs_result enter_current_folder(path_walk* walk) {
  if (walk->current.locator == nullptr) {
    if (walk->component_length != 0) {
      KVFS_CRITICAL_AS(kvfs_catalog_search_by_path, "Unexpected: NULL current_entry but non-0 nodeNameLength (%zu).\n",
                       walk->component_length);
      return kvfs_internal;
    }
    return kvfs_ok;
  }
  const std::uint16_t type = record_type_of(walk->current.locator);
  if (type != kHFSPlusFolderRecord) {
    KVFS_ERROR_AS(kvfs_catalog_search_by_path, "Unexpected record type for parent directory in lookup: %hd.\n",
                  static_cast<short>(type));
    return kvfs_internal;
  }
  if (walk->held != nullptr) {
    kvfs_catalog_record_locator_close(&walk->held);
  }
  walk->held = walk->current.locator;
  walk->parent = walk->held;
  walk->parent_cnid = folder_id_of(walk->held);
  kvfs_catalog_search_result_init(&walk->current);
  return kvfs_ok;
}

static kvfs_result search_component(path_walk* walk) {
  HFSPlusCatalogKey key;
  make_key(&key, kvfs_be32::of(walk->parent_cnid), walk->component, static_cast<std::uint32_t>(walk->component_length));
  const kvfs_result result = kvfs_catalog_search_node(walk->catalog, &key, &walk->current);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_search_by_path, "Error while searching for intermediate path component.\n");
  }
  return result;
}

// Replaces a thread record that was found by the item that it leads to.
static kvfs_result resolve_thread(path_walk* walk) {
  kvfs_catalog_search_result target;
  kvfs_catalog_search_result_init(&target);
  const kvfs_result followed = kvfs_catalog_follow_thread(walk->catalog, walk->current.locator, &target);
  if (followed != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_search_by_path, "Error while following thread.\n");
    return followed;
  }
  if (target.locator == nullptr || target.found == 0) {
    KVFS_ERROR_AS(kvfs_catalog_search_by_path, "%s: Thread target not found.\n",
                  KVFS_NAME_OF(kvfs_catalog_search_by_path));
    kvfs_catalog_search_result_release(&target);
    return kvfs_inconsistent;
  }
  replace_result(&walk->current, &target);
  return kvfs_ok;
}

// Checks the record that was found and follows it when it is a thread.
static kvfs_result accept_current_record(path_walk* walk) {
  std::uint16_t type = 0;
  const kvfs_result read = read_record_type(KVFS_NAME_OF(kvfs_catalog_search_by_path), walk->current.locator, &type);
  if (read != kvfs_ok) {
    return read;
  }
  if (type < kHFSPlusFolderRecord || type > kHFSPlusFileThreadRecord) {
    KVFS_ERROR_AS(kvfs_catalog_search_by_path, "Unexpected record type %hd for looked up record data.\n",
                  static_cast<short>(type));
    return kvfs_inconsistent;
  }
  if (is_thread(type)) {
    const kvfs_result resolved = resolve_thread(walk);
    if (resolved != kvfs_ok) {
      return resolved;
    }
  }
  return check_record_size(KVFS_NAME_OF(kvfs_catalog_search_by_path), walk->current.locator,
                           sizeof(HFSPlusCatalogFolder));
}

static kvfs_result next_component(path_walk* walk) {
  walk->component_length = 0;
  kvfs_result result = walk->source(walk->context, walk->component, kHFSPlusMaxNameLength, &walk->component_length);
  if (result == kvfs_ok && walk->component_length > kHFSPlusMaxNameLength) {  // X-catalog-4
    result = kvfs_invalid;
  }
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_search_by_path, "Error while converting native path component to HFS+ string.\n");
  }
  return result;
}

// Looks up component after component. The first pass has an empty one and finds the starting folder's own thread.
static kvfs_result walk_components(path_walk* walk) {
  do {
    kvfs_result result = enter_current_folder(walk);
    if (result == kvfs_ok) {
      result = search_component(walk);
    }
    if (result != kvfs_ok) {
      return result;
    }
    if (walk->current.locator == nullptr || walk->current.found == 0) {
      return kvfs_ok;
    }
    result = accept_current_record(walk);
    if (result == kvfs_ok) {
      result = next_component(walk);
    }
    if (result != kvfs_ok) {
      return result;
    }
  } while (walk->component_length != 0);
  return kvfs_ok;
}

// Gives the result its parent and its record type.
static kvfs_result complete_result(path_walk* walk) {
  kvfs_catalog_record_locator* const locator = walk->current.locator;
  if (locator == nullptr) {
    return kvfs_ok;
  }
  if (walk->current.found != 0) {
    const kvfs_result result = kvfs_catalog_record_locator_set_parent_locator(locator, walk->parent);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_catalog_search_by_path, "Error while setting parent locator (search found a match).\n");
      return result;
    }
  } else if (walk->parent != nullptr) {
    const kvfs_result result = kvfs_catalog_record_locator_set_parent_locator(locator, walk->parent);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_catalog_search_by_path, "Error while setting parent locator (search did not find a match).\n");
      return result;
    }
  }
  std::uint16_t type = 0;
  const kvfs_result read = read_record_type(KVFS_NAME_OF(kvfs_catalog_search_by_path), locator, &type);
  locator->record_type = type;
  return read;
}

kvfs_result kvfs_catalog_search_by_path(kvfs_catalog* catalog, kvfs_catalog_component_source source, void* context,
                                        kvfs_catalog_record_locator* start, kvfs_catalog_search_result* out_result) {
  path_walk walk = {};
  walk.catalog = catalog;
  walk.source = source;
  walk.context = context;
  kvfs_result result = start_path(&walk, start);
  if (result == kvfs_ok) {
    result = walk_components(&walk);
  }
  if (result == kvfs_ok) {
    result = complete_result(&walk);
  }
  if (walk.held != nullptr) {
    kvfs_catalog_record_locator_close(&walk.held);
  }
  if (result != kvfs_ok) {
    kvfs_catalog_search_result_release(&walk.current);
    return result;
  }
  *out_result = walk.current;
  return kvfs_ok;
}

// ---- UTF-8 paths ---------------------------------------------------------------------------------------------------

static constexpr char kPathSeparator = '/';

kvfs_result kvfs_catalog_utf8_path_component(void* context, kvfs_be16* buffer, std::size_t capacity,
                                             std::size_t* out_length) {
  kvfs_catalog_utf8_path* const path = static_cast<kvfs_catalog_utf8_path*>(context);
  while (*path->rest == kPathSeparator) {
    ++path->rest;
  }
  const char* const name = path->rest;
  while (*path->rest != '\0' && *path->rest != kPathSeparator) {
    ++path->rest;
  }
  std::uint16_t composed[kHFSPlusMaxNameLength];
  std::uint16_t* units = composed;
  std::size_t length = kHFSPlusMaxNameLength;
  const kvfs_result result =
      kvfs_unicode_utf8_to_unistr(name, static_cast<std::size_t>(path->rest - name), &units, &length);
  if (result != kvfs_ok) {
    return result;
  }
  if (kvfs_unicode_windows_to_hfsplus_capped(composed, length, buffer, capacity, out_length) != 0) {
    KVFS_ERROR("Path component of %zu units is too long.\n", length);
    return kvfs_overflow;
  }
  return kvfs_ok;
}

// ---- Insertion -----------------------------------------------------------------------------------------------------

kvfs_result kvfs_catalog_insert_record(kvfs_catalog* catalog, const HFSPlusCatalogKey* key, const void* data,
                                       std::uint16_t data_length, const kvfs_catalog_search_result* hint,
                                       kvfs_catalog_record_locator** out_locator) {
  kvfs_btree_search_result place;
  kvfs_btree_search_result_init(&place);
  if (hint != nullptr && hint->locator != nullptr) {
    place = {hint->found, hint->after, hint->locator->btree_locator};
  }
  kvfs_btree_record_locator* inserted = nullptr;
  kvfs_result result = kvfs_btree_insert_record(btree_of(catalog), key, data, data_length,
                                                place.locator != nullptr ? &place : nullptr, &inserted);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error in kvfs_btree_insert_record.\n");
    return result;
  }
  if (inserted == nullptr) {
    KVFS_CRITICAL("Unexpected: kvfs_btree_insert_record returned NULL locator but no error.\n");
    return kvfs_internal;
  }
  result = kvfs_catalog_record_locator_open(catalog, inserted, 0, nullptr, 0, out_locator);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while creating kvfs_catalog_record_locator.\n");
    kvfs_btree_record_locator_close(&inserted);
  }
  return result;
}

// ---- Valence -------------------------------------------------------------------------------------------------------

// File type and creator of a file that is a hard link to a directory.
static constexpr std::uint32_t kDirectoryLinkType = 0x66647270;     // 'fdrp'
static constexpr std::uint32_t kDirectoryLinkCreator = 0x4D414353;  // 'MACS'

static bool counts_as_folder(const void* record_data) {
  if (kvfs_view_as<kvfs_be16>(record_data)->get() == kHFSPlusFolderRecord) {
    return true;
  }
  const HFSPlusCatalogFile* const file = kvfs_view_as<HFSPlusCatalogFile>(record_data);
  return file->userInfo.fdType.get() == kDirectoryLinkType && file->userInfo.fdCreator.get() == kDirectoryLinkCreator &&
         (file->flags.get() & kHFSHasLinkChainMask) != 0;
}

// Rewrites the folder record of the parent, in the name of kvfs_catalog_update_valence. Its counts wrap (Q-catalog-11).
static void change_counts(const void* child_record_data, kvfs_catalog_record_locator* parent, std::uint32_t change) {
  HFSPlusCatalogFolder folder;
  if (copy_record(KVFS_NAME_OF(kvfs_catalog_update_valence), parent, &folder, sizeof(folder)) != kvfs_ok) {
    return;
  }
  if (counts_as_folder(child_record_data) && (folder.flags.get() & kHFSHasFolderCountMask) != 0) {
    folder.folderCount.set(folder.folderCount.get() + change);
  }
  folder.valence.set(folder.valence.get() + change);
  if (kvfs_btree_record_locator_write_data(parent->btree_locator, &folder, sizeof(folder)) != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_update_valence, "Error while writing out updated parent valence.\n");
  }
}

kvfs_result kvfs_catalog_update_valence(kvfs_catalog* /*catalog*/, const void* child_record_data,
                                        kvfs_catalog_record_locator* parent, int increment) {
  const std::uint16_t type = kvfs_view_as<kvfs_be16>(child_record_data)->get();
  if (is_thread(type)) {
    KVFS_ERROR("Invalid parameter: Child record data is a thread record.\n");
  } else if (type != kHFSPlusFolderRecord && type != kHFSPlusFileRecord) {
    KVFS_CRITICAL("Unexpected - Bad data in child_record_data (not a catalog record, record type: 0x%hX).\n", type);
  } else {
    change_counts(child_record_data, parent, increment != 0 ? 1U : 0U - 1U);
  }
  return kvfs_ok;  // in every case: Q-catalog-10
}

kvfs_result kvfs_catalog_increment_valence(kvfs_catalog* catalog, const void* child_record_data,
                                           kvfs_catalog_record_locator* parent) {
  return kvfs_catalog_update_valence(catalog, child_record_data, parent, 1);
}

kvfs_result kvfs_catalog_decrement_valence(kvfs_catalog* catalog, const void* child_record_data,
                                           kvfs_catalog_record_locator* parent) {
  return kvfs_catalog_update_valence(catalog, child_record_data, parent, 0);
}

// ---- Rename --------------------------------------------------------------------------------------------------------

// An item that is being renamed, with a copy of its record, whose place its new thread record takes in the end.
struct renaming {
  kvfs_catalog* catalog;
  union {
    HFSPlusCatalogFolder folder;
    HFSPlusCatalogFile file;
    HFSPlusCatalogThread thread;
  } record;
  std::uint16_t record_size;
  bool is_folder;
  bool is_root;
  kvfs_be32 cnid;
  kvfs_be32 new_parent;
  const kvfs_be16* name;
  std::uint32_t name_length;
};

// Copies the record of the item, which has to be a file or a folder.
static kvfs_result copy_renamed_record(renaming* item, const kvfs_catalog_record_locator* locator) {
  std::uint16_t type = 0;
  const kvfs_result read = read_record_type(KVFS_NAME_OF(kvfs_catalog_rename_record), locator, &type);
  if (read != kvfs_ok) {
    return read;
  }
  if (type != kHFSPlusFileRecord && type != kHFSPlusFolderRecord) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "Invalid record type (0x%hX) in record data!\n", type);
    return kvfs_invalid;
  }
  item->is_folder = type == kHFSPlusFolderRecord;
  item->record_size = item->is_folder ? sizeof(HFSPlusCatalogFolder) : sizeof(HFSPlusCatalogFile);
  const kvfs_result copied =
      copy_record(KVFS_NAME_OF(kvfs_catalog_rename_record), locator, &item->record, item->record_size);
  item->cnid = item->is_folder ? item->record.folder.folderID : item->record.file.fileID;
  return copied;
}

// Checks that the record of the item's folder is at hand: only under the root folder's parent there is none.
static kvfs_result check_parent_locator(const kvfs_catalog_record_locator* locator) {
  if (*locator->parent != nullptr) {
    return kvfs_ok;
  }
  std::uint32_t parent = 0;
  const kvfs_result read = read_key_parent(KVFS_NAME_OF(kvfs_catalog_rename_record), locator, &parent);
  if (read == kvfs_ok && parent != kHFSRootParentID) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "Supplied catalog record locator has no parent locator.\n");
    return kvfs_invalid;
  }
  return read;
}

// Checks what can be checked before anything is deleted.
static kvfs_result prepare_rename(renaming* item, kvfs_catalog_record_locator* const* locator) {
  if (locator == nullptr || *locator == nullptr) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "No catalog record pointer specified.\n");
    return kvfs_invalid;
  }
  kvfs_result result = check_parent_locator(*locator);
  if (result == kvfs_ok) {
    result = copy_renamed_record(item, *locator);
  }
  if (result != kvfs_ok) {
    return result;
  }
  item->is_root = item->cnid.get() == kHFSRootFolderID;
  if (item->is_root && item->new_parent.get() != kHFSRootParentID) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record,
                  "Attempting to move root directory to other (non-root parent) folder. This is not allowed.\n");
    return kvfs_invalid;
  }
  return kvfs_ok;
}

// Takes the item out of its old folder's valence. The root folder's parent has no record and so no valence.
static kvfs_result leave_old_folder(renaming* item, const kvfs_catalog_record_locator* locator) {
  if (item->is_root) {
    return kvfs_ok;
  }
  if (*locator->parent == nullptr) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "%s: Unable to decrement valence!\n",
                  KVFS_NAME_OF(kvfs_catalog_rename_record));
    return kvfs_internal;
  }
  const kvfs_result result = kvfs_catalog_decrement_valence(item->catalog, &item->record, *locator->parent);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "Error when decrementing valence of old parent folder.\n");
  }
  return result;
}

// Keys and thread records take half a KiB each. The two routines that insert records are not inlined, so that no frame
// holds more than one of them: the stacks of small systems are small.
[[gnu::noinline]] static kvfs_result insert_renamed_record(const renaming& item) {
  HFSPlusCatalogKey key;
  make_key(&key, item.new_parent, item.name, item.name_length);
  kvfs_catalog_record_locator* inserted = nullptr;
  const kvfs_result result =
      kvfs_catalog_insert_record(item.catalog, &key, &item.record, item.record_size, nullptr, &inserted);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "Error while inserting record into catalog.\n");
    return result;
  }
  if (inserted == nullptr) {
    KVFS_CRITICAL_AS(
        kvfs_catalog_rename_record,
        "Unexpected: kvfs_catalog_insert_record returned NULL locator but no error after inserting new record for renamed item into catalog.\n");
    return kvfs_internal;
  }
  kvfs_catalog_record_locator_close(&inserted);
  return kvfs_ok;
}

// Counts the item in where it is now, given the search for the folder.
static kvfs_result count_in_new_folder(const renaming& item, const kvfs_catalog_search_result& folder) {
  if (folder.locator == nullptr) {
    KVFS_CRITICAL_AS(
        kvfs_catalog_rename_record,
        "Unexpected: kvfs_catalog_search_by_cnid returned NULL locator but no error after searching for new containing folder of renamed item by CNID.\n");
    return kvfs_internal;
  }
  if (folder.found == 0) {
    KVFS_CRITICAL_AS(kvfs_catalog_rename_record,
                     "Unable to find containing parent with CNID %lu when attempting to increment valence.\n",
                     to_ul(item.new_parent.get()));
    return kvfs_inconsistent;
  }
  const kvfs_result result = kvfs_catalog_increment_valence(item.catalog, &item.record, folder.locator);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "Error when incrementing valence of new parent folder.\n");
  }
  return result;
}

static kvfs_result enter_new_folder(const renaming& item) {
  if (item.is_root) {
    return kvfs_ok;
  }
  kvfs_catalog_search_result folder;
  kvfs_catalog_search_result_init(&folder);
  kvfs_result result = kvfs_catalog_search_by_cnid(item.catalog, item.new_parent.get(), true, &folder);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record,
                  "Error while searching for containing folder of newly inserted record by CNID.\n");
    return result;
  }
  result = count_in_new_folder(item, folder);
  kvfs_catalog_search_result_release(&folder);
  return result;
}

// Inserts the new thread record where the old one stood or would have stood (Q-catalog-14).
[[gnu::noinline]] static kvfs_result insert_thread_record(renaming* item, const kvfs_catalog_search_result& place) {
  HFSPlusCatalogKey key;
  make_thread_key(&key, item->cnid);
  HFSPlusCatalogThread* const thread = &item->record.thread;
  *thread = {};
  thread->recordType.set(item->is_folder ? kHFSPlusFolderThreadRecord : kHFSPlusFileThreadRecord);
  thread->parentID = item->new_parent;
  thread->nodeName.length.set(static_cast<std::uint16_t>(item->name_length));
  if (item->name_length != 0) {
    std::memcpy(thread->nodeName.unicode, item->name, item->name_length * sizeof(kvfs_be16));
  }
  const std::uint16_t size =
      static_cast<std::uint16_t>(kHFSPlusCatalogThreadNameOffset + item->name_length * sizeof(kvfs_be16));
  kvfs_catalog_record_locator* inserted = nullptr;
  const kvfs_result result = kvfs_catalog_insert_record(item->catalog, &key, thread, size, &place, &inserted);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "Error while inserting thread record for renamed entry.\n");
    return result;
  }
  if (inserted == nullptr) {
    KVFS_CRITICAL_AS(
        kvfs_catalog_rename_record,
        "Unexpected: kvfs_catalog_insert_record returned NULL locator but no error after inserting new thread record.\n");
    return kvfs_internal;
  }
  kvfs_catalog_record_locator_close(&inserted);
  return kvfs_ok;
}

// Replaces the thread record that a search has found, or adds one where there was none.
static kvfs_result replace_found_thread(renaming* item, const kvfs_catalog_search_result& thread) {
  if (thread.locator == nullptr) {
    KVFS_CRITICAL_AS(
        kvfs_catalog_rename_record,
        "Unexpected: kvfs_catalog_search_by_cnid returned NULL locator but no error when seaching for thread of inserted record.\n");
    return kvfs_internal;
  }
  if (thread.found == 0) {
    KVFS_WARNING_AS(kvfs_catalog_rename_record,
                    "Missing thread record for original file in rename. Creating new thread record...\n");
  } else {
    const kvfs_result result = kvfs_btree_delete_record(btree_of(item->catalog), thread.locator->btree_locator, 0);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_catalog_rename_record, "Error while deleting catalog thread record from B-tree.\n");
      return result;
    }
  }
  return insert_thread_record(item, thread);
}

static kvfs_result replace_thread_record(renaming* item) {
  kvfs_catalog_search_result thread;
  kvfs_catalog_search_result_init(&thread);
  kvfs_result result = kvfs_catalog_search_by_cnid(item->catalog, item->cnid.get(), false, &thread);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_rename_record, "Error while searching for thread record by CNID.\n");
    return result;
  }
  result = replace_found_thread(item, thread);
  kvfs_catalog_search_result_release(&thread);
  return result;
}

kvfs_result kvfs_catalog_rename_record(kvfs_catalog* catalog, kvfs_catalog_record_locator** locator,
                                       kvfs_be32 new_parent, const kvfs_be16* name, std::size_t name_length) {
  renaming item = {};
  item.catalog = catalog;
  item.new_parent = new_parent;
  item.name = name;
  kvfs_result result = prepare_rename(&item, locator);
  if (result != kvfs_ok) {
    return result;
  }
  result = kvfs_btree_delete_record(btree_of(catalog), (*locator)->btree_locator, 0);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while deleting record from B-tree.\n");
    return result;
  }
  result = leave_old_folder(&item, *locator);
  kvfs_catalog_record_locator_close(locator);
  if (result != kvfs_ok) {
    return result;
  }
  if (name_length > kHFSPlusMaxNameLength) {
    return kvfs_invalid;  // only now, with the record gone, and without a message: Q-catalog-12
  }
  item.name_length = static_cast<std::uint32_t>(name_length);
  result = insert_renamed_record(item);
  if (result == kvfs_ok) {
    result = enter_new_folder(item);
  }
  return result == kvfs_ok ? replace_thread_record(&item) : result;
}

// ---- Deletion ------------------------------------------------------------------------------------------------------

// Looks at the record behind the place of a folder's thread record, which comes before all of the folder's items.
static kvfs_result look_behind_thread(kvfs_catalog* catalog, const kvfs_catalog_search_result& thread,
                                      std::uint32_t folder_id, int* out_empty) {
  if (thread.locator == nullptr) {
    KVFS_CRITICAL_AS(kvfs_catalog_is_directory_empty,
                     "Unexpected: kvfs_catalog_search_by_cnid returned NULL locator with no error.\n");
    return kvfs_internal;
  }
  kvfs_catalog_record_locator* next = nullptr;
  kvfs_result result = kvfs_catalog_get_next_record(catalog, thread.locator, &next);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_is_directory_empty,
                  "Error while looking up the next record after directory thread record.\n");
    return result;
  }
  if (next == nullptr) {
    *out_empty = 1;
    return kvfs_ok;
  }
  std::uint32_t parent = 0;
  result = read_key_parent(KVFS_NAME_OF(kvfs_catalog_is_directory_empty), next, &parent);
  if (result == kvfs_ok) {
    *out_empty = parent == folder_id ? 0 : 1;
  }
  kvfs_catalog_record_locator_close(&next);
  return result;
}

kvfs_result kvfs_catalog_is_directory_empty(kvfs_catalog* catalog, const kvfs_catalog_record_locator* folder,
                                            int* out_empty) {
  if (folder == nullptr) {
    return kvfs_invalid;
  }
  HFSPlusCatalogFolder record;
  kvfs_result result = copy_record(__func__, folder, &record, sizeof(record));
  if (result != kvfs_ok) {
    return result;
  }
  const std::uint32_t folder_id = record.folderID.get();
  kvfs_catalog_search_result thread;
  kvfs_catalog_search_result_init(&thread);
  result = kvfs_catalog_search_by_cnid(catalog, folder_id, false, &thread);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while searching for directory thread by CNID.\n");
    return result;
  }
  result = look_behind_thread(catalog, thread, folder_id, out_empty);
  kvfs_catalog_search_result_release(&thread);
  return result;
}

kvfs_result kvfs_catalog_can_delete_file(kvfs_catalog* catalog, const kvfs_catalog_record_locator* locator,
                                         int* out_can_delete) {
  if (locator == nullptr) {
    return kvfs_invalid;
  }
  std::uint16_t type = 0;
  kvfs_result result = read_record_type(__func__, locator, &type);
  if (result != kvfs_ok) {
    return result;
  }
  if (type != kHFSPlusFolderRecord) {
    *out_can_delete = 1;
    return kvfs_ok;
  }
  result = kvfs_catalog_is_directory_empty(catalog, locator, out_can_delete);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while checking if directory is empty.\n");
  }
  return result;
}

// An item that is being deleted, with a copy of its record.
struct catalog_deletion {
  kvfs_catalog* catalog;
  kvfs_volume* volume;
  kvfs_catalog_record_locator* locator;
  union {
    HFSPlusCatalogFolder folder;
    HFSPlusCatalogFile file;
  } record;
  bool is_folder;
  kvfs_be32 cnid;
  std::uint32_t freed_blocks;
};

// Frees the blocks of the data fork; the resource fork's stay allocated. A failure does not stop the deletion. A volume
// without its allocation file fails where there is a block to free.
static void free_data_fork(catalog_deletion* item) {
  const HFSPlusForkData* const fork_data = &item->record.file.dataFork;
  kvfs_bitmap* const bitmap = item->volume->bitmap;
  if (fork_data->totalBlocks.get() == 0 || fork_data->extents.extents[0].blockCount.get() == 0) {
    return;
  }
  if (bitmap == nullptr ||
      FreeExtentAllocationBlocks(fork_data, 0, fork_data->totalBlocks.get(), bitmap, &item->freed_blocks) != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_delete, "Error while freeing allocation blocks of deleted file on cleanup.\n");
  }
}

static kvfs_result take_up_deleted_item(catalog_deletion* item) {
  std::uint16_t type = 0;
  kvfs_result result = read_record_type(KVFS_NAME_OF(kvfs_catalog_delete), item->locator, &type);
  if (result != kvfs_ok) {
    return result;
  }
  if (type != kHFSPlusFolderRecord && type != kHFSPlusFileRecord) {
    KVFS_ERROR_AS(kvfs_catalog_delete,
                  "Invalid parameter: Record to delete is not a file or folder record (record type: %hd).\n",
                  static_cast<short>(type));
    return kvfs_invalid;
  }
  item->is_folder = type == kHFSPlusFolderRecord;
  if (item->is_folder) {
    result = copy_record(KVFS_NAME_OF(kvfs_catalog_delete), item->locator, &item->record.folder,
                         sizeof(item->record.folder));
    item->cnid = item->record.folder.folderID;
    return result;
  }
  result = copy_record(KVFS_NAME_OF(kvfs_catalog_delete), item->locator, &item->record.file, sizeof(item->record.file));
  if (result == kvfs_ok) {
    item->cnid = item->record.file.fileID;
    free_data_fork(item);
  }
  return result;
}

static kvfs_result leave_parent(const catalog_deletion& item) {
  kvfs_catalog_record_locator* const parent = *item.locator->parent;
  if (parent == nullptr) {  // Q-catalog-18
    KVFS_WARNING_AS(kvfs_catalog_delete, "INFO: No parent rec in delete..This is a todo\n");
    return kvfs_ok;
  }
  const kvfs_result result = kvfs_catalog_decrement_valence(item.catalog, &item.record, parent);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_delete, "%s: Failed to set parent valence.\n", KVFS_NAME_OF(kvfs_catalog_delete));
  }
  return result;
}

// Counts the item out of the volume.
static void count_out(const catalog_deletion& item) {
  if (item.is_folder) {
    kvfs_volume_subtract_folder_count(item.volume, 1);
  } else {
    kvfs_volume_subtract_file_count(item.volume, 1);
  }
  kvfs_volume_add_free_blocks(item.volume, item.freed_blocks);
}

// Deletes the thread record, or what stands in its place: whether it was found is not asked: Q-catalog-19.
static kvfs_result delete_thread_record(const catalog_deletion& item) {
  HFSPlusCatalogKey key;
  make_thread_key(&key, item.cnid);
  kvfs_catalog_search_result thread;
  kvfs_catalog_search_result_init(&thread);
  kvfs_result result = kvfs_catalog_search_node(item.catalog, &key, &thread);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_delete, "Error while searching for catalog thread record to destroy.\n");
    return result;
  }
  if (thread.locator == nullptr) {
    KVFS_WARNING_AS(kvfs_catalog_delete, "No thread record found for deleted %s.\n",
                    item.is_folder ? "folder" : "file");
    return kvfs_ok;
  }
  result = kvfs_btree_delete_record(btree_of(item.catalog), thread.locator->btree_locator, 0);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_delete, "Error while deleting thread record from B-tree.\n");
  } else {
    count_out(item);
  }
  kvfs_catalog_search_result_release(&thread);
  return result;
}

kvfs_result kvfs_catalog_delete(kvfs_catalog* catalog, kvfs_volume* volume, kvfs_catalog_record_locator* locator) {
  if (locator == nullptr) {
    return kvfs_invalid;
  }
  catalog_deletion item = {};
  item.catalog = catalog;
  item.volume = volume;
  item.locator = locator;
  kvfs_result result = take_up_deleted_item(&item);
  if (result != kvfs_ok) {
    return result;
  }
  result = kvfs_btree_delete_record(btree_of(catalog), locator->btree_locator, 0);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while deleting file/folder record from B-tree.\n");
    return result;
  }
  result = leave_parent(item);
  return result == kvfs_ok ? delete_thread_record(item) : result;
}

// ---- File records --------------------------------------------------------------------------------------------------

static constexpr std::uint32_t kHardLinkType = 0x686C6E6B;     // 'hlnk'
static constexpr std::uint32_t kHardLinkCreator = 0x6866732B;  // 'hfs+'
static constexpr std::uint32_t kSymLinkType = 0x736C6E6B;      // 'slnk'
static constexpr std::uint32_t kSymLinkCreator = 0x72686170;   // 'rhap'
static constexpr std::uint16_t kSymLinkFinderFlags = 0x8000;   // it is shown as an alias
static constexpr std::uint16_t kSymLinkFileMode = 0xA1FF;      // a symbolic link with all permissions

int kvfs_catalog_file_link_kind(const HFSPlusCatalogFile* record) {
  const std::uint32_t type = record->userInfo.fdType.get();
  const std::uint32_t creator = record->userInfo.fdCreator.get();
  if (type == kHardLinkType && creator == kHardLinkCreator) {
    return kvfs_hard_link;
  }
  return type == kSymLinkType && creator == kSymLinkCreator ? kvfs_symbolic_link : kvfs_plain_file;
}

static std::uint64_t size_of_forks(const HFSPlusCatalogFile& file) {
  const std::uint64_t data_size = file.dataFork.logicalSize.get();
  return data_size != 0 ? data_size : file.resourceFork.logicalSize.get();  // Q-catalog-20
}

// Reads the size out of a record that may be short; the resource fork's size is asked for only where it counts.
static bool read_size_of_forks(const kvfs_catalog_record_locator* locator, std::uint64_t* size) {
  constexpr std::size_t kDataSizeEnd = offsetof(HFSPlusCatalogFile, dataFork) + sizeof(kvfs_be64);
  constexpr std::size_t kResourceSizeEnd = offsetof(HFSPlusCatalogFile, resourceFork) + sizeof(kvfs_be64);
  const HFSPlusCatalogFile* const file = kvfs_view_as<HFSPlusCatalogFile>(locator->btree_locator->data);
  if (check_record_size(KVFS_NAME_OF(kvfs_catalog_record_get_file_size), locator, kDataSizeEnd) != kvfs_ok ||
      (file->dataFork.logicalSize.get() == 0 &&
       check_record_size(KVFS_NAME_OF(kvfs_catalog_record_get_file_size), locator, kResourceSizeEnd) != kvfs_ok)) {
    return false;
  }
  *size = size_of_forks(*file);
  return true;
}

// Reads the size of the file that a hard link stands for.
static bool read_link_target_size(kvfs_catalog* catalog, const HFSPlusCatalogFile* link, std::uint64_t* size) {
  kvfs_catalog_search_result target;
  kvfs_catalog_search_result_init(&target);
  const bool read = kvfs_catalog_follow_hard_link(catalog, link, &target) == kvfs_ok && target.found != 0 &&
                    read_size_of_forks(target.locator, size);
  kvfs_catalog_search_result_release(&target);
  return read;
}

std::uint64_t kvfs_catalog_record_get_file_size(const HFSPlusCatalogFile* record, kvfs_catalog* catalog) {
  if (kvfs_catalog_file_link_kind(record) != kvfs_hard_link) {
    return size_of_forks(*record);
  }
  std::uint64_t size = 0;
  if (!read_link_target_size(catalog, record, &size)) {
    KVFS_ERROR("Error while following hard link.\n");
    return 0;
  }
  return size;
}

void kvfs_catalog_record_set_file_size(void* record, std::uint64_t size) {
  if (record == nullptr) {
    KVFS_ERROR("Error in %s - no record\n", __func__);
    return;
  }
  const std::uint16_t type = kvfs_view_as<kvfs_be16>(record)->get();
  if (type != kHFSPlusFileRecord) {
    KVFS_ERROR("%s: Can only set size for a file record - This is a record of type: %d\n", __func__,
               static_cast<int>(type));
  }
  kvfs_view_as<HFSPlusCatalogFile>(record)->dataFork.logicalSize.set(size);  // into any record: Q-catalog-21
}

kvfs_result kvfs_catalog_follow_hard_link(kvfs_catalog* catalog, const HFSPlusCatalogFile* record,
                                          kvfs_catalog_search_result* out_result) {
  HFSPlusCatalogKey key;
  make_thread_key(&key, record->permissions.special);
  kvfs_catalog_search_result thread;
  kvfs_catalog_search_result_init(&thread);
  kvfs_result result = kvfs_catalog_search_node(catalog, &key, &thread);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while searching for catalog record of hard linked file.\n");
    return result;
  }
  if (thread.locator == nullptr) {
    return kvfs_internal;
  }
  // A missing thread has no message: Q-catalog-22.
  result = thread.found != 0 ? make_target_key(__func__, thread.locator, &key) : kvfs_inconsistent;
  if (result == kvfs_ok) {
    result = kvfs_catalog_search_node(catalog, &key, out_result);
    if (result != kvfs_ok) {
      KVFS_ERROR("Error while searching for hard link target.\n");
    }
  }
  kvfs_catalog_search_result_release(&thread);
  return result;
}

// ---- Symbolic links ------------------------------------------------------------------------------------------------

// Longest target, UTF-8.
static constexpr std::size_t kMaximumTargetSize = 255;

// The value of a failure exit, which must not be taken for a success.
static kvfs_result failure_value(kvfs_result result) {
  if (result == kvfs_ok) {
    KVFS_WARNING_AS(kvfs_catalog_mksymlink, "At error with no error value set!\n");
    return kvfs_failed;
  }
  return result;
}

// Finds a free block for the target. None is a failure (X-catalog-6).
static kvfs_result find_target_block(kvfs_volume* volume, const HFSPlusCatalogFile& file, std::uint32_t* block) {
  kvfs_allocation_location location = {};
  const kvfs_result result = FindWriteLocation(file.fileID.get(), kHFSDataForkType, &file.dataFork, volume, 0,
                                               volume->header->blockSize.get(), &location);
  if (result != kvfs_ok || location.block_count == 0) {
    KVFS_ERROR_AS(kvfs_catalog_mksymlink, "Error while searching for symlink data write location.\n");
    return failure_value(result);  // a volume without a free block has not failed the search
  }
  *block = location.start_block;
  return kvfs_ok;
}

// Writes the target, converted to UTF-8, to the first sector of a block, whose rest it clears (X-catalog-7);
// `size` receives its bytes.
static kvfs_result write_target(kvfs_volume* volume, std::uint32_t block, const kvfs_be16* target_name,
                                std::size_t target_length, std::size_t* size) {
  kvfs_device* const device = volume->device;
  const std::size_t buffer_size = kvfs_max<std::size_t>(device->sector_size, kMaximumTargetSize + 1);
  const kvfs_owned<char> sector(static_cast<char*>(std::calloc(1, buffer_size)));
  if (!sector) {
    KVFS_ERROR_AS(kvfs_catalog_mksymlink, "Error while allocating %zu bytes for symlink data.\n", buffer_size);
    return kvfs_no_memory;
  }
  *size = kvfs_catalog_widechar_to_utf8(target_name, target_length, sector.get(), kMaximumTargetSize + 1);
  if (*size == 0 && target_length != 0) {
    if (target_name[0].get() == 0) {
      KVFS_ERROR_AS(kvfs_catalog_mksymlink, "The target of a symbolic link cannot begin with a NUL.\n");
    }
    return kvfs_invalid;  // or else the conversion has said why
  }
  const std::uint64_t first = std::uint64_t{block} * volume->header->blockSize.get() / device->sector_size;
  return kvfs_device_write_disk_sectors(device, first, 1, sector.get());
}

// Makes the record that of a symbolic link with its target in one block.
static void set_link_fields(HFSPlusCatalogFile* file, std::uint32_t block) {
  file->dataFork.extents.extents[0] = {kvfs_be32::of(block), kvfs_be32::of(1)};
  file->dataFork.totalBlocks.set(1);
}

// Writes the target, marks its block as used and writes the record back: in this order, with nothing undone
// (Q-catalog-23).
static kvfs_result store_link(kvfs_catalog_record_locator* locator, HFSPlusCatalogFile* file,
                              const kvfs_be16* target_name, std::size_t target_length, kvfs_volume* volume) {
  std::uint32_t block = 0;
  kvfs_result result = find_target_block(volume, *file, &block);
  if (result != kvfs_ok) {
    return result;
  }
  std::size_t size = 0;
  result = write_target(volume, block, target_name, target_length, &size);
  if (result != kvfs_ok) {
    return result;
  }
  set_link_fields(file, block);
  result = AllocateExtentAllocationBlocks(block, 1, volume);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_mksymlink, "Error while marking block %lu as allocated.\n", to_ul(block));
    return result;
  }
  kvfs_catalog_record_set_file_size(file, size);
  result = kvfs_btree_record_locator_write_data(locator->btree_locator, file, sizeof(*file));
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_catalog_mksymlink, "Error while writing back modified HFSPlusCatalogFile to catalog.\n");
  }
  return result;
}

kvfs_result kvfs_catalog_mksymlink(kvfs_catalog_record_locator* locator, const kvfs_be16* target_name,
                                   std::size_t target_length, kvfs_volume* volume) {
  if (locator == nullptr) {
    return kvfs_invalid;
  }
  HFSPlusCatalogFile file;
  const kvfs_result copied = copy_record(__func__, locator, &file, sizeof(file));
  if (copied != kvfs_ok) {
    return copied;
  }
  file.userInfo.fdType.set(kSymLinkType);
  file.userInfo.fdCreator.set(kSymLinkCreator);
  file.userInfo.fdFlags.set(kSymLinkFinderFlags);
  file.permissions.fileMode.set(kSymLinkFileMode);
  return store_link(locator, &file, target_name, target_length, volume);
}
