// The decode split kernel and its two warp-level tiles; included by the
// per-head-size sources, which instantiate launch_split.
//
// Half queries run on tensor cores in the transposed orientation: with at
// most 8 query rows per CTA, S^T = K Q^T puts 16 keys on the m16 side and the
// rows on the n8 side, and O^T += V^T P^T puts 16 value components on m16.
// Keys and values go from global memory straight into the A operands (no
// shared memory): each lane loads 16-byte pieces of the rows its fragments
// need (attn::RowSlices), and the K pieces fix a permutation of the head
// dimension that the query fragments follow. Float32 queries keep float32
// arithmetic on CUDA cores. Statistics are float32 in base 2.
#pragma once

#include <cuda_fp16.h>

#include <cmath>
#include <cstdint>
#include <type_traits>

#include "common/kv_codes.h"
#include "cuda/attention/memory.cuh"
#include "cuda/attention/online_softmax.cuh"
#include "cuda/attention/row_slices.cuh"
#include "cuda/common/kv_code_pairs.cuh"
#include "cuda/common/mma.cuh"
#include "cuda/decode/split.h"

namespace vorta::cuda::decode {

using attn::kLog2e;
using attn::rescale;
inline constexpr float kNegInf = -INFINITY;

// What a CTA's warps leave for the final combine: per warp and chunk row the
// maximum, the sum and the unnormalised value row.
template <int DV>
struct WarpResults {
  float m[kWarps][kChunkRows];
  float l[kWarps][kChunkRows];
  float o[kWarps][kChunkRows][DV];
};

// Where a CTA's query rows and cache rows are.
template <typename T, typename C>
struct CtaRows {
  int b, kvh, row0;  // batch, key/value head, first chunk row
  int key_begin, key_end;
  const uint8_t* key;    // row 0 of the pair's keys
  const uint8_t* value;  // row 0 of the pair's values

  __device__ CtaRows(const SplitArgs<T, C>& a) {
    const DecodeInputs<T, C>& in = a.in;
    const int chunks = chunk_count(a), pair = int(blockIdx.x) / chunks;
    b = pair / int(in.kv_heads);
    kvh = pair % int(in.kv_heads);
    row0 = int(blockIdx.x) % chunks * kChunkRows;
    key_begin = int(blockIdx.y) * a.split_keys;
    key_end = min(int(in.kv_len), key_begin + a.split_keys);
    key = reinterpret_cast<const uint8_t*>(in.key + b * in.key_stride[0] + kvh * in.key_stride[1]);
    value = reinterpret_cast<const uint8_t*>(in.value + b * in.value_stride[0] + kvh * in.value_stride[1]);
  }

  // Query head and token of chunk row r (valid when row0 + r < rows).
  __device__ int head(const SplitArgs<T, C>& a, int r) const {
    return kvh * a.group + (row0 + r) / int(a.in.seq_length);
  }
  __device__ int token(const SplitArgs<T, C>& a, int r) const { return (row0 + r) % int(a.in.seq_length); }
  __device__ bool has_row(const SplitArgs<T, C>& a, int r) const { return row0 + r < a.rows; }

  __device__ const T* query_row(const SplitArgs<T, C>& a, int r) const {
    const DecodeInputs<T, C>& in = a.in;
    return in.query + b * in.query_stride[0] + head(a, r) * in.query_stride[1] + token(a, r) * in.query_stride[2];
  }
  // Null without a mask or past the last row.
  __device__ const T* mask_row(const SplitArgs<T, C>& a, int r) const {
    const DecodeInputs<T, C>& in = a.in;
    if (!in.mask || !has_row(a, r)) return nullptr;
    return in.mask + b * in.mask_stride[0] + head(a, r) * in.mask_stride[1] + token(a, r) * in.mask_stride[2];
  }
};

// Scaled, masked score in base-2 units; -inf for keys past the split.
template <typename T>
__device__ __forceinline__ float score(float dot, const T* mask_row, int key, int key_end, float scale_log2) {
  if (key >= key_end) return kNegInf;
  float s = dot * scale_log2;
  if (mask_row) s = attn::add_mask(s, attn::load_float(mask_row + key));
  return s;
}

// --- half queries: tensor cores --------------------------------------------

template <typename C, int DK, int DV>
struct MmaWarp {
  using T = half;
  static constexpr bool kCodes = std::is_same_v<C, uint8_t>;
  static constexpr int kTileKeys = 16;
  using KS = attn::RowSlices<DK * int(sizeof(C)), 4>;  // lanes t of a group share a key row
  using VS = attn::RowSlices<DV * int(sizeof(C)), 8>;  // lanes g share a value row
  static constexpr int kSteps = DK / 16, kTiles = DV / 16;
  struct Tile {
    uint32_t k[2][KS::kWords];  // keys g, g + 8
    uint32_t v[4][VS::kWords];  // keys 2t, 2t + 1, 2t + 8, 2t + 9
  };
  static constexpr bool kPrefetch = 2 * KS::kWords + 4 * VS::kWords <= 64;
  struct Smem {};

