// SPDX-License-Identifier: Apache-2.0
//
// Vectors of 16 bytes for the conversion loops, on processors that have them.
// Every x86-64 processor has all of these but the byte shuffle: loops that use it
// ask hasShuffle() first, and carry ZOV_SHUFFLE themselves. Elsewhere ZOV_VECTORS
// is not defined and the loops do without. Lanes are in the order of memory,
// lowest first.
#ifndef ZOV_FILES_ZOVUTF8_VECTOR_H
#define ZOV_FILES_ZOVUTF8_VECTOR_H

#if defined(__x86_64__) && !defined(ZOV_NO_VECTORS)
#define ZOV_VECTORS 1

#include <stdint.h>
#include <tmmintrin.h>

#define ZOV_SHUFFLE __attribute__((target("ssse3")))

namespace zov {

inline bool hasShuffle() {
  return __builtin_cpu_supports("ssse3") != 0;
}

inline __m128i load(const void *from) {
  return _mm_loadu_si128(static_cast<const __m128i_u *>(from));
}

inline void store(void *to, __m128i vector) {
  _mm_storeu_si128(static_cast<__m128i_u *>(to), vector);
}

inline __m128i each8(uint32_t value) {
  return _mm_set1_epi8(static_cast<char>(value));
}

inline __m128i each16(uint32_t value) {
  return _mm_set1_epi16(static_cast<short>(value));
}

inline __m128i each32(uint32_t value) {
  return _mm_set1_epi32(static_cast<int>(value));
}

// The top bits of the 16 bytes.
inline uint32_t topBits(__m128i vector) {
  return static_cast<uint32_t>(_mm_movemask_epi8(vector));
}

// All ones in the lanes of 16 bits from first to last. Lanes compare as signed
// numbers, as the bounds do.
inline __m128i within16(__m128i lanes, uint32_t first, uint32_t last) {
  return _mm_and_si128(_mm_cmpgt_epi16(lanes, each16(first - 1)),
                       _mm_cmplt_epi16(lanes, each16(last + 1)));
}

// The same for lanes of 32 bits.
inline __m128i within32(__m128i lanes, uint32_t first, uint32_t last) {
  return _mm_and_si128(_mm_cmpgt_epi32(lanes, each32(first - 1)),
                       _mm_cmplt_epi32(lanes, each32(last + 1)));
}

inline __m128i select(__m128i mask, __m128i whereSet, __m128i whereClear) {
  return _mm_or_si128(_mm_and_si128(mask, whereSet), _mm_andnot_si128(mask, whereClear));
}

}  // namespace zov

#endif
#endif
