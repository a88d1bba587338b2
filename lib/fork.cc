#include "fork.h"

#include <bit>
#include <cstring>

#include "arithmetic.h"
#include "bitmap.h"
#include "device.h"
#include "extents.h"
#include "fork_private.h"
#include "owned.h"
#include "rwlock_guard.h"
#include "support.h"
#include "volume.h"

// ---- Arithmetic of blocks, items and extents -----------------------------------------------------------------------

static constexpr std::uint64_t kMaximum32 = 0xFFFFFFFF;

// Bytes of an item's bitmap, one bit for each block.
static constexpr std::size_t bitmap_size(std::uint32_t item_size, std::uint32_t transfer_unit) {
  return static_cast<std::size_t>((kvfs_divide_rounding_up(item_size, transfer_unit) + 7) / 8);
}

static constexpr std::uint32_t bitmap_byte(std::uint64_t block) {
  return static_cast<std::uint32_t>(block / 8);
}

static constexpr unsigned char bitmap_mask(std::uint64_t block) {
  return static_cast<unsigned char>(1U << (block % 8));
}

// Bytes of the fork in an extent. The product has 32 bits (Q-fork-1): of an extent of 4 GiB and more only the
// remainder is seen, and the fork goes on behind that with the next extent.
static std::uint32_t extent_length(const kvfs_fork* fork, const HFSPlusExtentDescriptor& extent) {
  return fork->block_size * extent.blockCount.get();
}

static bool is_empty(const HFSPlusExtentDescriptor& extent) {
  return extent.startBlock.get() == 0 && extent.blockCount.get() == 0;
}

static bool is_inside(const kvfs_fork* fork, std::uint64_t offset, std::uint64_t length) {
  const std::uint64_t logical_size = fork->priv->logical_size;
  return offset <= logical_size && length <= logical_size - offset;
}

// The number of items with modified blocks. It changes under dirty_lock, but a flush looks at it before it takes that
// lock, while another flush may be at work.
static std::size_t dirty_items(const kvfs_fork* fork) {
  return __atomic_load_n(&fork->priv->dirty_items, __ATOMIC_RELAXED);
}
static void set_dirty_items(kvfs_fork* fork, std::size_t count) {
  __atomic_store_n(&fork->priv->dirty_items, count, __ATOMIC_RELAXED);
}

// Takes an item that had modified blocks off the count when it has none any more.
static void count_out_if_clean(kvfs_fork* fork, const kvfs_fork_cache_item* item) {
  if (item->dirty_blocks == 0 && dirty_items(fork) != 0) {
    set_dirty_items(fork, dirty_items(fork) - 1);
  }
}

// ---- Extents -------------------------------------------------------------------------------------------------------
//
// Extents are looked for only as long as they do not lead back to where they were found: X-fork-1.

// Counts the leading descriptors in use and adds their blocks to `found`, reporting for the resolution of extents. The
// sum has 32 bits, as a fork's block count has.
static kvfs_result scan_extent_record(const HFSPlusExtentRecord& record, std::uint32_t total, std::uint32_t* found,
                                      std::uint32_t* used) {
  for (*used = 0; *used < kHFSPlusExtentDensity; ++*used) {
    const HFSPlusExtentDescriptor& extent = record.extents[*used];
    const std::uint32_t count = extent.blockCount.get();
    if (count == 0) {
      if (extent.startBlock.get() != 0) {
        KVFS_ERROR_AS(kvfs_fork_resolve_extents, "Found zero-sized extent with non-0 start block.\n");
        return kvfs_inconsistent;
      }
      if (*found != total) {
        KVFS_ERROR_AS(kvfs_fork_resolve_extents, "Last extent ends before the end of the fork.\n");
        return kvfs_inconsistent;
      }
      return kvfs_ok;
    }
    *found += count;
  }
  return kvfs_ok;
}

// Appends the descriptors in use to an owned array.
static kvfs_result append_extents(const HFSPlusExtentRecord& record, std::uint32_t used,
                                  kvfs_owned<HFSPlusExtentDescriptor>* array, std::uint32_t* count) {
  // realloc copies a large array by moving its pages, so that many overflow records do not cost quadratic copying.
  const std::uint64_t size = (std::uint64_t{*count} + used) * sizeof(HFSPlusExtentDescriptor);
  HFSPlusExtentDescriptor* const old = array->release();
  void* const grown =
      size > SIZE_MAX ? nullptr : std::realloc(old, static_cast<std::size_t>(size == 0 ? sizeof(*old) : size));
  if (grown == nullptr) {
    array->reset(old);
    KVFS_ERROR_AS(kvfs_fork_resolve_extents,
                  "Error while allocating %zu bytes of memory for expanded fork_extents array.",  // Q-log-2
                  static_cast<std::size_t>(size));
    return kvfs_no_memory;
  }
  array->reset(static_cast<HFSPlusExtentDescriptor*>(grown));
  std::memcpy(array->get() + *count, record.extents, used * sizeof(HFSPlusExtentDescriptor));
  *count += used;
  return kvfs_ok;
}

// The records that were looked up. A sum of blocks that has wrapped can lead back to one of them, and from there round
// and round. Comparing with one start block, exchanged at each power of two, finds that with constant memory.
struct overflow_lookups {
  std::uint32_t count;
  std::uint32_t checkpoint;  // a start block that was looked up
};

// Reads the overflow record that goes on behind the blocks found so far.
static kvfs_result next_overflow_record(kvfs_extents* extents, std::uint32_t cnid, std::uint32_t found,
                                        overflow_lookups* lookups, HFSPlusExtentRecord* record) {
  if (lookups->count != 0 && found == lookups->checkpoint) {
    KVFS_ERROR_AS(kvfs_fork_resolve_extents, "Overflow extents of CNID %lu form a ring.\n", to_ul(cnid));
    return kvfs_inconsistent;
  }
  if (std::has_single_bit(++lookups->count)) {
    lookups->checkpoint = found;
  }
  int exists = 0;
  const kvfs_result result =
      kvfs_extents_get_next_extent_record(extents, kHFSDataForkType, cnid, found, &exists, record);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_resolve_extents,
                  "Error while searching for overflow extents record for CNID %lu starting with block %lu.\n",
                  to_ul(cnid), to_ul(found));
    return result;
  }
  if (exists == 0) {
    KVFS_ERROR_AS(kvfs_fork_resolve_extents, "No overflow extent found for CNID %lu starting with block %lu.\n",
                  to_ul(cnid), to_ul(found));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

kvfs_result kvfs_fork_resolve_extents(kvfs_extents* extents, int partial, std::uint32_t cnid,
                                      const HFSPlusForkData* fork_data, HFSPlusExtentDescriptor** out_array,
                                      std::uint32_t* out_count) {
  const std::uint32_t total = fork_data->totalBlocks.get();
  HFSPlusExtentRecord record = fork_data->extents;
  kvfs_owned<HFSPlusExtentDescriptor> array;
  std::uint32_t count = 0;
  std::uint32_t found = 0;  // blocks
  overflow_lookups lookups = {0, 0};
  for (;;) {
    std::uint32_t used = 0;
    kvfs_result result = scan_extent_record(record, total, &found, &used);
    if (result == kvfs_ok) {
      result = append_extents(record, used, &array, &count);
    }
    if (result != kvfs_ok) {
      return result;
    }
    if (found == total || (extents == nullptr && partial != 0)) {
      *out_array = array.release();
      *out_count = count;
      return kvfs_ok;
    }
    if (extents == nullptr) {
      KVFS_CRITICAL("No kvfs_extents reference and we are not reading extents partially.\n");
      return kvfs_internal;
    }
    result = next_overflow_record(extents, cnid, found, &lookups, &record);
    if (result != kvfs_ok) {
      return result;
    }
  }
}

// ---- Opening and destroying ----------------------------------------------------------------------------------------

// The numbers of the item array of a fork; each has to fit 32 bits.
static kvfs_result item_array_length(std::uint64_t logical_size, std::uint32_t* length, std::size_t* size) {
  const std::uint64_t items_length = kvfs_divide_rounding_up(logical_size, kForkItemSize);
  const std::uint64_t items_size = items_length * sizeof(kvfs_fork_cache_item*);
  if (items_size > kMaximum32) {
    KVFS_ERROR_AS(kvfs_fork_private_create, "Items array too large for address space.\n");
    return kvfs_invalid;
  }
  *length = static_cast<std::uint32_t>(items_length);
  if (*length != items_length) {
    KVFS_ERROR_AS(kvfs_fork_private_create, "Overflow in 'items_length': %llu\n", to_ull(items_length));
    return kvfs_invalid;
  }
  *size = static_cast<std::size_t>(items_size);
  if (*size != items_size) {
    KVFS_ERROR_AS(kvfs_fork_private_create, "Overflow in 'items_size': %llu\n", to_ull(items_size));
    return kvfs_invalid;
  }
  return kvfs_ok;
}

// Makes the locks and the item array of a private part that has its extents. On failure what was made stays in `priv`
// for the caller to undo.
static kvfs_result create_items(kvfs_fork_private* priv, std::size_t items_size) {
  kvfs_result result = kvfs_rwlock_create(&priv->items_lock);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_private_create, "Error while creating items_lock.\n");
    return result;
  }
  // calloc leaves the pages of a large array untouched until a slot is used.
  priv->items = static_cast<kvfs_fork_cache_item**>(std::calloc(1, kvfs_max<std::size_t>(items_size, 1)));
  if (priv->items == nullptr) {
    KVFS_ERROR_AS(kvfs_fork_private_create, "Error while allocating fork cache item array (%llu bytes).\n",
                  to_ull(items_size));
    return kvfs_no_memory;
  }
  result = kvfs_rwlock_create(&priv->dirty_lock);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_private_create, "Error while creating dirty_lock.\n");
  }
  return result;
}

// Frees what a private part holds, complete or not, in the reverse order of its making.
static void free_private(kvfs_fork_private* priv) {
  if (priv->dirty_lock != nullptr) {
    (void)kvfs_rwlock_destroy(&priv->dirty_lock);  // a refusal is logged there; nothing else can be done about it
  }
  std::free(priv->items);
  if (priv->items_lock != nullptr) {
    (void)kvfs_rwlock_destroy(&priv->items_lock);
  }
  std::free(priv->fork_extents);
  kvfs_zero_and_free(priv);
}

