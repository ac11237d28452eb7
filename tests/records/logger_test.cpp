// What a logger keeps, echoes, answers and hands out.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kep/ZuPrint.h>

#include <string>

#include "ZuLogger.hpp"
#include "support/platform_double.hpp"

namespace {

const std::string kTime = "####/##/## ##:##:##\n", kShortTime = "##/## ##:##:##\n";

// Digits masked: the lines of these tests have none.
std::string masked(std::string text) {
  for (char &c : text) c = c >= '0' && c <= '9' ? '#' : c;
  return text;
}

class Logger : public testing::Test {
 protected:
  Logger() {
    echoed();
    platform::takeDelays();
  }
  ~Logger() override { ZuLogger_Release(logger_); }

  int write(int level, const std::string &text) { return ZuLogger_Write(logger_, level, text.c_str()); }

  static std::string echoed() {
    ZuPrint_ShowEx("", 0);  // what has no line end yet
    return platform::takePrinted();
  }

  // What is shown of the records kept, and their keys.
  std::string kept() {
    ZuLogger_ShowInfo(logger_);
    std::string text = echoed();
    int32_t cursor = -1;
    char format[256];
    while (ZuInfo_GetPack(logger_->store, &cursor, format, nullptr)) text += format + 1;
    return masked(text);
  }

