// Which request datagrams are taken, and what is read from them.
#include <gtest/gtest.h>
#include <kep/Collect.h>
#include <kep/CollectClient.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "collection/server.hpp"
#include "support/platform_double.hpp"

namespace {

constexpr int64_t kTop = INT64_C(0x80000000);
constexpr size_t kLongest = 2000;
constexpr int64_t kTypes[] = {0, 1, 2, 3, 4, 0x103, 0x01000000, 0x03FFFFFF, kTop, -1};
constexpr std::array<int64_t, 11> kEdges = {0, 1, -1, 80, 0x7FFF, 0x8000, 0xFFFF, 0x10000, 0x12345, kTop - 1, kTop};

class Requests : public testing::Test {
 protected:
  ~Requests() override { close(asker_), close(board_); }

  // Asks with this datagram. Returns "<sequence> <type> from <address>:<port>", where what a dropped one leaves alone
  // reads 99.
  std::string answerTo(const std::string &datagram) {
    ask(asker_, datagram, port_);
    return waitOn(board_);
  }

  static std::string waitOn(int fd) {
    uint32_t type = 99;
    char address[16] = "99";
    int32_t port = 99;
    const int32_t sequence = CollectClient_WaitFor(fd, 1, 2, &type, address, &port);
    return describe(sequence, type, address, port);
  }

  static std::string describe(int32_t sequence, uint32_t type, const char *address, int32_t port) {
    char text[64];
    std::snprintf(text, sizeof text, "%d %u from %s:%d", int{sequence}, unsigned{type}, address, int{port});
    return text;
  }

  // By the rules: the true length, a known type, and 0 for what a shorter datagram does not bring.
  std::string expectedFor(const std::string &datagram) const {
    const std::string seen = (datagram + std::string(16, '\0')).substr(0, 16);
    const auto type = static_cast<uint32_t>(wire::wordAt(seen, 4));
    if (datagram.size() > 16 || wire::wordAt(seen, 0) != static_cast<int32_t>(datagram.size()) || type > 3)
      return dropped_;
    return describe(wire::wordAt(seen, 8), type, "127.0.0.3", wire::wordAt(seen, 12));
  }

  const std::string dropped_ = describe(-1, 99, "99", 99);
  int32_t port_ = 0, askerPort_ = 0;
  const int board_ = openSocket(SOCK_DGRAM, "127.0.0.1", &port_);
  const int asker_ = openSocket(SOCK_DGRAM, "127.0.0.3", &askerPort_);
};

TEST_F(Requests, AreTakenOnlyWithTheirTrueLengthAndAKnownType) {
  CollectStats before, after;
  Collect_GetStats(&before);
  std::string sizes;
  uint32_t cases = 0, dropped = 0;
  StdoutCapture output;
  const auto check = [&](size_t size, int64_t length, int64_t type, int64_t sequence, int64_t port) {
    const std::string datagram =
        (wire::request(length, type, sequence, port) + std::string(kLongest, '\1')).substr(0, size);
    const std::string expected = expectedFor(datagram);
    ASSERT_EQ(answerTo(datagram), expected) << size << ", said to be " << length << ", type " << type;
    sizes += "size=" + std::to_string(size) + "\n";
    ++cases;
    dropped += expected == dropped_;
  };
  for (size_t size = 0; size <= kLongest; ++size) {
    const auto whole = static_cast<int64_t>(size);
    const size_t ports = size <= 20 ? kEdges.size() : 1;  // of what can be taken, and a little beyond
    for (const int64_t length : {whole, whole - 1, whole + 1, whole << 24, whole | 1 << 16, -whole, INT64_C(16)}) {
      for (const int64_t type : kTypes) {
        for (size_t i = 0; i < ports; ++i) check(size, length, type, kEdges[kEdges.size() - 1 - i], kEdges[i]);
        if (HasFatalFailure()) return;
      }
    }
  }
  check(16, 16, 3, 5, 80);
  EXPECT_TRUE(output.take() == sizes);  // too long to print
  EXPECT_GE(cases, 100000u);
  Collect_GetStats(&after);
  EXPECT_EQ(after.datagrams - before.datagrams, cases);
  EXPECT_EQ(after.dropped - before.dropped, dropped);
}

TEST_F(Requests, AreNotAwaitedWithoutASocket) {
  EXPECT_EQ(waitOn(-1), dropped_);
  EXPECT_TRUE(platform::takeDelays().empty());
}

}  // namespace
