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

using Sizes = std::vector<size_t>;
using Words = std::vector<int32_t>;

class Client : public testing::Test {
 protected:
  ~Client() override { CollectClient_End(); }  // a test that failed may have left its run open

  // The port's low 16 bits count.
  static void start(const Server &server) { ASSERT_EQ(CollectClient_Start("127.0.0.1", server.port() | 0x70000), 1); }

  // What the messages of a run hold that puts something where `free` bytes are left.
  template <typename Function>
  static Sizes payloads(int32_t free, Function put) {
    Server server;
    start(server);
    CollectClient_AppendBuffer(std::string(1024, '.').data(), 1024 - free);
    put();
    CollectClient_End();
    return server.payloadSizes();
  }

  // The line of the memory report for the service's account.
  static std::string account() {
    platform::takePrinted();
    ZuMem_Show();
    const std::string report = platform::takePrinted();
    const size_t line = report.find("  100 ");
    return line == std::string::npos ? "" : report.substr(line, 17);
  }

  // A run whose first message meets a reset; its socket and its send buffer stay behind.
  static void failRun() {
    const Server server({1});
    start(server);
    CollectClient_SetType(2);
    EXPECT_EQ(CollectClient_Flush(0), 0);
  }
};

TEST_F(Client, LaysOutEveryRecordAsTheWireWantsIt) {
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
  EXPECT_EQ(CollectClient_Flush(0x01020304), 1);
  CollectClient_End();
  EXPECT_EQ(server.messages().at(0), wire::bytes("00000081 00000002 01020304"
                                                 "01020304 0002 6162 00FF"
                                                 "81 00000001 00000002 00000003 FFFFFFFC"
                                                 "82 0000FFFF FFFFFFFF 00000007 FEFDFCFBFAF9F8F8"
                                                 "83 00000001 00000000 00000005 0003 746578"
                                                 "83 00000001 00000000 00000005 0004 74657874"
                                                 "83 00000001 00000000 00000005 0000"
                                                 "84 00000001 00000000 00000006 0002 0080"));
}

TEST_F(Client, SendsFirstOnlyWhenTheRecordDoesNotFit) {
  const auto anInt = [] { CollectClient_CollectInt(1, 2, 3, 4); };
  const auto aLong = [] { CollectClient_CollectLong(1, 2, 3, 4); };
  const auto aString = [] { CollectClient_CollectString(1, 2, 3, "0123456789", 0); };
  const auto aBuffer = [] { CollectClient_CollectBuffer(1, 2, 3, "x", 1); };
  EXPECT_EQ(payloads(17, anInt), (Sizes{1024}));
  EXPECT_EQ(payloads(16, anInt), (Sizes{1008, 17}));
  EXPECT_EQ(payloads(21, aLong), (Sizes{1024}));
  EXPECT_EQ(payloads(20, aLong), (Sizes{1004, 21}));
  EXPECT_EQ(payloads(25, aString), (Sizes{1024}));
  EXPECT_EQ(payloads(24, aString), (Sizes{1000, 25}));
  EXPECT_EQ(payloads(25, aBuffer), (Sizes{1015}));
  EXPECT_EQ(payloads(24, aBuffer), (Sizes{1000, 16}));  // though it would fit
}

TEST_F(Client, PartsALongValueWhereTheMessageEnds) {
  const std::string value(2000, 'v');
  Server server;
  start(server);
  EXPECT_EQ(CollectClient_CollectString(1, 2, 3, value.data(), 2000), 1009);
  EXPECT_EQ(CollectClient_CollectString(1, 2, 3, value.data(), 900), 900);
  EXPECT_EQ(CollectClient_CollectBuffer(1, 2, 4, value.data(), 95), 94);
  EXPECT_EQ(CollectClient_CollectBuffer(1, 2, 4, value.data(), 1009), 1009);  // fills a message and is whole
  EXPECT_EQ(CollectClient_CollectString(1, 2, 5, value.data(), 1010), 1009);
  CollectClient_End();
  const auto bytes = [&](size_t count) { return wire::counted(value.substr(0, count)); };
  const std::vector<std::string> payloads = {
      wire::head(0x03, 1, 2, 3) + bytes(1009),
      wire::head(0x83, 1, 2, 3) + bytes(900) + wire::head(0x04, 1, 2, 4) + bytes(94),
      wire::head(0x84, 1, 2, 4) + bytes(1009),
      wire::head(0x03, 1, 2, 5) + bytes(1009),
  };
  std::vector<std::string> sent;
  for (const std::string &message : server.messages()) sent.push_back(message.substr(12));
  EXPECT_EQ(sent, payloads);
}

