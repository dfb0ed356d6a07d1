// Matrix-vector products for the decoder's decode steps: out[t, o] (+)= sum_i x[t, i] w[o, i].
//
// A decode step reads each weight once for a handful of token rows, so the product runs at the
// speed the weight stream allows: every thread takes a contiguous band of output rows, reads
// four weight rows side by side and applies them to every token row while they are in L1.
// Rows are a few KiB, too short for the hardware's prefetcher to learn each one as a stream
// (the products ran at two thirds of the bandwidth), so each group of four fetches the next
// group's rows a line per step. Batched products (the prompt) stay with torch's matrix
// product, which blocks for the caches.
//
// float32 only. The sums run in float32 in a fixed order per output (eight partial sums per
// vector lane pair, then the tail); they are not the bits of any BLAS.
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

// Output rows [r0, r1): four weight rows at a time, two accumulators each (16 columns per
// step) so that the fused multiply-adds of one row do not wait on each other.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
__attribute__((target_clones("arch=x86-64-v3", "default")))
#endif
void product_rows(const Product& p, int64_t r0, int64_t r1) {
  const int64_t cols = p.cols, vec_end = cols / 16 * 16;
  int64_t o = r0;
  for (; o + 4 <= r1; o += 4) {
    const float* w[4] = {p.w + o * cols, p.w + (o + 1) * cols, p.w + (o + 2) * cols, p.w + (o + 3) * cols};
    for (int64_t t = 0; t < p.tokens; ++t) {
      const float* x = p.x + t * p.x_row;
      f32x8 a[4] = {}, b[4] = {};
      for (int64_t i = 0; i < vec_end; i += 16) {
        if (t == 0)  // the next four rows, a cache line of each per step
          for (int r = 0; r < 4; ++r) __builtin_prefetch(w[r] + 4 * cols + i, 0, 3);
        f32x8 xa, xb;
        __builtin_memcpy(&xa, x + i, sizeof xa);
        __builtin_memcpy(&xb, x + i + 8, sizeof xb);
        for (int r = 0; r < 4; ++r) {
          f32x8 wa, wb;
          __builtin_memcpy(&wa, w[r] + i, sizeof wa);
          __builtin_memcpy(&wb, w[r] + i + 8, sizeof wb);
          a[r] += wa * xa;
          b[r] += wb * xb;
        }
      }
      for (int r = 0; r < 4; ++r) {
        float s = sum_lanes(a[r] + b[r]);
        for (int64_t i = vec_end; i < cols; ++i) s += w[r][i] * x[i];
        store(p, t, o + r, s);
      }
    }
  }
  for (; o < r1; ++o)
    for (int64_t t = 0; t < p.tokens; ++t) {
      const float *w = p.w + o * cols, *x = p.x + t * p.x_row;
      float s = 0.f;
      for (int64_t i = 0; i < cols; ++i) s += w[i] * x[i];
      store(p, t, o, s);
    }
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
  // One band of whole four-row groups per thread.
  const int64_t groups = (p.rows + 3) / 4;
  const int64_t per_thread = std::max<int64_t>(1, (groups + at::get_num_threads() - 1) / at::get_num_threads());
  at::parallel_for(0, groups, per_thread, [&](int64_t g0, int64_t g1) {
    product_rows(p, g0 * 4, std::min(p.rows, g1 * 4));
  });
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
