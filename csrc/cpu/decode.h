// Decode attention on the CPU (common/params/attention.h): a few query tokens
// per sequence against a key/value cache in full precision or in the 8-bit
// codes. The query heads that share a key/value head are served together, so
// every cache row is read once per call (per 64 query rows), whatever the
// group size. Head sizes are multiples of 8.
// Declarations only, without an include guard: cpu/dispatch.cpp includes it
// once per instruction-set build.

#include <cstddef>
#include <cstdint>

#include "common/params/attention.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN

// The bytes of workspace decode_attention needs for `in`.
template <typename T, typename C>
size_t decode_workspace_bytes(const DecodeInputs<T, C>& in);

// Single pass. Long key ranges are split across threads; the parts meet in
// the workspace and are combined before it returns.
template <typename T, typename C>
void decode_attention(const DecodeInputs<T, C>& in, const DecodeOutput<T>& out, void* workspace);

// Grouped first pass, for one query token (seq_length 1): runs of eight
// blocks of kDecodeKeyBlock keys, each leaving its statistics and result row
// in the slots of the run's index (the first ceil(nblocks / 8) slots).
template <typename T, typename C>
void decode_attention_blocks(const DecodeInputs<T, C>& in, const DecodeBlocks<T>& blocks);

// Grouped second pass: the softmax over all keys from the runs' results;
// out rows [bsz, num_heads, value_head_dim] (strides of dims 0 and 1).
template <typename T>
void combine_attention_blocks(const DecodeBlocks<T>& blocks, const DecodeOutput<T>& out,
                              int64_t bsz, int64_t num_heads, int64_t value_head_dim);

// Whether the kernels may take their 16-lane (AVX-512) forms where the CPU
// has them; on by default. Off lets tests run the 8-lane forms on any CPU.
void allow_wide_decode(bool allow);

VORTA_ISA_END
}  // namespace vorta::cpu