kvfs_result kvfs_fork_private_create(kvfs_device* device, kvfs_extents* extents, int partial, std::uint32_t cnid,
                                     HFSPlusForkData* fork_data, std::uint32_t transfer_unit,
                                     kvfs_fork_private** out_private) {
  const std::uint64_t logical_size = fork_data->logicalSize.get();
  std::uint32_t items_length = 0;
  std::size_t items_size = 0;
  kvfs_result result = item_array_length(logical_size, &items_length, &items_size);
  if (result != kvfs_ok) {
    return result;
  }
  if (extents == nullptr && partial == 0) {
    KVFS_ERROR("NULL extents overflow file.\n");
    return kvfs_invalid;
  }
  kvfs_fork_private* const priv = kvfs_allocate_zeroed<kvfs_fork_private>().release();
  if (priv == nullptr) {
    KVFS_ERROR("Error while allocating %llu bytes for kvfs_fork_private.\n", to_ull(sizeof(kvfs_fork_private)));
    return kvfs_no_memory;
  }
  result = kvfs_fork_resolve_extents(extents, partial, cnid, fork_data, &priv->fork_extents, &priv->fork_extents_count);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while resolving fork extents.\n");
  } else {
    result = create_items(priv, items_size);
  }
  if (result != kvfs_ok) {
    free_private(priv);
    return result;
  }
  priv->device = device;
  priv->cnid = cnid;
  priv->fork_data = fork_data;
  priv->logical_size = logical_size;
  priv->items_length = items_length;
  priv->item_size = kForkItemSize;
  priv->modificationBitmapBlockSize = transfer_unit;
  *out_private = priv;
  return kvfs_ok;
}

kvfs_result kvfs_fork_create(kvfs_device* device, kvfs_extents* extents, int partial,
                             const HFSPlusVolumeHeader* volume_header, std::uint32_t cnid, HFSPlusForkData* fork_data,
                             std::uint32_t min_block_size, kvfs_fork** out_fork) {
  const std::uint32_t block_size = volume_header->blockSize.get();
  const std::uint32_t transfer_unit = kvfs_max(device->sector_size, min_block_size);
  kvfs_owned<kvfs_fork> fork = kvfs_allocate_zeroed<kvfs_fork>();
  if (!fork) {
    KVFS_ERROR("Error while allocating %llu bytes for kvfs_fork.\n", to_ull(sizeof(kvfs_fork)));
    return kvfs_no_memory;
  }
  kvfs_fork_private* priv = nullptr;
  if (kvfs_fork_private_create(device, extents, partial, cnid, fork_data, transfer_unit, &priv) != kvfs_ok) {
    KVFS_ERROR("Error while creating kvfs_fork_private.\n");
    return kvfs_no_memory;  // whatever failed: Q-fork-2
  }
  *fork = {&priv->logical_size, block_size, priv};
  *out_fork = fork.release();
  return kvfs_ok;
}

void kvfs_fork_destroy(kvfs_fork** fork) {
  kvfs_fork_private* const priv = (*fork)->priv;
  for (std::uint32_t i = 0; i < priv->items_end; ++i) {
    if (priv->items[i] != nullptr) {
      kvfs_fork_cache_item_destroy(&priv->items[i]);
    }
  }
  while (priv->dropped_items != nullptr) {
    kvfs_fork_cache_item* dropped = priv->dropped_items;
    priv->dropped_items = dropped->next_dropped;
    kvfs_fork_cache_item_destroy(&dropped);
  }
  free_private(priv);
  kvfs_zero_and_free(*fork);
  *fork = nullptr;
}

// ---- Cache items ---------------------------------------------------------------------------------------------------

// Makes the lock and the buffers of an item; on failure what was made stays in the item for the caller to undo.
static kvfs_result fill_cache_item(kvfs_fork_cache_item* item, std::uint32_t item_size, std::size_t bitmap_bytes) {
  const kvfs_result result = kvfs_rwlock_create(&item->item_lock);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_cache_item_create, "Error while creating item_lock.\n");
    return result;
  }
  // calloc costs only the pages that are touched, and what was never read from the device cannot leak onto it.
  item->data = static_cast<unsigned char*>(std::calloc(1, item_size));
  if (item->data == nullptr) {
    // The size of a bitmap, not of the buffer: Q-fork-3.
    KVFS_ERROR_AS(kvfs_fork_cache_item_create, "Error while allocating %zu bytes of memory for data buffer.\n",
                  bitmap_bytes);
    return kvfs_no_memory;
  }
  item->valid_bitmap = static_cast<unsigned char*>(std::calloc(1, bitmap_bytes));
  if (item->valid_bitmap == nullptr) {
    KVFS_ERROR_AS(kvfs_fork_cache_item_create, "Error while allocating %zu bytes of memory for valid data bitmap.\n",
                  bitmap_bytes);
    return kvfs_no_memory;
  }
  item->modification_bitmap = static_cast<unsigned char*>(std::calloc(1, bitmap_bytes));
  if (item->modification_bitmap == nullptr) {
    KVFS_ERROR_AS(kvfs_fork_cache_item_create,
                  "Error while allocating %zu bytes of memory for data modification bitmap.\n", bitmap_bytes);
    return kvfs_no_memory;
  }
  item->data_size = item_size;
  item->valid_bitmap_size = bitmap_bytes;
  item->modification_bitmap_size = bitmap_bytes;
  return kvfs_ok;
}

// Frees an item, complete or not.
static void free_cache_item(kvfs_fork_cache_item* item) {
  std::free(item->modification_bitmap);
  std::free(item->valid_bitmap);
  std::free(item->data);
  if (item->item_lock != nullptr) {
    (void)kvfs_rwlock_destroy(&item->item_lock);  // a refusal is logged there; nothing else can be done about it
  }
  kvfs_zero_and_free(item);
}

kvfs_result kvfs_fork_cache_item_create(const kvfs_fork* fork, kvfs_fork_cache_item** out_item) {
  const kvfs_fork_private* const priv = fork->priv;
  kvfs_fork_cache_item* const item = kvfs_allocate_zeroed<kvfs_fork_cache_item>().release();
  if (item == nullptr) {
    KVFS_ERROR("Error while allocating %zu bytes of memory for kvfs_fork_cache_item struct.\n",
               sizeof(kvfs_fork_cache_item));
    return kvfs_no_memory;
  }
  const kvfs_result result =
      fill_cache_item(item, priv->item_size, bitmap_size(priv->item_size, priv->modificationBitmapBlockSize));
  if (result != kvfs_ok) {
    free_cache_item(item);
    return result;
  }
  *out_item = item;
  return kvfs_ok;
}

void kvfs_fork_cache_item_destroy(kvfs_fork_cache_item** item) {
  if ((*item)->references != 0) {
    KVFS_WARNING("Destroying cache item %p with %llu remaining references.\n", static_cast<void*>(*item),
                 to_ull((*item)->references));
  }
  free_cache_item(*item);
  *item = nullptr;
}

// Creates the item of a slot that is still empty. There is none behind the last slot (X-fork-3).
static kvfs_result ensure_item(const char* speaker, kvfs_fork* fork, std::uint64_t index) {
  if (index >= fork->priv->items_length) {
    KVFS_ERROR_BY(speaker, "Cache item %llu lies behind the end of the fork.\n", to_ull(index));
    return kvfs_inconsistent;
  }
  kvfs_fork_cache_item** const slot = &fork->priv->items[index];
  if (*slot == nullptr && kvfs_fork_cache_item_create(fork, slot) != kvfs_ok) {
    KVFS_ERROR_BY(speaker, "Unable to create cache item %zu.\n", static_cast<std::size_t>(index));
    return kvfs_no_memory;
  }
  fork->priv->items_end = kvfs_max(fork->priv->items_end, static_cast<std::uint32_t>(index) + 1);
  return kvfs_ok;
}

// A block has to fit an item. A transfer unit comes from disk, and nothing has tested it before the first access
// (X-fork-2).
static kvfs_result check_transfer_unit(const char* speaker, const kvfs_fork* fork) {
  const std::uint32_t unit = fork->priv->modificationBitmapBlockSize;
  if (unit == 0 || unit > fork->priv->item_size) {
    KVFS_ERROR_BY(speaker, "Transfer unit of %lu bytes does not fit a cache item.\n", to_ul(unit));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

// ---- Filling the cache ---------------------------------------------------------------------------------------------

// Reads block `block` of the fork to its place in its item.
static kvfs_result read_block(kvfs_fork* fork, kvfs_fork_cache_item* item, std::uint64_t block) {
  const std::uint64_t unit = fork->priv->modificationBitmapBlockSize;
  const std::uint64_t offset_in_item = unit * (block % (fork->priv->item_size / unit));
  const std::uint64_t length = kvfs_min(unit, fork->priv->logical_size - block * unit);
  if (length > item->data_size || offset_in_item > item->data_size - length) {
    KVFS_CRITICAL_AS(kvfs_fork_read_into_cache,
                     "Unexpected: Read offset is outside the bounds of the cache item (%llu, maximum expected: %zu)!\n",
                     to_ull(offset_in_item), std::size_t{item->data_size});
    return kvfs_internal;
  }
  unsigned char* const read_ptr_orig = item->data + offset_in_item;
  unsigned char* read_ptr = read_ptr_orig;
  kvfs_fork_read_context context = {fork->priv->device, read_ptr, 0};
  const kvfs_result result = kvfs_fork_do_device_io(fork, block * unit, length, kvfs_fork_process_read_io, &context);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_read_into_cache, "Error %d while reading block %llu from device offset %llu.\n",
                  static_cast<int>(result), to_ull(block), to_ull(block * unit));
    return result;
  }
  if (read_ptr_orig != read_ptr) {
    KVFS_ERROR_AS(kvfs_fork_read_into_cache, "read_ptr_orig (%p) != read_ptr (%p)\n", static_cast<void*>(read_ptr_orig),
                  static_cast<void*>(read_ptr));
    return kvfs_failed;
  }
  return kvfs_ok;
}

