// Access to cached bytes: map, unmap and read.

#include "fork/access.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "base/rwlock_guard.h"
#include "fork.h"
#include "fork/extent.h"
#include "fork/private.h"
#include "ground/arithmetic.h"
#include "result.h"
#include "support.h"

using namespace kvfs::fork;

kvfs_result kvfs::fork::check_item_numbers(const char* speaker, const kvfs_fork* fork, item_range items) {
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

static kvfs_lock_messages items_lock_messages(const char* speaker) {
  return KVFS_LOCK_MESSAGES_BY(speaker, "Error while read-locking items lock.\n", critical,
                               "Unexpected - Error while unlocking items lock!\n", nullptr);
}

// Hands out the address of cached bytes.
static kvfs_result locate_cached_bytes(kvfs_fork* fork, std::uint64_t item_index, std::uint64_t offset,
                                       void** out_pointer) {
  void* pointer = nullptr;
  const kvfs_result result =
      kvfs_with_read_lock(fork->priv->items_lock, items_lock_messages(KVFS_NAME_OF(kvfs_fork_map)), [&] {
        kvfs_fork_cache_item* const item = item_at(fork, item_index);
        if (item == nullptr) {
          KVFS_CRITICAL_AS(kvfs_fork_map, "Unexpected - Requested cache item %llu does not exist.\n",
                           to_ull(item_index));
          return kvfs_internal;
        }
        pointer = item->data + offset % fork->priv->item_size;
        return kvfs_ok;
      });
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
  const kvfs_lock_messages messages =
      KVFS_LOCK_MESSAGES_BY(KVFS_NAME_OF(kvfs_fork_unmap), "Error while write-locking item %p.\n", critical,
                            "Unexpected - Error while unlocking item %p!\n", item);
  return kvfs_with_write_lock(item->item_lock, messages, [&] {
    void* const expected = item->data + offset_in_item;
    if (*pointer != expected) {
      KVFS_ERROR_AS(kvfs_fork_unmap, "Unexpected pointer when unmapping cache item. Expected %p, got %p.\n", expected,
                    *pointer);
      return kvfs_invalid;
    }
    if (item->references == 0) {
      KVFS_ERROR_AS(kvfs_fork_unmap, "Cache item %llu has no active references and cannot be unmapped.\n",
                    to_ull(index));
      return kvfs_invalid;
    }
    --item->references;
    *pointer = nullptr;
    return kvfs_ok;
  });
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
  return kvfs_with_read_lock(fork->priv->items_lock, items_lock_messages(__func__), [&] {
    kvfs_fork_cache_item* const item = item_at(fork, items.first);
    if (item == nullptr) {
      KVFS_ERROR_AS(kvfs_fork_unmap, "Cache item %llu does not exist and cannot be unmapped.\n", to_ull(items.first));
      return kvfs_result{kvfs_invalid};
    }
    return drop_reference(item, items.first, offset % fork->priv->item_size, pointer);
  });
}

// Copies bytes out of an item and takes one reference off it, in the name of kvfs_fork_read.
static kvfs_result copy_from_item(kvfs_fork_cache_item* item, std::size_t offset_in_item, void* buffer,
                                  std::size_t length) {
  kvfs_lock_messages messages =
      KVFS_LOCK_MESSAGES_AS(kvfs_fork_read, "Error while write-locking cur_item's item lock.\n", critical,
                            "Unexpected - Error while unlocking cur_item's item lock.\n");
  return kvfs_with_write_lock(item->item_lock, messages, [&] {
    if (length != 0) {  // a caller of nothing may have no buffer
      std::memcpy(buffer, item->data + offset_in_item, length);
    }
    if (item->references == 0) {
      KVFS_CRITICAL_AS(
          kvfs_fork_read,
          "Unexpected - Cache item that we just copied from has no references (should have at least one)!\n");
      messages.unlocking = "Unexpected - Error while unlocking items lock.\n";  // Q-fork-14
      return kvfs_result{kvfs_internal};
    }
    --item->references;
    return kvfs_result{kvfs_ok};
  });
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
  result = kvfs_with_read_lock(fork->priv->items_lock, items_lock_messages(__func__), [&] {
    return copy_from_items(fork, items, offset, static_cast<unsigned char*>(buffer), length);
  });
  if (result == kvfs_ok && out_bytes_read != nullptr) {
    *out_bytes_read = length;
  }
  return result;
}
