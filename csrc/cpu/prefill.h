// Prefill attention on the CPU (common/params/attention.h): one launch per
// operator call, working copies included.
// Declarations only, without an include guard: cpu/dispatch.cpp includes it
// once per instruction-set build.

#include <cstddef>
#include <cstdint>

#include "common/params/attention.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN

// The bytes of workspace prefill_attention needs for p: its key tiles and,
// where the caller's values cannot be read as they are, its value rows.
template <typename T, typename C>
size_t prefill_workspace_bytes(const PrefillParams<T, C>& p);

// workspace: prefill_workspace_bytes(p) bytes, 64-byte aligned.
template <typename T, typename C>
void prefill_attention(const PrefillParams<T, C>& p, void* workspace);

VORTA_ISA_END
}  // namespace vorta::cpu
