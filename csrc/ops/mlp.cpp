// Gated SiLU activation: checks and launch.
#include "common/fatal.h"
#include "cpu/mlp.h"
#include "ops/dispatch.h"
#include "ops/launch.h"
#include "ops/ops.h"

namespace vorta {
namespace {

constexpr char kAssertSource[] = "mlp";

// Each device work-item owns one block of BS elements. `more_checks` runs
// after the launch preconditions, before the launch.
template <typename T, int BS, typename Checks>
void mlp_silu_mul_inplaced_kernel(void* gate, const void* up, int64_t nelem,
                                  const c10::Device& device, Checks more_checks) {
  VORTA_ASSERT(nelem % BS == 0);
  more_checks();
  auto g = static_cast<T*>(gate);
  auto u = static_cast<const T*>(up);
  submit_kernel(
      [=](const Stream& s) {
        if (s.is_cpu()) return cpu::silu_mul<T>(g, u, nelem);
        VORTA_CUDA(cuda::silu_mul<T>(g, u, nelem, s.cuda()));
      },
      device, "mlp silu_mul");
}

}  // namespace

void mlp_silu_mul_inplaced(const at::Tensor& gate, const at::Tensor& up) {
  VORTA_ASSERT(gate.is_contiguous() && up.is_contiguous());
  VORTA_ASSERT(gate.numel() == up.numel());
  VORTA_ASSERT(gate.scalar_type() == up.scalar_type());
  dispatch_float_half(gate.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    mlp_silu_mul_inplaced_kernel<T, 128>(gate.data_ptr(), up.const_data_ptr(), gate.numel(),
                                         gate.device(), [&] {
      TORCH_CHECK(up.device() == gate.device(), "up must be on gate's device");
    });
  });
}

}  // namespace vorta
