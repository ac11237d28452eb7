// alarm.hpp: runs a command for each event, so that a fleet can raise the alarm with nothing beside it.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

#include "kep-fleet/config.hpp"
#include "kep-fleet/run.hpp"

namespace kepfleet {

// The command gets the event on its standard input, as {"board": ..., "time": milliseconds since 1970, "kind": ...,
// "text": ...}, all printable; its standard error is the server's. It knows PATH, HOME, LANG, LC_ALL and TZ and has no
// other descriptors. With the shell, or when it takes too long, all that it started in its process group ends.
class Alarm {
 public:
  struct Counts {
    uint64_t started = 0;
    uint64_t failed = 0;   // another exit status than 0, a signal, too long, or not to be started
    uint64_t dropped = 0;  // events, the oldest first, of which too many waited
  };

  explicit Alarm(const AlarmConfig &config);
  ~Alarm();

  // For any thread; none waits for a command.
  void configure(const AlarmConfig &config);  // for events that come; those that wait stay
  void put(const Event &event);
  Counts counts() const;

  // Starts what waits, as far as there is time, and ends what has not ended then.
  void stop(std::chrono::milliseconds patience);

 private:
  using Clock = std::chrono::steady_clock;
  struct Command {
    pid_t process = -1;  // and its group
    Clock::time_point deadline;
    bool isKilled = false;
  };

  void work();
  void startWaiting(std::unique_lock<std::mutex> &lock);
  void reap(Clock::time_point now);

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  AlarmConfig config_;
  std::deque<std::string> waiting_;  // JSON
  std::vector<Command> running_;
  Counts counts_;
  Clock::time_point end_ = Clock::time_point::max();
  std::thread thread_;
};

}  // namespace kepfleet
