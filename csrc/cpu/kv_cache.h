// Key/value cache rows to and from the 8-bit codes on the CPU
// (common/params/kv_cache.h).
#pragma once

#include <cstdint>

#include "common/params/kv_cache.h"

namespace vorta::cpu {

template <typename T>  // float, half
void quantize_key_value(const KvConvertParams<T, uint8_t>& p);

template <typename T>  // float, half
void dequantize_key_value(const KvConvertParams<uint8_t, T>& p);

}  // namespace vorta::cpu
