// toml_table.hpp: files in TOML in which nothing is guessed. A table hands out its attributes one by one; whatever
// nobody asked for is unknown, and refused.
#pragma once

#include <toml++/toml.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "server/decimal.hpp"
#include "server/names.hpp"

namespace kepserver {

std::string inQuotes(std::string_view text);

struct TomlFile {
  std::string path;
  std::vector<std::string_view> lines;

  [[noreturn]] void fail(size_t line, std::string reason) const { throw NamesError{path, line, std::move(reason)}; }
  [[noreturn]] void fail(const toml::node &at, std::string reason) const {
    fail(at.source().begin.line, std::move(reason));
  }
};

std::string_view typeOf(const toml::node &node);  // "a table"

// A text that can go to a terminal as it is, and is not empty; another is refused.
std::string checkedText(const TomlFile &file, const toml::node &at, const std::string &text);

// Decimal, or hexadecimal behind 0x.
std::optional<int64_t> wholeNumberIn(std::string_view text);

// Every reader below throws NamesError for what is there and not as expected, and returns nothing for what is not
// there.
class TomlTable {
 public:
  TomlTable(const TomlFile &file, const toml::node &node) : file_(file), node_(node), table_(node.as_table()) {
    if (!table_) fail("expected a table, not " + std::string(typeOf(node)));
  }

  [[noreturn]] void fail(const std::string &reason) const { file_.fail(node_, reason); }
  [[noreturn]] void fail(std::string_view name, const std::string &reason) const;

  const TomlFile &file() const { return file_; }
  bool has(std::string_view name) const { return table_->contains(name); }
  bool empty() const { return table_->empty(); }

  const toml::node *take(std::string_view name);
  std::optional<std::string> text(std::string_view name);
  std::optional<Decimal> number(std::string_view name);
  std::optional<int64_t> whole(std::string_view name, int64_t smallest, int64_t largest);
  std::optional<bool> flag(std::string_view name);
  std::optional<TomlTable> table(std::string_view name);

  // Calls `use(number, node)` for entries that have a number for a name, each once however it is written.
  template <class Use>
  void eachNumbered(int64_t smallest, int64_t largest, const Use &use) const {
    std::set<int64_t> seen;
    for (auto &&[key, node] : *table_) {
      const std::optional<int64_t> number = wholeNumberIn(key.str());
      const size_t line = key.source().begin.line;
      if (!number || *number < smallest || *number > largest) {
        file_.fail(line, inQuotes(key.str()) + "; expected a number from " + std::to_string(smallest) + " to " +
                             std::to_string(largest));
      }
      if (!seen.insert(*number).second) file_.fail(line, std::to_string(*number) + " stands there twice");
      use(*number, node);
    }
  }

  template <class Use>
  void eachNamed(const Use &use) const {
    for (auto &&[key, node] : *table_) use(std::string(key.str()), node);
  }

  // To be called when all that is known has been taken.
  void finish() const;

 private:
  const TomlFile &file_;
  const toml::node &node_;
  const toml::table *table_;
  std::vector<std::string> known_;
};

// Reads a file's text, of at most so many MiB, hands its table to `use`, and refuses what that leaves. Throws
// NamesError.
void readToml(std::string_view text, const std::string &path, size_t maxMebibytes,
              const std::function<void(TomlTable &)> &use);

}  // namespace kepserver
