// Every system call fails in turn: what is stated happens, and the next time everything works.
#include "faults/system_calls.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <optional>
#include <set>
#include <thread>

#include "Kep.hpp"
#include "ZuFault.hpp"
#include "ZuInfo.hpp"
#include "ZuLogger.hpp"
#include "collection/runs.hpp"
#include "support/platform_double.hpp"
#include "transport/own_network.hpp"

namespace {

constexpr int kOn = Plan::kOn;

// ---- single operations

int board;  // a socket at which a request waits
int boardPort;
char address[16], data[100];

int service() {
  static int calls;
  if (calls++ % 2 == 1) Collect_Stop();  // when nothing fails
  Collect_SetAddress(host::Service::address().c_str(), 0);
  const int result = Collect_Init(0);
  ZuLogger_Release(std::exchange(g_collect_param.logger, nullptr));
  return result;
}
int create() {
  const int fd = ZuSock_UDP_Create("127.0.0.77", boardPort);
  ZuSock_UDP_Close(fd);
  return fd < 0 ? fd : 1;
}
int send() { return ZuSock_UDP_SendMessage(board, "127.0.0.1", boardPort, "ask", 3); }
int receive() { return ZuSock_UDP_RecvMessage(board, address, &boardPort, data, 99); }
int exchange() {
  std::strcpy(address, "127.0.0.1");
  std::strcpy(data, "ask");
  return ZuSock_UDP_GetMessage(board, address, &boardPort, data, 3, 99, 60000);
}
int outwait() {
  receive();
  return ZuSock_UDP_GetMessage(board, nullptr, &boardPort, data, 0, 99, 20);
}
int waitFor() { return CollectClient_WaitFor(board, 0, 0, nullptr, address, &boardPort); }
int refused() { return CollectClient_Start("nowhere", 1); }
int datedLine() {
  ZuLogger *logger = ZuLogger_New(0x42);
  ZuLogger_Append(logger, 1, 0, "");
  const int sizes = ZuLogger_Write(logger, 1, "") + static_cast<int>(logger->store->writeOffset);
  ZuLogger_Release(logger);
  return sizes;
}
int clockRuns() { return ZuTime_GetUTime() != 0; }
int yearOf2024() {
  static int calls;
  return std::atoi(ZuTime_Format(data, "YYYY/MM", 1709622489 + calls++ / 2));
}
int sleepsEnough() {
  const uint32_t begin = ZuTime_GetUTime();
  ZuTime_Sleep(20);
  return ZuTime_GetUTime() - begin >= 20000;
}

TEST(Operations, FailAsStatedAndWorkAgain) {
  const struct {
    int (*run)();
    const char *call;
    int error, times;
    int fails, works;
    const char *printed = "";  // when it works
  } cases[] = {
      {datedLine, "time", EOVERFLOW, kOn, 27 + 49, 27 + 49},  // first, when no second is known: a clock at -1 is one
      {service, "socket", EMFILE, 1, -1, 0},
      {service, "bind", EADDRINUSE, 1, -1, 0},
      {create, "socket", EMFILE, 1, -1, 1},
      {create, "bind", EADDRINUSE, 1, -1, 1},
      {send, "setsockopt", ENOMEM, 1, 3, 3},  // only broadcasts need it
      {send, "sendto", EPERM, 1, -1, 3},
      {send, "sendto", EINTR, 3, 3, 3},
      {receive, "recvfrom", ENOMEM, 1, -1, 16},
      {receive, "recvfrom", EINTR, 3, 16, 16},
      {exchange, "sendto", ENETUNREACH, 1, -1, 16},
      {exchange, "poll", ENOMEM, 1, 0, 16},
      {exchange, "poll", EINTR, 3, 16, 16},
      {exchange, "recvfrom", ENOMEM, 1, -1, 16},
      {exchange, "recvfrom", EAGAIN, 3, 16, 16},  // there seemed to be a datagram
      {outwait, "poll", EINTR, kOn, 0, 0},        // signals do not put off the end
      {waitFor, "recvfrom", ENOMEM, 1, -1, 77, "size=16\n"},
      {waitFor, "recvfrom", EAGAIN, 1, -1, 77, "size=16\n"},  // a host's socket need not wait
      {waitFor, "recvfrom", EINTR, 3, 77, 77, "size=16\n"},
      {waitFor, "write", EINTR, 3, 77, 77, "size=16\n"},
      {waitFor, "write", 0, kOn, 77, 77, "size=16\n"},  // a byte at a time
      {refused, "write", EINTR, 3, 0, 0, "connect error.\n"},
      {clockRuns, "gettimeofday", EPERM, 1, 0, 1},            // as where a sandbox forbids it
      {yearOf2024, "localtime_r", EOVERFLOW, 1, 1900, 2024},  // of the same second
      {sleepsEnough, "usleep", EINTR, kOn, 1, 1},
  };
  const int descriptors = openDescriptors();
  for (const auto &c : cases) {
    SCOPED_TRACE(std::string(c.call) + ": " + std::strerror(c.error));
    for (const bool fails : {true, false}) {
      board = openSocket(SOCK_DGRAM, "127.0.0.1", &boardPort);
      ask(wire::request(16, 0, 77, 1), boardPort);
      std::optional<Plan> plan;
      if (fails) plan.emplace(c.call, c.error, 1, c.times, c.error == 0 ? 1 : SIZE_MAX);
      StdoutCapture output;
      const int result = c.run();
      plan.reset();
      EXPECT_EQ(result, fails ? c.fails : c.works);
      EXPECT_EQ(output.take(), result == c.works ? c.printed : "");
      EXPECT_EQ(platform::takeDelays(), std::vector<uint32_t>(c.run == waitFor && result < 0, 1000));
      close(board);
    }
    EXPECT_EQ(openDescriptors(), descriptors);
  }
}

// ---- the zone

TEST(Zone, IsFollowedAndLookedAtOnceASecondAndWhenTZIsAnotherOne) {
  const std::string longZone = "<" + std::string(50, 'Z') + ">-";
  const std::string early = "EST5EDT,M1.1.0,M12.5.0";
  const struct {
    std::string zone;  // "none": the zone's file, which the C library looks at
    size_t second;     // of the wall clock
    bool looks;
    std::string before;  // what TZ was for the C library alone since the last time
  } steps[] = {
      {"none", 0, true, ""},         {"none", 0, false, ""},        {"none", 1, true, ""},
      {"none", 0, true, ""},         {"none", 0, false, ""},        {"EAST-5", 0, true, ""},
      {"EAST-6", 0, true, ""},       {"none", 0, true, ""},         {"", 0, true, ""},
      {longZone + "1", 0, true, ""}, {longZone + "2", 0, true, ""}, {"none", 0, true, early},
      {"none", 0, true, early},      {early, 0, true, ""},          {"EST5EDT", 0, true, ""},
      {"EST5EDT", 0, true, early},
  };
  time_t t = 1709622489;
  for (const auto &[zone, second, looks, before] : steps) {
    if (!before.empty()) setenv("TZ", before.c_str(), 1), tzset();
    zone == "none" ? unsetenv("TZ") : setenv("TZ", zone.c_str(), 1);
    {
      const Plan clock("time", 0, 1, kOn, second);
      Plan look("tzset", 0);
      ZuTime_Format(data, "HH", ++t);
      EXPECT_EQ(look.wasMet(), looks) << zone << " " << t - 1709622489;
    }
    char expected[3];
    std::strftime(expected, sizeof expected, "%H", std::localtime(&t));
    EXPECT_STREQ(data, expected) << zone;
  }
}

// ---- collections and self-tests

struct Fault {
  const char *call;
  int error, times;
  Fates fates;  // of the connection, with as many such calls as it has c, then of the messages from that call on
  size_t count = SIZE_MAX;
};

// The fates of a run whose n-th such call fails.
Fates fatesOf(const Fates &fates, size_t n) {
  const size_t connecting = fates.find_first_not_of('c');
  return n <= connecting ? "c" : Fates(n - connecting - 1, '.') + fates.substr(connecting);
}

class FailingRuns : public Runs {
 protected:
  // False when there was no call number `n`.
  bool failsAndRecovers(int32_t type, const Fault &fault, int n, int32_t limitMs) {
    fault_ = &fault;
    n_ = n;
    CollectClient_SetTimeout(limitMs, limitMs, limitMs);
    takeLongestWait();
    meet(type, {}, fatesOf(fault.fates, static_cast<size_t>(n)));
    EXPECT_LE(takeLongestWait(), limitMs > 0 ? limitMs : INT_MAX);
    CollectClient_SetTimeout(0, 0, 0);
    recover(type);
    return isMet_;
  }

