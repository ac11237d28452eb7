// session.hpp: runs over the network, one of a board, of many boards side by side.
#pragma once

#include <string>
#include <vector>

#include "common/process.hpp"
#include "common/request.hpp"
#include "server/stream.hpp"

namespace kepcommand {

struct Outcome {
  ExitStatus status = kGood;
  std::string diagnostic;  // empty when all is whole, or a signal has come
  bool connected = false;  // otherwise there is no run to print
  kepserver::Run run;
};

// Asks each board once and takes its run to the end; returns what came of each, in the order of the requests. The
// bytes received, of one board, go to the file `raw` as well, unless it is -1; what is in it goes when the first of
// them come. Throws Failure when it cannot even wait.
std::vector<Outcome> collect(const std::vector<Request> &requests, int raw);

// Turns what the decoder found, after the stream's end, into an outcome, and takes its run.
Outcome outcomeOf(kepserver::StreamDecoder &decoder);

}  // namespace kepcommand
