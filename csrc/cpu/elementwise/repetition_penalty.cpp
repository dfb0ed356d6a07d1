#include "common/numeric.h"
#include "cpu/elementwise.h"
#include "cpu/parallel.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace {

constexpr int64_t kAhead = 48;  // gathers in flight per sequence

}  // namespace

template <typename T>
void repetition_penalty(const PenaltyParams<T>& p) {
  const int64_t seq_len = p.seq_len;
  const float penalty = p.penalty;
  // An id outside the vocabulary names no logit: it is neither read nor written.
  auto valid = [vocab = uint64_t(p.vocab)](int64_t id) { return uint64_t(id) < vocab; };
  parallel_for(0, p.bsz, grain_for(seq_len * 32), [&](int64_t lo, int64_t hi) {
    for (int64_t b = lo; b < hi; ++b) {
      T* row = p.scores + b * p.scores_stride;
      T* w = p.working + b * p.working_stride;
      const int64_t* id = p.ids + b * p.ids_stride;
      for (int64_t j = 0; j < seq_len; ++j) {
        // Random columns of a long row: ask for later ones early (a prefetch never faults).
        if (j + kAhead < seq_len && valid(id[j + kAhead])) __builtin_prefetch(row + id[j + kAhead]);
        if (!valid(id[j])) continue;
        const float x = to_float(row[id[j]]);
        w[j] = from_float<T>(x > 0.0f ? x / penalty : x * penalty);
      }
      for (int64_t j = 0; j < seq_len; ++j)
        if (valid(id[j])) row[id[j]] = w[j];
    }
  });
}

template void repetition_penalty<float>(const PenaltyParams<float>&);
template void repetition_penalty<half>(const PenaltyParams<half>&);

VORTA_ISA_END
}  // namespace vorta::cpu
