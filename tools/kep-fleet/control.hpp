// control.hpp: what the HTTP side may ask of the side that collects. Both run on threads of their own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "kep-fleet/run.hpp"

namespace kepfleet {

// Counters grow from the start of the process.
struct Health {
  std::string store;      // why it takes no runs; empty: all is well
  std::string removal;    // why it does not remove what is old; empty: all is well
  std::string leases;     // why no boards are held although there are some; empty: all is well
  size_t heldBoards = 0;  // that this instance asks
  size_t runsUnderWay = 0;
  size_t waitingRuns = 0;  // for the store
  size_t waitingBytes = 0;
  uint64_t droppedRuns = 0;                     // that the store did not take in time: lost
  uint64_t refusedRuns = 0, refusedEvents = 0;  // under a lease that was lost
  uint64_t strangers = 0;                       // connections that carried no number that was awaited
  uint64_t skippedPolls = 0;                    // whose time had passed by more than a quarter of their period
  uint64_t startedRuns = 0, wholeRuns = 0;
  uint64_t startedAlarms = 0, failedAlarms = 0, droppedAlarms = 0;  // commands for events
};

enum class Asked { kYes, kUnknown, kBusy, kNotHeld, kEnding };

class Control {
 public:
  using Done = std::function<void(const Run &)>;

  virtual ~Control() = default;

  // Asks a board of the configuration now. With kYes `done` is called once, on a thread of the collector, where it may
  // not block; otherwise never.
  virtual Asked ask(const std::string &board, int type, Done done) = 0;

  // Asks an address that may not be configured, and keeps nothing of it.
  virtual Asked probe(const std::string &host, uint16_t port, int type, Done done) = 0;

  virtual Health health() const = 0;
};

}  // namespace kepfleet
