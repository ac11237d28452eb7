// What a host can switch on against servers that do not answer.
#include <gtest/gtest.h>
#include <kep/kep.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "collection/server.hpp"
#include "support/platform_double.hpp"

namespace {

// A listener whose queue takes connections that nobody ever serves.
class SilentServer {
 public:
  SilentServer() : fd_(openSocket(SOCK_STREAM, "127.0.0.1", &port_)) { listen(fd_, 4); }
  ~SilentServer() {
    for (const int fd : fillers_) close(fd);
    close(fd_);
  }

  int32_t port() const { return port_; }

  // Fills the queue, so that connecting waits.
  void fill() {
    for (bool connects = true; connects;) {
      const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_port = htons(static_cast<uint16_t>(port_));
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
      pollfd wait = {fd, POLLOUT, 0};
      connects = poll(&wait, 1, 200) > 0;
      fillers_.push_back(fd);
    }
  }

 private:
  int32_t port_ = 0;
  int fd_;
  std::vector<int> fillers_;
};

class Limits : public testing::Test {
 protected:
  Limits() { CollectClient_SetTimeout(50, 50, 50); }
  ~Limits() override { CollectClient_SetTimeout(0, 0, 0); }
};

int32_t reportNothing(int32_t) { return 0; }

TEST_F(Limits, EndARunThatNobodyAnswers) {
  const SilentServer server;
  CollectItem *item = Collect_New("item", reportNothing, reportNothing);
  const int descriptors = openDescriptors();
  CollectStats before, after;
  Collect_GetStats(&before);
  for (int run = 0; run < 3; ++run) {
    StdoutCapture output;
    EXPECT_EQ(Collect_Start("127.0.0.1", server.port(), 0, 1, 0, 0), 0);
    EXPECT_EQ(output.take(), "recv error.\nsend error.\n");  // given up once, then not waited for again
    EXPECT_EQ(openDescriptors(), descriptors);
  }
  Collect_GetStats(&after);
  EXPECT_EQ(after.failedRuns - before.failedRuns, 3u);
  EXPECT_EQ(after.messages, before.messages);

  Server answering;  // and the next request is served
  EXPECT_EQ(Collect_Start("127.0.0.1", answering.port(), 0, 1, 0, 0), 1);
  EXPECT_EQ(answering.messages().size(), 4u);
  Collect_GetStats(&after);
  EXPECT_EQ(after.finishedRuns - before.finishedRuns, 1u);
  EXPECT_EQ(after.messages - before.messages, 4u);
  Collect_Release(item);
}

TEST_F(Limits, EndAConnectThatIsNotTaken) {
  SilentServer server;
  server.fill();
  const int descriptors = openDescriptors();
  StdoutCapture output;
  EXPECT_EQ(CollectClient_Start("127.0.0.1", server.port()), 0);
  EXPECT_EQ(output.take(), "connect error.\n");
  EXPECT_EQ(openDescriptors(), descriptors);
}

TEST(EvictedCount, CountsWhatGaveWay) {
  ZuInfo *info = ZuInfo_New(1024);
  const char value[600] = "";
  EXPECT_EQ(ZuInfo_GetEvicted(info), 0u);
  for (const int32_t length : {597, 497, 97}) ZuInfo_Append(info, nullptr, 0, value, length);
  EXPECT_EQ(ZuInfo_GetEvicted(info), 1u);
  ZuInfo_Clear(info);
  EXPECT_EQ(ZuInfo_GetEvicted(info), 1u);  // clearing is no eviction
  EXPECT_EQ(ZuInfo_GetEvicted(nullptr), 0u);
  ZuInfo_Release(info);
}

}  // namespace
