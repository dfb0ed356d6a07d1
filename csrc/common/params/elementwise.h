// Element-wise and per-row operators of the generation loop.
#pragma once

#include <cstdint>

namespace vorta {

// gate[i] <- (g * u) / (2^(g * -log2 e) + 1) over nelem dense elements.
template <typename T>
struct SiluMulParams {
  T* gate;
  const T* up;
  int64_t nelem;
};

// For each sequence b: every logit scores[b, ids[b, j]] is divided by penalty
// when positive, else multiplied by it, once however often the id occurs.
// working [bsz, seq_len] holds the gathered values between gather and scatter.
// Row strides in elements; ids outside [0, vocab) are never dereferenced.
template <typename T>
struct PenaltyParams {
  T* scores;  // [bsz, vocab], unit stride along the vocabulary
  T* working;
  const int64_t* ids;  // [bsz, seq_len], unit stride along the sequence
  int64_t scores_stride, working_stride, ids_stride;
  int64_t bsz, seq_len, vocab;
  float penalty;
};

// Softmax over each of `rows` dense rows of n elements, statistics in float32.
template <typename T>
struct SoftmaxParams {
  T* attn;
  int64_t rows, n;
};

}  // namespace vorta
