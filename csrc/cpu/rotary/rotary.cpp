#include <algorithm>
#include <cmath>
#include <type_traits>
#include <vector>

#include "common/numeric.h"
#include "cpu/parallel.h"
#include "cpu/rotary.h"
#include "cpu/simd/vec8.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace {

// One rounding to T, back in float (the identity for float).
template <typename T>
inline float round_to(float x) {
  return to_float(from_float<T>(x));
}

// A product rounded to T on its own. The barrier keeps the compiler from
// fusing it into the following sum: GCC's vectoriser forms fmaddsub from
// scalar pairs even under -ffp-contract=off.
template <typename T>
inline float product(float a, float b) {
  float p = a * b;
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
  asm("" : "+x"(p));
#endif
  return round_to<T>(p);
}

// sin and cos of eight angles: reduction by the nearest multiple of pi/2 in
// three parts (the first exact through FMA), then the classic minimax
// polynomials on [-pi/4, pi/4]. A few ulp for |x| below 2^20.
inline void sincos8(Vec8 x, Vec8& sin_out, Vec8& cos_out) {
  const Vec8 j = round_nearest(x * Vec8::broadcast(0.636619746685028076171875f));
  Vec8 r = fnmadd(j, Vec8::broadcast(1.57079637050628662109375f), x);
  r = fnmadd(j, Vec8::broadcast(-4.37113882867379300296306610107421875e-08f), r);
  r = fnmadd(j, Vec8::broadcast(-1.7151245100058819e-15f), r);
  const Vec8 z = r * r;
  Vec8 sp = fmadd(Vec8::broadcast(-1.9515295891e-4f), z, Vec8::broadcast(8.3321608736e-3f));
  sp = fmadd(sp, z, Vec8::broadcast(-1.6666654611e-1f));
  sp = fmadd(sp * z, r, r);
  Vec8 cp = fmadd(Vec8::broadcast(2.443315711809948e-5f), z, Vec8::broadcast(-1.388731625493765e-3f));
  cp = fmadd(cp, z, Vec8::broadcast(4.166664568298827e-2f));
  cp = fmadd(cp * z, z, fnmadd(Vec8::broadcast(0.5f), z, Vec8::broadcast(1.0f)));
  // Quadrant q = j mod 4: odd quadrants swap sin and cos; sin is negative in
  // quadrants 2 and 3, cos in 1 and 2.
  const Vec8 q = j - Vec8::broadcast(4.0f) * floor(j * Vec8::broadcast(0.25f));
  const Vec8 one = cmp_eq(q, Vec8::broadcast(1.0f)), two = cmp_eq(q, Vec8::broadcast(2.0f));
  const Vec8 three = cmp_eq(q, Vec8::broadcast(3.0f));
  const Vec8 swap = bit_or(one, three);
  const Vec8 sign = Vec8::broadcast(-0.0f);
  sin_out = bit_xor(select(swap, cp, sp), bit_and(bit_or(two, three), sign));
  cos_out = bit_xor(select(swap, sp, cp), bit_and(bit_or(one, two), sign));
}

// cos and sin of position * freq[i] for i < n (n a multiple of 8), rounded to T.
template <typename T>
void angle_table(float position, const float* freq, int64_t n, float* c, float* s) {
  const Vec8 p = Vec8::broadcast(position);
  for (int64_t i = 0; i < n; i += 8) {
    Vec8 sv, cv;
    sincos8(p * Vec8::load(freq + i), sv, cv);
    round_to<T>(cv).store(c + i);
    round_to<T>(sv).store(s + i);
  }
}

// Per-element factors for pairs (2i, 2i+1): cd = (c, c), sd = (-s, s), taking
// the angle of pair i from c[i * stride], s[i * stride].
void expand_pairs(const float* c, const float* s, int64_t stride, int64_t pairs, float* cd,
                  float* sd) {
  for (int64_t i = 0; i < pairs; ++i) {
    cd[2 * i] = cd[2 * i + 1] = c[i * stride];
    sd[2 * i] = -s[i * stride];
    sd[2 * i + 1] = s[i * stride];
  }
}

// bf16 rows go sixteen elements at a time as load_split's two vectors (even
// and odd elements): the rounding is integer work, and a pair of bf16 values
// shares a 32-bit lane, so splitting and joining them is the cheap way in and
// out. The tables hold each such block in the same lane order.
template <typename T>
inline constexpr bool kSplit = std::is_same_v<T, bf16>;

// Puts each full block of sixteen of t[0, n) in load_split's lane order.
template <typename T>
void split_blocks(float* t, int64_t n) {
  if constexpr (kSplit<T>) {
    for (int64_t i = 0; i + 16 <= n; i += 16) {
      Vec8 a, b;
      load_split(t + i, a, b);
      a.store(t + i);
      b.store(t + i + 8);
    }
  }
}

