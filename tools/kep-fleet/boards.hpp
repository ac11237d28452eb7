// boards.hpp: what is known of every board now: the last runs, whether it answers and since when, its labels. Every
// other part looks here; what it gets are copies, and runs that never change.
//
// All streams together take at most 256 MiB: each board has an equal part of that for the runs of all types, and a
// run that does not fit into it is here without its stream, which the store has.
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

#include "kep-fleet/config.hpp"
#include "kep-fleet/names_book.hpp"
#include "kep-fleet/run.hpp"
#include "server/stream.hpp"

namespace kepfleet {

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
  explicit Boards(const NamesBook &names) : names_(names) {}

  // Boards that are configured no more are forgotten, what is known of the others stays.
  void configure(const Config &config);

  // Takes what an earlier process, or another instance, stored: no events.
  void recall(Run run);

  // What there is to know of a run, its outcome settled by what the names say of it.
  struct Judged {
    Run run;
    RunPointer kept;  // the same, to stay here
    bool isSelfTest = false;
    std::string identity;
    std::string catalogue;  // the names of its items, one a line
    Labels labels;          // that its values give
  };

  // Changes nothing, and may take as long as the run is large; for any thread.
  Judged judge(Run run) const;

  struct Taken {
    Run run;
    std::vector<Event> events;
  };

  // Takes what just came, and tells what is worth an event.
  Taken take(Judged judged);

  void setHeld(const std::string &board, bool isHeld);

  std::optional<BoardState> find(const std::string &board) const;
  std::vector<BoardState> all() const;  // in the order of the configuration
  size_t count() const;
  uint64_t version() const;  // grows with every change: a page asks again when it does

 private:
  struct Entry {
    BoardState state;
    Labels own;                        // of the labels, those that its values give
    std::string catalogue;             // of the last whole collection; empty: not known
    int64_t newest = INT64_MIN;        // when the last run of any type was asked
    int64_t newestReport = INT64_MIN;  // likewise, of whole collections
    std::array<bool, kTypes> isBad{};  // the last run of the type that was answered did not come whole, or failed
    int problemKind = 0;               // changes when `problem` is another, whatever its words
  };

  bool isNews(const Run &run) const;
  bool isGiven(const std::string &label) const;
  Judged look(Run run, const kepserver::Run &content) const;
  void makeFit(BoardState &state, const RunPointer &run) const;
  std::vector<Event> update(const Judged &judged, bool isLive);
  void noteOutcome(Entry &entry, const Run &run, bool isNewest, std::vector<Event> &events);
  void noteContent(Entry &entry, const Judged &judged, std::vector<Event> &events);
  void settleProblem(Entry &entry, int64_t now);

  const NamesBook &names_;
  mutable std::mutex mutex_;
  std::vector<Entry> entries_;
  std::unordered_map<std::string, size_t> places_;
  std::vector<LabelFrom> labelFrom_;
  uint64_t version_ = 0;
};

}  // namespace kepfleet
