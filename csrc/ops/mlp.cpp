// Gated SiLU activation: checks and launch.
#include "common/fatal.h"
#include "cpu/elementwise.h"
#include "ops/dispatch.h"
#include "ops/launch.h"
#include "ops/ops.h"

#if VORTA_CUDA_ELEMENTWISE
#include "cuda/elementwise.h"
#endif

namespace vorta {
namespace {

constexpr char kAssertSource[] = "mlp";

// Each device work-item owns one block of BS elements.
constexpr int64_t BS = 128;

template <typename T>
void silu_mul_launcher(const SiluMulParams<T>& p, const c10::Device& device) {
  launch(device, "mlp silu_mul", [&] { cpu::silu_mul(p); },
         VORTA_CUDA_LAUNCHER(ELEMENTWISE, "mlp_silu_mul_inplaced",
                             [&](cudaStream_t s) { return cuda::silu_mul(p, s); }));
}

}  // namespace

void mlp_silu_mul_inplaced(const at::Tensor& gate, const at::Tensor& up) {
  VORTA_ASSERT(gate.is_contiguous() && up.is_contiguous());
  VORTA_ASSERT(gate.numel() == up.numel());
  VORTA_ASSERT(gate.scalar_type() == up.scalar_type());
  dispatch_float_half(gate.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    const int64_t nelem = gate.numel();
    VORTA_ASSERT(nelem % BS == 0);
    TORCH_CHECK(up.device() == gate.device(), "up must be on gate's device");
    silu_mul_launcher(SiluMulParams<T>{mut_ptr<T>(gate), const_ptr<T>(up), nelem}, gate.device());
  });
}

}  // namespace vorta
