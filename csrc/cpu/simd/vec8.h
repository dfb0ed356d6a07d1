// Eight-lane float vectors, the arithmetic of every CPU kernel.
//
// Kernels compute in float32 and convert 16-bit inputs on load and outputs on
// store (round to nearest, ties to even). The implementation is chosen by the
// build: AVX2/F16C/FMA registers where the compiler targets them, plain loops
// otherwise; both give the same results. The interface, for Vec8 a, b, c and
// masks m (lanes all ones or all zeros):
//   Vec8::zero(), broadcast(x), load(p) / store(p) for float, half and bf16, a[i]
//   stream(p) for float and half: a store past the caches, for outputs too big
//     to stay cached (p aligned to the bytes stored); stream_fence() orders
//     such stores before the ones that follow (a thread's last act on a chunk)
//   a + b, a - b, a * b, a / b, max(a, b), min(a, b) (the second operand when
//     either is NaN), fmadd(a, b, c) = a * b + c and fnmadd(a, b, c) = c - a * b
//     rounded once, round_nearest(a), floor(a)
//   cmp_lt/le/ge/eq(a, b), bit_and/or/xor(a, b), bit_andnot(m, a) = ~m & a,
//     select(m, a, b), lane_bits(m) (bit i: lane i), lane_mask(bits)
//   pow2(n) = 2^n for integral n in [-126, 127]; scale_pow2(x, n) = x * 2^n
//     through the exponent field, for x and the result normal
//   swap_pairs(a) (lanes 2i and 2i+1 exchanged), round_to<T>(a) (rounded to T
//     and back), round_arith<T>(a) and store_arith(a, p): the same for results
//     of arithmetic on T values (NaNs already quiet and fitting T), reduce_add(a), reduce_max(a), broadcast_max(a),
//     transpose_add(a[8]) (lane t: the sum of a[t]), transpose8(a[8]),
//     keep_in_register(a) (one load of a widened value feeds several FMAs)
//   load_split(p, a, b) for float and bf16: sixteen elements, the even ones
//     in a, the odd ones in b (how AVX2 widens bf16 pairs cheaply);
//     store_split_arith(a, b, p): store_arith<bf16> of both, back in order
//   widen_codes<Code>(p): eight 8-bit cache codes as their exact values;
//     narrow_codes<Code>(a, p): eight values (rounded to half) as codes;
//     encode_codes16<Code, Stream>(h, p): sixteen half values as codes, the
//     stores past the caches when Stream (stream_fence() after the last).
#pragma once

#include <cstdint>

#include "common/numeric.h"
#include "cpu/isa.h"

#if defined(__AVX2__) && defined(__F16C__) && defined(__FMA__)
#include "cpu/simd/vec8_avx2.h"
#else
#include "cpu/simd/vec8_portable.h"
#endif

namespace vorta::cpu {
VORTA_ISA_BEGIN

// Converts n elements (any n) of a 16-bit or float row into floats.
template <typename T>
inline void load_row(const T* src, float* dst, int64_t n) {
  int64_t i = 0;
  for (; i + 8 <= n; i += 8) Vec8::load(src + i).store(dst + i);
  for (; i < n; ++i) dst[i] = to_float(src[i]);
}

// Rounds n floats once to T.
template <typename T>
inline void store_row(const float* src, T* dst, int64_t n) {
  int64_t i = 0;
  for (; i + 8 <= n; i += 8) Vec8::load(src + i).store(dst + i);
  for (; i < n; ++i) dst[i] = from_float<T>(src[i]);
}

VORTA_ISA_END
}  // namespace vorta::cpu
