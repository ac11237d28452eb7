// boards_test.cpp: what is known of a board behind each of its runs, and what is an event.

#include "kep-fleet/boards.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "server/board_stream.hpp"

namespace {

using namespace kepfleet;

std::string collection(const std::string &identity, const std::vector<std::string> &items, const std::string &version,
                       bool isCut = false) {
  std::string catalogue, data;
  for (size_t i = 0; i < items.size(); ++i)
    catalogue += board::word(static_cast<int64_t>(i)) + board::counted(items[i]);
  data = board::head(0x83, 0, 0, 4) + board::counted(version) + board::head(0x81, 0, 1, 4) + board::word(-7);
  std::string stream = board::message(0, 5, identity + std::string(2, '\0')) + board::message(1, 1, catalogue) +
                       board::message(2, 2, data);
  return isCut ? stream : stream + board::message(2, 3, "") + board::message(2, 4, "");
}

std::string selfTest(int result) {
  const std::string fan = board::head(0x83, 65535, 0, 0) + board::counted("fan");
  return board::message(0, 5, std::string("\x0B\x01\0\0", 4)) +
         board::message(2, 1, fan + board::head(0x81, 3, 0, 1) + board::word(result)) + board::message(2, 2, "");
}

// "lost: why", one a line.
std::string textOf(const std::vector<Event> &events) {
  std::string text;
  for (const Event &event : events) text += std::string(nameOf(event.kind)) + ": " + event.text + "\n";
  return text;
}

class BoardsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string path = ::testing::TempDir() + "kep-boards-" + std::to_string(getpid()) + ".toml";
    std::ofstream(path) << "[item.system.keys]\n4 = { name = 'v' }\n[item.system]\nreports = true\n[item.disk]\n"
                           "[item.fan.tests]\n1 = { name = 'turns', pass = 1 }\n";
    config.boards = {{"b", "192.0.2.7", 9099, {{"site", "north"}}, path}, {"other", "192.0.2.8", 9099, {}, ""}};
    config.labelFrom = {{"firmware", "system", 0, 4}, {"site", "system", 0, 4}, {"signed", "system", 1, 4}};
    names.load(config);
    std::filesystem::remove(path);
    boards.configure(config);
  }

  Boards::Taken take(kepfleet::Run run) { return boards.take(boards.judge(std::move(run))); }
  BoardState state() const { return *boards.find("b"); }

  Config config;
  NamesBook names;
  Boards boards{names};
};

TEST_F(BoardsTest, FollowsABoardFromRunToRun) {
  const std::string kind("\x0B\x01", 2), otherKind("\x0B\x02", 2);
  const Outcome whole = Outcome::kWhole, damaged = Outcome::kDamaged, none = Outcome::kNoAnswer;
  const std::string good = collection(kind, {"system", "disk"}, "1.0");
  struct Case {
    int type;
    Outcome told;
    std::string stream, reason;
    std::string events, problem;  // behind it
    Outcome outcome;
  };
  const std::vector<Case> cases = {
      {0, none, "", "nothing came", "lost: nothing came\n", "nothing came", none},  // it was never asked before
      {0, whole, good, "", "found: \n", "", whole},
      {3, whole, selfTest(1), "", "", "", whole},
      {0, none, "", "nothing came", "lost: nothing came\n", "nothing came", none},
      {3, none, "", "again", "", "again", none},
      {0, whole, good, "", "found: \n", "", whole},
      {3, whole, selfTest(0), "", "test failed: fan turns: 0\n", "self-test: fan turns: 0", Outcome::kTestFailed},
      {3, none, "", "gone", "lost: gone\n", "gone", none},
      {3, whole, selfTest(0), "", "found: fan turns: 0\n", "self-test: fan turns: 0", Outcome::kTestFailed},
      {0, whole, good, "", "", "self-test: fan turns: 0", whole},
      {3, damaged, "x", "cut short", "", "self-test: cut short", damaged},
      {3, whole, selfTest(1), "", "test passed: \n", "", whole},
      {3, damaged, "x", "cut short", "test failed: cut short\n", "self-test: cut short", damaged},
      {3, whole, selfTest(1), "", "test passed: \n", "", whole},
      {0, damaged, collection(kind, {}, "", true), "cut short", "damaged: cut short\n", "cut short", damaged},
      {0, Outcome::kBrokenOff, "", "timed out", "", "timed out", Outcome::kBrokenOff},
      {1, whole, good, "", "", "timed out", whole},
      {0, whole, collection(kind, {"system"}, "1.0"), "", "item gone: disk\n", "", whole},
      {0, whole, collection(kind, {"system", "a\n\x1B"}, "1.0"), "", "", "", whole},
      {1, whole, collection(otherKind, {"x"}, "1.0"), "",
       "identity changed: 0b01 became 0b02\nitem gone: a\\n\\x1b, system\n", "", whole},
  };
  int64_t time = 1000, since = 0;
  std::string problem = "none yet";
  for (const Case &one : cases) {
    const Boards::Taken taken = take({"b", time, one.type, one.told, 1, 1, one.stream, one.reason, 3});
    const std::string place = "behind " + std::to_string(time / 1000);
    EXPECT_EQ(textOf(taken.events), one.events) << place;
    EXPECT_EQ(nameOf(taken.run.outcome), nameOf(one.outcome)) << place;
    EXPECT_EQ(state().problem, one.problem) << place;
    EXPECT_EQ(state().last[static_cast<size_t>(one.type)]->stream, one.stream) << place;
    const bool isNew = problem.empty() != one.problem.empty() || problem == "none yet";
    if (isNew) since = time;
    if (isNew || problem == one.problem) {
      EXPECT_EQ(state().since, since) << place;
    }
    since = state().since;
    problem = one.problem;
    for (const Event &event : taken.events) EXPECT_EQ(event.time + static_cast<int64_t>(event.lease), time + 3);
    time += 1000;
  }
  EXPECT_EQ(state().identity, otherKind);
  const Boards::Taken back = take({"b", 5, 0, none, 1, 0, "", "the clock was set back", 0});
  EXPECT_EQ(textOf(back.events) + state().problem, "lost: the clock was set back\nthe clock was set back");
}

