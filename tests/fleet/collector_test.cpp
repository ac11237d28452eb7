// collector_test.cpp: the collector against boards of every manner, all at the same time.

#include "kep-fleet/collector.hpp"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <map>
#include <memory>
#include <vector>

#include "played_board.hpp"

namespace {

using namespace kepfleet;
using std::chrono::milliseconds;

Limits shortLimits() {
  Limits limits;
  limits.connect = milliseconds(4000);
  limits.silence = milliseconds(3000);
  limits.run = milliseconds(8000);
  limits.runBytes = 20'000;
  return limits;
}

void sayAll(const Connection &connection, const std::vector<std::string> &messages) {
  for (const std::string &message : messages) {
    if (!connection.isAcknowledged(message)) return;
  }
}

std::vector<std::string> collectionFor(const Request &request) {
  return answering(board::collection(), request.number);
}

class CollectorTest : public ::testing::Test {
 protected:
  void ask(const std::string &name, uint16_t port, int type = 0, const std::string &host = "127.0.0.1") {
    ++open_;
    collector.ask({name, host, port, type, 5}, [this](kepfleet::Run &&run) {
      EXPECT_EQ(runs.count(run.board), 0u) << run.board << " ends twice";
      runs[run.board] = run;
      if (--open_ == 0) context.stop();
    });
  }

  void runAll() {
    context.restart();
    context.run_for(std::chrono::seconds(100));
    ASSERT_EQ(open_, 0);
  }

