// The exponential family of the CPU kernels, and its one set of constants.
//
// - exp2: 2^x within one float ulp, subnormal results rounded once (not
//   flushed), +inf from 128, +0 from -150 down, NaN kept. Used where results
//   are fixed to the bit across vector widths and builds: the gated SiLU,
//   the attention softmax operator and MoE routing. exp2_scalar is the same
//   function on one float.
// - fast_exp: e^x within two ulp over the normal range and exactly 0 below
//   it (-inf included), so that keys scored -inf weigh nothing. The attention
//   kernels' softmax statistics, where the summation order is free anyway;
//   its 16-lane form (simd/vec16_avx512.h) is built from the same constants.
// - exp2_normal_for_half: exp2 over the normal range, about 2^-18 relative,
//   for values rounded to half next (the 16-bit attention softmax).
// - tanh, from fast_exp: the soft cap of gemma2 attention.
//
// Written on Vec8 alone, so one definition serves every instruction set.
#pragma once

#include <cmath>
#include <cstdint>

#include "cpu/simd/vec8.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN

namespace exp_constants {

// 2^f ~ 1 + f * (c5 + f * (c4 + ... + f * c0)) on [-1/2, 1/2].
inline constexpr float kExp2Poly[6] = {1.535336188319500e-4f, 1.339887440266574e-3f,
                                       9.618437357674640e-3f, 5.550332471162809e-2f,
                                       2.402264791363012e-1f, 6.931472028550421e-1f};
inline constexpr float kExp2Hi = 128.0f, kExp2Lo = -150.0f;
// The same on [-1/2, 1/2] to within 2.9e-6 relative, for results rounded to
// half (whose spacing is 2^-10 relative): 1 + f * (c3 + ... + f * c0).
inline constexpr float kExp2PolyForHalf[4] = {9.582745842635632e-3f, 5.590614676475525e-2f,
                                              2.402409911155701e-1f, 6.931242346763611e-1f};

// log2(e) as a float (bits 0x3FB8AA3B); e^x is exp2(x * kLog2e) where
// results are fixed.
inline constexpr float kLog2e = 1.44269504088896341f;

// e^x = 2^n e^r with n = round(x log2 e), r = x - n ln 2 (ln 2 in two parts),
// e^r = 1 + r + r^2 p(r).
inline constexpr float kLn2Hi = 0.693359375f, kLn2Lo = -2.12194440e-4f;
inline constexpr float kExpPoly[6] = {1.9875691500e-4f, 1.3981999507e-3f, 8.3334519073e-3f,
                                      4.1665795894e-2f, 1.6666665459e-1f, 5.0000001201e-1f};
// Below kExpMin e^x is not a normal float and fast_exp returns 0; above
// kExpMax it saturates.
inline constexpr float kExpMin = -87.33654f, kExpMax = 88.0f;

}  // namespace exp_constants

inline float exp2_scalar(float x) {
  using namespace exp_constants;
  x = x < kExp2Hi ? x : (x >= kExp2Hi ? kExp2Hi : x);  // NaN passes through
  x = x > kExp2Lo ? x : (x <= kExp2Lo ? kExp2Lo : x);
  const float n = std::nearbyint(x);
  const float f = x - n;
  float p = kExp2Poly[0];
  for (int i = 1; i < 6; ++i) p = std::fma(p, f, kExp2Poly[i]);
  p = std::fma(p, f, 1.0f);
  if (n != n) return p;  // NaN
  const int32_t ni = int32_t(n), a = ni >> 1;
  auto pow2i = [](int32_t e) { return bits_float(uint32_t(e + 127) << 23); };
  return (p * pow2i(a)) * pow2i(ni - a);
}

