// The eight-lane score and value tiles of decode attention: keys and values
// are widened in registers in tiles of R rows (4, 2 or 1) by 8 / R keys or
// value vectors, so every element widened serves R rows.
#pragma once

#include <algorithm>
#include <cstdint>

#include "common/kv_codes.h"
#include "cpu/decode/tile.h"
#include "cpu/simd/vec8.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace decode {

// Eight cache elements as floats.
template <class Code>
inline Vec8 widen8(const float* p) { return Vec8::load(p); }
template <class Code>
inline Vec8 widen8(const half* p) { return Vec8::load(p); }
template <class Code>
inline Vec8 widen8(const uint8_t* p) { return widen_codes<Code>(p); }

// p[r][j] = q_r . k_j for rows [i, i + R) and the block's nk keys, K keys at
// a time. Four rows of a 16-bit or 8-bit cache take three keys: twelve
// chains of FMAs in flight hide the latency of each, the rows' slices read
// by the FMAs themselves. The first tile also prefetches, key by key, the
// block's values (read next, column by column, which the hardware would not
// foresee) and the next block's keys.
template <int R, typename C>
void score_tile8(const TileRows& t, int64_t i, const C* k, const C* v, int nk) {
  constexpr int K = R == 4 && sizeof(C) < 4 ? 3 : 8 / R;
  constexpr int N = R * K;  // dot products per step, reduced eight at a time
  const int64_t d = t.d, dv = t.dv;
  for (int j = 0; j < nk; j += K) {
    const C* key[K];
    for (int u = 0; u < K; ++u) key[u] = k + std::min(j + u, nk - 1) * d;  // a tail repeats its last key
    if (i == 0) {
      const int n = std::min(K, nk - j);
      prefetch_span(v, j * dv, n * dv);
      prefetch_span(k, (kBlock + j) * d, n * d);
    }
    Vec8 acc[(N + 7) / 8 * 8];
    for (Vec8& a : acc) a = Vec8::zero();
    for (int64_t c = 0; c < d; c += 8) {
      // Rows held in registers for the K keys, except with twelve chains, where
      // the registers are the accumulators' and each FMA reads its row slice.
      constexpr bool kHoldRows = K != 3;
      Vec8 q[R];
      if constexpr (kHoldRows)
        for (int r = 0; r < R; ++r) {
          Vec8 row = Vec8::load(t.q + (i + r) * d + c);
          if (K > 1) keep_in_register(row);
          q[r] = row;
        }
      for (int u = 0; u < K; ++u) {
        Vec8 x = widen8<kv::KeyCode>(key[u] + c);
        if (R > 1) keep_in_register(x);
        for (int r = 0; r < R; ++r)
          acc[r * K + u] = fmadd(kHoldRows ? q[r] : Vec8::load(t.q + (i + r) * d + c), x, acc[r * K + u]);
      }
    }
    float dots[sizeof(acc) / sizeof(Vec8)];
    for (int g = 0; g < N; g += 8) transpose_add(acc + g).store(dots + g);
    for (int r = 0; r < R; ++r)
      for (int u = 0; u < K && j + u < nk; ++u) t.p[(i + r) * kBlock + j + u] = dots[r * K + u];
  }
}

// acc = acc * alpha + p . v for rows [i, i + R), columns [c, c + 8 NV).
template <int R, int NV, typename C>
void value_tile8(const TileRows& t, int64_t i, int64_t c, const C* v, int nk) {
  const int64_t dv = t.dv;
  Vec8 a[R][NV];
  for (int r = 0; r < R; ++r) {
    const Vec8 alpha = Vec8::broadcast(t.alpha[i + r]);
    for (int u = 0; u < NV; ++u)
      a[r][u] = t.fresh ? Vec8::zero() : Vec8::load(t.acc + (i + r) * dv + c + 8 * u) * alpha;
  }
  for (int j = 0; j < nk; ++j) {
    Vec8 w[R];
    for (int r = 0; r < R; ++r) w[r] = Vec8::broadcast(t.p[(i + r) * kBlock + j]);
    for (int u = 0; u < NV; ++u) {
      Vec8 x = widen8<kv::ValueCode>(v + j * dv + c + 8 * u);
      if (R > 1) keep_in_register(x);
      for (int r = 0; r < R; ++r) a[r][u] = fmadd(w[r], x, a[r][u]);
    }
  }
  for (int r = 0; r < R; ++r)
    for (int u = 0; u < NV; ++u) a[r][u].store(t.acc + (i + r) * dv + c + 8 * u);
}

// value_tile8 over all columns: tiles of 8 * (8 / R) columns, narrower ones for the rest.
template <int R, typename C>
void add_values8(const TileRows& t, int64_t i, const C* v, int nk) {
  constexpr int NV = 8 / R;
  const int64_t dv = t.dv;
  int64_t c = 0;
  for (; c + 8 * NV <= dv; c += 8 * NV) value_tile8<R, NV>(t, i, c, v, nk);
  if constexpr (NV > 4)
    if (dv - c >= 32) value_tile8<R, 4>(t, i, c, v, nk), c += 32;
  if constexpr (NV > 2)
    if (dv - c >= 16) value_tile8<R, 2>(t, i, c, v, nk), c += 16;
  if constexpr (NV > 1)
    if (dv - c >= 8) value_tile8<R, 1>(t, i, c, v, nk);
}

}  // namespace decode
VORTA_ISA_END
}  // namespace vorta::cpu
