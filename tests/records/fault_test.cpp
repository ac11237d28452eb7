// The fault registry and the file that a collection run writes, byte by byte.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kep/ZuPrint.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <regex>
#include <string>
#include <thread>

#include "ZuFault.hpp"
#include "ZuLogger.hpp"
#include "support/platform_double.hpp"

namespace {

class Faults : public testing::Test {
 protected:
  Faults() {
    ZuFault_SetFile(nullptr, 0), std::remove(KEP_FAULT_LOG_PATH);
    printed();
  }

  // The registry cannot forget a fault; here it must, for the next test.
  ~Faults() override {
    for (int i = 0; i < ZuList_Length(g_ZuFault_List); ++i) {
      auto *fault = static_cast<ZuFault *>(ZuList_Get(g_ZuFault_List, i));
      ZuLogger_Release(fault->initLog), ZuLogger_Release(fault->runLog);
    }
    ZuList_Release(std::exchange(g_ZuFault_List, nullptr));
    ZuInfo_Release(std::exchange(g_ZuFault_Info, nullptr));
    std::remove(KEP_FAULT_LOG_PATH);
  }

  static std::string withoutTimes(const std::string &text) {
    return std::regex_replace(text, std::regex("[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}"), "MM/DD HH:MI:SS");
  }

  // Runs a collection and returns its file, "none" if there is none.
  static std::string collect() {
    ZuFault_Start();
    std::ifstream file(KEP_FAULT_LOG_PATH, std::ios::binary);
    return file ? withoutTimes(std::string(std::istreambuf_iterator<char>(file), {})) : "none";
  }

