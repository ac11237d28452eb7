#include "common/names_file.hpp"

#include <stdexcept>

#include "common/process.hpp"

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

}  // namespace kepcommand
