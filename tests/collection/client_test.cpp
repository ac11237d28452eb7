// The wire end of a run: what goes out byte for byte, when, and what remains of a run that fails.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kep/Collect.h>
#include <kep/CollectClient.h>
#include <sys/socket.h>
#include <unistd.h>

#include "collection/server.hpp"
#include "server/annotated.hpp"
#include "support/platform_double.hpp"
#include "transport/own_network.hpp"

namespace {

void start(const Server &server) {
  ASSERT_EQ(CollectClient_Start("127.0.0.1", server.port() | 0x70000), 1);  // the port's low 16 bits count
}

CollectItem *l_system, *l_network;

int32_t reportSystem(int32_t) {
  Collect_PutInt(l_system, 2, -5);
  Collect_PutStruct(l_system, 3, "\0\0\1\x90\0\0\0\xFA\0\0\0\x4B", 12);
  return 0;
}

int32_t reportNetwork(int32_t) {
  Collect_BeginSection(l_network, 1);
  Collect_PutString(l_network, 1, "eth0", 0);
  Collect_PutLong(l_network, 2, 672176260);
  Collect_EndSection(l_network);
  return 0;
}

TEST(Client, IsOnThePageAsItGoesOut) {
  l_system = Collect_New("system", reportSystem, nullptr);
  l_network = Collect_New("network", reportNetwork, nullptr);
  CollectItem *const quiet = Collect_New(
      "quiet", [](int32_t) { return 0; }, nullptr);
  Server server;
  int32_t boardPort, port = 0;
  const int board = openSocket(SOCK_DGRAM, "127.0.0.1", &boardPort);
  std::string stream = wire::request(16, 0, 77, server.port());
  ask(stream, boardPort);
  {
    const StdoutCapture trace;
    uint32_t type;
    char address[16];
    const int32_t sequence = CollectClient_WaitFor(board, 0, 0, &type, address, &port);
    Collect_Start(address, port, static_cast<int32_t>(type), sequence, 'K', 'B');
  }
  // The port is the system's choice, and the count that of all runs of the process.
  stream.replace(12, 4, wire::word(9300));
  const int32_t first = wire::wordAt(server.messages().at(1), 8);
  for (std::string message : server.messages()) {
    const int32_t number = wire::wordAt(message, 8);
    stream += message.replace(8, 4, wire::word(stream.size() == 16 ? number : number - first + 42));
  }
  EXPECT_EQ(stream, annotatedBytes(KEP_PAGE));
  for (CollectItem *item : {quiet, l_network, l_system}) Collect_Release(item);
  close(board);
}

// Puts something, and the same into a run of which so many bytes are free: what is appended and does not fit is left
// out whole.
void put(int what, size_t free, wire::Stream &run) {
  switch (what) {
    case 0: CollectClient_CollectInt(1, 0xFFFF, 3, -4), run.putInt(1, 0xFFFF, 3, -4); break;
    case 1: CollectClient_CollectLong(-1, 2, 7, INT64_MIN + 9), run.putLong(-1, 2, 7, INT64_MIN + 9); break;
    case 2: CollectClient_CollectString(1, 2, 3, "0123456789", 0), run.putString(1, 2, 3, "0123456789"); break;
    case 3: CollectClient_CollectString(1, 2, 3, "0123456789", 9), run.putString(1, 2, 3, "012345678"); break;
    case 4: CollectClient_CollectString(1, 0, 5, "", 0), run.putString(1, 0, 5, ""); break;
    case 5: CollectClient_CollectBuffer(1, 0, 6, "\x80", 1), run.putBuffer(1, 0, 6, "\x80"); break;
    case 6: CollectClient_AppendInt(0x01020304), run.append(free < 4 ? "" : wire::word(0x01020304)); break;
    case 7: CollectClient_AppendString("ab"), run.append(free < 4 ? "" : wire::counted("ab")); break;
    default: CollectClient_AppendBuffer("a\0\xFF", 3), run.append(free < 3 ? "" : std::string("a\0\xFF", 3));
  }
}

TEST(Client, FillsMessagesToTheLastByte) {
  for (size_t free = 0; free < 30; ++free) {
    for (int what = 0; what < 9; ++what) {
      Server server;
      start(server);
      const std::string begin(1024 - free, '.');
      CollectClient_AppendBuffer(begin.data(), static_cast<int32_t>(begin.size()));
      wire::Stream run(0);
      run.append(begin);
      put(what, free, run);
      EXPECT_EQ(CollectClient_Flush(-5), 1);
      run.flush(-5);
      put(what, 1024, run);
      CollectClient_End();
      run.flush(wire::wordAt(server.messages().back(), 8));  // the library's count runs on
      ASSERT_EQ(server.messages().size(), run.messages().size()) << what << " where " << free << " are free";
      for (size_t i = 0; i < run.messages().size(); ++i) {
        const std::string &expected = run.messages()[i];
        const bool isNumbered = i + 2 >= run.messages().size();  // not where a value has filled a message
        EXPECT_EQ(server.messages()[i].substr(isNumbered ? 0 : 12), expected.substr(isNumbered ? 0 : 12)) << what;
      }
    }
  }
}

// Long values come in pieces, of which each call writes the first.
TEST(Client, TellsHowMuchOfAValueItHasWritten) {
  Server server;
  start(server);
  const std::string value(2000, 'v');
  EXPECT_EQ(CollectClient_AppendInt(1), 4);
  EXPECT_EQ(CollectClient_CollectString(1, 0, 5, "text", 3) * 10 + CollectClient_CollectString(1, 0, 5, "text", 0), 34);
  EXPECT_EQ(CollectClient_Flush(0), 1);
  EXPECT_EQ(CollectClient_CollectBuffer(1, 2, 3, value.data(), 1009), 1009);  // fills a message and is whole
  EXPECT_EQ(CollectClient_CollectString(1, 2, 3, value.data(), 1010), 1009);
  CollectClient_End();
  EXPECT_EQ(server.messages().at(1).substr(12, 15), bytesOf("84 00000001 00000002 00000003 03F1"));
  EXPECT_EQ(server.messages().at(2).substr(12, 15), bytesOf("03 00000001 00000002 00000003 03F1"));
}

TEST(Client, LeavesNothingOfAFailedRunToTheNext) {
  StdoutCapture output;
  {
    const Server breaking({1});
    start(breaking);
    CollectClient_SetType(2);
    for (int i = 0; i < 2; ++i) {  // the second into a connection that is gone: an error here, no signal
      EXPECT_EQ(CollectClient_AppendInt(1), 4) << "what did not go through is dropped";
      EXPECT_EQ(CollectClient_Flush(0), 0);
    }
  }
  EXPECT_EQ(CollectClient_Start(nullptr, closedPort()), 0);
  Server next;
  start(next);
  CollectClient_End();
  EXPECT_EQ(next.messages().at(0).substr(0, 8), bytesOf("0000000C 00000000"));
  EXPECT_EQ(output.take(), "recv error.\nsend error.\nconnect error.\n");
}

// A host may run with its standard descriptors closed, and what it prints must not go out by a run's connection.
TEST(Client, KeepsOffTheStandardDescriptors) {
  int32_t port;
  const int listener = openSocket(SOCK_STREAM, "127.0.0.1", &port);
  listen(listener, 1);
  const int savedStdin = dup(STDIN_FILENO);
  close(STDIN_FILENO);
  EXPECT_EQ(CollectClient_Start("127.0.0.1", port), 1);
  EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
  dup2(savedStdin, STDIN_FILENO);
  const int peer = accept(listener, nullptr, nullptr);
  EXPECT_EQ(send(peer, "ack", 3, 0), 3);
  CollectClient_End();
  char message[16];
  EXPECT_EQ(recv(peer, message, sizeof message, 0), 12);
  for (const int fd : {savedStdin, peer, listener}) close(fd);
}

// With nobody listening, and no other port left to connect from than the one to connect to.
TEST(Client, DoesNotMeetItself) {
  inOwnNetwork([] {
    int port = 40000;
    for (const char *board : {"10.0.0.1", "0.0.0.0"}) {
      for (const int32_t limitMs : {0, 60000}) {
        leaveOnePort(++port);
        CollectClient_SetTimeout(limitMs, 0, 0);
        const int descriptors = openDescriptors();
        StdoutCapture output;
        const int32_t result = CollectClient_Start(board, port);
        EXPECT_EQ(std::to_string(result) + " " + output.take(), "0 connect error.\n") << board << ", " << limitMs;
        EXPECT_EQ(openDescriptors(), descriptors);
      }
    }
  });
}

TEST(Address, IsFourNumbersAndCountsFromTheNextSocket) {
  inOwnNetwork([] {
    const struct {
      const char *text;
      int32_t port;
      const char *leaves, *listens;                             // a run made at once, the next socket
    } steps[] = {{"10.0.0.7", 0, "10.0.0.7", "10.0.0.7:9099"},  // there is no socket yet
                 {"10.0.0.8", 65535, "10.0.0.7", "10.0.0.8:65535"},
                 {nullptr, 0, "10.0.0.8", "0.0.0.0:9099"},
                 {"10.0.0.9", 9099, "10.0.0.1", "10.0.0.9:9099"},
                 {"192.0.2.1", 0, "10.0.0.9", "0.0.0.0:0"}};  // not this host's
    for (const auto &step : steps) {
      EXPECT_EQ(Collect_SetAddress(step.text, step.port), 1);
      for (const char *wrong : {"10.0.0", "010.0.0.1", "10.0.0.1 ", "10.0.0.256", ""}) {
        EXPECT_EQ(Collect_SetAddress(wrong, 1), 0) << wrong;
      }
      EXPECT_EQ(Collect_SetAddress("10.0.0.1", -1) + Collect_SetAddress(nullptr, 65536), 0);
      Server server({}, "10.0.0.1");
      EXPECT_EQ(Collect_Start("10.0.0.1", server.port(), 0, 0, 0, 0), 1);
      EXPECT_EQ(server.client(), step.leaves);
      const int fd = CollectClient_Init();
      sockaddr_in name{};
      socklen_t size = sizeof name;
      getsockname(fd, reinterpret_cast<sockaddr *>(&name), &size);
      EXPECT_EQ(asText(name), step.listens);
      close(fd);
    }
  });
}

}  // namespace
