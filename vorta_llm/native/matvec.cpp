// Matrix-vector products for the decoder's decode steps: out[t, o] (+)= sum_i x[t, i] w[o, i].
//
// A decode step reads each weight once for a handful of token rows, so the product runs at the
// speed the weight stream allows: every thread takes a contiguous band of output rows and reads
// it front to back, one weight row at a time, applying the row to every token row while it is
// in L1. The band is then a single ascending stream, which the hardware prefetcher follows at
// the full read bandwidth; reading several rows side by side instead makes each row a stream of
// its own, a few KiB long, and ran at half that on Zen 4. Batched products (the prompt) stay
// with torch's matrix product, which blocks for the caches.
//
// float32 only. The sums run in float32 in a fixed order per output (four partial sums per
// vector lane, then the tail); they are not the bits of any BLAS.
#include <ATen/Parallel.h>
#include <torch/extension.h>

#include <algorithm>
#include <cstdint>

namespace {

// Eight float lanes: one AVX register where the clone below targets AVX2, SSE pairs or NEON
// elsewhere.
typedef float f32x8 __attribute__((vector_size(32), aligned(4)));

inline float sum_lanes(const f32x8& v) {
  float s = 0.f;
  for (int l = 0; l < 8; ++l) s += v[l];
  return s;
}

struct Product {
  const float* w;  // [rows, cols], dense
  const float* x;  // [tokens, cols], row stride x_row
  float* out;      // [tokens, rows], strides out_token, out_row
  int64_t rows, cols, tokens, x_row, out_token, out_row;
  bool accumulate;
};

inline void store(const Product& p, int64_t t, int64_t o, float v) {
  float& y = p.out[t * p.out_token + o * p.out_row];
  y = p.accumulate ? y + v : v;
}

// acc += w[0, 8) * x[0, 8), lane by lane.
inline void multiply_add(f32x8& acc, const float* w, const float* x) {
  f32x8 a, b;
  __builtin_memcpy(&a, w, sizeof a);
  __builtin_memcpy(&b, x, sizeof b);
  acc += a * b;
}

// sum_i w[i] x[i] over n columns: 32 per step in four independent sums, then 8 at a time, then
// one at a time.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
__attribute__((target_clones("arch=x86-64-v3", "default")))
#endif
float dot(const float* w, const float* x, int64_t n) {
  f32x8 a[4] = {};
  int64_t i = 0;
  for (; i + 32 <= n; i += 32)
    for (int u = 0; u < 4; ++u) multiply_add(a[u], w + i + 8 * u, x + i + 8 * u);
  for (; i + 8 <= n; i += 8) multiply_add(a[0], w + i, x + i);
  float s = sum_lanes((a[0] + a[1]) + (a[2] + a[3]));
  for (; i < n; ++i) s += w[i] * x[i];
  return s;
}

// Output rows [r0, r1), in order.
void product_rows(const Product& p, int64_t r0, int64_t r1) {
  for (int64_t o = r0; o < r1; ++o)
    for (int64_t t = 0; t < p.tokens; ++t) store(p, t, o, dot(p.w + o * p.cols, p.x + t * p.x_row, p.cols));
}

void check(bool ok, const char* what) { TORCH_CHECK(ok, "vorta_llm.matvec: ", what); }

// out[t, o] = sum_i x[t, i] * weight[o, i], or out += that when accumulate.
void matvec(const at::Tensor& x, const at::Tensor& weight, at::Tensor& out, bool accumulate) {
  check(x.device().is_cpu() && weight.device().is_cpu() && out.device().is_cpu(), "CPU tensors only");
  check(x.scalar_type() == at::kFloat && weight.scalar_type() == at::kFloat && out.scalar_type() == at::kFloat,
        "float32 tensors only");
  check(weight.dim() == 2 && weight.is_contiguous(), "weight must be a dense [out, in] matrix");
  check(x.dim() == 2 && x.size(1) == weight.size(1) && x.stride(1) == 1,
        "x must be [tokens, in] with dense rows");
  check(out.dim() == 2 && out.size(0) == x.size(0) && out.size(1) == weight.size(0), "out must be [tokens, out]");
  Product p{weight.data_ptr<float>(), x.data_ptr<float>(), out.data_ptr<float>(), weight.size(0), weight.size(1),
            x.size(0), x.stride(0), out.stride(0), out.stride(1), accumulate};
  // One band of rows per thread.
  const int64_t per_thread = std::max<int64_t>(1, (p.rows + at::get_num_threads() - 1) / at::get_num_threads());
  at::parallel_for(0, p.rows, per_thread, [&](int64_t r0, int64_t r1) { product_rows(p, r0, r1); });
}

}  // namespace

TORCH_LIBRARY(vorta_llm, m) {
  m.def("matvec(Tensor x, Tensor weight, Tensor(a!) out, bool accumulate) -> ()");
}

TORCH_LIBRARY_IMPL(vorta_llm, CPU, m) {
  m.impl("matvec", [](const at::Tensor& x, const at::Tensor& weight, at::Tensor out, bool accumulate) {
    matvec(x, weight, out, accumulate);
  });
}

// Importing the module registers the operator: torch.ops.vorta_llm.matvec.
PYBIND11_MODULE(TORCH_EXTENSION_NAME, m) {}
