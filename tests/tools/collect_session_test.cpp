// collect_session_test.cpp: the command kep-collect against a board that the test plays, over loopback.

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <optional>
#include <utility>

#include "board_stream.hpp"
#include "command.hpp"

namespace {

bool becomesReadable(int fd) {
  pollfd entry = {fd, POLLIN, 0};
  return poll(&entry, 1, kPatienceMs) == 1;
}

// The board's side of one run: what the request said, and the connection made back to where it came from.
class Visit {
 public:
  explicit Visit(int requestSocket) {
    char bytes[64];
    sockaddr_in from{};
    socklen_t fromSize = sizeof from;
    const ssize_t size = becomesReadable(requestSocket) ? recvfrom(requestSocket, bytes, sizeof bytes, 0,
                                                                   reinterpret_cast<sockaddr *>(&from), &fromSize)
                                                        : 0;
    request_.assign(bytes, static_cast<size_t>(std::max<ssize_t>(size, 0)));
    source_ = from;
  }
  ~Visit() {
    if (fd_ >= 0) close(fd_);
  }
  Visit(const Visit &) = delete;
  Visit &operator=(const Visit &) = delete;

  const std::string &request() const { return request_; }
  std::string source() const { return inet_ntoa(source_.sin_addr); }

  void connectBack() {
    ASSERT_EQ(request_.size(), 16u);
    sockaddr_in server = source_;
    server.sin_port =
        htons(static_cast<uint16_t>(static_cast<uint8_t>(request_[14]) << 8 | static_cast<uint8_t>(request_[15])));
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(fd_, reinterpret_cast<sockaddr *>(&server), sizeof server), 0);
  }

