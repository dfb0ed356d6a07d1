// Host stand-ins for cuda/common/mma.cuh (see ../../prelude.h).
#pragma once

#include <cstdint>

namespace vorta::cuda {

namespace emu_detail {
inline float half_at(uint32_t w, int hi) {
  const uint16_t b = uint16_t(hi ? w >> 16 : w);
  __half h;
  std::memcpy(&h, &b, 2);
  return __half2float(h);
}
inline uint16_t bits_of(__half h) {
  uint16_t b;
  std::memcpy(&b, &h, 2);
  return b;
}
}  // namespace emu_detail

// D = A B + C from the documented m16n8k16 fragments of all 32 lanes.
inline void mma_f16_m16n8k16(float (&d)[4], const uint32_t (&a)[4], const uint32_t (&b)[2]) {
  using emu_detail::half_at;
  uint32_t in[10];
  for (int i = 0; i < 4; ++i) in[i] = a[i];
  in[4] = b[0], in[5] = b[1];
  for (int i = 0; i < 4; ++i) std::memcpy(&in[6 + i], &d[i], 4);
  const int g = emu::lane() / 4, t = emu::lane() % 4;
  float out[4];
  emu::warp_collective(in, [&](uint32_t (*s)[16]) {
    auto A = [&](int r, int k) {  // a0: (g, 2t..), a1: (g+8, 2t..), a2: (g, 2t+8..), a3: (g+8, 2t+8..)
      const int reg = (r >= 8 ? 1 : 0) + (k >= 8 ? 2 : 0);
      return half_at(s[4 * (r % 8) + (k % 8) / 2][reg], k % 2);
    };
    auto B = [&](int k, int n) {  // b0: (2t.., g), b1: (2t+8.., g)
      return half_at(s[4 * n + (k % 8) / 2][4 + (k >= 8 ? 1 : 0)], k % 2);
    };
    for (int i = 0; i < 4; ++i) {
      const int r = g + 8 * (i / 2), c = 2 * t + i % 2;
      float acc;
      std::memcpy(&acc, &s[emu::lane()][6 + i], 4);
      for (int k = 0; k < 16; ++k) acc += A(r, k) * B(k, c);
      out[i] = acc;
    }
  });
  for (int i = 0; i < 4; ++i) d[i] = out[i];
}

inline uint32_t smem_addr(const void* p) {
  const uint8_t* q = static_cast<const uint8_t*>(p);
  uint8_t* base = emu::self.cta->smem_base();
  if (q < base || q >= base + emu::self.cta->smem.size()) {
    std::fprintf(stderr, "emulation: smem_addr of a pointer outside dynamic shared memory\n");
    std::abort();
  }
  return uint32_t(q - base);
}

namespace emu_detail {
inline uint32_t smem_word(uint32_t addr) {
  if (addr + 4 > emu::self.cta->smem.size()) {
    std::fprintf(stderr, "emulation: shared read out of range\n");
    std::abort();
  }
  uint32_t w;
  std::memcpy(&w, emu::self.cta->smem_base() + addr, 4);
  return w;
}
inline uint16_t smem_half(uint32_t addr) { return uint16_t(smem_word(addr & ~3u) >> (addr & 2 ? 16 : 0)); }

inline void ldmatrix(uint32_t (&r)[4], uint32_t addr, bool trans) {
  if (addr % 16) {
    std::fprintf(stderr, "emulation: ldmatrix row address not 16-byte aligned\n");
    std::abort();
  }
  uint32_t in[1] = {addr};
  const int g = emu::lane() / 4, t = emu::lane() % 4;
  uint32_t out[4];
  emu::warp_collective(in, [&](uint32_t (*s)[16]) {
    for (int i = 0; i < 4; ++i) {
      if (!trans) {
        out[i] = smem_word(s[8 * i + g][0] + 4 * t);
      } else {
        const uint32_t lo = smem_half(s[8 * i + 2 * t][0] + 2 * g), hi = smem_half(s[8 * i + 2 * t + 1][0] + 2 * g);
        out[i] = lo | hi << 16;
      }
    }
  });
  for (int i = 0; i < 4; ++i) r[i] = out[i];
}
}  // namespace emu_detail

inline void ldmatrix_x4(uint32_t (&r)[4], uint32_t addr) { emu_detail::ldmatrix(r, addr, false); }
inline void ldmatrix_x4_trans(uint32_t (&r)[4], uint32_t addr) { emu_detail::ldmatrix(r, addr, true); }

inline uint32_t movmatrix_trans(uint32_t x) {
  uint32_t in[1] = {x}, out = 0;
  const int g = emu::lane() / 4, t = emu::lane() % 4;
  emu::warp_collective(in, [&](uint32_t (*s)[16]) {
    // M[r][c] sits in lane 4r + c/2, half c % 2; the lane gets M[2t][g], M[2t+1][g].
    auto m = [&](int r, int c) { return uint32_t(uint16_t(s[4 * r + c / 2][0] >> (16 * (c % 2)))); };
    out = m(2 * t, g) | m(2 * t + 1, g) << 16;
  });
  return out;
}

inline void cp_async_16(uint32_t dst, const void* src, int src_bytes) {
  if (dst % 16 || (src_bytes && reinterpret_cast<uintptr_t>(src) % 16) || dst + 16 > emu::self.cta->smem.size()) {
    std::fprintf(stderr, "emulation: misaligned or out-of-range cp.async\n");
    std::abort();
  }
  const emu::Copy c{emu::self.cta->smem_base() + dst, static_cast<const uint8_t*>(src), src_bytes};
  if (emu::copy_timing == emu::CopyTiming::kEager)
    emu::perform(c);
  else
    emu::self.pending.push_back(c);
}

inline void cp_async_commit() {
  emu::self.groups.push_back(std::move(emu::self.pending));
  emu::self.pending.clear();
}

template <int kPending>
inline void cp_async_wait() {
  while (int(emu::self.groups.size()) > kPending) {
    for (const emu::Copy& c : emu::self.groups.front()) emu::perform(c);
    emu::self.groups.erase(emu::self.groups.begin());
  }
}

inline uint32_t pack_half2(float lo, float hi) {
  return emu_detail::bits_of(__float2half_rn(lo)) | uint32_t(emu_detail::bits_of(__float2half_rn(hi))) << 16;
}

inline float fast_exp2(float x) { return std::exp2(x); }

}  // namespace vorta::cuda