// row[i], row[i + half] <- x1*c - x2*s, x2*c + x1*s for i < half; each
// product and the sum or difference rounded to T. The tables hold T values,
// so every intermediate is arithmetic on T values (round_arith).
template <typename T>
void rotate_half_row(T* row, const float* c, const float* s, int64_t half) {
  int64_t i = 0;
  if constexpr (kSplit<T>) {
    for (; i + 16 <= half; i += 16) {
      Vec8 x1a, x1b, x2a, x2b;
      load_split(row + i, x1a, x1b);
      load_split(row + half + i, x2a, x2b);
      const Vec8 ca = Vec8::load(c + i), cb = Vec8::load(c + i + 8);
      const Vec8 sa = Vec8::load(s + i), sb = Vec8::load(s + i + 8);
      store_split_arith(round_arith<T>(x1a * ca) - round_arith<T>(x2a * sa),
                        round_arith<T>(x1b * cb) - round_arith<T>(x2b * sb), row + i);
      store_split_arith(round_arith<T>(x2a * ca) + round_arith<T>(x1a * sa),
                        round_arith<T>(x2b * cb) + round_arith<T>(x1b * sb), row + half + i);
    }
  }
  for (; i + 8 <= half; i += 8) {
    const Vec8 x1 = Vec8::load(row + i), x2 = Vec8::load(row + half + i);
    const Vec8 cv = Vec8::load(c + i), sv = Vec8::load(s + i);
    store_arith(round_arith<T>(x1 * cv) - round_arith<T>(x2 * sv), row + i);
    store_arith(round_arith<T>(x2 * cv) + round_arith<T>(x1 * sv), row + half + i);
  }
  for (; i < half; ++i) {
    const float x1 = to_float(row[i]), x2 = to_float(row[half + i]);
    row[i] = from_float<T>(product<T>(x1, c[i]) - product<T>(x2, s[i]));
    row[half + i] = from_float<T>(product<T>(x2, c[i]) + product<T>(x1, s[i]));
  }
}

// (row[2i], row[2i+1]) <- (u*c - v*s, v*c + u*s) over the first n elements,
// as x*cd + swap(x)*sd: negating a rounded product is exact, so this rounds
// like the difference it stands for.
template <typename T>
void rotate_pairs_row(T* row, const float* cd, const float* sd, int64_t n) {
  int64_t k = 0;
  if constexpr (kSplit<T>) {
    // load_split parts the pairs: each element's partner sits in the same
    // lane of the other vector.
    for (; k + 16 <= n; k += 16) {
      Vec8 xa, xb;
      load_split(row + k, xa, xb);
      store_split_arith(
          round_arith<T>(xa * Vec8::load(cd + k)) + round_arith<T>(xb * Vec8::load(sd + k)),
          round_arith<T>(xb * Vec8::load(cd + k + 8)) + round_arith<T>(xa * Vec8::load(sd + k + 8)),
          row + k);
    }
  }
  for (; k + 8 <= n; k += 8) {
    const Vec8 x = Vec8::load(row + k);
    store_arith(round_arith<T>(x * Vec8::load(cd + k)) + round_arith<T>(swap_pairs(x) * Vec8::load(sd + k)),
                row + k);
  }
  for (; k < n; k += 2) {
    const float u = to_float(row[k]), v = to_float(row[k + 1]);
    const float c = cd[k], s = sd[k + 1];
    row[k] = from_float<T>(product<T>(u, c) - product<T>(v, s));
    row[k + 1] = from_float<T>(product<T>(v, c) + product<T>(u, s));
  }
}

// Position of one row in the walk over all rows: token (b, s), then head h
// (query heads first, then key heads).
struct RowCursor {
  int64_t b, s, h;
  RowCursor(int64_t r, int64_t heads, int64_t seq_len)
      : b(r / heads / seq_len), s(r / heads % seq_len), h(r % heads) {}
  // Steps to the next row; true when that row belongs to a new token.
  bool next(int64_t heads, int64_t seq_len) {
    if (++h < heads) return false;
    h = 0;
    if (++s == seq_len) {
      s = 0;
      ++b;
    }
    return true;
  }
  template <typename T>
  T* row(T* query, T* key, const RotaryRows& g) const {
    const int64_t* qs = g.query_stride;
    const int64_t* ks = g.key_stride;
    return h < g.num_heads ? query + b * qs[0] + h * qs[1] + s * qs[2]
                           : key + b * ks[0] + (h - g.num_heads) * ks[1] + s * ks[2];
  }
};

