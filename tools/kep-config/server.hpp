// server.hpp: both ends of a query on the network: the server, and the device that asks it.

#ifndef KEP_CONFIG_SERVER_HPP
#define KEP_CONFIG_SERVER_HPP

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>

#include "ini.hpp"
#include "query.hpp"

namespace kepconfig {

struct Endpoint {
  std::string address;  // dotted, as checkAddress has it
  uint16_t port = 0;
};

// "ADDRESS port PORT"
std::string nameOf(const Endpoint &endpoint);

// A UDP socket. Throws Failure when it cannot be had.
class Socket {
 public:
  explicit Socket(const Endpoint &local);  // port 0: any that is free
  Socket(const Socket &) = delete;
  Socket &operator=(const Socket &) = delete;
  ~Socket();
  int fd() const { return fd_; }
  Endpoint local() const;

 private:
  int fd_;
};

// Answers queries, and tells each in a line of the log, until a signal comes; true if that was SIGHUP, and no other.
// Throws Failure when the socket fails, and what `log` throws when it cannot be written.
bool serve(const Socket &socket, const Settings &settings, bool echoDefault, std::ostream &log);

// Sends the query once and returns the first answer, of which it keeps as much as a board does. Throws Failure.
std::string ask(const Endpoint &server, const Query &query, std::chrono::milliseconds timeout);

}  // namespace kepconfig

#endif
