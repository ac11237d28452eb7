// part.hpp: what of a run is printed, and in which order: all of it, or what differs from the run before.
//
// What is said here lives as long as the runs.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "server/stream.hpp"

namespace kepserver {

// By item, section and key; among equals, which is how the lines of a log arrive, the order of arrival stays.
std::vector<const Value *> sortedValues(const Run &run);

// An item of the catalogue, or one whose self-test ran, which has no index.
struct Announced {
  std::optional<int32_t> index;
  std::string_view name;
};

struct Part {
  const Run &run;
  const Run *before = nullptr;  // nullptr: the part is all of the run
  bool identity = true;
  std::vector<Announced> items{}, goneItems{};
  std::vector<const Value *> values{};  // as sortedValues has them
  std::vector<const Value *> gone{};    // of the run before, the last of each item, section and key; likewise
};

Part wholeOf(const Run &run);

// Of several values of the same item, section and key, as a log has them, what differs is what came behind those that
// are known. What is gone is told only by a run that is whole; the run before must be.
Part changesOf(const Run &before, const Run &run);

// Whether the run is another only in its numbers of messages.
bool isEmpty(const Part &changes);

}  // namespace kepserver
