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
  parallel_for(0, p.nelem / 8, grain_for(8 * 3 * int64_t(sizeof(T))), [=](int64_t lo, int64_t hi) {
    int64_t i = lo * 8;
    // kGroup vectors per step, their operations side by side (one vector's
    // chain of exp2 and division is long against its work), and one range
    // check for all: exp2_normal where every argument is in its range (a NaN
    // may pass: the result is then g * u's NaN either way), exp2 otherwise.
    constexpr int kGroup = 8;
    for (; i + 8 * kGroup <= hi * 8; i += 8 * kGroup) {
      Vec8 g[kGroup], u[kGroup], a[kGroup], e[kGroup];
      for (int k = 0; k < kGroup; ++k)
        g[k] = Vec8::load(gate + i + 8 * k), u[k] = Vec8::load(up + i + 8 * k), a[k] = g[k] * c;
      Vec8 least = a[0], most = a[0];
      for (int k = 1; k < kGroup; ++k) least = min(least, a[k]), most = max(most, a[k]);
      if (exp2_normal_range(least, most))
        for (int k = 0; k < kGroup; ++k) e[k] = exp2_normal(a[k]);
      else
        for (int k = 0; k < kGroup; ++k) e[k] = exp2(a[k]);
      for (int k = 0; k < kGroup; ++k) ((g[k] * u[k]) / (e[k] + one)).store(gate + i + 8 * k);
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