  int g, t;
  uint32_t qf[kSteps][2];  // Q^T as B operands, row g
  float o[kTiles][4];      // O^T: components (slot g, g + 8) x rows (2t, 2t + 1)
  float m[2], l[2];        // rows 2t, 2t + 1
  const T* mask[2];

  // Element of the head dimension that element e of lane's key slice holds.
  __device__ static int key_elem(int lane, int e) { return KS::row_byte(lane, e * int(sizeof(C))) / int(sizeof(C)); }
  __device__ static int value_elem(int lane, int e) {
    return VS::row_byte(lane, e * int(sizeof(C))) / int(sizeof(C));
  }

  __device__ static void prepare(Smem&, const SplitArgs<T, C>&, const CtaRows<T, C>&) {}

  __device__ MmaWarp(const SplitArgs<T, C>& a, const CtaRows<T, C>& cta, Smem&) {
    const int lane = threadIdx.x % 32;
    g = lane / 4, t = lane % 4;
    const bool has = cta.has_row(a, g);
    const T* q = has ? cta.query_row(a, g) : nullptr;
#pragma unroll
    for (int s = 0; s < kSteps; ++s)
#pragma unroll
      for (int h = 0; h < 2; ++h) {
        uint32_t lo = 0, hi = 0;
        if (has) {
          lo = attn::load_half_bits(q + key_elem(t, 4 * s + 2 * h));
          hi = attn::load_half_bits(q + key_elem(t, 4 * s + 2 * h + 1));
        }
        qf[s][h] = lo | hi << 16;
      }
#pragma unroll
    for (int i = 0; i < kTiles; ++i) o[i][0] = o[i][1] = o[i][2] = o[i][3] = 0.0f;
    m[0] = m[1] = kNegInf;
    l[0] = l[1] = 0.0f;
    mask[0] = cta.mask_row(a, 2 * t);
    mask[1] = cta.mask_row(a, 2 * t + 1);
  }

  __device__ void load(Tile& x, const SplitArgs<T, C>& a, const CtaRows<T, C>& cta, int kb) const {
    constexpr int64_t kKeyBytes = DK * sizeof(C), kValueBytes = DV * sizeof(C);
#pragma unroll
    for (int i = 0; i < 2; ++i) {
      const int key = kb + g + 8 * i;
      attn::load_slice<KS>(x.k[i], cta.key + key * kKeyBytes, t, key < cta.key_end, a.wide);
    }
#pragma unroll
    for (int i = 0; i < 4; ++i) {
      const int key = kb + 2 * t + (i & 1) + 8 * (i >> 1);
      attn::load_slice<VS>(x.v[i], cta.value + key * kValueBytes, g, key < cta.key_end, a.wide);
    }
  }

