// schedule_test.cpp: the schedule over simulated time, in which a fleet of boards of several manners answers.

#include "kep-fleet/schedule.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace kepfleet;

constexpr Moment kSecond{1000};
constexpr Moment kPeriod = 15 * kSecond;

struct Manner {
  Moment takes{10};
  bool answers = true;
};

struct Asking {
  Moment at, due;
  int type;
};

class ScheduleModel : public ::testing::Test {
 protected:
  void add(const std::string &board, Manner manner, const std::vector<Interval> &intervals) {
    manners_[board] = manner;
    schedule.put(board, intervals, now, Moment(1000));
  }

  // What happens up to then, in order: runs end, and whatever is due begins.
  void runUntil(Moment end) {
    for (;;) {
      const auto ending = std::min_element(underWay_.begin(), underWay_.end(),
                                           [](const auto &a, const auto &b) { return a.second.ends < b.second.ends; });
      const Moment ends = ending == underWay_.end() ? Moment::max() : std::max(ending->second.ends, now);
      const Moment begins = std::max(schedule.next().value_or(Moment::max()), now);
      now = std::min({ends, begins, end});
      if (now == end) return;
      if (ends <= begins) {
        schedule.end(ending->first, ending->second.asked, now, manners_[ending->first].answers);
        underWay_.erase(ending);
      } else if (const auto due = schedule.take(now)) {
        EXPECT_TRUE(underWay_.emplace(due->board, UnderWay{now, now + manners_[due->board].takes}).second)
            << due->board;
        asked[due->board].push_back({now, due->due, due->type});
      }
    }
  }

  std::vector<Moment> gaps(const std::string &board) const {
    std::vector<Moment> found;
    const auto &all = asked.at(board);
    for (size_t i = 3; i < all.size(); ++i) found.push_back((all[i].at - all[i - 1].at) / kSecond * kSecond);
    return found;
  }

  size_t askedBetween(Moment from, Moment to) const {
    size_t count = 0;
    for (const auto &[board, all] : asked) {
      count += static_cast<size_t>(
          std::count_if(all.begin(), all.end(), [&](const Asking &a) { return a.at >= from && a.at < to; }));
    }
    return count;
  }

  Moment now{1'000'000'000};
  const Moment start = now;
  Schedule schedule{300 * kSecond};
  std::map<std::string, std::vector<Asking>> asked;

 private:
  struct UnderWay {
    Moment asked, ends;
  };
  std::map<std::string, Manner> manners_;
  std::map<std::string, UnderWay> underWay_;
};

TEST_F(ScheduleModel, SpreadsAFleetOverThePeriodAndCatchesNothingUp) {
  for (int i = 0; i < 1500; ++i) add("board " + std::to_string(i), {}, {{0, kPeriod}});
  runUntil(start + 2 * kSecond);
  EXPECT_GE(askedBetween(start, now), 1500u) << "all are soon known";
  runUntil(start + 10 * kPeriod);
  for (const auto &[board, all] : asked) {
    for (size_t i = 2; i < all.size(); ++i) EXPECT_EQ(all[i].at - all[i - 1].at, kPeriod) << board;
    for (const Asking &one : all) EXPECT_EQ(one.at, one.due) << board;
  }
  for (Moment from = start + kPeriod; from < now; from += kSecond) {
    EXPECT_NEAR(static_cast<double>(askedBetween(from, from + kSecond)), 100, 50);
  }
  EXPECT_EQ(schedule.skipped(), 0u);
  now += 100 * kSecond;  // nobody was there to ask
  const Moment woken = now;
  runUntil(woken + Moment(20));
  EXPECT_LT(askedBetween(woken, now), 500u) << "at most a quarter";
  EXPECT_GT(schedule.skipped(), 1500u * 5);
  runUntil(woken + kPeriod);
  EXPECT_NEAR(static_cast<double>(askedBetween(woken, now)), 1500, 400) << "each once, in its own time";
}

TEST_F(ScheduleModel, AsksTheDeadLessOftenAndTheSlowNoTwoThingsAtATime) {
  add("dead", {5 * kSecond, false}, {{0, kPeriod}, {3, 3600 * kSecond}});
  add("slow", {20 * kSecond, true}, {{0, kPeriod}});
  add("busy", {5 * kSecond, true}, {{0, kPeriod}, {1, kPeriod}, {3, 600 * kSecond}});
  add("rare", {}, {{0, 3600 * kSecond}});
  runUntil(start + 7200 * kSecond);

  std::vector<Moment> pauses = gaps("dead");
  ASSERT_GT(pauses.size(), 15u);
  for (Moment pause = 4 * kPeriod; pauses.front() >= pause; pause = std::min(2 * pause, 300 * kSecond)) {
    EXPECT_LT(pauses.front(), pause + kPeriod + kSecond);
    pauses.erase(pauses.begin());
    if (pauses.empty()) break;
  }
  EXPECT_TRUE(pauses.empty()) << pauses.front().count();
  const auto &dead = asked["dead"];
  EXPECT_EQ(std::count_if(dead.begin(), dead.end(), [](const Asking &a) { return a.type == 3; }), 2);

  EXPECT_EQ(gaps("slow"), std::vector<Moment>(asked["slow"].size() - 3, 2 * kPeriod)) << "every other time is skipped";
  std::map<int, int> counts;
  for (const Asking &one : asked["busy"]) {
    ++counts[one.type];
    EXPECT_LE(one.at - one.due, 10 * kSecond);
  }
  EXPECT_EQ(counts[3], 12) << "no self-test is lost because the board was busy";
  EXPECT_GE(counts[0] + counts[1], 880);
  EXPECT_GE(asked["rare"].size(), 2u);
}

TEST_F(ScheduleModel, FollowsWhatIsChangedAndAskedBesideIt) {
  add("a", {}, {{0, kPeriod}});
  add("b", {5 * kSecond, false}, {{0, kPeriod}});
  runUntil(start + 600 * kSecond);
  EXPECT_FALSE(schedule.begin("c"));
  ASSERT_TRUE(schedule.begin("b"));
  EXPECT_FALSE(schedule.begin("b"));
  schedule.put("b", {{0, kPeriod}}, now, kSecond);  // as it was: it stays busy
  EXPECT_FALSE(schedule.begin("b"));
  const size_t before = asked["b"].size();
  schedule.end("b", now, now, true);  // it answers again, and is asked as ever
  runUntil(now + kPeriod + Moment(1));
  EXPECT_GT(asked["b"].size(), before);

  schedule.put("a", {{1, 2 * kPeriod}}, now, kSecond);
  asked.clear();
  runUntil(now + 10 * kPeriod);
  EXPECT_EQ(asked["a"].size(), 5u);
  EXPECT_EQ(asked["a"][0].type, 1);
  schedule.remove("a");
  schedule.remove("a");
  EXPECT_EQ(schedule.boards(), std::vector<std::string>{"b"});
  asked.clear();
  runUntil(now + 10 * kPeriod);
  EXPECT_EQ(asked.count("a"), 0u);
}

}  // namespace
