// Locators: where a record is, for as long as somebody holds it.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "base/rwlock_guard.h"
#include "btree.h"
#include "btree/node.h"
#include "btree/private.h"
#include "btree/spare.h"
#include "fork.h"
#include "format.h"
#include "ground/arithmetic.h"
#include "result.h"
#include "support.h"

using namespace kvfs::btree;

namespace {

// The block of a locator; the record copy follows it. The tag marks locators in a memory dump and is never tested.
struct tree_locator_block {
  char tag[8];
  std::size_t size;  // of block and copy, to zero them when the locator is released; the memory may be larger
  kvfs_btree_record_locator locator;
  kvfs_btree_record_locator_private priv;
};

}  // namespace

// Locators of up to this size have memory of this size, which the tree keeps: of items with a short name and of threads
// (X-btree-20).
static constexpr std::size_t kUsualSize = sizeof(tree_locator_block) + 116;

static const char kLocatorTag[] = "kvfsbrla";

static std::size_t record_capacity(const kvfs_btree_record_locator_private* priv) {
  return static_cast<const tree_locator_block*>(priv->allocation)->size - sizeof(tree_locator_block);
}

// Rejects bytes that cannot be a record and computes where a record's data begins.
static kvfs_result check_record(const unsigned char* record, std::size_t record_size, std::uint32_t* data_offset) {
  if (record == nullptr) {
    KVFS_ERROR_AS(kvfs_btree_record_locator_open, "Invalid parameter: record == NULL\n");
    return kvfs_invalid;
  }
  if (record_size == 0) {
    KVFS_ERROR_AS(kvfs_btree_record_locator_open, "Invalid parameter: record_size == 0\n");
    return kvfs_invalid;
  }
  if (record_size % 2 != 0) {
    KVFS_ERROR_AS(kvfs_btree_record_locator_open,
                  "Invalid parameter: record_size (%zu) is not aligned on a 2-byte boundary.\n", record_size);
    return kvfs_invalid;
  }
  const std::uint32_t key_length =
      kvfs_view_as<kvfs_be16>(record)->get() + static_cast<std::uint32_t>(sizeof(kvfs_be16));
  *data_offset = round_up_to_even(key_length);
  if (*data_offset > record_size) {
    KVFS_ERROR_AS(kvfs_btree_record_locator_open,
                  "Invalid parameter: Record size too small to contain key! Expected minimum: %zu Actual: %zu\n",
                  std::size_t{*data_offset}, record_size);
    return kvfs_invalid;
  }
  return kvfs_ok;
}

static kvfs_btree_record_locator* find_open_locator(const kvfs_btree* tree, std::uint32_t node, std::uint16_t index) {
  kvfs_btree_record_locator* locator = tree->priv->open_locators;
  while (locator != nullptr &&
         (locator->priv->deleted != 0 || locator->priv->node != node || locator->priv->index != index)) {
    locator = locator->priv->next;
  }
  return locator;
}

namespace {

// What a locator is opened with.
struct locator_arguments {
  kvfs_btree* tree;
  std::uint32_t node;
  std::uint16_t index;
  const unsigned char* record;
  std::size_t record_size;
  std::uint32_t data_offset;       // in the record
  std::uint64_t fork_data_offset;  // in the fork
};

}  // namespace

// Brings sizes and offsets of an open locator up to date with a record that is opened again, warning of each change.
static void update_shared_offsets(kvfs_btree_record_locator_private* priv, const locator_arguments& arguments) {
  const unsigned long node = to_ul(arguments.node);
  if (priv->record_size != arguments.record_size) {
    KVFS_WARNING_AS(
        kvfs_btree_record_locator_open,
        "Mismatching raw record sizes for node %lu, record %hu (stored: %zu specified: %zu). Using specified.\n", node,
        arguments.index, std::size_t{priv->record_size}, arguments.record_size);
    priv->record_size = static_cast<std::uint32_t>(arguments.record_size);
  }
  if (priv->record_data_offset != arguments.data_offset) {
    KVFS_WARNING_AS(
        kvfs_btree_record_locator_open,
        "Mismatching raw record data offsets for node %lu, record %hu (stored: %zu specified: %zu). Using specified.\n",
        node, arguments.index, std::size_t{priv->record_data_offset}, std::size_t{arguments.data_offset});
    priv->record_data_offset = arguments.data_offset;
  }
  if (priv->record_key_offset != 0) {
    KVFS_WARNING_AS(
        kvfs_btree_record_locator_open,
        "Mismatching raw record key offsets for node %lu, record %hu (stored: %zu specified: %zu). Using specified.\n",
        node, arguments.index, std::size_t{priv->record_key_offset}, std::size_t{0});
    priv->record_key_offset = 0;
  }
}

