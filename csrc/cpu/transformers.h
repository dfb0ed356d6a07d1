// Generation-loop helpers: repetition penalty on logits, softmax of attention scores.
#pragma once

#include <cstdint>

namespace vorta::cpu {

// For each sequence b < bsz: every logit scores[b, ids[b, j]] (j < seq_len) is
// divided by penalty when positive, else multiplied by it. All positions of a
// sequence are gathered into working[b, :] before any is written back, so a
// repeated id is penalised once. Strides are row strides in elements.
template <typename T>
void repetition_penalty(T* scores, T* working, const int64_t* ids, int64_t scores_stride,
                        int64_t working_stride, int64_t ids_stride, float penalty, int64_t seq_len,
                        int64_t bsz);

// Softmax over each of the `rows` contiguous rows of n elements, in float32.
template <typename T>
void attn_softmax(T* attn, int64_t rows, int64_t n);

}  // namespace vorta::cpu
