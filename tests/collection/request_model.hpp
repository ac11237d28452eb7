// request_model.hpp: which datagrams are requests, and what is read from them, found a second time; for tests and
// fuzzing, it needs no test framework.
#pragma once

#include <kep/Collect.h>
#include <kep/CollectClient.h>

#include <string>

#include "collection/forged_sender.hpp"

namespace requests {

inline std::string describe(uint32_t sequence, uint32_t type, const std::string &sender, uint32_t port) {
  return std::to_string(sequence) + " " + std::to_string(type) + " " + sender + ":" + std::to_string(port);
}

// What a dropped datagram leaves alone.
inline std::string dropped() { return describe(UINT32_MAX, 99, "nobody", 99); }

// What the next datagram at a socket is read as, which must be counted.
inline std::string received(int board) {
  uint32_t type = 99;
  char sender[16] = "nobody";
  int32_t port = 99;
  CollectStats before, after;
  Collect_GetStats(&before);
  const auto sequence = static_cast<uint32_t>(CollectClient_WaitFor(board, 1, 2, &type, sender, &port));
  Collect_GetStats(&after);
  const std::string seen = describe(sequence, type, sender, static_cast<uint32_t>(port));
  const bool isCounted = after.datagrams - before.datagrams == 1;
  return isCounted && after.dropped - before.dropped == (seen == dropped()) ? seen : seen + ", counted otherwise";
}

// By the rules for its bytes, the true length, a known type, and 0 for what a shorter one does not bring; and for its
// sender, which some host must be able to have: not "this network", a group, or all.
inline std::string expected(const std::string &datagram, const char *sender) {
  const std::string seen = (datagram + std::string(16, '\0')).substr(0, 16);
  const auto wordAt = [&seen](size_t offset) {
    uint32_t word = 0;
    for (size_t i = offset; i < offset + 4; ++i) word = word << 8 | static_cast<uint8_t>(seen[i]);
    return word;
  };
  const uint32_t address = ntohl(inet_addr(sender)), net = address >> 24;
  const bool isHosts = net != 0 && (net < 224 || net > 239) && address != UINT32_MAX;
  const bool isTaken = datagram.size() <= 16 && wordAt(0) == datagram.size() && wordAt(4) <= 3 && isHosts;
  return isTaken ? describe(wordAt(8), wordAt(4), sender, wordAt(12)) : dropped();
}

}  // namespace requests
