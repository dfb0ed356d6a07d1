#include <cstring>
#include <limits>
#include <vector>

#include "common/numeric.h"
#include "cpu/moe.h"
#include "cpu/parallel.h"
#include "cpu/simd/exp.h"
#include "cpu/simd/vec8.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace {

constexpr int kLanes = 256;  // widest expert row
constexpr int kMaxTopK = 32;
constexpr int kMaxGroups = kLanes / 16;  // groups hold a multiple of 16 experts
constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// The largest non-NaN value of v[0..n) (n a multiple of 8); -inf if none.
inline float max_value(const float* v, int n) {
  // max returns its second operand when either is NaN: the accumulator goes
  // second and never becomes NaN.
  Vec8 a0 = Vec8::broadcast(-kInf), a1 = a0;
  int i = 0;
  for (; i + 16 <= n; i += 16) {
    a0 = max(Vec8::load(v + i), a0);
    a1 = max(Vec8::load(v + i + 8), a1);
  }
  if (i < n) a0 = max(Vec8::load(v + i), a0);
  return reduce_max(max(a0, a1));
}

// Takes the largest value of v[0..n), the lowest lane on ties: stores it in
// `value`, writes NaN over its lane (which no maximum ever equals, so the lane
// is never taken again) and returns the lane. Returns -1 and leaves v alone
// when every lane is NaN or taken.
inline int take_max(float* v, int n, float& value) {
  const float m = max_value(v, n);
  for (int lane = 0; lane < n; ++lane) {
    if (v[lane] == m) {
      value = v[lane], v[lane] = kNaN;
      return lane;
    }
  }
  return -1;
}

// take_max repeated over any row, NaN lanes included.
class ScanSelector {
 public:
  void init(float* v, int n) { v_ = v, n_ = n; }
  int take(float& value) { return take_max(v_, n_, value); }

 private:
  float* v_ = nullptr;
  int n_ = 0;
};

// take_max repeated over a NaN-free row: the row is cut into blocks of 32
// lanes whose maxima are kept, so that a take looks at the block maxima and
// one block, then refreshes that block's maximum. Same choices as take_max.
// A taken lane becomes -inf and is flagged, so that it never ties with a real
// -inf lane.
class Selector {
 public:
  // v has room for n (a multiple of 8) rounded up to 32 lanes; the lanes past
  // n become -inf, flagged as taken, and are never chosen.
  void init(float* v, int n) {
    v_ = v;
    block_max_ = Vec8::broadcast(-kInf);
    const int padded = (n + 31) & ~31;
    blocks_ = padded / 32;
    for (int i = n; i < padded; i += 8) Vec8::broadcast(-kInf).store(v + i);
    for (unsigned& t : taken_) t = 0;
    if (n < padded) taken_[n / 32] = ~0u << (n % 32);
    for (int b = 0; b < blocks_; ++b) {
      const float* blk = v + 32 * b;
      set_block_max(b, Vec8::load(blk), Vec8::load(blk + 8), Vec8::load(blk + 16), Vec8::load(blk + 24));
    }
  }

  // Whole-vector loads and stores only: a narrow store read back by a wide
  // load would stall on store forwarding. Returns -1 when every lane is taken.
  int take(float& value) {
    const Vec8 m = broadcast_max(block_max_);
    int b = __builtin_ctz(lane_bits(cmp_eq(block_max_, m)));
    Vec8 x[4];
    unsigned hits = 0;
    load_block(b, m, x, hits);
    if (hits == 0) {
      // Only -inf is left and this block's -inf lanes are taken: the lowest
      // untaken lane of any block.
      b = 0;
      while (b < blocks_ && taken_[b] == ~0u) ++b;
      if (b == blocks_) return -1;
      load_block(b, m, x, hits);
      hits = ~taken_[b];
    }
    const unsigned first = hits & (0u - hits);
    taken_[b] |= first;
    for (int j = 0; j < 4; ++j) {
      x[j] = select(lane_mask(first >> (8 * j)), Vec8::broadcast(-kInf), x[j]);
      x[j].store(v_ + 32 * b + 8 * j);
    }
    set_block_max(b, x[0], x[1], x[2], x[3]);
    value = m[0];
    return 32 * b + __builtin_ctz(hits);
  }

