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
    return withoutTimes(contentOf(KEP_FAULT_LOG_PATH));
  }

  static std::string printed() { return withoutTimes(platform::takePrinted()); }
};

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

  const std::string logs = bytesOf(
      "0016 'log net ' T 000A 'log net up'    0016 'log net ' T 000D 'log net shown'"
      "0016 'run net ' T 000C 'run net late'"
      "0017 'run disk ' T 000C 'run disk run' 0017 'run disk ' T 0009 'run disk ' 0000");
  EXPECT_EQ(collect(), logs + bytesOf("000D 04 00 'net' 00000010 00000020"
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
  EXPECT_EQ(collect(), logs + bytesOf("000E 05 03 'disk' 00000005 00000006 000D 04 00 'net' 00000001 00000002"));
}

// ---- whatever the file is

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

constexpr int kSignals[] = {SIGXFSZ, SIGPIPE};  // that a write may raise

sigset_t theSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : kSignals) sigaddset(&set, signal);
  return set;
}

std::string blocked() {
  sigset_t set;
  pthread_sigmask(SIG_BLOCK, nullptr, &set);
  return {sigismember(&set, SIGXFSZ) ? 'y' : 'n', sigismember(&set, SIGPIPE) ? 'y' : 'n'};
}

// Takes those that are pending, and tells how many they were.
int takePending() {
  const sigset_t set = theSignals();
  const timespec atOnce = {};
  int count = 0;
  while (sigtimedwait(&set, nullptr, &atOnce) > 0) ++count;
  return count;
}

enum class Pending { kNone, kForThread, kForProcess };
std::string duringCallback;

// In a process of its own: collects into the file that is made, and exits with 0 if it becomes what is told.
void collectInto(void (*makeFile)(), bool isSafe, std::string told, Pending pending) {
  alarm(20), umask(027);
  ZuFault_SetFile(nullptr, isSafe);
  ZuFault *fault = ZuFault_Regist("net", [] { duringCallback += blocked(); });
  const std::string value(60000, 'v');
  for (int i = 0; i < 10; ++i) ZuFault_SetValue(fault, 1, value.data(), 60000);
  const sigset_t held = theSignals();
  if (pending != Pending::kNone) pthread_sigmask(SIG_BLOCK, &held, nullptr);
  for (const int signal : kSignals) {
    if (pending == Pending::kForThread) raise(signal);
    if (pending == Pending::kForProcess) kill(getpid(), signal);
  }
  makeFile();
  ZuFault_Start();
  if (reader.joinable()) reader.join();
  struct stat file = {};
  stat(KEP_FAULT_LOG_PATH, &file);
  const int64_t size = S_ISREG(file.st_mode) ? file.st_size : bytesRead;
  const bool isOpened = !g_ZuFault_Info;
  if (!isOpened && !isSafe) ZuFault_Start();  // no more: there is one callback
  const std::string found = std::to_string(ZuFault_GetResult()) + " " + (isOpened ? std::to_string(size) : "-") +
                            duringCallback + blocked() + std::to_string(takePending());
  std::fputs(found.c_str(), stderr);
  ZuFault_SetFile("/dev/null", 0), ZuFault_Start();
  if (g_ZuFault_Info || ZuFault_GetResult() != 1) _exit(2);
  told += pending == Pending::kNone ? "nnnn0" : "yyyy2";
  _exit(told != found || (isOpened && size > 0 && (file.st_mode & 0777) != 0640));
}

TEST_F(Faults, LetTheHostLiveWhateverTheirFileIs) {
  const auto said = [](int result, const char *size) { return std::to_string(result) + " " + size; };
  const std::string whole = "1 600152";
  const struct {
    const char *name;
    void (*makeFile)();
    std::string told[2];  // the result and the size, - for a file that is not opened; then safe
  } cases[] = {
      {"none yet", [] {}, {whole, whole}},
      {"limited",
       [] {
         const rlimit limit = {4096, 4096};
         setrlimit(RLIMIT_FSIZE, &limit);
       },
       {said(-EFBIG, "4096"), said(-EFBIG, "-")}},
      {"FIFO without a reader", [] { mkfifo(KEP_FAULT_LOG_PATH, 0600); }, {said(-ENXIO, "-"), whole}},
      {"FIFO", [] { makeFifo(INT64_MAX); }, {whole}},
      {"FIFO whose reader goes away", [] { makeFifo(9000); }, {said(-EPIPE, "9000")}},
      {"full device", [] { (void)!symlink("/dev/full", KEP_FAULT_LOG_PATH); }, {said(-ENOSPC, "0"), whole}},
      {"folder", [] { mkdir(KEP_FAULT_LOG_PATH, 0700); }, {said(-EISDIR, "-"), said(-EISDIR, "-")}},
  };
  for (const auto &c : cases) {
    for (const bool isSafe : {false, true}) {
      for (const Pending pending : {Pending::kNone, Pending::kForThread, Pending::kForProcess}) {
        if (c.told[isSafe].empty()) continue;  // not tried
        EXPECT_EXIT(collectInto(c.makeFile, isSafe, c.told[isSafe], pending), testing::ExitedWithCode(0), "")
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
  EXPECT_EQ(collect(), bytesOf("0016 'log net ' T FFFF 'log net '") + longest.substr(0, 65527) +
                           bytesOf("0000 FFFF 04 06 'net' 00000001 0000FFF7") + longest.substr(0, 65522));
}

TEST_F(Faults, NamesAreCutAndPositionsWrapAt256) {
  EXPECT_EQ(ZuFault_Regist(nullptr, nullptr), nullptr);
  const std::string name(30, 'n');
  ZuFault_Regist(name.c_str(), nullptr);
  for (int i = 1; i < 256; ++i) ZuFault_Regist("x", nullptr);
  ZuFault_SetCounter(ZuFault_Regist("late", nullptr), 1, 2);  // its index is that of the first
  EXPECT_EQ(collect(), bytesOf("0000 0020 17 03") + name.substr(0, 22) + bytesOf("00000001 00000002"));
}

}  // namespace
