// report.hpp: prints what a run brought, as text, JSON lines or CSV.

#ifndef KEP_COLLECT_REPORT_HPP
#define KEP_COLLECT_REPORT_HPP

#include <ostream>
#include <string>

#include "stream.hpp"

namespace kepcollect {

enum class Format { kText, kJson, kCsv };

// Makes bytes fit to be shown: printable UTF-8 stays as it is, a backslash becomes \\, a line feed \n, a carriage
// return \r, a tab \t, and every other byte \xHH, so that nothing a board sends can steer a terminal and every byte
// can be told.
std::string printable(const std::string &bytes);

// Prints one run after the other to the same stream; the caller looks at the stream's state.
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
