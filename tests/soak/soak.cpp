// soak.cpp: how a host fares that serves for long. This process is the collection server: for so many seconds it asks
// for run after run, of all types in turn, checks every byte, and breaks one run in ten. Its child is the host, whose
// resident memory and descriptors must stay what they were after the warm-up; so it says nothing under
// AddressSanitizer, which holds on to freed memory.
#include <kep/kep.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ZuFault.hpp"
#include "collection/server.hpp"

namespace {

constexpr int32_t kRequestPort = 9099, kSelfTest = 3, kWithFaultFile = 2;
constexpr uint32_t kLogSize = 4096;        // of the host's logs, full well before the warm-up ends
constexpr int32_t kFewestLogRecords = 90;  // in a full log
constexpr int kWarmUpRuns = 500, kRunsALook = 50;
constexpr long kAllowedGrowthKb = 64;
constexpr unsigned kLongestRunSeconds = 30;

// The server's addresses. Not the one from which the host connects: of that one, closed connections hold the ports.
constexpr char kServer[] = "127.0.0.2", kSilentServer[] = "127.0.0.3";

constexpr char kTime[] = "##/## ##:##:##";  // of a line in the host's log

// ---- what the host reports at its n-th visit, known to both sides

std::string textOf(int32_t visit) {  // at least three messages long
  const size_t size = 2500 + static_cast<size_t>(visit) * 37 % 2500;
  std::string text;
  for (int32_t i = visit; text.size() < size; ++i) text += std::to_string(i) + ' ';
  return text.substr(0, size);
}

std::string lineOf(int32_t visit) {
  return "visit " + std::to_string(visit) + std::string(static_cast<size_t>(visit) % 40, '.');
}

// ---- the host

CollectItem *figures, *logs;
ZuFault *fault;
int32_t visits;

int32_t report(int32_t argument) {
  ++visits;
  ZuFault_SetRunLog(fault, 1, 0, lineOf(visits).c_str());
  CollectStats stats;
  Collect_GetStats(&stats);
  Collect_PutInt(figures, 1, visits);
  Collect_BeginSection(figures, 5);
  Collect_PutInt(figures, 2, argument);
  Collect_PutInt(figures, 3, static_cast<int32_t>(stats.datagrams));
  Collect_PutInt(figures, 4, static_cast<int32_t>(stats.finishedRuns));
  Collect_PutLong(figures, 5, INT64_MIN + visits);
  Collect_EndSection(figures);
  Collect_PutString(figures, 6, "text", 2);
  const std::string text = textOf(visits);
  ZuBuf *copy = ZuBuf_New(1, 100, 100);
  for (const char c : text) ZuBuf_Append(copy, &c, 1);
  void *begin;
  ZuBuf_Get(copy, 0, &begin);
  Collect_PutString(figures, 7, static_cast<char *>(begin), static_cast<int32_t>(text.size()));
  ZuBuf_Release(copy);
  Collect_PutStruct(figures, 8, text.data(), 1500);
  return 0;
}

int32_t reportLogs(int32_t type) {
  Collect_PutInitLog(logs, 1, fault);
  Collect_PutRunLog(logs, 2, fault);
  if (type == kWithFaultFile) ZuFault_Start();
  Collect_PutInt(logs, 3, g_ZuFault_Info ? 0 : 1);  // 1: no values, or all written to the file
  return 0;
}

void recordFault() {
  ZuFault_SetRegist(fault, 1, 2);
  ZuFault_SetCounter64(fault, 3, 4);
  ZuFault_SetCounterEx(fault, 5, "bytes", 5);
  ZuFault_SetValue(fault, 6, textOf(visits).data(), 2000);
}

// Asked before every run. The service's log takes a size only before its first line; and only a server that never
// acknowledges may run into a limit, not one that is slow because the machine is busy.
int32_t prepareRun(const char *address, int32_t, int32_t) {
  ZuLogger_SetInfoSize(g_collect_param.logger, kLogSize);
  const int32_t limitMs = std::strcmp(address, kSilentServer) == 0 ? 20 : 1000 * kLongestRunSeconds;
  CollectClient_SetTimeout(limitMs, limitMs, limitMs);
  return 1;
}

[[noreturn]] void serve() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (!std::freopen("/dev/null", "w", stdout)) std::_Exit(1);
  figures = Collect_New("figures", report, report);
  Collect_New("silent", nullptr, nullptr);
  logs = Collect_New("logs", reportLogs, nullptr);
  fault = ZuFault_Regist("fault", recordFault);
  ZuLogger_SetInfoSize(fault->runLog, kLogSize);
  ZuFault_SetInitLog(fault, 1, 0, "begun");
  Collect_SetAccess(prepareRun);
  Collect_Init(0xABCD0000);
  std::_Exit(1);
}

