// The one launch boundary.
//
// Every kernel of the library is launched through `launch`: it finds the
// current stream of the target device through torch's device-guard registry,
// records one profiler event under the kernel's display name and runs the
// launcher of the device's backend. It never waits for the device.
//
// A CPU launcher is a callable taking nothing; it runs on the calling thread
// and splits its work over torch's intra-op pool. A CUDA launcher takes the
// current cudaStream_t and returns the cudaError_t of its launches; an error
// becomes a RuntimeError naming the kernel.
#pragma once

#include <ATen/record_function.h>
#include <c10/core/Device.h>
#include <c10/core/DeviceGuard.h>
#include <c10/util/Exception.h>

#include <functional>
#include <optional>
#include <type_traits>

#include "ops/backends.h"

namespace vorta {

// The devices this build has kernels for.
bool is_supported_device(const c10::Device& device);

namespace detail {

// Everything a launch does around its launcher: the guard lookup (PyTorch's
// "not linked with support" error for unknown device types), the supported-
// device check, the device guard, the current stream and the profiler record.
class LaunchScope {
 public:
  LaunchScope(const c10::Device& device, const char* name);
  void* native_stream() const { return native_stream_; }

 private:
  c10::DeviceGuard device_guard_;
  void* native_stream_ = nullptr;
  at::RecordFunction record_;
};

[[noreturn]] void raise_no_cuda_kernels(const char* op, const c10::Device& device);
[[noreturn]] void raise_unsupported_device(const c10::Device& device);
#if VORTA_WITH_CUDA
void check_cuda_launch(cudaError_t err, const char* name);
#endif

}  // namespace detail

template <class CpuLauncher, class CudaLauncher>
void launch(const c10::Device& device, const char* name, CpuLauncher&& cpu, CudaLauncher&& cuda) {
  detail::LaunchScope scope(device, name);
  if (device.is_cpu()) {
    cpu();
    return;
  }
#if VORTA_WITH_CUDA
  if (device.is_cuda()) {
    if constexpr (std::is_same_v<std::decay_t<CudaLauncher>, NoCudaKernels>)
      detail::raise_no_cuda_kernels(cuda.op, device);
    else
      detail::check_cuda_launch(cuda(static_cast<cudaStream_t>(scope.native_stream())), name);
    return;
  }
#endif
  detail::raise_unsupported_device(device);
}

// ---------------------------------------------------------------------------
// The previous routine, kept until every operator group calls `launch`.

struct Stream {
  c10::Device device;
  void* native;
  bool is_cpu() const { return device.is_cpu(); }
#if VORTA_WITH_CUDA
  cudaStream_t cuda() const { return static_cast<cudaStream_t>(native); }
#endif
};

using Kernel = std::function<void(const Stream&)>;

void submit_kernel(const Kernel& kernel, const c10::Device& device, const char* name);

}  // namespace vorta

// Operators still on submit_kernel have no CUDA launchers.
#define VORTA_CUDA(...) TORCH_CHECK(false, "vorta_addons has no CUDA kernels for this operator yet")
