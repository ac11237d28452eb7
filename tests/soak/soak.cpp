// soak.cpp: a host under load, for so many seconds. Eight threads log, record faults, register timers and items, show
// and copy logs and allocate, while the service answers collections of all types and self-tests, writes fault files, is
// stopped and begins again; all stores are small enough to evict all the time, and servers break runs off. Every line
// tells who wrote it and which one it is, so that it shows wherever it arrives when it is not whole, not in its
// thread's order, missing or there twice. Counts add up, and memory and descriptors stay what they were.
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <sstream>
#include <utility>

#include "ZuFault.hpp"
#include "ZuLogger.hpp"
#include "ZuMem.hpp"
#include "collection/host.hpp"
#include "support/platform_double.hpp"

namespace {

constexpr int kThreads = 8, kFaults = 4, kTimers = 40, kRunsARound = 32;
constexpr uint32_t kStoreSize = 2048;
constexpr unsigned kPatience = 60;  // seconds for a run
constexpr int32_t kRequestPort = 19099, kTestedName = 0xFFFF;
constexpr char kAddress[] = "127.0.9.1", kServer[] = "127.0.9.2";

// The lines of a thread's step: one echoed, one kept in a log, one in a fault's log, one a fault's value.
enum Stream : char { kEchoed = 'E', kKept = 'K', kRun = 'R', kValue = 'V' };

std::string faultFile;
ZuLogger *echoing, *keeping;
ZuFault *faults[kFaults];
ZuFuncLogEntry function = {"step", "I", 0, "(number)"};
ZuFuncLog *calls;
ZuInfo *structured;
std::atomic<bool> isOver;
std::atomic<int> timersMade, timersRun, linesCopied;
int steps[kThreads];  // of each thread, told when it ends

[[noreturn]] void fail(const std::string &what) {
  std::fprintf(stderr, "soak: %s\n", what.c_str());
  std::_Exit(1);
}

void expect(bool holds, const std::string &what) {
  if (!holds) fail(what);
}

void expectEqual(int64_t got, int64_t expected, const std::string &what) {
  expect(got == expected, what + ": " + std::to_string(got) + ", not " + std::to_string(expected));
}

// ---- lines

std::string lineOf(char stream, int thread, int number) {
  const std::string filler(static_cast<size_t>((number * 7 + thread) % 50), static_cast<char>('a' + number % 26));
  return std::string("<") + stream + std::to_string(thread) + ':' + std::to_string(number) + ':' + filler + '>';
}

// The lines of one walk, or of all there is: each whole, and each thread's in order without a gap.
struct Lines {
  // `isAll`: from each thread's first line on.
  Lines(std::string newWhere, char newStream, bool isAll = false) : where(std::move(newWhere)), stream(newStream) {
    next.fill(isAll ? 0 : -1);
  }

  void take(const std::string &line) {
    int thread = -1, number = -1;
    std::sscanf(line.c_str(), "<%*c%d:%d:", &thread, &number);
    expect(thread >= 0 && thread < kThreads && line == lineOf(stream, thread, number), where + ": " + line);
    int &expected = next[static_cast<size_t>(thread)];
    expect(expected == -1 || number == expected, where + ": " + line + " for number " + std::to_string(expected));
    expected = number + 1;
    ++lines;
  }

  // A record of a log: times and lines in turn.
  void takeRecord(const std::string &record) {
    const bool isTime = record.size() >= 14 && record[0] != '<' && record[record.size() - 3] == ':';
    expect(records == 0 || isTime != wasTime, where + ": a line and its time are apart: " + record);
    wasTime = isTime;
    ++records;
    if (!isTime) take(record);
  }

