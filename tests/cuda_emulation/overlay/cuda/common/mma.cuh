// Host version of cuda/common/mma.cuh for the emulation (see ../../../emulate.h).
//
// The warp-collective instructions gather every lane's operands and build
// each lane's results from the fragment layouts of the PTX ISA, not from the
// kernels' own assumptions, so that a kernel reading a fragment wrong
// computes wrong numbers here too. Asynchronous copies land at issue, or, with
// CUDA_EMULATE_COPIES=late, only at the wait that must see them: a read of a
// buffer before its wait, or a refill before every warp is done with it,
// then reads the wrong tile.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace vorta::cuda {

namespace emu_mma {

// Operands of every lane of every warp of the running block.
inline uint32_t scratch[32][32][16];

// Each lane publishes `in`; `use` sees all lanes' words; then the warp moves on.
template <int N, typename F>
void collective(const uint32_t (&in)[N], F&& use) {
  uint32_t(&mine)[32][16] = scratch[emu::self.linear / 32];
  std::memcpy(mine[emu::lane()], in, sizeof(in));
  emu::warp().bar->arrive_and_wait();
  use(mine);
  emu::warp().bar->arrive_and_wait();
}

inline float half_at(uint32_t w, int hi) { return vorta::half_bits_to_float(uint16_t(hi ? w >> 16 : w)); }

inline uint32_t shared_word(uint32_t addr) {
  if (addr + 4 > emu::dynamic_shared.size()) {
    std::fprintf(stderr, "shared read past the dynamic shared memory\n");
    std::abort();
  }
  uint32_t w;
  std::memcpy(&w, emu::dynamic_shared.data() + addr, 4);
  return w;
}
inline uint32_t shared_half(uint32_t addr) { return (shared_word(addr & ~3u) >> (addr & 2 ? 16 : 0)) & 0xffffu; }

inline void ldmatrix(uint32_t (&r)[4], uint32_t addr, bool trans) {
  if (addr % 16) {
    std::fprintf(stderr, "ldmatrix row address not 16-byte aligned\n");
    std::abort();
  }
  const uint32_t in[1] = {addr};
  const int g = emu::lane() / 4, t = emu::lane() % 4;
  collective(in, [&](uint32_t (*s)[16]) {
    // Matrix i has its row j at the address of lane 8i + j.
    for (int i = 0; i < 4; ++i)
      r[i] = trans ? shared_half(s[8 * i + 2 * t][0] + 2 * g) | shared_half(s[8 * i + 2 * t + 1][0] + 2 * g) << 16
                   : shared_word(s[8 * i + g][0] + 4 * t);
  });
}

struct Copy {
  uint8_t* dst;
  const uint8_t* src;
  int bytes;
};
inline void land(const Copy& c) {
  std::memset(c.dst, 0, 16);
  if (c.bytes) std::memcpy(c.dst, c.src, c.bytes);
}
inline thread_local std::vector<Copy> pending;
inline thread_local std::vector<std::vector<Copy>> groups;
inline bool late_copies() {
  static const bool late = [] {
    const char* e = std::getenv("CUDA_EMULATE_COPIES");
    return e && std::strcmp(e, "late") == 0;
  }();
  return late;
}

}  // namespace emu_mma

// D = A B + D from the m16n8k16 fragments of all 32 lanes:
// a0 (g, 2t..), a1 (g+8, 2t..), a2 (g, 2t+8..), a3 (g+8, 2t+8..);
// b0 (2t.., g), b1 (2t+8.., g); c0, c1 (g, 2t, 2t+1), c2, c3 (g+8, ...).
inline void mma_f16_m16n8k16(float (&d)[4], const uint32_t (&a)[4], const uint32_t (&b)[2]) {
  using emu_mma::half_at;
  uint32_t in[10] = {a[0], a[1], a[2], a[3], b[0], b[1]};
  std::memcpy(in + 6, d, 16);
  const int g = emu::lane() / 4, t = emu::lane() % 4;
  float out[4];
  emu_mma::collective(in, [&](uint32_t (*s)[16]) {
    auto A = [&](int r, int k) { return half_at(s[4 * (r % 8) + (k % 8) / 2][(r >= 8) + 2 * (k >= 8)], k % 2); };
    auto B = [&](int k, int n) { return half_at(s[4 * n + (k % 8) / 2][4 + (k >= 8)], k % 2); };
    for (int i = 0; i < 4; ++i) {
      const int r = g + 8 * (i / 2), c = 2 * t + i % 2;
      float acc = d[i];
      for (int k = 0; k < 16; ++k) acc += A(r, k) * B(k, c);
      out[i] = acc;
    }
  });
  std::memcpy(d, out, 16);
}

inline uint32_t smem_addr(const void* p) {
  const uint8_t* q = static_cast<const uint8_t*>(p);
  const uint8_t* base = emu::dynamic_shared.data();
  if (q < base || q >= base + emu::dynamic_shared.size()) {
    std::fprintf(stderr, "smem_addr of a pointer outside the dynamic shared memory\n");
    std::abort();
  }
  return uint32_t(q - base);
}

inline void ldmatrix_x4(uint32_t (&r)[4], uint32_t addr) { emu_mma::ldmatrix(r, addr, false); }
inline void ldmatrix_x4_trans(uint32_t (&r)[4], uint32_t addr) { emu_mma::ldmatrix(r, addr, true); }

inline uint32_t movmatrix_trans(uint32_t x) {
  const uint32_t in[1] = {x};
  const int g = emu::lane() / 4, t = emu::lane() % 4;
  uint32_t out = 0;
  emu_mma::collective(in, [&](uint32_t (*s)[16]) {
    // M[r][c] is half c % 2 of lane 4r + c / 2; this lane gets M[2t][g], M[2t+1][g].
    auto m = [&](int r, int c) { return (s[4 * r + c / 2][0] >> (16 * (c % 2))) & 0xffffu; };
    out = m(2 * t, g) | m(2 * t + 1, g) << 16;
  });
  return out;
}

inline void cp_async_16(uint32_t dst, const void* src, int src_bytes) {
  if (dst % 16 || (src_bytes && reinterpret_cast<uintptr_t>(src) % 16) || dst + 16 > emu::dynamic_shared.size()) {
    std::fprintf(stderr, "misaligned or out-of-range cp.async\n");
    std::abort();
  }
  const emu_mma::Copy c{emu::dynamic_shared.data() + dst, static_cast<const uint8_t*>(src), src_bytes};
  if (emu_mma::late_copies())
    emu_mma::pending.push_back(c);
  else
    emu_mma::land(c);
}

inline void cp_async_commit() {
  emu_mma::groups.push_back(std::move(emu_mma::pending));
  emu_mma::pending.clear();
}

template <int kPending>
inline void cp_async_wait() {
  while (int(emu_mma::groups.size()) > kPending) {
    for (const emu_mma::Copy& c : emu_mma::groups.front()) emu_mma::land(c);
    emu_mma::groups.erase(emu_mma::groups.begin());
  }
}

inline uint32_t pack_half2(float lo, float hi) {
  return vorta::float_to_half_bits(lo) | uint32_t(vorta::float_to_half_bits(hi)) << 16;
}

inline float fast_exp2(float x) { return std::exp2(x); }

}  // namespace vorta::cuda
