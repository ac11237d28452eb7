// named_run.hpp: a run's values in the order in which they are printed, each with what its names say of it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "server/part.hpp"
#include "server/present.hpp"
#include "server/stream.hpp"

namespace kepserver {

struct NamedValue {
  const Value *value = nullptr;
  const Key *key = nullptr;  // nullptr: not named
  std::vector<Shown> shown;  // one, or one for each named field
  std::string sectionName;   // empty: not named
  std::string_view time;     // of a log's line, as the board wrote it; of a time, itself
  bool isTime = false;       // the time of the log's line behind it
  bool isSection = false;    // nothing but the name of the section in which others stand

  bool hasFields() const { return key && shown[0].meaning != &key->meaning; }
};

// Makes the values one by one, as often as it is asked to: a run can have more of them than there is memory for all
// that is to be said of them. Lives as long as both the names and the part of the run.
class NamedRun {
 public:
  NamedRun(const Names &names, const Part &part, int64_t collected)
      : names_(names), part_(part), collected_(collected), lookup_(names, part.run) {}

  void forEach(const std::function<void(const NamedValue &)> &take) const;

  const Part &part() const { return part_; }
  const Run &run() const { return part_.run; }
  const Names &names() const { return names_; }

  // A board's time with what it lacks of a year and a zone; empty when it is none.
  std::string fullTime(std::string_view time) const;

  const Item *item(const Value &value) const { return lookup_.item(value); }

 private:
  bool isOfLog(const Value &value) const;
  NamedValue named(const Value &value) const;

  const Names &names_;
  const Part &part_;
  int64_t collected_;  // seconds since 1970
  RunNames lookup_;
};

// What came of a self-test; of its items and what is missing only those that differ from the run before, where only
// changes are printed.
Judgement verdictsOf(const NamedRun &named);

}  // namespace kepserver
