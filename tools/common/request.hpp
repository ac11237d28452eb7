// request.hpp: what a board is asked, and how a command's line says it.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

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

constexpr uint32_t kSelfTestRequest = 3;  // the smaller types ask for a collection
constexpr int32_t kNeverAnswered = -1;    // a board cannot tell this sequence from a damaged datagram

// A number that nobody can guess, so that neither a stranger nor a late answer to an earlier request is taken for the
// answer to this one. 0 and kNeverAnswered mean something else.
int32_t randomSequence();

// Adds --port, --type, --listen, --any-source and --timeout, and returns them.
std::vector<CLI::Option *> addRequestOptions(CLI::App &app, Request &request);

// The request with its board, which `text` says, being HOST or HOST:PORT, for the option or argument `name`. Throws a
// CLI::ParseError for what is neither, and for two ports.
Request requestTo(const CLI::App &app, const std::string &name, const std::string &text, const Request &request);

}  // namespace kepcommand
