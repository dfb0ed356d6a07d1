// Attention core instantiations for float queries: working copies in float
// (vector path) or in half (matrix-engine path).
#include "cpu/prefill/worker.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN

template <typename T, typename KV>
void attention(const AttentionProblem<T, KV>& p) {
  prefill::run_attention(p);
}

template void attention<float, float>(const AttentionProblem<float, float>&);
template void attention<float, half>(const AttentionProblem<float, half>&);

VORTA_ISA_END
}  // namespace vorta::cpu