// Adds a reference to an open locator. Its public lengths and pointers stay as they were, and so does the room for its
// copy: who opens a record again is expected to find it at its old size (Q-btree-3). Only a vacant place may have
// become a longer record (X-btree-6): the search for the place of a new index record behind the last one of a node
// opens a locator there with the bytes of the record before, and inserting finds it open.
static kvfs_result share_locator(kvfs_btree_record_locator* locator, const locator_arguments& arguments) {
  kvfs_btree_record_locator_private* const priv = locator->priv;
  const unsigned long node = to_ul(arguments.node);
  if (priv->fork_data_offset != arguments.fork_data_offset) {
    KVFS_WARNING_AS(
        kvfs_btree_record_locator_open,
        "Mismatching data pointer offset for node %lu, record %hu (stored: %llu specified: %llu). Using specified.\n",
        node, arguments.index, to_ull(priv->fork_data_offset), to_ull(arguments.fork_data_offset));
    priv->fork_data_offset = arguments.fork_data_offset;
  }
  if (priv->tree != arguments.tree) {
    KVFS_CRITICAL_AS(kvfs_btree_record_locator_open, "Mismatching btree pointers (%p != %p)! Internal error...\n",
                     static_cast<void*>(priv->tree), static_cast<void*>(arguments.tree));
    return kvfs_internal;
  }
  if (arguments.record_size > record_capacity(priv) && priv->is_vacant == 0) {
    KVFS_ERROR_AS(kvfs_btree_record_locator_open, "Record %hu of node %lu has outgrown its open locator.\n",
                  arguments.index, node);
    return kvfs_internal;
  }
  update_shared_offsets(priv, arguments);
  const std::size_t size = kvfs_min(arguments.record_size, record_capacity(priv));
  if (std::memcmp(priv->record, arguments.record, size) != 0) {
    KVFS_WARNING_AS(kvfs_btree_record_locator_open,
                    "Mismatching record data for node %lu, record %hu. Using specified.\n", node, arguments.index);
    if (size == arguments.record_size) {  // the beginning of a longer one would claim more than the copy has
      std::memcpy(priv->record, arguments.record, size);
    }
  }
  ++priv->reference_count;
  return kvfs_ok;
}

// Allocates a locator with a copy of its record and links it at the head of the list.
static kvfs_result create_locator(const locator_arguments& arguments, kvfs_btree_record_locator** out_locator) {
  const std::size_t size = sizeof(tree_locator_block) + arguments.record_size;
  const std::size_t room = kvfs_max(size, kUsualSize);
  void* const memory = room > kUsualSize ? std::malloc(room) : take_block(&arguments.tree->priv->spare_locators, room);
  if (memory == nullptr) {
    KVFS_ERROR_AS(kvfs_btree_record_locator_open,
                  "Error while allocating %zu bytes for kvfs_btree_record_locator allocation.\n", room);
    return kvfs_no_memory;
  }
  tree_locator_block* const block = static_cast<tree_locator_block*>(std::memset(memory, 0, size));
  unsigned char* const record = reinterpret_cast<unsigned char*>(block + 1);
  kvfs_btree_record_locator* const head = arguments.tree->priv->open_locators;
  std::memcpy(block->tag, kLocatorTag, sizeof(block->tag));
  block->size = size;
  std::memcpy(record, arguments.record, arguments.record_size);
  kvfs_btree_record_locator_private* const priv = &block->priv;
  priv->allocation = block;
  priv->next = head;
  priv->reference_count = 1;
  priv->node = arguments.node;
  priv->index = arguments.index;
  priv->fork_data_offset = arguments.fork_data_offset;
  priv->tree = arguments.tree;
  priv->record_data_offset = arguments.data_offset;
  priv->record_size = static_cast<std::uint32_t>(arguments.record_size);
  priv->record = record;
  const std::uint32_t key_length =
      kvfs_view_as<kvfs_be16>(record)->get() + static_cast<std::uint32_t>(sizeof(kvfs_be16));
  block->locator = {&priv->node,
                    &priv->index,
                    record,
                    key_length,
                    record + arguments.data_offset,
                    priv->record_size - arguments.data_offset,
                    priv};
  if (head != nullptr) {
    head->priv->previous = &block->locator;
  }
  arguments.tree->priv->open_locators = &block->locator;
  *out_locator = &block->locator;
  return kvfs_ok;
}

kvfs_result kvfs_btree_record_locator_open(kvfs_btree* tree, std::uint32_t node, std::uint16_t index,
                                           const unsigned char* record, std::size_t record_size, std::uint64_t position,
                                           kvfs_btree_record_locator** out_locator) {
  std::uint32_t data_offset = 0;
  kvfs_result result = check_record(record, record_size, &data_offset);
  if (result != kvfs_ok) {
    return result;
  }
  const locator_arguments arguments = {tree, node, index, record, record_size, data_offset, position + data_offset};
  kvfs_btree_record_locator* const open = find_open_locator(tree, node, index);
  if (open == nullptr) {
    return create_locator(arguments, out_locator);
  }
  result = share_locator(open, arguments);
  if (result == kvfs_ok) {
    *out_locator = open;
  }
  return result;
}

