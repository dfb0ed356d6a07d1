// What the score and value tiles of decode attention work on: the buffers of
// one row tile, up to kMaxRows query rows that share a key/value head, fed
// one block of at most kBlock keys at a time.
#pragma once

#include <cstdint>

#include "common/params/attention.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN
namespace decode {

// Keys per step of a row tile: twice the blocks of the grouped temporaries,
// so that the per-step work (the softmax statistics, the value tiles'
// accumulators in and out of registers) weighs half as much.
inline constexpr int kBlock = 2 * int(kDecodeKeyBlock);
inline constexpr int64_t kMaxRows = 64;  // query rows served by one pass over a cache head

// Rows [i, i + R) of a tile read q and p and update acc; the row widths are
// d (keys) and dv (values). Keys and values of the block are rows of d and
// dv consecutive elements.
struct TileRows {
  int64_t d, dv;
  float* q;      // [rows, d] the queries as floats
  float* p;      // [rows, kBlock] the block's scores, then its weights
  float* acc;    // [rows, dv] the weighted value rows so far
  float* alpha;  // [rows] what acc is multiplied by before the block is added
  bool fresh;    // acc holds no keys yet: the 8-lane value tiles start from zero
};

// Cache levels for prefetch_span.
inline constexpr int kL1 = 3, kL2 = 2;

// Prefetches the cache lines of elements [first, first + n) of p, which may
// lie past the end of the cache (a prefetch never faults), into level kL1 or kL2.
template <int Level = kL1, typename C>
inline void prefetch_span(const C* p, int64_t first, int64_t n) {
  const uintptr_t start = reinterpret_cast<uintptr_t>(p) + uintptr_t(first) * sizeof(C);
  for (uintptr_t a = start; a < start + uintptr_t(n) * sizeof(C); a += 64)
    __builtin_prefetch(reinterpret_cast<const void*>(a), 0, Level);
}

}  // namespace decode
VORTA_ISA_END
}  // namespace vorta::cpu
