// Decode attention called directly: one row tile fed block by block, and the
// entry point over a key range long enough to be split, against a
// double-precision softmax over the decoded cache.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <type_traits>
#include <vector>

#include "common/kv_codes.h"
#include "common/numeric.h"
#include "cpu/decode.h"
#include "cpu/decode/row_tile.h"

namespace {

using vorta::DecodeInputs;
using vorta::half;

// One batch entry, `group` query heads over one key/value head, one token.
template <typename T, typename C>
struct Case {
  int64_t group, kv_len, d;
  std::vector<T> q, mask;
  std::vector<C> k, v;

  Case(int64_t group_, int64_t kv_len_, int64_t d_) : group(group_), kv_len(kv_len_), d(d_) {
    std::mt19937 gen(11);
    std::normal_distribution<float> n(0.0f, 1.0f);
    std::uniform_int_distribution<int> byte(0, 255);
    q.resize(group * d), mask.resize(group * kv_len), k.resize(kv_len * d), v.resize(kv_len * d);
    for (T& x : q) x = vorta::from_float<T>(n(gen));
    for (T& x : mask) x = vorta::from_float<T>(n(gen) < -1.5f ? -10000.0f : 0.5f * n(gen));
    // One draw after the other: the order of a call's arguments differs
    // between compilers for x86-64 and aarch64.
    auto draw = [&] {
      const int b = byte(gen);
      return element(n(gen), b);
    };
    for (C& x : k) x = draw();
    for (C& x : v) x = draw();
  }

  static C element(float x, int b) {
    if constexpr (std::is_same_v<C, uint8_t>) return uint8_t(b);
    else return vorta::from_float<C>(x);
  }
  template <class Code>
  static double value(C x) {
    if constexpr (std::is_same_v<C, uint8_t>) return vorta::half_bits_to_float(vorta::kv::decode<Code>(x));
    else return vorta::to_float(x);
  }

  DecodeInputs<T, C> inputs(float scale) const {
    DecodeInputs<T, C> in{};
    in.query = q.data();
    in.query_stride[0] = group * d, in.query_stride[1] = d, in.query_stride[2] = d;
    in.key = k.data(), in.value = v.data();
    in.key_stride[0] = in.key_stride[1] = in.value_stride[0] = in.value_stride[1] = kv_len * d;
    in.mask = mask.data();
    in.mask_stride[0] = group * kv_len, in.mask_stride[1] = kv_len, in.mask_stride[2] = kv_len;
    in.bsz = 1, in.num_heads = group, in.kv_heads = 1, in.seq_length = 1, in.kv_len = kv_len;
    in.head_dim = in.value_head_dim = d;
    in.scale = scale;
    return in;
  }

  // Head h's result: softmax(scale q.k + mask) . v in double.
  std::vector<double> reference(int64_t h, double scale) const {
    std::vector<double> s(kv_len), out(d, 0.0);
    double top = -INFINITY, sum = 0;
    for (int64_t j = 0; j < kv_len; ++j) {
      double dot = 0;
      for (int64_t c = 0; c < d; ++c) dot += vorta::to_float(q[h * d + c]) * value<vorta::kv::KeyCode>(k[j * d + c]);
      s[j] = dot * scale + vorta::to_float(mask[h * kv_len + j]);
      top = std::max(top, s[j]);
    }
    for (int64_t j = 0; j < kv_len; ++j) {
      const double w = std::exp(s[j] - top);
      sum += w;
      for (int64_t c = 0; c < d; ++c) out[c] += w * value<vorta::kv::ValueCode>(v[j * d + c]);
    }
    for (double& x : out) x /= sum;
    return out;
  }
};

template <typename T, typename C>
void expect_tile_matches(int64_t group, int64_t kv_len, int64_t d, double tolerance) {
  const Case<T, C> c(group, kv_len, d);
  const auto in = c.inputs(0.125f);
  vorta::cpu::decode::RowTile<T, C> tile(in, group);
  tile.bind(0, 0, 0, group);
  tile.reset();
  constexpr int64_t step = vorta::cpu::decode::kBlock;
  for (int64_t j0 = 0; j0 < kv_len; j0 += step) tile.add_block(j0, int(std::min<int64_t>(step, kv_len - j0)));
  std::vector<float> row(d);
  for (int64_t h = 0; h < group; ++h) {
    tile.store(h, row.data());
    const auto want = c.reference(h, 0.125);
    for (int64_t i = 0; i < d; ++i) ASSERT_NEAR(row[i], want[i], tolerance) << "head " << h << " column " << i;
  }
}

// Every row-tile height (4, 2, 1 rows: 7 heads) and a partial last block.
TEST(DecodeTile, FullPrecisionCacheMatchesTheReference) {
  expect_tile_matches<float, float>(7, 70, 64, 2e-6);
  expect_tile_matches<half, half>(7, 33, 128, 2e-6);
}

TEST(DecodeTile, EightBitCacheIsReadAsItsDecodedValues) {
  expect_tile_matches<float, uint8_t>(7, 95, 80, 2e-5);
}

// 4096 keys over one key/value head are cut into chunks whose parts meet in
// the workspace.
TEST(DecodeAttention, ASplitKeyRangeCombinesInTheWorkspace) {
  const Case<float, float> c(4, 4096, 64);
  const auto in = c.inputs(0.125f);
  const size_t bytes = vorta::cpu::decode_workspace_bytes(in);
  ASSERT_GT(bytes, 0u);
  std::vector<char> workspace(bytes);
  std::vector<float> out(4 * 64);
  vorta::cpu::decode_attention(in, vorta::DecodeOutput<float>{out.data(), {4 * 64, 64, 64}}, workspace.data());
  for (int64_t h = 0; h < 4; ++h) {
    const auto want = c.reference(h, 0.125);
    for (int64_t i = 0; i < 64; ++i) ASSERT_NEAR(out[h * 64 + i], want[i], 2e-6) << h << " " << i;
  }
}

}  // namespace
