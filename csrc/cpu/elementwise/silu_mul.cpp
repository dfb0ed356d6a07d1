#include "common/numeric.h"
#include "cpu/elementwise.h"
#include "cpu/parallel.h"
#include "cpu/simd/exp.h"
#include "cpu/simd/vec8.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN

template <typename T>
void silu_mul(const SiluMulParams<T>& p) {
  const Vec8 c = Vec8::broadcast(-exp_constants::kLog2e);
  const Vec8 one = Vec8::broadcast(1.0f);
  T* gate = p.gate;
  const T* up = p.up;
  parallel_for(0, p.nelem / 8, grain_for(8 * 3 * int64_t(sizeof(T))), [&](int64_t lo, int64_t hi) {
    for (int64_t i = lo * 8; i < hi * 8; i += 8) {
      const Vec8 g = Vec8::load(gate + i), u = Vec8::load(up + i);
      ((g * u) / (exp2(g * c) + one)).store(gate + i);
    }
  });
}

template void silu_mul<float>(const SiluMulParams<float>&);
template void silu_mul<half>(const SiluMulParams<half>&);

VORTA_ISA_END
}  // namespace vorta::cpu
