// soak.cpp: how a host fares that serves for long. This process is the collection server: for so many seconds it asks
// for run after run, of all types in turn, checks every byte, and breaks one run in ten. Its child is the host, whose
// resident memory and descriptors must stay what they were after the warm-up; so it says nothing under
// AddressSanitizer, which holds on to freed memory.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "collection/host.hpp"

namespace {

constexpr int32_t kRequestPort = 9099;
constexpr uint32_t kLogSize = 4096;  // of the service's log, full well before the warm-up ends
constexpr int kWarmUpRuns = 500, kRunsALook = 50;
constexpr long kAllowedGrowthKb = 64;
constexpr unsigned kLongestRunSeconds = 30;

// The server's addresses. Not the one from which the host connects: of that one, closed connections hold the ports.
constexpr char kServer[] = "127.0.0.2", kSilentServer[] = "127.0.0.3";

// What a run is made of is told by the server's port, known to both sides. A text takes at least three messages.
void setContentFor(int32_t port) { host::setContent(port, 2500 + static_cast<size_t>(port) % 2500); }

// ---- the host

// Asked before every run. The service's log takes a size only before its first line; and only a server that never
// acknowledges may run into a limit, not one that is slow because the machine is busy.
int32_t prepareRun(const char *address, int32_t port, int32_t) {
  ZuLogger_SetInfoSize(g_collect_param.logger, kLogSize);
  const int32_t limitMs = std::strcmp(address, kSilentServer) == 0 ? 20 : 1000 * kLongestRunSeconds;
  CollectClient_SetTimeout(limitMs, limitMs, limitMs);
  setContentFor(port);
  return 1;
}

[[noreturn]] void serve() {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (!std::freopen("/dev/null", "w", stdout)) std::_Exit(1);
  host::registerItems();
  Collect_SetAccess(prepareRun);
  Collect_Init(0xABCD0000);
  std::_Exit(1);
}

// ---- the server

struct Use {
  long residentKb;
  long descriptors;
};

pid_t served;
int runs, brokenRuns;
unsigned long long byteCount;
Use warm, last;

void summarise() {
  std::printf("%d runs, %d of them broken; %llu bytes checked\n", runs, brokenRuns, byteCount);
  std::printf("the host after the warm-up and at the end: %ld and %ld kB, %ld and %ld descriptors\n", warm.residentKb,
              last.residentKb, warm.descriptors, last.descriptors);
}

[[noreturn]] void fail(const std::string &what) {
  summarise();
  std::fprintf(stderr, "soak: run %d: %s\n", runs, what.c_str());
  std::exit(1);  // the host goes with it
}

bool isRequestPortBound() {
  std::ifstream table("/proc/net/udp");
  const std::string text(std::istreambuf_iterator<char>(table), {});
  return text.find(":238B 00000000:0000") != std::string::npos;
}

Use look() {
  const std::filesystem::path process = "/proc/" + std::to_string(served);
  std::ifstream map(process / "smaps_rollup");
  Use use{};
  for (std::string line; std::getline(map, line);) std::sscanf(line.c_str(), "Rss: %ld kB", &use.residentKb);
  using Folder = std::filesystem::directory_iterator;
  use.descriptors = std::distance(Folder(process / "fd"), Folder());
  return use;
}

// The end of a connection is heard before the host has closed it.
void warmUp() {
  usleep(500000);
  warm = look();
  if (warm.residentKb == 0) fail("no resident memory is told");
}

void checkUse() {
  last = look();
  for (int tries = 0; tries < 500 && last.descriptors != warm.descriptors; ++tries) {
    usleep(10000);
    last = look();
  }
  if (last.residentKb > warm.residentKb + kAllowedGrowthKb) fail("memory grows");
  if (last.descriptors != warm.descriptors) fail("descriptors change");
}

// Asks for a run and compares what the server gets with the first messages of a whole one.
void run(int32_t type, const Manner &manner, size_t count) {
  const char *address = manner.ending == Manner::kFallsSilent ? kSilentServer : kServer;
  static Server refusing({0, Manner::kRefuses}, kServer);  // keeps its port: the host may try it after the next request
  if (manner.ending == Manner::kRefuses) {
    ask(wire::request(16, type, runs, refusing.port()), kRequestPort, kServer);
    return;
  }
  Server server(manner, address);
  ask(wire::request(16, type, runs, server.port()), kRequestPort, address);
  const std::vector<std::string> messages = host::withoutTimes(server.messages());
  const int32_t number = messages.size() > 1 ? wire::wordAt(messages[1], 8) : 0;
  setContentFor(server.port());
  std::vector<std::string> expected = host::Run(type, runs, number - 1).stream.messages();
  expected.resize(std::min(count, expected.size()));
  if (messages.size() != expected.size()) fail(std::to_string(messages.size()) + " messages");
  if (messages != expected) fail("a wrong byte");
  if (server.wasHurried()) fail("a message before the acknowledgement of the last");
  for (const std::string &message : messages) byteCount += message.size();
}

// All ways of breaking a run end before its second half, or else the host may take it for finished.
Manner breaking(int way) {
  const auto endsAt = static_cast<size_t>(way / 5 % 3 + 1);
  const Manner manners[] = {{0, Manner::kRefuses},
                            {0, Manner::kClosesAtOnce},
                            {1, Manner::kFallsSilent},
                            {endsAt, Manner::kResets},
                            {endsAt, Manner::kCloses}};
  return manners[way % 5];
}

}  // namespace

int main(int argc, char **argv) {
  const int seconds = argc == 2 ? std::atoi(argv[1]) : 0;
  if (seconds <= 0 || isRequestPortBound()) {
    std::fputs("usage: soak SECONDS, while nobody uses UDP port 9099\n", stderr);
    return 2;
  }
  alarm(kLongestRunSeconds);  // ends a run that does not end
  served = fork();
  if (served == 0) serve();
  while (!isRequestPortBound()) usleep(10000);

  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (runs <= kWarmUpRuns || std::chrono::steady_clock::now() < end || runs % kRunsALook != 0) {
    alarm(2 * kLongestRunSeconds);
    ++runs;
    if (runs % 10 != 5) {
      run(runs % 4, {}, SIZE_MAX);
    } else {
      ask("no request", kRequestPort);
      const Manner manner = breaking(brokenRuns++);
      run(brokenRuns % 4, manner, manner.endsAt);
    }
    if (runs == kWarmUpRuns) warmUp();
    if (runs > kWarmUpRuns && runs % kRunsALook == 0) checkUse();
  }
  kill(served, SIGKILL);
  waitpid(served, nullptr, 0);
  summarise();
}
