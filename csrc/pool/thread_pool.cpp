// cpu/parallel.h on plain std::threads, for users of the kernels without
// torch (the C++ unit tests): a call splits its range into at most
// num_threads() chunks of at least `grain` items and runs them on as many
// threads, the first on the caller's. VORTA_NUM_THREADS overrides the
// hardware's count.
#include <algorithm>
#include <cstdlib>
#include <thread>
#include <vector>

#include "cpu/parallel.h"

namespace vorta::cpu {

int num_threads() {
  static const int n = [] {
    if (const char* s = std::getenv("VORTA_NUM_THREADS")) return std::max(1, std::atoi(s));
    return std::max(1, int(std::thread::hardware_concurrency()));
  }();
  return n;
}

void parallel_for(int64_t begin, int64_t end, int64_t grain,
                  const std::function<void(int64_t, int64_t)>& body) {
  if (begin >= end) return;
  const int64_t n = end - begin;
  const int64_t chunks = std::min<int64_t>(num_threads(), std::max<int64_t>(1, n / std::max<int64_t>(grain, 1)));
  if (chunks <= 1) return body(begin, end);
  const int64_t size = (n + chunks - 1) / chunks;
  std::vector<std::thread> threads;
  for (int64_t lo = begin + size; lo < end; lo += size)
    threads.emplace_back([&body, lo, hi = std::min(end, lo + size)] { body(lo, hi); });
  body(begin, std::min(end, begin + size));
  for (std::thread& t : threads) t.join();
}

}  // namespace vorta::cpu