 private:
  int32_t start(int32_t type, int32_t port) override {
    const Fault *fault = std::exchange(fault_, nullptr);
    if (!fault) return Runs::start(type, port);
    Plan plan(fault->call, fault->error, n_, fault->times, fault->count);
    const int32_t result = Runs::start(type, port);
    isMet_ = plan.wasMet();
    return result;
  }

  const Fault *fault_ = nullptr;
  int n_ = 0;
  bool isMet_ = false;
};

TEST_F(FailingRuns, GoOnOrEndAsStatedWhateverCallFails) {
  const Fault faults[] = {
      {"socket", EMFILE, 1, "c."},      {"connect", ECONNREFUSED, 1, "c."},
      {"connect", EINTR, 1, "."},       {"getsockopt", ENOBUFS, 1, "c."},
      {"getsockname", ENOBUFS, 1, "."}, {"getpeername", ENOTCONN, 1, "."},
      {"poll", ENOMEM, 1, "crs"},       {"poll", EINTR, 3, "."},
      {"send", ENOBUFS, 1, "s."},       {"send", ECONNRESET, kOn, "s"},
      {"send", EINTR, 3, "."},          {"send", EAGAIN, 3, "."},
      {"send", 0, kOn, ".", 1},      // a byte at a time
      {"send", ENOBUFS, 2, "s", 1},  // nothing may follow a message cut short
      {"recv", ENOMEM, 1, "r."},        {"recv", ECONNRESET, kOn, "r"},
      {"recv", EINTR, 3, "."},          {"recv", EAGAIN, 3, "."},
  };
  for (const int32_t limitMs : {0, 60000}) {
    for (const Fault &fault : faults) {
      for (const int32_t type : {2, host::kSelfTest}) {
        int n = 1;
        while (failsAndRecovers(type, fault, n, limitMs) && !HasFailure()) ++n;
        EXPECT_GT(n, 1) << "not called";
        ASSERT_FALSE(HasFailure()) << fault.call << " " << n << ": " << std::strerror(fault.error) << ", limit "
                                   << limitMs << ", type " << type;
      }
    }
  }
}

TEST_F(FailingRuns, EndWithTheirLimitsThoughASocketSeemsReadyOnAndOn) {
  for (const Fault &fault : {Fault{"send", EAGAIN, kOn, "s"}, Fault{"recv", EAGAIN, kOn, "rs"}}) {
    failsAndRecovers(0, fault, 1, 20);
  }
}

// ---- the service

TEST(Service, PausesWhileItsSocketFailsAndThenServes) {
  platform::takeDelays();  // of the logs that were shown before
  StdoutCapture output;
  {
    host::Service service([] {
      const Plan plan("poll", ENOMEM, 1, 10);  // of the socket, and of the pause
      return Collect_Init(0);
    });
    Server server;
    service.ask(wire::request(16, 0, 5, server.port()));
    EXPECT_EQ(wire::wordAt(server.messages().at(0), 8), 5);
    EXPECT_EQ(platform::takeDelays(), std::vector<uint32_t>(5, 1000));
    EXPECT_EQ(service.stop(), 0);
  }
  host::Service service([] {
    const Plan plan("recvfrom", ENOMEM, 1, kOn);
    return Collect_Init(0);
  });
  service.ask("");
  service.awaitSleep();
  EXPECT_EQ(service.stop(), 0);  // which ends the pause
  EXPECT_TRUE(platform::takeDelays().empty());
  EXPECT_EQ(output.take(), "size=16\n");
}

// The numbers of the service's descriptors are other files' as soon as it has ended.
TEST(Service, IsStoppedByNothingThatHitsAnotherFile) {
  Collect_SetAddress(host::Service::address().c_str(), 0);
  std::atomic<bool> isDone{false};
  std::thread others([&] {
    Plan late("shutdown", EINTR, 1, kOn);
    for (; !isDone; usleep(100)) Collect_Stop();  // mostly while it waits
    late.wasMet();                                // on a slow machine each stop may come before the service
  });
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(Collect_Init(0), 0);
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    usleep(3000);  // longer than a call is late
    for (const int fd : pair) EXPECT_EQ(send(fd, "x", 1, MSG_NOSIGNAL), 1);
    for (const int fd : pair) close(fd);
  }
  isDone = true;
  others.join();
  Collect_Stop(), Collect_Init(0);  // one may have come behind the last service
}

