// The end of the service: wherever it waits, and whoever asks for it.
#include <csignal>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "collection/host.hpp"
#include "support/platform_double.hpp"

namespace {

uint32_t failedRuns() {
  CollectStats stats;
  Collect_GetStats(&stats);
  return stats.failedRuns;
}

// One good run.
void expectService(host::Service &service) {
  Server server;
  service.ask(wire::request(16, 1, 9, server.port()));
  EXPECT_EQ(server.messages().size(), host::Run(1, 0, 0).size());
}

class Stop : public testing::Test {
 protected:
  Stop() {
    host::registerItems();
    std::signal(SIGUSR1, [](int) { Collect_Stop(); });
    host::Service service;
    expectService(service);  // makes the log, and its store
    EXPECT_EQ(service.stop(), 0);
    logger_ = g_collect_param.logger;
  }
  ~Stop() override {
    CollectClient_SetTimeout(0, 0, 0);
    EXPECT_EQ(g_collect_param.logger, logger_) << "the service goes on with it";
    host::releaseItems();
  }

 private:
  ZuLogger *logger_;
};

constexpr size_t kFlood = 400000;  // more than a socket holds

struct Wait {
  const char *name;
  Manner manner;
  int32_t type = 2;  // -1: no request
};

TEST_F(Stop, EndsEveryWait) {
  const Wait waits[] = {
      {"for a request", {0, Manner::kRefuses}, -1},
      {"to connect", {0, Manner::kNeverAccepts}},
      {"to send", {1, Manner::kStopsReading, kFlood / 32}},
      {"for the first acknowledgement", {1, Manner::kFallsSilent}, host::kSelfTest},
      {"for the second", {2, Manner::kFallsSilent}},
      {"for one within a callback", {3, Manner::kFallsSilent}},
      {"for the last", {7, Manner::kFallsSilent}},
  };
  for (const Wait &wait : waits) {
    for (const int32_t limitMs : {0, 600000}) {
      for (const bool bySignal : {false, true}) {
        SCOPED_TRACE(testing::Message() << wait.name << ", limit " << limitMs << (bySignal ? ", by signal" : ""));
        CollectClient_SetTimeout(limitMs, limitMs, limitMs);
        CollectClient_SetTrace(bySignal);
        host::setContent(0, wait.manner.ending == Manner::kStopsReading ? kFlood : 0);
        Server server(wait.manner);
        const int descriptors = openDescriptors(), inherited = inheritedDescriptors(), blocks = platform::liveBlocks();
        const uint32_t failed = failedRuns();
        StdoutCapture output;
        const int captured = inheritedDescriptors() - inherited;
        host::Service service;
        if (wait.type >= 0) service.ask(wire::request(16, wait.type, 9, server.port()));
        server.awaitMessages(wait.manner.endsAt);
        service.awaitSleep();
        EXPECT_EQ(inheritedDescriptors() - captured, inherited);
        bySignal ? service.interrupt(SIGUSR1) : Collect_Stop();
        EXPECT_EQ(service.join(), 0);
        if (wait.manner.endsAt > 0) {
          EXPECT_EQ(server.messages().size(), wait.manner.endsAt);
        }
        EXPECT_EQ(failedRuns() - failed, wait.type >= 0);
        const std::string text = output.take();
        EXPECT_EQ(text.find("size=16") != std::string::npos, bySignal && wait.type >= 0);
        EXPECT_TRUE(bySignal || text.find("error.") == std::string::npos);
        EXPECT_EQ(openDescriptors(), descriptors);
        EXPECT_EQ(platform::liveBlocks(), blocks);
        ASSERT_FALSE(HasFailure());
      }
    }
  }
}

CollectItem *stopping;
int callbacks;

int32_t stopAndReport(int32_t) {
  ++callbacks;
  std::thread(Collect_Stop).join();
  Collect_PutString(stopping, 1, std::string(5000, 'x').c_str(), 0);
  return 0;
}

TEST_F(Stop, WaitsForACallbackAndSendsNothingMore) {
  host::releaseItems();
  stopping = Collect_New("stops", stopAndReport, stopAndReport);
  Collect_New("is not called", stopAndReport, stopAndReport);
  for (const int32_t type : {0, host::kSelfTest}) {
    Server server;
    host::Service service;
    service.ask(wire::request(16, type, 9, server.port()));
    EXPECT_EQ(service.join(), 0);
    EXPECT_EQ(server.messages().size(), type == 0 ? 2U : 1U);
  }
  EXPECT_EQ(callbacks, 2);
}

TEST_F(Stop, CountsForTheNextServiceAlone) {
  for (const int times : {1, 2}) {
    for (int i = 0; i < times; ++i) Collect_Stop();
    Server server;
    EXPECT_EQ(host::start(0, server.port(), 1), 1) << "a run of the host's own";
    EXPECT_EQ(Collect_Init(0), 0);
    host::Service service;
    EXPECT_EQ(Collect_Init(0), -1) << "beside another";
    if (fork() == 0) Collect_Stop(), _exit(0);  // the child's alone
    wait(nullptr);
    expectService(service);
  }
}

}  // namespace
