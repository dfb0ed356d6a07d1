// torch's intra-op thread pool behind the CPU backend's parallel_for.
#include "cpu/parallel.h"

#include <ATen/Parallel.h>

namespace vorta::cpu {

void parallel_for(int64_t begin, int64_t end, int64_t grain,
                  const std::function<void(int64_t, int64_t)>& body) {
  at::parallel_for(begin, end, grain, body);
}

int num_threads() { return at::get_num_threads(); }

}  // namespace vorta::cpu
