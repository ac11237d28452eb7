// names_file.hpp: names files, read by a command.
#pragma once

#include <CLI/CLI.hpp>
#include <map>
#include <string>
#include <vector>

#include "server/names.hpp"
#include "server/stream.hpp"

namespace kepcommand {

// Reads the file and what it includes, "-" being standard input. Throws Failure: kUsage when it cannot be opened,
// kDamaged with file and line when it, or what it includes, is refused.
kepserver::Names readNamesFile(const std::string &path);

// Of a board of which nothing is known.
const kepserver::Names &noNames();

// Adds --names, whose file is yet to be read.
CLI::Option *addNames(CLI::App &app, std::string &path);

// The names of boards: one file's for all, or a folder's, in which each board has one. A file is read once.
class BoardNames {
 public:
  // Adds --names and --names-dir.
  std::vector<CLI::Option *> addOptions(CLI::App &app);

  bool areGiven() const { return !file_.empty() || !folder_.empty(); }

  // Reads what does not depend on the board, so that it is refused before one is asked. Throws as readNamesFile does.
  void prepare();

  // Throws as readNamesFile does. A board that has not said who it is has no names in a folder.
  const kepserver::Names &of(const kepserver::Run &run);

 private:
  const kepserver::Names &namesIn(const std::string &path);

  std::string file_, folder_;
  std::map<std::string, kepserver::Names> read_;  // by path
};

}  // namespace kepcommand
