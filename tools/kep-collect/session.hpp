// session.hpp: one run over the network: the request to a board, its connection back, its messages.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "common/process.hpp"
#include "server/stream.hpp"

namespace kepcollect {

using kepcommand::ExitStatus;

struct Request {
  std::string host;
  uint16_t port = 9099;
  uint32_t type = 0;
  int32_t sequence = 0;
  std::string listenAddress = "0.0.0.0";  // the board connects back to it
  bool anySource = false;                 // takes a connection also from another address than the request went to
  std::chrono::milliseconds timeout{10'000};
};

struct Outcome {
  ExitStatus status = kepcommand::kGood;
  std::string diagnostic;  // empty when all is whole
  bool connected = false;  // otherwise there is no run to print
  kepserver::Run run;
};

constexpr uint32_t kSelfTestRequest = 3;  // the smaller types ask for a collection

// Asks the board once and takes its run to the end. The bytes received go to the file `raw` as well, unless it is -1.
Outcome collect(const Request &request, int raw);

// Turns what the decoder found, after the stream's end, into an outcome, and takes its run.
Outcome outcomeOf(kepserver::StreamDecoder &decoder);

}  // namespace kepcollect
