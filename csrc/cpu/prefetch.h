// Software prefetch of element spans, for kernels whose next data the
// hardware's prefetcher would fetch too late (a new cache head, the next tile).
#pragma once

#include <cstdint>

#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN

// Cache levels for prefetch_span.
inline constexpr int kL1 = 3, kL2 = 2;

// Prefetches the cache lines of elements [first, first + n) of p, which may
// lie past the end of the data (a prefetch never faults), into level kL1 or kL2.
template <int Level = kL1, typename C>
inline void prefetch_span(const C* p, int64_t first, int64_t n) {
  const uintptr_t start = reinterpret_cast<uintptr_t>(p) + uintptr_t(first) * sizeof(C);
  for (uintptr_t a = start; a < start + uintptr_t(n) * sizeof(C); a += 64)
    __builtin_prefetch(reinterpret_cast<const void*>(a), 0, Level);
}

VORTA_ISA_END
}  // namespace vorta::cpu
