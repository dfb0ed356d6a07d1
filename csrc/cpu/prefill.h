// Prefill attention on the CPU (common/params/attention.h): one launch per
// operator call, working copies included.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/params/attention.h"

namespace vorta::cpu {

// The bytes of workspace prefill_attention needs for p: its key tiles and,
// where the caller's values cannot be read as they are, its value rows.
template <typename T, typename C>
size_t prefill_workspace_bytes(const PrefillParams<T, C>& p);

// workspace: prefill_workspace_bytes(p) bytes, 64-byte aligned.
template <typename T, typename C>
void prefill_attention(const PrefillParams<T, C>& p, void* workspace);

}  // namespace vorta::cpu
