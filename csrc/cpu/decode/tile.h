// What the score and value tiles of decode attention work on: the buffers of
// one row tile, up to kMaxRows query rows that share a key/value head, fed
// one block of at most kBlock keys at a time.
#pragma once

#include <cstdint>

#include "common/params/attention.h"
#include "cpu/isa.h"
#include "cpu/prefetch.h"

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

}  // namespace decode
VORTA_ISA_END
}  // namespace vorta::cpu
