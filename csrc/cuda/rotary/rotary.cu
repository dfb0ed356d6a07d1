// Rotary embedding: one block row per token. The token's cos/sin table (one
// angle per pair) goes to shared memory once, then the block rotates every
// query and key head row of the token in 16-byte chunks.
//
// Rounding as on the CPU backend, bit for bit: cos and sin are rounded to T;
// for 16-bit T each product is rounded to T and so is their sum or
// difference. The inverse-frequency angles use the CPU backend's sin/cos.
#include "cuda/common/approx.cuh"
#include "cuda/common/types.cuh"
#include "cuda/rotary.h"

namespace vorta::cuda {
namespace {

constexpr int kThreads = 128;
constexpr int64_t kMaxTableBytes = 48 * 1024;

// What the kernel needs beyond the table: rows, pairs and how they pair up.
template <typename T>
struct RotaryJob {
  T* query;
  T* key;
  RotaryRows rows;
  int64_t pairs;       // rotation pairs per row
  bool half_layout;    // pairs (i, i + pairs), else (2i, 2i + 1)
  bool vector;         // 16-byte accesses
};

struct FreqTable {
  const void* inv_freq;
  const int64_t* position_ids;
  int64_t position_rows, position_stride;
};

template <typename T>
struct CacheTable {
  const T* cos;
  const T* sin;
  int64_t rotary_dim;
  int64_t step;  // cache position of pair i: i * step
};

template <typename T>
__device__ __forceinline__ void fill_table(const FreqTable& f, int64_t b, int64_t s, int64_t pairs,
                                           float* c, float* sn) {
  const int64_t* pos = f.position_ids + (f.position_rows == 1 ? 0 : b * f.position_stride);
  const float position = float(pos[s]);
  const T* inv_freq = static_cast<const T*>(f.inv_freq);
  for (int64_t i = threadIdx.x; i < pairs; i += blockDim.x) {
    float sv, cv;
    sincos_poly(position * widen(inv_freq[i]), sv, cv);
    c[i] = round_to<T>(cv);
    sn[i] = round_to<T>(sv);
  }
}

template <typename T>
__device__ __forceinline__ void fill_table(const CacheTable<T>& f, int64_t, int64_t s, int64_t pairs,
                                           float* c, float* sn) {
  const T* cos_row = f.cos + s * f.rotary_dim;
  const T* sin_row = f.sin + s * f.rotary_dim;
  for (int64_t i = threadIdx.x; i < pairs; i += blockDim.x) {
    c[i] = widen(cos_row[i * f.step]);
    sn[i] = widen(sin_row[i * f.step]);
  }
}

// (x1, x2) -> (x1*c - x2*s, x2*c + x1*s), each product and result rounded to T.
template <typename T>
__device__ __forceinline__ void rotate(float x1, float x2, float c, float s, T& y1, T& y2) {
  y1 = narrow<T>(round_to<T>(x1 * c) - round_to<T>(x2 * s));
  y2 = narrow<T>(round_to<T>(x2 * c) + round_to<T>(x1 * s));
}

// Pairs i .. i + kN - 1 (those below `pairs`) of a rotate-half row.
template <typename T>
__device__ __forceinline__ void rotate_half_chunk(T* row, int64_t i, int64_t pairs, bool vector,
                                                  const float* c, const float* s) {
  constexpr int kN = Chunk<T>::kN;
  if (vector) {
    const Chunk<T> a = load_chunk(row + i, true), b = load_chunk(row + pairs + i, true);
    Chunk<T> ya, yb;
#pragma unroll
    for (int j = 0; j < kN; ++j) rotate(widen(a.v[j]), widen(b.v[j]), c[i + j], s[i + j], ya.v[j], yb.v[j]);
    store_chunk(row + i, ya, true);
    store_chunk(row + pairs + i, yb, true);
  } else {
#pragma unroll
    for (int j = 0; j < kN; ++j)
      if (i + j < pairs)
        rotate(widen(row[i + j]), widen(row[pairs + i + j]), c[i + j], s[i + j], row[i + j],
               row[pairs + i + j]);
  }
}

// Elements e .. e + kN - 1 (those below 2 * pairs) of an every-two row.
template <typename T>
__device__ __forceinline__ void rotate_pairs_chunk(T* row, int64_t e, int64_t pairs, bool vector,
                                                   const float* c, const float* s) {
  constexpr int kN = Chunk<T>::kN;
  if (vector) {
    const Chunk<T> x = load_chunk(row + e, true);
    Chunk<T> y;
#pragma unroll
    for (int j = 0; j < kN; j += 2) {
      const int64_t i = (e + j) / 2;
      rotate(widen(x.v[j]), widen(x.v[j + 1]), c[i], s[i], y.v[j], y.v[j + 1]);
    }
    store_chunk(row + e, y, true);
  } else {
#pragma unroll
    for (int j = 0; j < kN; j += 2) {
      const int64_t i = (e + j) / 2;
      if (i < pairs) rotate(widen(row[e + j]), widen(row[e + j + 1]), c[i], s[i], row[e + j], row[e + j + 1]);
    }
  }
}

// Block (i, b) takes tokens (b, i * blockDim.y + threadIdx.y); threadIdx.x
// walks the chunks of the token's rows.
template <typename T, typename Table>
__global__ void __launch_bounds__(kThreads) rotary_kernel(RotaryJob<T> job, Table table) {
  constexpr int kN = Chunk<T>::kN;
  extern __shared__ float shared_table[];
  const RotaryRows& g = job.rows;
  float* c = shared_table + 2 * job.pairs * threadIdx.y;
  float* s = c + job.pairs;
  // Block b * tiles + i takes tokens [i * blockDim.y, (i + 1) * blockDim.y) of batch entry b.
  const int64_t tiles = ceil_div(g.seq_len, int64_t(blockDim.y));
  const int64_t b = blockIdx.x / tiles, t = int64_t(blockIdx.x % tiles) * blockDim.y + threadIdx.y;
  const bool live = t < g.seq_len;
  if (live) fill_table<T>(table, b, t, job.pairs, c, s);
  __syncthreads();
  if (!live) return;
  const int chunks = int(job.half_layout ? ceil_div(job.pairs, kN) : ceil_div(2 * job.pairs, kN));
  const int heads = int(g.num_heads + g.num_kv_heads);
  for (int w = threadIdx.x; w < heads * chunks; w += blockDim.x) {
    const int h = w / chunks, q = w - h * chunks;
    T* row = h < g.num_heads
                 ? job.query + b * g.query_stride[0] + h * g.query_stride[1] + t * g.query_stride[2]
                 : job.key + b * g.key_stride[0] + (h - g.num_heads) * g.key_stride[1] +
                       t * g.key_stride[2];
    if (job.half_layout)
      rotate_half_chunk(row, int64_t(q) * kN, job.pairs, job.vector, c, s);
    else
      rotate_pairs_chunk(row, int64_t(q) * kN, job.pairs, job.vector, c, s);
  }
}

template <typename T>
bool rows_aligned(const T* base, const int64_t (&stride)[3]) {
  return aligned16(base, stride[0]) && aligned16(base, stride[1]) && aligned16(base, stride[2]);
}

template <typename T, typename Table>
cudaError_t launch_rotary(RotaryJob<T> job, const Table& table, cudaStream_t stream) {
  const RotaryRows& g = job.rows;
  const int64_t tokens = g.bsz * g.seq_len, heads = g.num_heads + g.num_kv_heads;
  if (g.bsz < 0 || g.seq_len < 0 || g.num_heads < 0 || g.num_kv_heads < 0 || job.pairs < 0)
    return cudaErrorInvalidValue;
  if (tokens == 0 || heads == 0 || job.pairs == 0) return cudaSuccess;
  constexpr int kN = Chunk<T>::kN;
  const int64_t span = job.half_layout ? job.pairs : 2 * job.pairs;  // must split into whole chunks
  job.vector = span % kN == 0 && rows_aligned(job.query, g.query_stride) &&
               rows_aligned(job.key, g.key_stride);
  // Tokens per block: enough to give every thread some of the token's chunks.
  const int64_t work = heads * ceil_div(span, kN);
  const int x = int(std::min<int64_t>(kThreads, ceil_div(work, 32) * 32));
  int y = kThreads / x;
  const int64_t table_bytes = 2 * job.pairs * int64_t(sizeof(float));
  if (table_bytes > kMaxTableBytes) return cudaErrorInvalidValue;
  y = int(std::min<int64_t>(y, kMaxTableBytes / table_bytes));
  y = int(std::min<int64_t>(y, g.seq_len));
  const int64_t tiles = ceil_div(g.seq_len, y);
  if (tiles * g.bsz >= (int64_t(1) << 31) || work >= (int64_t(1) << 31)) return cudaErrorInvalidValue;
  rotary_kernel<T, Table><<<unsigned(tiles * g.bsz), dim3(x, y), size_t(table_bytes * y), stream>>>(job, table);
  return launch_status();
}

}  // namespace

template <typename T>
cudaError_t rotary_inv_freq(const RotaryFreqParams<T>& p, cudaStream_t stream) {
  const RotaryJob<T> job{p.query, p.key, p.rows, p.head_dim / 2, !p.every_two, false};
  return launch_rotary(job, FreqTable{p.inv_freq, p.position_ids, p.position_rows, p.position_stride},
                       stream);
}

template <typename T>
cudaError_t rotary_with_cache(const RotaryCacheParams<T>& p, cudaStream_t stream) {
  const RotaryJob<T> job{p.query, p.key, p.rows, p.rotary_dim / 2, p.pairs == CachePairs::half, false};
  const int64_t step = p.pairs == CachePairs::two_interleaved ? 2 : 1;
  return launch_rotary(job, CacheTable<T>{p.cos, p.sin, p.rotary_dim, step}, stream);
}

template cudaError_t rotary_inv_freq<float>(const RotaryFreqParams<float>&, cudaStream_t);
template cudaError_t rotary_inv_freq<half>(const RotaryFreqParams<half>&, cudaStream_t);
template cudaError_t rotary_with_cache<float>(const RotaryCacheParams<float>&, cudaStream_t);
template cudaError_t rotary_with_cache<half>(const RotaryCacheParams<half>&, cudaStream_t);
template cudaError_t rotary_with_cache<bf16>(const RotaryCacheParams<bf16>&, cudaStream_t);

}  // namespace vorta::cuda
