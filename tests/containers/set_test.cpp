// set_test.cpp: the bit set against a vector of bits, where its bits lie, and what it is accounted with.
#include <gtest/gtest.h>
#include <kep/ZuMem.h>
#include <kep/ZuSet.h>

#include <cstring>
#include <random>

#include "support/platform_double.hpp"

namespace {

TEST(Set, HoldsWhatAVectorOfBitsHolds) {
  std::mt19937 random(7);
  for (uint32_t capacity = 1; capacity < 200; capacity += capacity < 26 ? 1 : 29) {
    ZuSet *set = ZuSet_New(capacity);
    std::vector<bool> model(capacity);
    int32_t count = 0, members;
    for (int i = 0; i < 1000; ++i) {
      const auto index = static_cast<uint32_t>(random() % (capacity + 2));
      const int32_t flag = random() % 2 ? static_cast<int32_t>(random()) | 1 : 0;
      const bool changes = index < capacity && model[index] != (flag != 0);
      ASSERT_EQ(ZuSet_Set(set, index, flag), changes) << capacity << " " << index;
      if (changes) model[index] = flag != 0, count += flag ? 1 : -1;
      ASSERT_EQ(ZuSet_Get(set, index), index < capacity && model[index]);
    }
    for (uint32_t i = 0; i < capacity; ++i) ASSERT_EQ(ZuSet_Get(set, i), model[i]);
    std::memcpy(&members, reinterpret_cast<const uint8_t *>(set) + 4, sizeof members);
    EXPECT_EQ(members, count);
    EXPECT_EQ(ZuSet_Set(set, UINT32_MAX, 1) + ZuSet_Get(set, UINT32_MAX), 0);
    ZuSet_Release(set);
  }
}

TEST(Set, PlacesIndex0AloneAndEveryEightUpFromBitOne) {
  ZuSet *set = ZuSet_New(17);
  const auto *bits = reinterpret_cast<const uint8_t *>(set) + 8;
  const uint8_t placed[][4] = {{0, 1}, {1, 1, 2}, {7, 1, 0x82}, {8, 1, 0x83}, {9, 1, 0x83, 2}, {16, 1, 0x83, 3}};
  for (const auto &[index, byte0, byte1, byte2] : placed) {
    ZuSet_Set(set, index, 1);
    const uint8_t expected[] = {byte0, byte1, byte2};
    EXPECT_EQ(std::memcmp(bits, expected, 3), 0) << +index;
  }
  ZuSet_Release(set);
}

TEST(Set, IsAccountedWithoutItsLastByte) {
  const auto reported = [] {  // of the toolkit's own id
    platform::takePrinted();
    ZuMem_Show();
    const std::string report = platform::takePrinted();
    return std::stol(report.substr(report.find("\n    0  0x") + 8), nullptr, 16);
  };
  ZuMem_Show();  // the first report makes the shared print object
  for (const uint32_t capacity : {1U, 8U, 9U, 1000U}) {
    const int64_t before = reported(), taken = platform::liveBytes();
    ZuSet *set = ZuSet_New(capacity);
    EXPECT_EQ(ZuSet_Set(set, capacity - 1, 1), 1) << "which may lie in the last byte";
    EXPECT_EQ(reported() - before, 4 + (capacity + 7) / 8 + 8);
    EXPECT_EQ(platform::liveBytes() - taken, 4 + (capacity + 7) / 8 + 8 + 1);
    ZuSet_Release(set);
    EXPECT_EQ(reported(), before);
  }
}

TEST(Set, RefusesCapacitiesItCannotCount) {
  for (const uint32_t capacity : {0U, 0xFFFFFFF9U, 0xFFFFFFFFU}) EXPECT_EQ(ZuSet_New(capacity), nullptr) << capacity;
  EXPECT_EQ(ZuSet_Get(nullptr, 0) + ZuSet_Set(nullptr, 0, 1), 0);
  ZuSet_Release(nullptr);
}

}  // namespace
