// print_test.cpp: what a print object gathers, and in which pieces it reaches the console.
#include <gtest/gtest.h>
#include <kep/ZuPrint.h>

#include "support/platform_double.hpp"

namespace {

using Calls = std::vector<std::string>;

// A print object over 8 bytes with guard bytes behind them.
class Print : public testing::Test {
 protected:
  Print() {
    ZuPrint_ShowEx("", 0);
    platform::takePrinted();  // what another test left
  }
  ~Print() override {
    ZuPrint_Release(print_);
    EXPECT_EQ(std::string(memory_ + 8, 4), "####");
  }

  char memory_[13] = "xxxxxxxx####";
  ZuPrint *print_ = ZuPrint_New(memory_, 8);
};

}  // namespace

TEST_F(Print, SharedObjectHoldsTextBackUntilItsLineEndsOrItsBufferIsFull) {
  ZuPrint_Show("ab", 0), ZuPrint_Show("c\nd\n\ne", 0), ZuPrint_Show("xyz", -1), ZuPrint_Show("fgh\n", 2);
  ZuPrint_ShowEx("", 0), ZuPrint_Puts("100%s%n", 0), ZuPrint_Puts("", 0), ZuPrint_Puts("one, two", 3);
  EXPECT_EQ(platform::takePrintCalls(), (Calls{"abc\n", "d\n", "\n", "efg", "100%s%n\n", "\n", "one\n"}));
  const std::string most(999, 'a'), more(201, 'b');
  ZuPrint_Show(most.c_str(), 0), ZuPrint_Show(more.c_str(), 0), ZuPrint_Show("\n", 0);
  EXPECT_EQ(platform::takePrintCalls(), (Calls{most, more + "\n"}));
  ZuPrint_Puts(most.c_str(), 0), ZuPrint_Puts(most.c_str(), 998);
  EXPECT_EQ(platform::takePrintCalls(), (Calls{most, "\n", most.substr(1) + "\n"}));

  // With a lock a text that ends its line stays in one piece.
  ZuPrint_Show(more.c_str(), 1), ZuPrint_Puts(most.c_str(), 998), ZuPrint_Show("d\ne\n", 0), ZuPrint_Show("f\ng", 0);
  ZuPrint_ShowEx("", 0);
  const Calls cut = {"b" + most.substr(1), "\n", "d\n", "e\n", "f\n", "g"};
  const Calls whole = {"b", most.substr(1) + "\n", "d\ne\n", "f\n", "g"};
  EXPECT_EQ(platform::takePrintCalls(), platform::isLocking() ? whole : cut);
}

TEST_F(Print, CutsCharactersAtTheCapacityButKeepsTextsWhole) {
  ZuPrint_PrintCh(print_, 'a', 7), ZuPrint_PrintCh(print_, 'b', 1), ZuPrint_PrintCh(print_, 'c', 20);
  ZuPrint_PrintCh(print_, 'd', -5), ZuPrint_Flush(print_), ZuPrint_Flush(print_);
  EXPECT_EQ(platform::takePrintCalls(), (Calls{"aaaaaaa", "bcccccc", "ccccccc", "ccccccc"}));

  ZuPrint_Print(print_, "abc", 3), ZuPrint_Print(print_, "1234567", 1);
  ZuPrint_Print(print_, "1234%678", 2);  // too long: printed directly
  EXPECT_EQ(platform::takePrintCalls(), (Calls{"abcabc", "abc", "1234567", "1234%678", "1234%678"}));
  ZuPrint_Print(print_, "", 5), ZuPrint_Print(print_, "a", -1), ZuPrint_Print(print_, "%n", 1);
  ZuPrint_Release(std::exchange(print_, nullptr));
  EXPECT_EQ(platform::takePrintCalls(), Calls{"%n"});
}

TEST_F(Print, SilentObjectGathersAndLosesWhatOverflows) {
  EXPECT_EQ(memory_[0], '\0');
  ZuPrint_SetPrint(print_, 0);
  ZuPrint_PrintCh(print_, 'a', 5), ZuPrint_Flush(print_);
  ZuPrint_PrintCh(print_, 'b', 5);  // two fit, and all is lost when the third comes
  EXPECT_EQ(std::string(memory_, 7), "bbbaabb");
  ZuPrint_Print(print_, "0123", 1), ZuPrint_Print(print_, "xyz", 1);  // full, so it begins again
  EXPECT_EQ(std::string(memory_, 3), "xyz");
  ZuPrint_Print(print_, "too long", 2), ZuPrint_Print(print_, "ab", 1);  // nothing fits the former
  ZuPrint_SetPrint(print_, 1), ZuPrint_Flush(print_);
  EXPECT_EQ(platform::takePrintCalls(), Calls{"ab"});
}

TEST_F(Print, RefusesBuffersTooSmallAndAcceptsNull) {
  for (const int32_t capacity : {1, 0, INT32_MIN}) EXPECT_EQ(ZuPrint_New(memory_, capacity), nullptr) << capacity;
  EXPECT_EQ(ZuPrint_New(nullptr, 100), nullptr);
  ZuPrint_SetPrint(nullptr, 0), ZuPrint_Flush(nullptr), ZuPrint_Release(nullptr);
  ZuPrint_PrintCh(nullptr, 'a', 1), ZuPrint_Print(nullptr, "a", 1), ZuPrint_Print(print_, nullptr, 1);
  ZuPrint_Show(nullptr, 3), ZuPrint_ShowEx(nullptr, 0), ZuPrint_Puts(nullptr, 0), ZuPrint_Flush(print_);
  EXPECT_EQ(platform::takePrintCalls(), Calls{});
}
