// Gated SiLU of the feed-forward block, in place over the gate.
#pragma once

#include <cstdint>

namespace vorta::cpu {

// gate[i] <- (g * u) / (2^(g * -log2(e)) + 1), computed in float and rounded
// once to T; nelem is a multiple of 8.
template <typename T>
void silu_mul(T* gate, const T* up, int64_t nelem);

}  // namespace vorta::cpu
