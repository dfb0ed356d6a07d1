// Attention core instantiation for half queries (every working copy is half).
#include "cpu/prefill/worker.h"
#include "cpu/isa.h"

namespace vorta::cpu {
VORTA_ISA_BEGIN

template <typename T, typename KV>
void attention(const AttentionProblem<T, KV>& p) {
  prefill::run_attention(p);
}

template void attention<half, half>(const AttentionProblem<half, half>&);

VORTA_ISA_END
}  // namespace vorta::cpu
