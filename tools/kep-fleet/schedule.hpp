// schedule.hpp: when each board is asked for what. It knows no clock: whoever uses it tells the time, which never goes
// back.
//
// Every board has its own phase within a period, which follows from its name, so that boards do not answer in step.
// A board is asked one thing at a time. What is late by more than a quarter of its period is skipped, not caught up. A
// board that does not answer is asked ever less often: the pause doubles from its shortest period on.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kepfleet {

using Moment = std::chrono::milliseconds;  // of a monotonic clock, since any beginning

struct Interval {
  int type = 0;
  Moment every{0};

  bool operator==(const Interval &other) const { return type == other.type && every == other.every; }
};

class Schedule {
 public:
  explicit Schedule(Moment longestPause) : longestPause_(longestPause) {}

  void setLongestPause(Moment longest) { longestPause_ = longest; }

  // Adds a board, or changes when it is asked; one that stays as it is is left alone. A new one is asked for the first
  // time within `spread`, so that it is soon known, but not together with all others.
  void put(const std::string &board, const std::vector<Interval> &intervals, Moment now, Moment spread);

  // A board with a run under way is to be told as ended before it is put again.
  void remove(const std::string &board);
  std::vector<std::string> boards() const;

  struct Due {
    std::string board;
    int type = 0;
    Moment due{0};  // when it should have been asked
  };

  // When take() has something to give; empty: never, as things are.
  std::optional<Moment> next() const;

  // What is due next, if anything is; its board counts as asked from then on.
  std::optional<Due> take(Moment now);

  // Counts a board as asked beside the schedule; false while a run of it is under way.
  bool begin(const std::string &board);

  // The run of a board is over that was asked at `asked`.
  void end(const std::string &board, Moment asked, Moment now, bool answered);

  uint64_t skipped() const { return skipped_; }  // times that passed while the board was busy, or nobody took them

 private:
  struct Board;

  // `due` is a time of the schedule, `at` when it is looked at, which is later when the board was busy or pauses.
  struct Entry {
    Interval interval;
    Moment phase{0}, due{0}, at{0};
    Board *board = nullptr;
  };
  struct Board {
    const std::string *name = nullptr;
    std::vector<Entry> entries;
    unsigned failures = 0;  // in a row
    Moment pausedUntil{0};
    bool isBusy = false;
  };
  struct Earlier {
    bool operator()(const Entry *a, const Entry *b) const;
  };

  void makeBusy(Board &board);
  void enqueue(Board &board, Moment now, bool wasPausing);
  void enqueue(Entry &entry, Moment now, bool wasPausing);

  Moment longestPause_;
  std::unordered_map<std::string, Board> boards_;
  std::set<Entry *, Earlier> queue_;  // of the entries of boards that are not busy
  uint64_t skipped_ = 0;
};

}  // namespace kepfleet
