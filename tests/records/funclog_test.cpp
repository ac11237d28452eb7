// funclog_test.cpp: what the function log reads, filters and prints of the calls that a host writes.
#include <gtest/gtest.h>
#include <kep/ZuBuffer.h>
#include <kep/ZuFuncLog.h>
#include <kep/ZuMem.h>

#include <cstdlib>
#include <ctime>
#include <regex>
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

  // Writes a call as a host does, at a time of its own, with `data` already packed.
  void call(uint8_t index, const std::string &data = "") {
    const StdoutCapture quiet;
    std::string value(4, '\0');
    ZuBuffer_Pack(value.data(), "T", 365 * 86400);
    value += data;
    ASSERT_GT(ZuInfo_Append(log_->store, &index, 1, value.data(), static_cast<int32_t>(value.size())), 0);
  }

  std::string shown(const char *name, int32_t skip, int32_t limit) {
    ZuFuncLog_Show(log_, name, skip, limit);
    return platform::takePrinted();
  }

  // The counters and names that were shown.
  std::string listed(const char *name, int32_t skip, int32_t limit) {
    static const std::regex call("\nindex=(\\d+),func:(\\w*)");
    const std::string text = shown(name, skip, limit);
    std::string list;
    for (std::sregex_iterator it(text.begin(), text.end(), call), end; it != end; ++it) {
      list += (*it)[1].str() + (*it)[2].str() + " ";
    }
    return list;
  }

  void use(std::vector<ZuFuncLogEntry> entries) {
    table_ = std::move(entries);
    log_->table = table_.data();
    log_->count = static_cast<int32_t>(table_.size());
  }

  static constexpr char kTime[] = "0001[T]=>1971/01/01 00:00:00<\n";
  std::vector<ZuFuncLogEntry> table_ = {
      {"open", "I", 3, "(path)"}, {"read", "h2s", 0, "(fd, n)"}, {"close", "", -1, ""}};
  ZuFuncLog *log_ = ZuFuncLog_New(table_.data(), 3, 1 << 20);
};

TEST_F(FuncLog, PrintsCallsAndTable) {
  call(0, {"\x00\x00\x12\x34", 4});
  call(2);
  call(1, "\xFF\xFFhi");
  EXPECT_EQ(shown(nullptr, 0, 100), std::string("\nindex=0,func:open (path)\nformat:*TI\n") + kTime +
                                        "0002[I]=>0x00001234<\n"
                                        "\nindex=1,func:close \nformat:*T\n" +
                                        kTime + "\nindex=2,func:read (fd, n)\nformat:*Th2s\n" + kTime +
                                        "0002[h]=>-1<\n0003[2s]=>hi<\n");
  ZuFuncLog_ShowFunc(log_, "ignored", 1);
  EXPECT_EQ(platform::takePrinted(),
            "\nopen(path)\nid:0;cnt:3;fmt:I\nread(fd, n)\nid:1;cnt:0;fmt:h2s\nclose\nid:2;cnt:-1;fmt:\n");
}

TEST_F(FuncLog, CountsFromZeroAndItsLimitFromSkip) {
  for (uint8_t i = 0; i < 10; ++i) call(i % 2 ? 2 : 0, "data");
  EXPECT_EQ(listed(nullptr, 2, 3), "2open 3close 4open ");
  EXPECT_EQ(listed("", 8, 100), "8open 9close ");
  EXPECT_EQ(listed("close", 8, 100), "8open 9close ") << "a name that is known shows them all";
  EXPECT_EQ(listed(nullptr, 9, INT32_MAX), "9close ");
  EXPECT_EQ(listed(nullptr, -2, 3), "0open ") << "the limit counts from skip, wherever that is";
  EXPECT_EQ(shown(nullptr, 0, 0) + shown(nullptr, 0, -1) + shown(nullptr, 10, 100) + shown("Open", 0, 100), "");
}

TEST_F(FuncLog, EndsAtAFunctionThatIsNotInTheTable) {
  for (const int index : {0, 2, 3, 0, 200, 0}) call(static_cast<uint8_t>(index), "data");
  EXPECT_EQ(listed(nullptr, 0, 100), "0open 1close ");
  EXPECT_EQ(listed(nullptr, 3, 100), "3open ") << "skipped, a bad index does not matter";
  use(std::vector<ZuFuncLogEntry>(201, {"f", "", 0, ""}));
  EXPECT_EQ(listed(nullptr, 0, 100), "0f 1f 2f 3f 4f 5f ") << "an index has no sign";
}

TEST_F(FuncLog, HandsOutOneCallAfterAnother) {
  call(200, "data");
  call(1);
  int32_t cursor = -1, index = 0, length = 0;
  const uint8_t *value = nullptr;
  EXPECT_EQ(ZuFuncLog_Get(log_, 3, &cursor, &index, &value, &length), 0) << "no such function";
  EXPECT_EQ(cursor, -1);
  EXPECT_EQ(ZuFuncLog_Get(log_, 2, &cursor, &index, &value, &length), 1) << "any other id takes every call";
  EXPECT_EQ(index, 200);
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(value) + 4, static_cast<size_t>(length) - 4), "data");
  EXPECT_EQ(ZuFuncLog_Get(log_, -1, &cursor, &index, &value, &length), 1);
  EXPECT_EQ(index * 100 + length, 104);
  EXPECT_EQ(ZuFuncLog_Get(log_, -1, &cursor, &index, &value, &length), 0);

  ZuInfo_Append(log_->store, "", 0, "no key", 6);
  call(0);
  EXPECT_EQ(ZuFuncLog_Get(log_, -1, &cursor, &index, &value, &length), 0);
  EXPECT_EQ(index * 100 + length, 106) << "the length only";
  EXPECT_EQ(listed(nullptr, 0, 100), "") << "200 is not in the table";
  EXPECT_EQ(listed(nullptr, 1, 100), "1read ") << "a record without a key ends the list";
}

TEST_F(FuncLog, PrintsFormatsAndTextsOfAnyLength) {
  const std::string longText(1500, 'x'), format(1200, 'b');
  use({{longText.c_str(), format.c_str(), 0, longText.c_str()}});
  call(0, std::string(1200, '\7'));
  const std::string text = shown(nullptr, 0, 1);
  EXPECT_EQ(text.substr(0, text.find("0002[B]")),
            "\nindex=0,func:" + longText + " " + longText + "\nformat:*T" + format + "\n" + kTime);
  EXPECT_EQ(text.substr(text.rfind("1201")), "1201[B]=>7<\n");
  ZuFuncLog_ShowFunc(log_);
  EXPECT_EQ(platform::takePrinted(), "\n" + longText + longText + "\nid:0;cnt:0;fmt:" + format + "\n");

  call(0, "short");  // less than the format says: nothing behind it is read
  EXPECT_EQ(shown(nullptr, 1, 1), "\nindex=1,func:" + longText + " " + longText + "\n");
}

TEST_F(FuncLog, IgnoresForTheHostAndDoesNothingWithoutAHandle) {
  ZuFuncLog_Ignore(log_, 5);
  EXPECT_EQ(log_->ignore, 5);
  ZuFuncLog_Release(nullptr), ZuFuncLog_Ignore(nullptr, 1), ZuFuncLog_Show(nullptr, "", 0, 1);
  ZuFuncLog_ShowFunc(nullptr);
  EXPECT_EQ(ZuFuncLog_Get(nullptr, -1, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(platform::takePrinted(), "");
}

}  // namespace