  static std::string printed() { return withoutTimes(platform::takePrinted()); }
};

// Digits in pairs stand for bytes, 'text' for itself, T for a time.
std::string bytes(const std::string &notation) {
  std::string out;
  for (size_t i = 0; i < notation.size(); ++i) {
    if (notation[i] == '\'') {
      for (++i; notation[i] != '\''; ++i) out += notation[i];
    } else if (notation[i] == 'T') {
      out += "MM/DD HH:MI:SS";
    } else if (notation[i] != ' ') {
      out += static_cast<char>(std::stoi(notation.substr(i++, 2), nullptr, 16));
    }
  }
  return out;
}

TEST_F(Faults, WritesLogsAndValuesOfEveryKind) {
  EXPECT_EQ(collect(), "none") << "before the first registration";
  EXPECT_EQ(ZuFault_GetResult(), 0);
  ZuFault_Ignore(nullptr, 1);
  EXPECT_EQ(ZuFault_SetInfo(nullptr, 1) | ZuFault_SetCounter(nullptr, 1, 1) | ZuFault_ShowRunLog(nullptr), 0);
  ZuFault *net = ZuFault_Regist("net", [] {
    ZuFault_Start();  // one is under way
    ZuFault_SetRegist(static_cast<ZuFault *>(ZuList_Get(g_ZuFault_List, 0)), 1, 2);
  });
  ZuFault *disk = ZuFault_Regist("disk", nullptr);
  ZuFault_SetLogSize(nullptr, 1), ZuFault_SetLogSize(net, 5000), ZuFault_SetLogSize(disk, 9),
      ZuFault_SetLogSize(disk, 0);
  ZuFault_SetRunLog(disk, 2, 0, "run"), ZuFault_SetRunLog(disk, 0, 0, "");
  ZuFault_SetInitLog(net, 1, 0, "up"), ZuFault_SetInitLog(net, 0, 0, "shown");
  ZuFault_SetRunLog(net, 3, 0, "late");
  ZuFault_ShowInitLog(net), ZuFault_ShowRunLog(net);
  EXPECT_EQ(printed(), "shown\nMM/DD HH:MI:SS\nup\nMM/DD HH:MI:SS\nshown\nMM/DD HH:MI:SS\nlate\n");

  ZuFault_Ignore(net, 2);  // log lines, not values
  ZuFault_SetInitLog(net, 0, 0, "x"), ZuFault_SetRunLog(net, 0, 0, "x");
  EXPECT_EQ(ZuFault_SetRegist(net, 0x10, 0x20) | ZuFault_SetRegist64(disk, 0x11, 0x0102030405060708) |
                ZuFault_SetRegistEx(net, 0x12, "abc", 3) | ZuFault_SetCounter(net, 0xFFFFFFFF, 0x80000000) |
                ZuFault_SetCounter64(net, 1, 0xFFFFFFFFFFFFFFFE) | ZuFault_SetCounterEx(disk, 2, nullptr, 0) |
                ZuFault_SetValue(net, 3, "\0\xFF", 2) | ZuFault_SetInfo(net, 77),
            0);
  EXPECT_EQ(net->info, 77U);
  ZuFault_SetLogSize(net, 1);  // which keep lines already
  EXPECT_EQ(net->initLog->store->limit, 5120U);
  EXPECT_EQ(net->runLog->store->limit, 5120U);
  EXPECT_EQ(disk->runLog->store->limit, 0x100000U);
  EXPECT_EQ(g_ZuFault_Info->limit, 0xA00000U);
  // Not of the registry's making, and passed over: another key length, and no such fault.
  ZuInfo_Append(g_ZuFault_Info, "\0\0\0", 3, "x", 1);
  ZuInfo_Append(g_ZuFault_Info, "\0\2", 2, "x", 1);

  const std::string logs = bytes(
      "0016 'log net ' T 000A 'log net up'    0016 'log net ' T 000D 'log net shown'"
      "0016 'run net ' T 000C 'run net late'"
      "0017 'run disk ' T 000C 'run disk run' 0017 'run disk ' T 0009 'run disk ' 0000");
  EXPECT_EQ(collect(), logs + bytes("000D 04 00 'net' 00000010 00000020"
                                    "0012 05 01 'disk' 00000011 0102030405060708"
                                    "0010 04 02 'net' 00000012 00000003 'abc'"
                                    "000D 04 03 'net' FFFFFFFF 80000000"
                                    "0011 04 04 'net' 00000001 FFFFFFFFFFFFFFFE"
                                    "000E 05 05 'disk' 00000002 00000000"
                                    "000F 04 06 'net' 00000003 00000002 00FF"
                                    "000D 04 00 'net' 00000001 00000002"));
  EXPECT_EQ(printed(), "start callback [net]\nend callback [net]\n");
  EXPECT_EQ(g_ZuFault_Info, nullptr);

  const std::string longest = std::string(255 - sizeof KEP_FAULT_LOG_PATH + 1, '/') + KEP_FAULT_LOG_PATH;
  EXPECT_EQ(ZuFault_SetFile(longest.c_str(), 1), 1);
  EXPECT_EQ(ZuFault_SetFile(("/" + longest).c_str(), 0) | ZuFault_SetFile("", 0), 0);
  ZuFault_SetCounter(disk, 5, 6);  // the logs come again, of the values only the new one
  EXPECT_EQ(collect(), logs + bytes("000E 05 03 'disk' 00000005 00000006 000D 04 00 'net' 00000001 00000002"));
}

// ---- whatever the file is

constexpr int64_t kWholeSize = 2 + 10 * (2 + 2 + 3 + 8 + 60000), kNotOpened = -1;

std::thread reader;
int64_t bytesRead;

// Makes the file a FIFO of which so many bytes are read.
void makeFifo(int64_t limit) {
  mkfifo(KEP_FAULT_LOG_PATH, 0666);
  const int fifo = open(KEP_FAULT_LOG_PATH, O_RDONLY | O_NONBLOCK);  // which a writer then finds
  reader = std::thread([=] {
    char part[1000];
    for (ssize_t n = -1; bytesRead < limit && (n != 0 || bytesRead == 0); bytesRead += n > 0 ? n : 0) {
      n = read(fifo, part, static_cast<size_t>(std::min<int64_t>(sizeof part, limit - bytesRead)));
    }
    close(fifo);
  });
}

// Of the signals that a write may raise, which are blocked and which pending.
std::string signals() {
  sigset_t sets[2];
  pthread_sigmask(SIG_BLOCK, nullptr, &sets[0]), sigpending(&sets[1]);
  std::string state;
  for (const sigset_t &set : sets) {
    for (const int signal : {SIGXFSZ, SIGPIPE}) state += sigismember(&set, signal) ? 'y' : 'n';
  }
  return state;
}

// Takes those that are pending, and tells how many they were.
int takePending() {
  sigset_t both;
  sigemptyset(&both), sigaddset(&both, SIGXFSZ), sigaddset(&both, SIGPIPE);
  const timespec atOnce = {};
  int count = 0;
  while (sigtimedwait(&both, nullptr, &atOnce) > 0) ++count;
  return count;
}

enum class Pending { kNone, kForThread, kForProcess };
std::string duringCallback;

struct End {
  int64_t size;
  int32_t result;  // 0: not tried
};

// In a process of its own: collects into the file that is made, and exits with 0 if all is well.
void collectInto(void (*makeFile)(), bool isSafe, End end, Pending pending) {
  alarm(20), umask(027);
  ZuFault_SetFile(nullptr, isSafe);
  ZuFault *fault = ZuFault_Regist("net", [] { duringCallback += signals(); });
  const std::string value(60000, 'v');
  for (int i = 0; i < 10; ++i) ZuFault_SetValue(fault, 1, value.data(), 60000);
  sigset_t held;
  sigemptyset(&held), sigaddset(&held, SIGXFSZ), sigaddset(&held, SIGPIPE);
  const bool arePending = pending != Pending::kNone;
  if (arePending) pthread_sigmask(SIG_BLOCK, &held, nullptr);
  if (pending == Pending::kForThread) raise(SIGXFSZ), raise(SIGPIPE);
  if (pending == Pending::kForProcess) kill(getpid(), SIGXFSZ), kill(getpid(), SIGPIPE);
  makeFile();
  ZuFault_Start();
  if (reader.joinable()) reader.join();
  struct stat file = {};
  stat(KEP_FAULT_LOG_PATH, &file);
  int64_t size = S_ISREG(file.st_mode) ? file.st_size : bytesRead;
  if (g_ZuFault_Info && (size = kNotOpened) && !isSafe) ZuFault_Start();  // no more: there is one callback
  std::string told = std::to_string(ZuFault_GetResult()) + ' ' + std::to_string(size) + duringCallback + signals();
  told += std::to_string(takePending());
  std::fputs(told.c_str(), stderr);
  const std::string expected =
      std::to_string(end.result) + ' ' + std::to_string(end.size) + (arePending ? "yyyyyyyy2" : "nnnnnnnn0");
  ZuFault_SetFile("/dev/null", 0), ZuFault_Start();
  if (g_ZuFault_Info || ZuFault_GetResult() != 1) _exit(2);
  _exit(told != expected || (size > 0 && (file.st_mode & 0777) != 0640));
}

TEST_F(Faults, LetTheHostLiveWhateverTheirFileIs) {
  const struct {
    const char *name;
    void (*makeFile)();
    End ends[2];  // then safe
  } cases[] = {
      {"none yet", [] {}, {{kWholeSize, 1}, {kWholeSize, 1}}},
      {"limited",
       [] {
         const rlimit limit = {4096, 4096};
         setrlimit(RLIMIT_FSIZE, &limit);
       },
       {{4096, -EFBIG}, {kNotOpened, -EFBIG}}},
      {"FIFO without a reader", [] { mkfifo(KEP_FAULT_LOG_PATH, 0600); }, {{kNotOpened, -ENXIO}, {kWholeSize, 1}}},
      {"FIFO", [] { makeFifo(INT64_MAX); }, {{kWholeSize, 1}}},
      {"FIFO whose reader goes away", [] { makeFifo(9000); }, {{9000, -EPIPE}}},
      {"link to a full device",
       [] { (void)!symlink("/dev/full", KEP_FAULT_LOG_PATH); },
       {{0, -ENOSPC}, {kWholeSize, 1}}},
      {"folder", [] { mkdir(KEP_FAULT_LOG_PATH, 0700); }, {{kNotOpened, -EISDIR}, {kNotOpened, -EISDIR}}},
  };
  for (const auto &c : cases) {
    for (const bool isSafe : {false, true}) {
      for (const Pending pending : {Pending::kNone, Pending::kForThread, Pending::kForProcess}) {
        if (c.ends[isSafe].result == 0) continue;
        EXPECT_EXIT(collectInto(c.makeFile, isSafe, c.ends[isSafe], pending), testing::ExitedWithCode(0), "")
            << c.name << isSafe << static_cast<int>(pending);
        std::remove(KEP_FAULT_LOG_PATH);
      }
    }
  }
}

TEST_F(Faults, CutsWhatALengthFieldCannotSay) {
  ZuFault *fault = ZuFault_Regist("net", nullptr);
  const std::string longest(65535, 'x');
  ZuFault_SetInitLog(fault, 1, 0, longest.c_str());
  ZuFault_SetValue(fault, 1, longest.data(), 65527);
  for (const int length : {65528, -1}) ZuFault_SetRegistEx(fault, 3, longest.data(), length);
  EXPECT_EQ(collect(), bytes("0016 'log net ' T FFFF 'log net '") + longest.substr(0, 65527) +
                           bytes("0000 FFFF 04 06 'net' 00000001 0000FFF7") + longest.substr(0, 65522));
}

TEST_F(Faults, NamesAreCutAndPositionsWrapAt256) {
  EXPECT_EQ(ZuFault_Regist(nullptr, nullptr), nullptr);
  const std::string name(30, 'n');
  ZuFault_Regist(name.c_str(), nullptr);
  for (int i = 1; i < 256; ++i) ZuFault_Regist("x", nullptr);
  ZuFault_SetCounter(ZuFault_Regist("late", nullptr), 1, 2);  // its index is that of the first
  EXPECT_EQ(collect(), bytes("0000 0020 17 03") + name.substr(0, 22) + bytes("00000001 00000002"));
}

}  // namespace
