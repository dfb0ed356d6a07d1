#include "cuda/device.h"

#include <cuda_runtime_api.h>

#include <memory>
#include <mutex>

namespace vorta::cuda {
namespace {

struct Slot {
  std::once_flag once;
  DeviceIdentity identity;
};

DeviceIdentity read_identity(int index) {
  DeviceIdentity id;
  cudaDeviceProp prop{};
  if (cudaGetDeviceProperties(&prop, index) != cudaSuccess) {
    cudaGetLastError();  // leave no error behind for the next launch check
    return id;
  }
  id.name = prop.name;
  id.warp_size = uint32_t(prop.warpSize);
  id.pci_device_id = uint32_t(prop.pciDeviceID);
  id.multiprocessors = prop.multiProcessorCount;
  return id;
}

}  // namespace

const DeviceIdentity& device_identity(int index) {
  static const int count = [] {
    int n = 0;
    if (cudaGetDeviceCount(&n) != cudaSuccess) {
      cudaGetLastError();
      n = 0;
    }
    return n;
  }();
  static const std::unique_ptr<Slot[]> slots(new Slot[count > 0 ? count : 1]);
  static const DeviceIdentity none;
  if (index < 0 && cudaGetDevice(&index) != cudaSuccess) {
    cudaGetLastError();
    return none;
  }
  if (index >= count) return none;
  Slot& slot = slots[index];
  std::call_once(slot.once, [&] { slot.identity = read_identity(index); });
  return slot.identity;
}

int multiprocessors() {
  const int n = device_identity(-1).multiprocessors;
  return n > 0 ? n : 1;
}

}  // namespace vorta::cuda
