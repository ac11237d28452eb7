// config_test.cpp: the configuration query against a server. What the module has learnt stays for the life of its
// process, so that every test runs in a process, and a network, of its own.
#include <kep/ZuConfig.h>
#include <poll.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/platform_double.hpp"
#include "transport/own_network.hpp"

namespace {

// Hears the broadcasts and what is sent to two addresses of its own, and answers each query by a script.
class Server {
 public:
  struct Answer {
    bool fromSecond;  // which of the two addresses answers
    std::string text;
  };

  explicit Server(std::vector<Answer> script) : script_(std::move(script)) {}
  ~Server() {
    stop();
    for (const pollfd &socket : sockets_) close(socket.fd);
  }
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;

  // Every query up to now, one a line: "<socket> < <sender> <text>". Ends the server.
  std::string heard() {
    stop();
    return heard_;
  }

 private:
  void stop() {
    stopped_ = true;
    if (thread_.joinable()) thread_.join();
  }

  void serve() {
    while (!stopped_) {
      if (poll(sockets_, 3, 20) <= 0) continue;
      for (const pollfd &socket : sockets_) {
        if (socket.revents & POLLIN) answer(socket.fd);
      }
    }
  }

  void answer(int fd) {
    char query[2000];
    sockaddr_in sender{}, own{};
    socklen_t size = sizeof sender;
    const ssize_t length = recvfrom(fd, query, sizeof query, 0, reinterpret_cast<sockaddr *>(&sender), &size);
    getsockname(fd, reinterpret_cast<sockaddr *>(&own), &size);
    ASSERT_GE(length, 0);
    heard_ += asText(own) + " < " + asText(sender) + " " + std::string(query, static_cast<size_t>(length)) + "\n";
    if (next_ == script_.size()) return;  // no answer left
    const Answer &answer = script_[next_++];
    sendto(sockets_[answer.fromSecond ? 2 : 1].fd, answer.text.data(), answer.text.size(), 0,
           reinterpret_cast<const sockaddr *>(&sender), sizeof sender);
  }

  std::vector<Answer> script_;
  size_t next_ = 0;
  std::string heard_;
  pollfd sockets_[3] = {{openBound("0.0.0.0", 8999), POLLIN, 0},
                        {openBound("10.0.0.5", 9001), POLLIN, 0},
                        {openBound("10.0.0.6", 9002), POLLIN, 0}};
  std::atomic<bool> stopped_{false};
  std::thread thread_{[this] { serve(); }};  // last: all it needs is there
};

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
    Server server({{false, "9000"}, {true, "fast"}, {true, "7"}});
    EXPECT_EQ(ZuConfig_GetInt("net", "mtu", 1500), 9000);
    EXPECT_EQ(text("mode"), "fast");
    EXPECT_EQ(ZuConfig_Get("a", "b", ""), 1);
    EXPECT_EQ(text("last"), "default") << "no answer";
    EXPECT_EQ(server.heard(),
              "0.0.0.0:8999 < 10.0.0.1:8998 =>config net mtu 1500\n"
              "10.0.0.5:9001 < 10.0.0.1:8998 =>config net mode default\n"
              "10.0.0.6:9002 < 10.0.0.1:8998 =>config a b \n"
              "10.0.0.6:9002 < 10.0.0.1:8998 =>config net last default\n");
  });
}

TEST(Query, IsGivenUpAfterASilentBroadcast) {
  inOwnNetwork([] {
    Server server({});
    EXPECT_EQ(ZuConfig_Get("net", "mtu", "1500"), 0);
    EXPECT_EQ(ZuConfig_Get("net", "mtu", "1500"), -1);
    EXPECT_EQ(ZuConfig_GetInt("net", "mtu", -5), -5);
    EXPECT_EQ(ZuConfig_GetUInt("net", "mtu", 4000000000U), 4000000000U);
    EXPECT_EQ(text("mode"), "default");
    EXPECT_EQ(server.heard(), "0.0.0.0:8999 < 10.0.0.1:8998 =>config net mtu 1500\n");
  });
}

TEST(Query, TakesAnEmptyReplyForNoValueButForAServer) {
  inOwnNetwork([] {
    Server server({{false, ""}, {false, "x"}});
    EXPECT_EQ(text("mode"), "default");
    EXPECT_EQ(text("mode"), "x");
    EXPECT_EQ(server.heard(),
              "0.0.0.0:8999 < 10.0.0.1:8998 =>config net mode default\n"
              "10.0.0.5:9001 < 10.0.0.1:8998 =>config net mode default\n");
  });
}

TEST(Query, KeepsToItsThousandBytesAndReadsNumbers) {
  inOwnNetwork([] {
    const std::string whole(1000, 'x');
    const std::string longest(1000 - std::string("=>config net k ").size(), 'd');
    Server server({{false, whole},
                   {false, whole + "y"},
                   {false, "0x10"},
                   {false, "010"},
                   {false, "abc"},
                   {false, "-7 and more"},
                   {false, "4294967298"},
                   {false, "4294967295"}});
    EXPECT_EQ(text("k", (longest + "d").c_str()), longest + "d") << "too long to be sent";
    EXPECT_EQ(ZuConfig_Get(nullptr, "k", "d") + ZuConfig_Get("n", nullptr, "d") + ZuConfig_Get("n", "k", nullptr), -3);
    EXPECT_EQ(text("k", longest.c_str()), whole) << "none of these has spent the broadcast";
    EXPECT_EQ(text("k"), whole) << "the 1001st byte is cut off";
    for (const int32_t number : {16, 8, 0, -7, 2}) EXPECT_EQ(ZuConfig_GetInt("net", "k", -2147483647), number);
    EXPECT_EQ(ZuConfig_GetUInt("net", "k", 4294967290U), 4294967295U);
    const std::string heard = server.heard();
    const std::string first = "0.0.0.0:8999 < 10.0.0.1:8998 =>config net k " + longest + "\n";
    EXPECT_EQ(heard.substr(0, first.size()), first);
    EXPECT_NE(heard.find("config net k -2147483647\n"), std::string::npos);
    EXPECT_EQ(heard.substr(heard.rfind(' ')), " -6\n");
  });
}
