// Decode attention on CUDA GPUs: a few query tokens per sequence against a
// key/value cache in full precision or in the 8-bit codes.
//
// (T, C) is one of (float, float), (half, half), (float, uint8_t) and
// (half, uint8_t); head sizes 64, 80, 96, 128, 192 and 256, and with 8-bit
// codes also 192-component keys with 128-component values. Launchers enqueue
// on `stream`, never wait, and return the launch error.
#pragma once

#include <cuda_runtime.h>

#include <cstddef>
#include <cstdint>

#include "common/numeric.h"
#include "common/params/attention.h"

namespace vorta::cuda {

// For tuning runs: query rows x splits wanted per call and the fewest
// 32-key blocks per split; either <= 0 restores the defaults. Set it between
// calls, never while one is being launched.
void set_decode_split(int64_t row_splits, int64_t min_blocks);

// Device bytes decode_attention needs as its workspace (0: none).
template <typename T, typename C>
size_t decode_workspace_bytes(const DecodeInputs<T, C>& in);

// The whole decode: the key range is split so that even one sequence fills
// the GPU; a second kernel combines the splits when there are several.
template <typename T, typename C>
cudaError_t decode_attention(const DecodeInputs<T, C>& in, const DecodeOutput<T>& out, void* workspace,
                             cudaStream_t stream);

// First pass of the grouped pair (one query token): per split of the key
// range, its statistics and normalised value row in the block temporaries.
template <typename T, typename C>
cudaError_t decode_attention_blocks(const DecodeInputs<T, C>& in, const DecodeBlocks<T>& blocks,
                                    cudaStream_t stream);

// Second pass: the result rows [bsz, num_heads, value_head_dim] from the blocks.
template <typename T>
cudaError_t combine_attention_blocks(const DecodeBlocks<T>& blocks, const DecodeOutput<T>& out, int64_t bsz,
                                     int64_t num_heads, int64_t value_head_dim, cudaStream_t stream);

}  // namespace vorta::cuda
