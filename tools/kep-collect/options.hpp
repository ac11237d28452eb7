// options.hpp: the command line of kep-collect.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "common/names_file.hpp"
#include "common/process.hpp"
#include "common/request.hpp"
#include "server/print.hpp"

namespace kepcollect {

struct Options {
  std::vector<std::string> boards;            // as the line names them; none to replay a file
  std::vector<kepcommand::Request> requests;  // one for each
  std::optional<int32_t> sequence;            // empty: another random one each time
  std::chrono::milliseconds watch{0};         // 0: a single run
  bool untilPass = false;
  bool onlyChanges = false;
  std::string rawFile;
  std::string replayFile;
  kepserver::Style style;
  kepcommand::BoardNames names;
};

// Reads the line. Returns the command's status where there is nothing left to be done.
std::optional<kepcommand::ExitStatus> readOptions(int argc, char **argv, Options &options);

}  // namespace kepcollect
