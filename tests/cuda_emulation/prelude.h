// Runs CUDA kernel source on the host for tests without a GPU.
//
// Force-included (g++ -include) before the kernel sources, with this
// directory ahead of csrc/ on the include path so that the headers holding
// inline PTX (cuda/common/mma.cuh, cuda/attention/memory.cuh) and the launch
// helper (cuda/attention/launch.cuh) are replaced by the host versions here.
// Every CUDA thread of a CTA is a host thread; CTAs run one after another.
// Warp-collective instructions exchange operands through per-warp scratch
// between two barriers, and build their results from the fragment layouts of
// the PTX ISA, so a kernel that assumes another layout computes wrong values.
#pragma once

#define VORTA_CUDA_EMULATION 1
#define __device__
#define __host__
#define __global__
#define __shared__ static
#define __launch_bounds__(...)

#include <cuda_fp16.h>
#include <cuda_runtime.h>

#include <algorithm>
#include <barrier>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#undef __launch_bounds__
#define __launch_bounds__(...)

inline thread_local uint3 threadIdx, blockIdx;
inline dim3 gridDim, blockDim;

inline int min(int a, int b) { return a < b ? a : b; }
inline int max(int a, int b) { return a > b ? a : b; }

template <typename T>
inline T __ldg(const T* p) { return *p; }

inline float __uint_as_float(uint32_t u) {
  float f;
  std::memcpy(&f, &u, 4);
  return f;
}

inline uint32_t __byte_perm(uint32_t x, uint32_t y, uint32_t s) {
  const uint64_t v = uint64_t(x) | uint64_t(y) << 32;
  uint32_t r = 0;
  for (int i = 0; i < 4; ++i) r |= uint32_t((v >> (8 * ((s >> (4 * i)) & 7))) & 0xff) << (8 * i);
  return r;
}

namespace emu {

// How cp.async copies land: at issue (stale reads of a buffer being refilled
// show up) or as late as the waits allow (reads before the wait show up).
enum class CopyTiming { kEager, kLate };
inline CopyTiming copy_timing = CopyTiming::kEager;

struct Copy {
  uint8_t* dst;
  const uint8_t* src;
  int bytes;  // copied; the rest of 16 is zero-filled
};

struct Warp {
  explicit Warp(int n) : bar(n) {}
  std::barrier<> bar;
  uint32_t scratch[32][16];
};

struct Cta {
  Cta(int threads, size_t smem) : bar(threads), smem(smem + 16) {
    std::memset(this->smem.data(), 0xff, this->smem.size());  // NaN in every float and half
    for (int w = 0; w < (threads + 31) / 32; ++w) warps.emplace_back(std::make_unique<Warp>(32));
  }
  std::barrier<> bar;
  std::vector<uint8_t> smem;
  std::vector<std::unique_ptr<Warp>> warps;
  uint8_t* smem_base() { return smem.data(); }
};

struct ThreadState {
  Cta* cta = nullptr;
  int tid = 0;
  std::vector<Copy> pending;
  std::vector<std::vector<Copy>> groups;
};
inline thread_local ThreadState self;

inline int lane() { return self.tid % 32; }
inline Warp& warp() { return *self.cta->warps[self.tid / 32]; }

inline void perform(const Copy& c) {
  std::memset(c.dst, 0, 16);
  if (c.bytes) std::memcpy(c.dst, c.src, c.bytes);
}

// Lane values in, every lane's values visible to `use`, then out.
template <int N, typename F>
inline void warp_collective(const uint32_t (&in)[N], F&& use) {
  Warp& w = warp();
  std::memcpy(w.scratch[lane()], in, sizeof(in));
  w.bar.arrive_and_wait();
  use(w.scratch);
  w.bar.arrive_and_wait();
}

// Runs body() as every thread of every CTA of the grid.
inline void run_grid(dim3 grid, dim3 block, size_t smem, const std::function<void()>& body) {
  gridDim = grid;
  blockDim = block;
  const int threads = int(block.x * block.y * block.z);
  for (unsigned z = 0; z < grid.z; ++z)
    for (unsigned y = 0; y < grid.y; ++y)
      for (unsigned x = 0; x < grid.x; ++x) {
        Cta cta(threads, smem);
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t)
          pool.emplace_back([&, t] {
            self = ThreadState{};
            self.cta = &cta;
            self.tid = t;
            threadIdx = make_uint3(unsigned(t), 0, 0);
            blockIdx = make_uint3(x, y, z);
            body();
            if (!self.pending.empty() || !self.groups.empty()) {
              std::fprintf(stderr, "emulation: thread %d left cp.async copies behind\n", t);
              std::abort();
            }
            // An exited thread no longer takes part in barriers.
            cta.warps[t / 32]->bar.arrive_and_drop();
            cta.bar.arrive_and_drop();
          });
        for (auto& th : pool) th.join();
      }
}

}  // namespace emu

inline void __syncthreads() { emu::self.cta->bar.arrive_and_wait(); }
inline void __syncwarp(unsigned = 0xffffffffu) { emu::warp().bar.arrive_and_wait(); }

inline float __shfl_xor_sync(unsigned, float v, int off) {
  uint32_t in[1];
  std::memcpy(in, &v, 4);
  float out = 0;
  emu::warp_collective(in, [&](uint32_t (*s)[16]) { std::memcpy(&out, &s[emu::lane() ^ off][0], 4); });
  return out;
}

inline int __any_sync(unsigned, int pred) {
  uint32_t in[1] = {uint32_t(pred != 0)};
  int out = 0;
  emu::warp_collective(in, [&](uint32_t (*s)[16]) {
    for (int l = 0; l < 32; ++l) out |= int(s[l][0]);
  });
  return out;
}
