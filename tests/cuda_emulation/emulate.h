// The CUDA execution model on host threads, for running the CUDA kernels'
// own code where there is no GPU (force-included before every kernel source).
//
// Every CUDA thread of a block is an OS thread; blocks run one after another,
// so a kernel's static __shared__ arrays are its block's shared memory.
// __syncthreads and the warp operations are barriers over the block's or the
// warp's live threads (a returning thread leaves them, as on the GPU). 16- and
// 8-byte accesses abort when misaligned, as they would fault on the GPU.
// Memory is host memory: what this checks is indexing, reductions, tie rules
// and arithmetic, not the GPU's memory model or speed.
#pragma once
#include <cuda_bf16.h>
#include <cuda_fp16.h>
#include <cuda_runtime.h>
#include <cuda_runtime_api.h>

#include <algorithm>
#include <barrier>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#undef __global__
#undef __device__
#undef __host__
#undef __forceinline__
#undef __shared__
#undef __launch_bounds__
#define __global__
#define __device__
#define __host__
#define __forceinline__ inline
#define __shared__ static
#define __launch_bounds__(...)
#define __CUDA_ARCH__ 900

using std::max;
using std::min;

namespace emu {

struct Warp {
  std::unique_ptr<std::barrier<>> bar;
  uint64_t slot[32];
};
struct Block {
  std::unique_ptr<std::barrier<>> bar;
  std::vector<Warp> warps;
};
struct Thread {
  uint3 thread, block;
  dim3 bdim, gdim;
  Block* blk;
  int linear;
};
inline thread_local Thread self;
inline std::vector<unsigned char> dynamic_shared;
inline cudaError_t last_error = cudaSuccess;

inline Warp& warp() { return self.blk->warps[self.linear / 32]; }
inline int lane() { return self.linear % 32; }

template <class T>
uint64_t to_bits(T v) {
  uint64_t u = 0;
  std::memcpy(&u, &v, sizeof(T));
  return u;
}
template <class T>
T from_bits(uint64_t u) {
  T v;
  std::memcpy(&v, &u, sizeof(T));
  return v;
}

// Every lane publishes v, then reads the value of lane src_of(lane).
template <class T, class F>
T exchange(T v, F src_of) {
  Warp& w = warp();
  w.slot[lane()] = to_bits(v);
  w.bar->arrive_and_wait();
  T r = from_bits<T>(w.slot[src_of(lane())]);
  w.bar->arrive_and_wait();
  return r;
}

// Every lane publishes v; each gets f(all 32 values).
template <class F>
uint32_t gather(uint32_t v, F f) {
  Warp& w = warp();
  w.slot[lane()] = v;
  w.bar->arrive_and_wait();
  uint32_t all[32];
  for (int i = 0; i < 32; ++i) all[i] = uint32_t(w.slot[i]);
  w.bar->arrive_and_wait();
  return f(all);
}

template <class T, class P>
T* aligned_cast(P* p) {
  if (reinterpret_cast<uintptr_t>(p) % alignof(T) != 0) {
    std::fprintf(stderr, "misaligned %zu-byte access at %p\n", sizeof(T), static_cast<const void*>(p));
    std::abort();
  }
  return reinterpret_cast<T*>(p);
}

// kernel<<<grid, block, shared, stream>>>(args...), on host threads.
template <class K, class... A>
void launch(K kernel, dim3 grid, dim3 block, size_t shared, cudaStream_t, A... args) {
  const int n = int(block.x * block.y * block.z);
  last_error = cudaSuccess;
  if (n == 0 || n > 1024 || grid.x == 0 || grid.y == 0 || grid.z == 0 || grid.y > 65535 || grid.z > 65535 ||
      shared > 227 * 1024) {  // what a kernel may ask for once it has raised its limit
    last_error = cudaErrorInvalidConfiguration;
    return;
  }
  dynamic_shared.assign(shared + 16, 0xCD);
  const long blocks = long(grid.x) * grid.y * grid.z;
  Block blk;
  long next = 0;
  uint3 id{0, 0, 0};
  // Between blocks, once every thread is done with the last one.
  auto next_block = [&]() noexcept {
    const long b = next++;
    id = uint3{unsigned(b % grid.x), unsigned(b / grid.x % grid.y), unsigned(b / (long(grid.x) * grid.y))};
    blk.bar = std::make_unique<std::barrier<>>(n);
    blk.warps.clear();
    blk.warps.resize((n + 31) / 32);
    for (size_t w = 0; w < blk.warps.size(); ++w)
      blk.warps[w].bar = std::make_unique<std::barrier<>>(std::min(32, n - 32 * int(w)));
  };
  std::barrier gate(n, next_block);
  std::vector<std::thread> threads;
  threads.reserve(n);
  for (int t = 0; t < n; ++t)
    threads.emplace_back([&, t] {
      for (long b = 0; b < blocks; ++b) {
        gate.arrive_and_wait();
        self = Thread{{unsigned(t % block.x), unsigned(t / block.x % block.y), unsigned(t / (block.x * block.y))},
                      id, block, grid, &blk, t};
        kernel(args...);
        blk.warps[t / 32].bar->arrive_and_drop();
        blk.bar->arrive_and_drop();
      }
    });
  for (auto& th : threads) th.join();
}

}  // namespace emu

#define threadIdx (emu::self.thread)
#define blockIdx (emu::self.block)
#define blockDim (emu::self.bdim)
#define gridDim (emu::self.gdim)

inline void __syncthreads() { emu::self.blk->bar->arrive_and_wait(); }

template <class T>
T __shfl_sync(unsigned, T v, int src, int width = 32) {
  return emu::exchange(v, [&](int l) { return (l & ~(width - 1)) + src % width; });
}
template <class T>
T __shfl_down_sync(unsigned, T v, unsigned delta, int width = 32) {
  return emu::exchange(v, [&](int l) { return l % width + int(delta) < width ? l + int(delta) : l; });
}
template <class T>
T __shfl_xor_sync(unsigned, T v, int mask, int width = 32) {
  return emu::exchange(v, [&](int l) { return l ^ mask; });
}
inline void __syncwarp(unsigned = 0xffffffffu) { emu::warp().bar->arrive_and_wait(); }
inline int __any_sync(unsigned, int pred) {
  return emu::gather(pred != 0, [](const uint32_t* all) { return uint32_t(std::count(all, all + 32, 1u) > 0); });
}
// Byte i of the result is byte (s >> 4i) & 7 of the pair (y:x).
inline unsigned __byte_perm(unsigned x, unsigned y, unsigned s) {
  const uint64_t v = uint64_t(x) | uint64_t(y) << 32;
  unsigned r = 0;
  for (int i = 0; i < 4; ++i) r |= unsigned(v >> (8 * ((s >> (4 * i)) & 7)) & 0xffu) << (8 * i);
  return r;
}
// Read-only loads: vector types alignment-checked.
template <class T>
T __ldg(const T* p) {
  return *emu::aligned_cast<const T>(p);
}
inline float __uint_as_float(unsigned u) { return emu::from_bits<float>(u); }
inline unsigned __float_as_uint(float f) { return unsigned(emu::to_bits(f)); }
