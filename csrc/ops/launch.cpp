#include "ops/launch.h"

#include <c10/core/impl/DeviceGuardImplInterface.h>

namespace vorta {

bool is_supported_device(const c10::Device& device) {
#if VORTA_WITH_CUDA
  if (device.is_cuda()) return true;
#endif
  return device.is_cpu();
}

namespace detail {
namespace {

// Throws "PyTorch is not linked with support for <type> devices" when no
// guard is registered for the device type, then rejects devices this build
// has no kernels for.
const c10::impl::DeviceGuardImplInterface* checked_guard(const c10::Device& device) {
  const c10::impl::DeviceGuardImplInterface* impl = c10::impl::getDeviceGuardImpl(device.type());
  if (!is_supported_device(device)) raise_unsupported_device(device);
  return impl;
}

}  // namespace

LaunchScope::LaunchScope(const c10::Device& device, const char* name)
    : device_guard_((checked_guard(device), device)), record_(at::RecordScope::FUNCTION) {
  if (!device.is_cpu()) {
    c10::Stream stream = c10::impl::getDeviceGuardImpl(device.type())->getStream(device);
    native_stream_ = reinterpret_cast<void*>(stream.native_handle());
  }
  if (record_.isActive()) record_.before(name);
}

void check_launch_device(const c10::Device& device) { checked_guard(device); }

void raise_no_cuda_kernels(const char* op, const c10::Device& device) {
  TORCH_CHECK(false, op, ": this build of vorta_addons has no CUDA kernels for it (tensor on ",
              device, ")");
}

void raise_unsupported_device(const c10::Device& device) {
  TORCH_CHECK(false, "vorta_addons was built without kernels for ", device.type(), " devices");
}

#if VORTA_WITH_CUDA
void check_cuda_launch(cudaError_t err, const char* name) {
  TORCH_CHECK(err == cudaSuccess, "vorta_addons: launching \"", name, "\" failed: ",
              cudaGetErrorString(err));
}
#endif

}  // namespace detail

}  // namespace vorta