TEST_F(Client, NumbersMessagesAcrossRunsUnlessTold) {
  const int32_t last = lastSequence();
  const auto sequences = [](std::initializer_list<int32_t> asked) {
    Server server;
    start(server);
    for (const int32_t sequence : asked) EXPECT_EQ(CollectClient_Flush(sequence), 1);
    CollectClient_End();
    EXPECT_FALSE(server.wasHurried());
    return server.words(8);
  };
  EXPECT_EQ(sequences({77, 0, 0, -5}), (Words{77, last + 1, last + 2, -5, last + 3}));
  EXPECT_EQ(sequences({0}), (Words{last + 4, last + 5}));
}

TEST_F(Client, BeginsEveryRunWithType0) {
  failRun();  // its buffer, with type 2 in it, is used again
  Server server;
  start(server);
  CollectClient_Flush(0);
  CollectClient_SetType(-2);
  CollectClient_Flush(0);
  CollectClient_End();
  EXPECT_EQ(server.words(4), (Words{0, -2, -2}));
}

TEST_F(Client, LeavesOutWholeWhatDoesNotFitAMessage) {
  const auto anInt = [] { CollectClient_AppendInt(1); };
  const auto aString = [] { CollectClient_AppendString("ab"); };
  const auto aBuffer = [] { CollectClient_AppendBuffer("abc", 3); };
  EXPECT_EQ(payloads(4, anInt), Sizes{1024});
  EXPECT_EQ(payloads(3, anInt), Sizes{1021});
  EXPECT_EQ(payloads(4, aString), Sizes{1024});
  EXPECT_EQ(payloads(3, aString), Sizes{1021});
  EXPECT_EQ(payloads(1, aString), Sizes{1023});
  EXPECT_EQ(payloads(3, aBuffer), Sizes{1024});
  EXPECT_EQ(payloads(2, aBuffer), Sizes{1022});
}

TEST_F(Client, DoesNothingOutsideARunNorForNothing) {
  const auto callEverything = [](const char *text) {
    CollectClient_AppendString(text);
    CollectClient_AppendBuffer(text, 1);
    EXPECT_EQ(CollectClient_CollectString(1, 2, 3, text, 1), 0);
    EXPECT_EQ(CollectClient_CollectBuffer(1, 2, 3, text, 1), 0);
  };
  StdoutCapture output;
  callEverything("x");
  CollectClient_SetType(1);
  EXPECT_EQ(CollectClient_AppendInt(1), 0);
  CollectClient_CollectInt(1, 2, 3, 4);
  CollectClient_CollectLong(1, 2, 3, 4);
  EXPECT_EQ(CollectClient_Flush(1), 0);
  CollectClient_End();
  EXPECT_EQ(output.take(), "");

  Server server;
  start(server);
  callEverything(nullptr);
  CollectClient_AppendBuffer("x", -1);
  EXPECT_EQ(CollectClient_CollectString(1, 2, 3, "x", -1), 0);
  EXPECT_EQ(CollectClient_CollectBuffer(1, 2, 3, "x", -1), 0);
  EXPECT_EQ(CollectClient_CollectBuffer(1, 2, 3, "x", 0), 0);
  CollectClient_End();
  EXPECT_EQ(server.payloadSizes(), Sizes{0});
}

