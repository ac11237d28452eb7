// The fault registry and the file that a collection run writes, byte by byte.
#include <gtest/gtest.h>
#include <kep/ZuPrint.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "ZuFault.hpp"
#include "support/platform_double.hpp"

namespace {

class Faults : public testing::Test {
 protected:
  Faults() {
    std::remove(KEP_FAULT_LOG_PATH);
    printed();
    blocks_ = platform::liveBlocks();
  }

  // The registry cannot forget a fault; here it must, for the next test, and nothing may have leaked.
  ~Faults() override {
    for (int i = 0; i < ZuList_Length(g_ZuFault_List); ++i) {
      auto *fault = static_cast<ZuFault *>(ZuList_Get(g_ZuFault_List, i));
      ZuLogger_Release(fault->initLog);
      ZuLogger_Release(fault->runLog);
    }
    ZuList_Release(g_ZuFault_List);
    ZuInfo_Release(g_ZuFault_Info);
    g_ZuFault_List = nullptr;
    g_ZuFault_Info = nullptr;
    EXPECT_EQ(platform::liveBlocks(), blocks_);
    std::remove(KEP_FAULT_LOG_PATH);
  }

  // Runs a collection and returns its file, "none" if there is none.
  static std::string collect() {
    const StdoutCapture quiet;
    ZuFault_Start();
    std::ifstream file(KEP_FAULT_LOG_PATH, std::ios::binary);
    return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "none";
  }

  static std::string printed() {
    ZuPrint_ShowEx("", 0);
    return platform::takePrinted();
  }

