// Each CUDA kernel, run under emulate.h, against the CPU backend on the same
// random inputs: bit for bit, except the softmax's differently ordered sums.
// Sizes are small (an OS thread per CUDA thread) but cross every block edge,
// and offsets of one element take the kernels' element-wise paths.
#include <cmath>
#include <cstdio>
#include <array>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "common/numeric.h"
#include "cuda/device.h"
#include "cpu/elementwise.h"
#include "cpu/kv_cache.h"
#include "cpu/moe.h"
#include "cpu/norm.h"
#include "cpu/rotary.h"
#include "cuda/elementwise.h"
#include "cuda/kv_cache.h"
#include "cuda/moe.h"
#include "cuda/norm.h"
#include "cuda/rotary.h"

namespace vorta::cpu {
void parallel_for(int64_t begin, int64_t end, int64_t, const std::function<void(int64_t, int64_t)>& body) {
  if (begin < end) body(begin, end);
}
int num_threads() { return 1; }
}  // namespace vorta::cpu

namespace vorta::cuda {
// Few multiprocessors: grid-stride loops take several turns.
int multiprocessors() { return 4; }
}  // namespace vorta::cuda

namespace {

using vorta::bf16;
using vorta::half;
using vorta::from_float;
using vorta::to_float;

std::mt19937 rng(42);
int checks = 0, failures = 0;

float randn(float scale = 1.0f, float shift = 0.0f) {
  return std::normal_distribution<float>(0.0f, 1.0f)(rng) * scale + shift;
}
template <typename T>
std::vector<T> randv(size_t n, float scale = 1.0f, float shift = 0.0f) {
  std::vector<T> v(n);
  for (auto& x : v) x = from_float<T>(randn(scale, shift));
  return v;
}
template <typename T>
double value(T v) {
  if constexpr (std::is_integral_v<T>) return double(v);
  else return to_float(v);
}

// Equal bit for bit (any NaN equals any NaN); reports the first difference.
template <typename T>
void same(const std::vector<T>& cpu, const std::vector<T>& cuda, const std::string& what) {
  ++checks;
  for (size_t i = 0; i < cpu.size(); ++i) {
    const double a = value(cpu[i]), b = value(cuda[i]);
    if (emu::to_bits(cpu[i]) != emu::to_bits(cuda[i]) && !(a != a && b != b)) {
      std::printf("FAIL %s at %zu: cpu %a cuda %a\n", what.c_str(), i, a, b);
      ++failures;
      return;
    }
  }
}

void launched(cudaError_t e, const std::string& what) {
  if (e != cudaSuccess) {
    std::printf("FAIL %s: launch error %d\n", what.c_str(), int(e));
    ++failures;
  }
}

template <typename T>
const char* type_name() {
  return sizeof(T) == 4 ? "float" : std::is_same_v<T, half> ? "half" : "bf16";
}

template <typename... A>
std::string describe(const char* fmt, A... a) {
  char s[200];
  std::snprintf(s, sizeof s, fmt, a...);
  return s;
}

// Runs `cpu` and `cuda` on two copies of each buffer, then compares them.
template <typename... V, typename Cpu, typename Cuda>
void both(std::tuple<V&...> buffers, Cpu cpu, Cuda cuda, const std::string& what) {
  std::tuple<V...> copy = buffers;
  cpu(buffers);
  std::apply([&](auto&... c) { cuda(std::tuple<V&...>(c...)); }, copy);
  std::apply([&](auto&... a) { std::apply([&](auto&... b) { (same(a, b, what), ...); }, copy); }, buffers);
}

template <typename T>
void norms(int64_t rows, int64_t hidden, int off) {
  std::vector<T> x = randv<T>(rows * hidden + 8, 3.0f, 0.5f), w = randv<T>(hidden + 8), b = randv<T>(hidden + 8);
  for (int kind = 0; kind < 3; ++kind) {  // rms, layer with a bias, layer bare
    std::vector<T> out(x.size());
    auto params = [&](std::vector<T>& o) {
      return vorta::NormParams<T>{x.data() + off, kind == 2 ? nullptr : w.data() + off,
                                  kind == 1 ? b.data() + off : nullptr, o.data() + off, rows, hidden, 1e-5f};
    };
    const std::string what = describe("norm %d rows %lld hidden %lld off %d %s", kind, (long long)rows,
                                      (long long)hidden, off, type_name<T>());
    both(
        std::tie(out), [&](auto t) { kind ? vorta::cpu::layer_norm(params(std::get<0>(t))) : vorta::cpu::rms_norm(params(std::get<0>(t))); },
        [&](auto t) {
          launched(kind ? vorta::cuda::layer_norm(params(std::get<0>(t)), nullptr)
                        : vorta::cuda::rms_norm(params(std::get<0>(t)), nullptr), what);
        },
        what);
  }
}

template <typename T>
void silu(int64_t n, int off) {
  std::vector<T> g = randv<T>(n + 16, 6.0f), u = randv<T>(n + 16);
  const float special[] = {-200.f, 200.f, 0.f, -0.f, 90.f, -90.f, INFINITY, NAN};
  for (int i = 0; i < 8; ++i) g[off + i] = from_float<T>(special[i]);
  auto params = [&](std::vector<T>& gate) { return vorta::SiluMulParams<T>{gate.data() + off, u.data() + off, n}; };
  const std::string what = describe("silu n %lld off %d %s", (long long)n, off, type_name<T>());
  both(std::tie(g), [&](auto t) { vorta::cpu::silu_mul(params(std::get<0>(t))); },
                       [&](auto t) { launched(vorta::cuda::silu_mul(params(std::get<0>(t)), nullptr), what); }, what);
}

template <typename T>
void penalty(int64_t bsz, int64_t vocab, int64_t seq) {
  const int64_t row = vocab + 9, id_row = seq + 3;
  std::vector<T> scores = randv<T>(bsz * row, 4.0f), working(bsz * seq);
  std::vector<int64_t> ids(bsz * id_row);
  for (auto& i : ids) i = std::uniform_int_distribution<int64_t>(0, vocab - 1)(rng);
  for (int64_t b = 0; b < bsz; ++b) ids[b * id_row + seq - 1] = ids[b * id_row];
  auto params = [&](std::vector<T>& s, std::vector<T>& w) {
    return vorta::PenaltyParams<T>{s.data() + 4, w.data(), ids.data(), row, seq, id_row, bsz, seq, vocab, 1.3f};
  };
  const std::string what = describe("penalty %lld x %lld ids %lld %s", (long long)bsz, (long long)vocab,
                                    (long long)seq, type_name<T>());
  std::vector<T> s2 = scores, w2 = working;
  vorta::cpu::repetition_penalty(params(scores, working));
  launched(vorta::cuda::repetition_penalty(params(s2, w2), nullptr), what);
  same(scores, s2, what);
}

// Against the CPU within one rounding of T beyond float32 sums of another order.
template <typename T>
void softmax(int64_t rows, int64_t n) {
  std::vector<T> a = randv<T>(rows * n, 5.0f, 100.0f);
  for (int64_t r = 0; r < rows; r += 3)
    for (int64_t i = 0; i < n; i += 2) a[r * n + i] = from_float<T>(-10000.0f);
  std::vector<T> b = a;
  vorta::cpu::attn_softmax(vorta::SoftmaxParams<T>{a.data(), rows, n});
  const std::string what = describe("softmax %lld x %lld %s", (long long)rows, (long long)n, type_name<T>());
  launched(vorta::cuda::attn_softmax(vorta::SoftmaxParams<T>{b.data(), rows, n}, nullptr), what);
  ++checks;
  for (size_t i = 0; i < a.size(); ++i) {
    const double x = to_float(a[i]), y = to_float(b[i]);
    const double tol = sizeof(T) == 4 ? (4e-6 + n * 2e-9) * std::fabs(x) : std::max(std::fabs(x), 0x1p-14) * 0x1p-10;
    if (!(std::fabs(x - y) <= tol)) {
      std::printf("FAIL %s at %zu: cpu %a cuda %a\n", what.c_str(), i, x, y);
      ++failures;
      return;
    }
  }
}

// query/key [bsz, heads, seq, head_dim] inside [bsz, seq, heads, head_dim + pad] at pad / 2.
template <typename T>
void rotary(bool cache, int64_t head_dim, int64_t rotary_dim, vorta::CachePairs pairs, int64_t bsz, int64_t seq,
            int pad) {
  const int64_t heads = 5, kv_heads = 3, len = head_dim + pad, at = pad / 2;
  std::vector<T> q = randv<T>(bsz * seq * heads * len), k = randv<T>(bsz * seq * kv_heads * len);
  const vorta::RotaryRows rows{bsz, heads, kv_heads, seq, {seq * heads * len, len, heads * len},
                               {seq * kv_heads * len, len, kv_heads * len}};
  const std::string what = describe("rotary %s head %lld rotary %lld pairs %d bsz %lld seq %lld pad %d %s",
                                    cache ? "cache" : "freq", (long long)head_dim, (long long)rotary_dim,
                                    int(pairs), (long long)bsz, (long long)seq, pad, type_name<T>());
  if (!cache) {
    if constexpr (!std::is_same_v<T, bf16>) {
      std::vector<T> inv(head_dim / 2);
      for (int64_t i = 0; i < head_dim / 2; ++i) inv[i] = from_float<T>(std::pow(10000.0f, -2.0f * i / head_dim));
      std::vector<int64_t> pos(bsz * (seq + 2));
      for (auto& p : pos) p = std::uniform_int_distribution<int64_t>(0, 1 << 17)(rng);
      const int64_t position_rows = seq == 7 ? 1 : bsz;  // one row shared by the batch
      auto params = [&](std::vector<T>& qq, std::vector<T>& kk) {
        return vorta::RotaryFreqParams<T>{qq.data() + at, kk.data() + at, inv.data(), pos.data() + 1, position_rows,
                                          seq + 2, rows, head_dim, pairs != vorta::CachePairs::half};
      };
      both(
          std::tie(q, k), [&](auto t) { vorta::cpu::rotary_inv_freq(params(std::get<0>(t), std::get<1>(t))); },
          [&](auto t) { launched(vorta::cuda::rotary_inv_freq(params(std::get<0>(t), std::get<1>(t)), nullptr), what); },
          what);
    }
    return;
  }
  std::vector<T> c(seq * rotary_dim), s(seq * rotary_dim);
  for (size_t i = 0; i < c.size(); ++i) {
    const double angle = std::uniform_real_distribution<double>(0, 100)(rng);
    c[i] = from_float<T>(float(std::cos(angle)));
    s[i] = from_float<T>(float(std::sin(angle)));
  }
  auto params = [&](std::vector<T>& qq, std::vector<T>& kk) {
    return vorta::RotaryCacheParams<T>{qq.data() + at, kk.data() + at, c.data(), s.data(), rows, rotary_dim, pairs};
  };
  both(
      std::tie(q, k), [&](auto t) { vorta::cpu::rotary_with_cache(params(std::get<0>(t), std::get<1>(t))); },
      [&](auto t) { launched(vorta::cuda::rotary_with_cache(params(std::get<0>(t), std::get<1>(t)), nullptr), what); },
      what);
}

// Rows [bsz, heads, seq, dim] of [bsz, seq, heads, dim + pad] inputs and of
// [bsz, heads, seq + 9, dim + pad] caches, from element pad (and row 4).
template <typename T>
void kv_cache(int64_t kd, int64_t vd, int64_t bsz, int64_t heads, int64_t seq, int pad) {
  std::vector<T> key = randv<T>(bsz * seq * heads * (kd + pad), 40.0f), val = randv<T>(bsz * seq * heads * (vd + pad), 4.0f);
  key[pad] = from_float<T>(0.0f), key[pad + 1] = from_float<T>(-0.0f), key[pad + 2] = from_float<T>(6e4f);
  auto input = [&](int64_t d) { return std::array<int64_t, 3>{seq * heads * (d + pad), d + pad, heads * (d + pad)}; };
  auto cached = [&](int64_t d) { return std::array<int64_t, 3>{heads * (seq + 9) * (d + pad), (seq + 9) * (d + pad), d + pad}; };
  auto rows = [&](std::array<int64_t, 3> a, std::array<int64_t, 3> b, std::array<int64_t, 3> c, std::array<int64_t, 3> d) {
    return vorta::KvRows{bsz, heads, seq, {a[0], a[1], a[2]}, {b[0], b[1], b[2]}, {c[0], c[1], c[2]}, {d[0], d[1], d[2]}};
  };
  std::vector<uint8_t> kq(bsz * heads * (seq + 9) * (kd + pad), 0x5A), vq(bsz * heads * (seq + 9) * (vd + pad), 0x5A);
  const int64_t kat = 4 * (kd + pad) + pad, vat = 4 * (vd + pad) + pad;
  const std::string what = describe("kv %lld/%lld bsz %lld heads %lld seq %lld pad %d %s", (long long)kd, (long long)vd,
                                    (long long)bsz, (long long)heads, (long long)seq, pad, type_name<T>());
  const vorta::KvRows q_rows = rows(input(kd), input(vd), cached(kd), cached(vd));
  auto quantize = [&](std::vector<uint8_t>& a, std::vector<uint8_t>& b) {
    return vorta::KvConvertParams<T, uint8_t>{key.data() + pad, val.data() + pad, a.data() + kat, b.data() + vat,
                                              q_rows, kd, vd};
  };
  std::vector<uint8_t> kq2 = kq, vq2 = vq;
  vorta::cpu::quantize_key_value(quantize(kq, vq));
  launched(vorta::cuda::quantize_key_value(quantize(kq2, vq2), nullptr), what);
  same(kq, kq2, what);
  same(vq, vq2, what);
  if (kd != vd) return;
  std::vector<T> k_out(key.size(), from_float<T>(-3.0f)), v_out(val.size(), from_float<T>(-3.0f));
  const vorta::KvRows d_rows = rows(cached(kd), cached(vd), input(kd), input(vd));
  auto dequantize = [&](std::vector<T>& a, std::vector<T>& b) {
    return vorta::KvConvertParams<uint8_t, T>{kq.data() + kat, vq.data() + vat, a.data() + pad, b.data() + pad,
                                              d_rows, kd, vd};
  };
  both(
      std::tie(k_out, v_out), [&](auto t) { vorta::cpu::dequantize_key_value(dequantize(std::get<0>(t), std::get<1>(t))); },
      [&](auto t) { launched(vorta::cuda::dequantize_key_value(dequantize(std::get<0>(t), std::get<1>(t)), nullptr), what); },
      what);
}

template <typename T>
void moe_softmax(int64_t tokens, int64_t n, int64_t top_k, bool renormalize) {
  std::vector<T> x = randv<T>(tokens * n, 3.0f);
  for (int64_t t = 0; t < tokens; ++t) x[t * n + 3] = x[t * n + 5];  // a tie
  for (int64_t e = 0; e < n; ++e) x[e] = from_float<T>(1.0f);        // all tied
  if (tokens > 1) x[n + 2] = from_float<T>(NAN);
  std::vector<int64_t> ids(tokens * top_k);
  std::vector<T> w(tokens * top_k);
  auto params = [&](std::vector<int64_t>& i, std::vector<T>& ww) {
    return vorta::MoeSoftmaxParams<T>{x.data(), i.data(), ww.data(), tokens, n, top_k, renormalize};
  };
  const std::string what = describe("moe softmax %lld x %lld top %lld renorm %d %s", (long long)tokens, (long long)n,
                                    (long long)top_k, renormalize, type_name<T>());
  both(
      std::tie(ids, w), [&](auto t) { vorta::cpu::moe_softmax_topk(params(std::get<0>(t), std::get<1>(t))); },
      [&](auto t) { launched(vorta::cuda::moe_softmax_topk(params(std::get<0>(t), std::get<1>(t)), nullptr), what); },
      what);
}

template <typename T>
void moe_group(int64_t tokens, int64_t n, int64_t groups, int64_t topk_group, int64_t top_k, bool bias,
               bool renormalize, float shift) {
  std::vector<float> s(tokens * n);
  for (auto& v : s) v = std::uniform_real_distribution<float>(0, 1)(rng);
  for (int64_t t = 0; t < tokens; ++t) s[t * n + 7] = s[t * n + 9];
  for (int64_t e = 0; e < n; ++e) s[e] = 0.5f;
  if (tokens > 1) s[n + 4] = NAN;
  const std::vector<T> b = randv<T>(n, 0.1f, shift);
  std::vector<int64_t> ids(tokens * top_k);
  std::vector<T> w(tokens * top_k);
  auto params = [&](std::vector<int64_t>& i, std::vector<T>& ww) {
    return vorta::MoeGroupParams<T>{s.data(), bias ? b.data() : nullptr, i.data(), ww.data(), tokens, n, groups,
                                    topk_group, top_k, renormalize, 1e-20f, 2.5f};
  };
  const std::string what = describe("moe group %lld x %lld groups %lld/%lld top %lld bias %d renorm %d shift %g %s",
                                    (long long)tokens, (long long)n, (long long)topk_group, (long long)groups,
                                    (long long)top_k, bias, renormalize, shift, type_name<T>());
  both(
      std::tie(ids, w), [&](auto t) { vorta::cpu::moe_group_topk(params(std::get<0>(t), std::get<1>(t))); },
      [&](auto t) { launched(vorta::cuda::moe_group_topk(params(std::get<0>(t), std::get<1>(t)), nullptr), what); },
      what);
}

}  // namespace