  __device__ void step(const Tile& x, const SplitArgs<T, C>& a, const CtaRows<T, C>& cta, int kb) {
    // S^T = K Q^T over the (permuted) head dimension.
    float acc[4] = {0.0f, 0.0f, 0.0f, 0.0f};
#pragma unroll
    for (int s = 0; s < kSteps; ++s) {
      uint32_t ka[4];
      if constexpr (kCodes) {
        ka[0] = decode_codes_of<kv::KeyCode, 0, 1>(x.k[0][s]);
        ka[1] = decode_codes_of<kv::KeyCode, 0, 1>(x.k[1][s]);
        ka[2] = decode_codes_of<kv::KeyCode, 2, 3>(x.k[0][s]);
        ka[3] = decode_codes_of<kv::KeyCode, 2, 3>(x.k[1][s]);
      } else {
        ka[0] = x.k[0][2 * s], ka[1] = x.k[1][2 * s], ka[2] = x.k[0][2 * s + 1], ka[3] = x.k[1][2 * s + 1];
      }
      mma_f16_m16n8k16(acc, ka, qf[s]);
    }
    // acc: keys g (0, 1) and g + 8 (2, 3) x rows 2t (0, 2) and 2t + 1 (1, 3).
    float sc[4];
#pragma unroll
    for (int i = 0; i < 4; ++i) sc[i] = score(acc[i], mask[i & 1], kb + g + 8 * (i >> 1), cta.key_end, a.scale_log2);
    float mx[2] = {fmaxf(sc[0], sc[2]), fmaxf(sc[1], sc[3])};
#pragma unroll
    for (int off = 4; off < 32; off *= 2)
#pragma unroll
      for (int r = 0; r < 2; ++r) mx[r] = fmaxf(mx[r], __shfl_xor_sync(0xffffffffu, mx[r], off));
    float ref[2], alpha[2];
#pragma unroll
    for (int r = 0; r < 2; ++r) alpha[r] = rescale(m[r], mx[r], ref[r]);
    float p[4];
#pragma unroll
    for (int i = 0; i < 4; ++i) p[i] = fast_exp2(sc[i] - ref[i & 1]);
    l[0] = fmaf(l[0], alpha[0], p[0] + p[2]);
    l[1] = fmaf(l[1], alpha[1], p[1] + p[3]);
    // P^T as the B operand: the 8 x 8 blocks (keys x rows) transposed.
    const uint32_t pb[2] = {movmatrix_trans(pack_half2(p[0], p[1])), movmatrix_trans(pack_half2(p[2], p[3]))};
    // The accumulators change scale only when some row's maximum moved.
    if (__any_sync(0xffffffffu, alpha[0] != 1.0f || alpha[1] != 1.0f))
#pragma unroll
      for (int i = 0; i < kTiles; ++i)
        o[i][0] *= alpha[0], o[i][1] *= alpha[1], o[i][2] *= alpha[0], o[i][3] *= alpha[1];
    // O^T += V^T P^T, one m16 tile of value components at a time.
#pragma unroll
    for (int i = 0; i < kTiles; ++i) {
      uint32_t va[4];
      if constexpr (kCodes) {
        const int w = i / 2;
        if (i % 2 == 0) {
          va[0] = decode_code_column<kv::ValueCode, 0>(x.v[0][w], x.v[1][w]);
          va[1] = decode_code_column<kv::ValueCode, 1>(x.v[0][w], x.v[1][w]);
          va[2] = decode_code_column<kv::ValueCode, 0>(x.v[2][w], x.v[3][w]);
          va[3] = decode_code_column<kv::ValueCode, 1>(x.v[2][w], x.v[3][w]);
        } else {
          va[0] = decode_code_column<kv::ValueCode, 2>(x.v[0][w], x.v[1][w]);
          va[1] = decode_code_column<kv::ValueCode, 3>(x.v[0][w], x.v[1][w]);
          va[2] = decode_code_column<kv::ValueCode, 2>(x.v[2][w], x.v[3][w]);
          va[3] = decode_code_column<kv::ValueCode, 3>(x.v[2][w], x.v[3][w]);
        }
      } else {
        va[0] = __byte_perm(x.v[0][i], x.v[1][i], 0x5410);
        va[1] = __byte_perm(x.v[0][i], x.v[1][i], 0x7632);
        va[2] = __byte_perm(x.v[2][i], x.v[3][i], 0x5410);
        va[3] = __byte_perm(x.v[2][i], x.v[3][i], 0x7632);
      }
      mma_f16_m16n8k16(o[i], va, pb);
    }
  }

