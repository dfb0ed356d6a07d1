// Row normalisation: one launch normalises every row of a dense matrix.
#pragma once

#include <cstdint>

namespace vorta {

// input and output [rows, hidden], dense rows; weight and bias [hidden].
// rms norm:   y = x * rsqrt(mean(x^2) + eps) * w
// layer norm: y = (x - mean) * rsqrt(var + eps) [* w] [+ b], var two-pass
template <typename T>
struct NormParams {
  const T* input;
  const T* weight;  // null: none (layer norm only)
  const T* bias;    // null: none (layer norm only)
  T* output;
  int64_t rows, hidden;
  float eps;
};

}  // namespace vorta
