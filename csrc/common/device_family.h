// GPU family classification.
//
// The family decides which attention paths and kernel variants a device can
// run. Classification is a pure function of what the device reports about
// itself, so it can be tested without the hardware.
#pragma once

#include <cstdint>
#include <string_view>

namespace vorta {

enum class DeviceFamily : int {
  KESTREL = 0,  // first-generation discrete parts and the HARRIER server variant
  CONDOR = 1,   // data-centre parts
  WREN = 2,     // integrated parts
  FINCH = 3,    // second-generation parts
  OSPREY = 4,   // never detected; admitted wherever FINCH is
  LARK = 5,
  LEGACY = 6,   // older integrated parts
  OTHER = 7,
};

// PCI device ids of the parts that are recognised by id rather than by name.
// LARK is compared with bit 7 cleared, so it must not have that bit set.
inline constexpr uint32_t kLarkDeviceId = 0x7d40;
inline constexpr uint32_t kWrenDeviceIds[3] = {0x7d45, 0x7d55, 0x7dd5};
static_assert((kLarkDeviceId & 0x80u) == 0, "LARK id is compared with bit 7 cleared");

// Classifies a device from its name, its SIMD width and its PCI device id.
// Name tests come first and the first match wins; the SIMD width only matters
// for "Kestrel(TM)" names and the id only for unnamed devices.
DeviceFamily classify_device(std::string_view name, uint32_t simd_width, uint32_t device_id);

// The families whose devices have a matrix engine.
constexpr bool has_matrix_engine(DeviceFamily f) {
  return f == DeviceFamily::KESTREL || f == DeviceFamily::FINCH || f == DeviceFamily::OSPREY ||
         f == DeviceFamily::LARK;
}

}  // namespace vorta
