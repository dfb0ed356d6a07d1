// Element-type dispatch and head-size validation of the operator layer.
//
// An element-type switch calls the given generic lambda with a type tag and
// raises the operator's message when nothing matches. Head sizes stay runtime
// values here: they are checked against the kernel family's list in
// common/head_sizes.h, before element types.
#pragma once

#include <ATen/core/Tensor.h>
#include <c10/util/Exception.h>

#include <string>
#include <type_traits>

#include "common/head_sizes.h"
#include "common/numeric.h"

namespace vorta {

template <typename T>
struct TypeTag {
  using type = T;
};

// The attention operators' head grouping: query heads a whole multiple of the
// key/value heads, key and value alike. The modulo is taken only once the
// key/value head count is known to be positive (0 heads fails the check).
inline bool heads_group(const at::Tensor& query, const at::Tensor& key, const at::Tensor& value) {
  return key.size(1) > 0 && query.size(1) % key.size(1) == 0 && key.size(1) == value.size(1);
}
inline constexpr char kHeadsGroupText[] = "query.size(1) % key.size(1) == 0 && key.size(1) == value.size(1)";

inline constexpr char kFloatHalfMessage[] = "unsupported dtype, only fp32 and fp16 are supported";
inline constexpr char kFloatHalfBf16Message[] =
    "unsupported dtype, only fp32, fp16 and bf16 are supported";

// float32 -> float, float16 -> vorta::half; anything else throws.
template <typename F>
void dispatch_float_half(at::ScalarType t, F&& f) {
  switch (t) {
    case at::kFloat: return f(TypeTag<float>{});
    case at::kHalf: return f(TypeTag<half>{});
    default: TORCH_CHECK(false, kFloatHalfMessage);
  }
}

template <typename F>
void dispatch_float_half_bf16(at::ScalarType t, F&& f) {
  switch (t) {
    case at::kBFloat16: return f(TypeTag<bf16>{});
    case at::kFloat: return f(TypeTag<float>{});
    case at::kHalf: return f(TypeTag<half>{});
    default: TORCH_CHECK(false, kFloatHalfBf16Message);
  }
}

// How a head-size message agrees its verb: with the number of sizes ("only 72
// is supported"), or always plural, as quantize_key_value words it ("only 192
// are supported").
enum class Verb { by_count, plural };

// "unsupported <what>, only 256, 192, 128, 96, 80 and 64 are supported", from the list.
template <class Sizes>
std::string head_size_message(const char* what, Verb verb = Verb::by_count) {
  std::string m = std::string("unsupported ") + what + ", only ";
  for (int i = 0; i < Sizes::count; ++i) {
    if (i > 0) m += i + 1 < Sizes::count ? ", " : " and ";
    m += std::to_string(Sizes::values[i]);
  }
  return m + (Sizes::count == 1 && verb == Verb::by_count ? " is supported" : " are supported");
}

// Raises the list's message unless d is in it. Head sizes are checked
// before element types.
template <class Sizes>
void check_head_size(int64_t d, const char* what = "head_dim", Verb verb = Verb::by_count) {
  TORCH_CHECK(Sizes::contains(d), head_size_message<Sizes>(what, verb));
}

// Element pointers. 16-bit float types are torch's in another name, so their
// pointers are taken untyped; byte tensors go through torch's typed access,
// which rejects any other dtype.
template <typename T>
inline const T* const_ptr(const at::Tensor& t) {
  if constexpr (std::is_same_v<T, uint8_t>) return t.const_data_ptr<uint8_t>();
  else return static_cast<const T*>(t.const_data_ptr());
}
template <typename T>
inline T* mut_ptr(const at::Tensor& t) {
  if constexpr (std::is_same_v<T, uint8_t>) return t.data_ptr<uint8_t>();
  else return static_cast<T*>(t.data_ptr());
}

}  // namespace vorta
