// keeper.hpp: the one thread that writes to the store. Runs are gathered and written together; what the store does not
// take waits, up to a limit, beyond which the oldest go. It also removes what is older than it is to be kept.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kep-fleet/run.hpp"
#include "kep-fleet/store.hpp"

namespace kepfleet {

// What time it is, for what is removed by its age: when the clock is suddenly far ahead, be it since the newest run
// that is stored, time goes on from there for a day, in which the clock may be set right. Then it is believed.
class PatientClock {
 public:
  explicit PatientClock(std::optional<int64_t> newest) : time_(newest) {}

  // `wall` in milliseconds since 1970, as all its times; `uptime` never jumps.
  int64_t now(int64_t wall, std::chrono::milliseconds uptime);

  bool isDoubting() const { return doubtingSince_.has_value(); }

 private:
  std::optional<int64_t> time_;
  std::optional<std::chrono::milliseconds> seen_, doubtingSince_;
};

class Keeper {
 public:
  using Keep = std::map<int, std::chrono::milliseconds>;  // by type of request; -1: events

  struct Status {
    std::string problem;  // why the store takes no runs; empty: all is well
    std::string removal;  // why what is old is not removed; empty: all is well
    size_t waitingRuns = 0, waitingBytes = 0;
    uint64_t droppedRuns = 0;                     // that the store did not take in time
    uint64_t refusedRuns = 0, refusedEvents = 0;  // written under a lease that was lost
  };

  // `newest`: when the newest run that is stored began, if there is one.
  Keeper(std::unique_ptr<Store> store, size_t waitingBytes, Keep keep, std::optional<int64_t> newest = {});
  ~Keeper();  // waits for the thread

  // All for any thread; none waits for the store.
  void configure(size_t waitingBytes, const Keep &keep);
  void put(Run run, std::vector<Event> events);
  Status status() const;

  // Writes what waits. False when the store does not take it, or not within `patience`: it may then hold up the thread,
  // and the process is best ended without it.
  bool stop(std::chrono::milliseconds patience);

 private:
  using Clock = std::chrono::steady_clock;
  struct Waiting {
    Run run;
    Clock::time_point since;
  };

  void work();
  bool isDue(Clock::time_point now) const;
  Clock::time_point nextLook() const;
  void writeBatch(std::unique_lock<std::mutex> &lock);
  void takeBack(std::vector<Run> &runs, std::vector<Event> &events);
  void trim();
  void removeOld(std::unique_lock<std::mutex> &lock);
  int64_t retentionTime();

  const std::unique_ptr<Store> store_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Waiting> waiting_;
  std::deque<Event> events_;
  size_t mostBytes_;
  size_t runsInHand_ = 0, bytesInHand_ = 0;  // that are being written
  Keep keep_;
  Status status_;                // its bytes are those of `waiting_` alone
  Clock::time_point retry_;      // a store that failed is left alone until then
  Clock::time_point cleanup_;    // when the next step of retention is due
  Keep::const_iterator oldest_;  // whose turn it is there
  PatientClock clock_;           // the thread's own
  bool isStopping_ = false, isOver_ = false, isAllStored_ = false;
  std::thread thread_;
};

}  // namespace kepfleet
