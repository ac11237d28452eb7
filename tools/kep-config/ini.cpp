// ini.cpp: one line after the other.

#include "ini.hpp"

#include <string_view>

#include "query.hpp"

namespace kepconfig {

namespace {

std::string trimmed(std::string_view text) {
  constexpr std::string_view kSpace = " \t\r\v\f";
  const size_t first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return "";
  return std::string(text.substr(first, text.find_last_not_of(kSpace) + 1 - first));
}

class IniParser {
 public:
  void readLine(std::string_view line) {
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";  // as some editors begin a file in UTF-8
    if (++line_ == 1 && line.substr(0, kByteOrderMark.size()) == kByteOrderMark) {
      line.remove_prefix(kByteOrderMark.size());
    }
    // A board would take it for the value's end.
    if (line.find('\0') != std::string_view::npos) fail("a zero byte");
    const std::string text = trimmed(line);
    if (text.empty() || text[0] == ';' || text[0] == '#') return;
    if (text[0] == '[') {
      readSection(text);
    } else {
      readSetting(text);
    }
  }

  Settings take() { return std::move(settings_); }

 private:
  [[noreturn]] void fail(const std::string &reason) const { throw IniError(line_, reason); }

  void readSection(const std::string &text) {
    if (text.find(']') != text.size() - 1) fail("a section's line must end with its only ]");
    section_ = trimmed(std::string_view(text).substr(1, text.size() - 2));
    checkName("section", section_, {section_, "k", ""});
  }

  void readSetting(const std::string &text) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos) fail("neither [section] nor key = value nor a comment");
    const std::string key = trimmed(std::string_view(text).substr(0, equals));
    const std::string value = trimmed(std::string_view(text).substr(equals + 1));
    if (section_.empty()) fail("a key before the first section");
    checkName("key", key, {section_, key, ""});
    if (value.size() > kMaxSize) {
      fail("a value of " + std::to_string(value.size()) + " bytes; an answer holds " + std::to_string(kMaxSize));
    }
    const auto [place, isNew] = settings_.insert({{section_, key}, {value, line_}});
    if (!isNew) fail("the key stands in line " + std::to_string(place->second.line) + " already");
  }

  void checkName(const std::string &what, const std::string &name, const Query &query) const {
    if (name.empty()) fail("a " + what + " without a name");
    if (name.find(' ') != std::string::npos) fail("a " + what + " with a blank in it can never be asked for");
    if (!canBeAsked(query)) fail("a query for this " + what + " would be too long");
  }

  Settings settings_;
  std::string section_;
  size_t line_ = 0;
};

}  // namespace

Settings parseIni(std::istream &in) {
  IniParser parser;
  for (std::string line; std::getline(in, line);) parser.readLine(line);
  return parser.take();
}

}  // namespace kepconfig
