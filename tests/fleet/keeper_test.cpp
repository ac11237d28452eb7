// keeper_test.cpp: the keeper, with a store that fails and hangs.

#include "kep-fleet/keeper.hpp"

#include <gtest/gtest.h>

#include <array>

#include "memory_store.hpp"

namespace {

using namespace kepfleet;
using std::chrono::milliseconds;

class KeeperTest : public ::testing::Test {
 protected:
  void put(int64_t first, int64_t count, uint64_t lease = 0) {
    for (int64_t i = first; i < first + count; ++i) {
      keeper.put({"b", i, 0, Outcome::kWhole, 1, 1, std::string(1000, 'x'), "", lease},
                 {{"b", i, EventKind::kLost, "", lease}});
    }
  }
  std::vector<int64_t> times() const {
    std::vector<int64_t> all;
    for (const auto &run : memory->runs) all.push_back(run.started);
    return all;
  }
  static std::vector<int64_t> sequence(int64_t first, int64_t count) {
    std::vector<int64_t> all;
    for (int64_t i = first; i < first + count; ++i) all.push_back(i);
    return all;
  }

  const std::shared_ptr<Memory> memory = std::make_shared<Memory>();
  Keeper keeper{std::make_unique<MemoryStore>(memory), 4 << 20, {{-1, milliseconds(1)}, {0, milliseconds(1)}}};
};

TEST_F(KeeperTest, WritesInBatchesAndAllAtTheEnd) {
  put(0, 1);
  EXPECT_TRUE(memory->waitFor([](const Memory &m) { return m.runs.size() == 1; })) << "also a single one, in time";
  EXPECT_TRUE(memory->waitFor([](const Memory &m) { return m.removals == std::map<int, int>{{-1, 2}, {0, 2}}; }));
  put(1, 2500);
  put(2501, 10, 99);
  EXPECT_TRUE(keeper.stop(milliseconds(60'000)));
  EXPECT_EQ(times(), sequence(0, 2501));
  EXPECT_EQ(memory->events.size(), 2501u);
  EXPECT_LE(*std::max_element(memory->batches.begin(), memory->batches.end()), 1000u);
  EXPECT_LE(memory->batches.size(), 20u);
  EXPECT_EQ(keeper.status().refusedRuns, 10u);
  EXPECT_EQ(keeper.status().refusedEvents, 10u);
  EXPECT_EQ(keeper.status().waitingBytes + keeper.status().waitingRuns, 0u);
}

TEST_F(KeeperTest, KeepsTheNewestWhileTheStoreFails) {
  memory->set([](Memory &m) { m.fails = true; });
  put(0, 1000);
  while (keeper.status().problem.empty()) std::this_thread::sleep_for(milliseconds(1));
  EXPECT_EQ(keeper.status().problem, "the disk is full");
  put(1000, 9000);
  const Keeper::Status status = keeper.status();
  EXPECT_LE(status.waitingBytes, size_t{4} << 20);
  EXPECT_GT(status.waitingBytes, size_t{3} << 20);
  EXPECT_EQ(status.waitingRuns + status.droppedRuns, 10'000u);
  memory->set([](Memory &m) { m.fails = false; });
  const size_t rest = status.waitingRuns;
  EXPECT_TRUE(memory->waitFor([rest](const Memory &m) { return m.runs.size() == rest; }));
  EXPECT_TRUE(keeper.stop(milliseconds(60'000)));
  EXPECT_EQ(times(), sequence(10'000 - static_cast<int64_t>(rest), static_cast<int64_t>(rest)));
  EXPECT_EQ(keeper.status().problem, "");
}

TEST_F(KeeperTest, EndsWithAStoreThatDoesNot) {
  memory->set([](Memory &m) { m.hangs = true; });
  put(0, 1000);
  EXPECT_FALSE(keeper.stop(milliseconds(50)));
  memory->set([](Memory &m) { m.hangs = false, m.fails = true; });
  EXPECT_FALSE(keeper.stop(milliseconds(60'000)));
  EXPECT_EQ(keeper.status().droppedRuns, 1000u);
}

TEST_F(KeeperTest, TellsThatOldRunsStay) {
  memory->set([](Memory &m) { m.fails = true; });
  while (keeper.status().removal.empty()) std::this_thread::sleep_for(milliseconds(1));
  EXPECT_EQ(keeper.status().removal, "the disk is full");
  EXPECT_EQ(keeper.status().problem, "") << "nothing waited for it";
}

// What is stored outlives a clock that jumps ahead, and one that was wrong at the start, by a day.
TEST(PatientClockTest, BelievesAfterADay) {
  constexpr int64_t hour = 3'600'000, start = 500'000 * hour;
  const struct {
    std::optional<int64_t> newest;
    std::vector<std::array<int64_t, 3>> looks;  // hours: of uptime, of the clock since the start, and what is believed
  } cases[] = {
      {{}, {{5, 0, 0}, {6, 1, 1}, {7, 3, 3}, {8, 999, 4}, {9, 5, 5}, {10, 999, 6}, {33, 1022, 29}, {34, 1023, 1023}}},
      {{}, {{0, 9000, 9000}, {1, 1, 1}, {2, 2, 2}}},
      {start, {{0, 200, 0}, {23, 223, 23}, {24, 224, 224}}},
      {start + 99 * hour, {{0, 0, 0}, {1, -999, -999}, {2, 2, -998}}},
  };
  for (const auto &one : cases) {
    PatientClock clock(one.newest);
    for (const auto &[uptime, wall, believed] : one.looks) {
      EXPECT_EQ((clock.now(start + wall * hour, milliseconds(uptime * hour)) - start) / hour, believed) << uptime;
    }
  }
}

}  // namespace
