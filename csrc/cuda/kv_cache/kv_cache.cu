// Key/value cache conversion to and from the 8-bit codes. A block takes a
// few (batch, head, position) rows; each thread converts 16 consecutive
// elements of one key or value row: one 16-byte access to the codes against
// two 16-byte accesses of fp16 (four of fp32). Every access is 16 bytes wide,
// and a thread keeps at least 32 bytes in flight: with 8 elements (one fp16
// access, one 8-byte code access) the fp16 conversions reached only 60-80% of
// copy bandwidth on an H100, where fp32 (32 bytes in flight) reached 96%.
#include "common/kv_codes.h"
#include "cuda/common/kv_code_pairs.cuh"
#include "cuda/common/types.cuh"
#include "cuda/kv_cache.h"

namespace vorta::cuda {
namespace {

constexpr int kThreads = 256;
constexpr int kRun = 16;  // elements per thread

__device__ __forceinline__ uint16_t half_bits(half v) { return v.bits; }
// The conversion makes every NaN 0x7fff; the sign goes back on, as the CPU's keeps it.
__device__ __forceinline__ uint16_t half_bits(float v) {
  return __half_as_ushort(__float2half_rn(v)) | ((__float_as_uint(v) >> 16) & 0x8000u);
}

template <typename T>
__device__ __forceinline__ T from_half_bits(uint16_t h);
template <>
__device__ __forceinline__ half from_half_bits<half>(uint16_t h) {
  return half{h};
}
template <>
__device__ __forceinline__ float from_half_bits<float>(uint16_t h) {
  return __half2float(__ushort_as_half(h));
}

// kRun elements of T at p (16-byte aligned when `vector`); T = uint8_t for
// the codes.
template <typename T>
struct alignas(16) Run {
  T v[kRun];
};

// Whole 16-byte words. Stores go through __stwb (an ordinary write-back
// store): a plain uint4 assignment of a run built element by element came out
// of the compiler as four 4-byte stores for the run's first word.
template <typename T>
__device__ __forceinline__ Run<T> load_run(const T* p) {
  Run<T> r;
  auto* w = reinterpret_cast<uint4*>(&r);
#pragma unroll
  for (int k = 0; k < int(sizeof(Run<T>)) / 16; ++k) w[k] = reinterpret_cast<const uint4*>(p)[k];
  return r;
}

template <typename T>
__device__ __forceinline__ void store_run(T* p, const Run<T>& r) {
  const auto* w = reinterpret_cast<const uint4*>(&r);
#pragma unroll
  for (int k = 0; k < int(sizeof(Run<T>)) / 16; ++k) __stwb(reinterpret_cast<uint4*>(p) + k, w[k]);
}

template <class Code, typename T>
__device__ __forceinline__ void convert(const T* src, uint8_t* dst, int64_t e, int64_t dim, bool vector) {
  if (vector) {
    const Run<T> x = load_run(src + e);
    Run<uint8_t> b;
#pragma unroll
    for (int j = 0; j < kRun; ++j) b.v[j] = kv::encode<Code>(half_bits(x.v[j]));
    store_run(dst + e, b);
  } else {
    for (int64_t j = e; j < e + kRun && j < dim; ++j) dst[j] = kv::encode<Code>(half_bits(src[j]));
  }
}

// A run of codes decoded a 32-bit word at a time: two fp16 patterns per word
// from a pair of codes, or one float's bits from one code.
template <class Code>
__device__ __forceinline__ void decode_run(const Run<uint8_t>& b, Run<half>& y) {
  const auto* w = reinterpret_cast<const uint32_t*>(&b);
  auto* o = reinterpret_cast<uint32_t*>(&y);
#pragma unroll
  for (int k = 0; k < kRun / 4; ++k) {
    o[2 * k] = decode_codes_of<Code, 0, 1>(w[k]);
    o[2 * k + 1] = decode_codes_of<Code, 2, 3>(w[k]);
  }
}

template <class Code>
__device__ __forceinline__ void decode_run(const Run<uint8_t>& b, Run<float>& y) {
  auto* o = reinterpret_cast<uint32_t*>(&y);
#pragma unroll
  for (int j = 0; j < kRun; ++j) {
    const uint32_t c = b.v[j];
    o[j] = (((c & 0x7fu) << 20) + uint32_t(kv::float_bits_bias<Code>())) | ((c & 0x80u) << 24);
  }
}

template <class Code, typename T>
__device__ __forceinline__ void convert(const uint8_t* src, T* dst, int64_t e, int64_t dim, bool vector) {
  if (vector) {
    Run<T> y;
    decode_run<Code>(load_run(src + e), y);
    store_run(dst + e, y);
  } else {
    for (int64_t j = e; j < e + kRun && j < dim; ++j) dst[j] = from_half_bits<T>(kv::decode<Code>(src[j]));
  }
}

inline __device__ int64_t row_offset(const int64_t (&stride)[3], int64_t b, int64_t h, int64_t s) {
  return b * stride[0] + h * stride[1] + s * stride[2];
}

// Block (b * num_heads + h) * tiles + i converts rows (b, h, i * blockDim.y +
// threadIdx.y), one grid dimension for all three: a paged cache has far more
// than 65535 blocks in its first dimension. threadIdx.x < key_runs takes a
// run of the key row, the rest one of the value row.
template <typename Src, typename Dst>
__global__ void __launch_bounds__(kThreads) kv_convert_kernel(KvConvertParams<Src, Dst> p, int key_runs,
                                                              bool vector) {
  const KvRows& g = p.rows;
  const int64_t tiles = ceil_div(g.seq_len, int64_t(blockDim.y));
  const int64_t bh = blockIdx.x / tiles, h = bh % g.num_heads, b = bh / g.num_heads;
  const int64_t s = (blockIdx.x % tiles) * blockDim.y + threadIdx.y;
  if (s >= g.seq_len) return;
  const int x = threadIdx.x;
  if (x < key_runs)
    convert<kv::KeyCode>(p.key + row_offset(g.key_stride, b, h, s),
                         p.key_out + row_offset(g.key_out_stride, b, h, s), int64_t(x) * kRun, p.key_dim,
                         vector);
  else
    convert<kv::ValueCode>(p.value + row_offset(g.value_stride, b, h, s),
                           p.value_out + row_offset(g.value_out_stride, b, h, s),
                           int64_t(x - key_runs) * kRun, p.value_dim, vector);
}

// Every run of every row starts at a 16-byte boundary.
template <typename T>
bool runs_aligned(const T* base, const int64_t (&stride)[3], int64_t dim) {
  auto ok = [&](int64_t elements) { return (elements * int64_t(sizeof(T))) % 16 == 0; };
  return reinterpret_cast<uintptr_t>(base) % 16 == 0 && ok(stride[0]) && ok(stride[1]) &&
         ok(stride[2]) && dim % kRun == 0;
}

template <typename Src, typename Dst>
cudaError_t convert_rows(const KvConvertParams<Src, Dst>& p, cudaStream_t stream) {
  const KvRows& g = p.rows;
  if (g.bsz < 0 || g.num_heads < 0 || g.seq_len < 0 || p.key_dim < 0 || p.value_dim < 0)
    return cudaErrorInvalidValue;
  const int64_t rows = g.bsz * g.num_heads * g.seq_len;
  const int64_t key_runs = ceil_div(p.key_dim, kRun), value_runs = ceil_div(p.value_dim, kRun);
  const int64_t x = key_runs + value_runs;
  if (rows == 0 || x == 0) return cudaSuccess;
  if (x > kThreads) return cudaErrorInvalidValue;
  const bool vector = runs_aligned(p.key, g.key_stride, p.key_dim) &&
                      runs_aligned(p.key_out, g.key_out_stride, p.key_dim) &&
                      runs_aligned(p.value, g.value_stride, p.value_dim) &&
                      runs_aligned(p.value_out, g.value_out_stride, p.value_dim);
  const int y = int(std::min<int64_t>(kThreads / x, g.seq_len));
  const int64_t tiles = ceil_div(g.seq_len, y);
  const int64_t blocks = tiles * g.num_heads * g.bsz;
  if (blocks >= (int64_t(1) << 31)) return cudaErrorInvalidValue;
  kv_convert_kernel<Src, Dst>
      <<<unsigned(blocks), dim3(unsigned(x), unsigned(y)), 0, stream>>>(p, int(key_runs), vector);
  return launch_status();
}

}  // namespace

template <typename T>
cudaError_t quantize_key_value(const KvConvertParams<T, uint8_t>& p, cudaStream_t stream) {
  return convert_rows(p, stream);
}

template <typename T>
cudaError_t dequantize_key_value(const KvConvertParams<uint8_t, T>& p, cudaStream_t stream) {
  return convert_rows(p, stream);
}

template cudaError_t quantize_key_value<float>(const KvConvertParams<float, uint8_t>&, cudaStream_t);
template cudaError_t quantize_key_value<half>(const KvConvertParams<half, uint8_t>&, cudaStream_t);
template cudaError_t dequantize_key_value<float>(const KvConvertParams<uint8_t, float>&, cudaStream_t);
template cudaError_t dequantize_key_value<half>(const KvConvertParams<uint8_t, half>&, cudaStream_t);

}  // namespace vorta::cuda
