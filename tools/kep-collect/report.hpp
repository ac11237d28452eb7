// report.hpp: prints what a run brought, as text, JSON lines or CSV.

#ifndef KEP_COLLECT_REPORT_HPP
#define KEP_COLLECT_REPORT_HPP

#include <ostream>
#include <string>

#include "stream.hpp"

namespace kepcollect {

enum class Format { kText, kJson, kCsv };

// Prints one run after the other to the same stream; the caller looks at the stream's state. Needs little memory beside
// the run, whatever is in it. Nothing that a board sends can steer a terminal.
class Reporter {
 public:
  Reporter(std::ostream &out, Format format) : out_(out), format_(format) {}

  // Prints also what came of a run that did not end well.
  void write(const Run &run);

 private:
  std::ostream &out_;
  Format format_;
  bool first_ = true;
};

}  // namespace kepcollect

#endif
