// The one kernel-launch routine.
//
// Every kernel of the library is launched through submit_kernel: it finds the
// current stream of the target device through torch's device-guard registry,
// records one profiler event under the kernel's display name and runs the
// kernel's backend launcher on that stream. It never waits for the device.
#pragma once

#include <c10/core/Device.h>

#include <functional>

#ifdef VORTA_WITH_CUDA
#include <cuda_runtime_api.h>
#endif
#include <c10/util/Exception.h>

namespace vorta {

// Where a kernel is launched: the device and, on GPU backends, the native
// stream handle (cudaStream_t on CUDA; null on the CPU, where a launch runs on
// the calling thread with torch's intra-op thread pool).
struct Stream {
  c10::Device device;
  void* native;
  bool is_cpu() const { return device.is_cpu(); }
#ifdef VORTA_WITH_CUDA
  cudaStream_t cuda() const { return static_cast<cudaStream_t>(native); }
#endif
};

using Kernel = std::function<void(const Stream&)>;

void submit_kernel(const Kernel& kernel, const c10::Device& device, const char* name);

// The devices this build has kernels for.
bool is_supported_device(const c10::Device& device);

}  // namespace vorta

// Wraps the CUDA branch of a launch: the call is compiled only into builds
// with the CUDA backend, and reaching it in other builds is a clear error.
#ifdef VORTA_WITH_CUDA
#define VORTA_CUDA(...) __VA_ARGS__
#else
#define VORTA_CUDA(...) TORCH_CHECK(false, "vorta_addons was built without the CUDA backend")
#endif
