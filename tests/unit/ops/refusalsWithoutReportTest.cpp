#include <gtest/gtest.h>

#include "ops/refusals.h"

namespace {

TEST(RefusalsWithoutReport, KnowOfNone) {
  ops::clearRefusals();
  EXPECT_EQ(ops::refusals().count, 0);
  EXPECT_EQ(ops::refusals().first.size(), 0U);
}

}  // namespace
