#include "cpu/moe.h"

#include <cstring>
#include <limits>
#include <vector>

#include "common/numeric.h"
#include "cpu/exp2.h"
#include "cpu/parallel.h"
#include "cpu/vec.h"

namespace vorta::cpu {
namespace {

constexpr int kLanes = 256;  // widest expert row
constexpr int kMaxTopK = 32;
constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// The largest non-NaN value of v[0..n) (n a multiple of 8); -inf if none.
#if VORTA_AVX2
inline float max_value(const float* v, int n) {
  // max_ps returns its second operand when either is NaN: the accumulator
  // goes second and never becomes NaN.
  __m256 a0 = _mm256_set1_ps(-kInf), a1 = a0;
  int i = 0;
  for (; i + 16 <= n; i += 16) {
    a0 = _mm256_max_ps(_mm256_loadu_ps(v + i), a0);
    a1 = _mm256_max_ps(_mm256_loadu_ps(v + i + 8), a1);
  }
  if (i < n) a0 = _mm256_max_ps(_mm256_loadu_ps(v + i), a0);
  __m256 m = _mm256_max_ps(a0, a1);
  m = _mm256_max_ps(m, _mm256_permute2f128_ps(m, m, 1));
  m = _mm256_max_ps(m, _mm256_shuffle_ps(m, m, _MM_SHUFFLE(1, 0, 3, 2)));
  m = _mm256_max_ps(m, _mm256_shuffle_ps(m, m, _MM_SHUFFLE(2, 3, 0, 1)));
  return _mm256_cvtss_f32(m);
}

// The lowest lane of v[0..n) equal to m, or -1.
inline int first_equal(const float* v, int n, float m) {
  const __m256 vm = _mm256_set1_ps(m);
  for (int i = 0; i < n; i += 8) {
    const int hits = _mm256_movemask_ps(_mm256_cmp_ps(_mm256_loadu_ps(v + i), vm, _CMP_EQ_OQ));
    if (hits) return i + __builtin_ctz(unsigned(hits));
  }
  return -1;
}
#else
inline float max_value(const float* v, int n) {
  float m = -kInf;
  for (int i = 0; i < n; ++i) m = v[i] > m ? v[i] : m;
  return m;
}

inline int first_equal(const float* v, int n, float m) {
  for (int i = 0; i < n; ++i)
    if (v[i] == m) return i;
  return -1;
}
#endif

// Takes the largest value of v[0..n), the lowest lane on ties: stores it in
// `value`, writes -1.0 over its lane (so the next call finds the next one) and
// returns the lane. Returns -1 and leaves v alone when every lane is NaN.
inline int take_max(float* v, int n, float& value) {
  const int lane = first_equal(v, n, max_value(v, n));
  if (lane >= 0) value = v[lane], v[lane] = -1.0f;
  return lane;
}

// Sums lanes 0..n-1 of a zero-padded array of `width` lanes by halving folds
// (lane i + lane i + width/2, and so on down to one lane), in place.
inline float fold_sum(float* v, int width) {
  for (int w = width / 2; w >= 8; w /= 2)
    for (int i = 0; i < w; i += 8) (Vec8::load(v + i) + Vec8::load(v + i + w)).store(v + i);
  for (int w = 4; w >= 1; w /= 2)
    for (int i = 0; i < w; ++i) v[i] += v[i + w];
  return v[0];
}

// Sum of the first k of 32 zero-padded weights, folded by halves.
inline float weight_sum(const float* w, int k) {
  alignas(32) float t[kMaxTopK] = {};
  std::memcpy(t, w, sizeof(float) * size_t(k));
  return fold_sum(t, kMaxTopK);
}

template <typename T>
void store_choice(const int* id, const float* w, int k, int64_t* ids, T* weights) {
  for (int i = 0; i < k; ++i) {
    ids[i] = id[i];
    weights[i] = from_float<T>(w[i]);
  }
}

template <typename T>
void softmax_topk_row(const T* logits, int n, int top_k, bool renormalize, int64_t* ids,
                      T* weights) {
  alignas(32) float p[kLanes];
  load_row(logits, p, n);
  const Vec8 vm = Vec8::broadcast(max_value(p, n)), l2e = Vec8::broadcast(1.4426950216293335f);
  for (int i = 0; i < n; i += 8) exp2((Vec8::load(p + i) - vm) * l2e).store(p + i);
  alignas(32) float s[kLanes] = {};
  std::memcpy(s, p, sizeof(float) * size_t(n));
  const float sum = fold_sum(s, kLanes);

  int id[kMaxTopK];
  float w[kMaxTopK];
  if (!(sum > 0.0f)) {
    // A NaN (or empty) row: no lane equals its maximum, every choice is expert 0.
    for (int k = 0; k < top_k; ++k) id[k] = 0, w[k] = kNaN;
  } else {
    const Vec8 vs = Vec8::broadcast(sum);
    for (int i = 0; i < n; i += 8) (Vec8::load(p + i) / vs).store(p + i);
    // Lanes n..255 hold 0.0 and sit above every real lane: they are taken, in
    // order, only once every real lane has been taken (and turned into -1.0).
    int next_pad = n;
    for (int k = 0; k < top_k; ++k) {
      id[k] = take_max(p, n, w[k]);
      if (w[k] < 0.0f) id[k] = next_pad++, w[k] = 0.0f;
    }
  }
  if (renormalize) {
    const float total = weight_sum(w, top_k);
    for (int k = 0; k < top_k; ++k) w[k] = w[k] / total;
  }
  store_choice(id, w, top_k, ids, weights);
}

}  // namespace

template <typename T>
void moe_softmax_topk(const T* logits, int64_t* ids, T* weights, int64_t num_tokens,
                      int64_t n_experts, int64_t top_k, bool renormalize) {
  parallel_for(0, num_tokens, 16, [&](int64_t lo, int64_t hi) {
    for (int64_t t = lo; t < hi; ++t)
      softmax_topk_row(logits + t * n_experts, int(n_experts), int(top_k), renormalize,
                       ids + t * top_k, weights + t * top_k);
  });
}

template <typename T>
void moe_group_topk(const float* scores, const T* bias, int64_t* ids, T* weights,
                    int64_t num_tokens, int64_t n_experts, int64_t n_groups, int64_t topk_group,
                    int64_t top_k, bool renormalize, float eps, float scaling) {
  std::vector<float> b(bias ? size_t(n_experts) : 0);
  for (size_t e = 0; e < b.size(); ++e) b[e] = to_float(bias[e]);
  const int n = int(n_experts), groups = int(n_groups), per_group = n / groups;
  parallel_for(0, num_tokens, 16, [&](int64_t lo, int64_t hi) {
    for (int64_t t = lo; t < hi; ++t) {
      const float* row = scores + t * n_experts;
      alignas(32) float v[kLanes];
      if (bias) {
        for (int e = 0; e < n; e += 8) (Vec8::load(row + e) + Vec8::load(&b[e])).store(v + e);
      } else {
        std::memcpy(v, row, sizeof(float) * size_t(n));
      }
      // Group score: the sum of the group's topk_group largest values, taken
      // one after another with -1.0 written over each.
      float group_score[kLanes / 8];
      for (int g = 0; g < groups; ++g) {
        alignas(32) float lanes[kLanes];
        std::memcpy(lanes, v + g * per_group, sizeof(float) * size_t(per_group));
        float score = 0.0f;
        for (int64_t k = 0; k < topk_group; ++k) {
          float m;
          score = score + (take_max(lanes, per_group, m) < 0 ? kNaN : m);
        }
        group_score[g] = score;
      }
      // Groups outside the best topk_group (ties to the lower group) count as 0.0.
      for (int g = 0; g < groups; ++g) {
        int64_t rank = 0;
        for (int j = 0; j < groups; ++j)
          rank += group_score[j] > group_score[g] || (group_score[j] == group_score[g] && j < g);
        if (rank >= topk_group)
          for (int e = g * per_group; e < (g + 1) * per_group; ++e) v[e] = 0.0f;
      }
      int id[kMaxTopK];
      float w[kMaxTopK];
      for (int k = 0; k < int(top_k); ++k) {
        float m;
        id[k] = take_max(v, n, m);
        if (id[k] < 0) id[k] = 0;  // nothing but NaN left: expert 0
        w[k] = row[id[k]];
      }
      if (renormalize) {
        const float total = weight_sum(w, int(top_k)) + eps;
        for (int k = 0; k < int(top_k); ++k) w[k] = w[k] / total;
      }
      for (int k = 0; k < int(top_k); ++k) w[k] = w[k] * scaling;
      store_choice(id, w, int(top_k), ids + t * top_k, weights + t * top_k);
    }
  });
}

#define VORTA_INSTANTIATE(T)                                                                  \
  template void moe_softmax_topk<T>(const T*, int64_t*, T*, int64_t, int64_t, int64_t, bool); \
  template void moe_group_topk<T>(const float*, const T*, int64_t*, T*, int64_t, int64_t,     \
                                  int64_t, int64_t, int64_t, bool, float, float);
VORTA_INSTANTIATE(float)
VORTA_INSTANTIATE(half)
#undef VORTA_INSTANTIATE

}  // namespace vorta::cpu
