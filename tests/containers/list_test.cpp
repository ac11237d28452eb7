// list_test.cpp: order, ownership and bounds of linked lists.
#include <gtest/gtest.h>
#include <kep/ZuList.h>
#include <kep/ZuMem.h>

#include <algorithm>
#include <random>

#include "support/platform_double.hpp"

namespace {

using Values = std::vector<void *>;

Values released;

void *value(intptr_t number) { return reinterpret_cast<void *>(number); }

int32_t compare(void *element, const void *key) { return element == key ? 0 : -7; }

Values valuesOf(ZuList *list) {
  Values values;
  for (int32_t i = 0; i < ZuList_Length(list); ++i) values.push_back(ZuList_Get(list, i));
  return values;
}

}  // namespace

TEST(List, BehavesAsASequenceUnderRandomOperations) {
  constexpr int32_t kMaxLength = 4;  // of pushes
  const int64_t before = platform::liveBytes();
  ZuList *list = ZuList_New(kMaxLength, [](void *element) { released.push_back(element); });
  std::mt19937 random(4711);
  Values model, lost;
  const auto at = [&model](int32_t position) { return model.begin() + position; };
  const auto lose = [&](int32_t first) {
    std::copy_if(at(first), model.end(), std::back_inserter(lost), [](void *element) { return element; });
    model.erase(at(first), model.end());
  };
  for (int round = 0; round < 20000; ++round) {
    const auto size = static_cast<int32_t>(model.size());
    const int32_t index = random() % 20 == 0 ? INT32_MIN : static_cast<int32_t>(random() % 8) - 1;
    void *const element = value(static_cast<intptr_t>(random() % 9));
    const auto operation = random() % 8;
    const bool memoryIsShort = random() % 3 == 0;
    platform::failAllocation(memoryIsShort ? 0 : platform::kNever);
    if (operation == 0) {
      ASSERT_EQ(ZuList_Insert(list, index, element), !memoryIsShort);
      if (!memoryIsShort) model.insert(at(index < 0 ? 0 : std::min(index + 1, size)), element);
    } else if (operation == 7) {
      ASSERT_EQ(ZuList_Append(list, element), !memoryIsShort);
      if (!memoryIsShort) model.push_back(element);
    } else if (operation == 1) {
      ASSERT_EQ(ZuList_Set(list, index, element), index >= 0 && index < size ? *at(index) : nullptr);
      const bool fails = index >= size && memoryIsShort;  // the first new node; the others are zeros
      if (index >= size && !fails) model.resize(static_cast<size_t>(index) + 1);
      if (index >= 0 && !fails) *at(index) = element;
    } else if (operation == 2) {
      if (size >= kMaxLength) lose(size - 1);
      ASSERT_EQ(ZuList_Push(list, element), !memoryIsShort);
      if (!memoryIsShort) model.insert(at(0), element);
    } else if (operation < 6) {
      const int32_t victim = operation == 3 ? 0 : operation == 4 ? size - 1 : index < 0 ? 1 : index;
      void *const removed = operation == 3   ? ZuList_Popup(list)
                            : operation == 4 ? ZuList_PopTail(list)
                                             : ZuList_Remove(list, index);
      const bool exists = victim >= 0 && victim < size;
      ASSERT_EQ(removed, exists ? *at(victim) : nullptr);
      if (exists) model.erase(at(victim));
    } else if (random() % 50 == 0) {
      lose(0);
      ZuList_RemoveAll(list);
    }
    platform::failAllocation(platform::kNever);
    ASSERT_EQ(valuesOf(list), model) << round;
    ASSERT_EQ(ZuList_Get(list, INT32_MIN), model.empty() ? nullptr : model.front());
    const auto found = std::find(model.begin(), model.end(), element);
    ASSERT_EQ(ZuList_FindPos(list, compare, element), found == model.end() ? -1 : found - model.begin());
    ASSERT_EQ(ZuList_Find(list, compare, element), found == model.end() ? nullptr : element);
  }
  EXPECT_EQ(released, lost);
  ZuList_Release(list);
  EXPECT_EQ(platform::liveBytes(), before);
}

TEST(List, OnlyGrowsWhenStatic) {
  static ZuList *list = ZuList_New(2, nullptr);  // never given back
  ZuMem_LocalMalloc_Static(4);                   // its nodes begin off 8-byte alignment
  const int64_t bytes = platform::liveBytes();
  for (intptr_t i = 1; i <= 4; ++i) EXPECT_EQ(ZuList_Push(list, value(i)), 1);
  EXPECT_EQ(ZuList_Set(list, 5, value(9)), nullptr);
  for (const int32_t index : {0, 1, 5, -1}) EXPECT_EQ(ZuList_Remove(list, index), nullptr);
  ZuList_RemoveAll(list), ZuList_Release(list);
  EXPECT_EQ(valuesOf(list), (Values{value(4), value(3), value(2), value(1), nullptr, value(9)}));
  EXPECT_EQ(platform::liveBytes(), bytes) << "its nodes come from the pool";
}

TEST(List, RefusesNullAndWhatMemoryCannotHold) {
  ZuList *list = ZuList_New(0, [](void *) {});
  ZuList_Append(list, list);
  platform::failAllocation(2, true);
  EXPECT_TRUE(!ZuList_Set(list, INT32_MAX, list) && ZuList_Length(list) == 1) << "refused at once";
  EXPECT_EQ(ZuList_Set(list, 3, list), nullptr);
  platform::failAllocation(platform::kNever);
  EXPECT_EQ(valuesOf(list), (Values{list, nullptr, nullptr})) << "nodes already added stay";
  EXPECT_EQ(ZuList_FindPos(list, nullptr, nullptr) + ZuList_FindPos(nullptr, compare, nullptr) + ZuList_Length(nullptr),
            -2);
  ZuList_Release(list), ZuList_Release(nullptr), ZuList_RemoveAll(nullptr);
  EXPECT_TRUE(!ZuList_Find(nullptr, compare, nullptr) && !ZuList_Get(nullptr, 0) && !ZuList_Set(nullptr, 0, nullptr));
  EXPECT_TRUE(!ZuList_Remove(nullptr, 0) && !ZuList_Popup(nullptr) && !ZuList_PopTail(nullptr));
  EXPECT_FALSE(ZuList_Insert(nullptr, 0, list) || ZuList_Push(nullptr, list) || ZuList_Append(nullptr, list));
}
