// funclog_test.cpp: what the function log reads, filters and prints of the calls that a host writes.
#include <gtest/gtest.h>
#include <kep/ZuFuncLog.h>
#include <kep/ZuMem.h>

#include <cstdlib>
#include <ctime>
#include <vector>

#include "support/platform_double.hpp"

namespace {

class FuncLog : public testing::Test {
 protected:
  FuncLog() {
    setenv("TZ", "UTC0", 1);
    tzset();
    platform::takePrinted();
  }
  ~FuncLog() override {
    ZuMem *block = log_->store->block;
    ZuFuncLog_Release(log_);
    ZuMem_Release(block);  // stays behind
  }

  // Writes a call as a host does, at the time 1970/01/01 00:00:01, with `data` already packed.
  void call(uint8_t index, const std::string &data = "") {
    const std::string value = std::string("\0\0\0\1", 4) + data;
    ZuInfo_Append(log_->store, &index, 1, value.data(), static_cast<int32_t>(value.size()));
  }

  std::string shown(const char *name, int32_t skip, int32_t limit) {
    ZuFuncLog_Show(log_, name, skip, limit);
    return platform::takePrinted();
  }

  // The last digits of the counters of the records shown, and the first letters of their functions.
  std::string listed(const char *name, int32_t skip, int32_t limit) {
    const std::string text = shown(name, skip, limit), label = ",func:";
    std::string list;
    for (size_t at = 0; (at = text.find(label, at)) != std::string::npos; ++at) {
      list += {text[at - 1], text[at + label.size()], ' '};
    }
    return list;
  }

  static constexpr char kTime[] = "0001[T]=>1970/01/01 00:00:01<\n";
  ZuFuncLogEntry table_[3] = {{"open", "I", 3, "(path)"}, {"read", "h2s", 0, "(fd, n)"}, {"close", "", -1, ""}};
  ZuFuncLog *log_ = ZuFuncLog_New(table_, 3, 1 << 20);
};

TEST_F(FuncLog, PrintsCallsAndTable) {
  call(0, {"\x00\x00\x12\x34", 4}), call(2), call(1, "\xFF\xFFhi");
  EXPECT_EQ(shown(nullptr, 0, 100), std::string("\nindex=0,func:open (path)\nformat:*TI\n") + kTime +
                                        "0002[I]=>0x00001234<\n"
                                        "\nindex=1,func:close \nformat:*T\n" +
                                        kTime + "\nindex=2,func:read (fd, n)\nformat:*Th2s\n" + kTime +
                                        "0002[h]=>-1<\n0003[2s]=>hi<\n");
  ZuFuncLog_ShowFunc(log_, "ignored", 1);
  EXPECT_EQ(platform::takePrinted(),
            "\nopen(path)\nid:0;cnt:3;fmt:I\nread(fd, n)\nid:1;cnt:0;fmt:h2s\nclose\nid:2;cnt:-1;fmt:\n");
}

TEST_F(FuncLog, CountsFromZeroItsLimitFromSkipAndEndsAtABadIndex) {
  for (const int index : {0, 2, 0, 2, 0, 2, 3, 0, 200, 0}) call(static_cast<uint8_t>(index), "data");
  EXPECT_EQ(listed(nullptr, 2, 3), "2o 3c 4o ");
  EXPECT_EQ(listed("close", 4, 100), "4o 5c ") << "a name that is known shows them all";
  EXPECT_EQ(listed("", 5, INT32_MAX), "5c ");
  EXPECT_EQ(listed(nullptr, -2, 3), "0o ") << "the limit counts from skip, wherever that is";
  EXPECT_EQ(listed(nullptr, 7, 100), "7o ") << "skipped, a bad index does not matter";
  EXPECT_EQ(shown(nullptr, 0, 0) + shown(nullptr, 0, -1) + shown(nullptr, 10, 100) + shown("Open", 0, 100), "");
  std::vector<ZuFuncLogEntry> functions(201, {"f", "", 0, ""});
  log_->table = functions.data(), log_->count = 201;
  EXPECT_EQ(listed(nullptr, 7, 100), "7f 8f 9f ") << "an index has no sign";
}

TEST_F(FuncLog, HandsOutOneCallAfterAnother) {
  ZuFuncLog_Ignore(nullptr, 1), ZuFuncLog_Ignore(log_, 5);
  EXPECT_EQ(ZuFuncLog_Get(nullptr, -1, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(log_->ignore, 5);
  call(200, "data"), call(1);
  int32_t cursor = -1, index = 0, length = 0;
  const uint8_t *value = nullptr;
  const auto next = [&](int32_t id) {
    const int32_t result = ZuFuncLog_Get(log_, id, &cursor, &index, &value, &length);
    return std::to_string(result) + " " + std::to_string(index) + " " + std::to_string(length);
  };
  EXPECT_EQ(next(3), "0 0 0") << "no such function";
  EXPECT_EQ(next(2), "1 200 8") << "any other id takes every call";
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(value) + 4, 4), "data");
  EXPECT_EQ(next(-1), "1 1 4");
  EXPECT_EQ(next(-1), "0 1 4");
  ZuInfo_Append(log_->store, "", 0, "no key", 6), call(0);
  EXPECT_EQ(next(-1), "0 1 6") << "the length only";
  EXPECT_EQ(listed(nullptr, 1, 100), "1r ") << "a record without a key ends the list";
}

TEST_F(FuncLog, PrintsFormatsAndTextsOfAnyLength) {
  const std::string longText(1500, 'x'), format(1200, 'b'), first = "func:" + longText + " " + longText + "\n";
  table_[0] = {longText.c_str(), format.c_str(), 0, longText.c_str()};
  log_->count = 1;
  call(0, std::string(1200, '\7')), call(0, "short");  // less than the format says: nothing behind it is read
  const std::string text = shown(nullptr, 0, 2), begin = "\nindex=0," + first + "format:*T" + format + "\n" + kTime;
  EXPECT_EQ(text.substr(0, begin.size()), begin);
  EXPECT_EQ(text.substr(text.rfind("1201")), "1201[B]=>7<\n\nindex=1," + first);
  ZuFuncLog_ShowFunc(log_);
  EXPECT_EQ(platform::takePrinted(), "\n" + longText + longText + "\nid:0;cnt:0;fmt:" + format + "\n");
}

}  // namespace