 private:
  // Block b's lanes, and those of them that hold m and are not taken.
  void load_block(int b, Vec8 m, Vec8 (&x)[4], unsigned& hits) const {
    hits = 0;
    for (int j = 0; j < 4; ++j) {
      x[j] = Vec8::load(v_ + 32 * b + 8 * j);
      hits |= lane_bits(cmp_eq(x[j], m)) << (8 * j);
    }
    hits &= ~taken_[b];
  }

  void set_block_max(int b, Vec8 x0, Vec8 x1, Vec8 x2, Vec8 x3) {
    const Vec8 m = broadcast_max(max(max(x0, x1), max(x2, x3)));
    block_max_ = select(lane_mask(1u << b), m, block_max_);
  }

  float* v_ = nullptr;
  int blocks_ = 0;
  Vec8 block_max_;          // lane b: the largest value of lanes 32b..32b+31
  unsigned taken_[8] = {};  // bit l of word b: lane 32b + l is taken
};

inline bool has_nan(const float* v, int n) {
  bool nan = false;
  for (int i = 0; i < n; ++i) nan |= v[i] != v[i];
  return nan;
}

// Sums lanes 0..width-1 by halving folds (lane i + lane i + width/2, and so on
// down to one lane), in place.
inline float fold_sum(float* v, int width) {
  for (int w = width / 2; w >= 8; w /= 2)
    for (int i = 0; i < w; i += 8) (Vec8::load(v + i) + Vec8::load(v + i + w)).store(v + i);
  for (int w = 4; w >= 1; w /= 2)
    for (int i = 0; i < w; ++i) v[i] += v[i + w];
  return v[0];
}

// The halving-fold sum of 256 lanes whose lanes past n (a multiple of 8) are 0.0.
inline float lane_sum(const float* p, int n) {
  alignas(32) float s[kLanes / 2];
  for (int i = 0; i < kLanes / 2; i += 8) {
    const Vec8 a = i < n ? Vec8::load(p + i) : Vec8::zero();
    const Vec8 b = i + kLanes / 2 < n ? Vec8::load(p + i + kLanes / 2) : Vec8::zero();
    (a + b).store(s + i);
  }
  return fold_sum(s, kLanes / 2);
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
  const Vec8 vm = Vec8::broadcast(max_value(p, n)), l2e = Vec8::broadcast(exp_constants::kLog2e);
  for (int i = 0; i < n; i += 8) exp2((Vec8::load(p + i) - vm) * l2e).store(p + i);
  const float sum = lane_sum(p, n);

  int id[kMaxTopK];
  float w[kMaxTopK];
  if (!(sum > 0.0f)) {
    // A NaN (or empty) row: no lane equals its maximum, every choice is expert 0.
    for (int k = 0; k < top_k; ++k) id[k] = 0, w[k] = kNaN;
  } else {
    const Vec8 vs = Vec8::broadcast(sum);
    for (int i = 0; i < n; i += 8) (Vec8::load(p + i) / vs).store(p + i);
    // top_k <= n: every choice is a real lane.
    Selector lanes;
    lanes.init(p, n);
    for (int k = 0; k < top_k; ++k) id[k] = lanes.take(w[k]);
  }
  if (renormalize) {
    const float total = weight_sum(w, top_k);
    for (int k = 0; k < top_k; ++k) w[k] = w[k] / total;
  }
  store_choice(id, w, top_k, ids, weights);
}

struct GroupRouting {
  int n, groups, per_group, topk_group, top_k;
};