  __device__ void finish(WarpResults<DV>& res, int warp) {
#pragma unroll
    for (int off = 4; off < 32; off *= 2)
#pragma unroll
      for (int r = 0; r < 2; ++r) l[r] += __shfl_xor_sync(0xffffffffu, l[r], off);
    if (g == 0)
#pragma unroll
      for (int r = 0; r < 2; ++r) res.m[warp][2 * t + r] = m[r], res.l[warp][2 * t + r] = l[r];
#pragma unroll
    for (int i = 0; i < kTiles; ++i) {
      const int lo = value_elem(g, 2 * i), hi = value_elem(g, 2 * i + 1);
      res.o[warp][2 * t][lo] = o[i][0];
      res.o[warp][2 * t + 1][lo] = o[i][1];
      res.o[warp][2 * t][hi] = o[i][2];
      res.o[warp][2 * t + 1][hi] = o[i][3];
    }
  }
};

// --- float32 queries: CUDA cores -------------------------------------------

// Lane j scores key j of a 32-key tile against the chunk's rows (queries
// broadcast from shared memory); then lanes own 4-component groups of the
// value row and accumulate the tile's weights, read back from shared memory.
template <typename C, int DK, int DV>
struct SimtWarp {
  using T = float;
  static constexpr bool kCodes = std::is_same_v<C, uint8_t>;
  static constexpr int kTileKeys = 32;
  static constexpr int kPerPiece = 16 / int(sizeof(C));  // key elements per 16-byte piece
  static constexpr int kPieces = DK / kPerPiece;
  static constexpr int kGroups = DV / 4;
  static constexpr int kGroupsPerLane = (kGroups + 31) / 32;
  struct Tile {};
  static constexpr bool kPrefetch = false;
  struct Smem {
    float q[kChunkRows][DK];
    float p[kWarps][kTileKeys][kChunkRows];
  };

  Smem& sm;
  int lane, warp;
  float o[kChunkRows][kGroupsPerLane][4];
  float m[kChunkRows], l[kChunkRows];  // l: this lane's keys only until finish

  __device__ static void prepare(Smem& sm, const SplitArgs<T, C>& a, const CtaRows<T, C>& cta) {
    for (int i = threadIdx.x; i < kChunkRows * DK; i += kWarps * 32) {
      const int r = i / DK, d = i % DK;
      sm.q[r][d] = cta.has_row(a, r) ? __ldg(cta.query_row(a, r) + d) : 0.0f;
    }
  }

  __device__ SimtWarp(const SplitArgs<T, C>&, const CtaRows<T, C>&, Smem& s) : sm(s) {
    lane = threadIdx.x % 32, warp = threadIdx.x / 32;
#pragma unroll
    for (int r = 0; r < kChunkRows; ++r) {
      m[r] = kNegInf, l[r] = 0.0f;
#pragma unroll
      for (int u = 0; u < kGroupsPerLane; ++u) o[r][u][0] = o[r][u][1] = o[r][u][2] = o[r][u][3] = 0.0f;
    }
  }

  __device__ void load(Tile&, const SplitArgs<T, C>&, const CtaRows<T, C>&, int) const {}

  // The kPerPiece key elements of a 16-byte piece as floats.
  __device__ static void widen(const uint4& raw, float (&k)[kPerPiece]) {
    const uint32_t w[4] = {raw.x, raw.y, raw.z, raw.w};
    if constexpr (kCodes) {
#pragma unroll
      for (int i = 0; i < 4; ++i) {
        const float2 a = __half22float2(u32_as_half2(decode_codes_of<kv::KeyCode, 0, 1>(w[i])));
        const float2 b = __half22float2(u32_as_half2(decode_codes_of<kv::KeyCode, 2, 3>(w[i])));
        k[4 * i] = a.x, k[4 * i + 1] = a.y, k[4 * i + 2] = b.x, k[4 * i + 3] = b.y;
      }
    } else {
#pragma unroll
      for (int i = 0; i < 4; ++i) k[i] = __uint_as_float(w[i]);
    }
  }

  __device__ static __half2 u32_as_half2(uint32_t x) { return *reinterpret_cast<__half2*>(&x); }

  // Four value components of group `grp` of value row `row` as floats.
  __device__ static float4 value_group(const uint8_t* row, int grp, bool wide) {
    if constexpr (kCodes) {
      const uint8_t* p = row + 4 * grp;
      const uint32_t w = wide ? __ldg(reinterpret_cast<const uint32_t*>(p)) : attn::ld_bytes(p, 4);
      const float2 a = __half22float2(u32_as_half2(decode_codes_of<kv::ValueCode, 0, 1>(w)));
      const float2 b = __half22float2(u32_as_half2(decode_codes_of<kv::ValueCode, 2, 3>(w)));
      return make_float4(a.x, a.y, b.x, b.y);
    } else {
      const float* p = reinterpret_cast<const float*>(row) + 4 * grp;
      if (wide) return __ldg(reinterpret_cast<const float4*>(p));
      return make_float4(__ldg(p), __ldg(p + 1), __ldg(p + 2), __ldg(p + 3));
    }
  }