// References block `block` of the fork and reads it unless it is valid. No failure takes the reference back (Q-fork-4).
static kvfs_result make_block_valid(kvfs_fork* fork, std::uint64_t block) {
  kvfs_fork_private* const priv = fork->priv;
  const std::uint64_t blocks_per_item = priv->item_size / priv->modificationBitmapBlockSize;
  const std::uint64_t index = block / blocks_per_item;
  if (index > priv->items_length) {
    KVFS_CRITICAL_AS(kvfs_fork_read_into_cache, "Item index out of bounds: %llu (expected maximum: %zu)\n",
                     to_ull(index), std::size_t{priv->items_length});
    return kvfs_internal;
  }
  kvfs_result result = ensure_item(KVFS_NAME_OF(kvfs_fork_read_into_cache), fork, index);
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_fork_cache_item* const item = priv->items[index];
  ++item->references;
  unsigned char* const valid = &item->valid_bitmap[bitmap_byte(block % blocks_per_item)];
  if ((*valid & bitmap_mask(block)) != 0) {
    return kvfs_ok;
  }
  result = read_block(fork, item, block);
  if (result == kvfs_ok) {
    *valid = static_cast<unsigned char>(*valid | bitmap_mask(block));
  }
  return result;
}

static kvfs_result make_range_valid(kvfs_fork* fork, std::uint64_t offset, std::uint64_t length) {
  kvfs_result result = check_transfer_unit("kvfs_fork_read_into_cache", fork);
  if (result != kvfs_ok) {
    return result;
  }
  const std::uint64_t unit = fork->priv->modificationBitmapBlockSize;
  const std::uint64_t end = kvfs_divide_rounding_up(offset + length, unit);
  for (std::uint64_t block = offset / unit; block < end && result == kvfs_ok; ++block) {
    result = make_block_valid(fork, block);
  }
  return result;
}

kvfs_result kvfs_fork_read_into_cache(kvfs_fork* fork, std::uint64_t offset, std::uint64_t length) {
  kvfs_write_guard guard(fork->priv->items_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Unable to lock items lock.\n");
    return guard.result();
  }
  const kvfs_result result = make_range_valid(fork, offset, length);
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_CRITICAL("Unexpected - Unable to unlock items lock!\n");
  }
  return kvfs_result_keep(result, unlocked);
}

// ---- Pieces of extents ---------------------------------------------------------------------------------------------
//
// A piece within one sector is read only as far as it has room: X-fork-4.

static std::uint64_t sum_of_extents(const kvfs_fork_private* priv) {
  std::uint64_t sum = 0;
  for (std::uint32_t i = 0; i < priv->fork_extents_count && !is_empty(priv->fork_extents[i]); ++i) {
    sum += priv->fork_extents[i].blockCount.get();
  }
  return sum;
}

// The extents must hold as many blocks as the fork data says at most, and no fewer than its bytes need.
static kvfs_result check_extent_sum(const kvfs_fork* fork, std::uint64_t logical_size, std::uint32_t total_blocks) {
  kvfs_fork_private* const priv = fork->priv;
  if (priv->fork_extents_blocks == 0) {
    priv->fork_extents_blocks = sum_of_extents(priv);
  }
  const std::uint64_t sum = priv->fork_extents_blocks;
  if (sum > total_blocks) {
    KVFS_ERROR_AS(kvfs_fork_do_device_io,
                  "Inconsistent fork data (more blocks than specified found in extent record).\n");
    return kvfs_inconsistent;
  }
  if (fork->block_size * sum < logical_size) {
    KVFS_ERROR_AS(kvfs_fork_do_device_io, "Too few blocks for the logical size of the fork.\n");
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

static kvfs_result check_io_range(const kvfs_fork* fork, std::uint64_t io_offset, std::uint64_t io_length) {
  const std::uint64_t logical_size = fork->priv->fork_data->logicalSize.get();
  const std::uint32_t total_blocks = fork->priv->fork_data->totalBlocks.get();
  if (total_blocks == 0) {
    KVFS_ERROR_AS(kvfs_fork_do_device_io, "HFSPlus:%s: -- Nothing to process in fork!\n",
                  KVFS_NAME_OF(kvfs_fork_do_device_io));
    return kvfs_invalid;
  }
  if (io_offset >= logical_size) {
    KVFS_ERROR_AS(kvfs_fork_do_device_io,
                  "Invalid parameter 'io_offset': Offset (%llu) is beyond the end of the file.\n", to_ull(io_offset));
    return kvfs_invalid;
  }
  if (io_length > logical_size - io_offset) {
    KVFS_ERROR_AS(kvfs_fork_do_device_io,
                  "Invalid parameter 'io_length': Length (%llu) extends beyond the end of the file.\n",
                  to_ull(io_length));
    return kvfs_invalid;
  }
  return check_extent_sum(fork, logical_size, total_blocks);
}

kvfs_result kvfs_fork_do_device_io(kvfs_fork* fork, std::uint64_t io_offset, std::uint64_t io_length,
                                   kvfs_fork_io_process process, void* context) {
  kvfs_result result = check_io_range(fork, io_offset, io_length);
  if (result != kvfs_ok) {
    return result;
  }
  const std::uint64_t io_end = io_offset + io_length;
  kvfs_fork_private* const priv = fork->priv;
  const bool goes_on = priv->cursor.position <= io_offset;
  std::uint64_t position = goes_on ? priv->cursor.position : 0;  // where the extent begins in the fork, bytes
  for (std::uint32_t i = goes_on ? priv->cursor.index : 0; position < io_end; ++i) {
    if (i == priv->fork_extents_count || is_empty(priv->fork_extents[i])) {
      KVFS_CRITICAL("Unexpected: Reached the end of the allocation before all bytes have been processed.\n");
      return kvfs_inconsistent;
    }
    const HFSPlusExtentDescriptor& extent = priv->fork_extents[i];
    const std::uint64_t extent_end = position + extent_length(fork, extent);
    if (extent_end > io_offset) {
      priv->cursor = {i, position};
      const std::uint64_t begin = kvfs_max(position, io_offset);
      const std::uint64_t device_offset = std::uint64_t{fork->block_size} * extent.startBlock.get();
      result = process(context, device_offset + (begin - position), begin, kvfs_min(extent_end, io_end) - begin);
      if (result != kvfs_ok) {
        KVFS_ERROR("Error while processing I/O request.\n");
        return result;
      }
    }
    position = extent_end;
  }
  return kvfs_ok;
}

// Copies a part of one sector that a piece does not cover whole.
static kvfs_result read_partial_sector(kvfs_device* device, std::uint64_t sector, std::uint32_t offset_in_sector,
                                       std::uint32_t length, unsigned char* destination) {
  void* buffer = nullptr;
  const kvfs_result result = kvfs_device_read_disk_sectors(device, sector, 1, &buffer);
  if (result == kvfs_ok) {
    std::memcpy(destination, static_cast<unsigned char*>(buffer) + offset_in_sector, length);
    std::free(buffer);
  }
  return result;
}

// A piece as whole sectors with what is left over before and behind them.
struct sector_run {
  std::uint64_t first;     // sector
  std::uint64_t count;     // whole sectors
  std::uint32_t lead_in;   // bytes of sector `first` before the piece
  std::uint32_t lead_out;  // bytes of the sector behind the run that belong to the piece
};

static sector_run split_into_sectors(std::uint32_t sector_size, std::uint64_t device_offset, std::uint64_t length) {
  const std::uint64_t end = device_offset + length;
  const std::uint64_t first = device_offset / sector_size;
  return {first, end / sector_size - first, static_cast<std::uint32_t>(device_offset % sector_size),
          static_cast<std::uint32_t>(end % sector_size)};
}

// Reads whole sectors. More of them than can be counted, as when a piece lies within one sector and their number is one
// below 0, are the device's to refuse.
static kvfs_result read_whole_sectors(kvfs_device* device, const sector_run& run, void* destination) {
  const std::uint32_t count = static_cast<std::uint32_t>(kvfs_min(run.count, kMaximum32));
  const kvfs_result result =
      count == 0 ? kvfs_ok : kvfs_device_read_disk_sectors(device, run.first, count, &destination);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_process_read_io, "Error while reading %llu fork sectors starting at sector %llu.\n",
                  to_ull(run.count), to_ull(run.first));
  }
  return result;
}

kvfs_result kvfs_fork_process_read_io(void* context, std::uint64_t device_offset, std::uint64_t /*fork_offset*/,
                                      std::uint64_t length) {
  kvfs_fork_read_context* const read = static_cast<kvfs_fork_read_context*>(context);
  const std::uint32_t sector_size = read->device->sector_size;
  if (sector_size == 0) {  // X-device-1
    KVFS_ERROR("Device has a sector size of 0.\n");
    return kvfs_inconsistent;
  }
  sector_run run = split_into_sectors(sector_size, device_offset, length);
  unsigned char* destination = read->destination + read->delivered;
  kvfs_result result = kvfs_ok;
  if (run.lead_in != 0) {
    const std::uint32_t part = static_cast<std::uint32_t>(kvfs_min<std::uint64_t>(sector_size - run.lead_in, length));
    result = read_partial_sector(read->device, run.first, run.lead_in, part, destination);
    if (result != kvfs_ok) {
      KVFS_ERROR("Error while reading lead-in sector %llu.\n", to_ull(run.first));
      return result;
    }
    ++run.first;
    --run.count;
    destination += part;
  }
  result = read_whole_sectors(read->device, run, destination);
  if (result != kvfs_ok) {
    return result;
  }
  destination += run.count * sector_size;
  if (run.lead_out != 0) {
    // The bytes are taken from the end of the sector, not its beginning: Q-fork-6.
    result =
        read_partial_sector(read->device, run.first + run.count, sector_size - run.lead_out, run.lead_out, destination);
    if (result != kvfs_ok) {
      KVFS_ERROR("Error while reading lead-out sector %llu.\n", to_ull(run.first + run.count));
      return result;
    }
  }
  read->delivered += static_cast<std::uint32_t>(length);
  return kvfs_ok;
}

// ---- Map, unmap and read -------------------------------------------------------------------------------------------

// The items that hold the first and the last byte of a range.
struct item_range {
  std::uint64_t first;
  std::uint64_t last;
};

static item_range items_of(const kvfs_fork* fork, std::uint64_t offset, std::uint64_t length) {
  return {offset / fork->priv->item_size, (offset + length - 1) / fork->priv->item_size};
}

