#include "ops/launch.h"

#include <ATen/record_function.h>
#include <c10/core/DeviceGuard.h>
#include <c10/core/impl/DeviceGuardImplInterface.h>

namespace vorta {

bool is_supported_device(const c10::Device& device) {
#ifdef VORTA_WITH_CUDA
  if (device.is_cuda()) return true;
#endif
  return device.is_cpu();
}

void submit_kernel(const Kernel& kernel, const c10::Device& device, const char* name) {
  // Throws "PyTorch is not linked with support for <type> devices" when no
  // guard is registered for the device type.
  const c10::impl::DeviceGuardImplInterface* guard_impl = c10::impl::getDeviceGuardImpl(device.type());
  c10::DeviceGuard device_guard(device);
  c10::Stream stream = guard_impl->getStream(device);
  TORCH_CHECK(is_supported_device(device), "vorta_addons was built without kernels for ",
              device.type(), " devices");
  void* native = device.is_cpu() ? nullptr : reinterpret_cast<void*>(stream.native_handle());
  RECORD_FUNCTION(name, c10::ArrayRef<const c10::IValue>{});
  kernel(Stream{device, native});
}

}  // namespace vorta
