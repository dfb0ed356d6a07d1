// Prefill attention kernels; included by the per-head-size sources, which
// instantiate launch_prefill.
//
// Half queries: flash-attention on tensor cores (mma.sync m16n8k16, float32
// accumulators; layouts in cuda/common/mma.cuh). A CTA of 4 warps owns
// kBlockRows query rows, each warp 16 or 32 of them; key and value tiles of
// kTileKeys rows are double-buffered in shared memory with asynchronous
// copies. S = Q K^T takes K from ldmatrix, the softmax runs on the
// accumulators in registers, and the probabilities, rounded to half, are
// already the A operand of O += P V (V through ldmatrix.trans). 8-bit caches
// are copied raw and widened to half tiles in shared memory (every code is an
// exact half), then read like half tiles.
//
// Float32 queries: the same online softmax on CUDA cores, each thread owning
// a 4 (or 2) x 4 block of scores and the matching rows of the result.
//
// Rows are aligned top-left: under `causal`, row i sees keys 0 .. i. Tiles
// past the last row of a block are never visited; the limit and kv_len are
// applied per element only in the tiles they cut.
#pragma once

#include <cuda_fp16.h>

#include <cmath>
#include <cstdint>
#include <type_traits>

#include "common/kv_codes.h"
#include "cuda/attention/memory.cuh"
#include "cuda/attention/online_softmax.cuh"
#include "cuda/common/kv_code_pairs.cuh"
#include "cuda/common/mma.cuh"
#include "cuda/prefill/kernel_args.h"

