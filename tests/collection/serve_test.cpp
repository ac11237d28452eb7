// The service as a collection server meets it: requests to port 9099, answered one after another for ever.
#include <gtest/gtest.h>
#include <kep/kep.h>

#include "collection/server.hpp"
#include "support/platform_double.hpp"

namespace {

CollectItem *item;

int32_t collect(int32_t type) {
  Collect_PutInt(item, 1, type);
  return 0;
}

int32_t selfTest(int32_t) {
  Collect_PutString(item, 2, "fine", 0);
  return 0;
}

constexpr int32_t kUnknownPort = 7;

CollectStats statsAtRequest;         // as the serving thread has them when it decides on one
std::atomic<int32_t> distrusted{0};  // the port of a server that is not waited for

int32_t isKnown(const char *addressText, int32_t port, int32_t) {
  ZuLogger_ClearInfo(g_collect_param.logger);  // a store that grows would say so amid the service's own texts
  Collect_GetStats(&statsAtRequest);
  CollectClient_SetTimeout(0, 0, port == distrusted ? 50 : 0);
  return port != kUnknownPort || addressText != std::string("127.0.0.1");
}

// Lets the service run from the first test on until the process ends. Its first allocation follows the bound port.
void serve() {
  static bool serves = false;
  if (std::exchange(serves, true)) return;
  item = Collect_New("item", collect, selfTest);
  Collect_SetAccess(isKnown);
  const int blocks = platform::liveBlocks();
  static std::atomic<bool> returned{false};
  std::thread([] {
    Collect_Init(0xABCD1234);
    returned = true;
  }).detach();
  while (platform::liveBlocks() == blocks && !returned) std::this_thread::yield();
  ASSERT_FALSE(returned) << "port 9099 is in use";
}

// The messages of a run, whose automatic numbers begin with that of its second message.
std::vector<std::string> expected(Server &server, int32_t type, int32_t sequence) {
  wire::Stream run(server.words(8).at(1) - 1);
  run.append(std::string("\xAB\xCD\0\0", 4));
  run.flush(sequence);
  if (type < 3) {
    run.setType(1);
    run.append(wire::word(0) + wire::counted("item"));
    run.flush();
    run.setType(2);
    run.putInt(0, 0, 1, type);
  } else {
    run.setType(2);
    run.putString(0xFFFF, 0, 0, "item");
    run.putString(0, 0, 2, "fine");
  }
  run.flush();
  run.flush();
  return run.messages();
}

TEST(Service, AnswersEveryKindOfRequestInTurn) {
  serve();
  Server servers[4];
  for (int32_t type = 0; type < 4; ++type) ask(wire::request(16, type, 100 + type, servers[type].port()), 9099);
  for (int32_t type = 0; type < 4; ++type) {
    EXPECT_EQ(servers[type].messages(), expected(servers[type], type, 100 + type)) << type;
  }
  Server elsewhere({}, "127.0.0.2");  // the answer goes where the request came from
  ask(wire::request(16, 1, -7, elsewhere.port()), 9099, "127.0.0.2");
  EXPECT_EQ(elsewhere.messages(), expected(elsewhere, 1, -7));
}

TEST(Service, PassesOverWhateverIsHostileAndCountsIt) {
  serve();
  Server first, breaking({2}), silent({1, Manner::kFallsSilent}), last;
  distrusted = silent.port();
  StdoutCapture output;
  ask(wire::request(16, 0, 1, first.port()), 9099);
  EXPECT_EQ(first.messages(), expected(first, 0, 1));
  const CollectStats before = statsAtRequest;
  ask("", 9099);  // type 0 for port 0
  ask(wire::request(17, 0, 1, last.port()), 9099);
  ask(wire::request(16, 4, 1, last.port()), 9099);
  ask(wire::request(16, 0, -1, last.port()), 9099);  // -1 stands for a bad request
  ask(wire::request(16, 0, 1, kUnknownPort), 9099);
  ask(wire::request(16, 0, 1, breaking.port()), 9099);
  ask(wire::request(16, 3, 1, silent.port()), 9099);
  ask(wire::request(16, 0, 1, closedPort()), 9099);
  ask(wire::request(16, 3, 5, last.port()), 9099);
  EXPECT_EQ(last.messages(), expected(last, 3, 5));
  EXPECT_EQ(output.take(),
            "size=16\nsize=0\nconnect error.\nsize=16\nsize=16\nsize=16\nsize=16\n"
            "size=16\nrecv error.\nsize=16\nrecv error.\nsend error.\nsize=16\nconnect error.\nsize=16\n");
  EXPECT_EQ(statsAtRequest.datagrams - before.datagrams, 9u);
  EXPECT_EQ(statsAtRequest.dropped - before.dropped, 2u);
  EXPECT_EQ(statsAtRequest.refused - before.refused, 1u);
  EXPECT_EQ(statsAtRequest.finishedRuns - before.finishedRuns, 1u);
  EXPECT_EQ(statsAtRequest.failedRuns - before.failedRuns, 4u);
  EXPECT_EQ(statsAtRequest.messages - before.messages, 4u + 1);
}

}  // namespace
