// sock_test.cpp: datagram sockets on the loopback interface.
#include <fcntl.h>
#include <kep/ZuSock.h>
#include <poll.h>
#include <sys/resource.h>

#include <thread>

#include "support/platform_double.hpp"
#include "transport/own_network.hpp"

namespace {

int portOf(int fd) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
  return ntohs(address.sin_port);
}

bool hasDatagram(int fd) {
  pollfd wait = {fd, POLLIN, 0};
  return poll(&wait, 1, 0) > 0;  // loopback delivers before the send returns
}

int mayBroadcast(int fd) {
  int allowed = -1;
  socklen_t size = sizeof allowed;
  getsockopt(fd, SOL_SOCKET, SO_BROADCAST, &allowed, &size);
  return allowed;
}

class Datagrams : public testing::Test {
 protected:
  ~Datagrams() override {
    ZuSock_UDP_Close(device_), ZuSock_UDP_Close(server_);
    EXPECT_EQ(platform::takePrinted(), "");
  }

  int send(const char *address, int port, const void *data, int length) const {
    return ZuSock_UDP_SendMessage(device_, address, port, data, length);
  }
  void reply(const std::string &text) const {
    ASSERT_EQ(
        ZuSock_UDP_SendMessage(server_, "127.0.0.1", portOf(device_), text.c_str(), static_cast<int>(text.size())),
        static_cast<int>(text.size()));
  }
  // What the server has got; "-" for nothing.
  std::string arrived() const {
    char buffer[100];
    if (!hasDatagram(server_)) return "-";
    EXPECT_GE(ZuSock_UDP_RecvMessage(server_, nullptr, nullptr, buffer, sizeof buffer - 1), 0);
    return buffer;
  }

  // Asks the server and returns "<result> <reply> <address>:<port>".
  std::string exchange(int fd, const std::string &request, int timeoutMs) const {
    char buffer[100] = "", address[20] = "127.0.0.2";
    int port = portOf(server_);
    request.copy(buffer, sizeof buffer);
    const int result =
        ZuSock_UDP_GetMessage(fd, address, &port, buffer, static_cast<int>(request.size()), 99, timeoutMs);
    return std::to_string(result) + " " + buffer + " " + address + ":" + std::to_string(port);
  }

  const int device_ = openBound("127.0.0.1", 0);
  const int server_ = openBound("127.0.0.2", 0);
  const std::string serverText_ = "127.0.0.2:" + std::to_string(portOf(server_));
};

TEST_F(Datagrams, SocketsAreBoundWhereAskedOrNotAtAll) {
  const int port = portOf(device_);
  const int bound = ZuSock_UDP_Create("127.0.0.3", port);
  EXPECT_EQ(portOf(bound), port);
  EXPECT_EQ(ZuSock_UDP_Create("127.0.0.3", port), -1) << "taken";
  const int unbound[] = {ZuSock_UDP_Create("127.0.0.4", 0), ZuSock_UDP_Create("127.0.0.4", -1),
                         ZuSock_UDP_Create(nullptr, port)};
  EXPECT_EQ(unbound[0], bound + 1) << "the one that could not be bound was closed";
  for (const int fd : unbound) {
    EXPECT_EQ(portOf(fd), 0);
    ZuSock_UDP_Close(fd);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  }
  ZuSock_UDP_Close(bound), ZuSock_UDP_Close(-1);
}

TEST_F(Datagrams, AreRefusedBeforeTheyAreSent) {
  const int port = portOf(server_);
  EXPECT_EQ(send(nullptr, -1, nullptr, 1), 0) << "no address comes first";
  EXPECT_EQ(send("127.0.0.2", port, nullptr, 1), -1);
  EXPECT_EQ(send("127.0.0.2", port, "\0x", 2), -1);
  EXPECT_EQ(send("127.0.0.2", -1, "x", 1), -1);
  EXPECT_EQ(send("127.0.0.2", port, "x", -1), -1);
  EXPECT_EQ(ZuSock_UDP_SendMessage(-1, "127.0.0.2", port, "x", 1), -1);
  EXPECT_EQ(arrived(), "-");
  EXPECT_EQ(send("127.0.0.2", port, "x\0y", 3), 3);
  EXPECT_EQ(arrived(), "x");
  EXPECT_EQ(send("127.0.0.2", port, "x", 0), 0);
  EXPECT_EQ(arrived(), "") << "empty, but there";
}

