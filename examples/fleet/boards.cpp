// boards.cpp: kep-boards plays a fleet of boards on loopback, each at an address of its own, for kep-fleet to ask.
//
// The library serves one board at a time in a process, so boards share processes by the hundred: those that behave are
// served by it (served.cpp), those that misbehave (odd.cpp) have processes of their own, in which nobody waits. All are
// forked before anything of the service is set up, from this one, which starts them, takes what the control file says,
// and ends them. What changes at run time is one byte for each board, in memory that all share.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "plan.hpp"

namespace {

[[noreturn]] void fail(const char *what) {
  std::fprintf(stderr, "kep-boards: %s: %s\n", what, std::strerror(errno));
  std::exit(EXIT_FAILURE);
}

// ---- what all processes share

void shareStates(Plan *plan) {
  void *memory = mmap(nullptr, plan->count(), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) fail("memory");
  plan->states = static_cast<std::atomic<uint8_t> *>(memory);
  for (uint32_t board = 1; board <= plan->count(); ++board) {
    plan->stateOf(board) = plan->kindOf(board) == Kind::kFailing ? kIsBroken : 0;
  }
}

// A board has its request socket; an odd one answers with up to two connections, for some of which the end is awaited.
void allowDescriptors(const Plan &plan) {
  const rlim_t needed = 64 + 4 * std::min<rlim_t>(plan.perProcess, plan.count());
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) fail("limit of descriptors");
  if (limit.rlim_cur >= needed) return;
  limit.rlim_cur = needed;
  if (limit.rlim_max >= needed && setrlimit(RLIMIT_NOFILE, &limit) == 0) return;
  std::fprintf(stderr, "kep-boards: a process needs %llu descriptors and may have %llu: give a smaller --per-process\n",
               static_cast<unsigned long long>(needed), static_cast<unsigned long long>(limit.rlim_max));
  std::exit(EXIT_FAILURE);
}

// ---- the processes

using Players = std::vector<pid_t>;

// The signals that this process waits for are blocked in it, and not in those that it starts.
sigset_t waitedFor() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGTERM, SIGINT, SIGCHLD}) sigaddset(&signals, number);
  return signals;
}

pid_t start(const Plan &plan, const std::vector<uint32_t> &numbers, int ready) {
  const pid_t parent = getpid(), child = fork();
  if (child < 0) std::perror("kep-boards: fork");
  if (child != 0) return child;
  const sigset_t signals = waitedFor();
  signal(SIGINT, SIG_IGN);  // a terminal sends it to all: the parent ends its children
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  sigprocmask(SIG_UNBLOCK, &signals, nullptr);
  if (getppid() != parent) _exit(EXIT_FAILURE);
  if (plan.isServed(numbers[0])) playServed(plan, numbers, ready);
  playOdd(plan, numbers, ready);
}

bool startAll(const Plan &plan, int ready, Players *players) {
  for (const bool isServed : {true, false}) {
    std::vector<uint32_t> numbers;
    for (uint32_t board = 1; board <= plan.count(); ++board) {
      if (plan.isServed(board) == isServed) numbers.push_back(board);
      const bool isLast = board == plan.count();
      if (numbers.empty() || (numbers.size() < plan.perProcess && !isLast)) continue;
      const pid_t player = start(plan, numbers, ready);
      if (player < 0) return false;
      players->push_back(player);
      numbers.clear();
    }
  }
  return true;
}

// One that was only stopped has not.
bool hasOneEnded() {
  siginfo_t info{};
  return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid != 0;
}

void endAll(const Players &players) {
  for (const pid_t player : players) kill(player, SIGTERM);
  for (const pid_t player : players) waitpid(player, nullptr, 0);
}

// ---- the control file

