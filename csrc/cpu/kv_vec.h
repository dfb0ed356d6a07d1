// Sixteen-lane AVX2 forms of the 8-bit key/value codes, for kernels that
// convert whole rows. Lane for lane they equal kv::encode and kv::decode.
#pragma once

#include "common/kv_codes.h"
#include "cpu/vec.h"

namespace vorta::cpu {

#if VORTA_AVX2

// 16 fp16 bit patterns -> 16 code bytes.
template <class Code>
inline __m128i encode16(__m256i h) {
  __m256i a = _mm256_and_si256(h, _mm256_set1_epi16(0x7fff));
  // Magnitudes are below 0x8000, so signed 16-bit min/max order them.
  a = _mm256_min_epi16(a, _mm256_set1_epi16(short(Code::kMax)));
  a = _mm256_max_epi16(a, _mm256_set1_epi16(short(Code::kMin)));
  // After the clamp (a >> 7) - kOffset lies in [0, 0x7f]: no wrap, no saturation.
  __m256i r = _mm256_sub_epi16(_mm256_srli_epi16(a, 7), _mm256_set1_epi16(short(Code::kOffset)));
  r = _mm256_or_si256(r, _mm256_and_si256(_mm256_srli_epi16(h, 8), _mm256_set1_epi16(0x80)));
  return _mm_packus_epi16(_mm256_castsi256_si128(r), _mm256_extracti128_si256(r, 1));
}

// 16 code bytes -> 16 fp16 bit patterns.
template <class Code>
inline __m256i decode16(__m128i bytes) {
  const __m256i b = _mm256_cvtepu8_epi16(bytes);
  const __m256i sign = _mm256_slli_epi16(_mm256_and_si256(b, _mm256_set1_epi16(0x80)), 8);
  const __m256i mag = _mm256_slli_epi16(
      _mm256_add_epi16(_mm256_and_si256(b, _mm256_set1_epi16(0x7f)), _mm256_set1_epi16(short(Code::kOffset))), 7);
  return _mm256_or_si256(_mm256_or_si256(sign, mag), _mm256_set1_epi16(0x40));
}

#endif

}  // namespace vorta::cpu
