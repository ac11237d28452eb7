// print_test.cpp: what a print object gathers, and in which pieces it reaches the console.
#include <gtest/gtest.h>
#include <kep/ZuPrint.h>

#include "support/platform_double.hpp"

namespace {

using Calls = std::vector<std::string>;

Calls show(const std::string &text, int32_t length = 0) {
  ZuPrint_Show(text.c_str(), length);
  return platform::takePrintCalls();
}

// A print object over 8 bytes with guard bytes behind them.
class Print : public testing::Test {
 protected:
  Print() { show("\n"); }  // what another test left
  ~Print() override {
    ZuPrint_Release(print_);
    EXPECT_EQ(std::string(memory_ + 8, 4), "####");
  }

  Calls put(const std::string &text, int32_t count = 1) {
    ZuPrint_Print(print_, text.c_str(), count);
    return platform::takePrintCalls();
  }
  Calls put(char ch, int32_t count) {
    ZuPrint_PrintCh(print_, ch, count);
    return platform::takePrintCalls();
  }
  Calls flush() {
    ZuPrint_Flush(print_);
    return platform::takePrintCalls();
  }
  std::string held(size_t length) { return std::string(memory_, length); }

  char memory_[13] = "xxxxxxxx####";
  ZuPrint *print_ = ZuPrint_New(memory_, 8);
};

}  // namespace

TEST(SharedPrint, WithoutMemoryTheTextIsDroppedAndTheNextOneTriesAgain) {
  const bool exists = platform::liveBlocks() > 0;  // made by an earlier test of this process
  platform::takePrinted();
  platform::failAllocation(0, true);
  ZuPrint_Puts("lost", 0);
  platform::failAllocation(platform::kNever);
  EXPECT_EQ(platform::takePrinted(), exists ? "lost\n" : "");
  ZuPrint_Puts("kept", 0);
  EXPECT_EQ(platform::takePrinted(), "kept\n");
}

TEST_F(Print, SharedObjectHoldsTextBackUntilItsLineEndsOrItsBufferIsFull) {
  EXPECT_EQ(show("ab"), Calls{});
  EXPECT_EQ(show("c\n"), Calls{"abc\n"});
  EXPECT_EQ(show("d\n\ne"), (Calls{"d\n", "\n"}));
  EXPECT_EQ(show("xyz", -1), Calls{});
  EXPECT_EQ(show("fgh\n", 2), Calls{});
  ZuPrint_ShowEx("", 0);
  EXPECT_EQ(platform::takePrintCalls(), Calls{"efg"});
  ZuPrint_Puts("100%s%n", 0);
  ZuPrint_Puts("", 0);
  ZuPrint_Puts("one, two", 3);
  EXPECT_EQ(platform::takePrintCalls(), (Calls{"100%s%n\n", "\n", "one\n"}));
  EXPECT_EQ(show(std::string(999, 'a')), Calls{});
  EXPECT_EQ(show(std::string(201, 'b')), Calls{std::string(999, 'a')});
  EXPECT_EQ(show("\n"), Calls{std::string(201, 'b') + "\n"});
}

TEST_F(Print, CutsCharactersAtTheCapacityButKeepsTextsWhole) {
  EXPECT_EQ(put('a', 7), Calls{});
  EXPECT_EQ(put('b', 1), Calls{"aaaaaaa"});
  EXPECT_EQ(put('c', 20), (Calls{"bcccccc", "ccccccc"}));
  EXPECT_EQ(put('d', -5), Calls{});
  EXPECT_EQ(flush(), Calls{"ccccccc"});
  EXPECT_EQ(flush(), Calls{});

  EXPECT_EQ(put("abc", 3), Calls{"abcabc"});
  EXPECT_EQ(put("1234567"), Calls{"abc"});
  EXPECT_EQ(put("1234%678", 2), (Calls{"1234567", "1234%678", "1234%678"}));  // too long: printed directly
  EXPECT_EQ(put("", 5), Calls{});
  EXPECT_EQ(put("a", -1), Calls{});
  EXPECT_EQ(put("rest"), Calls{});
  ZuPrint_Release(std::exchange(print_, nullptr));
  EXPECT_EQ(platform::takePrintCalls(), Calls{"rest"});
}

TEST_F(Print, SilentObjectGathersAndLosesWhatOverflows) {
  EXPECT_EQ(held(1), std::string(1, '\0'));
  ZuPrint_SetPrint(print_, 0);
  put('a', 5);
  flush();
  EXPECT_EQ(held(5), "aaaaa");
  put('b', 5);  // two fit, and all is lost when the third comes
  EXPECT_EQ(held(3), "bbb");
  put("0123");  // full
  put("xyz");
  EXPECT_EQ(held(3), "xyz");
  EXPECT_EQ(put("too long", 2), Calls{}) << "does not even fit alone, but is not printed";
  put("ab");
  ZuPrint_SetPrint(print_, 1);
  EXPECT_EQ(flush(), Calls{"ab"});
}

TEST_F(Print, RefusesBuffersTooSmallAndAcceptsNull) {
  const int64_t before = platform::liveBytes();
  char buffer[4] = "xyz";
  for (const int32_t capacity : {1, 0, INT32_MIN}) EXPECT_EQ(ZuPrint_New(buffer, capacity), nullptr) << capacity;
  EXPECT_EQ(ZuPrint_New(nullptr, 100), nullptr);
  EXPECT_STREQ(buffer, "xyz");
  EXPECT_EQ(platform::liveBytes(), before);

  ZuPrint_SetPrint(nullptr, 0);
  ZuPrint_PrintCh(nullptr, 'a', 1);
  ZuPrint_Print(nullptr, "a", 1);
  ZuPrint_Print(print_, nullptr, 1);
  ZuPrint_Flush(nullptr);
  ZuPrint_Release(nullptr);
  ZuPrint_Show(nullptr, 3);
  ZuPrint_ShowEx(nullptr, 0);
  ZuPrint_Puts(nullptr, 0);
  EXPECT_EQ(platform::takePrintCalls(), Calls{});
}
