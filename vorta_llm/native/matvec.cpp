// Matrix-vector products for the decoder's decode steps: out[t, o] (+)= sum_i x[t, i] w[o, i].
//
// A decode step reads each weight once for a handful of token rows, so the product runs at the
// speed the weight stream allows: every thread takes a contiguous band of output rows and reads
// it front to back, one weight row at a time, applying the row to every token row while it is
// in L1. The band is then a single ascending stream, which the hardware prefetcher follows at
// the full read bandwidth; reading several rows side by side instead makes each row a stream of
// its own, a few KiB long, and ran at half that on Zen 4. Token rows with strided elements, and
// float16 ones, are first made dense float rows. Long batched products (a long prompt) belong to
// a matrix product that blocks for the caches; the caller picks (vorta_llm/model.py).
//
// float32 or float16 (x, weight and out of one dtype). The sums run in float32 in a fixed order
// per output (four partial sums per vector lane, then the tail), from float16 elements widened
// exactly; a float16 result is rounded once, after the accumulation into what out held. They
// are not the bits of any BLAS.
#include <ATen/Parallel.h>
#include <torch/extension.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#include <immintrin.h>
#define VORTA_LLM_X86 1
#else
#define VORTA_LLM_X86 0
#endif

namespace {

// Eight float lanes: one AVX register where the clone below targets AVX2, SSE pairs or NEON
// elsewhere.
typedef float f32x8 __attribute__((vector_size(32), aligned(4)));

inline float sum_lanes(const f32x8& v) {
  float s = 0.f;
  for (int l = 0; l < 8; ++l) s += v[l];
  return s;
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
#if VORTA_LLM_X86
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

// The same sums over a float16 row w (widened exactly) and a float row x.
float dot_portable(const at::Half* w, const float* x, int64_t n) {
  float a[4][8] = {};
  int64_t i = 0;
  for (; i + 32 <= n; i += 32)
    for (int u = 0; u < 4; ++u)
      for (int l = 0; l < 8; ++l) a[u][l] += float(w[i + 8 * u + l]) * x[i + 8 * u + l];
  for (; i + 8 <= n; i += 8)
    for (int l = 0; l < 8; ++l) a[0][l] += float(w[i + l]) * x[i + l];
  float s = 0.f;
  for (int l = 0; l < 8; ++l) s += (a[0][l] + a[1][l]) + (a[2][l] + a[3][l]);
  for (; i < n; ++i) s += float(w[i]) * x[i];
  return s;
}

#if VORTA_LLM_X86
// F16C widens eight halves per instruction; the compiler's own conversion of half vectors goes
// element by element.
__attribute__((target("avx2,fma,f16c"))) float dot_f16c(const at::Half* w, const float* x, int64_t n) {
  const auto* h = reinterpret_cast<const __m128i*>(w);
  __m256 a[4] = {_mm256_setzero_ps(), _mm256_setzero_ps(), _mm256_setzero_ps(), _mm256_setzero_ps()};
  int64_t i = 0;
  for (; i + 32 <= n; i += 32)
    for (int u = 0; u < 4; ++u)
      a[u] = _mm256_fmadd_ps(_mm256_cvtph_ps(_mm_loadu_si128(h + (i + 8 * u) / 8)), _mm256_loadu_ps(x + i + 8 * u),
                             a[u]);
  for (; i + 8 <= n; i += 8)
    a[0] = _mm256_fmadd_ps(_mm256_cvtph_ps(_mm_loadu_si128(h + i / 8)), _mm256_loadu_ps(x + i), a[0]);
  alignas(32) float lanes[8];
  _mm256_store_ps(lanes, _mm256_add_ps(_mm256_add_ps(a[0], a[1]), _mm256_add_ps(a[2], a[3])));
  float s = 0.f;
  for (float v : lanes) s += v;
  for (; i < n; ++i) s += _cvtsh_ss(w[i].x) * x[i];
  return s;
}

// VORTA_CPU_ISA=generic, as for vorta_addons' kernels, keeps to the portable code.
bool use_f16c() {
  __builtin_cpu_init();  // this runs among the static constructors, maybe before libgcc's own
  const char* isa = std::getenv("VORTA_CPU_ISA");
  return !(isa && std::strcmp(isa, "generic") == 0) && __builtin_cpu_supports("avx2") &&
         __builtin_cpu_supports("fma") && __builtin_cpu_supports("f16c");
}
const bool kHaveF16c = use_f16c();
#endif

float dot(const at::Half* w, const float* x, int64_t n) {
#if VORTA_LLM_X86
  if (kHaveF16c) return dot_f16c(w, x, n);
#endif
  return dot_portable(w, x, n);
}

template <typename T>
struct Product {
  const T* w;      // [rows, cols], dense
  const float* x;  // [tokens, cols], row stride x_row
  T* out;          // [tokens, rows], strides out_token, out_row
  int64_t rows, cols, tokens, x_row, out_token, out_row;
  bool accumulate;
};

template <typename T>
inline void store(const Product<T>& p, int64_t t, int64_t o, float v) {
  T& y = p.out[t * p.out_token + o * p.out_row];
  y = T(p.accumulate ? float(y) + v : v);
}

// Output rows [r0, r1), in order.
template <typename T>
void product_rows(const Product<T>& p, int64_t r0, int64_t r1) {
  for (int64_t o = r0; o < r1; ++o)
    for (int64_t t = 0; t < p.tokens; ++t) store(p, t, o, dot(p.w + o * p.cols, p.x + t * p.x_row, p.cols));
}

template <typename T>
void run(const Product<T>& p) {
  // One band of rows per thread.
  const int64_t per_thread = std::max<int64_t>(1, (p.rows + at::get_num_threads() - 1) / at::get_num_threads());
  at::parallel_for(0, p.rows, per_thread, [&](int64_t r0, int64_t r1) { product_rows(p, r0, r1); });
}

void check(bool ok, const char* what) { TORCH_CHECK(ok, "vorta_llm.matvec: ", what); }

// out[t, o] = sum_i x[t, i] * weight[o, i], or out += that when accumulate.
void matvec(const at::Tensor& x, const at::Tensor& weight, at::Tensor& out, bool accumulate) {
  check(x.device().is_cpu() && weight.device().is_cpu() && out.device().is_cpu(), "CPU tensors only");
  const auto dtype = weight.scalar_type();
  check((dtype == at::kFloat || dtype == at::kHalf) && x.scalar_type() == dtype && out.scalar_type() == dtype,
        "x, weight and out must all be float32 or all float16");
  check(weight.dim() == 2 && weight.is_contiguous(), "weight must be a dense [out, in] matrix");
  check(x.dim() == 2 && x.size(1) == weight.size(1), "x must be [tokens, in]");
  check(out.dim() == 2 && out.size(0) == x.size(0) && out.size(1) == weight.size(0), "out must be [tokens, out]");
  const int64_t rows = weight.size(0), cols = weight.size(1), tokens = x.size(0);
  if (dtype == at::kFloat && x.stride(1) == 1) {
    run(Product<float>{weight.data_ptr<float>(), x.data_ptr<float>(), out.data_ptr<float>(), rows, cols, tokens,
                       x.stride(0), out.stride(0), out.stride(1), accumulate});
    return;
  }
  // The token rows as dense float rows, made once: every weight row meets them again.
  const at::Tensor xf = x.to(at::kFloat).contiguous();
  const float* xp = xf.data_ptr<float>();
  if (dtype == at::kFloat)
    run(Product<float>{weight.data_ptr<float>(), xp, out.data_ptr<float>(), rows, cols, tokens, cols, out.stride(0),
                       out.stride(1), accumulate});
  else
    run(Product<at::Half>{weight.data_ptr<at::Half>(), xp, out.data_ptr<at::Half>(), rows, cols, tokens, cols,
                          out.stride(0), out.stride(1), accumulate});
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
