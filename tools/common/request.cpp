// request.cpp: the options of a request.

#include "common/request.hpp"

#include <arpa/inet.h>

#include <random>

#include "common/command_line.hpp"

namespace kepcommand {

namespace {

// The system lets a socket listen at a multicast address and at the broadcast as well.
std::string checkListenAddress(const std::string &text) {
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return checkAddress(text);
  const bool isMany = ntohl(address.s_addr) >> 28 == 0xE || address.s_addr == INADDR_BROADCAST;
  return isMany ? "nobody can connect to " + text : "";
}

}  // namespace

int32_t randomSequence() {
  std::random_device random;
  for (;;) {
    const auto sequence = static_cast<int32_t>(random());
    if (sequence != 0 && sequence != kNeverAnswered) return sequence;
  }
}

std::vector<CLI::Option *> addRequestOptions(CLI::App &app, Request &request) {
  return {
      addNumber(app, "--port", request.port, 1, 65535, "UDP port at which the board takes requests [9099]")
          ->type_name("PORT"),
      addNumber(app, "--type", request.type, 0, 2, "What to collect; the board says what each means [0]")
          ->type_name("0|1|2"),
      app.add_option("--listen", request.listenAddress, "Local IPv4 address that the board connects to [any]")
          ->type_name("ADDR")
          ->check(checkListenAddress),
      app.add_flag("--any-source", request.anySource, "Let the board connect from any address, not only from HOST's"),
      addSeconds(app, "--timeout", request.timeout,
                 "Longest wait for HOST's address, for the connection, and for data each time [10]")
          ->type_name("SECONDS"),
  };
}

Request requestTo(const CLI::App &app, const std::string &name, const std::string &text, const Request &request) {
  Request to = request;
  const size_t colon = text.rfind(':');
  to.host = text.substr(0, colon);
  const std::string complaint = checkHost(to.host);
  if (!complaint.empty()) throw CLI::ValidationError(name, complaint);
  if (colon == std::string::npos) return to;
  if (app.count("--port") > 0) throw CLI::ValidationError(name, "a port in " + text + ", and --port");
  to.port = static_cast<uint16_t>(wholeNumber(name, text.substr(colon + 1), 1, 65535));
  return to;
}

}  // namespace kepcommand
