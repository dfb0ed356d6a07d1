// The eight-lane micro-kernels of prefill attention: scores and value
// accumulation for up to kMr query rows against 16 keys or value columns.
#pragma once

#include <cstdint>
#include <type_traits>

#include "cpu/simd/vec8.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace prefill {

constexpr int kMr = 6;  // query rows per micro-kernel call

// Calls f(std::integral_constant<int, R>{}) for R = rows, 1 <= rows <= kMr.
template <typename F>
inline void with_rows(int rows, F&& f) {
  switch (rows) {
    case 6: return f(std::integral_constant<int, 6>{});
    case 5: return f(std::integral_constant<int, 5>{});
    case 4: return f(std::integral_constant<int, 4>{});
    case 3: return f(std::integral_constant<int, 3>{});
    case 2: return f(std::integral_constant<int, 2>{});
    default: return f(std::integral_constant<int, 1>{});
  }
}

// s[r][0..16) = q[r] . k[:, 0..16) for R query rows; k is component-major with
// stride ldk between components.
template <int R>
inline void score_kernel(const float* q, int ldq, const float* k, int ldk, int kd, float* s,
                         int lds) {
  Vec8 a0[R], a1[R];
#pragma GCC unroll 6
  for (int r = 0; r < R; ++r) a0[r] = a1[r] = Vec8::zero();
  for (int d = 0; d < kd; ++d) {
    const Vec8 k0 = Vec8::load(k + d * ldk), k1 = Vec8::load(k + d * ldk + 8);
#pragma GCC unroll 6
    for (int r = 0; r < R; ++r) {
      const Vec8 qb = Vec8::broadcast(q[r * ldq + d]);
      a0[r] = fmadd(qb, k0, a0[r]);
      a1[r] = fmadd(qb, k1, a1[r]);
    }
  }
#pragma GCC unroll 6
  for (int r = 0; r < R; ++r) {
    a0[r].store(s + r * lds);
    a1[r].store(s + r * lds + 8);
  }
}

// o[r][0..16) = o[r][0..16) * corr[r] + sum_j p[r][j] * v[j][0..16) for R rows.
template <int R>
inline void value_kernel(const float* p, int ldp, const float* v, int64_t ldv, int n, float* o,
                         int ldo, const float* corr) {
  Vec8 a0[R], a1[R];
#pragma GCC unroll 6
  for (int r = 0; r < R; ++r) {
    const Vec8 c = Vec8::broadcast(corr[r]);
    a0[r] = Vec8::load(o + r * ldo) * c;
    a1[r] = Vec8::load(o + r * ldo + 8) * c;
  }
  for (int j = 0; j < n; ++j) {
    const Vec8 v0 = Vec8::load(v + j * ldv), v1 = Vec8::load(v + j * ldv + 8);
#pragma GCC unroll 6
    for (int r = 0; r < R; ++r) {
      const Vec8 pb = Vec8::broadcast(p[r * ldp + j]);
      a0[r] = fmadd(pb, v0, a0[r]);
      a1[r] = fmadd(pb, v1, a1[r]);
    }
  }
#pragma GCC unroll 6
  for (int r = 0; r < R; ++r) {
    a0[r].store(o + r * ldo);
    a1[r].store(o + r * ldo + 8);
  }
}

}  // namespace prefill
VORTA_ISA_END
}  // namespace vorta::cpu
