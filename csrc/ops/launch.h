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

// The device-guard lookup and the supported-device check of a launch, alone.
void check_launch_device(const c10::Device& device);
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

// A host-side question to the backend a launch on `device` would run (the
// bytes of workspace it needs), answered on the calling thread. A CUDA query
// comes from VORTA_CUDA_QUERY; devices without kernels fail as a launch would.
template <class CpuQuery, class CudaQuery>
auto ask_backend(const c10::Device& device, CpuQuery&& cpu, CudaQuery&& cuda) -> decltype(cpu()) {
#if VORTA_WITH_CUDA
  if (device.is_cuda()) {
    if constexpr (std::is_same_v<std::decay_t<CudaQuery>, NoCudaKernels>)
      detail::raise_no_cuda_kernels(cuda.op, device);
    else
      return cuda();
  }
#endif
  if (!device.is_cpu()) detail::check_launch_device(device);
  return cpu();
}

}  // namespace vorta
