// run_report.hpp: prints what a run brought, as text, JSON lines or CSV.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "server/names.hpp"
#include "server/print.hpp"
#include "server/stream.hpp"

namespace kepserver {

// Prints one run after the other to the same stream; the caller looks at the stream's state. Without names it needs
// little memory beside the run, whatever is in it. Nothing that a board sends can steer a terminal.
class RunReporter {
 public:
  RunReporter(std::ostream &out, const Style &style) : out_(out), style_(style) {}

  // The run that is written next begins with its number and the time of its collection, in seconds since 1970.
  void stampNext(uint64_t number, int64_t collected);

  // Prints also what came of a run that did not end well.
  void write(const Run &run);

  // With names, as collected so many seconds after 1970 began. In text names stand in the place of numbers; in JSON and
  // CSV both stand beside each other. The runs of one output all have names, be they none, or none has.
  void write(const Run &run, const Names &names, int64_t collected);

 private:
  void begin(Sink &out, bool isNamed);
  void putStamp(Sink &out, bool isNamed) const;

  std::ostream &out_;
  Style style_;
  bool first_ = true;
  uint64_t number_ = 0;
  std::string stamp_;  // empty: none
};

}  // namespace kepserver
