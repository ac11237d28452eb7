// session.hpp: one run over the network: the request to a board, its connection back, its messages.

#ifndef KEP_COLLECT_SESSION_HPP
#define KEP_COLLECT_SESSION_HPP

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

#include "stream.hpp"

namespace kepcollect {

// The statuses of the command, and so of its runs.
enum ExitStatus { kWhole = 0, kDamaged = 1, kUsage = 2, kNoAnswer = 3, kBrokenOff = 4 };

using Clock = std::chrono::steady_clock;

struct Request {
  std::string host;
  uint16_t port = 9099;
  uint32_t type = 0;
  int32_t sequence = 0;
  std::string listenAddress = "0.0.0.0";  // the board connects back to it
  std::chrono::milliseconds timeout{10'000};
};

struct Outcome {
  ExitStatus status = kWhole;
  std::string diagnostic;  // empty when all is whole
  bool connected = false;  // otherwise there is no run to print
  Run run;
};

constexpr uint32_t kSelfTestRequest = 3;  // the smaller types ask for a collection

// From now on SIGINT and SIGTERM end the waits below instead of the process; a second one of the same kind ends it.
void catchSignals();

// False as soon as a signal has come.
bool sleepUntil(Clock::time_point time);

// Asks the board once and takes its run to the end. The bytes received go to `raw` as well, unless that is null.
Outcome collect(const Request &request, std::ostream *raw);

// Turns what the decoder found, after the stream's end, into an outcome.
Outcome outcomeOf(const StreamDecoder &decoder);

}  // namespace kepcollect

#endif
