// One set of tests for both kinds of store. What they use of SQL is what every database has.

#include "kep-fleet/store.hpp"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "kep-fleet/database.hpp"
#include "kep-fleet/schema.hpp"
#include "postgres_server.hpp"

using namespace kepfleet;

namespace {

constexpr int64_t kDay = 86'400'000, kStart = 20'000 * kDay;

// What a board of a kind says: numbers that change by little, and some bytes that nothing can compress.
std::string streamOf(std::mt19937 &random, char kind, size_t noise = 0) {
  std::string stream("\0\0\0\x10\0\0\0\0", 8);
  for (int i = 0; i < 4; ++i) stream += static_cast<char>(random());
  stream += std::string(2, kind) + std::string(2, '\0');
  for (int i = 0; i < 60; ++i) {
    stream += "\x81item" + std::string(1, static_cast<char>(kind + i)) + std::to_string(kind * 1000 + i * 7);
    stream += static_cast<char>(random());
  }
  while (noise-- > 0) stream += static_cast<char>(random());
  return stream;
}

Run runOf(const std::string &board, int64_t started, std::string stream = "", int type = 0) {
  Run run;
  run.board = board;
  run.started = started;
  run.type = type;
  run.stream = std::move(stream);
  return run;
}

std::string textOf(const Run &run, bool withStream) {
  std::ostringstream text;
  text << run.board << '|' << run.started << '|' << run.type << '|' << int(run.outcome) << '|' << run.duration << '|'
       << run.messages << '|' << run.reason << '|' << (withStream ? run.stream : "");
  return text.str();
}
std::string textOf(const Event &event) {
  return event.board + '|' + std::to_string(event.time) + '|' + std::to_string(int(event.kind)) + '|' + event.text;
}

using Texts = std::vector<std::string>;

Texts ask(Store &store, const RunQuery &query) {
  Texts texts;
  store.runs(query, [&](StoredRun &&found) {
    EXPECT_EQ(query.withStreams ? found.bytes : 0, found.run.stream.size());
    texts.push_back(textOf(found.run, query.withStreams));
    return true;
  });
  return texts;
}

RunQuery allOf(const std::string &board) {
  RunQuery query;
  query.board = board;
  query.withStreams = true;
  return query;
}
size_t countRuns(Store &store, const std::string &board) { return ask(store, allOf(board)).size(); }

// As long as this is there, no file may become larger.
class FullDisk {
 public:
  explicit FullDisk(size_t bytes) {
    signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit full = {bytes, before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
  }
  ~FullDisk() { setrlimit(RLIMIT_FSIZE, &before_); }

 private:
  rlimit before_{};
};

}  // namespace

class StoreTest : public testing::TestWithParam<const char *> {
 protected:
  using Run = kepfleet::Run;  // not the test's own

