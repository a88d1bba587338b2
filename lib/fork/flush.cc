// Flushing: modified blocks on their way to the device.
//
// From the top: kvfs_fork_flush takes the items' lock, kvfs_fork_flush_internal the one of what is dirty. write_range
// has the range cut into pieces of one extent each (kvfs_fork_do_device_io), twice: check_piece looks at all of them,
// then kvfs_fork_process_write_io writes one after the other. It cuts a piece at the items' borders
// (flush_piece_items), flush_item locks each, write_item_blocks walks its modified blocks, and write_block_sectors
// writes the sectors of one.
//
// Blocks are written one by one (Q-fork-5), and only in whole sectors (X-fork-5).

#include <bit>
#include <cstddef>
#include <cstdint>

#include "base/rwlock_guard.h"
#include "device.h"
#include "fork.h"
#include "fork/access.h"
#include "fork/extent.h"
#include "fork/private.h"
#include "ground/arithmetic.h"
#include "result.h"
#include "support.h"

using namespace kvfs::fork;

namespace {

// A piece that is being flushed, counted in sectors from its start.
struct flush_piece {
  kvfs_fork_write_context* flush;
  std::uint64_t fork_offset;   // of the piece, bytes
  std::uint64_t first_sector;  // of the piece on the device
  std::uint64_t sectors;       // in the piece, cut at the logical end of the fork
  std::uint64_t position;      // sectors done
};

}  // namespace

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

// Whether a block is modified that has one of the bytes from `first` to `last` of the fork.
static bool has_modified_block(const kvfs_fork* fork, std::uint64_t first, std::uint64_t last) {
  const std::uint64_t item_size = fork->priv->item_size;
  const std::uint64_t unit = transfer_unit(fork);
  for (std::uint64_t offset = first; offset <= last;) {
    const kvfs_fork_cache_item* const item = item_at(fork, offset / item_size);
    const bool is_dirty = item != nullptr && item->dirty_blocks != 0;
    const std::uint64_t block = offset % item_size / unit;
    if (is_dirty && (item->modification_bitmap[bitmap_byte(block)] & bitmap_mask(block)) != 0) {
      return true;
    }
    const std::uint64_t step = is_dirty ? unit : item_size;
    offset = (offset / step + 1) * step;
  }
  return false;
}

