// The sixteen-lane (AVX-512) score and value tiles of decode attention, the
// forms of tiles8.h on 16-lane registers. Keys and values of an 8-bit cache
// arrive scaled by avx512::wide_unit; the caller takes the scale back out.
#pragma once

#include "cpu/simd/vec16_avx512.h"

#if VORTA_AVX512

#include <algorithm>
#include <cstdint>

#include "common/kv_codes.h"
#include "cpu/decode/tile.h"
#include "cpu/isa.h"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace decode {

// Key blocks between the one being scored and the one the 16-lane tiles prefetch.
inline constexpr int64_t kAheadBlocks = 2;

// 16 dot products in flight, R rows by 16 / R keys, each widened key vector
// serving R rows. These tiles outrun first-level prefetches, whose fetches
// from memory then stall them, so the rows of the block after next go to the
// second level, spread over the block's key groups. Accumulator u * R + r
// (key u, row r) lands in lane 4 r + u of the reduction when R is 4: row r's
// four scores are one 128-bit store.
template <int R, typename C>
VORTA_TARGET_AVX512 void score_tile16(const TileRows& t, int64_t i, const C* k, const C* v, int nk) {
  constexpr int K = 16 / R;
  const int64_t d = t.d, dv = t.dv;
  float* p = t.p;
  for (int j = 0; j < nk; j += K) {
    const C* key[K];
    for (int u = 0; u < K; ++u) key[u] = k + std::min(j + u, nk - 1) * d;
    if (i == 0) {
      const int n = std::min(K, nk - j);
      prefetch_span<kL2>(v, (kAheadBlocks * kBlock + j) * dv, n * dv);
      prefetch_span<kL2>(k, (kAheadBlocks * kBlock + j) * d, n * d);
    }
    __m512 acc[16];
    for (__m512& a : acc) a = _mm512_setzero_ps();
    for (int64_t c = 0; c < d; c += 16) {
      __m512 q[R];
      for (int r = 0; r < R; ++r) q[r] = _mm512_loadu_ps(t.q + (i + r) * d + c);
      for (int u = 0; u < K; ++u) {
        const __m512 x = avx512::widen16<kv::KeyCode>(key[u] + c);
        for (int r = 0; r < R; ++r) acc[u * R + r] = _mm512_fmadd_ps(q[r], x, acc[u * R + r]);
      }
    }
    // Scores past nk land inside the row's kBlock slots and are never read.
    const __m512 dots = avx512::transpose_add16(acc);
    if constexpr (R == 4) {
      _mm_storeu_ps(p + (i + 0) * kBlock + j, _mm512_castps512_ps128(dots));
      _mm_storeu_ps(p + (i + 1) * kBlock + j, _mm512_extractf32x4_ps(dots, 1));
      _mm_storeu_ps(p + (i + 2) * kBlock + j, _mm512_extractf32x4_ps(dots, 2));
      _mm_storeu_ps(p + (i + 3) * kBlock + j, _mm512_extractf32x4_ps(dots, 3));
    } else {
      float lanes[16];
      _mm512_storeu_ps(lanes, dots);
      for (int x = 0; x < 16; ++x) p[(i + x % R) * kBlock + j + x / R] = lanes[4 * (x % 4) + x / 4];
    }
  }
}

template <int R, int NV, typename C>
VORTA_TARGET_AVX512 void value_tile16(const TileRows& t, int64_t i, int64_t c, const C* v, int nk) {
  const int64_t dv = t.dv;
  __m512 a[R][NV];
  for (int r = 0; r < R; ++r) {
    const __m512 alpha = _mm512_set1_ps(t.alpha[i + r]);
    for (int u = 0; u < NV; ++u) a[r][u] = _mm512_mul_ps(_mm512_loadu_ps(t.acc + (i + r) * dv + c + 16 * u), alpha);
  }
  for (int j = 0; j < nk; ++j) {
    __m512 w[R];
    for (int r = 0; r < R; ++r) w[r] = _mm512_set1_ps(t.p[(i + r) * kBlock + j]);
    for (int u = 0; u < NV; ++u) {
      const __m512 x = avx512::widen16<kv::ValueCode>(v + j * dv + c + 16 * u);
      for (int r = 0; r < R; ++r) a[r][u] = _mm512_fmadd_ps(w[r], x, a[r][u]);
    }
  }
  for (int r = 0; r < R; ++r)
    for (int u = 0; u < NV; ++u) _mm512_storeu_ps(t.acc + (i + r) * dv + c + 16 * u, a[r][u]);
}

template <int R, typename C>
VORTA_TARGET_AVX512 void add_values16(const TileRows& t, int64_t i, const C* v, int nk) {
  constexpr int NV = R == 4 ? 4 : 8;
  const int64_t dv = t.dv;
  int64_t c = 0;
  for (; c + 16 * NV <= dv; c += 16 * NV) value_tile16<R, NV>(t, i, c, v, nk);
  if constexpr (NV > 4)
    if (dv - c >= 64) value_tile16<R, 4>(t, i, c, v, nk), c += 64;
  if (dv - c >= 32) value_tile16<R, 2>(t, i, c, v, nk), c += 32;
  if (dv - c >= 16) value_tile16<R, 1>(t, i, c, v, nk);
}

}  // namespace decode
VORTA_ISA_END
}  // namespace vorta::cpu

#pragma GCC diagnostic pop

#endif  // VORTA_AVX512
