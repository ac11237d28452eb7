// store.hpp: where runs and events are kept: an SQLite file, or a PostgreSQL database that several instances share.
//
// A run is stored as it was received; whatever is shown of it is decoded when it is asked for. Streams are compressed
// with dictionaries that the store trains for each kind of board and request; that is nobody's business but its own.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "kep-fleet/run.hpp"

namespace kepfleet {

constexpr std::chrono::milliseconds kStorePatience{30'000};

// The store cannot be opened, read or written; what() says which and why. After a write that failed nothing of it is
// stored, and it may be tried again.
struct StoreError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct StoredRun {
  int64_t id = 0;      // ascends in the order of storing
  Run run;             // without its stream unless that is asked for; without its lease
  uint32_t bytes = 0;  // of the stream
};

// Which runs; all of it at once. Times are milliseconds since 1970, `to` is not included.
struct RunQuery {
  std::string board;
  int64_t from = INT64_MIN, to = INT64_MAX;
  std::optional<int> type;
  bool wholeOnly = false;  // those that came whole, self-tests that failed included
  bool newestFirst = false;
  size_t limit = SIZE_MAX;
  size_t spread = SIZE_MAX;  // when there are more, about so many of them, evenly spread over the time
  bool withStreams = false;
};

struct EventQuery {
  std::string board;  // empty: all
  int64_t from = INT64_MIN, to = INT64_MAX;
  size_t limit = SIZE_MAX;  // the newest
};

// What a write left out: runs and events of boards whose lease this instance has lost.
struct Written {
  size_t runs = 0, events = 0;
  size_t refusedRuns = 0, refusedEvents = 0;
};

struct Removed {
  size_t rows = 0;     // in PostgreSQL as many as it estimates
  bool isAll = false;  // nothing is left to remove, nor space to give back
};

struct Lease {
  std::string board;
  uint64_t number = 0;  // grows with every owner: what is written under an older one is refused
};

struct Renewal {
  std::vector<Lease> leases;                       // all that the instance holds
  bool isLeaving = false;                          // there are others that it is not to hold any more
  std::chrono::milliseconds othersEnd{INT64_MAX};  // until the first of the other instances ends, unless that renews
};

// The part of a store that is shared by instances. All times are the database's own; the caller measures the length of
// what it holds by its own monotonic clock, from before the call.
class Leases {
 public:
  virtual ~Leases() = default;

  // Says that this instance lives, renews what it holds of `boards` (those of its configuration) up to its share, and
  // claims what is free of it. What it is not to hold any more is only given back by the next call, so that its runs
  // have ended by then. An instance is one that said so within `seconds`.
  // A lease that ended and nobody else has claimed is renewed with its number.
  virtual Renewal renew(const std::string &instance, const std::vector<std::string> &boards, double seconds) = 0;

  // Ends the instance: its boards are free at once.
  virtual void release(const std::string &instance) = 0;
};

// One connection, for one thread at a time. Every call may throw StoreError, and reconnects when it can.
class Store {
 public:
  virtual ~Store() = default;

  // In one transaction. What is stored already (the same board, type, time, outcome and size) is not stored again: a
  // write whose answer got lost may be repeated. A run without a lease is never refused.
  virtual Written write(const std::vector<Run> &runs, const std::vector<Event> &events) = 0;

  // One by one, in the order asked for, until `take` returns false. However long that takes, nobody waits for it, and
  // it may use the store itself.
  virtual void runs(const RunQuery &query, const std::function<bool(StoredRun &&)> &take) = 0;
  virtual std::optional<StoredRun> run(int64_t id) = 0;  // with its stream

  // Newest first.
  virtual std::vector<Event> events(const EventQuery &query) = 0;

  // Of each board and type the last run that began at `since` or later, and the last such whole one where that is
  // another, streams included: what an instance shows of boards before it has asked them, and of those that others ask.
  // Until `take`, which may use the store itself, returns false.
  virtual void lastRuns(int64_t since, const std::function<bool(StoredRun &&)> &take) = 0;

  virtual std::vector<std::string> boards() = 0;

  // Removes runs of a type (all events with type -1) from before a time, and what only they needed: one step, of at
  // most so many rows, to be called again until all is done. In PostgreSQL runs leave by whole days (UTC), a day at a
  // step, so that those of the day that `time` is in stay.
  virtual Removed removeBefore(int type, int64_t time, size_t atMost) = 0;

  virtual Leases *leases() = 0;  // nullptr: the store belongs to one instance
};

// "postgresql://..." or "postgres://..." is a database, anything else the path of an SQLite file, made when it is
// missing with its folder. Makes the schema, or migrates an older one; a newer one is an error, also when it becomes
// one later: then nothing more is written. So is a file that is open already by this function. A database that does not
// answer within `patience` has failed.
std::unique_ptr<Store> openStore(const std::string &where, std::chrono::milliseconds patience = kStorePatience);

// Opens it to be read only, as the HTTP side does, beside the one that writes.
std::unique_ptr<Store> openStoreToRead(const std::string &where);

// Copies an SQLite store to a new file while it is in use. Throws StoreError, also when `file` exists.
void backupStore(const std::string &where, const std::string &file);

}  // namespace kepfleet
