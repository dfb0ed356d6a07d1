// The head-size lists: membership and the dispatch that hands kernels their constant.
#include <gtest/gtest.h>

#include <vector>

#include "common/head_sizes.h"

using vorta::head_sizes::Attention;

TEST(HeadSizes, MembershipFollowsTheList) {
  for (int d : {256, 192, 128, 96, 80, 64}) EXPECT_TRUE(Attention::contains(d)) << d;
  for (int d : {0, 63, 72, 112, 160, 512, -64}) EXPECT_FALSE(Attention::contains(d)) << d;
  EXPECT_TRUE(vorta::head_sizes::VisionEncoder::contains(72));
  EXPECT_FALSE(vorta::head_sizes::MatrixEngine::contains(96));
}

TEST(HeadSizes, DispatchPassesTheSizeAsAConstant) {
  std::vector<int> seen;
  for (int d : {80, 100})
    EXPECT_EQ(Attention::dispatch(d, [&](auto size) { seen.push_back(decltype(size)::value); }), d == 80);
  EXPECT_EQ(seen, std::vector<int>{80});
}
