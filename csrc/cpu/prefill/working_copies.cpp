// Working copies of key and value caches for the attention core.
#include <algorithm>
#include <cassert>

#include "common/kv_codes.h"
#include "cpu/parallel.h"
#include "cpu/prefill/problem.h"
#include "cpu/simd/vec8.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace {

// Eight consecutive source elements as floats; Src is the element type, or
// the tag of an 8-bit code.
template <typename Src>
struct Elem {
  using type = Src;
  static Vec8 load8(const Src* p) { return Vec8::load(p); }
};
template <class Code>
struct CodeElem {
  using type = uint8_t;
  static Vec8 load8(const uint8_t* p) { return widen_codes<Code>(p); }
};
template <>
struct Elem<KeyBytes> : CodeElem<kv::KeyCode> {};
template <>
struct Elem<ValueBytes> : CodeElem<kv::ValueCode> {};

}  // namespace

template <typename Src, typename Dst>
void transpose_key_tiles(const void* src, const int64_t src_stride[3], Dst* dst,
                         const int64_t dst_stride[2], int64_t B, int64_t H, int64_t L,
                         int64_t lp, int d_in, int d_out) {
  using S = typename Elem<Src>::type;
  constexpr int block = kKeyTile;
  assert(d_in % 8 == 0 && d_out % 8 == 0 && lp % block == 0);
  const int64_t s0 = src_stride[0], s1 = src_stride[1], s2 = src_stride[2];
  const int64_t d0s = dst_stride[0], d1s = dst_stride[1];
  const int64_t tiles = lp / block;
  const S* in = static_cast<const S*>(src);
  parallel_for(0, B * H * tiles, grain_for(int64_t(block) * d_out * 4),
               [&](int64_t lo, int64_t hi) {
    Vec8 r[8];
    for (int64_t t = lo; t < hi; ++t) {
      const int64_t tile = t % tiles, bh = t / tiles, b = bh / H, h = bh % H;
      const S* rows = in + b * s0 + h * s1;
      Dst* out = dst + b * d0s + h * d1s + tile * int64_t(block) * d_out;
      for (int p0 = 0; p0 < block; p0 += 8) {
        const int64_t pos = tile * block + p0;
        for (int c0 = 0; c0 < d_out; c0 += 8) {
          for (int i = 0; i < 8; ++i)
            r[i] = (pos + i < L && c0 < d_in) ? Elem<Src>::load8(rows + (pos + i) * s2 + c0)
                                              : Vec8::zero();
          transpose8(r);
          for (int i = 0; i < 8; ++i) r[i].store(out + (c0 + i) * block + p0);
        }
      }
    }
  });
}

template <typename Src, typename Dst>
void copy_value_rows(const void* src, const int64_t src_stride[3], Dst* dst,
                     const int64_t dst_stride[2], int64_t B, int64_t H, int64_t L, int d_in,
                     int d_out) {
  using S = typename Elem<Src>::type;
  assert(d_in % 8 == 0 && d_out % 8 == 0);
  const int64_t s0 = src_stride[0], s1 = src_stride[1], s2 = src_stride[2];
  const int64_t d0s = dst_stride[0], d1s = dst_stride[1];
  const S* in = static_cast<const S*>(src);
  parallel_for(0, B * H * L, grain_for(int64_t(d_out) * 4), [&](int64_t lo, int64_t hi) {
    for (int64_t t = lo; t < hi; ++t) {
      const int64_t pos = t % L, bh = t / L, b = bh / H, h = bh % H;
      const S* row = in + b * s0 + h * s1 + pos * s2;
      Dst* out = dst + b * d0s + h * d1s + pos * d_out;
      for (int c0 = 0; c0 < d_out; c0 += 8)
        (c0 < d_in ? Elem<Src>::load8(row + c0) : Vec8::zero()).store(out + c0);
    }
  });
}

#define VORTA_KEY_TILES(SRC, DST)                                                            \
  template void transpose_key_tiles<SRC, DST>(const void*, const int64_t[3], DST*,            \
                                              const int64_t[2], int64_t, int64_t, int64_t,    \
                                              int64_t, int, int);
#define VORTA_VALUE_ROWS(SRC, DST)                                                            \
  template void copy_value_rows<SRC, DST>(const void*, const int64_t[3], DST*, const int64_t[2], \
                                          int64_t, int64_t, int64_t, int, int);

VORTA_KEY_TILES(float, float)
VORTA_KEY_TILES(half, half)
VORTA_KEY_TILES(float, half)
VORTA_KEY_TILES(KeyBytes, float)
VORTA_KEY_TILES(KeyBytes, half)
VORTA_VALUE_ROWS(ValueBytes, float)
VORTA_VALUE_ROWS(ValueBytes, half)
VORTA_VALUE_ROWS(float, float)
VORTA_VALUE_ROWS(float, half)
VORTA_VALUE_ROWS(half, half)

VORTA_ISA_END
}  // namespace vorta::cpu
