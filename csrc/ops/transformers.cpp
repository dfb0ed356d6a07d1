// Repetition penalty and attention softmax: checks, working memory and launch.
#include <ATen/ops/aminmax.h>
#include <ATen/ops/empty.h>

#include "common/fatal.h"
#include "cpu/elementwise.h"
#include "ops/dispatch.h"
#include "ops/launch.h"
#include "ops/ops.h"

#if VORTA_CUDA_ELEMENTWISE
#include "cuda/elementwise.h"
#endif

namespace vorta {
namespace {

constexpr char kAssertSource[] = "transformers";

template <typename T>
void repetition_penalty_launcher(const PenaltyParams<T>& p, const c10::Device& device) {
  launch(device, "repetition penalty logits process", [&] { cpu::repetition_penalty(p); },
         VORTA_CUDA_LAUNCHER(ELEMENTWISE, "repetition_penalty_logits_process_inplaced",
                             [&](cudaStream_t s) { return cuda::repetition_penalty(p, s); }));
}

template <typename T>
void attn_softmax_launcher(const SoftmaxParams<T>& p, const c10::Device& device) {
  launch(device, "attention softmax in fp32 inplaced", [&] { cpu::attn_softmax(p); },
         VORTA_CUDA_LAUNCHER(ELEMENTWISE, "attn_softmax_inplaced",
                             [&](cudaStream_t s) { return cuda::attn_softmax(p, s); }));
}

// On the host the ids are in memory already, so a bad one is refused before
// anything is written. On a GPU reading them back would wait for the stream:
// the kernel skips ids outside [0, vocab) instead.
void check_ids_in_vocab(const at::Tensor& input_ids, int64_t vocab) {
  if (!input_ids.device().is_cpu() || input_ids.numel() == 0) return;
  const auto [lo, hi] = at::aminmax(input_ids);
  const int64_t min_id = lo.item<int64_t>(), max_id = hi.item<int64_t>();
  TORCH_CHECK(min_id >= 0 && max_id < vocab, "input_ids must lie in [0, vocab) = [0, ", vocab,
              "), got ", min_id < 0 ? min_id : max_id);
}

}  // namespace

void repetition_penalty_logits_process_inplaced(const at::Tensor& scores,
                                                const at::Tensor& input_ids, float penalty) {
  VORTA_ASSERT(scores.dim() == 2 && input_ids.dim() == 2);
  VORTA_ASSERT_TEXT(is_supported_device(scores.device()) && is_supported_device(input_ids.device()),
                    "scores.device().is_xpu() && input_ids.device().is_xpu()");
  VORTA_ASSERT_TEXT(input_ids.scalar_type() == at::kLong, "input_ids.scalar_type() == AT::Long");
  const int64_t bsz = input_ids.size(0), seq_len = input_ids.size(1);
  at::Tensor working = at::empty({bsz, seq_len}, scores.options());
  dispatch_float_half(scores.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    TORCH_CHECK(input_ids.device() == scores.device(), "input_ids must be on the device of scores");
    TORCH_CHECK(bsz == scores.size(0), "input_ids and scores must have the same number of rows");
    TORCH_CHECK(scores.stride(1) == 1 || scores.size(1) <= 1,
                "scores must be contiguous in its last dimension");
    TORCH_CHECK(input_ids.stride(1) == 1 || seq_len <= 1,
                "input_ids must be contiguous in its last dimension");
    check_ids_in_vocab(input_ids, scores.size(1));
    const PenaltyParams<T> p{mut_ptr<T>(scores),  mut_ptr<T>(working), const_ptr<int64_t>(input_ids),
                             scores.stride(0),    working.stride(0),    input_ids.stride(0),
                             bsz,                 seq_len,              scores.size(1),
                             penalty};
    repetition_penalty_launcher(p, scores.device());
  });
}

void attn_softmax_inplaced(const at::Tensor& attn) {
  VORTA_ASSERT(attn.dim() == 4 || attn.dim() == 3);
  VORTA_ASSERT(attn.is_contiguous());
  // The 3-D view [-1, size(-2), size(-1)], taken from the sizes (it holds for empty tensors too).
  const int64_t slices = attn.dim() == 4 ? attn.size(0) * attn.size(1) : attn.size(0);
  dispatch_float_half(attn.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    attn_softmax_launcher(SoftmaxParams<T>{mut_ptr<T>(attn), slices * attn.size(-2), attn.size(-1)},
                          attn.device());
  });
}

}  // namespace vorta
