// fleet_test.cpp: the server as a whole, with boards that the test plays and a store that it steers.

#include "kep-fleet/fleet.hpp"

#include <gtest/gtest.h>

#include <condition_variable>
#include <future>

#include "memory_store.hpp"
#include "played_board.hpp"

namespace {

using namespace kepfleet;
using std::chrono::milliseconds;

class FleetTest : public ::testing::Test {
 protected:
  Config configOf(const std::vector<const PlayedBoard *> &boards) {
    Config config;
    for (const PlayedBoard *const board : boards) {
      BoardConfig one;
      one.name = std::string(1, static_cast<char>('a' + config.boards.size()));
      one.host = "127.0.0.1";
      one.port = board->port;
      config.boards.push_back(one);
    }
    config.polls = {{0, milliseconds(200), {}}};
    config.listenAddress = "127.0.0.1";
    config.listenPort = 0;
    config.limits.connect = milliseconds(5000);
    config.lease = milliseconds(1000);
    return config;
  }

  std::unique_ptr<Fleet> start(const Config &config, bool isShared = false) {
    auto fleet =
        std::make_unique<Fleet>(config, [this, isShared](const std::string & /*where*/, milliseconds /*patience*/) {
          return std::make_unique<MemoryStore>(memory, isShared);
        });
    fleet->start();
    return fleet;
  }

  static ptrdiff_t countOf(const Memory &m, const std::string &board) {
    return std::count_if(m.runs.begin(), m.runs.end(), [&](const auto &run) { return run.board == board; });
  }
  bool waitForRuns(size_t count, const std::string &board = "a") {
    return memory->waitFor([&](const Memory &m) { return countOf(m, board) >= static_cast<ptrdiff_t>(count); });
  }
  ptrdiff_t storedOf(const std::string &board) {
    const std::lock_guard<std::mutex> lock(memory->mutex);
    return countOf(*memory, board);
  }

  size_t stored() {
    const std::lock_guard<std::mutex> lock(memory->mutex);
    return memory->runs.size();
  }

  const std::shared_ptr<Memory> memory = std::make_shared<Memory>();
  const PlayedBoard good{PlayedBoard::answer};
  const PlayedBoard slow{[](const Request &r) {
    const Connection connection(r.port);
    connection.isAcknowledged(answering(board::collection(), r.number)[0]);
    connection.hear();  // until it is broken off
  }};
};

TEST_F(FleetTest, AsksOnScheduleAndOnDemandAndFollowsTheConfiguration) {
  Config config = configOf({&good, &slow});
  const auto fleet = start(config);
  EXPECT_TRUE(waitForRuns(4));
  std::promise<kepfleet::Run> tested, probed;
  const auto keep = [](std::promise<kepfleet::Run> &to) {
    return [&to](const kepfleet::Run &run) { to.set_value(run); };
  };
  Asked asked = Asked::kBusy;
  while ((asked = fleet->ask("a", 3, keep(tested))) == Asked::kBusy) continue;
  EXPECT_EQ(asked, Asked::kYes);
  EXPECT_EQ(tested.get_future().get().outcome, Outcome::kWhole);
  EXPECT_EQ(fleet->ask("b", 0, nullptr), Asked::kBusy);
  EXPECT_EQ(fleet->ask("c", 0, nullptr), Asked::kUnknown);
  EXPECT_EQ(fleet->probe("127.0.0.1", good.port, 0, nullptr), Asked::kBusy) << "a board of the configuration";
  EXPECT_EQ(fleet->probe("localhost", good.port, 0, nullptr), Asked::kBusy) << "whatever it is called";
  const PlayedBoard elsewhere(PlayedBoard::answer);
  EXPECT_EQ(fleet->probe("127.0.0.1", elsewhere.port, 0, keep(probed)), Asked::kYes);
  EXPECT_EQ(probed.get_future().get().messages, 8u);

  Config broken = config;
  broken.namesDir = "/none";
  EXPECT_THROW(fleet->reload(broken), ConfigError);
  EXPECT_EQ(fleet->boards().count(), 2u);
  std::swap(config.boards[0].port, config.boards[1].port);  // a's run under way, if any, and b's are broken off
  config.boards.push_back(config.boards[0]);
  config.boards.back().name = "new";
  config.boards.back().port = elsewhere.port;
  fleet->reload(config);
  EXPECT_TRUE(waitForRuns(2, "b"));
  EXPECT_TRUE(waitForRuns(2, "new"));
  config.boards.resize(1);
  fleet->reload(config);
  EXPECT_EQ(fleet->health().heldBoards, 1u);

  const auto before = std::chrono::steady_clock::now();
  const Health health = fleet->health();
  EXPECT_EQ(fleet->stop(), Fleet::End::kGood);
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(20));
  EXPECT_EQ(fleet->ask("a", 0, nullptr), Asked::kEnding);
  EXPECT_GE(health.startedRuns, health.wholeRuns);
  EXPECT_GE(stored(), health.wholeRuns) << "all is stored that came before the end";
  for (const auto &run : memory->runs) EXPECT_NE(run.outcome, Outcome::kBrokenOff) << run.board << run.reason;
}