// ---- the configuration query

struct Query {
  const char *call;
  int error;
  int32_t whenFirst, whenLater;  // 9 is the server's answer, 7 the caller's default
};
Query query;
bool isFirst;

void askWithAFailure() {
  std::thread([server = openBound("0.0.0.0", 8999)] {
    for (;;) {
      sockaddr_in sender{};
      socklen_t size = sizeof sender;
      recvfrom(server, data, sizeof data, 0, reinterpret_cast<sockaddr *>(&sender), &size);
      sendto(server, "9", 1, 0, reinterpret_cast<const sockaddr *>(&sender), size);
    }
  }).detach();
  const auto result = [] { return ZuConfig_GetInt("net", "mtu", 7); };
  EXPECT_EQ(isFirst ? 9 : result(), 9);
  {
    const Plan plan(query.call, query.error);
    EXPECT_EQ(result(), isFirst ? query.whenFirst : query.whenLater);
  }
  EXPECT_EQ(result(), isFirst ? query.whenFirst : 9);  // a failure of the first is for good
}

TEST(Queries, GiveTheDefaultAndAskAgainOnceAServerIsKnown) {
  const Query queries[] = {
      {"socket", EMFILE, 7, 0},      {"bind", EADDRINUSE, 7, 0}, {"setsockopt", ENOMEM, 7, 9},
      {"sendto", ENETUNREACH, 7, 7}, {"sendto", EINTR, 9, 9},    {"poll", ENOMEM, 7, 7},
      {"poll", EINTR, 9, 9},         {"recvfrom", ENOMEM, 7, 7}, {"recvfrom", EINTR, 9, 9},
  };
  for (const Query &each : queries) {
    SCOPED_TRACE(std::string(each.call) + ": " + std::strerror(each.error));
    query = each;
    isFirst = true;
    inOwnNetwork(askWithAFailure);
    isFirst = false;
    if (query.whenLater != 0) inOwnNetwork(askWithAFailure);  // 0: no such call later
  }
}

