// Host version of cuda/attention/memory.cuh for the emulation (see ../../../emulate.h).
#pragma once

#include <cstdint>
#include <cstring>

#include "common/numeric.h"

namespace vorta::cuda::attn {

inline float load_float(const float* p) { return *p; }
inline float load_float(const half* p) { return half_bits_to_float(p->bits); }
inline void store_float(float* p, float v) { *p = v; }
inline void store_float(half* p, float v) { p->bits = float_to_half_bits(v); }
inline uint32_t load_half_bits(const half* p) { return p->bits; }

inline uint32_t ld_bytes(const uint8_t* p, int n) {
  uint32_t w = 0;
  for (int i = 0; i < n; ++i) w |= uint32_t(p[i]) << (8 * i);
  return w;
}

// The read-once loads, alignment-checked as the GPU would fault.
inline uint4 ld_stream_16(const void* p) { return *emu::aligned_cast<const uint4>(p); }
inline uint2 ld_stream_8(const void* p) { return *emu::aligned_cast<const uint2>(p); }
inline uint32_t ld_stream_4(const void* p) { return *emu::aligned_cast<const uint32_t>(p); }
inline uint32_t ld_stream_2(const void* p) { return *emu::aligned_cast<const uint16_t>(p); }

inline uint8_t* dynamic_smem() { return emu::dynamic_shared.data(); }

}  // namespace vorta::cuda::attn
