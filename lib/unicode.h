// Unicode for HFS Plus names: UTF-8 and UTF-16 conversion, canonical decomposition and composition, and the order in
// which a catalog keeps its names.
//
// HFS Plus stores a name as big-endian UTF-16 units, decomposed by a fixed table. That table is older than any current
// Unicode version (Q-unicode-1): a name that is decomposed by other rules is not found again. Two fixed tables
// (decompositions, case folding) and the arithmetic of Hangul are all that is used; combining marks keep their order.
//
// Terms: a unit is one 16-bit element of UTF-16. Stored units are big-endian (kvfs_be16), all others in host order.
// Counts, lengths and capacities of units count units, those of UTF-8 count bytes. A zero unit or byte that is appended
// is never part of a count.
//
// Threads: no state is kept; any routine may run at any time on any thread. Locks: none.

#ifndef KVFS_UNICODE_H
#define KVFS_UNICODE_H

#include <cstddef>
#include <cstdint>

#include "format.h"
#include "result.h"

#pragma GCC visibility push(default)

// ---- UTF-8 and UTF-16 ----------------------------------------------------------------------------------------------

// How the units given to kvfs_unicode_unistr_to_utf8 lie in memory.
inline constexpr std::int32_t kUnicodeHostOrder = 0;     // as this machine keeps numbers
inline constexpr std::int32_t kUnicodeBigEndian = 1;     // as names are stored
inline constexpr std::int32_t kUnicodeLittleEndian = 2;  // the other way round

// Converts UTF-16 to UTF-8 and appends a zero byte. Logs nothing about malformed text: its caller knows what it is.
//
//   units, count  the text; a zero unit ends it early
//   byte_order    one of the three above. The result is sized from the units as they lie, before this is applied, so
//                 that an order other than the host's is converted only if it needs no more bytes than the units as
//                 they lie would.
//                 Any other value is refused when there is a unit to convert
//   outs          in: the caller's buffer, or null to have one allocated; out: an allocated buffer, which the caller
//                 frees with free(). Unchanged on failure
//   outs_len      in: bytes that the caller's buffer holds besides one more for the zero byte, which is always
//                 written; out: bytes of text. Unchanged on failure; what a caller's buffer holds is then undefined
//
// Returns kvfs_ok; kvfs_invalid for a surrogate without its partner or an unknown byte order; kvfs_overflow when the
// text does not fit the caller's buffer, or has more than 2^32 - 1 bytes; kvfs_no_memory; kvfs_inconsistent when an
// order other than the host's needs more bytes than were sized.
kvfs_result kvfs_unicode_unistr_to_utf8(const std::uint16_t* units, std::size_t count, std::int32_t byte_order,
                                        char** outs, std::size_t* outs_len);

// Converts UTF-8 to UTF-16 in host order and appends a zero unit where there is room for one.
//
//   text, length  the text and its bytes. Overlong forms, encoded surrogates, stray and missing continuation bytes are
//                 refused; so is a zero byte within the length. A last character from F4 90 80 80 to F4 BF BF BF is
//                 not: it becomes two units that are no surrogate pair
//   outs          in: the caller's buffer, or null to have one allocated; out: an allocated buffer, which the caller
//                 frees with free(). Unchanged on failure
//   outs_len      in: units that the caller's buffer holds; out: units of text. May be null when the result is
//                 allocated. Unchanged on failure; what a caller's buffer holds is then undefined
//
// Returns kvfs_ok; kvfs_invalid for malformed text and for a caller's buffer that is too small or has no length;
// kvfs_internal for a text with a zero byte or with a four-byte form outside U+10000 to U+10FFFF.
//
// When memory is short the result is kvfs_ok with a null `*outs` and a length of 0: the caller sees an empty text.
kvfs_result kvfs_unicode_utf8_to_unistr(const char* text, std::size_t length, std::uint16_t** outs,
                                        std::size_t* outs_len);

// ---- Decomposition and composition ---------------------------------------------------------------------------------

// Most units that the canonical decomposition of one unit has.
inline constexpr std::size_t kUnicodeMaxDecomposedUnits = 4;

// Decomposes one unit.
//
//   out  receives the canonical decomposition, or the unit itself when it has none; the rest is left alone
//
// Returns the number of units stored, 1 to 4.
std::size_t kvfs_unicode_decompose_char(std::uint16_t c, std::uint16_t out[kUnicodeMaxDecomposedUnits]);