TEST_F(Datagrams, AreReceivedCutAndTerminated) {
  char address[16], buffer[6];
  int port = 0;
  for (const auto &[text, received] : {std::pair<std::string, int>{"abcd", 4}, {"abcdefg", 4}, {"ab", 2}}) {
    reply(text);
    std::fill_n(buffer, sizeof buffer, '#');
    EXPECT_EQ(ZuSock_UDP_RecvMessage(device_, address, &port, buffer, 4), received);
    EXPECT_EQ(buffer, text.substr(0, 4));
    EXPECT_EQ(buffer[5], '#');
    EXPECT_EQ(address + (":" + std::to_string(port)), serverText_);
  }
  reply("x");
  EXPECT_EQ(ZuSock_UDP_RecvMessage(device_, nullptr, nullptr, buffer, 0), 0);
  EXPECT_EQ(buffer[0], '\0');
  EXPECT_EQ(ZuSock_UDP_RecvMessage(-1, address, &port, buffer, 4), -1);
  EXPECT_EQ(ZuSock_UDP_RecvMessage(device_, address, &port, buffer, -1), -1);
}

TEST_F(Datagrams, AreExchanged) {
  EXPECT_EQ(exchange(device_, "ask", 0), "0 ask " + serverText_) << "nobody has answered yet";
  EXPECT_EQ(arrived(), "ask") << "though asked";
  EXPECT_EQ(exchange(device_, "ask", 1), "0 ask " + serverText_);
  reply("early");
  EXPECT_EQ(exchange(device_, "ask", -2), "0 ask " + serverText_) << "no such limit";
  EXPECT_EQ(exchange(device_, "ask", 0), "5 early " + serverText_);

  // Whoever answers is the one that is told of.
  const int third = openBound("127.0.0.9", 0);
  ZuSock_UDP_SendMessage(third, "127.0.0.1", portOf(device_), "me", 2);
  EXPECT_EQ(exchange(device_, "ask", 1000), "2 me 127.0.0.9:" + std::to_string(portOf(third)));
  ZuSock_UDP_Close(third);

  reply("unread");
  EXPECT_EQ(exchange(device_, {"\0ask", 4}, 1000).substr(0, 2), "-1") << "not sent: not received either";
  EXPECT_EQ(exchange(device_, "ask", 0).substr(0, 8), "6 unread");
  char buffer[10] = "x", address[20] = "127.0.0.2";
  EXPECT_EQ(ZuSock_UDP_GetMessage(device_, address, nullptr, buffer, 1, 9, 0), -1);

  while (arrived() != "-") continue;
  std::thread server([this] {
    pollfd wait = {server_, POLLIN, 0};
    EXPECT_EQ(poll(&wait, 1, 60000), 1);
    reply("without limit");
  });
  EXPECT_EQ(exchange(device_, "ask", -1), "13 without limit " + serverText_);
  server.join();
}

TEST_F(Datagrams, AreExchangedOnDescriptorsOfAnyNumber) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  const int high = fcntl(device_, F_DUPFD, 1500);
  if (high < 0) GTEST_SKIP() << "descriptors end at " << limit.rlim_max;
  EXPECT_EQ(exchange(high, "ask", 0), "0 ask " + serverText_);
  reply("answer");
  EXPECT_EQ(exchange(high, "ask", 0), "6 answer " + serverText_);
  ZuSock_UDP_Close(high);
}

TEST(Broadcasts, AreAllowedForOneDatagramAtATime) {
  inOwnNetwork([] {
    const int device = ZuSock_UDP_Create(nullptr, 0);
    const int server = openBound("0.0.0.0", 5000);
    EXPECT_EQ(ZuSock_UDP_SendMessage(device, "<BROADCAST>", 5000, "all", 3), 3);
    EXPECT_EQ(mayBroadcast(device), 1);
    char buffer[10] = "";
    EXPECT_EQ(ZuSock_UDP_RecvMessage(server, nullptr, nullptr, buffer, 9), 3);
    EXPECT_STREQ(buffer, "all");
    EXPECT_EQ(ZuSock_UDP_SendMessage(device, "10.0.0.1", 5000, "one", 3), 3);
    EXPECT_EQ(mayBroadcast(device), 0);
    EXPECT_EQ(ZuSock_UDP_RecvMessage(server, nullptr, nullptr, buffer, 9), 3);
    for (const char *address : {"255.255.255.255", "<broadcast>", "<BROADCAST> "}) {
      EXPECT_EQ(ZuSock_UDP_SendMessage(device, address, 5000, "no", 2), -1) << address;
    }
    EXPECT_FALSE(hasDatagram(server));
    ZuSock_UDP_Close(device), ZuSock_UDP_Close(server);
  });
}

}  // namespace