TEST_F(FleetTest, LooksAtALargeRunBesideAllElse) {
  std::string numbers, run = board::message(1, 1, board::word(0) + board::counted("log"));
  for (int i = 0; i < 60; ++i) numbers += board::head(0x81, 0, i, i) + board::word(i);
  for (int32_t i = 2; i < 4000; ++i) run += board::message(2, i, i < 3998 ? numbers : "");
  std::atomic<int> sent{0};
  const PlayedBoard large([&](const Request &r) {
    const Connection connection(r.port);
    connection.say(board::message(0, r.number, std::string("KB\0\0", 4)));
    std::thread heard([&] {
      while (connection.hear() > 0) continue;
    });
    connection.say(run);
    shutdown(connection.fd, SHUT_WR);
    heard.join();
    ++sent;
  });
  Config config = configOf({&good, &large});
  config.limits.connect = milliseconds(5000);
  config.labelFrom = {{"last", "log", 59, 59}};
  const auto waitUntilSent = [&sent](int times) {
    while (sent < times) std::this_thread::sleep_for(milliseconds(1));
  };
  const auto fleet = start(config);
  waitUntilSent(1);
  int answers = 0;
  for (; fleet->boards().find("b")->labels.count("last") == 0; ++answers) {
    EXPECT_EQ(fleet->ask("nobody", 0, nullptr), Asked::kUnknown);
    std::this_thread::sleep_for(milliseconds(1));
  }
  EXPECT_GT(answers, 10) << "others are served meanwhile";
  EXPECT_TRUE(waitForRuns(1, "b"));
  Config without = config;
  without.boards.resize(1);
  fleet->reload(without);
  while (fleet->health().refusedRuns == 0) {  // a run of a board that is none any more when it has been looked at
    fleet->reload(config);
    waitUntilSent(sent + 1);
    fleet->reload(without);
  }
  fleet->reload(config);
  const ptrdiff_t before = storedOf("b");
  waitUntilSent(sent + 1);
  EXPECT_NE(fleet->stop(), Fleet::End::kLost);
  EXPECT_GT(storedOf("b"), before) << "looked at or not";
}

TEST_F(FleetTest, AsksOnlyUnderALease) {
  const auto fleet = start(configOf({&good, &good, &slow}), true);
  const auto lease = [](const std::string &board, uint64_t number) { return kepfleet::Lease{board, number}; };
  EXPECT_TRUE(memory->waitFor([](const Memory &m) { return m.renewals > 0; }));
  EXPECT_EQ(fleet->ask("a", 0, nullptr), Asked::kNotHeld);
  memory->set([&](Memory &m) { m.leases = {lease("a", 7), lease("c", 8)}; });
  EXPECT_TRUE(waitForRuns(3));
  while (fleet->health().runsUnderWay == 0) std::this_thread::sleep_for(milliseconds(1));  // c's, which is slow
  EXPECT_EQ(fleet->ask("b", 0, nullptr), Asked::kNotHeld);

  memory->set([&](Memory &m) { m.leases = {lease("b", 9)}; });
  EXPECT_TRUE(waitForRuns(3, "b"));
  EXPECT_EQ(fleet->ask("a", 0, nullptr), Asked::kNotHeld);
  EXPECT_LE(fleet->health().runsUnderWay, 1u) << "c's run is broken off";
  memory->set([](const Memory &m) {
    for (const auto &run : m.runs) EXPECT_EQ(run.lease, run.board == "a" ? 7u : 9u) << run.board;
  });

  memory->set([](Memory &m) { m.hangs = true; });  // cut off: nobody says that the lease has ended
  while (fleet->health().heldBoards > 0) std::this_thread::sleep_for(milliseconds(1));
  EXPECT_FALSE(fleet->boards().find("b")->isHeld);
  EXPECT_EQ(fleet->health().runsUnderWay, 0u);
  const uint64_t startedRuns = fleet->health().startedRuns;
  std::this_thread::sleep_for(milliseconds(500));
  EXPECT_EQ(fleet->health().startedRuns, startedRuns) << "nobody is asked";
  memory->set([](Memory &m) { m.hangs = false, m.fails = true; });
  while (fleet->health().leases.empty()) std::this_thread::sleep_for(milliseconds(1));
  const size_t before = stored();
  memory->set([](Memory &m) { m.fails = false; });
  EXPECT_TRUE(waitForRuns(before + 3, "b"));
  EXPECT_EQ(fleet->stop(), Fleet::End::kGood);
  EXPECT_TRUE(memory->isReleased);
}

}  // namespace
