// Host stand-ins for cuda/attention/memory.cuh (see ../../prelude.h).
#pragma once

#include <cstdint>
#include <cstring>

#include "common/numeric.h"

namespace vorta::cuda::attn {

inline float load_float(const float* p) { return *p; }
inline float load_float(const half* p) { return half_bits_to_float(p->bits); }
inline void store_float(float* p, float v) { *p = v; }
inline void store_float(half* p, float v) {
  const __half h = __float2half_rn(v);
  std::memcpy(p, &h, 2);
}
inline uint32_t load_half_bits(const half* p) { return p->bits; }

inline uint32_t ld_bytes(const uint8_t* p, int n) {
  uint32_t w = 0;
  for (int i = 0; i < n; ++i) w |= uint32_t(p[i]) << (8 * i);
  return w;
}

inline void check_aligned(const void* p, int bytes) {
  if (reinterpret_cast<uintptr_t>(p) % bytes) {
    std::fprintf(stderr, "emulation: misaligned %d-byte global load\n", bytes);
    std::abort();
  }
}
inline uint4 ld_stream_16(const void* p) {
  check_aligned(p, 16);
  uint4 v;
  std::memcpy(&v, p, 16);
  return v;
}
inline uint2 ld_stream_8(const void* p) {
  check_aligned(p, 8);
  uint2 v;
  std::memcpy(&v, p, 8);
  return v;
}
inline uint32_t ld_stream_4(const void* p) {
  check_aligned(p, 4);
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}
inline uint32_t ld_stream_2(const void* p) {
  check_aligned(p, 2);
  uint16_t v;
  std::memcpy(&v, p, 2);
  return v;
}

inline uint8_t* dynamic_smem() { return emu::self.cta->smem_base(); }

}  // namespace vorta::cuda::attn
