// Which blocks are in use, and freeing them.

#include "bitmap.h"
#include "bitmap/private.h"
#include "fork.h"
#include "fork/extent.h"
#include "ground/arithmetic.h"
#include "ground/bits.h"
#include "session/private.h"
#include "volume.h"

static constexpr std::uint32_t kBitsInByte = 8;

// Bytes of the allocation file that are looked at together, at most.
static constexpr std::uint32_t kPieceSize = 4096;

// Looks at the bits of a run, or changes them; the bytes of the allocation file that hold them are those given. A true
// answer writes these back.
using visit_bits = bool (*)(void* context, unsigned char* bytes, std::uint32_t first_block, std::uint32_t count);

static kvfs_result check_blocks(const kvfs_volume* volume, kvfs_block_run run) {
  const std::uint32_t total = volume->header->totalBlocks.get();
  if (volume->bitmap == nullptr || run.first > total || run.count > total - run.first) {
    KVFS_ERROR_AS(kvfs_session_run_in_use, "No bits for blocks %lu and %lu behind it.\n", to_ul(run.first),
                  to_ul(run.count));
    return kvfs_invalid;
  }
  return kvfs_ok;
}

// The beginning of a run whose bits are looked at together. They lie in one transfer unit of the allocation file: a
// reading of several would leave references behind (Q-fork-4).
static kvfs_block_run first_piece(const kvfs_fork* fork, kvfs_block_run run) {
  const std::uint32_t unit = kvfs::fork::transfer_unit(fork);
  const std::uint32_t bytes = kvfs_min(unit - run.first / kBitsInByte % unit, kPieceSize);
  return {run.first, kvfs_min(run.count, bytes * kBitsInByte - run.first % kBitsInByte)};
}

// Visits the first piece of a run, which begins behind that then.
static kvfs_result visit_piece(kvfs_fork* fork, kvfs_block_run* run, visit_bits visit, void* context) {
  const kvfs_block_run piece = first_piece(fork, *run);
  const std::uint32_t offset = piece.first / kBitsInByte;
  const std::size_t size =
      static_cast<std::size_t>(kvfs_divide_rounding_up(piece.first % kBitsInByte + piece.count, kBitsInByte));
  unsigned char bytes[kPieceSize];
  kvfs_result result = kvfs_fork_read(fork, offset, bytes, size, nullptr);
  if (result == kvfs_ok && visit(context, bytes, piece.first, piece.count)) {
    result = kvfs_fork_write(fork, offset, bytes, size, nullptr);
  }
  if (result == kvfs_ok) {
    *run = {piece.first + piece.count, run->count - piece.count};
  }
  return kvfs_session_blame_volume(result);  // an allocation file may end before its volume
}

// Counts the blocks in use of a piece; the context is the sum. Its type is that of a visit, which may change the bytes.
// NOLINTNEXTLINE(readability-non-const-parameter)
static bool count_used(void* context, unsigned char* bytes, std::uint32_t first_block, std::uint32_t count) {
  std::uint32_t* const used = static_cast<std::uint32_t*>(context);
  const std::uint32_t base = first_block / kBitsInByte;
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint32_t block = first_block + i;
    *used += (bytes[block / kBitsInByte - base] & kvfs_disk_bit(block)) != 0 ? 1 : 0;
  }
  return false;
}

// Frees the blocks of a piece; the context is the sum of those that were in use.
static bool clear_used(void* context, unsigned char* bytes, std::uint32_t first_block, std::uint32_t count) {
  (void)count_used(context, bytes, first_block, count);
  const std::uint32_t base = first_block / kBitsInByte;
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint32_t block = first_block + i;
    unsigned char& byte = bytes[block / kBitsInByte - base];
    byte = static_cast<unsigned char>(byte & ~kvfs_disk_bit(block));
  }
  return true;
}

static kvfs_result count_blocks(kvfs_session* session, kvfs_block_run run, std::uint32_t* used) {
  *used = 0;
  kvfs_result result = check_blocks(session->volume, run);
  while (result == kvfs_ok && run.count != 0) {
    result = visit_piece(session->volume->bitmap->priv->fork, &run, count_used, used);
  }
  return result;
}

kvfs_result kvfs_session_run_in_use(kvfs_session* session, kvfs_block_run run, bool* in_use) {
  std::uint32_t used = 0;
  const kvfs_result result = count_blocks(session, run, &used);
  *in_use = used == run.count;
  return result;
}

kvfs_result kvfs_session_clear_piece(kvfs_session* session, kvfs_block_run* run, std::uint32_t* cleared) {
  *cleared = 0;
  return visit_piece(session->volume->bitmap->priv->fork, run, clear_used, cleared);
}

static kvfs_result tell_block(kvfs_session* session, std::uint32_t block, int* out_in_use) {
  bool in_use = false;
  const kvfs_result result = kvfs_session_run_in_use(session, {block, 1}, &in_use);
  if (result == kvfs_ok) {
    *out_in_use = in_use ? 1 : 0;
  }
  return result;
}

uint64_t kvfs_session_block_in_use(kvfs_session* session, uint32_t block, int* out_in_use) {
  if (session == nullptr || out_in_use == nullptr) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(session, [=] { return tell_block(session, block, out_in_use); });
}

static kvfs_result count_free(kvfs_session* session, std::uint32_t* out_count) {
  const std::uint32_t total = session->volume->header->totalBlocks.get();
  std::uint32_t used = 0;
  const kvfs_result result = count_blocks(session, {0, total}, &used);
  if (result == kvfs_ok) {
    *out_count = total - used;
  }
  return result;
}

uint64_t kvfs_session_count_free_blocks(kvfs_session* session, uint32_t* out_count) {
  if (session == nullptr || out_count == nullptr) {
    return kvfs_invalid;
  }
  return kvfs_session_take_turn(session, [=] { return count_free(session, out_count); });
}
