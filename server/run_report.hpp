// run_report.hpp: prints what a run brought, as text, JSON lines or CSV.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <utility>

#include "server/names.hpp"
#include "server/print.hpp"
#include "server/stream.hpp"

namespace kepserver {

// What stands in front of a run.
struct Heading {
  std::string board;    // empty: there is only one
  int status = 0;       // what came of the board's run, as an exit status
  uint64_t number = 0;  // of the run; 0: there is only one
  int64_t time = 0;     // of its request, in seconds since 1970
};

// Prints one run after the other to the same stream; the caller looks at the stream's state. Without names it needs
// little memory beside the run, whatever is in it. Nothing that a board sends can steer a terminal.
//
// With `before`, which must be whole, it prints what differs from it.
class RunReporter {
 public:
  RunReporter(std::ostream &out, const Style &style) : out_(out), style_(style) {}

  // What is written from now on stands behind this.
  void setHeading(Heading heading) { heading_ = std::move(heading); }

  // Prints also what came of a run that did not end well.
  void write(const Run &run, const Run *before = nullptr);

  // With names, as collected so many seconds after 1970 began. In text names stand in the place of numbers; in JSON and
  // CSV both stand beside each other. The runs of one output all have names, be they none, or none has.
  void write(const Run &run, const Names &names, int64_t collected, const Run *before = nullptr);

  // For a board that did not answer.
  void writeNone(bool isNamed);

 private:
  void begin(Sink &out, bool isNamed);
  void putHeading(Sink &out) const;
  void putJsonHeading(Sink &out) const;
  void putCsvHeading(Sink &out, size_t added) const;
  std::string stamp() const;

  std::ostream &out_;
  Style style_;
  bool first_ = true;
  Heading heading_;
};

}  // namespace kepserver
