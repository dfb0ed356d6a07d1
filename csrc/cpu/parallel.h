// Thread-pool interface of the CPU backend.
//
// Kernels split work through this interface; the operator layer implements it
// on torch's intra-op pool, so kernels use the threads that torch.set_num_threads
// configures without depending on torch themselves.
#pragma once

#include <cstdint>
#include <functional>

namespace vorta::cpu {

// Runs body(lo, hi) over disjoint chunks covering [begin, end); chunks hold at
// least `grain` items unless the range is smaller. Runs inline for one chunk.
void parallel_for(int64_t begin, int64_t end, int64_t grain,
                  const std::function<void(int64_t, int64_t)>& body);

// Number of threads parallel_for may use.
int num_threads();

// Chunk size for a loop over items of `bytes_each` bytes. A task moves about
// 256 KiB, well above the cost of waking a pool thread, so decode-sized calls
// stay on the calling thread while large ones still split across the pool.
inline int64_t grain_for(int64_t bytes_each) {
  int64_t g = (int64_t(256) << 10) / (bytes_each > 0 ? bytes_each : 1);
  return g > 0 ? g : 1;
}

}  // namespace vorta::cpu