namespace exp_detail {

// 1 + f * (c[N-1] + f * (... + f * c[0])), 2^f for |f| <= 1/2 with kExp2Poly
// or kExp2PolyForHalf.
template <int N>
inline Vec8 exp2_poly(Vec8 f, const float (&c)[N]) {
  Vec8 p = Vec8::broadcast(c[0]);
  for (int i = 1; i < N; ++i) p = fmadd(p, f, Vec8::broadcast(c[i]));
  return fmadd(p, f, Vec8::broadcast(1.0f));
}

// Any x: clamped, then 2^n applied as two normal powers of two, so that a
// subnormal result is rounded once.
[[gnu::noinline]] inline Vec8 exp2_any(Vec8 v) {
  using namespace exp_constants;
  // min/max return their second operand when either is NaN: keep x there.
  const Vec8 x = max(Vec8::broadcast(kExp2Lo), min(Vec8::broadcast(kExp2Hi), v));
  const Vec8 n = round_nearest(x);
  const Vec8 a = floor(n * Vec8::broadcast(0.5f));
  return (exp2_poly(x - n, kExp2Poly) * pow2(a)) * pow2(n - a);
}

}  // namespace exp_detail

// exp2 for -125 <= x <= 127 (not NaN), which the caller has checked: the
// result is a normal float, and adding n to its exponent field scales it
// exactly, as exp2_any's two multiplications would. A NaN gives a NaN.
inline Vec8 exp2_normal(Vec8 v) {
  const Vec8 n = round_nearest(v);
  return scale_pow2(exp_detail::exp2_poly(v - n, exp_constants::kExp2Poly), n);
}

// exp2_normal to within 3e-6 relative (about 2^-18), for a value that is
// rounded to half next: its spacing of 2^-10 leaves that far below a half ulp.
inline Vec8 exp2_normal_for_half(Vec8 v) {
  const Vec8 n = round_nearest(v);
  return scale_pow2(exp_detail::exp2_poly(v - n, exp_constants::kExp2PolyForHalf), n);
}

// Whether every lane of least >= -125 and every lane of most <= 127: then
// exp2_normal serves all arguments between them.
inline bool exp2_normal_range(Vec8 least, Vec8 most) {
  return lane_bits(bit_and(cmp_ge(least, Vec8::broadcast(-125.0f)), cmp_le(most, Vec8::broadcast(127.0f)))) == 0xffu;
}

inline Vec8 exp2(Vec8 v) {
  return exp2_normal_range(v, v) ? exp2_normal(v) : exp_detail::exp2_any(v);
}

inline Vec8 fast_exp(Vec8 x) {
  using namespace exp_constants;
  const Vec8 lo = Vec8::broadcast(kExpMin);
  // Constant first: min/max return their second operand when one is NaN.
  const Vec8 xc = min(Vec8::broadcast(kExpMax), max(lo, x));
  const Vec8 n = round_nearest(xc * Vec8::broadcast(kLog2e));
  Vec8 r = fnmadd(n, Vec8::broadcast(kLn2Hi), xc);
  r = fnmadd(n, Vec8::broadcast(kLn2Lo), r);
  Vec8 p = Vec8::broadcast(kExpPoly[0]);
  for (int i = 1; i < 6; ++i) p = fmadd(p, r, Vec8::broadcast(kExpPoly[i]));
  const Vec8 y = fmadd(p, r * r, r) + Vec8::broadcast(1.0f);
  return bit_andnot(cmp_lt(x, lo), y * pow2(n));
}

// tanh(x): odd polynomial near zero (no cancellation), 1 - 2 / (e^2|x| + 1) elsewhere.
inline Vec8 tanh(Vec8 x) {
  const Vec8 sign = Vec8::broadcast(-0.0f);
  const Vec8 ax = bit_andnot(sign, x);
  const Vec8 z = x * x;
  Vec8 p = Vec8::broadcast(-5.70498872745e-3f);
  p = fmadd(p, z, Vec8::broadcast(2.06390887954e-2f));
  p = fmadd(p, z, Vec8::broadcast(-5.37397155531e-2f));
  p = fmadd(p, z, Vec8::broadcast(1.33314422036e-1f));
  p = fmadd(p, z, Vec8::broadcast(-3.33332819422e-1f));
  const Vec8 small = fmadd(p * z, x, x);
  const Vec8 e = fast_exp(ax + ax);
  const Vec8 big = bit_or(Vec8::broadcast(1.0f) - Vec8::broadcast(2.0f) / (e + Vec8::broadcast(1.0f)),
                          bit_and(sign, x));
  return select(cmp_lt(ax, Vec8::broadcast(0.625f)), small, big);
}

VORTA_ISA_END
}  // namespace vorta::cpu