// The experts of one token from its biased scores v (overwritten).
template <typename Sel>
void choose_experts(const GroupRouting& r, float* v, int* id) {
  // Group score: the sum of the group's topk_group largest values, taken one
  // after another (a group of NaNs scores NaN). The groups take in turns so
  // that their independent dependency chains overlap.
  const int stride = (r.per_group + 31) & ~31;
  alignas(32) float lanes[2 * kLanes];
  Sel group[kMaxGroups];
  float group_score[kMaxGroups];
  for (int g = 0; g < r.groups; ++g) {
    float* mine = lanes + g * stride;
    for (int e = 0; e < r.per_group; e += 8) Vec8::load(v + g * r.per_group + e).store(mine + e);
    group[g].init(mine, r.per_group);
    group_score[g] = 0.0f;
  }
  for (int k = 0; k < r.topk_group; ++k) {
    for (int g = 0; g < r.groups; ++g) {
      float m;
      group_score[g] = group_score[g] + (group[g].take(m) < 0 ? kNaN : m);
    }
  }
  // Groups outside the best topk_group (ties to the lower group) count as 0.0.
  for (int g = 0; g < r.groups; ++g) {
    int rank = 0;
    for (int j = 0; j < r.groups; ++j)
      rank += group_score[j] > group_score[g] || (group_score[j] == group_score[g] && j < g);
    if (rank >= r.topk_group)
      for (int e = g * r.per_group; e < (g + 1) * r.per_group; ++e) v[e] = 0.0f;
  }
  Sel sel;
  sel.init(v, r.n);
  for (int k = 0; k < r.top_k; ++k) {
    float m;
    id[k] = sel.take(m);
    if (id[k] < 0) id[k] = 0;  // nothing but NaN left: expert 0
  }
}

}  // namespace

template <typename T>
void moe_softmax_topk(const MoeSoftmaxParams<T>& p) {
  const int64_t n_experts = p.n_experts, top_k = p.top_k;
  parallel_for(0, p.num_tokens, 16, [&](int64_t lo, int64_t hi) {
    for (int64_t t = lo; t < hi; ++t)
      softmax_topk_row(p.logits + t * n_experts, int(n_experts), int(top_k), p.renormalize,
                       p.ids + t * top_k, p.weights + t * top_k);
  });
}

template <typename T>
void moe_group_topk(const MoeGroupParams<T>& p) {
  const int64_t n_experts = p.n_experts, top_k = p.top_k;
  std::vector<float> b(p.bias ? size_t(n_experts) : 0);
  for (size_t e = 0; e < b.size(); ++e) b[e] = to_float(p.bias[e]);
  const GroupRouting r{int(n_experts), int(p.n_groups), int(n_experts / p.n_groups),
                       int(p.topk_group), int(top_k)};
  parallel_for(0, p.num_tokens, 16, [&](int64_t lo, int64_t hi) {
    for (int64_t t = lo; t < hi; ++t) {
      const float* row = p.scores + t * n_experts;
      alignas(32) float v[kLanes];
      if (p.bias) {
        for (int e = 0; e < r.n; e += 8) (Vec8::load(row + e) + Vec8::load(&b[e])).store(v + e);
      } else {
        std::memcpy(v, row, sizeof(float) * size_t(r.n));
      }
      int id[kMaxTopK];
      float w[kMaxTopK];
      if (has_nan(v, r.n))
        choose_experts<ScanSelector>(r, v, id);
      else
        choose_experts<Selector>(r, v, id);
      for (int k = 0; k < r.top_k; ++k) w[k] = row[id[k]];
      if (p.renormalize) {
        const float total = weight_sum(w, r.top_k) + p.eps;
        for (int k = 0; k < r.top_k; ++k) w[k] = w[k] / total;
      }
      for (int k = 0; k < r.top_k; ++k) w[k] = w[k] * p.scaling;
      store_choice(id, w, r.top_k, p.ids + t * top_k, p.weights + t * top_k);
    }
  });
}

template void moe_softmax_topk<float>(const MoeSoftmaxParams<float>&);
template void moe_softmax_topk<half>(const MoeSoftmaxParams<half>&);
template void moe_group_topk<float>(const MoeGroupParams<float>&);
template void moe_group_topk<half>(const MoeGroupParams<half>&);

VORTA_ISA_END
}  // namespace vorta::cpu