// Composes the stored units at the beginning of `src`, of which at most four are read.
//
//   remaining  units that `src` holds, at least 1
//   extra      receives how many units after the first the result stands for
//
// Returns the composed unit, or the first unit itself when nothing begins there that composes.
//
// This is not quite the inverse of decomposition, and what it shows must not change:
// - The 17 single units that some character decomposes to turn into that character: a stored ";" becomes U+037E
//   (Q-unicode-2).
// - The binary search settles for the first row it meets that the text begins with, even if a longer one exists, so
//   that 99 of the 942 sequences do not come back. Likewise a longer row that the text sorts behind can lead it past a
//   shorter one: U+00C6 becomes U+04D4, but not in front of U+03BA.
// - U+11A7, which stands for no trailing consonant at all, is absorbed behind a Hangul syllable.
std::uint16_t kvfs_unicode_compose_char(const kvfs_be16* src, std::size_t remaining, std::size_t* extra);

// Decomposes a name. Zero units are copied like any other.
//
//   dst           receives the units, and a zero unit when there is room; null only counts them
//   dst_capacity  units that `dst` holds; not 0 when counting
//   dst_count     receives the units stored or counted; may be null
//
// Returns 1 when `dst` is too small (it then holds what fitted; a character may be cut) or when the capacity is 0 and
// there is text, else 0.
int kvfs_unicode_decompose(const std::uint16_t* src, std::size_t src_count, std::uint16_t* dst,
                           std::size_t dst_capacity, std::size_t* dst_count);

// Composes a stored name up to its end or to a zero unit. The result never has more units than the name.
//
//   dst           receives the units, and a zero unit when there is room; null only counts them
//   dst_capacity  units that `dst` holds
//   dst_count     receives the units stored or counted; may be null
//
// Returns 1 when `dst` is too small (it then holds what fitted), or when it has no room at all and the source count is
// not 0, else 0.
int kvfs_unicode_compose(const kvfs_be16* src, std::size_t src_count, std::uint16_t* dst, std::size_t dst_capacity,
                         std::size_t* dst_count);

// ---- The order of names --------------------------------------------------------------------------------------------

// Compares two stored names as the catalog orders them.
//
//   a_length, b_length  units
//   binary              true compares the units as they are, up to a zero unit that both names have in the same place;
//                       false folds case first: ignorable units are skipped, and a zero unit sorts behind all others
//
// Returns -1 when `a` sorts first, 1 when `b` does, 0 when the names are equal in this order.
int kvfs_unicode_fast_compare(const kvfs_be16* a, std::size_t a_length, const kvfs_be16* b, std::size_t b_length,
                              bool binary);

// ---- Names of foreign systems --------------------------------------------------------------------------------------
//
// Systems other than the one HFS Plus was made for exchange names as precomposed UTF-16 in host order. All routines of
// this section end a name at its length or at a zero unit.

// Maps a stored name to the foreign form.
//
//   dst       receives the units, and a zero unit when there is room; null only counts them
//   capacity  units that `dst` holds
//   written   receives the units stored or counted; may be null
//
// Returns 1 when `dst` is too small (it then holds what fitted), or has no room at all and `n` is not 0; else 0.
int kvfs_unicode_hfsplus_to_windows(const kvfs_be16* src, std::size_t n, std::uint16_t* dst, std::size_t capacity,
                                    std::size_t* written);

// The same, but a capacity of 0 is no room even without a destination.
int kvfs_unicode_hfsplus_to_windows_capped(const kvfs_be16* src, std::size_t n, std::uint16_t* dst,
                                           std::size_t capacity, std::size_t* written);

// Returns the units that the mapping of a stored name to the foreign form produces.
std::size_t kvfs_unicode_hfsplus_to_windows_string_length(const kvfs_be16* src, std::size_t n);

// Maps a foreign name to the stored form. Parameters and result as above, except that a decomposition may be cut in the
// middle when `dst` is too small.
int kvfs_unicode_windows_to_hfsplus(const std::uint16_t* src, std::size_t n, kvfs_be16* dst, std::size_t capacity,
                                    std::size_t* written);

// The same, but a capacity of 0 is no room even without a destination.
int kvfs_unicode_windows_to_hfsplus_capped(const std::uint16_t* src, std::size_t n, kvfs_be16* dst,
                                           std::size_t capacity, std::size_t* written);

// Returns the units that the mapping of a foreign name to the stored form produces.
std::size_t kvfs_unicode_windows_to_hfsplus_string_length(const std::uint16_t* src, std::size_t n);

#pragma GCC visibility pop

#endif  // KVFS_UNICODE_H
