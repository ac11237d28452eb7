// door.hpp: a board's way back: the request, and the connection that the board makes for it.
//
//   request   length (4) = 16 | type (4) | sequence (4) | port to connect back to (4)      one UDP datagram
//
// The board connects by TCP to the datagram's source address and the port named in it, and its first message carries
// the request's sequence. The request is sent once, never again: every datagram that a board takes starts a run of its
// own.
#pragma once

#include <netinet/in.h>
#include <poll.h>

#include <list>
#include <optional>
#include <string>
#include <vector>

#include "common/process.hpp"
#include "common/request.hpp"

namespace kepcommand {

// A connection that has come, and the start of its first message.
struct Caller {
  Descriptor connection;
  in_addr from;
  std::string begun;
};

class Door {
 public:
  // Sends the request. Throws Failure.
  Door(const Request &request, in_addr board);

  // Appends what it waits for.
  void await(std::vector<pollfd> &entries) const;

  // Sees who has come, and returns the board: the first from its address that begins with the request's number, be it
  // any where the board numbers its messages itself. All others are dropped. Throws Failure when the board refuses.
  std::optional<Caller> answer();

  // What to say when the board has not come in time.
  std::string missing() const;

 private:
  void takeCaller();

  Request request_;
  in_addr board_;
  Descriptor listener_;
  Descriptor requestSocket_;
  std::list<Caller> callers_;
  std::string stranger_;  // who has been dropped: it may be the board at another of its addresses
};

}  // namespace kepcommand