static kvfs_result check_item_numbers(const char* speaker, const kvfs_fork* fork, item_range items) {
  const bool first_outside = items.first > fork->priv->items_length;
  const bool last_outside = items.last > fork->priv->items_length;
  if (!first_outside && !last_outside) {
    return kvfs_ok;
  }
  const bool both = first_outside && last_outside;
  KVFS_CRITICAL_BY(speaker, "Internal inconsistency: %s%s%s cache item number%s out of bounds!\n",
                   first_outside ? "First" : "", both ? " and " : "", both ? "last" : (last_outside ? "Last" : ""),
                   both ? "s" : "");
  return kvfs_internal;
}

// The item in a slot, or null where there is none.
static kvfs_fork_cache_item* item_at(const kvfs_fork* fork, std::uint64_t index) {
  return index < fork->priv->items_length ? fork->priv->items[index] : nullptr;
}

// Hands out the address of cached bytes.
static kvfs_result locate_cached_bytes(kvfs_fork* fork, std::uint64_t item_index, std::uint64_t offset,
                                       void** out_pointer) {
  kvfs_read_guard guard(fork->priv->items_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_map, "Error while read-locking items lock.\n");
    return guard.result();
  }
  kvfs_result result = kvfs_ok;
  void* pointer = nullptr;
  kvfs_fork_cache_item* const item = item_at(fork, item_index);
  if (item == nullptr) {
    KVFS_CRITICAL_AS(kvfs_fork_map, "Unexpected - Requested cache item %llu does not exist.\n", to_ull(item_index));
    result = kvfs_internal;
  } else {
    pointer = item->data + offset % fork->priv->item_size;
  }
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_CRITICAL_AS(kvfs_fork_map, "Unexpected - Error while unlocking items lock!\n");
  }
  result = kvfs_result_keep(result, unlocked);
  if (result == kvfs_ok) {
    *out_pointer = pointer;
  }
  return result;
}

kvfs_result kvfs_fork_map(kvfs_fork* fork, std::uint64_t offset, void** out_pointer, std::size_t length,
                          std::size_t* out_mapped_length) {
  if (out_mapped_length != nullptr) {
    *out_mapped_length = 0;
  }
  const item_range items = items_of(fork, offset, length);
  if (!is_inside(fork, offset, length)) {
    KVFS_CRITICAL("Attempted to read outside allocated fork size! Offset: %llu, Length: %llu, fork data size: %llu\n",
                  to_ull(offset), to_ull(length), to_ull(fork->priv->logical_size));
    return kvfs_invalid;
  }
  kvfs_result result = check_item_numbers(__func__, fork, items);
  if (result != kvfs_ok) {
    return result;
  }
  if (items.first != items.last) {
    KVFS_ERROR(
        "Cannot map region crossing cache item borders (offset: %llu, length: %zu, first_cache_item: %llu, last_cache_item: %llu).\n",
        to_ull(offset), length, to_ull(items.first), to_ull(items.last));
    return kvfs_invalid;
  }
  result = kvfs_fork_read_into_cache(fork, offset, length);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while reading missing disk blocks into cache.\n");
    return result;
  }
  result = locate_cached_bytes(fork, items.first, offset, out_pointer);
  if (result == kvfs_ok && out_mapped_length != nullptr) {
    *out_mapped_length = length;
  }
  return result;
}

// Takes one reference off an item, in the name of kvfs_fork_unmap.
static kvfs_result drop_reference(kvfs_fork_cache_item* item, std::uint64_t index, std::uint64_t offset_in_item,
                                  void** pointer) {
  kvfs_write_guard guard(item->item_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_unmap, "Error while write-locking item %p.\n", static_cast<void*>(item));
    return guard.result();
  }
  kvfs_result result = kvfs_invalid;
  void* const expected = item->data + offset_in_item;
  if (*pointer != expected) {
    KVFS_ERROR_AS(kvfs_fork_unmap, "Unexpected pointer when unmapping cache item. Expected %p, got %p.\n", expected,
                  *pointer);
  } else if (item->references == 0) {
    KVFS_ERROR_AS(kvfs_fork_unmap, "Cache item %llu has no active references and cannot be unmapped.\n", to_ull(index));
  } else {
    --item->references;
    *pointer = nullptr;
    result = kvfs_ok;
  }
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_CRITICAL_AS(kvfs_fork_unmap, "Unexpected - Error while unlocking item %p!\n", static_cast<void*>(item));
  }
  return kvfs_result_keep(result, unlocked);
}

static kvfs_result check_unmap_range(kvfs_fork* fork, std::uint64_t offset, std::size_t length, item_range items) {
  if (!is_inside(fork, offset, length)) {
    KVFS_CRITICAL_AS(
        kvfs_fork_unmap,
        "Attempted to unmap region outside allocated fork size! Offset: %llu, Length: %llu, fork data size: %llu\n",
        to_ull(offset), to_ull(length), to_ull(fork->priv->logical_size));
    return kvfs_invalid;
  }
  const kvfs_result result = check_item_numbers(KVFS_NAME_OF(kvfs_fork_unmap), fork, items);
  if (result == kvfs_ok && items.first != items.last) {
    KVFS_ERROR_AS(
        kvfs_fork_unmap,
        "Cannot unmap region crossing cache item borders (offset: %llu, length: %zu, first_cache_item: %llu, last_cache_item: %llu).\n",
        to_ull(offset), length, to_ull(items.first), to_ull(items.last));
    return kvfs_invalid;
  }
  return result;
}

kvfs_result kvfs_fork_unmap(kvfs_fork* fork, std::uint64_t offset, void** pointer, std::size_t length) {
  const item_range items = items_of(fork, offset, length);
  const kvfs_result checked = check_unmap_range(fork, offset, length, items);
  if (checked != kvfs_ok) {
    return checked;
  }
  kvfs_read_guard guard(fork->priv->items_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while read-locking items lock.\n");
    return guard.result();
  }
  kvfs_result result = kvfs_invalid;
  kvfs_fork_cache_item* const item = item_at(fork, items.first);
  if (item == nullptr) {
    KVFS_ERROR("Cache item %llu does not exist and cannot be unmapped.\n", to_ull(items.first));
  } else {
    result = drop_reference(item, items.first, offset % fork->priv->item_size, pointer);
  }
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_CRITICAL("Unexpected - Error while unlocking items lock!\n");
  }
  return kvfs_result_keep(result, unlocked);
}

// Copies bytes out of an item and takes one reference off it, in the name of kvfs_fork_read.
static kvfs_result copy_from_item(kvfs_fork_cache_item* item, std::size_t offset_in_item, void* buffer,
                                  std::size_t length) {
  kvfs_write_guard guard(item->item_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_read, "Error while write-locking cur_item's item lock.\n");
    return guard.result();
  }
  if (length != 0) {  // a caller of nothing may have no buffer
    std::memcpy(buffer, item->data + offset_in_item, length);
  }
  if (item->references == 0) {
    KVFS_CRITICAL_AS(
        kvfs_fork_read,
        "Unexpected - Cache item that we just copied from has no references (should have at least one)!\n");
    if (guard.release() != kvfs_ok) {
      KVFS_CRITICAL_AS(kvfs_fork_read, "Unexpected - Error while unlocking items lock.\n");  // Q-fork-14
    }
    return kvfs_internal;
  }
  --item->references;
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_CRITICAL_AS(kvfs_fork_read, "Unexpected - Error while unlocking cur_item's item lock.\n");
  }
  return unlocked;
}

// Copies a range that the cache holds; the caller holds items_lock.
static kvfs_result copy_from_items(kvfs_fork* fork, item_range items, std::uint64_t offset, unsigned char* buffer,
                                   std::size_t length) {
  std::size_t offset_in_item = static_cast<std::size_t>(offset % fork->priv->item_size);
  std::size_t remaining = length;
  for (std::uint64_t index = items.first; index <= items.last; ++index) {
    kvfs_fork_cache_item* const item = item_at(fork, index);
    if (item == nullptr) {
      KVFS_CRITICAL_AS(kvfs_fork_read, "Unexpected - Requested cache item %zu does not exist.\n",
                       static_cast<std::size_t>(index));
      return kvfs_internal;
    }
    const std::size_t part = kvfs_min<std::size_t>(remaining, item->data_size - offset_in_item);
    const kvfs_result result = copy_from_item(item, offset_in_item, buffer + (length - remaining), part);
    if (result != kvfs_ok) {
      return result;
    }
    remaining -= part;
    offset_in_item = 0;
  }
  if (remaining != 0) {
    KVFS_CRITICAL_AS(kvfs_fork_read, "Unexpected - %zu bytes still remaining to be read!\n", remaining);
    return kvfs_internal;
  }
  return kvfs_ok;
}

kvfs_result kvfs_fork_read(kvfs_fork* fork, std::uint64_t offset, void* buffer, std::size_t length,
                           std::size_t* out_bytes_read) {
  if (out_bytes_read != nullptr) {
    *out_bytes_read = 0;
  }
  const item_range items = items_of(fork, offset, length);
  if (!is_inside(fork, offset, length)) {
    KVFS_CRITICAL("Attempted to read outside allocated fork size! Offset: %llu, Length: %llu, fork data size: %llu\n",
                  to_ull(offset), to_ull(length), to_ull(fork->priv->logical_size));
    return kvfs_invalid;
  }
  kvfs_result result = check_item_numbers(__func__, fork, items);
  if (result != kvfs_ok) {
    return result;
  }
  result = kvfs_fork_read_into_cache(fork, offset, length);
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while reading missing disk blocks into cache.\n");
    return result;
  }
  kvfs_read_guard guard(fork->priv->items_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while read-locking items lock.\n");
    return guard.result();
  }
  result = copy_from_items(fork, items, offset, static_cast<unsigned char*>(buffer), length);
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_CRITICAL("Unexpected - Error while unlocking items lock!\n");
  }
  result = kvfs_result_keep(result, unlocked);
  if (result == kvfs_ok && out_bytes_read != nullptr) {
    *out_bytes_read = length;
  }
  return result;
}

// ---- Write and fill ------------------------------------------------------------------------------------------------

