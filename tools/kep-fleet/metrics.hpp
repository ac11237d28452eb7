// metrics.hpp: what Prometheus scrapes: /metrics, /probe and the discovery of boards. docs/metrics.md tells what the
// metrics are called.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "kep-fleet/boards.hpp"
#include "kep-fleet/config.hpp"
#include "kep-fleet/control.hpp"
#include "kep-fleet/metric_names.hpp"
#include "kep-fleet/names_book.hpp"
#include "kep-fleet/samples.hpp"

namespace kepfleet {

// For any thread. What it is given outlives it, but for configurations.
class Metrics {
 public:
  // `names` have been loaded by the same configuration. Throws ConfigError when they collide.
  Metrics(const Config &config, const NamesBook &names);

  // After a configuration and its names files have been read anew, which are known not to collide.
  void configure(const Config &config);

  // Of the boards that this instance holds, and of the server itself; `now` is in milliseconds since 1970. In pieces:
  // the text of a large fleet is never in memory as a whole, but some 20 bytes a series until it is taken are.
  void write(const Boards &boards, const Health &health, int64_t now, const Pieces &take);

  // Of one run just made.
  void writeProbe(const BoardState &board, const Run &run, int64_t now, const Pieces &take);

  uint64_t leftOut() const;  // samples: what collided among a board's own

 private:
  struct Tables {
    Tables(const Config &config, const NamesBook &book);
    MetricNames names;
    std::vector<Poll> polls;
    std::chrono::milliseconds longestRun;
  };
  struct Answer;

  std::shared_ptr<const Tables> tables() const;
  void countLeftOut(const Answer &answer);

  const NamesBook &names_;
  mutable std::mutex mutex_;
  std::shared_ptr<const Tables> tables_;
  uint64_t leftOut_ = 0;
  std::chrono::steady_clock::time_point nextWord_;  // of the log about what is left out
};

// Every board of the configuration, as Prometheus asks for it over HTTP: a JSON array with, for each, HOST:PORT for a
// target, and __meta_kep_board, __meta_kep_held ("true" or "false") and a __meta_kep_label_... for each label.
std::string serviceDiscovery(const Boards &boards);

}  // namespace kepfleet