// ---- the file of the faults

const std::string kFile = "system_calls_test.log", kBeside = kFile + ".new";
const std::string kValueHead("\0\15\4\0net", 7);  // then id and value

void (*callback)() = [] {};

// The one whose logs take several writes.
ZuFault *fault() {
  static ZuFault *fault;
  static ZuList *ofOtherTests;
  if (fault) return fault;
  ofOtherTests = std::exchange(g_ZuFault_List, ofOtherTests);
  fault = ZuFault_Regist("net", [] { callback(); });
  for (const size_t size : {5U, 2000U, 900U, 900U, 2000U, 10U}) {
    ZuFault_SetInitLog(fault, 1, 0, "up"), ZuFault_SetRunLog(fault, 1, 0, std::string(size, 'x').c_str());
  }
  return fault;
}

// Runs a collection with one value more, or none, and returns its file.
std::string collect(uint32_t value) {
  if (value > 0) ZuFault_SetRegist(fault(), value, 0);
  ZuFault_Start();
  return contentOf(kFile);
}

// Runs a collection whose n-th call fails, or is the last of a process of its own. True if there was such a call.
bool failsAt(int n, int error) {
  const pid_t child = error == Plan::kAct ? fork() : 0;
  int status = 0;
  if (child > 0) return waitpid(child, &status, 0) == child && WIFSIGNALED(status);
  Plan::action = [] { raise(SIGKILL); };
  Plan plan("*", error, n);
  ZuFault_Start();
  if (error == Plan::kAct) _exit(0);
  return plan.wasMet();
}

