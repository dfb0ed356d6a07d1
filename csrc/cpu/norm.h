// RMS and layer normalisation over rows of a dense [num_tokens, hidden_size] matrix.
#pragma once

#include <cstdint>

namespace vorta::cpu {

// weight [hidden_size], input/output [num_tokens, hidden_size]
template <typename T>
void rms_norm(const T* weight, const T* input, T* output, float eps, int64_t num_tokens,
              int64_t hidden_size);

// weight and bias [hidden_size] or null
template <typename T>
void layer_norm(const T* input, const T* weight, const T* bias, T* output, float eps,
                int64_t num_tokens, int64_t hidden_size);

}  // namespace vorta::cpu