// What a write touches, and which of its blocks were read in first and so hold a reference to give back.
struct write_range {
  item_range items;
  std::uint64_t offset;
  std::size_t length;
  bool first_block_read;
  bool last_block_read;
};

// Reads the blocks that a write overwrites only in part.
static kvfs_result read_partial_blocks(kvfs_fork* fork, write_range* range) {
  const std::uint64_t unit = fork->priv->modificationBitmapBlockSize;
  const std::uint64_t end = range->offset + range->length;
  const std::uint64_t aligned_start = range->offset / unit * unit;
  const std::uint64_t aligned_end = kvfs_divide_rounding_up(end, unit) * unit;
  if (range->offset != aligned_start) {
    const kvfs_result result = kvfs_fork_read_into_cache(fork, range->offset, aligned_start + unit - range->offset);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_fork_write, "Error while reading first block in write range into cache.\n");
      return result;
    }
    range->first_block_read = true;
  }
  if (end != aligned_end) {
    const kvfs_result result = kvfs_fork_read_into_cache(fork, end, aligned_end - end);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_fork_write, "Error while reading last block in write range into cache.\n");
      return result;
    }
    range->last_block_read = true;
  }
  return kvfs_ok;
}

// Copies bytes into an item and marks the blocks that they touch as modified, but not as valid (Q-fork-7).
static void copy_to_item(kvfs_fork* fork, kvfs_fork_cache_item* item, std::size_t offset_in_item,
                         const unsigned char* bytes, std::size_t length) {
  const std::uint32_t unit = fork->priv->modificationBitmapBlockSize;
  const bool was_clean = item->dirty_blocks == 0;
  if (length != 0) {  // a caller with nothing to write may have no bytes
    std::memcpy(item->data + offset_in_item, bytes, length);
  }
  const std::uint64_t end = kvfs_divide_rounding_up(offset_in_item + length, unit);
  for (std::uint64_t block = offset_in_item / unit; block < end; ++block) {
    unsigned char* const modified = &item->modification_bitmap[bitmap_byte(block)];
    if ((*modified & bitmap_mask(block)) == 0) {
      *modified = static_cast<unsigned char>(*modified | bitmap_mask(block));
      ++item->dirty_blocks;
    }
  }
  if (was_clean && item->dirty_blocks != 0) {
    set_dirty_items(fork, dirty_items(fork) + 1);
  }
}

// Gives back the reference that reading in a partly overwritten block has added.
static kvfs_result return_reference(kvfs_fork_cache_item* item) {
  if (item->references == 0) {
    KVFS_CRITICAL_AS(kvfs_fork_write,
                     "Unexpected - Cache item that we just copied to has no references (should have at least one)!\n");
    return kvfs_internal;
  }
  --item->references;
  return kvfs_ok;
}

// Copies the bytes of a write into the items of its range; the caller holds items_lock and dirty_lock for writing.
static kvfs_result write_to_items(kvfs_fork* fork, const write_range& range, const unsigned char* bytes) {
  std::size_t offset_in_item = static_cast<std::size_t>(range.offset % fork->priv->item_size);
  std::size_t remaining = range.length;
  for (std::uint64_t index = range.items.first; index <= range.items.last; ++index) {
    kvfs_result result = ensure_item("kvfs_fork_write", fork, index);
    if (result != kvfs_ok) {
      return result;
    }
    kvfs_fork_cache_item* const item = fork->priv->items[index];
    const std::size_t part = kvfs_min<std::size_t>(remaining, item->data_size - offset_in_item);
    copy_to_item(fork, item, offset_in_item, bytes + (range.length - remaining), part);
    if (index == range.items.first && range.first_block_read) {
      result = return_reference(item);
    }
    if (result == kvfs_ok && index == range.items.last && range.last_block_read) {
      result = return_reference(item);
    }
    if (result != kvfs_ok) {
      return result;
    }
    remaining -= part;
    offset_in_item = 0;
  }
  return kvfs_ok;
}

// Writes to the items with dirty_lock held; the caller holds items_lock for writing.
static kvfs_result write_dirty_locked(kvfs_fork* fork, const write_range& range, const unsigned char* bytes) {
  kvfs_write_guard guard(fork->priv->dirty_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_write, "Error while write-locking dirty lock.\n");
    return guard.result();
  }
  const kvfs_result result = write_to_items(fork, range, bytes);
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_CRITICAL_AS(kvfs_fork_write, "Unexpected - Error while unlocking dirty lock!\n");
  }
  return kvfs_result_keep(result, unlocked);
}

kvfs_result kvfs_fork_write(kvfs_fork* fork, std::uint64_t offset, const void* buffer, std::size_t length,
                            std::size_t* out_bytes_written) {
  if (out_bytes_written != nullptr) {
    *out_bytes_written = 0;
  }
  write_range range = {items_of(fork, offset, length), offset, length, false, false};
  if (!is_inside(fork, offset, length)) {
    KVFS_CRITICAL("Attempted to write outside allocated fork size! Offset: %llu, Length: %llu, fork data size: %llu\n",
                  to_ull(offset), to_ull(length), to_ull(fork->priv->logical_size));
    return kvfs_invalid;
  }
  kvfs_result result = check_item_numbers(__func__, fork, range.items);
  if (result == kvfs_ok) {
    result = check_transfer_unit(__func__, fork);
  }
  if (result == kvfs_ok) {
    result = read_partial_blocks(fork, &range);
  }
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_write_guard guard(fork->priv->items_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while read-locking items lock.\n");  // taken for writing: Q-fork-14
    return guard.result();
  }
  result = write_dirty_locked(fork, range, static_cast<const unsigned char*>(buffer));
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_CRITICAL("Unexpected - Error while unlocking items lock!\n");
  }
  result = kvfs_result_keep(result, unlocked);
  if (result == kvfs_ok && out_bytes_written != nullptr) {
    *out_bytes_written = length;
  }
  return result;
}

static constexpr std::size_t kLargestPattern = 0x20000000;
static constexpr std::size_t kSmallestPattern = 8;

// The next smaller power of two to try when memory for a pattern is short.
static std::size_t shrink_pattern(std::size_t size) {
  return std::bit_ceil(size) / 2;
}

// Writes a pattern over a range again and again, in the name of kvfs_fork_fill.
static kvfs_result write_pattern(kvfs_fork* fork, std::uint64_t offset, std::uint64_t length,
                                 const unsigned char* pattern, std::size_t pattern_size, std::uint64_t* done) {
  while (*done < length) {
    const std::size_t part = static_cast<std::size_t>(kvfs_min<std::uint64_t>(length - *done, pattern_size));
    const std::uint64_t start = offset + *done;
    const kvfs_result result = kvfs_fork_write(fork, start, pattern, part, nullptr);
    if (result != kvfs_ok) {
      KVFS_ERROR_AS(kvfs_fork_fill, "Error while filling range [%llu-%llu] (%zu bytes) with byte 0x%X.\n",
                    to_ull(start), to_ull(start + part), part, static_cast<unsigned>(pattern[0]));
      return result;
    }
    *done += part;
  }
  return kvfs_ok;
}

kvfs_result kvfs_fork_fill(kvfs_fork* fork, std::uint64_t offset, std::uint64_t length, std::uint8_t value,
                           std::uint64_t* out_bytes_filled) {
  std::size_t size = static_cast<std::size_t>(kvfs_min<std::uint64_t>(length, kLargestPattern));
  if (out_bytes_filled != nullptr) {
    *out_bytes_filled = 0;
  }
  if (!is_inside(fork, offset, length)) {
    KVFS_CRITICAL("Attempted to fill outside allocated fork size! Offset: %llu, Length: %llu, fork data size: %llu\n",
                  to_ull(offset), to_ull(length), to_ull(fork->priv->logical_size));
    return kvfs_invalid;
  }
  unsigned char small_pattern[kSmallestPattern];
  kvfs_owned<unsigned char> large_pattern = kvfs_allocate_bytes(size);
  while (!large_pattern && size > kSmallestPattern) {
    size = shrink_pattern(size);
    large_pattern.reset(static_cast<unsigned char*>(std::malloc(size)));
  }
  unsigned char* const pattern = large_pattern ? large_pattern.get() : small_pattern;
  std::memset(pattern, value, kvfs_max<std::size_t>(size, 1));
  std::uint64_t done = 0;
  const kvfs_result result = write_pattern(fork, offset, length, pattern, size, &done);
  if (out_bytes_filled != nullptr) {
    *out_bytes_filled = done;
  }
  return result;
}

// ---- Flush ---------------------------------------------------------------------------------------------------------
//
// Blocks are written one by one (Q-fork-5), and only in whole sectors (X-fork-5).

// A piece that is being flushed, counted in sectors from its start.
struct flush_piece {
  kvfs_fork_write_context* flush;
  std::uint64_t fork_offset;   // of the piece, bytes
  std::uint64_t first_sector;  // of the piece on the device
  std::uint64_t sectors;       // in the piece, cut at the logical end of the fork
  std::uint64_t position;      // sectors done
};

static std::uint64_t sector_size_of(const kvfs_fork_write_context* flush) {
  return std::uint64_t{1} << flush->sector_shift;
}

static std::uint64_t piece_offset(const flush_piece& piece) {
  return piece.fork_offset + (piece.position << piece.flush->sector_shift);
}

// Where a piece ends in the fork, bytes: no later than the logical end, if the fork has one.
static std::uint64_t end_of_piece(const kvfs_fork* fork, std::uint64_t fork_offset, std::uint64_t length) {
  const std::uint64_t logical_size = fork->priv->logical_size;
  return logical_size != 0 ? kvfs_min(fork_offset + length, logical_size) : fork_offset + length;
}

