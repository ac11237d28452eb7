// run_report.hpp: prints what a run brought, as text, JSON lines or CSV.
#pragma once

#include <ostream>

#include "server/print.hpp"
#include "server/stream.hpp"

namespace kepserver {

// Prints one run after the other to the same stream; the caller looks at the stream's state. Needs little memory beside
// the run, whatever is in it. Nothing that a board sends can steer a terminal.
class RunReporter {
 public:
  RunReporter(std::ostream &out, const Style &style) : out_(out), style_(style) {}

  // Prints also what came of a run that did not end well.
  void write(const Run &run);

 private:
  std::ostream &out_;
  Style style_;
  bool first_ = true;
};

}  // namespace kepserver
