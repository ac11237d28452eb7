// schema.cpp: the tables.
//
//   runs          one row a run. `coding` says what its stream is: -1, as it came; 0, compressed; else the dictionary
//   it
//                 is compressed with. Rows are appended; what looks for a board's runs by type and time finds them, and
//                 all that it filters by, in one index, which also refuses to store a run twice.
//   dictionaries  one for each kind of board and type of request, and older ones as long as a row needs them: no run of
//                 their type that began at `needed_until` or later is compressed with them.
//   instances     those that live, until when.
//   leases        whose each board is: an instance's as long as that lives. `number` grows with every owner.
//
// In PostgreSQL the runs are partitioned by type, as each type is kept for a time of its own, and then by day.

#include "kep-fleet/schema.hpp"

#include <string>

#include "kep-fleet/store.hpp"

namespace kepfleet {

namespace {

constexpr const char *kSqlite1 = R"(
CREATE TABLE boards (id INTEGER PRIMARY KEY, name BLOB NOT NULL UNIQUE);
CREATE TABLE runs (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  board INTEGER NOT NULL,
  started INTEGER NOT NULL,
  type INTEGER NOT NULL,
  outcome INTEGER NOT NULL,
  duration INTEGER NOT NULL,
  messages INTEGER NOT NULL,
  bytes INTEGER NOT NULL,
  coding INTEGER NOT NULL,
  reason BLOB NOT NULL,
  stream BLOB NOT NULL);
CREATE UNIQUE INDEX runs_by_board ON runs (board, type, started, outcome, bytes);
CREATE INDEX runs_by_age ON runs (type, started);
CREATE TABLE events (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  board INTEGER NOT NULL,
  time INTEGER NOT NULL,
  kind INTEGER NOT NULL,
  text BLOB NOT NULL);
CREATE INDEX events_by_board ON events (board, time);
CREATE INDEX events_by_age ON events (time);
CREATE TABLE dictionaries (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  identity BLOB NOT NULL,
  type INTEGER NOT NULL,
  needed_until INTEGER NOT NULL,
  content BLOB NOT NULL);
)";

constexpr const char *kPostgres1 = R"(
CREATE TABLE boards (id INTEGER GENERATED ALWAYS AS IDENTITY PRIMARY KEY, name BYTEA NOT NULL UNIQUE);
CREATE TABLE runs (
  id BIGINT GENERATED ALWAYS AS IDENTITY,
  started BIGINT NOT NULL,
  board INTEGER NOT NULL,
  duration INTEGER NOT NULL,
  messages INTEGER NOT NULL,
  bytes INTEGER NOT NULL,
  coding INTEGER NOT NULL,
  type SMALLINT NOT NULL,
  outcome SMALLINT NOT NULL,
  reason BYTEA NOT NULL,
  stream BYTEA NOT NULL) PARTITION BY LIST (type);
CREATE TABLE runs_0 PARTITION OF runs FOR VALUES IN (0) PARTITION BY RANGE (started);
CREATE TABLE runs_1 PARTITION OF runs FOR VALUES IN (1) PARTITION BY RANGE (started);
CREATE TABLE runs_2 PARTITION OF runs FOR VALUES IN (2) PARTITION BY RANGE (started);
CREATE TABLE runs_3 PARTITION OF runs FOR VALUES IN (3) PARTITION BY RANGE (started);
ALTER TABLE runs ALTER COLUMN stream SET STORAGE EXTERNAL;
CREATE UNIQUE INDEX ON runs (board, type, started, outcome, bytes);
CREATE TABLE events (
  id BIGINT GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
  board INTEGER NOT NULL,
  time BIGINT NOT NULL,
  kind SMALLINT NOT NULL,
  text BYTEA NOT NULL);
CREATE INDEX ON events (board, time);
CREATE INDEX ON events (time);
CREATE TABLE dictionaries (
  id INTEGER GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
  identity BYTEA NOT NULL,
  type SMALLINT NOT NULL,
  needed_until BIGINT NOT NULL,
  content BYTEA NOT NULL);
ALTER TABLE dictionaries ALTER COLUMN content SET STORAGE EXTERNAL;
CREATE TABLE instances (name BYTEA PRIMARY KEY, until TIMESTAMPTZ NOT NULL);
CREATE TABLE leases (board INTEGER PRIMARY KEY, owner BYTEA NOT NULL DEFAULT '', number BIGINT NOT NULL DEFAULT 0);
)";

int64_t versionOf(Database &database) {
  int64_t version = 0;
  database.execute("SELECT version FROM kep_schema", {}, [&](const Row &row) { version = row.integer(0); });
  return version;
}

[[noreturn]] void refuse(int64_t version, size_t expected) {
  const bool isNewer = version > static_cast<int64_t>(expected);
  throw StoreError("The store is of version " + std::to_string(version) + ", this program knows " +
                   std::to_string(expected) + (isNewer ? ": a newer program has migrated it" : ""));
}

}  // namespace

const std::vector<Migration> &migrations() {
  static const std::vector<Migration> all = {{kSqlite1, kPostgres1}};
  return all;
}

void migrate(Database &database, const std::vector<Migration> &steps) {
  Transaction transaction(database);
  // Instances that start together come one after the other; in SQLite they do already.
  if (database.isShared()) database.execute("SELECT pg_advisory_xact_lock(hashtext('kep_schema'))");
  database.script("CREATE TABLE IF NOT EXISTS kep_schema (version BIGINT NOT NULL)");
  const int64_t version = versionOf(database);
  const auto wanted = static_cast<int64_t>(steps.size());
  if (version < 0 || version > wanted) refuse(version, steps.size());
  if (version == wanted) return;
  for (auto step = steps.begin() + version; step != steps.end(); ++step) {
    database.script(database.isShared() ? step->postgres : step->sqlite);
  }
  database.script("DELETE FROM kep_schema; INSERT INTO kep_schema VALUES (" + std::to_string(wanted) + ")");
  transaction.commit();
}

void checkVersion(Database &database, size_t version) {
  const int64_t found = versionOf(database);
  if (found != static_cast<int64_t>(version)) refuse(found, version);
}

}  // namespace kepfleet
