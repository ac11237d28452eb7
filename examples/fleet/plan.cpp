// plan.cpp: the command line, where boards are and how they are called, and the configuration that lists them.
#include "plan.hpp"

#include <arpa/inet.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

namespace {

constexpr uint32_t kMostBoards = 100000;
constexpr int kQueueBytes = 4096;  // of requests that wait: a board's queue is short as well

const char *const kKindNames[] = {"good",      "failing",  "dying",     "dead",    "slow",
                                  "trickling", "breaking", "repeating", "garbage", "hostile"};
static_assert(std::size(kKindNames) == static_cast<size_t>(Kind::kCount));

const char kUsage[] =
    R"(usage: kep-boards [COUNT] [OPTIONS]: plays COUNT boards (10) on loopback until SIGTERM or SIGINT
  --first ADDRESS   of board 1 (127.1.0.1); board n is n - 1 addresses on, those that end in .0 and .255 included
  --port PORT       of every board (9099)
  --small           a board tells a few numbers, not 60
  --per-process N   boards played by one process (250)
  --write-config FILE, --names FILE   write a configuration of kep-fleet, with this names file for every board
  --control FILE    make a FIFO that takes lines: break, mend (the self-test), die or live, and a number or all
How many behave otherwise: a number (3), a share (5%) or which ones (=2,17). The first two take the last boards that
are left, in the order given here.
  --failing SET     a self-test fails         --breaking SET   break off in the middle
  --dying SET       away for half the time    --repeating SET  send a run twice, or connect twice
  --dead SET        never answer              --garbage SET    send any bytes
  --slow SET        pause for seconds         --hostile SET    names and texts that do harm where they are trusted
  --trickling SET   send byte by byte         --period N       seconds between two deaths of a dying board (120)
)";

[[noreturn]] void refuse(const std::string &what, const std::string &value) {
  std::fprintf(stderr, "kep-boards: %s: %s (see --help)\n", what.c_str(), value.c_str());
  std::exit(2);
}

uint32_t numberOf(const std::string &what, const std::string &text, uint32_t least, uint32_t most) {
  char *end;
  const unsigned long value = std::strtoul(text.c_str(), &end, 10);
  if (text[0] < '0' || text[0] > '9' || *end != '\0' || value < least || value > most) refuse(what, text);
  return static_cast<uint32_t>(value);
}

// ---- the command line

// The values by name, that of the count under "COUNT". What is taken is gone, so what is left in the end is unknown.
class Options {
 public:
  Options(int argc, char **argv) {
    for (int i = 1; i < argc; ++i) {
      const std::string argument = argv[i];
      if (argument == "--help") std::exit(std::fputs(kUsage, stdout) < 0);
      const bool isOption = argument.rfind("--", 0) == 0, isFlag = argument == "--small";
      if (isOption && !isFlag && i + 1 == argc) refuse("without its value", argument);
      values_[isOption ? argument.substr(2) : "COUNT"] = isOption && !isFlag ? argv[++i] : argument;
    }
  }

  std::string take(const char *name) {
    const auto found = values_.extract(name);
    return found ? found.mapped() : "";
  }

  uint32_t takeNumber(const char *name, uint32_t otherwise, uint32_t least, uint32_t most) {
    const std::string text = take(name);
    return text.empty() ? otherwise : numberOf(name, text, least, most);
  }

  void finish() const {
    if (!values_.empty()) refuse("unknown", "--" + values_.begin()->first);
  }

 private:
  std::map<std::string, std::string> values_;
};

void assign(Plan *plan, size_t kind, uint32_t board) {
  if (plan->kindOf(board) != Kind::kGood) refuse(kKindNames[kind], "board " + std::to_string(board) + " is taken");
  plan->kinds[board - 1] = static_cast<Kind>(kind);
}

// A set that names boards, or one that counts them.
void assignSet(Plan *plan, size_t kind, std::string set) {
  const char *name = kKindNames[kind];
  if (set[0] == '=') {
    std::istringstream list(set.substr(1));
    for (std::string one; std::getline(list, one, ',');) assign(plan, kind, numberOf(name, one, 1, plan->count()));
    return;
  }
  const bool isShare = set.back() == '%';
  if (isShare) set.pop_back();
  uint32_t left = numberOf(name, set, 0, isShare ? 100 : plan->count());
  if (isShare) left = static_cast<uint32_t>(uint64_t{plan->count()} * left / 100);
  for (uint32_t board = plan->count(); left > 0; --board) {
    if (board == 0) refuse(name, "more boards than are left");
    if (plan->kindOf(board) != Kind::kGood) continue;
    assign(plan, kind, board);
    --left;
  }
}

}  // namespace

