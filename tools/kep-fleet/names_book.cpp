// names_book.cpp: all files are read before any of them is used, so that a broken one changes nothing.

#include "kep-fleet/names_book.hpp"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "common/process.hpp"
#include "server/text.hpp"

namespace kepfleet {

namespace {

constexpr size_t kMaxMebibytes = 1;

std::string textOf(const std::string &path) {
  try {
    return kepcommand::contentOf(path, kMaxMebibytes);
  } catch (const kepcommand::Failure &failure) {
    throw std::runtime_error(failure.text);
  }
}

NamesPointer readNames(const std::string &path) {
  try {
    return std::make_shared<const kepserver::Names>(kepserver::parseNames(textOf(path), path, textOf));
  } catch (const kepserver::NamesError &error) {
    throw ConfigError{error.file, error.line, error.reason};
  } catch (const std::runtime_error &error) {
    throw ConfigError{"", 0, error.what()};
  }
}

// Others in the folder are what these include.
bool isOfIdentity(const std::filesystem::path &path) {
  const std::string stem = path.stem().string();
  return path.extension() == ".toml" && stem.size() == 4 &&
         stem.find_first_not_of("0123456789abcdef") == std::string::npos;
}

std::vector<std::filesystem::path> filesIn(const std::string &folder) {
  std::error_code error;
  std::vector<std::filesystem::path> files;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
    if (isOfIdentity(entry->path())) files.push_back(entry->path());
  }
  if (error) throw ConfigError{"", 0, "cannot read " + folder + ": " + error.message()};
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

void NamesBook::load(const Config &config) {
  std::map<std::string, NamesPointer> byPath, byIdentity;
  const auto read = [&byPath](const std::string &path) {
    NamesPointer &names = byPath[path];
    if (!names) names = readNames(path);
    return names;
  };
  if (!config.namesDir.empty()) {
    for (const std::filesystem::path &path : filesIn(config.namesDir)) byIdentity[path.stem().string()] = read(path);
  }
  for (const BoardConfig &board : config.boards) {
    if (!board.namesFile.empty()) read(board.namesFile);
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  byPath_ = std::move(byPath);
  byIdentity_ = std::move(byIdentity);
}

NamesPointer NamesBook::of(const BoardConfig &board, const std::string &identity) const {
  static const NamesPointer kNone = std::make_shared<const kepserver::Names>();
  const std::lock_guard<std::mutex> lock(mutex_);
  const bool byPath = !board.namesFile.empty();
  const auto &book = byPath ? byPath_ : byIdentity_;
  const auto found = book.find(byPath ? board.namesFile : kepserver::hex(identity));
  return found == book.end() ? kNone : found->second;
}

std::map<std::string, NamesPointer> NamesBook::all() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return byPath_;
}

}  // namespace kepfleet