  void sendBytes(const std::string &bytes) {
    EXPECT_EQ(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
  }

  // As a board does it: one receive call, whatever it yields. Returns its size; an overlong one shows as 17.
  ssize_t takeAcknowledgement() {
    char bytes[17];
    return becomesReadable(fd_) ? recv(fd_, bytes, sizeof bytes, 0) : -1;
  }

  void sendAcknowledged(const std::vector<std::string> &messages) {
    for (const std::string &message : messages) {
      sendBytes(message);
      const ssize_t size = takeAcknowledgement();
      EXPECT_TRUE(size >= 1 && size <= 16) << size;
    }
  }

  // Nothing may follow the last acknowledgement.
  bool nothingMoreCame() {
    char byte = 0;
    return recv(fd_, &byte, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
  }

  void serverCloses() { EXPECT_LE(takeAcknowledgement(), 0); }

  void reset() {
    const linger atOnce = {1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    close(std::exchange(fd_, -1));
  }

 private:
  std::string request_;
  sockaddr_in source_{};
  int fd_ = -1;
};

class Collect : public ::testing::Test {
 protected:
  void SetUp() override {
    folder_ = ::testing::TempDir() + "kep-collect-XXXXXX";
    ASSERT_NE(mkdtemp(folder_.data()), nullptr);
    outPath_ = path("out");
    socket_ = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address = loopback(0);
    socklen_t size = sizeof address;
    ASSERT_EQ(bind(socket_, reinterpret_cast<sockaddr *>(&address), size), 0);
    getsockname(socket_, reinterpret_cast<sockaddr *>(&address), &size);
    port_ = std::to_string(ntohs(address.sin_port));
  }

  void TearDown() override {
    command_.reset();
    close(socket_);
    for (const char *name : {"out", "err", "raw"}) unlink(path(name).c_str());
    rmdir(folder_.c_str());
  }

  std::string path(const std::string &name) const { return folder_ + "/" + name; }
  std::string out() const { return contentOf(outPath_); }
  std::string err() const { return contentOf(path("err")); }

  void launch(std::vector<std::string> arguments) {
    command_.emplace(KEP_COLLECT_PROGRAM, std::move(arguments), outPath_, path("err"));
  }

  int waitForStatus() { return command_->status(); }

  int run(const std::vector<std::string> &arguments) {
    launch(arguments);
    return waitForStatus();
  }

  // Runs the command against a board that behaves as `visit` says.
  int runAgainst(const std::function<void(Visit &)> &behave, std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), {"127.0.0.1", "--port", port_, "--sequence", "77"});
    launch(arguments);
    {
      Visit visit(socket_);
      visit.connectBack();
      behave(visit);
    }
    return waitForStatus();
  }

  std::string folder_;
  std::string outPath_;
  std::string port_;
  int socket_ = -1;
  std::optional<Command> command_;
};

using board::collection;
using board::joined;
using board::message;
using board::selfTest;
using board::word;

TEST_F(Collect, BringsAWholeRunAndReplaysIt) {
  struct Case {
    std::vector<std::string> arguments;
    int32_t requestType;
    std::vector<std::string> messages;
  };
  const std::vector<Case> cases = {
      {{}, 0, collection()},
      {{"--type", "2", "--format", "json"}, 2, collection()},
      {{"--selftest", "--format", "csv"}, 3, selfTest()},
  };
  for (const Case &c : cases) {
    std::vector<std::string> arguments = c.arguments;
    arguments.insert(arguments.end(), {"--raw", path("raw")});
    const auto behave = [&c](Visit &visit) {
      EXPECT_EQ(visit.request().substr(0, 12), word(16) + word(c.requestType) + word(77));
      visit.sendAcknowledged(c.messages);
      EXPECT_TRUE(visit.nothingMoreCame());
    };
    EXPECT_EQ(runAgainst(behave, arguments), 0) << err();
    EXPECT_EQ(err(), "");
    EXPECT_EQ(contentOf(path("raw")), joined(c.messages));
    const std::string live = out();
    EXPECT_FALSE(live.empty());

    const auto format = std::find(arguments.begin(), arguments.end(), "--format");
    const std::string name = format == arguments.end() ? "text" : *(format + 1);
    EXPECT_EQ(run({"--replay", path("raw"), "--format", name}), 0) << err();
    EXPECT_EQ(out(), live);
  }
}

TEST_F(Collect, TakesMessagesInAnyPortions) {
  const auto behave = [](Visit &visit) {
    const std::string stream = joined(collection());
    visit.sendBytes(stream.substr(0, 5));
    for (size_t i = 5; i < 40; ++i) visit.sendBytes(stream.substr(i, 1));
    visit.sendBytes(stream.substr(40));
    for (size_t taken = 0; taken < collection().size();) {
      const ssize_t size = visit.takeAcknowledgement();
      ASSERT_GT(size, 0);
      taken += static_cast<size_t>(size);
    }
    EXPECT_TRUE(visit.nothingMoreCame());
  };
  EXPECT_EQ(runAgainst(behave), 0) << err();
}

TEST_F(Collect, IsAnsweredAtTheAddressItListensOn) {
  const auto behave = [](Visit &visit) {
    EXPECT_EQ(visit.source(), "127.0.0.2");
    visit.sendAcknowledged(collection());
  };
  EXPECT_EQ(runAgainst(behave, {"--listen", "127.0.0.2"}), 0) << err();
}

TEST_F(Collect, PrintsWhatWasWholeBeforeDamage) {
  const auto behave = [](Visit &visit) {
    std::vector<std::string> messages = collection();
    messages.resize(5);
    visit.sendAcknowledged(messages);
    visit.sendBytes(message(2, 50, ""));
    visit.serverCloses();
  };
  EXPECT_EQ(runAgainst(behave, {"--raw", path("raw")}), 1);
  EXPECT_EQ(err(), "kep-collect: damaged at offset 257: sequence 50 instead of 46\n");
  EXPECT_NE(out().find("second, \"quoted\""), std::string::npos);
  EXPECT_NE(out().find("5 messages, 8 records, 249 bytes, not whole\n"), std::string::npos);

  const std::string live = out();
  EXPECT_EQ(run({"--replay", path("raw")}), 1);
  EXPECT_EQ(out(), live);
}

TEST_F(Collect, TellsACutFromABreak) {
  const auto closed = [](size_t size) {
    return [size](Visit &visit) {
      const std::string stream = joined(collection());
      visit.sendAcknowledged({stream.substr(0, 16), stream.substr(16, 32)});
      visit.sendBytes(stream.substr(48, size - 48));
    };
  };
  EXPECT_EQ(runAgainst(closed(48)), 1);
  EXPECT_EQ(err(), "kep-collect: cut short at offset 48: the stream ends before the run's last message\n");
  EXPECT_EQ(runAgainst(closed(60)), 1);
  EXPECT_EQ(err(), "kep-collect: cut short at offset 60: the stream ends inside a message\n");
  EXPECT_EQ(runAgainst([](Visit &) {}), 1);
  EXPECT_EQ(err(), "kep-collect: cut short at offset 0: the stream ends before the run's last message\n");

  const auto reset = [](Visit &visit) {
    visit.sendAcknowledged({collection()[0], collection()[1]});
    visit.reset();
  };
  EXPECT_EQ(runAgainst(reset), 4);
  EXPECT_NE(out().find("item 0 log\n"), std::string::npos);
}

TEST_F(Collect, IsBrokenOffByASignal) {
  for (const int signal : {SIGINT, SIGTERM}) {
    const auto behave = [this, signal](Visit &visit) {
      visit.sendAcknowledged({collection()[0], collection()[1]});
      command_->signal(signal);
      visit.serverCloses();
    };
    EXPECT_EQ(runAgainst(behave), 4);
    EXPECT_EQ(err(), "kep-collect: interrupted\n");
    EXPECT_NE(out().find("2 messages, 0 records, 48 bytes, not whole\n"), std::string::npos);
  }
}

TEST_F(Collect, GivesUpWithoutAnAnswer) {
  EXPECT_EQ(run({"127.0.0.1", "--port", port_, "--timeout", "0.05"}), 3) << "nobody connects";
  EXPECT_EQ(err(), "kep-collect: timed out: no connection from 127.0.0.1 port " + port_ + "\n");
  EXPECT_EQ(out(), "");
  const Visit unanswered(socket_);

  const auto silent = [](Visit &visit) {
    visit.sendAcknowledged({collection()[0], collection()[1]});
    visit.serverCloses();
  };
  EXPECT_EQ(runAgainst(silent, {"--timeout", "2"}), 3);
  EXPECT_EQ(err(), "kep-collect: timed out: no more data from the board\n");
  EXPECT_NE(out().find("item 1 caf"), std::string::npos);

  close(std::exchange(socket_, -1));
  EXPECT_EQ(run({"127.0.0.1", "--port", port_}), 3) << "nobody serves";
  EXPECT_NE(err().find("refused"), std::string::npos) << err();
  EXPECT_EQ(run({std::string(64, 'a') + ".invalid"}), 3) << "no such name can exist";
}

TEST_F(Collect, RefusesWrongUsage) {
  const std::string program = KEP_COLLECT_PROGRAM;
  const std::vector<std::vector<std::string>> cases = {
      {},
      {""},
      {"localhost", "extra"},
      {"localhost", "--unknown"},
      {"localhost", "--port", "0"},
      {"localhost", "--port", "65536"},
      {"localhost", "--type", "3"},
      {"localhost", "--type", "-1"},
      {"localhost", "--type", "0", "--selftest"},
      {"localhost", "--sequence", "-1"},
      {"localhost", "--sequence", "2147483648"},
      {"localhost", "--timeout", "0"},
      {"localhost", "--timeout", "nan"},
      {"localhost", "--watch", "-5"},
      {"localhost", "--format", "xml"},
      {"localhost", "--listen", "localhost"},
      {"localhost", "--listen", "192.0.2.1"},
      {"localhost", "--raw", path("no/such/folder")},
      {"--replay", path("none")},
      {"--replay", folder_},
      {"localhost", "--replay", program},
      {"--replay", program, "--raw", path("raw")},
  };
  for (const auto &arguments : cases) {
    EXPECT_EQ(run(arguments), 2) << ::testing::PrintToString(arguments);
    EXPECT_NE(err(), "");
    EXPECT_EQ(out(), "");
  }
}

TEST_F(Collect, TakesEverySequenceABoardAnswers) {
  for (const std::string sequence : {"0", "-2", "-2147483648", "2147483647"}) {
    launch({"127.0.0.1", "--port", port_, "--sequence", sequence});
    {
      Visit visit(socket_);
      const int32_t first = sequence == "0" ? 41 : std::stoi(sequence);  // 0 leaves the number to the board
      EXPECT_EQ(visit.request().substr(8, 4), word(std::stoi(sequence)));
      visit.connectBack();
      visit.sendAcknowledged({message(0, first, "KB12"), message(1, 42, ""), message(2, 43, "")});
    }
    EXPECT_EQ(waitForStatus(), 0) << err();
  }
}

TEST_F(Collect, ReportsOutputItCannotWrite) {
  const auto behave = [](Visit &visit) { visit.sendAcknowledged(collection()); };
  outPath_ = "/dev/full";
  EXPECT_EQ(runAgainst(behave), 4);
  EXPECT_NE(err().find("cannot write"), std::string::npos);
  EXPECT_EQ(run({"--help"}), 4);
  outPath_ = path("out");
  const auto firstOnly = [](Visit &visit) {
    visit.sendBytes(collection()[0]);
    visit.serverCloses();
  };
  EXPECT_EQ(runAgainst(firstOnly, {"--raw", "/dev/full"}), 4);
  EXPECT_NE(err().find("cannot write"), std::string::npos);
}

TEST_F(Collect, WatchesUntilInterrupted) {
  const auto serve = [this](const std::vector<std::string> &messages) {
    Visit visit(socket_);
    visit.connectBack();
    visit.sendAcknowledged(messages);
  };
  const auto launchEvery = [this](const std::string &seconds) {
    launch({"127.0.0.1", "--port", port_, "--sequence", "77", "--format", "csv", "--watch", seconds});
  };
  const auto countOf = [this](const std::string &line) {
    const std::string text = out();
    const std::regex regex(line);
    return std::distance(std::sregex_iterator(text.begin(), text.end(), regex), std::sregex_iterator());
  };

  launchEvery("0.01");
  serve(collection());
  serve({collection()[0]});  // a run that fails does not end the watch
  serve(collection());
  const Visit unanswered(socket_);
  command_->signal(SIGINT);
  EXPECT_EQ(waitForStatus(), 4);
  EXPECT_EQ(countOf("row,item,"), 1);
  EXPECT_EQ(countOf("value,65535,"), 2);

  launchEvery("1000");
  serve(collection());
  for (int i = 0; i < kPatienceMs && countOf("value,65535,") == 0; ++i) usleep(1000);
  command_->signal(SIGINT);
  EXPECT_EQ(waitForStatus(), 0) << "the signal came between two runs";
}

// The names in `text` that `pattern` captures, in order and each once.
TEST_F(Collect, HelpsAsItsManPageDoes) {
  ASSERT_EQ(run({"--help"}), 0);
  const std::string page = contentOf(KEP_COLLECT_MAN_PAGE);
  EXPECT_EQ(namesIn(out(), "--([a-z]+)"), namesIn(page, "Fl (?:h , )?-([a-z]+)"));
  EXPECT_EQ(namesIn(out(), "\n  ([0-9])  "), namesIn(page, "\n\\.It ([0-9])\n"));
}

}  // namespace
