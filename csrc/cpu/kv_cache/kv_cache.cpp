#include <cstdint>
#include <type_traits>

#include "common/kv_codes.h"
#include "common/numeric.h"
#include "cpu/kv_cache.h"
#include "cpu/parallel.h"
#include "cpu/simd/vec8.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace {


// Codes are written past the caches when one call writes more than this: the
// cache then holds more than the caches would keep until a reader came, and
// a cached store first reads the line it fills.
constexpr int64_t kStreamBytes = int64_t(8) << 20;

// n elements of a key or value row to codes, and back. Float elements are
// rounded to half first; half ones are coded from their bits, sixteen at a
// time. Decoded values are exact in float and in half.
template <class Code, bool Stream, typename T>
void encode_row(const T* src, uint8_t* dst, int64_t n) {
  int64_t i = 0;
  if constexpr (std::is_same_v<T, half>)
    for (; i + 16 <= n; i += 16) encode_codes16<Code, Stream>(src + i, dst + i);
  for (; i + 8 <= n; i += 8) narrow_codes<Code>(Vec8::load(src + i), dst + i);
  for (; i < n; ++i) dst[i] = kv::encode<Code>(from_float<half>(to_float(src[i])).bits);
}

template <class Code, typename T>
void decode_row(const uint8_t* src, T* dst, int64_t n) {
  int64_t i = 0;
  for (; i + 8 <= n; i += 8) widen_codes<Code>(src + i).store(dst + i);
  for (; i < n; ++i) dst[i] = from_float<T>(half_bits_to_float(kv::decode<Code>(src[i])));
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
    stream_fence();  // streamed codes are ordered before whatever follows the call
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
  const KvRows& g = p.rows;
  const int64_t codes = g.bsz * g.num_heads * g.seq_len * (p.key_dim + p.value_dim);
  // Streamed rows start on 8 bytes, so every 8-byte store is aligned.
  const auto aligned = [](const int64_t* stride, const uint8_t* base) {
    return reinterpret_cast<uintptr_t>(base) % 8 == 0 && stride[0] % 8 == 0 && stride[1] % 8 == 0 &&
           stride[2] % 8 == 0;
  };
  const auto encode = [&](auto stream) {
    convert_rows(p, [](auto code, const T* src, uint8_t* dst, int64_t n) {
      encode_row<decltype(code), decltype(stream)::value>(src, dst, n);
    });
  };
  if (std::is_same_v<T, half> && codes > kStreamBytes && aligned(g.key_out_stride, p.key_out) &&
      aligned(g.value_out_stride, p.value_out))
    encode(std::true_type{});
  else
    encode(std::false_type{});
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

VORTA_ISA_END
}  // namespace vorta::cpu