  int blocks_;
};

// Digits in pairs stand for bytes, 'text' for itself.
std::string bytes(const std::string &notation) {
  std::string out;
  for (size_t i = 0; i < notation.size(); ++i) {
    if (notation[i] == '\'') {
      for (++i; notation[i] != '\''; ++i) out += notation[i];
    } else if (notation[i] != ' ') {
      out += static_cast<char>(std::stoi(notation.substr(i++, 2), nullptr, 16));
    }
  }
  return out;
}

// A record of the file's first section.
std::string logRecord(const std::string &head, const std::string &value) {
  const size_t length = head.size() + value.size();
  return std::string{static_cast<char>(length >> 8), static_cast<char>(length)} + head + value;
}

// The records of a two-line log as the file must have them; the time stamps are taken from the log itself.
std::string logRecords(ZuLogger *log, const std::string &head, const std::string &line1, const std::string &line2) {
  std::string out, line;
  ZuBuf *buffer = ZuBuf_New(1, 100, 0);
  ZuLogger_ShowToBuf(log, buffer);
  void *text = nullptr;
  ZuBuf_Get(buffer, 0, &text);
  const std::string shown(static_cast<const char *>(text), ZuBuf_Length(buffer));
  ZuBuf_Release(buffer);
  constexpr size_t kStamp = sizeof "MM/DD HH:MI:SS" - 1;
  const size_t second = kStamp + 1 + line1.size() + 1;
  EXPECT_EQ(shown.size(), second + kStamp + 1 + line2.size() + 1);
  out = logRecord(head, shown.substr(0, kStamp)) + logRecord(head, line1);
  return out + logRecord(head, shown.substr(second, kStamp)) + logRecord(head, line2);
}

const std::string kEnd("\0\0", 2);

TEST_F(Faults, WritesLogsAndValuesOfEveryKind) {
  ZuFault *net = ZuFault_Regist("net", [] { ZuFault_SetRegist(nullptr, 1, 1); });
  ZuFault *disk = ZuFault_Regist("disk", nullptr);
  ZuFault_SetRunLog(disk, 2, 0, "run");
  ZuFault_SetRunLog(disk, 0, 0, "");
  ZuFault_SetInitLog(net, 1, 0, "up");
  ZuFault_SetInitLog(net, 0, 0, "shown");
  ZuFault_SetRunLog(net, 3, 0, "late");
  ZuFault_SetRunLog(net, 1, 0, "later");
  EXPECT_EQ(printed(), "shown\n");
  EXPECT_EQ(g_ZuFault_Info, nullptr);

  const int results = ZuFault_SetRegist(net, 0x10, 0x20) | ZuFault_SetRegist64(disk, 0x11, 0x0102030405060708) |
                      ZuFault_SetRegistEx(net, 0x12, "abc", 3) | ZuFault_SetCounter(net, 0xFFFFFFFF, 0x80000000) |
                      ZuFault_SetCounter64(net, 1, 0xFFFFFFFFFFFFFFFE) | ZuFault_SetCounterEx(disk, 2, nullptr, 0) |
                      ZuFault_SetValue(net, 3, "\0\xFF", 2) | ZuFault_SetInfo(net, 77);
  EXPECT_EQ(results, 0);
  EXPECT_EQ(net->info, 77U);
  EXPECT_EQ(g_ZuFault_Info->limit, 0xA00000U);
  // Not of the registry's making, and passed over: another key length, and no such fault.
  const StdoutCapture quiet;
  ZuInfo_Append(g_ZuFault_Info, "\0\0\0", 3, "x", 1);
  ZuInfo_Append(g_ZuFault_Info, "\0\2", 2, "x", 1);

  const std::string logs = logRecords(net->initLog, "log net ", "up", "shown") +
                           logRecords(net->runLog, "run net ", "late", "later") +
                           logRecords(disk->runLog, "run disk ", "run", "") + kEnd;
  EXPECT_EQ(collect(), logs + bytes("000D 04 00 'net' 00000010 00000020"
                                    "0012 05 01 'disk' 00000011 0102030405060708"
                                    "0010 04 02 'net' 00000012 00000003 'abc'"
                                    "000D 04 03 'net' FFFFFFFF 80000000"
                                    "0011 04 04 'net' 00000001 FFFFFFFFFFFFFFFE"
                                    "000E 05 05 'disk' 00000002 00000000"
                                    "000F 04 06 'net' 00000003 00000002 00FF"));
  EXPECT_EQ(printed(), "start callback [net]\nend callback [net]\n");
  EXPECT_EQ(g_ZuFault_Info, nullptr);

  ZuFault_SetCounter(disk, 5, 6);  // the logs come again, of the values only the new one
  EXPECT_EQ(collect(), logs + bytes("000E 05 03 'disk' 00000005 00000006"));
}

TEST_F(Faults, WritesNoFileBeforeTheFirstRegistration) {
  EXPECT_EQ(collect(), "none");
  ZuFault_Regist("idle", nullptr);
  EXPECT_EQ(collect(), kEnd);
}

TEST_F(Faults, IgnoringDropsLogLinesButNoValues) {
  ZuFault *fault = ZuFault_Regist("a", nullptr);
  ZuFault_Ignore(fault, 2);
  ZuFault_SetInitLog(fault, 0, 0, "x"), ZuFault_SetRunLog(fault, 0, 0, "x");
  EXPECT_EQ(printed(), "");
  ZuFault_SetRegist(fault, 1, 2), ZuFault_SetValue(fault, 3, "v", 1);
  EXPECT_EQ(collect(), kEnd + bytes("000B 02 00 'a' 00000001 00000002 000C 02 06 'a' 00000003 00000001 'v'"));
}

int callbackRuns;

TEST_F(Faults, CallbacksCanRecordButNotStartARun) {
  ZuFault_Regist("outer", [] {
    ++callbackRuns;
    ZuFault_Start();
    ZuFault_SetRegist(static_cast<ZuFault *>(ZuList_Get(g_ZuFault_List, 0)), 1, 2);
  });
  ZuFault_Regist("outer", [] { callbackRuns += 10; });  // the same name is another fault
  EXPECT_EQ(collect(), kEnd + bytes("000F 06 00 'outer' 00000001 00000002"));
  EXPECT_EQ(callbackRuns, 11);
  const std::string texts = "start callback [outer]\nend callback [outer]\n";
  EXPECT_EQ(printed(), texts + texts);
  EXPECT_EQ(collect(), kEnd + bytes("000F 06 00 'outer' 00000001 00000002")) << "the next run is free to start";
}

TEST_F(Faults, CutsWhatALengthFieldCannotSay) {
  ZuFault *fault = ZuFault_Regist("net", nullptr);
  const std::string longest(65535, 'x');
  {
    const StdoutCapture quiet;
    ZuFault_SetInitLog(fault, 1, 0, longest.c_str());
    ZuFault_SetValue(fault, 1, longest.data(), 65527);
    ZuFault_SetCounterEx(fault, 2, longest.data(), 313);  // no smaller bound for the packed kinds
    for (const int length : {65528, -1}) ZuFault_SetRegistEx(fault, 3, longest.data(), length);
  }
  const std::string file = collect();
  const size_t stamp = 2 + 8 + 14, value = stamp + 65537 + 2, counter = value + 65537;
  ASSERT_EQ(file.size(), counter + 2 + 2 + 3 + 8 + 313);
  EXPECT_EQ(file.substr(stamp, value - stamp - 2), bytes("FFFF 'log net '") + longest.substr(0, 65527));
  EXPECT_EQ(file.substr(value, counter - value),
            bytes("FFFF 04 06 'net' 00000001 0000FFF7") + longest.substr(0, 65522));
  EXPECT_EQ(file.substr(counter, 15), bytes("0146 04 05 'net' 00000002 00000139"));
}

TEST_F(Faults, NamesAreCutAndPositionsWrapAt256) {
  const std::string name(30, 'n');
  const ZuFault *first = ZuFault_Regist(name.c_str(), nullptr);
  EXPECT_EQ(first->name, name.substr(0, 22));
  for (int i = 1; i < 256; ++i) ZuFault_Regist("x", nullptr);
  ZuFault_SetCounter(ZuFault_Regist("late", nullptr), 1, 2);  // its index is that of the first
  EXPECT_EQ(collect(), kEnd + bytes("0020 17 03") + name.substr(0, 22) + bytes("00000001 00000002"));
}

TEST_F(Faults, NothingHappensWithoutAHandle) {
  EXPECT_EQ(ZuFault_Regist(nullptr, nullptr), nullptr);
  ZuFault_Ignore(nullptr, 1);
  const int results = ZuFault_SetInfo(nullptr, 1) | ZuFault_SetInitLog(nullptr, 0, 0, "x") |
                      ZuFault_SetRunLog(nullptr, 0, 0, "x") | ZuFault_SetRegist(nullptr, 1, 1) |
                      ZuFault_SetRegist64(nullptr, 1, 1) | ZuFault_SetRegistEx(nullptr, 1, "x", 1) |
                      ZuFault_SetCounter(nullptr, 1, 1) | ZuFault_SetCounter64(nullptr, 1, 1) |
                      ZuFault_SetCounterEx(nullptr, 1, "x", 1) | ZuFault_SetValue(nullptr, 1, "x", 1) |
                      ZuFault_ShowInitLog(nullptr) | ZuFault_ShowRunLog(nullptr) |
                      ZuFault_ShowInitLogToBuf(nullptr, nullptr) | ZuFault_ShowRunLogToBuf(nullptr, nullptr);
  EXPECT_EQ(results, 0);
  EXPECT_EQ(printed(), "");
  EXPECT_EQ(g_ZuFault_Info, nullptr);
}

TEST_F(Faults, ShowTheLogThatIsAskedFor) {
  ZuFault *fault = ZuFault_Regist("f", nullptr);
  ZuFault_SetInitLog(fault, 1, 0, "first"), ZuFault_SetRunLog(fault, 1, 0, "second");
  constexpr size_t kStamp = sizeof "MM/DD HH:MI:SS\n" - 1;
  ZuFault_ShowInitLog(fault);
  EXPECT_EQ(printed().substr(kStamp), "first\n");
  ZuFault_ShowRunLog(fault);
  EXPECT_EQ(printed().substr(kStamp), "second\n");
}

}  // namespace
