// The wire end of a run: what goes out byte for byte, when, and what remains of a run that fails.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kep/CollectClient.h>
#include <kep/ZuMem.h>
#include <sys/socket.h>
#include <unistd.h>

#include "collection/server.hpp"
#include "support/platform_double.hpp"

namespace {

void start(const Server &server) {
  ASSERT_EQ(CollectClient_Start("127.0.0.1", server.port() | 0x70000), 1);  // the port's low 16 bits count
}

const std::string value(2000, 'v');

int32_t putInt(int32_t) { return CollectClient_CollectInt(1, 2, 3, 4), 0; }
int32_t putLong(int32_t) { return CollectClient_CollectLong(1, 2, 3, 4), 0; }
int32_t putString(int32_t length) { return CollectClient_CollectString(1, 2, 3, value.data(), length); }
int32_t putBuffer(int32_t length) { return CollectClient_CollectBuffer(1, 2, 3, value.data(), length); }
int32_t appendInt(int32_t) { return CollectClient_AppendInt(1); }
int32_t appendString(int32_t) { return CollectClient_AppendString("ab"), 0; }
int32_t appendBuffer(int32_t length) { return CollectClient_AppendBuffer(value.data(), length), 0; }

TEST(Client, LaysOutEveryRecordAsTheWireWantsIt) {
  Server server;
  start(server);
  CollectClient_SetType(2);
  EXPECT_EQ(CollectClient_AppendInt(0x01020304), 4);
  CollectClient_AppendString("ab");
  CollectClient_AppendBuffer("\x00\xFF", 2);
  CollectClient_CollectInt(1, 2, 3, -4);
  CollectClient_CollectLong(0xFFFF, -1, 7, INT64_C(-0x0102030405060708));
  EXPECT_EQ(CollectClient_CollectString(1, 0, 5, "text", 3), 3);
  EXPECT_EQ(CollectClient_CollectString(1, 0, 5, "text", 0), 4);  // 0 measures
  EXPECT_EQ(CollectClient_CollectString(1, 0, 5, "", 0), 0);
  EXPECT_EQ(CollectClient_CollectBuffer(1, 0, 6, "\x00\x80", 2), 2);
  EXPECT_EQ(CollectClient_Flush(-5), 1);
  EXPECT_EQ(putBuffer(1009), 1009);  // fills a message and is whole
  CollectClient_End();
  EXPECT_EQ(server.messages().at(0), wire::bytes("00000081 00000002 FFFFFFFB"
                                                 "01020304 0002 6162 00FF"
                                                 "81 00000001 00000002 00000003 FFFFFFFC"
                                                 "82 0000FFFF FFFFFFFF 00000007 FEFDFCFBFAF9F8F8"
                                                 "83 00000001 00000000 00000005 0003 746578"
                                                 "83 00000001 00000000 00000005 0004 74657874"
                                                 "83 00000001 00000000 00000005 0000"
                                                 "84 00000001 00000000 00000006 0002 0080"));
  EXPECT_EQ(server.messages().at(1).substr(12, 15), wire::bytes("84 00000001 00000002 00000003 03F1"));
}

TEST(Client, FillsMessagesToTheLastByte) {
  const struct {
    int32_t free;  // bytes of a message where something is put
    int32_t (*put)(int32_t length);
    int32_t length, result;
    std::vector<size_t> payloads;
  } cases[] = {
      {17, putInt, 0, 0, {1024}},
      {16, putInt, 0, 0, {1008, 17}},
      {21, putLong, 0, 0, {1024}},
      {20, putLong, 0, 0, {1004, 21}},
      {25, putString, 10, 10, {1024}},
      {25, putString, 11, 10, {1024}},
      {24, putString, 10, 10, {1000, 25}},
      {25, putBuffer, 1, 1, {1015}},
      {24, putBuffer, 1, 1, {1000, 16}},  // though it would fit
      {24, putBuffer, 1010, 1009, {1000, 1024}},
      // What does not fit is left out whole:
      {4, appendInt, 0, 1024, {1024}},
      {3, appendInt, 0, 1021, {1021}},
      {4, appendString, 0, 0, {1024}},
      {3, appendString, 0, 0, {1021}},
      {1, appendString, 0, 0, {1023}},
      {3, appendBuffer, 3, 0, {1024}},
      {2, appendBuffer, 3, 0, {1022}},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(&c - cases);
    Server server;
    start(server);
    appendBuffer(1024 - c.free);
    EXPECT_EQ(c.put(c.length), c.result);
    CollectClient_End();
    EXPECT_EQ(server.payloadSizes(), c.payloads);
  }
}

TEST(Client, LeavesNothingOfAFailedRunToTheNext) {
  closedPort();
  StdoutCapture output;
  const int descriptors = openDescriptors();
  for (int i = 0; i < 2; ++i) {
    const Server breaking({1});
    start(breaking);
    CollectClient_SetType(2);
    EXPECT_EQ(CollectClient_AppendInt(1), 4);
    EXPECT_EQ(CollectClient_Flush(0), 0);
    EXPECT_EQ(CollectClient_AppendInt(1), 4);  // what did not go through is dropped
    EXPECT_EQ(CollectClient_Flush(0), 0);      // into a connection that is gone: an error here, no signal
  }
  EXPECT_EQ(openDescriptors(), descriptors + 1);
  ZuMem_Show();
  EXPECT_NE(platform::takePrinted().find("  100  0x00000410 "), std::string::npos);  // the send buffer
  for (const char *address : {"127.0.0.1", "nowhere", static_cast<const char *>(nullptr)}) {
    EXPECT_EQ(CollectClient_Start(address, closedPort()), 0);
  }
  EXPECT_EQ(openDescriptors(), descriptors);

  Server next;
  start(next);
  EXPECT_EQ(CollectClient_Flush(0), 1);
  CollectClient_SetType(-2);
  CollectClient_End();
  EXPECT_EQ(wire::wordAt(next.messages().at(0), 4), 0);
  EXPECT_EQ(wire::wordAt(next.messages().at(1), 4), -2);
  const std::string failure = "recv error.\nsend error.\n", refusal = "connect error.\n";
  EXPECT_EQ(output.take(), failure + failure + refusal + refusal + refusal);
}

// A host that runs without standard input gets 0 for a socket. The server here has no thread, as a new thread may open
// files of its own.
TEST(Client, TakesDescriptor0ForItsOwnOnlyWhileItIs) {
  closedPort();
  int32_t port;
  const int listener = openSocket(SOCK_STREAM, "127.0.0.1", &port), savedStdin = dup(STDIN_FILENO);
  listen(listener, 1);
  close(STDIN_FILENO);
  const auto isOpen = [](int fd) { return fcntl(fd, F_GETFD) >= 0; };
  const auto startOn0 = [&] {
    EXPECT_EQ(CollectClient_Start("127.0.0.1", port), 1);
    EXPECT_TRUE(isOpen(0));
    return accept(listener, nullptr, nullptr);
  };
  int peer = startOn0();
  EXPECT_EQ(send(peer, "ack", 3, 0), 3);
  CollectClient_End();
  EXPECT_FALSE(isOpen(0));
  char message[16];
  EXPECT_EQ(recv(peer, message, sizeof message, 0), 12);
  close(peer);

  peer = startOn0();
  const linger atOnce = {1, 0};
  setsockopt(peer, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  close(peer);
  EXPECT_EQ(CollectClient_Flush(0), 0);
  EXPECT_EQ(CollectClient_Start("127.0.0.1", closedPort()), 0);  // leaves a send buffer, and no connection
  int pair[2];                                                   // the host's own, the first of them 0
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  ASSERT_EQ(pair[0], 0);
  shutdown(pair[1], SHUT_WR);
  EXPECT_EQ(CollectClient_Flush(0), 0);
  CollectClient_End();
  EXPECT_EQ(recv(pair[1], message, 1, MSG_DONTWAIT), -1);
  EXPECT_TRUE(isOpen(0));
  dup2(savedStdin, STDIN_FILENO);
  for (const int fd : {pair[1], savedStdin, listener}) close(fd);
}

}  // namespace
