// 2^x and sin/cos as the CPU backend computes them (cpu/exp2.h and the
// rotary angle table), so that both backends agree bit for bit where the
// operators round these values: the same polynomials in the same fused
// multiply-adds, the same range reduction and the same final scaling.
// Neither needs the GPU's approximate special-function unit, whose ex2 and
// sin/cos are not correctly rounded (and lose accuracy on large angles).
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

#if defined(__CUDACC__)
#define VORTA_APPROX __host__ __device__ __forceinline__
#else
#define VORTA_APPROX inline  // host builds test these against the CPU backend's
#endif

namespace vorta::cuda {

VORTA_APPROX float approx_bits_float(uint32_t u) {
#if defined(__CUDA_ARCH__)
  return __uint_as_float(u);
#else
  float f;
  std::memcpy(&f, &u, 4);
  return f;
#endif
}

VORTA_APPROX uint32_t approx_float_bits(float f) {
#if defined(__CUDA_ARCH__)
  return __float_as_uint(f);
#else
  uint32_t u;
  std::memcpy(&u, &f, 4);
  return u;
#endif
}

// 2^x = 2^n * p(x - n), n = rint(x), p a degree-6 polynomial on [-1/2, 1/2]
// (within one ulp). x <= -150 gives +0, x >= 128 +inf; NaN stays NaN;
// subnormal results are rounded once.
VORTA_APPROX float exp2_poly(float x) {
  x = x < 128.0f ? x : (x >= 128.0f ? 128.0f : x);  // NaN passes through
  x = x > -150.0f ? x : (x <= -150.0f ? -150.0f : x);
  const float n = rintf(x);
  const float f = x - n;
  float p = 1.535336188319500e-4f;
  p = fmaf(p, f, 1.339887440266574e-3f);
  p = fmaf(p, f, 9.618437357674640e-3f);
  p = fmaf(p, f, 5.550332471162809e-2f);
  p = fmaf(p, f, 2.402264791363012e-1f);
  p = fmaf(p, f, 6.931472028550421e-1f);
  p = fmaf(p, f, 1.0f);
  if (n != n) return p;
  const int ni = int(n);
  // Normal results: 2^n goes straight into the exponent field.
  if (n >= -125.0f && n <= 127.0f) return approx_bits_float(approx_float_bits(p) + uint32_t(ni) * (1u << 23));
  // Elsewhere two exact powers of two, so a subnormal result rounds once.
  const int a = ni >> 1;
  return (p * approx_bits_float(uint32_t(a + 127) << 23)) * approx_bits_float(uint32_t(ni - a + 127) << 23);
}

// sin and cos of x: reduction by the nearest multiple of pi/2 in three parts
// (the first exact through FMA), then minimax polynomials on [-pi/4, pi/4].
// A few ulp for |x| below 2^20.
VORTA_APPROX void sincos_poly(float x, float& sin_out, float& cos_out) {
  const float j = rintf(x * 0.636619746685028076171875f);
  float r = fmaf(-j, 1.57079637050628662109375f, x);
  r = fmaf(-j, -4.37113882867379300296306610107421875e-08f, r);
  r = fmaf(-j, -1.7151245100058819e-15f, r);
  const float z = r * r;
  float sp = fmaf(-1.9515295891e-4f, z, 8.3321608736e-3f);
  sp = fmaf(sp, z, -1.6666654611e-1f);
  sp = fmaf(sp * z, r, r);
  float cp = fmaf(2.443315711809948e-5f, z, -1.388731625493765e-3f);
  cp = fmaf(cp, z, 4.166664568298827e-2f);
  cp = fmaf(cp * z, z, fmaf(-0.5f, z, 1.0f));
  // Odd quadrants swap sin and cos; sin is negative in quadrants 2 and 3,
  // cos in 1 and 2. q = j mod 4 taken in float, as the CPU takes it: int(j)
  // would saturate for angles past 2^31 quarter turns.
  const unsigned q = unsigned(int(j - 4.0f * floorf(j * 0.25f)));
  const float s = (q & 1u) ? cp : sp, c = (q & 1u) ? sp : cp;
  sin_out = approx_bits_float(approx_float_bits(s) ^ ((q & 2u) << 30));
  cos_out = approx_bits_float(approx_float_bits(c) ^ (((q + 1u) & 2u) << 30));
}

}  // namespace vorta::cuda