// One that an earlier play has left behind will do; nothing else is touched.
int openControl(const std::string &path) {
  if (path.empty()) return -1;
  if (mkfifo(path.c_str(), 0600) != 0 && errno != EEXIST) fail(path.c_str());
  const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  struct stat status;
  if (fd < 0 || fstat(fd, &status) != 0) fail(path.c_str());
  if (!S_ISFIFO(status.st_mode)) {
    errno = EEXIST;
    fail(path.c_str());
  }
  return fd;
}

void obey(const Plan &plan, const std::string &line) {
  static const struct {
    const char *word;
    uint8_t bit;
    bool isSet;
  } kWords[] = {
      {"break", kIsBroken, true}, {"mend", kIsBroken, false}, {"die", kIsAway, true}, {"live", kIsAway, false}};
  const size_t blank = line.find(' ');
  const std::string word = line.substr(0, blank), which = blank == std::string::npos ? "" : line.substr(blank + 1);
  const unsigned long number = std::strtoul(which.c_str(), nullptr, 10);
  for (const auto &known : kWords) {
    if (word != known.word || (which != "all" && (number == 0 || number > plan.count()))) continue;
    for (uint32_t board = 1; board <= plan.count(); ++board) {
      if (which != "all" && board != number) continue;
      if (known.isSet) plan.stateOf(board) |= known.bit;
      if (!known.isSet) plan.stateOf(board) &= static_cast<uint8_t>(~known.bit);
    }
    std::printf("%s\n", line.c_str());
    return;
  }
  std::fprintf(stderr, "kep-boards: not understood: %s\n", line.c_str());
}

void readControl(const Plan &plan, int control, std::string *rest) {
  char bytes[512];
  const ssize_t size = read(control, bytes, sizeof bytes);
  if (size > 0) rest->append(bytes, static_cast<size_t>(size));
  for (size_t end; (end = rest->find('\n')) != std::string::npos; rest->erase(0, end + 1)) {
    obey(plan, rest->substr(0, end));
  }
}

// ---- the play

// Returns true when a signal asks for the end, false when what is wrong has been said.
bool play(const Plan &plan, size_t players, int ready, int signals, int control) {
  std::string rest;
  for (size_t up = 0;;) {
    pollfd fds[] = {{signals, POLLIN, 0}, {control, POLLIN, 0}, {up < players ? ready : -1, POLLIN, 0}};
    if (poll(fds, 3, -1) < 0) continue;
    signalfd_siginfo signal;
    if (fds[0].revents && read(signals, &signal, sizeof signal) > 0) {
      if (signal.ssi_signo != SIGCHLD) return true;
      if (hasOneEnded()) {
        std::fputs("kep-boards: a process of boards has ended\n", stderr);
        return false;
      }
    }
    if (fds[1].revents) readControl(plan, control, &rest);
    char byte;
    if (!fds[2].revents || read(ready, &byte, 1) != 1 || ++up < players) continue;
    if (!plan.config.empty() && !writeConfig(plan)) {
      std::perror(plan.config.c_str());
      return false;
    }
    std::printf("%u boards at %s to %s, port %d, in %zu processes\n", plan.count(), plan.addressOf(1).c_str(),
                plan.addressOf(plan.count()).c_str(), plan.port, players);
  }
}

}  // namespace

int main(int argc, char **argv) {
  Plan plan = readCommandLine(argc, argv);
  setenv("TZ", "UTC0", 1);  // of the times in logs: the names file says so
  setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  shareStates(&plan);
  allowDescriptors(plan);
  const int control = openControl(plan.control);
  const sigset_t blocked = waitedFor();
  sigprocmask(SIG_BLOCK, &blocked, nullptr);
  const int signals = signalfd(-1, &blocked, SFD_CLOEXEC);
  int ready[2];
  if (signals < 0 || pipe2(ready, O_CLOEXEC) != 0) fail("descriptors");
  Players players;
  const bool isGood = startAll(plan, ready[1], &players) && play(plan, players.size(), ready[0], signals, control);
  endAll(players);
  if (control >= 0) unlink(plan.control.c_str());
  return isGood ? EXIT_SUCCESS : EXIT_FAILURE;
}
