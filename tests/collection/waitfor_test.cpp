// Which request datagrams are taken, and what is read from them.
#include <gtest/gtest.h>
#include <kep/CollectClient.h>
#include <sys/socket.h>
#include <unistd.h>

#include "collection/server.hpp"
#include "support/platform_double.hpp"

namespace {

class Requests : public testing::Test {
 protected:
  ~Requests() override { close(board_); }

  // Returns "<type> <sequence> from <address>:<port>" for a request that is taken, "" for one that is not.
  static std::string waitOn(int fd) {
    uint32_t type = 99;
    char address[16] = "";
    int32_t port = 99;
    const int32_t sequence = CollectClient_WaitFor(fd, 1, 2, &type, address, &port);
    return sequence == -1 ? "" : describe(type, sequence, address, port);
  }

  static std::string describe(uint32_t type, int32_t sequence, const std::string &address, int32_t port) {
    return std::to_string(type) + " " + std::to_string(sequence) + " from " + address + ":" + std::to_string(port);
  }

  int32_t port_ = 0;
  const int board_ = openSocket(SOCK_DGRAM, "127.0.0.1", &port_);
};

TEST_F(Requests, AreTakenOnlyWithTheirTrueLengthAndAKnownType) {
  std::string taken, expected, sizes;
  StdoutCapture output;
  for (size_t size = 0; size <= 40; ++size) {
    const auto whole = static_cast<int64_t>(size);
    for (const int64_t length : {whole, whole - 1, whole + 1, whole << 24, whole | 1 << 16, INT64_C(0), INT64_C(16)}) {
      for (const int64_t type : {0, 1, 2, 3, 4, 0x01000000, -1}) {
        const std::string datagram =
            (wire::request(length, type, 0x8000, 0x12345) + std::string(24, '\1')).substr(0, size);
        const std::string what =
            std::to_string(size) + "/" + std::to_string(length) + "/" + std::to_string(type) + ": ";
        ask(datagram, port_, "127.0.0.3");
        const std::string answer = waitOn(board_);
        if (!answer.empty()) taken += what + answer + "\n";

        const std::string seen = (datagram + std::string(16, '\0')).substr(0, 16);  // what did not come is 0
        const auto seenType = static_cast<uint32_t>(wire::wordAt(seen, 4));
        sizes += "size=" + std::to_string(size) + "\n";
        if (size > 16 || wire::wordAt(seen, 0) != static_cast<int32_t>(size) || seenType > 3) continue;
        expected += what + describe(seenType, wire::wordAt(seen, 8), "127.0.0.3", wire::wordAt(seen, 12)) + "\n";
      }
    }
  }
  EXPECT_EQ(output.take(), sizes);
  EXPECT_EQ(taken, expected);
}

TEST_F(Requests, AreNotAwaitedWithoutASocket) {
  EXPECT_EQ(waitOn(-1), "");
  EXPECT_TRUE(platform::takeDelays().empty());
}

}  // namespace
