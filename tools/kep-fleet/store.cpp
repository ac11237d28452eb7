// store.cpp: runs and events in tables. What is asked for is first found in an index, as keys, and then read in
// portions: no reader, however slow, keeps the database from tidying up, and none takes more memory than a portion.

#include "kep-fleet/store.hpp"

#include <algorithm>
#include <array>
#include <ctime>
#include <map>
#include <set>
#include <tuple>

#include "kep-fleet/board_ids.hpp"
#include "kep-fleet/database.hpp"
#include "kep-fleet/dictionaries.hpp"
#include "kep-fleet/leases.hpp"
#include "kep-fleet/schema.hpp"

namespace kepfleet {

namespace {

constexpr int64_t kDay = 86'400'000;
constexpr size_t kRowsAtOnce = 32;                            // written by one statement
constexpr size_t kKeysAtOnce = 256;                           // read by one
constexpr size_t kBytesAtOnce = 4 << 20;                      // of streams, unless one run has more
constexpr const char *kWhole = " AND outcome + 0 IN (0, 4)";  // a sum, so that no index is chosen for it

std::string placeholders(size_t from, size_t count) {
  std::string list;
  for (size_t i = 0; i < count; ++i) list += (i == 0 ? "$" : ", $") + std::to_string(from + i);
  return list;
}

// ---- days, by which PostgreSQL's partitions are made and dropped

std::string partitionOf(int type, int64_t day) {
  const time_t seconds = static_cast<time_t>(day * (kDay / 1000));
  struct tm date {};
  gmtime_r(&seconds, &date);
  std::array<char, 16> text{};
  strftime(text.data(), text.size(), "%Y%m%d", &date);
  return "runs_" + std::to_string(type) + "_" + text.data();
}

class Partitions {
 public:
  explicit Partitions(Database &database) : database_(database) {}

  // Those of a day and the one behind it, ahead of the first run that falls into it.
  void add(int type, int64_t started) {
    const int64_t day = started / kDay;
    for (const int64_t each : {day, day + 1}) {
      if (known_.insert({type, each}).second) make(type, each);
    }
  }
  void forget() { known_.clear(); }

  // Drops the oldest whole day before a time.
  Removed removeBefore(int type, int64_t time) {
    const std::string end = partitionOf(type, time / kDay);
    std::vector<std::pair<std::string, int64_t>> old;
    database_.execute(
        "SELECT c.relname::text::bytea, greatest(c.reltuples, 0)::bigint FROM pg_inherits i JOIN pg_class c"
        " ON c.oid = i.inhrelid WHERE i.inhparent = to_regclass(convert_from($1, 'UTF8')) ORDER BY c.relname::text",
        {"runs_" + std::to_string(type)}, [&](const Row &row) {
          if (row.bytes(0) < end) old.emplace_back(row.bytes(0), row.integer(1));
        });
    if (old.empty()) return {0, true};
    Transaction transaction(database_);
    // Whoever reads or writes is let by first; when that takes long, it is tried another time.
    database_.script("SET LOCAL lock_timeout = '1s'; DROP TABLE IF EXISTS " + old.front().first);
    transaction.commit();
    known_.clear();
    return {static_cast<size_t>(old.front().second), old.size() == 1};
  }

 private:
  // A number is known to be unique only within each, which is enough to find it by. Attaching lets readers and writers
  // go on, as making it a partition from the start would not.
  void make(int type, int64_t day) {
    const std::string name = partitionOf(type, day), parent = "runs_" + std::to_string(type);
    Transaction transaction(database_);
    database_.execute("SELECT pg_advisory_xact_lock(hashtext('kep_schema'))");
    bool exists = false;
    database_.execute("SELECT 1 WHERE to_regclass(convert_from($1, 'UTF8')) IS NOT NULL", {name},
                      [&](const Row &) { exists = true; });
    if (exists) return;
    database_.script("CREATE TABLE " + name + " (LIKE " + parent + " INCLUDING STORAGE); CREATE UNIQUE INDEX ON " +
                     name + " (id); ALTER TABLE " + parent + " ATTACH PARTITION " + name + " FOR VALUES FROM (" +
                     std::to_string(day * kDay) + ") TO (" + std::to_string((day + 1) * kDay) + ")");
    transaction.commit();
  }

