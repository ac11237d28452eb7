// lease_keeper.hpp: the thread that renews this instance's leases where the store is shared. Whether they still hold,
// who asks boards sees for itself, by a clock that goes on while the machine sleeps: a renewal can hang.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kep-fleet/store.hpp"

namespace kepfleet {

// Since the machine started, the time that it slept included.
std::chrono::milliseconds bootClock();

class LeaseKeeper {
 public:
  // Both are called on the thread. `until`, by the boot clock, was measured from before the renewal. When `leases`
  // returns, no run is under way of a board that is not among them.
  struct Takers {
    std::function<void(const std::vector<Lease> &leases, std::chrono::milliseconds until)> leases;
    std::function<void(StoredRun &&)> othersRuns;  // every now and then, of all boards
  };

  // `store` is a connection of its own that has leases.
  LeaseKeeper(std::unique_ptr<Store> store, std::string instance, std::chrono::milliseconds lease, Takers takers);
  ~LeaseKeeper();  // waits for the thread

  void start(std::vector<std::string> boards);
  void setBoards(std::vector<std::string> boards);
  std::string problem() const;  // of the last renewal; empty: all is well

  // Gives the leases back. False when that lasts longer than `patience`.
  bool stop(std::chrono::milliseconds patience);

 private:
  void work();
  void renew(const std::vector<std::string> &boards);
  std::chrono::milliseconds pauseBehind(const Renewal &renewal) const;
  void lookAtOthers(const std::vector<std::string> &boards);
  bool isStopping() const;

  const std::unique_ptr<Store> store_;
  const std::string instance_;
  const std::chrono::milliseconds lease_;
  const Takers takers_;
  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::vector<std::string> boards_;
  std::string problem_;
  bool isStopping_ = false, isOver_ = false;
  std::chrono::milliseconds nextRenewal_{0}, newUntil_{0};  // by the boot clock
  std::chrono::steady_clock::time_point nextLook_;          // at others' runs
  std::thread thread_;
};

}  // namespace kepfleet
