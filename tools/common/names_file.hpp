// names_file.hpp: a names file, read by a command.
#pragma once

#include <string>

#include "server/names.hpp"

namespace kepcommand {

// Reads the file and what it includes, "-" being standard input. Throws Failure: kUsage when it cannot be opened,
// kDamaged with file and line when it, or what it includes, is refused.
kepserver::Names readNamesFile(const std::string &path);

}  // namespace kepcommand
