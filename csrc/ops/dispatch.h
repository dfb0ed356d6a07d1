// Runtime values become compile-time constants here, and only here.
//
// Each switch calls the given generic lambda with a type tag or an integral
// constant, and raises the operator's message when nothing matches. Callers
// test head sizes before element types.
#pragma once

#include <ATen/core/Tensor.h>
#include <c10/util/Exception.h>

#include <type_traits>

#include "common/numeric.h"

namespace vorta {

template <typename T>
struct TypeTag {
  using type = T;
};

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

// Calls f(std::integral_constant<int, D>{}) for the D in Ds equal to value.
template <int... Ds, typename F>
void dispatch_int(int64_t value, const char* message, F&& f) {
  bool found = ((value == Ds ? (f(std::integral_constant<int, Ds>{}), true) : false) || ...);
  TORCH_CHECK(found, message);
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