std::string Plan::addressOf(uint32_t number) const {
  char text[INET_ADDRSTRLEN];
  const in_addr address = {htonl(first + number - 1)};
  return inet_ntop(AF_INET, &address, text, sizeof text);
}

std::string Plan::nameOf(uint32_t number) const {
  const std::string digits = std::to_string(number);
  if (kindOf(number) == Kind::kHostile) return "<img src=x onerror=owned=" + digits + ">";
  return "board-" + std::string(std::to_string(count()).size() - digits.size(), '0') + digits;
}

// Dying boards die one after another, whichever process asks.
bool Plan::isAway(uint32_t number) const {
  if (stateOf(number).load(std::memory_order_relaxed) & kIsAway) return true;
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  const uint64_t at = (static_cast<uint64_t>(now.tv_sec) + uint64_t{number} * 7) % period;
  return kindOf(number) == Kind::kDying && at >= period / 2;
}

Plan readCommandLine(int argc, char **argv) {
  Options options(argc, argv);
  Plan plan;
  in_addr first = {htonl(plan.first)};
  const std::string address = options.take("first");
  if (!address.empty() && inet_pton(AF_INET, address.c_str(), &first) != 1) refuse("first", address);
  plan.first = ntohl(first.s_addr);
  plan.port = static_cast<uint16_t>(options.takeNumber("port", plan.port, 1, UINT16_MAX));
  plan.perProcess = options.takeNumber("per-process", plan.perProcess, 1, kMostBoards);
  plan.period = options.takeNumber("period", plan.period, 2, 86400);
  plan.isSmall = !options.take("small").empty();
  plan.control = options.take("control");
  plan.config = options.take("write-config");
  plan.names = options.take("names");
  plan.kinds.resize(options.takeNumber("COUNT", 10, 1, kMostBoards));
  std::vector<std::string> sets(1);
  for (size_t kind = 1; kind < std::size(kKindNames); ++kind) sets.push_back(options.take(kKindNames[kind]));
  options.finish();
  for (const bool isNamed : {true, false}) {  // those that are named come before those that are counted
    for (size_t kind = 1; kind < sets.size(); ++kind) {
      if (!sets[kind].empty() && (sets[kind][0] == '=') == isNamed) assignSet(&plan, kind, sets[kind]);
    }
  }
  return plan;
}

bool writeConfig(const Plan &plan) {
  static const char *const kSites[] = {"north", "east", "south", "west"};
  std::ofstream out(plan.config);
  out << "# The boards that kep-boards plays.\n\n[[poll]]\ntype = 0\nevery = \"15s\"\n\n[[poll]]\ntype = 1\n"
         "every = \"5m\"\n\n[[poll]]\nselftest = true\nevery = \"24h\"\n\n[label_from]\n"
         "firmware = { item = \"system\", key = 2 }\n";
  char path[PATH_MAX];
  const std::string names = plan.names.empty() ? "" : realpath(plan.names.c_str(), path) ? path : plan.names;
  for (uint32_t board = 1; board <= plan.count(); ++board) {
    const char *kind = kKindNames[static_cast<size_t>(plan.kindOf(board))];
    out << "\n[[board]]\nname = \"" << plan.nameOf(board) << "\"\nhost = \"" << plan.addressOf(board) << ":"
        << plan.port << "\"\nlabels = { site = \"" << kSites[board % 4] << "\", plays = \"" << kind << "\" }\n";
    if (!names.empty()) out << "names = \"" << names << "\"\n";
  }
  return !out.flush().fail();
}

bool bindToBoard(int fd, const Plan &plan, uint32_t number, uint16_t port) {
  sockaddr_in own{};
  own.sin_family = AF_INET;
  own.sin_port = htons(port);
  own.sin_addr.s_addr = htonl(plan.first + number - 1);
  return bind(fd, reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0;
}

int openBoard(const Plan &plan, uint32_t number) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd >= 0) setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kQueueBytes, sizeof kQueueBytes);
  if (fd >= 0 && bindToBoard(fd, plan, number, plan.port)) return fd;
  std::fprintf(stderr, "kep-boards: %s:%d: %s\n", plan.addressOf(number).c_str(), plan.port, std::strerror(errno));
  _exit(1);
}

int watch(const std::vector<int> &fds) {
  const int poll = epoll_create1(EPOLL_CLOEXEC);
  for (size_t i = 0; i < fds.size(); ++i) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u32 = static_cast<uint32_t>(i);
    if (fds[i] >= 0 && epoll_ctl(poll, EPOLL_CTL_ADD, fds[i], &event) != 0) {
      std::perror("kep-boards: epoll");
      _exit(1);
    }
  }
  return poll;
}

void tellReady(int ready) {
  if (write(ready, "", 1) != 1) _exit(1);
  close(ready);
}
