// metric_names.hpp: the metrics that names files make of what boards send, known before the first board answers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "kep-fleet/names_book.hpp"
#include "server/names.hpp"

namespace kepfleet {

enum class MetricType { kGauge, kCounter, kUntyped };

// All series of one name.
struct Family {
  std::string name;
  MetricType type = MetricType::kGauge;
  std::string unit;        // the base unit; empty: none
  bool hasStates = false;  // a series for each, with the label `state`
  std::string help;
  std::string origin;  // the file that names it first, and where in it
};

// The server's own, before all others.
enum OwnFamily : size_t {
  kUp,
  kRunSeconds,
  kRunMessages,
  kRunBytes,
  kLastWholeRunAge,
  kUnnamed,
  kUnnamedTest,
  kTestPassed,
  kFleetBoards,
  kFleetHeldBoards,
  kFleetStoreUp,
  kFleetLeasesUp,
  kFleetRunsUnderWay,
  kFleetWaitingRuns,
  kFleetWaitingBytes,
  kFleetStartedRuns,
  kFleetWholeRuns,
  kFleetDroppedRuns,
  kFleetRefusedRuns,
  kFleetRefusedEvents,
  kFleetSkippedPolls,
  kFleetStrangers,
  kFleetStartedAlarms,
  kFleetFailedAlarms,
  kFleetDroppedAlarms,
  kFleetSeriesLeftOut,
  kOwnFamilies
};

// How what a names file explains becomes a sample.
struct MetricPlan {
  size_t family = 0;
  kepserver::Key number;  // gives the number in the base unit, unrounded; of no use for states
  bool isState = false;
  bool isBits = false;
  std::map<std::string, std::set<int64_t>> words;  // of states: their numbers; of bits: theirs. Empty: the value itself
};

class MetricNames {
 public:
  // Throws ConfigError when one name has two meanings: another kind, unit or set of labels in another file, or another
  // place in the same one.
  explicit MetricNames(const std::map<std::string, NamesPointer> &files);

  const std::vector<Family> &families() const { return families_; }

  // nullptr: no number
  const MetricPlan *find(const kepserver::Meaning *meaning) const;

  // Whether `names` are those of a file that was there at the start, or name nothing.
  bool knows(const kepserver::Names &names) const;

 private:
  // Where in a file something is named.
  struct Place {
    std::string path;
    std::string item;
    bool isTest = false;
    std::optional<int64_t> section;  // empty: any
    int64_t key = 0;
    size_t field = 0;  // counted from 1; 0: the value itself

    std::string text() const;
    bool meets(const Place &other) const;  // whether a board can send both in one section
  };

  void addFile(const std::string &path, const kepserver::Names &names);
  void addKeys(const kepserver::Keys &keys, const Place &place);
  void addMeaning(const kepserver::Meaning &meaning, const std::string &name, const Place &place);
  size_t familyOf(Family family, const Place &place);

  std::vector<Family> families_;
  std::map<std::string, size_t> byName_;
  std::map<size_t, std::vector<Place>> places_;  // of the file that is being added, by family
  std::unordered_map<const kepserver::Meaning *, MetricPlan> plans_;
  std::map<std::string, NamesPointer> files_;  // that the plans point into
};

}  // namespace kepfleet