  std::string where;
  char stream;
  std::array<int, kThreads> next;
  int lines = 0, records = 0;
  bool wasTime = false;
};

Lines copyOf(ZuLogger *log, char stream, const std::string &where) {
  Lines lines(where, stream);
  ZuBuf *buffer = ZuBuf_New(1, 0, 4096);
  ZuLogger_CopyToBuf(log, buffer);
  std::istringstream copied(heldBy(buffer));
  for (std::string record; std::getline(copied, record);) lines.takeRecord(record);
  ZuBuf_Release(buffer);
  return lines;
}

// ---- what is printed, and what is in fault files

Lines printed("printed", kEchoed, true), saved("fault files", kValue, true);
int faultFiles;

void checkPrinted() {
  for (const std::string &call : platform::takePrintCalls()) {
    for (size_t at = 0, end; (at = call.find('<', at)) != std::string::npos; at = end) {
      end = at + 1;
      Lines shown("a shown log", call[end]);
      if (shown.stream != kEchoed && shown.stream != kKept && shown.stream != kRun) continue;  // of a dump
      end = call.find(">\n", at);
      expect(end != std::string::npos, "printed in parts: " + call);
      (shown.stream == kEchoed ? printed : shown).take(call.substr(at, ++end - at));
    }
  }
}

size_t takeLength(const std::string &bytes, size_t *at) {
  expect(*at + 2 <= bytes.size(), "a length is cut off");
  *at += 2;
  return static_cast<size_t>(static_cast<uint8_t>(bytes[*at - 2]) << 8 | static_cast<uint8_t>(bytes[*at - 1]));
}

// The first fault's callback: as runs follow one another, the file is that of the run before, and nobody writes it.
void checkFaultFile() {
  const std::string bytes = contentOf(faultFile);
  if (bytes == "none") return;
  expectEqual(ZuFault_GetResult(), 1, "the result of a fault run");
  ++faultFiles;
  std::map<std::string, Lines> logs;
  size_t at = 0;
  for (size_t size; (size = takeLength(bytes, &at)) != 0; at += size) {
    Lines &log = logs.try_emplace(bytes.substr(at, 7), "the log of a fault in its file", kRun).first->second;
    log.takeRecord(bytes.substr(at + 7, size - 7));  // behind "run f0 "
  }
  constexpr size_t kHead = 1 + 1 + 2 + 4 + 4;  // length of the name + 1, type, name, id, length
  while (at < bytes.size()) {
    const size_t size = takeLength(bytes, &at);
    saved.take(bytes.substr(at + kHead, size - kHead));
    at += size;
  }
  unlink(faultFile.c_str());  // so that none is read twice
}

// ---- items, and timers

CollectItem *logItem;

int32_t reportLogs(int32_t type) {
  if (type == 2) ZuFault_Start();
  Collect_PutLog(logItem, 0, keeping);
  for (int32_t i = 0; i < kFaults; ++i) Collect_PutRunLog(logItem, i + 1, faults[i]);
  return 0;
}

int32_t reportNothing(int32_t) { return 0; }

int32_t onTimer(int32_t) {
  ++timersRun;
  return 0;
}

// ---- the threads

void show(int number) {
  void (*const all[])() = {ZuMem_Show,
                           ZuTimer_Show,
                           Collect_ShowLog,
                           [] { ZuLogger_ShowInfo(keeping); },
                           [] { ZuFault_ShowRunLog(faults[0]); },
                           [] { ZuFuncLog_Show(calls, "", 0, 100); },
                           [] { ZuInfo_ShowInfo(structured, -1, "", "", 0, 0, 0, 100); }};
  all[number % 7]();
}

void copy(int number) {
  const ZuFault *fault = faults[number % kFaults];
  linesCopied += copyOf(keeping, kKept, "a copied log").lines;
  linesCopied += copyOf(fault->runLog, kRun, "a copied log of a fault").lines;
}

// Each thread formats into a buffer of its own.
void format(int thread) {
  char day[32];
  ZuTime_Format(day, "YYYY/MM/DD", 36 * 3600);
  ZuMem_LocalMalloc_Static(4);
  const std::string hex = ZuString_SHFormat(&thread, 1), text = ZuString_SFormat("%s %d", day, thread);
  expect(text == "1970/01/02 " + std::to_string(thread), "a text: " + text);
  expect(hex == ZuString_SHFormat(&thread, 1), "a dump: " + hex);
}

void allocate(int thread, int number, std::array<char *, 16> &blocks) {
  char *&block = blocks[static_cast<size_t>(number) % blocks.size()];
  const auto size = static_cast<uint32_t>(number % 600 + 1);
  if (block) expect(block[0] == thread && block[trackedSize(block) - 1] == thread, "another thread's block");
  ZuMem_Free(20 + thread, block);
  block = static_cast<char *>(ZuMem_Malloc(20 + thread, size));
  std::memset(block, thread, size);
}

void work(int thread) {
  int32_t (*const setters[])(ZuFault *, uint32_t, const void *, int32_t) = {ZuFault_SetRegistEx, ZuFault_SetCounterEx,
                                                                            ZuFault_SetValue};
  std::array<char *, 16> blocks{};
  CollectItem *item = nullptr;
  int n = steps[thread];
  for (; !isOver; ++n) {
    ZuFault *fault = faults[thread % kFaults];
    const std::string value = lineOf(kValue, thread, n);
    ZuLogger_Write(echoing, 1, ZuString_SFormat("%s", lineOf(kEchoed, thread, n).c_str()));
    ZuLogger_Write(keeping, n % 3 + 1, ZuString_SFormat("%s", lineOf(kKept, thread, n).c_str()));
    ZuFault_SetRunLog(fault, 1, 0, lineOf(kRun, thread, n).c_str());
    setters[n % 3](fault, 7, value.data(), static_cast<int32_t>(value.size()));
    ZuInfo_Append(calls->store, "", 1, "time and n", 8);
    ZuInfo_AddInfo(structured, 1, thread, &n, sizeof n, "", 0, "", 0, 0);
    allocate(thread, n, blocks);
    if (n % 16 == thread) copy(n / 16);
    if (n % 256 == thread) {
      Collect_Release(std::exchange(item, Collect_New(value.c_str(), reportNothing, reportNothing)));
    }
    if (n % 64 == thread) ZuFault_Start();
    if (n % 64 == 2 * thread) show(n / 64);
    if (n % 64 == 3 * thread) format(thread);
    if (n % 16 == thread && n / 16 < kTimers) timersMade += ZuTimer_Regist(onTimer, 0);
    if (n % 4 == 0) usleep(1000);
  }
  steps[thread] = n;
  Collect_Release(item);
  for (char *block : blocks) ZuMem_Free(20 + thread, block);
}

// ---- the collection server

CollectStats counts;  // what the library should count
int linesCollected;

CollectStats statistics() {
  CollectStats now;
  Collect_GetStats(&now);
  return now;
}

// Checks what a run has brought: every line of a log is whole.
void checkRun(const std::vector<std::string> &messages) {
  std::vector<Lines> logs(kFaults + 1, {"collected of a fault", kRun});
  logs[0] = {"collected", kKept};
  std::string bytes;
  for (const std::string &message : messages) {
    for (size_t at = wire::wordAt(message, 4) == 2 ? 12 : message.size(); at < message.size();) {
      const bool isWhole = (message[at] & 0x80) != 0, isName = wire::wordAt(message, at + 1) == kTestedName;
      const auto log = static_cast<size_t>(wire::wordAt(message, at + 9));
      const size_t size = takeLength(message, &(at += 13));
      bytes += message.substr(at, size);
      at += size;
      if (isWhole && !isName) logs.at(log).takeRecord(bytes);
      if (isWhole) bytes.clear();
    }
  }
  for (const Lines &log : logs) linesCollected += log.lines;
}

// One run, broken by its server if told so; the last one of a round by the host, which stops.
void run(uint32_t number) {
  const Manner::Ending endings[] = {Manner::kResets, Manner::kCloses, Manner::kClosesAtOnce};
  const bool stops = number == kRunsARound - 1, breaks = stops || number % 10 == 5;
  const Manner::Ending ending = stops ? Manner::kFallsSilent : endings[counts.failedRuns % 3];
  Server server(breaks ? Manner{2, ending} : Manner{}, kServer);
  ask(wire::request(16, static_cast<int32_t>(number % 4), 7, server.port()), kRequestPort, kServer, kAddress);
  if (stops) {
    while (statistics().messages <= counts.messages) usleep(1000);  // until it waits for the second acknowledgement
    Collect_Stop();
  }
  const std::vector<std::string> &messages = server.messages();
  if (!breaks) checkRun(messages);
  ++counts.datagrams;
  ++(breaks ? counts.failedRuns : counts.finishedRuns);
  counts.messages += static_cast<uint32_t>(breaks ? !messages.empty() : messages.size());  // of a broken run the first
  checkPrinted();
}

// ---- rounds

void setUp(const std::string &program) {
  echoing = ZuLogger_New(ZULOGGER_ACCEPT_ALL | ZULOGGER_ECHO);
  keeping = ZuLogger_New(ZULOGGER_ACCEPT_ALL | ZULOGGER_KEEP);
  ZuLogger_SetInfoSize(keeping, kStoreSize);
  calls = ZuFuncLog_New(&function, 1, kStoreSize);
  structured = ZuInfo_New(kStoreSize);
  for (int i = 0; i < kFaults; ++i) {
    faults[i] = ZuFault_Regist(("f" + std::to_string(i)).c_str(), i == 0 ? checkFaultFile : nullptr);
    ZuFault_SetLogSize(faults[i], kStoreSize);
  }
  faultFile = program + ".faults";
  unlink(faultFile.c_str());
  ZuFault_SetFile(faultFile.c_str(), 1);
  logItem = Collect_New("logs", reportLogs, nullptr);
  Collect_SetLogSize(kStoreSize);
  Collect_SetAddress(kAddress, kRequestPort);
  CollectClient_SetTrace(0);
}

// What was written to a log is there, or was evicted.
void checkStore(ZuLogger *log, char stream, int lines) {
  const int present = copyOf(log, stream, "a log at the end").records;
  const auto evicted = static_cast<int>(ZuInfo_GetEvicted(log->store));
  expect(evicted > 0, "nothing was evicted");
  expectEqual(evicted + present, 2 * lines, "records of a log");
}

void checkCounts() {
  int all = 0;
  for (const int ofThread : steps) all += ofThread;
  const CollectStats stats = statistics();
  expectEqual(stats.datagrams, counts.datagrams, "datagrams");
  expectEqual(stats.finishedRuns, counts.finishedRuns, "finished runs");
  expectEqual(stats.failedRuns, counts.failedRuns, "failed runs");
  expectEqual(stats.messages, counts.messages, "messages");
  expectEqual(timersRun, timersMade, "timers run");
  ZuFault_Start();
  checkFaultFile();
  checkPrinted();
  expectEqual(saved.lines, all, "values in fault files");
  expectEqual(printed.lines, all, "lines printed");
  checkStore(keeping, kKept, all);
  for (int i = 0; i < kFaults; ++i) checkStore(faults[i]->runLog, kRun, steps[i] + steps[i + kFaults]);
  ZuMem_Show();
  const std::string accounts = platform::takePrinted();  // those of the threads are from 20 to 27
  expect(!std::regex_search(accounts, std::regex("\n +2[0-7]  0x")), "an account that does not balance:\n" + accounts);
}

void doRound() {
  std::vector<std::thread> threads;
  isOver = false;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
  std::thread timers(ZuTimer_Loop), serving([] { expectEqual(Collect_Init(0xABCD0000), 0, "Collect_Init"); });
  while (!isBound(kRequestPort)) usleep(1000);
  for (uint32_t number = 0; number < kRunsARound; ++number) {
    alarm(kPatience);
    run(number);
  }
  serving.join();
  isOver = true;
  for (std::thread &thread : threads) thread.join();
  while (timersRun < timersMade) usleep(1000);
  ZuTimer_Stop();
  timers.join();
  checkCounts();
}

void onAlarm(int) { fail("nothing moves"); }

}  // namespace

int main(int argc, char **argv) {
  const int seconds = argc == 2 ? std::atoi(argv[1]) : 0;
  if (seconds <= 0 || !platform::isLocking()) {
    std::fputs("usage: KEP_TEST_LOCK=1 soak SECONDS\n", stderr);
    return 2;
  }
  std::signal(SIGALRM, onAlarm);
  setUp(argv[0]);
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  do doRound();
  while (timersMade < kThreads * kTimers);  // which stay for good
  const int blocks = platform::liveBlocks(), descriptors = openDescriptors();
  do {
    doRound();
    expectEqual(platform::liveBlocks(), blocks, "blocks of memory");
    expectEqual(openDescriptors(), descriptors, "descriptors");
  } while (std::chrono::steady_clock::now() < end);
  std::printf("%u runs, %u of them broken; %d lines printed, %d copied, %d collected, %d values in %d fault files\n",
              counts.datagrams, counts.failedRuns, printed.lines, linesCopied.load(), linesCollected, saved.lines,
              faultFiles);
}