  Database &database_;
  std::set<std::pair<int, int64_t>> known_;
};

// ---- keys

// What an index says of a run.
struct Key {
  int64_t started;
  int64_t type;
  int64_t id;
  int64_t bytes;
  bool operator<(const Key &other) const {
    return std::tie(started, type, id) < std::tie(other.started, other.type, other.id);
  }
};

// Of ascending keys the first of each part of the time, and the very last.
std::vector<Key> spreadOut(const std::vector<Key> &keys, size_t count) {
  if (keys.size() <= count) return keys;
  std::vector<Key> chosen;
  if (count == 0) return chosen;
  const double part = static_cast<double>(keys.back().started - keys.front().started + 1) / static_cast<double>(count);
  int64_t last = -1;
  for (const Key &key : keys) {
    const auto place = static_cast<int64_t>(static_cast<double>(key.started - keys.front().started) / part);
    if (place != last) chosen.push_back(key);
    last = place;
  }
  chosen.back() = keys.back();
  return chosen;
}

}  // namespace

class SqlStore : public Store {
 public:
  SqlStore(std::unique_ptr<Database> database, Access access) : database_(std::move(database)) {
    if (access == Access::kWrite) {
      database_->claim();
      migrate(*database_, migrations());
    } else {
      checkVersion(*database_, migrations().size());
    }
  }

  Written write(const std::vector<Run> &runs, const std::vector<Event> &events) override;
  void runs(const RunQuery &query, const std::function<bool(StoredRun &&)> &take) override;
  std::optional<StoredRun> run(int64_t id) override;
  std::vector<Event> events(const EventQuery &query) override;
  void lastRuns(int64_t since, const std::function<bool(StoredRun &&)> &take) override;
  std::vector<std::string> boards() override;
  Removed removeBefore(int type, int64_t time, size_t atMost) override;
  Leases *leases() override { return database_->isShared() ? &leases_ : nullptr; }

 private:
  struct Coded {
    const Run *run;
    CodedStream stream;
  };
  using Refused = std::function<bool(const std::string &board, uint64_t lease)>;

  Written writeOnce(const std::vector<Run> &runs, const std::vector<Event> &events);
  void prepare(const std::vector<Run> &runs, const std::vector<Event> &events);
  Refused lockLeases(const std::vector<Run> &runs, const std::vector<Event> &events);
  void insert(const Coded *from, size_t count);
  void insert(const Event &event);
  void keys(const RunQuery &query, int type, std::vector<Key> &keys);
  std::vector<Key> keysOf(const std::vector<int64_t> &ids, int64_t since);
  bool read(const std::vector<Key> &keys, bool withStreams, const std::function<bool(StoredRun &&)> &take);
  std::map<int64_t, StoredRun> readPortion(const Key *from, size_t count, bool withStreams);
  StoredRun runOf(const Row &row, bool withStream);