// ---- the server

struct Use {
  long residentKb;
  long descriptors;
};

pid_t host;
int runs, wholeRuns, datagrams;
unsigned long long messageCount, byteCount;
Use warm, most, last;

// How far the host has come. A broken run leaves that open.
int32_t lastNumber, lastVisit;  // of its messages, of its callbacks' visits
bool isSure = true;

void summarise() {
  std::printf("%d runs, %d of them broken; %llu messages, %llu bytes checked\n", runs, runs - wholeRuns, messageCount,
              byteCount);
  std::printf("the host: %ld kB resident after the warm-up, %ld at most, %ld at the end; descriptors %ld, %ld, %ld\n",
              warm.residentKb, most.residentKb, last.residentKb, warm.descriptors, most.descriptors, last.descriptors);
  std::fflush(stdout);
}

[[noreturn, gnu::format(printf, 1, 2)]] void fail(const char *format, ...) {
  summarise();
  std::fprintf(stderr, "soak: run %d: ", runs);
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fputc('\n', stderr);
  std::_Exit(1);  // the host goes with it
}

void onSignal(int number) {
  const char *text = number == SIGCHLD ? "soak: the host died\n" : "soak: a run does not end\n";
  (void)!write(STDERR_FILENO, text, std::strlen(text));
  _exit(1);
}

bool isRequestPortBound() {
  std::ifstream table("/proc/net/udp");
  for (std::string line; std::getline(table, line);) {
    if (line.find(":238B 00000000:0000") != std::string::npos) return true;
  }
  return false;
}

Use look() {
  std::ifstream map("/proc/" + std::to_string(host) + "/smaps_rollup");
  Use use{};
  for (std::string line; std::getline(map, line);) std::sscanf(line.c_str(), "Rss: %ld kB", &use.residentKb);
  using Folder = std::filesystem::directory_iterator;
  use.descriptors = std::distance(Folder("/proc/" + std::to_string(host) + "/fd"), Folder());
  return use;
}

void checkUse() {
  last = look();
  if (runs <= kWarmUpRuns) {
    const long fewest = runs == kRunsALook ? last.descriptors : std::min(warm.descriptors, last.descriptors);
    warm = most = last;
    warm.descriptors = most.descriptors = fewest;
    return;
  }
  // The end of a connection is heard before the host has closed it.
  for (int tries = 0; last.descriptors != warm.descriptors && tries < 500; ++tries) {
    usleep(10000);
    last = look();
  }
  most.residentKb = std::max(most.residentKb, last.residentKb);
  most.descriptors = std::max(most.descriptors, last.descriptors);
  if (last.residentKb == 0) fail("no resident memory is told");
  if (last.residentKb > warm.residentKb + kAllowedGrowthKb) fail("memory grows");
  if (last.descriptors != warm.descriptors) fail("descriptors change");
}

// The newest records of the host's log: of each visit the time, and the line.
void putLog(wire::Stream &run, int32_t visit, int32_t count) {
  for (int32_t left = count; left > 0; --left) {
    run.putString(2, 0, 2, left % 2 == 0 ? kTime : lineOf(visit - (left - 1) / 2));
  }
}

std::vector<std::string> wholeRun(int32_t type, int32_t visit, int32_t logCount) {
  wire::Stream run(lastNumber);
  run.append(std::string("\xAB\xCD\0\0", 4));
  run.flush(runs);
  run.setType(1);
  for (const char *item : {"\0figures", "\1silent", "\2logs"}) {
    if (type != kSelfTest) run.append(wire::word(*item) + wire::counted(item + 1));
  }
  if (type != kSelfTest) run.flush();
  run.setType(2);
  if (type == kSelfTest) run.putString(0xFFFF, 0, 0, "figures");
  run.putInt(0, 0, 1, visit);
  run.putInt(0, 5, 2, type == kSelfTest ? 0 : type);
  run.putInt(0, 5, 3, datagrams);
  run.putInt(0, 5, 4, wholeRuns);
  run.putLong(0, 5, 5, INT64_MIN + visit);
  run.putString(0, 0, 6, "te");
  run.putString(0, 0, 7, textOf(visit));
  run.putBuffer(0, 0, 8, textOf(visit).substr(0, 1500));
  run.flush();
  if (type != kSelfTest) {
    run.putString(2, 0, 1, kTime);
    run.putString(2, 0, 1, "begun");
    putLog(run, visit, logCount);
    run.putInt(2, 0, 3, 1);
    run.flush();
  }
  run.flush();
  return run.messages();
}

