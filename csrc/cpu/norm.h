// RMS and layer normalisation on the CPU (common/params/norm.h).
// Declarations only, without an include guard: cpu/dispatch.cpp includes it
// once per instruction-set build.

#include "common/params/norm.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN

template <typename T>
void rms_norm(const NormParams<T>& p);

template <typename T>
void layer_norm(const NormParams<T>& p);  // weight and bias may be null

VORTA_ISA_END
}  // namespace vorta::cpu