TEST_F(Client, GivesItsSocketBackWhenItCannotStart) {
  closedPort();
  const int before = openDescriptors();
  StdoutCapture output;
  EXPECT_EQ(CollectClient_Start("127.0.0.1", closedPort()), 0);
  EXPECT_EQ(CollectClient_Start("nowhere", 80), 0);
  EXPECT_EQ(CollectClient_Start(nullptr, 80), 0);
  EXPECT_EQ(output.take(), "connect error.\nconnect error.\nconnect error.\n");
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(Client, DropsTheMessageThatDoesNotGoThrough) {
  Server server({1});
  start(server);
  StdoutCapture output;
  EXPECT_EQ(CollectClient_AppendInt(1), 4);
  EXPECT_EQ(CollectClient_Flush(0), 0);
  EXPECT_EQ(CollectClient_AppendInt(1), 4);
  EXPECT_EQ(CollectClient_Flush(0), 0);  // into a connection that is gone: an error here, no signal
  EXPECT_EQ(CollectClient_AppendInt(1), 4);
  CollectClient_End();
  EXPECT_EQ(output.take(), "recv error.\nsend error.\nsend error.\n");
  EXPECT_EQ(server.payloadSizes(), Sizes{4});
}

TEST_F(Client, ClosesWhatAFailedRunLeftOpen) {
  closedPort();
  const int before = openDescriptors();
  failRun();
  failRun();
  EXPECT_EQ(openDescriptors(), before + 1);
  EXPECT_EQ(account(), "  100  0x00000410");  // the send buffer
  EXPECT_EQ(CollectClient_Start("127.0.0.1", closedPort()), 0);
  EXPECT_EQ(openDescriptors(), before);
}

// A host that runs without standard input gets 0 for a socket. The server here has no thread, as a new thread may open
// files of its own.
class ClientWithoutStdin : public Client {
 protected:
  ClientWithoutStdin() {
    closedPort();
    listen(listener_, 1);
    close(STDIN_FILENO);
  }
  ~ClientWithoutStdin() override {
    CollectClient_End();
    dup2(stdin_, STDIN_FILENO);
    close(stdin_);
    close(listener_);
  }

  // Leaves a send buffer behind, and no connection.
  void failTwoRuns() const {
    const linger atOnce = {1, 0};
    const int peer = startOn0();
    setsockopt(peer, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    close(peer);
    EXPECT_EQ(CollectClient_Flush(0), 0);
    EXPECT_EQ(CollectClient_Start("127.0.0.1", closedPort()), 0);
    EXPECT_FALSE(isOpen(0));
  }

  int startOn0() const {
    EXPECT_EQ(CollectClient_Start("127.0.0.1", port_), 1);
    EXPECT_TRUE(isOpen(0));
    return accept(listener_, nullptr, nullptr);
  }

  static bool isOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }

 private:
  int32_t port_;
  const int listener_ = openSocket(SOCK_STREAM, "127.0.0.1", &port_);
  const int stdin_ = dup(STDIN_FILENO);
};

TEST_F(ClientWithoutStdin, RunsOnDescriptor0) {
  failTwoRuns();
  const int peer = startOn0();
  EXPECT_EQ(send(peer, "ack", 3, 0), 3);
  CollectClient_End();
  EXPECT_FALSE(isOpen(0));
  char message[16];
  EXPECT_EQ(recv(peer, message, sizeof message, 0), 12);
  close(peer);
}

TEST_F(ClientWithoutStdin, KeepsOffADescriptor0ThatIsNotItsOwn) {
  failTwoRuns();
  int pair[2];  // the host's own, the first of them 0
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  ASSERT_EQ(pair[0], 0);
  shutdown(pair[1], SHUT_WR);
  EXPECT_EQ(CollectClient_Flush(0), 0);
  CollectClient_End();
  char byte;
  EXPECT_EQ(recv(pair[1], &byte, 1, MSG_DONTWAIT), -1);
  EXPECT_TRUE(isOpen(0));
  close(pair[0]);
  close(pair[1]);
}

}  // namespace
