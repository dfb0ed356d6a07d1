// cpu/parallel.h on torch's intra-op thread pool: the module's pool, so that
// the kernels use the threads torch.set_num_threads configures.
#include <ATen/Parallel.h>

#include "cpu/parallel.h"

namespace vorta::cpu {

void parallel_for(int64_t begin, int64_t end, int64_t grain,
                  const std::function<void(int64_t, int64_t)>& body) {
  at::parallel_for(begin, end, grain, body);
}

int num_threads() { return at::get_num_threads(); }

}  // namespace vorta::cpu
