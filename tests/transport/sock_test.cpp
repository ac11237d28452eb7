// sock_test.cpp: datagram sockets on the loopback interface.
#include <fcntl.h>
#include <kep/ZuSock.h>
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

// What has arrived, "-" for nothing: loopback delivers before the send returns.
std::string arrived(int fd, int flags = MSG_DONTWAIT) {
  char buffer[100];
  const ssize_t length = recv(fd, buffer, sizeof buffer, flags);
  return length < 0 ? "-" : std::string(buffer, static_cast<size_t>(length));
}

class Datagrams : public testing::Test {
 protected:
  ~Datagrams() override {
    ZuSock_UDP_Close(device_), ZuSock_UDP_Close(server_);
    EXPECT_EQ(platform::takePrinted(), "");
  }

  void reply(const std::string &text) const {
    ZuSock_UDP_SendMessage(server_, "127.0.0.1", portOf(device_), text.data(), static_cast<int>(text.size()));
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

  const int device_ = openBound("127.0.0.1", 0), server_ = openBound("127.0.0.2", 0);
  const std::string serverText_ = "127.0.0.2:" + std::to_string(portOf(server_));
};

TEST_F(Datagrams, SocketsAreBoundWhereAskedOrNotAtAll) {
  const int port = portOf(device_), bound = ZuSock_UDP_Create("127.0.0.3", port);
  EXPECT_EQ(portOf(bound), port);
  EXPECT_EQ(ZuSock_UDP_Create("127.0.0.3", port), -1) << "taken";
  EXPECT_EQ(ZuSock_UDP_Create("127.0.0.4", 0x10000 + port), -1) << "no port";
  const int unbound = ZuSock_UDP_Create("127.0.0.4", 0), another = ZuSock_UDP_Create(nullptr, port);
  EXPECT_EQ(unbound, bound + 1) << "those that could not be bound were closed";
  EXPECT_EQ(portOf(unbound) + portOf(another), 0);
  ZuSock_UDP_Close(unbound), ZuSock_UDP_Close(another);
  EXPECT_EQ(fcntl(unbound, F_GETFD), -1);
  ZuSock_UDP_Close(bound), ZuSock_UDP_Close(-1);
}

TEST_F(Datagrams, AreRefusedBeforeTheyAreSent) {
  const int port = portOf(server_);
  const auto send = [&](int to, const void *data, int length) {
    return ZuSock_UDP_SendMessage(device_, "127.0.0.2", to, data, length);
  };
  EXPECT_EQ(ZuSock_UDP_SendMessage(device_, nullptr, -1, nullptr, 1), 0) << "no address comes first";
  for (const int result : {send(port, nullptr, 1), send(port, "\0x", 2), send(-1, "x", 1), send(port, "x", -1),
                           send(0x10000 + port, "x", 1)}) {
    EXPECT_EQ(result, -1);
  }
  EXPECT_EQ(arrived(server_), "-");
  EXPECT_EQ(send(port, "x\0y", 3), 3);
  EXPECT_EQ(arrived(server_), std::string("x\0y", 3));
  EXPECT_EQ(send(port, "x", 0), 0);
  EXPECT_EQ(arrived(server_), "") << "empty, but there";
}

TEST_F(Datagrams, AreReceivedCutAndTerminated) {
  char buffer[6];
  for (const auto &[text, received] : {std::pair<std::string, int>{"abcdefg", 4}, {"ab", 2}, {"x", 1}}) {
    reply(text);
    std::fill_n(buffer, sizeof buffer, '#');
    EXPECT_EQ(ZuSock_UDP_RecvMessage(device_, nullptr, nullptr, buffer, 4), received);
    EXPECT_EQ(buffer, text.substr(0, 4));
    EXPECT_EQ(buffer[5], '#');
  }
  reply("x");
  EXPECT_EQ(ZuSock_UDP_RecvMessage(device_, nullptr, nullptr, buffer, -1), -1);
  EXPECT_EQ(ZuSock_UDP_RecvMessage(device_, nullptr, nullptr, nullptr, 1), -1);
  EXPECT_EQ(ZuSock_UDP_RecvMessage(device_, nullptr, nullptr, buffer, 0), 0);
}

TEST_F(Datagrams, AreExchanged) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  const int device = std::max(fcntl(device_, F_DUPFD, 1500), device_);  // descriptors of any number will do
  EXPECT_EQ(exchange(device, "ask", 1), "0 ask " + serverText_) << "nobody has answered yet";
  EXPECT_EQ(arrived(server_), "ask") << "though asked";
  reply("early");
  EXPECT_EQ(exchange(device, "ask", -2), "0 ask " + serverText_) << "no such limit";
  EXPECT_EQ(exchange(device, {"\0ask", 4}, 1000).substr(0, 2), "-1") << "not sent: not received either";
  EXPECT_EQ(exchange(device, "ask", 0), "5 early " + serverText_);
  char buffer[10] = "x", address[20] = "127.0.0.2";
  EXPECT_EQ(ZuSock_UDP_GetMessage(device, address, nullptr, buffer, 1, 9, 0), -1);

  while (arrived(server_) != "-") continue;
  std::thread server([this] {  // whoever answers is the one that is told of
    arrived(server_, 0);
    const int third = ZuSock_UDP_Create("127.0.0.9", portOf(server_));
    ZuSock_UDP_SendMessage(third, "127.0.0.1", portOf(device_), "me", 2);
    ZuSock_UDP_Close(third);
  });
  EXPECT_EQ(exchange(device, "ask", -1), "2 me 127.0.0.9:" + std::to_string(portOf(server_)));
  server.join();
}

TEST(Broadcasts, AreAllowedForOneDatagramAtATime) {
  inOwnNetwork([] {
    const int device = ZuSock_UDP_Create(nullptr, 0), server = openBound("0.0.0.0", 5000);
    EXPECT_EQ(ZuSock_UDP_SendMessage(device, "<BROADCAST>", 5000, "all", 3), 3);
    EXPECT_EQ(arrived(server), "all");
    for (const char *address : {"255.255.255.255", "<broadcast>", "<BROADCAST> "}) {
      EXPECT_EQ(ZuSock_UDP_SendMessage(device, address, 5000, "no", 2), -1) << address;
    }
    EXPECT_EQ(arrived(server), "-");
  });
}

}  // namespace
