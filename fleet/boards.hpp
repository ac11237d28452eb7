// boards.hpp: what is known of every board now: the last runs, whether it answers and since when, its labels. Every
// other part looks here; what it gets are copies, and runs that never change.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "fleet/config.hpp"
#include "fleet/run.hpp"

namespace kepfleet {

constexpr int kTypes = 4;     // of requests
constexpr int kSelfTest = 3;  // among them

using RunPointer = std::shared_ptr<const Run>;

struct BoardState {
  BoardConfig config;
  Labels labels;                             // the configuration's, and those that its own values give
  bool isHeld = true;                        // this instance asks it
  std::optional<bool> answers;               // of the last run of any type; empty: not asked yet
  std::string problem;                       // why it is red now; empty: all is well
  int64_t since = 0;                         // milliseconds since 1970: since when `problem` is what it is
  std::string identity;                      // two bytes; empty: never told
  std::array<RunPointer, kTypes> last;       // by type
  std::array<RunPointer, kTypes> lastWhole;  // of them, those that came whole, self-tests that failed included
};

class Boards {
 public:
  // Boards that are configured no more are forgotten, what is known of the others stays.
  void configure(const Config &config);

  // Takes what an earlier process, or another instance, stored: no events.
  void recall(const Run &run);

  // Takes what just came, and tells what is worth an event.
  std::vector<Event> take(const Run &run);

  void setHeld(const std::string &board, bool isHeld);

  std::optional<BoardState> find(const std::string &board) const;
  std::vector<BoardState> all() const;  // in the order of the configuration
  size_t count() const;
  uint64_t version() const;  // grows with every change: a page asks again when it does

 private:
  struct Entry;
  mutable std::mutex mutex_;
  std::vector<BoardState> states_;
  std::unordered_map<std::string, size_t> places_;
  std::vector<LabelFrom> labelFrom_;
  uint64_t version_ = 0;
};

}  // namespace kepfleet