  __device__ void step(const Tile&, const SplitArgs<T, C>& a, const CtaRows<T, C>& cta, int kb) {
    constexpr int64_t kKeyBytes = DK * sizeof(C), kValueBytes = DV * sizeof(C);
    const int key = kb + lane;
    const bool valid = key < cta.key_end;
    float dot[kChunkRows];
#pragma unroll
    for (int r = 0; r < kChunkRows; ++r) dot[r] = 0.0f;
    if (valid) {
      const uint8_t* row = cta.key + key * kKeyBytes;
#pragma unroll 4
      for (int c = 0; c < kPieces; ++c) {
        const uint8_t* piece = row + 16 * c;
        const uint4 raw = a.wide ? __ldg(reinterpret_cast<const uint4*>(piece))
                                 : make_uint4(attn::ld_bytes(piece, 4), attn::ld_bytes(piece + 4, 4),
                                              attn::ld_bytes(piece + 8, 4), attn::ld_bytes(piece + 12, 4));
        float k[kPerPiece];
        widen(raw, k);
#pragma unroll
        for (int e = 0; e < kPerPiece; e += 4)
#pragma unroll
          for (int r = 0; r < kChunkRows; ++r) {
            const float4 q = *reinterpret_cast<const float4*>(&sm.q[r][c * kPerPiece + e]);
            dot[r] = fmaf(q.x, k[e], fmaf(q.y, k[e + 1], fmaf(q.z, k[e + 2], fmaf(q.w, k[e + 3], dot[r]))));
          }
      }
    }
    float alpha[kChunkRows];
#pragma unroll
    for (int r = 0; r < kChunkRows; ++r) {
      const float s = score(dot[r], cta.mask_row(a, r), key, cta.key_end, a.scale_log2);
      float mx = s;
#pragma unroll
      for (int off = 1; off < 32; off *= 2) mx = fmaxf(mx, __shfl_xor_sync(0xffffffffu, mx, off));
      float ref;
      alpha[r] = rescale(m[r], mx, ref);
      const float p = fast_exp2(s - ref);
      l[r] = fmaf(l[r], alpha[r], p);
      sm.p[warp][lane][r] = p;
    }
    __syncwarp();
#pragma unroll
    for (int r = 0; r < kChunkRows; ++r)
#pragma unroll
      for (int u = 0; u < kGroupsPerLane; ++u)
        o[r][u][0] *= alpha[r], o[r][u][1] *= alpha[r], o[r][u][2] *= alpha[r], o[r][u][3] *= alpha[r];
    const int n = min(kTileKeys, cta.key_end - kb);
#pragma unroll 4
    for (int j = 0; j < n; ++j) {
      const uint8_t* vrow = cta.value + (kb + j) * kValueBytes;
      const float4 p0 = *reinterpret_cast<const float4*>(&sm.p[warp][j][0]);
      const float4 p1 = *reinterpret_cast<const float4*>(&sm.p[warp][j][4]);
      const float pr[kChunkRows] = {p0.x, p0.y, p0.z, p0.w, p1.x, p1.y, p1.z, p1.w};
#pragma unroll
      for (int u = 0; u < kGroupsPerLane; ++u) {
        const int grp = lane + 32 * u;
        if (kGroups % 32 != 0 && grp >= kGroups) continue;
        const float4 v = value_group(vrow, grp, a.wide);
#pragma unroll
        for (int r = 0; r < kChunkRows; ++r) {
          o[r][u][0] = fmaf(pr[r], v.x, o[r][u][0]);
          o[r][u][1] = fmaf(pr[r], v.y, o[r][u][1]);
          o[r][u][2] = fmaf(pr[r], v.z, o[r][u][2]);
          o[r][u][3] = fmaf(pr[r], v.w, o[r][u][3]);
        }
      }
    }
    __syncwarp();  // the next tile rewrites sm.p
  }

