// Device family of a torch device.
#pragma once

#include <c10/core/Device.h>

#include <optional>

#include "common/device_family.h"

namespace vorta {

// Queries the device for its name, SIMD width and id and classifies it.
// CPUs and CUDA GPUs report their own names and normally classify as OTHER.
DeviceFamily get_device_family(const c10::Device& device);

// Test hook: while set, get_device_family returns this family for every
// device, so that family-specific paths can be exercised on any hardware.
void set_device_family_override(std::optional<DeviceFamily> family);

}  // namespace vorta