TEST(FaultFile, HasWhatCouldBeWrittenOrWhenSafeAlwaysAll) {
  const auto value = [](char number) { return kValueHead + std::string("\0\0\0", 3) + number + std::string(4, '\0'); };
  fault(), ZuFault_SetFile(kFile.c_str(), 0);
  const std::string logs = collect(0);
  const struct {
    bool isSafe, isLinked;      // what was left beside
    std::string failed, ended;  // the files behind runs whose first, second, .. call failed or was the last, up to
                                // none: the old one, part of the new one, the new one, or that and success
  } cases[] = {{false, false, "osppppppns", "opppppppnn"},
               {true, false, "oooooooooonnss", "oooooooooonnnn"},
               {true, true, "oooooooooooonnss", "oooooooooooonnnn"}};
  const int descriptors = openDescriptors();
  for (const auto &c : cases) {
    for (const int error : {Plan::kAct, ENOSPC, EIO, EROFS, EFBIG, EMFILE}) {
      std::string files;
      for (bool isMet = true; isMet;) {
        const int n = static_cast<int>(files.size()) + 1;
        SCOPED_TRACE(std::to_string(n) + ": " + std::strerror(error) + (c.isSafe ? ", safe" : ""));
        ZuFault_SetFile(kFile.c_str(), c.isSafe);
        ASSERT_EQ(collect(1), logs + value(1));
        ASSERT_TRUE(!c.isLinked || symlink("nowhere", kBeside.c_str()) == 0);
        ZuFault_SetRegist(fault(), 2, 0);
        isMet = failsAt(n, error);
        const std::string file = contentOf(kFile), whole = logs + value(2);
        const bool isOld = file == logs + value(1), isKilled = error == Plan::kAct;
        const bool succeeds = !isKilled && ZuFault_GetResult() == 1;
        EXPECT_TRUE(isOld || file == whole.substr(0, file.size()));
        EXPECT_TRUE(isKilled || succeeds || ZuFault_GetResult() == -error);
        files += isOld ? 'o' : file != whole ? 'p' : succeeds ? 's' : 'n';
        ZuFault_SetFile(kFile.c_str(), c.isSafe);
        const bool isKept = isKilled || (c.isSafe ? !succeeds : isOld);
        EXPECT_EQ(collect(3), logs + (isKept ? value(2) : "") + value(3));
      }
      EXPECT_EQ(files, error == Plan::kAct ? c.ended : c.failed);
    }
    const Plan opening("open", EINTR, 1, 3), parts("write", 0, 1, kOn, 7), signals("write", EINTR, 3, 9);
    Plan syncing("fsync", EINTR, 1, 2), noFolder("fsync", EINVAL, 4);
    EXPECT_EQ(collect(2), logs + value(2));
    EXPECT_EQ(ZuFault_GetResult(), 1);
    EXPECT_EQ(syncing.wasMet() + noFolder.wasMet(), c.isSafe ? 2 : 0);
  }
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_EQ(contentOf("nowhere"), "none");
  std::remove(kFile.c_str());
}

// A host may run with its standard descriptors closed, and what its threads print must not get into the file.
TEST(FaultFile, KeepsOffTheStandardDescriptors) {
  fault(), ZuFault_SetFile(kFile.c_str(), 0);
  const int savedStdin = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  Plan::action = [] { EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1); };
  Plan writing("write", Plan::kAct);
  collect(0);
  EXPECT_TRUE(writing.wasMet());
  dup2(savedStdin, STDIN_FILENO), close(savedStdin), std::remove(kFile.c_str());
}

uint32_t recorded;
std::set<uint32_t> evicted;
int64_t latest = -1;
int runs;

// On another thread, during a run: there is no waiting for its lock, and no second run.
void record() {
  static int calls;
  for (int count = calls++ % 12 == runs % 12 ? 150 : 5; count > 0; --count) {
    const Locked locked;
    if (!g_ZuFault_Info) g_ZuFault_Info = ZuInfo_New(4096);  // small, and at times full
    uint32_t oldest = recorded - numberOfNext(g_ZuFault_Info) + numberOfOldest(g_ZuFault_Info);
    ZuFault_SetRegist(fault(), recorded++, 0);
    const uint32_t left = recorded - numberOfNext(g_ZuFault_Info) + numberOfOldest(g_ZuFault_Info);
    while (oldest < left) evicted.insert(oldest++);
  }
  ZuFault_Start();
}

TEST(FaultFile, HasEveryValueOnceThatIsNotEvicted) {
  if (!platform::isLocking()) GTEST_SKIP() << "nobody records meanwhile without a lock";
  fault(), callback = [] { ++runs, ZuFault_SetFile("system_calls_test.late", 0); };
  Plan::action = [] { std::thread(record).join(); };
  for (int run = 0; run < 90; ++run) {
    ZuFault_SetFile(kFile.c_str(), run % 5), std::remove(kFile.c_str());
    std::optional<Plan> recording, failing;
    if (run < 89) recording.emplace("*", Plan::kAct, 1, kOn);
    if (run % 5 == 2) failing.emplace("rename", EIO);
    const std::string file = collect(0);
    EXPECT_EQ(runs, run + 1);
    EXPECT_EQ(file == "none", failing.has_value());
    for (size_t i = file.find(kValueHead); i < file.size(); i += kValueHead.size() + 8) {
      const int64_t number = wire::wordAt(file, i + kValueHead.size());
      EXPECT_GT(number, latest);
      while (++latest < number) ASSERT_EQ(evicted.count(static_cast<uint32_t>(latest)), 1U) << latest;
    }
  }
  EXPECT_EQ(latest + 1, recorded);
  EXPECT_FALSE(evicted.empty());
  EXPECT_EQ(g_ZuFault_Info, nullptr);
  std::remove(kFile.c_str());
  callback = [] {};
}

}  // namespace
