// query.cpp: reads and writes the text of a query.

#include "query.hpp"

#include <cstdint>

namespace kepconfig {

namespace {

constexpr std::string_view kPrefix = "=>config ";
constexpr std::string_view kHexDigits = "0123456789abcdef";

// Takes the field in front of the next blank, and the blank; nothing when there is no blank, or nothing in front of it.
std::optional<std::string> takeField(std::string_view &text) {
  const size_t size = text.find(' ');
  if (size == 0 || size == std::string_view::npos) return std::nullopt;
  std::string field(text.substr(0, size));
  text.remove_prefix(size + 1);
  return field;
}

}  // namespace

std::optional<Query> parseQuery(std::string_view datagram) {
  if (datagram.size() > kMaxSize || datagram.substr(0, kPrefix.size()) != kPrefix) return std::nullopt;
  std::string_view rest = datagram.substr(kPrefix.size());
  std::optional<std::string> section = takeField(rest);
  std::optional<std::string> key = takeField(rest);
  if (!section || !key) return std::nullopt;
  return Query{*std::move(section), *std::move(key), std::string(rest)};
}

std::string formatQuery(const Query &query) {
  return std::string(kPrefix) + query.section + " " + query.key + " " + query.defaultValue;
}

bool canBeAsked(const Query &query) {
  const std::optional<Query> read = parseQuery(formatQuery(query));
  return read && read->section == query.section && read->key == query.key;
}

std::string escaped(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto byte = static_cast<uint8_t>(c);
    if (c == '\\') {
      text += "\\\\";
    } else if (byte >= 0x20 && byte < 0x7F) {
      text += c;
    } else {
      text += {'\\', 'x', kHexDigits[byte >> 4], kHexDigits[byte & 0xF]};
    }
  }
  return text;
}

}  // namespace kepconfig
