// named_text.hpp: a run as a person reads it.
#pragma once

#include "server/named_run.hpp"
#include "server/print.hpp"

namespace kepserver {

// Prints item, section, key and value with its unit, the lines of logs behind their times, and of a self-test what
// came of it; behind the values, and marked, those that are gone. Where there is a width to keep long texts go on under
// their column, or are cut.
void putNamedText(Sink &out, const Style &style, const NamedRun &named, const NamedRun &gone);

}  // namespace kepserver
