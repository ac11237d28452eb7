// What a logger keeps, echoes, answers and hands out.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kep/ZuPrint.h>

#include <string>

#include "ZuLogger.hpp"
#include "support/platform_double.hpp"

namespace {

const std::string kTime = "####/##/## ##:##:##|", kShortTime = "##/## ##:##:##|";

std::string echoed() {
  ZuPrint_ShowEx("", 0);  // what has no line end yet
  return platform::takePrinted();
}

class Logger : public testing::Test {
 protected:
  Logger() {
    echoed();
    platform::takeDelays();
  }
  ~Logger() override { ZuLogger_Release(logger_); }

  void open(uint32_t flags) {
    ZuLogger_Release(logger_);
    logger_ = ZuLogger_New(flags);
  }

  int write(int level, const std::string &text) {
    const StdoutCapture quiet;
    return ZuLogger_Write(logger_, level, text.c_str());
  }

  // Every record as key and value, digits masked: the lines of these tests have none.
  std::string kept() {
    std::string text;
    int32_t cursor = -1;
    const uint8_t *key = nullptr, *value = nullptr;
    uint8_t keyLength = 0;
    uint16_t length = 0;
    while (ZuInfo_Get(logger_->store, nullptr, 0, &cursor, &key, &keyLength, &value, &length)) {
      text.append(reinterpret_cast<const char *>(key), keyLength) += ' ';
      text.append(reinterpret_cast<const char *>(value), length) += '|';
    }
    return masked(text);
  }

  static std::string masked(std::string text) {
    for (char &c : text) c = c >= '0' && c <= '9' ? '#' : c;
    return text;
  }

