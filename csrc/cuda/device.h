// What the CUDA backend reads about a device, once per device: a device's
// name, warp width, PCI id and multiprocessor count never change, and
// cudaGetDeviceProperties costs far more than a kernel launch.
#pragma once

#include <cstdint>
#include <string>

namespace vorta::cuda {

struct DeviceIdentity {
  std::string name;
  uint32_t warp_size = 0;
  uint32_t pci_device_id = 0;
  int multiprocessors = 0;
};

// Device `index` (-1: the current device); an empty identity when the
// runtime cannot describe it.
const DeviceIdentity& device_identity(int index);

// Multiprocessors of the current device (at least 1), for sizing grids.
int multiprocessors();

}  // namespace vorta::cuda
