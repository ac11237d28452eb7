// host.hpp: a host that reports values of every kind, and the runs that a server should get of it.
#pragma once

#include <kep/kep.h>

#include <map>

#include "collection/server.hpp"

namespace host {

constexpr int32_t kSelfTest = 3;  // as a request type

extern CollectItem *figures, *logs;
extern ZuFault *fault;

// Registers the items, without memory fewer of them.
void registerItems();
void releaseItems();

// What the values are made of from now on.
void setContent(int32_t number, size_t textSize = 1100);

// Makes a run of a type for a server of 127.0.0.1.
int32_t start(int32_t type, int32_t port, int32_t sequence);

// What a run sends, and when it looks whether that goes through.
struct Run {
  // The automatic numbers begin behind `lastNumber`.
  Run(int32_t type, int32_t sequence, int32_t lastNumber);

  size_t size() const { return stream.messages().size(); }

  wire::Stream stream;
  std::map<size_t, std::string> checks;  // of these messages; and what is logged since the last one
};

// With # for the digits of times.
std::vector<std::string> withoutTimes(std::vector<std::string> texts);

// Texts of the service's log.
std::string line(const std::string &text);
std::string beginAndEnd(const std::string &item);

}  // namespace host
