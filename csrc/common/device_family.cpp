#include "common/device_family.h"

namespace vorta {

DeviceFamily classify_device(std::string_view name, uint32_t simd_width, uint32_t device_id) {
  auto has = [&](std::string_view s) { return name.find(s) != std::string_view::npos; };
  // Longer names before the names they contain.
  if (has("Condor Server GPU")) return DeviceFamily::CONDOR;
  if (has("Kestrel(TM) K")) return DeviceFamily::KESTREL;
  if (has("Harrier Server GPU")) return DeviceFamily::KESTREL;
  if (has("Kestrel(TM)")) return simd_width == 8 ? DeviceFamily::WREN : DeviceFamily::FINCH;
  if (has("Wisp") || has("Glim")) return DeviceFamily::LEGACY;
  if ((device_id & ~0x80u) == kLarkDeviceId) return DeviceFamily::LARK;
  for (uint32_t id : kWrenDeviceIds)
    if (device_id == id) return DeviceFamily::WREN;
  return DeviceFamily::OTHER;
}

}  // namespace vorta