  ZuLogger *logger_ = nullptr;
};

TEST_F(Logger, KeepsTimeAndLineUnderTheKeyOfTheLevel) {
  open(255);
  EXPECT_EQ(logger_->store, nullptr);
  EXPECT_EQ(write(1, "abc"), 23 + 7);
  EXPECT_EQ(logger_->store->limit, 0x100000U);
  EXPECT_EQ(kept(), "l " + kTime + "l abc|");
  for (const int level : {0, 2, 3, 4, -1}) EXPECT_EQ(write(level, ""), 23 + 4) << level;
  const std::string l = "l " + kTime + "l |";
  EXPECT_EQ(kept(), "l " + kTime + "l abc|" + l + "w " + kTime + "w |" + "e " + kTime + "e |" + l + l);
  ZuLogger_ClearInfo(logger_);
  EXPECT_EQ(kept(), "");
  EXPECT_EQ(write(2, "a"), 23 + 5);
}

TEST_F(Logger, RefusesLevelsWithoutTheirFlag) {
  for (uint32_t flags = 0; flags < 16; ++flags) {
    open(0);
    ZuLogger_SetFlag(logger_, 0x40 | 0x80 | flags);
    for (int level = -1; level <= 5; ++level) {
      const bool accepted = level < 0 || level > 3 || (flags & 1U << level) != 0;
      EXPECT_EQ(write(level, "x"), accepted ? 28 : -1) << flags << " " << level;
      EXPECT_EQ(!echoed().empty(), accepted) << flags << " " << level;
    }
  }
}

TEST_F(Logger, EchoesByLevelAndQuietly) {
  const auto echoes = [this](uint32_t flags, const char *text) {
    open(flags);
    std::string all;
    for (int level = 0; level <= 4; ++level) {
      EXPECT_EQ(write(level, text), -1) << "echoed, not kept";
      all += echoed() + "|";
    }
    return all;
  };
  EXPECT_EQ(echoes(0x8F, "x%d"), "x%d|x%d\n|x%d\n|x%d\n|x%d\n|");
  EXPECT_EQ(echoes(0x9F, "x%d"), "x%d|||x%d\n||");
  EXPECT_EQ(echoes(0x8F, ""), "|||||");
  EXPECT_EQ(echoes(0x9F, ""), "|||\n||");
  EXPECT_EQ(echoes(0x0F, "x"), "|||||");
  EXPECT_EQ(echoes(0x1F, "x"), "|||||");
  EXPECT_EQ(logger_->store, nullptr);
}

TEST_F(Logger, AppendsWhateverTheFlagsAndEchoesLevel0) {
  open(0);
  for (const int level : {0, 1, 3}) ZuLogger_Append(logger_, level, 7, level == 1 ? "" : "x");
  ZuLogger_Append(logger_, 0, 7, "");
  EXPECT_EQ(echoed(), "x\n");
  const std::string empty = "l " + kShortTime + "l |";
  EXPECT_EQ(kept(), "l " + kShortTime + "l x|" + empty + "e " + kShortTime + "e x|" + empty);
  ZuLogger_Ignore(logger_, 1);
  ZuLogger_Append(logger_, 0, 0, "y");
  EXPECT_EQ(write(0, "y"), 0);
  EXPECT_EQ(echoed(), "");
  EXPECT_EQ(masked(kept()).find('y'), std::string::npos);
}

TEST_F(Logger, AddsUpWhatItsStoreAnswers) {
  open(0xFF);
  ZuLogger_SetInfoSize(logger_, 1024);
  EXPECT_EQ(write(1, std::string(1021, 'x')), 23 - 1) << "the line alone is too long";
  ZuLogger_SetInfoSize(logger_, 4096);
  EXPECT_EQ(logger_->storeSize, 1024U) << "settled with the store";
  EXPECT_EQ(write(1, std::string(1020, 'x')), 23 + 1024);
  EXPECT_EQ(kept(), "l " + std::string(1020, 'x') + "|") << "the line takes the place of its time";
  ZuInfo_Ignore(logger_->store, 1);
  EXPECT_EQ(write(1, "x"), 0);
}

TEST_F(Logger, ShowsRecordsLineByLine) {
  open(0x4F);
  for (const char *line : {"a", "", "b%s\n"}) write(1, line);
  const std::string time = kTime.substr(0, kTime.size() - 1) + "\n",
                    expected = time + "a\n" + time + "\n" + time + "b%s\n\n";
  ZuLogger_ShowInfo(logger_);
  EXPECT_EQ(masked(echoed()), expected);
  ZuLogger_ShowToBuf(logger_, reinterpret_cast<ZuBuf *>(uintptr_t{100}));
  EXPECT_EQ(masked(echoed()), expected);

  ZuBuf *buffer = ZuBuf_New(1, 16, 0);
  ZuLogger_ShowToBuf(logger_, buffer);
  void *text = nullptr;
  ZuBuf_Get(buffer, 0, &text);
  EXPECT_EQ(masked({static_cast<char *>(text), ZuBuf_Length(buffer)}), expected);
  EXPECT_EQ(echoed(), "");
  ZuBuf_Release(buffer);
}

TEST_F(Logger, PausesAfterTheFirstOfEveryHundredRecords) {
  ZuBuf *buffer = ZuBuf_New(1, 16, 1 << 20);
  open(0x4F);
  ZuLogger_SetInfoSize(logger_, 0);
  write(1, "x");
  const auto pauses = [&](int records) {
    const StdoutCapture quiet;
    ZuInfo_Clear(logger_->store);
    for (int i = 0; i < records; ++i) ZuInfo_Append(logger_->store, "l", 1, "x", 1);
    ZuLogger_ShowToBuf(logger_, buffer);
    const std::vector<uint32_t> delays = platform::takeDelays();
    for (const uint32_t ms : delays) EXPECT_EQ(ms, 1000U);
    return delays.size();
  };
  EXPECT_EQ(pauses(0), 0U);
  EXPECT_EQ(pauses(1), 1U);
  EXPECT_EQ(pauses(100), 1U);
  EXPECT_EQ(pauses(101), 2U);
  EXPECT_EQ(pauses(201), 3U);
  EXPECT_EQ(pauses(65536), 656U);
  EXPECT_EQ(pauses(65537), 657U) << "the counter has 16 bits and starts again";
  ZuBuf_Release(buffer);
}

TEST_F(Logger, StacksHeadersAndCutsTexts) {
  open(0);
  ZuLogger_Tail(logger_);
  EXPECT_EQ(logger_->headerDepth, -1);
  for (int i = 0; i < 101; ++i) ZuLogger_Header(logger_, std::to_string(i).c_str());
  EXPECT_EQ(logger_->headerDepth, 99);
  EXPECT_STREQ(logger_->headers[98], "98");
  EXPECT_STREQ(logger_->headers[99], "100");
  ZuLogger_Tail(logger_);
  const std::string text(600, 'x');
  ZuLogger_Header(logger_, text.c_str());
  EXPECT_EQ(logger_->headers[99], text.substr(0, 49));
  ZuLogger_SetFileName(logger_, text.c_str());
  ZuLogger_SetUDP(logger_, text.c_str(), 4711);
  EXPECT_EQ(logger_->fileName, text.substr(0, 499));
  EXPECT_EQ(logger_->udpHost, text.substr(0, 19));
  EXPECT_EQ(logger_->udpPort, 4711);

  const int descriptor = logger_->descriptor = dup(STDOUT_FILENO);
  open(0);
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1) << "closed with its logger";
}

TEST_F(Logger, DoesNothingWithoutAHandle) {
  ZuLogger_Release(nullptr), ZuLogger_Ignore(nullptr, 1), ZuLogger_SetInfoSize(nullptr, 1),
      ZuLogger_SetFlag(nullptr, 1);
  ZuLogger_SetFileName(nullptr, "x"), ZuLogger_SetUDP(nullptr, "x", 1), ZuLogger_Header(nullptr, "x");
  ZuLogger_Tail(nullptr), ZuLogger_Append(nullptr, 0, 0, "x"), ZuLogger_ShowInfo(nullptr), ZuLogger_ClearInfo(nullptr);
  EXPECT_EQ(ZuLogger_Write(nullptr, 0, "x"), -1);
  EXPECT_EQ(echoed(), "");
  EXPECT_EQ(g_kep_logger, nullptr);
  open(255);
  ZuLogger_ShowInfo(logger_), ZuLogger_ClearInfo(logger_);  // nor without a store
  EXPECT_TRUE(platform::takeDelays().empty());
}

}  // namespace
