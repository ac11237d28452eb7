// run.hpp: what came of asking a board once, and what is worth an alarm: what every part of the fleet's server hands
// on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "server/stream.hpp"

namespace kepfleet {

// Both are stored as these numbers, which stay.
enum class Outcome { kWhole = 0, kDamaged = 1, kNoAnswer = 2, kBrokenOff = 3, kTestFailed = 4 };
enum class EventKind {
  kLost = 0,             // a board that answered, or had not been asked, does not
  kFound = 1,            // and does again
  kTestFailed = 2,       // a self-test that passed, or had not been run, fails
  kTestPassed = 3,       // and passes again
  kItemGone = 4,         // an item of the run before is not in the catalogue
  kIdentityChanged = 5,  // the board says it is of another kind
  kDamaged = 6,          // what a board sends stops being whole
};

std::string_view nameOf(Outcome outcome);  // "whole", "damaged", "no answer", "broken off", "test failed"
std::string_view nameOf(EventKind kind);   // "lost", "found", "test failed", "test passed", "item gone", ...

constexpr int kTypes = 4;     // of requests
constexpr int kSelfTest = 3;  // among them

// One run. `stream` is what the board sent, to the byte, be it cut short; nothing else is stored of its content.
struct Run {
  std::string board;    // its name
  int64_t started = 0;  // milliseconds since 1970, when it was asked
  int type = 0;         // of the request: 0 to 2 a collection, 3 a self-test
  Outcome outcome = Outcome::kWhole;
  uint32_t duration = 0;  // milliseconds
  uint32_t messages = 0;  // that came whole
  std::string stream;
  std::string reason;  // of a run that is not whole: what went wrong, in words
  uint64_t lease = 0;  // the number of the lease under which the board was asked; 0: the store has no leases
  size_t leftOut = 0;  // bytes of the stream, where it is only in the store
};

// Of its stream, wherever that is.
size_t sentBytes(const Run &run);

// A run that came to its end, be it that of a self-test that failed.
bool isWhole(const Run &run);

// What its stream says.
kepserver::Run decode(const Run &run);

// To be held by whoever decodes for a client, until he needs what is decoded no more: that of a large stream takes many
// times as much, so they come one at a time.
class DecodingTurn {
 public:
  explicit DecodingTurn(size_t bytes);

 private:
  std::unique_lock<std::mutex> lock_;
};

// Of the board, two bytes; empty when it did not say.
std::string identityOf(const kepserver::Run &content);

struct Event {
  std::string board;
  int64_t time = 0;  // milliseconds since 1970
  EventKind kind = EventKind::kLost;
  std::string text;  // of which item, of which kind; may hold bytes of the board's
  uint64_t lease = 0;
};

}  // namespace kepfleet