  __device__ void finish(WarpResults<DV>& res, int w) {
#pragma unroll
    for (int r = 0; r < kChunkRows; ++r) {
#pragma unroll
      for (int off = 1; off < 32; off *= 2) l[r] += __shfl_xor_sync(0xffffffffu, l[r], off);
      if (lane == 0) res.m[w][r] = m[r], res.l[w][r] = l[r];
#pragma unroll
      for (int u = 0; u < kGroupsPerLane; ++u) {
        const int grp = lane + 32 * u;
        if (kGroups % 32 != 0 && grp >= kGroups) continue;
#pragma unroll
        for (int e = 0; e < 4; ++e) res.o[w][r][4 * grp + e] = o[r][u][e];
      }
    }
  }
};

template <typename T, typename C, int DK, int DV>
using DecodeWarp = std::conditional_t<std::is_same_v<T, half>, MmaWarp<C, DK, DV>, SimtWarp<C, DK, DV>>;

template <typename T, typename C, int DK, int DV>
__global__ void __launch_bounds__(kWarps * 32) split_kernel(const SplitArgs<T, C> a) {
  using W = DecodeWarp<T, C, DK, DV>;
  __shared__ union alignas(16) Shared {
    typename W::Smem work;
    WarpResults<DV> res;
  } sm;
  const CtaRows<T, C> cta(a);
  const int warp = threadIdx.x / 32;
  W::prepare(sm.work, a, cta);
  __syncthreads();
  W w(a, cta, sm.work);
  const int tiles = cta.key_end > cta.key_begin ? (cta.key_end - cta.key_begin + W::kTileKeys - 1) / W::kTileKeys : 0;
  auto key0 = [&](int i) { return cta.key_begin + i * W::kTileKeys; };
  if constexpr (W::kPrefetch) {
    // Two register sets: the next tile's loads are in flight while this one is computed.
    typename W::Tile x0, x1;
    int i = warp;
    if (i < tiles) w.load(x0, a, cta, key0(i));
    while (i < tiles) {
      if (i + kWarps < tiles) w.load(x1, a, cta, key0(i + kWarps));
      w.step(x0, a, cta, key0(i));
      i += kWarps;
      if (i >= tiles) break;
      if (i + kWarps < tiles) w.load(x0, a, cta, key0(i + kWarps));
      w.step(x1, a, cta, key0(i));
      i += kWarps;
    }
  } else {
    for (int i = warp; i < tiles; i += kWarps) {
      typename W::Tile x;
      w.load(x, a, cta, key0(i));
      w.step(x, a, cta, key0(i));
    }
  }
  __syncthreads();  // the warps' shared scratch becomes the results
  w.finish(sm.res, warp);
  __syncthreads();

  for (int i = threadIdx.x; i < kChunkRows * DV; i += kWarps * 32) {
    const int r = i / DV, d = i % DV;
    if (!cta.has_row(a, r)) break;  // rows are ascending in i
    float mx = kNegInf;
#pragma unroll
    for (int v = 0; v < kWarps; ++v) mx = fmaxf(mx, sm.res.m[v][r]);
    const float ref = mx == kNegInf ? 0.0f : mx;
    float sum = 0.0f, acc = 0.0f;
#pragma unroll
    for (int v = 0; v < kWarps; ++v) {
      const float f = fast_exp2(sm.res.m[v][r] - ref);
      sum = fmaf(sm.res.l[v][r], f, sum);
      acc = fmaf(sm.res.o[v][r][d], f, acc);
    }
    const float val = sum > 0.0f ? acc / sum : 0.0f;
    const int h = cta.head(a, r), s = cta.token(a, r);
    if (a.sink == kSinkOut) {
      attn::store_float(a.out + cta.b * a.out_stride[0] + h * a.out_stride[1] + s * a.out_stride[2] + d, val);
    } else {
      const int split = blockIdx.y;
      if (d == 0) {
        float* st = a.stats + cta.b * a.stats_stride[0] + h * a.stats_stride[1] + s * a.stats_stride[2] + 2 * split;
        st[0] = mx, st[1] = sum;
      }
      const int64_t at = cta.b * a.part_stride[0] + h * a.part_stride[1] + s * a.part_stride[2] +
                         int64_t(split) * DV + d;
      if (a.part_is_float)
        static_cast<float*>(a.part)[at] = val;
      else
        attn::store_float(static_cast<T*>(a.part) + at, val);
    }
  }
}

}  // namespace vorta::cuda::decode
