#include "common/kv_codes.h"
#include "common/numeric.h"
#include "cpu/kv_cache.h"
#include "cpu/kv_vec.h"
#include "cpu/parallel.h"

namespace vorta::cpu {
namespace {

using kv::KeyCode;
using kv::ValueCode;

template <class Code>
void encode_row(const half* src, uint8_t* dst, int64_t n) {
  int64_t i = 0;
#if VORTA_AVX2
  for (; i + 16 <= n; i += 16) {
    const __m256i h = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src + i));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), encode16<Code>(h));
  }
#endif
  for (; i < n; ++i) dst[i] = kv::encode<Code>(src[i].bits);
}

template <class Code>
void encode_row(const float* src, uint8_t* dst, int64_t n) {
  int64_t i = 0;
#if VORTA_AVX2
  constexpr int kRne = _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC;
  for (; i + 16 <= n; i += 16) {
    const __m128i lo = _mm256_cvtps_ph(_mm256_loadu_ps(src + i), kRne);
    const __m128i hi = _mm256_cvtps_ph(_mm256_loadu_ps(src + i + 8), kRne);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), encode16<Code>(_mm256_set_m128i(hi, lo)));
  }
#endif
  for (; i < n; ++i) dst[i] = kv::encode<Code>(float_to_half_bits(src[i]));
}

template <class Code>
void decode_row(const uint8_t* src, half* dst, int64_t n) {
  int64_t i = 0;
#if VORTA_AVX2
  for (; i + 16 <= n; i += 16) {
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst + i), decode16<Code>(b));
  }
#endif
  for (; i < n; ++i) dst[i] = half{kv::decode<Code>(src[i])};
}

template <class Code>
void decode_row(const uint8_t* src, float* dst, int64_t n) {
  int64_t i = 0;
#if VORTA_AVX2
  for (; i + 16 <= n; i += 16) {
    const __m256i h = decode16<Code>(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i)));
    _mm256_storeu_ps(dst + i, _mm256_cvtph_ps(_mm256_castsi256_si128(h)));
    _mm256_storeu_ps(dst + i + 8, _mm256_cvtph_ps(_mm256_extracti128_si256(h, 1)));
  }
#endif
  for (; i < n; ++i) dst[i] = half_bits_to_float(kv::decode<Code>(src[i]));
}

inline int64_t offset(const int64_t* stride, int64_t b, int64_t h, int64_t s) {
  return b * stride[0] + h * stride[1] + s * stride[2];
}

// Runs row(b, h, s) for every row in parallel, sequence index innermost.
template <typename F>
void for_each_row(const KvRows& g, int64_t row_bytes, F row) {
  const int64_t total = g.bsz * g.num_heads * g.seq_len;
  if (total == 0) return;
  parallel_for(0, total, grain_for(row_bytes), [&](int64_t lo, int64_t hi) {
    const int64_t t = lo / g.seq_len;
    int64_t s = lo % g.seq_len, h = t % g.num_heads, b = t / g.num_heads;
    for (int64_t r = lo; r < hi; ++r) {
      row(b, h, s);
      if (++s == g.seq_len) {
        s = 0;
        if (++h == g.num_heads) {
          h = 0;
          ++b;
        }
      }
    }
  });
}

// Runs convert(code, src, dst, width) on the key rows with the key code and the
// value rows with the value code.
template <typename Src, typename Dst, typename Convert>
void convert_rows(const KvConvertParams<Src, Dst>& p, Convert convert) {
  const KvRows& g = p.rows;
  const int64_t row_bytes = (p.key_dim + p.value_dim) * int64_t(sizeof(Src) + sizeof(Dst));
  for_each_row(g, row_bytes, [&](int64_t b, int64_t h, int64_t s) {
    convert(kv::KeyCode{}, p.key + offset(g.key_stride, b, h, s),
            p.key_out + offset(g.key_out_stride, b, h, s), p.key_dim);
    convert(kv::ValueCode{}, p.value + offset(g.value_stride, b, h, s),
            p.value_out + offset(g.value_out_stride, b, h, s), p.value_dim);
  });
}

}  // namespace

template <typename T>
void quantize_key_value(const KvConvertParams<T, uint8_t>& p) {
  convert_rows(p, [](auto code, const T* src, uint8_t* dst, int64_t n) {
    encode_row<decltype(code)>(src, dst, n);
  });
}

template <typename T>
void dequantize_key_value(const KvConvertParams<uint8_t, T>& p) {
  convert_rows(p, [](auto code, const uint8_t* src, T* dst, int64_t n) {
    decode_row<decltype(code)>(src, dst, n);
  });
}

template void quantize_key_value<float>(const KvConvertParams<float, uint8_t>&);
template void quantize_key_value<half>(const KvConvertParams<half, uint8_t>&);
template void dequantize_key_value<float>(const KvConvertParams<uint8_t, float>&);
template void dequantize_key_value<half>(const KvConvertParams<uint8_t, half>&);

}  // namespace vorta::cpu
