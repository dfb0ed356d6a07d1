// Repetition penalty and attention softmax: checks, working memory and launch.
#include <ATen/ops/empty.h>

#include "common/fatal.h"
#include "cpu/transformers.h"
#include "ops/dispatch.h"
#include "ops/launch.h"
#include "ops/ops.h"

namespace vorta {
namespace {

constexpr char kAssertSource[] = "transformers";

// One device work-group of WG lanes per sequence.
template <typename T, int WG>
void repetition_penalty_logits_process_inplaced_kernel(void* scores, void* working,
                                                       const int64_t* ids, int64_t scores_stride,
                                                       int64_t working_stride, int64_t ids_stride,
                                                       float penalty, int32_t seq_len, int32_t bsz,
                                                       const c10::Device& device) {
  auto sc = static_cast<T*>(scores);
  auto w = static_cast<T*>(working);
  submit_kernel(
      [=](const Stream& s) {
        if (s.is_cpu())
          return cpu::repetition_penalty<T>(sc, w, ids, scores_stride, working_stride, ids_stride,
                                            penalty, seq_len, bsz);
        VORTA_CUDA(cuda::repetition_penalty<T>(sc, w, ids, scores_stride, working_stride,
                                               ids_stride, penalty, seq_len, bsz, s.cuda()));
      },
      device, "repetition penalty logits process");
}

// One device work-group of WG lanes per row.
template <typename T, int WG>
void attn_softmax_inplaced_kernel(void* attn, int64_t slices, int64_t rows, int64_t n,
                                  const c10::Device& device) {
  auto a = static_cast<T*>(attn);
  const int64_t total_rows = slices * rows;
  submit_kernel(
      [=](const Stream& s) {
        if (s.is_cpu()) return cpu::attn_softmax<T>(a, total_rows, n);
        VORTA_CUDA(cuda::attn_softmax<T>(a, total_rows, n, s.cuda()));
      },
      device, "attention softmax in fp32 inplaced");
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
    repetition_penalty_logits_process_inplaced_kernel<T, 32>(
        scores.data_ptr(), working.data_ptr(), const_ptr<int64_t>(input_ids), scores.stride(0),
        working.stride(0), input_ids.stride(0), penalty, int32_t(seq_len), int32_t(bsz),
        scores.device());
  });
}

void attn_softmax_inplaced(const at::Tensor& attn) {
  VORTA_ASSERT(attn.dim() == 4 || attn.dim() == 3);
  VORTA_ASSERT(attn.is_contiguous());
  // The 3-D view [-1, size(-2), size(-1)], taken from the sizes (it holds for empty tensors too).
  const int64_t slices = attn.dim() == 4 ? attn.size(0) * attn.size(1) : attn.size(0);
  dispatch_float_half(attn.scalar_type(), [&](auto tag) {
    using T = typename decltype(tag)::type;
    attn_softmax_inplaced_kernel<T, 32>(attn.data_ptr(), slices, attn.size(-2), attn.size(-1),
                                        attn.device());
  });
}

}  // namespace vorta
