// Rotary position embedding on the CPU, in place (common/params/rotary.h).
#pragma once

#include "common/params/rotary.h"

namespace vorta::cpu {

template <typename T>  // float, half
void rotary_inv_freq(const RotaryFreqParams<T>& p);

template <typename T>  // float, half, bf16
void rotary_with_cache(const RotaryCacheParams<T>& p);

}  // namespace vorta::cpu