// Refuses a piece that shares a sector with a block of somebody else, which would be overwritten. The sector of the
// logical end may go on behind it as far as the fork's last block does.
static kvfs_result check_piece(void* context, std::uint64_t device_offset, std::uint64_t fork_offset,
                               std::uint64_t length) {
  const kvfs_fork_write_context* const flush = static_cast<kvfs_fork_write_context*>(context);
  const std::uint64_t sector_size = sector_size_of(flush);
  const std::uint64_t block_size = flush->fork->block_size;
  const std::uint64_t end = end_of_piece(flush->fork, fork_offset, length);
  const std::uint64_t end_of_sectors = kvfs_divide_rounding_up(end, sector_size) * sector_size;
  const std::uint64_t end_of_blocks = kvfs_divide_rounding_up(end, block_size) * block_size;
  if (device_offset % sector_size != 0 || fork_offset % sector_size != 0 || end_of_sectors > end_of_blocks) {
    KVFS_ERROR_AS(kvfs_fork_flush_internal, "Piece of %llu bytes at device offset %llu is not of whole sectors.\n",
                  to_ull(length), to_ull(device_offset));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

static kvfs_result check_item_bitmaps(const kvfs_fork* fork, const kvfs_fork_cache_item* item) {
  const std::size_t expected = bitmap_size(fork->priv->item_size, fork->priv->modificationBitmapBlockSize);
  if (item->valid_bitmap_size != expected) {
    KVFS_CRITICAL_AS(kvfs_fork_process_write_io, "Unexpected valid bitmap size: %zu (expected %zu).\n",
                     item->valid_bitmap_size, expected);
    return kvfs_internal;
  }
  if (item->modification_bitmap_size != expected) {
    KVFS_CRITICAL_AS(kvfs_fork_process_write_io, "Unexpected modification bitmap size: %zu (expected %zu).\n",
                     item->modification_bitmap_size, expected);
    return kvfs_internal;
  }
  return kvfs_ok;
}

// Writes sectors of one block of an item to the place in the piece that `position` names.
static kvfs_result write_block_sectors(const flush_piece& piece, const kvfs_fork_cache_item* item,
                                       std::uint64_t item_index, std::uint64_t block, std::uint64_t count) {
  if (count > kMaximum32) {
    KVFS_CRITICAL_AS(kvfs_fork_process_write_io, "Overflow in number of sectors to write: %llu\n", to_ull(count));
    return kvfs_internal;
  }
  const kvfs_fork_private* const priv = piece.flush->fork->priv;
  const std::uint64_t sector = piece.first_sector + piece.position;
  const unsigned char* const bytes = item->data + piece_offset(piece) % priv->item_size;
  const kvfs_result result =
      kvfs_device_write_disk_sectors(priv->device, sector, static_cast<std::uint32_t>(count), bytes);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_process_write_io,
                  "Error while writing disk sectors for item %llu block %zu to sector %llu.\n", to_ull(item_index),
                  static_cast<std::size_t>(block), to_ull(sector));
  }
  return result;
}

// Writes the modified blocks of an item from the piece's position up to sector `end` of the piece; the caller holds the
// item's lock.
static kvfs_result write_item_blocks(flush_piece* piece, kvfs_fork_cache_item* item, std::uint64_t item_index,
                                     std::uint64_t end) {
  const kvfs_fork_write_context* const flush = piece->flush;
  const std::uint64_t unit = flush->fork->priv->modificationBitmapBlockSize;
  while (piece->position < end) {
    const std::uint64_t offset_in_item = piece_offset(*piece) % flush->fork->priv->item_size;
    const std::uint64_t block = offset_in_item / unit;
    const std::uint64_t lead = (offset_in_item % unit) >> flush->sector_shift;  // sectors in an earlier piece
    const std::uint64_t rest = flush->sectors_per_block - lead;
    const std::uint64_t count = kvfs_min(rest, end - piece->position);
    unsigned char* const modified = &item->modification_bitmap[bitmap_byte(block)];
    if ((*modified & bitmap_mask(block)) != 0) {
      const kvfs_result result = write_block_sectors(*piece, item, item_index, block, count);
      if (result != kvfs_ok) {
        return result;
      }
      // A block whose sectors were not all written yet stays modified: its end lies in the next piece or behind the
      // end of the fork, or its beginning lies before the flushed range (X-fork-6).
      const bool whole = count == rest && piece_offset(*piece) - offset_in_item % unit >= flush->range_offset;
      if (whole) {
        *modified = static_cast<unsigned char>(*modified & ~bitmap_mask(block));
        --item->dirty_blocks;
      }
    }
    piece->position += count;
  }
  return kvfs_ok;
}

// Writes the modified blocks of one item with its lock held and takes the item off the dirty count once it is clean.
static kvfs_result flush_item(flush_piece* piece, kvfs_fork_cache_item* item, std::uint64_t item_index,
                              std::uint64_t end) {
  kvfs_fork* const fork = piece->flush->fork;
  kvfs_result result = check_item_bitmaps(fork, item);
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_write_guard guard(item->item_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_process_write_io, "Error while write-locking item's item lock.\n");
    return guard.result();
  }
  result = write_item_blocks(piece, item, item_index, end);
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_CRITICAL_AS(kvfs_fork_process_write_io, "Unexpected - Error while unlocking item's item lock.\n");
  }
  count_out_if_clean(fork, item);
  return kvfs_result_keep(result, unlocked);
}

// Walks a piece item by item, passing over items without modified blocks.
static kvfs_result flush_piece_items(flush_piece* piece) {
  kvfs_fork_private* const priv = piece->flush->fork->priv;
  while (piece->position < piece->sectors) {
    const std::uint64_t index = piece_offset(*piece) / priv->item_size;
    if (index > priv->items_length) {
      KVFS_CRITICAL_AS(kvfs_fork_process_write_io, "Item index (%zu) out of bounds (maximum value: %zu).\n",
                       static_cast<std::size_t>(index), std::size_t{priv->items_length});
      return kvfs_internal;
    }
    const std::uint64_t item_end = (index + 1) * priv->item_size - piece->fork_offset;
    const std::uint64_t end = kvfs_min(piece->sectors, item_end >> piece->flush->sector_shift);
    kvfs_fork_cache_item* const item = item_at(piece->flush->fork, index);
    if (item == nullptr || item->dirty_blocks == 0) {
      piece->position = end;
      continue;
    }
    const kvfs_result result = flush_item(piece, item, index, end);
    if (result != kvfs_ok) {
      return result;
    }
  }
  return kvfs_ok;
}

kvfs_result kvfs_fork_process_write_io(void* context, std::uint64_t device_offset, std::uint64_t fork_offset,
                                       std::uint64_t length) {
  kvfs_fork_write_context* const flush = static_cast<kvfs_fork_write_context*>(context);
  const std::uint64_t sector_size = sector_size_of(flush);
  const std::uint64_t end = end_of_piece(flush->fork, fork_offset, length);
  if (end <= fork_offset) {
    return kvfs_ok;
  }
  const std::uint64_t sectors = kvfs_divide_rounding_up(end, sector_size) - fork_offset / sector_size;
  flush_piece piece = {flush, fork_offset, device_offset >> flush->sector_shift, sectors, 0};
  const kvfs_result result = flush_piece_items(&piece);
  if (result != kvfs_ok) {
    return result;
  }
  if (piece.position != sectors) {
    KVFS_CRITICAL("No error, but still only wrote %llu bytes our of expected %llu bytes.\n",
                  to_ull(piece.position * sector_size), to_ull(sectors * sector_size));
    return kvfs_io_error;
  }
  return kvfs_ok;
}

// Index of the lowest set bit, or `width` when none of the bits 0 .. width - 1 is set.
static std::uint32_t lowest_set_bit(std::uint64_t value, std::uint32_t width) {
  std::uint32_t bit = 0;
  while (bit < width && (value >> bit & 1) == 0) {
    ++bit;
  }
  return bit;
}

// Sectors and blocks are counted by shifts, which needs powers of two here and nowhere else (Q-fork-10).
static kvfs_result check_flush_units(const kvfs_fork* fork, std::uint32_t sector_size, std::size_t transfer_unit) {
  if (!std::has_single_bit(sector_size)) {
    KVFS_CRITICAL_AS(kvfs_fork_flush_internal, "Sector size is not a power of two: %lu\n", to_ul(sector_size));
    return kvfs_internal;
  }
  if (!std::has_single_bit(transfer_unit)) {
    KVFS_CRITICAL_AS(kvfs_fork_flush_internal, "Modification bitmap block size is not a power of two: %llu\n",
                     to_ull(transfer_unit));
    return kvfs_internal;
  }
  if (transfer_unit < sector_size) {
    KVFS_CRITICAL_AS(kvfs_fork_flush_internal,
                     "Modification bitmap block size (%llu) is not a multiple of sector size (%lu).\n",
                     to_ull(transfer_unit), to_ul(sector_size));
    return kvfs_internal;
  }
  if (transfer_unit > fork->priv->item_size) {
    KVFS_CRITICAL_AS(kvfs_fork_flush_internal, "Modification bitmap block size (%llu) is larger than a cache item.\n",
                     to_ull(transfer_unit));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

static kvfs_result prepare_flush(kvfs_fork* fork, std::uint64_t offset, kvfs_fork_write_context* flush) {
  constexpr std::uint32_t kSectorBits = sizeof(std::uint32_t) * 8;
  constexpr std::uint32_t kUnitBits = sizeof(std::size_t) * 8;
  const std::uint32_t sector_size = fork->priv->device->sector_size;
  const std::size_t unit = fork->priv->modificationBitmapBlockSize;
  const kvfs_result checked = check_flush_units(fork, sector_size, unit);
  if (checked != kvfs_ok) {
    return checked;
  }
  const std::uint32_t sector_shift = lowest_set_bit(sector_size, kSectorBits);
  if (sector_shift == kSectorBits) {
    KVFS_CRITICAL_AS(
        kvfs_fork_flush_internal,
        "Failed to translate sector size to bitshift quantity. This should never happen. i=%llu (sizeof(u32) * 8)=%llu SectorSize=%llu\n",
        to_ull(sector_shift), to_ull(kSectorBits), to_ull(sector_size));
    return kvfs_internal;
  }
  const std::uint32_t unit_shift = lowest_set_bit(unit, kUnitBits);
  if (unit_shift == kUnitBits) {
    KVFS_CRITICAL_AS(
        kvfs_fork_flush_internal,
        "Failed to translate modification bitmap block size to bitshift quantity. This should never happen. i=%llu (sizeof(size_t) * 8)=%llu modificationBitmapBlockSize=%llu\n",
        to_ull(unit_shift), to_ull(kUnitBits), to_ull(unit));
    return kvfs_internal;
  }
  const std::uint32_t block_shift = unit_shift - sector_shift;
  *flush = {fork, sector_shift, block_shift, unit / sector_size, offset};
  return kvfs_ok;
}

kvfs_result kvfs_fork_flush_internal(kvfs_fork* fork, std::uint64_t offset, std::uint64_t length) {
  if (dirty_items(fork) == 0) {
    return kvfs_ok;
  }
  kvfs_fork_write_context flush = {};
  kvfs_result result = prepare_flush(fork, offset, &flush);
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_write_guard guard(fork->priv->dirty_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while write-locking dirty lock.\n");
    return guard.result();
  }
  result = kvfs_fork_do_device_io(fork, offset, length, check_piece, &flush);  // of all pieces, before the first write
  if (result == kvfs_ok) {
    result = kvfs_fork_do_device_io(fork, offset, length, kvfs_fork_process_write_io, &flush);
  }
  if (result != kvfs_ok) {
    KVFS_ERROR("Error while writing fork to disk.\n");
  }
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_CRITICAL("Unexpected - Error while unlocking dirty lock!\n");
  }
  return kvfs_result_keep(result, unlocked);
}

kvfs_result kvfs_fork_flush(kvfs_fork* fork) {
  kvfs_read_guard guard(fork->priv->items_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while read-locking items lock.\n");
    return guard.result();
  }
  const kvfs_result result = kvfs_fork_flush_internal(fork, 0, fork->priv->logical_size);
  const std::size_t still_dirty = dirty_items(fork);
  if (result == kvfs_ok && still_dirty != 0) {
    KVFS_WARNING("Dirty items is non-0 (%zu) after successful full flush.\n", still_dirty);
    set_dirty_items(fork, 0);  // the count is forgotten, the bits are not: Q-fork-8
  }
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_CRITICAL("Unexpected - Error while unlocking items lock!\n");
  }
  return kvfs_result_keep(result, unlocked);
}

