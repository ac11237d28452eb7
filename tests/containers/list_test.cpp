// list_test.cpp: order, ownership and bounds of linked lists.
#include <gtest/gtest.h>
#include <kep/ZuList.h>
#include <kep/ZuMem.h>

#include <random>

#include "support/platform_double.hpp"

namespace {

using Values = std::vector<intptr_t>;

Values released;

void release(void *element) { released.push_back(reinterpret_cast<intptr_t>(element)); }

void *value(intptr_t number) { return reinterpret_cast<void *>(number); }

int32_t compare(void *element, const void *key) { return element == key ? 0 : -7; }

Values valuesOf(ZuList *list) {
  Values values;
  for (int32_t i = 0; i < ZuList_Length(list); ++i) values.push_back(reinterpret_cast<intptr_t>(ZuList_Get(list, i)));
  return values;
}

// A dynamic list that must give back all its memory.
class List : public testing::Test {
 protected:
  List() { released.clear(); }
  ~List() override {
    platform::failAllocation(platform::kNever);
    ZuList_Release(list_);
    EXPECT_EQ(platform::liveBytes(), before_);
  }

  void append(const Values &values) {
    for (const intptr_t number : values) EXPECT_EQ(ZuList_Append(list_, value(number)), 1);
  }
  int32_t insert(int32_t index, intptr_t number) { return ZuList_Insert(list_, index, value(number)); }
  int32_t push(intptr_t number) { return ZuList_Push(list_, value(number)); }
  intptr_t set(int32_t index, intptr_t number) {
    return reinterpret_cast<intptr_t>(ZuList_Set(list_, index, value(number)));
  }
  intptr_t remove(int32_t index) { return reinterpret_cast<intptr_t>(ZuList_Remove(list_, index)); }

  static constexpr int32_t kMaxLength = 4;  // of pushes
  int64_t before_ = platform::liveBytes();
  ZuList *list_ = ZuList_New(kMaxLength, release);
};

}  // namespace

TEST_F(List, InsertsBehindThePositionAndFindsTheFirstMatch) {
  append({1, 2});
  EXPECT_EQ(insert(0, 3) + insert(-1, 4) + insert(99, 2), 3);
  EXPECT_EQ(valuesOf(list_), (Values{4, 1, 3, 2, 2}));
  EXPECT_EQ(ZuList_FindPos(list_, compare, value(2)), 3);
  EXPECT_EQ(ZuList_Find(list_, compare, value(2)), value(2));
  EXPECT_EQ(ZuList_FindPos(list_, compare, value(6)), -1);
  EXPECT_EQ(ZuList_Find(list_, compare, value(6)), nullptr);
}

TEST_F(List, FailedAllocationsLeaveWhatWasThereButForWhatPushEvicted) {
  append({1, 2, 3, 4});
  platform::failAllocation(0, true);
  EXPECT_EQ(insert(-1, 9) + ZuList_Append(list_, value(9)), 0);
  EXPECT_EQ(set(6, 9), 0);
  EXPECT_EQ(valuesOf(list_), (Values{1, 2, 3, 4}));
  EXPECT_EQ(push(9), 0);
  EXPECT_EQ(valuesOf(list_), (Values{1, 2, 3}));
  EXPECT_EQ(released, Values{4});
  platform::failAllocation(2);
  EXPECT_EQ(set(6, 9), 0);
  EXPECT_EQ(valuesOf(list_), (Values{1, 2, 3, 0, 0})) << "nodes already added stay";
}

TEST(StaticList, OnlyGrows) {
  static ZuList *list = ZuList_New(2, nullptr);  // never given back
  ZuMem_LocalMalloc_Static(4);                   // its nodes begin off 8-byte alignment
  const int64_t bytes = platform::liveBytes();
  for (intptr_t i = 1; i <= 4; ++i) EXPECT_EQ(ZuList_Push(list, value(i)), 1);
  EXPECT_EQ(ZuList_Set(list, 5, value(9)), nullptr);
  for (const int32_t index : {0, 1, 5, -1}) EXPECT_EQ(ZuList_Remove(list, index), nullptr);
  ZuList_RemoveAll(list);
  ZuList_Release(list);
  EXPECT_EQ(valuesOf(list), (Values{4, 3, 2, 1, 0, 9}));
  EXPECT_EQ(platform::liveBytes(), bytes) << "its nodes come from the pool";
}

TEST_F(List, BehavesAsASequenceUnderRandomOperations) {
  std::mt19937 random(4711);
  Values model, lost;
  for (intptr_t i = 1; i <= 20000; ++i) {
    const auto size = static_cast<int32_t>(model.size());
    const int32_t index = random() % 20 == 0 ? INT32_MIN : static_cast<int32_t>(random() % 8) - 1;
    const auto at = [&model](int32_t position) { return model.begin() + position; };
    switch (random() % 7) {
      case 0:
        ASSERT_EQ(insert(index, i), 1);
        model.insert(at(index < 0 ? 0 : index < size ? index + 1 : size), i);
        break;
      case 1:
        ASSERT_EQ(set(index, i), index >= 0 && index < size ? *at(index) : 0);
        if (index >= size) model.resize(static_cast<size_t>(index) + 1);  // with zeros
        if (index >= 0) *at(index) = i;
        break;
      case 2: {
        const int32_t victim = index < 0 ? 1 : index;
        ASSERT_EQ(remove(index), victim < size ? *at(victim) : 0);
        if (victim < size) model.erase(at(victim));
        break;
      }
      case 3:
        if (size >= kMaxLength && model.back()) lost.push_back(model.back());  // zeros are not released
        if (size >= kMaxLength) model.pop_back();
        ASSERT_EQ(push(i), 1);
        model.insert(model.begin(), i);
        break;
      case 4:
        ASSERT_EQ(ZuList_PopTail(list_), value(size ? model.back() : 0));
        if (size) model.pop_back();
        break;
      case 5:
        ASSERT_EQ(ZuList_Popup(list_), value(size ? model.front() : 0));
        if (size) model.erase(model.begin());
        break;
      default:
        if (random() % 50 != 0) break;
        std::copy_if(model.begin(), model.end(), std::back_inserter(lost), [](intptr_t number) { return number != 0; });
        model.clear();
        ZuList_RemoveAll(list_);
    }
    ASSERT_EQ(valuesOf(list_), model) << i;
    ASSERT_EQ(ZuList_Get(list_, INT32_MIN), value(model.empty() ? 0 : model.front()));
  }
  EXPECT_EQ(released, lost);
}

TEST_F(List, AcceptsNull) {
  ZuList_RemoveAll(nullptr);
  ZuList_Release(nullptr);
  for (void *result : {ZuList_Find(nullptr, compare, nullptr), ZuList_Get(nullptr, 0), ZuList_Set(nullptr, 0, nullptr),
                       ZuList_Remove(nullptr, 0), ZuList_Popup(nullptr), ZuList_PopTail(nullptr)}) {
    EXPECT_EQ(result, nullptr);
  }
  EXPECT_EQ(ZuList_Length(nullptr) + ZuList_Insert(nullptr, 0, nullptr), 0);
  EXPECT_EQ(ZuList_Append(nullptr, nullptr) + ZuList_Push(nullptr, nullptr), 0);
  EXPECT_EQ(ZuList_FindPos(nullptr, compare, nullptr), -1);
  append({1});
  EXPECT_EQ(ZuList_FindPos(list_, nullptr, nullptr), -1);
}
