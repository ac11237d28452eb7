// config_test.cpp: the configuration query against a server. What the module has learnt stays for the life of its
// process, so that every test runs in a process, and a network, of its own.
#include <kep/ZuConfig.h>

#include <thread>

#include "support/platform_double.hpp"
#include "transport/own_network.hpp"

namespace {

const std::string kQuery = "10.0.0.1:8998 =>config ";

// Hears the broadcasts and what is sent to two addresses of its own.
struct Server {
  int broadcasts = openBound("0.0.0.0", 8999), first = openBound("10.0.0.5", 9001),
      second = openBound("10.0.0.6", 9002);
};

// The oldest query at a socket and its sender, "-" for none.
std::string heard(int fd) {
  char query[2000];
  sockaddr_in sender{};
  socklen_t size = sizeof sender;
  const ssize_t length = recvfrom(fd, query, sizeof query, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&sender), &size);
  return length < 0 ? "-" : asText(sender) + " " + std::string(query, static_cast<size_t>(length));
}

// A reply may lie ready before it is asked for, but for the first: the module has no socket before it asks.
void answer(int fd, const std::string &text) {
  const sockaddr_in board = socketAddress("10.0.0.1", 8998);
  sendto(fd, text.data(), text.size(), 0, reinterpret_cast<const sockaddr *>(&board), sizeof board);
}

std::string text(const char *key, const char *defaultText = "default") {
  char value[1200];
  std::fill_n(value, sizeof value, '#');
  EXPECT_EQ(ZuConfig_GetString("net", key, defaultText, value), 1);
  EXPECT_EQ(platform::takePrinted(), "") << "whatever happens";
  return value;
}

}  // namespace

TEST(Query, IsBroadcastAndThenSentToWhoeverAnswered) {
  inOwnNetwork([] {
    const std::string whole(1000, 'x'), longest(1000 - std::string("=>config net k ").size(), 'd');
    const Server server;
    EXPECT_EQ(text("k", (longest + "d").c_str()), longest + "d") << "too long to be sent";
    EXPECT_EQ(ZuConfig_Get(nullptr, "k", "d") + ZuConfig_Get("n", nullptr, "d") + ZuConfig_Get("n", "k", nullptr), -3);
    std::thread answering([&] {  // none of these has spent the broadcast
      recv(server.broadcasts, nullptr, 0, MSG_PEEK);
      answer(server.first, "");
    });
    EXPECT_EQ(text("k", longest.c_str()), longest) << "an empty reply is no value";
    answering.join();
    EXPECT_EQ(heard(server.broadcasts), kQuery + "net k " + longest);
    answer(server.second, whole + "y");
    EXPECT_EQ(text("mode"), whole) << "the 1001st byte is cut off";
    EXPECT_EQ(heard(server.first), kQuery + "net mode default");
    EXPECT_EQ(text("last"), "default") << "no answer";
    EXPECT_EQ(heard(server.second), kQuery + "net last default");
    answer(server.second, "7");
    EXPECT_EQ(ZuConfig_Get("a", "b", ""), 1);
    EXPECT_EQ(heard(server.second), kQuery + "a b ");
    const std::pair<const char *, uint32_t> numbers[] = {
        {"0x10", 16U}, {"010", 8U}, {"abc", 0U}, {"", -6U}, {"-7 x", -7U}, {"4294967298", 2U}, {"4294967295", -1U}};
    for (const auto &[reply, number] : numbers) {
      answer(server.second, reply);
      EXPECT_EQ(ZuConfig_GetUInt("net", "k", 4294967290U), number);
      EXPECT_EQ(heard(server.second), kQuery + "net k -6");
    }
  });
}

TEST(Query, IsGivenUpAfterASilentBroadcast) {
  inOwnNetwork([] {
    const Server server;
    EXPECT_EQ(ZuConfig_Get("net", "mtu", "1500"), 0);
    EXPECT_EQ(ZuConfig_Get("net", "mtu", "1500"), -1);
    EXPECT_EQ(ZuConfig_GetInt("net", "mtu", -5), -5);
    EXPECT_EQ(text("mode"), "default");
    EXPECT_EQ(heard(server.broadcasts), kQuery + "net mtu 1500");
    EXPECT_EQ(heard(server.broadcasts), "-");
  });
}