// ---- Growing and shrinking -----------------------------------------------------------------------------------------
//
// A fork that changes its size forgets what is cached behind its end: X-fork-11.

kvfs_result UpdateForkExtents(HFSPlusForkData* fork_data, const kvfs_allocation_location* location) {
  if (fork_data == nullptr) {
    KVFS_ERROR("HFSPlus:ERROR: %s: Invalid Parameters\n", __func__);
    return kvfs_invalid;
  }
  if (location->extent_index >= kHFSPlusExtentDensity) {
    KVFS_ERROR("Unable to update fork extents beyond the first 8 extents.");  // Q-log-2
    return kvfs_unsupported_extents;
  }
  HFSPlusExtentDescriptor* const extent = &fork_data->extents.extents[location->extent_index];
  const std::uint32_t count = extent->blockCount.get();
  if (extent->startBlock.get() + count == location->start_block) {
    extent->blockCount.set(count + location->block_count);
  } else {
    extent->startBlock.set(location->start_block);
    extent->blockCount.set(location->block_count);
  }
  fork_data->totalBlocks.set(fork_data->totalBlocks.get() + location->block_count);
  return kvfs_ok;
}

// Forks whose fork data is in the volume header.
static bool is_in_volume_header(std::uint32_t cnid) {
  return cnid == kHFSExtentsFileID || cnid == kHFSCatalogFileID || cnid == kHFSAllocationFileID ||
         cnid == kHFSStartupFileID || cnid == kHFSAttributesFileID;
}

// Refuses volumes without an allocation file (X-bitmap-1), and the allocation file itself while its bits are in use
// (X-fork-7).
static kvfs_result check_resizable(const char* speaker, const kvfs_fork* fork, const kvfs_volume* volume) {
  if (volume->bitmap == nullptr) {
    KVFS_ERROR_BY(speaker, "The volume was opened without its allocation file.\n");
    return kvfs_invalid;
  }
  if (kvfs_bitmap_works_on(volume->bitmap, fork)) {
    KVFS_ERROR_BY(speaker, "The allocation file in use cannot be resized.\n");
    return kvfs_limit;
  }
  return kvfs_ok;
}

// The size that a fork is about to get, with what has to be allocated for it.
struct fork_resize {
  kvfs_fork* fork;
  kvfs_volume* volume;
  HFSPlusForkData saved;                        // the fork data as it was
  std::uint64_t total_blocks;                   // the new size
  std::uint64_t items_length;                   // for the new size
  kvfs_owned<kvfs_fork_cache_item*> items;      // the new item array
  kvfs_owned<HFSPlusExtentDescriptor> extents;  // the new extents
  std::uint32_t extents_count;
};

static std::uint64_t new_logical_size(const fork_resize& resize) {
  return resize.total_blocks * resize.fork->block_size;
}

static void set_total_blocks(fork_resize* resize, std::uint64_t total_blocks) {
  resize->total_blocks = total_blocks;
  resize->items_length = kvfs_divide_rounding_up(new_logical_size(*resize), resize->fork->priv->item_size);
}

static void store_fork_data(const fork_resize& resize, const HFSPlusForkData& fork_data) {
  kvfs_volume_update_fork_data(resize.volume, resize.fork->priv->cnid, &fork_data);
}

// Allocates the arrays of the new size, before anything that would have to be undone (X-fork-12).
static kvfs_result allocate_resized_arrays(const char* speaker, fork_resize* resize) {
  const std::size_t length = static_cast<std::size_t>(kvfs_max<std::uint64_t>(resize->items_length, 1));
  resize->items.reset(static_cast<kvfs_fork_cache_item**>(std::calloc(length, sizeof(kvfs_fork_cache_item*))));
  if (!resize->items) {
    KVFS_ERROR_BY(speaker, "Error while allocating new items array.\n");
    return kvfs_no_memory;
  }
  const std::size_t count = kvfs_max(resize->fork->priv->fork_extents_count, kHFSPlusExtentDensity);
  const std::size_t size = count * sizeof(HFSPlusExtentDescriptor);
  resize->extents.reset(static_cast<HFSPlusExtentDescriptor*>(std::malloc(size)));
  if (!resize->extents) {
    KVFS_ERROR_BY(speaker, "Error while allocating %zu bytes for the new extents.\n", size);
    return kvfs_no_memory;
  }
  return kvfs_ok;
}

// Takes the extents of the new fork data, and behind them those in the overflow file, which do not change
// (Q-fork-12).
static void take_extents(fork_resize* resize, const HFSPlusForkData& fork_data) {
  const kvfs_fork_private* const priv = resize->fork->priv;
  std::uint32_t count = 0;
  while (count < kHFSPlusExtentDensity && fork_data.extents.extents[count].blockCount.get() != 0) {
    resize->extents[count] = fork_data.extents.extents[count];
    ++count;
  }
  while (count >= kHFSPlusExtentDensity && count < priv->fork_extents_count) {
    resize->extents[count] = priv->fork_extents[count];
    ++count;
  }
  resize->extents_count = count;
}

// Forgets the blocks of an item from block `first` of it on, those that wait to be written included.
static void forget_blocks(kvfs_fork* fork, std::uint64_t item_index, std::uint64_t first) {
  kvfs_fork_cache_item* const item = fork->priv->items[item_index];
  const std::uint64_t blocks_per_item = fork->priv->item_size / fork->priv->modificationBitmapBlockSize;
  const bool was_clean = item->dirty_blocks == 0;
  for (std::uint64_t block = first; block < blocks_per_item; ++block) {
    unsigned char* const valid = &item->valid_bitmap[bitmap_byte(block)];
    *valid = static_cast<unsigned char>(*valid & ~bitmap_mask(item_index * blocks_per_item + block));
    unsigned char* const modified = &item->modification_bitmap[bitmap_byte(block)];
    if ((*modified & bitmap_mask(block)) != 0) {
      *modified = static_cast<unsigned char>(*modified & ~bitmap_mask(block));
      --item->dirty_blocks;
    }
  }
  if (!was_clean) {
    count_out_if_clean(fork, item);
  }
}

// Forgets what the cache holds behind an old or new end of the fork: what comes there lies elsewhere on the device.
// What was modified there has been flushed. The cache's block that lies across the end is read again too, unless it was
// modified before the end; then it has zeros behind it.
static void forget_behind(kvfs_fork* fork, std::uint64_t end) {
  const kvfs_fork_private* const priv = fork->priv;
  const std::uint64_t index = end / priv->item_size;
  kvfs_fork_cache_item* const item = item_at(fork, index);
  if (item == nullptr) {
    return;
  }
  const std::uint32_t unit = priv->modificationBitmapBlockSize;
  const std::uint32_t offset = static_cast<std::uint32_t>(end % priv->item_size);
  std::uint32_t first = offset / unit;
  if (offset % unit != 0) {
    std::memset(item->data + offset, 0, kvfs_min(unit - offset % unit, item->data_size - offset));
    first += (item->modification_bitmap[bitmap_byte(first)] & bitmap_mask(first)) != 0 ? 1 : 0;
  }
  forget_blocks(fork, index, first);
}

// Puts the new size into effect: nothing can fail any more. Items behind the new end are not destroyed, since somebody
// may hold a mapping of them; they wait for the end of the fork (Q-fork-13).
static void apply_resize(fork_resize* resize) {
  kvfs_fork_private* const priv = resize->fork->priv;
  const std::uint64_t common_end = kvfs_min(priv->logical_size, new_logical_size(*resize));
  for (std::uint32_t i = 0; i < priv->items_end; ++i) {
    kvfs_fork_cache_item* const item = priv->items[i];
    if (i < resize->items_length) {
      resize->items[i] = item;
    } else if (item != nullptr) {
      item->next_dropped = priv->dropped_items;
      priv->dropped_items = item;
    }
  }
  std::free(priv->items);
  std::free(priv->fork_extents);
  priv->items = resize->items.release();
  priv->fork_extents = resize->extents.release();
  priv->fork_extents_count = resize->extents_count;
  priv->fork_extents_blocks = 0;
  priv->cursor = {};
  priv->items_length = static_cast<std::uint32_t>(resize->items_length);
  priv->items_end = kvfs_min(priv->items_end, priv->items_length);
  priv->logical_size = new_logical_size(*resize);
  forget_behind(resize->fork, common_end);
}

// ---- Growing -------------------------------------------------------------------------------------------------------