  asio::io_context context;
  Collector collector{context, "127.0.0.1", 0, shortLimits()};
  std::map<std::string, kepfleet::Run> runs;
  int open_ = 0;
};

TEST_F(CollectorTest, TellsWhatBecomesOfEveryMannerOfBoard) {
  const std::string data = board::message(2, 43, board::head(0x81, 0, 0, 1) + board::word(7));
  struct Case {
    std::string name;
    PlayedBoard::Script script;
    Outcome outcome;
    std::string reason;
    uint32_t messages = 0;
  };
  const std::vector<Case> cases = {
      {"good", PlayedBoard::answer, Outcome::kWhole, "", 8},
      {"behind address translation",
       [](const Request &r) { sayAll(Connection(r.port, INADDR_LOOPBACK + 7), collectionFor(r)); }, Outcome::kWhole, "",
       8},
      {"byte by byte",
       [](const Request &r) {
         const Connection c(r.port);
         for (const char byte : board::joined(collectionFor(r))) c.say({&byte, 1});
         for (int acknowledged = 0; acknowledged < 8;) acknowledged += static_cast<int>(c.hear());
       },
       Outcome::kWhole, "", 8},
      {"two connections",
       [](const Request &r) {
         const Connection first(r.port), second(r.port);
         const auto messages = collectionFor(r);
         EXPECT_TRUE(first.isAcknowledged(messages[0]));
         second.say(messages[0]);
         EXPECT_LE(second.hear(), 0);
         sayAll(first, {messages.begin() + 1, messages.end()});
       },
       Outcome::kWhole, "", 8},
      {"a stranger first",
       [](const Request &r) {
         const Connection stranger(r.port);
         stranger.say(board::message(0, r.number + 1, "KB12"));
         EXPECT_LE(stranger.hear(), 0);
         PlayedBoard::answer(r);
       },
       Outcome::kWhole, "", 8},
      {"dead", [](const Request &) {}, Outcome::kNoAnswer, "no connection from the board"},
      {"silent from the start", [](const Request &r) { Connection(r.port).pause(5000); }, Outcome::kNoAnswer,
       "no connection from the board"},
      {"garbage from the start", [](const Request &r) { Connection(r.port).say(std::string(5000, 'x')); },
       Outcome::kNoAnswer, "no connection from the board"},
      {"garbage later",
       [](const Request &r) {
         sayAll(Connection(r.port), {collectionFor(r)[0], std::string(5000, '\xFE')});
       },
       Outcome::kDamaged, "damaged at offset 16: a message length of -16843010 is not within 12 to 1036", 1},
      {"closes early",
       [](const Request &r) {
         sayAll(Connection(r.port), {collectionFor(r)[0], collectionFor(r)[1]});
       },
       Outcome::kDamaged, "cut short at offset", 2},
      {"falls silent",
       [](const Request &r) {
         const Connection c(r.port);
         sayAll(c, {collectionFor(r)[0]});
         c.hear();
       },
       Outcome::kBrokenOff, "timed out: no more data from the board", 1},
      {"trickles",
       [](const Request &r) {
         const Connection c(r.port);
         for (const char byte : board::joined(collectionFor(r)).substr(0, 40)) {
           if (!c.say({&byte, 1})) return;
           c.pause(300);
         }
       },
       Outcome::kBrokenOff, "timed out: the run takes too long", 1},
      {"resets",
       [](const Request &r) {
         const Connection c(r.port);
         sayAll(c, {collectionFor(r)[0]});
         const linger now = {1, 0};
         setsockopt(c.fd, SOL_SOCKET, SO_LINGER, &now, sizeof now);
       },
       Outcome::kBrokenOff, "the connection broke: Connection reset by peer", 1},
      {"never ends",
       [&data](const Request &r) {
         const Connection c(r.port);
         sayAll(c, {collectionFor(r)[0], collectionFor(r)[1]});
         for (int32_t i = 43; c.isAcknowledged(board::message(2, i, data.substr(12))); ++i) continue;
       },
       Outcome::kBrokenOff, "the run goes on beyond 20000 bytes", 690},
  };
  std::vector<std::unique_ptr<PlayedBoard>> boards;
  for (const Case &one : cases) {
    boards.push_back(std::make_unique<PlayedBoard>(one.script));
    ask(one.name, boards.back()->port);
  }
  const PlayedBoard tested(PlayedBoard::answer);
  ask("self-test", tested.port, 3);
  ask("refuses", 1);
  ask("no name", 1, 0, "no-such-name.invalid");
  ask("not to be reached", 1, 0, "255.255.255.255");
  runAll();
  for (const Case &one : cases) {
    const kepfleet::Run &run = runs[one.name];
    EXPECT_EQ(nameOf(run.outcome), nameOf(one.outcome)) << one.name << ": " << run.reason;
    EXPECT_EQ(run.reason.substr(0, one.reason.size()), one.reason) << one.name;
    EXPECT_EQ(run.messages, one.messages) << one.name;
    EXPECT_EQ(run.lease, 5u);
  }
  const std::string stream = board::joined(board::collection());
  EXPECT_EQ(runs["good"].stream.substr(12), stream.substr(12));
  EXPECT_EQ(runs["good"].stream, runs["byte by byte"].stream.replace(8, 4, runs["good"].stream.substr(8, 4)));
  EXPECT_EQ(runs["self-test"].outcome, Outcome::kWhole) << runs["self-test"].reason;
  EXPECT_EQ(runs["refuses"].reason, "no connection from the board");
  EXPECT_EQ(runs["no name"].reason.substr(0, 22), "no-such-name.invalid: ");
  EXPECT_EQ(runs["not to be reached"].reason, "cannot send the request: Permission denied");
  EXPECT_EQ(collector.strangers(), 4u);
  EXPECT_EQ(collector.underWay(), 0u);
}

TEST_F(CollectorTest, BreaksOffWhatItIsTold) {
  const PlayedBoard dead([](const Request &) {});
  for (const char *const name : {"a", "b", "c"}) ask(name, dead.port);
  collector.cancel("b", "not now");
  EXPECT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs["b"].reason, "not now");
  collector.cancelAll("the end");
  EXPECT_EQ(runs["a"].outcome, Outcome::kBrokenOff);
  EXPECT_EQ(runs["c"].reason, "the end");
  context.run_for(milliseconds(10));  // what was on its way finds nobody
}

size_t openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

TEST_F(CollectorTest, StandsAFlood) {
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit most = {before.rlim_max, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &most);
  const PlayedBoard board(PlayedBoard::answer);
  const size_t descriptors = openDescriptors();
  {
    std::vector<std::unique_ptr<Connection>> flood;
    for (int i = 0; i < 2000; ++i) {
      flood.push_back(std::make_unique<Connection>(collector.port()));
      context.poll();
    }
    ask("in the flood", board.port);
    runAll();
    EXPECT_EQ(runs["in the flood"].outcome, Outcome::kWhole) << runs["in the flood"].reason;
    EXPECT_LE(openDescriptors(), descriptors + 2000 + 1024);
  }
  context.restart();
  for (int i = 0; i < 1000 && collector.strangers() < 2000; ++i) context.run_for(milliseconds(20));  // all have hung up
  EXPECT_EQ(collector.strangers(), 2000u);
  EXPECT_LE(openDescriptors(), descriptors + 2);

  // Nobody can be accepted for a while.
  const Connection waiting(collector.port());
  const rlimit none = {openDescriptors(), before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  context.run_for(milliseconds(300));
  setrlimit(RLIMIT_NOFILE, &most);
  ask("behind it", board.port);
  runAll();
  EXPECT_EQ(runs["behind it"].outcome, Outcome::kWhole) << runs["behind it"].reason;
  setrlimit(RLIMIT_NOFILE, &before);
}

}  // namespace