// Decode and prefill attention (attention.cpp): against float64 references.
int check_attention(const std::string& only);

int main(int argc, char** argv) {
  const std::string only = argc > 1 ? argv[1] : "";
  auto on = [&](const char* group) { return only.empty() || only == group; };
  using vorta::CachePairs;
  if (on("norm"))
    for (int64_t rows : {1, 7})
      for (int64_t hidden : {32, 992, 1056, 4096, 4128, 8192})
        for (int off : {0, 1}) norms<float>(rows, hidden, off), norms<vorta::half>(rows, hidden, off);
  if (on("silu"))
    for (int64_t blocks : {1, 7, 83})
      for (int off : {0, 1, 8}) silu<float>(128 * blocks, off), silu<vorta::half>(128 * blocks, off);
  if (on("penalty"))
    for (auto [bsz, vocab, seq] : std::vector<std::tuple<int, int, int>>{{1, 7, 1}, {7, 83, 7}, {3, 32000, 769}, {2, 129, 2049}})
      penalty<float>(bsz, vocab, seq), penalty<vorta::half>(bsz, vocab, seq);
  if (on("softmax"))
    for (int64_t n : {1, 7, 83, 769, 1024, 1025, 4096, 4097, 16384, 16385, 40000})
      softmax<float>(n > 4096 ? 2 : 11, n), softmax<vorta::half>(n > 4096 ? 2 : 11, n);
  if (on("rotary")) {
    for (int64_t d : {256, 128, 96, 80, 64, 40, 32, 20, 16})
      for (auto [bsz, seq, pad] : std::vector<std::tuple<int, int, int>>{{1, 1, 16}, {2, 7, 16}, {2, 5, 3}})
        for (CachePairs kind : {CachePairs::half, CachePairs::two_half_layout})
          if (kind == CachePairs::half || d == 128 || d == 96 || d == 64)
            rotary<float>(false, d, d, kind, bsz, seq, pad), rotary<vorta::half>(false, d, d, kind, bsz, seq, pad);
    for (int64_t rd : {2, 22, 37, 64, 128})
      for (CachePairs kind : {CachePairs::half, CachePairs::two_half_layout, CachePairs::two_interleaved})
        for (auto [bsz, seq, pad] : std::vector<std::tuple<int, int, int>>{{1, 1, 16}, {2, 9, 16}, {1, 7, 5}})
          rotary<float>(true, 128, rd, kind, bsz, seq, pad), rotary<vorta::half>(true, 128, rd, kind, bsz, seq, pad),
              rotary<vorta::bf16>(true, 128, rd, kind, bsz, seq, pad);
  }
  if (on("kv"))
    for (auto [kd, vd] : std::vector<std::pair<int, int>>{{64, 64}, {80, 80}, {96, 96}, {128, 128}, {192, 192}, {192, 128}})
      for (auto [bsz, heads, seq, pad] : std::vector<std::tuple<int, int, int, int>>{{1, 1, 1, 0}, {2, 3, 7, 0}, {1, 2, 13, 1}})
        kv_cache<float>(kd, vd, bsz, heads, seq, pad), kv_cache<vorta::half>(kd, vd, bsz, heads, seq, pad);
  if (on("moe")) {
    for (int64_t tokens : {1, 9})
      for (auto [n, k] : std::vector<std::pair<int, int>>{{16, 1}, {16, 16}, {64, 6}, {256, 8}, {256, 32}})
        for (bool r : {false, true}) moe_softmax<float>(tokens, n, k, r), moe_softmax<vorta::half>(tokens, n, k, r);
    for (auto [n, g, tg, k] : std::vector<std::tuple<int, int, int, int>>{
             {256, 8, 4, 8}, {64, 4, 2, 6}, {48, 3, 1, 32}, {128, 1, 1, 8}, {256, 16, 16, 32}, {160, 5, 2, 32}, {16, 1, 3, 3}})
      for (bool bias : {false, true})
        for (bool r : {false, true})
          for (float shift : {0.0f, -0.9f, -3.0f})
            moe_group<float>(9, n, g, tg, k, bias, r, shift), moe_group<vorta::half>(9, n, g, tg, k, bias, r, shift);
  }
  failures += check_attention(only);
  std::printf("%d checks, %d failures\n", checks, failures);
  return failures != 0;
}
