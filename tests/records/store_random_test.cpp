// Random operations on stores of several limits; a fuzz harness takes the same steps.
#include <gtest/gtest.h>

#include <random>
#include <tuple>

#include "records/store_steps.hpp"

namespace {

// The limit, the largest value, how many steps.
class RandomStore : public testing::TestWithParam<std::tuple<uint32_t, int64_t, int>> {};

TEST_P(RandomStore, AgreesWithItsModel) {
  const auto [limit, largest, count] = GetParam();
  std::mt19937 random(limit + 1);
  std::string difference;
  int step = 0;
  {
    StoreSteps steps(limit, largest, [&random](uint32_t n) { return static_cast<uint32_t>(random()) % n; });
    for (; difference.empty() && step < count; ++step) difference = steps.step() + steps.difference();
  }
  EXPECT_EQ(difference, "") << "step " << step;
  EXPECT_EQ(platform::liveBlocks(), 0);
}

INSTANTIATE_TEST_SUITE_P(Limits, RandomStore,
                         testing::Values(std::tuple(0, 700, 1500), std::tuple(1024, 300, 6000),
                                         std::tuple(2048, 700, 4000), std::tuple(3000, 500, 4000),
                                         std::tuple(10240, 1500, 3000), std::tuple(300000, 30000, 800),
                                         std::tuple(1000000, 66000, 300)));

}  // namespace
