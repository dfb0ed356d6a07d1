// Key/value cache rows to and from the 8-bit codes on the CPU
// (common/params/kv_cache.h).
// Declarations only, without an include guard: cpu/dispatch.cpp includes it
// once per instruction-set build.

#include <cstdint>

#include "common/params/kv_cache.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN

template <typename T>  // float, half
void quantize_key_value(const KvConvertParams<T, uint8_t>& p);

template <typename T>  // float, half
void dequantize_key_value(const KvConvertParams<uint8_t, T>& p);

VORTA_ISA_END
}  // namespace vorta::cpu
