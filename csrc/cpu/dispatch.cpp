// The entry points of the CPU kernels: each call goes to the build for the
// instruction set in use (cpu/isa.h), looked up once per entry point.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/numeric.h"
#include "cpu/isa.h"

// The entry points in vorta::cpu, then the same declarations in each build's
// namespace.
#include "cpu/kernel_headers.inc"
#undef VORTA_ISA_BEGIN
#undef VORTA_ISA_END
#define VORTA_ISA_BEGIN namespace generic {
#define VORTA_ISA_END }
#include "cpu/kernel_headers.inc"
#if VORTA_ISA_AVX2
#undef VORTA_ISA_BEGIN
#define VORTA_ISA_BEGIN namespace avx2 {
#include "cpu/kernel_headers.inc"
#endif

namespace vorta::cpu {
namespace {

bool cpu_has(Isa isa) {
#if defined(__x86_64__) && defined(__GNUC__)
  switch (isa) {
    case Isa::avx512:
      if (!__builtin_cpu_supports("avx512f") || !__builtin_cpu_supports("avx512vl")) return false;
      [[fallthrough]];
    case Isa::avx2:
      return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") && __builtin_cpu_supports("f16c");
    case Isa::generic:
      return true;
  }
  return false;
#else
  return isa == Isa::generic;
#endif
}

Isa choose_isa() {
  constexpr Isa kAll[] = {Isa::avx512, Isa::avx2, Isa::generic};
  Isa want = kAll[0];
  if (const char* setting = std::getenv("VORTA_CPU_ISA"); setting && *setting) {
    bool known = false;
    for (Isa isa : kAll)
      if (std::strcmp(setting, isa_name(isa)) == 0) want = isa, known = true;
    if (!known) {
      std::fprintf(stderr, "vorta_addons: VORTA_CPU_ISA=%s is none of avx512, avx2, generic\n", setting);
      std::abort();
    }
  }
  // A setting above what the CPU has gets the best below it, as for
  // ATEN_CPU_CAPABILITY; a build without the AVX2 kernels (aarch64) has only
  // the generic ones.
  for (Isa isa : kAll)
    if (int(isa) <= int(want) && cpu_has(isa) && (VORTA_ISA_AVX2 || isa == Isa::generic)) return isa;
  return Isa::generic;
}

template <typename F>
F pick(F generic_fn, [[maybe_unused]] F avx2_fn) {
#if VORTA_ISA_AVX2
  if (active_isa() != Isa::generic) return avx2_fn;
#endif
  return generic_fn;
}

}  // namespace

Isa active_isa() {
  static const Isa isa = choose_isa();
  return isa;
}

const char* isa_name(Isa isa) {
  switch (isa) {
    case Isa::avx512: return "avx512";
    case Isa::avx2: return "avx2";
    case Isa::generic: break;
  }
  return "generic";
}

#if VORTA_ISA_AVX2
#define VORTA_PICK(...) pick(&generic::__VA_ARGS__, &avx2::__VA_ARGS__)
#else
#define VORTA_PICK(...) pick(&generic::__VA_ARGS__, &generic::__VA_ARGS__)
#endif

void allow_wide_decode(bool allow) {
  generic::allow_wide_decode(allow);
#if VORTA_ISA_AVX2
  avx2::allow_wide_decode(allow);
#endif
}

template <typename T, typename C>
size_t decode_workspace_bytes(const DecodeInputs<T, C>& in) {
  static const auto impl = VORTA_PICK(decode_workspace_bytes<T, C>);
  return impl(in);
}

template <typename T, typename C>
void decode_attention(const DecodeInputs<T, C>& in, const DecodeOutput<T>& out, void* workspace) {
  static const auto impl = VORTA_PICK(decode_attention<T, C>);
  impl(in, out, workspace);
}

template <typename T, typename C>
void decode_attention_blocks(const DecodeInputs<T, C>& in, const DecodeBlocks<T>& blocks) {
  static const auto impl = VORTA_PICK(decode_attention_blocks<T, C>);
  impl(in, blocks);
}

template <typename T>
void combine_attention_blocks(const DecodeBlocks<T>& blocks, const DecodeOutput<T>& out, int64_t bsz,
                              int64_t num_heads, int64_t value_head_dim) {
  static const auto impl = VORTA_PICK(combine_attention_blocks<T>);
  impl(blocks, out, bsz, num_heads, value_head_dim);
}

template <typename T, typename C>
size_t prefill_workspace_bytes(const PrefillParams<T, C>& p) {
  static const auto impl = VORTA_PICK(prefill_workspace_bytes<T, C>);
  return impl(p);
}

template <typename T, typename C>
void prefill_attention(const PrefillParams<T, C>& p, void* workspace) {
  static const auto impl = VORTA_PICK(prefill_attention<T, C>);
  impl(p, workspace);
}

#define VORTA_INSTANTIATE(T, C)                                                                   \
  template size_t decode_workspace_bytes<T, C>(const DecodeInputs<T, C>&);                           \
  template void decode_attention<T, C>(const DecodeInputs<T, C>&, const DecodeOutput<T>&, void*);    \
  template void decode_attention_blocks<T, C>(const DecodeInputs<T, C>&, const DecodeBlocks<T>&);    \
  template size_t prefill_workspace_bytes<T, C>(const PrefillParams<T, C>&);                         \
  template void prefill_attention<T, C>(const PrefillParams<T, C>&, void*);
VORTA_INSTANTIATE(float, float)
VORTA_INSTANTIATE(half, half)
VORTA_INSTANTIATE(float, uint8_t)
VORTA_INSTANTIATE(half, uint8_t)
#undef VORTA_INSTANTIATE

// The entry points of one parameter block each: name<T>(const Params<T>&).
#define VORTA_ENTRY(name, ...)                        \
  template <typename T>                               \
  void name(const __VA_ARGS__& p) {                   \
    static const auto impl = VORTA_PICK(name<T>);     \
    impl(p);                                          \
  }
VORTA_ENTRY(silu_mul, SiluMulParams<T>)
VORTA_ENTRY(repetition_penalty, PenaltyParams<T>)
VORTA_ENTRY(attn_softmax, SoftmaxParams<T>)
VORTA_ENTRY(quantize_key_value, KvConvertParams<T, uint8_t>)
VORTA_ENTRY(dequantize_key_value, KvConvertParams<uint8_t, T>)
VORTA_ENTRY(moe_softmax_topk, MoeSoftmaxParams<T>)
VORTA_ENTRY(moe_group_topk, MoeGroupParams<T>)
VORTA_ENTRY(rms_norm, NormParams<T>)
VORTA_ENTRY(layer_norm, NormParams<T>)
VORTA_ENTRY(rotary_inv_freq, RotaryFreqParams<T>)
VORTA_ENTRY(rotary_with_cache, RotaryCacheParams<T>)
#undef VORTA_ENTRY

template void silu_mul<float>(const SiluMulParams<float>&);
template void silu_mul<half>(const SiluMulParams<half>&);
template void repetition_penalty<float>(const PenaltyParams<float>&);
template void repetition_penalty<half>(const PenaltyParams<half>&);
template void attn_softmax<float>(const SoftmaxParams<float>&);
template void attn_softmax<half>(const SoftmaxParams<half>&);
template void quantize_key_value<float>(const KvConvertParams<float, uint8_t>&);
template void quantize_key_value<half>(const KvConvertParams<half, uint8_t>&);
template void dequantize_key_value<float>(const KvConvertParams<uint8_t, float>&);
template void dequantize_key_value<half>(const KvConvertParams<uint8_t, half>&);
template void moe_softmax_topk<float>(const MoeSoftmaxParams<float>&);
template void moe_softmax_topk<half>(const MoeSoftmaxParams<half>&);
template void moe_group_topk<float>(const MoeGroupParams<float>&);
template void moe_group_topk<half>(const MoeGroupParams<half>&);
template void rotary_inv_freq<float>(const RotaryFreqParams<float>&);
template void rotary_inv_freq<half>(const RotaryFreqParams<half>&);
template void rotary_with_cache<float>(const RotaryCacheParams<float>&);
template void rotary_with_cache<half>(const RotaryCacheParams<half>&);
template void rotary_with_cache<bf16>(const RotaryCacheParams<bf16>&);
template void rms_norm<float>(const NormParams<float>&);
template void rms_norm<half>(const NormParams<half>&);
template void layer_norm<float>(const NormParams<float>&);
template void layer_norm<half>(const NormParams<half>&);
template void combine_attention_blocks<float>(const DecodeBlocks<float>&, const DecodeOutput<float>&, int64_t,
                                              int64_t, int64_t);
template void combine_attention_blocks<half>(const DecodeBlocks<half>&, const DecodeOutput<half>&, int64_t,
                                             int64_t, int64_t);

}  // namespace vorta::cpu
