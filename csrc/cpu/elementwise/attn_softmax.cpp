#include <limits>
#include <type_traits>
#include <vector>

#include "common/numeric.h"
#include "cpu/elementwise.h"
#include "cpu/parallel.h"
#include "cpu/simd/exp.h"
#include "cpu/simd/vec8.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace {

// The k < 8 elements left at the end of a row, in lanes 0..k-1; `fill` elsewhere.
template <typename T>
Vec8 load_tail(const T* p, int64_t k, float fill) {
  alignas(32) float t[8];
  for (int64_t i = 0; i < 8; ++i) t[i] = i < k ? to_float(p[i]) : fill;
  return Vec8::load(t);
}

template <typename T>
void store_tail(Vec8 v, T* p, int64_t k) {
  alignas(32) float t[8];
  v.store(t);
  for (int64_t i = 0; i < k; ++i) p[i] = from_float<T>(t[i]);
}

// e[i] = exp2(v(i)) over the row's body (i < body), in order, and their sum
// lane by lane; the next row is fetched a cache line at a time meanwhile.
// Two sums, so that the additions overlap.
template <typename T, typename Exp, typename V>
Vec8 exp_body(const T* x, int64_t n, int64_t body, float* e, Exp exp, V v) {
  static_assert(64 / sizeof(T) % 16 == 0, "a cache line is a whole number of steps");
  constexpr int64_t kLine = 64 / sizeof(T);
  Vec8 s0 = Vec8::zero(), s1 = Vec8::zero();
  int64_t i = 0;
  for (; i + 16 <= body; i += 16) {
    if (i % kLine == 0) __builtin_prefetch(x + n + i);
    const Vec8 p0 = exp(v(i)), p1 = exp(v(i + 8));
    p0.store(e + i);
    p1.store(e + i + 8);
    s0 = s0 + p0;
    s1 = s1 + p1;
  }
  if (i < body) {
    if (i % kLine == 0) __builtin_prefetch(x + n + i);
    const Vec8 p = exp(v(i));
    p.store(e + i);
    s0 = s0 + p;
  }
  return s0 + s1;
}

// One row: the exponentials are kept in `e` (float) for the final scaling.
template <typename T>
void softmax_row(T* x, int64_t n, float* e) {
  const int64_t body = n & ~int64_t(7), tail = n - body;
  const float inf = std::numeric_limits<float>::infinity();
  Vec8 m0 = Vec8::broadcast(-inf), m1 = m0, lo = Vec8::broadcast(inf);
  int64_t i = 0;
  // 16-bit rows are converted once, into e, where the exponentials then go.
  constexpr bool kConvert = !std::is_same_v<T, float>;
  for (; i + 16 <= body; i += 16) {
    const Vec8 a = Vec8::load(x + i), b = Vec8::load(x + i + 8);
    if constexpr (kConvert) a.store(e + i), b.store(e + i + 8);
    m0 = max(m0, a);
    m1 = max(m1, b);
    lo = min(lo, min(a, b));
  }
  if (i < body) {
    const Vec8 a = Vec8::load(x + i);
    if constexpr (kConvert) a.store(e + i);
    m0 = max(m0, a);
    lo = min(lo, a);
  }
  if (tail) m0 = max(m0, load_tail(x + body, tail, -inf));
  const Vec8 m = Vec8::broadcast(reduce_max(max(m0, m1)));
  const Vec8 l2e = Vec8::broadcast(exp_constants::kLog2e);
  const float* xf = kConvert ? e : reinterpret_cast<const float*>(x);
  const auto v = [&](int64_t k) { return (Vec8::load(xf + k) - m) * l2e; };

  // (x - m) * log2(e) lies in [(lo - m) * log2(e), 0] when m is the maximum
  // and lo a lane's minimum: at or above -125 in every lane, the whole body
  // takes exp2_normal. A NaN anywhere (lo and m are then not to be trusted)
  // makes the sum NaN, and the body is redone with exp2.
  const bool normal = lane_bits(cmp_ge((lo - m) * l2e, Vec8::broadcast(-125.0f))) == 0xffu;
  Vec8 s;
  if (normal) {
    // A 16-bit result is rounded to half: the shorter polynomial serves.
    s = exp_body(x, n, body, e, [](Vec8 a) { return kConvert ? exp2_normal_for_half(a) : exp2_normal(a); }, v);
    if (lane_bits(cmp_eq(s, s)) != 0xffu) s = exp_body(x, n, body, e, [](Vec8 a) { return exp2(a); }, v);
  } else {
    s = exp_body(x, n, body, e, [](Vec8 a) { return exp2(a); }, v);
  }
  if (tail) {
    alignas(32) float t[8];
    exp2((load_tail(x + body, tail, 0.0f) - m) * l2e).store(t);
    for (int64_t k = tail; k < 8; ++k) t[k] = 0.0f;
    Vec8::load(t).store(e + body);
    s = s + Vec8::load(t);
  }
  const Vec8 r = Vec8::broadcast(1.0f / reduce_add(s));
  for (i = 0; i < body; i += 8) (Vec8::load(e + i) * r).store(x + i);
  if (tail) store_tail(Vec8::load(e + body) * r, x + body, tail);
}

}  // namespace

template <typename T>
void attn_softmax(const SoftmaxParams<T>& p) {
  T* attn = p.attn;
  const int64_t n = p.n;
  parallel_for(0, p.rows, grain_for(n * 2 * int64_t(sizeof(T))), [&](int64_t lo, int64_t hi) {
    std::vector<float> e(size_t(n + 8));
    for (int64_t r = lo; r < hi; ++r) softmax_row(attn + r * n, n, e.data());
  });
}

template void attn_softmax<float>(const SoftmaxParams<float>&);
template void attn_softmax<half>(const SoftmaxParams<half>&);

VORTA_ISA_END
}  // namespace vorta::cpu
