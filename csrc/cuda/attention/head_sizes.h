// The head sizes the attention kernels are instantiated for, in one place.
#pragma once

#include <cuda_runtime.h>

#include <cstdint>
#include <type_traits>

namespace vorta::cuda::attn {

template <int N>
using Size = std::integral_constant<int, N>;

// f(Size<DK>{}, Size<DV>{}) for key and value rows of dk and dv components:
// 64, 80, 96, 128, 192 or 256 each, or, with 8-bit codes, 192-component keys
// with 128-component values. Other sizes (the operator layer admits none)
// give cudaErrorInvalidValue.
template <bool kCodes, typename F>
cudaError_t with_head_sizes(int64_t dk, int64_t dv, F&& f) {
  if constexpr (kCodes)
    if (dk == 192 && dv == 128) return f(Size<192>{}, Size<128>{});
  if (dk != dv) return cudaErrorInvalidValue;
  switch (dk) {
    case 64: return f(Size<64>{}, Size<64>{});
    case 80: return f(Size<80>{}, Size<80>{});
    case 96: return f(Size<96>{}, Size<96>{});
    case 128: return f(Size<128>{}, Size<128>{});
    case 192: return f(Size<192>{}, Size<192>{});
    case 256: return f(Size<256>{}, Size<256>{});
    default: return cudaErrorInvalidValue;
  }
}

}  // namespace vorta::cuda::attn