  void SetUp() override {
    char folder[] = "/tmp/kep-store.XXXXXX";
    folder_ = mkdtemp(folder);
    where_ = folder_ + "/new/folders/fleet.db";
    if (!isSqlite()) {
      static int number = 0;
      where_ = PostgresServer::instance().database("test" + std::to_string(++number));
      if (where_.empty()) GTEST_SKIP() << "PostgreSQL is not installed";
    }
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  bool isSqlite() const { return GetParam() == std::string("Sqlite"); }
  std::unique_ptr<Database> raw() const {
    return isSqlite() ? openSqlite(where_, Access::kWrite) : openPostgres(where_, Access::kWrite, kStorePatience);
  }
  int64_t number(const std::string &sql) const {
    int64_t value = -1;
    raw()->execute(sql, {}, [&](const Row &row) { value = row.integer(0); });
    return value;
  }

  std::string folder_, where_;
};

INSTANTIATE_TEST_SUITE_P(, StoreTest, testing::Values("Sqlite", "Postgresql"),
                         [](const auto &each) { return std::string(each.param); });

// Whatever was written is found by every query as a plain list finds it.
TEST_P(StoreTest, AnswersAsAListDoes) {
  std::mt19937 random(7);
  std::vector<Run> runs;
  std::vector<Event> events;
  const auto store = openStore(where_), reader = openStoreToRead(where_);
  for (int batch = 0; batch < 12; ++batch) {
    std::vector<Run> some;
    std::vector<Event> told;
    for (int i = 0; i < 70; ++i) {
      const std::string board = "board \"" + std::to_string(random() % 5) + "\" \xff";
      Run run =
          runOf(board, kStart + batch * kDay / 4 + i * 60'000 + int64_t(random() % 50'000), "", int(random() % 4));
      run.outcome = static_cast<Outcome>(random() % 5);
      run.duration = uint32_t(random() % 60'000);
      run.messages = uint32_t(random() % 2'000);
      if (random() % 4 != 0) run.stream = streamOf(random, "AB"[random() % 2], random() % 10 == 0 ? 100'000 : 0);
      if (random() % 9 == 0) run.stream.resize(run.stream.size() % 20);
      if (!isWhole(run)) run.reason = std::string("no\0thing ", 9) + char(random());
      some.push_back(run);
      if (random() % 4 == 0) told.push_back({board, run.started, EventKind(random() % 7), run.reason, 0});
    }
    const Written written = store->write(some, told);
    EXPECT_EQ(std::pair(written.runs, written.events), std::pair(some.size(), told.size()));
    if (batch % 3 == 0) store->write(some, told);  // whoever did not get the answer writes again
    runs.insert(runs.end(), some.begin(), some.end());
    events.insert(events.end(), told.begin(), told.end());
  }

  const auto compare = [&] {
    for (int i = 0; i < 60; ++i) {
      RunQuery query;
      query.board = runs[random() % runs.size()].board;
      if (i % 2) query.from = runs[random() % runs.size()].started;
      if (i % 3) query.to = query.from + kDay * int64_t(random() % 4);
      if (i % 4 == 0) query.type = int(random() % 4);
      query.wholeOnly = i % 5 == 0;
      query.newestFirst = random() % 2;
      query.withStreams = random() % 2;
      std::map<std::pair<int64_t, int>, std::string> expected;
      for (const Run &run : runs) {
        if (run.board != query.board || run.started < query.from || run.started >= query.to) continue;
        if ((query.type && run.type != *query.type) || (query.wholeOnly && !isWhole(run))) continue;
        expected[{run.started, run.type}] = textOf(run, query.withStreams);
      }
      Texts list;
      for (const auto &each : expected) list.push_back(each.second);
      if (query.newestFirst) std::reverse(list.begin(), list.end());
      ASSERT_EQ(ask(*reader, query), list);

      query.spread = 1 + random() % 20;
      const Texts spread = ask(*reader, query);
      ASSERT_TRUE(spread.size() <= query.spread && spread.size() >= std::min<size_t>(list.size(), 1));
      for (const std::string &each : spread) ASSERT_EQ(std::count(list.begin(), list.end(), each), 1);
      if (!list.empty()) {
        ASSERT_EQ(query.newestFirst ? spread.front() : spread.back(), query.newestFirst ? list.front() : list.back());
      }
      query.spread = SIZE_MAX;
      query.limit = random() % 20;
      list.resize(std::min(list.size(), query.limit));
      ASSERT_EQ(ask(*reader, query), list);
    }

    EventQuery query;
    std::multimap<int64_t, std::string> expected;
    for (const Event &event : events) expected.emplace(event.time, textOf(event));
    Texts list, found;
    for (const auto &each : expected) list.push_back(each.second);
    for (const Event &event : reader->events(query)) found.push_back(textOf(event));
    std::sort(list.begin(), list.end());
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, list);
    query.board = runs[0].board;
    query.from = kStart + kDay;
    query.limit = 5;
    const auto newest = reader->events(query);
    EXPECT_EQ(newest.size(), 5u);
    for (const Event &event : newest) EXPECT_TRUE(event.board == query.board && event.time <= newest[0].time);

    for (const int64_t since : {INT64_MIN, kStart + kDay}) {
      std::multiset<std::string> last, told;
      std::map<std::pair<std::string, int>, std::map<int64_t, const Run *>> byTime;
      for (const Run &run : runs) {
        if (run.started >= since) byTime[{run.board, run.type}][run.started] = &run;
      }
      for (const auto &[key, kept] : byTime) {
        last.insert(textOf(*kept.rbegin()->second, true));
        const auto whole =
            std::find_if(kept.rbegin(), kept.rend(), [](const auto &each) { return isWhole(*each.second); });
        if (whole != kept.rbegin() && whole != kept.rend()) last.insert(textOf(*whole->second, true));
      }
      reader->lastRuns(since, [&](StoredRun &&run) {
        told.insert(textOf(run.run, true));
        return true;
      });
      EXPECT_EQ(told, last);
    }
  };
  compare();

  // A reader may stop, and ask within.
  int seen = 0;
  store->runs(allOf(runs[0].board), [&](StoredRun &&found) {
    const auto again = store->run(found.id);
    EXPECT_EQ(textOf(again.value().run, false), textOf(found.run, false));
    return ++seen < 3;
  });
  EXPECT_EQ(seen, 3);
  EXPECT_FALSE(store->run(1'000'000));
  EXPECT_EQ(store->boards().size(), 5u);
  EXPECT_THROW(reader->write({runs[0]}, {}), StoreError);

  // Of one type, and of events, what is older than a day's beginning.
  const int64_t end = kStart + 2 * kDay;
  for (const int type : {1, -1}) {
    while (!store->removeBefore(type, end, 20).isAll) {
    }
  }
  runs.erase(
      std::remove_if(runs.begin(), runs.end(), [&](const Run &run) { return run.type == 1 && run.started < end; }),
      runs.end());
  events.erase(std::remove_if(events.begin(), events.end(), [&](const Event &event) { return event.time < end; }),
               events.end());
  compare();
}

// Boards of a kind share a dictionary; it is replaced when they say other things, and goes with the last of its runs.
TEST_P(StoreTest, KeepsDictionariesAsLongAsARunNeedsThem) {
  std::mt19937 random(3);
  auto store = openStore(where_);
  std::vector<Run> runs;
  const auto write = [&](int64_t day, char kind, int count) {
    for (int i = 0; i < count; i += 20) {
      std::vector<Run> some;
      for (int k = 0; k < 20; ++k) {
        std::string stream = streamOf(random, kind);
        stream.replace(12, 2, "AA");  // the same board, as it says
        some.push_back(runOf("a", kStart + day * kDay + i * 1'000 + k, stream));
      }
      store->write(some, {});
      runs.insert(runs.end(), some.begin(), some.end());
    }
  };
  const auto size = [&](int64_t from) {
    return double(
        number("SELECT CAST(avg(length(stream)) AS BIGINT) FROM runs WHERE started >= " + std::to_string(from)));
  };
  const auto compare = [&] {
    Texts list;
    for (const Run &run : runs) list.push_back(textOf(run, true));
    EXPECT_EQ(ask(*store, allOf("a")), list);
  };
  write(0, 'A', 200);
  EXPECT_EQ(number("SELECT count(*) FROM dictionaries"), 1);
  EXPECT_LT(size(kStart + 100'000), double(runs[0].stream.size()) / 5);
  store.reset();
  store = openStore(where_);  // another process, or instance, goes on with it
  write(1, 'A', 100);
  EXPECT_EQ(number("SELECT count(*) FROM dictionaries"), 1);
  write(2, 'k', 600);
  EXPECT_EQ(number("SELECT count(*) FROM dictionaries"), 2);
  EXPECT_LT(size(kStart + 2 * kDay + 500'000), double(runs[0].stream.size()) / 5);
  if (isSqlite()) {  // one that cannot be stored when it is made: another kind's gets its number
    {
      const FullDisk full(std::filesystem::file_size(where_ + "-wal"));
      for (int i = 0; i < 30; ++i) EXPECT_THROW(write(3, 'Z', 20), StoreError);
    }
    std::vector<Run> others;
    for (int i = 0; i < 40; ++i) others.push_back(runOf("b", kStart + i, streamOf(random, 'B')));
    store->write(others, {});
    write(4, 'Z', 20);
  }
  compare();
  while (!store->removeBefore(0, kStart + 2 * kDay, 50).isAll) {
  }
  runs.erase(runs.begin(), runs.begin() + 300);
  compare();
  while (!store->removeBefore(0, kStart + 20 * kDay, 50).isAll) {
  }
  EXPECT_EQ(number("SELECT count(*) FROM dictionaries"), 0);
  runs.clear();
  std::vector<Run> last;  // makes one that none of them is stored with
  for (int i = 0; i < 32; ++i) last.push_back(runOf("a", kStart + 20 * kDay + i, streamOf(random, 'q')));
  store->write(last, {});
  EXPECT_EQ(number("SELECT count(*) FROM dictionaries"), 1);
  while (!store->removeBefore(0, kStart + 30 * kDay, 50).isAll) {
  }
  EXPECT_EQ(number("SELECT count(*) FROM dictionaries"), 0);
  write(30, 'k', 20);  // the writer still had it
  compare();
}

// In trouble nothing is half stored, and afterwards it goes on.
TEST_P(StoreTest, SurvivesTrouble) {
  std::mt19937 random(5);
  const auto store = openStore(where_);
  std::vector<Run> some;
  for (int i = 0; i < 200; ++i) some.push_back(runOf("b", kStart + i, streamOf(random, 'C', 2'000)));
  store->write({some[0]}, {});
  const auto fails = [&] { EXPECT_THROW(store->write(some, {{"b", kStart, EventKind::kLost, "", 0}}), StoreError); };
  if (isSqlite()) {
    {
      const FullDisk full(200'000);
      fails();
    }
    const auto other = raw();
    const Transaction locked(*other);
    fails();
  } else {
    PostgresServer::instance().stop();
    fails();
    PostgresServer::instance().start();
  }
  EXPECT_EQ(countRuns(*store, "b"), 1u);
  EXPECT_TRUE(store->events({}).empty());
  EXPECT_EQ(store->write(some, {}).runs, 200u);
  EXPECT_EQ(countRuns(*store, "b"), 200u);
}

// A process that is killed at any time leaves all that it was told is stored.
TEST_P(StoreTest, SurvivesAKilledProcess) {
  openStore(where_);
  for (int round = 0; round < 5; ++round) {
    int told[2];
    ASSERT_EQ(pipe(told), 0);
    const pid_t child = fork();
    if (child == 0) {
      std::mt19937 random(9);
      const auto store = openStore(where_);
      for (int batch = 0;; ++batch) {
        std::vector<Run> some;
        for (int i = 0; i < 50; ++i) {
          some.push_back(runOf("c" + std::to_string(round), kStart + batch * 1'000 + i, streamOf(random, 'D')));
        }
        store->write(some, {});
        if (write(told[1], "x", 1) != 1) _exit(1);
      }
    }
    close(told[1]);
    char c;
    size_t batches = 0;
    while (batches < 3 + static_cast<size_t>(round) * 4 && read(told[0], &c, 1) == 1) ++batches;
    kill(child, SIGKILL);
    while (read(told[0], &c, 1) == 1) ++batches;
    close(told[0]);
    waitpid(child, nullptr, 0);
    const auto store = openStore(where_);
    const size_t found = countRuns(*store, "c" + std::to_string(round));
    EXPECT_TRUE(batches >= 3 && found % 50 == 0 && found >= batches * 50 && found <= (batches + 1) * 50) << found;
    if (isSqlite()) raw()->execute("PRAGMA integrity_check", {}, [](const Row &row) { EXPECT_EQ(row.bytes(0), "ok"); });
  }
}

// All steps or none; what is newer than the program is left alone.
TEST_P(StoreTest, MigratesAnOlderSchema) {
  const auto older = openStore(where_);
  older->write({runOf("d", kStart, "as it came")}, {});
  std::vector<Migration> steps = migrations();
  const auto database = raw();
  steps.push_back({"ALTER TABLE boards ADD COLUMN room BIGINT", "ALTER TABLE boards ADD COLUMN room BIGINT"});
  steps.push_back({"DROP TABLE nowhere", "DROP TABLE nowhere"});
  EXPECT_THROW(migrate(*database, steps), StoreError);
  EXPECT_THROW(database->execute("SELECT room FROM boards"), StoreError);
  EXPECT_EQ(countRuns(*openStoreToRead(where_), "d"), 1u);
  steps.pop_back();
  migrate(*database, steps);
  migrate(*database, steps);
  EXPECT_EQ(number("SELECT count(*) FROM boards WHERE room IS NULL"), 1);
  EXPECT_THROW(openStore(where_), StoreError);
  EXPECT_THROW(openStoreToRead(where_), StoreError);
  EXPECT_THROW(older->write({runOf("d", kStart + 1)}, {}), StoreError) << "also one that was there before";
  if (isSqlite()) return;
  EXPECT_THROW(older->leases()->renew("i", {"d"}, 1), StoreError);
}

// The first version, made by its own text, holds a run compressed with a dictionary.
TEST_P(StoreTest, ReadsTheFirstVersion) {
  std::ifstream file(isSqlite() ? KEP_GOLDEN "/store-1.sql" : KEP_GOLDEN "/store-1-postgresql.sql");
  std::stringstream text;
  text << file.rdbuf();
  if (isSqlite()) raw()->script("PRAGMA journal_mode = DELETE");
  raw()->script(text.str());
  std::mt19937 random(11);
  std::vector<Run> expected;
  for (int i = 0; i < 34; ++i) expected.push_back(runOf("golden", kStart + i, streamOf(random, 'G')));
  const auto store = openStore(where_);
  const Texts found = ask(*store, allOf("golden"));
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[0], textOf(expected[0], true));
  EXPECT_EQ(found[1], textOf(expected[33], true));
  EXPECT_EQ(store->events({}).at(0).text, "away");
  store->write({runOf("golden", kStart + 100, "goes on")}, {});
  EXPECT_EQ(countRuns(*store, "golden"), 3u);
}

class SqliteTest : public StoreTest {};
INSTANTIATE_TEST_SUITE_P(, SqliteTest, testing::Values("Sqlite"), [](const auto &) { return "Sqlite"; });

TEST_P(SqliteTest, IsPrivateGivesSpaceBackAndIsCopiedInUse) {
  std::mt19937 random(2);
  EXPECT_THROW(openStoreToRead(where_), StoreError);
  const auto store = openStore(where_);
  EXPECT_EQ(store->leases(), nullptr);
  std::filesystem::create_symlink(where_, folder_ + "/link.db");
  EXPECT_THROW(openStore(folder_ + "/link.db"), StoreError) << "collected into already";
  std::vector<Run> some;
  for (int i = 0; i < 100; ++i) some.push_back(runOf("e", kStart + i, streamOf(random, 'E', 50'000)));
  store->write(some, {});
  for (const char *suffix : {"", "-wal", "-shm", "-lock", "/.."}) {
    struct stat status {};
    const std::string path = *suffix == '/' ? std::filesystem::path(where_).parent_path().string() : where_ + suffix;
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, *suffix == '/' ? 0700u : 0600u);
  }
  const std::string copy = folder_ + "/copy.db";
  {
    const auto writer = raw();
    const Transaction busy(*writer);
    backupStore(where_, copy);
  }
  EXPECT_EQ(ask(*openStore(copy), allOf("e")), ask(*store, allOf("e")));
  EXPECT_THROW(backupStore(where_, copy), StoreError);
  EXPECT_THROW(backupStore(folder_ + "/none", folder_ + "/other"), StoreError);
  EXPECT_FALSE(std::filesystem::exists(folder_ + "/other"));
  while (!store->removeBefore(0, kStart + 90, 20).isAll) {
  }
  EXPECT_LT(number("PRAGMA page_count") * 4096, 1'500'000);
  EXPECT_EQ(countRuns(*store, "e"), 10u);
}

class LeasesTest : public StoreTest {};
INSTANTIATE_TEST_SUITE_P(, LeasesTest, testing::Values("Postgresql"), [](const auto &) { return "Postgresql"; });

TEST_P(LeasesTest, AreSharedLostAndFenced) {
  const std::vector<std::string> boards = {"a", "b", "c", "d", "e", "f", "g"};
  std::vector<std::unique_ptr<Store>> stores;
  std::map<int, std::map<std::string, uint64_t>> held;
  Renewal last;
  for (int i = 0; i < 3; ++i) stores.push_back(openStore(where_));
  const auto renew = [&](int i, double seconds = 1'000) {
    held[i].clear();
    last = stores[size_t(i)]->leases()->renew("i" + std::to_string(i), boards, seconds);
    for (const Lease &lease : last.leases) held[i][lease.board] = lease.number;
    return held[i].size();
  };
  const auto isStored = [&](int by, const std::string &board, uint64_t number) {
    static int64_t time = kStart;
    Run run = runOf(board, ++time);
    run.lease = number;
    const Written written =
        stores[size_t(by)]->write({run, runOf("x", time)}, {{board, time, EventKind::kLost, "", number}});
    EXPECT_EQ(written.runs + written.refusedRuns, 2u);
    EXPECT_EQ(written.refusedEvents, written.refusedRuns);
    return written.refusedRuns == 0;
  };

  EXPECT_EQ(renew(0), 7u);  // alone
  EXPECT_EQ(last.othersEnd.count(), INT64_MAX);
  const auto alone = held[0];
  EXPECT_EQ(renew(1), 0u);  // one that joins gets what the other does not hold any more, and then has given back
  EXPECT_EQ(renew(0), 4u);
  EXPECT_TRUE(last.isLeaving);
  EXPECT_EQ(renew(1), 0u);
  EXPECT_FALSE(last.isLeaving);
  EXPECT_TRUE(last.othersEnd.count() > 900'000 && last.othersEnd.count() <= 1'000'000);
  EXPECT_TRUE(isStored(0, "g", alone.at("g")));  // its runs may end until then
  EXPECT_EQ(renew(0), 4u);
  EXPECT_EQ(renew(1), 3u);
  EXPECT_FALSE(isStored(0, "g", alone.at("g")));
  EXPECT_FALSE(isStored(0, "nobody's", 1));
  EXPECT_TRUE(isStored(1, "g", held[1].at("g")));
  EXPECT_TRUE(isStored(0, "a", alone.at("a")));

  // It lives no more: its boards go to the others, except one that a standing transaction of its own has locked.
  const auto before = held[1];
  renew(1, 0);
  const auto standing = raw();
  {
    const Transaction transaction(*standing);
    standing->execute("SELECT 1 FROM leases WHERE board = (SELECT max(board) FROM leases) FOR SHARE");
    EXPECT_EQ(renew(0), 6u);
  }
  EXPECT_EQ(renew(0), 7u);
  for (const auto &[board, number] : before) EXPECT_GT(held[0].at(board), number);

  // Nobody else held them meanwhile: an instance that comes back late goes on.
  const auto late = held[0];
  renew(0, 0);
  EXPECT_TRUE(isStored(0, "a", late.at("a")));
  EXPECT_EQ(renew(0), 7u);
  EXPECT_EQ(held[0], late);

  stores[0]->leases()->release("i0");
  EXPECT_EQ(renew(2), 7u);
  EXPECT_FALSE(isStored(0, "a", late.at("a")));

  // Its boards are of a new configuration.
  EXPECT_EQ(stores[2]->leases()->renew("i2", {"a", "new"}, 1'000).leases.size(), 2u);
}
