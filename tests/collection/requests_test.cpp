// Requests to the service: which datagrams are taken, what is read from them, and that they are answered for ever.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "collection/host.hpp"
#include "collection/request_model.hpp"
#include "support/platform_double.hpp"

namespace {

// ---- single datagrams

constexpr int64_t kTop = INT64_C(0x80000000);
constexpr size_t kLongest = 2000;
constexpr int64_t kTypes[] = {0, 1, 2, 3, 4, 0x01000000, kTop, -1};
constexpr int64_t kEdges[] = {0, 1, -1, 80, 0x7FFF, 0x8000, 0xFFFF, 0x10000, 0x12345, kTop - 1, kTop};

TEST(Requests, AreTakenOnlyWithTheirTrueLengthAKnownTypeAndAHostsAddress) {
  int32_t port;
  const int board = openSocket(SOCK_DGRAM, "127.0.0.1", &port);
  std::string sizes;
  StdoutCapture output;
  const auto check = [&](size_t size, int64_t length, int64_t type, int64_t sequence, int64_t serverPort) {
    const std::string whole = wire::request(length, type, sequence, serverPort) + std::string(kLongest, '\1');
    const std::string datagram = whole.substr(0, size);
    ask(datagram, port, "127.0.0.3");
    ASSERT_EQ(requests::received(board), requests::expected(datagram, forgedSender ? forgedSender : "127.0.0.3"))
        << size << ", said to be " << length << ", type " << type;
    sizes += "size=" + std::to_string(size) + "\n";
  };
  for (size_t size = 0; size <= kLongest && !HasFailure(); ++size) {
    const auto whole = static_cast<int64_t>(size);
    const size_t edges = size <= 20 ? std::size(kEdges) : 1;  // of what can be taken, and a little beyond
    for (const int64_t length : {whole, whole - 1, whole + 1, whole << 24, whole | 1 << 16, -whole, INT64_C(16)}) {
      for (const int64_t type : kTypes) {
        for (size_t i = 0; i < edges; ++i) check(size, length, type, kEdges[std::size(kEdges) - 1 - i], kEdges[i]);
      }
    }
  }
  for (const char *sender : {"0.0.0.0", "0.255.255.255", "1.0.0.0", "127.0.0.1", "223.255.255.255", "224.0.0.0",
                             "239.255.255.255", "240.0.0.0", "255.255.255.254", "255.255.255.255"}) {
    forgedSender = sender;
    check(16, 16, 2, 7, 8);
  }
  forgedSender = nullptr;
  EXPECT_TRUE(output.take() == sizes);  // too long to print
  EXPECT_EQ(CollectClient_WaitFor(-1, 0, 0, nullptr, nullptr, nullptr), -1);
  EXPECT_TRUE(platform::takeDelays().empty());
  close(board);
}

// ---- the service

constexpr int32_t kUnknownPort = 7;
CollectStats statsAtRequest;  // as the serving thread has them when it decides on one
std::string typesAsked;

int32_t isKnown(const char *address, int32_t port, int32_t type) {
  Collect_GetStats(&statsAtRequest);
  typesAsked += std::to_string(type);
  return port != kUnknownPort || address != std::string("127.0.0.1");
}

// Compares what a server got with a run, whose automatic numbers begin with that of its second message.
void expectRun(Server &server, int32_t type, int32_t sequence) {
  const std::vector<std::string> messages = host::withoutTimes(server.messages());
  ASSERT_GT(messages.size(), 1U);
  EXPECT_EQ(messages, host::Run(type, sequence, wire::wordAt(messages[1], 8) - 1).stream.messages()) << type;
}

// Here without memory for its log, and without the log that was there before.
TEST(Service, AnswersOneRequestAfterAnotherWhateverComesBetween) {
  host::registerItems();
  Collect_SetAccess(isKnown);
  ZuLogger *earlier = g_collect_param.logger = ZuLogger_New(0);
  const int blocks = platform::liveBlocks();
  StdoutCapture output;
  platform::failAllocation(0);
  host::Service service;
  Server servers[4], breaking({2}), last({}, "127.0.0.2");
  for (int32_t type = 0; type < 4; ++type) service.ask(wire::request(16, type, 100 + type, servers[type].port()));
  for (int32_t type = 0; type < 4; ++type) expectRun(servers[type], type, 100 + type);
  EXPECT_EQ(servers[0].client(), service.address());
  service.ask("");                                     // type 0 for port 0
  service.ask(wire::request(17, 0, 1, last.port()));   // dropped
  service.ask(wire::request(16, 0, -1, last.port()));  // -1 stands for a bad request
  service.ask(wire::request(16, 2, 1, 0x10000 | kUnknownPort));
  service.ask(wire::request(16, 0, 1, breaking.port()));
  service.ask(wire::request(16, 3, 1, closedPort()));
  service.ask(wire::request(16, 1, -7, last.port()), "127.0.0.2");  // the answer goes where the request came from
  expectRun(last, 1, -7);
  EXPECT_EQ(service.stop(), 0);
  EXPECT_EQ(output.take(),
            "size=16\nsize=16\nsize=16\nsize=16\nsize=0\nconnect error.\nsize=16\nsize=16\nsize=16\n"
            "size=16\nrecv error.\nsize=16\nconnect error.\nsize=16\n");
  EXPECT_EQ(g_collect_param.logger, nullptr);
  EXPECT_EQ(platform::liveBlocks(), blocks);
  ZuLogger_Release(earlier);  // kept: a host may be showing it
  EXPECT_EQ(typesAsked, "012302031");
  EXPECT_EQ(statsAtRequest.refused, 1U);
  EXPECT_EQ(statsAtRequest.finishedRuns, 4U);
  EXPECT_EQ(statsAtRequest.failedRuns, 3U);
}

}  // namespace
