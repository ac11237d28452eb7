#include "common/names_file.hpp"

#include <stdexcept>

#include "common/command_line.hpp"
#include "common/process.hpp"
#include "server/text.hpp"

namespace kepcommand {

namespace {

constexpr size_t kMaxMebibytes = 1;

// Why there is no such file is told by the line that includes it; a signal is none of its reasons.
std::string includedText(const std::string &path) {
  try {
    return contentOf(path, kMaxMebibytes);
  } catch (const Failure &failure) {
    if (failure.status == kBrokenOff) throw;
    throw std::runtime_error(failure.text);
  }
}

}  // namespace

kepserver::Names readNamesFile(const std::string &path) {
  const std::string text = contentOf(path, kMaxMebibytes);
  try {
    return kepserver::parseNames(text, path, includedText);
  } catch (const kepserver::NamesError &error) {
    throw Failure{kDamaged, error.text()};
  }
}

const kepserver::Names &noNames() {
  static const kepserver::Names kNone;
  return kNone;
}

CLI::Option *addNames(CLI::App &app, std::string &path) {
  return app.add_option("--names", path, "Names file: what the numbers mean")->type_name("FILE")->check(checkFile);
}

std::vector<CLI::Option *> BoardNames::addOptions(CLI::App &app) {
  CLI::Option *const file = addNames(app, file_);
  CLI::Option *const folder =
      app.add_option("--names-dir", folder_, "Folder of names files, as 0b01.toml for board 0b01");
  folder->type_name("DIR")->check(checkFile)->excludes(file);
  return {file, folder};
}

void BoardNames::prepare() {
  if (!file_.empty()) namesIn(file_);
}

const kepserver::Names &BoardNames::of(const kepserver::Run &run) {
  if (!file_.empty()) return namesIn(file_);
  if (!run.identity) return noNames();
  return namesIn(folder_ + "/" + kepserver::hex(run.identity->bytes.substr(0, 2)) + ".toml");
}

const kepserver::Names &BoardNames::namesIn(const std::string &path) {
  const auto known = read_.find(path);
  return known != read_.end() ? known->second : read_.emplace(path, readNamesFile(path)).first->second;
}

}  // namespace kepcommand