void kvfs_btree_record_locator_release(kvfs_btree_record_locator** locator, bool force) {
  kvfs_btree_record_locator_private* const priv = (*locator)->priv;
  --priv->reference_count;
  if (priv->reference_count > 0 && !force) {
    return;
  }
  *locator = nullptr;
  if (priv->next != nullptr) {
    priv->next->priv->previous = priv->previous;
  }
  if (priv->previous != nullptr) {
    priv->previous->priv->next = priv->next;
  } else {
    priv->tree->priv->open_locators = priv->next;
  }
  kvfs_btree* const tree = priv->tree;
  void* const allocation = priv->allocation;
  const std::size_t size = static_cast<tree_locator_block*>(allocation)->size;
  std::memset(allocation, 0, size);
  asm volatile("" : : "r"(allocation) : "memory");  // the stores look dead to the compiler: it is freed or kept next
  if (size > kUsualSize) {
    std::free(allocation);
  } else {
    kvfs_btree_keep_locator(tree, allocation, kUsualSize);
  }
}

void kvfs_btree_record_locator_close(kvfs_btree_record_locator** locator) {
  static constexpr kvfs_lock_messages messages =
      KVFS_LOCK_MESSAGES("Error while locking B-tree open locators list.\n", warning,
                         "Error while unlocking B-tree open locators list lock. Ignoring...\n");
  (void)kvfs_with_write_lock((*locator)->priv->tree->priv->open_locators_lock, messages, [&] {
    kvfs_btree_record_locator_release(locator, false);
    return kvfs_ok;
  });
  // Null also while others hold it. Without the lock the reference is leaked (Q-btree-4); touching the list then could
  // do worse.
  *locator = nullptr;
}

// Writes a record's data to the fork and to the locator's copy; the caller holds the tree's lock.
static kvfs_result write_record_data(kvfs_btree_record_locator* locator, const void* data, std::size_t data_size) {
  kvfs_btree_record_locator_private* const priv = locator->priv;
  if (data_size > record_capacity(priv) || priv->record_data_offset > record_capacity(priv) - data_size) {
    // X-btree-6: it was opened again with a longer key, and the public sizes are still those of the first opening.
    KVFS_ERROR_AS(kvfs_btree_record_locator_write_data, "Record %hu of node %lu has changed its layout.\n", priv->index,
                  to_ul(priv->node));
    return kvfs_internal;
  }
  const kvfs_result result = kvfs_fork_write(priv->tree->fork, priv->fork_data_offset, data, data_size, nullptr);
  if (result != kvfs_ok) {
    KVFS_ERROR_AS(kvfs_btree_record_locator_write_data, "Error while writing out record data.\n");
    return result;
  }
  if (data_size != 0) {
    std::memcpy(priv->record + priv->record_data_offset, data, data_size);
  }
  return kvfs_ok;
}

kvfs_result kvfs_btree_record_locator_write_data(kvfs_btree_record_locator* locator, const void* data,
                                                 std::size_t data_size) {
  if (locator->priv->deleted != 0) {
    KVFS_CRITICAL("Attempted to write data to deleted locator.\n");
    return kvfs_internal;
  }
  if (data_size != locator->data_size) {
    KVFS_ERROR(
        "Invalid parameter: data_size (%zu) not equal to data size in locator (%zu). Inline record expansion is not supported.\n",
        data_size, std::size_t{locator->data_size});
    return kvfs_invalid;
  }
  static constexpr kvfs_lock_messages messages =
      KVFS_LOCK_MESSAGES("Error while locking open locators list.\n", error, "Error while unlocking rwlock.\n");
  return kvfs_with_read_lock(locator->priv->tree->priv->open_locators_lock, messages,
                             [&] { return write_record_data(locator, data, data_size); });
}

void kvfs_btree_shift_locators(kvfs_btree* tree, std::uint32_t node, std::int32_t first, std::int32_t count,
                               std::uint32_t target_node, bool subtract, std::uint16_t index_delta,
                               std::uint32_t byte_delta) {
  for (kvfs_btree_record_locator* locator = tree->priv->open_locators; locator != nullptr;
       locator = locator->priv->next) {
    kvfs_btree_record_locator_private* const priv = locator->priv;
    const std::int32_t index = priv->index;
    if (priv->deleted != 0 || priv->node != node || index < first || index >= first + count) {
      continue;
    }
    priv->node = target_node;
    const std::uint32_t shifted =
        subtract ? priv->index - std::uint32_t{index_delta} : priv->index + std::uint32_t{index_delta};
    priv->index = static_cast<std::uint16_t>(shifted);
    priv->fork_data_offset = subtract ? priv->fork_data_offset - byte_delta : priv->fork_data_offset + byte_delta;
  }
}
