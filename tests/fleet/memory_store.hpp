// memory_store.hpp: a store that fails, hangs and loses leases when a test says so.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "kep-fleet/store.hpp"

// What connections to it share.
struct Memory {
  std::mutex mutex;
  std::condition_variable changed;
  bool fails = false, hangs = false;
  std::vector<kepfleet::Run> runs;
  std::vector<kepfleet::Event> events;
  std::vector<size_t> batches;
  std::map<int, int> removals;  // by type
  std::vector<kepfleet::Lease> leases;
  int renewals = 0;
  bool isReleased = false;

  template <class Change>
  void set(const Change &change) {
    const std::lock_guard<std::mutex> lock(mutex);
    change(*this);
    changed.notify_all();
  }

  // Waits for it, a minute at most.
  template <class Condition>
  bool waitFor(const Condition &condition) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, std::chrono::minutes(1), [&] { return condition(*this); });
  }
};

class MemoryStore : public kepfleet::Store, private kepfleet::Leases {
 public:
  explicit MemoryStore(std::shared_ptr<Memory> memory, bool isShared = false)
      : memory_(std::move(memory)), isShared_(isShared) {}

  kepfleet::Written write(const std::vector<kepfleet::Run> &runs, const std::vector<kepfleet::Event> &events) override {
    const auto lock = enter();
    kepfleet::Written written;
    for (const kepfleet::Run &run : runs) {
      if (run.lease == 99) {
        ++written.refusedRuns;
      } else {
        memory_->runs.push_back(run);
      }
    }
    for (const kepfleet::Event &event : events) {
      if (event.lease == 99) {
        ++written.refusedEvents;
      } else {
        memory_->events.push_back(event);
      }
    }
    memory_->batches.push_back(runs.size());
    memory_->changed.notify_all();
    return written;
  }
  kepfleet::Removed removeBefore(int type, int64_t /*time*/, size_t /*atMost*/) override {
    const auto lock = enter();
    const int step = ++memory_->removals[type];
    memory_->changed.notify_all();
    return {1, step % 2 == 0};
  }
  void lastRuns(int64_t /*since*/, const std::function<bool(kepfleet::StoredRun &&)> & /*take*/) override {}
  void runs(const kepfleet::RunQuery & /*query*/,
            const std::function<bool(kepfleet::StoredRun &&)> & /*take*/) override {}
  std::optional<kepfleet::StoredRun> run(int64_t /*id*/) override { return std::nullopt; }
  std::vector<kepfleet::Event> events(const kepfleet::EventQuery & /*query*/) override { return {}; }
  std::vector<std::string> boards() override { return {}; }
  kepfleet::Leases *leases() override { return isShared_ ? this : nullptr; }

 private:
  std::unique_lock<std::mutex> enter() {
    std::unique_lock<std::mutex> lock(memory_->mutex);
    memory_->changed.wait(lock, [this] { return !memory_->hangs; });
    if (memory_->fails) throw kepfleet::StoreError("the disk is full");
    return lock;
  }
  kepfleet::Renewal renew(const std::string & /*instance*/, const std::vector<std::string> & /*boards*/,
                          double /*seconds*/) override {
    const auto lock = enter();
    ++memory_->renewals;
    memory_->changed.notify_all();
    return {memory_->leases};
  }
  void release(const std::string & /*instance*/) override {
    const auto lock = enter();
    memory_->isReleased = true;
  }

  const std::shared_ptr<Memory> memory_;
  const bool isShared_;
};
