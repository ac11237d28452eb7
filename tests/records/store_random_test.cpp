// Random operations on stores of several limits; a fuzz harness takes the same steps.
#include <gtest/gtest.h>

#include <ostream>
#include <random>

#include "records/store_steps.hpp"

namespace {

struct Case {
  uint32_t limit;
  int64_t largest;
  int steps;
};

void PrintTo(const Case &c, std::ostream *out) { *out << c.limit; }  // names the case

class RandomStore : public testing::TestWithParam<Case> {};

TEST_P(RandomStore, AgreesWithItsModel) {
  const auto [limit, largest, count] = GetParam();
  std::mt19937 random(limit + 1);
  {
    StoreSteps steps(limit, largest, [&random](uint32_t n) { return static_cast<uint32_t>(random()) % n; });
    for (int i = 0; i < count; ++i) {
      ASSERT_EQ(steps.step(), "") << "step " << i;
      ASSERT_EQ(steps.difference(), "") << "step " << i;
    }
  }
  EXPECT_EQ(platform::liveBlocks(), 0);
}

INSTANTIATE_TEST_SUITE_P(Limits, RandomStore,
                         testing::Values(Case{0, 700, 1500}, Case{1024, 300, 6000}, Case{2048, 700, 4000},
                                         Case{3000, 500, 4000}, Case{10240, 1500, 3000}, Case{300000, 30000, 800},
                                         Case{1000000, 66000, 300}),
                         [](const auto &test) { return "Limit" + std::to_string(test.param.limit); });

}  // namespace
