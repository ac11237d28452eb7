// set_test.cpp: the bit set against a vector of bits, where its bits lie, and what it is accounted with.
#include <gtest/gtest.h>
#include <kep/ZuSet.h>

#include <algorithm>
#include <random>

#include "support/platform_double.hpp"

namespace {

TEST(Set, HoldsWhatAVectorOfBitsHolds) {
  std::mt19937 random(7);
  for (uint32_t capacity = 1; capacity < 200; capacity += capacity < 26 ? 1 : 29) {
    const int64_t before = platform::liveBytes();
    ZuSet *set = ZuSet_New(capacity);
    const auto *words = reinterpret_cast<const uint32_t *>(set);  // accounted size | capacity | members | bits
    EXPECT_EQ(words[-1], 8 + (capacity + 7) / 8);
    EXPECT_EQ(platform::liveBytes() - before, 4 + 8 + (capacity + 7) / 8 + 1) << "the last bit may lie behind the rest";
    std::vector<bool> model(capacity + 2);
    for (int i = 0; i < 1000; ++i) {
      const auto index = static_cast<uint32_t>(random() % (capacity + 2));
      const int32_t flag = random() % 2 ? static_cast<int32_t>(random()) | 1 : 0;
      const bool changes = index < capacity && model[index] != (flag != 0);
      ASSERT_EQ(ZuSet_Set(set, index, flag), changes) << capacity << " " << index;
      if (changes) model[index] = flag != 0;
      ASSERT_EQ(ZuSet_Get(set, index), model[index]);
    }
    std::string bits((capacity + 7) / 8 + 1, '\0');  // byte 0 has index 0 alone
    for (uint32_t i = 0; i < capacity; ++i) bits[(i + 7) / 8] |= static_cast<char>(model[i] << i % 8);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(words + 2), bits.size()), bits) << capacity;
    EXPECT_EQ(words[1], std::count(model.begin(), model.end(), true));
    ZuSet_Release(set);
  }
}

TEST(Set, RefusesCapacitiesItCannotCount) {
  for (const uint32_t capacity : {0U, 0xFFFFFFF9U, 0xFFFFFFFFU}) EXPECT_EQ(ZuSet_New(capacity), nullptr) << capacity;
  EXPECT_EQ(ZuSet_Get(nullptr, 0) + ZuSet_Set(nullptr, 0, 1), 0);
  ZuSet_Release(nullptr);
}

}  // namespace