// Two boards have 128 MiB each.
TEST_F(BoardsTest, HasNoMoreInMemoryThanItsPart) {
  const std::string large(size_t{60} << 20, 'x');
  for (int type = 0; type < 3; ++type) take({"b", 1, type, Outcome::kDamaged, 1, 0, large, "", 0});
  EXPECT_EQ(state().last[1]->stream.size(), large.size());
  EXPECT_EQ(state().last[2]->stream.size(), 0u);
  EXPECT_EQ(sentBytes(*state().last[2]), large.size());
  EXPECT_EQ(take({"b", 2, 0, Outcome::kDamaged, 1, 0, large, "", 0}).run.stream, large) << "what is stored is whole";
  EXPECT_EQ(state().last[0]->stream.size(), large.size()) << "in place of the one before";
  take({"other", 1, 0, Outcome::kDamaged, 1, 0, large, "", 0});
  EXPECT_EQ(boards.find("other")->last[0]->stream.size(), large.size()) << "no matter what another one says";
  boards.recall({"other", 2, 1, Outcome::kWhole, 1, 0, large, "", 0});
  take({"other", 3, 1, Outcome::kBrokenOff, 1, 0, large, "", 0});
  EXPECT_EQ(boards.find("other")->last[1]->leftOut, large.size()) << "the last whole one is there, too";
}

TEST_F(BoardsTest, TakesLabelsFromValuesAndRecallsWhatWasStored) {
  const std::string kind("\x0B\x01", 2);
  const std::string longName = std::string(63, 'x') + "\xC3\xA4";
  EXPECT_EQ(textOf(take({"none", 1, 0, Outcome::kWhole, 1, 1, "", "", 0}).events), "");
  const uint64_t version = boards.version();
  boards.recall({"b", 2000, 0, Outcome::kNoAnswer, 1, 0, "", "away", 0});
  boards.recall({"b", 1000, 0, Outcome::kWhole, 1, 5, collection(kind, {"system"}, longName), "", 0});
  EXPECT_NE(boards.version(), version);
  const Labels labels = {{"site", "north"}, {"firmware", std::string(63, 'x')}, {"signed", "-7"}};
  EXPECT_EQ(state().labels, labels);
  EXPECT_EQ(state().problem, "away");
  EXPECT_EQ(state().answers, false);
  EXPECT_EQ(state().lastWhole[0]->started, 1000);
  EXPECT_EQ(textOf(take({"b", 3000, 0, Outcome::kDamaged, 1, 0, "", "why", 0}).events), "found: why\ndamaged: why\n");

  config.boards = {{"new", "192.0.2.9", 9099, {}, ""}, {"b", "192.0.2.7", 9099, {{"site", "south"}}, ""}};
  config.labelFrom.pop_back();
  boards.configure(config);
  EXPECT_EQ(state().labels.size() + boards.count(), 4u);
  EXPECT_EQ(state().labels.at("site"), "south");
  EXPECT_EQ(state().problem, "why");
  EXPECT_FALSE(boards.find("other"));
  boards.setHeld("new", false);
  boards.setHeld("other", false);
  EXPECT_FALSE(boards.all()[0].isHeld);
  EXPECT_TRUE(boards.all()[1].isHeld);
}

}  // namespace