// Refuses a piece that shares a sector with a block of somebody else, which would be overwritten: by any block of one
// that begins within a sector, by the last of one that ends within a sector. The sector of the logical end may go on
// behind it as far as the fork's last block does.
static kvfs_result check_piece(void* context, std::uint64_t device_offset, std::uint64_t fork_offset,
                               std::uint64_t length) {
  const kvfs_fork_write_context* const flush = static_cast<kvfs_fork_write_context*>(context);
  const std::uint64_t sector_size = sector_size_of(flush);
  const std::uint64_t block_size = flush->fork->block_size;
  const std::uint64_t end = end_of_piece(flush->fork, fork_offset, length);
  const std::uint64_t end_of_sectors = kvfs_divide_rounding_up(end, sector_size) * sector_size;
  const std::uint64_t end_of_blocks = kvfs_divide_rounding_up(end, block_size) * block_size;
  const bool begins_within = device_offset % sector_size != 0 || fork_offset % sector_size != 0;
  if ((begins_within || end_of_sectors > end_of_blocks) &&
      has_modified_block(flush->fork, begins_within ? fork_offset : kvfs_max(fork_offset, end - 1), end - 1)) {
    KVFS_ERROR_AS(kvfs_fork_flush_internal, "Piece of %llu bytes at %llu is not of whole sectors.\n", to_ull(length),
                  to_ull(device_offset));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

static kvfs_result check_item_bitmaps(const kvfs_fork* fork, const kvfs_fork_cache_item* item) {
  const std::size_t expected = bitmap_size(fork->priv->item_size, transfer_unit(fork));
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
  const std::uint64_t unit = transfer_unit(flush->fork);
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
  const kvfs_result checked = check_item_bitmaps(fork, item);
  if (checked != kvfs_ok) {
    return checked;
  }
  static constexpr kvfs_lock_messages messages =
      KVFS_LOCK_MESSAGES_AS(kvfs_fork_process_write_io, "Error while write-locking item's item lock.\n", critical,
                            "Unexpected - Error while unlocking item's item lock.\n");
  return kvfs_with_write_lock(item->item_lock, messages, [&] {
    const kvfs_result written = write_item_blocks(piece, item, item_index, end);
    count_out_if_clean(fork, item);
    return written;
  });
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
    // A sector that lies across the items' border counts to the first one, so that the walk gets on.
    const std::uint64_t end = kvfs_min(piece->sectors, kvfs_divide_rounding_up(item_end, sector_size_of(piece->flush)));
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
static kvfs_result check_flush_units(const kvfs_fork* fork, std::uint32_t sector_size, std::size_t unit) {
  if (!std::has_single_bit(sector_size)) {
    KVFS_CRITICAL_AS(kvfs_fork_flush_internal, "Sector size is not a power of two: %lu\n", to_ul(sector_size));
    return kvfs_internal;
  }
  if (!std::has_single_bit(unit)) {
    KVFS_CRITICAL_AS(kvfs_fork_flush_internal, "Modification bitmap block size is not a power of two: %llu\n",
                     to_ull(unit));
    return kvfs_internal;
  }
  if (unit < sector_size) {
    KVFS_CRITICAL_AS(kvfs_fork_flush_internal,
                     "Modification bitmap block size (%llu) is not a multiple of sector size (%lu).\n", to_ull(unit),
                     to_ul(sector_size));
    return kvfs_internal;
  }
  if (unit > fork->priv->item_size) {
    KVFS_CRITICAL_AS(kvfs_fork_flush_internal, "Modification bitmap block size (%llu) is larger than a cache item.\n",
                     to_ull(unit));
    return kvfs_inconsistent;
  }
  return kvfs_ok;
}

static kvfs_result prepare_flush(kvfs_fork* fork, std::uint64_t offset, kvfs_fork_write_context* flush) {
  constexpr std::uint32_t kSectorBits = sizeof(std::uint32_t) * 8;
  constexpr std::uint32_t kUnitBits = sizeof(std::size_t) * 8;
  const std::uint32_t sector_size = fork->priv->device->sector_size;
  const std::size_t unit = transfer_unit(fork);
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

// Counts one item in when none is counted any more and some have modified blocks. Writing an item that was forgotten
// (Q-fork-8) counts out one that still has them; the next flush would do nothing, and lose them (X-fork-13).
static void keep_one_counted(kvfs_fork* fork) {
  for (std::uint32_t i = 0; i < fork->priv->items_end && dirty_items(fork) == 0; ++i) {
    const kvfs_fork_cache_item* const item = fork->priv->items[i];
    if (item != nullptr && item->dirty_blocks != 0) {
      set_dirty_items(fork, 1);
    }
  }
}

// Writes the modified blocks of a range, once all its pieces are known to be good.
static kvfs_result write_range(kvfs_fork_write_context* flush, std::uint64_t offset, std::uint64_t length) {
  kvfs_fork* const fork = flush->fork;
  kvfs_result result = kvfs_fork_do_device_io(fork, offset, length, check_piece, flush);
  if (result == kvfs_ok) {
    result = kvfs_fork_do_device_io(fork, offset, length, kvfs_fork_process_write_io, flush);
  }
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_fork_flush_internal, "Error while writing fork to disk.\n");
  }
  if (result != kvfs_ok || length != fork->priv->logical_size) {
    keep_one_counted(fork);
  }
  return result;
}

kvfs_result kvfs_fork_flush_internal(kvfs_fork* fork, std::uint64_t offset, std::uint64_t length) {
  if (dirty_items(fork) == 0) {
    return kvfs_ok;
  }
  kvfs_fork_write_context flush = {};
  const kvfs_result prepared = prepare_flush(fork, offset, &flush);
  if (prepared != kvfs_ok) {
    return prepared;
  }
  static constexpr kvfs_lock_messages messages = KVFS_LOCK_MESSAGES("Error while write-locking dirty lock.\n", critical,
                                                                    "Unexpected - Error while unlocking dirty lock!\n");
  return kvfs_with_write_lock(fork->priv->dirty_lock, messages, [&] { return write_range(&flush, offset, length); });
}

kvfs_result kvfs_fork_flush(kvfs_fork* fork) {
  static constexpr kvfs_lock_messages messages = KVFS_LOCK_MESSAGES("Error while read-locking items lock.\n", critical,
                                                                    "Unexpected - Error while unlocking items lock!\n");
  return kvfs_with_read_lock(fork->priv->items_lock, messages, [&] {
    const kvfs_result result = kvfs_fork_flush_internal(fork, 0, fork->priv->logical_size);
    const std::size_t still_dirty = dirty_items(fork);
    if (result == kvfs_ok && still_dirty != 0) {
      KVFS_WARNING_AS(kvfs_fork_flush, "Dirty items is non-0 (%zu) after successful full flush.\n", still_dirty);
      set_dirty_items(fork, 0);  // the count is forgotten, the bits are not: Q-fork-8
    }
    return result;
  });
}
