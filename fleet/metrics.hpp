// metrics.hpp: what Prometheus scrapes, in its text format 0.0.4
// (https://prometheus.io/docs/instrumenting/exposition_formats/).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/boards.hpp"
#include "fleet/control.hpp"
#include "fleet/names_book.hpp"

namespace kepfleet {

// Takes the next piece of the answer; false: nobody reads on.
using Pieces = std::function<bool(std::string_view piece)>;

// Names that come from names files, so that what collides is known before the first board answers.
class Metrics {
 public:
  // Throws ConfigError when two names files give one metric two meanings: another kind, unit or set of labels.
  explicit Metrics(const NamesBook &names);

  // Of the boards that this instance holds: kep_up, run seconds, messages, bytes, the age of the last whole run, every
  // number; and of the server itself. In pieces: the whole of a large fleet is never in memory.
  void write(const Boards &boards, const Health &health, int64_t now, const Pieces &take) const;

  // Of one run just made.
  void writeProbe(const BoardState &board, const Run &run, int64_t now, const Pieces &take) const;

  uint64_t leftOut() const;  // series that collided at run time

 private:
  struct Implementation;
  std::shared_ptr<Implementation> implementation_;
};

// HTTP service discovery of boards: a JSON array of targets with their labels.
std::string serviceDiscovery(const Boards &boards);

}  // namespace kepfleet
