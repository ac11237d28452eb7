// toml_table.cpp: what is looked at before toml++ reads a file, and the attributes of its tables.

#include "server/toml_table.hpp"

#include <algorithm>
#include <charconv>
#include <utility>

#include "server/text.hpp"

namespace kepserver {

namespace {

constexpr int kMaxDepth = 16;  // of brackets, and of names joined by dots

std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  for (size_t start = 0, end = 0; end != std::string_view::npos; start = end + 1) {
    end = text.find('\n', start);
    lines.push_back(text.substr(start, end - start));
  }
  return lines;
}

// The parser recurses as deep as a file nests, and takes only ASCII outside of quotes; both are looked at before it
// runs. Texts stand on one line each, so that a quote is closed where its line ends.
class Inspection {
 public:
  explicit Inspection(const TomlFile &file) : file_(file) {}

  void run() {
    for (line_ = 1; line_ <= file_.lines.size(); ++line_) {
      const std::string_view line = file_.lines[line_ - 1];
      dots_ = 0;
      for (size_t i = 0; i < line.size() && line[i] != '#'; ++i) {
        if (line[i] == '"' || line[i] == '\'') {
          i = endOfQuote(line, i);
        } else {
          look(line[i]);
        }
      }
    }
  }

 private:
  size_t endOfQuote(std::string_view line, size_t start) const {
    const char quote = line[start];
    if (line.substr(start, 3) == std::string(3, quote)) file_.fail(line_, "a text of several lines; expected one line");
    size_t i = start + 1;
    while (i < line.size() && line[i] != quote) i += line[i] == '\\' && quote == '"' ? 2U : 1U;
    return i;
  }

  void look(char c) {
    if (static_cast<uint8_t>(c) >= 0x80) file_.fail(line_, "a letter that is not ASCII; expected quotes around it");
    if (c == '[' || c == '{') ++depth_;
    if (c == ']' || c == '}') --depth_;
    // A number has a dot, too: what parts numbers starts the count again. What lies in quotes cannot.
    if (c == ',' || c == '=' || c == '{') dots_ = 0;
    if (c == '.') ++dots_;
    if (depth_ > kMaxDepth || dots_ > kMaxDepth) file_.fail(line_, "nested too deep; expected 16 levels at most");
  }

  const TomlFile &file_;
  size_t line_ = 0;
  int depth_ = 0, dots_ = 0;
};

// A number as it stands in the file: TOML's own is binary, and does not know of a last zero.
std::string_view literalOf(const TomlFile &file, const toml::node &node) {
  const auto [begin, end] = std::pair{node.source().begin, node.source().end};
  const std::string_view line = file.lines.at(begin.line - 1);
  size_t column = 0, first = line.size(), last = first;
  for (size_t i = 0; i < line.size(); ++i) {
    if ((static_cast<uint8_t>(line[i]) & 0xC0) == 0x80) continue;  // columns count characters
    if (++column == begin.column) first = i;
    if (column == end.column) last = i;
  }
  return line.substr(first, last - first);
}

}  // namespace

std::string inQuotes(std::string_view text) { return "\"" + printable(text) + "\""; }

std::string_view typeOf(const toml::node &node) {
  switch (node.type()) {
    case toml::node_type::table: return "a table";
    case toml::node_type::array: return "a list";
    case toml::node_type::string: return "a text";
    case toml::node_type::integer:
    case toml::node_type::floating_point: return "a number";
    case toml::node_type::boolean: return "true or false";
    default: return "a date or a time";
  }
}

std::optional<int64_t> wholeNumberIn(std::string_view text) {
  const bool isHex = text.substr(0, 2) == "0x";
  if (isHex) text.remove_prefix(2);
  int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, isHex ? 16 : 10);
  if (error != std::errc() || end != text.data() + text.size() || (isHex && text[0] == '-')) return std::nullopt;
  return number;
}

std::string checkedText(const TomlFile &file, const toml::node &at, const std::string &text) {
  std::string plain = text;
  plain.erase(std::remove(plain.begin(), plain.end(), '\\'), plain.end());
  if (text.empty()) file.fail(at, "an empty text; expected one that can be seen");
  if (printable(plain) != plain) file.fail(at, inQuotes(text) + " holds what does not show; expected a text that does");
  return text;
}

void TomlTable::fail(std::string_view name, const std::string &reason) const {
  const toml::node *const node = table_->get(name);
  file_.fail(node ? *node : node_, std::string(name) + ": " + reason);
}

const toml::node *TomlTable::take(std::string_view name) {
  known_.emplace_back(name);
  return table_->get(name);
}

std::optional<std::string> TomlTable::text(std::string_view name) {
  const toml::node *const node = take(name);
  if (!node) return std::nullopt;
  if (!node->is_string()) fail(name, "expected a text, not " + std::string(typeOf(*node)));
  return checkedText(file_, *node, **node->as_string());
}

std::optional<Decimal> TomlTable::number(std::string_view name) {
  const toml::node *const node = take(name);
  if (!node) return std::nullopt;
  if (!node->is_number()) fail(name, "expected a number, not " + std::string(typeOf(*node)));
  if (node->is_integer()) return Decimal(**node->as_integer());
  const std::optional<Decimal> number = Decimal::parse(literalOf(file_, *node));
  if (!number) fail(name, "expected a number of at most 18 digits in front of its point and 36 behind it");
  return number;
}

std::optional<int64_t> TomlTable::whole(std::string_view name, int64_t smallest, int64_t largest) {
  const toml::node *const node = take(name);
  if (!node) return std::nullopt;
  if (!node->is_integer() || **node->as_integer() < smallest || **node->as_integer() > largest) {
    fail(name, "expected a whole number from " + std::to_string(smallest) + " to " + std::to_string(largest));
  }
  return **node->as_integer();
}

std::optional<bool> TomlTable::flag(std::string_view name) {
  const toml::node *const node = take(name);
  if (node && !node->is_boolean()) fail(name, "expected true or false, not " + std::string(typeOf(*node)));
  return node ? std::optional<bool>(**node->as_boolean()) : std::nullopt;
}

std::optional<TomlTable> TomlTable::table(std::string_view name) {
  const toml::node *const node = take(name);
  return node ? std::optional<TomlTable>(std::in_place, file_, *node) : std::nullopt;
}

void TomlTable::finish() const {
  const toml::key *first = nullptr;
  for (auto &&[key, node] : *table_) {
    if (std::find(known_.begin(), known_.end(), key.str()) != known_.end()) continue;
    if (!first || key.source().begin < first->source().begin) first = &key;
  }
  if (!first) return;
  std::string expected;
  for (const std::string &name : known_) expected += (expected.empty() ? "" : ", ") + name;
  file_.fail(first->source().begin.line, "unknown attribute " + inQuotes(first->str()) + "; expected " + expected);
}

void readToml(std::string_view text, const std::string &path, size_t maxMebibytes,
              const std::function<void(TomlTable &)> &use) {
  if (text.substr(0, 3) == "\xEF\xBB\xBF") text.remove_prefix(3);
  const TomlFile file{path, linesOf(text)};
  if (text.size() > maxMebibytes << 20) file.fail(1, "expected no more than " + std::to_string(maxMebibytes) + " MiB");
  Inspection(file).run();
  try {
    const toml::table root = toml::parse(text);
    TomlTable table(file, root);
    use(table);
    table.finish();
  } catch (const toml::parse_error &error) {
    file.fail(error.source().begin.line, std::string(error.description()));
  }
}

}  // namespace kepserver