  std::unique_ptr<Database> database_;
  BoardIds ids_{*database_};
  Dictionaries dictionaries_{*database_};
  Partitions partitions_{*database_};
  SharedLeases leases_{*database_, ids_};
};

// ---- writing

// A newer program may have changed the tables meanwhile.
Written SqlStore::write(const std::vector<Run> &runs, const std::vector<Event> &events) {
  checkVersion(*database_, migrations().size());
  try {
    return writeOnce(runs, events);
  } catch (const DictionaryGone &) {
    return writeOnce(runs, events);
  }
}

Written SqlStore::writeOnce(const std::vector<Run> &runs, const std::vector<Event> &events) {
  std::vector<Coded> coded;
  coded.reserve(runs.size());
  for (const Run &run : runs) coded.push_back({&run, dictionaries_.encode(run)});
  try {
    prepare(runs, events);
    Written written;
    Transaction transaction(*database_);
    const Refused isRefused = lockLeases(runs, events);
    coded.erase(std::remove_if(coded.begin(), coded.end(),
                               [&](const Coded &each) { return isRefused(each.run->board, each.run->lease); }),
                coded.end());
    written.runs = coded.size();
    written.refusedRuns = runs.size() - coded.size();
    std::map<int64_t, int64_t> newest;
    for (const Coded &each : coded) {
      const auto place = newest.emplace(each.stream.coding, each.run->started).first;
      place->second = std::max(place->second, each.run->started);
    }
    for (const auto &[coding, started] : newest) dictionaries_.keep(coding, started);
    for (size_t at = 0; at < coded.size();) {
      const size_t count = coded.size() - at >= kRowsAtOnce ? kRowsAtOnce : 1;
      insert(&coded[at], count);
      at += count;
    }
    for (const Event &event : events) {
      if (isRefused(event.board, event.lease)) {
        written.refusedEvents += 1;
      } else {
        insert(event);
        written.events += 1;
      }
    }
    transaction.commit();
    return written;
  } catch (...) {
    dictionaries_.forget();
    partitions_.forget();
    throw;
  }
}

// What the rows stand on, which stays even when they do not come.
void SqlStore::prepare(const std::vector<Run> &runs, const std::vector<Event> &events) {
  std::set<std::string> names;
  for (const Run &run : runs) names.insert(run.board);
  for (const Event &event : events) names.insert(event.board);
  ids_.add(names);
  if (!database_->isShared()) return;
  for (const Run &run : runs) partitions_.add(run.type, run.started);
}

// Until the transaction ends nobody else gets a lease of these boards.
SqlStore::Refused SqlStore::lockLeases(const std::vector<Run> &runs, const std::vector<Event> &events) {
  std::set<int64_t> leased;
  for (const Run &run : runs) {
    if (run.lease != 0) leased.insert(ids_.find(run.board));
  }
  for (const Event &event : events) {
    if (event.lease != 0) leased.insert(ids_.find(event.board));
  }
  std::map<int64_t, uint64_t> numbers;
  if (database_->isShared() && !leased.empty()) numbers = leases_.lock(leased);
  return [this, numbers](const std::string &board, uint64_t lease) {
    if (!database_->isShared() || lease == 0) return false;
    const auto found = numbers.find(ids_.find(board));
    return found == numbers.end() || found->second != lease;
  };
}

// A run that is stored already was, when the answer to an earlier commit got lost.
void SqlStore::insert(const Coded *from, size_t count) {
  static constexpr size_t kColumns = 10;
  static const auto statement = [](size_t rows) {
    std::string sql =
        "INSERT INTO runs (board, started, type, outcome, duration, messages, bytes, coding, reason, stream) VALUES ";
    for (size_t row = 0; row < rows; ++row) {
      sql += (row == 0 ? "(" : ", (") + placeholders(row * kColumns + 1, kColumns) + ")";
    }
    return sql + " ON CONFLICT DO NOTHING";
  };
  static const std::string one = statement(1), many = statement(kRowsAtOnce);
  std::vector<Value> values;
  values.reserve(count * kColumns);
  for (const Coded *each = from; each != from + count; ++each) {
    const Run &run = *each->run;
    const std::string_view stream = each->stream.coding < 0 ? run.stream : each->stream.bytes;
    values.insert(values.end(), {ids_.find(run.board), run.started, int64_t{run.type},
                                 static_cast<int64_t>(run.outcome), int64_t{run.duration}, int64_t{run.messages},
                                 static_cast<int64_t>(run.stream.size()), each->stream.coding, run.reason, stream});
  }
  database_->execute(count == 1 ? one : many, values);
}

void SqlStore::insert(const Event &event) {
  database_->execute(
      "INSERT INTO events (board, time, kind, text) SELECT $1, $2, $3, $4 WHERE NOT EXISTS"
      " (SELECT 1 FROM events WHERE board = $1 AND time = $2 AND kind = $3 AND text = $4)",
      {ids_.find(event.board), event.time, static_cast<int64_t>(event.kind), event.text});
}

// ---- reading

void SqlStore::runs(const RunQuery &query, const std::function<bool(StoredRun &&)> &take) {
  std::vector<Key> found;
  for (int type = 0; type < kTypes; ++type) {
    if (!query.type || *query.type == type) keys(query, type, found);
  }
  std::sort(found.begin(), found.end());
  if (query.spread != SIZE_MAX) found = spreadOut(found, query.spread);
  if (query.newestFirst) std::reverse(found.begin(), found.end());
  if (found.size() > query.limit) found.resize(query.limit);
  read(found, query.withStreams, take);
}

void SqlStore::keys(const RunQuery &query, int type, std::vector<Key> &keys) {
  const size_t limit = query.spread == SIZE_MAX ? query.limit : SIZE_MAX;
  const std::string sql = std::string(
                              "SELECT started, id, bytes FROM runs WHERE board = $1 AND type = $2"
                              " AND started >= $3 AND started < $4") +
                          (query.wholeOnly ? kWhole : "") + " ORDER BY started" + (query.newestFirst ? " DESC" : "") +
                          " LIMIT $5";
  database_->execute(sql,
                     {ids_.find(query.board), int64_t{type}, query.from, query.to,
                      static_cast<int64_t>(std::min(limit, static_cast<size_t>(INT64_MAX)))},
                     [&](const Row &row) {
                       keys.push_back({row.integer(0), type, row.integer(1), row.integer(2)});
                     });
}

// False: `take` has had enough. A run that is removed meanwhile is left out.
bool SqlStore::read(const std::vector<Key> &keys, bool withStreams, const std::function<bool(StoredRun &&)> &take) {
  for (size_t at = 0; at < keys.size();) {
    size_t count = 0;
    for (int64_t bytes = 0; count < kKeysAtOnce && at + count < keys.size(); ++count) {
      bytes += withStreams ? keys[at + count].bytes : 0;
      if (count > 0 && bytes > static_cast<int64_t>(kBytesAtOnce)) break;
    }
    std::map<int64_t, StoredRun> portion = readPortion(&keys[at], count, withStreams);
    for (size_t i = at; i < at + count; ++i) {
      const auto found = portion.find(keys[i].id);
      if (found != portion.end() && !take(std::move(found->second))) return false;
    }
    at += count;
  }
  return true;
}

// Times and types tell in which partitions to look; a join with the boards would tempt into looking by them.
std::map<int64_t, StoredRun> SqlStore::readPortion(const Key *from, size_t count, bool withStreams) {
  static const auto statement = [](const char *stream) {
    const auto parameter = [](size_t behindKeys) { return " $" + std::to_string(kKeysAtOnce + behindKeys); };
    return std::string(
               "SELECT id, (SELECT name FROM boards b WHERE b.id = board), started, type, outcome, duration, messages,"
               " bytes, reason, coding, ") +
           stream + " FROM runs WHERE id IN (" + placeholders(1, kKeysAtOnce) + ") AND started >=" + parameter(1) +
           " AND started <=" + parameter(2) + " AND type >=" + parameter(3) + " AND type <=" + parameter(4);
  };
  static const std::string with = statement("stream"), without = statement("0");
  const auto times = std::minmax_element(from, from + count);
  const auto types =
      std::minmax_element(from, from + count, [](const Key &a, const Key &b) { return a.type < b.type; });
  std::vector<Value> values;
  for (const Key *key = from; key != from + count; ++key) values.emplace_back(key->id);
  values.resize(kKeysAtOnce, int64_t{-1});
  values.insert(values.end(), {times.first->started, times.second->started, types.first->type, types.second->type});
  std::map<int64_t, StoredRun> portion;
  database_->execute(withStreams ? with : without, values,
                     [&](const Row &row) { portion.emplace(row.integer(0), runOf(row, withStreams)); });
  return portion;
}

StoredRun SqlStore::runOf(const Row &row, bool withStream) {
  StoredRun stored;
  stored.id = row.integer(0);
  stored.run.board = row.bytes(1);
  stored.run.started = row.integer(2);
  stored.run.type = static_cast<int>(row.integer(3));
  stored.run.outcome = static_cast<Outcome>(row.integer(4));
  stored.run.duration = static_cast<uint32_t>(row.integer(5));
  stored.run.messages = static_cast<uint32_t>(row.integer(6));
  stored.bytes = static_cast<uint32_t>(row.integer(7));
  stored.run.reason = row.bytes(8);
  if (withStream) stored.run.stream = dictionaries_.decode(row.integer(9), row.bytes(10), stored.bytes);
  return stored;
}

// In the order of time.
std::vector<Key> SqlStore::keysOf(const std::vector<int64_t> &ids, int64_t since) {
  static const std::string sql = "SELECT started, type, id, bytes FROM runs WHERE id IN (" +
                                 placeholders(1, kKeysAtOnce) + ") AND started >= $" + std::to_string(kKeysAtOnce + 1);
  std::vector<Key> keys;
  for (size_t at = 0; at < ids.size(); at += kKeysAtOnce) {
    const auto from = ids.begin() + static_cast<std::ptrdiff_t>(at);
    std::vector<Value> values(from, from + static_cast<std::ptrdiff_t>(std::min(kKeysAtOnce, ids.size() - at)));
    values.resize(kKeysAtOnce, int64_t{-1});
    values.emplace_back(since);
    database_->execute(sql, values, [&](const Row &row) {
      keys.push_back({row.integer(0), row.integer(1), row.integer(2), row.integer(3)});
    });
  }
  std::sort(keys.begin(), keys.end());
  return keys;
}

std::optional<StoredRun> SqlStore::run(int64_t id) {
  std::optional<StoredRun> found;
  read(keysOf({id}, INT64_MIN), true, [&](StoredRun &&stored) {
    found = std::move(stored);
    return true;
  });
  return found;
}

std::vector<Event> SqlStore::events(const EventQuery &query) {
  std::string sql =
      "SELECT b.name, e.time, e.kind, e.text FROM events e JOIN boards b ON b.id = e.board"
      " WHERE e.time >= $1 AND e.time < $2";
  std::vector<Value> values = {query.from, query.to};
  if (!query.board.empty()) {
    sql += " AND e.board = $3";
    values.emplace_back(ids_.find(query.board));
  }
  values.emplace_back(static_cast<int64_t>(std::min(query.limit, static_cast<size_t>(INT64_MAX))));
  sql += " ORDER BY e.time DESC, e.id DESC LIMIT $" + std::to_string(values.size());
  std::vector<Event> events;
  database_->execute(sql, values, [&](const Row &row) {
    events.push_back({std::string(row.bytes(0)), row.integer(1), static_cast<EventKind>(row.integer(2)),
                      std::string(row.bytes(3)), 0});
  });
  return events;
}

// Type by type, so that the last run is looked for in one partition after the other and not in all; and some boards at
// a time, as each that has none of a type is looked for in every day's.
void SqlStore::lastRuns(int64_t since, const std::function<bool(StoredRun &&)> &take) {
  for (int type = 0; type < kTypes; ++type) {
    const auto last = [&](const char *condition) {
      return "coalesce((SELECT id FROM runs WHERE board = b.id AND type = " + std::to_string(type) +
             " AND started >= $1" + condition + " ORDER BY started DESC LIMIT 1), 0)";
    };
    const std::string sql =
        "SELECT b.id, " + last("") + ", " + last(kWhole) + " FROM boards b WHERE b.id > $2 ORDER BY b.id LIMIT $3";
    for (int64_t before = -1, board = 0; board != before;) {
      before = board;
      std::vector<int64_t> ids;
      database_->execute(sql, {since, before, static_cast<int64_t>(kKeysAtOnce)}, [&](const Row &row) {
        board = row.integer(0);
        const int64_t any = row.integer(1), whole = row.integer(2);
        if (any != 0) ids.push_back(any);
        if (whole != 0 && whole != any) ids.push_back(whole);
      });
      if (!read(keysOf(ids, since), true, take)) return;
    }
  }
}

std::vector<std::string> SqlStore::boards() {
  std::vector<std::string> names;
  database_->execute("SELECT name FROM boards ORDER BY name", {},
                     [&](const Row &row) { names.emplace_back(row.bytes(0)); });
  return names;
}

// ---- removing

Removed SqlStore::removeBefore(int type, int64_t time, size_t atMost) {
  const auto limit = static_cast<int64_t>(std::min(atMost, static_cast<size_t>(INT64_MAX)));
  Removed removed;
  if (type < 0) {
    removed.rows = static_cast<size_t>(database_->execute(
        "DELETE FROM events WHERE id IN (SELECT id FROM events WHERE time < $1 ORDER BY time LIMIT $2)",
        {time, limit}));
  } else if (database_->isShared()) {
    removed = partitions_.removeBefore(type, time);
  } else {
    removed.rows = static_cast<size_t>(database_->execute(
        "DELETE FROM runs WHERE id IN (SELECT id FROM runs WHERE type = $1 AND started < $2 ORDER BY started LIMIT $3)",
        {int64_t{type}, time, limit}));
  }
  if (type < 0 || !database_->isShared()) removed.isAll = removed.rows < atMost;
  if (type >= 0 && removed.isAll) dictionaries_.removeBefore(type, time / kDay * kDay);
  if (database_->shrink()) removed.isAll = false;
  return removed;
}

// ---- opening

namespace {

std::unique_ptr<Store> open(const std::string &where, Access access, std::chrono::milliseconds patience) {
  auto database = isPostgres(where) ? openPostgres(where, access, patience) : openSqlite(where, access);
  return std::make_unique<SqlStore>(std::move(database), access);
}

}  // namespace

std::unique_ptr<Store> openStore(const std::string &where, std::chrono::milliseconds patience) {
  return open(where, Access::kWrite, patience);
}

std::unique_ptr<Store> openStoreToRead(const std::string &where) { return open(where, Access::kRead, kStorePatience); }

}  // namespace kepfleet
