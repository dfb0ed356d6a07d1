// Thread-pool interface of the CPU backend.
//
// Kernels split work through this interface; the operator layer implements it
// on torch's intra-op pool, so kernels use the threads that torch.set_num_threads
// configures without depending on torch themselves.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>

namespace vorta::cpu {

// Runs body(lo, hi) over disjoint chunks covering [begin, end); chunks hold at
// least `grain` items unless the range is smaller. Runs inline for one chunk.
void parallel_for(int64_t begin, int64_t end, int64_t grain,
                  const std::function<void(int64_t, int64_t)>& body);

// Number of threads parallel_for may use.
int num_threads();

// Runs body(state, lo, hi) over chunks [lo, hi) of `step` items of [0, n),
// handed out in order from a shared counter to one task per thread (at most
// one task per `per_task` items), each task with the state make_state()
// returns: a thread that the host slows down takes fewer chunks instead of
// holding the others up at the end.
template <typename Make, typename Body>
void parallel_dynamic(int64_t n, int64_t step, int64_t per_task, Make&& make_state, Body&& body) {
  if (n <= 0) return;
  const int64_t tasks = std::min<int64_t>(num_threads(), std::max<int64_t>(1, n / std::max<int64_t>(per_task, 1)));
  std::atomic<int64_t> next{0};
  parallel_for(0, tasks, 1, [&](int64_t, int64_t) {
    auto state = make_state();
    for (int64_t lo = next.fetch_add(step); lo < n; lo = next.fetch_add(step))
      body(state, lo, std::min(n, lo + step));
  });
}

// Chunk size for a loop over items of `bytes_each` bytes. A task moves about
// 256 KiB, well above the cost of waking a pool thread, so decode-sized calls
// stay on the calling thread while large ones still split across the pool.
inline int64_t grain_for(int64_t bytes_each) {
  int64_t g = (int64_t(256) << 10) / (bytes_each > 0 ? bytes_each : 1);
  return g > 0 ? g : 1;
}

}  // namespace vorta::cpu