// Whether a message is as expected, where a # stands for any digit.
bool matches(const std::string &message, const std::string &wanted) {
  const auto isSame = [](char got, char want) { return got == want || (want == '#' && got >= '0' && got <= '9'); };
  return std::equal(message.begin(), message.end(), wanted.begin(), wanted.end(), isSame);
}

// How many records of its log the host sent: each has one last piece.
int32_t countLogRecords(const std::vector<std::string> &messages) {
  const std::string head = wire::head(0x83, 2, 0, 2);
  int32_t count = 0;
  for (const std::string &message : messages) {
    for (size_t at = message.find(head); at != std::string::npos; at = message.find(head, at + 1)) ++count;
  }
  return count;
}

// A run tells with what numbers it began; they follow those of the run before, unless that was broken.
void learnFrom(const std::vector<std::string> &messages, int32_t type) {
  if (isSure || messages.size() < 3) return;
  const int32_t number = wire::wordAt(messages[1], 8) - 1;
  const int32_t visit = (type == kSelfTest ? wire::wordAt(messages[1], 47) : wire::wordAt(messages[2], 25)) - 1;
  if (number < lastNumber || number > lastNumber + 20) fail("message numbers jump to %d", int{number});
  if (visit < lastVisit || visit > lastVisit + 1) fail("visits jump to %d", int{visit});
  lastNumber = number;
  lastVisit = visit;
}

// Compares what the server got with the first messages of a whole run. Returns that run.
std::vector<std::string> check(Server &server, int32_t type, size_t count) {
  const std::vector<std::string> &messages = server.messages();
  learnFrom(messages, type);
  const std::vector<std::string> whole = wholeRun(type, lastVisit + 1, countLogRecords(messages));
  count = std::min(count, whole.size());
  if (messages.size() != count) fail("%zu messages of type %d instead of %zu", messages.size(), int{type}, count);
  for (size_t i = 0; i < count; ++i) {
    if (!matches(messages[i], whole[i])) fail("a wrong byte in message %zu of type %d", i, int{type});
    ++messageCount;
    byteCount += messages[i].size();
  }
  if (server.wasHurried()) fail("a message before the acknowledgement of the last");
  return whole;
}

void request(int32_t type, int32_t port, const char *address = kServer) {
  ask(wire::request(16, type, runs, port), kRequestPort, address);
  ++datagrams;
}

void runWhole(int32_t type) {
  Server server({}, kServer);
  request(type, server.port());
  const std::vector<std::string> messages = check(server, type, SIZE_MAX);
  lastNumber = wire::wordAt(messages.back(), 8);
  ++lastVisit;
  isSure = true;
  ++wholeRuns;
  const int32_t logCount = countLogRecords(messages);
  if (type != kSelfTest && logCount < std::min(2 * lastVisit, kFewestLogRecords)) fail("log of %d", int{logCount});
}

// All ways of breaking a run end before its second half, or else the host may take it for finished.
void runBroken(int32_t type, int way) {
  const auto endsAt = static_cast<size_t>(way / 5 % 3 + 1);
  const Manner manners[] = {{0, Manner::kRefuses},
                            {0, Manner::kClosesAtOnce},
                            {1, Manner::kFallsSilent},
                            {endsAt, Manner::kResets},
                            {endsAt, Manner::kCloses}};
  const Manner &manner = manners[way % 5];
  const char *address = manner.ending == Manner::kFallsSilent ? kSilentServer : kServer;
  Server server(manner, address);
  ask("no request", kRequestPort);
  ++datagrams;
  request(type, server.port(), address);
  check(server, type, manner.endsAt);
  isSure = false;
}

int refuse(const char *why, int status) {
  std::fprintf(stderr, "%s\n", why);
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  const int seconds = argc == 2 ? std::atoi(argv[1]) : 0;
  if (seconds <= 0) return refuse("usage: soak SECONDS", 2);
  if (isRequestPortBound()) return refuse("soak: UDP port 9099 is in use by another program", 1);
  for (const int number : {SIGCHLD, SIGALRM}) std::signal(number, onSignal);
  alarm(kLongestRunSeconds);
  host = fork();
  if (host == 0) serve();
  while (!isRequestPortBound()) usleep(10000);

  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (std::chrono::steady_clock::now() < end || runs % kRunsALook != 0) {
    alarm(2 * kLongestRunSeconds);
    ++runs;
    if (runs % 10 == 5) {
      runBroken(runs / 10 % 4, runs / 10);
    } else {
      runWhole(runs % 4);
    }
    if (runs % kRunsALook == 0) checkUse();
  }
  if (runs <= kWarmUpRuns) fail("over before the warm-up was");
  std::signal(SIGCHLD, SIG_DFL);
  kill(host, SIGKILL);
  waitpid(host, nullptr, 0);
  summarise();
}
