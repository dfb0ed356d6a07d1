// The 8-bit cache codes of common/kv_codes.h decoded two at a time in one
// 32-bit register, as the two halves of a half2.
//
// Plain integer arithmetic, so that host tests can check it against the
// scalar definition for every pair of codes.
#pragma once

#include <cstdint>

#include "common/kv_codes.h"

namespace vorta::cuda {

// y8 carries one code in bits 8-15 and another in bits 24-31; bits 0-7 and
// 16-23 are ignored. Returns the two fp16 patterns kv::decode<Code> gives for
// them (the first code in the low half). Per 16-bit lane this is
// ((c & 0x7f) + OFF) << 7 | 0x40 | (c & 0x80) << 8, with no carry between lanes:
// the largest lane value, 0x57c0, stays below 0x10000.
template <class Code>
VORTA_HD uint32_t decode_code_pair(uint32_t y8) {
  constexpr uint32_t kBias = ((uint32_t(Code::kOffset) << 7) | 0x40u) * 0x00010001u;
  return (((y8 >> 1) & 0x3f803f80u) + kBias) | (y8 & 0x80008000u);
}

#if defined(__CUDACC__) || defined(__CUDA_ARCH__)  // device code (__byte_perm)
// Codes i and j (byte indices 0-3) of the word w.
template <class Code, int i, int j>
__device__ __forceinline__ uint32_t decode_codes_of(uint32_t w) {
  return decode_code_pair<Code>(__byte_perm(w, 0u, (j << 12) | (i << 4)));
}

// Code i of word a and code i of word b (one element of two cache rows).
template <class Code, int i>
__device__ __forceinline__ uint32_t decode_code_column(uint32_t a, uint32_t b) {
  return decode_code_pair<Code>(__byte_perm(a, b, ((4 + i) << 12) | (i << 4)));
}
#endif

}  // namespace vorta::cuda
