// The CUDA attention launchers and kernels, run under emulate.h (tensor-core and
// copy instructions from overlay/) against float64 references: fragment
// layouts, tile and split index math, block edges, masks, GQA, strides, the
// 8-bit codes and the copy pipeline. Half results must lie within 4e-3 of the
// largest reference value (fp16 rounding of the result and of P), float32
// ones within 2e-6.
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "common/kv_codes.h"
#include "common/numeric.h"
#include "cuda/decode.h"
#include "cuda/prefill.h"

using vh = vorta::half;  // ::half is CUDA's __half

namespace {

std::mt19937 rng(1234);
int failures = 0;

float randn() { return std::normal_distribution<float>(0.0f, 1.0f)(rng); }

template <typename E>
E from(float x) {
  if constexpr (std::is_same_v<E, float>)
    return x;
  else
    return vh{vorta::float_to_half_bits(x)};
}
double value_of(float x) { return x; }
double value_of(vh x) { return vorta::half_bits_to_float(x.bits); }
double key_code(uint8_t c) { return vorta::half_bits_to_float(vorta::kv::decode<vorta::kv::KeyCode>(c)); }
double value_code(uint8_t c) { return vorta::half_bits_to_float(vorta::kv::decode<vorta::kv::ValueCode>(c)); }

// The number a cache element stands for.
double number(float x, bool) { return x; }
double number(vh x, bool) { return value_of(x); }
double number(uint8_t c, bool key) { return key ? key_code(c) : value_code(c); }

// A cache element: codes are drawn among moderate magnitudes.
template <typename C>
C cache_element() {
  if constexpr (std::is_same_v<C, uint8_t>) {
    const int mag = std::uniform_int_distribution<int>(0x28, 0x4f)(rng);
    return uint8_t(mag | (rng() & 1 ? 0x80 : 0));
  } else {
    return from<C>(randn());
  }
}

// A 4-D tensor view over a buffer with extra room, so that strides are not
// the dense ones and a kernel that ignores them reads the wrong numbers.
template <typename E>
struct Tensor {
  std::vector<E> buf;
  int64_t size[4];
  int64_t stride[4];
  int64_t offset;
  E* data() { return buf.data() + offset; }
  E& at(int64_t a, int64_t b, int64_t c, int64_t d) {
    return buf[offset + a * stride[0] + b * stride[1] + c * stride[2] + d * stride[3]];
  }
};

// Dense rows of `row` elements (row >= d), dims 0-2 permuted by `order`
// (outermost first), `pad` spare rows at the end, `shift` elements in front.
template <typename E, typename F>
Tensor<E> make(int64_t s0, int64_t s1, int64_t s2, int64_t d, int64_t row, const int (&order)[3], int64_t pad,
               int64_t shift, F fill) {
  Tensor<E> t;
  t.size[0] = s0, t.size[1] = s1, t.size[2] = s2, t.size[3] = d;
  const int64_t extent[3] = {s0, s1, s2 + pad};
  int64_t st = row;
  for (int i = 2; i >= 0; --i) t.stride[order[i]] = st, st *= extent[order[i]];
  t.stride[3] = 1;
  t.offset = shift;
  t.buf.resize(size_t(st + shift));
  for (auto& e : t.buf) e = fill();
  return t;
}

// Rows whose visible keys all hold -10000 lose the scores' low bits in
// float32 (score + mask), in every implementation: keep key 0 unmasked.
template <typename E>
void keep_first_key(Tensor<E>& m) {
  for (int64_t a = 0; a < m.size[0]; ++a)
    for (int64_t b = 0; b < m.size[1]; ++b)
      for (int64_t c = 0; c < m.size[2]; ++c) m.at(a, b, c, 0) = from<E>(0.0f);
}

int checks = 0;

void check(const std::string& what, double err, double bound) {
  ++checks;
  if (err <= bound) return;  // NaN fails
  ++failures;
  std::printf("FAIL %s: error %.3g, bound %.3g\n", what.c_str(), err, bound);
}

// Row (b, h, i) of softmax(scale q.k, soft-capped, + mask) v over keys [0, end) in float64: `number`
// gives a cache element's value; take(d, reference) gets each column.
template <typename T, typename C, typename N, typename Take>
void reference_row(Tensor<T>& q, Tensor<C>& k, Tensor<C>& v, Tensor<T>* m, int b, int h, int kv_h, int i, int end,
                   double scale, double softcap, N number, Take take) {
  std::vector<double> sc(size_t(std::max(end, 1)));
  double mx = -INFINITY, sum = 0;
  for (int j = 0; j < end; ++j) {
    double dot = 0;
    for (int d = 0; d < q.size[3]; ++d) dot += value_of(q.at(b, h, i, d)) * number(k.at(b, kv_h, j, d), true);
    double s = dot * scale;
    if (softcap > 0) s = softcap * std::tanh(s / softcap);
    if (m) s += value_of(m->at(b, h, i, j));
    mx = std::max(mx, sc[j] = s);
  }
  for (int j = 0; j < end; ++j) sum += (sc[j] = std::exp(sc[j] - mx));
  for (int d = 0; d < v.size[3]; ++d) {
    double acc = 0;
    for (int j = 0; j < end; ++j) acc += sc[j] * number(v.at(b, kv_h, j, d), false);
    take(d, end ? acc / sum : 0.0);
  }
}

// ---------------------------------------------------------------- decode ---

struct DecodeCase {
  int bsz, heads, kv_heads, seq, kv_len, dk, dv;
  bool mask, bcast_mask, strided, misaligned;
};

template <typename T, typename C>
void run_decode(const DecodeCase& c, bool grouped) {
  const int order_q[3] = {0, 2, 1};  // query [b, s, h, d] in memory, viewed as [b, h, s, d]
  const int order_kv[3] = {1, 0, 2};
  const int shift = c.misaligned ? 1 : 0;
  auto q = make<T>(c.bsz, c.heads, c.seq, c.dk, c.dk + (c.strided ? 8 : 0), order_q, 0, 0, [] { return from<T>(randn()); });
  auto k = make<C>(c.bsz, c.kv_heads, c.kv_len, c.dk, c.dk, order_kv, c.strided ? 5 : 0, shift, cache_element<C>);
  auto v = make<C>(c.bsz, c.kv_heads, c.kv_len, c.dv, c.dv, order_kv, c.strided ? 3 : 0, shift, cache_element<C>);
  const int order_m[3] = {0, 1, 2};
  auto m = make<T>(c.bcast_mask ? 1 : c.bsz, c.bcast_mask ? 1 : c.heads, c.seq, c.kv_len, c.kv_len + 3, order_m, 0, 0,
                   [] { return from<T>(std::uniform_real_distribution<float>(0, 1)(rng) < 0.2f ? -10000.0f : randn()); });
  if (c.bcast_mask) m.stride[0] = m.stride[1] = 0;
  keep_first_key(m);
  const float scale = 1.0f / std::sqrt(float(c.dk));

  vorta::DecodeInputs<T, C> in{};
  in.query = q.data();
  in.key = k.data();
  in.value = v.data();
  in.mask = c.mask ? m.data() : nullptr;
  for (int i = 0; i < 3; ++i) in.query_stride[i] = q.stride[i], in.mask_stride[i] = c.mask ? m.stride[i] : 0;
  for (int i = 0; i < 2; ++i) in.key_stride[i] = k.stride[i], in.value_stride[i] = v.stride[i];
  in.bsz = c.bsz, in.num_heads = c.heads, in.kv_heads = c.kv_heads, in.seq_length = c.seq, in.kv_len = c.kv_len;
  in.head_dim = c.dk, in.value_head_dim = c.dv;
  in.scale = scale;

  std::vector<T> out(size_t(c.bsz) * c.heads * c.seq * c.dv, from<T>(NAN));
  vorta::DecodeOutput<T> o{out.data(), {int64_t(c.heads) * c.seq * c.dv, int64_t(c.seq) * c.dv, c.dv}};
  cudaError_t err;
  if (grouped) {
    const int64_t nblocks = (c.kv_len + 31) / 32;
    std::vector<float> stats(size_t(c.bsz) * c.heads * 2 * nblocks, NAN);
    std::vector<T> rows(size_t(c.bsz) * c.heads * nblocks * c.dv, from<T>(NAN));
    vorta::DecodeBlocks<T> blocks{stats.data(), {int64_t(c.heads) * 2 * nblocks, 2 * nblocks},
                                  rows.data(), {int64_t(c.heads) * nblocks * c.dv, nblocks * c.dv}, nblocks};
    err = vorta::cuda::decode_attention_blocks(in, blocks, nullptr);
    if (err == cudaSuccess) err = vorta::cuda::combine_attention_blocks(blocks, o, c.bsz, c.heads, c.dv, nullptr);
  } else {
    std::vector<uint8_t> ws(vorta::cuda::decode_workspace_bytes(in) + 16, 0xff);
    err = vorta::cuda::decode_attention(in, o, ws.data(), nullptr);
  }
  double worst = 0, top = 0;
  const int group = c.heads / c.kv_heads;
  for (int b = 0; b < c.bsz; ++b)
    for (int h = 0; h < c.heads; ++h)
      for (int s = 0; s < c.seq; ++s)
        reference_row(q, k, v, c.mask ? &m : nullptr, b, h, h / group, s, c.kv_len, scale, 0.0,
                      [](auto e, bool key) { return number(e, key); }, [&](int d, double ref) {
                        const double got = value_of(out[((size_t(b) * c.heads + h) * c.seq + s) * c.dv + d]);
                        worst = std::max(worst, std::isnan(got) ? INFINITY : std::abs(got - ref));
                        top = std::max(top, std::abs(ref));
                      });
  char name[200];
  std::snprintf(name, sizeof name, "decode%s %s/%s b%d h%d/%d s%d L%d d%d/%d%s%s%s%s", grouped ? " grouped" : "",
                std::is_same_v<T, float> ? "f32" : "f16",
                std::is_same_v<C, uint8_t> ? "u8" : (std::is_same_v<C, float> ? "f32" : "f16"), c.bsz, c.heads,
                c.kv_heads, c.seq, c.kv_len, c.dk, c.dv, c.mask ? (c.bcast_mask ? " bmask" : " mask") : "",
                c.strided ? " strided" : "", c.misaligned ? " misaligned" : "", err ? " LAUNCH ERROR" : "");
  const double bound = (std::is_same_v<T, float> ? 2e-6 : 4e-3) * std::max(1.0, top);
  check(name, err ? INFINITY : worst, bound);
}

// --------------------------------------------------------------- prefill ---

struct PrefillCase {
  int bsz, heads, kv_heads, q_len, kv_len, dk, dv, out_dim;
  bool causal, mask, bcast_mask, strided, misaligned, half_kv;
  float softcap;
};

template <typename T, typename C>
void run_prefill(const PrefillCase& c) {
  const int order_qkv[3] = {0, 2, 1};  // [b, l, h, d] in memory, as a fused projection lays it out
  const int shift = c.misaligned ? 2 : 0;
  const int extra = c.strided ? 16 : 0;
  auto q = make<T>(c.bsz, c.heads, c.q_len, c.dk, c.dk + extra, order_qkv, 0, shift, [] { return from<T>(randn()); });
  auto k = make<C>(c.bsz, c.kv_heads, c.kv_len, c.dk, c.dk + extra, order_qkv, 0, 0, cache_element<C>);
  auto v = make<C>(c.bsz, c.kv_heads, c.kv_len, c.dv, c.dv + extra, order_qkv, 0, 0, cache_element<C>);
  const int order_m[3] = {0, 1, 2};
  const int width = (c.kv_len + 127) / 128 * 128;
  auto m = make<T>(c.bcast_mask ? 1 : c.bsz, c.bcast_mask ? 1 : c.heads, c.q_len, width, width, order_m, 0, 0,
                   [] { return from<T>(std::uniform_real_distribution<float>(0, 1)(rng) < 0.2f ? -10000.0f : randn()); });
  if (c.bcast_mask) m.stride[0] = m.stride[1] = 0;
  keep_first_key(m);
  const float scale = 1.0f / std::sqrt(float(c.dk));
  const int out_pitch = c.dv + 8;
  std::vector<T> out(size_t(c.bsz) * c.heads * c.q_len * out_pitch, from<T>(-7.0f));

  vorta::PrefillParams<T, C> p{};
  p.query = q.data();
  p.key = k.data();
  p.value = v.data();
  p.mask = c.mask ? m.data() : nullptr;
  p.out = out.data();
  for (int i = 0; i < 3; ++i) {
    p.query_stride[i] = q.stride[i], p.key_stride[i] = k.stride[i], p.value_stride[i] = v.stride[i];
    p.mask_stride[i] = c.mask ? m.stride[i] : 0;
  }
  p.out_stride[0] = int64_t(c.heads) * c.q_len * out_pitch, p.out_stride[1] = int64_t(c.q_len) * out_pitch;
  p.out_stride[2] = out_pitch;
  p.bsz = c.bsz, p.num_heads = c.heads, p.kv_heads = c.kv_heads, p.q_len = c.q_len, p.kv_len = c.kv_len;
  p.head_dim = c.dk, p.value_head_dim = c.dv, p.out_dim = c.out_dim;
  p.scale = scale;
  p.softcap = c.softcap;
  p.causal = c.causal;
  p.half_kv = c.half_kv;
  std::vector<uint8_t> ws(vorta::cuda::prefill_workspace_bytes(p) + 16);
  const cudaError_t err = vorta::cuda::prefill_attention(p, ws.data(), nullptr);

  auto kv_value = [&](const C& e, bool is_key) -> double {
    if constexpr (std::is_same_v<C, uint8_t>) return is_key ? key_code(e) : value_code(e);
    else {
      const double x = value_of(e);
      return c.half_kv ? vorta::half_bits_to_float(vorta::float_to_half_bits(float(x))) : x;
    }
  };
  double worst = 0, top = 0;
  bool outside = false;
  const int group = c.heads / c.kv_heads;
  for (int b = 0; b < c.bsz; ++b)
    for (int h = 0; h < c.heads; ++h)
      for (int i = 0; i < c.q_len; ++i) {
        const T* row = out.data() + ((size_t(b) * c.heads + h) * c.q_len + i) * out_pitch;
        for (int d = c.out_dim; d < out_pitch; ++d) outside |= value_of(row[d]) != -7.0;
        const int end = c.causal ? std::min(c.kv_len, i + 1) : c.kv_len;
        reference_row(q, k, v, c.mask ? &m : nullptr, b, h, h / group, i, end, scale, c.softcap, kv_value,
                      [&](int d, double ref) {
                        if (d >= c.out_dim) return;
                        const double got = value_of(row[d]);
                        worst = std::max(worst, std::isnan(got) ? INFINITY : std::abs(got - ref));
                        top = std::max(top, std::abs(ref));
                      });
      }
  char name[220];
  std::snprintf(name, sizeof name, "prefill %s/%s b%d h%d/%d q%d L%d d%d/%d/%d%s%s%s%s%s%s%s%s",
                std::is_same_v<T, float> ? "f32" : "f16",
                std::is_same_v<C, uint8_t> ? "u8" : (std::is_same_v<C, float> ? "f32" : "f16"), c.bsz, c.heads,
                c.kv_heads, c.q_len, c.kv_len, c.dk, c.dv, c.out_dim, c.causal ? " causal" : "",
                c.mask ? (c.bcast_mask ? " bmask" : " mask") : "", c.strided ? " strided" : "",
                c.misaligned ? " misaligned" : "", c.half_kv ? " half_kv" : "", c.softcap > 0 ? " softcap" : "",
                outside ? " WROTE PAST out_dim" : "", err ? " LAUNCH ERROR" : "");
  const double bound = (std::is_same_v<T, float> && !c.half_kv ? 2e-6 : 4e-3) * std::max(1.0, top);
  check(name, err || outside ? INFINITY : worst, bound);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string only = argc > 1 ? argv[1] : "";
  if (only.empty() || only == "decode") {
    // bsz, heads, kv_heads, seq, kv_len, dk, dv, mask, bcast, strided, misaligned
    const DecodeCase cases[] = {
        {1, 8, 2, 1, 33, 128, 128, true, false, true, false},
        {2, 4, 4, 1, 1, 64, 64, false, false, false, false},
        {1, 8, 1, 1, 129, 80, 80, true, true, true, false},
        {1, 12, 4, 3, 200, 96, 96, true, false, false, false},   // 9 rows per kv head: two chunks
        {1, 2, 2, 1, 31, 256, 256, false, false, true, false},
        {1, 4, 1, 1, 600, 192, 192, true, false, false, false},  // several splits
        {1, 4, 2, 1, 0, 64, 64, false, false, false, false},     // no keys: zero rows
        {1, 4, 1, 2, 77, 64, 64, true, false, true, true},       // byte loads
        {1, 4, 1, 1, 4097, 128, 128, true, false, false, false}, // 32 splits, a 1-key tail
        {1, 4, 1, 1, 6383, 64, 64, false, false, false, false},  // 50 splits: the combine takes 32, then 18
        {2, 16, 2, 1, 257, 128, 128, false, false, true, false}, // group 8
        {1, 16, 1, 1, 100, 64, 64, true, true, false, false},    // group 16: two row chunks
        {3, 4, 4, 1, 128, 80, 80, true, false, false, false},
        {1, 8, 2, 1, 127, 96, 96, false, false, true, false},
    };
    for (const auto& c : cases) {
      run_decode<vh, vh>(c, false);
      run_decode<float, float>(c, false);
      run_decode<vh, uint8_t>(c, false);
      run_decode<float, uint8_t>(c, false);
      if (c.seq == 1 && c.kv_len > 0) {
        run_decode<vh, vh>(c, true);
        run_decode<float, uint8_t>(c, true);
      }
    }
    run_decode<vh, uint8_t>({1, 8, 2, 1, 150, 192, 128, true, false, true, false}, false);
    run_decode<float, uint8_t>({1, 8, 2, 1, 150, 192, 128, true, false, false, false}, false);
    // One 32-key block per split, the finest split a tuning run can set.
    vorta::cuda::set_decode_split(1 << 20, 1);
    run_decode<vh, vh>({2, 8, 2, 1, 600, 128, 128, true, false, false, false}, true);
    run_decode<vh, uint8_t>({2, 8, 2, 1, 600, 128, 128, true, false, false, false}, false);
    vorta::cuda::set_decode_split(0, 0);
  }
  if (only.empty() || only == "prefill") {
    // bsz, heads, kv_heads, q_len, kv_len, dk, dv, out_dim, causal, mask, bcast, strided, misaligned, half_kv, cap
    const PrefillCase cases[] = {
        {1, 2, 1, 70, 70, 128, 128, 128, true, false, false, true, false, false, 0},
        {1, 2, 2, 9, 129, 64, 64, 64, false, true, false, true, false, false, 0},
        {1, 4, 1, 33, 33, 80, 80, 80, true, true, true, false, false, false, 0},
        {1, 2, 1, 20, 65, 96, 96, 96, false, true, false, false, true, false, 0},
        {1, 2, 2, 40, 40, 256, 256, 256, true, true, false, false, false, false, 0},
        {1, 2, 1, 31, 31, 192, 192, 192, false, false, false, true, false, false, 30.0f},
        {1, 3, 3, 50, 70, 72, 72, 72, false, true, true, false, false, true, 0},  // siglip widths
        {1, 1, 1, 130, 130, 64, 64, 64, true, false, false, false, false, false, 0},  // two query blocks
        {1, 1, 1, 5, 300, 128, 128, 128, false, true, false, false, false, false, 0},  // 5 key tiles
        {1, 1, 1, 3, 129, 256, 256, 256, false, false, false, true, false, false, 0},  // 5 key tiles of 32
        {2, 8, 1, 32, 32, 64, 64, 64, true, false, false, false, false, false, 0},  // group 8, batch 2
        {1, 1, 1, 200, 200, 128, 128, 128, true, true, false, false, false, false, 0},  // causal, two blocks
        {1, 2, 2, 1, 127, 96, 96, 96, false, false, false, false, false, false, 0},
        {1, 2, 1, 17, 128, 80, 80, 80, false, true, true, false, false, false, 0},
    };
    for (const auto& c : cases) {
      run_prefill<vh, vh>(c);
      run_prefill<float, float>(c);
      if (c.dk % 16 == 0 && !c.half_kv) {
        run_prefill<vh, uint8_t>(c);
        run_prefill<float, uint8_t>(c);
      }
    }
    run_prefill<vh, uint8_t>({1, 2, 1, 20, 40, 192, 128, 128, true, true, false, false, false, false, 0});
    run_prefill<float, uint8_t>({1, 2, 1, 20, 40, 192, 128, 128, false, true, false, false, false, false, 0});
  }
  std::printf("%d checks, %d failures\n", checks, failures);
  return failures != 0;
}
