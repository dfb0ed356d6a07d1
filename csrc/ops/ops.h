// The operators of the module, one group per source file. Shapes are
// [dim0, dim1, ...]; "T" is the principal input's element type.
#pragma once

#include <ATen/core/Tensor.h>
#include <c10/util/Optional.h>

namespace vorta {

// norm: weight [hidden], input [tokens, hidden] -> [tokens, hidden]
at::Tensor rms_norm(const at::Tensor& weight, const at::Tensor& input, float eps);
// norm: input [tokens, hidden], weight/bias [hidden] or None -> [tokens, hidden]
at::Tensor layer_norm(const at::Tensor& input, const std::optional<at::Tensor>& weight,
                      const std::optional<at::Tensor>& bias, float eps);

}  // namespace vorta
