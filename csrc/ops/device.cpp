#include "ops/device.h"

#include <c10/core/impl/DeviceGuardImplInterface.h>

#include "ops/backends.h"

#include <atomic>
#include <fstream>
#include <string>

#if VORTA_WITH_CUDA
#include "cuda/device.h"
#endif

namespace vorta {
namespace {

std::atomic<int> g_family_override{-1};

struct DeviceInfo {
  std::string name;
  uint32_t simd_width;
  uint32_t device_id;
};

DeviceInfo cpu_info() {
  static const std::string name = [] {
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line))
      if (line.rfind("model name", 0) == 0) {
        auto colon = line.find(':');
        return colon == std::string::npos ? std::string("cpu") : line.substr(colon + 2);
      }
    return std::string("cpu");
  }();
  // Float lanes of the CPU kernels' vectors: eight in every build (cpu/isa.h).
  return {name, 8, 0};
}

DeviceInfo query(const c10::Device& device) {
  if (device.is_cpu()) return cpu_info();
#if VORTA_WITH_CUDA
  if (device.is_cuda()) {
    // Read once per device: cudaGetDeviceProperties costs more than a launch.
    const cuda::DeviceIdentity& id = cuda::device_identity(device.index());
    return {id.name, id.warp_size, id.pci_device_id};
  }
#endif
  return {"", 0, 0};
}

}  // namespace

DeviceFamily get_device_family(const c10::Device& device) {
  // Like a launch, the query needs a guard for the device type.
  c10::impl::getDeviceGuardImpl(device.type());
  int forced = g_family_override.load(std::memory_order_relaxed);
  if (forced >= 0) return static_cast<DeviceFamily>(forced);
  DeviceInfo info = query(device);
  return classify_device(info.name, info.simd_width, info.device_id);
}

void set_device_family_override(std::optional<DeviceFamily> family) {
  g_family_override.store(family ? static_cast<int>(*family) : -1, std::memory_order_relaxed);
}

}  // namespace vorta
