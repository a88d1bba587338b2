// Names, decomposed and composed, and names of foreign systems.

#include <cstddef>
#include <cstdint>

#include "format.h"
#include "support.h"
#include "unicode.h"

static void store_unit(std::uint16_t* field, std::uint16_t unit) {
  *field = unit;
}

static void store_unit(kvfs_be16* field, std::uint16_t unit) {
  field->set(unit);
}

// The units of a foreign name up to its end or a zero unit.
static std::size_t name_length(const std::uint16_t* src, std::size_t count) {
  std::size_t length = 0;
  while (length < count && src[length] != 0) {
    ++length;
  }
  return length;
}

namespace {

// Where a name goes: units of fixed capacity or, without any, a mere count.
template <typename Unit>
struct name_buffer {
  Unit* units;
  std::size_t capacity;
  std::size_t count = 0;

  // Returns false, with nothing appended, when there is no room.
  bool append(std::uint16_t unit) {
    if (units != nullptr) {
      if (count == capacity) {
        return false;
      }
      store_unit(&units[count], unit);
    }
    ++count;
    return true;
  }

  // Appends a zero unit where there is room, and so not when only counting, and reports the count.
  void finish(std::size_t* out_count) {
    if (units != nullptr && count < capacity) {
      store_unit(&units[count], 0);
    }
    if (out_count != nullptr) {
      *out_count = count;
    }
  }
};

}  // namespace

// The answer to a destination without room: nothing is stored, and any text at all overflows.
static int refuse_without_room(std::size_t src_count, std::size_t* out_count) {
  if (out_count != nullptr) {
    *out_count = 0;
  }
  return src_count != 0 ? 1 : 0;
}

// Appends a decomposition, as far as there is room for it (Q-unicode-12).
template <typename Unit>
static bool append_decomposed(std::uint16_t c, name_buffer<Unit>* out) {
  std::uint16_t units[kUnicodeMaxDecomposedUnits];
  const std::size_t count = kvfs_unicode_decompose_char(c, units);
  for (std::size_t i = 0; i < count; ++i) {
    if (!out->append(units[i])) {
      return false;
    }
  }
  return true;
}

template <typename Unit>
static int decompose_name(const std::uint16_t* src, std::size_t src_count, name_buffer<Unit> out,
                          std::size_t* out_count) {
  bool fits = true;
  for (std::size_t i = 0; i < src_count && fits; ++i) {
    fits = append_decomposed(src[i], &out);
  }
  out.finish(out_count);
  return fits ? 0 : 1;
}

// A zero unit ends what is composed; what is decomposed it does not end (Q-unicode-5).
static int compose_name(const kvfs_be16* src, std::size_t src_count, name_buffer<std::uint16_t> out,
                        std::size_t* out_count) {
  bool fits = true;
  for (std::size_t i = 0; i < src_count && src[i].get() != 0 && fits;) {
    std::size_t extra = 0;
    fits = out.append(kvfs_unicode_compose_char(src + i, src_count - i, &extra));
    i += 1 + extra;
  }
  out.finish(out_count);
  return fits ? 0 : 1;
}

int kvfs_unicode_decompose(const std::uint16_t* src, std::size_t src_count, std::uint16_t* dst,
                           std::size_t dst_capacity, std::size_t* dst_count) {
  if (dst_capacity == 0) {
    return refuse_without_room(src_count, dst_count);
  }
  return decompose_name(src, src_count, name_buffer<std::uint16_t>{dst, dst_capacity}, dst_count);
}

int kvfs_unicode_compose(const kvfs_be16* src, std::size_t src_count, std::uint16_t* dst, std::size_t dst_capacity,
                         std::size_t* dst_count) {
  if (dst != nullptr && dst_capacity == 0) {
    return refuse_without_room(src_count, dst_count);
  }
  return compose_name(src, src_count, name_buffer<std::uint16_t>{dst, dst_capacity}, dst_count);
}

int kvfs_unicode_hfsplus_to_windows(const kvfs_be16* src, std::size_t n, std::uint16_t* dst, std::size_t capacity,
                                    std::size_t* written) {
  return kvfs_unicode_compose(src, n, dst, capacity, written);
}

int kvfs_unicode_hfsplus_to_windows_capped(const kvfs_be16* src, std::size_t n, std::uint16_t* dst,
                                           std::size_t capacity, std::size_t* written) {
  if (capacity == 0) {
    return refuse_without_room(n, written);
  }
  return kvfs_unicode_hfsplus_to_windows(src, n, dst, capacity, written);
}

std::size_t kvfs_unicode_hfsplus_to_windows_string_length(const kvfs_be16* src, std::size_t n) {
  std::size_t length = 0;
  if (kvfs_unicode_hfsplus_to_windows(src, n, nullptr, 0, &length) != 0) {
    KVFS_CRITICAL("Unexpected: Overflow when converting with no destination!\n");
  }
  return length;
}

int kvfs_unicode_windows_to_hfsplus(const std::uint16_t* src, std::size_t n, kvfs_be16* dst, std::size_t capacity,
                                    std::size_t* written) {
  if (dst != nullptr && capacity == 0) {
    return refuse_without_room(n, written);
  }
  return decompose_name(src, name_length(src, n), name_buffer<kvfs_be16>{dst, capacity}, written);
}

int kvfs_unicode_windows_to_hfsplus_capped(const std::uint16_t* src, std::size_t n, kvfs_be16* dst,
                                           std::size_t capacity, std::size_t* written) {
  if (capacity == 0) {
    return refuse_without_room(n, written);
  }
  return kvfs_unicode_windows_to_hfsplus(src, n, dst, capacity, written);
}

std::size_t kvfs_unicode_windows_to_hfsplus_string_length(const std::uint16_t* src, std::size_t n) {
  std::size_t length = 0;
  if (kvfs_unicode_windows_to_hfsplus(src, n, nullptr, 0, &length) != 0) {
    KVFS_CRITICAL("Unexpected: Overflow when converting with no destination!\n");
  }
  return length;
}
