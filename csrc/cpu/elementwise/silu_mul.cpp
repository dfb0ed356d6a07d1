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
  const Vec8 lo_arg = Vec8::broadcast(-125.0f), hi_arg = Vec8::broadcast(127.0f);
  parallel_for(0, p.nelem / 8, grain_for(8 * 3 * int64_t(sizeof(T))), [=](int64_t lo, int64_t hi) {
    int64_t i = lo * 8;
    // Two vectors per step, one range check for both: exp2_normal where every
    // argument is in its range (NaNs may pass: the result is then g * u's
    // NaN either way), exp2 otherwise.
    for (; i + 16 <= hi * 8; i += 16) {
      const Vec8 g0 = Vec8::load(gate + i), u0 = Vec8::load(up + i);
      const Vec8 g1 = Vec8::load(gate + i + 8), u1 = Vec8::load(up + i + 8);
      const Vec8 a0 = g0 * c, a1 = g1 * c;
      Vec8 e0, e1;
      if (lane_bits(bit_and(cmp_ge(min(a0, a1), lo_arg), cmp_le(max(a0, a1), hi_arg))) == 0xffu) {
        e0 = exp2_normal(a0);
        e1 = exp2_normal(a1);
      } else {
        e0 = exp2(a0);
        e1 = exp2(a1);
      }
      ((g0 * u0) / (e0 + one)).store(gate + i);
      ((g1 * u1) / (e1 + one)).store(gate + i + 8);
    }
    for (; i < hi * 8; i += 8) {
      const Vec8 g = Vec8::load(gate + i), u = Vec8::load(up + i);
      ((g * u) / (exp2(g * c) + one)).store(gate + i);
    }
  });
}

template void silu_mul<float>(const SiluMulParams<float>&);
template void silu_mul<half>(const SiluMulParams<half>&);

VORTA_ISA_END
}  // namespace vorta::cpu
