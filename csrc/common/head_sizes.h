// The head sizes each kernel family is built for, listed once.
//
// The operator layer validates with these lists (its messages name the sizes
// in the order given here) and every backend instantiates its kernels from
// them, so what is admitted and what is built cannot drift apart. Usable by
// g++ and nvcc alike; torch-free.
#pragma once

#include <cstdint>
#include <type_traits>

namespace vorta {

template <int... Sizes>
struct HeadSizes {
  static constexpr int count = sizeof...(Sizes);
  static constexpr int values[count] = {Sizes...};

  static constexpr bool contains(int64_t d) { return ((d == Sizes) || ...); }

  // Calls f(std::integral_constant<int, D>{}) for the listed D equal to d;
  // false when d is not listed. For kernels that take the size as a constant.
  template <typename F>
  static bool dispatch(int64_t d, F&& f) {
    return ((d == Sizes ? (f(std::integral_constant<int, Sizes>{}), true) : false) || ...);
  }
};

namespace head_sizes {

// Decode attention, vector prefill and soft-capped attention.
using Attention = HeadSizes<256, 192, 128, 96, 80, 64>;
// The one unbalanced pairing, over 8-bit caches only: 192-wide keys, 128-wide values.
using UnbalancedKey = HeadSizes<192>;
using UnbalancedValue = HeadSizes<128>;
// Matrix-engine prefill, and the vision-encoder attention built on it.
using MatrixEngine = HeadSizes<128, 80, 64>;
using VisionEncoder = HeadSizes<72>;
// Conversion of key/value caches to and from the 8-bit codes.
using KvCache = HeadSizes<192, 128, 96, 80, 64>;
// Rotary embedding from inverse frequencies, by pairing.
using RotaryHalf = HeadSizes<256, 128, 96, 80, 64, 40, 32, 20, 16>;
using RotaryTwo = HeadSizes<128, 96, 64>;

}  // namespace head_sizes
}  // namespace vorta
