// page_data.hpp: what the page shows, as JSON. All texts in it are printable: what a board sent of other bytes stands
// escaped in them. Times are milliseconds since 1970.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kep-fleet/boards.hpp"
#include "kep-fleet/control.hpp"
#include "kep-fleet/store.hpp"
#include "server/names.hpp"

namespace kepfleet {

// The fleet, a row a board. Rows are made once for all clients, and each is sent those that it has not got.
class FleetRows {
 public:
  explicit FleetRows(const Boards &boards) : boards_(boards) {}

  // `version` is that of the answer before, or empty. An answer with "all" replaces what the client has; another one
  // only brings rows that are different.
  std::string since(const std::string &version, const Health &health, bool mayAct);

  size_t newTo(const std::string &version);  // rows that an answer to it will have

 private:
  struct Row {
    std::string name, json, state;
    uint64_t version = 0;
  };

  void refresh();
  uint64_t knownIn(const std::string &version) const;                 // the newest row that the client has; 0: none
  std::string epoch() const { return std::to_string(epoch_) + "-"; }  // with which a version begins

  const Boards &boards_;
  std::mutex mutex_;
  std::vector<Row> rows_;
  uint64_t epoch_ = 0;            // another one where boards came or went
  uint64_t version_ = 0;          // of the newest row
  std::optional<uint64_t> seen_;  // of the boards' versions
  std::chrono::steady_clock::time_point refreshed_;
};

// Tells whether there is something new to be shown of a board.
std::string boardVersion(const BoardState &board);

// `before` gives the whole run that began before one, if there is one; it may throw std::runtime_error.
std::string boardJson(const BoardState &board, const kepserver::Names &names,
                      const std::function<std::optional<Run>(const Run &)> &before);

// Of a run made now.
std::string askedJson(const kepserver::Names &names, const Run &run);

struct PlotQuery {
  int type = 0;
  int32_t item = 0, section = 0, key = 0;
  size_t field = 0;    // of a buffer, counted from 0
  bool isRaw = false;  // of a counter: what it says, rather than by how much it grows in a second
  int64_t from = 0, to = 0;
  std::function<bool()> isEnding;  // and nobody waits for it any more
};

// Where the board was away, and where a counter began anew, there is a point without a number.
std::string plotJson(Store &store, const BoardState &board, const kepserver::Names &names, const PlotQuery &query);

std::string runsJson(Store &store, const RunQuery &query);
std::string eventsJson(Store &store, const EventQuery &query);

std::string healthJson(const Health &health, bool withReasons);

// {"problem": ...}
std::string problemJson(const std::string &problem);

}  // namespace kepfleet
