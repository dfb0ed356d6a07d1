// The repetition penalty called directly: an id outside the vocabulary is
// neither read nor written, the others are penalised once.
#include <gtest/gtest.h>

#include <vector>

#include "cpu/elementwise.h"

TEST(RepetitionPenalty, IdsOutsideTheVocabularyAreSkipped) {
  // Two rows of 8 logits inside rows of 12: the 4 past the vocabulary are canaries.
  std::vector<float> scores = {2, -2, 0, 4, 1, 1, 1, 1, 9, 9, 9, 9,  //
                               3, 3, 3, 3, 3, 3, 3, -6, 9, 9, 9, 9};
  std::vector<float> working(2 * 5);
  const std::vector<int64_t> ids = {0, 1, 8, 0, -1,  //
                                    7, 100, 2, -5, 7};
  vorta::cpu::repetition_penalty(
      vorta::PenaltyParams<float>{scores.data(), working.data(), ids.data(), 12, 5, 5, 2, 5, 8, 2.0f});
  const std::vector<float> want = {1, -4, 0, 4, 1, 1, 1, 1, 9, 9, 9, 9,  //
                                   3, 3, 1.5, 3, 3, 3, 3, -12, 9, 9, 9, 9};
  EXPECT_EQ(scores, want);
}
