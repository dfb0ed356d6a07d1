// Rotary position embedding on the CPU, in place (common/params/rotary.h).
// Declarations only, without an include guard: cpu/dispatch.cpp includes it
// once per instruction-set build.

#include "common/params/rotary.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN

template <typename T>  // float, half
void rotary_inv_freq(const RotaryFreqParams<T>& p);

template <typename T>  // float, half, bf16
void rotary_with_cache(const RotaryCacheParams<T>& p);

VORTA_ISA_END
}  // namespace vorta::cpu