  ZuLogger *logger_ = ZuLogger_New(255);
};

TEST_F(Logger, AcceptsEchoesAndAnswersByFlagsAndLevel) {
  const struct {
    uint32_t flags;
    const char *text, *told;  // of the levels -1 to 4
  } cases[] = {
      {0x8F, "x%d", "-1x%d\n|-1x%d|-1x%d\n|-1x%d\n|-1x%d\n|-1x%d\n|"},
      {0x9F, "x%d", "-1|-1x%d|-1|-1|-1x%d\n|-1|"},
      {0x9F, "", "-1|-1|-1|-1|-1\n|-1|"},
      {0x40, "x", "28|-1|-1|-1|-1|28|"},
      {0x43, "", "27|27|27|-1|-1|27|"},
      {0xC5, "x", "28x\n|28x|-1|28x\n|-1|28x\n|"},
      {0xCF, "", "27|27|27|27|27|27|"},
  };
  for (const auto &c : cases) {
    ZuLogger_SetFlag(logger_, c.flags);
    ZuLogger_ClearInfo(logger_);
    std::string told;
    for (int level = -1; level <= 4; ++level) {
      told += std::to_string(write(level, c.text));
      told += echoed() + "|";
    }
    EXPECT_EQ(told, c.told) << c.flags;
  }
  const std::string line = kTime + "\n";
  EXPECT_EQ(kept(), line + line + line + line + line + line + "llllllwweell");
  EXPECT_EQ(logger_->store->limit, 0x100000U);
}

TEST_F(Logger, AppendsWhateverTheFlagsAndEchoesLevel0) {
  ZuLogger_SetFlag(logger_, 0), ZuLogger_SetFlag(nullptr, 0), ZuLogger_Append(logger_, 0, 0, nullptr);
  for (const int level : {0, 1, 3}) ZuLogger_Append(logger_, level, 7, level == 1 ? "" : "x");
  ZuLogger_Append(logger_, 0, 7, "");
  EXPECT_EQ(echoed(), "x\n");
  const std::string empty = kShortTime + "\n", x = kShortTime + "x\n", all = x + empty + x + empty + "lllleell";
  EXPECT_EQ(kept(), all);
  EXPECT_EQ(ZuLogger_Write(logger_, -1, nullptr), -1);
  ZuLogger_Ignore(logger_, 1), ZuLogger_Ignore(nullptr, 1);
  ZuLogger_Append(logger_, 0, 0, "y");
  EXPECT_EQ(write(0, "y"), 0);
  EXPECT_EQ(echoed(), "");
  EXPECT_EQ(kept(), all);
}

TEST_F(Logger, AddsUpWhatItsStoreAnswers) {
  ZuLogger_ShowInfo(logger_), ZuLogger_ClearInfo(logger_);  // no store yet
  ZuLogger_SetInfoSize(nullptr, 1), ZuLogger_SetInfoSize(logger_, 1024);
  EXPECT_EQ(write(1, std::string(1021, 'x')), 23 - 1) << "the line alone is too long";
  ZuLogger_SetInfoSize(logger_, 4096);
  EXPECT_EQ(write(1, std::string(1020, 'x')), 23 + 1024);
  EXPECT_EQ(kept(), std::string(1020, 'x') + "\nl") << "the line takes the place of its time";
  ZuInfo_Ignore(logger_->store, 1);
  EXPECT_EQ(write(1, "x"), 0);
}

TEST_F(Logger, ShowsRecordsLineByLineAndPausesAtEveryHundredth) {
  ZuLogger_SetFlag(logger_, 0x4F), ZuLogger_SetInfoSize(logger_, 0);
  for (const char *line : {"a", "", "b%s\n"}) write(1, line);
  const std::string expected = kTime + "a\n" + kTime + "\n" + kTime + "b%s\n\n";
  EXPECT_EQ(kept(), expected + "llllll");
  ZuLogger_ShowToBuf(logger_, reinterpret_cast<ZuBuf *>(uintptr_t{100}));
  EXPECT_EQ(masked(echoed()), expected);
  ZuLogger_CopyToBuf(logger_, reinterpret_cast<ZuBuf *>(uintptr_t{100})), ZuLogger_CopyToBuf(logger_, nullptr);
  ZuBuf *buffer = ZuBuf_New(1, 16, 1 << 20), *wide = ZuBuf_New(8, 16, 0);
  ZuLogger_ShowToBuf(logger_, buffer), ZuLogger_CopyToBuf(logger_, buffer);
  EXPECT_EQ(echoed(), "");
  EXPECT_EQ(platform::takeDelays(), (std::vector<uint32_t>{1000, 1000, 1000}));
  EXPECT_EQ(masked(heldBy(buffer)), expected + expected);

  ZuLogger_ShowToBuf(logger_, wide), ZuLogger_CopyToBuf(logger_, wide);  // records would be read beyond their ends
  EXPECT_EQ(ZuBuf_Length(wide), 0U);
  ZuBuf_Release(wide);

  for (const auto &[records, pauses] : {std::pair(100, 1U), {101, 2}, {65537, 657}}) {  // a counter of 16 bits
    ZuInfo_Clear(logger_->store);
    for (int i = 0; i < records; ++i) ZuInfo_Append(logger_->store, "l", 1, "x", 1);
    ZuLogger_ShowToBuf(logger_, buffer);
    EXPECT_EQ(platform::takeDelays().size(), pauses);
  }
  ZuBuf_Release(buffer);
}

TEST_F(Logger, StacksHeadersAndCutsTexts) {
  ZuLogger_SetFileName(nullptr, "x"), ZuLogger_SetUDP(nullptr, "x", 1), ZuLogger_Header(nullptr, "x");
  ZuLogger_Header(logger_, nullptr), ZuLogger_Tail(nullptr), ZuLogger_Tail(logger_);
  ZuLogger_Header(logger_, "gone"), ZuLogger_Tail(logger_);
  for (int i = 0; i < 101; ++i) ZuLogger_Header(logger_, std::to_string(i).c_str());
  EXPECT_EQ(logger_->headers[0] + std::string(" ") + logger_->headers[98] + " " + logger_->headers[99], "0 98 100");
  ZuLogger_Tail(logger_);
  EXPECT_EQ(logger_->headerDepth, 98);
  const std::string text(600, 'x');
  ZuLogger_Header(logger_, text.c_str());
  ZuLogger_SetFileName(logger_, text.c_str()), ZuLogger_SetFileName(logger_, nullptr);
  ZuLogger_SetUDP(logger_, text.c_str(), 1), ZuLogger_SetUDP(logger_, nullptr, 4711);
  EXPECT_EQ(logger_->headers[99], text.substr(0, 49));
  EXPECT_EQ(logger_->fileName, text.substr(0, 499));
  EXPECT_EQ(logger_->udpHost + std::to_string(logger_->udpPort), text.substr(0, 19) + "4711");

  const int descriptor = logger_->descriptor = dup(STDOUT_FILENO);
  ZuLogger_Release(std::exchange(logger_, nullptr));
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "closed with its logger";
}

}  // namespace