// Runs rotate(row, table) over every query and key row in parallel. Rows are
// walked token by token (all heads of token (b, s), then the next token), so
// a chunk builds each token's table once: prepare(b, s, table). Rows a few
// steps ahead are prefetched: the rotation is light enough that waiting for
// memory would otherwise dominate.
template <typename T, typename Prepare, typename Rotate>
void for_each_row(T* query, T* key, const RotaryRows& g, int64_t row_elems, int64_t table_floats,
                  Prepare prepare, Rotate rotate) {
  constexpr int64_t kAhead = 8;
  const int64_t heads = g.num_heads + g.num_kv_heads;
  const int64_t total = g.bsz * g.seq_len * heads;
  if (total == 0) return;
  const int64_t row_bytes = row_elems * int64_t(sizeof(T));
  // A chunk spans at least one token: its table is then built about once per
  // chunk, and a single decode token stays on the calling thread.
  const int64_t grain = std::max(grain_for(2 * row_bytes), heads);
  parallel_for(0, total, grain, [&](int64_t lo, int64_t hi) {
    std::vector<float> table(table_floats);
    RowCursor at(lo, heads, g.seq_len), ahead = at;
    for (int64_t r = lo; r < hi && r < lo + kAhead; ++r) ahead.next(heads, g.seq_len);
    prepare(at.b, at.s, table.data());
    for (int64_t r = lo; r < hi; ++r) {
      if (r + kAhead < hi) {
        const uintptr_t p = reinterpret_cast<uintptr_t>(ahead.row(query, key, g));
        for (uintptr_t line = p & ~uintptr_t(63); line < p + row_bytes; line += 64)
          __builtin_prefetch(reinterpret_cast<const void*>(line), 1);
        ahead.next(heads, g.seq_len);
      }
      rotate(at.row(query, key, g), static_cast<const float*>(table.data()));
      if (at.next(heads, g.seq_len) && r + 1 < hi) prepare(at.b, at.s, table.data());
    }
  });
}

}  // namespace

template <typename T>
void rotary_inv_freq(const RotaryFreqParams<T>& p) {
  const int64_t head_dim = p.head_dim;
  const bool every_two = p.every_two;
  const int64_t half = head_dim / 2, padded = (half + 7) / 8 * 8;
  if (half == 0) return;
  std::vector<float> freq(padded, 0.0f);
  load_row(p.inv_freq, freq.data(), half);
  // Table: c[padded], s[padded], then for pairs cd[2 * padded], sd[2 * padded].
  auto prepare = [&, f = freq.data()](int64_t b, int64_t s, float* t) {
    const int64_t pos = p.position_ids[(p.position_rows == 1 ? 0 : b * p.position_stride) + s];
    angle_table<T>(float(pos), f, padded, t, t + padded);
    if (every_two) {
      expand_pairs(t, t + padded, 1, half, t + 2 * padded, t + 4 * padded);
      split_blocks<T>(t + 2 * padded, 2 * half);
      split_blocks<T>(t + 4 * padded, 2 * half);
    } else {
      split_blocks<T>(t, half);
      split_blocks<T>(t + padded, half);
    }
  };
  if (every_two)
    for_each_row(p.query, p.key, p.rows, head_dim, 6 * padded, prepare, [&](T* row, const float* t) {
      rotate_pairs_row(row, t + 2 * padded, t + 4 * padded, 2 * half);
    });
  else
    for_each_row(p.query, p.key, p.rows, head_dim, 2 * padded, prepare,
                 [&](T* row, const float* t) { rotate_half_row(row, t, t + padded, half); });
}

template <typename T>
void rotary_with_cache(const RotaryCacheParams<T>& p) {
  const int64_t rotary_dim = p.rotary_dim;
  const T* cos = p.cos;
  const T* sin = p.sin;
  const int64_t half = rotary_dim / 2, n = 2 * half;
  if (half == 0) return;
  if (p.pairs == CachePairs::half) {
    // Table: c[half], s[half].
    for_each_row(
        p.query, p.key, p.rows, n, n,
        [&](int64_t, int64_t s, float* t) {
          load_row(cos + s * rotary_dim, t, half);
          load_row(sin + s * rotary_dim, t + half, half);
          split_blocks<T>(t, half);
          split_blocks<T>(t + half, half);
        },
        [&](T* row, const float* t) { rotate_half_row(row, t, t + half, half); });
    return;
  }
  // Table: cd[n], sd[n], then the converted cache rows.
  const bool interleaved = p.pairs == CachePairs::two_interleaved;
  const int64_t read = interleaved ? n : half;
  for_each_row(
      p.query, p.key, p.rows, n, 2 * n + 2 * read,
      [&](int64_t, int64_t s, float* t) {
        float *c = t + 2 * n, *sn = c + read;
        load_row(cos + s * rotary_dim, c, read);
        load_row(sin + s * rotary_dim, sn, read);
        expand_pairs(c, sn, interleaved ? 2 : 1, half, t, t + n);
        split_blocks<T>(t, n);
        split_blocks<T>(t + n, n);
      },
      [&](T* row, const float* t) { rotate_pairs_row(row, t, t + n, n); });
}

template void rotary_inv_freq<float>(const RotaryFreqParams<float>&);
template void rotary_inv_freq<half>(const RotaryFreqParams<half>&);
template void rotary_with_cache<float>(const RotaryCacheParams<float>&);
template void rotary_with_cache<half>(const RotaryCacheParams<half>&);
template void rotary_with_cache<bf16>(const RotaryCacheParams<bf16>&);

VORTA_ISA_END
}  // namespace vorta::cpu