namespace vorta::cuda::prefill {

inline constexpr int kThreads = 128;
using attn::kLog2e;
using attn::rescale;

// Query blocks of BM rows per (batch, head).
template <int BM, typename T, typename C>
__host__ __device__ inline int query_blocks(const PrefillParams<T, C>& p) {
  return int((p.q_len + BM - 1) / BM);
}

// A CTA's query block, head and batch entry. The grid's one dimension counts
// them with the blocks of a head adjacent (they meet its keys in L2 together)
// and, under `causal`, the longest first.
struct Place {
  int qb, h, b;
};
template <int BM, typename T, typename C>
__device__ inline Place place(const PrefillParams<T, C>& p) {
  const int blocks = query_blocks<BM>(p), i = int(blockIdx.x % blocks), bh = int(blockIdx.x / blocks);
  return {p.causal ? blocks - 1 - i : i, bh % int(p.num_heads), bh / int(p.num_heads)};
}

// Scaled (and capped) score in base-2 units, before the mask.
template <typename T, typename C>
__device__ __forceinline__ float scaled(float dot, const KernelArgs<T, C>& a) {
  return a.p.softcap > 0.0f ? a.cap_log2 * tanhf(dot * a.cap_scale) : dot * a.score_log2;
}

// Copies rows [0, kRows) x elements [0, kWidth) of a global matrix (row
// stride `stride` elements of G) into shared rows `pitch` bytes apart, in
// 16-byte pieces; rows >= rows_valid and elements >= width_valid (a multiple
// of a piece) are zero. `wide`: asynchronous copies (16-byte aligned rows).
template <int kRows, int kWidth, typename G>
__device__ __forceinline__ void copy_rows(uint8_t* dst, int pitch, const G* src, int64_t stride, int rows_valid,
                                          int width_valid, bool wide) {
  constexpr int kPer = 16 / int(sizeof(G));
  constexpr int kPieces = kWidth / kPer;
  static_assert(kWidth % kPer == 0, "rows are copied in 16-byte pieces");
#pragma unroll 2
  for (int i = threadIdx.x; i < kRows * kPieces; i += kThreads) {
    const int r = i / kPieces, c = i % kPieces;
    const bool ok = r < rows_valid && c * kPer < width_valid;
    uint8_t* d = dst + r * pitch + c * 16;
    const G* s = src + r * stride + c * kPer;
    if (wide) {
      cp_async_16(smem_addr(d), ok ? s : src, ok ? 16 : 0);
    } else {
      uint32_t w[4] = {0, 0, 0, 0};
      if (ok) {
        const uint8_t* bytes = reinterpret_cast<const uint8_t*>(s);
        if constexpr (sizeof(G) == 1) {
#pragma unroll
          for (int e = 0; e < 16; ++e) w[e / 4] |= uint32_t(__ldg(bytes + e)) << (8 * (e % 4));
        } else if constexpr (sizeof(G) == 2) {
#pragma unroll
          for (int e = 0; e < 8; ++e)
            w[e / 2] |= uint32_t(__ldg(reinterpret_cast<const unsigned short*>(bytes) + e)) << (16 * (e % 2));
        } else {
#pragma unroll
          for (int e = 0; e < 4; ++e) w[e] = __ldg(reinterpret_cast<const uint32_t*>(bytes) + e);
        }
      }
      *reinterpret_cast<uint4*>(d) = make_uint4(w[0], w[1], w[2], w[3]);
    }
  }
}

// --- half queries: tensor cores --------------------------------------------

// Two n8 tiles of one A operand: c0 += a b{f[0], f[1]}, c1 += a b{f[2], f[3]},
// f from one ldmatrix_x4 of two B operands.
__device__ __forceinline__ void mma_two_tiles(float (&c0)[4], float (&c1)[4], const uint32_t (&a)[4],
                                              const uint32_t (&f)[4]) {
  const uint32_t b0[2] = {f[0], f[1]}, b1[2] = {f[2], f[3]};
  mma_f16_m16n8k16(c0, a, b0);
  mma_f16_m16n8k16(c1, a, b1);
}

template <typename C, int DK, int DV>
struct MmaConfig {
  static constexpr bool kCodes = std::is_same_v<C, uint8_t>;
  static constexpr int kWarpTiles = DK <= 128 ? 2 : 1;  // m16 row tiles per warp
  static constexpr int kBlockRows = 4 * 16 * kWarpTiles;
  static constexpr int kTileKeys = DK <= 128 ? 64 : 32;
  static constexpr int kStages = kCodes ? 1 : 2;       // half K/V tiles (codes: 2 raw stages instead)
  // Rows padded by 16 bytes: the 8 rows of an ldmatrix land in 8 different bank groups.
  static constexpr int kPitchK = 2 * (DK + 8), kPitchV = 2 * (DV + 8);  // bytes
  static constexpr int kQBytes = kBlockRows * kPitchK;
  static constexpr int kKBytes = kTileKeys * kPitchK, kVBytes = kTileKeys * kPitchV;
  static constexpr int kRawK = kTileKeys * DK, kRawV = kTileKeys * DV;  // one raw stage
  static constexpr int kSmem = kQBytes + kStages * (kKBytes + kVBytes) + (kCodes ? 2 * (kRawK + kRawV) : 0);
  static_assert(DK % 16 == 0 && DV % 16 == 0, "computed widths are whole k16 steps");
};

// Raw 8-bit code rows (kWidth bytes each, dense) -> half rows of `pitch` bytes.
template <class Code, int kRows, int kWidth>
__device__ __forceinline__ void widen_codes(uint8_t* dst, int pitch, const uint8_t* raw) {
  constexpr int kPieces = kWidth / 16;
#pragma unroll 2
  for (int i = threadIdx.x; i < kRows * kPieces; i += kThreads) {
    const int r = i / kPieces, c = i % kPieces;
    const uint4 v = *reinterpret_cast<const uint4*>(raw + r * kWidth + 16 * c);
    const uint32_t w[4] = {v.x, v.y, v.z, v.w};
    uint32_t h[8];
#pragma unroll
    for (int e = 0; e < 4; ++e) {
      h[2 * e] = decode_codes_of<Code, 0, 1>(w[e]);
      h[2 * e + 1] = decode_codes_of<Code, 2, 3>(w[e]);
    }
    uint4* d = reinterpret_cast<uint4*>(dst + r * pitch + 32 * c);
    d[0] = make_uint4(h[0], h[1], h[2], h[3]);
    d[1] = make_uint4(h[4], h[5], h[6], h[7]);
  }
}

template <typename C, int DK, int DV>
__global__ void __launch_bounds__(kThreads) mma_prefill_kernel(const KernelArgs<half, C> a) {
  using Cfg = MmaConfig<C, DK, DV>;
  constexpr int WM = Cfg::kWarpTiles, BM = Cfg::kBlockRows, BN = Cfg::kTileKeys;
  constexpr int PK = Cfg::kPitchK, PV = Cfg::kPitchV;
  uint8_t* smem = attn::dynamic_smem();
  const PrefillParams<half, C>& p = a.p;
  const int warp = threadIdx.x / 32, lane = threadIdx.x % 32, g = lane / 4, t = lane % 4;
  const Place at = place<BM>(p);
  const int qb = at.qb, h = at.h, b = at.b, kvh = h / a.group;
  const int q0 = qb * BM, q_len = int(p.q_len), kv_len = int(p.kv_len);
  const int key_end = p.causal ? min(kv_len, q0 + BM) : kv_len;
  const int tiles = (key_end + BN - 1) / BN;
  const int row0 = q0 + warp * 16 * WM;  // the warp's first row

  uint8_t* q_s = smem;
  uint8_t* k_s = q_s + Cfg::kQBytes;
  uint8_t* v_s = k_s + Cfg::kStages * Cfg::kKBytes;
  uint8_t* raw = v_s + Cfg::kStages * Cfg::kVBytes;  // codes only: [2][kRawK], then [2][kRawV]
  const C* key = p.key + b * p.key_stride[0] + kvh * p.key_stride[1];
  const C* value = p.value + b * p.value_stride[0] + kvh * p.value_stride[1];
  const int dk = int(p.head_dim), dv = int(p.value_head_dim);

  auto load_tile = [&](int j, int stage) {
    const int kb = j * BN;
    if constexpr (Cfg::kCodes) {
      copy_rows<BN, DK>(raw + stage * Cfg::kRawK, DK, key + kb * p.key_stride[2], p.key_stride[2], kv_len - kb, dk,
                        a.wide);
      copy_rows<BN, DV>(raw + 2 * Cfg::kRawK + stage * Cfg::kRawV, DV, value + kb * p.value_stride[2],
                        p.value_stride[2], kv_len - kb, dv, a.wide);
    } else {
      copy_rows<BN, DK>(k_s + stage * Cfg::kKBytes, PK, key + kb * p.key_stride[2], p.key_stride[2], kv_len - kb, dk,
                        a.wide);
      copy_rows<BN, DV>(v_s + stage * Cfg::kVBytes, PV, value + kb * p.value_stride[2], p.value_stride[2],
                        kv_len - kb, dv, a.wide);
    }
  };

  // Every thread commits one group per stage, empty or not, so that
  // "all but the newest group" always means "tile j has landed".
  copy_rows<BM, DK>(q_s, PK, p.query + b * p.query_stride[0] + h * p.query_stride[1] + q0 * p.query_stride[2],
                    p.query_stride[2], q_len - q0, dk, a.wide);
  if (tiles > 0) load_tile(0, 0);
  cp_async_commit();
  if (tiles > 1) load_tile(1, 1);
  cp_async_commit();

  float o[WM][DV / 8][4];
  float m[WM][2], l[WM][2];
#pragma unroll
  for (int i = 0; i < WM; ++i) {
    m[i][0] = m[i][1] = -INFINITY;
    l[i][0] = l[i][1] = 0.0f;
#pragma unroll
    for (int n = 0; n < DV / 8; ++n) o[i][n][0] = o[i][n][1] = o[i][n][2] = o[i][n][3] = 0.0f;
  }
  const half* mask = p.mask ? p.mask + b * p.mask_stride[0] + h * p.mask_stride[1] : nullptr;
  // Plain: no mask, no cap and a positive scale, so that the largest dot
  // product is the largest score; `unit` scales what the exponential takes.
  const bool plain = !mask && !(p.softcap > 0.0f) && a.score_log2 > 0.0f;
  const float unit = plain ? a.score_log2 : 1.0f;
  // ldmatrix row addresses: Q as A (rows lane % 16, column half lane / 16), K
  // as B (keys 8 * (lane / 16) + lane % 8, column half (lane / 8) % 2), V as
  // B through .trans (keys 8 * ((lane / 8) % 2) + lane % 8, columns 8 * (lane / 16)).
  const uint32_t q_addr = smem_addr(q_s) + (warp * 16 * WM + lane % 16) * PK + (lane / 16) * 16;
  const int k_off = (8 * (lane / 16) + lane % 8) * PK + ((lane / 8) % 2) * 16;
  const int v_off = (8 * ((lane / 8) % 2) + lane % 8) * PV + (lane / 16) * 16;

  for (int j = 0; j < tiles; ++j) {
    cp_async_wait<1>();
    __syncthreads();
    int stage = j % 2;
    if constexpr (Cfg::kCodes) {
      widen_codes<kv::KeyCode, BN, DK>(k_s, PK, raw + stage * Cfg::kRawK);
      widen_codes<kv::ValueCode, BN, DV>(v_s, PV, raw + 2 * Cfg::kRawK + stage * Cfg::kRawV);
      __syncthreads();  // half tiles ready, raw stage free
      if (j + 2 < tiles) load_tile(j + 2, stage);
      cp_async_commit();
      stage = 0;
    }
    const int kb = j * BN;
    const uint32_t k_addr = smem_addr(k_s + stage * Cfg::kKBytes) + k_off;
    const uint32_t v_addr = smem_addr(v_s + stage * Cfg::kVBytes) + v_off;

    // S = Q K^T
    float s[WM][BN / 8][4];
#pragma unroll
    for (int i = 0; i < WM; ++i)
#pragma unroll
      for (int n = 0; n < BN / 8; ++n) s[i][n][0] = s[i][n][1] = s[i][n][2] = s[i][n][3] = 0.0f;
#pragma unroll
    for (int ks = 0; ks < DK / 16; ++ks) {
      uint32_t qa[WM][4];
#pragma unroll
      for (int i = 0; i < WM; ++i) ldmatrix_x4(qa[i], q_addr + i * 16 * PK + ks * 32);
#pragma unroll
      for (int n = 0; n < BN / 8; n += 2) {
        uint32_t kf[4];
        ldmatrix_x4(kf, k_addr + n * 8 * PK + ks * 32);
#pragma unroll
        for (int i = 0; i < WM; ++i) mma_two_tiles(s[i][n], s[i][n + 1], qa[i], kf);
      }
    }

    // Online softmax on the accumulators: element c of n-tile n is row
    // g + 8 * (c / 2), key kb + 8 * n + 2 * t + c % 2. Plain calls keep the
    // raw dot products until the exponent's FMA; the others turn them into
    // base-2 scores first.
    const bool edge = kb + BN > kv_len || (p.causal && kb + BN - 1 > row0);
    float alpha[WM][2];
#pragma unroll
    for (int i = 0; i < WM; ++i) {
      float mx[2] = {-INFINITY, -INFINITY};
#pragma unroll
      for (int hf = 0; hf < 2; ++hf) {
        const int r = row0 + 16 * i + g + 8 * hf;
        const half* mr = mask && r < q_len ? mask + r * p.mask_stride[2] : nullptr;
#pragma unroll
        for (int n = 0; n < BN / 8; ++n) {
          const int key = kb + 8 * n + 2 * t;
          float x0 = s[i][n][2 * hf], x1 = s[i][n][2 * hf + 1];
          if (!plain) {
            x0 = scaled(x0, a), x1 = scaled(x1, a);
            if (mr) {
              if (a.mask_pairs && key + 1 < kv_len) {
                const float2 mv = __half22float2(*reinterpret_cast<const __half2*>(mr + key));
                x0 = fmaf(mv.x, kLog2e, x0), x1 = fmaf(mv.y, kLog2e, x1);
              } else {
                if (key < kv_len) x0 = attn::add_mask(x0, attn::load_float(mr + key));
                if (key + 1 < kv_len) x1 = attn::add_mask(x1, attn::load_float(mr + key + 1));
              }
            }
          }
          if (edge) {
            if (key >= kv_len || (p.causal && key > r)) x0 = -INFINITY;
            if (key + 1 >= kv_len || (p.causal && key + 1 > r)) x1 = -INFINITY;
          }
          s[i][n][2 * hf] = x0, s[i][n][2 * hf + 1] = x1;
          mx[hf] = fmaxf(mx[hf], fmaxf(x0, x1));
        }
      }
#pragma unroll
      for (int hf = 0; hf < 2; ++hf) {
        mx[hf] = fmaxf(mx[hf], __shfl_xor_sync(0xffffffffu, mx[hf], 1));
        mx[hf] = fmaxf(mx[hf], __shfl_xor_sync(0xffffffffu, mx[hf], 2));
        float ref;
        alpha[i][hf] = rescale(m[i][hf], plain ? mx[hf] * a.score_log2 : mx[hf], ref);
        float sum = 0.0f;
#pragma unroll
        for (int n = 0; n < BN / 8; ++n) {
          s[i][n][2 * hf] = fast_exp2(fmaf(s[i][n][2 * hf], unit, -ref));
          s[i][n][2 * hf + 1] = fast_exp2(fmaf(s[i][n][2 * hf + 1], unit, -ref));
          sum += s[i][n][2 * hf] + s[i][n][2 * hf + 1];
        }
        l[i][hf] = fmaf(l[i][hf], alpha[i][hf], sum);  // this thread's keys; the group's sum at the end
      }
    }
    // The accumulators change scale only when some row's maximum moved.
    bool moved = false;
#pragma unroll
    for (int i = 0; i < WM; ++i) moved |= alpha[i][0] != 1.0f || alpha[i][1] != 1.0f;
    if (__any_sync(0xffffffffu, moved))
#pragma unroll
      for (int i = 0; i < WM; ++i)
#pragma unroll
        for (int n = 0; n < DV / 8; ++n)
          o[i][n][0] *= alpha[i][0], o[i][n][1] *= alpha[i][0], o[i][n][2] *= alpha[i][1],
              o[i][n][3] *= alpha[i][1];

    // P rounded to half is the A operand of O += P V as it stands: n-tiles
    // 2kk and 2kk + 1 are the two column halves of k16 block kk.
    uint32_t pa[WM][BN / 16][4];
#pragma unroll
    for (int i = 0; i < WM; ++i)
#pragma unroll
      for (int kk = 0; kk < BN / 16; ++kk) {
        pa[i][kk][0] = pack_half2(s[i][2 * kk][0], s[i][2 * kk][1]);
        pa[i][kk][1] = pack_half2(s[i][2 * kk][2], s[i][2 * kk][3]);
        pa[i][kk][2] = pack_half2(s[i][2 * kk + 1][0], s[i][2 * kk + 1][1]);
        pa[i][kk][3] = pack_half2(s[i][2 * kk + 1][2], s[i][2 * kk + 1][3]);
      }
#pragma unroll
    for (int kk = 0; kk < BN / 16; ++kk)
#pragma unroll
      for (int n = 0; n < DV / 8; n += 2) {
        uint32_t vf[4];
        ldmatrix_x4_trans(vf, v_addr + kk * 16 * PV + n * 16);
#pragma unroll
        for (int i = 0; i < WM; ++i) mma_two_tiles(o[i][n], o[i][n + 1], pa[i][kk], vf);
      }

    if constexpr (!Cfg::kCodes) {
      __syncthreads();  // every warp is done with this stage
      if (j + 2 < tiles) load_tile(j + 2, j % 2);
      cp_async_commit();
    }
  }
  cp_async_wait<0>();

  const int out_dim = int(p.out_dim);
#pragma unroll
  for (int i = 0; i < WM; ++i)
#pragma unroll
    for (int hf = 0; hf < 2; ++hf) {
      float sum = l[i][hf];
      sum += __shfl_xor_sync(0xffffffffu, sum, 1);
      sum += __shfl_xor_sync(0xffffffffu, sum, 2);
      const float inv = sum > 0.0f ? 1.0f / sum : 0.0f;
      const int r = row0 + 16 * i + g + 8 * hf;
      if (r >= q_len) continue;
      half* out = p.out + b * p.out_stride[0] + h * p.out_stride[1] + r * p.out_stride[2];
#pragma unroll
      for (int n = 0; n < DV / 8; ++n) {
        const int col = 8 * n + 2 * t;
        const float v0 = o[i][n][2 * hf] * inv, v1 = o[i][n][2 * hf + 1] * inv;
        if (a.out_pairs && col + 1 < out_dim) {
          *reinterpret_cast<__half2*>(out + col) = __floats2half2_rn(v0, v1);
        } else {
          if (col < out_dim) attn::store_float(out + col, v0);
          if (col + 1 < out_dim) attn::store_float(out + col + 1, v1);
        }
      }
    }
}

// --- float32 queries: CUDA cores -------------------------------------------

template <typename C, int DK, int DV>
struct SimtConfig {
  static constexpr int kRowsPerThread = DK <= 128 ? 4 : 2;
  static constexpr int kBlockRows = 16 * kRowsPerThread;  // 16 row groups x 8 key groups of threads
  static constexpr int kTileKeys = 32;
  // Float pitches padded by 4: a group of 8 consecutive rows spans all bank groups.
  static constexpr int kPitchK = DK + 4, kPitchV = DV + 4, kPitchP = kTileKeys + 4;
  static constexpr int kVec = DV % 32 == 0 ? 4 : 2;    // value components per shared load
  static constexpr int kVecsPerThread = DV / (8 * kVec);
  static constexpr int kSmem = 4 * (kBlockRows * kPitchK + kTileKeys * kPitchK + kTileKeys * kPitchV +
                                    kBlockRows * kPitchP);
  static_assert(DV % (8 * kVec) == 0 && DK % 4 == 0, "value rows split over 8 threads");
};

// Four elements of G at p (any alignment when !wide) as floats.
template <class Code, typename G>
__device__ __forceinline__ float4 load4(const G* p, bool wide) {
  if constexpr (std::is_same_v<G, uint8_t>) {
    const uint32_t w = wide ? __ldg(reinterpret_cast<const uint32_t*>(p)) : attn::ld_bytes(p, 4);
    uint32_t lo = decode_codes_of<Code, 0, 1>(w), hi = decode_codes_of<Code, 2, 3>(w);
    const float2 a = __half22float2(*reinterpret_cast<__half2*>(&lo));
    const float2 b = __half22float2(*reinterpret_cast<__half2*>(&hi));
    return make_float4(a.x, a.y, b.x, b.y);
  } else {
    if (wide) return __ldg(reinterpret_cast<const float4*>(p));
    return make_float4(__ldg(p), __ldg(p + 1), __ldg(p + 2), __ldg(p + 3));
  }
}

__device__ __forceinline__ float round_to_half(float x) { return __half2float(__float2half_rn(x)); }

// Rows [0, kRows) x elements [0, kWidth) of a global matrix into float rows
// `pitch` floats apart; zeros past rows_valid and width_valid. `to_half`
// rounds every element to half on the way.
template <class Code, int kRows, int kWidth, typename G>
__device__ __forceinline__ void load_rows(float* dst, int pitch, const G* src, int64_t stride, int rows_valid,
                                          int width_valid, bool wide, bool to_half) {
  constexpr int kQuads = kWidth / 4;
#pragma unroll 4
  for (int i = threadIdx.x; i < kRows * kQuads; i += kThreads) {
    const int r = i / kQuads, c = i % kQuads;
    float4 v = make_float4(0.0f, 0.0f, 0.0f, 0.0f);
    if (r < rows_valid && 4 * c < width_valid) {
      v = load4<Code>(src + r * stride + 4 * c, wide);
      if (to_half) v = make_float4(round_to_half(v.x), round_to_half(v.y), round_to_half(v.z), round_to_half(v.w));
    }
    *reinterpret_cast<float4*>(dst + r * pitch + 4 * c) = v;
  }
}

template <typename C, int DK, int DV>
__global__ void __launch_bounds__(kThreads, 2) simt_prefill_kernel(const KernelArgs<float, C> a) {
  using Cfg = SimtConfig<C, DK, DV>;
  constexpr int R = Cfg::kRowsPerThread, BM = Cfg::kBlockRows, BN = Cfg::kTileKeys;
  constexpr int PK = Cfg::kPitchK, PV = Cfg::kPitchV, PP = Cfg::kPitchP, VEC = Cfg::kVec;
  float* fsmem = reinterpret_cast<float*>(attn::dynamic_smem());
  float* q_s = fsmem;
  float* k_s = q_s + BM * PK;
  float* v_s = k_s + BN * PK;
  float* p_s = v_s + BN * PV;
  const PrefillParams<float, C>& p = a.p;
  const int ty = threadIdx.x / 8, tx = threadIdx.x % 8;  // rows ty + 16 i, keys tx + 8 j
  const Place at = place<BM>(p);
  const int qb = at.qb, h = at.h, b = at.b, kvh = h / a.group;
  const int q0 = qb * BM, q_len = int(p.q_len), kv_len = int(p.kv_len);
  const int key_end = p.causal ? min(kv_len, q0 + BM) : kv_len;
  const int dk = int(p.head_dim), dv = int(p.value_head_dim);
  const C* key = p.key + b * p.key_stride[0] + kvh * p.key_stride[1];
  const C* value = p.value + b * p.value_stride[0] + kvh * p.value_stride[1];
  const bool to_half = p.half_kv && !std::is_same_v<C, uint8_t>;  // codes are halves already

  load_rows<kv::KeyCode, BM, DK>(q_s, PK,
                                 p.query + b * p.query_stride[0] + h * p.query_stride[1] + q0 * p.query_stride[2],
                                 p.query_stride[2], q_len - q0, dk, a.wide, false);

  float o[R][Cfg::kVecsPerThread][VEC];
  float m[R], l[R];
  const float* mrow[R];
#pragma unroll
  for (int i = 0; i < R; ++i) {
    m[i] = -INFINITY, l[i] = 0.0f;
#pragma unroll
    for (int u = 0; u < Cfg::kVecsPerThread; ++u)
#pragma unroll
      for (int e = 0; e < VEC; ++e) o[i][u][e] = 0.0f;
    const int r = q0 + ty + 16 * i;
    mrow[i] = p.mask && r < q_len ? p.mask + b * p.mask_stride[0] + h * p.mask_stride[1] + r * p.mask_stride[2]
                                  : nullptr;
  }

  for (int kb = 0; kb < key_end; kb += BN) {
    __syncthreads();  // the previous tile is consumed
    load_rows<kv::KeyCode, BN, DK>(k_s, PK, key + kb * p.key_stride[2], p.key_stride[2], kv_len - kb, dk, a.wide,
                                   to_half);
    load_rows<kv::ValueCode, BN, DV>(v_s, PV, value + kb * p.value_stride[2], p.value_stride[2], kv_len - kb, dv,
                                     a.wide, to_half);
    __syncthreads();

    float s[R][4];
#pragma unroll
    for (int i = 0; i < R; ++i) s[i][0] = s[i][1] = s[i][2] = s[i][3] = 0.0f;
#pragma unroll 4
    for (int d = 0; d < DK; d += 4) {
      float4 q4[R], k4[4];
#pragma unroll
      for (int i = 0; i < R; ++i) q4[i] = *reinterpret_cast<const float4*>(q_s + (ty + 16 * i) * PK + d);
#pragma unroll
      for (int jj = 0; jj < 4; ++jj) k4[jj] = *reinterpret_cast<const float4*>(k_s + (tx + 8 * jj) * PK + d);
#pragma unroll
      for (int i = 0; i < R; ++i)
#pragma unroll
        for (int jj = 0; jj < 4; ++jj)
          s[i][jj] = fmaf(q4[i].x, k4[jj].x,
                          fmaf(q4[i].y, k4[jj].y, fmaf(q4[i].z, k4[jj].z, fmaf(q4[i].w, k4[jj].w, s[i][jj]))));
    }

#pragma unroll
    for (int i = 0; i < R; ++i) {
      const int r = q0 + ty + 16 * i;
      float mx = -INFINITY;
#pragma unroll
      for (int jj = 0; jj < 4; ++jj) {
        const int k = kb + tx + 8 * jj;
        float x = scaled(s[i][jj], a);
        if (k >= kv_len || (p.causal && k > r)) {
          x = -INFINITY;
        } else if (mrow[i]) {
          x = attn::add_mask(x, __ldg(mrow[i] + k));
        }
        s[i][jj] = x;
        mx = fmaxf(mx, x);
      }
      mx = fmaxf(mx, __shfl_xor_sync(0xffffffffu, mx, 1));
      mx = fmaxf(mx, __shfl_xor_sync(0xffffffffu, mx, 2));
      mx = fmaxf(mx, __shfl_xor_sync(0xffffffffu, mx, 4));
      float ref;
      const float alpha = rescale(m[i], mx, ref);
      float sum = 0.0f;
#pragma unroll
      for (int jj = 0; jj < 4; ++jj) {
        const float e = fast_exp2(s[i][jj] - ref);
        sum += e;
        p_s[(ty + 16 * i) * PP + tx + 8 * jj] = e;
      }
      l[i] = fmaf(l[i], alpha, sum);
#pragma unroll
      for (int u = 0; u < Cfg::kVecsPerThread; ++u)
#pragma unroll
        for (int e = 0; e < VEC; ++e) o[i][u][e] *= alpha;
    }
    __syncwarp();  // a row's weights come from the 8 threads of its group, all in this warp

#pragma unroll 4
    for (int jk = 0; jk < BN; ++jk) {
      float pr[R];
#pragma unroll
      for (int i = 0; i < R; ++i) pr[i] = p_s[(ty + 16 * i) * PP + jk];
#pragma unroll
      for (int u = 0; u < Cfg::kVecsPerThread; ++u) {
        const float* vp = v_s + jk * PV + VEC * (tx + 8 * u);
        float v[VEC];
        if constexpr (VEC == 4) {
          const float4 x = *reinterpret_cast<const float4*>(vp);
          v[0] = x.x, v[1] = x.y, v[2] = x.z, v[3] = x.w;
        } else {
          const float2 x = *reinterpret_cast<const float2*>(vp);
          v[0] = x.x, v[1] = x.y;
        }
#pragma unroll
        for (int i = 0; i < R; ++i)
#pragma unroll
          for (int e = 0; e < VEC; ++e) o[i][u][e] = fmaf(pr[i], v[e], o[i][u][e]);
      }
    }
  }

  const int out_dim = int(p.out_dim);
#pragma unroll
  for (int i = 0; i < R; ++i) {
    float sum = l[i];
    sum += __shfl_xor_sync(0xffffffffu, sum, 1);
    sum += __shfl_xor_sync(0xffffffffu, sum, 2);
    sum += __shfl_xor_sync(0xffffffffu, sum, 4);
    const float inv = sum > 0.0f ? 1.0f / sum : 0.0f;
    const int r = q0 + ty + 16 * i;
    if (r >= q_len) continue;
    float* out = p.out + b * p.out_stride[0] + h * p.out_stride[1] + r * p.out_stride[2];
#pragma unroll
    for (int u = 0; u < Cfg::kVecsPerThread; ++u)
#pragma unroll
      for (int e = 0; e < VEC; ++e) {
        const int col = VEC * (tx + 8 * u) + e;
        if (col < out_dim) out[col] = o[i][u][e] * inv;
      }
  }
}

}  // namespace vorta::cuda::prefill
