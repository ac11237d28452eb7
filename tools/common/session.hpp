// session.hpp: one run over the network: the request to a board, its connection back, its messages.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "common/process.hpp"
#include "server/stream.hpp"

namespace kepcommand {

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
  ExitStatus status = kGood;
  std::string diagnostic;  // empty when all is whole
  bool connected = false;  // otherwise there is no run to print
  kepserver::Run run;
};

constexpr uint32_t kSelfTestRequest = 3;  // the smaller types ask for a collection
constexpr int32_t kNeverAnswered = -1;    // a board cannot tell this sequence from a damaged datagram

// A number that nobody can guess, so that neither a stranger nor a late answer to an earlier request is taken for the
// answer to this one. 0 and kNeverAnswered mean something else.
int32_t randomSequence();

// Adds an option whose value is a HOST, or HOST:PORT; two ports are wrong usage.
CLI::Option *addHost(CLI::App &app, const std::string &name, Request &request, const std::string &help);

// Adds --port, --type, --listen, --any-source and --timeout, and returns them.
std::vector<CLI::Option *> addRequestOptions(CLI::App &app, Request &request);

// Asks the board once and takes its run to the end. The bytes received go to the file `raw` as well, unless it is -1;
// what is in it goes when the first of them come.
Outcome collect(const Request &request, int raw);

// Turns what the decoder found, after the stream's end, into an outcome, and takes its run.
Outcome outcomeOf(kepserver::StreamDecoder &decoder);

}  // namespace kepcommand
