// Attention core instantiation for half queries (every working copy is half).
#include "cpu/prefill/worker.h"

namespace vorta::cpu {

template <typename T, typename KV>
void attention(const AttentionProblem<T, KV>& p) {
  prefill::run_attention(p);
}

template void attention<half, half>(const AttentionProblem<half, half>&);

}  // namespace vorta::cpu
