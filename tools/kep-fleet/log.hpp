// log.hpp: the server's own log, on standard error. Written with spdlog's functions, after this.
#pragma once

#include "kep-fleet/config.hpp"

namespace kepfleet {

// To be called before there are threads; what changes later is the level, by spdlog::set_level. Whatever bytes a line
// holds, it is one line, and fit for a terminal.
void setUpLog(const LogConfig &config);

}  // namespace kepfleet