static kvfs_result check_expanded_size(const fork_resize& resize) {
  const std::uint64_t items_size = resize.items_length * sizeof(kvfs_fork_cache_item*);
  if (resize.items_length < resize.fork->priv->items_length) {
    KVFS_CRITICAL_AS(kvfs_fork_expand, "Internal error: New items array is smaller than old items array.\n");
    return kvfs_internal;
  }
  if (resize.total_blocks > kMaximum32) {
    KVFS_ERROR_AS(kvfs_fork_expand,
                  "Cannot expand fork beyond 2^32 blocks (attempted to expand fork to %llu blocks).\n",
                  to_ull(resize.total_blocks));
    return kvfs_limit;
  }
  if (items_size > kMaximum32) {
    KVFS_CRITICAL_AS(kvfs_fork_expand, "size_t overflow in new_items_size (%llu).\n", to_ull(items_size));
    return kvfs_internal;
  }
  return kvfs_ok;
}

// Writes the modified blocks from the new end of the fork on. A fork that grows has none there
// (X-fork-10).
static kvfs_result flush_trailing_part(const char* speaker, const fork_resize& resize) {
  const std::uint64_t end = new_logical_size(resize);
  const std::uint64_t logical_size = resize.fork->priv->logical_size;
  if (end >= logical_size) {
    return kvfs_ok;
  }
  const kvfs_result result = kvfs_fork_flush_internal(resize.fork, end, logical_size - end);
  if (result != kvfs_ok) {
    KVFS_ERROR_BY(speaker, "Error while flushing trailing part of fork.\n");
  }
  return result;
}

// Enters the run into the fork data, without their logical size (Q-fork-11), and marks its blocks as used.
static kvfs_result claim_run(fork_resize* resize, const kvfs_allocation_location& run) {
  HFSPlusForkData changed = resize->saved;
  kvfs_result result = UpdateForkExtents(&changed, &run);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_expand, "Error while updating fork extents.\n");
    return result;
  }
  store_fork_data(*resize, changed);
  take_extents(resize, changed);
  result = AllocateExtentAllocationBlocks(run.start_block, run.block_count, resize->volume);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_expand,
                  "Error while marking %lu blocks starting at block %lu as allocated in the allocation file.\n",
                  to_ul(run.block_count), to_ul(run.start_block));
    store_fork_data(*resize, resize->saved);
  }
  return result;
}

// Grows the fork by a run that was found; the caller holds items_lock for writing.
static kvfs_result expand_by_run(kvfs_fork* fork, kvfs_volume* volume, std::uint32_t clump_blocks,
                                 const kvfs_allocation_location& run) {
  fork_resize resize = {};
  resize.fork = fork;
  resize.volume = volume;
  resize.saved = *fork->priv->fork_data;
  set_total_blocks(&resize, std::uint64_t{resize.saved.totalBlocks.get()} + clump_blocks);
  kvfs_result result = check_expanded_size(resize);
  if (result == kvfs_ok) {
    result = flush_trailing_part(KVFS_NAME_OF(kvfs_fork_expand), resize);
  }
  if (result == kvfs_ok) {
    result = allocate_resized_arrays(KVFS_NAME_OF(kvfs_fork_expand), &resize);
  }
  if (result == kvfs_ok) {
    result = claim_run(&resize, run);
  }
  if (result == kvfs_ok) {
    apply_resize(&resize);
  }
  return result;
}

// Whether a run goes on behind the last extent of a fork. One behind an earlier extent, where the logical size ends
// before the blocks do, would take the place of extents in use (X-fork-8).
static bool is_at_end(const kvfs_fork* fork, const kvfs_allocation_location& run) {
  const std::uint32_t count = fork->priv->fork_extents_count;
  if (run.extent_index >= count) {
    return true;
  }
  const HFSPlusExtentDescriptor& extent = fork->priv->fork_extents[run.extent_index];
  return run.extent_index == count - 1 && extent.startBlock.get() + extent.blockCount.get() == run.start_block;
}

// Finds the blocks for a fork to grow by.
static kvfs_result find_run(kvfs_fork* fork, kvfs_volume* volume, std::uint32_t clump, kvfs_allocation_location* run) {
  kvfs_fork_private* const priv = fork->priv;
  kvfs_result result = check_resizable(KVFS_NAME_OF(kvfs_fork_expand), fork, volume);
  if (result != kvfs_ok) {
    return result;
  }
  result = FindWriteLocation(priv->cnid, kHFSDataForkType, priv->fork_data, volume, priv->logical_size, clump, run);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_expand, "Error while searching for write location for expanded fork.\n");
    return result;
  }
  if (run->block_count == 0 && run->extent_index < kHFSPlusExtentDensity) {  // beyond, the extents are the limit
    KVFS_ERROR_AS(kvfs_fork_expand, "No free run of %lu bytes to expand the fork by.\n", to_ul(clump));
    return kvfs_limit;
  }
  if (!is_at_end(fork, *run)) {
    KVFS_ERROR_AS(kvfs_fork_expand, "The logical size of the fork ends before its last extent.\n");
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

kvfs_result kvfs_fork_expand(kvfs_fork* fork, kvfs_volume* volume, kvfs_allocation_location* out_location) {
  const std::uint32_t clump = fork->priv->fork_data->clumpSize.get();
  if (!is_in_volume_header(fork->priv->cnid)) {
    KVFS_ERROR(
        "Invalid CNID for kvfs_fork_expand (%lu). We currently only support forks with their fork data in the volume header.\n",
        to_ul(fork->priv->cnid));
    return kvfs_internal;
  }
  kvfs_allocation_location run = {};
  kvfs_result result = find_run(fork, volume, clump, &run);
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_write_guard guard(fork->priv->items_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while locking items lock.\n");
    return guard.result();
  }
  result = expand_by_run(fork, volume, clump / fork->block_size, run);
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_CRITICAL("Unexpected - Error while unlocking items lock!\n");
  }
  result = kvfs_result_keep(result, unlocked);
  if (result == kvfs_ok) {
    *out_location = run;
  }
  return result;
}

// ---- Shrinking -----------------------------------------------------------------------------------------------------

// Cuts the extents of a fork data at a number of blocks.
static void cut_extents(HFSPlusForkData* fork_data, std::uint64_t total_blocks) {
  std::uint64_t position = 0;
  for (HFSPlusExtentDescriptor& extent : fork_data->extents.extents) {
    const std::uint64_t end = position + extent.blockCount.get();
    if (position >= total_blocks && end > total_blocks) {
      extent = {};
    } else if (end > total_blocks) {
      extent.blockCount.set(static_cast<std::uint32_t>(total_blocks - position));
    }
    position = end;
  }
}

// Frees the blocks behind the new end. The extents that hold them are those of the fork data as it was
// (X-fork-9).
static kvfs_result free_cut_blocks(const fork_resize& resize, std::uint32_t blocks) {
  const std::uint32_t first = static_cast<std::uint32_t>(resize.total_blocks);
  std::uint32_t freed = 0;
  const kvfs_result result = FreeExtentAllocationBlocks(&resize.saved, first, blocks, resize.volume->bitmap, &freed);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_shrink, "Error while freeing %lu blocks in fork starting at block %lu.\n", to_ul(blocks),
                  to_ul(first));
    return result;
  }
  if (freed != blocks) {
    KVFS_ERROR_AS(kvfs_fork_shrink, "Unable to free all allocated blocks. Freed %lu / %lu blocks.\n", to_ul(freed),
                  to_ul(blocks));
    return kvfs_internal;
  }
  return kvfs_ok;
}

static kvfs_result release_cut_blocks(fork_resize* resize, std::uint32_t blocks) {
  HFSPlusForkData changed = resize->saved;
  cut_extents(&changed, resize->total_blocks);
  changed.logicalSize.set(new_logical_size(*resize));
  changed.totalBlocks.set(static_cast<std::uint32_t>(resize->total_blocks));
  store_fork_data(*resize, changed);
  take_extents(resize, changed);
  const kvfs_result result = free_cut_blocks(*resize, blocks);
  if (result != kvfs_ok) {
    store_fork_data(*resize, resize->saved);
  }
  return result;
}

// Shrinks the fork; the caller holds items_lock for writing.
static kvfs_result shrink_locked(kvfs_fork* fork, kvfs_volume* volume, std::uint32_t blocks) {
  fork_resize resize = {};
  resize.fork = fork;
  resize.volume = volume;
  resize.saved = *fork->priv->fork_data;
  const std::uint32_t old_total = resize.saved.totalBlocks.get();
  set_total_blocks(&resize, blocks > old_total ? kMaximum32 + 1 : old_total - blocks);
  if (resize.total_blocks > old_total || resize.items_length > fork->priv->items_length) {
    KVFS_CRITICAL_AS(kvfs_fork_shrink, "Internal error: New items array is larger than old items array.\n");
    return kvfs_internal;
  }
  kvfs_result result = flush_trailing_part(KVFS_NAME_OF(kvfs_fork_shrink), resize);
  if (result == kvfs_ok) {
    result = allocate_resized_arrays(KVFS_NAME_OF(kvfs_fork_shrink), &resize);
  }
  if (result == kvfs_ok) {
    result = release_cut_blocks(&resize, blocks);
  }
  if (result == kvfs_ok) {
    apply_resize(&resize);
  }
  return result;
}

kvfs_result kvfs_fork_shrink(kvfs_fork* fork, kvfs_volume* volume, std::uint32_t blocks) {
  if (!is_in_volume_header(fork->priv->cnid)) {
    KVFS_ERROR(
        "Invalid CNID for kvfs_fork_shrink (%lu). We currently only support forks with their fork data in the volume header.\n",
        to_ul(fork->priv->cnid));
    return kvfs_internal;
  }
  kvfs_result result = check_resizable(KVFS_NAME_OF(kvfs_fork_shrink), fork, volume);
  if (result != kvfs_ok) {
    return result;
  }
  kvfs_write_guard guard(fork->priv->items_lock);
  if (guard.result() != kvfs_ok) {
    KVFS_ERROR("Error while locking items lock.\n");
    return guard.result();
  }
  result = shrink_locked(fork, volume, blocks);
  const kvfs_result unlocked = guard.release();
  if (unlocked != kvfs_ok) {
    KVFS_CRITICAL("Unexpected - Error while unlocking items lock!\n");
  }
  return kvfs_result_keep(result, unlocked);
}
