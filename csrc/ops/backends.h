// Which backends this build has kernels for, per operator group.
//
// The CPU backend is always built and serves every group. CUDA kernels come
// group by group: CMake defines VORTA_CUDA_<GROUP>=1 for each group whose
// sources under csrc/cuda/ it compiles, so a group without them still builds
// and its operators raise a clear error on a CUDA tensor.
#pragma once

#ifndef VORTA_WITH_CUDA
#define VORTA_WITH_CUDA 0
#endif

#ifndef VORTA_CUDA_NORM
#define VORTA_CUDA_NORM 0
#endif
#ifndef VORTA_CUDA_ELEMENTWISE
#define VORTA_CUDA_ELEMENTWISE 0
#endif
#ifndef VORTA_CUDA_ROTARY
#define VORTA_CUDA_ROTARY 0
#endif
#ifndef VORTA_CUDA_KV_CACHE
#define VORTA_CUDA_KV_CACHE 0
#endif
#ifndef VORTA_CUDA_MOE
#define VORTA_CUDA_MOE 0
#endif
#ifndef VORTA_CUDA_DECODE
#define VORTA_CUDA_DECODE 0
#endif
#ifndef VORTA_CUDA_PREFILL
#define VORTA_CUDA_PREFILL 0
#endif

#if VORTA_WITH_CUDA
#include <cuda_runtime_api.h>
#endif

namespace vorta {

// The CUDA launcher of an operator whose group has no CUDA kernels in this
// build; the launch boundary raises for it, naming the operator.
struct NoCudaKernels {
  const char* op;
};

}  // namespace vorta

#define VORTA_PP_CAT_(a, b) a##b
#define VORTA_PP_CAT(a, b) VORTA_PP_CAT_(a, b)
#define VORTA_CUDA_IF_1(op, ...) __VA_ARGS__
#define VORTA_CUDA_IF_0(op, ...) ::vorta::NoCudaKernels{op}

// VORTA_CUDA_LAUNCHER(NORM, "rms_norm", [&](cudaStream_t s) { return cuda::rms_norm(p, s); })
// is the lambda when the group has CUDA kernels, NoCudaKernels{"rms_norm"} otherwise;
// the lambda is not compiled in builds without them.
#define VORTA_CUDA_LAUNCHER(GROUP, op, ...) \
  VORTA_PP_CAT(VORTA_CUDA_IF_, VORTA_CUDA_##GROUP)(op, __VA_ARGS__)

// The same for a host-side query of the group's CUDA backend (see ask_backend):
// VORTA_CUDA_QUERY(DECODE, "sdp", [&] { return cuda::decode_workspace_bytes(in); }).
#define VORTA_CUDA_QUERY(GROUP, op, ...) VORTA_CUDA_LAUNCHER(GROUP, op, __VA_ARGS__)
